"""Filters that let single system calls fail, as bytes for bwrap."""

from __future__ import annotations

import errno
import platform
import struct

# The numbers of clone and setsid.
NUMBERS = {"x86_64": (56, 112), "aarch64": (220, 157)}
PRCTL = {"x86_64": 157, "aarch64": 167}

LOAD, JUMP_IF_EQUAL, JUMP_IF_BITS, RETURN = 0x20, 0x15, 0x45, 0x06
NUMBER_OFFSET, FIRST_ARGUMENT_OFFSET = 0, 16
ALLOW, FAIL = 0x7FFF0000, 0x00050000
CLONE_VM = 0x100
PR_SET_PDEATHSIG = 1


def instruction(code: int, value: int, if_true: int = 0, if_false: int = 0) -> bytes:
    """Returns one instruction of a classic BPF program; the jumps are relative."""
    return struct.pack("=HBBI", code, if_true, if_false, value)


def refuse_fork() -> bytes:
    """Lets fork() fail as it does without memory; threads and posix_spawn still work."""
    clone, _ = NUMBERS[platform.machine()]
    return b"".join((instruction(LOAD, NUMBER_OFFSET),
                     instruction(JUMP_IF_EQUAL, clone, if_false=3),
                     instruction(LOAD, FIRST_ARGUMENT_OFFSET),
                     instruction(JUMP_IF_BITS, CLONE_VM, if_true=1),
                     instruction(RETURN, FAIL | errno.EAGAIN),
                     instruction(RETURN, ALLOW)))


def refuse_setsid() -> bytes:
    """Lets setsid() fail."""
    _, setsid = NUMBERS[platform.machine()]
    return b"".join((instruction(LOAD, NUMBER_OFFSET),
                     instruction(JUMP_IF_EQUAL, setsid, if_false=1),
                     instruction(RETURN, FAIL | errno.EPERM),
                     instruction(RETURN, ALLOW)))


def refuse_parent_death_signal() -> bytes:
    """Lets prctl(PR_SET_PDEATHSIG) fail."""
    return b"".join((instruction(LOAD, NUMBER_OFFSET),
                     instruction(JUMP_IF_EQUAL, PRCTL[platform.machine()], if_false=3),
                     instruction(LOAD, FIRST_ARGUMENT_OFFSET),
                     instruction(JUMP_IF_EQUAL, PR_SET_PDEATHSIG, if_false=1),
                     instruction(RETURN, FAIL | errno.EPERM),
                     instruction(RETURN, ALLOW)))
