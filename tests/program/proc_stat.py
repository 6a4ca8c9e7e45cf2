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


def bounds(first: tuple[Line, Line], last: tuple[Line, Line]) -> tuple[float, float]:
    """The least and the greatest busy share of a time that began somewhere between two states, and ended somewhere between two later ones."""
    (began_after, began_before), (ended_after, ended_before) = [[_busy_and_idle(line) for line in states] for states in (first, last)]
    least, longest_rest = ended_after[0] - began_before[0], ended_before[1] - began_after[1]
    most, shortest_rest = ended_before[0] - began_after[0], ended_after[1] - began_before[1]
    return _share(max(least, 0), longest_rest), _share(most, max(shortest_rest, 0))


def _busy_and_idle(line: Line) -> tuple[int, int]:
    idle = line[IDLE] + line[IOWAIT]
    return sum(line) - idle, idle


def _share(busy: int, idle: int) -> float:
    return busy / (busy + idle) if busy + idle > 0 else 0.0
