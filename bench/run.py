"""Runs all benchmarks, each in a sandbox, and shows their results in one table.

Called by scripts/bench with the build directory, and optionally the names of those to run.
Exit status 0 when every measure is within its limit.
"""

from __future__ import annotations

import operator
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path
from typing import NamedTuple

HERE = Path(__file__).resolve().parent
IDLE_COMMANDS = ("ip", "ipsec", "firewall", "ping")
HOOKS = ("gre-tunnel-link-changed", "ipsec-tunnel-link-changed")
LINKS_INTO_USR = ("bin", "sbin", "lib", "lib32", "lib64", "libx32")
BENCHMARKS = {
    "gre_rebuild": ["/build/bench/gre_rebuild"],
    "ipsec_text": ["/build/bench/ipsec_text"],
    "ovpn_conf": ["/build/bench/ovpn_conf"],
    "ovpn_check": ["/build/bench/ovpn_check"],
    "daemon": ["/usr/bin/python3", "-B", "/project/bench/daemon.py"],
}
COMPARISONS = {"<": operator.lt, "<=": operator.le}


class Result(NamedTuple):
    """One line of the table. A limit of "-" is none."""

    measure: str
    value: float
    limit: str

    def verdict(self) -> str:
        """Returns "ok", "MISSED", or nothing when there is no limit."""
        if self.limit == "-":
            return ""
        comparison, most = self.limit.split()
        return "ok" if COMPARISONS[comparison](self.value, float(most)) else "MISSED"


def provide_commands(build: Path, directory: Path) -> None:
    """Puts the stand-ins for commands and hooks into a directory."""
    for kind, names in (("commands", IDLE_COMMANDS), ("hooks", HOOKS)):
        (directory / kind).mkdir()
        for name in names:
            shutil.copy(build / "bench/idle_command", directory / kind / name)
    shutil.copy(build / "bench/lasting_command", directory / "commands/openvpn")


def sandbox(build: Path, directory: Path) -> list[str]:
    """Returns the words that start a command in a fresh sandbox."""
    words = ["bwrap", "--unshare-user", "--uid", "0", "--gid", "0", "--unshare-pid",
             "--unshare-net", "--unshare-ipc", "--die-with-parent", "--new-session", "--clearenv",
             "--setenv", "PATH", "/commands:/usr/sbin:/usr/bin:/sbin:/bin", "--setenv", "LANG",
             "C.UTF-8", "--chdir", "/", "--proc", "/proc", "--dev", "/dev", "--tmpfs", "/dev/shm",
             "--tmpfs", "/tmp", "--tmpfs", "/run", "--dir", "/var", "--symlink", "/run",
             "/var/run"]
    for name in LINKS_INTO_USR:
        if Path("/", name).is_symlink():
            words += ["--symlink", f"usr/{name}", f"/{name}"]
    for source, target in (("/usr", "/usr"), ("/etc/ld.so.cache", "/etc/ld.so.cache"),
                           (directory / "commands", "/commands"),
                           (directory / "hooks", "/etc/quorvex/hooks"), (build, "/build"),
                           (HERE.parent, "/project")):
        words += ["--ro-bind", str(source), target]
    return words


def run(words: list[str]) -> list[Result]:
    """Runs one benchmark and returns what it measured; its complaints are shown."""
    done = subprocess.run(words, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True,
                          check=True)
    lines = (line.split("\t") for line in done.stdout.splitlines())
    return [Result(measure, float(value), limit) for measure, value, limit in lines]


def show(results: list[Result]) -> None:
    """Prints the table."""
    width = max(len(result.measure) for result in results)
    print(f"\n{'measure':{width}}  {'value':>9}  {'limit':>8}  verdict")
    for result in results:
        print(f"{result.measure:{width}}  {result.value:9.3f}  {result.limit:>8}  "
              f"{result.verdict()}")


def main(build: Path, names: list[str]) -> int:
    """Runs the named benchmarks, or all."""
    results = []
    with tempfile.TemporaryDirectory(prefix="bench-") as place:
        provide_commands(build, Path(place))
        for name in names or BENCHMARKS:
            print(f"running {name} ...", file=sys.stderr, flush=True)
            results += run(sandbox(build, Path(place)) + BENCHMARKS[name])
    show(results)
    missed = sum(result.verdict() == "MISSED" for result in results)
    print(f"\n{len(results)} measures, {missed} over their limit")
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1]).resolve(), sys.argv[2:]))
