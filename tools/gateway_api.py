"""A stand-in of the gateway's local configuration API: HTTP over a Unix socket.

Everything it answers comes from one JSON state file, which is read again whenever
it changes. The page docs/gateway-api.md describes the file and its faults.
"""

from __future__ import annotations

import json
import os
import socket
import socketserver
import sys
import threading
import time
from http.server import BaseHTTPRequestHandler
from pathlib import Path
from typing import Any, TextIO
from urllib.parse import parse_qs, urlsplit

FAULT_KEYS = {
    "badJson", "body", "close", "code", "hang", "location", "result", "skip", "slow",
    "status", "times",
}


class StateError(Exception):
    """A state file, or a fault, that cannot be used; the text says why."""


def check_fault(fault: Any, where: str) -> None:
    """Raises StateError when a fault has a key or a value that means nothing."""
    if not isinstance(fault, dict):
        raise StateError(f"{where}: a fault is an object, not {json.dumps(fault)}")
    for key in fault:
        if key not in FAULT_KEYS:
            raise StateError(f"{where}: unknown key \"{key}\" (known: {', '.join(sorted(FAULT_KEYS))})")
    if fault.get("close", "mid") not in ("before", "mid"):
        raise StateError(f"{where}: \"close\" is \"before\" or \"mid\"")
    for key in ("slow", "skip", "times", "status"):
        value = fault.get(key, 0)
        if isinstance(value, bool) or not isinstance(value, (int, float)) or value < 0:
            raise StateError(f"{where}: \"{key}\" is a number, not below 0")


def check_state(state: Any) -> dict[str, Any]:
    """Gives the state back when it can be served, or raises StateError."""
    if not isinstance(state, dict):
        raise StateError("the state is a JSON object")
    faults = state.get("faults", {})
    if not isinstance(faults, dict):
        raise StateError("\"faults\" is an object: path, or \"*\", to fault")
    for path, fault in faults.items():
        check_fault(fault, f"faults, \"{path}\"")
    return state


class StateFile:
    """The state file: what it holds now, or what it held when it was last valid."""

    def __init__(self, path: Path, complaints: TextIO = sys.stderr) -> None:
        """Raises StateError when the file cannot be served."""
        self._path = path
        self._complaints = complaints
        self._lock = threading.Lock()
        self._version = self._look()
        self._state = self._read()
        self._seen: dict[str, int] = {}

    def current(self) -> dict[str, Any]:
        """Returns the state, read again if the file is another one than before."""
        with self._lock:
            self._refresh()
            return self._state

    def fault(self, path: str, defaults: dict[str, Any]) -> dict[str, Any]:
        """Returns the fault of this request, counted, or an empty one.

        The file's faults come before `defaults`, a path of its own before "*".
        """
        with self._lock:
            self._refresh()
            for faults in (self._state.get("faults", {}), defaults):
                for key in (path, "*"):
                    if key in faults:
                        return faults[key] if self._is_due(key, faults[key]) else {}
            return {}

    def _is_due(self, key: str, fault: dict[str, Any]) -> bool:
        number = self._seen.get(key, 0)
        self._seen[key] = number + 1
        skip = fault.get("skip", 0)
        return skip <= number < skip + fault.get("times", float("inf"))

    def _refresh(self) -> None:
        version = self._look()
        if version == self._version:
            return
        self._version = version
        try:
            self._state = self._read()
            self._seen = {}
        except StateError as error:
            print(f"gateway-api: {error}; still serving the last good state",
                  file=self._complaints, flush=True)

    def _look(self) -> tuple[int, int, int] | None:
        try:
            found = self._path.stat()
        except OSError:
            return None
        return (found.st_ino, found.st_mtime_ns, found.st_size)

    def _read(self) -> dict[str, Any]:
        try:
            return check_state(json.loads(self._path.read_text(encoding="utf-8")))
        except OSError as error:
            raise StateError(f"cannot read {self._path}: {error.strerror}") from error
        except ValueError as error:
            raise StateError(f"{self._path} is not valid JSON: {error}") from error
        except StateError as error:
            raise StateError(f"{self._path}: {error}") from error


def answer(state: dict[str, Any], url: str) -> dict[str, Any]:
    """Returns the envelope for a path and query."""
    parts = urlsplit(url)
    if parts.path == "/api/waninfo/wans":
        return {"code": 200, "result": state.get("wans", [])}
    if parts.path == "/api":
        fields = parse_qs(parts.query).get("fields")
        names = fields[0].split(",") if fields else state.keys()
        return {"code": 200,
                "result": {name: state[name] for name in names
                           if name in state and name != "faults"}}
    return {"code": 404, "result": None}


def faulty_body(envelope: dict[str, Any], fault: dict[str, Any]) -> bytes:
    """Returns the reply's body with the fault worked in."""
    if "body" in fault:
        return str(fault["body"]).encode()
    if "result" in fault:
        envelope = {"code": 200, "result": fault["result"]}
    if "code" in fault:
        envelope = {"code": fault["code"], "result": None}
    text = json.dumps(envelope)
    return (text[:-1] if fault.get("badJson") else text).encode()


class RequestHandler(BaseHTTPRequestHandler):
    """Answers one request; each runs in a thread of its own."""

    server: "ApiServer"

    def do_GET(self) -> None:  # noqa: N802 - the name is the library's
        """Answers, or misbehaves as the state file asks for."""
        self.server.record(self.path)
        fault = self.server.fault(self.path)
        if self.server.stopping.wait(fault.get("slow", 0)):
            return
        if fault.get("hang"):
            self.server.stopping.wait()
            return
        if fault.get("close") == "before":
            return
        body = faulty_body(answer(self.server.state(), self.path), fault)
        self._reply(body, fault)

    def _reply(self, body: bytes, fault: dict[str, Any]) -> None:
        self.send_response(int(fault.get("status", 200)))
        self.send_header("Content-Type", "application/json")
        self.send_header("Content-Length", str(len(body)))
        self.send_header("Connection", "close")
        if "location" in fault:
            self.send_header("Location", str(fault["location"]))
        self.end_headers()
        self.wfile.write(body[: len(body) // 2] if fault.get("close") == "mid" else body)

    def log_message(self, format: str, *args: Any) -> None:  # noqa: A002
        """Requests are recorded by the server instead."""


class ApiServer(socketserver.ThreadingMixIn, socketserver.UnixStreamServer):
    """The HTTP server on its Unix socket.

    start() serves from a thread of its own, stop() ends that, lets go of hanging
    requests and removes the socket.
    """

    daemon_threads = True
    block_on_close = False
    request_queue_size = 64

    def __init__(self, path: Path, state: StateFile, faults: dict[str, Any] | None = None,
                 log: TextIO | None = None) -> None:
        """Listens at once. Raises OSError when the socket cannot be had."""
        path.parent.mkdir(parents=True, exist_ok=True)
        remove_stale_socket(path)
        self.path = path
        self.stopping = threading.Event()
        self.requests: list[tuple[float, str]] = []
        self._state = state
        self._faults = faults or {}
        self._log = log
        self._log_lock = threading.Lock()
        self._thread: threading.Thread | None = None
        super().__init__(str(path), RequestHandler)

    def state(self) -> dict[str, Any]:
        """Returns the state to answer from."""
        return self._state.current()

    def fault(self, path: str) -> dict[str, Any]:
        """Returns how this request is to go wrong; empty for not at all."""
        return self._state.fault(path, self._faults)

    def record(self, path: str) -> None:
        """Notes a request with the monotonic time in milliseconds."""
        with self._log_lock:
            now = time.monotonic_ns() / 1e6
            self.requests.append((now, path))
            if self._log:
                print(f"{now:.3f} {path}", file=self._log, flush=True)

    def start(self, patience: float = 0.02) -> None:
        """Serves until stop(), which then takes up to so many seconds."""
        self._thread = threading.Thread(target=self.serve_forever, args=(patience,), daemon=True)
        self._thread.start()

    def stop(self) -> None:
        """Ends serving, hanging requests included, and removes the socket."""
        self.stopping.set()
        if self._thread:
            self.shutdown()
            self._thread.join()
        self.server_close()
        self.path.unlink(missing_ok=True)

    def handle_error(self, request: Any, client_address: Any) -> None:
        """A client that went away is its own business; all else is told."""
        if not isinstance(sys.exc_info()[1], (BrokenPipeError, ConnectionResetError)):
            super().handle_error(request, client_address)


def remove_stale_socket(path: Path) -> None:
    """Removes a socket that nobody serves; raises OSError for anything else there."""
    if not os.path.lexists(path):
        return
    if not path.is_socket():
        raise OSError(f"{path} exists and is not a socket")
    with socket.socket(socket.AF_UNIX) as probe:
        try:
            probe.connect(str(path))
        except ConnectionRefusedError:
            path.unlink()
            return
    raise OSError(f"{path} is served by another process")
