"""Processes whose parents have gone, services that the manager has started for instance.

On a gateway the first process takes them in and, when they end, clears them away; until then
they look alive to those who wait for their end, `ipsec stop` for one. Here it is the runner.
"""

from __future__ import annotations

import os
import threading
import time
from contextlib import suppress

from .namespaces import adopt_orphans

# Those whose end somebody here wants to learn.
awaited: set[int] = set()


def take_in_orphans() -> None:
    """Makes this process the parent of orphans and clears them away from now on."""
    adopt_orphans()
    threading.Thread(target=_clear, name="orphans", daemon=True).start()


def _clear() -> None:
    while True:
        with suppress(ChildProcessError, ProcessLookupError):
            ended = os.waitid(os.P_ALL, 0, os.WEXITED | os.WNOWAIT)
            # Daemons have left the session; what is still in it belongs to who has started it.
            if ended.si_pid not in awaited and os.getsid(ended.si_pid) != os.getsid(0):
                os.waitpid(ended.si_pid, os.WNOHANG)
                continue
        time.sleep(0.05)
