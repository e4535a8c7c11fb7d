"""Which WAN address counts."""

from __future__ import annotations

import pytest

from harness.expected import (CAUGHT, FINISH_COMMANDS, TEARDOWN_COMMANDS, creation_commands)
from harness.gateway import WAN_PATH

GRE = {"name": "site", "enabled": True, "remoteIp": "192.0.2.7"}


@pytest.mark.parametrize("wans, address", [
    ([{"current": True, "ip": "198.51.100.2"}, {"current": True, "ip": "198.51.100.3"}], "198.51.100.2"),
    ([{"current": False, "ip": "198.51.100.2"}, {"current": True, "ip": "198.51.100.3"}], "198.51.100.3"),
    ([{"ip": "198.51.100.2"}, {"current": 1, "ip": "198.51.100.3"}], "198.51.100.3"),
    ([{}, None, {"current": True, "ip": "198.51.100.3"}], "198.51.100.3"),
    ([{"current": True, "ip": "198.51.100.2"}, {"current": "text"}], "198.51.100.2"),
    ([{"current": True, "ip": "198.51.100.2", "name": "wan1", "dns": []}], "198.51.100.2"),
    ([{"current": True, "ip": 12}], "12"),
], ids=str)
def test_the_first_current_wan_counts(gateway, wans, address):
    gateway.api(wans=wans, greTunnels=[GRE])
    assert gateway.run().exit_status() == 0
    assert gateway.trace() == (TEARDOWN_COMMANDS + creation_commands("site", "192.0.2.7", local=address)
                               + FINISH_COMMANDS)


@pytest.mark.parametrize("wans", [
    [], {}, None, 5, "text", [{"current": True}], [{"current": True, "ip": ""}],
    [{"current": True, "ip": None}], [{"current": True, "ip": ""}, {"current": True, "ip": "198.51.100.3"}],
    [{"current": False, "ip": "198.51.100.2"}],
], ids=str)
def test_no_address_is_silent_and_keeps_everything_down(gateway, wans):
    gateway.api(wans=wans, greTunnels=[GRE])
    run = gateway.run()
    assert (run.exit_status(), run.log()) == (0, [])
    assert gateway.trace() == TEARDOWN_COMMANDS


@pytest.mark.parametrize("wans", [
    [{"current": "yes", "ip": "198.51.100.2"}], [{"current": True, "ip": []}], [{"current": []}],
    ["text"], [5], [[]], {"a": 1},
], ids=str)
def test_a_wan_of_a_wrong_type_is_an_exception_of_the_cycle_not_of_the_start(gateway, wans):
    gateway.api(wans=wans)
    run = gateway.run()
    assert run.exit_status() == 1
    assert run.log()[-1] == CAUGHT
    assert gateway.requests().count(WAN_PATH) == 2
    assert gateway.trace() == TEARDOWN_COMMANDS
