"""GRE tunnels: what the configuration says is what the kernel has, and traffic passes."""

from __future__ import annotations

from harness import Lab, expect_text, gre_tunnel, scenario
from harness.plans import (NORTH_INNER, SOUTH_INNER, TO_NORTH, TO_SOUTH, configure_one_tunnel,
                           run_one_tunnel)


@scenario()
def joins_the_hosts_behind_two_gateways(lab: Lab) -> None:
    """A tunnel on both gateways carries traffic between the hosts behind them."""
    north, south = lab.sites
    configure_one_tunnel(lab)
    north.expect_hosts_apart(south)

    north.start()
    south.start()

    north.expect_gre_tunnels(TO_SOUTH)
    north.expect_gre_tunnel(TO_SOUTH, local=north.wan, remote=south.wan, ttl=64,
                            addresses=(NORTH_INNER,), routes=(south.lan,))
    south.expect_gre_tunnels(TO_NORTH)
    south.expect_gre_tunnel(TO_NORTH, local=south.wan, remote=north.wan, ttl=64,
                            addresses=(SOUTH_INNER,), routes=(north.lan,))
    north.expect_gateway_reaches("10.0.0.2")
    south.expect_gateway_reaches("10.0.0.1")
    north.expect_hosts_reach(south)
    south.expect_hosts_reach(north)
    north.expect_gre_hook_calls(f"-n {TO_SOUTH} -d up")
    south.expect_gre_hook_calls(f"-n {TO_NORTH} -d up")
    north.expect_firewall_calls(1)


@scenario()
def travels_as_gre_between_the_wan_addresses(lab: Lab) -> None:
    """What passes the internet is GRE from one WAN address to the other."""
    north, south = lab.sites
    run_one_tunnel(lab)
    with lab.internet.capture("north", "ip proto 47") as seen:
        north.expect_hosts_reach(south)
    expect_text(seen.text, f"IP {north.wan} > {south.wan}: GREv0")
    expect_text(seen.text, f"IP {north.host.address} > {south.host.address}: ICMP echo request")


@scenario()
def several_tunnels_carry_traffic_side_by_side(lab: Lab) -> None:
    """Tunnels to different peers exist side by side, each with its own traffic."""
    north, south = lab.sites
    third = "203.0.113.1"
    lab.internet.third_party(peer=north.wan, local=third, inner="10.0.9.2/30")
    north.api(gre=[gre_tunnel(TO_SOUTH, south.wan, NORTH_INNER, [south.lan]),
                   gre_tunnel("to_third", third, "10.0.9.1/30", ["10.9.0.0/16", "10.8.1.0/24"]),
                   gre_tunnel("to_nobody", "192.0.2.7")])
    south.api(gre=[gre_tunnel(TO_NORTH, north.wan, SOUTH_INNER, [north.lan])])

    north.start()
    south.start()

    north.expect_gre_tunnels(TO_SOUTH, "to_third", "to_nobody")
    north.expect_gre_tunnel("to_third", remote=third, addresses=("10.0.9.1/30",),
                            routes=("10.8.1.0/24", "10.9.0.0/16"))
    north.expect_gre_tunnel("to_nobody", local=north.wan, remote="192.0.2.7", addresses=(),
                            routes=())
    north.expect_gateway_reaches("10.0.9.2")
    north.expect_hosts_reach(south)
    north.expect_gre_hook_calls(f"-n {TO_SOUTH} -d up", "-n to_third -d up", "-n to_nobody -d up")


@scenario()
def a_tunnel_that_the_kernel_refuses_stops_no_other(lab: Lab) -> None:
    """A second tunnel between the same addresses is refused; the next one is made."""
    north, south = lab.sites
    north.api(gre=[gre_tunnel(TO_SOUTH, south.wan, NORTH_INNER, [south.lan]),
                   gre_tunnel("again", south.wan, "10.0.1.1/30"),
                   gre_tunnel("much_too_long_a_name", "192.0.2.8"),
                   gre_tunnel("to_nobody", "192.0.2.7")])
    north.start()
    north.expect_gre_tunnels(TO_SOUTH, "to_nobody")
    north.expect_log("ERROR: GRE tunnel: [again] error executing tunnel add command [1]")
    north.expect_log(
        "ERROR: GRE tunnel: [much_too_long_a_name] error executing tunnel add command [255]")
    north.expect_gre_hook_calls(f"-n {TO_SOUTH} -d up", "-n to_nobody -d up")


@scenario()
def a_route_that_the_kernel_refuses_is_left_out(lab: Lab) -> None:
    """A route that is no network is left out; the routes around it are set."""
    north, south = lab.sites
    north.api(gre=[gre_tunnel(TO_SOUTH, south.wan, NORTH_INNER,
                              ["10.5.0.0/16", "10.6.0.7/16", "10.7.0.0/16"])])
    north.start()
    north.expect_gre_tunnel(TO_SOUTH, routes=("10.5.0.0/16", "10.7.0.0/16"))
    north.expect_log(f"ERROR: GRE tunnel: [{TO_SOUTH}] error executing route add command [2]")
    north.expect_gre_hook_calls(f"-n {TO_SOUTH} -d up")


@scenario()
def blanks_in_a_name_become_underscores(lab: Lab) -> None:
    """A tunnel whose name has blanks gets a name that the kernel takes."""
    north, south = lab.sites
    north.api(gre=[gre_tunnel("branch office 2", south.wan, NORTH_INNER, [south.lan])])
    south.api(gre=[gre_tunnel(" head office", north.wan, SOUTH_INNER, [north.lan])])
    north.start()
    south.start()
    north.expect_gre_tunnels("branch_office_2")
    south.expect_gre_tunnels("_head_office")
    north.expect_hosts_reach(south)
    north.expect_gre_hook_calls("-n branch_office_2 -d up")


@scenario()
def a_tunnel_without_ttl_inherits_it(lab: Lab) -> None:
    """Without a "ttl" the kernel takes the inner packet's; as text or number it is set."""
    north, south = lab.sites
    plain = gre_tunnel("plain", south.wan)
    del plain["ttl"]
    north.api(gre=[plain, gre_tunnel("as_text", "192.0.2.7", ttl="33"),
                   gre_tunnel("as_number", "192.0.2.8", ttl=255)])
    north.start()
    north.expect_gre_tunnel("plain", ttl=0)
    north.expect_gre_tunnel("as_text", ttl=33)
    north.expect_gre_tunnel("as_number", ttl=255)


@scenario()
def tunnels_of_others_are_removed_at_the_start(lab: Lab) -> None:
    """The first rebuild removes every GRE tunnel that it finds, and no tunnel of other kinds."""
    north, south = lab.sites
    north.gateway.must("ip", "-batch", "-", text=(
        f"tunnel add leftover mode gre remote 192.0.2.9 local {north.wan} ttl 9\n"
        f"tunnel add other mode ipip remote 192.0.2.9 local {north.wan} ttl 9\n"))
    north.expect_gre_tunnels("leftover")
    north.api(gre=[gre_tunnel(TO_SOUTH, south.wan, NORTH_INNER)])

    north.start()

    north.expect_gre_tunnels(TO_SOUTH)
    north.expect_gre_hook_calls("-n leftover -d down", f"-n {TO_SOUTH} -d up")
    expect_text(north.gateway.must("ip", "tunnel"), "other: ip/ip remote 192.0.2.9")


@scenario()
def a_peer_is_found_by_its_name(lab: Lab) -> None:
    """A peer's host name is looked up; a tunnel whose name is unknown is left out."""
    north, south = lab.sites
    lab.internet.publish("south.example", south.wan)
    north.api(gre=[gre_tunnel("to_unknown", "unknown.example"),
                   gre_tunnel(TO_SOUTH, "south.example", NORTH_INNER, [south.lan])])
    south.api(gre=[gre_tunnel(TO_NORTH, north.wan, SOUTH_INNER, [north.lan])])
    north.start()
    south.start()
    north.expect_gre_tunnels(TO_SOUTH)
    north.expect_gre_tunnel(TO_SOUTH, remote=south.wan)
    north.expect_hosts_reach(south)
    north.expect_log("WARNING: [FQDN_MONITOR] The host [unknown.example] was not found.")
    north.expect_log("ERROR: GRE tunnel: [to_unknown] error executing tunnel add command [1]")
