"""Plays scenarios inside the lab's kernel and leaves their results."""

from __future__ import annotations

import json
import threading
import time
import traceback
from contextlib import suppress
from pathlib import Path
from queue import Empty, SimpleQueue
from typing import Callable

from .catalogue import Scenario
from .lab import Lab
from .narrator import Narrator
from .report import keep, report
from .shell import open_shell
from .waiting import Unexpected

OUT = Path("/run/out")
# There is one core, and stories wait more than they compute.
AT_A_TIME = 3


class Stage:
    """Where scenarios are played; `stream` takes lines for the person who waits outside."""

    def __init__(self, program: str, stream: Callable[[str], None], *, live: bool,
                 shell: str) -> None:
        """`shell` is the kind of the terminal that shells are opened on, empty for none."""
        self._program = program
        self._stream = stream
        self._live = live
        self._shell = shell
        self._building = threading.Lock()
        self._labs = 0
        self.failures = 0

    def play_all(self, scenarios: list[Scenario]) -> None:
        """Plays the slow ones side by side and meanwhile the others, a few at a time.

        With a person who watches it is one after the other.
        """
        if self._live or self._shell:
            for scenario in scenarios:
                self.play(scenario)
            return
        others = SimpleQueue()
        for scenario in scenarios:
            if not scenario.slow:
                others.put(scenario)
        # Those with the longest clocks come last in the catalogue, and begin first.
        actors = [threading.Thread(target=self.play, args=(scenario,))
                  for scenario in reversed(scenarios) if scenario.slow]
        actors += [threading.Thread(target=self._play_from, args=(others,))
                   for _ in range(AT_A_TIME)]
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
            tell = Narrator(log, self._stream if self._live else lambda line: None)
            try:
                failure = self._story_in_a_lab(scenario, folder, tell)
            except Exception:  # the lab's own fault; the other scenarios go on
                failure = tell_failure(tell, traceback.format_exc())
        seconds = round(time.monotonic() - begin, 1)
        result = {"passed": not failure, "seconds": seconds, "title": scenario.title}
        (folder / "result.json").write_text(json.dumps(result))
        self.failures += bool(failure)
        self._stream(f"{'FAILED' if failure else 'passed'} {seconds:6.1f} s  {scenario.name}: "
                     f"{scenario.title}")

    def _story_in_a_lab(self, scenario: Scenario, folder: Path, tell: Narrator) -> str:
        """Returns why the scenario has failed, empty when it has passed."""
        with self._building:
            self._labs += 1
            lab = Lab(f"lab{self._labs}", self._program, tell)
        failure = run_story(scenario, lab)
        if failure:
            tell_failure(tell, failure)
            (folder / "report.log").write_text(report(lab))
        if self._shell:
            open_shell(lab, self._program, self._shell)
        keep(lab, folder)
        lab.close()
        return failure


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


def tell_failure(tell: Narrator, failure: str) -> str:
    """Ends a story with why it has failed, and returns that."""
    tell("")
    for line in f"FAILED: {failure}".splitlines():
        tell(line)
    return failure
