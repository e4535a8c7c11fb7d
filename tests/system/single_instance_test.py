"""One daemon at a time: what a second start does, and what a crash costs."""

from __future__ import annotations

import signal

import pytest

from harness.expected import EMPTY_CYCLE_COMMANDS
from harness.gateway import PID_FILE, SEMAPHORE, wait_for

SIGNALING = ("INFO", "Signaling to process for refresh.")
UNREADABLE = ("WARNING", f"Unable to read PID file [{PID_FILE}]")
GIVING_UP = ("WARNING", "Unable to signal process. Exiting ...")


def leave_a_semaphore(gateway):
    """Makes the semaphore of a daemon that has crashed."""
    gateway.path(SEMAPHORE).write_bytes(bytes(32))


@pytest.mark.parametrize("options", [["-p", "100"], ["-p", "100", "-d"]], ids=" ".join)
def test_a_second_start_asks_the_daemon_for_a_rebuild(gateway, options):
    daemon = gateway.ready_daemon()
    gateway.clear_trace()
    second = gateway.run(*options)
    assert second.exit_status() == 0
    assert second.log() == [SIGNALING]
    daemon.wait_for_cycles(2)
    assert gateway.trace() == EMPTY_CYCLE_COMMANDS
    assert gateway.file(PID_FILE) == f"{daemon.pid}\n"
    assert gateway.exists(SEMAPHORE)


def test_a_start_during_a_one_shot_run_fails_and_does_not_disturb_it(gateway):
    gateway.script("ip tunnel", shell="waitFor discovery")
    first = gateway.start()
    wait_for(gateway.trace)
    second = gateway.run("-p", "100")
    assert second.exit_status() == 1
    assert second.log() == [SIGNALING, UNREADABLE, GIVING_UP]
    assert not gateway.exists(SEMAPHORE)
    gateway.release("discovery")
    assert first.exit_status() == 0
    assert gateway.trace() == EMPTY_CYCLE_COMMANDS


def test_a_semaphore_left_behind_costs_one_failed_start(gateway):
    leave_a_semaphore(gateway)
    failed = gateway.run("-p", "100")
    assert failed.exit_status() == 1
    assert failed.log() == [SIGNALING, UNREADABLE, GIVING_UP]
    assert gateway.trace() == []
    assert not gateway.exists(SEMAPHORE)
    assert gateway.run().exit_status() == 0
    assert gateway.trace() == EMPTY_CYCLE_COMMANDS


@pytest.mark.parametrize("text, told", [("", ""), (" 12x \n", "12x"), ("\n\n", ""), ("abc def\n", "abc def"),
                                        ("99999999999\n", "99999999999")])
def test_a_pid_file_without_a_number_is_told_and_removed(gateway, text, told):
    leave_a_semaphore(gateway)
    gateway.path(PID_FILE).write_text(text)
    failed = gateway.run("-p", "100")
    assert failed.exit_status() == 1
    assert failed.log() == [SIGNALING,
                            ("WARNING", f"Unable to parse PID file [{PID_FILE}] result [{told}]"),
                            GIVING_UP]
    assert not gateway.exists(PID_FILE)
    assert not gateway.exists(SEMAPHORE)


def test_a_pid_file_of_a_process_that_is_gone_is_removed(gateway):
    leave_a_semaphore(gateway)
    gateway.path(PID_FILE).write_text("  99999 \n")
    failed = gateway.run("-p", "100")
    assert failed.exit_status() == 1
    assert failed.log() == [SIGNALING, GIVING_UP]
    assert not gateway.exists(PID_FILE)
    assert not gateway.exists(SEMAPHORE)
    assert gateway.run().exit_status() == 0


def test_the_pid_file_may_hold_white_space_around_the_number(gateway):
    daemon = gateway.ready_daemon()
    gateway.path(PID_FILE).write_text(f" \t{daemon.pid} \n\n")
    assert gateway.run().exit_status() == 0
    daemon.wait_for_cycles(2)


def test_after_a_crash_the_second_start_succeeds(gateway):
    crashed = gateway.ready_daemon()
    crashed.signal(signal.SIGKILL)
    assert crashed.exit_status() == -signal.SIGKILL
    assert gateway.exists(SEMAPHORE)
    assert gateway.run("-d").exit_status() == 1
    daemon = gateway.ready_daemon()
    assert gateway.file(PID_FILE) == f"{daemon.pid}\n"


def test_a_one_shot_run_that_is_killed_costs_one_failed_start(gateway):
    gateway.script("ip tunnel", shell="waitFor never", times=1)
    killed = gateway.start()
    wait_for(gateway.trace)
    gateway.signal(killed.pid, signal.SIGTERM)
    assert killed.exit_status() == -signal.SIGTERM
    assert gateway.run().exit_status() == 1
    assert gateway.run().exit_status() == 0


def test_the_semaphore_is_the_owners_alone(gateway):
    gateway.ready_daemon()
    assert gateway.mode(SEMAPHORE) & 0o077 == 0
