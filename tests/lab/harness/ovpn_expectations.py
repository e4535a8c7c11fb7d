"""What a story can expect of a site's OpenVPN tunnels."""

from __future__ import annotations

import json
import os
import signal
from typing import TYPE_CHECKING

from .processes import processes
from .waiting import eventually, expect

if TYPE_CHECKING:
    from .site import Site


class OvpnExpectations:
    """The part of a Site that looks at OpenVPN tunnels, which are known by their names."""

    def ovpn_processes(self: Site) -> dict[str, int]:
        """Returns the process number of each tunnel's process."""
        found: dict[str, int] = {}
        for number, words in processes(self.gateway).items():
            if words[0] == "openvpn":
                name = words[2].removeprefix("/var/run/openvpn_").removesuffix(".conf")
                expect(name not in found, f"{self.name}: two processes of the tunnel {name}")
                found[name] = number
        return found

    def expect_ovpn_processes(self: Site, *names: str, within: float = 20.0) -> dict[str, int]:
        """Expects one process for each of these tunnels and no other; returns their numbers."""
        def look() -> dict[str, int]:
            found = self.ovpn_processes()
            expect(sorted(found) == sorted(names), f"{self.name}: expected OpenVPN processes "
                   f"of {sorted(names)}, there are {found}")
            return found
        found = eventually(look, within)
        self._tell(f"{self.name}: OpenVPN runs for these tunnels: {', '.join(names) or 'none'}")
        return found

    def kill_ovpn(self: Site, name: str) -> int:
        """Kills the process of a tunnel; returns the number it had."""
        number = self.ovpn_processes()[name]
        self._tell(f"{self.name}: the OpenVPN process of {name} is killed")
        os.kill(number, signal.SIGKILL)
        return number

    def expect_tun_devices(self: Site, *names: str, within: float = 10.0) -> None:
        """Expects exactly these devices of the kind that OpenVPN makes."""
        def look() -> None:
            shown = self.gateway.must("ip", "-json", "-details", "link", "show", "type", "tun")
            found = sorted(link["ifname"] for link in json.loads(shown or "[]") if link)
            expect(found == sorted(names), f"{self.name}: expected the devices {sorted(names)}, "
                   f"the kernel has {found}")
        eventually(look, within)
        self._tell(f"{self.name}: the kernel has these OpenVPN devices: "
                   f"{', '.join(names) or 'none'}")

    def expect_connect_file(self: Site, name: str, text: str, within: float) -> None:
        """Expects what the check of the peer has written."""
        path = f"/run/connect_{name}.status"

        def look() -> None:
            expect(self.gateway.exists(path), f"{self.name}: there is no {path}")
            found = self.gateway.read(path)
            expect(found == text, f"{self.name}: expected \"{text}\" in {path}, found \"{found}\"")
        eventually(look, within)
        self._tell(f"{self.name}: the connect file of {name} says \"{text}\"")
