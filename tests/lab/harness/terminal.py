"""The terminal of the person on the host, which the lab's kernel can borrow for a shell."""

from __future__ import annotations

import os
import sys
import termios
from contextlib import suppress
from types import TracebackType


def is_there() -> bool:
    """Returns whether there is a person who reads and types."""
    return sys.stdin.isatty() and sys.stdout.isatty()


class Terminal:
    """Descriptors for the kernel, none if none are wanted, and the way back."""

    def __init__(self, wanted: bool) -> None:
        streams = (sys.stdin, sys.stdout) if wanted else ()
        self.descriptors = [os.dup(stream.fileno()) for stream in streams]
        self._settings = [termios.tcgetattr(descriptor) for descriptor in self.descriptors[:1]]

    def take_back(self) -> None:
        """Makes the terminal what it was: the kernel does so only at its own end, if at all."""
        for settings in self._settings:
            # One that the person has closed needs nothing.
            with suppress(termios.error):
                termios.tcsetattr(self.descriptors[0], termios.TCSADRAIN, settings)

    def __enter__(self) -> Terminal:
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        self.take_back()
        for descriptor in self.descriptors:
            os.close(descriptor)
