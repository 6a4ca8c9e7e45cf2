"""An independent reading of /proc/stat: what the cards have to show between two states of it."""

from __future__ import annotations

from collections.abc import Sequence

Line = tuple[int, ...]  # user, nice, system, idle, iowait, irq, softirq, steal
IDLE, IOWAIT, COLUMNS = 3, 4, 8


def cpu_lines(text: str) -> list[Line]:
    """The counters of each CPU, in the order of the file."""
    return [tuple(map(int, line.split()[1:1 + COLUMNS])) for line in text.splitlines()
            if line.startswith("cpu") and line[3:4].isdigit()]


def usage(before: Line, after: Line) -> float:
    """The busy share of the time between, 0 to 1."""
    passed = [b - a for a, b in zip(before, after)]
    total = sum(passed)
    return (total - passed[IDLE] - passed[IOWAIT]) / total if total else 0.0


def usages(before: Sequence[Line], after: Sequence[Line]) -> list[float]:
    """The busy share of each CPU."""
    return [usage(a, b) for a, b in zip(before, after)]


def percentage(load: float) -> str:
    """A load as a card shows it."""
    return f"{load * 100:.0f}%"
