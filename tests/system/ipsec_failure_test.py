"""IPsec: what cannot be written, read or used; odd names; a full file system."""

from __future__ import annotations

import pytest

from harness.expected import CAUGHT, EMPTY_CYCLE, FINISH_COMMANDS, TEARDOWN_COMMANDS
from harness.full_disk import content, make_room, make_run_small, mode_and_size
from harness.gateway import PID_FILE
from harness.ipsec import (BASE, CONF, CREATION, HEADER, NOTHING, PSK, PSK_SECRET, RESET_FAILED, RESTART, RSA,
                           RSA_SECRET, SECRETS, WRONG_TYPE, cycle, files_below, not_opened, pair, psk_done,
                           psk_failed, psk_section, rsa_done, rsa_failed, rsa_section, run_with, settings,
                           subnets)


def test_a_failing_reset_leaves_the_old_files_and_the_service_stopped(gateway):
    gateway.path(CONF).write_text("old\n")
    gateway.path(SECRETS).write_text("old secret\n")
    gateway.script("rm *", status=4)
    run = run_with(gateway, PSK)
    assert gateway.file(CONF) == "old\n"
    assert gateway.file(SECRETS) == "old secret\n"
    assert gateway.trace() == TEARDOWN_COMMANDS + FINISH_COMMANDS
    failure = [("ERROR", "[TUNNEL_MNGR] IPSec error executing remove files command [4]")]
    assert run.log() == cycle(PSK, told=failure + RESET_FAILED)


def test_a_missing_base_directory_is_not_made(gateway):
    gateway.path(BASE).rename(gateway.path("/harness/moved"))
    run = run_with(gateway, PSK)
    assert not gateway.exists(BASE)
    assert gateway.trace() == TEARDOWN_COMMANDS + FINISH_COMMANDS
    assert run.log() == cycle(PSK, told=[not_opened(CONF)] + RESET_FAILED)


@pytest.mark.parametrize("directory, written", [
    ("cacerts", set()), ("certs", {"cacerts/site2.pem"}), ("private", {"cacerts/site2.pem", "certs/site2.pem"}),
])
def test_a_missing_certificate_directory_fails_only_tunnels_with_certificates(gateway, directory, written):
    gateway.path(f"{BASE}/{directory}").rmdir()
    run = run_with(gateway, RSA, PSK)
    failures = [not_opened(f"{BASE}/{directory}/site2.pem"), rsa_failed("site2")]
    assert run.log() == cycle(RSA, PSK, told=CREATION + failures + [psk_done("branch")] + RESTART)
    assert gateway.file(CONF) == HEADER + psk_section()
    assert gateway.file(SECRETS) == PSK_SECRET
    assert set(files_below(gateway)) == {"ipsec.conf", "ipsec.secrets"} | written


def test_a_directory_in_the_place_of_the_configuration_fails_the_reset(gateway):
    gateway.path(CONF).mkdir()
    gateway.path(SECRETS).write_text("old secret\n")
    run = run_with(gateway, PSK)
    assert gateway.file(SECRETS) == "old secret\n"
    assert run.log() == cycle(PSK, told=[not_opened(CONF)] + RESET_FAILED)
    assert gateway.trace() == TEARDOWN_COMMANDS + FINISH_COMMANDS


def test_a_directory_in_the_place_of_the_secrets_fails_the_reset(gateway):
    gateway.path(SECRETS).mkdir()
    run = run_with(gateway, PSK)
    assert gateway.file(CONF) == HEADER
    assert run.log() == cycle(PSK, told=[not_opened(SECRETS)] + RESET_FAILED)
    assert gateway.trace() == TEARDOWN_COMMANDS + FINISH_COMMANDS


def test_a_directory_in_the_place_of_a_certificate_fails_that_tunnel(gateway):
    gateway.script("rm *")
    gateway.path(f"{BASE}/certs/site2.pem").mkdir()
    run = run_with(gateway, RSA, {**RSA, "name": "site3"})
    failures = [not_opened(f"{BASE}/certs/site2.pem"), rsa_failed("site2")]
    assert run.log() == cycle(RSA, RSA, told=CREATION + failures + [rsa_done("site3")] + RESTART)
    assert gateway.file(SECRETS) == RSA_SECRET.replace("site2", "site3")


@pytest.mark.parametrize("kind", [None, "ikev2", "IKEv1", "", 5, True, ["IKE"], {"IKE": 1}], ids=str)
def test_unsupported_types_are_told_and_passed_over(gateway, kind):
    records = [{**PSK, "type": kind}, {**RSA, "type": kind}]
    run = run_with(gateway, *records)
    failures = [WRONG_TYPE, psk_failed("branch"), WRONG_TYPE, rsa_failed("site2")]
    assert run.log() == cycle(*records, told=CREATION + failures + NOTHING)
    assert gateway.trace() == TEARDOWN_COMMANDS + FINISH_COMMANDS
    assert gateway.file(CONF) == HEADER
    assert gateway.file(SECRETS) == RSA_SECRET
    assert set(files_below(gateway)) == {"ipsec.conf", "ipsec.secrets", "cacerts/site2.pem", "certs/site2.pem",
                                         "private/site2.pem"}


def test_a_missing_type_is_unsupported(gateway):
    record = {key: value for key, value in PSK.items() if key != "type"}
    run = run_with(gateway, record)
    assert run.log() == cycle(record, told=CREATION + [WRONG_TYPE, psk_failed("branch")] + NOTHING)


def test_one_failing_tunnel_does_not_stop_the_others(gateway):
    failing = {**PSK, "name": "failing", "type": "none"}
    run = run_with(gateway, failing, PSK)
    assert run.log() == cycle(failing, PSK, told=CREATION + [WRONG_TYPE, psk_failed("failing"),
                                                             psk_done("branch")] + RESTART)
    assert gateway.file(CONF) == HEADER + psk_section()


# What the JSON library refuses ends the cycle where it is read.
REFUSED = [
    ("compression", "yes", HEADER), ("aggressiveMode", "no", HEADER), ("phase1", ["aes128"], HEADER),
    ("phase2", {"aes128": 1}, HEADER), ("encryptMethod", ["3des"], HEADER), ("ikelife", "3", HEADER),
    ("keylife", -1, HEADER), ("retries", [], HEADER), ("uid", "yes", HEADER),
    ("localSubnets", {"a": 1}, HEADER),
    ("localSubnets", [{"ip": [], "mask": 1}], HEADER),
    ("remoteSubnets", [{"ip": "10.0.0.0", "mask": "8"}], HEADER),
    ("psk", ["secret"], HEADER + psk_section()),
]


@pytest.mark.parametrize("key, value, left_behind", REFUSED,
                         ids=[f"{key}-{value}" for key, value, _ in REFUSED])
def test_a_value_that_cannot_be_read_ends_the_cycle_and_starts_nothing(gateway, key, value, left_behind):
    subnet = subnets("10.1.0.0/16") if "Subnets" in key else []
    record = {**PSK, "localSubnets": subnet, "remoteSubnets": subnet, key: value}
    gateway.api(ipsecTunnels=[record])
    run = gateway.run()
    assert run.exit_status() == 1
    assert run.log() == [CAUGHT]
    assert gateway.trace() == TEARDOWN_COMMANDS + FINISH_COMMANDS[:1]
    assert gateway.file(CONF) == left_behind
    assert files_below(gateway)["ipsec.secrets"] == (0o600, "")


@pytest.mark.parametrize("key, value", [("caCert", []), ("localCert", {"a": 1}), ("localPrivKey", ["k"]),
                                        ("localId", ["i"]), ("remoteId", {"i": 1})])
def test_a_certificate_or_identity_that_cannot_be_read_ends_the_cycle(gateway, key, value):
    gateway.api(ipsecTunnels=[{**RSA, key: value}])
    run = gateway.run()
    assert (run.exit_status(), run.log()) == (1, [CAUGHT])
    assert gateway.trace() == TEARDOWN_COMMANDS + FINISH_COMMANDS[:1]
    assert gateway.file(CONF) == HEADER


def test_numbers_and_booleans_are_read_as_texts_and_the_other_way_round(gateway):
    run_with(gateway, {**PSK, "psk": 12345, "retries": 2.9, "ikelife": True, "compression": 1, "uid": 1,
                       "localId": False, "remoteId": None, "localSubnets": None, "remoteSubnets": "none"})
    section = psk_section().replace("keyingtries=%forever", "keyingtries=2")
    section = section.replace("ikelifetime=3h", "ikelifetime=1h").replace("compress=no", "compress=yes")
    assert gateway.file(CONF) == HEADER + section + settings('leftid="false"', 'rightid=""')
    assert gateway.file(SECRETS) == '"false" "" : PSK "12345"\n'


# Names are used as they stand.

def test_a_name_with_a_slash_serves_for_a_key_but_names_no_certificate(gateway):
    records = [{**PSK, "name": "a/b"}, {**RSA, "name": "c/d"}]
    run = run_with(gateway, *records)
    failures = [not_opened(f"{BASE}/cacerts/c/d.pem"), rsa_failed("c/d")]
    assert run.log() == cycle(*records, told=CREATION + [psk_done("a/b")] + failures + RESTART)
    assert gateway.file(CONF) == HEADER + psk_section("a/b")
    assert set(files_below(gateway)) == {"ipsec.conf", "ipsec.secrets"}


def test_a_name_that_leads_elsewhere_is_followed_but_never_shows_a_key(gateway):
    gateway.path(f"{BASE}/elsewhere.pem").write_text("older and longer than what is written\n")
    gateway.path(f"{BASE}/elsewhere.pem").chmod(0o666)
    gateway.api(ipsecTunnels=[{**RSA, "name": "../elsewhere"}])
    gateway.ready_daemon()
    assert gateway.file(CONF) == HEADER + rsa_section("../elsewhere")
    assert files_below(gateway)["elsewhere.pem"] == (0o600, "the key\n")


# A full file system.

def test_a_full_file_system_fails_nothing_and_later_cycles_recover(gateway):
    make_run_small(gateway, free_pages=0)
    gateway.api(ipsecTunnels=[RSA, PSK])
    daemon = gateway.ready_daemon()
    written = CREATION + [rsa_done("site2"), psk_done("branch")]
    no_pid_file = ("WARNING", f"Unable to write pid to file: {PID_FILE}")
    assert daemon.log()[:-2] == [no_pid_file] + cycle(RSA, PSK, told=written + RESTART)
    assert mode_and_size(gateway, CONF) == (0o644, 0)
    assert mode_and_size(gateway, SECRETS) == (0o644, 0)
    assert mode_and_size(gateway, f"{BASE}/private/site2.pem") == (0o600, 0)
    make_room(gateway)
    daemon.refresh()
    assert content(gateway, CONF) == HEADER + rsa_section() + psk_section()
    assert content(gateway, SECRETS) == RSA_SECRET + PSK_SECRET


def test_a_file_system_that_fills_up_keeps_what_it_took(gateway):
    make_run_small(gateway, free_pages=1)
    local = [f"10.{number}.0.0/16" for number in range(100)]
    record = {**PSK, "localSubnets": subnets(*local), "remoteSubnets": subnets("172.16.0.0/12")}
    run = run_with(gateway, record)
    assert run.exit_status() == 0
    assert run.log() == cycle(record, told=CREATION + [psk_done("branch")] + RESTART)
    whole = HEADER + psk_section() + "".join(pair("branch", f"{number}_0", left, "172.16.0.0/12")
                                             for number, left in enumerate(local))
    assert content(gateway, CONF) == whole[:4096]
    assert content(gateway, SECRETS) == ""


def test_a_list_that_is_no_list_means_no_tunnels(gateway):
    gateway.api(ipsecTunnels="none")
    run = gateway.run("-p", "100")
    assert run.log() == EMPTY_CYCLE
