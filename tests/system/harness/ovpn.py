"""OpenVPN as the tests expect it: files, command lines, records, processes."""

from __future__ import annotations

from typing import Any

from .expected import DISCOVERY, FIREWALL, IPSEC_STOP, NO_GRE, NO_IPSEC, PULL
from .gateway import Daemon, Gateway, wait_for

EXEC_FAILED = ("ERROR", "[TUNNEL_MNGR][OVPN] failed exec openvpn")
CAUGHT_IN_CONF = ("ERROR", "[TUNNEL_MNGR][OVPN] Conf::init catch exception")
# Keeps the process that was started and its arguments, and ends by SIGTERM at once.
STAY = "exec sleep infinity"
# A copy of the daemon lacks the threads that hold some of its memory: that looks like a leak.
FOR_COPIES = {"LSAN_OPTIONS": "detect_leaks=0"}


def conf_file(name: str) -> str:
    """Returns the path of a tunnel's configuration."""
    return f"/var/run/openvpn_{name}.conf"


def connect_file(name: str) -> str:
    """Returns the path of the file that tells whether the peer answers."""
    return f"/var/run/connect_{name}.status"


def command(name: str) -> str:
    """Returns a tunnel's command line."""
    return (f"openvpn --config {conf_file(name)} --status /var/run/openvpn_{name}.status 1 "
            "--syslog openvpn")


def tunnel(name: str = "office", *lines: str, **keys: Any) -> dict[str, Any]:
    """Returns the record of an enabled tunnel with these lines of configuration."""
    return {"name": name, "enabled": True, "config": "".join(f"{line}\n" for line in lines), **keys}


def create_failed(name: str) -> tuple[str, str]:
    """Returns the record of a configuration that cannot be opened."""
    return ("ERROR", f"[TUNNEL_MNGR][OVPN] faild create file for tunnel {name} conf: {conf_file(name)}")


def write_failed(name: str) -> tuple[str, str]:
    """Returns the record of a configuration that was not taken whole."""
    return ("ERROR", f"[TUNNEL_MNGR][OVPN] faild write file for tunnel {name} conf: {conf_file(name)}")


def duplicated(name: str) -> tuple[str, str]:
    """Returns the record of a name that was there before."""
    return ("ERROR", f"[TUNNEL_MNGR][OVPN] duplicated openvpn name: {name}")


def pinged(address: str) -> list[tuple[str, str]]:
    """Returns the records of a ping."""
    return [("ERROR", f"[TUNNEL_MNGR][OVPN] ping {address}"), ("TRACE", f"ping -c 3 {address}")]


def cycle(*conf_records: tuple[str, str]) -> list[tuple[str, str]]:
    """Returns the log of a cycle in which reading the configuration said this."""
    return DISCOVERY + list(conf_records) + IPSEC_STOP + PULL + NO_GRE + NO_IPSEC + FIREWALL


def children(gateway: Gateway, daemon: Daemon) -> list[dict[str, Any]]:
    """Returns the daemon's children that live, in the order of their start."""
    found = [entry for entry in gateway.children(daemon.pid) if entry["state"] != "Z"]
    return sorted(found, key=lambda entry: entry["pid"])


def config_of(child: dict[str, Any]) -> str:
    """Returns which configuration an openvpn runs with; nothing if it is none."""
    arguments = child["arguments"]
    return arguments[arguments.index("--config") + 1] if "--config" in arguments else ""


def running(gateway: Gateway, daemon: Daemon) -> dict[str, int]:
    """Returns the pids of the daemon's running openvpn processes by configuration."""
    return {config_of(child): child["pid"] for child in children(gateway, daemon) if config_of(child)}


def wait_until_running(gateway: Gateway, daemon: Daemon, *names: str) -> dict[str, int]:
    """Waits until exactly these tunnels run. Returns their pids by name.

    Only for an openvpn that keeps its command line, as it does unless scripted.
    """
    files = {conf_file(name): name for name in names}
    found = wait_for(lambda: (now := running(gateway, daemon)).keys() == files.keys() and now)
    return {files[path]: pid for path, pid in found.items()}
