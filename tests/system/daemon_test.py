"""Daemon mode: detaching, the PID file, signals, the log."""

from __future__ import annotations

import fcntl
import os
import signal
import time

import pytest

from harness.expected import (DISCOVERY, EMPTY_CYCLE, EMPTY_CYCLE_COMMANDS, FINISH_COMMANDS, IPSEC_STOP,
                              MONITORS, NO_MONITORS, TEARDOWN_COMMANDS)
from harness.gateway import PID_FILE, SEMAPHORE, wait_for
from harness.seccomp import refuse_fork, refuse_setsid

FIRST_LOG = EMPTY_CYCLE + MONITORS + NO_MONITORS
REBUILD_LOG = EMPTY_CYCLE + NO_MONITORS

# More than two of the main loop's waits: what has not happened by then does not happen.
SETTLING_SECONDS = 0.5
# SIGTERM is noticed within one wait; the rest is for a busy machine. Monitors wait longer.
STOP_SECONDS = 10.0


def test_the_parent_ends_with_0_and_the_daemon_goes_on_by_itself(gateway):
    daemon = gateway.ready_daemon()
    assert daemon.parent_status == 0
    process = daemon.process()
    assert process["pid"] != daemon.parent
    assert process["session"] == process["pid"]
    assert process["umask"] == "0000"
    assert process["directory"] == "/"


def test_the_daemon_keeps_the_standard_descriptors_and_leaks_none(gateway):
    descriptors = gateway.ready_daemon().process()["descriptors"]
    assert descriptors["0"] == "/dev/null"
    assert descriptors["1"].endswith(".out")
    assert descriptors["2"].endswith(".err")


def test_the_first_cycle_is_followed_by_the_monitors(gateway):
    daemon = gateway.ready_daemon()
    assert daemon.log() == FIRST_LOG
    assert gateway.trace() == EMPTY_CYCLE_COMMANDS


def test_the_pid_file_holds_the_daemons_pid_and_is_writable_by_root_alone(gateway):
    daemon = gateway.ready_daemon()
    assert gateway.file(PID_FILE) == f"{daemon.pid}\n"
    assert gateway.mode(PID_FILE) == 0o644


def test_an_old_pid_file_is_overwritten(gateway):
    gateway.path(PID_FILE).write_text("1234567890\nmore\n")
    daemon = gateway.ready_daemon()
    assert gateway.file(PID_FILE) == f"{daemon.pid}\n"


def test_without_a_pid_file_the_daemon_goes_on_but_cannot_be_signalled_by_a_start(gateway):
    gateway.path(PID_FILE).mkdir()
    daemon = gateway.ready_daemon()
    assert daemon.log() == [("WARNING", f"Unable to write pid to file: {PID_FILE}")] + FIRST_LOG
    second = gateway.run("-p", "100")
    assert second.exit_status() == 1
    assert second.log()[1] == ("WARNING", f"Unable to read PID file [{PID_FILE}]")
    assert daemon.stop() == 0
    assert gateway.path(PID_FILE).is_dir()


def test_sighup_rebuilds(gateway):
    daemon = gateway.ready_daemon()
    daemon.refresh()
    assert daemon.log() == FIRST_LOG + REBUILD_LOG
    assert gateway.trace() == EMPTY_CYCLE_COMMANDS * 2


def test_a_rebuild_reads_the_configuration_anew(gateway):
    daemon = gateway.ready_daemon()
    gateway.clear_trace()
    gateway.api(greTunnels=[{"name": "late", "enabled": True, "remoteIp": "192.0.2.7"}])
    daemon.refresh()
    assert "ip link set late up" in gateway.trace()
    assert daemon.log()[-1] == ("INFO", "Number of FQDN monitors is 1")


def test_two_sighups_in_quick_succession_rebuild_once(gateway):
    daemon = gateway.ready_daemon()
    gateway.script("ip tunnel", shell="waitFor both")
    daemon.signal(signal.SIGHUP)
    daemon.signal(signal.SIGHUP)
    gateway.release("both")
    daemon.wait_for_cycles(2)
    time.sleep(SETTLING_SECONDS)
    assert daemon.cycles() == 2


def test_a_sighup_during_a_rebuild_causes_no_second_one(gateway):
    daemon = gateway.ready_daemon()
    gateway.clear_trace()
    gateway.script("firewall --init", shell="waitFor rebuild")
    daemon.signal(signal.SIGHUP)
    wait_for(lambda: "firewall --init" in gateway.trace())
    daemon.signal(signal.SIGHUP)
    gateway.release("rebuild")
    daemon.wait_for_cycles(2)
    time.sleep(SETTLING_SECONDS)
    assert daemon.cycles() == 2


def test_a_sighup_during_the_first_cycle_causes_one_rebuild(gateway):
    gateway.script("firewall --init", shell="waitFor first", times=1)
    daemon = gateway.daemon("-p", "100")
    wait_for(lambda: "firewall --init" in gateway.trace())
    daemon.signal(signal.SIGHUP)
    daemon.signal(signal.SIGHUP)
    gateway.release("first")
    daemon.wait_for_cycles(2)
    time.sleep(SETTLING_SECONDS)
    assert daemon.log() == FIRST_LOG + REBUILD_LOG


def test_sigterm_ends_the_daemon_and_removes_its_marks(gateway):
    daemon = gateway.ready_daemon()
    begin = time.monotonic()
    assert daemon.stop() == 0
    assert time.monotonic() - begin < STOP_SECONDS
    assert not gateway.exists(PID_FILE)
    assert not gateway.exists(SEMAPHORE)
    assert daemon.log() == FIRST_LOG
    assert gateway.trace() == EMPTY_CYCLE_COMMANDS


def test_sigterm_leaves_the_tunnels_up(gateway):
    gateway.api(greTunnels=[{"name": "kept", "enabled": True, "remoteIp": "192.0.2.7"}])
    daemon = gateway.ready_daemon()
    gateway.clear_trace()
    assert daemon.stop() == 0
    assert gateway.trace() == []


def test_sigterm_ends_the_daemon_quickly_with_many_monitors(gateway):
    gateway.api(greTunnels=[{"name": f"t{number}", "enabled": True, "remoteIp": "192.0.2.7"}
                            for number in range(50)])
    daemon = gateway.ready_daemon()
    begin = time.monotonic()
    assert daemon.stop() == 0
    assert time.monotonic() - begin < STOP_SECONDS


@pytest.mark.parametrize("during", ["ip tunnel", "firewall --init"])
def test_sigterm_during_a_cycle_takes_effect_after_it(gateway, during):
    gateway.script(during, shell="waitFor command")
    daemon = gateway.daemon("-p", "100")
    wait_for(lambda: during in gateway.trace())
    daemon.signal(signal.SIGTERM)
    wait_for(lambda: not gateway.exists(SEMAPHORE) and not gateway.exists(PID_FILE))
    assert not daemon.has_ended()
    gateway.release("command")
    assert daemon.exit_status() == 0
    assert daemon.log() == FIRST_LOG
    assert gateway.trace() == EMPTY_CYCLE_COMMANDS


def test_a_second_sigterm_does_no_harm(gateway):
    gateway.script("firewall --init", shell="waitFor command")
    daemon = gateway.daemon()
    wait_for(lambda: "firewall --init" in gateway.trace())
    daemon.signal(signal.SIGTERM)
    wait_for(lambda: not gateway.exists(SEMAPHORE))
    daemon.signal(signal.SIGTERM)
    gateway.release("command")
    assert daemon.exit_status() == 0


def test_a_new_daemon_can_start_after_sigterm(gateway):
    gateway.ready_daemon().stop()
    daemon = gateway.ready_daemon()
    assert daemon.log() == FIRST_LOG


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGUSR1, signal.SIGALRM])
def test_other_signals_keep_their_default(gateway, number):
    daemon = gateway.ready_daemon()
    daemon.signal(number)
    assert daemon.exit_status() == -number
    assert gateway.exists(PID_FILE)


def test_only_the_two_signals_have_handlers(gateway):
    # The C library catches two real-time signals of its own for its threads, and a
    # sanitizer those of crashes.
    process = gateway.ready_daemon().process()
    handled = {number for number in (1, 2, 3, 10, 12, 13, 14, 15, 17)
               if process["caught"] >> (number - 1) & 1}
    assert handled == {signal.SIGHUP, signal.SIGTERM}


def test_every_monitor_is_a_thread_that_leaves_signals_to_the_main_one(gateway):
    gateway.api(greTunnels=[{"name": "alpha", "enabled": True, "remoteIp": "192.0.2.7"},
                            {"name": "beta", "enabled": True, "remoteIp": "192.0.2.8"},
                            {"name": "off", "remoteIp": "192.0.2.9"}])
    daemon = gateway.ready_daemon()
    # Each thread takes its name when it first runs.
    wait_for(lambda: len(daemon.threads("FQDN_MONITOR")) == 2 and daemon.threads("WAN_MONITOR"))
    asked = 1 << (signal.SIGHUP - 1) | 1 << (signal.SIGTERM - 1)
    # A sanitizer brings threads of its own, which bear the program's name.
    monitors = {entry["name"]: entry["blocked"] & asked for entry in daemon.process()["threads"]
                if entry["name"] != "tunnel_mngr"}
    assert monitors == {"WAN_MONITOR": asked, "FQDN_MONITOR:al": asked, "FQDN_MONITOR:be": asked}


def test_syslog_gets_every_record_as_well(gateway):
    # In two parts: its socket holds ten datagrams, and is not waited for very long.
    gateway.script("ipsec stop", shell="waitFor syslog")
    daemon = gateway.daemon("-p", "100")
    wait_for(lambda: len(gateway.syslog.records()) == len(DISCOVERY + IPSEC_STOP))
    gateway.release("syslog")
    daemon.wait_for_cycles(1)
    wait_for(lambda: len(gateway.syslog.records()) == len(FIRST_LOG))
    assert gateway.syslog.records() == FIRST_LOG
    assert daemon.log() == FIRST_LOG


NO_SYSLOG = ("WARNING", "[TUNNEL_MNGR] Unable to log to Syslog")


def test_without_syslog_standard_error_has_the_records_and_one_warning(gateway):
    gateway.stop_syslog()
    daemon = gateway.ready_daemon()
    assert daemon.log() == [NO_SYSLOG, *FIRST_LOG]
    assert gateway.trace() == EMPTY_CYCLE_COMMANDS


def test_without_syslog_the_warning_appears_at_the_default_level_too(gateway):
    gateway.stop_syslog()
    assert gateway.run().log() == [NO_SYSLOG]


def test_a_syslog_daemon_that_restarts_is_found_again(gateway):
    # So few records that its socket holds them all, however late they are read.
    daemon = gateway.daemon("-p", "30")
    daemon.wait_for_cycles(1)
    gateway.stop_syslog()
    daemon.refresh()
    gateway.start_syslog()
    daemon.refresh()
    wait_for(lambda: gateway.syslog.records()[-len(NO_MONITORS):] == NO_MONITORS)
    assert {DISCOVERY[0], *NO_MONITORS} <= set(gateway.syslog.records())


def daemon_with_a_pipe(gateway):
    """Returns a daemon that logs all to a pipe, and the pipe's reading end."""
    os.mkfifo(gateway.path("/harness/pipe"))
    reader = os.open(gateway.path("/harness/pipe"), os.O_RDONLY | os.O_NONBLOCK)
    daemon = gateway.daemon("-p", "100", stderr="/harness/pipe")
    wait_for(lambda: gateway.trace() == EMPTY_CYCLE_COMMANDS)
    return daemon, reader


def rebuild(gateway, daemon):
    """Lets the daemon rebuild, going by its commands."""
    gateway.clear_trace()
    daemon.signal(signal.SIGHUP)
    wait_for(lambda: gateway.trace() == EMPTY_CYCLE_COMMANDS)


def test_a_standard_error_that_nobody_reads_any_more_does_not_end_the_daemon(gateway):
    daemon, reader = daemon_with_a_pipe(gateway)
    os.close(reader)
    rebuild(gateway, daemon)
    assert not daemon.has_ended()
    assert daemon.stop() == 0


def test_a_standard_error_that_is_full_does_not_stop_the_daemon(gateway):
    daemon, reader = daemon_with_a_pipe(gateway)
    fcntl.fcntl(reader, fcntl.F_SETPIPE_SZ, 4096)
    # Far more records than the pipe takes.
    gateway.api(greTunnels=[{"name": f"off{number}", "remoteIp": "192.0.2.7"} for number in range(200)])
    rebuild(gateway, daemon)
    begin = time.monotonic()
    assert daemon.stop() == 0
    assert time.monotonic() - begin < STOP_SECONDS
    os.close(reader)


def test_a_cycle_that_has_nothing_to_create_still_tears_down(gateway):
    gateway.api(wans=[])
    daemon = gateway.ready_daemon()
    gateway.api(wans=[{"current": True, "ip": "198.51.100.2"}])
    daemon.refresh()
    assert gateway.trace() == TEARDOWN_COMMANDS + TEARDOWN_COMMANDS + FINISH_COMMANDS


def test_a_fork_that_fails_ends_the_program_with_1(make_gateway):
    gateway = make_gateway(refuse_fork())
    run = gateway.run("-d")
    assert run.exit_status() == 1
    assert gateway.trace() == []
    assert not gateway.exists(PID_FILE)


def test_a_daemon_without_a_session_of_its_own_ends_with_1(make_gateway):
    gateway = make_gateway(refuse_setsid())
    run = gateway.run("-d")
    assert run.exit_status() == 0
    assert gateway.next_end(besides=run.pid) == 1
    assert gateway.trace() == []
    assert not gateway.exists(PID_FILE)
