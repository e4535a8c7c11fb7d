"""A gateway as a test sees it: its API, its commands, its files and the program."""

from __future__ import annotations

import json
import os
import signal
import stat
import sys
import time
from pathlib import Path
from typing import Any, Callable

from .records import Record, Syslog, complete_lines, other_lines, parse_records, record_times
from .sandbox import PATIENCE, RESOLVER, Sandbox, Tools, default_environment

sys.path.insert(0, str(Path(__file__).resolve().parents[3] / "tools"))

from gateway_api import ApiServer, StateFile  # noqa: E402

PROGRAM = "/tools/product/bin/tunnel_mngr"
PID_FILE = "/var/run/tunnel_mngr.pid"
SEMAPHORE = "/dev/shm/sem.TUNNEL_MANAGER"
API_SOCKET = "/var/run/api/http.sock"
WAN_PATH = "/api/waninfo/wans"
PULL_PATH = "/api?fields=greTunnels,ipsecTunnels"
OVPN_PATH = "/api?fields=ovpnTunnels"
SYSLOG_PATH = "/api?fields=syslog"
NAME_SERVER_OPTIONS = ("-k", "--conf-file=/dev/null", "--user=root", "--no-resolv", "--no-hosts",
                       "--addn-hosts=/harness/hosts", "--local=/example/", "--local-ttl=0",
                       "--bind-interfaces", "--listen-address=127.0.0.1", "--pid-file=",
                       "--log-facility=-")
# Many of the main loop's turns.
RESEND_SECONDS = 2.0
CYCLE_END = "Number of FQDN monitors is "


def wan(address: str = "198.51.100.2") -> list[dict[str, Any]]:
    """Returns a list of WANs with one current address."""
    return [{"current": True, "ip": address}]


def wait_for(condition: Callable[[], Any], patience: float = PATIENCE) -> Any:
    """Waits until the condition holds and returns what it gave."""
    limit = time.monotonic() + patience
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > limit:
            raise TimeoutError("the condition has not come true")
        time.sleep(0.005)


def shell_quote(text: str) -> str:
    """Returns the text as one shell word in which only * is special."""
    return "*".join("'" + piece.replace("'", "'\\''") + "'" for piece in text.split("*"))


class Run:
    """One start of the program."""

    def __init__(self, sandbox: Sandbox, arguments: list[str], environment: dict[str, str],
                 stderr: str | None = None) -> None:
        self._sandbox = sandbox
        self.pid, self._out, self._err = sandbox.start(arguments, environment, stderr)

    def exit_status(self, patience: float = PATIENCE) -> int:
        """Waits for the end; -N means a death by signal N."""
        return self._sandbox.exit_status(self.pid, patience)

    def has_ended(self) -> bool:
        """Returns whether this process has ended."""
        return self._sandbox.has_ended(self.pid)

    def stdout(self) -> str:
        """Returns what was written to standard output so far."""
        return self._out.read_text(errors="replace")

    def stderr(self) -> str:
        """Returns what was written to standard error so far; nothing if that is a pipe."""
        return self._err.read_text(errors="replace") if self._err.is_file() else ""

    def log(self) -> list[Record]:
        """Returns the records on standard error so far."""
        return parse_records(complete_lines(self.stderr()))

    def times_of(self, record: tuple[str, str]) -> list[float]:
        """Returns when a record was written, in seconds."""
        return record_times(complete_lines(self.stderr()), record)

    def messages(self) -> list[str]:
        """Returns the lines on standard error that are no records."""
        return other_lines(self.stderr())


class Daemon(Run):
    """The program in daemon mode; `pid` is the daemon's, `parent` the started one's."""

    def __init__(self, sandbox: Sandbox, arguments: list[str], environment: dict[str, str],
                 stderr: str | None = None) -> None:
        super().__init__(sandbox, arguments, environment, stderr)
        self.parent = self.pid
        self.parent_status = self.exit_status()
        self.pid = wait_for(self._find)

    def _find(self) -> int:
        """The daemon has its program's name and leads a session of its own."""
        for process in self._sandbox.processes():
            if process["name"] == "tunnel_mngr" and process["session"] == process["pid"]:
                return process["pid"]
        return 0

    def cycles(self) -> int:
        """Returns how many cycles have ended; needs a print level of INFO or above."""
        return sum(text.startswith(CYCLE_END) for _, text in self.log())

    def wait_for_cycles(self, number: int) -> None:
        """Waits until so many cycles have ended."""
        wait_for(lambda: self.cycles() >= number)

    def process(self) -> dict[str, Any]:
        """Returns the daemon's threads, descriptors and so on."""
        return next(entry for entry in self._sandbox.processes() if entry["pid"] == self.pid)

    def threads(self, prefix: str = "") -> list[str]:
        """Returns the names of the threads that begin so."""
        return [entry["name"] for entry in self.process()["threads"] if entry["name"].startswith(prefix)]

    def signal(self, number: int) -> None:
        """Sends the daemon a signal."""
        self._sandbox.signal(self.pid, number)

    def refresh(self) -> None:
        """Lets the daemon rebuild and waits for the end of that cycle.

        A refresh takes in every request until its last step, which comes after the
        last record. A signal that meets this moment is lost, so it is sent again.
        """
        before = self.cycles()
        while self.cycles() == before:
            begun = self._begun()
            self.signal(signal.SIGHUP)
            try:
                wait_for(lambda: self._begun() > begun, RESEND_SECONDS)
            except TimeoutError:
                continue
            self.wait_for_cycles(before + 1)

    def _begun(self) -> int:
        return self.log().count(("INFO", "Managing tunnels"))

    def stop(self) -> int:
        """Sends SIGTERM and returns the exit status."""
        self.signal(signal.SIGTERM)
        return self.exit_status()


class Gateway:
    """The whole gateway: at first with a syslog, with the IPsec service's directories
    and with an API that knows one WAN and no tunnels."""

    def __init__(self, tools: Tools, seccomp: bytes | None = None) -> None:
        self._sandbox = Sandbox(tools, seccomp)
        self.runs: list[Run] = []
        self._answers: list[str] = []
        self._state: dict[str, Any] = {}
        self._server: ApiServer | None = None
        self.syslog: Syslog | None = None
        self.start_syslog()
        for name in ("cacerts", "certs", "private"):
            self.path(f"/var/run/ipsec/{name}").mkdir(parents=True)
        self.api()

    # The world around the program.

    def start_syslog(self) -> None:
        """Listens on /dev/log (as every gateway does at first)."""
        self.syslog = Syslog(self.path("/run/devlog"))

    def stop_syslog(self) -> None:
        """Leaves nothing listening on /dev/log."""
        if self.syslog:
            self.syslog.stop()
            self.syslog = None

    def api(self, **keys: Any) -> None:
        """Sets keys of the API's state, and starts the API if it is stopped."""
        if not self._state:
            self._state = {"wans": wan(), "greTunnels": [], "ipsecTunnels": [], "ovpnTunnels": [],
                           "syslog": {"logLevel": 10}, "faults": {}}
        self._state.update(keys)
        self._write_state()
        if not self._server:
            state = StateFile(self._state_path())
            self._server = ApiServer(self.path(API_SOCKET), state)
            self._server.start()

    def without(self, key: str) -> None:
        """Takes a key out of the API's state."""
        del self._state[key]
        self._write_state()

    def fault(self, path: str, **fault: Any) -> None:
        """Lets the API fail for a path (see the stand-in's page); nothing given: no more."""
        self.api(faults={**self._state.get("faults", {}), path: fault})

    def _state_path(self) -> Path:
        return self._sandbox.directory / "state.json"

    def _write_state(self) -> None:
        draft = self._state_path().with_suffix(".new")
        draft.write_text(json.dumps(self._state))
        draft.rename(self._state_path())

    def stop_api(self) -> None:
        """Ends the API and its hanging requests."""
        if self._server:
            self._server.stop()
            self._server = None
            self._state = {}

    def requests(self) -> list[str]:
        """Returns path and query of every request that the API has seen."""
        return [path for _, path in self._server.requests] if self._server else []

    def timed_requests(self) -> list[tuple[float, str]]:
        """Returns the requests with their time, milliseconds of the monotonic clock."""
        return list(self._server.requests) if self._server else []

    def script(self, line: str, status: int = 0, output: str = "", *, times: int | None = None,
               shell: str = ":") -> None:
        """Says what a command does when called with this line (* stands for anything).

        `shell` runs first (helpers: stayAlive, waitFor NAME), then `output` is printed.
        With `times` this holds for so many calls. What was said last counts first.
        """
        number = len(self._answers)
        ending = f"{shell}\n  printf %s {shell_quote(output)}\n  exit {status}\n"
        if times is None:
            action = ending
        else:
            action = "".join(f"[ -e /harness/used/{number}.{use} ] || {{\n"
                             f"  : >/harness/used/{number}.{use}\n  {ending}}}\n"
                             for use in range(times))
        self._answers.append(f"case $line in\n{shell_quote(line)})\n{action};;\nesac\n")
        draft = self.path("/harness/answers.new")
        draft.write_text("".join(reversed(self._answers)))
        draft.rename(self.path("/harness/answers"))

    def release(self, name: str) -> None:
        """Lets commands go on that wait for this name (`waitFor` in script())."""
        self.path(f"/harness/released/{name}").touch()

    def remove_hook(self, name: str) -> None:
        """Takes a hook script away."""
        self.path(f"/etc/quorvex/hooks/{name}").unlink()

    def name_server(self, hosts: str) -> int:
        """Starts a name server for the domain "example". Returns its pid.

        @param hosts  Lines of address and name.
        """
        self.path("/harness/hosts").write_text(hosts)
        return self._service(["/usr/sbin/dnsmasq", *NAME_SERVER_OPTIONS], "started, version")

    def broken_name_server(self) -> int:
        """Starts a name server that answers every question with SERVFAIL."""
        return self._service(["/usr/bin/python3", "-I", "-S", "/tools/broken_name_server.py"], "serving")

    def hasten_resolver(self) -> None:
        """Has names without an answer fail after a second; for programs that start later."""
        self.path("/etc/resolv.conf").write_text(RESOLVER.replace("timeout:30", "timeout:1"))

    def _service(self, arguments: list[str], greeting: str) -> int:
        service = Run(self._sandbox, arguments, default_environment())
        wait_for(lambda: service.has_ended() or greeting in service.stderr())
        assert not service.has_ended(), service.stderr()
        return service.pid

    def signal(self, pid: int, number: int) -> None:
        """Sends a signal to any process of the gateway."""
        self._sandbox.signal(pid, number)

    # The program.

    def start(self, *options: str, environment: dict[str, str] | None = None,
              program: str = PROGRAM) -> Run:
        """Starts the program and does not wait."""
        run = Run(self._sandbox, [program, *options], {**default_environment(), **(environment or {})})
        self.runs.append(run)
        return run

    def run(self, *options: str, environment: dict[str, str] | None = None) -> Run:
        """Starts the program and waits for its end."""
        run = self.start(*options, environment=environment)
        run.exit_status()
        return run

    def daemon(self, *options: str, environment: dict[str, str] | None = None,
               stderr: str | None = None) -> Daemon:
        """Starts the program in daemon mode; returns once the daemon has its session."""
        daemon = Daemon(self._sandbox, [PROGRAM, "-d", *options],
                        {**default_environment(), **(environment or {})}, stderr)
        self.runs.append(daemon)
        return daemon

    def ready_daemon(self) -> Daemon:
        """Starts a daemon that logs all and waits for its first cycle's end."""
        daemon = self.daemon("-p", "100")
        daemon.wait_for_cycles(1)
        return daemon

    def next_end(self, besides: int) -> int:
        """Waits for the end of any process but that one; returns its exit status."""
        return self._sandbox.next_end(besides)

    # What has happened.

    def trace(self) -> list[str]:
        """Returns the commands called so far, in order."""
        return complete_lines(self.file("/harness/trace")).splitlines()

    def clear_trace(self) -> None:
        """Forgets the commands called so far."""
        os.truncate(self.path("/harness/trace"), 0)

    def processes(self, name: str) -> list[dict[str, Any]]:
        """Returns the processes of that name."""
        return [entry for entry in self._sandbox.processes() if entry["name"] == name]

    def children(self, pid: int) -> list[dict[str, Any]]:
        """Returns the processes whose parent is that one, zombies included."""
        return [entry for entry in self._sandbox.processes() if entry["parent"] == pid]

    def path(self, inside: str) -> Path:
        """Returns where a file of the gateway is for the test."""
        for place, name in (("/var/run", "run"), ("/run", "run"), ("/dev/shm", "shm"),
                            ("/etc", "etc"), ("/harness", "harness")):
            if inside == place or inside.startswith(place + "/"):
                return self._sandbox.directory / name / inside[len(place):].lstrip("/")
        raise ValueError(f"{inside} cannot be seen from outside the sandbox")

    def file(self, inside: str) -> str:
        """Returns the text of a file."""
        return self.path(inside).read_text(errors="surrogateescape")

    def mode(self, inside: str) -> int:
        """Returns the permission bits of a file."""
        return stat.S_IMODE(self.path(inside).lstat().st_mode)

    def exists(self, inside: str) -> bool:
        """Returns whether there is such a file."""
        return os.path.lexists(self.path(inside))

    def sanitizer_reports(self) -> str:
        """Returns what a sanitizer has found, if the program is built with one."""
        found = sorted(self.path("/harness").glob("sanitizer*"))
        return "\n".join(path.read_text(errors="replace") for path in found)

    def story(self) -> str:
        """Returns trace and output, for the report of a failed test."""
        parts = ["--- trace", self.path("/harness/trace").read_text(errors="replace")]
        for number, run in enumerate(self.runs):
            parts += [f"--- run {number} stdout", run.stdout(), f"--- run {number} stderr", run.stderr()]
        return "\n".join(parts)

    def remove(self) -> None:
        """Ends everything and removes all files."""
        self.stop_api()
        self.stop_syslog()
        self._sandbox.remove()
