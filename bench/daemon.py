"""Measures the running daemon: memory, idle time, reaction to signals, and leaks.

Runs inside the sandbox that bench/run.py makes, and prints a line for each measure: its
name, value and limit.
"""

from __future__ import annotations

import json
import os
import re
import select
import signal
import statistics
import subprocess
import sys
import time
from pathlib import Path
from typing import Any, Callable, NamedTuple

sys.path.insert(0, "/project/tools")

from gateway_api import ApiServer, StateFile  # noqa: E402

PROGRAM = "/build/bin/tunnel_mngr"
ONE_REQUEST = "/build/bench/one_request"
PID_FILE = Path("/run/tunnel_mngr.pid")
STATE = Path("/run/state.json")
LOG = Path("/run/log")
KERNEL_TUNNELS = Path("/run/gre-tunnels")
API_SOCKET = Path("/run/api/http.sock")
WAN = "198.51.100.2"
CYCLE_END = "Number of FQDN monitors is "
OWN_THREADS = 2  # the main one and the WAN monitor

PATIENCE = 60.0
PAUSE = 0.05
SETTLE_SECONDS = 2.0
IDLE_SECONDS = 20.0
SOME = 100
MANY = 1000
MEMORY_ROUNDS = 3
SIGNAL_ROUNDS = 10
LEAK_TUNNELS = 200
LEAK_WARM_UP = 10
LEAK_REBUILDS = 50


def report(measure: str, value: float, limit: str) -> None:
    """Prints one line for the table."""
    print(f"{measure}\t{value:.4f}\t{limit}", flush=True)


def wait_for(condition: Callable[[], Any], what: str) -> None:
    """Waits until the condition holds."""
    limit = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > limit:
            raise TimeoutError(f"no {what}")
        time.sleep(0.005)


def gre_tunnel(number: int) -> dict[str, Any]:
    """Returns an enabled record whose peer needs no look-up."""
    place = f"{number // 250}.{number % 250 + 1}"
    return {"name": f"site{number}", "enabled": True, "remoteIp": f"203.0.{place}", "ttl": 64,
            "tunnelIp": f"10.1.{place}", "tunnelMask": "30", "checkPeriod": 5,
            "routes": [{"ip": f"10.2.{place}", "mask": 32}]}


def configure(tunnels: int) -> None:
    """Says how many tunnels the API names."""
    state = {"wans": [{"current": True, "ip": WAN}], "ipsecTunnels": [], "ovpnTunnels": [],
             "greTunnels": [gre_tunnel(number) for number in range(tunnels)],
             "syslog": {"logLevel": 10}}
    draft = STATE.with_suffix(".new")
    draft.write_text(json.dumps(state))
    draft.rename(STATE)


def list_in_kernel(tunnels: int) -> None:
    """Says how many tunnels `ip tunnel` shows."""
    KERNEL_TUNNELS.write_text("".join(
        f"{tunnel['name']}: gre/ip remote {tunnel['remoteIp']} local {WAN} ttl 64\n"
        for tunnel in map(gre_tunnel, range(tunnels))))


class Memory(NamedTuple):
    """Memory of a process in KiB: the proportional set size, and what of it is no file's.

    The first shrinks with every other process that uses the same libraries, the second
    is the process's own.
    """

    all: int
    own: int


def memory(pid: int) -> Memory:
    """Returns the memory of a process."""
    text = Path(f"/proc/{pid}/smaps_rollup").read_text()
    return Memory(*(int(re.search(rf"^{name}:\s+(\d+) kB", text, re.MULTILINE)[1])
                    for name in ("Pss", "Pss_Anon")))


def processor_seconds(pid: int) -> float:
    """Returns user and system time of all threads so far, finer than the ticks of /proc."""
    clock = ~pid << 3 | 2  # as clock_getcpuclockid(3) makes it
    return time.clock_gettime(clock)


def count(pid: int, what: str) -> int:
    """Returns how many threads ("task") or descriptors ("fd") a process has."""
    return len(os.listdir(f"/proc/{pid}/{what}"))


class Daemon:
    """The program in daemon mode, at rest after its first cycle."""

    def __init__(self, tunnels: int) -> None:
        configure(tunnels)
        self._threads = tunnels + OWN_THREADS
        with LOG.open("wb") as log:
            subprocess.run([PROGRAM, "-d", "-p", "30"], stdin=subprocess.DEVNULL, stdout=log,
                           stderr=log, check=True)
        wait_for(lambda: PID_FILE.exists() and PID_FILE.read_text(), "PID file")
        self.pid = int(PID_FILE.read_text())
        self.wait_for_cycles(1)
        self._descriptor = os.pidfd_open(self.pid)

    def __enter__(self) -> Daemon:
        return self

    def __exit__(self, *_: object) -> None:
        self.stop()

    def cycles(self) -> int:
        """Returns how many cycles have ended."""
        return LOG.read_text().count(CYCLE_END)

    def wait_for_cycles(self, number: int) -> None:
        """Waits until so many cycles have ended and the daemon is at rest again.

        What is asked for while a cycle still starts its monitors is absorbed by it.
        """
        wait_for(lambda: self.cycles() >= number and count(self.pid, "task") == self._threads,
                 "end of the cycle")
        time.sleep(PAUSE)

    def refresh(self) -> float:
        """Sends SIGHUP and waits for the cycle's end; returns when the signal was sent."""
        before = self.cycles()
        sent = time.monotonic()
        os.kill(self.pid, signal.SIGHUP)
        self.wait_for_cycles(before + 1)
        return sent

    def stop(self) -> float:
        """Sends SIGTERM and returns the seconds until the process has ended."""
        sent = time.monotonic()
        os.kill(self.pid, signal.SIGTERM)
        ended = select.select([self._descriptor], [], [], PATIENCE)[0]
        seconds = time.monotonic() - sent
        os.close(self._descriptor)
        if not ended:
            raise TimeoutError("the daemon does not end")
        return seconds


def one_request_memory() -> Memory:
    """Returns the memory of the program that asks once, for no tunnels, and rests."""
    configure(0)
    with subprocess.Popen([ONE_REQUEST], stdout=subprocess.PIPE) as process:
        if process.stdout.readline() != b"done\n":
            raise RuntimeError("one_request has failed")
        time.sleep(SETTLE_SECONDS)
        used = memory(process.pid)
        process.kill()
    return used


def daemon_memory(tunnels: int) -> Memory:
    """Returns the memory of a daemon at rest with so many tunnels."""
    with Daemon(tunnels) as daemon:
        time.sleep(SETTLE_SECONDS)
        return memory(daemon.pid)


def measure_memory() -> None:
    """The daemon against the least program, and what each monitored tunnel adds."""
    rounds = [(one_request_memory(), daemon_memory(0), daemon_memory(MANY))
              for _ in range(MEMORY_ROUNDS)]
    report("daemon: memory at rest / of one request on the same libraries",
           statistics.median(none.all / least.all for least, none, _ in rounds), "<= 1.25")
    report("daemon: the same, without what is shared with files",
           statistics.median(none.own / least.own for least, none, _ in rounds), "<= 1.25")
    report("daemon: memory for each monitored tunnel, KiB",
           statistics.median((many.all - none.all) / MANY for _, none, many in rounds), "<= 24")


def measure_idle() -> None:
    """Processor time at rest with many monitors, of one core."""
    with Daemon(MANY) as daemon:
        time.sleep(SETTLE_SECONDS)
        before, start = processor_seconds(daemon.pid), time.monotonic()
        time.sleep(IDLE_SECONDS)
        used, passed = processor_seconds(daemon.pid) - before, time.monotonic() - start
    report("daemon: idle with 1,000 monitors, % of a core", 100 * used / passed, "< 0.5")


def measure_refresh(api: ApiServer, tunnels: int) -> None:
    """From SIGHUP to the first request of the cycle."""
    delays = []
    with Daemon(tunnels) as daemon:
        for _ in range(SIGNAL_ROUNDS):
            requests = len(api.requests)
            sent = daemon.refresh()
            delays.append(api.requests[requests][0] - 1000 * sent)
    report(f"daemon: SIGHUP to first request, {tunnels:,} monitors, ms",
           statistics.median(delays), "< 20")


def measure_stop(tunnels: int) -> None:
    """From SIGTERM to the end of the process, the slowest of all."""
    seconds = [Daemon(tunnels).stop() for _ in range(SIGNAL_ROUNDS // 2)]
    report(f"daemon: SIGTERM to end, {tunnels:,} monitors, s", max(seconds), "< 1")


def resources(pid: int) -> tuple[int, int, int]:
    """Returns descriptors, threads and memory of a process at rest."""
    time.sleep(SETTLE_SECONDS)
    return count(pid, "fd"), count(pid, "task"), memory(pid).own


def measure_leaks() -> None:
    """What is left after many rebuilds."""
    with Daemon(LEAK_TUNNELS) as daemon:
        list_in_kernel(LEAK_TUNNELS)
        for _ in range(LEAK_WARM_UP):
            daemon.refresh()
        before = resources(daemon.pid)
        for _ in range(LEAK_REBUILDS):
            daemon.refresh()
        after = resources(daemon.pid)
    descriptors, threads, grown = (new - old for new, old in zip(after, before))
    report(f"daemon: descriptors more after {LEAK_REBUILDS} rebuilds", descriptors, "<= 0")
    report(f"daemon: threads more after {LEAK_REBUILDS} rebuilds", threads, "<= 0")
    report("daemon: memory for each tunnel and rebuild, KiB",
           grown / LEAK_TUNNELS / LEAK_REBUILDS, "<= 1")


def main() -> None:
    """Measures all."""
    for name in ("cacerts", "certs", "private"):
        Path("/run/ipsec", name).mkdir(parents=True)
    configure(0)
    api = ApiServer(API_SOCKET, StateFile(STATE))
    api.start()
    measure_memory()
    measure_idle()
    measure_refresh(api, 0)
    measure_refresh(api, SOME)
    measure_refresh(api, MANY)
    measure_stop(MANY)
    measure_leaks()
    api.stop()


if __name__ == "__main__":
    main()
