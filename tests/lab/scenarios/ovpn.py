"""OpenVPN tunnels: Debian's openvpn runs as the configuration says, and traffic passes."""

from __future__ import annotations

import stat

from harness import Lab, Site, expect, expect_same, expect_text, ovpn_tunnel, scenario
from harness.openvpn import (client_networks, static_key, static_key_config, tls_client_config,
                             tls_server_config)
from harness.plans import CHECK, PINGS, SLACK

LINE = "line"
OFFICE = "office"
LINE_PORT = 1194
OFFICE_PORT = 1195
NORTH_END = "10.8.0.1"
SOUTH_END = "10.8.0.2"
OFFICE_NETWORK = "10.9.0.0/24"
OFFICE_SERVER = "10.9.0.1"
CLIENTS = "/var/run/openvpn/clients"


def configure_line(lab: Lab, names: tuple[str, str] = (LINE, LINE), **others: str) -> None:
    """Configures a static-key link between the sites that leads from LAN to LAN.

    `others` go to the configuration of the north end.
    """
    north, south = lab.sites
    north.api(ovpn=[ovpn_tunnel(names[0], static_key_config(
        south.wan, LINE_PORT, NORTH_END, SOUTH_END, [south.lan], **others))])
    south.api(ovpn=[ovpn_tunnel(names[1], static_key_config(
        north.wan, LINE_PORT, SOUTH_END, NORTH_END, [north.lan]))])


def start_both(lab: Lab) -> None:
    """Starts both daemons at once: who waits for a peer that is not there yet waits long."""
    for site in lab.sites:
        site.begin()
    for site in lab.sites:
        site.expect_rebuild()


def expect_traffic(lab: Lab) -> None:
    """Expects that the hosts reach each other in both directions."""
    lab.north.expect_hosts_reach(lab.south)
    lab.south.expect_hosts_reach(lab.north)


@scenario()
def joins_the_hosts_behind_two_gateways(lab: Lab) -> None:
    """A static-key link carries traffic; its device has the rewritten name of 15 bytes."""
    north, south = lab.sites
    name = "main-line-to-the-south"
    configure_line(lab, (name, LINE))
    north.expect_hosts_apart(south)

    start_both(lab)

    north.expect_ovpn_processes(name)
    north.expect_tun_devices("tunmain-line-to")
    south.expect_tun_devices("tunline")
    north.expect_gateway_reaches(SOUTH_END)
    south.expect_gateway_reaches(NORTH_END)
    expect_traffic(lab)
    with lab.internet.capture("north", "udp port 1194") as seen:
        north.expect_hosts_reach(south)
    expect_text(seen.text, f"IP {north.wan}.1194 > {south.wan}.1194: UDP")
    expect_files(north, name)
    north.expect_firewall_calls(1)


def expect_files(site: Site, name: str) -> None:
    """Expects the files of a running tunnel of a gateway whose log level is 10."""
    path = f"/run/openvpn_{name}.conf"
    text = site.gateway.read(path)
    expect_text(text, f"{static_key()}</secret>\n")
    expect_same(text.splitlines()[-1], "verb 3")
    expect_same(stat.filemode(site.gateway.mode(path)), "-rw-------")
    expect_text(site.gateway.read(f"/run/openvpn_{name}.status"), "OpenVPN STATISTICS\n")


@scenario()
def a_server_and_its_client_carry_traffic(lab: Lab) -> None:
    """A TLS tunnel with its certificates in the text carries traffic and is never pinged."""
    north, south = lab.sites
    north.api(ovpn=[ovpn_tunnel(OFFICE, tls_server_config(
        OFFICE_PORT, OFFICE_NETWORK, CLIENTS, [south.lan], [north.lan]))])
    south.api(ovpn=[ovpn_tunnel(OFFICE, tls_client_config(north.wan, OFFICE_PORT))])
    north.start()
    north.expect_log(f"[OVPN] {CLIENTS} didn't exist. it has been created", within=5)
    # A server reads a client's file when the client comes.
    north.gateway.write(f"{CLIENTS}/client", client_networks(south.lan))

    south.start()

    south.expect_tun_devices("tunoffice")
    south.expect_gateway_reaches(OFFICE_SERVER)
    expect_traffic(lab)
    for site in lab.sites:
        site.expect_ovpn_processes(OFFICE)
        expect(not site.gateway.exists(f"/run/connect_{OFFICE}.status"), "it was pinged")


@scenario(slow=True)
def a_silent_peer_empties_the_connect_file(lab: Lab) -> None:
    """The connect file says "connected" while the peer answers, and restarts nothing."""
    north, south = lab.sites
    configure_line(lab)
    start_both(lab)
    numbers = {site: site.expect_ovpn_processes(LINE) for site in lab.sites}
    for site in lab.sites:
        site.expect_connect_file(LINE, "connected", within=PINGS + CHECK + SLACK)

    lab.internet.cut("south")
    for site in lab.sites:
        site.expect_connect_file(LINE, "", within=CHECK + PINGS + SLACK)
    north.expect_hosts_apart(south)

    lab.internet.mend("south")
    expect_traffic(lab)
    for site in lab.sites:
        site.expect_connect_file(LINE, "connected", within=PINGS + CHECK + PINGS + SLACK)
        expect_same(site.expect_ovpn_processes(LINE), numbers[site])
        site.expect_no_rebuild()


@scenario(slow=True)
def a_process_that_dies_comes_back_with_the_next_check(lab: Lab) -> None:
    """A killed process is started again by the next check; the other one is left alone."""
    north, south = lab.sites
    north.api(ovpn=[
        ovpn_tunnel(LINE, static_key_config(south.wan, LINE_PORT, NORTH_END, SOUTH_END)),
        ovpn_tunnel(OFFICE, tls_server_config(OFFICE_PORT, OFFICE_NETWORK))])
    south.api(ovpn=[
        ovpn_tunnel(LINE, static_key_config(north.wan, LINE_PORT, SOUTH_END, NORTH_END)),
        ovpn_tunnel(OFFICE, tls_client_config(north.wan, OFFICE_PORT))])
    start_both(lab)
    for address in (NORTH_END, OFFICE_SERVER):
        south.expect_gateway_reaches(address)
    north.expect_connect_file(LINE, "connected", within=PINGS + CHECK + SLACK)

    before = {site: site.expect_ovpn_processes(LINE, OFFICE) for site in lab.sites}
    for site, dying, staying in ((north, LINE, OFFICE), (south, OFFICE, LINE)):
        site.kill_ovpn(dying)
        site.expect_ovpn_processes(staying)
    for site, dying, staying in ((north, LINE, OFFICE), (south, OFFICE, LINE)):
        after = site.expect_ovpn_processes(LINE, OFFICE, within=CHECK + PINGS + SLACK)
        expect_same(after[staying], before[site][staying])
        expect(after[dying] != before[site][dying], f"{dying} was not killed")
        site.expect_no_rebuild()
        site.expect_tun_devices("tunline", "tunoffice")
        expect(not site.gateway.exists(f"/run/connect_{OFFICE}.status"), "it was pinged")
    for address in (NORTH_END, OFFICE_SERVER):
        south.expect_gateway_reaches(address, within=SLACK + 10)
    north.expect_connect_file(LINE, "connected", within=PINGS + CHECK + SLACK)


@scenario(slow=True)
def a_refused_configuration_is_tried_again_by_every_check(lab: Lab) -> None:
    """A tunnel that openvpn refuses comes up by itself once the reason is gone."""
    north, _ = lab.sites
    secret = "/run/key_that_comes_late"
    configure_line(lab, secret=secret)
    start_both(lab)
    north.expect_ovpn_processes()
    north.gateway.write(secret, static_key(), 0o600)

    north.expect_ovpn_processes(LINE, within=CHECK + SLACK)
    north.expect_no_rebuild()
    expect_traffic(lab)


@scenario()
def without_a_wan_no_process_runs(lab: Lab) -> None:
    """A rebuild without a WAN address ends the processes, one with it starts them again."""
    north, south = lab.sites
    configure_line(lab)
    start_both(lab)
    expect_traffic(lab)

    north.lose_wan()
    north.refresh()
    north.expect_ovpn_processes()
    north.expect_tun_devices()
    north.expect_hosts_apart(south)

    north.regain_wan()
    north.refresh()
    north.expect_ovpn_processes(LINE)
    expect_traffic(lab)
