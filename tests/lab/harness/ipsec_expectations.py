"""What a story can expect of a site's IPsec tunnels.

A tunnel is one connection of the service between the WAN addresses, which it begins itself,
and one for each pair of networks, which begins with the first packet between them; that
packet is lost.
"""

from __future__ import annotations

import os
import re
import signal
from collections import Counter
from pathlib import Path
from typing import TYPE_CHECKING, Callable

from . import kernel
from .processes import processes
from .waiting import eventually, expect

if TYPE_CHECKING:
    from .site import Site

# Time for failed attempts, see the settings of the service, and another one.
UP_SECONDS = 90.0
SETTLED_SECONDS = 14
INSTALLED = re.compile(r"^ *(\S+)\{\d+\}: +INSTALLED", re.MULTILINE)
AGE = re.compile(r": ESTABLISHED (\d+) second")
HANGING_SERVICE = "charon does not respond, sending KILL"
CAPTURED = re.compile(r" IP (\S+) > (\S+): (.*)")


class IpsecExpectations:
    """The part of a Site that looks at the IPsec service and at what it tells the kernel."""

    def expect_ipsec_up(self: Site, *connections: str, within: float = UP_SECONDS,
                        meanwhile: Callable[[], None] = lambda: None) -> None:
        """Expects connections, called as in ipsec.conf, to be up.

        `meanwhile` is called before each look: traffic that lets connections begin, and that
        lets them begin anew when the service has just dropped a second one of a kind.
        """
        def look() -> None:
            meanwhile()
            missing = sorted(set(connections) - self.ipsec_installed())
            expect(not missing, f"{self.name}: IPsec connections that are not up: {missing}")
        eventually(look, within)
        self._tell(f"{self.name}: IPsec has these connections up: {', '.join(connections)}")

    def ipsec_installed(self: Site) -> set[str]:
        """Returns the connections that the service has up, none when it is stopped."""
        return set(INSTALLED.findall(self.gateway.run("ipsec", "status").output))

    def ipsec_processes(self: Site) -> dict[str, int]:
        """Returns the process numbers of the service: "charon" and its "starter"."""
        return {Path(words[0]).name: number for number, words in processes(self.gateway).items()
                if words[0].endswith(("/charon", "/starter"))}

    def kill_ipsec(self: Site, *names: str) -> None:
        """Kills processes of the service, in that order."""
        numbers = self.ipsec_processes()
        for name in names:
            os.kill(numbers[name], signal.SIGKILL)
        self._tell(f"{self.name}: killed of the IPsec service: {' and '.join(names)}")

    def ipsec_was_killed(self: Site) -> bool:
        """Returns whether the service once hung when it was stopped, and so left its remains.

        It does so now and then; its starter kills it after eight seconds.
        """
        return HANGING_SERVICE in self.log()

    def expect_ipsec_settled(self: Site, within: float = UP_SECONDS) -> None:
        """Expects that the service will drop nothing any more.

        When both ends have begun, it may drop one of the two after ten seconds, and with it
        the connections between networks, which begin anew with the next packet.
        """
        def look() -> None:
            said = self.gateway.run("ipsec", "status").output
            ages = [int(age) for age in AGE.findall(said)]
            expect(bool(ages) and min(ages) >= SETTLED_SECONDS,
                   f"{self.name}: IPsec has not settled: {said}")
        eventually(look, within)
        self._tell(f"{self.name}: the IPsec service has settled")

    def expect_ipsec_protects(self: Site, *pairs: tuple[str, str],
                              within: float = UP_SECONDS) -> None:
        """Expects that the traffic of these pairs, our network and the peer's, is protected.

        It has to be exactly these; what the service does between the WAN addresses is not
        looked at.
        """
        def look() -> None:
            found = {pair for pair in kernel.ipsec_pairs(self.gateway)
                     if not pair[0].endswith("/32")}
            expect(found == set(pairs), f"{self.name}: expected IPsec for {sorted(pairs)}, "
                   f"the kernel has it for {sorted(found)}")
        eventually(look, within)
        text = "; ".join(f"{ours} with {theirs}" for ours, theirs in pairs)
        self._tell(f"{self.name}: the kernel has IPsec for this traffic: {text or 'none'}")

    def expect_ipsec_stopped(self: Site) -> None:
        """Expects that the service does not run and has left nothing in the kernel."""
        expect(not self.gateway.exists("/run/charon.pid"), f"{self.name}: the IPsec service runs")
        if self.ipsec_was_killed():
            self._tell(f"{self.name}: what the killed IPsec service has left is cleared away")
            for words in ("xfrm state flush", "xfrm policy flush", "route flush table 220"):
                self.gateway.run("ip", *words.split())
        left = kernel.ipsec_ends(self.gateway), kernel.ipsec_pairs(self.gateway)
        expect(not any(left), f"{self.name}: the kernel still has IPsec: {left}")
        self._tell(f"{self.name}: the IPsec service is stopped, the kernel has none of it")


def connections_of(name: str, local: int = 1, remote: int = 1) -> list[str]:
    """Returns what the service calls a tunnel that has so many networks at either end."""
    return [name, *(f"{name}_subnet_{ours}_{theirs}"
                    for ours in range(local) for theirs in range(remote))]


def expect_only_esp(captured: str, one: Site, other: Site) -> int:
    """Expects that all traffic on the internet was encrypted, and both ways; returns how much.

    Besides there may be the service's own key exchange, and a machine's answer to it when
    its service does not listen yet.
    """
    packets = CAPTURED.findall(captured)
    plain = [packet for packet in packets
             if not packet[2].startswith("ESP(") and not _is_key_exchange(packet[2])]
    expect(not plain, f"plain packets on the internet: {plain}")
    encrypted = Counter(packet[:2] for packet in packets if packet[2].startswith("ESP("))
    ways = {(one.wan, other.wan), (other.wan, one.wan)}
    expect(set(encrypted) == ways, f"expected ESP between {sorted(ways)}, found {dict(encrypted)}")
    return sum(encrypted.values())


def _is_key_exchange(what: str) -> bool:
    return "isakmp" in what or bool(re.search(r"^ICMP \S+ udp port (500|4500) unreachable", what))
