"""What a gateway does when the things around the manager fail, and afterwards."""

from __future__ import annotations

import signal

from harness import Lab, Site, expect_text, gre_tunnel, scenario
from harness.everything import (GRE_FACTS, OVPN_FACTS, PARTNER, configure_everything,
                                expect_all_down, expect_all_traffic, expect_as_before,
                                expect_everything, expect_gre_traffic, expect_ipsec_traffic,
                                expect_ovpn_traffic, run_everything)
from harness.gateway_files import HOOKS, IPSEC_HOOK_LOG
from harness.misfortunes import WANS
from harness.plans import SLACK, TO_SOUTH, WAN_POLL
from harness.state import State

GRE_HOOK = f"{HOOKS}/gre-tunnel-link-changed"
IPSEC_HOOK = f"{HOOKS}/ipsec-tunnel-link-changed"

# The requests of a rebuild, in their order; the first two come before IPsec is stopped.
OVPN_TUNNELS = "/api?fields=ovpnTunnels"
LOG_LEVEL = "/api?fields=syslog"
OTHER_TUNNELS = "/api?fields=greTunnels,ipsecTunnels"

NO_WAN_INFORMATION = "[WAN_MONITOR] Could not obtain WAN information"
NO_CONFIGURATION = "[TUNNEL_MNGR] Failed read config"
NO_API = "curl_easy_perform() failed: Couldn't connect to server"


@scenario()
def a_rebuild_ends_where_the_api_fails(lab: Lab) -> None:
    """What is down by then stays down, what is up goes on, until a SIGHUP finds the API well."""
    run_everything(lab)
    north, south = lab.sites
    before = {site: site.state() for site in lab.sites}

    north.api_fault(OVPN_TUNNELS, code=500)
    north.refresh()
    expect_only_gre_down(north, before[north])
    north.api_fault(LOG_LEVEL, close="mid")
    north.refresh()
    expect_only_gre_down(north, before[north])
    north.expect_errors(NO_CONFIGURATION, NO_CONFIGURATION)
    north.expect_hosts_apart(south)
    expect_ipsec_traffic(lab)
    expect_ovpn_traffic(lab)

    north.api_fault(WANS, code=500)
    north.refresh()
    expect_all_down(north, before[north])
    north.expect_log("ERROR: api returned error code [500]")
    north.expect_log(f"ERROR: {NO_WAN_INFORMATION}")
    expect_hanging_rebuild(north, before[north])
    north.expect_log_lines("Number of FQDN monitors is 0", 5)
    north.expect_firewall_calls(1)

    north.api_fault("*", slow=2)
    north.api_returns()
    north.refresh()
    expect_as_before(lab, before)
    south.expect_no_rebuild()
    south.expect_no_error()


def expect_only_gre_down(site: Site, before: State) -> None:
    """Expects that a site has no GRE tunnel, and all else that it had before."""
    site.expect_gre_tunnels()
    site.expect_only_changed(before, *GRE_FACTS)


def expect_hanging_rebuild(site: Site, before: State) -> None:
    """Lets the API hang in a rebuild, which waits for it, and die; all is down all the time."""
    site.api_fault(OTHER_TUNNELS, hang=True)
    site.signal(signal.SIGHUP)
    site.expect_api_asked(OTHER_TUNNELS, 2, within=SLACK)
    expect_all_down(site, before)
    site.expect_no_rebuild()
    site.api_dies()
    site.expect_rebuild()
    site.expect_log("ERROR: curl_easy_perform() failed: Server returned nothing (no headers, "
                    "no data)")
    site.refresh()
    expect_all_down(site, before)


@scenario(slow=True)
def an_api_that_fails_for_four_polls_costs_the_gre_tunnels(lab: Lab) -> None:
    """Three failed polls are nothing, the fourth ends in half a rebuild; a good one heals all."""
    run_everything(lab)
    north, south = lab.sites
    before = {site: site.state() for site in lab.sites}
    north.api_dies()
    south.api_dies()

    south.expect_log("Current down counter: [1]", within=WAN_POLL + SLACK)
    south.api_returns()
    for site in lab.sites:
        site.expect_state(before[site])
    expect_all_traffic(lab)
    north.expect_no_rebuild_until("Current down counter: [3]", within=3 * WAN_POLL + SLACK)

    north.expect_rebuild(within=WAN_POLL + SLACK)
    north.expect_errors(*4 * [NO_API, NO_WAN_INFORMATION], NO_CONFIGURATION)
    expect_only_gre_down(north, before[north])
    expect_ipsec_traffic(lab)
    expect_ovpn_traffic(lab)
    south.expect_state(before[south])

    north.api_returns()
    north.expect_rebuild(within=WAN_POLL + SLACK)
    expect_as_before(lab, before)
    north.expect_no_rebuild()
    south.expect_no_rebuild()
    south.expect_errors(NO_API, NO_WAN_INFORMATION)


@scenario(slow=True)
def an_api_that_comes_late_or_hangs_is_found_by_a_poll(lab: Lab) -> None:
    """A start without the API builds nothing, the next poll all; a poll that hangs hurts nobody."""
    configure_everything(lab)
    north, south = lab.sites
    south.start()
    south.api_fault(WANS, hang=True, times=1)
    north.api_dies()
    nothing = north.state()
    north.start()
    north.expect_errors(NO_API, NO_WAN_INFORMATION, NO_CONFIGURATION)
    north.expect_log("Number of FQDN monitors is 0")
    north.expect_only_changed(nothing, "file /run/tunnel_mngr.pid", "file /dev/shm/sem*",
                              "process *tunnel_mngr *")
    north.expect_gre_hook_calls()
    north.expect_firewall_calls(0)

    north.api_returns()
    north.expect_rebuild(within=WAN_POLL + SLACK)
    expect_everything(lab)

    south.expect_api_asked(WANS, 3, within=WAN_POLL + SLACK)
    before = south.state()
    south.refresh()
    south.expect_state(before)
    south.api_heals()
    south.api_dies()
    south.api_returns()
    south.expect_log("Current down counter: [1]")
    south.expect_log_lines("TRACE: [WAN_MONITOR] WAN has not changed", 2,
                           within=WAN_POLL + SLACK)
    south.expect_no_rebuild()
    north.expect_no_rebuild()
    expect_everything(lab)


@scenario()
def a_failing_firewall_costs_openvpn_and_failing_hooks_nothing(lab: Lab) -> None:
    """GRE and IPsec work whatever hooks and firewall say; OpenVPN waits for the firewall."""
    run_everything(lab)
    north, south = lab.sites
    before = {site: site.state() for site in lab.sites}

    north.before("firewall", "--init", "exit 3")
    north.take_away(GRE_HOOK)
    north.before(IPSEC_HOOK, "*", f"echo failed >>{IPSEC_HOOK_LOG}; exit 1")
    north.refresh()
    north.expect_ovpn_processes()
    north.expect_only_changed(before[north], *OVPN_FACTS)
    expect_gre_traffic(lab)
    expect_ipsec_traffic(lab)
    north.expect_errors("Error executing firewall --init command [3]", *hook_errors(127))
    expect_text(north.gateway.read(IPSEC_HOOK_LOG), "failed\n")

    north.undo("firewall")
    north.undo(GRE_HOOK)
    north.before(GRE_HOOK, "*", "exit 1")
    north.refresh()
    expect_as_before(lab, before)
    north.expect_errors(*hook_errors(1))
    south.expect_no_rebuild()
    south.expect_no_error()


def hook_errors(status: int) -> list[str]:
    """Returns what north's manager says when the GRE hook ends with this status."""
    return [f"GRE tunnel: [{name}] error executing link-changed hook {way} [{status}]"
            for name in (TO_SOUTH, PARTNER) for way in ("up", "down")]


# Tunnels of north whose creation fails at a step: the peer, the inner network, two routes.
REFUSED = {
    "no_add": ("192.0.2.1", "10.0.21", ["10.71.0.0/16", "10.81.0.0/16"]),
    "no_link": ("192.0.2.2", "10.0.22", ["10.72.0.0/16", "10.82.0.0/16"]),
    "no_address": ("192.0.2.3", "10.0.23", ["10.73.0.0/16", "10.83.0.0/16"]),
    "no_route": ("192.0.2.4", "10.0.24", ["10.74.0.0/16", "10.84.0.0/16"]),
}
REFUSALS = ("tunnel add no_add *|link set no_link up|addr add * dev no_address|"
            "route add 10.74.0.0/16 *")


@scenario()
def an_ip_that_fails_for_some_tunnels_stops_no_other(lab: Lab) -> None:
    """Four of six GRE tunnels fail, each at another step; the rest works, SIGHUP brings all."""
    configure_everything(lab)
    north, south = lab.sites
    configure_refused(lab)
    north.before("ip", REFUSALS, "exit 7")
    for site in lab.sites:
        site.start()

    north.expect_gre_tunnels(TO_SOUTH, PARTNER, "no_link", "no_address", "no_route")
    north.expect_gre_tunnel("no_link", up=False, addresses=(), routes=())
    north.expect_gre_tunnel("no_address", addresses=(), routes=())
    north.expect_gre_tunnel("no_route", addresses=("10.0.24.1/30",), routes=("10.84.0.0/16",))
    north.expect_gateway_reaches("10.0.24.2")
    north.expect_gre_hook_calls(*(f"-n {name} -d up" for name in ("no_route", TO_SOUTH, PARTNER)))
    expect_all_traffic(lab)
    north.expect_errors(*(f"GRE tunnel: [{name}] error executing {step} command [7]"
                          for name, step in (("no_add", "tunnel add"), ("no_link", "link set"),
                                             ("no_address", "address add"),
                                             ("no_route", "route add"))))

    before = north.state()
    north.undo("ip")
    north.refresh()
    north.expect_only_changed(before, *(f"gre {name}" for name in REFUSED), "route * dev no_*")
    for name, (peer, network, routes) in REFUSED.items():
        north.expect_gre_tunnel(name, local=north.wan, remote=peer, routes=tuple(routes),
                                addresses=(f"{network}.1/30",))
        north.expect_gateway_reaches(f"{network}.2")
    expect_all_traffic(lab)
    north.expect_errors()
    south.expect_no_rebuild()


def configure_refused(lab: Lab) -> None:
    """Adds tunnels to north's, before and after those that it has, and their other ends."""
    north = lab.north
    for name, (peer, network, _) in REFUSED.items():
        lab.internet.must("ip", "addr", "add", f"{peer}/32", "dev", "lo")
        lab.internet.third_party(north.wan, peer, f"{network}.2/30", name)
    more = [gre_tunnel(name, peer, f"{network}.1/30", routes)
            for name, (peer, network, routes) in REFUSED.items()]
    north.api(gre=[more[3], *more[:2], *north.configured("gre"), more[2]])
