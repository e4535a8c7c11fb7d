"""The list of all scenarios."""

from __future__ import annotations

import importlib
import sys
from dataclasses import dataclass
from pathlib import Path
from typing import TYPE_CHECKING, Callable

if TYPE_CHECKING:
    from .lab import Lab

Story = Callable[["Lab"], None]


@dataclass(frozen=True)
class Scenario:
    """One story: "gre.survives_a_restart" is that function in scenarios/gre.py.

    A slow one mostly waits for the manager's clocks; all slow ones run side by side. One
    that is only on demand runs when it is asked for by its name.
    """

    name: str
    title: str
    story: Story
    slow: bool
    on_demand: bool


catalogue: dict[str, Scenario] = {}


def scenario(*, slow: bool = False, on_demand: bool = False) -> Callable[[Story], Story]:
    """Puts a function into the catalogue; the first line of its docstring is its title."""
    def enter(story: Story) -> Story:
        name = f"{story.__module__.rpartition('.')[2]}.{story.__name__}"
        title = (story.__doc__ or "").strip().splitlines()[0]
        catalogue[name] = Scenario(name, title, story, slow, on_demand)
        return story
    return enter


def load_scenarios() -> dict[str, Scenario]:
    """Reads all files of the folder scenarios/ and returns the catalogue."""
    folder = Path(__file__).resolve().parent.parent / "scenarios"
    sys.path.insert(0, str(folder.parent))
    for path in sorted(folder.glob("*.py")):
        importlib.import_module(f"scenarios.{path.stem}")
    return catalogue
