"""A shell on the north gateway, for a person who wants to look around."""

from __future__ import annotations

import subprocess

from .gateway_files import COMMANDS, PID_FILE
from .lab import Lab
from .places import PATH
from .site import API_STATE, SYSLOG

TERMINAL = "/dev/tty1"
HELPER = f"{COMMANDS}/on"

HINTS = {
    "ip -d tunnel": "GRE tunnels as the kernel has them",
    "ipsec statusall": "IPsec connections",
    "cat /run/ipsec/ipsec.conf": "what the manager has written for IPsec",
    f"tail {SYSLOG}": "what manager and services have logged",
    f"cat {API_STATE}": "the configuration: change it, then",
    f"kill -HUP $(cat {PID_FILE})": "lets the manager rebuild all tunnels",
    "on south-gateway ip tunnel": "a command on another machine",
    "on south-host": "a shell there",
}


def open_shell(lab: Lab, program: str, terminal_type: str) -> None:
    """Opens the shell on the host's terminal and waits for its end."""
    for place in lab.places():
        place.write(HELPER, _helper(lab), 0o755)
    for site in lab.sites:
        site.gateway.write(f"{COMMANDS}/tunnel_mngr", f"#!/bin/sh\nexec {program} \"$@\"\n", 0o755)
    here = lab.north.gateway
    with open(TERMINAL, "r+b", buffering=0) as terminal:
        terminal.write(_greeting(lab).encode())
        here.call(lambda: subprocess.run(
            ["setsid", "--ctty", "bash", "--norc", "-i"], check=False, cwd="/",
            stdin=terminal, stdout=terminal, stderr=terminal,
            env={"PATH": f"{COMMANDS}:{PATH}", "HOME": "/", "LANG": "C.UTF-8",
                 "TERM": terminal_type, "PS1": f"{_word(here.name)}# "}))


def _greeting(lab: Lab) -> str:
    hints = "".join(f"    {command:40}{meaning}\n" for command, meaning in HINTS.items())
    return ("\nYou are on the north gateway, and what runs there goes on. For example:\n\n"
            f"{hints}\nThe machines are {_names(lab)}.\nexit or Ctrl-D ends the lab.\n\n")


def _helper(lab: Lab) -> str:
    """Returns the command that enters another machine."""
    cases = "".join(f"{_word(place.name)}) thread={place.thread_id} ;;\n"
                    for place in lab.places())
    return f"""#!/bin/sh
case ${{1-}} in
{cases}*) echo "on MACHINE [COMMAND...] with {_names(lab)}" >&2; exit 2 ;;
esac
machine=$1
shift
[ $# -gt 0 ] || set -- env "PS1=$machine# " bash --norc -i
exec nsenter --target "$thread" --mount --net "$@"
"""


def _names(lab: Lab) -> str:
    return ", ".join(_word(place.name) for place in lab.places())


def _word(name: str) -> str:
    return name.replace(" ", "-")
