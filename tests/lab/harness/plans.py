"""What many stories have in common: configurations to begin with, the manager's clocks."""

from __future__ import annotations

from .lab import Lab
from .records import gre_tunnel

TO_SOUTH = "to_south"
TO_NORTH = "to_north"
NORTH_INNER = "10.0.0.1/30"
SOUTH_INNER = "10.0.0.2/30"

# How often the manager looks at the WAN, and at a peer's name, known or unknown.
WAN_POLL = 30.0
NAME_CHECK = 60.0
NAME_RETRY = 30.0
# It looks after OpenVPN's processes so often, and a silent peer holds it up for the pings.
CHECK = 11.0
PINGS = 13.0
# For the rebuild itself, on a machine that has other things to do.
SLACK = 60.0


def configure_one_tunnel(lab: Lab, north_name: str = "", south_name: str = "") -> None:
    """Configures one GRE tunnel between the sites that leads from LAN to LAN.

    A name given for a site is published and stands for it in the other one's configuration.
    """
    north, south = lab.sites
    for name, site in ((north_name, north), (south_name, south)):
        if name:
            lab.internet.publish(name, site.wan)
    north.api(gre=[gre_tunnel(TO_SOUTH, south_name or south.wan, NORTH_INNER, [south.lan])])
    south.api(gre=[gre_tunnel(TO_NORTH, north_name or north.wan, SOUTH_INNER, [north.lan])])


def run_one_tunnel(lab: Lab, north_name: str = "", south_name: str = "") -> None:
    """Configures one GRE tunnel, starts both daemons and sees traffic pass."""
    configure_one_tunnel(lab, north_name, south_name)
    for site in lab.sites:
        site.start()
    lab.north.expect_hosts_reach(lab.south)
    lab.south.expect_hosts_reach(lab.north)
