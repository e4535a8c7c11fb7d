"""The first process of the sandbox: starts programs and tells of every process's end.

The test process talks to it over a socket, one JSON object per line each way. Being
process 1 it inherits daemons that have detached, and with its end the kernel ends all.
"""

import json
import os
import select
import signal
import socket
import sys


def start(request: dict) -> dict:
    """Starts a program; its output is appended to the files named."""
    append = os.O_WRONLY | os.O_CREAT | os.O_APPEND
    actions = [(os.POSIX_SPAWN_OPEN, 0, "/dev/null", os.O_RDONLY, 0),
               (os.POSIX_SPAWN_OPEN, 1, request["stdout"], append, 0o644),
               (os.POSIX_SPAWN_OPEN, 2, request["stderr"], append, 0o644)]
    # A shell that runs the tests in the background has them ignore the first two.
    defaults = [signal.SIGINT, signal.SIGQUIT, signal.SIGPIPE, signal.SIGXFSZ]
    pid = os.posix_spawn(request["argv"][0], request["argv"], request["environment"],
                         file_actions=actions, setsigdef=defaults)
    return {"pid": pid}


def send_signal(request: dict) -> dict:
    """Sends a signal."""
    os.kill(request["pid"], request["number"])
    return {}


def read(path: str) -> str:
    """Returns the text of a small file of /proc."""
    with open(path, "rb") as file:
        return file.read().decode(errors="replace")


def status_of(base: str) -> dict:
    """Returns the fields of a process's, or a thread's, status."""
    return dict(line.split(":\t", 1) for line in read(f"{base}/status").splitlines() if ":\t" in line)


def threads_of(base: str) -> list:
    """Returns a process's threads; one that ends meanwhile is left out."""
    found = []
    for task in os.listdir(f"{base}/task"):
        try:
            status = status_of(f"{base}/task/{task}")
        except (FileNotFoundError, ProcessLookupError):
            continue
        found.append({"name": status["Name"], "blocked": int(status["SigBlk"], 16)})
    return found


def target_of(link: str) -> str:
    """Returns where a link of /proc leads; nothing if that is gone."""
    try:
        return os.readlink(link)
    except FileNotFoundError:
        return ""


def descriptors_of(base: str) -> dict:
    """Returns a process's descriptors; one that it closes meanwhile is left out."""
    targets = {number: target_of(f"{base}/fd/{number}") for number in os.listdir(f"{base}/fd")}
    return {number: target for number, target in targets.items() if target}


def describe(pid: str) -> dict:
    """Returns what the tests ask about a process."""
    base = f"/proc/{pid}"
    status = status_of(base)
    # A zombie has neither descriptors nor a directory any more.
    lives = status["State"][0] != "Z"
    descriptors = descriptors_of(base) if lives else {}
    return {"pid": int(pid), "parent": int(status["PPid"]), "name": status["Name"],
            "state": status["State"][0], "session": int(read(f"{base}/stat").rsplit(")", 1)[1].split()[3]),
            "arguments": read(f"{base}/cmdline").split("\0")[:-1],
            "directory": target_of(f"{base}/cwd") if lives else "", "umask": status.get("Umask", "").strip(),
            "caught": int(status["SigCgt"], 16), "threads": threads_of(base), "descriptors": descriptors}


def processes(_request: dict) -> dict:
    """Returns all processes but this one; what vanishes meanwhile is left out."""
    found = []
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            if int(pid) != os.getpid():
                found.append(describe(pid))
        except (FileNotFoundError, ProcessLookupError, PermissionError):
            continue
    return {"processes": found}


OPERATIONS = {"start": start, "signal": send_signal, "processes": processes}


def carry_out(request: dict) -> dict:
    """Returns the reply to a request; a failure is one, too."""
    try:
        return OPERATIONS[request["operation"]](request)
    except OSError as error:
        return {"error": str(error)}


def ended() -> list:
    """Reaps and returns what has ended, as events."""
    events = []
    try:
        while True:
            pid, status = os.waitpid(-1, os.WNOHANG)
            if pid == 0:
                break
            events.append({"ended": pid, "status": os.waitstatus_to_exitcode(status)})
    except ChildProcessError:
        pass
    return events


def main() -> None:
    """Serves until the test process closes the socket."""
    channel = socket.socket(fileno=int(sys.argv[1]))
    channel.set_inheritable(False)
    lines = channel.makefile("r")
    woken, wake = os.pipe2(os.O_NONBLOCK | os.O_CLOEXEC)
    signal.set_wakeup_fd(wake)
    signal.signal(signal.SIGCHLD, lambda *_: None)

    def tell(message: dict) -> None:
        channel.sendall(json.dumps(message).encode() + b"\n")

    tell({"ready": True})
    while True:
        readable = select.select([channel, woken], [], [])[0]
        if channel in readable:
            line = lines.readline()
            if not line:
                return
            tell(carry_out(json.loads(line)))
        if woken in readable:
            os.read(woken, 4096)
        for event in ended():
            tell(event)


if __name__ == "__main__":
    main()
