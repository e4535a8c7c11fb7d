"""What the sites are known to have, for stories in which one change follows another."""

from __future__ import annotations

from functools import partial
from typing import Optional

from .facts import main_pair_facts
from .gateway_files import FIREWALL_LOG, GRE_HOOK_LOG
from .ipsec_expectations import UP_SECONDS
from .lab import Lab
from .site import Site
from .state import Facts, State
from .waiting import eventually, expect, expect_same

# Stands for any value but the one before.
ANOTHER = "another"


class Books:
    """Both sites' states, carried on from one rebuild to the next.

    A story that took the states anew each time would take what is wrong by then for granted.
    """

    def __init__(self, lab: Lab) -> None:
        """Begins with what the sites have now, or when IPsec is up between them."""
        self._lab = lab
        self._states = {site: eventually(partial(self._first_state, site), UP_SECONDS)
                        for site in lab.sites}
        self._processes = {site: site.ovpn_processes() for site in lab.sites}
        for site in lab.sites:
            for file in (GRE_HOOK_LOG, FIREWALL_LOG):
                site.gateway.write(file, "")

    def __getitem__(self, site: Site) -> State:
        return self._states[site]

    def _first_state(self, site: Site) -> State:
        state = site.state()
        missing = main_pair_facts(site, self._other(site)).keys() - state.keys()
        expect(not missing, f"{site.name}: IPsec is not up: {missing}")
        return state

    def _other(self, site: Site) -> Site:
        return next(other for other in self._lab.sites if other is not site)

    def rebuild(self, site: Site, facts: Facts, beside: Optional[Facts] = None) -> State:
        """Lets a site rebuild, after which it has these facts (None: not) and is as before else.

        The manager of the other site does nothing; `beside` are the facts that change there
        all the same. Returns what the site had before.
        """
        other = self._other(site)
        before = self._states[site]
        site.refresh()
        self._expect(site, facts)
        self._expect(other, beside or {})
        self._expect_rebuilt(site, before)
        self._expect_left_alone(other)
        return before

    def _expect(self, site: Site, facts: Facts) -> None:
        before = self._states[site]
        others = [key for key, value in facts.items() if value == ANOTHER]
        known = {key: value for key, value in facts.items()
                 if value not in (ANOTHER, before.get(key))}
        self._states[site] = site.expect_only_changed(before, *others, now=known)

    def _expect_rebuilt(self, site: Site, before: State) -> None:
        # The kernel lists its tunnels, and so they go, in an order of its own.
        site.expect_gre_hook_calls(*(f"-n {record['name']} -d up"
                                     for record in site.configured("gre") if record["enabled"]),
                                   after=(f"-n {name} -d down" for name in _gre_names(before)))
        site.expect_firewall_calls(1)
        ended, self._processes[site] = self._processes[site], site.ovpn_processes()
        kept = set(ended.values()) & set(self._processes[site].values())
        expect(not kept, f"{site.name}: OpenVPN processes that a rebuild has left alone: {kept}")
        site.expect_no_error()

    def _expect_left_alone(self, site: Site) -> None:
        site.expect_no_rebuild()
        site.expect_gre_hook_calls()
        site.expect_firewall_calls(0)
        expect_same(site.ovpn_processes(), self._processes[site])
        site.expect_no_error()


def _gre_names(state: State) -> list[str]:
    return [key.removeprefix("gre ") for key in state if key.startswith("gre ")]
