"""OpenVPN configurations: what is written, for whom, and what cannot be written or read."""

from __future__ import annotations

import pytest

from harness.expected import DISCOVERY, EMPTY_CYCLE, FAILED_CONFIG_READ, removal, removal_commands
from harness.full_disk import content, make_room, make_run_small, mode_and_size
from harness.gateway import OVPN_PATH, SYSLOG_PATH, wait_for
from harness.ovpn import (CAUGHT_IN_CONF, command, conf_file, connect_file, create_failed, cycle, duplicated,
                          tunnel, wait_until_running, write_failed)

OLD_LINE = "old: gre/ip remote 192.0.2.1 local 198.51.100.2 ttl 64"
FAILED_CYCLE = DISCOVERY + [("TRACE", f"Line: [{OLD_LINE}]")] + removal("old")
FAILED_CYCLE_COMMANDS = ["ip tunnel", *removal_commands("old")]

GIVEN = """# office
client
\tdev tun # of any number
#verb 9
verb 1 ; quiet

remote vpn.example 1194
  verb\t5
dev-type tun
<key>
verb 11
 secret text\t
</key>
ifconfig   10.8.0.1\t10.8.0.2"""
WRITTEN = """# office
client
\tdev tunoffice
#verb 9
verb 3

remote vpn.example 1194
  verb 3
dev-type tun
<key>
verb 3
 secret text\t
</key>
ifconfig   10.8.0.1\t10.8.0.2
"""


def written(gateway, text: str, name: str = "office") -> str:
    """Returns what a run writes for a tunnel with this configuration."""
    gateway.api(ovpnTunnels=[tunnel(name, config=text)])
    assert gateway.run("-p", "100").log() == cycle()
    return gateway.path(conf_file(name)).read_bytes().decode()


def conf_files(gateway) -> dict[str, tuple[int, str]]:
    """Returns mode and text of all configurations."""
    paths = [f"/var/run/{path.name}" for path in gateway.path("/var/run").glob("openvpn_*.conf")]
    return {path: (gateway.mode(path), gateway.file(path)) for path in paths}


def test_the_configuration_is_copied_with_its_device_and_verbosity_rewritten(gateway):
    assert written(gateway, GIVEN) == WRITTEN


@pytest.mark.parametrize("given, expected", [
    ("", "verb 3\n"), ("\n", "\nverb 3\n"), ("verb", "verb 3\n"), ("dev tun", "dev tunoffice\nverb 3\n"),
    ("dev\n", "dev office\nverb 3\n"), ("dev tun0 extra\n", "dev tun0 extraoffic\nverb 3\n"),
    ("dev tun\ndev tap\n", "dev tunoffice\ndev tunoffice\nverb 3\n"), (";dev tun\n", ";dev tun\nverb 3\n"),
    ("dev tun\r\nverb 9\r\nport 1\r\n", "dev tunoffice\nverb 3\nport 1\r\n"),
    ("Verb 9\nverbose 9\n", "Verb 9\nverbose 9\nverb 3\n"), ("\u00fc \t\n", "\u00fc \t\nverb 3\n"),
    ("x" * 20000 + "\n", "x" * 20000 + "\nverb 3\n"),
], ids=range(12))
def test_the_written_text_follows_the_given_one(gateway, given, expected):
    assert written(gateway, given) == expected


@pytest.mark.parametrize("name, device", [
    ("twelve-chars", "tuntwelve-chars"), ("n" * 20, "tun" + "n" * 12), ("a b", "tuna b"), ("", "tun"),
])
def test_the_device_bears_the_tunnels_name_as_far_as_the_kernel_lets_it(gateway, name, device):
    assert written(gateway, "dev tun\n", name) == f"dev {device}\nverb 3\n"


def test_keys_in_a_configuration_are_for_root_alone_although_the_daemon_has_umask_0(gateway):
    gateway.path(conf_file("old")).write_text("an older and longer text than what is written\n")
    gateway.path(conf_file("old")).chmod(0o666)
    gateway.api(ovpnTunnels=[tunnel("new", config=GIVEN.replace("dev tun", "dev tap")), tunnel("old")])
    daemon = gateway.ready_daemon()
    assert daemon.process()["umask"] == "0000"
    assert conf_files(gateway) == {
        conf_file("new"): (0o600, WRITTEN.replace("dev tunoffice", "dev tapnew")),
        conf_file("old"): (0o600, "verb 3\n")}


@pytest.mark.parametrize("level, verb", [
    (0, 2), (9, 2), (10, 3), (19, 3), (20, 4), (29, 4), (30, 6), (49, 6), (50, 7), (100, 7), (4294967295, 7),
    (None, 2), (True, 2), (29.9, 4),
])
def test_the_verbosity_follows_the_gateways_log_level(gateway, level, verb):
    gateway.api(syslog={"logLevel": level}, ovpnTunnels=[tunnel(config="verb 9\n")])
    gateway.run()
    assert gateway.file(conf_file("office")) == f"verb {verb}\n"


@pytest.mark.parametrize("syslog", [{}, None, {"level": 50}], ids=str)
def test_a_missing_log_level_is_the_lowest(gateway, syslog):
    gateway.api(syslog=syslog, ovpnTunnels=[tunnel()])
    gateway.run()
    assert gateway.file(conf_file("office")) == "verb 2\n"


def test_a_missing_syslog_object_is_the_lowest_level(gateway):
    gateway.api(ovpnTunnels=[tunnel()])
    gateway.without("syslog")
    gateway.run()
    assert gateway.file(conf_file("office")) == "verb 2\n"


def test_the_first_enabled_tunnel_of_a_name_wins(gateway):
    gateway.api(ovpnTunnels=[
        tunnel("a", "port 0", enabled=False), tunnel("a", "port 1"), tunnel("b", "port 2"),
        tunnel("A", "port 3"), tunnel("a", "port 4"), {"name": "b", "config": ""}, tunnel("b", "port 5"),
        tunnel("a", "port 6")])
    daemon = gateway.ready_daemon()
    assert daemon.log()[:-2] == cycle(duplicated("a"), duplicated("b"), duplicated("a"))
    assert {path: text for path, (_, text) in conf_files(gateway).items()} == {
        conf_file("a"): "port 1\nverb 3\n", conf_file("b"): "port 2\nverb 3\n",
        conf_file("A"): "port 3\nverb 3\n"}
    wait_until_running(gateway, daemon, "a", "b", "A")


def test_without_an_enabled_tunnel_nothing_is_written_or_started(gateway):
    gateway.api(ovpnTunnels=[tunnel(enabled=False), {"name": "unmarked"}])
    daemon = gateway.ready_daemon()
    assert daemon.log()[:-2] == EMPTY_CYCLE
    assert conf_files(gateway) == {}
    assert gateway.children(daemon.pid) == []


def test_files_of_tunnels_that_are_gone_are_left_as_they_are(gateway):
    gateway.api(ovpnTunnels=[tunnel("gone", "port 1"), tunnel("off", "port 2"), tunnel("kept", "port 3")])
    daemon = gateway.ready_daemon()
    before = conf_files(gateway)
    gateway.api(ovpnTunnels=[tunnel("off", "port 4", enabled=False), tunnel("kept", "port 5")])
    daemon.refresh()
    assert conf_files(gateway) == {**before, conf_file("kept"): (0o600, "port 5\nverb 3\n")}
    wait_until_running(gateway, daemon, "kept")


# What cannot be written.

def test_a_configuration_that_cannot_be_created_skips_its_tunnel_alone(gateway):
    gateway.path(conf_file("bad")).mkdir()
    gateway.api(ovpnTunnels=[tunnel("bad"), tunnel("good"), tunnel("bad")])
    daemon = gateway.ready_daemon()
    # A tunnel that was not accepted holds no name.
    assert daemon.log()[:-2] == cycle(create_failed("bad"), create_failed("bad"))
    wait_until_running(gateway, daemon, "good")


def test_a_name_with_a_slash_is_used_as_it_stands(gateway):
    gateway.path("/var/run/openvpn_there").mkdir()
    gateway.api(ovpnTunnels=[tunnel("there/a"), tunnel("missing/b"), tunnel("/../c")])
    daemon = gateway.ready_daemon()
    assert daemon.log()[:-2] == cycle(create_failed("missing/b"), create_failed("/../c"))
    assert gateway.file("/var/run/openvpn_there/a.conf") == "verb 3\n"
    wait_until_running(gateway, daemon, "there/a")


def test_a_short_write_skips_the_tunnel_and_leaves_what_was_taken(gateway):
    make_run_small(gateway, free_pages=1)
    text = "x" * 6000 + "\n"
    gateway.api(ovpnTunnels=[tunnel("long", config=text), tunnel("short", "port 1")])
    daemon = gateway.ready_daemon()
    assert [record for record in daemon.log() if record.level == "ERROR"] == [write_failed("long"),
                                                                           write_failed("short")]
    assert mode_and_size(gateway, conf_file("long")) == (0o600, 0)
    assert gateway.children(daemon.pid) == []
    make_room(gateway)
    daemon.refresh()
    assert content(gateway, conf_file("long")) == text + "verb 3\n"
    wait_until_running(gateway, daemon, "long", "short")


def test_a_text_that_fits_partly_is_left_partly(gateway):
    make_run_small(gateway, free_pages=1)
    gateway.api(ovpnTunnels=[tunnel("long", config="x" * 6000)])
    run = gateway.run("-p", "100")
    assert run.exit_status() == 0
    assert run.log() == cycle(write_failed("long"))
    assert content(gateway, conf_file("long")) == "x" * 4096


# What cannot be read.

@pytest.mark.parametrize("path, asked", [(OVPN_PATH, [OVPN_PATH]), (SYSLOG_PATH, [OVPN_PATH, SYSLOG_PATH])])
def test_a_failed_request_leaves_openvpn_and_ipsec_as_they_were(gateway, path, asked):
    gateway.api(ovpnTunnels=[tunnel("kept", "port 1")])
    daemon = gateway.ready_daemon()
    before = wait_until_running(gateway, daemon, "kept")
    wait_for(lambda: command("kept") in gateway.trace())
    for fault in ({"code": 500}, {"badJson": True}, {"close": "mid"}, {"status": 404, "body": "none"}):
        gateway.clear_trace()
        gateway.script("ip tunnel", output=OLD_LINE + "\n")
        gateway.api(ovpnTunnels=[tunnel("kept", "port 2"), tunnel("new")])
        gateway.fault(path, **fault)
        seen = len(daemon.log()), len(gateway.requests())
        daemon.refresh()
        assert daemon.log()[seen[0]:-1] == FAILED_CYCLE + [FAILED_CONFIG_READ]
        assert gateway.requests()[seen[1]:] == asked
        assert gateway.trace() == FAILED_CYCLE_COMMANDS
        assert wait_until_running(gateway, daemon, "kept") == before
        assert conf_files(gateway) == {conf_file("kept"): (0o600, "port 1\nverb 3\n")}


@pytest.mark.parametrize("records, syslog", [
    ([tunnel("new")], {"logLevel": -1}), ([tunnel("new")], {"logLevel": "high"}), ([tunnel("new")], ["none"]),
    ([tunnel(enabled="yes")], {}), ([tunnel(name=["a"])], {}), ([{**tunnel(), "name": {"a": 1}}], {}),
    ([tunnel(config=["dev tun"])], {}), (["office"], {}), ([5], {}),
], ids=str)
def test_a_value_that_cannot_be_read_fails_the_cycle_after_the_gre_teardown(gateway, records, syslog):
    gateway.script("ip tunnel", output=OLD_LINE + "\n")
    gateway.api(ovpnTunnels=records, syslog=syslog)
    run = gateway.run("-p", "100")
    assert run.exit_status() == 0
    assert run.log() == FAILED_CYCLE + [CAUGHT_IN_CONF, FAILED_CONFIG_READ]
    assert gateway.trace() == FAILED_CYCLE_COMMANDS
    assert conf_files(gateway) == {}


def test_tunnels_before_one_that_cannot_be_read_are_written_but_not_started(gateway):
    gateway.api(ovpnTunnels=[tunnel("first"), tunnel("second", config=[])])
    daemon = gateway.ready_daemon()
    assert daemon.log()[:-2] == DISCOVERY + [CAUGHT_IN_CONF, FAILED_CONFIG_READ]
    assert conf_files(gateway) == {conf_file("first"): (0o600, "verb 3\n")}
    assert gateway.children(daemon.pid) == []


def test_a_negative_log_level_does_not_matter_while_no_tunnel_is_enabled(gateway):
    gateway.api(ovpnTunnels=[tunnel(enabled=False)], syslog={"logLevel": -1})
    assert gateway.run("-p", "100").log() == EMPTY_CYCLE


def test_a_broken_configuration_is_read_again_by_the_next_cycle(gateway):
    gateway.api(ovpnTunnels=[tunnel("office")], syslog={"logLevel": -1})
    daemon = gateway.ready_daemon()
    gateway.api(syslog={"logLevel": 50})
    daemon.refresh()
    wait_until_running(gateway, daemon, "office")
    assert conf_files(gateway) == {conf_file("office"): (0o600, "verb 7\n")}
    assert not gateway.exists(connect_file("office"))
