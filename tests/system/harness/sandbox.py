"""A bubblewrap sandbox with a supervisor inside as its first process."""

from __future__ import annotations

import json
import os
import shutil
import socket
import subprocess
import tempfile
import time
from pathlib import Path
from typing import Any

HERE = Path(__file__).resolve().parent
HOOKS = ("gre-tunnel-link-changed", "ipsec-tunnel-link-changed")
COMMANDS = ("ip", "ipsec", "firewall", "openvpn", "ping", "mkdir", "rm")
PRODUCT_FILES = ("bin/tunnel_mngr", "lib/libvexa.so.0")
LINKS_INTO_USR = ("bin", "sbin", "lib", "lib32", "lib64", "libx32")

# A deadline for what takes milliseconds, or seconds on a busy machine, unless something
# is broken.
PATIENCE = 120.0

# Its time-out is one that a name server on a busy machine keeps.
RESOLVER = "nameserver 127.0.0.1\noptions timeout:30 attempts:1\n"


class Tools:
    """Copies of what runs inside, readable for every user: the product, the
    stand-ins and the supervisor. Shared by all sandboxes of a test run."""

    def __init__(self, build: Path) -> None:
        self.directory = Path(tempfile.mkdtemp(prefix="gateway-tools-"))
        for name in PRODUCT_FILES:
            self._copy(build / name, self.directory / "product" / name)
        for name in ("supervisor.py", "broken_name_server.py", "leaks.supp", "races.supp"):
            self._copy(HERE / name, self.directory / name)
        for name in COMMANDS:
            self._copy(HERE / "stand_in", self.directory / "commands" / name)
        for name in HOOKS:
            self._copy(HERE / "stand_in", self.directory / "hooks" / name)
        self.directory.chmod(0o755)

    @staticmethod
    def _copy(source: Path, target: Path) -> None:
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(source, target)
        target.chmod(0o755)

    def remove(self) -> None:
        """Removes the copies."""
        shutil.rmtree(self.directory)


class Sandbox:
    """A running sandbox.

    Its /run, /dev/shm, /etc and /harness are directories below `directory`, so that a
    test reads and changes them from outside. Everything else is read-only; network,
    processes and IPC are its own. The user inside is root of a user namespace.
    """

    def __init__(self, tools: Tools, seccomp: bytes | None = None) -> None:
        """Waits until the supervisor serves. @param seccomp  a filter for all inside."""
        self.directory = Path(tempfile.mkdtemp(prefix="gateway-"))
        self.ended: dict[int, int] = {}
        self._number = 0
        self._prepare(tools)
        ours, theirs = socket.socketpair()
        with theirs:
            self._process = self._spawn(tools, theirs.fileno(), seccomp)
        self._channel = ours
        self._channel.settimeout(PATIENCE)
        self._buffer = b""
        assert self._next_message() == {"ready": True}

    def _prepare(self, tools: Tools) -> None:
        for name in ("run", "shm", "etc/quorvex", "harness/released", "harness/used"):
            (self.directory / name).mkdir(parents=True)
        shutil.copytree(tools.directory / "hooks", self.directory / "etc/quorvex/hooks")
        etc = self.directory / "etc"
        (etc / "hosts").write_text("127.0.0.1 localhost\n")
        (etc / "resolv.conf").write_text(RESOLVER)
        (etc / "nsswitch.conf").write_text("passwd: files\ngroup: files\nhosts: files dns\n")
        (etc / "passwd").write_text("root:x:0:0:root:/:/bin/sh\n")
        # No groups: the name server would try to become a member of one.
        (etc / "group").touch()
        shutil.copy("/etc/ld.so.cache", etc / "ld.so.cache")
        (self.directory / "harness/answers").touch()
        (self.directory / "harness/trace").touch()

    def _spawn(self, tools: Tools, channel: int, seccomp: bytes | None) -> subprocess.Popen:
        arguments = ["bwrap", "--unshare-user", "--uid", "0", "--gid", "0", "--cap-add", "ALL",
                     "--unshare-pid", "--as-pid-1", "--unshare-net", "--unshare-ipc",
                     "--die-with-parent", "--new-session", "--clearenv", "--chdir", "/",
                     "--ro-bind", "/usr", "/usr", "--proc", "/proc", "--dev", "/dev",
                     "--tmpfs", "/tmp", "--dir", "/var", "--symlink", "/run", "/var/run",
                     "--symlink", "/run/devlog", "/dev/log"]
        for name in LINKS_INTO_USR:
            if Path("/", name).is_symlink():
                arguments += ["--symlink", f"usr/{name}", f"/{name}"]
            elif Path("/", name).is_dir():
                arguments += ["--ro-bind", f"/{name}", f"/{name}"]
        for name, place in (("run", "/run"), ("shm", "/dev/shm"), ("etc", "/etc"),
                            ("harness", "/harness")):
            arguments += ["--bind", str(self.directory / name), place]
        arguments += ["--ro-bind", str(tools.directory), "/tools"]
        descriptors = [channel]
        if seccomp is not None:
            filter_file = tempfile.TemporaryFile()
            filter_file.write(seccomp)
            filter_file.seek(0)
            descriptors.append(filter_file.fileno())
            arguments += ["--seccomp", str(filter_file.fileno())]
        arguments += ["/usr/bin/python3", "-I", "-S", "/tools/supervisor.py", str(channel)]
        return subprocess.Popen(arguments, pass_fds=descriptors, stdin=subprocess.DEVNULL)

    def start(self, arguments: list[str], environment: dict[str, str],
              stderr: str | None = None) -> tuple[int, Path, Path]:
        """Starts a program inside. Returns its pid and the files of its output.

        @param stderr  A file below /harness to use as standard error, a pipe perhaps.
        """
        self._number += 1
        out, err = (f"harness/{self._number}.{end}" for end in ("out", "err"))
        err = stderr.lstrip("/") if stderr else err
        reply = self._ask(operation="start", argv=arguments, environment=environment,
                          stdout=f"/{out}", stderr=f"/{err}")
        return reply["pid"], self.directory / out, self.directory / err

    def signal(self, pid: int, number: int) -> None:
        """Sends a signal to a process inside."""
        self._ask(operation="signal", pid=pid, number=number)

    def processes(self) -> list[dict[str, Any]]:
        """Returns all processes inside but the supervisor."""
        return self._ask(operation="processes")["processes"]

    def exit_status(self, pid: int, patience: float = PATIENCE) -> int:
        """Waits for the end of a process inside that is, or became, the supervisor's
        child. Returns its exit status, or -N after a death by signal N."""
        limit = time.monotonic() + patience
        self._take_messages()
        while pid not in self.ended:
            left = limit - time.monotonic()
            if left <= 0 or not self._receive(left):
                raise TimeoutError(f"process {pid} has not ended within {patience} s")
            self._take_messages()
        return self.ended[pid]

    def next_end(self, besides: int) -> int:
        """Waits for the end of any process but that one; returns its exit status."""
        limit = time.monotonic() + PATIENCE
        self._take_messages()
        while not self.ended.keys() - {besides}:
            if time.monotonic() > limit or not self._receive(PATIENCE):
                raise TimeoutError("no other process has ended")
            self._take_messages()
        return self.ended[min(self.ended.keys() - {besides})]

    def has_ended(self, pid: int) -> bool:
        """Returns whether that process has ended."""
        while self._receive(0):
            pass
        self._take_messages()
        return pid in self.ended

    def _ask(self, **request: Any) -> dict[str, Any]:
        self._channel.sendall(json.dumps(request).encode() + b"\n")
        while True:
            message = self._next_message()
            if "ended" in message:
                self.ended[message["ended"]] = message["status"]
            elif "error" in message:
                raise OSError(message["error"])
            else:
                return message

    def _take_messages(self) -> None:
        while b"\n" in self._buffer:
            message = self._next_message()
            self.ended[message["ended"]] = message["status"]

    def _next_message(self) -> dict[str, Any]:
        while b"\n" not in self._buffer:
            if not self._receive(PATIENCE):
                raise TimeoutError("the sandbox does not answer")
        line, self._buffer = self._buffer.split(b"\n", 1)
        return json.loads(line)

    def _receive(self, patience: float) -> bool:
        self._channel.settimeout(patience)
        try:
            received = self._channel.recv(65536)
        except (TimeoutError, BlockingIOError):
            return False
        if not received:
            raise ConnectionError("the sandbox has ended")
        self._buffer += received
        return True

    def remove(self) -> None:
        """Ends everything inside and removes the directory."""
        self._channel.close()
        self._process.wait(PATIENCE)
        shutil.rmtree(self.directory)


def default_environment() -> dict[str, str]:
    """Returns the environment of what is started inside."""
    sanitizers = "log_path=/harness/sanitizer"
    return {"PATH": "/tools/commands:/usr/sbin:/usr/bin:/sbin:/bin", "LANG": "C.UTF-8",
            "ASAN_OPTIONS": sanitizers, "UBSAN_OPTIONS": sanitizers + ":print_stacktrace=1",
            "TSAN_OPTIONS": (sanitizers + ":die_after_fork=0:atexit_sleep_ms=100"
                             ":suppressions=/tools/races.supp:print_suppressions=0"),
            "LSAN_OPTIONS": "suppressions=/tools/leaks.supp:print_suppressions=0"}


def find_build() -> Path:
    """Returns the build directory to test: $TUNNEL_MNGR_BUILD, or the release preset's.

    Raises FileNotFoundError when nothing is built there.
    """
    build = Path(os.environ.get("TUNNEL_MNGR_BUILD", HERE.parents[2] / "build" / "release"))
    for name in PRODUCT_FILES:
        if not (build / name).exists():
            raise FileNotFoundError(f"{build / name} is missing: build first, or set TUNNEL_MNGR_BUILD")
    return build.resolve()
