"""From what was measured to ratios, to verdicts, and into the document."""

from __future__ import annotations

import math
from collections.abc import Callable, Iterable, Iterator, Sequence
from dataclasses import dataclass
from pathlib import Path
from statistics import median

from beside_programs import EMPTY_WINDOW, OURS, PLAIN_READER, REFERENCE

BEGIN, END = "<!-- measured by bench/beside: begin -->", "<!-- measured by bench/beside: end -->"
UNKNOWN = math.nan  # of a program that was left out
KB_PER_MIB = 1024


@dataclass(frozen=True)
class Sample:
    """One program in one round on a machine of one size; times are CPU time."""
    program: str
    cpus: int
    round: int
    cpu_ms: float  # a second
    server_ms: float  # a second, of the X server for it
    private_kb: int
    rss_kb: int
    wakeups: float  # a second
    calls: float  # system calls a second
    threads: int
    start_ms: float  # until its window is there; not a number where there is none

    @property
    def whole_ms(self) -> float:
        return self.cpu_ms + self.server_ms


Value = Callable[[Sample], float]


class Results:
    """All samples of a run. Programs are compared within a round, and the median of the rounds is told."""

    def __init__(self, samples: Iterable[Sample]) -> None:
        self._samples = {(sample.program, sample.cpus, sample.round): sample for sample in samples}
        self.programs = list(dict.fromkeys(program for program, _, _ in self._samples))
        self.sizes = sorted({cpus for _, cpus, _ in self._samples})
        self.rounds = sorted({number for _, _, number in self._samples})

    def figure(self, program: str, cpus: int, value: Value) -> float:
        return self._median(value(sample) for sample in self._of(program, cpus))

    def ratio(self, program: str, basis: str, cpus: int, value: Value) -> float:
        pairs = ((sample, self._samples.get((basis, cpus, sample.round))) for sample in self._of(program, cpus))
        return self._median(value(sample) / value(other) if other else UNKNOWN for sample, other in pairs)

    def _of(self, program: str, cpus: int) -> Iterator[Sample]:
        return (sample for key, sample in self._samples.items() if key[:2] == (program, cpus))

    @staticmethod
    def _median(values: Iterable[float]) -> float:
        known = [value for value in values if not math.isnan(value)]
        return median(known) if known else UNKNOWN


# --- tables ---

def cpu(sample: Sample) -> float:
    return sample.whole_ms


def server_share(sample: Sample) -> float:
    return 100 * sample.server_ms / sample.whole_ms if sample.whole_ms else UNKNOWN


def private(sample: Sample) -> float:
    return sample.private_kb


def rss(sample: Sample) -> float:
    return sample.rss_kb


def start(sample: Sample) -> float:
    return sample.start_ms


def wakeups(sample: Sample) -> float:
    return sample.wakeups


def calls(sample: Sample) -> float:
    return sample.calls


HEADINGS = ("CPU", "of it X server, %", "Private memory", "RSS", "Start", "Wake-ups/s", "System calls/s", "Threads")


def comparison(results: Results, cpus: int) -> str:
    """A line for each program on machines of that size."""
    rows = []
    for program in results.programs:
        def ratio(basis: str, value: Value, program: str = program) -> str:
            return _text(results.ratio(program, basis, cpus, value))

        def figure(value: Value, digits: int, program: str = program) -> str:
            return _text(results.figure(program, cpus, value), digits)
        share = results.figure(program, cpus, server_share)
        rows.append([program, ratio(REFERENCE, cpu), _text(share, 0), ratio(EMPTY_WINDOW, private), ratio(EMPTY_WINDOW, rss),
                     ratio(REFERENCE, start), figure(wakeups, 1), figure(calls, 0), figure(lambda sample: sample.threads, 0)])
    return _table(["", *HEADINGS], rows)


def bases(results: Results) -> str:
    """What the ratios are ratios of, on the computer of this run."""
    rows = []
    for cpus in results.sizes:
        times = [results.figure(REFERENCE, cpus, value) for value in (cpu, start)]
        sizes = [results.figure(EMPTY_WINDOW, cpus, value) / KB_PER_MIB for value in (private, rss)]
        rows.append([str(cpus), *(_text(figure, 1) for figure in (*times, *sizes))])
    return _table(["CPUs", f"{REFERENCE}: CPU, ms/s", "start, ms", f"{EMPTY_WINDOW}: private, MiB", "RSS, MiB"], rows)


# --- lines to keep to ---

@dataclass(frozen=True)
class Limit:
    """What the monitor must reach: a figure of its own, the line on machines of each size, and where there is one, a goal beyond it."""
    name: str
    measured: Callable[[Results, int], float]
    line: Callable[[Results, int], float]
    goal: Callable[[Results, int], float] = lambda results, cpus: UNKNOWN


MANY_CPUS = 64  # more than these have lines of their own
CALLS_FACTOR, CALLS_MORE = 1.1, 40.0


def _by_size(few: float, many: float) -> Callable[[Results, int], float]:
    return lambda results, cpus: few if cpus <= MANY_CPUS else many


LIMITS = (
    Limit(f"CPU, of {REFERENCE}'s", lambda results, cpus: results.ratio(OURS, REFERENCE, cpus, cpu),
          _by_size(1.5, 2.2), _by_size(1.0, 1.3)),
    Limit(f"start, of {REFERENCE}'s", lambda results, cpus: results.ratio(OURS, REFERENCE, cpus, start), _by_size(0.9, 0.9)),
    Limit(f"private memory, of the {EMPTY_WINDOW}'s", lambda results, cpus: results.ratio(OURS, EMPTY_WINDOW, cpus, private),
          _by_size(1.5, 2.1)),
    Limit("wake-ups a second", lambda results, cpus: results.figure(OURS, cpus, wakeups), _by_size(4.0, 4.0)),
    Limit("system calls a second", lambda results, cpus: results.figure(OURS, cpus, calls),
          lambda results, cpus: CALLS_FACTOR * results.figure(PLAIN_READER, cpus, calls) + CALLS_MORE),
)


def verdicts(results: Results) -> str:
    """Each line to keep to, and whether it was kept."""
    rows = []
    for limit in LIMITS:
        for cpus in results.sizes:
            measured, line, goal = (value(results, cpus) for value in (limit.measured, limit.line, limit.goal))
            rows.append([limit.name, str(cpus), _text(measured), _text(line), _kept(measured, line), _text(goal), _kept(measured, goal)])
    return _table(["", "CPUs", "measured", "line", "kept", "goal", "reached"], rows)


def _kept(measured: float, line: float) -> str:
    return "–" if math.isnan(measured) or math.isnan(line) else "yes" if measured <= line else "no"


# --- text ---

def report(results: Results, circumstances: Sequence[str]) -> str:
    """The whole outcome as the document shows it."""
    parts = [*circumstances]
    for cpus in results.sizes:
        parts += [f"### {cpus} CPUs", comparison(results, cpus)]
    parts += ["### What the ratios stand on", bases(results), "### Lines to keep to", verdicts(results)]
    return "\n\n".join(parts)


def write_into(document: Path, text: str) -> None:
    """Replaces what stands between the two marks of the document."""
    before, begin, rest = document.read_text().partition(BEGIN)
    _, end, after = rest.partition(END)
    if not begin or not end:
        raise ValueError(f"{document} lacks the marks for what is measured")
    document.write_text(f"{before}{BEGIN}\n\n{text}\n\n{END}{after}")


def _text(value: float, digits: int = 2) -> str:
    return "–" if math.isnan(value) else f"{value:.{digits}f}"


def _table(headings: Sequence[str], rows: Iterable[Sequence[str]]) -> str:
    lines = [headings, ["---", *["---:"] * (len(headings) - 1)], *rows]
    return "\n".join(f"| {' | '.join(line)} |" for line in lines)
