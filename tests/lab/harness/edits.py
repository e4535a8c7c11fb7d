"""Single changes to the configuration of a site's tunnels; each waits for a rebuild."""

from __future__ import annotations

from typing import Any

from .site import Site


def add_tunnel(site: Site, kind: str, record: dict[str, Any]) -> None:
    """Configures one more tunnel of a kind: "gre", "ipsec" or "ovpn"."""
    site.api(**{kind: [*site.configured(kind), record]})


def change_tunnel(site: Site, kind: str, name: str, /, **values: Any) -> None:
    """Gives a configured tunnel these values; a new "name" renames it."""
    site.api(**{kind: [{**record, **values} if record["name"] == name else record
                       for record in site.configured(kind)]})


def remove_tunnel(site: Site, kind: str, name: str) -> None:
    """Takes a tunnel out of the configuration."""
    site.api(**{kind: [record for record in site.configured(kind) if record["name"] != name]})
