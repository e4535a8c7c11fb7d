"""What the daemon does at its own pace: it asks for the WAN every 30 s, for names every
minute, and looks after OpenVPN every 11 s.

All gateways of this file live through the same 66 seconds side by side; the tests
then look at what each has done.
"""

from __future__ import annotations

import signal
import time

import pytest

from harness.expected import (DISCOVERY, EMPTY_CYCLE, FAILED_WAN_QUERY, FINISH, IPSEC_STOP, MONITORS,
                              NO_MONITORS, NO_WAN, PULL, creation, creation_commands, pulled)
from harness.gateway import WAN_PATH, wait_for, wan

# Two WAN polls and one check of a name, and a little for a busy machine.
WATCH_SECONDS = 66

UNCHANGED = ("TRACE", "[WAN_MONITOR] WAN has not changed")
FIRST_LOG = EMPTY_CYCLE + MONITORS + NO_MONITORS
REBUILD_LOG = EMPTY_CYCLE + NO_MONITORS
ONE_MONITOR = [("INFO", "Number of FQDN monitors is 1")]
NAMED = {"name": "site", "enabled": True, "remoteIp": "peer.example"}
NAME_UNCHANGED = ("TRACE", "[FQDN_MONITOR] FQDN has not changed")


def absorbed(number: int) -> list[tuple[str, str]]:
    """Returns the records of a poll without a WAN that is absorbed."""
    return [("TRACE", "[WAN_MONITOR] All WANs are down. Waiting for the WAN to go up. "
                      f"Current down counter: [{number}]"), UNCHANGED]


def cycle_of_one_tunnel(record: dict, address: str) -> list[tuple[str, str]]:
    """Returns the records of a cycle that creates this tunnel."""
    return (DISCOVERY + IPSEC_STOP + PULL + [pulled(record, address)] + creation("site", address) + FINISH)


def without_polls(daemon) -> list[tuple[str, str]]:
    """Returns the daemon's log without the WAN monitor's records."""
    return [record for record in daemon.log() if record != UNCHANGED]


class Scenario:
    """A gateway, its daemon, and what is done to it after the first cycle."""

    def __init__(self, gateway, change) -> None:
        self.gateway = gateway
        self.daemon = gateway.ready_daemon()
        change(gateway)


def gateway_with_name_server(make_gateway, record):
    """Returns a gateway with one tunnel to a name, and that name server's pid."""
    gateway = make_gateway()
    server = gateway.name_server("192.0.2.7 peer.example\n")
    gateway.api(greTunnels=[record])
    return gateway, server


def move_name(gateway, server, line: str) -> None:
    """Lets the name server answer something else."""
    gateway.path("/harness/hosts").write_text(line)
    gateway.signal(server, signal.SIGHUP)


def stop_while_stuck(scenario: Scenario) -> float:
    """Ends a daemon whose WAN monitor waits for an answer; returns the seconds it took."""
    gateway = scenario.gateway
    wait_for(lambda: len(gateway.requests()) > scenario.asked, patience=WATCH_SECONDS)
    begin = time.monotonic()
    scenario.status = scenario.daemon.stop()
    return time.monotonic() - begin


@pytest.fixture(scope="module")
def scenarios(make_gateway):
    """Every scenario by its name, after the time of watching."""
    def no_wan(gateway):
        gateway.api(wans=[])

    made = {"steady": Scenario(make_gateway(), lambda gateway: None),
            "new address": Scenario(make_gateway(), lambda gateway: gateway.api(wans=wan("198.51.100.9"))),
            "wan lost": Scenario(make_gateway(), no_wan),
            "api fails": Scenario(make_gateway(), lambda gateway: gateway.fault(WAN_PATH, code=500)),
            "stuck": Scenario(make_gateway(), lambda gateway: gateway.fault(WAN_PATH, hang=True))}
    made["stuck"].asked = len(made["stuck"].gateway.requests())
    late = make_gateway()
    late.api(wans=[])
    made["wan comes up"] = Scenario(late, lambda gateway: gateway.api(wans=wan()))

    for name, line in (("name moves", "192.0.2.8 peer.example\n"), ("name lost", "192.0.2.7 other.example\n"),
                       ("name steady", "192.0.2.7 peer.example\n")):
        gateway, server = gateway_with_name_server(make_gateway, NAMED)
        made[name] = Scenario(gateway, lambda g, s=server, text=line: move_name(g, s, text))
    address = make_gateway()
    address.api(greTunnels=[{**NAMED, "remoteIp": "192.0.2.7"}])
    made["address"] = Scenario(address, lambda gateway: None)

    pinging = make_gateway()
    pinging.api(ovpnTunnels=[{"name": "office", "enabled": True, "config": "ifconfig 10.8.0.1 10.8.0.2\n"}])
    made["openvpn"] = Scenario(pinging, lambda gateway: None)

    ready = time.monotonic()
    made["stuck"].seconds = stop_while_stuck(made["stuck"])
    time.sleep(max(0.0, ready + WATCH_SECONDS - time.monotonic()))
    return made


def test_the_wan_is_asked_for_every_30_seconds_and_a_steady_one_causes_nothing(scenarios):
    daemon = scenarios["steady"].daemon
    assert daemon.log() == FIRST_LOG + [UNCHANGED] * 2
    times = [moment for moment, path in scenarios["steady"].gateway.timed_requests() if path == WAN_PATH]
    assert [round((later - earlier) / 1000) for earlier, later in zip(times[1:], times[2:])] == [30, 30]


def test_a_new_wan_address_causes_one_rebuild(scenarios):
    assert scenarios["new address"].daemon.log() == FIRST_LOG + REBUILD_LOG + [UNCHANGED]


def test_a_wan_that_comes_up_causes_a_rebuild(scenarios):
    assert scenarios["wan comes up"].daemon.log() == (DISCOVERY + IPSEC_STOP + NO_WAN + MONITORS + NO_MONITORS
                                                      + REBUILD_LOG + [UNCHANGED])


def test_a_lost_wan_is_absorbed_at_first(scenarios):
    assert scenarios["wan lost"].daemon.log() == FIRST_LOG + absorbed(1) + absorbed(2)


def test_a_failing_api_counts_as_a_lost_wan(scenarios):
    failure = [("ERROR", "api returned error code [500]"), FAILED_WAN_QUERY]
    assert scenarios["api fails"].daemon.log() == (FIRST_LOG + failure + absorbed(1) + failure + absorbed(2))


def test_sigterm_ends_a_daemon_whose_wan_monitor_waits_for_an_answer(scenarios):
    stuck = scenarios["stuck"]
    assert stuck.status == 0
    assert stuck.seconds < 1.0


def test_a_name_that_moves_causes_one_rebuild_with_the_new_address(scenarios):
    scenario = scenarios["name moves"]
    # The old monitor's thread says goodbye while the cycle has begun already.
    stopped = ("TRACE", "[FQDN_MONITOR] tunnel:site stop ")
    log = without_polls(scenario.daemon)
    assert log.count(stopped) == 1
    assert [record for record in log if record != stopped] == (
        cycle_of_one_tunnel(NAMED, "192.0.2.7") + MONITORS + ONE_MONITOR
        + [("TRACE", "[FQDN_MONITOR] tunnel:peer.example check site "),
           ("INFO", "[FQDN_MONITOR] tunnel:site The host [peer.example] has resolved to a new ip address. "
                    "[192.0.2.7]=>[192.0.2.8]")]
        + cycle_of_one_tunnel(NAMED, "192.0.2.8") + ONE_MONITOR)
    assert set(creation_commands("site", "192.0.2.8")) <= set(scenario.gateway.trace())


def test_a_name_that_is_lost_is_absorbed_at_first(scenarios):
    assert without_polls(scenarios["name lost"].daemon) == (
        cycle_of_one_tunnel(NAMED, "192.0.2.7") + MONITORS + ONE_MONITOR
        + [("TRACE", "[FQDN_MONITOR] tunnel:peer.example check site "),
           ("WARNING", "[FQDN_MONITOR] The host [peer.example] was not found."),
           ("INFO", "[FQDN_MONITOR] tunnel:site Failed to resolve the [peer.example] host. "
                    "Resolution failure counter: [1]"),
           NAME_UNCHANGED])


@pytest.mark.parametrize("name, host", [("name steady", "peer.example"), ("address", "192.0.2.7")])
def test_a_steady_peer_causes_nothing(scenarios, name, host):
    record = {**NAMED, "remoteIp": host}
    assert without_polls(scenarios[name].daemon) == (
        cycle_of_one_tunnel(record, "192.0.2.7") + MONITORS + ONE_MONITOR
        + [("TRACE", f"[FQDN_MONITOR] tunnel:{host} check site "), NAME_UNCHANGED])


def test_openvpn_is_checked_on_the_first_turn_and_then_every_11_seconds(scenarios):
    daemon = scenarios["openvpn"].daemon
    checks = daemon.times_of(("ERROR", "[TUNNEL_MNGR][OVPN] ping 10.8.0.2"))
    assert checks[0] - daemon.times_of(NO_MONITORS[0])[0] < 1.0
    assert len(checks) >= WATCH_SECONDS // 12
    # The seconds of the clock are whole, and a turn takes up to 200 ms.
    gaps = [later - earlier for earlier, later in zip(checks, checks[1:])]
    assert 10.0 < min(gaps) and max(gaps) < 12.0
