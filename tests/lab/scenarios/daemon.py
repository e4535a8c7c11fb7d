"""The life of the daemon: started, asked again, stopped, crashed."""

from __future__ import annotations

import signal

from harness import Lab, expect, gre_tunnel, scenario
from harness.plans import NORTH_INNER, TO_SOUTH, configure_one_tunnel, run_one_tunnel
from harness.gateway_files import PID_FILE, SEMAPHORE


@scenario()
def a_second_start_asks_the_first_for_a_rebuild(lab: Lab) -> None:
    """Starting the program again makes the running daemon rebuild, in either mode."""
    north, south = lab.sites
    run_one_tunnel(lab)
    daemon = north.daemon
    for number, options in enumerate((["--daemonize"], []), start=1):
        name = f"more{number}"
        north.api(gre=[gre_tunnel(TO_SOUTH, south.wan, NORTH_INNER, [south.lan]),
                       gre_tunnel(name, "192.0.2.7")])
        status = north.launch(*options)
        expect(status == 0, f"the second start ended with status {status}")
        north.expect_rebuild()
        north.expect_gre_tunnels(TO_SOUTH, name)
        expect(north.gateway.read(PID_FILE) == f"{daemon}\n", "another daemon took over")
    north.expect_hosts_reach(south)


@scenario()
def sigterm_ends_the_daemon_and_leaves_the_tunnels(lab: Lab) -> None:
    """SIGTERM ends the daemon within a second; GRE tunnels stay and go on carrying traffic."""
    north, south = lab.sites
    run_one_tunnel(lab)
    expect(north.gateway.exists(SEMAPHORE), "a running daemon has its marker")

    north.signal(signal.SIGTERM)
    status = north.ended(within=1)

    expect(status == 0, f"the daemon ended with status {status}")
    for path in (PID_FILE, SEMAPHORE):
        expect(not north.gateway.exists(path), f"{path} is still there")
    north.expect_gre_tunnels(TO_SOUTH)
    north.expect_hosts_reach(south)

    north.start()
    north.expect_gre_tunnels(TO_SOUTH)
    north.expect_hosts_reach(south)


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
    expect(north.launch() == 0, "the second run failed")
    north.expect_gre_tunnels("to_nobody")
    north.expect_hosts_apart(south)


@scenario()
def a_crashed_daemon_costs_one_failed_start(lab: Lab) -> None:
    """After a crash the first start clears the remains away and the next one succeeds."""
    north, south = lab.sites
    run_one_tunnel(lab)
    north.signal(signal.SIGKILL)
    north.ended(within=5)
    north.expect_gre_tunnels(TO_SOUTH)
    expect(north.gateway.exists(SEMAPHORE), "the marker outlives a crash")

    expect(north.launch("--daemonize") == 1, "the first start after a crash has status 1")
    for path in (PID_FILE, SEMAPHORE):
        expect(not north.gateway.exists(path), f"{path} is still there")
    north.start()
    north.expect_gre_tunnels(TO_SOUTH)
    north.expect_hosts_reach(south)


@scenario()
def the_gateways_run_a_daemon_each(lab: Lab) -> None:
    """The gateways are separate machines: a stop on one is nothing to the other."""
    north, south = lab.sites
    run_one_tunnel(lab)
    expect(north.daemon != south.daemon, "one daemon for both gateways")
    north.signal(signal.SIGTERM)
    north.ended(within=1)
    south.refresh()
    south.expect_hosts_reach(north)
