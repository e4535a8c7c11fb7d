"""A configuration with several tunnels of every kind, and traffic through all of them."""

from __future__ import annotations

import threading
from typing import Any

from . import kernel
from .ipsec_expectations import UP_SECONDS
from .lab import Lab
from .openvpn import static_key_config, tls_client_config, tls_server_config
from .plans import NORTH_INNER, SOUTH_INNER, TO_NORTH, TO_SOUTH
from .records import gre_tunnel, ipsec_tunnel, ovpn_tunnel
from .site import Site
from .state import State
from .waiting import eventually, expect

# GRE: between the LANs, and from each gateway to a third party on the internet.
PARTNER = "to_partner"
PARTNER_ROUTE = "10.77.0.0/16"
NORTH_PARTNER_INNER, NORTH_PARTNER_FAR = "10.0.9.1/30", "10.0.9.2/30"
SOUTH_PARTNER_INNER, SOUTH_PARTNER_FAR = "10.0.9.5/30", "10.0.9.6/30"
# IPsec: two pairs of networks, a tunnel each.
OFFICES, PLANTS = "offices", "plants"
NORTH_OFFICE, SOUTH_OFFICE = "172.16.1.0/24", "172.16.2.0/24"
NORTH_PLANT, SOUTH_PLANT = "172.17.1.0/24", "172.17.2.0/24"
# OpenVPN: a line with a shared key, and a server in the north with a client in the south.
LINE, BRANCH = "line", "branch"
LINE_PORT, BRANCH_PORT = 1194, 1195
NORTH_LINE, SOUTH_LINE = "10.8.0.1", "10.8.0.2"
BRANCH_NETWORK, BRANCH_SERVER = "10.9.0.0/24", "10.9.0.1"

# What the kernel and the process list have because of the tunnels, see StateExpectations.
GRE_FACTS = ("gre *", "route * dev to_*")
IPSEC_FACTS = ("ipsec *", "route * table 220 dev *", "process *ipsec*")
OVPN_FACTS = ("device tun*", "route * dev tun*", "process openvpn *")

# IPsec services give up a peer that answers late, and where all begin at once, all answer late.
few_beginnings = threading.Semaphore(2)


def configure_everything(lab: Lab, north_name: str = "", south_name: str = "") -> None:
    """Configures two tunnels of each kind in each site.

    A name given for a site is published and stands for it in the other one's configuration.
    """
    north, south = lab.sites
    for site, office, plant in ((north, NORTH_OFFICE, NORTH_PLANT),
                                (south, SOUTH_OFFICE, SOUTH_PLANT)):
        site.add_network(office)
        site.add_network(plant)
    for name, site in ((north_name, north), (south_name, south)):
        if name:
            lab.internet.publish(name, site.wan)
    lab.internet.third_party(north.wan, lab.internet_beside(south), NORTH_PARTNER_FAR, "partner1")
    lab.internet.third_party(south.wan, lab.internet_beside(north), SOUTH_PARTNER_FAR, "partner2")
    north.api(**_north(lab, south_name or south.wan))
    south.api(**_south(lab, north_name or north.wan))


def _north(lab: Lab, peer: str) -> dict[str, list[dict[str, Any]]]:
    north, south = lab.sites
    return {
        "gre": [gre_tunnel(TO_SOUTH, peer, NORTH_INNER, [south.lan]),
                gre_tunnel(PARTNER, lab.internet_beside(south), NORTH_PARTNER_INNER,
                           [PARTNER_ROUTE], ttl=0)],
        "ipsec": [ipsec_tunnel(OFFICES, peer, [NORTH_OFFICE], [SOUTH_OFFICE]),
                  ipsec_tunnel(PLANTS, peer, [NORTH_PLANT], [SOUTH_PLANT])],
        "ovpn": [ovpn_tunnel(LINE, static_key_config(peer, LINE_PORT, NORTH_LINE, SOUTH_LINE)),
                 ovpn_tunnel(BRANCH, tls_server_config(BRANCH_PORT, BRANCH_NETWORK))],
    }


def _south(lab: Lab, peer: str) -> dict[str, list[dict[str, Any]]]:
    north, south = lab.sites
    return {
        "gre": [gre_tunnel(TO_NORTH, peer, SOUTH_INNER, [north.lan]),
                gre_tunnel(PARTNER, lab.internet_beside(north), SOUTH_PARTNER_INNER,
                           [PARTNER_ROUTE], ttl=0)],
        "ipsec": [ipsec_tunnel(OFFICES, peer, [SOUTH_OFFICE], [NORTH_OFFICE]),
                  ipsec_tunnel(PLANTS, peer, [SOUTH_PLANT], [NORTH_PLANT])],
        "ovpn": [ovpn_tunnel(LINE, static_key_config(peer, LINE_PORT, SOUTH_LINE, NORTH_LINE)),
                 ovpn_tunnel(BRANCH, tls_client_config(peer, BRANCH_PORT))],
    }


def run_everything(lab: Lab, north_name: str = "", south_name: str = "") -> None:
    """Configures all, starts both daemons and sees traffic pass through every tunnel."""
    configure_everything(lab, north_name, south_name)
    with few_beginnings:
        # One after the other: IPsec services that begin in the same second get in each other's
        # way.
        for site in lab.sites:
            site.start()
        expect_everything(lab)
        _expect_protected_gateways(lab)


def _expect_protected_gateways(lab: Lab) -> None:
    """Expects IPsec between the gateways themselves, which may be the last to come up."""
    for site, other in (lab.sites, reversed(lab.sites)):
        pair = f"{site.wan}/32", f"{other.wan}/32"
        eventually(lambda: expect(pair in kernel.ipsec_pairs(site.gateway),
                                  f"{site.name}: the kernel has no IPsec for {pair}"), UP_SECONDS)


def expect_everything(lab: Lab) -> None:
    """Expects that both sites have all tunnels, of these kinds, and traffic through each."""
    north, south = lab.sites
    north.expect_gre_tunnels(TO_SOUTH, PARTNER)
    south.expect_gre_tunnels(TO_NORTH, PARTNER)
    for site in lab.sites:
        site.expect_ovpn_processes(LINE, BRANCH)
    expect_all_traffic(lab)


def expect_all_traffic(lab: Lab) -> None:
    """Expects that traffic passes through every tunnel, both ways."""
    expect_gre_traffic(lab)
    expect_ipsec_traffic(lab)
    expect_ovpn_traffic(lab)


def expect_gre_traffic(lab: Lab) -> None:
    """Expects that the GRE tunnels work: the one between the sites, and each partner's."""
    north, south = lab.sites
    north.expect_hosts_reach(south, within=UP_SECONDS)
    south.expect_hosts_reach(north, within=UP_SECONDS)
    expect_partner_traffic(lab)


def expect_partner_traffic(lab: Lab) -> None:
    """Expects that both partners reach the gateways through their tunnels.

    The gateways would reach the partners, who are on the internet, without a tunnel as well.
    """
    for site, inner in zip(lab.sites, (NORTH_PARTNER_INNER, SOUTH_PARTNER_INNER)):
        site.expect_reach(lab.internet, inner.split("/")[0], within=UP_SECONDS)


def expect_ipsec_traffic(lab: Lab, *names: str) -> None:
    """Expects that IPsec tunnels, all or those named, carry traffic both ways."""
    north, south = lab.sites
    networks = {OFFICES: (NORTH_OFFICE, SOUTH_OFFICE), PLANTS: (NORTH_PLANT, SOUTH_PLANT)}
    for name in names or networks:
        ours, theirs = map(Site.host_in, networks[name])

        def look() -> None:
            # The service of a busy machine may not end in time and be killed; what its kernel
            # sends is then lost until the other side begins.
            answers = north.host.reaches(theirs, ours), south.host.reaches(ours, theirs)
            expect(all(answers), f"{name}: are pings from north and south answered? {answers}")
        eventually(look, within=UP_SECONDS)
        lab.tell(f"{name}: {ours} and {theirs} reach each other")


def expect_ovpn_traffic(lab: Lab) -> None:
    """Expects that both OpenVPN tunnels carry traffic both ways."""
    north, south = lab.sites
    north.expect_gateway_reaches(SOUTH_LINE, within=UP_SECONDS)
    south.expect_gateway_reaches(NORTH_LINE, within=UP_SECONDS)
    south.expect_gateway_reaches(BRANCH_SERVER, within=UP_SECONDS)


def expect_as_before(lab: Lab, before: dict[Site, State]) -> None:
    """Expects that both sites are what they were, with traffic through every tunnel."""
    for site in lab.sites:
        site.expect_state(before[site])
    expect_everything(lab)


def expect_all_down(site: Site, before: State) -> None:
    """Expects that a site has no tunnel of any kind, and all else that it had before."""
    site.expect_gre_tunnels()
    site.expect_ovpn_processes()
    site.expect_ipsec_stopped()
    site.expect_only_changed(before, *GRE_FACTS, *IPSEC_FACTS, *OVPN_FACTS)


def expect_ipsec_apart(lab: Lab, name: str) -> None:
    """Expects that the hosts cannot reach each other through one IPsec tunnel."""
    networks = {OFFICES: (NORTH_OFFICE, SOUTH_OFFICE), PLANTS: (NORTH_PLANT, SOUTH_PLANT)}
    ours, theirs = map(Site.host_in, networks[name])
    expect(not lab.north.host.reaches(theirs, ours), f"{name} still carries traffic")
