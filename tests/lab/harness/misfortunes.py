"""What can go wrong on a gateway, for stories to bring about."""

from __future__ import annotations

import os
import shutil
from pathlib import Path
from typing import TYPE_CHECKING, Any

from .gateway_files import COMMANDS, PID_FILE
from .places import PATH, put
from .waiting import eventually, expect

if TYPE_CHECKING:
    from .site import Site

WANS = "/api/waninfo/wans"
KILL_THE_MANAGER = f"kill -KILL $(cat {PID_FILE})"


class Misfortunes:
    """The part of a Site that brings about what stories are afraid of, and mends it."""

    def api_fault(self: Site, path: str = "*", **fault: Any) -> None:
        """Lets answers of the API go wrong in a way that docs/gateway-api.md describes."""
        self._tell(f"{self.name}: the API goes wrong: {path} {fault}")
        self.api_keys(faults={path: fault})

    def api_heals(self: Site) -> None:
        """Lets the API answer properly again."""
        self._tell(f"{self.name}: the API answers properly again")
        self.api_keys(faults={})

    def expect_api_asked(self: Site, path: str, times: int, within: float) -> None:
        """Expects so many requests for a path, or more, since the API is there."""
        eventually(lambda: expect(
            [asked for _, asked in self._api.requests].count(path) >= times,
            f"{self.name}: the API was not asked {times} times for {path}"), within)

    def api_dies(self: Site) -> None:
        """Takes the API away, requests that it has not answered included."""
        self._tell(f"{self.name}: the API is gone")
        self._api.stop()

    def api_returns(self: Site) -> None:
        """Lets the API that was gone answer again."""
        self._tell(f"{self.name}: the API is there again")
        self._api = self._serve_api()

    def before(self: Site, command: str, words: str, script: str) -> None:
        """Runs a shell script before a command whose words are like a shell pattern.

        The command, the path of a hook or a name such as "ip", runs afterwards unless the
        script ends with `exit`. Patterns are separated by "|". One script at a time; `undo`
        takes it back.
        """
        pattern = words.replace(" ", "\\ ")

        def wrap() -> None:
            target, plain = _put_aside(command)
            put(str(target), f"#!/bin/sh\ncase \"$*\" in\n{pattern}) {script} ;;\nesac\n"
                f"exec {plain} \"$@\"\n", 0o755)
        self.gateway.call(wrap)
        self._tell(f"{self.name}: before {command} {words}: {script}")

    def take_away(self: Site, command: str) -> None:
        """Lets a hook, or another command that only this gateway has, be missing; see `undo`."""
        self.gateway.call(lambda: _put_aside(command)[0].unlink(missing_ok=True))
        self._tell(f"{self.name}: {command} is missing")

    def undo(self: Site, command: str) -> None:
        """Lets a command be what it was."""
        def put_back() -> None:
            target, plain = _paths(command)
            if plain.is_symlink():
                target.unlink()
                plain.unlink()
            else:
                plain.rename(target)
        self.gateway.call(put_back)
        self._tell(f"{self.name}: {command} is as it was")


def _put_aside(command: str) -> tuple[Path, Path]:
    """Keeps a command's usual self; returns where it is found first, and where that is."""
    target, plain = _paths(command)
    plain.parent.mkdir(exist_ok=True)
    if not os.path.lexists(plain):
        if target.exists():
            target.rename(plain)
        else:
            plain.symlink_to(shutil.which(command, path=PATH))
    return target, plain


def _paths(command: str) -> tuple[Path, Path]:
    """Returns where a command is found first, and where its usual self is kept meanwhile."""
    target = Path(COMMANDS) / command
    return target, target.parent / "plain" / target.name
