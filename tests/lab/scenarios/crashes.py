"""The manager and the services it uses are killed, and all is put in order again."""

from __future__ import annotations

import signal
from dataclasses import dataclass
from fnmatch import fnmatchcase
from typing import Iterable

from harness import Lab, Site, eventually, expect, expect_same, scenario
from harness.everything import (BRANCH, LINE, NORTH_OFFICE, NORTH_PLANT, OFFICES, PARTNER, PLANTS,
                                SOUTH_LINE, SOUTH_OFFICE, SOUTH_PLANT, expect_all_traffic,
                                expect_gre_traffic, expect_ipsec_apart, expect_ipsec_traffic,
                                expect_ovpn_traffic, expect_partner_traffic, run_everything)
from harness.expectations import REBUILD_SECONDS
from harness.gateway_files import HOOKS, PID_FILE, SEMAPHORE
from harness.ipsec_expectations import UP_SECONDS
from harness.manager_log import records
from harness.misfortunes import KILL_THE_MANAGER
from harness.plans import CHECK, PINGS, SLACK, TO_SOUTH
from harness.state import State

GRE_HOOK = f"{HOOKS}/gre-tunnel-link-changed"

# The hosts whose traffic IPsec protects.
PAIRS = [(Site.host_in(ours), Site.host_in(theirs))
         for ours, theirs in ((NORTH_OFFICE, SOUTH_OFFICE), (NORTH_PLANT, SOUTH_PLANT))]

States = dict[Site, State]


@dataclass(frozen=True)
class Moment:
    """A point of a rebuild: just before the command with these words, a shell pattern.

    Not all commands are logged; `logged` is the last one that is, if it is not this.
    """

    command: str
    words: str
    logged: str = ""


FIRST_HALF = (
    Moment("ip", "tunnel"),
    Moment("ip", f"tunnel del {TO_SOUTH}"),
    Moment(GRE_HOOK, f"-n {PARTNER} -d down", logged=f"ip tunnel del {PARTNER}"),
    Moment("ipsec", "stop", logged="ipsec stop 2>&1"),
    Moment("ip", f"tunnel add {PARTNER} *"),
)
SECOND_HALF = (
    Moment("ip", f"addr add * dev {PARTNER}"),
    Moment(GRE_HOOK, f"-n {PARTNER} -d up", logged=f"ip route add * dev {PARTNER}"),
    Moment("ipsec", "restart"),
    Moment("firewall", "--init"),
    Moment("openvpn", f"*openvpn_{BRANCH}.conf *", logged="firewall --init"),
)


@scenario(slow=True)
def killed_in_the_first_half_of_a_rebuild(lab: Lab) -> None:
    """Killed at five moments from the first command on, each time the second start mends all."""
    crash_at(lab, FIRST_HALF)


@scenario(slow=True)
def killed_in_the_second_half_of_a_rebuild(lab: Lab) -> None:
    """Killed at five moments until openvpn begins, each time the second start mends all."""
    crash_at(lab, SECOND_HALF)


def crash_at(lab: Lab, moments: Iterable[Moment]) -> None:
    """Lets the north's manager be killed at these moments; expects what a clean start brings."""
    run_everything(lab)
    north, south = lab.sites
    before = {site: site.state() for site in lab.sites}
    for moment in moments:
        lab.heading(f"killed before {moment.command} {moment.words}")
        kill_in_a_rebuild(north, moment)
        expect_one_failed_start(north)
        north.start()
        expect_all_traffic(lab)
        expect_unchanged(lab, before)
    south.expect_no_rebuild()


def kill_in_a_rebuild(site: Site, moment: Moment) -> None:
    """Lets a rebuild begin, which the manager does not survive beyond that moment."""
    site.before(moment.command, moment.words, KILL_THE_MANAGER)
    site.signal(signal.SIGHUP)
    expect_same(site.ended(within=PINGS + REBUILD_SECONDS), -signal.SIGKILL)
    site.undo(moment.command)
    site.expect_ovpn_processes(within=SLACK)
    eventually(lambda: expect_last_command(site, moment), within=10)


def expect_last_command(site: Site, moment: Moment) -> None:
    """Expects that the killed manager has logged no command after that moment."""
    # It does not wait for openvpn: by the time that one kills it, it may look after the peers.
    last = [record.text for record in records(site.log())
            if record.is_command and not record.text.startswith("ping ")][-1]
    expect(fnmatchcase(last, moment.logged or f"{moment.command} {moment.words}"),
           f"{site.name}: the last command of the killed manager was {last}")


def expect_one_failed_start(site: Site) -> None:
    """Expects that the next start only clears away what a killed manager has left."""
    expect_same(site.launch("--daemonize"), 1)
    for path in (PID_FILE, SEMAPHORE):
        expect(not site.gateway.exists(path), f"{site.name}: {path} is still there")


def expect_unchanged(lab: Lab, before: States) -> None:
    """Expects that both sites have what they had, and that nobody complains."""
    for site in lab.sites:
        site.expect_state(before[site])
        site.expect_no_error()


@scenario(slow=True)
def killed_services_are_brought_back(lab: Lab) -> None:
    """A killed openvpn is back with the next check; a killed IPsec service needs a SIGHUP."""
    run_everything(lab)
    before = {site: site.state() for site in lab.sites}
    for site in lab.sites:
        site.expect_firewall_calls(1)

    lab.heading("an openvpn is killed on either side")
    kill_one_openvpn_each(lab)
    expect_ovpn_traffic(lab)
    expect_unchanged(lab, before)

    lab.heading("charon is killed")
    kill_charon(lab.north)
    expect_gre_traffic(lab)
    expect_ovpn_traffic(lab)
    expect_ipsec_once_the_peer_begins(lab)
    expect_unchanged(lab, before)
    for site in lab.sites:
        site.expect_no_rebuild()
        site.expect_firewall_calls(0)
    forget_keys(lab.north)
    lab.north.refresh()
    expect_ipsec_without_the_peer(lab)
    expect_all_traffic(lab)
    expect_unchanged(lab, before)

    lab.heading("charon is killed with its starter")
    kill_ipsec(lab, before[lab.north])
    expect_all_traffic(lab)
    expect_left_alone(lab.north)
    lab.south.refresh()
    expect_only_partner_reached(lab)
    lab.north.refresh()
    expect_gre_traffic(lab)
    expect_ovpn_traffic(lab)
    expect_ipsec_once_the_peer_begins(lab)
    expect_unchanged(lab, before)


def kill_one_openvpn_each(lab: Lab) -> None:
    """Kills a process on either side; expects that the manager starts it anew, and only it."""
    killed = {lab.north: LINE, lab.south: BRANCH}
    before = {site: site.expect_ovpn_processes(LINE, BRANCH) for site in lab.sites}
    for site, name in killed.items():
        site.kill_ovpn(name)
    for site, name in killed.items():
        expect_anew(site, name, before[site])


def expect_anew(site: Site, name: str, before: dict[str, int]) -> None:
    """Expects another process of this OpenVPN tunnel, and for the others those before."""
    def look() -> None:
        found = site.ovpn_processes()
        expect(found.get(name, before[name]) != before[name],
               f"{site.name}: the killed process of {name} is not back: {found}")
        expect_same({**found, name: 0}, {**before, name: 0})
    eventually(look, within=CHECK + PINGS + SLACK)


def kill_charon(site: Site) -> None:
    """Kills the IPsec service alone; expects that its starter starts it anew."""
    before = site.ipsec_processes()
    site.kill_ipsec("charon")

    def look() -> None:
        found = site.ipsec_processes()
        expect(found.get("charon", before["charon"]) != before["charon"],
               f"{site.name}: charon is not back: {found}")
        expect_same(found["starter"], before["starter"])
    eventually(look, within=UP_SECONDS)
    site.expect_ipsec_up(OFFICES)


def expect_ipsec_once_the_peer_begins(lab: Lab) -> None:
    """Expects that IPsec tunnels work both ways as soon as the south has sent something.

    The kernel still has the keys of a killed service, and what the north sends is lost as
    long as they are the only ones.
    """
    for ours, theirs in PAIRS:
        lab.south.expect_reach(lab.south.host, ours, within=UP_SECONDS, source=theirs)
    expect_ipsec_traffic(lab)


def expect_ipsec_without_the_peer(lab: Lab) -> None:
    """Expects that IPsec tunnels work both ways although the south waits for the north."""
    for ours, theirs in PAIRS:
        lab.north.expect_reach(lab.north.host, theirs, within=UP_SECONDS, source=ours)
    expect_ipsec_traffic(lab)


def forget_keys(site: Site) -> None:
    """Takes all IPsec out of the kernel, as operators are told to after such a crash."""
    for what in ("state", "policy"):
        site.gateway.must("ip", "xfrm", what, "flush")


def kill_ipsec(lab: Lab, before: State) -> None:
    """Kills the north's IPsec service for good; the kernel keeps all that it was told."""
    lab.north.kill_ipsec("starter", "charon")
    lab.north.expect_only_changed(before, now={key: None for key in before
                                               if fnmatchcase(key, "process /usr/lib/ipsec/*")})


def expect_left_alone(site: Site) -> None:
    """Expects that the manager's next check does not care about the IPsec service."""
    check = f"[OVPN] ping {SOUTH_LINE}"
    site.expect_log_lines(check, site.log().count(check) + 1, within=CHECK + PINGS + SLACK)
    expect_same(site.ipsec_processes(), {})
    site.expect_no_rebuild()


def expect_only_partner_reached(lab: Lab) -> None:
    """Expects that nothing passes between the sites, whose kernels have different keys."""
    north, south = lab.sites
    north.expect_hosts_apart(south)
    for name in (OFFICES, PLANTS):
        expect_ipsec_apart(lab, name)
    expect(not north.gateway.reaches(SOUTH_LINE), "the OpenVPN line still carries traffic")
    expect_partner_traffic(lab)
