"""Processes whose parents have gone, services that the manager has started for instance.

On a gateway the first process takes them in and, when they end, clears them away; until then
they look alive to those who wait for their end, `ipsec stop` for one. Here it is the runner.
"""

from __future__ import annotations

import os
import time
from contextlib import suppress
from typing import Callable, Optional

from .namespaces import adopt_orphans

# From <linux/wait.h>: only the calling thread's children.
WNOTHREAD = 0x20000000

# How those have ended whose end somebody wants to learn; None while they live.
_awaited: dict[int, Optional[int]] = {}


def take_in_orphans() -> None:
    """Makes this process the parent of orphans."""
    adopt_orphans()


def clear_orphans_away(done: Callable[[], bool]) -> None:
    """Clears orphans away that have ended, until all is done.

    Only the process's first thread can do this: orphans are its children. Those of the other
    threads are left to who has started them.
    """
    while not done():
        if not _clear_one_away():
            time.sleep(0.05)


def _clear_one_away() -> bool:
    with suppress(ChildProcessError):
        number, status = os.waitpid(-1, os.WNOHANG | WNOTHREAD)
        if number in _awaited:
            _awaited[number] = os.waitstatus_to_exitcode(status)
        return number != 0
    return False


def await_end(number: int) -> None:
    """Lets the end of an orphan be remembered, see `ended`."""
    _awaited[number] = None


def ended(number: int) -> Optional[int]:
    """Returns how it has ended, -N by signal N, and forgets that; None when it lives."""
    if _awaited[number] is None:
        return None
    return _awaited.pop(number)
