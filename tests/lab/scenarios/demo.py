"""What scripts/demo shows: a day of two gateways, told for a reader who sees them first.

What the steps expect is written down in story.log; the reader hears what helps to follow.
"""

from __future__ import annotations

import signal
import textwrap

from harness import (Lab, Site, eventually, expect, gre_tunnel, ipsec_tunnel, ovpn_tunnel,
                     scenario)
from harness.gateway_files import GRE_HOOK_LOG
from harness.ipsec_expectations import UP_SECONDS, expect_only_esp
from harness.manager_log import last_rebuild
from harness.openvpn import static_key_config
from harness.overview import PINGS, UP, Entry, overview, table
from harness.plans import (CHECK, NAME_CHECK, NORTH_INNER, SLACK, SOUTH_INNER, TO_NORTH, TO_SOUTH,
                           WAN_POLL)

NORTH_NAME, SOUTH_NAME = "north.example", "south.example"
NORTH_MOVED = "198.51.100.77"
OFFICES = "offices"
NORTH_OFFICE, SOUTH_OFFICE = "172.16.1.0/24", "172.16.2.0/24"
SERVICE = "service"
NORTH_END, SOUTH_END = "10.8.0.1", "10.8.0.2"
PORT = 1194
PARTNER = "partner office"
PARTNER_ADDRESS = "203.0.113.1"
PARTNER_NEAR, PARTNER_FAR = "10.0.9.1/30", "10.0.9.2/30"
# The pings of both sites across three tunnels each, and the answers.
ECHOES = PINGS * 2 * 3 * 2
START = "tunnel_mngr --daemonize --printlvl 100"

PICTURE = """\
north host --- north gateway --- internet --- south gateway --- south host
192.168.1.10   198.51.100.2                     203.0.113.2   192.168.2.10
172.16.1.10    north.example                  south.example   172.16.2.10"""
PLAN = f"""\
GRE      {TO_SOUTH}, {TO_NORTH}: joins the LANs 192.168.1.0/24 and 192.168.2.0/24
IPsec    {OFFICES}: joins the offices {NORTH_OFFICE} and {SOUTH_OFFICE}, IKEv2, pre-shared key
OpenVPN  {SERVICE}: {NORTH_END} and {SOUTH_END}, a line between the gateways, static key"""


@scenario(slow=True)
def two_gateways(lab: Lab) -> None:
    """The tunnel manager at work on two gateways."""
    bring_all_tunnels_up(lab)
    show_supervision(lab)
    show_encryption(lab)
    show_a_change(lab)
    show_a_second_start(lab)
    show_a_wan_change(lab)
    show_the_end(lab)


@scenario(on_demand=True)
def all_tunnels_up(lab: Lab) -> None:
    """Two gateways with all tunnels up, to look around."""
    bring_all_tunnels_up(lab)


def bring_all_tunnels_up(lab: Lab) -> None:
    """From two gateways without tunnels to tunnels of all three kinds."""
    show_the_place(lab)
    show_the_configuration(lab)
    show_the_start(lab)


def show_the_place(lab: Lab) -> None:
    """Without tunnels there is no way from host to host."""
    north, south = lab.sites
    lab.heading("Two gateways, north and south, each with a host behind it")
    show_lines(lab, PICTURE.splitlines())
    with lab.aside():
        north.add_network(NORTH_OFFICE)
        south.add_network(SOUTH_OFFICE)
        lab.internet.publish(NORTH_NAME, north.wan)
        lab.internet.publish(SOUTH_NAME, south.wan)
    lab.tell("The internet knows the gateways, but no way to the hosts behind them:")
    north.expect_hosts_apart(south)


def show_the_configuration(lab: Lab) -> None:
    """Both gateways get a tunnel of each kind."""
    north, south = lab.sites
    lab.heading("Each gateway's configuration gets three tunnels to the other one, by its name")
    show_lines(lab, PLAN.splitlines())
    with lab.aside():
        north.api(gre=[gre_tunnel(TO_SOUTH, SOUTH_NAME, NORTH_INNER, [south.lan])],
                  ipsec=[ipsec_tunnel(OFFICES, SOUTH_NAME, [NORTH_OFFICE], [SOUTH_OFFICE])],
                  ovpn=[ovpn_tunnel(SERVICE, static_key_config(SOUTH_NAME, PORT, NORTH_END,
                                                               SOUTH_END))])
        south.api(gre=[gre_tunnel(TO_NORTH, NORTH_NAME, SOUTH_INNER, [north.lan]),
                       gre_tunnel("spare line", "192.0.2.7", enabled=False)],
                  ipsec=[ipsec_tunnel(OFFICES, NORTH_NAME, [SOUTH_OFFICE], [NORTH_OFFICE])],
                  ovpn=[ovpn_tunnel(SERVICE, static_key_config(NORTH_NAME, PORT, SOUTH_END,
                                                               NORTH_END))])
    lab.tell("The manager reads it from the gateway's API, north's GRE tunnel for instance:")
    show_command(lab, north, "curl", "-s", "--unix-socket", "/run/api/http.sock",
                 "http://localhost/api?fields=greTunnels")


def show_the_start(lab: Lab) -> None:
    """The managers build all tunnels."""
    north, south = lab.sites
    lab.heading("The manager starts on both gateways and builds the tunnels")
    lab.tell(f"north gateway$ {START}")
    with lab.aside():
        north.start()
    lab.tell("north: its manager has run these commands, with the seconds since it began:")
    show_lines(lab, [f"{seconds:4.1f}  {command}"
                     for seconds, command in last_rebuild(north.log()).commands])
    tell_rebuild(lab, north)
    lab.tell(f"south gateway$ {START}")
    with lab.aside():
        south.start()
    tell_rebuild(lab, south)
    with lab.aside():
        north.expect_gre_tunnel(TO_SOUTH, local=north.wan, remote=south.wan, ttl=64,
                                addresses=(NORTH_INNER,), routes=(south.lan,))
        south.expect_gre_tunnels(TO_NORTH)
    lab.heading("All tunnels carry traffic")
    say(lab, "The round trip is that of a ping through the tunnel: from host to host, with OpenVPN "
        "from gateway to gateway.")
    show_tunnels(lab, north, south)


def show_supervision(lab: Lab) -> None:
    """An OpenVPN process that ends is started again."""
    north = lab.north
    lab.heading("On north, the OpenVPN process is killed")
    with lab.aside():
        killed = north.kill_ovpn(SERVICE)
    begin = lab.now
    lab.tell("waiting for the manager, which looks after these processes every 11 s or so ...")

    def look() -> None:
        expect(north.ovpn_processes().get(SERVICE, killed) != killed, "no new OpenVPN process")
    eventually(look, within=CHECK + SLACK)
    lab.tell(f"north: its manager has started OpenVPN again, {lab.now - begin:.1f} s after the end")
    north.expect_gateway_reaches(SOUTH_END, within=UP_SECONDS)


def show_encryption(lab: Lab) -> None:
    """Nothing that passes through the tunnels can be read on its way."""
    north, south = lab.sites
    lab.heading("Who listens on the internet sees encrypted packets (ESP) and nothing else")
    lab.tell("waiting until IPsec has settled: both gateways began, one connection goes ...")
    with lab.aside():
        for site in lab.sites:
            site.expect_ipsec_settled()
            expect_tunnels(site)
        # What south asks the name server, at the internet's address beside it, is not meant.
        with lab.internet.capture("south", f"ip and not host {lab.internet_beside(south)}") as seen:
            for site in lab.sites:
                expect_tunnels(site)
            eventually(lambda: expect(len(esp_lines(seen.text)) >= ECHOES, "not as much ESP as "
                                      f"{ECHOES} echo packets: {seen.text}"), within=10)
        encrypted = expect_only_esp(seen.text, north, south)
    lab.tell("internet: this passes while pings go through all tunnels:")
    show_lines(lab, [*esp_lines(seen.text)[:4], "..."])
    say(lab, f"internet: {encrypted} packets were encrypted, and none was in the clear. IPsec also "
        "covers what the gateways say to each other, and so GRE and OpenVPN.")


def show_a_change(lab: Lab) -> None:
    """The configuration changes, and SIGHUP makes it true."""
    north, south = lab.sites
    lab.heading("North's configuration gets a second GRE tunnel, and SIGHUP makes it true")
    say(lab, f"It is called \"{PARTNER}\" and leads to a third gateway, {PARTNER_ADDRESS}. A "
        "rebuild takes all tunnels down and makes them anew, those that are as before too.")
    lab.tell("north gateway$ kill -HUP $(cat /run/tunnel_mngr.pid)")
    with lab.aside():
        lab.internet.third_party(peer=north.wan, local=PARTNER_ADDRESS, inner=PARTNER_FAR)
        north.api(gre=[gre_tunnel(TO_SOUTH, SOUTH_NAME, NORTH_INNER, [south.lan]),
                       gre_tunnel(PARTNER, PARTNER_ADDRESS, PARTNER_NEAR, ttl=32)])
        north.refresh()
        north.expect_gre_tunnels(TO_SOUTH, PARTNER.replace(" ", "_"))
    tell_rebuild(lab, north)
    north.show("ip", "tunnel")
    show_tunnels(lab, north)


def show_a_second_start(lab: Lab) -> None:
    """Starting the program again is another way to ask for a rebuild."""
    north, south = lab.sites
    lab.heading("The new tunnel is disabled; this time the program is just started again")
    lab.tell(f"north gateway$ {START}")
    with lab.aside():
        north.api(gre=[gre_tunnel(TO_SOUTH, SOUTH_NAME, NORTH_INNER, [south.lan]),
                       gre_tunnel(PARTNER, PARTNER_ADDRESS, PARTNER_NEAR, enabled=False)])
        expect(north.launch("--daemonize") == 0, "the second start failed")
        north.expect_rebuild()
        north.expect_gre_tunnels(TO_SOUTH)
    lab.tell("north: a manager runs already; the second one has told it to rebuild and has ended")
    tell_rebuild(lab, north)
    show_tunnels(lab, north)
    lab.tell("The gateway's hook was told of every GRE tunnel that came or went; it has noted:")
    north.show("cat", GRE_HOOK_LOG)


def show_a_wan_change(lab: Lab) -> None:
    """Both gateways follow a new WAN address, each in its own way."""
    north, south = lab.sites
    lab.heading(f"North gets another WAN address: {NORTH_MOVED} instead of {north.wan}")
    lab.tell(f"The name {NORTH_NAME} stands for it from now on. Nobody tells the managers.")
    with lab.aside():
        north.move_wan(NORTH_MOVED)
        lab.internet.publish(NORTH_NAME, north.wan)
    moved = lab.now
    north.expect_hosts_apart(south)
    lab.tell(f"waiting: north looks at its WAN every {WAN_POLL:.0f} s, south looks {NORTH_NAME} up "
             f"every {NAME_CHECK:.0f} s ...")
    tell_who_follows(lab, {north: "its WAN has another address",
                           south: f"{NORTH_NAME} has another address"}, moved)
    with lab.aside():
        for site in lab.sites:
            expect_tunnels(site)
        north.expect_gre_tunnel(TO_SOUTH, within=SLACK, local=NORTH_MOVED, remote=south.wan)
        south.expect_gre_tunnel(TO_NORTH, within=SLACK, local=south.wan, remote=NORTH_MOVED)
    lab.tell(f"{lab.now - moved:.1f} s after the change all tunnels carry traffic again:")
    show_tunnels(lab, north, south)


def tell_who_follows(lab: Lab, reasons: dict[Site, str], moved: float) -> None:
    """Waits until every site has rebuilt its tunnels, and tells when each has begun to."""
    pending = dict(reasons)
    before = {site: site.rebuilds() for site in reasons}

    def look() -> None:
        for site in [site for site in pending if site.rebuilds() > before[site]]:
            with lab.aside():
                site.expect_rebuild()
            second = last_rebuild(site.log()).begin - moved
            lab.tell(f"{site.name}: its manager has seen {second:.1f} s after the change that "
                     + pending.pop(site))
            tell_rebuild(lab, site)
        expect(not pending, f"no rebuild of {', '.join(site.name for site in pending)}")
    eventually(look, within=NAME_CHECK + SLACK)


def show_the_end(lab: Lab) -> None:
    """SIGTERM ends the daemon and leaves the tunnels of kernel and IPsec service."""
    lab.heading("SIGTERM ends the managers; OpenVPN ends with them, GRE and IPsec stay and work")
    for site in lab.sites:
        site.signal(signal.SIGTERM)
    for site in lab.sites:
        # One that is just pinging a peer that has gone waits for the answer first.
        expect(site.ended(within=SLACK) == 0, "the daemon did not end well")
    with lab.aside():
        for site in lab.sites:
            site.expect_ovpn_processes()
            expect_tunnels(site, ended=(SERVICE,))
    show_tunnels(lab, lab.north, ended=(SERVICE,))


def show_tunnels(lab: Lab, *sites: Site, ended: tuple[str, ...] = ()) -> None:
    """Shows a table of all tunnels of sites, which have to be as they should."""
    for site in sites:
        with lab.aside():
            entries = expect_tunnels(site, ended)
        lab.tell(f"{site.name}:")
        show_lines(lab, table(entries))


def expect_tunnels(site: Site, ended: tuple[str, ...] = ()) -> list[Entry]:
    """Expects an answer through every tunnel but those that are disabled or have ended."""
    def look() -> list[Entry]:
        entries = overview(site)
        for entry in entries:
            if entry.enabled and entry.name not in ended:
                expect(entry.state == UP and entry.round_trip is not None,
                       f"{site.name}: no traffic through {entry.name}: {entry}")
            else:
                expect(entry.state != UP, f"{site.name}: {entry.name} should be down: {entry}")
        return entries
    return eventually(look, within=UP_SECONDS)


def tell_rebuild(lab: Lab, site: Site) -> None:
    """Tells how long the last rebuild took, from the records of the manager itself."""
    rebuild = last_rebuild(site.log())
    lab.tell(f"{site.name}: the rebuild took {rebuild.seconds:.1f} s, "
             f"{rebuild.ipsec_seconds:.1f} s of it for the restart of the IPsec service")


def show_command(lab: Lab, site: Site, *words: str) -> None:
    """Shows a command and its one long line of output, cut into several."""
    said = site.gateway.must(*words)
    lab.tell(f"{site.gateway.name}$ {' '.join(words)}")
    show_lines(lab, textwrap.wrap(said, 90))


def show_lines(lab: Lab, lines: list[str]) -> None:
    """Shows lines to the reader, indented."""
    for line in lines:
        lab.tell(f"    {line}")


def say(lab: Lab, text: str) -> None:
    """Tells a text in lines that fit on a terminal."""
    for line in textwrap.wrap(text, 90):
        lab.tell(line)


def esp_lines(captured: str) -> list[str]:
    """Returns the captured packets that were encrypted."""
    return [line for line in captured.splitlines() if ": ESP(" in line]
