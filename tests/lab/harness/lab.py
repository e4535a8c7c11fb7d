"""The lab of one scenario: host - gateway - internet - gateway - host.

Every scenario has a lab of its own, so that none sees another's remains and several can
run at the same time. The network:

    north host --- north gateway --- internet --- south gateway --- south host
    192.168.1.10   .1  198.51.100.2   .1 | .1   203.0.113.2  .1   192.168.2.10

The internet knows no way to the LANs: what passes between them passes through a tunnel.
"""

from __future__ import annotations

import os
import signal
import subprocess
import time
from contextlib import AbstractContextManager, suppress

from .internet import Internet
from .narrator import Narrator
from .places import Place
from .site import Addresses, Site

NORTH = Addresses("198.51.100.2", "198.51.100.1", "192.168.1.0/24", "192.168.1.1", "192.168.1.10")
SOUTH = Addresses("203.0.113.2", "203.0.113.1", "192.168.2.0/24", "192.168.2.1", "192.168.2.10")

LINKS = """\
netns add {net}-internet
netns add {net}-north
netns add {net}-south
netns add {net}-north-host
netns add {net}-south-host
link add name wan netns {net}-north type veth peer name north netns {net}-internet
link add name wan netns {net}-south type veth peer name south netns {net}-internet
link add name lan netns {net}-north type veth peer name lan netns {net}-north-host
link add name lan netns {net}-south type veth peer name lan netns {net}-south-host
"""


def ip_batch(network: str, lines: list[str]) -> None:
    """Runs lines of `ip` in a network namespace; an empty name stands for this one."""
    inside = ["-netns", network] if network else []
    done = subprocess.run(["ip", *inside, "-batch", "-"], input="\n".join(lines) + "\n", text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
    if done.returncode != 0:
        raise RuntimeError(f"ip -batch in {network}: {done.stdout}")


class Lab:
    """Two sites, `north` and `south`, and the internet between them."""

    def __init__(self, tag: str, program: str, tell: Narrator) -> None:
        """The tag tells the namespaces of this lab from those of others."""
        self.tell = tell
        self.tag = tag
        self.folder = folder = f"/run/lab/{tag}"
        os.makedirs(folder)
        self._begin = begin = time.monotonic()
        ip_batch("", LINKS.format(net=tag).splitlines())
        self._address()
        self.internet = Internet(f"{tag}-internet", folder, [NORTH.uplink, SOUTH.uplink], tell)
        self.north = Site("north", NORTH, tag, folder, program, tell, begin)
        self.south = Site("south", SOUTH, tag, folder, program, tell, begin)
        for router in (self.internet, self.north.gateway, self.south.gateway):
            router.call(forward)

    def _address(self) -> None:
        up = ["link set dev lo up"]
        internet = list(up)
        for name, site in (("north", NORTH), ("south", SOUTH)):
            internet += [f"addr add {site.uplink}/24 dev {name}", f"link set dev {name} up"]
            ip_batch(f"{self.tag}-{name}", [
                *up, f"addr add {site.wan}/24 dev wan", "link set dev wan up",
                f"addr add {site.gateway}/24 dev lan", "link set dev lan up",
                f"route add default via {site.uplink}"])
            ip_batch(f"{self.tag}-{name}-host", [
                *up, f"addr add {site.host}/24 dev lan", "link set dev lan up",
                f"route add default via {site.gateway}"])
        ip_batch(f"{self.tag}-internet", internet)

    def site(self, name: str) -> Site:
        """Returns the site "north" or "south"."""
        return {"north": self.north, "south": self.south}[name]

    @property
    def sites(self) -> tuple[Site, Site]:
        """North and south."""
        return (self.north, self.south)

    def internet_beside(self, site: Site) -> str:
        """Returns the address that the internet has on the line to a site."""
        return {self.north: NORTH, self.south: SOUTH}[site].uplink

    @property
    def now(self) -> float:
        """The second that a line has which arrives at a gateway's syslog now."""
        return time.monotonic() - self._begin

    def aside(self) -> AbstractContextManager[None]:
        """What is told within it is only written down, not told to those who watch."""
        return self.tell.aside()

    def heading(self, text: str) -> None:
        """Begins a chapter of the story."""
        self.tell("")
        self.tell(f"== {text}")

    def places(self) -> list[Place]:
        """Returns all machines."""
        return [self.internet, *self.north.places(), *self.south.places()]

    def close(self) -> None:
        """Ends every process of this lab and takes its network down."""
        for site in self.sites:
            site.stop()
        kill_all_in({os.stat(f"/run/netns/{place.network}").st_ino for place in self.places()})
        networks = [place.network for place in self.places()]
        for site in self.sites:
            site.close()
        self.internet.close()
        ip_batch("", [f"netns del {network}" for network in networks])


def forward() -> None:
    """Lets the calling thread's machine pass packets on."""
    with open("/proc/sys/net/ipv4/ip_forward", "w", encoding="ascii") as setting:
        setting.write("1")


def kill_all_in(networks: set[int]) -> None:
    """Kills every process whose network namespace is one of these (inode numbers)."""
    for entry in filter(str.isdigit, os.listdir("/proc")):
        with suppress(OSError):
            if os.stat(f"/proc/{entry}/ns/net").st_ino in networks:
                os.kill(int(entry), signal.SIGKILL)
                os.waitpid(int(entry), 0)
