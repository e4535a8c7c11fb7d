"""The program inside the lab's kernel: plays the scenarios that the host has asked for."""

from __future__ import annotations

import json
import sys
import threading
import tty
from concurrent.futures import ThreadPoolExecutor

from harness.catalogue import load_scenarios
from harness.orphans import clear_orphans_away, take_in_orphans
from harness.play import OUT, Stage

# A serial line leads to the program on the host that has booted this kernel.
STREAM = "/dev/ttyS0"


def main() -> int:
    """Returns 0 when all scenarios have passed."""
    request = json.loads((OUT / "request.json").read_text())
    scenarios = load_scenarios()
    take_in_orphans()
    one_at_a_time = threading.Lock()
    with open(STREAM, "w", encoding="utf-8") as stream:
        tty.setraw(stream.fileno())

        def send(line: str) -> None:
            with one_at_a_time:
                print(line, file=stream, flush=True)

        stage = Stage(request["program"], send, live=request["live"], shell=request["shell"])
        with ThreadPoolExecutor(1) as pool:
            play = pool.submit(stage.play_all, [scenarios[name] for name in request["scenarios"]])
            clear_orphans_away(play.done)
            play.result()
    return 1 if stage.failures else 0


if __name__ == "__main__":
    sys.exit(main())
