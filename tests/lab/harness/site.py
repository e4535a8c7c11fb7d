"""A site: a gateway that runs the manager, and a host behind it."""

from __future__ import annotations

import json
import os
import signal
import sys
import time
from dataclasses import dataclass
from ipaddress import ip_network
from pathlib import Path
from typing import Any, Callable

from . import orphans
from .expectations import Expectations
from .gateway_files import COMMANDS, PID_FILE, furnish
from .ipsec_expectations import IpsecExpectations
from .manager_log import REBUILT
from .misfortunes import Misfortunes
from .ovpn_expectations import OvpnExpectations
from .places import PATH, Place
from .state import StateExpectations
from .syslog import Syslog
from .waiting import Unexpected, eventually, expect

sys.path.insert(0, str(Path(__file__).resolve().parents[3] / "tools"))

from gateway_api import ApiServer, StateFile  # noqa: E402

SYSLOG = "/run/syslog"
PROGRAM_OUTPUT = "/run/tunnel_mngr.out"
API_STATE = "/run/api/state.json"

KINDS = {"gre": "GRE", "ipsec": "IPsec", "ovpn": "OpenVPN"}


@dataclass(frozen=True)
class Addresses:
    """Where a site is: on the WAN, and its LAN."""

    wan: str
    uplink: str
    lan: str
    gateway: str
    host: str


class Site(Expectations, IpsecExpectations, OvpnExpectations, StateExpectations, Misfortunes):
    """A gateway and the host behind it.

    Its methods do things and tell the story so; those of the Expectations look at the result.
    """

    def __init__(self, name: str, place: Addresses, network: str, folder: str, program: str,
                 tell: Callable[[str], None], begin: float) -> None:
        """The network namespaces `network`-NAME and `network`-NAME-host are there already."""
        self.name = name
        self.wan = place.wan
        self.lan = place.lan
        self.networks = [place.lan]
        self.folder = f"{folder}/{name}"
        self._program = program
        self._uplink = place.uplink
        self._tell = tell
        self._state: dict[str, Any] = {"greTunnels": [], "ipsecTunnels": [], "ovpnTunnels": [],
                                       "syslog": {"logLevel": 10},
                                       "wans": [{"current": True, "ip": place.wan}]}
        self._daemon = 0
        self._rebuilds_seen = 0
        self.gateway = Place(f"{name} gateway", f"{network}-{name}", place.gateway,
                             f"{COMMANDS}:{PATH}", lambda: furnish(self.folder, place.uplink))
        self.host = Place(f"{name} host", f"{network}-{name}-host", place.host)
        self._syslog = Syslog(f"{self.folder}/run/devlog", f"{self.folder}{SYSLOG}", begin)
        self._api = self._serve_api()

    # The configuration API.

    def _serve_api(self) -> ApiServer:
        self._write_state()
        server = ApiServer(Path(f"{self.folder}/run/api/http.sock"),
                           StateFile(Path(f"{self.folder}{API_STATE}")))
        # It wakes up so often for nothing, and there are many of them.
        server.start(patience=1.0)
        return server

    def _write_state(self) -> None:
        draft = Path(f"{self.folder}/api.new")
        draft.write_text(json.dumps(self._state, indent=1), encoding="utf-8")
        draft.rename(f"{self.folder}{API_STATE}")

    def api(self, **lists: list[dict[str, Any]]) -> None:
        """Configures tunnels: gre=, ipsec= and ovpn= each replace the list of that kind."""
        for kind, tunnels in lists.items():
            names = ", ".join(map(_described, tunnels)) or "none"
            self._tell(f"{self.name}: is configured with these {KINDS[kind]} tunnels: {names}")
            self._state[f"{kind}Tunnels"] = tunnels
        self._write_state()

    def configured(self, kind: str) -> list[dict[str, Any]]:
        """Returns the records of the tunnels of a kind: "gre", "ipsec" or "ovpn"."""
        return self._state[f"{kind}Tunnels"]

    def configured_tunnel(self, kind: str, name: str) -> dict[str, Any]:
        """Returns the record of one tunnel."""
        return next(record for record in self.configured(kind) if record["name"] == name)

    def api_keys(self, **keys: Any) -> None:
        """Sets other keys of the API's state, "syslog" for instance."""
        self._state.update(keys)
        self._write_state()

    # The WAN.

    def move_wan(self, address: str) -> None:
        """Gives the gateway another WAN address, in the kernel and in the API."""
        self._tell(f"{self.name}: its WAN address changes from {self.wan} to {address}")
        self.gateway.must("ip", "-batch", "-", text=(
            f"addr flush dev wan\naddr add {address}/24 dev wan\n"
            f"route add default via {self._uplink}\n"))
        self.wan = address
        self.api_keys(wans=[{"current": True, "ip": address}])

    def lose_wan(self) -> None:
        """Lets the API say that no WAN is current."""
        self._tell(f"{self.name}: has no current WAN any more")
        self.api_keys(wans=[{"current": False, "ip": self.wan}])

    def regain_wan(self) -> None:
        """Lets the API say that the WAN is current again."""
        self._tell(f"{self.name}: its WAN is current again")
        self.api_keys(wans=[{"current": True, "ip": self.wan}])

    # The LAN.

    def add_network(self, network: str) -> None:
        """Gives gateway and host an address each in another network, "172.16.1.0/24" say."""
        self._tell(f"{self.name}: its LAN gets a second network, {network}")
        self.networks.append(network)
        gateway = next(ip_network(network).hosts())
        for place, address in ((self.gateway, gateway), (self.host, self.host_in(network))):
            place.must("ip", "addr", "add", f"{address}/{ip_network(network).prefixlen}",
                       "dev", "lan")

    def knock(self, other: Site) -> None:
        """Lets the host send a packet to the other one from each of its networks, to each."""
        for source in map(self.host_in, self.networks):
            for address in map(self.host_in, other.networks):
                self.host.knock(address, source)

    @staticmethod
    def host_in(network: str) -> str:
        """Returns the address of the host behind this gateway in one of its networks."""
        return str(ip_network(network)[10])

    # The manager.

    def launch(self, *options: str) -> int:
        """Starts the program, waits for its end (as a daemon: its first process's)."""
        self._tell(f"{self.name}: runs tunnel_mngr {' '.join(options)}".rstrip())
        started = self.gateway.spawn(self._program, *options, "--printlvl", "100",
                                     output=PROGRAM_OUTPUT)
        return started.wait(60)

    def start(self) -> None:
        """Starts the daemon and waits until it has built its tunnels."""
        self.begin()
        self.expect_rebuild()

    def begin(self) -> None:
        """Starts the daemon without waiting for its tunnels."""
        self._rebuilds_seen = self.rebuilds()
        status = self.launch("--daemonize")
        expect(status == 0, f"{self.name}: the start of the daemon ended with status {status}")
        self._daemon = eventually(self._read_pid_file, within=40)
        orphans.await_end(self._daemon)

    def _read_pid_file(self) -> int:
        text = self.gateway.read(PID_FILE).strip()
        expect(text.isdigit(), f"{self.name}: no process number in {PID_FILE}: \"{text}\"")
        return int(text)

    @property
    def daemon(self) -> int:
        """The daemon's process number; 0 when none was started."""
        return self._daemon

    def signal(self, number: signal.Signals) -> None:
        """Sends the daemon a signal."""
        self._tell(f"{self.name}: the manager gets {number.name}")
        os.kill(self._daemon, number)

    def refresh(self) -> None:
        """Asks the daemon for a rebuild, as an operator does, and waits for its end."""
        self.signal(signal.SIGHUP)
        self.expect_rebuild()

    def ended(self, within: float) -> int:
        """Waits for the daemon's end; returns its status, or -N for a death by signal N."""
        def look() -> int:
            status = orphans.ended(self._daemon)
            expect(status is not None, f"{self.name}: the manager has not ended")
            return status
        begin = time.monotonic()
        status = eventually(look, within)
        self._tell(f"{self.name}: the manager ended after {time.monotonic() - begin:.2f} s")
        self._daemon = 0
        return status

    def rebuilds(self) -> int:
        """Returns how many rebuilds have come to their end so far."""
        return self.log().count(REBUILT)

    def log(self) -> str:
        """Returns the gateway's syslog so far."""
        return self.gateway.read(SYSLOG)

    def show(self, *words: str) -> None:
        """Runs a command on the gateway for the reader of the story."""
        said = self.gateway.run(*words).output
        self._tell(f"{self.gateway.name}$ {' '.join(words)}")
        for line in filter(None, said.splitlines()):
            self._tell(f"    {line}")

    # The end.

    def places(self) -> list[Place]:
        """Returns the machines of this site."""
        return [self.gateway, self.host]

    def stop(self) -> None:
        """Ends the daemon as politely as it takes."""
        if self._daemon:
            try:
                os.kill(self._daemon, signal.SIGTERM)
                self.ended(within=3)
            except (Unexpected, OSError):
                self._tell(f"{self.name}: the manager had to be killed, or was gone already")

    def close(self) -> None:
        """Ends what serves this gateway; its processes have gone before."""
        self._api.stop()
        self._syslog.close()
        for place in self.places():
            place.close()


def _described(tunnel: dict[str, Any]) -> str:
    return f"\"{tunnel['name']}\"" + ("" if tunnel.get("enabled") else " (disabled)")
