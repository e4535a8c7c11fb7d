"""The life of the daemon: started, asked again, ended by SIGTERM."""

from __future__ import annotations

import signal
from fnmatch import fnmatchcase

from harness import Lab, expect, expect_same, gre_tunnel, scenario
from harness.edits import add_tunnel, remove_tunnel
from harness.everything import (OFFICES, OVPN_FACTS, PARTNER, expect_all_traffic,
                                expect_gre_traffic, expect_ipsec_traffic, run_everything)
from harness.gateway_files import PID_FILE, SEMAPHORE
from harness.plans import SLACK, TO_SOUTH, configure_one_tunnel
from harness.state import State

# What a daemon takes along when SIGTERM ends it.
ITS_OWN = (f"file {PID_FILE}", f"file {SEMAPHORE}", "process *tunnel_mngr *", *OVPN_FACTS)


@scenario()
def a_second_start_asks_the_first_for_a_rebuild(lab: Lab) -> None:
    """With --daemonize or without, a second start makes the daemon rebuild once, and ends."""
    run_everything(lab)
    north, south = lab.sites
    before = {site: site.state() for site in lab.sites}
    daemon = north.daemon
    north.expect_firewall_calls(1)

    add_tunnel(north, "gre", gre_tunnel("more", "192.0.2.7"))
    second_start(lab, "--daemonize")
    north.expect_only_changed(before[north], "gre more")
    remove_tunnel(north, "gre", "more")
    second_start(lab)
    north.expect_state(before[north])

    expect_all_traffic(lab)
    south.expect_state(before[south])
    expect_same(north.gateway.read(PID_FILE), f"{daemon}\n")
    for site in lab.sites:
        site.expect_no_rebuild()
        site.expect_no_error()
    north.expect_firewall_calls(0)


def second_start(lab: Lab, *options: str) -> None:
    """Runs the program while north's daemon runs; expects one rebuild."""
    expect_same(lab.north.launch(*options), 0)
    lab.north.expect_rebuild()
    lab.north.expect_firewall_calls(1)


@scenario()
def sigterm_ends_the_daemon_and_openvpn_alone(lab: Lab) -> None:
    """SIGTERM: GRE and IPsec stay and carry traffic, OpenVPN ends; a new start has it all."""
    run_everything(lab)
    north, south = lab.sites
    before = {site: site.state() for site in lab.sites}
    service = north.ipsec_processes()
    north.expect_gre_hook_calls(*(f"-n {name} -d up" for name in (TO_SOUTH, PARTNER)))
    north.expect_firewall_calls(1)

    north.signal(signal.SIGTERM)
    expect_same(north.ended(within=SLACK), 0)
    north.expect_only_changed(before[north], now={key: None for key in taken_along(before[north])})
    north.expect_gre_hook_calls()
    north.expect_firewall_calls(0)
    expect_gre_traffic(lab)
    expect_ipsec_traffic(lab)

    # The IPsec service has all it needs to begin anew with a peer.
    south.refresh()
    expect_gre_traffic(lab)
    expect_ipsec_traffic(lab)
    north.expect_ipsec_up(OFFICES)
    expect_same(north.ipsec_processes(), service)
    north.expect_only_changed(before[north], now={key: None for key in taken_along(before[north])})

    north.start()
    expect_all_traffic(lab)
    for site in lab.sites:
        site.expect_state(before[site])
        site.expect_no_rebuild()
        site.expect_no_error()


def taken_along(state: State) -> list[str]:
    """Returns the facts of a state that end with the daemon."""
    return [key for key in state if any(fnmatchcase(key, pattern) for pattern in ITS_OWN)]


@scenario()
def once_means_one_rebuild_and_no_daemon(lab: Lab) -> None:
    """Without --daemonize the program builds the tunnels and ends; again, and it rebuilds."""
    north, south = lab.sites
    configure_one_tunnel(lab)
    for site in lab.sites:
        status = site.launch()
        expect(status == 0, f"{site.name}: the run ended with status {status}")
    north.expect_hosts_reach(south)
    for path in (PID_FILE, SEMAPHORE):
        expect(not north.gateway.exists(path), f"{path} is there after a single run")

    north.api(gre=[gre_tunnel("to_nobody", "192.0.2.7")])
    expect_same(north.launch(), 0)
    north.expect_gre_tunnels("to_nobody")
    north.expect_hosts_apart(south)
