"""The shell that a person opens in the lab: typed into here, on a terminal of the test's own.

TUNNEL_MNGR_LAB_PROGRAM names the manager, as for tests/lab/run.
"""

from __future__ import annotations

import fcntl
import os
import pty
import select
import signal
import struct
import subprocess
import termios
import time
from contextlib import suppress
from pathlib import Path
from typing import Iterator

import pytest

RUN = str(Path(__file__).resolve().parent / "run")
DEMO = str(Path(__file__).resolve().parents[2] / "scripts/demo")
STORY = "demo.all_tunnels_up"
PROMPT = "north-gateway# "
# Longer than it ever takes, also on a machine that has other things to do.
STORY_SECONDS = 200.0
SECONDS = 60.0
MARK = "LAB_SHELL_TEST"


class Person:
    """Someone who has started a program on a terminal, reads and types."""

    def __init__(self, words: list[str], folder: Path) -> None:
        self.read = ""
        self.process, self._terminal = pty.fork()
        if self.process == 0:
            os.execve(words[0], words, {**os.environ, "TERM": "linux", "TMPDIR": str(folder),
                                        MARK: str(folder)})
        fcntl.ioctl(self._terminal, termios.TIOCSWINSZ, struct.pack("4H", 50, 120, 0, 0))
        self.settings = termios.tcgetattr(self._terminal)

    def reads(self, text: str, within: float = SECONDS) -> str:
        """Waits until a text has come, and takes all up to its end."""
        limit = time.monotonic() + within
        while text not in self.read:
            assert time.monotonic() < limit, f"{text!r} did not come: {self.read}"
            if select.select([self._terminal], [], [], 0.5)[0]:
                try:
                    self.read += os.read(self._terminal, 65536).decode(errors="replace")
                except OSError as end:
                    raise AssertionError(f"{text!r} did not come: {self.read}") from end
        taken, _, self.read = self.read.partition(text)
        return taken

    def runs(self, command: str) -> str:
        """Types a command; returns what it says until the prompt is there again."""
        self.types(f"{command}\n")
        self.reads("\n")
        return self.reads(PROMPT)

    def types(self, keys: str) -> None:
        os.write(self._terminal, keys.encode())

    def settings_now(self) -> list:
        return termios.tcgetattr(self._terminal)

    def closes_the_terminal(self) -> None:
        os.close(self._terminal)

    def sees_the_end(self, within: float = SECONDS) -> int:
        """Waits for the end of the program and returns its status."""
        limit = time.monotonic() + within
        while time.monotonic() < limit:
            with suppress(OSError):
                while select.select([self._terminal], [], [], 0.1)[0]:
                    self.read += os.read(self._terminal, 65536).decode(errors="replace")
            process, status = os.waitpid(self.process, os.WNOHANG)
            if process:
                return os.waitstatus_to_exitcode(status)
            time.sleep(0.1)
        raise AssertionError(f"no end: {self.read}")


@pytest.fixture(name="folder")
def fixture_folder(tmp_path: Path) -> Iterator[Path]:
    """A folder for temporary files; in the end there has to be nothing, and no process."""
    mounts = Path("/proc/self/mounts").read_text()
    folder = tmp_path / "temporary"
    folder.mkdir()
    yield folder
    assert not list(folder.iterdir())
    assert not processes_of(folder)
    assert Path("/proc/self/mounts").read_text() == mounts


def processes_of(folder: Path) -> dict[int, str]:
    """Returns the processes of a person: those that have the mark, and their sessions."""
    mark = f"{MARK}={folder}".encode()
    sessions: dict[int, int] = {}
    marked = set()
    for entry in map(int, filter(str.isdigit, os.listdir("/proc"))):
        with suppress(OSError):
            sessions[entry] = os.getsid(entry)
            if mark in Path(f"/proc/{entry}/environ").read_bytes().split(b"\0"):
                marked.add(sessions[entry])
    return {number: session for number, session in sessions.items() if session in marked}


def a_person(tmp_path: Path, folder: Path) -> Person:
    return Person([RUN, "--live", "--shell", "--output", str(tmp_path / "output"), STORY], folder)


def test_the_commands_of_the_greeting_work(tmp_path: Path, folder: Path) -> None:
    person = a_person(tmp_path, folder)
    greeting = person.reads(PROMPT, STORY_SECONDS)
    for command in ("ip -d tunnel", "ipsec statusall", "cat /run/ipsec/ipsec.conf",
                    "tail /run/syslog", "kill -HUP $(cat /run/tunnel_mngr.pid)",
                    "cat /run/api/state.json", "on south-gateway ip tunnel"):
        assert f"    {command}  " in greeting
    assert len(processes_of(folder)) > 1

    assert "to_south: gre/ip remote 203.0.113.2 local 198.51.100.2" in person.runs("ip -d tunnel")
    assert "ESTABLISHED" in person.runs("ipsec statusall")
    assert "conn offices\r\n" in person.runs("cat /run/ipsec/ipsec.conf")
    assert "TUNNEL_MNGR[" in person.runs("grep MNGR /run/syslog | tail")
    assert '"south.example"' in person.runs("cat /run/api/state.json")
    assert "to_north: gre/ip remote 198.51.100.2" in person.runs("on south-gateway ip tunnel")
    assert "50 120" in person.runs("stty size")

    # Another configuration, and the word that makes it true.
    person.runs("sed -i s/192.0.2.7/192.0.2.8/ /run/api/state.json")
    person.runs("sed -i s/to_south/renamed/ /run/api/state.json")
    person.runs("kill -HUP $(cat /run/tunnel_mngr.pid)")
    person.runs("for i in $(seq 300); do ip tunnel | grep -q ^renamed && break; sleep 0.1; done")
    assert "renamed: gre/ip" in person.runs("ip tunnel")

    # A key that ends a command; another machine's shell.
    person.types("sleep 1000\n")
    person.reads("sleep 1000")
    time.sleep(0.5)
    person.types("\x03")
    person.reads(PROMPT)
    person.types("on south-host\n")
    person.reads("south-host# ")
    person.types("ip -br addr\n")
    person.reads("192.168.2.10/24")
    person.reads("south-host# ")
    person.types("\x04")
    person.reads(PROMPT)

    person.types("\x04")
    assert person.sees_the_end() == 0
    assert f"{STORY}: " in person.read
    assert person.settings_now() == person.settings


def test_who_closes_the_terminal_ends_the_lab(tmp_path: Path, folder: Path) -> None:
    person = a_person(tmp_path, folder)
    person.reads("== Two gateways", STORY_SECONDS)
    assert len(processes_of(folder)) > 1
    person.closes_the_terminal()
    assert person.sees_the_end() == 128 + signal.SIGHUP


@pytest.mark.parametrize("words, reason", [
    ([RUN, "--shell", STORY], "--shell needs a terminal"),
    ([DEMO, "--keep"], "--keep opens a shell: it needs a terminal"),
    ([DEMO, "--unknown"], "unknown option: --unknown"),
    ([DEMO, "--keep", "more"], "one option at a time"),
])
def test_a_wrong_command_line_is_refused_at_once(words: list[str], reason: str) -> None:
    done = subprocess.run(words, stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          timeout=SECONDS, check=False)
    assert done.returncode == 2
    assert reason in done.stderr
    assert "Packages" not in done.stdout


def test_the_demo_explains_its_options() -> None:
    done = subprocess.run([DEMO, "--help"], capture_output=True, text=True, timeout=SECONDS,
                          check=True)
    assert "scripts/demo --keep " in done.stdout
