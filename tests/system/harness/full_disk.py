"""A gateway whose /run is a small file system of its own, with little or no room left."""

from __future__ import annotations

from .gateway import Gateway

PAGE = 4096
# Of what the gateway already has there, the API's and the syslog's sockets are kept.
MOUNT = """
mkdir /harness/api
touch /harness/devlog
mount --bind /run/api /harness/api
mount --bind /run/devlog /harness/devlog
mount -t tmpfs -o size={size},mode=755 tmpfs /run
mkdir -p /run/api /run/ipsec/cacerts /run/ipsec/certs /run/ipsec/private
touch /run/devlog
mount --bind /harness/api /run/api
mount --bind /harness/devlog /run/devlog
head -c {filled} /dev/zero >/run/filler
"""


def make_run_small(gateway: Gateway, free_pages: int, pages: int = 8) -> None:
    """Gives the gateway a /run on which so many pages are free.

    From then on tests see its files by the functions below alone.
    """
    script = "set -e\n" + MOUNT.format(size=pages * PAGE, filled=(pages - free_pages) * PAGE)
    _run(gateway, "/bin/sh", "-c", script)


def make_room(gateway: Gateway) -> None:
    """Takes away what fills the file system."""
    _run(gateway, "/usr/bin/rm", "/run/filler")


def content(gateway: Gateway, path: str) -> str:
    """Returns the text of a file of that file system."""
    return _run(gateway, "/usr/bin/cat", path)


def mode_and_size(gateway: Gateway, path: str) -> tuple[int, int]:
    """Returns permission bits and size of a file of that file system."""
    mode, size = _run(gateway, "/usr/bin/stat", "-c", "%a %s", path).split()
    return int(mode, 8), int(size)


def _run(gateway: Gateway, program: str, *arguments: str) -> str:
    command = gateway.start(*arguments, program=program)
    gateway.runs.remove(command)
    assert command.exit_status() == 0, command.stderr()
    return command.stdout()
