"""The check that comes every 11 seconds or more: what has ended is started again, what
lives is pinged.

All gateways of this file live through the same time side by side; the tests then look
at what each has done.
"""

from __future__ import annotations

import signal
import time

import pytest

from harness.expected import EMPTY_CYCLE_COMMANDS, FAILED_CONFIG_READ
from harness.gateway import OVPN_PATH, wait_for
from harness.ovpn import (EXEC_FAILED, FOR_COPIES, children, command, conf_file, connect_file, pinged, running,
                          tunnel, wait_until_running)

# The check runs when the clock's seconds have advanced by more than 10.
LEAST_SECONDS = 10.0
# What it does is seen a moment after it has looked at the clock.
SEEN_SECONDS = LEAST_SECONDS - 1.0
# More than one such time and less than two.
ONE_CHECK_SECONDS = 20.0

# Stands last in each list: once it is pinged, a check has been at all the others.
MARK = tunnel("mark", "ifconfig 10.9.9.1 10.9.9.9")
MARK_PING = "ping -c 3 10.9.9.9"
CLIENTS = "/var/run/clients"
STARTS = "/harness/starts"
# Of an openvpn that notes when it starts.
NOTE_START = f"date +%s.%N >>{STARTS}; stayAlive"


class Scenario:
    """A gateway, its daemon, and the openvpn processes that ran at first."""

    def __init__(self, gateway, daemon) -> None:
        self.gateway = gateway
        self.daemon = daemon
        self.first = running(gateway, daemon)
        self.told = len(daemon.log())
        self.checks_at_death = 0

    def checks(self) -> int:
        """Returns how many checks have come to their end."""
        return self.gateway.trace().count(MARK_PING)

    def wait_for_second_check(self) -> None:
        """Waits until one more check has come to its end."""
        wait_for(lambda: self.checks() >= 2)

    def kill(self, name: str) -> None:
        """Kills a tunnel's openvpn and waits until it is a zombie, or gone already."""
        self.gateway.signal(self.first[conf_file(name)], signal.SIGKILL)
        wait_for(lambda: self.state(name) in ("Z", ""))
        self.checks_at_death = self.checks()

    def starts(self) -> list[float]:
        """Returns when those openvpn processes started that note it, by the log's clock."""
        path = self.gateway.path(STARTS)
        return [float(line) for line in path.read_text().splitlines()] if path.exists() else []

    def state(self, name: str) -> str:
        """Returns the state of the openvpn that a tunnel had at first."""
        states = {entry["pid"]: entry["state"] for entry in self.gateway.children(self.daemon.pid)}
        return states.get(self.first[conf_file(name)], "")

    def pid(self, name: str) -> int:
        """Returns the pid of a tunnel's openvpn, 0 for none."""
        return running(self.gateway, self.daemon).get(conf_file(name), 0)


def after_first_check(gateway, *records: dict, environment: dict[str, str] | None = None,
                      never: str = "") -> Scenario:
    """Returns a gateway with these tunnels, after the check that follows the first cycle.

    All run but the one named `never`: the first check may come before they do.
    """
    tunnels = [*records, MARK]
    gateway.api(ovpnTunnels=tunnels)
    daemon = gateway.daemon("-p", "100", environment=environment)
    wait_for(lambda: MARK_PING in gateway.trace())
    wait_until_running(gateway, daemon, *(each["name"] for each in tunnels if each["name"] != never))
    return Scenario(gateway, daemon)


def that_dies(gateway) -> Scenario:
    gateway.script(command("dies"), shell=NOTE_START)
    scenario = after_first_check(gateway, tunnel("dies"), tunnel("lives", "<ca>"))
    scenario.kill("dies")
    return scenario


def that_cannot_be_executed(gateway) -> Scenario:
    commands = gateway.path("/harness/commands")
    commands.mkdir()
    for name in ("ip", "ipsec", "rm", "firewall", "ping"):
        (commands / name).symlink_to(f"/tools/commands/{name}")
    for name in ("date", "sleep"):
        (commands / name).symlink_to(f"/usr/bin/{name}")
    gateway.script(command("late"), shell=NOTE_START)
    gateway.api(ovpnTunnels=[tunnel("late")])
    daemon = gateway.daemon("-p", "100", environment={"PATH": "/harness/commands"})
    wait_for(lambda: EXEC_FAILED in daemon.log())
    wait_for(lambda: children(gateway, daemon) == [])
    (commands / "openvpn").symlink_to("/tools/commands/openvpn")
    return Scenario(gateway, daemon)


def whose_peer_goes_and_comes(gateway) -> Scenario:
    gateway.script("ping -c 3 10.8.0.2", status=1)
    gateway.script("ping -c 3 10.8.0.2", times=1)
    gateway.script("ping -c 3 10.8.0.3", status=1, times=1)
    return after_first_check(gateway, tunnel("goes", "ifconfig 10.8.0.1 10.8.0.2"),
                             tunnel("comes", "ifconfig 10.8.0.1 10.8.0.3"))


def whose_configuration_fails(gateway) -> Scenario:
    scenario = after_first_check(gateway, tunnel("kept"))
    gateway.fault(OVPN_PATH, code=500)
    scenario.daemon.refresh()
    scenario.kill("kept")
    return scenario


def whose_directory_vanishes(gateway) -> Scenario:
    gateway.path(CLIENTS).mkdir()
    scenario = after_first_check(gateway, tunnel("server", f"client-config-dir {CLIENTS}"))
    gateway.path(CLIENTS).rmdir()
    scenario.kill("server")
    return scenario


def that_was_never_started(gateway) -> Scenario:
    scenario = after_first_check(gateway, tunnel("down"))
    gateway.script("firewall --init", status=1)
    scenario.daemon.refresh()
    gateway.clear_trace()
    return scenario


def whose_directory_is_impossible(gateway) -> Scenario:
    gateway.script("mkdir *", status=1)
    return after_first_check(gateway, tunnel("server", f"client-config-dir {CLIENTS}"), tunnel("after"),
                             environment=FOR_COPIES, never="server")


SCENARIOS = [that_dies, that_cannot_be_executed, whose_peer_goes_and_comes, whose_configuration_fails,
             whose_directory_vanishes, that_was_never_started, whose_directory_is_impossible]


@pytest.fixture(scope="module")
def scenarios(make_gateway):
    """Every scenario by its function, after one more check in the first of them."""
    made = {make: make(make_gateway()) for make in SCENARIOS}
    time.sleep(LEAST_SECONDS)
    for make in (that_dies, whose_peer_goes_and_comes, whose_configuration_fails, whose_directory_vanishes):
        made[make].wait_for_second_check()
    return made


def test_the_check_waits_11_seconds_of_the_clock(scenarios):
    times = scenarios[that_dies].daemon.times_of(pinged("10.9.9.9")[0])
    assert times[1] - times[0] > SEEN_SECONDS


def test_an_openvpn_that_has_died_is_started_again_by_the_next_check(scenarios):
    scenario = scenarios[that_dies]
    wait_for(lambda: scenario.pid("dies"))
    assert scenario.pid("dies") != scenario.first[conf_file("dies")]
    assert scenario.state("dies") == ""
    wait_for(lambda: scenario.gateway.trace().count(command("dies")) == 2)
    wait_for(lambda: len(scenario.starts()) == 2)
    # Not at once, and not by a later one.
    first_check = scenario.daemon.times_of(pinged("10.9.9.9")[0])[0]
    assert scenario.starts()[1] - first_check > SEEN_SECONDS
    trace = scenario.gateway.trace()
    before_restart = trace[:trace.index(command("dies"), trace.index(command("dies")) + 1)]
    assert before_restart.count(MARK_PING) <= scenario.checks_at_death + 1


def test_a_restart_is_told_by_nothing_and_does_not_touch_the_others(scenarios):
    scenario = scenarios[that_dies]
    assert scenario.daemon.log()[scenario.told:][:2] == pinged("10.9.9.9")
    for name in ("lives", "mark"):
        assert scenario.pid(name) == scenario.first[conf_file(name)]
    assert scenario.gateway.trace().count(command("lives")) == 1
    # Besides, a check may just be pinging.
    wait_for(lambda: len(scenario.gateway.children(scenario.daemon.pid)) == 3)


def test_a_tunnel_with_certificates_is_never_pinged(scenarios):
    scenario = scenarios[that_dies]
    assert {line for line in scenario.gateway.trace() if line.startswith("ping")} == {MARK_PING}
    assert not scenario.gateway.exists(connect_file("lives"))


def test_an_openvpn_that_could_not_be_executed_is_tried_again_by_the_next_check(scenarios):
    scenario = scenarios[that_cannot_be_executed]
    wait_for(lambda: command("late") in scenario.gateway.trace() and scenario.starts())
    failures = scenario.daemon.times_of(EXEC_FAILED)
    # The first check may have come before or after the first failure, a later one before
    # there was an openvpn to execute.
    assert len(failures) <= 2 + (failures[-1] - failures[0]) / SEEN_SECONDS
    assert scenario.starts()[0] - failures[-1] < ONE_CHECK_SECONDS
    assert {record for record in scenario.daemon.log() if "[OVPN]" in record.text} == {EXEC_FAILED}
    assert [child["name"] for child in children(scenario.gateway, scenario.daemon)] == ["openvpn"]


def test_each_check_rewrites_the_connect_file_and_no_failed_ping_restarts_anything(scenarios):
    scenario = scenarios[whose_peer_goes_and_comes]
    gateway = scenario.gateway
    wait_for(lambda: gateway.file(connect_file("comes")) == "connected")
    assert gateway.file(connect_file("goes")) == ""
    assert [gateway.mode(connect_file(name)) for name in ("goes", "comes", "mark")] == [0o644] * 3
    assert [scenario.pid(name) for name in ("goes", "comes", "mark")] == list(scenario.first.values())
    pings = [line for line in gateway.trace() if line.startswith("ping")]
    assert pings[:6] == ["ping -c 3 10.8.0.2", "ping -c 3 10.8.0.3", MARK_PING] * 2


def test_a_cycle_that_failed_to_read_the_configuration_leaves_openvpn_supervised(scenarios):
    scenario = scenarios[whose_configuration_fails]
    assert FAILED_CONFIG_READ in scenario.daemon.log()
    wait_for(lambda: scenario.pid("kept"))
    assert scenario.pid("kept") != scenario.first[conf_file("kept")]
    assert scenario.pid("mark") == scenario.first[conf_file("mark")]


def test_a_restart_makes_a_directory_that_has_vanished(scenarios):
    scenario = scenarios[whose_directory_vanishes]
    wait_for(lambda: scenario.pid("server"))
    assert scenario.gateway.path(CLIENTS).is_dir()
    assert scenario.gateway.trace().count(f"mkdir -p {CLIENTS}") == 1


def test_the_check_does_nothing_after_a_failed_firewall(scenarios):
    scenario = scenarios[that_was_never_started]
    assert scenario.gateway.trace() == []
    assert scenario.gateway.children(scenario.daemon.pid) == []


def test_every_copy_that_cannot_make_a_directory_tries_again_and_all_end_with_the_daemon(scenarios):
    scenario = scenarios[whose_directory_is_impossible]
    gateway = scenario.gateway
    tried = f"mkdir -p {CLIENTS}"
    # Once by the daemon's child, once by that copy's at its first check, then by each check.
    wait_for(lambda: gateway.trace().count(tried) >= 3)
    wait_for(lambda: len(gateway.processes("tunnel_mngr")) >= 4)
    scenario.daemon.signal(signal.SIGTERM)
    assert scenario.daemon.exit_status() == 0
    wait_for(lambda: not gateway.processes("tunnel_mngr") and not gateway.processes("openvpn"))


@pytest.mark.parametrize("scenario", SCENARIOS[:-1], ids=lambda make: make.__name__)
def test_every_daemon_and_its_openvpn_processes_end_at_last(scenarios, scenario):
    gateway, daemon = scenarios[scenario].gateway, scenarios[scenario].daemon
    assert gateway.trace()[:len(EMPTY_CYCLE_COMMANDS)] in (EMPTY_CYCLE_COMMANDS, [])
    assert daemon.stop() == 0
    wait_for(lambda: not gateway.processes("openvpn"))
