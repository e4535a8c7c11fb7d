"""IPsec: the service's files to the byte, their modes, its control command."""

from __future__ import annotations

import pytest

from harness.expected import (DISCOVERY, FIREWALL, IPSEC_STOP, NO_GRE, PULL, TEARDOWN_COMMANDS,
                              creation_commands)
from harness.gateway import wait_for, wan
from harness.ipsec import (BASE, CONF, CREATION, HEADER, NOTHING, PSK, PSK_SECRET, RESET, RESTART,
                           RESTART_COMMANDS, RSA, RSA_SECRET, SHA2, SECRETS, UNKNOWN_METHOD, WRONG_TYPE,
                           cycle, files_below, main_section, pair, psk_done, psk_failed, psk_section, pulled,
                           rsa_done, rsa_section, run_with, subnets)

# `sleep` may wake a tick early by another clock.
PAUSE_SECONDS = 0.98

MIXED = [
    {**PSK, "name": "head office", "type": "IKE", "compression": True, "aggressiveMode": True, "retries": 5,
     "uid": True, "localId": "gw@example", "remoteId": "hq@example", "phase1": "3des-md5;modp1024",
     "phase2": "3des-md5;modp1024", "localSubnets": subnets("192.168.1.77/24", "10.1.2.3/0"),
     "remoteSubnets": subnets("172.16.5.9/12", "Any/0", "192.168.9.1/32")},
    {**RSA, "localSubnets": subnets("192.168.1.0/24"), "remoteSubnets": subnets("10.9.8.7/16")},
    {**PSK, "name": "off", "enabled": False},
    {**RSA, "name": "ids", "uid": True, "localId": "C=XX, CN=gw", "remoteId": "C=XX, CN=peer", "retries": 1,
     "caCert": "", "localPrivKey": "another key"},
    {**PSK, "encryptMethod": "blowfish", "psk": 'with "quotes"'},
]
MIXED_CONF = (
    HEADER
    + main_section("head_office", "192.0.2.9", "ike=3des-md5-modp1024", "esp=3des-md5-modp1024",
                   "ikelifetime=3h", "keylife=1h", "keyingtries=5", "keyexchange=ikev1", "authby=secret",
                   'leftid="gw@example"', 'rightid="hq@example"', modes=("yes", "yes"))
    + pair("head_office", "0_0", "192.168.1.0/24", "172.16.0.0/12")
    + pair("head_office", "0_1", "192.168.1.0/24", "%any")
    + pair("head_office", "0_2", "192.168.1.0/24", "192.168.9.1/32")
    + pair("head_office", "1_0", "0.0.0.0/0", "172.16.0.0/12")
    + pair("head_office", "1_1", "0.0.0.0/0", "%any")
    + pair("head_office", "1_2", "0.0.0.0/0", "192.168.9.1/32")
    + rsa_section() + pair("site2", "0_0", "192.168.1.0/24", "10.9.0.0/16")
    + main_section("ids", "192.0.2.10", "ike=aes256-sha2_256-modp2048s256", "esp=aes256-sha2_256",
                   "ikelifetime=8h", "keylife=2h", "keyingtries=1", "keyexchange=ikev2", "authby=rsasig",
                   f"leftcert={BASE}/certs/ids.pem", 'leftid="C=XX, CN=gw"', 'rightid="C=XX, CN=peer"')
    + main_section("branch", "192.0.2.9", "ike=", "esp=", "ikelifetime=3h", "keylife=1h",
                   "keyingtries=%forever", "keyexchange=ikev2", "authby=secret"))
MIXED_SECRETS = ('"gw@example" "hq@example" : PSK "shared key"\n' + RSA_SECRET
                 + f": RSA {BASE}/private/ids.pem\n"
                 + '"198.51.100.2" "192.0.2.9" : PSK "with "quotes""\n')
MIXED_LOG = (
    DISCOVERY + IPSEC_STOP + PULL
    + [pulled(PSK), pulled(RSA), ("INFO", "ipsec tunnel [off] disabled"), pulled(RSA), pulled(PSK)]
    + NO_GRE + RESET + CREATION
    + [psk_done("head_office"), rsa_done("site2"), rsa_done("ids"), UNKNOWN_METHOD, UNKNOWN_METHOD,
       psk_done("branch")] + RESTART + FIREWALL)


MIXED_FILES = {
    "ipsec.conf": (0o644, MIXED_CONF), "ipsec.secrets": (0o644, MIXED_SECRETS),
    "cacerts/site2.pem": (0o644, "the CA\n"), "certs/site2.pem": (0o644, "the certificate\n"),
    "private/site2.pem": (0o600, "the key\n"),
    "cacerts/ids.pem": (0o644, ""), "certs/ids.pem": (0o644, "the certificate\n"),
    "private/ids.pem": (0o600, "another key"),
}


def test_files_commands_and_log_of_several_tunnels_are_right_to_the_byte(gateway):
    run = run_with(gateway, *MIXED)
    assert files_below(gateway) == MIXED_FILES
    assert gateway.trace() == TEARDOWN_COMMANDS + RESTART_COMMANDS
    assert run.log() == MIXED_LOG


def test_a_daemon_with_umask_0_writes_the_same_files_with_the_same_modes(gateway):
    gateway.api(ipsecTunnels=MIXED)
    daemon = gateway.ready_daemon()
    assert daemon.process()["umask"] == "0000"
    assert files_below(gateway) == MIXED_FILES


def test_the_service_finds_everything_in_place_when_it_is_restarted(gateway):
    gateway.script("ipsec restart", shell="cp -r /run/ipsec /harness/seen")
    run_with(gateway, *MIXED)
    assert gateway.file("/harness/seen/ipsec.conf") == MIXED_CONF
    assert gateway.file("/harness/seen/ipsec.secrets") == MIXED_SECRETS
    assert gateway.mode("/harness/seen/ipsec.secrets") == 0o644
    assert gateway.mode("/harness/seen/private/ids.pem") == 0o600


def test_secrets_are_hidden_until_they_are_complete(gateway):
    gateway.api(ipsecTunnels=[{**RSA, "type": "other"}])
    gateway.ready_daemon()
    assert files_below(gateway)["ipsec.secrets"] == (0o600, RSA_SECRET)
    assert files_below(gateway)["private/site2.pem"] == (0o600, "the key\n")


def test_many_subnets_give_every_pair_in_order(gateway):
    local = [f"10.{number}.0.0/16" for number in range(12)]
    remote = [f"172.16.{number}.0/24" for number in range(11)]
    run_with(gateway, {**PSK, "localSubnets": subnets(*local), "remoteSubnets": subnets(*remote)})
    pairs = [pair("branch", f"{i}_{j}", left, right) for i, left in enumerate(local)
             for j, right in enumerate(remote)]
    assert gateway.file(CONF) == HEADER + psk_section() + "".join(pairs)


@pytest.mark.parametrize("local, remote, expected", [
    (["Any/0"], ["Any/0"], ("/0", "%any")), (["site.example/24"], ["10.0.0.1/33"], ("/24", "0.0.0.0/33")),
])
def test_subnets_that_are_no_addresses_are_written_all_the_same(gateway, local, remote, expected):
    run_with(gateway, {**PSK, "localSubnets": subnets(*local), "remoteSubnets": subnets(*remote)})
    assert gateway.file(CONF) == HEADER + psk_section() + pair("branch", "0_0", *expected)


def test_the_hash_sha2_is_complained_of_and_replaced_in_both_proposals(gateway):
    record = {**PSK, "phase1": "aes128-sha2;modp2048", "phase2": "aes128-sha2"}
    run = run_with(gateway, record)
    assert "\tike=aes128-sha2_256-modp2048\n\tesp=aes128-sha2_256\n" in gateway.file(CONF)
    assert run.log() == cycle(record, told=CREATION + [SHA2, SHA2, psk_done("branch")] + RESTART)


def test_a_peer_called_any_is_looked_up_like_every_other(gateway):
    gateway.path("/etc/hosts").write_text("192.0.2.20 Any\n")
    run_with(gateway, {**PSK, "remoteWanIp": "Any"})
    assert "\tright=192.0.2.20\n" in gateway.file(CONF)
    assert gateway.file(SECRETS) == '"198.51.100.2" "192.0.2.20" : PSK "shared key"\n'


def test_a_peer_that_cannot_be_resolved_leaves_its_places_empty(gateway):
    run_with(gateway, {**PSK, "remoteWanIp": "Any"})
    assert "\tright=\n" in gateway.file(CONF)
    assert gateway.file(SECRETS) == '"198.51.100.2" "" : PSK "shared key"\n'


@pytest.mark.parametrize("method", [None, "secret", "RSASIG", "other", 5, ["rsasig"]], ids=str)
def test_every_method_but_rsasig_means_a_pre_shared_key(gateway, method):
    # A type that is not supported spares the restart and its pause.
    record = {**PSK, "authMethod": method, "type": "none"}
    run = run_with(gateway, record)
    assert run.log() == cycle(record, told=CREATION + [WRONG_TYPE, psk_failed("branch")] + NOTHING)


# Stop, reset, restart.

def test_the_service_is_stopped_before_anything_is_created_and_restarted_before_the_firewall(gateway):
    gateway.api(ipsecTunnels=[PSK], greTunnels=[{"name": "new", "enabled": True, "remoteIp": "192.0.2.7"}])
    gateway.run()
    assert gateway.trace() == TEARDOWN_COMMANDS + creation_commands("new", "192.0.2.7") + RESTART_COMMANDS


def test_nothing_is_touched_while_the_service_stops(gateway):
    gateway.path(CONF).write_text("old\n")
    gateway.script("ipsec stop", shell="waitFor stop")
    gateway.api(ipsecTunnels=[PSK])
    run = gateway.start()
    wait_for(lambda: "ipsec stop" in gateway.trace())
    assert gateway.file(CONF) == "old\n"
    assert gateway.trace() == TEARDOWN_COMMANDS
    gateway.release("stop")
    assert run.exit_status() == 0
    assert gateway.file(CONF) == HEADER + psk_section()


@pytest.mark.parametrize("status", [0, 1, 255])
def test_a_pause_of_a_second_follows_the_restart_whatever_its_status(gateway, status):
    gateway.script("ipsec restart", status=status)
    run = run_with(gateway, PSK)
    failure = [("ERROR", f"[TUNNEL_MNGR] IPsec error executing restart command [{status}]")]
    assert run.log() == cycle(PSK, told=CREATION + [psk_done("branch")] + RESTART + (failure if status else []))
    assert run.times_of(FIREWALL[0])[0] - run.times_of(RESTART[1])[0] >= PAUSE_SECONDS
    assert gateway.trace() == TEARDOWN_COMMANDS + RESTART_COMMANDS


def test_the_output_of_the_control_command_is_ignored(gateway):
    gateway.script("ipsec *", output="Starting strong service...\n")
    run = run_with(gateway, PSK)
    assert run.messages() == []
    assert run.stdout() == ""


def test_a_service_that_cannot_be_stopped_is_told_and_set_up_all_the_same(gateway):
    gateway.script("ipsec stop", status=3)
    run = run_with(gateway, PSK)
    assert ("ERROR", "[TUNNEL_MNGR] IPsec error executing stop command [3]") in run.log()
    assert gateway.file(CONF) == HEADER + psk_section()
    assert gateway.trace() == TEARDOWN_COMMANDS + RESTART_COMMANDS


def test_a_rebuild_follows_the_configuration_and_the_wan_address(gateway):
    gateway.api(ipsecTunnels=[PSK, RSA])
    daemon = gateway.ready_daemon()
    assert gateway.file(CONF) == HEADER + psk_section() + rsa_section()
    gateway.clear_trace()
    gateway.api(ipsecTunnels=[PSK, {**RSA, "enabled": False}], wans=wan("203.0.113.5"))
    daemon.refresh()
    assert files_below(gateway) == {
        "ipsec.conf": (0o644, HEADER + psk_section(left="203.0.113.5")),
        "ipsec.secrets": (0o644, PSK_SECRET.replace("198.51.100.2", "203.0.113.5"))}
    files = " ".join(f"{BASE}/{name}/site2.pem" for name in ("cacerts", "certs", "private"))
    assert gateway.trace() == TEARDOWN_COMMANDS + [f"rm -rf {files}"] + RESTART_COMMANDS[1:]


def test_without_tunnels_the_service_stays_stopped_and_its_files_are_emptied(gateway):
    gateway.api(ipsecTunnels=[RSA])
    daemon = gateway.ready_daemon()
    gateway.clear_trace()
    gateway.api(ipsecTunnels=[{**RSA, "enabled": False}, {"name": "no mark"}])
    daemon.refresh()
    assert files_below(gateway) == {"ipsec.conf": (0o644, HEADER), "ipsec.secrets": (0o644, "")}
    assert "ipsec restart" not in gateway.trace()


def test_without_a_wan_address_the_files_stay_as_they_were(gateway):
    gateway.api(ipsecTunnels=[PSK])
    daemon = gateway.ready_daemon()
    gateway.clear_trace()
    gateway.api(wans=[])
    daemon.refresh()
    assert gateway.file(CONF) == HEADER + psk_section()
    assert gateway.trace() == TEARDOWN_COMMANDS


def test_the_first_secrets_are_hidden_while_there_is_no_tunnel(gateway):
    gateway.ready_daemon()
    assert files_below(gateway) == {"ipsec.conf": (0o644, HEADER), "ipsec.secrets": (0o600, "")}


def test_hidden_files_survive_the_reset(gateway):
    for name in ("cacerts", "certs", "private"):
        gateway.path(f"{BASE}/{name}/.kept").write_text("kept")
        gateway.path(f"{BASE}/{name}/gone.pem").write_text("gone")
    gateway.run()
    assert set(files_below(gateway)) == {"ipsec.conf", "ipsec.secrets", "cacerts/.kept", "certs/.kept",
                                         "private/.kept"}
