"""Boots the lab's kernel on the host. Nothing of it is left there but the output folder."""

from __future__ import annotations

import json
import os
import select
import shutil
import signal
import subprocess
import tempfile
import time
from contextlib import suppress
from pathlib import Path
from typing import Callable

from .namespaces import adopt_orphans

KERNEL = "linux.uml"
MEMORY = "512M"
FOLDER = Path(__file__).resolve().parent.parent


class BootError(Exception):
    """The lab could not be booted or did not come to its end; the text says why."""


def missing_commands() -> list[str]:
    """Returns the commands that the lab needs and this machine lacks."""
    needed = (KERNEL, "taskset", "ip", "ping", "dnsmasq", "ipsec", "openvpn", "nsenter",
              "tcpdump", "openssl")
    path = os.environ.get("PATH", "") + ":/usr/sbin:/sbin"
    return [command for command in needed if not shutil.which(command, path=path)]


def boot(output: Path, request: dict, seconds: float, heard: Callable[[str], None]) -> int:
    """Plays what the request asks for and returns the status that the lab has left.

    Lines from inside are given to `heard` as they come. The kernel runs on one core: on
    two it is several times slower. It is ended after `seconds`.
    """
    (output / "rc").unlink(missing_ok=True)
    (output / "request.json").write_text(json.dumps(request))
    adopt_orphans()
    reader, writer = os.pipe()
    with tempfile.TemporaryDirectory(prefix="lab-") as sockets:
        words = kernel_command(output, sockets, writer, request["shell"])
        terminal = None if request["shell"] else subprocess.DEVNULL
        with open(output / "console.log", "wb") as console:
            kernel = subprocess.Popen(
                words, stdin=terminal, stdout=None if request["shell"] else console,
                stderr=subprocess.STDOUT, pass_fds=[writer],
                env={**os.environ, "HOME": sockets}, start_new_session=not request["shell"])
        os.close(writer)
        try:
            listen(reader, time.monotonic() + seconds, heard)
        finally:
            os.close(reader)
            end(kernel, alone=not request["shell"])
    return left_status(output, seconds)


def kernel_command(output: Path, sockets: str, stream: int, shell: bool) -> list[str]:
    """Returns the command that boots the kernel."""
    core = max(os.sched_getaffinity(0))
    console = "con0=fd:0,fd:1" if shell else "con0=null,fd:1"
    return ["taskset", "-c", str(core), KERNEL, f"mem={MEMORY}", "root=/dev/root",
            "rootfstype=hostfs", "rootflags=/", "ro", f'init="{FOLDER}/init.sh"',
            f'LAB_FOLDER="{FOLDER}"', f'LAB_OUT="{output}"', "con=null", console, "ssl=null",
            f"ssl0=null,fd:{stream}", f"uml_dir={sockets}/", "quiet"]


def listen(reader: int, limit: float, heard: Callable[[str], None]) -> None:
    """Hands on complete lines until the other side is closed or the time is up."""
    rest = b""
    while (left := limit - time.monotonic()) > 0:
        if not select.select([reader], [], [], min(left, 3600))[0]:
            continue
        piece = os.read(reader, 65536)
        if not piece:
            return
        *lines, rest = (rest + piece).split(b"\n")
        for line in lines:
            heard(line.decode(errors="replace"))


def end(kernel: subprocess.Popen, alone: bool) -> None:
    """Waits a moment for the kernel's own end, then sees to it.

    One that is `alone` in its process group leaves none of its processes behind.
    """
    for number, patience in ((0, 5), (signal.SIGTERM, 5), (signal.SIGKILL, 5)):
        if number:
            kernel.send_signal(number)
        with suppress(subprocess.TimeoutExpired):
            kernel.wait(patience)
            break
    if alone:
        with suppress(ProcessLookupError):
            os.killpg(kernel.pid, signal.SIGKILL)
        with suppress(ChildProcessError):
            while True:
                os.waitpid(-kernel.pid, 0)


def left_status(output: Path, seconds: float) -> int:
    """Returns the status that the lab has left, or raises BootError."""
    try:
        return int((output / "rc").read_text())
    except (OSError, ValueError) as error:
        said = "".join(f"\n--- {name}\n" + (output / name).read_text(errors="replace")[-4000:]
                       for name in ("console.log", "runner.log") if (output / name).exists())
        raise BootError(f"the lab has left no status within {seconds:.0f} s{said}") from error
