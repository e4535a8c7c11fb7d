"""Expectations and bounded waiting."""

from __future__ import annotations

import time
from typing import Callable, TypeVar

Found = TypeVar("Found")

# A pause is so many times as long as the look before it.
PAUSES = 2


class Unexpected(AssertionError):
    """Something in the lab is not as the story expects it; the text says what."""


def expect(holds: bool, otherwise: str) -> None:
    """Raises Unexpected with the text when the condition does not hold."""
    if not holds:
        raise Unexpected(otherwise)


def expect_same(found: object, wanted: object) -> None:
    """Raises Unexpected when the two are not equal."""
    expect(found == wanted, f"expected {wanted}, found {found}")


def expect_text(found: str, wanted: str) -> None:
    """Raises Unexpected when a text is no part of another."""
    expect(wanted in found, f"expected \"{wanted}\" in \"{found}\"")


def eventually(check: Callable[[], Found], within: float) -> Found:
    """Repeats the check until it raises Unexpected no more, and returns what it gave.

    After `within` seconds the last Unexpected is raised, with the time waited. The longer
    it takes, and the longer looking takes, the longer the pauses: looking costs time that
    others need.
    """
    begin = time.monotonic()
    while True:
        waited = time.monotonic() - begin
        try:
            return check()
        except Unexpected as unexpected:
            if waited >= within:
                raise Unexpected(f"{unexpected} (waited {waited:.1f} s)") from None
        looked = time.monotonic() - begin - waited
        pause = max(0.02, min(1.0, waited / 10), PAUSES * looked)
        time.sleep(min(pause, max(0.02, within - waited)))
