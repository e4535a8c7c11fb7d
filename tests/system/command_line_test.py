"""The command line: options, usage, exit statuses."""

from __future__ import annotations

import pytest

from harness.expected import EMPTY_CYCLE, EMPTY_CYCLE_COMMANDS, FAILED_CONFIG_READ, FAILED_WAN_QUERY
from harness.gateway import PROGRAM, SEMAPHORE, wait_for

USAGE = (f"Usage: {PROGRAM} --h\n"
         "\tEstablishes GRE Tunnels based on current configurations\n"
         "\t--printlvl (p)  : sets the printlvl [0-100]\n"
         "\t--daemonize (d) : initializes then waits on SIGUP signal\n"
         "\t--help (h)      : returns this message\n")


@pytest.mark.parametrize("options", [
    ["-h"], ["--help"], ["-h", "-p", "5"], ["-h", "-p", "500"], ["-d", "-h"], ["stray", "--help"],
], ids=" ".join)
def test_help_prints_the_usage_and_does_nothing_else(gateway, options):
    run = gateway.run(*options)
    assert run.exit_status() == 0
    assert run.stdout() == USAGE
    assert run.stderr() == ""
    assert gateway.trace() == []
    assert gateway.requests() == []
    assert not gateway.exists(SEMAPHORE)


@pytest.mark.parametrize("level", ["101", "-1", "abc", "", "1.5", "0x10", "99999999999", "5 5"])
def test_a_print_level_out_of_range_ends_the_program(gateway, level):
    run = gateway.run("-p", level)
    assert run.exit_status() == 1
    assert run.stdout() == "print level out of range [0-100]"
    assert gateway.trace() == []
    assert not gateway.exists(SEMAPHORE)


def test_a_bad_print_level_ends_the_program_before_a_later_help(gateway):
    run = gateway.run("-p", "101", "-h")
    assert (run.exit_status(), run.stdout()) == (1, "print level out of range [0-100]")


@pytest.mark.parametrize("options", [
    ["-p", "100"], ["-p100"], ["--printlvl", "100"], ["--printlvl=100"], ["-p", "50"],
    ["-p", "10", "-p", "100"],
], ids=" ".join)
def test_the_highest_print_level_logs_everything(gateway, options):
    run = gateway.run(*options)
    assert run.exit_status() == 0
    assert run.log() == EMPTY_CYCLE
    assert run.stdout() == ""


@pytest.mark.parametrize("options", [[], ["-p", "10"], ["-p", "19"], ["-p", "100", "-p", "10"]],
                         ids=" ".join)
def test_only_errors_are_logged_unless_asked_for_more(gateway, options):
    gateway.fault("/api/waninfo/wans", code=500)
    run = gateway.run(*options)
    assert run.log() == [("ERROR", "api returned error code [500]"), FAILED_WAN_QUERY] * 2


@pytest.mark.parametrize("level, labels", [
    ("20", set()), ("30", {"INFO"}), ("40", {"INFO", "DEBUG"}), ("49", {"INFO", "DEBUG"}),
    ("50", {"INFO", "DEBUG", "TRACE"}),
])
def test_a_print_level_includes_the_levels_below(gateway, level, labels):
    assert {record.level for record in gateway.run("-p", level).log()} == labels


def test_print_level_0_is_silent(gateway):
    gateway.stop_api()
    run = gateway.run("-p", "0")
    assert (run.exit_status(), run.stdout(), run.stderr()) == (0, "", "")
    assert gateway.trace() == ["ip tunnel"]


@pytest.mark.parametrize("options", [["-p", "0", "x", "y z"], ["x", "-p", "0", "y z"],
                                     ["-p", "0", "--", "x", "y z"]], ids=" ".join)
def test_stray_arguments_are_named_and_start_up_goes_on(gateway, options):
    run = gateway.run(*options)
    assert run.exit_status() == 0
    assert run.stderr() == "non-option ARGV-elements: \nx y z \n"
    assert gateway.trace() == EMPTY_CYCLE_COMMANDS


@pytest.mark.parametrize("option, complaint", [
    ("--bogus", "unrecognized option '--bogus'"), ("-x", "invalid option -- 'x'"),
    ("-p", "option requires an argument -- 'p'"),
])
def test_an_unknown_option_is_reported_and_ignored(gateway, option, complaint):
    run = gateway.run(option)
    assert run.exit_status() == 0
    assert run.stderr() == f"{PROGRAM}: {complaint}\n"
    assert gateway.trace() == EMPTY_CYCLE_COMMANDS


def test_one_shot_mode_runs_one_cycle_and_leaves_no_mark(gateway):
    run = gateway.run()
    assert run.exit_status() == 0
    assert gateway.trace() == EMPTY_CYCLE_COMMANDS
    assert not gateway.exists(SEMAPHORE)
    assert not gateway.exists("/var/run/tunnel_mngr.pid")


def test_one_shot_mode_asks_the_api_in_a_fixed_order(gateway):
    gateway.run()
    assert gateway.requests() == ["/api/waninfo/wans", "/api?fields=ovpnTunnels", "/api?fields=syslog",
                                  "/api/waninfo/wans", "/api?fields=greTunnels,ipsecTunnels"]


def test_one_shot_mode_returns_0_whatever_the_cycle_gave(gateway):
    gateway.fault("/api?fields=ovpnTunnels", code=500)
    run = gateway.run()
    assert run.exit_status() == 0
    assert run.log() == [FAILED_CONFIG_READ]
    assert not gateway.exists(SEMAPHORE)


def test_closed_standard_descriptors_are_no_place_for_files_and_sockets(gateway):
    gateway.script("firewall --init", shell="waitFor look")
    run = gateway.start("-c", f"exec {PROGRAM} <&- >&- 2>&-", program="/bin/sh")
    wait_for(lambda: "firewall --init" in gateway.trace())
    descriptors = gateway.processes("tunnel_mngr")[0]["descriptors"]
    assert [descriptors[number] for number in "012"] == ["/dev/null"] * 3
    gateway.release("look")
    assert run.exit_status() == 0
