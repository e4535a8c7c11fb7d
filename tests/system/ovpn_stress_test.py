"""openvpn processes start while the daemon's other threads log, resolve and end: nothing
that a thread holds at the fork may stop a child on its way to openvpn.

Both gateways of this file live through the minute that names wait for their first check.
"""

from __future__ import annotations

import signal
import time

import pytest

from harness.gateway import wait_for
from harness.ovpn import STAY, tunnel

TUNNELS = 20
MONITORS = 50
REBUILDS = 15
# Each SIGHUP also cuts short the second that a rebuild gives an openvpn to end.
HUP_SECONDS = 0.02
SETTLING_SECONDS = 0.5
CHECK_SECONDS = 60.0
UNRESOLVED = "Unable to resolve [peer.example]"
PATIENCE = 300.0

# Its child logs, runs a command and reads directories before it becomes openvpn.
STRESSED = [tunnel(f"o{number}", f"client-config-dir /var/run/clients/{number}") for number in range(TUNNELS)]


def monitored(peer: str) -> list[dict]:
    """Returns records of tunnels to this peer; only their monitors matter."""
    return [{"name": f"t{number}", "enabled": True, "remoteWanIp": peer, "type": "none"}
            for number in range(MONITORS)]


class Stressed:
    """A gateway with all these tunnels, and what its daemon had after its first cycle."""

    def __init__(self, gateway) -> None:
        self.gateway = gateway
        gateway.hasten_resolver()
        self.server = gateway.name_server("192.0.2.7 peer.example\n")
        gateway.script("openvpn *", shell="rmdir /var/run/clients/* 2>/dev/null; " + STAY)
        gateway.api(ovpnTunnels=STRESSED, ipsecTunnels=monitored("peer.example"))
        self.daemon = gateway.daemon("-p", "100")
        self.daemon.wait_for_cycles(1)
        self.begin = time.monotonic()
        self.wait_until_calm()
        self.descriptors = self.daemon.process()["descriptors"]

    def wait_until_calm(self) -> None:
        """Waits until every tunnel has its openvpn and every record its monitor."""
        names = ["sleep"] * TUNNELS
        wait_for(lambda: [entry["name"] for entry in self.gateway.children(self.daemon.pid)] == names, PATIENCE)
        wait_for(lambda: len(self.daemon.threads("FQDN_MONITOR")) == MONITORS, PATIENCE)

    def rebuild(self, times: int) -> None:
        """Lets it rebuild so often, as fast as it can, and waits until it rests."""
        enough = self.daemon.cycles() + times
        limit = time.monotonic() + PATIENCE
        while not (self.daemon.cycles() >= enough and self.rests()):
            assert time.monotonic() < limit
            self.daemon.signal(signal.SIGHUP)
            time.sleep(HUP_SECONDS)

    def rests(self) -> bool:
        """Returns whether no rebuild is under way or about to begin."""
        time.sleep(SETTLING_SECONDS if self.is_idle() else 0)
        return self.is_idle()

    def is_idle(self) -> bool:
        """Returns whether no rebuild is under way."""
        return self.daemon.log().count(("INFO", "Managing tunnels")) == self.daemon.cycles()

    def assert_sound(self) -> None:
        """Fails for anything that has been left behind or has got stuck."""
        self.wait_until_calm()
        # A monitor may just have a socket of its own.
        wait_for(lambda: self.daemon.process()["descriptors"] == self.descriptors)
        # A late rebuild may just have children on their way to openvpn.
        wait_for(lambda: [entry["pid"] for entry in self.gateway.processes("tunnel_mngr")] == [self.daemon.pid])
        assert self.daemon.stop() == 0
        wait_for(lambda: not self.gateway.processes("sleep"))


def count(daemon, part: str) -> int:
    """Returns how many records have this in their text."""
    return sum(part in text for _, text in daemon.log())


@pytest.fixture(scope="module")
def gateways(make_gateway):
    """Two gateways: one to disturb while monitors come and go, one while they resolve."""
    return [Stressed(make_gateway()), Stressed(make_gateway())]


def test_rebuilds_while_monitors_start_log_and_end_leave_nothing_behind(gateways):
    stressed = gateways[0]
    stressed.rebuild(REBUILDS)
    stressed.assert_sound()


def test_rebuilds_while_monitors_resolve_and_log_leave_nothing_behind(gateways):
    stressed = gateways[1]
    gateway, daemon = stressed.gateway, stressed.daemon
    # From now on the main thread has nothing to resolve, and the monitors get no answer.
    gateway.api(ipsecTunnels=monitored("192.0.2.7"))
    gateway.signal(stressed.server, signal.SIGSTOP)
    checked, failed = count(daemon, " check "), count(daemon, UNRESOLVED)
    time.sleep(max(0.0, stressed.begin + CHECK_SECONDS - 1 - time.monotonic()))
    # After a first test that took its time it is the next minute's check.
    wait_for(lambda: count(daemon, " check ") > checked, PATIENCE)
    stressed.rebuild(3)
    wait_for(lambda: count(daemon, UNRESOLVED) > failed, PATIENCE)
    gateway.signal(stressed.server, signal.SIGCONT)
    wait_for(lambda: sum(text.endswith(" stop ") for _, text in daemon.log()) >= MONITORS, PATIENCE)
    stressed.assert_sound()
