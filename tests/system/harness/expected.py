"""What a management cycle does: its records at print level 100 and its commands."""

from __future__ import annotations

GRE_HOOK = "gre-tunnel-link-changed"
REMOVE_FILES = "rm -rf /var/run/ipsec/cacerts/* /var/run/ipsec/certs/* /var/run/ipsec/private/*"

# The steps of a cycle in their order. GRE teardown and creation go between.
DISCOVERY = [("INFO", "Managing tunnels"), ("TRACE", "ip tunnel"),
             ("TRACE", "Parsing current GRE tunnels")]
IPSEC_STOP = [("DEBUG", "[TUNNEL_MNGR] Stopping IPsec"), ("TRACE", "ipsec stop 2>&1")]
NO_WAN = [("TRACE", "WAN address is not acquired. Tunnels will not be setup until WAN is available.")]
PULL = [("TRACE", "Pulling Current Configurations")]
NO_GRE = [("TRACE", "No GRE Tunnels configured")]
NO_IPSEC = [("TRACE", REMOVE_FILES), ("DEBUG", "Creating IPsec Configuration Files"),
            ("DEBUG", "[TUNNEL_MNGR] There are no ipsec tunnels to start.")]
FIREWALL = [("TRACE", "firewall --init")]
FINISH = NO_IPSEC + FIREWALL
EMPTY_CYCLE = DISCOVERY + IPSEC_STOP + PULL + NO_GRE + FINISH

MONITORS = [("INFO", "Starting WAN and FQDN monitors")]
NO_MONITORS = [("INFO", "Number of FQDN monitors is 0")]

TEARDOWN_COMMANDS = ["ip tunnel", "ipsec stop"]
# The patterns match nothing, so the shell hands them over as they are.
FINISH_COMMANDS = ["rm -rf '/var/run/ipsec/cacerts/*' '/var/run/ipsec/certs/*' '/var/run/ipsec/private/*'",
                   "firewall --init"]
EMPTY_CYCLE_COMMANDS = TEARDOWN_COMMANDS + FINISH_COMMANDS

FAILED_CONFIG_READ = ("ERROR", "[TUNNEL_MNGR] Failed read config")
FAILED_WAN_QUERY = ("ERROR", "[WAN_MONITOR] Could not obtain WAN information")
CAUGHT = ("ERROR", "Exception caught while waiting on signal")


def pulled(record: dict, resolved: str | None = None, period: int = 1) -> tuple[str, str]:
    """Returns the pull's record of an enabled GRE tunnel."""
    peer = record.get("remoteIp", "")
    address = peer if resolved is None else resolved
    return ("INFO", f"GRE tunnel [{peer}][{address}] period {period}")


def creation(name: str, remote: str, ttl: str = "0", local: str = "198.51.100.2") -> list[tuple[str, str]]:
    """Returns the records of a creation up to the link's."""
    return [("INFO", f"Creating GRE tunnel: [{name}] local[{local}] remote[{remote}] ttl[{ttl}]"),
            ("TRACE", f"ip tunnel add {name} mode gre remote {remote} local {local} ttl {ttl}"),
            ("TRACE", f"ip link set {name} up")]


def creation_commands(name: str, remote: str, ttl: str = "0", local: str = "198.51.100.2") -> list[str]:
    """Returns the commands of a plain creation: no address, no routes."""
    return [f"ip tunnel add {name} mode gre remote {remote} local {local} ttl {ttl}",
            f"ip link set {name} up", f"{GRE_HOOK} -n {name} -d up"]


def removal(name: str) -> list[tuple[str, str]]:
    """Returns the records of a teardown."""
    return [("INFO", f"Destroying tunnel: {name}"), ("TRACE", f"ip link set {name} down"),
            ("TRACE", f"ip tunnel del {name}")]


def removal_commands(name: str) -> list[str]:
    """Returns the commands of a teardown."""
    return [f"ip link set {name} down", f"ip tunnel del {name}", f"{GRE_HOOK} -n {name} -d down"]
