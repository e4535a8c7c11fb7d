"""The whole state of a gateway, for stories that look at what else has changed."""

from __future__ import annotations

import os
import re
from collections import Counter
from fnmatch import fnmatchcase
from pathlib import Path
from typing import TYPE_CHECKING, Any, Iterator, Mapping, Optional

from .kernel import MAIN_TABLE, View, look, table_of
from .gateway_files import HOOKS
from .processes import processes
from .waiting import eventually, expect

if TYPE_CHECKING:
    from .site import Site

# What the manager leaves in /run and /dev/shm. What a service or a check writes there in its
# own time is none of it.
FILES = ("run/ipsec/*", "run/ipsec/*/*", "run/openvpn_*.conf", "run/tunnel_mngr.pid",
         "dev/shm/*")
PROCESS_NUMBERS = "run/tunnel_mngr.pid"
SETTLING_SECONDS = 45.0

State = dict[str, str]
# What becomes of some facts: None stands for one that is gone.
Facts = Mapping[str, Optional[str]]


class StateExpectations:
    """The part of a Site that looks at everything at once.

    A state is a fact for each key; keys begin with what they are about: "gre NAME",
    "device NAME", "route DESTINATION", "ipsec OURS THEIRS", "file PATH", "process WORDS".
    """

    def state(self: Site) -> State:
        """Returns devices, routes, IPsec policies, the manager's files and all processes."""
        view = look(self.gateway)
        return {**dict(_devices(view)), **dict(_routes(view)), **dict(_ipsec(view)),
                **self.gateway.call(lambda: dict(_files())), **dict(_processes(self))}

    def expect_state(self: Site, before: State, within: float = SETTLING_SECONDS) -> State:
        """Expects that all is as it was before, as soon as it has settled; returns it."""
        return self.expect_only_changed(before, within=within)

    def expect_only_changed(self: Site, before: State, *keys: str, now: Optional[Facts] = None,
                            within: float = SETTLING_SECONDS) -> State:
        """Expects that the facts with these keys differ from those before, and no others.

        A key that ends in * stands for one fact or more that begin so; `now` are facts whose
        new values are known. Returns the new state.
        """
        now = now or {}
        keys = (*keys, *now)

        def compare() -> State:
            after = self.state()
            changed = sorted(key for key in {*before, *after} if before.get(key) != after.get(key))
            idle = [key for key in keys if not any(_is_meant(name, key) for name in changed)]
            expect(not idle, f"{self.name}: as before: {idle}")
            others = [key for key in changed if not any(_is_meant(key, one) for one in keys)]
            expect(not others, f"{self.name}: " + "; ".join(
                f"\"{key}\" was {before.get(key)} and is {after.get(key)}" for key in others))
            wrong = [key for key, value in now.items() if after.get(key) != value]
            expect(not wrong, f"{self.name}: " + "; ".join(
                f"\"{key}\" is {after.get(key)}, not {now[key]}" for key in wrong))
            return after
        found = eventually(compare, within)
        self._tell(f"{self.name}: " + (f"changed: {', '.join(keys)}; all else" if keys else "all")
                   + " is as it was before")
        return found


def _is_meant(name: str, key: str) -> bool:
    return fnmatchcase(name, key)


def _devices(view: View) -> Iterator[tuple[str, str]]:
    for name, tunnel in view.gre_tunnels().items():
        yield f"gre {name}", str(tunnel)
    for link in view.links:
        if link.get("link_type") != "gre":
            addresses = [f"{entry['local']}/{entry['prefixlen']}" for entry in link["addr_info"]
                         if entry["family"] == "inet"]
            yield f"device {link['ifname']}", f"{'UP' in link['flags']} {addresses}"


def _routes(view: View) -> Iterator[tuple[str, str]]:
    for route in view.routes:
        # The service's own routes are to networks; one to its peer is there only now and then.
        beside = table_of(route) != MAIN_TABLE
        if ":" not in route["dst"] and not (beside and "/" not in route["dst"]):
            table = f" table {table_of(route)}" if beside else ""
            yield (f"route {route['dst']}{table} dev {route['dev']}",
                   " ".join(f"{key} {route[key]}" for key in ("gateway", "metric", "prefsrc")
                            if key in route))


def _ipsec(view: View) -> Iterator[tuple[str, str]]:
    for ours, theirs in view.ipsec_pairs:
        yield f"ipsec {ours} {theirs}", "protected"


def _files() -> Iterator[tuple[str, str]]:
    for pattern in FILES:
        for path in sorted(Path("/").glob(pattern)):
            if not path.is_dir():
                text = path.read_text(errors="replace")
                text = re.sub(r"\d+", "N", text) if str(path) == f"/{PROCESS_NUMBERS}" else text
                yield f"file {path}", f"{os.stat(path).st_mode:o} {text}"


def _processes(site: Site) -> Iterator[tuple[str, str]]:
    lines = (" ".join(words) for words in processes(site.gateway).values())
    # A check of an OpenVPN peer may be under way, or a hook that the IPsec service calls.
    counts = Counter(line for line in lines if "ping -c " not in line and HOOKS not in line)
    for line, count in counts.items():
        yield f"process {line}", str(count)
