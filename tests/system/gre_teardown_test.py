"""Discovery of the existing GRE tunnels and their teardown."""

from __future__ import annotations

import pytest

from harness.expected import (DISCOVERY, EMPTY_CYCLE, EMPTY_CYCLE_COMMANDS, FINISH, GRE_HOOK, IPSEC_STOP,
                              NO_GRE, PULL, removal, removal_commands)

REST = IPSEC_STOP + PULL + NO_GRE + FINISH
GRE0 = "gre0: gre/ip remote any local any ttl inherit nopmtudisc"
TUNL0 = "tunl0: any/ip remote any local any ttl inherit nopmtudisc"


def gre_line(name: str) -> str:
    """Returns what `ip tunnel` prints for a GRE tunnel."""
    return f"{name}: gre/ip remote 192.0.2.1 local 198.51.100.2 ttl 64"


def lines(*texts: str) -> list[tuple[str, str]]:
    """Returns the discovery's records of these lines."""
    return [("TRACE", f"Line: [{text}]") for text in texts]


def run_with(gateway, output: str):
    """Runs once with this output of `ip tunnel`."""
    gateway.script("ip tunnel", output=output)
    run = gateway.run("-p", "100")
    assert run.exit_status() == 0
    return run


def test_every_gre_tunnel_is_removed_in_the_order_of_the_listing(gateway):
    names = ["site2", "a", "made-by-hand"]
    run = run_with(gateway, "".join(gre_line(name) + "\n" for name in names))
    assert run.log() == (DISCOVERY + lines(*map(gre_line, names)) + removal("site2") + removal("a")
                         + removal("made-by-hand") + REST)
    assert gateway.trace() == (["ip tunnel"] + removal_commands("site2") + removal_commands("a")
                               + removal_commands("made-by-hand") + EMPTY_CYCLE_COMMANDS[1:])


@pytest.mark.parametrize("line", [
    GRE0, TUNL0, "ipip1: ip/ip remote 10.0.0.1 local 10.0.0.2 ttl 64",
    "sit0: ipv6/ip remote any local any ttl 64 nopmtudisc", "x: gre/ipv6 remote any", "x: GRE/IP remote",
    "gre5: gre/ip6 remote 1.2.3.4", "tunl0: gre/ip remote any local any ttl inherit",
    "gre0 gre/ip remote any", "oneword_only", "          ", ":gre0: gre/ip x",
])
def test_other_lines_are_traced_and_passed_over(gateway, line):
    run = run_with(gateway, line + "\n")
    assert run.log() == DISCOVERY + lines(line) + REST
    assert gateway.trace() == EMPTY_CYCLE_COMMANDS


@pytest.mark.parametrize("output", ["", "\n", "\n\n\n", "123456789\n", "a: gre/ip\n", "short"])
def test_lines_of_up_to_nine_characters_are_skipped_silently(gateway, output):
    run = run_with(gateway, output)
    assert run.log() == EMPTY_CYCLE
    assert gateway.trace() == EMPTY_CYCLE_COMMANDS


def test_a_line_of_ten_characters_is_parsed(gateway):
    run = run_with(gateway, "ab: gre/ip")
    assert run.log() == DISCOVERY + lines("ab: gre/ip") + removal("ab") + REST
    assert gateway.trace() == ["ip tunnel", *removal_commands("ab"), *EMPTY_CYCLE_COMMANDS[1:]]


@pytest.mark.parametrize("line, name", [
    ("  gre5:   gre/ip   remote 1.2.3.4", "gre5"), ("::gre5:: gre/ip remote", "gre5"),
    ("gre5 gre/ip remote 1.2.3.4", "gre5"), ("a:b: gre/ip remote", "a:b"),
    ("gre00: gre/ip remote any", "gre00"), ("\tgre5:\tgre/ip\tremote", "gre5"),
])
def test_words_are_separated_by_white_space_and_colons_are_trimmed(gateway, line, name):
    run_with(gateway, line + "\n")
    assert gateway.trace() == ["ip tunnel", *removal_commands(name), *EMPTY_CYCLE_COMMANDS[1:]]


def test_the_kernels_fallback_devices_stay(gateway):
    run = run_with(gateway, f"{GRE0}\n{gre_line('site2')}\n{TUNL0}\n")
    assert run.log() == DISCOVERY + lines(GRE0, gre_line("site2"), TUNL0) + removal("site2") + REST


LINK_DOWN, DELETE, HOOK = removal_commands("old")
FAILURES = {LINK_DOWN: "unlink command", DELETE: "tunnel destroy command", HOOK: "link-changed hook down"}


@pytest.mark.parametrize("failing", [[LINK_DOWN], [DELETE], [HOOK], [LINK_DOWN, DELETE, HOOK]], ids=str)
def test_every_step_of_the_teardown_is_tried_whatever_the_others_gave(gateway, failing):
    for line in failing:
        gateway.script(line, status=4)
    run = run_with(gateway, gre_line("old") + "\n" + gre_line("next") + "\n")
    assert gateway.trace() == (["ip tunnel", LINK_DOWN, DELETE, HOOK] + removal_commands("next")
                               + EMPTY_CYCLE_COMMANDS[1:])
    expected = [("INFO", "Destroying tunnel: old")]
    for line in (LINK_DOWN, DELETE, HOOK):
        expected += [("TRACE", line)] if line != HOOK else []
        if line in failing:
            expected.append(("ERROR", f"GRE tunnel: [old] error executing {FAILURES[line]} [4]"))
    assert run.log() == (DISCOVERY + lines(gre_line("old"), gre_line("next")) + expected + removal("next")
                         + REST)


def test_a_missing_hook_is_told_and_the_cycle_goes_on(gateway):
    gateway.remove_hook(GRE_HOOK)
    run = run_with(gateway, gre_line("old") + "\n")
    assert gateway.trace() == ["ip tunnel", LINK_DOWN, DELETE, *EMPTY_CYCLE_COMMANDS[1:]]
    assert [record for record in run.log() if record.level == "ERROR"] == [
        ("ERROR", "GRE tunnel: [old] error executing link-changed hook down [127]")]


def test_a_half_built_tunnel_is_removed_by_the_next_cycle(gateway):
    gateway.api(greTunnels=[{"name": "half", "enabled": True, "remoteIp": "192.0.2.7"}])
    gateway.script("ip link set half up", status=1, times=1)
    daemon = gateway.ready_daemon()
    gateway.script("ip tunnel", output=gre_line("half") + "\n")
    gateway.clear_trace()
    daemon.refresh()
    assert gateway.trace()[:5] == ["ip tunnel", *removal_commands("half"), "ipsec stop"]
    assert f"{GRE_HOOK} -n half -d up" in gateway.trace()


def test_what_ip_tunnel_says_on_standard_error_is_not_parsed(gateway):
    gateway.script("ip tunnel", shell=f"echo '{gre_line('ghost')}' >&2")
    gateway.run()
    assert gateway.trace() == EMPTY_CYCLE_COMMANDS
