"""Changes of the configuration, among tunnels that have nothing to do with them.

Each step is a rebuild of one site. The books hold what it changes, exactly that, and whether
the other site is left alone.
"""

from __future__ import annotations

import re
from dataclasses import dataclass
from functools import partial
from typing import Any

from harness import (Lab, Site, eventually, expect, expect_same, gre_tunnel, ipsec_tunnel,
                     ovpn_tunnel, scenario)
from harness.books import ANOTHER, Books
from harness.certificates import Authority
from harness.edits import add_tunnel, change_tunnel, remove_tunnel
from harness.everything import (BRANCH_SERVER, LINE, NORTH_LINE, NORTH_OFFICE,
                                NORTH_PARTNER_INNER, OFFICES, PLANTS, SOUTH_LINE, SOUTH_OFFICE,
                                configure_everything, expect_all_traffic, expect_everything,
                                expect_ipsec_apart, expect_ipsec_traffic, expect_partner_traffic,
                                run_everything)
from harness.facts import (CONNECTIONS, NO_CONNECTIONS, NO_SECRETS, SECRETS, all_tunnels, gone,
                           gre_facts, main_pair_facts, ovpn_facts, ovpn_file, pair_facts,
                           pem_files, psk_line)
from harness.ipsec_expectations import UP_SECONDS, connections_of
from harness.openvpn import static_key_config
from harness.plans import TO_NORTH
from harness.state import Facts

NORTH_ID, SOUTH_ID = "north.example", "south.example"
# A third tunnel of each kind; south's GRE tunnel leads to a third party, which moves.
SUPPLIER, LABS, SPARE = "supplier", "labs", "spare"
SUPPLIER_INNER, SUPPLIER_FAR = "10.0.7.1/30", "10.0.7.2/30"
MOVED_SUPPLIER, MOVED_INNER, MOVED_FAR = "192.0.2.1", "10.0.8.9/29", "10.0.8.10/29"
NORTH_LAB, SOUTH_LAB = "172.18.1.0/24", "172.18.2.0/24"
NORTH_ANNEX, SOUTH_ANNEX = "172.19.1.0/24", "172.19.2.0/24"
NORTH_SPARE, SOUTH_SPARE = "10.10.0.1", "10.10.0.2"
NORTH_MOVED, SOUTH_MOVED = "10.11.0.1", "10.11.0.2"
# One tunnel of each kind in the south, and what they are called later.
SOUTHERN = {"gre": TO_NORTH, "ipsec": OFFICES, "ovpn": LINE}
RENAMED = {"gre": "head_office", "ipsec": "desks", "ovpn": "hotline"}


@dataclass(frozen=True)
class Third:
    """A site's third tunnel of each kind, and all that the site has because of them."""

    records: dict[str, dict[str, Any]]
    facts: Facts


@scenario()
def tunnels_of_every_kind_are_added_and_changed(lab: Lab) -> None:
    """A third tunnel of each kind is added, then changed, on one side after the other."""
    _, south = lab.sites
    run_everything(lab)
    give_room_for_more(lab)
    books = Books(lab)
    secrets = {site: books[site][SECRETS] for site in lab.sites}

    lab.heading("added")
    first = added(lab)
    for site in lab.sites:
        for kind, record in first[site].records.items():
            add_tunnel(site, kind, record)
        books.rebuild(site, {**first[site].facts, CONNECTIONS: ANOTHER,
                             SECRETS: secrets[site] + psk_line(first[site].records["ipsec"])})
        expect_connections(site, OFFICES, PLANTS, LABS)
    expect_pair_traffic(lab, NORTH_LAB, SOUTH_LAB)
    expect_line_traffic(lab, NORTH_SPARE, SOUTH_SPARE)
    south.expect_reach(lab.internet, SUPPLIER_INNER.split("/")[0], UP_SECONDS)
    expect_all_traffic(lab)

    lab.heading("changed")
    second = changed(lab)
    for site in lab.sites:
        for kind, record in second[site].records.items():
            change_tunnel(site, kind, record["name"], **record)
        books.rebuild(site, {**gone(first[site].facts), **second[site].facts, CONNECTIONS: ANOTHER,
                             SECRETS: secrets[site] + psk_line(second[site].records["ipsec"])})
        expect_connections(site, OFFICES, PLANTS, LABS)
    expect_pair_traffic(lab, NORTH_ANNEX, SOUTH_ANNEX)
    expect_line_traffic(lab, NORTH_MOVED, SOUTH_MOVED)
    south.expect_reach(lab.internet, MOVED_INNER.split("/")[0], UP_SECONDS)
    expect_all_traffic(lab)
    expect_algorithms(lab, LABS, "AES_CBC_256/HMAC_SHA2_256_128")
    expect_algorithms(lab, OFFICES, "AES_CBC_128/HMAC_MD5_96")


def give_room_for_more(lab: Lab) -> None:
    """Gives the sites the networks and the third party the ends of what will be configured."""
    north, south = lab.sites
    for site, networks in ((north, (NORTH_LAB, NORTH_ANNEX)), (south, (SOUTH_LAB, SOUTH_ANNEX))):
        for network in networks:
            site.add_network(network)
    lab.internet.must("ip", "addr", "add", f"{MOVED_SUPPLIER}/32", "dev", "lo")
    lab.internet.third_party(south.wan, lab.internet_beside(south), SUPPLIER_FAR, "supplier1")
    lab.internet.third_party(south.wan, MOVED_SUPPLIER, MOVED_FAR, "supplier2")


def added(lab: Lab) -> dict[Site, Third]:
    """Returns what each site gets at first."""
    supplier = gre_tunnel(SUPPLIER, lab.internet_beside(lab.south), SUPPLIER_INNER,
                          ["10.70.0.0/16"])
    return third_tunnels(lab, supplier, (NORTH_LAB, SOUTH_LAB), {"psk": "another secret"},
                         (NORTH_SPARE, SOUTH_SPARE), 1196)


def changed(lab: Lab) -> dict[Site, Third]:
    """Returns what each site gets instead."""
    supplier = gre_tunnel(SUPPLIER, MOVED_SUPPLIER, MOVED_INNER, ["10.71.0.0/16", "10.72.1.0/24"],
                          ttl=33)
    protection = {"psk": "a third secret", "phase1": "aes256-sha2_256;modp2048",
                  "phase2": "aes256-sha2_256"}
    return third_tunnels(lab, supplier, (NORTH_ANNEX, SOUTH_ANNEX), protection,
                         (NORTH_MOVED, SOUTH_MOVED), 1197)


def third_tunnels(lab: Lab, supplier: dict[str, Any], networks: tuple[str, str],
                  protection: dict[str, str], ends: tuple[str, str],
                  port: int) -> dict[Site, Third]:
    """Returns a line and an IPsec tunnel for both sites, and the supplier for the south."""
    thirds = {}
    for number, (site, peer) in enumerate(zip(lab.sites, reversed(lab.sites))):
        ids = (NORTH_ID, SOUTH_ID)
        ours, theirs = networks[number], networks[1 - number]
        near, far = ends[number], ends[1 - number]
        ipsec = ipsec_tunnel(LABS, peer.wan, [ours], [theirs], uid=True, localId=ids[number],
                             remoteId=ids[1 - number], **protection)
        ovpn = ovpn_tunnel(SPARE, static_key_config(peer.wan, port, near, far))
        gre = {"gre": supplier} if site is lab.south else {}
        thirds[site] = Third({"ipsec": ipsec, "ovpn": ovpn, **gre}, {
            **pair_facts(lab, site, ours, theirs), **ovpn_facts(SPARE, near, far),
            **ovpn_file(ovpn), **(gre_facts(site, supplier) if gre else {})})
    return thirds


@scenario()
def tunnels_of_every_kind_are_disabled_renamed_and_taken_out(lab: Lab) -> None:
    """South's ends are disabled, enabled, renamed, taken out, then all; the north stays."""
    _, south = lab.sites
    run_with_certificates(lab)
    books = Books(lab)

    lab.heading("disabled")
    for kind, name in SOUTHERN.items():
        change_tunnel(south, kind, name, enabled=False)
    enabled = books.rebuild(south, {**gone(southern_facts(lab, SOUTHERN)),
                                    CONNECTIONS: ANOTHER, SECRETS: ANOTHER})
    disabled = books[south]
    expect_connections(south, PLANTS)
    expect_only_others(lab)

    lab.heading("enabled")
    for kind, name in SOUTHERN.items():
        change_tunnel(south, kind, name, enabled=True)
    books.rebuild(south, enabled)
    expect_all_traffic(lab)

    rename_southern(lab, books)

    lab.heading("taken out")
    facts = southern_facts(lab, RENAMED)
    for kind, name in RENAMED.items():
        remove_tunnel(south, kind, name)
    books.rebuild(south, {**gone(facts), **disabled})
    expect_only_others(lab)

    take_all_out(lab, books)


def run_with_certificates(lab: Lab) -> None:
    """Runs everything, with certificates in place of the key of one IPsec tunnel."""
    configure_everything(lab)
    authority = Authority(lab.internet, f"{lab.folder}/certificates")
    for site, ours, theirs in zip(lab.sites, (NORTH_ID, SOUTH_ID), (SOUTH_ID, NORTH_ID)):
        own = authority.certify(ours)
        change_tunnel(site, "ipsec", OFFICES, authMethod="rsasig", uid=True, localId=ours,
                      remoteId=theirs, caCert=authority.own.text, localCert=own.text,
                      localPrivKey=own.key)
    for site in lab.sites:
        site.start()
    expect_everything(lab)


def rename_southern(lab: Lab, books: Books) -> None:
    """Renames the tunnels of the south, whose other ends keep their names."""
    _, south = lab.sites
    lab.heading("renamed")
    before = southern_facts(lab, SOUTHERN)
    for kind, name in SOUTHERN.items():
        change_tunnel(south, kind, name, name=RENAMED[kind])
    texts = {file: books[south][file].replace(OFFICES, RENAMED["ipsec"])
             for file in (CONNECTIONS, SECRETS)}
    # The OpenVPN file of the old name stays, beside that of the new one.
    books.rebuild(south, {**gone(before), **southern_facts(lab, RENAMED), **texts,
                          **ovpn_file(south.configured_tunnel("ovpn", RENAMED["ovpn"]))})
    expect_connections(south, RENAMED["ipsec"], PLANTS)
    expect_all_traffic(lab)


def take_all_out(lab: Lab, books: Books) -> None:
    """Takes the rest out too; the north keeps its tunnels, though without a peer."""
    north, south = lab.sites
    lab.heading("none is left")
    south.api(gre=[], ovpn=[])
    change_tunnel(south, "ipsec", PLANTS, enabled=False)
    books.rebuild(south, {**gone(all_tunnels(books[south])), CONNECTIONS: NO_CONNECTIONS,
                          SECRETS: NO_SECRETS}, beside=gone(main_pair_facts(north, south)))
    south.expect_ipsec_stopped()
    expect_southern_apart(lab)
    expect_ipsec_apart(lab, PLANTS)
    expect(not south.gateway.reaches(BRANCH_SERVER), "the branch is still connected")
    north.expect_reach(lab.internet, NORTH_PARTNER_INNER.split("/")[0], UP_SECONDS)


def southern_facts(lab: Lab, names: dict[str, str]) -> Facts:
    """Returns all that the south has because of its tunnels of these names, by kind."""
    _, south = lab.sites
    return {**gre_facts(south, south.configured_tunnel("gre", names["gre"])),
            **pair_facts(lab, south, SOUTH_OFFICE, NORTH_OFFICE),
            **pem_files(south.configured_tunnel("ipsec", names["ipsec"])),
            **ovpn_facts(names["ovpn"], SOUTH_LINE, NORTH_LINE)}


def expect_only_others(lab: Lab) -> None:
    """Expects traffic through all tunnels but those whose end in the south is missing."""
    _, south = lab.sites
    expect_southern_apart(lab)
    expect_partner_traffic(lab)
    expect_ipsec_traffic(lab, PLANTS)
    south.expect_gateway_reaches(BRANCH_SERVER, within=UP_SECONDS)


def expect_southern_apart(lab: Lab) -> None:
    """Expects that nothing passes through the tunnels whose end in the south is missing."""
    north, south = lab.sites
    north.expect_hosts_apart(south)
    south.expect_hosts_apart(north)
    expect_ipsec_apart(lab, OFFICES)
    for site, address in ((north, SOUTH_LINE), (south, NORTH_LINE)):
        expect(not site.gateway.reaches(address), f"{site.name}: reaches {address}")


def expect_connections(site: Site, *names: str) -> None:
    """Expects the sections of these tunnels in the service's configuration, and no others."""
    found = re.findall(r"^conn (\S+)$", site.gateway.read("/run/ipsec/ipsec.conf"), re.MULTILINE)
    expect_same(found, [section for name in names for section in connections_of(name)])


def expect_algorithms(lab: Lab, name: str, algorithms: str) -> None:
    """Expects what protects the traffic between a tunnel's networks."""
    north, south = lab.sites
    pattern = re.compile(rf"^ *{name}_subnet_0_0\{{\d+\}}: +{algorithms},", re.MULTILINE)

    def look(site: Site) -> None:
        # The service may just have dropped a second connection of a kind, and this with it.
        north.knock(south)
        said = site.gateway.must("ipsec", "statusall")
        expect(bool(pattern.search(said)), f"{site.name}: {name} does not use {algorithms}: {said}")
    for site in lab.sites:
        eventually(partial(look, site), UP_SECONDS)


def expect_pair_traffic(lab: Lab, ours: str, theirs: str) -> None:
    """Expects that the hosts reach each other in a pair of networks, north's and south's."""
    for site, near, far in zip(lab.sites, (ours, theirs), (theirs, ours)):
        site.expect_reach(site.host, site.host_in(far), UP_SECONDS, source=site.host_in(near))


def expect_line_traffic(lab: Lab, north_end: str, south_end: str) -> None:
    """Expects that the ends of an OpenVPN line reach each other."""
    for site, far in zip(lab.sites, (south_end, north_end)):
        site.expect_gateway_reaches(far, within=UP_SECONDS)
