"""The pull of the tunnel records: names, peers, periods, monitors, wrong types."""

from __future__ import annotations

import pytest

from harness.expected import (CAUGHT, DISCOVERY, EMPTY_CYCLE_COMMANDS, FINISH, FINISH_COMMANDS, IPSEC_STOP,
                              PULL, TEARDOWN_COMMANDS, creation, creation_commands, pulled)
from harness.gateway import PULL_PATH, SEMAPHORE, WAN_PATH

GRE = {"name": "site", "enabled": True, "remoteIp": "192.0.2.7"}
IPSEC = {"name": "branch", "enabled": True, "remoteWanIp": "192.0.2.9"}


def pull_records(run):
    """Returns the INFO records of the pull."""
    return [text for level, text in run.log() if level == "INFO"
            and text.startswith(("GRE tunnel [", "ipsec tunnel ["))]


@pytest.mark.parametrize("given, used", [
    ("one two three", "one_two_three"), ("plain", "plain"), (" a ", "_a_"), ("a  b", "a__b"),
])
def test_blanks_in_a_name_become_underscores(gateway, given, used):
    gateway.api(greTunnels=[{**GRE, "name": given}])
    run = gateway.run("-p", "100")
    assert run.log() == (DISCOVERY + IPSEC_STOP + PULL + [pulled(GRE)] + creation(used, "192.0.2.7") + FINISH)
    assert gateway.trace() == TEARDOWN_COMMANDS + creation_commands(used, "192.0.2.7") + FINISH_COMMANDS


@pytest.mark.parametrize("period, minutes", [
    (0, 1), (None, 1), (65536, 1), (65537, 1), (300, 300), (65535, 65535), (65538, 2), (True, 1), (2.9, 2),
    (4294967295, 65535),
])
def test_the_check_period_is_16_bits_and_at_least_1(gateway, period, minutes):
    gateway.api(greTunnels=[{**GRE, "checkPeriod": period}], ipsecTunnels=[{**IPSEC, "checkPeriod": period}])
    assert pull_records(gateway.run("-p", "30")) == [
        f"GRE tunnel [192.0.2.7][192.0.2.7] period {minutes}",
        f"ipsec tunnel [192.0.2.9][192.0.2.9] period {minutes}"]


def test_a_missing_check_period_is_1(gateway):
    gateway.api(greTunnels=[GRE])
    assert pull_records(gateway.run("-p", "30")) == ["GRE tunnel [192.0.2.7][192.0.2.7] period 1"]


def test_disabled_tunnels_are_named_and_get_no_monitor(gateway):
    gateway.api(greTunnels=[{**GRE, "name": "a b", "enabled": False}],
                ipsecTunnels=[{**IPSEC, "name": "c d", "enabled": False}, {"name": "e"}])
    daemon = gateway.ready_daemon()
    assert pull_records(daemon) == ["GRE tunnel [a_b] disabled", "ipsec tunnel [c_d] disabled",
                                    "ipsec tunnel [e] disabled"]
    assert daemon.log()[-1] == ("INFO", "Number of FQDN monitors is 0")


def test_gre_tunnels_come_before_ipsec_tunnels_each_in_the_order_of_the_api(gateway):
    gateway.api(greTunnels=[GRE, {**GRE, "name": "second", "remoteIp": "192.0.2.8"}], ipsecTunnels=[IPSEC])
    daemon = gateway.ready_daemon()
    assert pull_records(daemon) == ["GRE tunnel [192.0.2.7][192.0.2.7] period 1",
                                    "GRE tunnel [192.0.2.8][192.0.2.8] period 1",
                                    "ipsec tunnel [192.0.2.9][192.0.2.9] period 1"]
    assert daemon.log()[-1] == ("INFO", "Number of FQDN monitors is 3")


@pytest.mark.parametrize("missing", ["greTunnels", "ipsecTunnels"])
def test_a_missing_list_reads_as_empty(gateway, missing):
    gateway.api(greTunnels=[GRE], ipsecTunnels=[{**IPSEC, "enabled": False}])
    gateway.without(missing)
    run = gateway.run("-p", "30")
    assert run.exit_status() == 0
    assert len(pull_records(run)) == 1
    assert gateway.trace()[-2:] == FINISH_COMMANDS


@pytest.mark.parametrize("result", [None, {}, {"greTunnels": None, "ipsecTunnels": None},
                                    {"greTunnels": [], "ipsecTunnels": []},
                                    {"greTunnels": {}, "ipsecTunnels": {}}], ids=str)
def test_an_empty_result_means_no_tunnels(gateway, result):
    gateway.fault(PULL_PATH, result=result)
    daemon = gateway.ready_daemon()
    assert gateway.trace() == EMPTY_CYCLE_COMMANDS
    assert ("TRACE", "No GRE Tunnels configured") in daemon.log()
    assert daemon.log()[-1] == ("INFO", "Number of FQDN monitors is 0")


@pytest.mark.parametrize("tunnels", [5, "text", True], ids=repr)
def test_a_list_that_is_a_scalar_has_no_entries(gateway, tunnels):
    gateway.api(greTunnels=tunnels, ipsecTunnels=tunnels)
    assert gateway.run().exit_status() == 0
    assert gateway.trace() == EMPTY_CYCLE_COMMANDS


def test_unknown_keys_are_ignored(gateway):
    gateway.api(greTunnels=[{**GRE, "owner": {"name": "x"}, "tags": [1, None]}])
    gateway.run()
    assert gateway.trace() == TEARDOWN_COMMANDS + creation_commands("site", "192.0.2.7") + FINISH_COMMANDS


def test_an_empty_record_is_a_disabled_tunnel_without_a_name(gateway):
    gateway.api(greTunnels=[{}, None])
    run = gateway.run("-p", "50")
    assert run.exit_status() == 0
    assert pull_records(run) == ["GRE tunnel [] disabled", "GRE tunnel [] disabled"]
    assert [text for _, text in run.log()].count("Tunnel [] is not enabled") == 2


def test_an_enabled_tunnel_without_a_name_is_tried_all_the_same(gateway):
    gateway.api(greTunnels=[{**GRE, "name": ""}])
    run = gateway.run("-p", "100")
    assert run.log() == DISCOVERY + IPSEC_STOP + PULL + [pulled(GRE)] + creation("", "192.0.2.7") + FINISH
    assert gateway.trace() == (TEARDOWN_COMMANDS
                               + ["ip tunnel add mode gre remote 192.0.2.7 local 198.51.100.2 ttl 0",
                                  "ip link set up", "gre-tunnel-link-changed -n '' -d up"] + FINISH_COMMANDS)


@pytest.mark.parametrize("key, value, commands", [
    ("name", 12, creation_commands("12", "192.0.2.7")),
    ("name", True, creation_commands("true", "192.0.2.7")),
    ("enabled", 1, creation_commands("site", "192.0.2.7")),
    ("enabled", 0, []),
    ("enabled", None, []),
    ("remoteIp", 10, creation_commands("site", "10")),
], ids=str)
def test_values_are_converted_where_the_conversion_exists(gateway, key, value, commands):
    gateway.api(greTunnels=[{**GRE, key: value}])
    assert gateway.run().exit_status() == 0
    assert gateway.trace() == TEARDOWN_COMMANDS + commands + FINISH_COMMANDS


# Values that the conversion refuses, by the list they stand in.
REFUSED = [
    *[("greTunnels", [{**GRE, key: value}]) for key, value in (
        ("name", []), ("name", {}), ("remoteIp", []), ("remoteIp", {"a": 1}), ("enabled", "true"),
        ("enabled", []), ("checkPeriod", "5"), ("checkPeriod", -1), ("checkPeriod", []),
        ("checkPeriod", 4294967296))],
    *[("ipsecTunnels", [{**IPSEC, key: value}]) for key, value in (
        ("name", []), ("remoteWanIp", {}), ("enabled", "no"), ("checkPeriod", "5"), ("checkPeriod", -1))],
    *[(key, value) for key in ("greTunnels", "ipsecTunnels")
      for value in ([5], ["text"], [[]], [True], {"a": {}})],
]


@pytest.mark.parametrize("key, value", REFUSED, ids=str)
def test_a_value_of_a_wrong_type_is_an_exception_before_anything_is_created(gateway, key, value):
    gateway.api(**{key: value})
    run = gateway.run("-p", "10")
    assert run.exit_status() == 1
    assert run.log() == [CAUGHT]
    assert gateway.trace() == TEARDOWN_COMMANDS
    assert not gateway.exists(SEMAPHORE)


@pytest.mark.parametrize("result", [5, "text", True, [], [GRE]], ids=str)
def test_a_result_that_is_no_object_is_an_exception(gateway, result):
    gateway.fault(PULL_PATH, result=result)
    run = gateway.run()
    assert (run.exit_status(), run.log()) == (1, [CAUGHT])
    assert gateway.trace() == TEARDOWN_COMMANDS


def test_a_refused_value_later_in_the_list_keeps_all_tunnels_down(gateway):
    gateway.api(greTunnels=[GRE, {**GRE, "name": "other", "enabled": "yes"}])
    run = gateway.run()
    assert run.exit_status() == 1
    assert gateway.trace() == TEARDOWN_COMMANDS


def test_utf_8_and_other_bytes_in_a_name_pass_unchanged(gateway):
    gateway.api(greTunnels=[{**GRE, "name": "büro"}])
    gateway.run()
    assert "ip link set 'büro' up" in gateway.trace()


def test_the_pull_is_one_request(gateway):
    gateway.api(greTunnels=[GRE] * 3, ipsecTunnels=[])
    gateway.run()
    assert gateway.requests().count(PULL_PATH) == 1
    assert gateway.requests().count(WAN_PATH) == 2
