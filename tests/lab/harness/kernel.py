"""The kernel's view of tunnels, as `ip` tells it."""

from __future__ import annotations

import json
import re
from dataclasses import dataclass
from typing import Any

from .places import Place

MAIN_TABLE = "main"
LOOK = """\
addr show
route show table all type unicast
xfrm policy list dir out
"""
PAIR = re.compile(r"^src (\S+) dst (\S+)", re.MULTILINE)


@dataclass(frozen=True)
class Tunnel:
    """A GRE tunnel as the kernel has it; ttl 0 is shown as "inherit" by `ip`."""

    local: str
    remote: str
    ttl: int
    up: bool
    addresses: tuple[str, ...]
    routes: tuple[str, ...]


@dataclass(frozen=True)
class View:
    """What the kernel has at one moment: as `ip -json -details` gives it, and IPsec's pairs."""

    links: list[dict[str, Any]]
    routes: list[dict[str, Any]]
    ipsec_pairs: set[tuple[str, str]]

    def gre_tunnels(self) -> dict[str, Tunnel]:
        """Returns all GRE tunnels but the kernel's own fallback device."""
        return {link["ifname"]: _tunnel(link, self._destinations(link["ifname"]))
                for link in self.links
                if link.get("link_type") == "gre" and link["ifname"] != "gre0"}

    def _destinations(self, device: str) -> tuple[str, ...]:
        """Returns what leads to a device, but for the network of its own address."""
        return tuple(route["dst"] for route in self.routes
                     if route["dev"] == device and route.get("protocol") != "kernel"
                     and table_of(route) == MAIN_TABLE and ":" not in route["dst"])


def look(place: Place) -> View:
    """Looks at everything at once: starting a program costs more than all it has to tell."""
    text = place.must("ip", "-json", "-details", "-batch", "-", text=LOOK)
    links, routes = (json.loads(line) for line in text.splitlines() if line.startswith("["))
    return View(links, routes, set(PAIR.findall(text)))


def table_of(route: dict[str, Any]) -> str:
    """Returns the table of a route."""
    return route.get("table", MAIN_TABLE)


def gre_tunnels(place: Place) -> dict[str, Tunnel]:
    """Returns all GRE tunnels but the kernel's own fallback device."""
    return look(place).gre_tunnels()


def _tunnel(link: dict[str, Any], routes: tuple[str, ...]) -> Tunnel:
    data = link["linkinfo"]["info_data"]
    addresses = tuple(f"{entry['local']}/{entry['prefixlen']}" for entry in link["addr_info"]
                      if entry["family"] == "inet")
    return Tunnel(data.get("local", "any"), data.get("remote", "any"), data.get("ttl", 0),
                  "UP" in link["flags"], addresses, routes)


def ipsec_pairs(place: Place) -> set[tuple[str, str]]:
    """Returns the pairs of networks, ours and the peer's, whose traffic IPsec protects."""
    return look(place).ipsec_pairs


def ipsec_ends(place: Place) -> set[str]:
    """Returns the addresses between which there are IPsec security associations."""
    text = place.must("ip", "xfrm", "state")
    return {address for pair in PAIR.findall(text) for address in pair}
