"""Plays scenarios inside the lab's kernel and leaves their results."""

from __future__ import annotations

import json
import subprocess
import threading
import time
import traceback
from contextlib import suppress
from pathlib import Path
from queue import Empty, SimpleQueue
from typing import Callable

from .catalogue import Scenario
from .lab import Lab
from .report import keep, report
from .waiting import Unexpected

OUT = Path("/run/out")
# There is one core, and stories wait more than they compute.
AT_A_TIME = 3
SHELL_HELPER = Path("/run/lab/on")


class Stage:
    """Where scenarios are played; `stream` takes lines for the person who waits outside."""

    def __init__(self, program: str, stream: Callable[[str], None], *, live: bool,
                 shell: bool) -> None:
        self._program = program
        self._stream = stream
        self._live = live
        self._shell = shell
        self._building = threading.Lock()
        self._labs = 0
        self.failures = 0

    def play_all(self, scenarios: list[Scenario]) -> None:
        """Plays the slow ones side by side and meanwhile the others, a few at a time."""
        others = SimpleQueue()
        for scenario in scenarios:
            if not scenario.slow:
                others.put(scenario)
        actors = [threading.Thread(target=self.play, args=(scenario,))
                  for scenario in scenarios if scenario.slow]
        actors += [threading.Thread(target=self._play_from, args=(others,))
                   for _ in range(1 if self._live or self._shell else AT_A_TIME)]
        for actor in actors:
            actor.start()
        for actor in actors:
            actor.join()

    def _play_from(self, scenarios: SimpleQueue[Scenario]) -> None:
        with suppress(Empty):
            while True:
                self.play(scenarios.get_nowait())

    def play(self, scenario: Scenario) -> None:
        """Plays one scenario in a lab of its own and writes down how it went."""
        folder = OUT / scenario.name
        folder.mkdir()
        begin = time.monotonic()
        with open(folder / "story.log", "w", encoding="utf-8", buffering=1) as log:
            def tell(line: str) -> None:
                print(f"{time.monotonic() - begin:7.2f}  {line}", file=log)
                if self._live:
                    self._stream(line)
            failure = self._story_in_a_lab(scenario, folder, tell)
            if failure:
                print(f"\nFAILED: {failure}", file=log)
        seconds = round(time.monotonic() - begin, 1)
        result = {"passed": not failure, "seconds": seconds, "title": scenario.title}
        (folder / "result.json").write_text(json.dumps(result))
        self.failures += bool(failure)
        self._stream(f"{'FAILED' if failure else 'passed'} {seconds:6.1f} s  {scenario.name}: "
                     f"{scenario.title}")

    def _story_in_a_lab(self, scenario: Scenario, folder: Path,
                        tell: Callable[[str], None]) -> str:
        """Returns why the scenario has failed, empty when it has passed."""
        try:
            with self._building:
                self._labs += 1
                lab = Lab(f"lab{self._labs}", self._program, tell)
        except Exception:  # the lab's own fault; the other scenarios go on
            return traceback.format_exc()
        try:
            failure = run_story(scenario, lab)
            if failure:
                (folder / "report.log").write_text(report(lab))
            if self._shell:
                open_shell(lab)
            keep(lab, folder)
            lab.close()
            return failure
        except Exception:
            return traceback.format_exc()


def run_story(scenario: Scenario, lab: Lab) -> str:
    """Returns why the story has failed, empty when it has not."""
    try:
        scenario.story(lab)
    except Unexpected as unexpected:
        place = traceback.extract_tb(unexpected.__traceback__)[1]
        return f"{unexpected}\n  at {Path(place.filename).name}:{place.lineno}: {place.line}"
    except Exception:  # a mistake in the scenario is its failure
        return traceback.format_exc()
    return ""


def open_shell(lab: Lab) -> None:
    """Lets a person look around before the lab goes; `on PLACE COMMAND...` enters a machine."""
    cases = "".join(f"{place.name.replace(' ', '-')}) thread={place.thread_id} ;;\n"
                    for place in lab.places())
    SHELL_HELPER.write_text(
        f"#!/bin/sh\ncase $1 in\n{cases}*) echo \"on PLACE COMMAND...\" >&2; exit 2 ;;\nesac\n"
        "shift\nPATH=/run/bin:$PATH exec nsenter --target $thread --mount --net \"$@\"\n")
    SHELL_HELPER.chmod(0o755)
    names = ", ".join(place.name.replace(" ", "-") for place in lab.places())
    with open("/dev/tty0", "r+b", buffering=0) as console:
        console.write(f"\r\nThe lab is yours: on PLACE COMMAND... with {names}; "
                      "Ctrl-D ends it.\r\n".encode())
        subprocess.run(["setsid", "--ctty", "sh", "-i"], stdin=console, stdout=console,
                       stderr=console, check=False, cwd="/",
                       env={"PATH": f"{SHELL_HELPER.parent}:/usr/sbin:/usr/bin:/sbin:/bin",
                            "HOME": "/", "TERM": "linux", "PS1": "lab# "})
