"""Creation of GRE tunnels: commands, records, and every step that can fail."""

from __future__ import annotations

import pytest

from harness.expected import (CAUGHT, DISCOVERY, FINISH, FINISH_COMMANDS, GRE_HOOK, IPSEC_STOP, PULL,
                              TEARDOWN_COMMANDS, creation, creation_commands, pulled)

PEER = "192.0.2.7"
PLAIN = {"name": "site", "enabled": True, "remoteIp": PEER, "ttl": 64}
FULL = {**PLAIN, "tunnelIp": "10.0.0.1", "tunnelMask": "30",
        "routes": [{"ip": "192.168.2.0", "mask": 24}, {"ip": "192.168.3.0", "mask": "25"}]}

ADD, UP, HOOK = creation_commands("site", PEER, "64")
ADDRESS = "ip addr add 10.0.0.1/30 dev site"
ROUTES = ["ip route add 192.168.2.0/24 dev site", "ip route add 192.168.3.0/25 dev site"]
ROUTE_RECORDS = [("INFO", "Adding route: site => 192.168.2.0/24"), ("TRACE", ROUTES[0]),
                 ("INFO", "Adding route: site => 192.168.3.0/25"), ("TRACE", ROUTES[1])]
BEGIN = DISCOVERY + IPSEC_STOP + PULL + [pulled(PLAIN)]


def created(gateway, *records):
    """Runs once with these records; returns the run and the creation's commands."""
    gateway.api(greTunnels=list(records))
    run = gateway.run("-p", "100")
    trace = gateway.trace()
    assert trace[:2] == TEARDOWN_COMMANDS
    assert trace[-2:] == FINISH_COMMANDS
    assert run.exit_status() == 0
    return run, trace[2:-2]


def test_a_tunnel_gets_interface_link_address_routes_and_hook_in_this_order(gateway):
    run, commands = created(gateway, FULL)
    assert commands == [ADD, UP, ADDRESS, *ROUTES, HOOK]
    assert run.log() == (BEGIN + creation("site", PEER, "64") + [("TRACE", ADDRESS)] + ROUTE_RECORDS
                         + FINISH)


def test_several_tunnels_are_created_in_the_order_of_the_api(gateway):
    second = {**PLAIN, "name": "other", "remoteIp": "192.0.2.8", "ttl": 5}
    run, commands = created(gateway, FULL, second)
    assert commands == ([ADD, UP, ADDRESS, *ROUTES, HOOK] + creation_commands("other", "192.0.2.8", "5"))
    assert run.log() == (BEGIN + [pulled(second)] + creation("site", PEER, "64") + [("TRACE", ADDRESS)]
                         + ROUTE_RECORDS + creation("other", "192.0.2.8", "5") + FINISH)


@pytest.mark.parametrize("keys, ttl", [
    ({"ttl": 64}, "64"), ({"ttl": "64"}, "64"), ({}, "0"), ({"ttl": None}, "0"), ({"ttl": True}, "1"),
    ({"ttl": 64.9}, "64"), ({"ttl": -3}, "-3"), ({"ttl": "inherit"}, "inherit"),
], ids=str)
def test_the_ttl_is_a_text_or_a_number(gateway, keys, ttl):
    record = {key: value for key, value in PLAIN.items() if key != "ttl"}
    run, commands = created(gateway, {**record, **keys})
    assert commands == creation_commands("site", PEER, ttl)
    assert creation("site", PEER, ttl)[0] in run.log()


@pytest.mark.parametrize("keys", [
    {"tunnelIp": "10.0.0.1"}, {"tunnelMask": "30"}, {"tunnelIp": "10.0.0.1", "tunnelMask": ""},
    {"tunnelIp": "", "tunnelMask": "30"}, {"tunnelIp": None, "tunnelMask": None},
], ids=str)
def test_without_address_and_mask_the_address_step_is_skipped_silently(gateway, keys):
    routes = FULL["routes"]
    run, commands = created(gateway, {**PLAIN, **keys, "routes": routes})
    assert commands == [ADD, UP, *ROUTES, HOOK]
    assert run.log() == BEGIN + creation("site", PEER, "64") + ROUTE_RECORDS + FINISH


@pytest.mark.parametrize("mask, text", [("30", "30"), (30, "30"), ("255.255.255.252", "255.255.255.252")])
def test_the_mask_of_the_address_is_used_as_text(gateway, mask, text):
    _, commands = created(gateway, {**PLAIN, "tunnelIp": "10.0.0.1", "tunnelMask": mask})
    assert commands == [ADD, UP, f"ip addr add 10.0.0.1/{text} dev site", HOOK]


@pytest.mark.parametrize("routes", [None, [], {}, 5, "text", [{"ip": "192.168.2.0"}], [{"mask": 24}], [{}],
                                    [None]], ids=str)
def test_a_route_without_ip_or_mask_is_skipped_silently(gateway, routes):
    run, commands = created(gateway, {**PLAIN, "routes": routes})
    assert commands == [ADD, UP, HOOK]
    assert run.log() == BEGIN + creation("site", PEER, "64") + FINISH


@pytest.mark.parametrize("mask, suffix", [(24, "24"), ("24", "24"), (24.7, "24"), ("", "")])
def test_the_mask_of_a_route_is_a_text_or_a_number(gateway, mask, suffix):
    run, commands = created(gateway, {**PLAIN, "routes": [{"ip": "192.168.2.0", "mask": mask}]})
    line = f"ip route add 192.168.2.0/{suffix} dev site"
    assert commands == [ADD, UP, line, HOOK]
    assert run.log() == (BEGIN + creation("site", PEER, "64")
                         + [("INFO", f"Adding route: site => 192.168.2.0/{suffix}"), ("TRACE", line)]
                         + FINISH)


@pytest.mark.parametrize("mask, told", [(True, "true"), (None, "null"), ([], "[]"), ({}, "{}")], ids=str)
def test_a_route_mask_that_is_no_number_is_told_and_tried_without(gateway, mask, told):
    gateway.script("ip route add *", status=1)
    run, commands = created(gateway, {**PLAIN, "routes": [{"ip": "192.168.2.0", "mask": mask}]})
    line = "ip route add 192.168.2.0/ dev site"
    assert commands == [ADD, UP, line, HOOK]
    log = run.log()
    assert (log[len(BEGIN) + 4:-len(FINISH)]
            == [("INFO", "Adding route: site => 192.168.2.0/"), ("TRACE", line),
                ("ERROR", "GRE tunnel: [site] error executing route add command [1]")])
    level, text = log[len(BEGIN) + 3]
    assert level == "WARNING"
    assert text.startswith(f"Unable to parse number *{told}")


# Each mandatory step that fails: the line, what still runs, and the message.
STEPS = [
    pytest.param(ADD, [ADD], "tunnel add command", 1, id="add"),
    pytest.param(UP, [ADD, UP], "link set command", 2, id="link"),
    pytest.param(ADDRESS, [ADD, UP, ADDRESS], "address add command", 2, id="address"),
    pytest.param(HOOK, [ADD, UP, ADDRESS, *ROUTES, HOOK], "link-changed hook up", 255, id="hook"),
]


@pytest.mark.parametrize("line, still, step, status", STEPS)
def test_a_mandatory_step_that_fails_stops_the_creation_of_this_tunnel(gateway, line, still, step, status):
    gateway.script(line, status=status)
    second = {**PLAIN, "name": "other"}
    run, commands = created(gateway, FULL, second)
    assert commands == still + creation_commands("other", PEER, "64")
    told = ("ERROR", f"GRE tunnel: [site] error executing {step} [{status}]")
    assert [record for record in run.log() if record.level in ("ERROR", "WARNING")] == [told]
    trace_records = [text for level, text in run.log() if level == "TRACE" and text in still]
    assert trace_records == [command for command in still if command != HOOK]


@pytest.mark.parametrize("failing", [ROUTES[:1], ROUTES[1:], ROUTES], ids=str)
def test_a_failed_route_is_told_and_the_rest_goes_on(gateway, failing):
    for line in failing:
        gateway.script(line, status=2)
    run, commands = created(gateway, FULL)
    assert commands == [ADD, UP, ADDRESS, *ROUTES, HOOK]
    told = ("ERROR", "GRE tunnel: [site] error executing route add command [2]")
    expected = []
    for info, trace in zip(ROUTE_RECORDS[::2], ROUTE_RECORDS[1::2]):
        expected += [info, trace] + ([told] if trace[1] in failing else [])
    assert run.log() == BEGIN + creation("site", PEER, "64") + [("TRACE", ADDRESS)] + expected + FINISH


@pytest.mark.parametrize("spoil", ["remove", "take the permission"])
def test_a_hook_that_cannot_be_started_is_told(gateway, spoil):
    hook = gateway.path(f"/etc/quorvex/hooks/{GRE_HOOK}")
    if spoil == "remove":
        hook.unlink()
    else:
        hook.chmod(0o644)
    run, commands = created(gateway, PLAIN)
    assert commands == [ADD, UP]
    assert [record for record in run.log() if record.level == "ERROR"] == [
        ("ERROR", "GRE tunnel: [site] error executing link-changed hook up [127]")]


def test_the_hook_gets_its_arguments_without_a_shell(gateway):
    _, commands = created(gateway, {**PLAIN, "name": 'a"b"'})
    assert commands[1:] == ["ip link set ab up", f"""{GRE_HOOK} -n 'a"b"' -d up"""]


def test_a_peer_that_is_missing_is_left_to_the_ip_command(gateway):
    gateway.script("ip tunnel add *", status=255)
    run, commands = created(gateway, {"name": "site", "enabled": True, "ttl": 64})
    assert commands == ["ip tunnel add site mode gre remote local 198.51.100.2 ttl 64"]
    assert ("TRACE", "ip tunnel add site mode gre remote  local 198.51.100.2 ttl 64") in run.log()
    assert ("ERROR", "GRE tunnel: [site] error executing tunnel add command [255]") in run.log()


@pytest.mark.parametrize("keys", [
    {"ttl": []}, {"ttl": 3e10}, {"tunnelIp": []}, {"tunnelMask": {}}, {"routes": {"a": 1}}, {"routes": [5]},
    {"routes": [{"ip": [], "mask": 24}]}, {"routes": [{"ip": "192.168.2.0", "mask": 3e10}]},
], ids=str)
def test_a_value_that_cannot_be_converted_ends_the_cycle(gateway, keys):
    gateway.api(greTunnels=[{**PLAIN, **keys}, {**PLAIN, "name": "other"}])
    run = gateway.run()
    assert run.exit_status() == 1
    assert run.log() == [CAUGHT]
    assert "firewall --init" not in gateway.trace()
    assert not [line for line in gateway.trace() if "other" in line]


def test_commands_start_with_the_standard_descriptors_alone(gateway):
    gateway.script(HOOK, shell="ls -l /proc/$$/fd >/harness/hook")
    gateway.script("firewall --init", shell="ls -l /proc/$$/fd >/harness/command")
    created(gateway, PLAIN)
    for name in ("hook", "command"):
        numbers = [line.split()[-3] for line in gateway.file(f"/harness/{name}").splitlines()[1:]]
        # From 10 on they are the shell's own; one that was inherited would come before.
        assert sorted(number for number in numbers if int(number) < 10) == ["0", "1", "2"]


def test_standard_input_of_commands_is_empty(gateway):
    gateway.script("firewall --init", shell="readlink /proc/$$/fd/0 >/harness/input")
    created(gateway, PLAIN)
    assert gateway.file("/harness/input") == "/dev/null\n"


def test_commands_start_with_default_signals(gateway):
    shell = "grep -E '^Sig(Blk|Ign)' /proc/self/status >/harness/signals"
    gateway.script("firewall --init", shell=shell)
    gateway.api(greTunnels=[PLAIN])
    gateway.ready_daemon()
    words = gateway.file("/harness/signals").split()
    # Beyond 31 the C library has signals of its own.
    assert [int(mask, 16) & 0x7FFFFFFF for mask in words[1::2]] == [0, 0]
