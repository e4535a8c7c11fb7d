"""What the manager has written into a gateway's syslog."""

from __future__ import annotations

import re
from dataclasses import dataclass

# A rebuild begins and, when it comes to its end, ends with these.
BEGINS = "Managing tunnels"
REBUILT = "Number of FQDN monitors is "

RECORD = re.compile(r"^ *([\d.]+) TUNNEL_MNGR\[\d+\]: (\w+): (.*)$", re.MULTILINE)
COMMAND = re.compile(r"(ip|ipsec|firewall|ping|rm|mkdir) ")


@dataclass(frozen=True)
class Record:
    """A line of the manager and the second at which it was heard."""

    second: float
    level: str
    text: str

    @property
    def is_command(self) -> bool:
        """Whether it announces a command."""
        return self.level == "TRACE" and bool(COMMAND.match(self.text))


@dataclass(frozen=True)
class Rebuild:
    """A rebuild that came to its end; the records are the first, the last and all between."""

    records: list[Record]

    @property
    def begin(self) -> float:
        """The second at which it began."""
        return self.records[0].second

    @property
    def seconds(self) -> float:
        """How long it took."""
        return self.records[-1].second - self.begin

    @property
    def ipsec_seconds(self) -> float:
        """How long of it the IPsec service was restarted and waited for; 0 without IPsec."""
        begin = [record.second for record in self.records if record.text == "ipsec restart"]
        end = [record.second for record in self.records if record.text == "firewall --init"]
        return end[0] - begin[0] if begin and end else 0.0

    @property
    def commands(self) -> list[tuple[float, str]]:
        """The commands that were run, each after the seconds since the beginning."""
        return [(record.second - self.begin, record.text) for record in self.records
                if record.is_command]


def records(log: str) -> list[Record]:
    """Returns all lines of the manager."""
    return [Record(float(second), level, text) for second, level, text in RECORD.findall(log)]


def last_rebuild(log: str) -> Rebuild:
    """Returns the last rebuild that came to its end; there has to be one."""
    found = records(log)
    end = max(number for number, record in enumerate(found) if record.text.startswith(REBUILT))
    begin = max(number for number, record in enumerate(found[:end]) if record.text == BEGINS)
    return Rebuild(found[begin:end + 1])


def commands(log: str) -> list[str]:
    """Returns the command lines that the manager has logged, in order, with their seconds."""
    return [f"{record.second:.3f} {record.text}" for record in records(log)
            if record.is_command]
