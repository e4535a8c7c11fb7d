"""What is told about a lab when a story has failed, and what is kept of every lab."""

from __future__ import annotations

import shutil
from pathlib import Path

from .lab import Lab
from .manager_log import commands
from .processes import processes
from .site import API_STATE, PROGRAM_OUTPUT, Site

VIEWS = (
    "ip -d tunnel", "ip -d link", "ip addr", "ip route show table all type unicast",
    "ip xfrm state", "ip xfrm policy", "ipsec statusall",
)
FILES = ("*.log", "ipsec/ipsec.conf", "ipsec/ipsec.secrets", "openvpn_*", "connect_*")
LARGEST_FILE = 4 << 20


def report(lab: Lab) -> str:
    """Returns both gateways' logs, commands, services and kernel state as text."""
    return "\n".join(_site(site) for site in lab.sites)


def _site(site: Site) -> str:
    parts = [_section(site, "log of the manager and the services", site.log()),
             _section(site, "output of the manager", site.gateway.read(PROGRAM_OUTPUT)),
             _section(site, "commands that the manager ran", "\n".join(commands(site.log())))]
    for pattern in FILES:
        for path in sorted(Path(site.folder, "run").glob(pattern)):
            parts.append(_section(site, path.name, path.read_text(errors="replace")))
    parts.append(_section(site, "configuration", site.gateway.read(API_STATE)))
    for view in VIEWS:
        parts.append(_section(site, view, site.gateway.run(*view.split(), within=10).output))
    parts.append(_section(site, "processes", _processes(site)))
    return "\n".join(parts)


def _section(site: Site, title: str, text: str) -> str:
    return f"===== {site.name}: {title}\n{text.rstrip() or '(nothing)'}\n"


def _processes(site: Site) -> str:
    """Returns the command lines of the processes of a gateway."""
    return "\n".join(f"{number} {' '.join(words)}"
                     for number, words in processes(site.gateway).items())


def keep(lab: Lab, folder: Path) -> None:
    """Copies the files of both gateways' /run, with logs and configurations, into a folder."""
    for site in lab.sites:
        source = Path(site.folder, "run")
        for path in source.rglob("*"):
            if path.is_file() and not path.is_symlink() and path.stat().st_size < LARGEST_FILE:
                target = folder / site.name / path.relative_to(source)
                target.parent.mkdir(parents=True, exist_ok=True)
                shutil.copyfile(path, target)
