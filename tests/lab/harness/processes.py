"""Processes of a machine of the lab."""

from __future__ import annotations

import os
from contextlib import suppress
from pathlib import Path

from .places import Place


def processes(place: Place) -> dict[int, list[str]]:
    """Returns the words of the command line of every living process of a machine.

    One with the words of its parent is about to become another program, and is left out.
    """
    network = os.stat(f"/run/netns/{place.network}").st_ino
    found: dict[int, list[str]] = {}
    parents: dict[int, int] = {}
    for entry in sorted(map(int, filter(str.isdigit, os.listdir("/proc")))):
        with suppress(OSError):
            if os.stat(f"/proc/{entry}/ns/net").st_ino == network:
                line = Path(f"/proc/{entry}/cmdline").read_bytes().decode(errors="replace")
                found[entry] = line.rstrip("\0").split("\0")
                stat = Path(f"/proc/{entry}/stat").read_text(errors="replace")
                parents[entry] = int(stat.rpartition(")")[2].split()[1])
    return {number: words for number, words in found.items()
            if number in parents and found.get(parents[number]) != words}
