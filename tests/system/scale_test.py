"""Many tunnels and many rebuilds."""

from __future__ import annotations

import signal
import time

from harness.expected import (FINISH_COMMANDS, TEARDOWN_COMMANDS, creation_commands, removal_commands)
from harness.gateway import wait_for

TUNNELS = 1000
REBUILDS = 30


def records(count: int) -> list[dict]:
    """Returns records of enabled tunnels."""
    return [{"name": f"t{number}", "enabled": True, "remoteIp": f"10.1.{number // 250}.{number % 250}"}
            for number in range(count)]


def listing(count: int) -> str:
    """Returns what `ip tunnel` prints for these tunnels."""
    line = "gre/ip remote 192.0.2.1 local 198.51.100.2 ttl 64"
    return "".join(f"t{number}: {line}\n" for number in range(count))


def creations(count: int) -> list[str]:
    """Returns the commands that create these tunnels."""
    return [command for record in records(count)
            for command in creation_commands(record["name"], record["remoteIp"])]


def fqdn_threads(daemon) -> int:
    """Returns how many FQDN monitors have a thread."""
    return len(daemon.threads("FQDN_MONITOR"))


def test_a_thousand_tunnels_are_created_in_order(gateway):
    gateway.api(greTunnels=records(TUNNELS))
    assert gateway.run().exit_status() == 0
    assert gateway.trace() == TEARDOWN_COMMANDS + creations(TUNNELS) + FINISH_COMMANDS


def test_a_thousand_tunnels_are_removed_in_order(gateway):
    gateway.script("ip tunnel", output=listing(TUNNELS))
    assert gateway.run().exit_status() == 0
    removals = [command for number in range(TUNNELS) for command in removal_commands(f"t{number}")]
    assert gateway.trace() == ["ip tunnel"] + removals + TEARDOWN_COMMANDS[1:] + FINISH_COMMANDS


def test_a_thousand_monitors_start_and_end(gateway):
    # What matters here are the threads: every `ip tunnel add` fails, which is quick.
    gateway.script("ip tunnel add *", status=1)
    gateway.api(greTunnels=records(TUNNELS))
    daemon = gateway.daemon("-p", "30")
    daemon.wait_for_cycles(1)
    wait_for(lambda: fqdn_threads(daemon) == TUNNELS)
    gateway.api(greTunnels=[])
    daemon.refresh()
    wait_for(lambda: fqdn_threads(daemon) == 0)
    gateway.api(greTunnels=records(TUNNELS))
    daemon.refresh()
    wait_for(lambda: fqdn_threads(daemon) == TUNNELS)
    begin = time.monotonic()
    assert daemon.stop() == 0
    # No monitor's wait, which is a minute, and nothing for each of them.
    assert time.monotonic() - begin < 20.0


def test_many_rebuilds_leave_no_descriptor_thread_or_child_behind(gateway):
    gateway.api(greTunnels=records(10))
    daemon = gateway.daemon("-p", "30")
    daemon.wait_for_cycles(1)
    # Each thread takes its name when it first runs.
    wait_for(lambda: fqdn_threads(daemon) == 10 and daemon.threads("WAN_MONITOR"))
    before = daemon.process()["descriptors"], sorted(daemon.threads())
    for _ in range(REBUILDS):
        daemon.refresh()
    wait_for(lambda: (daemon.process()["descriptors"], sorted(daemon.threads())) == before)
    assert [entry for entry in gateway.processes("tunnel_mngr") if entry["pid"] != daemon.pid] == []
    assert gateway.children(daemon.pid) == []


def test_names_that_hang_hold_up_neither_a_refresh_nor_the_end_once_dropped(gateway):
    # The monitors themselves look up only after a minute; here it is the pull that waits.
    gateway.hasten_resolver()
    server = gateway.name_server("192.0.2.7 peer.example\n")
    gateway.api(greTunnels=[{"name": "site", "enabled": True, "remoteIp": "peer.example"}])
    daemon = gateway.ready_daemon()
    gateway.signal(server, signal.SIGSTOP)
    begin = time.monotonic()
    daemon.refresh()
    assert time.monotonic() - begin < 20.0
    assert daemon.stop() == 0
