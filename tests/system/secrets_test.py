"""Keys and other secrets of the configuration appear nowhere but in their files."""

from __future__ import annotations

import pytest

from harness.expected import CAUGHT
from harness.gateway import OVPN_PATH, PULL_PATH
from harness.ipsec import BASE, PSK, RSA, SECRETS, run_with
from harness.ovpn import conf_file, tunnel

CANARY = "c4n4ry"
SECRET_RECORDS = [{**PSK, "psk": f"{CANARY}-psk"},
                  {**RSA, "localPrivKey": f"{CANARY}-key\n"},
                  {**PSK, "name": "failing", "type": "none", "psk": f"{CANARY}-failing"}]

SECRET_OVPN = [tunnel("office", "<key>", f"{CANARY}-inline", "</key>")]


def assert_no_canary(gateway, run) -> None:
    """Looks through all that a reader of logs and process lists could see."""
    assert CANARY not in run.stderr()
    assert CANARY not in run.stdout()
    assert CANARY not in "\n".join(gateway.syslog.datagrams)
    assert CANARY not in "\n".join(gateway.trace())


@pytest.mark.parametrize("level", ["0", "10", "20", "30", "40", "50", "100"])
def test_no_secret_is_told_at_any_level(gateway, level):
    gateway.api(ipsecTunnels=SECRET_RECORDS, ovpnTunnels=SECRET_OVPN)
    run = gateway.run("-p", level)
    assert gateway.file(SECRETS).count(CANARY) == 1
    assert CANARY in gateway.file(f"{BASE}/private/site2.pem")
    assert CANARY in gateway.file(conf_file("office"))
    assert_no_canary(gateway, run)


@pytest.mark.parametrize("records", [
    [{**PSK, "psk": [f"{CANARY}-psk"]}], [{**RSA, "localPrivKey": {"key": f"{CANARY}-key"}}],
    [{**PSK, "psk": f"{CANARY}-psk", "uid": "yes"}], [{**PSK, "psk": f"{CANARY}-psk", "enabled": "yes"}],
])
def test_no_secret_is_told_when_a_value_cannot_be_read(gateway, records):
    run = run_with(gateway, *records)
    assert CAUGHT in run.log()
    assert_no_canary(gateway, run)


def test_no_secret_is_told_when_the_reply_cannot_be_parsed(gateway):
    gateway.api(ipsecTunnels=SECRET_RECORDS)
    gateway.fault(PULL_PATH, badJson=True)
    assert_no_canary(gateway, gateway.run("-p", "100"))


def test_no_openvpn_key_is_told_when_the_reply_cannot_be_parsed_or_read(gateway):
    gateway.api(ovpnTunnels=SECRET_OVPN)
    gateway.fault(OVPN_PATH, badJson=True)
    assert_no_canary(gateway, gateway.run("-p", "100"))
    gateway.fault(OVPN_PATH)
    gateway.api(ovpnTunnels=[{"name": "office", "enabled": True, "config": [f"{CANARY}-inline"]}])
    assert_no_canary(gateway, gateway.run("-p", "100"))


def test_no_secret_is_told_when_files_cannot_be_written(gateway):
    gateway.path(f"{BASE}/private").rmdir()
    gateway.path(conf_file("office")).mkdir()
    gateway.api(ovpnTunnels=SECRET_OVPN)
    assert_no_canary(gateway, run_with(gateway, *SECRET_RECORDS))
