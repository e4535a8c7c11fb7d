"""A table of a site's tunnels: what is configured, and what has become of it."""

from __future__ import annotations

import re
from typing import Any

from . import kernel
from .site import KINDS, Site

Row = tuple[str, str, str, str]


def overview(site: Site) -> list[str]:
    """Returns a heading and a line for each configured tunnel of a site."""
    rows: list[Row] = [("tunnel", "kind", "peer", "state")]
    for kind, look in (("gre", _gre), ("ipsec", _ipsec), ("ovpn", _ovpn)):
        for record in site.configured(kind):
            peer, state = look(site, record)
            rows.append((record["name"], KINDS[kind], peer, state))
    widths = [max(len(row[column]) for row in rows) for column in range(3)]
    return ["  ".join([*(text.ljust(width) for text, width in zip(row, widths)), row[3]])
            for row in rows]


def _gre(site: Site, record: dict[str, Any]) -> tuple[str, str]:
    tunnel = kernel.gre_tunnels(site.gateway).get(record["name"].replace(" ", "_"))
    if not tunnel:
        return record["remoteIp"], _or_disabled("not there", record)
    return _resolved(record["remoteIp"], tunnel.remote), "up" if tunnel.up else "down"


def _ipsec(site: Site, record: dict[str, Any]) -> tuple[str, str]:
    name = record["name"].replace(" ", "_")
    pairs = len(record["localSubnets"]) * len(record["remoteSubnets"])
    up = sum(connection.startswith(f"{name}_subnet_") for connection in site.ipsec_installed())
    state = f"up for {up} of {pairs} pairs of networks" if up else _or_disabled("down", record)
    return record["remoteWanIp"], state


def _ovpn(site: Site, record: dict[str, Any]) -> tuple[str, str]:
    found = re.search(r"^remote (\S+)", record["config"], re.MULTILINE)
    peer = found[1] if found else ""
    if record["name"] not in site.ovpn_processes():
        return peer, _or_disabled("does not run", record)
    answers = site.gateway.read(f"/run/connect_{record['name']}.status") == "connected"
    return peer, "up, the last ping was answered" if answers else "runs"


def _resolved(configured: str, address: str) -> str:
    return configured if configured == address else f"{configured} ({address})"


def _or_disabled(state: str, record: dict[str, Any]) -> str:
    return state if record.get("enabled") else "disabled"
