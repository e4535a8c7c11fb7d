"""The management cycle as a whole: order, early ends, what is left behind."""

from __future__ import annotations

import pytest

from harness.expected import (DISCOVERY, EMPTY_CYCLE, EMPTY_CYCLE_COMMANDS, FAILED_CONFIG_READ,
                              FAILED_WAN_QUERY, FINISH, FINISH_COMMANDS, FIREWALL, IPSEC_STOP, NO_GRE,
                              NO_IPSEC, NO_WAN, PULL, TEARDOWN_COMMANDS, creation, creation_commands,
                              pulled, removal, removal_commands)
from harness.gateway import OVPN_PATH, PULL_PATH, SYSLOG_PATH, WAN_PATH, wait_for

LINE = "old: gre/ip remote 192.0.2.1 local 198.51.100.2 ttl 64"
OLD_DISCOVERY = DISCOVERY + [("TRACE", f"Line: [{LINE}]")] + removal("old")
OLD_TEARDOWN_COMMANDS = ["ip tunnel", *removal_commands("old"), "ipsec stop"]
NEW = {"name": "new", "enabled": True, "remoteIp": "192.0.2.7", "ttl": 64}
OVPN = {"name": "office", "enabled": True, "config": "dev tun\n<ca>\n</ca>\n"}
OVPN_COMMAND = ("openvpn --config /var/run/openvpn_office.conf --status /var/run/openvpn_office.status 1 "
                "--syslog openvpn")


def test_everything_is_torn_down_first_and_then_created_in_a_fixed_order(gateway):
    gateway.script("ip tunnel", output=LINE + "\n")
    gateway.api(greTunnels=[NEW])
    run = gateway.run("-p", "100")
    assert gateway.trace() == (OLD_TEARDOWN_COMMANDS + creation_commands("new", "192.0.2.7", "64")
                               + FINISH_COMMANDS)
    assert run.log() == (OLD_DISCOVERY + IPSEC_STOP + PULL + [pulled(NEW)]
                         + creation("new", "192.0.2.7", "64") + FINISH)


def test_a_failed_discovery_ends_the_cycle_and_changes_nothing(gateway):
    gateway.script("ip tunnel", status=3, output=LINE + "\n")
    run = gateway.run("-p", "100")
    assert run.exit_status() == 0
    assert gateway.trace() == ["ip tunnel"]
    assert run.log() == [("INFO", "Managing tunnels"), ("TRACE", "ip tunnel"),
                         ("ERROR", "GRE error executing ip tunnel command [3]")]
    assert gateway.requests() == [WAN_PATH]


@pytest.mark.parametrize("path, asked", [(OVPN_PATH, [OVPN_PATH]), (SYSLOG_PATH, [OVPN_PATH, SYSLOG_PATH])])
def test_a_failed_openvpn_configuration_ends_the_cycle_after_the_gre_teardown(gateway, path, asked):
    gateway.script("ip tunnel", output=LINE + "\n")
    gateway.fault(path, code=500)
    run = gateway.run("-p", "100")
    assert gateway.trace() == ["ip tunnel", *removal_commands("old")]
    assert run.log() == OLD_DISCOVERY + [FAILED_CONFIG_READ]
    assert gateway.requests() == [WAN_PATH, *asked]


@pytest.mark.parametrize("wans", [[], [{"current": True, "ip": ""}], [{"current": False, "ip": "192.0.2.1"}],
                                  [{"current": True}]], ids=str)
def test_without_a_wan_address_everything_stays_down(gateway, wans):
    gateway.script("ip tunnel", output=LINE + "\n")
    gateway.api(wans=wans, greTunnels=[NEW])
    run = gateway.run("-p", "100")
    assert run.exit_status() == 0
    assert gateway.trace() == OLD_TEARDOWN_COMMANDS
    assert run.log() == OLD_DISCOVERY + IPSEC_STOP + NO_WAN
    assert PULL_PATH not in gateway.requests()


def test_a_failed_wan_query_counts_as_no_wan_address(gateway):
    gateway.fault(WAN_PATH, code=500)
    failure = [("ERROR", "api returned error code [500]"), FAILED_WAN_QUERY]
    run = gateway.run("-p", "100")
    assert gateway.trace() == TEARDOWN_COMMANDS
    assert run.log() == failure + DISCOVERY + IPSEC_STOP + failure + NO_WAN


def test_without_a_wan_address_a_daemon_has_no_fqdn_monitors(gateway):
    gateway.api(wans=[], greTunnels=[NEW])
    daemon = gateway.ready_daemon()
    assert daemon.log()[-1] == ("INFO", "Number of FQDN monitors is 0")


def test_a_failed_pull_leaves_everything_down(gateway):
    gateway.script("ip tunnel", output=LINE + "\n")
    gateway.api(greTunnels=[NEW], ovpnTunnels=[OVPN])
    gateway.fault(PULL_PATH, code=500)
    daemon = gateway.ready_daemon()
    assert gateway.trace() == OLD_TEARDOWN_COMMANDS
    assert daemon.log()[:-2] == (OLD_DISCOVERY + IPSEC_STOP + PULL
                                 + [("ERROR", "api returned error code [500]")])
    assert daemon.log()[-1] == ("INFO", "Number of FQDN monitors is 0")


def test_without_gre_records_the_rest_is_set_up_as_usual(gateway):
    run = gateway.run("-p", "100")
    assert gateway.trace() == EMPTY_CYCLE_COMMANDS
    assert run.log() == EMPTY_CYCLE


def test_gre_records_that_are_not_enabled_are_named_and_passed_over(gateway):
    gateway.api(greTunnels=[{"name": "one two", "remoteIp": "192.0.2.7"},
                            {"name": "off", "enabled": False, "remoteIp": "192.0.2.8"}])
    run = gateway.run("-p", "100")
    assert gateway.trace() == EMPTY_CYCLE_COMMANDS
    assert run.log() == (DISCOVERY + IPSEC_STOP + PULL
                         + [("INFO", "GRE tunnel [one_two] disabled"), ("INFO", "GRE tunnel [off] disabled"),
                            ("TRACE", "Tunnel [one_two] is not enabled"),
                            ("TRACE", "Tunnel [off] is not enabled")] + FINISH)


def test_one_failed_gre_tunnel_does_not_stop_the_others(gateway):
    gateway.script("ip tunnel add bad *", status=1)
    gateway.api(greTunnels=[{**NEW, "name": "bad"}, NEW])
    gateway.run("-p", "100")
    assert gateway.trace() == (TEARDOWN_COMMANDS + creation_commands("bad", "192.0.2.7", "64")[:1]
                               + creation_commands("new", "192.0.2.7", "64") + FINISH_COMMANDS)


def test_a_failed_ipsec_stop_is_told_and_the_cycle_goes_on(gateway):
    gateway.script("ipsec stop", status=7)
    run = gateway.run("-p", "100")
    assert gateway.trace() == EMPTY_CYCLE_COMMANDS
    assert run.log() == (DISCOVERY + IPSEC_STOP
                         + [("ERROR", "[TUNNEL_MNGR] IPsec error executing stop command [7]")]
                         + PULL + NO_GRE + FINISH)


def test_a_failed_ipsec_set_up_does_not_end_the_cycle(gateway):
    gateway.script("rm *", status=2)
    run = gateway.run("-p", "100")
    assert gateway.trace() == EMPTY_CYCLE_COMMANDS
    assert run.log() == (DISCOVERY + IPSEC_STOP + PULL + NO_GRE + NO_IPSEC[:1]
                         + [("ERROR", "[TUNNEL_MNGR] IPSec error executing remove files command [2]"),
                            ("ERROR", "[TUNNEL_MNGR] Failed to reset ipsec tunnels configuration to default")]
                         + FIREWALL)


@pytest.mark.parametrize("status", [1, 126, 255])
def test_a_failed_firewall_leaves_openvpn_down_until_a_cycle_succeeds(gateway, status):
    gateway.script("firewall --init", status=status, times=1)
    gateway.api(greTunnels=[NEW], ovpnTunnels=[OVPN])
    daemon = gateway.ready_daemon()
    assert ("ERROR", f"Error executing firewall --init command [{status}]") in daemon.log()
    assert gateway.trace() == (TEARDOWN_COMMANDS + creation_commands("new", "192.0.2.7", "64")
                               + FINISH_COMMANDS)
    gateway.clear_trace()
    daemon.refresh()
    wait_for(lambda: OVPN_COMMAND in gateway.trace())
    assert gateway.trace() == (TEARDOWN_COMMANDS + creation_commands("new", "192.0.2.7", "64")
                               + FINISH_COMMANDS + [OVPN_COMMAND])


def test_ipsec_is_stopped_before_openvpn_and_both_before_anything_is_created(gateway):
    gateway.api(greTunnels=[NEW], ovpnTunnels=[OVPN])
    gateway.script("openvpn *", shell="trap 'trap \"\" TERM; echo openvpn ended >>/harness/trace; exit 0' TERM\n"
                                      ": >/harness/listening; sleep infinity & wait $!")
    daemon = gateway.ready_daemon()
    wait_for(lambda: gateway.exists("/harness/listening"))
    gateway.clear_trace()
    daemon.refresh()
    wait_for(lambda: OVPN_COMMAND in gateway.trace())
    assert gateway.trace() == (TEARDOWN_COMMANDS + ["openvpn ended"]
                               + creation_commands("new", "192.0.2.7", "64") + FINISH_COMMANDS
                               + [OVPN_COMMAND])


def test_a_firewall_that_is_killed_reports_128_and_the_signal(gateway):
    gateway.script("firewall --init", shell="kill -KILL $$")
    run = gateway.run()
    assert run.log() == [("ERROR", "Error executing firewall --init command [137]")]


def test_a_firewall_that_does_not_exist_reports_127(gateway):
    commands = gateway.path("/harness/commands")
    commands.mkdir()
    for name in ("ip", "ipsec", "rm"):
        (commands / name).symlink_to(f"/tools/commands/{name}")
    run = gateway.run(environment={"PATH": "/harness/commands"})
    assert run.log()[-1] == ("ERROR", "Error executing firewall --init command [127]")


def test_the_cycle_uses_the_wan_address_of_its_own_query(gateway):
    gateway.api(greTunnels=[NEW], wans=[{"current": True, "ip": "198.51.100.3"}])
    daemon = gateway.ready_daemon()
    gateway.clear_trace()
    gateway.api(wans=[{"current": True, "ip": "198.51.100.4"}])
    daemon.refresh()
    assert gateway.trace() == (TEARDOWN_COMMANDS
                               + creation_commands("new", "192.0.2.7", "64", local="198.51.100.4")
                               + FINISH_COMMANDS)


def test_the_wan_query_comes_after_the_teardown(gateway):
    gateway.run()
    assert gateway.requests() == [WAN_PATH, OVPN_PATH, SYSLOG_PATH, WAN_PATH, PULL_PATH]
