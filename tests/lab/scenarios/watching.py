"""What the daemon notices by itself. Its clocks are real: 30 s for the WAN, 60 s for names."""

from __future__ import annotations

from harness import Lab, gre_tunnel, scenario
from harness.plans import (NAME_CHECK, NAME_RETRY, NORTH_INNER, SLACK, SOUTH_INNER, TO_NORTH,
                           TO_SOUTH, WAN_POLL, run_one_tunnel)


@scenario(slow=True)
def a_lost_wan_takes_the_tunnels_down_after_four_polls(lab: Lab) -> None:
    """Three polls without a WAN change nothing, the fourth takes all down; it comes back."""
    north, south = lab.sites
    run_one_tunnel(lab)
    north.lose_wan()

    north.expect_log("Current down counter: [3]", within=3 * WAN_POLL + SLACK)
    north.expect_no_rebuild()
    north.expect_gre_tunnels(TO_SOUTH)
    north.expect_hosts_reach(south)

    north.expect_rebuild(within=WAN_POLL + SLACK)
    north.expect_gre_tunnels()
    north.expect_log("TRACE: WAN address is not acquired. "
                     "Tunnels will not be setup until WAN is available.")
    north.expect_hosts_apart(south)

    north.regain_wan()
    north.expect_rebuild(within=WAN_POLL + SLACK)
    north.expect_gre_tunnel(TO_SOUTH, local=north.wan, remote=south.wan,
                            addresses=(NORTH_INNER,), routes=(south.lan,))
    north.expect_hosts_reach(south)


@scenario(slow=True)
def a_peer_whose_name_is_lost_goes_after_four_checks(lab: Lab) -> None:
    """A name that is unknown for four checks takes its tunnel down; a short loss does not."""
    north, south = lab.sites
    run_one_tunnel(lab, north_name="north.example", south_name="south.example")
    lab.internet.forget("south.example")
    lab.internet.forget("north.example")

    south.expect_log("Resolution failure counter: [1]", within=NAME_CHECK + SLACK)
    lab.internet.publish("north.example", north.wan)
    north.expect_log("Resolution failure counter: [3]", within=3 * NAME_RETRY + SLACK)
    north.expect_no_rebuild()
    north.expect_hosts_reach(south)

    north.expect_rebuild(within=NAME_RETRY + SLACK)
    north.expect_gre_tunnels()
    north.expect_log("tunnel:to_south The host [south.example] has resolved to a new ip address. "
                     "[203.0.113.2]=>[]")
    south.expect_no_rebuild()
    south.expect_gre_tunnels(TO_NORTH)


@scenario(slow=True)
def a_moved_wan_address_is_followed_on_both_sides(lab: Lab) -> None:
    """A gateway follows its WAN address within a poll, its peer the name within a period."""
    north, south = lab.sites
    run_one_tunnel(lab, north_name="north.example")

    north.move_wan("198.51.100.77")
    lab.internet.publish("north.example", north.wan)
    north.expect_hosts_apart(south)

    north.expect_gre_tunnel(TO_SOUTH, within=WAN_POLL + SLACK, local="198.51.100.77",
                            remote=south.wan)
    south.expect_gre_tunnel(TO_NORTH, within=NAME_CHECK + SLACK, local=south.wan,
                            remote="198.51.100.77")
    south.expect_log("tunnel:to_north The host [north.example] has resolved to a new ip address. "
                     "[198.51.100.2]=>[198.51.100.77]")
    north.expect_rebuild()
    south.expect_rebuild()
    north.expect_hosts_reach(south)
    south.expect_hosts_reach(north)
    north.expect_no_rebuild()
    south.expect_no_rebuild()


@scenario(slow=True)
def a_short_loss_of_the_wan_is_nothing(lab: Lab) -> None:
    """A WAN that is away for one poll and then the same again causes no rebuild."""
    north, south = lab.sites
    run_one_tunnel(lab)
    north.lose_wan()
    north.expect_log("Current down counter: [1]", within=WAN_POLL + SLACK)
    north.regain_wan()
    north.expect_log_lines("TRACE: [WAN_MONITOR] WAN has not changed", 2, within=WAN_POLL + SLACK)
    north.expect_no_rebuild()
    north.expect_hosts_reach(south)


@scenario(slow=True)
def a_peer_that_gets_its_name_later_gets_its_tunnel(lab: Lab) -> None:
    """A tunnel whose peer was unknown at the start is made within a period after it is known."""
    north, south = lab.sites
    north.api(gre=[gre_tunnel(TO_SOUTH, "south.example", NORTH_INNER, [south.lan])])
    south.api(gre=[gre_tunnel(TO_NORTH, north.wan, SOUTH_INNER, [north.lan])])
    north.start()
    south.start()
    north.expect_gre_tunnels()
    lab.internet.publish("south.example", south.wan)
    north.expect_rebuild(within=NAME_CHECK + SLACK)
    north.expect_gre_tunnel(TO_SOUTH, local=north.wan, remote=south.wan)
    north.expect_hosts_reach(south)


@scenario(slow=True)
def a_wan_that_comes_late_gets_its_tunnels(lab: Lab) -> None:
    """A daemon started without a WAN makes the tunnels at the first poll that sees one."""
    north, south = lab.sites
    north.api(gre=[gre_tunnel(TO_SOUTH, south.wan, NORTH_INNER, [south.lan])])
    south.api(gre=[gre_tunnel(TO_NORTH, north.wan, SOUTH_INNER, [north.lan])])
    south.start()
    north.lose_wan()
    north.start()
    north.expect_gre_tunnels()
    north.expect_firewall_calls(0)
    north.regain_wan()
    north.expect_rebuild(within=WAN_POLL + SLACK)
    north.expect_gre_tunnels(TO_SOUTH)
    north.expect_hosts_reach(south)
