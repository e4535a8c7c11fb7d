"""What the daemon does at its own pace: it asks for the WAN every 30 s, for names every
minute, and looks after OpenVPN every 11 s.

All gateways of this file live through the same 66 seconds side by side; the tests
then look at what each has done. On a busy machine it becomes more than that: the logs may
go on after what is looked for, by what a test says.
"""

from __future__ import annotations

import signal
import time

import pytest

from harness.expected import (DISCOVERY, EMPTY_CYCLE, FAILED_WAN_QUERY, FINISH, IPSEC_STOP, MONITORS,
                              NO_MONITORS, NO_WAN, PULL, creation, creation_commands, pulled)
from harness.gateway import WAN_PATH, wait_for, wan

# Two WAN polls and one check of a name, and a little for what these bring about.
WATCH_SECONDS = 66
# The end of a daemon takes no time; what it could wait for in vain takes 30 s and more.
STOP_SECONDS = 10.0

UNCHANGED = ("TRACE", "[WAN_MONITOR] WAN has not changed")
FIRST_LOG = EMPTY_CYCLE + MONITORS + NO_MONITORS
REBUILD_LOG = EMPTY_CYCLE + NO_MONITORS
ONE_MONITOR = [("INFO", "Number of FQDN monitors is 1")]
NAMED = {"name": "site", "enabled": True, "remoteIp": "peer.example"}
NAME_UNCHANGED = ("TRACE", "[FQDN_MONITOR] FQDN has not changed")
# What the old monitor's thread says, perhaps while the next cycle has begun already.
GOODBYE = ("TRACE", "[FQDN_MONITOR] tunnel:site stop ")


def absorbed(number: int) -> list[tuple[str, str]]:
    """Returns the records of a poll without a WAN that is absorbed."""
    return [("TRACE", "[WAN_MONITOR] All WANs are down. Waiting for the WAN to go up. "
                      f"Current down counter: [{number}]"), UNCHANGED]


def cycle_of_one_tunnel(record: dict, address: str) -> list[tuple[str, str]]:
    """Returns the records of a cycle that creates this tunnel."""
    return (DISCOVERY + IPSEC_STOP + PULL + [pulled(record, address)] + creation("site", address) + FINISH)


def checking(host: str) -> tuple[str, str]:
    """Returns the record of a check of this peer."""
    return ("TRACE", f"[FQDN_MONITOR] tunnel:{host} check site ")


def assert_log_begins(daemon, expected: list[tuple[str, str]], *passed_over: tuple[str, str]):
    """Waits for a log of these records, but for those that are passed over; returns the rest."""
    def log() -> list[tuple[str, str]]:
        return [record for record in daemon.log() if record not in passed_over]

    wait_for(lambda: len(log()) >= len(expected))
    whole = log()
    assert whole[:len(expected)] == expected
    return whole[len(expected):]


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
    wait_for(lambda: len(gateway.requests()) > scenario.asked)
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
    rest = assert_log_begins(scenarios["steady"].daemon, FIRST_LOG + [UNCHANGED] * 2)
    assert set(rest) <= {UNCHANGED}
    times = [moment for moment, path in scenarios["steady"].gateway.timed_requests() if path == WAN_PATH]
    gaps = [(later - earlier) / 1000 for earlier, later in zip(times[1:3], times[2:4])]
    assert len(gaps) == 2
    assert 29.9 < min(gaps) and max(gaps) < 45.0


def test_a_new_wan_address_causes_one_rebuild(scenarios):
    rest = assert_log_begins(scenarios["new address"].daemon, FIRST_LOG + REBUILD_LOG + [UNCHANGED])
    assert set(rest) <= {UNCHANGED}


def test_a_wan_that_comes_up_causes_a_rebuild(scenarios):
    rest = assert_log_begins(scenarios["wan comes up"].daemon, DISCOVERY + IPSEC_STOP + NO_WAN + MONITORS
                             + NO_MONITORS + REBUILD_LOG + [UNCHANGED])
    assert set(rest) <= {UNCHANGED}


def test_a_lost_wan_is_absorbed_at_first(scenarios):
    assert_log_begins(scenarios["wan lost"].daemon, FIRST_LOG + absorbed(1) + absorbed(2))


def test_a_failing_api_counts_as_a_lost_wan(scenarios):
    failure = [("ERROR", "api returned error code [500]"), FAILED_WAN_QUERY]
    assert_log_begins(scenarios["api fails"].daemon, FIRST_LOG + failure + absorbed(1) + failure + absorbed(2))


def test_sigterm_ends_a_daemon_whose_wan_monitor_waits_for_an_answer(scenarios):
    stuck = scenarios["stuck"]
    assert stuck.status == 0
    assert stuck.seconds < STOP_SECONDS


def test_a_name_that_moves_causes_one_rebuild_with_the_new_address(scenarios):
    scenario = scenarios["name moves"]
    rest = assert_log_begins(
        scenario.daemon,
        cycle_of_one_tunnel(NAMED, "192.0.2.7") + MONITORS + ONE_MONITOR
        + [checking("peer.example"),
           ("INFO", "[FQDN_MONITOR] tunnel:site The host [peer.example] has resolved to a new ip address. "
                    "[192.0.2.7]=>[192.0.2.8]")]
        + cycle_of_one_tunnel(NAMED, "192.0.2.8") + ONE_MONITOR, UNCHANGED, GOODBYE)
    assert set(rest) <= {checking("peer.example"), NAME_UNCHANGED}
    wait_for(lambda: GOODBYE in scenario.daemon.log())
    assert scenario.daemon.log().count(GOODBYE) == 1
    assert set(creation_commands("site", "192.0.2.8")) <= set(scenario.gateway.trace())


def test_a_name_that_is_lost_is_absorbed_at_first(scenarios):
    assert_log_begins(
        scenarios["name lost"].daemon,
        cycle_of_one_tunnel(NAMED, "192.0.2.7") + MONITORS + ONE_MONITOR
        + [checking("peer.example"), ("WARNING", "[FQDN_MONITOR] The host [peer.example] was not found."),
           ("INFO", "[FQDN_MONITOR] tunnel:site Failed to resolve the [peer.example] host. "
                    "Resolution failure counter: [1]"),
           NAME_UNCHANGED], UNCHANGED)


@pytest.mark.parametrize("name, host", [("name steady", "peer.example"), ("address", "192.0.2.7")])
def test_a_steady_peer_causes_nothing(scenarios, name, host):
    record = {**NAMED, "remoteIp": host}
    rest = assert_log_begins(
        scenarios[name].daemon,
        cycle_of_one_tunnel(record, "192.0.2.7") + MONITORS + ONE_MONITOR + [checking(host), NAME_UNCHANGED],
        UNCHANGED)
    assert set(rest) <= {checking(host), NAME_UNCHANGED}


def test_openvpn_is_checked_on_the_first_turn_and_then_every_11_seconds(scenarios):
    daemon = scenarios["openvpn"].daemon
    ping = ("ERROR", "[TUNNEL_MNGR][OVPN] ping 10.8.0.2")
    checks = wait_for(lambda: len(found := daemon.times_of(ping)) >= 5 and found)
    assert checks[0] - daemon.times_of(NO_MONITORS[0])[0] < 5.0
    # The first gap begins within a second of the clock, and each check may be late. Together
    # they tell whether it is every 11 seconds or rather every 10.
    assert 10.5 < (checks[4] - checks[0]) / 4 < 14.0
    assert min(later - earlier for earlier, later in zip(checks, checks[1:])) > 9.0
