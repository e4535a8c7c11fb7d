"""The few system calls on namespaces and mounts that Python 3.11 has no functions for."""

from __future__ import annotations

import ctypes
import os

CLONE_NEWNS = 0x00020000
CLONE_NEWNET = 0x40000000
MS_BIND = 0x1000
PR_SET_CHILD_SUBREAPER = 36

libc = ctypes.CDLL(None, use_errno=True)


def _checked(result: int, what: str) -> None:
    if result != 0:
        error = ctypes.get_errno()
        raise OSError(error, f"{what}: {os.strerror(error)}")


def enter_network(path: str) -> None:
    """Moves the calling thread, and no other, into a network namespace."""
    descriptor = os.open(path, os.O_RDONLY)
    try:
        _checked(libc.setns(descriptor, CLONE_NEWNET), f"setns {path}")
    finally:
        os.close(descriptor)


def leave_mounts() -> None:
    """Gives the calling thread a mount namespace of its own."""
    _checked(libc.unshare(CLONE_NEWNS), "unshare")


def mount(source: str, target: str, kind: str = "none", flags: int = 0, data: str = "") -> None:
    """Is mount(2)."""
    words = [os.fsencode(word) for word in (source, target, kind)]
    _checked(libc.mount(*words, ctypes.c_ulong(flags), os.fsencode(data)), f"mount {target}")


def overlay(folder: str, scratch: str) -> None:
    """Makes a folder writable; what is written there lands in `scratch` instead."""
    for part in ("upper", "work"):
        os.makedirs(f"{scratch}/{part}")
    mount("overlay", folder, "overlay",
          data=f"lowerdir={folder},upperdir={scratch}/upper,workdir={scratch}/work")


def adopt_orphans() -> None:
    """Makes this process the parent of daemons, so that it learns how they end."""
    _checked(libc.prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0), "prctl")
