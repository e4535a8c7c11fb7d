"""What scripts/demo shows: a day of two gateways, told for a reader who sees them first."""

from __future__ import annotations

import signal

from harness import Lab, eventually, expect, gre_tunnel, ipsec_tunnel, ovpn_tunnel, scenario
from harness.gateway_files import GRE_HOOK_LOG
from harness.internet import Capture
from harness.ipsec_expectations import expect_only_esp
from harness.openvpn import static_key_config
from harness.overview import overview
from harness.plans import NORTH_INNER, SOUTH_INNER, TO_NORTH, TO_SOUTH

PARTNER = "203.0.113.1"
OFFICES = "offices"
NORTH_OFFICE = "172.16.1.0/24"
SOUTH_OFFICE = "172.16.2.0/24"
SERVICE = "service"
NORTH_END = "10.8.0.1"
SOUTH_END = "10.8.0.2"
PORT = 1194
# Three pings across each of three tunnels, and the answers.
ECHOES = 18
PICTURE = """\
north host --- north gateway --- internet --- south gateway --- south host
192.168.1.10   198.51.100.2                     203.0.113.2   192.168.2.10
172.16.1.10                                                   172.16.2.10"""
PLAN = f"""\
GRE      {TO_SOUTH}, {TO_NORTH}: joins the LANs 192.168.1.0/24 and 192.168.2.0/24
IPsec    {OFFICES}: joins the offices {NORTH_OFFICE} and {SOUTH_OFFICE}, IKEv2, pre-shared key
OpenVPN  {SERVICE}: {NORTH_END} and {SOUTH_END}, a line between the gateways, static key"""


@scenario(on_demand=True)
def two_gateways(lab: Lab) -> None:
    """The tunnel manager at work on two gateways."""
    show_the_place(lab)
    show_the_start(lab)
    show_traffic(lab)
    show_a_change(lab)
    show_a_second_start(lab)
    show_the_end(lab)


def show_the_place(lab: Lab) -> None:
    """Without tunnels there is no way from host to host."""
    north, south = lab.sites
    lab.heading("Two gateways, north and south, each with a host behind it")
    show_lines(lab, PICTURE.splitlines())
    north.add_network(NORTH_OFFICE)
    south.add_network(SOUTH_OFFICE)
    lab.heading("The hosts cannot reach each other: the internet knows no way to them")
    north.expect_hosts_apart(south)


def show_the_start(lab: Lab) -> None:
    """Both gateways get tunnels of all three kinds."""
    north, south = lab.sites
    lab.heading("Each gateway's configuration gets three tunnels to the other one")
    show_lines(lab, PLAN.splitlines())
    lab.internet.publish("south.example", south.wan)
    north.api(gre=[gre_tunnel(TO_SOUTH, "south.example", NORTH_INNER, [south.lan])],
              ipsec=[ipsec_tunnel(OFFICES, south.wan, [NORTH_OFFICE], [SOUTH_OFFICE])],
              ovpn=[ovpn_tunnel(SERVICE, static_key_config(south.wan, PORT, NORTH_END,
                                                           SOUTH_END))])
    south.api(gre=[gre_tunnel(TO_NORTH, north.wan, SOUTH_INNER, [north.lan]),
                   gre_tunnel("spare line", "192.0.2.7", enabled=False)],
              ipsec=[ipsec_tunnel(OFFICES, north.wan, [SOUTH_OFFICE], [NORTH_OFFICE])],
              ovpn=[ovpn_tunnel(SERVICE, static_key_config(north.wan, PORT, SOUTH_END,
                                                           NORTH_END))])

    lab.heading("The manager starts on both gateways and builds the tunnels")
    north.start()
    south.start()
    north.expect_gre_tunnel(TO_SOUTH, local=north.wan, remote=south.wan, ttl=64,
                            addresses=(NORTH_INNER,), routes=(south.lan,))
    south.expect_gre_tunnels(TO_NORTH)
    for site in lab.sites:
        site.expect_ipsec_up(OFFICES)
        site.expect_ovpn_processes(SERVICE)


def show_traffic(lab: Lab) -> None:
    """All tunnels carry traffic, and none of it can be read on its way."""
    north, south = lab.sites
    lab.heading("Now pings go across every tunnel")
    for site in lab.sites:
        site.expect_ipsec_settled()
    expect_all_tunnels(lab)
    with lab.internet.capture("south", "ip") as seen:
        north.show_ping(south.host.address, source=north.host.address)
        north.show_ping(south.host_in(SOUTH_OFFICE), source=north.host_in(NORTH_OFFICE))
        north.show_ping(SOUTH_END)
        eventually(lambda: expect(len(esp_lines(seen)) >= ECHOES, f"not as much ESP as {ECHOES} "
                                  f"echo packets: {seen.text}"), within=10)

    lab.heading("What the internet saw of these pings: encrypted packets (ESP), nothing else")
    show_lines(lab, [*esp_lines(seen)[:4], "..."])
    encrypted = expect_only_esp(seen.text, north, south)
    lab.tell(f"internet: {encrypted} encrypted packets passed, and none in the clear. IPsec also "
             "covers what the gateways say to each other, so GRE and OpenVPN too.")

    lab.heading("The tunnels of both gateways")
    for site in lab.sites:
        site.expect_connect_file(SERVICE, "connected", within=60)
    show_overview(lab)


def show_a_change(lab: Lab) -> None:
    """The configuration changes, and SIGHUP makes it true."""
    north, south = lab.sites
    lab.heading("North gets a second GRE tunnel; SIGHUP asks its manager for a rebuild")
    lab.internet.third_party(peer=north.wan, local=PARTNER, inner="10.0.9.2/30")
    north.api(gre=[gre_tunnel(TO_SOUTH, "south.example", NORTH_INNER, [south.lan]),
                   gre_tunnel("partner office", PARTNER, "10.0.9.1/30", ttl=32)])
    north.refresh()
    north.show("ip", "tunnel")
    north.expect_gre_tunnels(TO_SOUTH, "partner_office")
    north.expect_gateway_reaches("10.0.9.2")
    expect_all_tunnels(lab)


def show_a_second_start(lab: Lab) -> None:
    """Starting the program again is another way to ask for a rebuild."""
    north, south = lab.sites
    lab.heading("North's new tunnel and its IPsec tunnel are disabled; this time the program is "
                "just started again")
    north.api(gre=[gre_tunnel(TO_SOUTH, "south.example", NORTH_INNER, [south.lan]),
                   gre_tunnel("partner office", PARTNER, "10.0.9.1/30", enabled=False)],
              ipsec=[ipsec_tunnel(OFFICES, south.wan, [NORTH_OFFICE], [SOUTH_OFFICE],
                                  enabled=False)])
    expect(north.launch("--daemonize") == 0, "the second start failed")
    north.expect_rebuild()
    north.expect_gre_tunnels(TO_SOUTH)
    north.expect_ipsec_stopped()
    north.expect_hosts_reach(south)
    north.expect_gateway_reaches(SOUTH_END)
    show_overview(lab)
    lab.heading("The rest of the gateway was told of every GRE tunnel that came or went")
    north.show("cat", GRE_HOOK_LOG)


def show_the_end(lab: Lab) -> None:
    """SIGTERM ends the daemon and leaves the kernel's tunnels."""
    north, south = lab.sites
    lab.heading("SIGTERM ends the managers; OpenVPN ends with them, the GRE tunnel stays and works")
    for site in lab.sites:
        site.signal(signal.SIGTERM)
    for site in lab.sites:
        # One that is just pinging a peer that has gone waits for the answer first.
        expect(site.ended(within=20) == 0, "the daemon did not end well")
        site.expect_ovpn_processes()
    north.expect_hosts_reach(south)


def expect_all_tunnels(lab: Lab) -> None:
    """Expects traffic across the tunnels of all three kinds."""
    north, south = lab.sites
    north.expect_hosts_reach(south, within=40)
    north.expect_reach(north.host, south.host_in(SOUTH_OFFICE), within=40,
                       source=north.host_in(NORTH_OFFICE))
    north.expect_gateway_reaches(SOUTH_END, within=40)


def show_overview(lab: Lab) -> None:
    """Shows a table of all tunnels."""
    for site in lab.sites:
        lab.tell(f"{site.name}:")
        show_lines(lab, overview(site))


def show_lines(lab: Lab, lines: list[str]) -> None:
    """Shows lines to the reader, indented."""
    for line in lines:
        lab.tell(f"    {line}")


def esp_lines(seen: Capture) -> list[str]:
    """Returns the captured packets that were encrypted."""
    return [line for line in seen.text.splitlines() if ": ESP(" in line]
