"""Records of the gateway's configuration, as its API hands them out."""

from __future__ import annotations

from typing import Any, Iterable


def gre_tunnel(name: str, peer: str, inner: str = "", routes: Iterable[str] = (),
               **others: Any) -> dict[str, Any]:
    """Returns an enabled GRE tunnel whose peer name is checked every minute.

    `inner` is the tunnel's own address, such as "10.0.0.1/30"; `routes` are networks such
    as "192.168.2.0/24"; `others` are further keys, or other values for the usual ones.
    """
    address, _, mask = inner.partition("/")
    return {
        "name": name, "enabled": True, "remoteIp": peer, "ttl": 64, "checkPeriod": 1,
        "tunnelIp": address, "tunnelMask": mask,
        "routes": [_subnet(route) for route in routes],
        **others,
    }


def ovpn_tunnel(name: str, config: str, **others: Any) -> dict[str, Any]:
    """Returns an enabled OpenVPN tunnel with a configuration text."""
    return {"name": name, "enabled": True, "config": config, **others}


def ipsec_tunnel(name: str, peer: str, local: Iterable[str], remote: Iterable[str],
                 **others: Any) -> dict[str, Any]:
    """Returns an enabled IKEv2 tunnel with a pre-shared key.

    `local` and `remote` are networks such as "192.168.2.0/24"; `others` are further keys, or
    other values for the usual ones.
    """
    return {
        "name": name, "enabled": True, "remoteWanIp": peer, "checkPeriod": 1, "type": "IKEv2",
        "encryptMethod": "aes128", "ikelife": 3, "keylife": 1, "retries": 0,
        "authMethod": "secret", "psk": "a secret of the lab",
        "localSubnets": [_subnet(network) for network in local],
        "remoteSubnets": [_subnet(network) for network in remote],
        **others,
    }


def _subnet(network: str) -> dict[str, Any]:
    ip, _, mask = network.partition("/")
    return {"ip": ip, "mask": int(mask)}
