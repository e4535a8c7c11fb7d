"""The kernel's view of tunnels, as `ip` tells it."""

from __future__ import annotations

import json
import re
from dataclasses import dataclass
from typing import Any

from .places import Place


@dataclass(frozen=True)
class Tunnel:
    """A GRE tunnel as the kernel has it; ttl 0 is shown as "inherit" by `ip`."""

    local: str
    remote: str
    ttl: int
    up: bool
    addresses: tuple[str, ...]
    routes: tuple[str, ...]


def gre_tunnels(place: Place) -> dict[str, Tunnel]:
    """Returns all GRE tunnels but the kernel's own fallback device."""
    links = json.loads(place.must("ip", "-json", "-details", "addr", "show", "type", "gre") or "[]")
    routes = _routes(place)
    return {link["ifname"]: _tunnel(link, routes.get(link["ifname"], ()))
            for link in links if link.get("ifname", "gre0") != "gre0"}


def _tunnel(link: dict[str, Any], routes: tuple[str, ...]) -> Tunnel:
    data = link["linkinfo"]["info_data"]
    addresses = tuple(f"{entry['local']}/{entry['prefixlen']}" for entry in link["addr_info"]
                      if entry["family"] == "inet")
    return Tunnel(data.get("local", "any"), data.get("remote", "any"), data.get("ttl", 0),
                  "UP" in link["flags"], addresses, routes)


def _routes(place: Place) -> dict[str, tuple[str, ...]]:
    """Returns the destinations by device, without the networks of its own addresses."""
    found: dict[str, tuple[str, ...]] = {}
    for route in json.loads(place.must("ip", "-json", "route", "show") or "[]"):
        if route.get("protocol") != "kernel":
            found[route["dev"]] = (*found.get(route["dev"], ()), route["dst"])
    return found


def ipsec_pairs(place: Place) -> set[tuple[str, str]]:
    """Returns the pairs of networks, ours and the peer's, whose traffic IPsec protects."""
    return set(_xfrm(place, "policy", "list", "dir", "out"))


def ipsec_ends(place: Place) -> set[str]:
    """Returns the addresses between which there are IPsec security associations."""
    return {address for pair in _xfrm(place, "state") for address in pair}


def _xfrm(place: Place, *words: str) -> list[tuple[str, str]]:
    text = place.must("ip", "xfrm", *words)
    return re.findall(r"^src (\S+) dst (\S+)", text, re.MULTILINE)
