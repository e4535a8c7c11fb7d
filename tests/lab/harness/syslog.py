"""The syslog of a gateway: a thread that writes what it hears into a file."""

from __future__ import annotations

import os
import re
import socket
import threading
import time

PRIORITY = re.compile(r"^<\d+>")


class Syslog:
    """Listens on a datagram socket until close(); lines carry the seconds since `begin`."""

    def __init__(self, path: str, file: str, begin: float) -> None:
        self._begin = begin
        self._file = open(file, "a", encoding="utf-8", buffering=1)
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(path)
        os.chmod(path, 0o666)
        self._thread = threading.Thread(target=self._listen, name="syslog", daemon=True)
        self._thread.start()

    def _listen(self) -> None:
        while record := self._socket.recv(65536).decode(errors="replace"):
            text = PRIORITY.sub("", record).rstrip("\0\n")
            self._file.write(f"{time.monotonic() - self._begin:8.3f} {text}\n")

    def close(self) -> None:
        """Ends the thread, which an empty datagram tells to."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as ending:
            ending.sendto(b"", self._socket.getsockname())
        self._thread.join()
        self._socket.close()
        self._file.close()
