"""The product's log: records from its standard error, and a syslog that keeps them."""

from __future__ import annotations

import re
import socket
import threading
from datetime import datetime
from pathlib import Path
from typing import NamedTuple

# On standard error a time comes first, in a syslog datagram the priority.
RECORD = re.compile(r"^(?P<time>\S*)\s*.*?TUNNEL_MNGR\D+(?P<pid>\d+)\D*?"
                    r"(?P<level>ERROR|WARNING|INFO|DEBUG|TRACE): (?P<text>.*)$")


class Record(NamedTuple):
    """One record; compares with a plain (level, text)."""

    level: str
    text: str


def complete_lines(text: str) -> str:
    """Returns a text that another process writes without the line that it is at."""
    return text[:text.rfind("\n") + 1]


def parse_records(text: str) -> list[Record]:
    """Returns the records among the lines of a text."""
    matches = (RECORD.match(line) for line in text.split("\n"))
    return [Record(match["level"], match["text"]) for match in matches if match]


def record_times(text: str, record: tuple[str, str]) -> list[float]:
    """Returns when this record was written to standard error, in seconds."""
    matches = (RECORD.match(line) for line in text.split("\n"))
    return [datetime.fromisoformat(match["time"]).timestamp() for match in matches
            if match and (match["level"], match["text"]) == record]


def other_lines(text: str) -> list[str]:
    """Returns the lines of a text that are no records."""
    return [line for line in text.splitlines() if not RECORD.match(line)]


class Syslog:
    """A syslog daemon that keeps what it is sent."""

    def __init__(self, path: Path) -> None:
        self.path = path
        self.datagrams: list[str] = []
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(str(path))
        path.chmod(0o666)
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def _serve(self) -> None:
        while True:
            datagram = self._socket.recv(65536)
            if not datagram:
                return
            self.datagrams.append(datagram.decode(errors="replace"))

    def records(self) -> list[Record]:
        """Returns the records received so far."""
        return [record for datagram in list(self.datagrams) for record in parse_records(datagram)]

    def stop(self) -> None:
        """Ends it and removes its socket."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as waker:
            waker.sendto(b"", str(self.path))
        self._thread.join()
        self._socket.close()
        self.path.unlink()
