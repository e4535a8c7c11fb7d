"""Configurations for Debian's OpenVPN, as the gateway's users write them.

Keys and certificates are made once for all scenarios.
"""

from __future__ import annotations

import secrets
import subprocess
import threading
from functools import cache
from ipaddress import ip_network
from pathlib import Path
from typing import Iterable

FOLDER = Path("/run/lab/openvpn")

_one_at_a_time = threading.Lock()


def static_key_config(peer: str, port: int, local: str, remote: str,
                      routes: Iterable[str] = (), secret: str = "") -> str:
    """Returns one end of a point-to-point link whose ends share a key.

    `peer` is the other gateway, `local` and `remote` are the ends inside the tunnel. The key
    is in the text unless `secret` names a file with it.
    """
    return "\n".join([
        "dev tun", "proto udp", f"port {port}", f"remote {peer}",
        f"ifconfig {local} {remote}   # local end, remote end",
        "cipher AES-256-CBC", *map(_route, routes),
        f"secret {secret}" if secret else _inline("secret", static_key())]) + "\n"


def tls_server_config(port: int, network: str, clients: str = "",
                      routes: Iterable[str] = (), pushed: Iterable[str] = ()) -> str:
    """Returns a server with certificates that gives its clients addresses of a network.

    `clients` is the folder with files for single clients, `routes` lead to what is behind
    the clients, and `pushed` are networks behind the server.
    """
    return "\n".join([
        "dev tun", "proto udp", f"port {port}", "topology subnet", f"server {_spaced(network)}",
        "dh none", "keepalive 2 10", *([f"client-config-dir {clients}"] if clients else []),
        *map(_route, routes), *(f"push \"{_route(network)}\"" for network in pushed),
        *_inline_certificates("server")]) + "\n"


def tls_client_config(server: str, port: int) -> str:
    """Returns a client with certificates, named "client", of that server."""
    return "\n".join([
        "client", "dev tun", "proto udp", f"remote {server} {port}", "nobind",
        "remote-cert-tls server", "connect-retry 1 4", *_inline_certificates("client")]) + "\n"


def client_networks(*networks: str) -> str:
    """Returns what tells a server which networks are behind a client."""
    return "".join(f"iroute {_spaced(network)}\n" for network in networks)


def static_key() -> str:
    """Returns the key that all static-key links share."""
    with _one_at_a_time:
        return _new_static_key()


def _route(network: str) -> str:
    return f"route {_spaced(network)}"


def _spaced(network: str) -> str:
    parts = ip_network(network)
    return f"{parts.network_address} {parts.netmask}"


def _inline(tag: str, text: str) -> str:
    return f"<{tag}>\n{text.strip()}\n</{tag}>"


def _inline_certificates(role: str) -> list[str]:
    with _one_at_a_time:
        files = _certificates()
    return [_inline("ca", files["ca.crt"]), _inline("cert", files[f"{role}.crt"]),
            _inline("key", files[f"{role}.key"])]


@cache
def _new_static_key() -> str:
    lines = "\n".join(secrets.token_hex(16) for _ in range(16))
    return (f"-----BEGIN OpenVPN Static key V1-----\n{lines}\n"
            "-----END OpenVPN Static key V1-----\n")


@cache
def _certificates() -> dict[str, str]:
    """Makes an authority and the certificates "server" and "client"; returns all files."""
    FOLDER.mkdir()
    _certify("ca", "keyUsage=keyCertSign")
    for role in ("server", "client"):
        _certify(role, "keyUsage=digitalSignature", "-addext", f"extendedKeyUsage={role}Auth",
                 "-CA", "ca.crt", "-CAkey", "ca.key")
    return {path.name: path.read_text() for path in FOLDER.iterdir()}


def _certify(name: str, usage: str, *others: str) -> None:
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                    "ec_paramgen_curve:prime256v1", "-nodes", "-days", "30", "-subj",
                    f"/CN={name}", "-addext", usage, *others, "-keyout", f"{name}.key",
                    "-out", f"{name}.crt"],
                   cwd=FOLDER, check=True, capture_output=True, timeout=60)
