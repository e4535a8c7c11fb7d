"""The machine between the gateways: a router that is also the name server."""

from __future__ import annotations

import signal
from contextlib import contextmanager
from typing import Callable, Iterator

from .places import Place
from .waiting import eventually, expect


class Capture:
    """What a packet capture has seen so far: a line, or a few, for each packet."""

    def __init__(self, place: Place, file: str) -> None:
        self._place = place
        self._file = file

    @property
    def text(self) -> str:
        """All lines."""
        return self._place.read(self._file)


class Internet(Place):
    """Routes between the WANs and answers for the names of the domain "example"."""

    def __init__(self, network: str, folder: str, listen: list[str],
                 tell: Callable[[str], None]) -> None:
        super().__init__("internet", network, listen[0])
        self._tell = tell
        self._folder = folder
        self._captures = 0
        self._names: dict[str, str] = {}
        self._names_file = f"{self._folder}/names"
        self._write_names()
        self._said = f"{self._folder}/dnsmasq.out"
        self._server = self.spawn(
            "dnsmasq", "--keep-in-foreground", "--conf-file=/dev/null", "--user=root",
            "--no-resolv", "--no-hosts", f"--addn-hosts={self._names_file}",
            "--local=/example/", "--local-ttl=0", "--bind-interfaces", "--pid-file=",
            *(f"--listen-address={address}" for address in listen), "--log-facility=-",
            output=self._said)
        self._expect_names_read(1)

    def _write_names(self) -> None:
        lines = [f"{address} {name}\n" for name, address in self._names.items()]
        with open(self._names_file, "w", encoding="utf-8") as file:
            file.writelines(lines)

    def publish(self, name: str, address: str) -> None:
        """Lets a name, which ends in ".example", stand for an address from now on."""
        self._tell(f"internet: the name {name} now stands for {address}")
        self._names[name] = address
        self._reload()

    def forget(self, name: str) -> None:
        """Lets a name be unknown from now on."""
        self._tell(f"internet: the name {name} is unknown now")
        del self._names[name]
        self._reload()

    def _reload(self) -> None:
        before = self._times_read()
        self._write_names()
        self._server.send_signal(signal.SIGHUP)
        self._expect_names_read(before + 1)

    def _times_read(self) -> int:
        return self.read(self._said).count(f" {self._names_file} ")

    def _expect_names_read(self, times: int) -> None:
        eventually(lambda: expect(self._times_read() >= times, "the name server does not read "
                                  f"its names: {self.read(self._said)}"), within=20)

    @contextmanager
    def capture(self, device: str, filter_text: str) -> Iterator[Capture]:
        """Looks at what passes the device to a site; the text stays after the block."""
        self._captures += 1
        file = f"{self._folder}/capture-{self._captures}"
        capture = Capture(self, file)
        dump = self.spawn("tcpdump", "-n", "--immediate-mode", "-l", "-i", device,
                          *filter_text.split(), output=file)
        eventually(lambda: expect("listening on" in capture.text, "tcpdump does not start: "
                                  + capture.text), within=20)
        yield capture
        # A packet is on its way to the file for a moment.
        eventually(lambda: expect(" IP " in capture.text, f"nothing passed {device}"), within=5)
        dump.send_signal(signal.SIGINT)
        dump.wait(20)

    def cut(self, device: str) -> None:
        """Lets nothing pass between the internet and a site any more."""
        self._tell(f"internet: the line to {device} is cut")
        self.must("ip", "link", "set", "dev", device, "down")

    def mend(self, device: str) -> None:
        """Lets what was cut pass again."""
        self._tell(f"internet: the line to {device} is mended")
        self.must("ip", "link", "set", "dev", device, "up")

    def third_party(self, peer: str, local: str, inner: str, device: str = "third") -> None:
        """Sets up the other end of a GRE tunnel by hand, for one that leads to neither site."""
        self._tell(f"internet: has the other end of a GRE tunnel, {inner}")
        self.must("ip", "-batch", "-", text=(
            f"tunnel add {device} mode gre remote {peer} local {local} ttl 64\n"
            f"link set dev {device} up\naddr add {inner} dev {device}\n"))

    def third_party_follows(self, peer: str, device: str) -> None:
        """Lets the other end of such a tunnel know its peer's new address."""
        self._tell(f"internet: the GRE tunnel {device} leads to {peer} now")
        self.must("ip", "tunnel", "change", device, "mode", "gre", "remote", peer)
