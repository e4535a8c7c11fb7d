"""The openvpn processes: how they start, what they inherit, how they end, what is pinged."""

from __future__ import annotations

import signal
import time

import pytest

from harness.expected import EMPTY_CYCLE_COMMANDS, FINISH_COMMANDS, TEARDOWN_COMMANDS
from harness.gateway import PID_FILE, SEMAPHORE, wait_for
from harness.ovpn import (EXEC_FAILED, FOR_COPIES, STAY, children, command, conf_file, connect_file, cycle,
                          pinged, tunnel, wait_until_running)
from harness.seccomp import refuse_fork, refuse_parent_death_signal

CLIENTS = "/var/run/clients"
# Stands last in a list: once it is pinged, the check has been at all the others.
MARK = tunnel("mark", "ifconfig 10.9.9.1 10.9.9.9")
MARK_PING = "ping -c 3 10.9.9.9"

# The C library keeps two signals to itself; the starter of the sandbox's programs leaves
# them ignored.
OWN_SIGNALS = 1 << 31 | 1 << 32


def without_openvpn(gateway) -> dict[str, str]:
    """Returns an environment whose PATH, /harness/commands, has all stand-ins but that one."""
    directory = gateway.path("/harness/commands")
    directory.mkdir()
    for name in ("ip", "ipsec", "rm", "mkdir", "firewall", "ping"):
        (directory / name).symlink_to(f"/tools/commands/{name}")
    return {"PATH": "/harness/commands"}


def daemon_with(gateway, *records: dict, environment: dict[str, str] | None = None):
    """Returns a daemon that logs all, after its first cycle with these tunnels."""
    gateway.api(ovpnTunnels=list(records))
    daemon = gateway.daemon("-p", "100", environment=environment)
    daemon.wait_for_cycles(1)
    return daemon


def openvpn_log(daemon) -> list[tuple[str, str]]:
    """Returns the records about the openvpn processes."""
    return [record for record in daemon.log() if "[OVPN]" in record.text]


# Start.

def test_openvpn_gets_exactly_its_eight_arguments(gateway):
    daemon = daemon_with(gateway, tunnel("office"))
    wait_until_running(gateway, daemon, "office")
    wait_for(lambda: len(gateway.trace()) > len(EMPTY_CYCLE_COMMANDS))
    assert gateway.trace() == EMPTY_CYCLE_COMMANDS + [
        "openvpn --config /var/run/openvpn_office.conf --status /var/run/openvpn_office.status 1 "
        "--syslog openvpn"]
    assert daemon.log()[:-2] == cycle()


def test_its_first_argument_is_its_plain_name(gateway):
    # It complains under this name, and never gets as far as doing anything.
    environment = without_openvpn(gateway)
    gateway.path("/harness/commands/openvpn").symlink_to("/usr/bin/cat")
    daemon = daemon_with(gateway, tunnel("office"), environment=environment)
    wait_for(lambda: "openvpn: unrecognized option '--config'" in daemon.messages())


def test_arguments_are_not_split(gateway):
    daemon = daemon_with(gateway, tunnel("head office; reboot"))
    wait_until_running(gateway, daemon, "head office; reboot")


def test_tunnels_start_in_the_order_of_the_configuration(gateway):
    names = [f"t{number}" for number in (3, 1, 2)]
    daemon = daemon_with(gateway, *(tunnel(name) for name in names))
    pids = wait_until_running(gateway, daemon, *names)
    assert [pids[name] for name in names] == sorted(pids.values())


def signal_settings(gateway, pid: int) -> dict[str, int]:
    """Returns which signals a process blocks, ignores and catches."""
    look = gateway.start(f"/proc/{pid}/status", program="/usr/bin/cat")
    assert look.exit_status() == 0
    fields = dict(line.split(":\t", 1) for line in look.stdout().splitlines())
    return {name: int(fields[name], 16) & ~OWN_SIGNALS for name in ("SigBlk", "SigIgn", "SigCgt")}


def test_openvpn_inherits_no_descriptor_and_no_signal_setting(gateway):
    gateway.script("openvpn *", shell=STAY)
    gateway.api(greTunnels=[{"name": "gre", "enabled": True, "remoteIp": "192.0.2.7"}])
    daemon = daemon_with(gateway, tunnel("first"), tunnel("second"))

    def descriptors() -> list[list[str]]:
        return [sorted(child["descriptors"]) for child in children(gateway, daemon) if child["name"] == "sleep"]

    # Once more, now that the daemon has all its threads.
    for _ in range(2):
        # A program that has just begun has its libraries open for a moment.
        wait_for(lambda: descriptors() == [["0", "1", "2"]] * 2)
        for child in children(gateway, daemon):
            assert signal_settings(gateway, child["pid"]) == {"SigBlk": 0, "SigIgn": 0, "SigCgt": 0}
        daemon.refresh()


@pytest.mark.parametrize("present", [False, True])
def test_an_openvpn_that_cannot_be_executed_is_told_and_disturbs_nothing(gateway, present):
    environment = without_openvpn(gateway)
    if present:
        gateway.path("/harness/commands/openvpn").write_text("#!/bin/sh\n")
        gateway.path("/harness/commands/openvpn").chmod(0o644)
    daemon = daemon_with(gateway, tunnel("office"), environment=environment)
    wait_for(lambda: EXEC_FAILED in daemon.log())
    wait_for(lambda: children(gateway, daemon) == [])
    assert set(openvpn_log(daemon)) == {EXEC_FAILED}
    assert gateway.exists(PID_FILE) and gateway.exists(SEMAPHORE)
    assert [line for line in gateway.trace() if line.startswith("openvpn")] == []
    daemon.refresh()
    assert daemon.stop() == 0


def test_a_fork_that_fails_is_told_for_every_tunnel_and_ends_nothing(make_gateway):
    gateway = make_gateway(refuse_fork())
    gateway.api(ovpnTunnels=[tunnel("a"), tunnel("b")])
    run = gateway.run("-p", "100")
    assert run.exit_status() == 0
    assert run.log() == cycle() + [("ERROR", "[TUNNEL_MNGR][OVPN] failed fork in OvpnTnl restart")] * 2
    assert gateway.trace() == EMPTY_CYCLE_COMMANDS


def test_no_openvpn_runs_that_would_outlive_the_daemon(make_gateway):
    gateway = make_gateway(refuse_parent_death_signal())
    daemon = daemon_with(gateway, tunnel("office"))
    failure = ("ERROR", "[TUNNEL_MNGR][OVPN] failed setup notify 'perent terminated' in OvpnTnl restart")
    wait_for(lambda: failure in daemon.log())
    wait_for(lambda: children(gateway, daemon) == [])
    assert set(openvpn_log(daemon)) == {failure}
    assert command("office") not in gateway.trace()
    assert daemon.stop() == 0


def test_without_a_successful_firewall_no_openvpn_runs_or_is_started_by_the_check(gateway):
    daemon = daemon_with(gateway, tunnel("office"), MARK)
    wait_for(lambda: {command("office"), command("mark"), MARK_PING} <= set(gateway.trace()))
    gateway.script("firewall --init", status=1)
    gateway.clear_trace()
    daemon.refresh()
    assert gateway.trace() == EMPTY_CYCLE_COMMANDS
    assert gateway.children(daemon.pid) == []


# The directory of the clients' configurations.

def with_directory(path: str) -> dict:
    """Returns a tunnel that has its clients' configurations there."""
    return tunnel("server", f"client-config-dir {path}")


def made(path: str) -> list[tuple[str, str]]:
    """Returns the records of a directory that was made."""
    return [("TRACE", f"mkdir -p {path}"),
            ("ERROR", f"[TUNNEL_MNGR][OVPN] {path} didn't exist. it has been created")]


def test_a_directory_that_exists_is_left_alone(gateway):
    gateway.path(CLIENTS).mkdir(mode=0o711)
    daemon = daemon_with(gateway, with_directory(CLIENTS))
    wait_until_running(gateway, daemon, "server")
    wait_for(lambda: command("server") in gateway.trace())
    assert gateway.trace() == EMPTY_CYCLE_COMMANDS + [command("server")]
    assert openvpn_log(daemon) == []
    assert gateway.mode(CLIENTS) == 0o711


def test_a_directory_that_is_missing_is_made_before_openvpn_starts(gateway):
    path = f"{CLIENTS}/of/server"
    gateway.script("openvpn *", shell=f"[ -d {path} ] || echo too early >>/harness/trace; {STAY}")
    daemon = daemon_with(gateway, with_directory(path))
    wait_for(lambda: command("server") in gateway.trace())
    assert gateway.trace() == EMPTY_CYCLE_COMMANDS + [f"mkdir -p {path}", command("server")]
    assert [record for record in daemon.log() if record in made(path)] == made(path)
    assert [gateway.mode(made_one) for made_one in (CLIENTS, path)] == [0o755, 0o755]
    assert [child["umask"] for child in children(gateway, daemon)] == ["0022"]


@pytest.mark.parametrize("path", [PID_FILE, f"{PID_FILE}/below", "/proc/self/mem"])
def test_what_is_there_but_no_directory_is_left_to_openvpn(gateway, path):
    daemon = daemon_with(gateway, with_directory(path))
    wait_until_running(gateway, daemon, "server")
    wait_for(lambda: command("server") in gateway.trace())
    assert gateway.trace() == EMPTY_CYCLE_COMMANDS + [command("server")]


def copies(gateway, daemon) -> list[dict]:
    """Returns the processes of the program besides the daemon."""
    return [entry for entry in gateway.processes("tunnel_mngr") if entry["pid"] != daemon.pid]


def failed_mkdir(status: int) -> tuple[str, str]:
    """Returns the record of a directory that could not be made."""
    return ("ERROR", f"[TUNNEL_MNGR][OVPN] error make config directory command [{status}]")


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGKILL])
def test_where_the_directory_cannot_be_made_a_copy_of_the_daemon_goes_on_and_ends_with_it(gateway, number):
    gateway.script("mkdir *", status=5)
    daemon = daemon_with(gateway, with_directory(CLIENTS), tunnel("after"), environment=FOR_COPIES)
    wait_for(lambda: failed_mkdir(5) in daemon.log())
    assert copies(gateway, daemon)[0]["parent"] == daemon.pid
    # Each has gone on to the tunnel after it.
    wait_for(lambda: gateway.trace().count(command("after")) >= 2)
    assert command("server") not in gateway.trace()
    wait_for(lambda: daemon.cycles() >= 2)
    daemon.signal(number)
    assert daemon.exit_status() == (0 if number == signal.SIGTERM else -number)
    wait_for(lambda: not gateway.processes("tunnel_mngr") and not gateway.processes("openvpn"))


def test_the_copies_of_a_one_shot_run_end_like_itself(gateway):
    gateway.script("mkdir *", status=5)
    gateway.api(ovpnTunnels=[with_directory(CLIENTS)])
    run = gateway.run()
    assert run.exit_status() == 0
    wait_for(lambda: not gateway.processes("tunnel_mngr"))
    assert not gateway.exists(SEMAPHORE)


def test_a_rebuild_ends_the_copies(gateway):
    gateway.script("mkdir *", status=5)
    daemon = daemon_with(gateway, with_directory(CLIENTS), environment=FOR_COPIES)
    wait_for(lambda: failed_mkdir(5) in daemon.log())
    assert copies(gateway, daemon) != []
    gateway.api(ovpnTunnels=[tunnel("sound")])
    cycles = daemon.log().count(("INFO", "Managing tunnels"))
    daemon.signal(signal.SIGHUP)
    wait_for(lambda: daemon.log().count(("INFO", "Managing tunnels")) > cycles)
    wait_until_running(gateway, daemon, "sound")
    wait_for(lambda: not copies(gateway, daemon))


# The end.

@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGTERM, signal.SIGINT])
def test_with_the_daemon_end_all_its_openvpn_processes(gateway, number):
    names = [f"t{number}" for number in range(5)]
    gateway.script("openvpn *", shell="trap 'echo $$ >>/harness/ends; exit 0' TERM\n"
                                      "echo started >>/harness/starts; sleep infinity & wait")
    daemon = daemon_with(gateway, *(tunnel(name) for name in names))
    wait_for(lambda: gateway.exists("/harness/starts") and gateway.file("/harness/starts").count("\n") == 5)
    daemon.signal(number)
    daemon.exit_status()
    wait_for(lambda: not gateway.processes("openvpn"))
    # The kernel signals with the end of each thread of the daemon that has become their parent.
    assert len(set(gateway.file("/harness/ends").split())) == 5


def test_a_rebuild_ends_and_starts_every_openvpn_and_leaves_no_zombie(gateway):
    daemon = daemon_with(gateway, tunnel("a"), tunnel("b"), tunnel("c"))
    before = wait_until_running(gateway, daemon, "a", "b", "c")
    gateway.api(ovpnTunnels=[tunnel("c"), tunnel("a"), tunnel("new")])
    daemon.refresh()
    after = wait_until_running(gateway, daemon, "a", "c", "new")
    assert not set(after.values()) & set(before.values())
    assert [child["state"] for child in gateway.children(daemon.pid) if child["state"] == "Z"] == []


def test_they_are_ended_one_after_the_other_in_the_order_of_the_configuration(gateway):
    gateway.script("openvpn *", shell="trap 'trap \"\" TERM; echo \"end $2\" >>/harness/trace; exit 0' TERM\n"
                                      ": >/harness/listening.${2##*_}; sleep infinity & wait")
    names = ("b", "a")
    daemon = daemon_with(gateway, *(tunnel(name) for name in names))
    wait_for(lambda: all(gateway.exists(f"/harness/listening.{name}.conf") for name in names))
    gateway.clear_trace()
    gateway.api(ovpnTunnels=[])
    daemon.refresh()
    assert gateway.trace() == TEARDOWN_COMMANDS + [f"end {conf_file(name)}" for name in names] + FINISH_COMMANDS


def test_an_openvpn_that_ignores_sigterm_is_sent_one_every_second_until_it_ends(gateway):
    # Once it has got what it takes it does not tell of more, should its end be late.
    gateway.script("openvpn *", shell="n=0; trap 'n=$((n + 1)); [ $n -lt 4 ] || trap \"\" TERM\n"
                                      "echo \"SIGTERM $n\" >>/harness/trace' TERM\n"
                                      ": >/harness/listening; while [ $n -lt 4 ]; do sleep 0.02; done")
    daemon = daemon_with(gateway, tunnel("stubborn"))
    wait_for(lambda: gateway.exists("/harness/listening"))
    gateway.clear_trace()
    gateway.api(ovpnTunnels=[])
    begin = time.monotonic()
    daemon.refresh()
    took = time.monotonic() - begin
    signals = [f"SIGTERM {number}" for number in (1, 2, 3, 4)]
    assert gateway.trace() == TEARDOWN_COMMANDS + signals + FINISH_COMMANDS
    assert took >= 2.95
    assert gateway.children(daemon.pid) == []


# Ping: the first check comes right after the first cycle.

@pytest.mark.parametrize("status, text", [(0, "connected"), (1, ""), (2, ""), (127, "")])
def test_the_connect_file_tells_whether_the_peer_answers(gateway, status, text):
    gateway.script("ping *", status=status, output="3 packets transmitted\n")
    gateway.path(connect_file("office")).write_text("older and longer")
    gateway.path(connect_file("office")).chmod(0o666)
    daemon = daemon_with(gateway, tunnel("office", "ifconfig 10.8.0.1 10.8.0.2"), MARK)
    wait_for(lambda: MARK_PING in gateway.trace() and gateway.exists(connect_file("mark")))
    assert "ping -c 3 10.8.0.2" in gateway.trace()
    assert gateway.file(connect_file("office")) == text
    assert gateway.mode(connect_file("office")) == 0o644
    wait_for(lambda: gateway.file(connect_file("mark")) == text)
    assert gateway.mode(connect_file("mark")) == 0o644
    assert daemon.log()[len(cycle()) + 2:] == pinged("10.8.0.2") + pinged("10.9.9.9")
    assert daemon.messages() == []


@pytest.mark.parametrize("lines, address", [
    (["ifconfig 10.8.0.1 10.8.0.2"], "10.8.0.2"), (["\tifconfig  10.8.0.1\t 10.8.0.2 # remote"], "10.8.0.2"),
    (["ifconfig 10.8.0.3"], "10.8.0.3"), (["ifconfig 10.8.0.1 10.8.0.4 10.8.0.5"], "10.8.0.4"),
    (["ifconfig 10.8.0.1 10.8.0.2", "ifconfig 10.8.0.1 10.8.0.6"], "10.8.0.2"),
    (["#ifconfig 10.8.0.1 10.8.0.2", "ifconfig peer.example"], "peer.example"),
    (["ifconfig 10.8.0.1 ;10.8.0.2"], "10.8.0.1"),
    (["ifconfig"], None), (["port 1"], None), (["ifconfig-push 10.8.0.1 10.8.0.2"], None),
    (["ifconfig 10.8.0.1 10.8.0.2", "<ca>", "</ca>"], None),
    (["  <ca> # inline", "ifconfig 10.8.0.1 10.8.0.2"], None),
    (["<ca>x", "ifconfig 10.8.0.1 10.8.0.2"], "10.8.0.2"),
], ids=str)
def test_the_address_to_ping_is_the_far_end_of_a_link_without_certificates(gateway, lines, address):
    daemon = daemon_with(gateway, tunnel("office", *lines), MARK)
    wait_for(lambda: MARK_PING in gateway.trace())
    pings = [line for line in gateway.trace() if line.startswith("ping")]
    assert pings == ([f"ping -c 3 {address}"] if address else []) + [MARK_PING]
    assert gateway.exists(connect_file("office")) == bool(address)
    wait_until_running(gateway, daemon, "office", "mark")


def test_a_connect_file_that_cannot_be_written_does_not_matter(gateway):
    gateway.path(connect_file("office")).mkdir()
    daemon = daemon_with(gateway, tunnel("office", "ifconfig 10.8.0.1 10.8.0.2"), MARK)
    wait_for(lambda: gateway.exists(connect_file("mark")) and gateway.file(connect_file("mark")) == "connected")
    wait_until_running(gateway, daemon, "office", "mark")
    assert daemon.stop() == 0


def test_one_shot_mode_pings_nothing_and_takes_its_processes_along(gateway):
    gateway.api(ovpnTunnels=[MARK])
    assert gateway.run().exit_status() == 0
    wait_for(lambda: not gateway.processes("openvpn"))
    assert MARK_PING not in gateway.trace()
    assert not gateway.exists(connect_file("mark"))
