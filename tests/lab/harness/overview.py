"""A site's tunnels: what is configured, what has become of it, and how long a ping takes."""

from __future__ import annotations

import re
from dataclasses import dataclass
from ipaddress import ip_interface
from statistics import median
from typing import Any

from . import kernel
from .places import Place
from .site import KINDS, Site

UP = "up"
TIME = re.compile(r" time=([\d.]+) ms")
PINGS = 3


@dataclass(frozen=True)
class Entry:
    """A configured tunnel; `peer` is the configured one and the address that is used.

    The round trip is in milliseconds; there is none when the tunnel is not up or when nobody
    answers.
    """

    name: str
    kind: str
    enabled: bool
    peer: str
    state: str
    round_trip: float | None


def overview(site: Site) -> list[Entry]:
    """Looks at each configured tunnel of a site and sends a few pings through it."""
    return [look(site, record) for look, kind in ((_gre, "gre"), (_ipsec, "ipsec"),
                                                  (_ovpn, "ovpn"))
            for record in site.configured(kind)]


def table(entries: list[Entry]) -> list[str]:
    """Returns a heading and a line for each tunnel."""
    rows = [("tunnel", "kind", "peer", "state", "round trip")]
    rows += [(entry.name, entry.kind, entry.peer, entry.state, _milliseconds(entry))
             for entry in entries]
    widths = [max(map(len, column)) for column in zip(*rows)]
    return ["  ".join([*map(str.ljust, row[:-1], widths), row[-1].rjust(widths[-1])])
            for row in rows]


def _milliseconds(entry: Entry) -> str:
    if entry.state != UP:
        return "-"
    return "no answer" if entry.round_trip is None else f"{entry.round_trip:.2f} ms"


def _gre(site: Site, record: dict[str, Any]) -> Entry:
    """Pings from host to host when the tunnel joins LANs, else its other end."""
    tunnel = kernel.gre_tunnels(site.gateway).get(record["name"].replace(" ", "_"))
    if not tunnel:
        return _entry("gre", record, record["remoteIp"], "missing")
    peer = _resolved(record["remoteIp"], tunnel.remote)
    if not tunnel.up or not tunnel.addresses:
        return _entry("gre", record, peer, "down")
    if tunnel.routes:
        trip = round_trip(site.host, site.host_in(tunnel.routes[0]))
    else:
        ours = ip_interface(tunnel.addresses[0])
        far = next(address for address in ours.network.hosts() if address != ours.ip)
        trip = round_trip(site.gateway, str(far))
    return _entry("gre", record, peer, UP, trip)


def _ipsec(site: Site, record: dict[str, Any]) -> Entry:
    """Pings from host to host, from the first local to the first remote network."""
    name = record["name"].replace(" ", "_")
    written = site.gateway.read("/run/ipsec/ipsec.conf")
    used = re.search(rf"^conn {re.escape(name)}\n(?:\s.*\n)*?\s+right=(\S+)", written, re.MULTILINE)
    peer = _resolved(record["remoteWanIp"], used[1] if used else record["remoteWanIp"])
    ours, theirs = (site.host_in(f"{record[key][0]['ip']}/{record[key][0]['mask']}")
                    for key in ("localSubnets", "remoteSubnets"))
    trip = round_trip(site.host, theirs, ours) if record.get("enabled") else None
    pairs = len(record["localSubnets"]) * len(record["remoteSubnets"])
    up = sum(connection.startswith(f"{name}_subnet_") for connection in site.ipsec_installed())
    partly = f"{up} of {pairs} up" if up else "down"
    return _entry("ipsec", record, peer, UP if up == pairs else partly, trip)


def _ovpn(site: Site, record: dict[str, Any]) -> Entry:
    """Pings the other gateway's end."""
    peer, far = (re.search(pattern, record["config"], re.MULTILINE)[1]
                 for pattern in (r"^remote (\S+)", r"^ifconfig \S+ (\S+)"))
    if record["name"] not in site.ovpn_processes():
        return _entry("ovpn", record, peer, "not running")
    return _entry("ovpn", record, peer, UP, round_trip(site.gateway, far))


def _entry(kind: str, record: dict[str, Any], peer: str, state: str,
           trip: float | None = None) -> Entry:
    enabled = bool(record.get("enabled"))
    idle = state != UP and not enabled
    return Entry(record["name"], KINDS[kind], enabled, peer, "disabled" if idle else state, trip)


def _resolved(configured: str, address: str) -> str:
    return configured if configured == address else f"{configured} ({address})"


def round_trip(place: Place, address: str, source: str = "") -> float | None:
    """Returns the milliseconds of the middle one of a few pings, None when none is answered."""
    sender = ["-I", source] if source else []
    said = place.run("ping", "-n", "-c", str(PINGS), "-i", "0.2", "-W", "1", *sender,
                     address).output
    times = [float(time) for time in TIME.findall(said)]
    return median(times) if times else None
