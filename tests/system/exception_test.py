"""Replies that make a cycle throw: in the first cycle, in a refresh, again and again."""

from __future__ import annotations

import signal
import time

from harness.expected import (CAUGHT, EMPTY_CYCLE_COMMANDS, MONITORS, NO_MONITORS, TEARDOWN_COMMANDS)
from harness.gateway import PID_FILE, PULL_PATH, SEMAPHORE, WAN_PATH, wait_for

GRE = {"name": "site", "enabled": True, "remoteIp": "192.0.2.7"}
WRONG = [GRE, {"name": "wrong", "enabled": "yes"}]

# The loop's own wait after a turn that threw.
PACE_SECONDS = 0.2


def caught(daemon) -> int:
    """Returns how many exceptions have been logged."""
    return daemon.log().count(CAUGHT)


def test_one_shot_mode_logs_it_removes_its_mark_and_returns_1(gateway):
    gateway.api(greTunnels=WRONG)
    run = gateway.run()
    assert run.exit_status() == 1
    assert run.log() == [CAUGHT]
    assert not gateway.exists(SEMAPHORE)
    gateway.api(greTunnels=[])
    assert gateway.run().exit_status() == 0


def test_a_daemon_survives_it_in_its_first_cycle_and_tries_again(gateway):
    gateway.fault(PULL_PATH, result=5, times=1)
    daemon = gateway.daemon("-p", "30")
    daemon.wait_for_cycles(2)
    info = [record for record in daemon.log() if record.level in ("ERROR", "INFO")]
    assert info == ([("INFO", "Managing tunnels"), CAUGHT] + MONITORS + NO_MONITORS
                    + [("INFO", "Managing tunnels")] + NO_MONITORS)
    assert gateway.trace() == TEARDOWN_COMMANDS + EMPTY_CYCLE_COMMANDS
    time.sleep(2 * PACE_SECONDS)
    assert daemon.cycles() == 2


def test_a_wan_query_that_throws_at_the_start_counts_as_no_address(gateway):
    gateway.fault(WAN_PATH, result=["text"], times=1)
    run = gateway.run()
    assert run.exit_status() == 0
    assert gateway.trace() == EMPTY_CYCLE_COMMANDS
    assert CAUGHT not in run.log()


def test_a_refresh_that_throws_is_tried_again_until_it_succeeds(gateway):
    daemon = gateway.ready_daemon()
    gateway.clear_trace()
    gateway.fault(PULL_PATH, result=5, times=2)
    daemon.refresh()
    assert caught(daemon) == 2
    assert gateway.trace() == TEARDOWN_COMMANDS * 2 + EMPTY_CYCLE_COMMANDS
    time.sleep(2 * PACE_SECONDS)
    assert (caught(daemon), daemon.cycles()) == (2, 2)


def test_a_refresh_that_keeps_throwing_neither_spins_nor_stops(gateway):
    daemon = gateway.ready_daemon()
    gateway.api(greTunnels=WRONG)
    daemon.signal(signal.SIGHUP)
    # The first wait is none where the signal came just before the loop's own.
    wait_for(lambda: caught(daemon) >= 2)
    begin, before = time.monotonic(), caught(daemon)
    wait_for(lambda: caught(daemon) >= before + 4)
    # Four more have at least three waits between them.
    assert time.monotonic() - begin >= 3 * PACE_SECONDS
    assert daemon.cycles() == 1
    gateway.api(greTunnels=[])
    daemon.wait_for_cycles(2)
    seen = caught(daemon)
    time.sleep(2 * PACE_SECONDS)
    assert (caught(daemon), daemon.cycles()) == (seen, 2)


def test_sigterm_ends_a_daemon_whose_refresh_keeps_throwing(gateway):
    gateway.api(greTunnels=WRONG)
    daemon = gateway.daemon()
    wait_for(lambda: caught(daemon) >= 2)
    assert daemon.stop() == 0
    assert not gateway.exists(PID_FILE)
    assert not gateway.exists(SEMAPHORE)


def test_a_refresh_that_keeps_throwing_grows_no_threads(gateway):
    gateway.api(greTunnels=[GRE] * 20)
    daemon = gateway.ready_daemon()
    gateway.api(greTunnels=[GRE] * 20 + WRONG)
    daemon.signal(signal.SIGHUP)
    # Those of the first cycle end in their own time.
    wait_for(lambda: caught(daemon) >= 1 and daemon.threads("FQDN_MONITOR") == [])
    before = caught(daemon)
    wait_for(lambda: caught(daemon) >= before + 4)
    assert daemon.threads("FQDN_MONITOR") == []
    gateway.api(greTunnels=[GRE] * 3)
    daemon.wait_for_cycles(2)
    assert daemon.log()[-1] == ("INFO", "Number of FQDN monitors is 3")


def test_the_daemon_answers_a_second_start_while_its_refresh_keeps_throwing(gateway):
    gateway.api(greTunnels=WRONG)
    daemon = gateway.daemon()
    wait_for(lambda: caught(daemon) >= 1)
    assert gateway.run().exit_status() == 0
    seen = caught(daemon)
    wait_for(lambda: caught(daemon) > seen)
