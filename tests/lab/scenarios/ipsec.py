"""IPsec: Debian's strongSwan reads what the manager has written, and traffic is encrypted."""

from __future__ import annotations

from typing import Any

from harness import Lab, Site, eventually, expect, gre_tunnel, ipsec_tunnel, scenario
from harness.certificates import Authority
from harness.ipsec_expectations import UP_SECONDS, connections_of, expect_only_esp
from harness.plans import NORTH_INNER, SOUTH_INNER, TO_NORTH, TO_SOUTH

NORTH_OFFICE = "172.16.1.0/24"
SOUTH_OFFICE = "172.16.2.0/24"


def tunnels(lab: Lab, **values: Any) -> tuple[dict[str, Any], dict[str, Any]]:
    """Returns north's and south's record of a tunnel between all of their networks."""
    north, south = lab.sites
    return (ipsec_tunnel(TO_SOUTH, south.wan, north.networks, south.networks, **values),
            ipsec_tunnel(TO_NORTH, north.wan, south.networks, north.networks, **values))


def pairs(site: Site, other: Site) -> list[tuple[str, str]]:
    """Returns each network of a site with each of the other's."""
    return [(ours, theirs) for ours in site.networks for theirs in other.networks]


def start_both(lab: Lab) -> None:
    """Starts the managers of both gateways, one after the other.

    The first one's service calls in vain; the second one's finds a peer that listens.
    """
    for site in lab.sites:
        site.start()


def expect_tunnel(lab: Lab) -> None:
    """Expects the tunnel of `tunnels` to be up for every pair of networks, and in use."""
    north, south = lab.sites
    for site, other, name in ((north, south, TO_SOUTH), (south, north, TO_NORTH)):
        site.expect_ipsec_up(name)
        site.expect_ipsec_protects(*pairs(site, other))
    for site, other, name in ((north, south, TO_SOUTH), (south, north, TO_NORTH)):
        site.expect_ipsec_up(*connections_of(name, len(site.networks), len(other.networks)),
                             meanwhile=lambda: north.knock(south))
    north.expect_networks_reach(south, within=UP_SECONDS)
    south.expect_networks_reach(north, within=UP_SECONDS)


def expect_encrypted_from_the_start(lab: Lab) -> None:
    """Starts both managers and expects that the tunnel carries traffic, none of it plain."""
    north, south = lab.sites
    with lab.internet.capture("south", "ip") as seen:
        start_both(lab)
        expect_tunnel(lab)
        echoes = 4 * len(pairs(north, south))
        eventually(lambda: expect(seen.text.count(": ESP(") >= echoes,
                                  f"not as much ESP as {echoes} echo packets"), within=10)
    count = expect_only_esp(seen.text, north, south)
    lab.tell(f"internet: {count} encrypted packets passed, and none in the clear")
    for site in lab.sites:
        site.expect_no_error()


@scenario()
def ikev2_with_a_pre_shared_key(lab: Lab) -> None:
    """IKEv2 with a pre-shared key joins two networks with two, and all of it is encrypted."""
    north, south = lab.sites
    north.add_network(NORTH_OFFICE)
    south.add_network(SOUTH_OFFICE)
    ours, theirs = tunnels(lab, phase1="aes256-sha2_256;modp2048", phase2="aes256-sha2_256")
    north.api(ipsec=[ours])
    south.api(ipsec=[theirs])
    expect_encrypted_from_the_start(lab)


@scenario()
def ikev1_with_a_pre_shared_key_and_identities(lab: Lab) -> None:
    """IKEv1 with a pre-shared key and identities that are no addresses, with two pairs."""
    north, south = lab.sites
    north.add_network(NORTH_OFFICE)
    ours, theirs = tunnels(lab, type="IKE", encryptMethod="aes256", uid=True)
    north.api(ipsec=[{**ours, "localId": "north gateway", "remoteId": "south@example"}])
    south.api(ipsec=[{**theirs, "localId": "south@example", "remoteId": "north gateway"}])
    expect_encrypted_from_the_start(lab)


@scenario()
def ikev2_with_certificates(lab: Lab) -> None:
    """IKEv2 with certificates of one authority and the names in them, with two pairs."""
    north, south = lab.sites
    south.add_network(SOUTH_OFFICE)
    authority = Authority(lab.internet, f"{lab.folder}/certificates")
    names = {north: "north.example", south: "south.example"}
    records = tunnels(lab, authMethod="rsasig", uid=True, caCert=authority.own.text)
    for site, other, record in ((north, south, records[0]), (south, north, records[1])):
        certificate = authority.certify(names[site])
        site.api(ipsec=[{**record, "localCert": certificate.text, "localPrivKey": certificate.key,
                         "localId": names[site], "remoteId": names[other]}])
    expect_encrypted_from_the_start(lab)


def expect_offices_reach(lab: Lab) -> None:
    """Expects that the hosts reach each other in their second networks."""
    north, south = lab.sites
    north.expect_reach(north.host, south.host_in(SOUTH_OFFICE), within=15,
                       source=north.host_in(NORTH_OFFICE))


@scenario()
def gre_and_ipsec_side_by_side(lab: Lab) -> None:
    """One configuration has a GRE and an IPsec tunnel; even GRE travels encrypted."""
    north, south = lab.sites
    north.api(gre=[gre_tunnel(TO_SOUTH, south.wan, NORTH_INNER, [south.lan])],
              ipsec=[ipsec_tunnel("offices", south.wan, [NORTH_OFFICE], [SOUTH_OFFICE])])
    south.api(gre=[gre_tunnel(TO_NORTH, north.wan, SOUTH_INNER, [north.lan])],
              ipsec=[ipsec_tunnel("offices", north.wan, [SOUTH_OFFICE], [NORTH_OFFICE])])
    north.add_network(NORTH_OFFICE)
    south.add_network(SOUTH_OFFICE)
    start_both(lab)
    for site in lab.sites:
        site.expect_ipsec_up("offices")
    north.expect_gre_tunnel(TO_SOUTH, local=north.wan, remote=south.wan, routes=(south.lan,))
    north.expect_ipsec_protects((NORTH_OFFICE, SOUTH_OFFICE))
    with lab.internet.capture("north", "ip") as seen:
        north.expect_hosts_reach(south)
        expect_offices_reach(lab)
    expect_only_esp(seen.text, north, south)
    for site in lab.sites:
        site.expect_no_error()
