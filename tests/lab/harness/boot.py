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
from .terminal import Terminal

KERNEL = "linux.uml"
MEMORY = "512M"
FOLDER = Path(__file__).resolve().parent.parent


class BootError(Exception):
    """The lab could not be booted or did not come to its end; the text says why."""


def missing_commands() -> list[str]:
    """Returns the commands that the lab needs and this machine lacks."""
    needed = (KERNEL, "taskset", "ip", "ping", "dnsmasq", "ipsec", "openvpn", "nsenter",
              "tcpdump", "openssl", "curl")
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
    with tempfile.TemporaryDirectory(prefix="lab-") as sockets, \
            Terminal(bool(request["shell"])) as terminal:
        words = kernel_command(output, sockets, writer, terminal.descriptors)
        with open(output / "console.log", "wb") as console:
            kernel = subprocess.Popen(
                words, stdin=subprocess.DEVNULL, stdout=console, stderr=subprocess.STDOUT,
                pass_fds=[writer, *terminal.descriptors],
                env={**os.environ, "HOME": sockets}, start_new_session=True)
        os.close(writer)

        def hear(line: str) -> None:
            # Nothing is told while a shell is open.
            terminal.take_back()
            heard(line)

        patience = 0
        try:
            listen(reader, time.monotonic() + seconds, hear)
            patience = 5
        finally:
            # Who interrupts twice must not leave processes behind.
            signal.signal(signal.SIGINT, signal.SIG_IGN)
            os.close(reader)
            end(kernel, patience)
    return left_status(output, seconds)


def kernel_command(output: Path, sockets: str, stream: int, shell: list[int]) -> list[str]:
    """Returns the command that boots the kernel.

    The kernel takes the terminal over when somebody inside opens /dev/tty1, not before.
    """
    core = max(os.sched_getaffinity(0))
    console = ["con1=fd:{},fd:{}".format(*shell)] if shell else []
    return ["taskset", "-c", str(core), KERNEL, f"mem={MEMORY}", "root=/dev/root",
            "rootfstype=hostfs", "rootflags=/", "ro", f'init="{FOLDER}/init.sh"',
            f'LAB_FOLDER="{FOLDER}"', f'LAB_OUT="{output}"', "con=null", "con0=null,fd:1", *console,
            "ssl=null", f"ssl0=null,fd:{stream}", f"uml_dir={sockets}/", "quiet"]


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


def end(kernel: subprocess.Popen, patience: float) -> None:
    """Waits a moment for the kernel's own end, then sees to it and to all its processes."""
    for number, patience in ((0, patience), (signal.SIGTERM, 5), (signal.SIGKILL, 5)):
        if number:
            kernel.send_signal(number)
        with suppress(subprocess.TimeoutExpired):
            kernel.wait(patience)
            break
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
