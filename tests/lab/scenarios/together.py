"""Tunnels of all three kinds at once, from one configuration."""

from __future__ import annotations

from harness import Lab, scenario
from harness.everything import PARTNER, PARTNER_ROUTE, expect_everything, run_everything
from harness.plans import TO_NORTH, TO_SOUTH


@scenario()
def all_kinds_come_up_and_a_rebuild_without_a_change_changes_nothing(lab: Lab) -> None:
    """Two tunnels of each kind on either side, and just the same after a SIGHUP."""
    run_everything(lab)
    north, south = lab.sites
    for site, name in zip(lab.sites, (TO_SOUTH, TO_NORTH)):
        site.expect_gre_tunnel(PARTNER, routes=(PARTNER_ROUTE,), ttl=0)
        site.expect_gre_hook_calls(f"-n {name} -d up", f"-n {PARTNER} -d up")
        site.expect_firewall_calls(1)

    before = {site: site.state() for site in lab.sites}
    north.refresh()
    for site in lab.sites:
        site.expect_state(before[site])
    expect_everything(lab)
    north.expect_firewall_calls(1)
    south.expect_no_rebuild()
    south.expect_gre_hook_calls()
    south.expect_firewall_calls(0)
    for site in lab.sites:
        site.expect_no_error()
