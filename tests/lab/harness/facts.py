"""What tunnels are on a gateway, as facts of its state."""

from __future__ import annotations

from fnmatch import fnmatchcase
from ipaddress import ip_interface, ip_network
from typing import Any

from . import kernel
from .everything import GRE_FACTS, IPSEC_FACTS, OVPN_FACTS
from .lab import Lab
from .site import Site
from .state import Facts, State

CONNECTIONS = "file /run/ipsec/ipsec.conf"
SECRETS = "file /run/ipsec/ipsec.secrets"
NO_CONNECTIONS = "100644 version 2.0\n\nconfig setup\n\tuniqueids=yes\n"
NO_SECRETS = "100644 "

PEM_FILES = {"cacerts": ("100644", "caCert"), "certs": ("100644", "localCert"),
             "private": ("100600", "localPrivKey")}


def gone(*facts: Facts) -> Facts:
    """Returns that none of these facts is there any more."""
    return {key: None for some in facts for key in some}


def all_tunnels(state: State) -> State:
    """Returns all that a state has because of tunnels, but for files."""
    return {key: value for key, value in state.items()
            if any(fnmatchcase(key, one) for one in (*GRE_FACTS, *IPSEC_FACTS, *OVPN_FACTS))}


def gre_facts(site: Site, record: dict[str, Any]) -> Facts:
    """Returns all that a GRE tunnel is."""
    name, inner = record["name"], f"{record['tunnelIp']}/{record['tunnelMask']}"
    routes = tuple(f"{route['ip']}/{route['mask']}" for route in record["routes"])
    tunnel = kernel.Tunnel(site.wan, record["remoteIp"], record["ttl"], True, (inner,), routes)
    interface = ip_interface(inner)
    return {f"gre {name}": str(tunnel),
            f"route {interface.network} dev {name}": f"prefsrc {interface.ip}",
            **{f"route {route} dev {name}": "" for route in routes}}


def main_pair_facts(site: Site, other: Site) -> Facts:
    """Returns what the IPsec service tells a site's kernel about the WAN addresses."""
    return {f"ipsec {site.wan}/32 {other.wan}/32": "protected"}


def pair_facts(lab: Lab, site: Site, ours: str, theirs: str) -> Facts:
    """Returns what the IPsec service tells a site's kernel about a pair of networks."""
    gateway = next(ip_network(ours).hosts())
    return {f"ipsec {ours} {theirs}": "protected",
            f"route {theirs} table 220 dev wan":
                f"gateway {lab.internet_beside(site)} prefsrc {gateway}"}


def pem_files(record: dict[str, Any]) -> Facts:
    """Returns the certificate files of an IPsec tunnel."""
    return {f"file /run/ipsec/{folder}/{record['name']}.pem": f"{mode} {record[key]}"
            for folder, (mode, key) in PEM_FILES.items()}


def psk_line(record: dict[str, Any]) -> str:
    """Returns the line with the key of an IPsec tunnel that has identities."""
    return f'"{record["localId"]}" "{record["remoteId"]}" : PSK "{record["psk"]}"\n'


def ovpn_facts(name: str, ours: str, theirs: str) -> Facts:
    """Returns all that an OpenVPN line between these ends is, but for its file."""
    files = f"/var/run/openvpn_{name}"
    return {f"device tun{name}": f"True ['{ours}/32']",
            f"route {theirs} dev tun{name}": f"prefsrc {ours}",
            f"process openvpn --config {files}.conf --status {files}.status 1 "
            "--syslog openvpn": "1"}


def ovpn_file(record: dict[str, Any]) -> Facts:
    """Returns the file of an OpenVPN tunnel on a gateway whose log level is 10."""
    name = record["name"]
    text = record["config"].replace("dev tun\n", f"dev tun{name}\n") + "verb 3\n"
    return {f"file /run/openvpn_{name}.conf": f"100600 {text}"}
