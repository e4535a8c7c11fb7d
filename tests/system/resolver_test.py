"""Peers by name: every answer that a name server can give."""

from __future__ import annotations

import signal
import time

import pytest

from harness.expected import DISCOVERY, FINISH, IPSEC_STOP, PULL, creation, pulled


def peer(host: str, **keys) -> dict:
    """Returns a record of an enabled tunnel to this peer."""
    return {"name": "site", "enabled": True, "remoteIp": host, **keys}


def not_found(host: str) -> tuple[str, str]:
    """Returns the record of a name that does not exist."""
    return ("WARNING", f"[FQDN_MONITOR] The host [{host}] was not found.")


def no_data(host: str) -> tuple[str, str]:
    """Returns the record of a name without an address."""
    return ("WARNING", f"[FQDN_MONITOR] The name [{host}] is valid but it has no address.")


def unavailable(host: str) -> tuple[str, str]:
    """Returns the record of a name server that does not answer."""
    return ("WARNING", "[FQDN_MONITOR] The name server is temporarily unavailable.  "
                       f"Unable to resolve [{host}]")


def assert_resolved(run, host: str, address: str, *told: tuple[str, str]) -> None:
    """Compares the whole log of a run with one tunnel to `host`."""
    assert run.log() == (DISCOVERY + IPSEC_STOP + PULL + list(told) + [pulled(peer(host), address)]
                         + creation("site", address) + FINISH)


def run_with_peer(gateway, host: str):
    """Runs once with one tunnel to this peer."""
    gateway.api(greTunnels=[peer(host)])
    return gateway.run("-p", "100")


@pytest.mark.parametrize("host", ["192.0.2.7", "10.1", "0x7f.1", "3232235777", "010.0.0.1", "0.0.0.0"])
def test_an_address_comes_back_as_it_is_without_a_look_up(gateway, host):
    assert_resolved(run_with_peer(gateway, host), host, host)


def test_a_name_becomes_its_address(gateway):
    gateway.name_server("192.0.2.7 peer.example\n")
    assert_resolved(run_with_peer(gateway, "peer.example"), "peer.example", "192.0.2.7")


def test_a_name_of_the_hosts_file_needs_no_name_server(gateway):
    gateway.path("/etc/hosts").write_text("192.0.2.8 near\n")
    assert_resolved(run_with_peer(gateway, "near"), "near", "192.0.2.8")


@pytest.mark.parametrize("count", [2, 20, 40, 500], ids="{} addresses".format)
def test_a_name_with_many_addresses_gives_one_of_them(gateway, count):
    # 500 addresses need a buffer of more than 4096 bytes.
    addresses = [f"10.1.{number // 250}.{number % 250 + 1}" for number in range(count)]
    gateway.name_server("".join(f"{address} many.example\n" for address in addresses))
    run = run_with_peer(gateway, "many.example")
    info = [text for level, text in run.log() if level == "INFO" and text.startswith("GRE tunnel [")]
    address = info[0].removeprefix("GRE tunnel [many.example][").removesuffix("] period 1")
    assert address in addresses
    assert_resolved(run, "many.example", address)


def test_a_long_alias_chain_is_followed(gateway):
    names = "x" * 60
    gateway.path("/etc/hosts").write_text(
        "192.0.2.8 near " + " ".join(f"{names}{number}" for number in range(100)) + "\n")
    assert_resolved(run_with_peer(gateway, "near"), "near", "192.0.2.8")


def test_a_name_that_does_not_exist_is_told_and_leaves_the_peer_empty(gateway):
    gateway.name_server("192.0.2.7 peer.example\n")
    assert_resolved(run_with_peer(gateway, "gone.example"), "gone.example", "", not_found("gone.example"))


def test_a_name_without_an_address_is_told(gateway):
    gateway.name_server("192.0.2.7 sub.empty.example\n")
    assert_resolved(run_with_peer(gateway, "empty.example"), "empty.example", "", no_data("empty.example"))


def test_a_name_with_only_ipv6_addresses_has_no_address(gateway):
    gateway.name_server("2001:db8::1 six.example\n")
    assert_resolved(run_with_peer(gateway, "six.example"), "six.example", "", no_data("six.example"))


def test_a_name_with_both_kinds_of_addresses_gives_the_ipv4_one(gateway):
    gateway.name_server("2001:db8::1 both.example\n192.0.2.9 both.example\n")
    assert_resolved(run_with_peer(gateway, "both.example"), "both.example", "192.0.2.9")


def test_a_name_server_that_fails_is_told(gateway):
    gateway.broken_name_server()
    assert_resolved(run_with_peer(gateway, "peer.example"), "peer.example", "", unavailable("peer.example"))


def test_a_missing_name_server_is_told_at_once(gateway):
    begin = time.monotonic()
    run = run_with_peer(gateway, "peer.example")
    # Far less than the time-out of a silent one.
    assert time.monotonic() - begin < 15.0
    assert_resolved(run, "peer.example", "", unavailable("peer.example"))


def test_a_silent_name_server_is_told_after_its_time_out(gateway):
    gateway.hasten_resolver()
    server = gateway.name_server("192.0.2.7 peer.example\n")
    gateway.signal(server, signal.SIGSTOP)
    assert_resolved(run_with_peer(gateway, "peer.example"), "peer.example", "", unavailable("peer.example"))


def test_a_disabled_tunnels_peer_is_looked_up_too(gateway):
    gateway.api(greTunnels=[peer("gone.example", enabled=False)])
    run = gateway.run("-p", "20")
    assert run.log() == [unavailable("gone.example")]


def test_peers_of_ipsec_tunnels_are_looked_up_too(gateway):
    gateway.name_server("192.0.2.7 peer.example\n")
    gateway.api(ipsecTunnels=[{"name": "a", "remoteWanIp": "peer.example", "enabled": False},
                              {"name": "b", "remoteWanIp": "gone.example", "enabled": False}])
    run = gateway.run("-p", "20")
    assert run.log() == [not_found("gone.example")]


def test_a_tunnel_whose_peer_does_not_resolve_still_gets_its_monitor(gateway):
    gateway.api(greTunnels=[peer("gone.example")])
    daemon = gateway.ready_daemon()
    assert daemon.log()[-1] == ("INFO", "Number of FQDN monitors is 1")


def test_the_next_refresh_sees_a_new_address(gateway):
    server = gateway.name_server("192.0.2.7 peer.example\n")
    gateway.api(greTunnels=[peer("peer.example")])
    daemon = gateway.ready_daemon()
    gateway.path("/harness/hosts").write_text("192.0.2.8 peer.example\n")
    gateway.signal(server, signal.SIGHUP)
    gateway.clear_trace()
    daemon.refresh()
    assert "ip tunnel add site mode gre remote 192.0.2.8 local 198.51.100.2 ttl 0" in gateway.trace()
