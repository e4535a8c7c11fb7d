"""What the daemon notices by itself. Its clocks are real: 30 s for the WAN, 60 s for names."""

from __future__ import annotations

import re

from harness import Lab, Site, eventually, expect, expect_text, kernel, scenario
from harness.everything import (BRANCH, BRANCH_SERVER, LINE, NORTH_OFFICE, NORTH_PARTNER_FAR,
                                NORTH_PLANT, PARTNER, SOUTH_LINE, SOUTH_OFFICE, SOUTH_PLANT,
                                configure_everything, expect_all_down, expect_all_traffic,
                                expect_as_before, expect_everything, run_everything)
from harness.expectations import REBUILD_SECONDS
from harness.ipsec_expectations import UP_SECONDS
from harness.misfortunes import WANS
from harness.plans import NAME_CHECK, NAME_RETRY, SLACK, TO_NORTH, TO_SOUTH, WAN_POLL

COUNTER = "Current down counter: "
IPSEC_CONF = "/run/ipsec/ipsec.conf"


@scenario(slow=True)
def a_moved_wan_address_is_followed_on_both_sides(lab: Lab) -> None:
    """A gateway follows its WAN address within a poll, its peer the name within a period."""
    run_everything(lab, north_name="north.example")
    north, south = lab.sites
    before = {site: site.state() for site in lab.sites}
    old = north.wan

    north.move_wan("198.51.100.77")
    lab.internet.publish("north.example", north.wan)
    lab.internet.third_party_follows(north.wan, "partner1")
    north.expect_hosts_apart(south)

    north.expect_rebuild(within=WAN_POLL + SLACK)
    south.expect_rebuild(within=NAME_CHECK + SLACK)
    south.expect_log("The host [north.example] has resolved to a new ip address. "
                     f"[{old}]=>[{north.wan}]")
    north.expect_gre_tunnel(TO_SOUTH, local=north.wan, remote=south.wan)
    south.expect_gre_tunnel(TO_NORTH, local=south.wan, remote=north.wan)
    expect_text(north.gateway.read(IPSEC_CONF), f"\tleft={north.wan}\n")
    expect_text(south.gateway.read(IPSEC_CONF), f"\tright={north.wan}\n")
    expect_everything(lab)
    files = ("file /run/ipsec/ipsec.conf", "file /run/ipsec/ipsec.secrets")
    north.expect_only_changed(before[north], f"gre {TO_SOUTH}", f"gre {PARTNER}", "device wan",
                              "route 198.51.100.0/24 dev wan", "ipsec *", *files)
    south.expect_only_changed(before[south], f"gre {TO_NORTH}", "ipsec *", *files)
    for site in lab.sites:
        expect_nowhere(site, old)
        # Each tunnel of south watches the name, and one rebuild is enough for all.
        site.expect_no_rebuild()


def expect_nowhere(site: Site, address: str) -> None:
    """Expects that an address is neither in the kernel nor in the manager's files."""
    def look() -> None:
        ends = () if site.ipsec_was_killed() else kernel.ipsec_ends(site.gateway)
        facts = "\n".join([*map(" is ".join, site.state().items()), *ends])
        found = [line for line in facts.splitlines() if re.search(rf"\b{address}\b", line)]
        expect(not found, f"{site.name}: {address} is still in {found}")
    eventually(look, within=REBUILD_SECONDS)


@scenario(slow=True)
def a_lost_wan_takes_all_down_after_four_polls(lab: Lab) -> None:
    """Three polls without a WAN change nothing, the fourth takes all down; it comes back."""
    run_everything(lab)
    north, south = lab.sites
    before = {site: site.state() for site in lab.sites}
    north.lose_wan()
    south.lose_wan()

    south.expect_log(f"{COUNTER}[1]", within=WAN_POLL + SLACK)
    south.regain_wan()
    for site in lab.sites:
        site.expect_state(before[site])
    expect_all_traffic(lab)
    # An API that cannot tell counts like a WAN that is not there.
    north.api_fault(WANS, code=500)
    north.expect_no_rebuild_until(f"{COUNTER}[3]", within=3 * WAN_POLL + SLACK)
    # South's WAN was back for a poll, so the count begins anew.
    south.expect_log_lines("TRACE: [WAN_MONITOR] WAN has not changed", 2, within=SLACK)
    south.lose_wan()

    north.expect_rebuild(within=WAN_POLL + SLACK)
    expect_all_down(north, before[north])
    north.expect_log("TRACE: WAN address is not acquired. "
                     "Tunnels will not be setup until WAN is available.")
    north.expect_firewall_calls(1)
    south.expect_log_lines(f"{COUNTER}[1]", 2, within=WAN_POLL + SLACK)
    south.regain_wan()

    north.api_heals()
    north.regain_wan()
    north.expect_rebuild(within=WAN_POLL + SLACK)
    expect_as_before(lab, before)
    south.expect_no_rebuild()


@scenario(slow=True)
def a_peer_whose_name_is_lost_goes_after_four_checks(lab: Lab) -> None:
    """A name that is unknown for four checks takes its tunnels down; a short loss does not."""
    run_everything(lab, north_name="north.example", south_name="south.example")
    north, south = lab.sites
    before = {site: site.state() for site in lab.sites}
    lab.internet.forget("south.example")
    lab.internet.forget("north.example")

    south.expect_log("Resolution failure counter: [1]", within=NAME_CHECK + SLACK)
    lab.internet.publish("north.example", north.wan)
    for site in lab.sites:
        site.expect_state(before[site])
    expect_all_traffic(lab)
    north.expect_no_rebuild_until("Failed to resolve the [south.example] host. "
                                  "Resolution failure counter: [3]",
                                  within=3 * NAME_RETRY + SLACK)
    north.expect_rebuild(within=NAME_RETRY + SLACK)
    north.expect_log("The host [south.example] has resolved to a new ip address. "
                     f"[{south.wan}]=>[]")
    expect_unknown_peer(lab)
    for site in lab.sites:
        site.expect_no_rebuild()
    south.expect_gre_tunnels(TO_NORTH, PARTNER)


def expect_unknown_peer(lab: Lab) -> None:
    """Expects of north what it can have while it does not know the name of south.

    GRE cannot, IPsec waits for south to begin, OpenVPN's line waits for the name, the
    server for its clients.
    """
    north, south = lab.sites
    north.expect_gre_tunnels(PARTNER)
    north.expect_log("WARNING: [FQDN_MONITOR] The host [south.example] was not found.")
    north.expect_log(f"ERROR: GRE tunnel: [{TO_SOUTH}] error executing tunnel add command [1]")
    north.expect_gateway_reaches(NORTH_PARTNER_FAR.split("/")[0])
    north.expect_hosts_apart(south)
    expect_text(north.gateway.read(IPSEC_CONF), "\tright=\n")
    for ours, theirs in ((SOUTH_OFFICE, NORTH_OFFICE), (SOUTH_PLANT, NORTH_PLANT)):
        south.expect_reach(south.host, Site.host_in(theirs), UP_SECONDS, Site.host_in(ours))
    north.expect_ovpn_processes(LINE, BRANCH)
    south.expect_gateway_reaches(BRANCH_SERVER, within=UP_SECONDS)
    expect(not north.gateway.reaches(SOUTH_LINE), "the line works without its peer's name")


@scenario(slow=True)
def what_is_known_late_is_built_late(lab: Lab) -> None:
    """A WAN that comes after the start brings all tunnels, a peer's name those to this peer."""
    configure_everything(lab, south_name="south.example")
    north, south = lab.sites
    lab.internet.forget("south.example")
    south.lose_wan()
    nothing = south.state()
    south.start()
    south.expect_only_changed(nothing, "file /run/tunnel_mngr.pid", "file /dev/shm/sem*",
                              "file /run/openvpn_*", "process *tunnel_mngr *")
    south.expect_firewall_calls(0)
    north.start()

    south.regain_wan()
    south.expect_rebuild(within=WAN_POLL + SLACK)
    south.expect_gre_tunnels(TO_NORTH, PARTNER)
    expect_unknown_peer(lab)

    lab.internet.publish("south.example", south.wan)
    north.expect_rebuild(within=NAME_CHECK + SLACK)
    north.expect_gre_tunnel(TO_SOUTH, local=north.wan, remote=south.wan)
    expect_everything(lab)
    for site in lab.sites:
        site.expect_no_rebuild()
    south.expect_no_error()
