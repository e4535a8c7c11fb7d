"""What a story can expect of a site."""

from __future__ import annotations

import re
from typing import TYPE_CHECKING, Any, Iterable

from . import kernel
from .gateway_files import FIREWALL_LOG, GRE_HOOK_LOG
from .manager_log import REBUILT
from .waiting import eventually, expect

if TYPE_CHECKING:
    from .site import Site

# Long enough for a rebuild on a machine that has other things to do.
REBUILD_SECONDS = 90.0

# Each ping of an OpenVPN peer is announced at this level.
NO_COMPLAINT = re.compile(r"\[OVPN\] ping \S+$")
COMPLAINT = re.compile(r" TUNNEL_MNGR\[\d+\]: ERROR: (.*)$", re.MULTILINE)


class Expectations:
    """The part of a Site that looks at results. Waiting is bounded, and failing says why."""

    _errors_seen = 0

    def expect_rebuild(self: Site, within: float = REBUILD_SECONDS) -> None:
        """Waits for the end of a rebuild that no earlier expectation has seen."""
        def look() -> int:
            count = self.rebuilds()
            expect(count > self._rebuilds_seen, f"{self.name}: no rebuild came to its end")
            return count
        self._rebuilds_seen = eventually(look, within)
        self._tell(f"{self.name}: the manager has rebuilt its tunnels")

    def expect_no_rebuild(self: Site) -> None:
        """Expects that nothing was rebuilt since the last rebuild that was expected."""
        more = self.rebuilds() - self._rebuilds_seen
        expect(more == 0, f"{self.name}: {more} rebuilds that nobody asked for")

    def expect_no_rebuild_until(self: Site, text: str, within: float) -> None:
        """Expects a text in the log, and no rebuild before it but those expected so far.

        However late it is looked at: the manager does not wait for that with the next one.
        """
        self.expect_log(text, within)
        more = self.log().partition(text)[0].count(REBUILT) - self._rebuilds_seen
        expect(more == 0, f"{self.name}: {more} rebuilds before \"{text}\"")
        self._tell(f"{self.name}: \"{text}\", and nothing was rebuilt so far")

    def expect_gre_tunnels(self: Site, *names: str, within: float = 2.0) -> None:
        """Expects exactly these GRE tunnels in the kernel, in any order."""
        def look() -> None:
            found = sorted(kernel.gre_tunnels(self.gateway))
            expect(found == sorted(names), f"{self.name}: expected the GRE tunnels "
                   f"{sorted(names)}, the kernel has {found}")
        eventually(look, within)
        self._tell(f"{self.name}: the kernel has these GRE tunnels: {', '.join(names) or 'none'}")

    def expect_gre_tunnel(self: Site, name: str, within: float = 2.0, **values: Any) -> None:
        """Expects a GRE tunnel that is up and has these values, named as in kernel.Tunnel."""
        wanted = {"up": True, **values}

        def look() -> None:
            tunnel = kernel.gre_tunnels(self.gateway).get(name)
            expect(tunnel is not None, f"{self.name}: the kernel has no GRE tunnel {name}")
            found = {key: getattr(tunnel, key) for key in wanted}
            expect(found == wanted, f"{self.name}: GRE tunnel {name}: expected {wanted}, "
                   f"the kernel has {found}")
        eventually(look, within)
        text = ", ".join(f"{key} {_plain(value)}" for key, value in values.items())
        self._tell(f"{self.name}: the kernel has the GRE tunnel {name}: {text}")

    def expect_hosts_reach(self: Site, other: Site, within: float = 15.0) -> None:
        """Expects that the host behind this gateway reaches the one behind the other."""
        self.expect_reach(self.host, other.host.address, within)

    def expect_gateway_reaches(self: Site, address: str, within: float = 15.0) -> None:
        """Expects that the gateway itself reaches an address."""
        self.expect_reach(self.gateway, address, within)

    def expect_networks_reach(self: Site, other: Site, within: float = 15.0) -> None:
        """Expects that the host reaches the other one from each of its networks, in each."""
        for source in map(self.host_in, self.networks):
            for address in map(other.host_in, other.networks):
                self.expect_reach(self.host, address, within, source)

    def expect_reach(self: Site, place: Any, address: str, within: float,
                     source: str = "") -> None:
        """Expects that a ping from a place, from that address of it, is answered."""
        eventually(lambda: expect(place.reaches(address, source), f"{place.name}: {address} does "
                                  f"not answer a ping{_from(source)}"), within)
        self._tell(f"{place.name}: reaches {address}{_from(source)}")

    def expect_hosts_apart(self: Site, other: Site) -> None:
        """Expects that the host behind this gateway does not reach the other one."""
        expect(not self.host.reaches(other.host.address),
               f"{self.host.name}: reaches {other.host.address} without a tunnel")
        self._tell(f"{self.host.name}: does not reach {other.host.address}")

    def expect_gre_hook_calls(self: Site, *calls: str, after: Iterable[str] = ()) -> None:
        """Expects that the GRE hook was told exactly this since the last look.

        Before that it was told what `after` says, in any order.
        """
        wanted = [*sorted(after), *calls]
        count = len(wanted) - len(calls)
        told = self.gateway.read(GRE_HOOK_LOG).splitlines()
        self.gateway.write(GRE_HOOK_LOG, "")
        expect([*sorted(told[:count]), *told[count:]] == wanted,
               f"{self.name}: expected the calls {wanted} of the GRE hook, found {told}")

    def expect_firewall_calls(self: Site, count: int) -> None:
        """Expects that the firewall was set up so many times since the last look."""
        told = self.gateway.read(FIREWALL_LOG).splitlines()
        self.gateway.write(FIREWALL_LOG, "")
        expect(told == ["--init"] * count, f"{self.name}: expected {count} times "
               f"\"firewall --init\", found {told}")

    def expect_log(self: Site, text: str, within: float = 2.0) -> None:
        """Expects a text in the gateway's syslog."""
        eventually(lambda: expect(text in self.log(), f"{self.name}: not in the log: {text}"),
                   within)

    def expect_log_lines(self: Site, text: str, count: int, within: float = 2.0) -> None:
        """Expects a text so many times, or more, in the gateway's syslog."""
        eventually(lambda: expect(self.log().count(text) >= count,
                                  f"{self.name}: not {count} times in the log: {text}"), within)

    def expect_errors(self: Site, *records: str) -> None:
        """Expects that the manager has complained exactly so since the last look, in any order."""
        told = COMPLAINT.findall(self.log())
        new = [text for text in told[self._errors_seen:] if not NO_COMPLAINT.search(text)]
        self._errors_seen = len(told)
        expect(sorted(new) == sorted(records), f"{self.name}: expected the errors {list(records)}, "
               f"the log has {new}")
        self._tell(f"{self.name}: the manager complains: {'; '.join(records) or 'about nothing'}")

    def expect_no_error(self: Site) -> None:
        """Expects that the manager has complained about nothing."""
        found = [line for line in self.log().splitlines()
                 if " ERROR: " in line and not NO_COMPLAINT.search(line)]
        expect(not found, f"{self.name}: errors in the log: {found}")


def _plain(value: Any) -> str:
    return " and ".join(value) or "none" if isinstance(value, tuple) else str(value)


def _from(source: str) -> str:
    return f" from {source}" if source else ""
