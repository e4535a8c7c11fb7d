"""Who tells a story: all of it into the scenario's log, and the live part to those who watch."""

from __future__ import annotations

import time
from contextlib import contextmanager
from typing import Callable, Iterator, TextIO


class Narrator:
    """Is called with each line of a story; `watcher` hears what is not said aside."""

    def __init__(self, log: TextIO, watcher: Callable[[str], None]) -> None:
        self._begin = time.monotonic()
        self._log = log
        self._watcher = watcher
        self._aside = False

    def __call__(self, line: str) -> None:
        print(f"{time.monotonic() - self._begin:7.2f}  {line}", file=self._log)
        if not self._aside:
            self._watcher(line)

    @contextmanager
    def aside(self) -> Iterator[None]:
        """What is told within it is only written down."""
        before, self._aside = self._aside, True
        try:
            yield
        finally:
            self._aside = before
