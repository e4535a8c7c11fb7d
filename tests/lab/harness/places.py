"""Machines of the lab.

A place is a thread that lives in the namespaces of one machine. A program that it starts
is born there, and a path that it opens is that machine's file, without a helper program
such as nsenter: starting programs is what takes time in this lab.
"""

from __future__ import annotations

import os
import queue
import socket
import subprocess
import threading
from concurrent.futures import Future
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Callable

from . import echo, namespaces

PATH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"


@dataclass(frozen=True)
class Outcome:
    """What became of a program: its exit status and all that it said."""

    status: int
    output: str


def put(path: str, text: str, mode: int = 0o644) -> None:
    """Writes a file of the machine that the calling thread lives on; replaces links too."""
    target = Path(path)
    target.parent.mkdir(parents=True, exist_ok=True)
    target.unlink(missing_ok=True)
    target.write_text(text, encoding="utf-8")
    target.chmod(mode)


class Place:
    """One machine; `address` is where others reach it."""

    def __init__(self, name: str, network: str, address: str, path: str = PATH,
                 prepare: Callable[[], None] = lambda: None) -> None:
        """Enters the named network namespace, then calls `prepare` there."""
        self.name = name
        self.network = network
        self.address = address
        self.thread_id = 0
        self._environment = {"PATH": path, "HOME": "/", "LANG": "C.UTF-8"}
        self._work: queue.SimpleQueue[tuple[Callable[[], Any], Future] | None] = queue.SimpleQueue()
        self._thread = threading.Thread(target=self._live, name=name, daemon=True)
        self._thread.start()
        self.call(self._enter)
        self.call(prepare)

    def _live(self) -> None:
        while (task := self._work.get()) is not None:
            function, future = task
            try:
                future.set_result(function())
            except BaseException as error:  # whatever it is belongs to the caller
                future.set_exception(error)

    def _enter(self) -> None:
        self.thread_id = threading.get_native_id()
        namespaces.enter_network(f"/run/netns/{self.network}")

    def call(self, function: Callable[[], Any]) -> Any:
        """Calls a function on this machine and returns what it returns."""
        future: Future = Future()
        self._work.put((function, future))
        return future.result()

    def run(self, *words: str, within: float = 30.0, text: str = "") -> Outcome:
        """Runs a program, with `text` as its input, and waits for its end.

        One that takes longer than `within` seconds is killed; its status is then 124.
        """
        def start() -> Outcome:
            try:
                done = subprocess.run(words, input=text.encode(), stdout=subprocess.PIPE,
                                      stderr=subprocess.STDOUT, timeout=within, check=False,
                                      env=self._environment)
            except subprocess.TimeoutExpired as late:
                return Outcome(124, (late.stdout or b"").decode(errors="replace"))
            return Outcome(done.returncode, done.stdout.decode(errors="replace"))
        return self.call(start)

    def must(self, *words: str, text: str = "") -> str:
        """Runs a program that has to succeed and returns what it said."""
        outcome = self.run(*words, text=text)
        if outcome.status != 0:
            raise RuntimeError(f"{self.name}: {' '.join(words)} ended with status "
                               f"{outcome.status}:\n{outcome.output}{text}")
        return outcome.output

    def spawn(self, *words: str, output: str) -> subprocess.Popen:
        """Starts a program and does not wait; what it says is added to a file."""
        def start() -> subprocess.Popen:
            with open(output, "ab") as log:
                return subprocess.Popen(words, stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                        env=self._environment)
        return self.call(start)

    def read(self, path: str) -> str:
        """Returns the text of a file, empty when there is none."""
        def look() -> str:
            try:
                return Path(path).read_text(errors="replace")
            except FileNotFoundError:
                return ""
        return self.call(look)

    def write(self, path: str, text: str, mode: int = 0o644) -> None:
        """Writes a file of this machine; what was there before is replaced, links too."""
        self.call(lambda: put(path, text, mode))

    def exists(self, path: str) -> bool:
        """Returns whether there is such a file, or a link."""
        return self.call(lambda: os.path.lexists(path))

    def mode(self, path: str) -> int:
        """Returns the type and the rights of a file, as in st_mode."""
        return self.call(lambda: os.stat(path).st_mode)

    def reaches(self, address: str, source: str = "") -> bool:
        """Returns whether one ping, from one of the place's addresses, is answered in a second."""
        return self.call(lambda: echo.answers(address, source))

    def knock(self, address: str, source: str) -> None:
        """Sends one packet, which no one answers, from one of the place's addresses."""
        def send() -> None:
            with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
                sender.bind((source, 0))
                sender.sendto(b"", (address, 9))
        self.call(send)

    def close(self) -> None:
        """Ends the thread; its namespaces go when their last process has gone."""
        self._work.put(None)
        self._thread.join()
