"""From what was measured to ratios, to verdicts, and into the document."""

from __future__ import annotations

import math
from collections.abc import Callable, Iterable, Iterator, Mapping, Sequence
from dataclasses import dataclass
from pathlib import Path
from statistics import median
from textwrap import fill

from beside_programs import EMPTY_WINDOW, OURS, OURS_BY_DEFAULT, PLAIN_READER, REFERENCE

OUTCOME, SUMMARY = "measured", "in plain words"  # what stands between marks in the document
UNKNOWN = math.nan  # not measured, or of a program that was left out
KB_PER_MIB = 1024
QUIET = 0.5  # CPUs that may be busy with other things
MS_PER_PERCENT = 10  # of one core, a second
FEW_CPUS, USUAL_CPUS = 2, 16
LINE_WIDTH = 140
OURS_IDLE, OURS_HIDDEN = "vantric, idle machine", "vantric, minimised"


@dataclass(frozen=True)
class Sample:
    """One measurement of one program in one round on a machine of one size. Times are CPU time unless they say otherwise."""
    program: str
    cpus: int
    round: int
    cpu_ms: float = UNKNOWN  # a second
    server_ms: float = UNKNOWN  # a second, of the X server for it
    private_kb: float = UNKNOWN  # private dirty
    rss_kb: float = UNKNOWN
    wakeups: float = UNKNOWN  # a second
    calls: float = UNKNOWN  # system calls a second
    threads: float = UNKNOWN
    main_ms: float = UNKNOWN  # a second, of its first thread
    start_ms: float = UNKNOWN  # of real time, until its window is there
    start_cpu_ms: float = UNKNOWN  # until it rests after that
    others_load: float = 0.0  # CPUs that were busy with what is none of ours

    @property
    def whole_ms(self) -> float:
        return self.cpu_ms + self.server_ms


Value = Callable[[Sample], float]


class Results:
    """All samples of a run. Programs are compared within a round, and the median of the rounds is told."""

    def __init__(self, samples: Iterable[Sample]) -> None:
        self._samples = list(samples)
        self.programs = list(dict.fromkeys(sample.program for sample in self._samples))
        self.sizes = sorted({sample.cpus for sample in self._samples})

    def figure(self, program: str, cpus: int, value: Value) -> float:
        return _median(self._by_round(program, cpus, value).values())

    def ratio(self, program: str, basis: str, cpus: int, value: Value) -> float:
        ours, theirs = (self._by_round(name, cpus, value) for name in (program, basis))
        return _median(ours[number] / theirs[number] for number in ours.keys() & theirs.keys() if theirs[number])

    def others_load(self, cpus: int) -> float:
        """The highest of any measurement."""
        return max(sample.others_load for sample in self._samples if sample.cpus == cpus)

    def was_disturbed(self) -> bool:
        return any(self.others_load(cpus) > QUIET for cpus in self.sizes)

    def _by_round(self, program: str, cpus: int, value: Value) -> Mapping[int, float]:
        measured = ((sample.round, value(sample)) for sample in self._of(program, cpus))
        return {number: figure for number, figure in measured if not math.isnan(figure)}

    def _of(self, program: str, cpus: int) -> Iterator[Sample]:
        return (sample for sample in self._samples if (sample.program, sample.cpus) == (program, cpus))


def _median(values: Iterable[float]) -> float:
    known = list(values)
    return median(known) if known else UNKNOWN


# --- tables ---

def cpu(sample: Sample) -> float:
    return sample.whole_ms


def server_share(sample: Sample) -> float:
    return 100 * sample.server_ms / sample.whole_ms if sample.whole_ms else UNKNOWN


def beside_reading(sample: Sample) -> float:
    """Of the monitor: its samplers have threads of their own."""
    return sample.main_ms + sample.server_ms


def private(sample: Sample) -> float:
    return sample.private_kb / KB_PER_MIB


def rss(sample: Sample) -> float:
    return sample.rss_kb / KB_PER_MIB


def start(sample: Sample) -> float:
    return sample.start_ms


def start_cpu(sample: Sample) -> float:
    return sample.start_cpu_ms


def wakeups(sample: Sample) -> float:
    return sample.wakeups


def calls(sample: Sample) -> float:
    return sample.calls


def threads(sample: Sample) -> float:
    return sample.threads


@dataclass(frozen=True)
class Column:
    """A figure with so many digits, and beside it as a ratio to that of another program, if there is one."""
    heading: str
    value: Value
    digits: int
    basis: str | None = None

    @property
    def headings(self) -> list[str]:
        return [self.heading, "ratio"] if self.basis else [self.heading]

    def cells(self, results: Results, program: str, cpus: int) -> list[str]:
        figure = _text(results.figure(program, cpus, self.value), self.digits)
        return [figure, _text(results.ratio(program, self.basis, cpus, self.value))] if self.basis else [figure]


COLUMNS = (
    Column("CPU, ms/s", cpu, 1, REFERENCE),
    Column("of it X server, %", server_share, 0),
    Column("Private, MiB", private, 1, EMPTY_WINDOW),
    Column("RSS, MiB", rss, 0),
    Column("Start, ms", start, 0, REFERENCE),
    Column("its CPU, ms", start_cpu, 0, REFERENCE),
    Column("Wake-ups/s", wakeups, 1),
    Column("Calls/s", calls, 0),
    Column("Threads", threads, 0),
)


def comparison(results: Results, cpus: int) -> str:
    """A line for each program on machines of that size."""
    rows = [[program, *(cell for column in COLUMNS for cell in column.cells(results, program, cpus))] for program in results.programs]
    return _table(["", *(heading for column in COLUMNS for heading in column.headings)], rows)


# --- lines to keep to ---

@dataclass(frozen=True)
class Limit:
    """What the monitor must reach: a figure of its own, the line on machines of each size, and where there is one, a goal beyond it."""
    name: str
    measured: Callable[[Results, int], float]
    line: Callable[[Results, int], float]
    goal: Callable[[Results, int], float] = lambda results, cpus: UNKNOWN


def _by_size(*values: float) -> Callable[[Results, int], float]:
    """One for each of LARGEST: that of the first size which is not smaller."""
    return lambda results, cpus: next((value for largest, value in zip(LARGEST, values) if cpus <= largest), values[-1])


def _for_many(value: float) -> Callable[[Results, int], float]:
    return lambda results, cpus: value if cpus >= MANY_CPUS else UNKNOWN


def _times(factor: float, line: Callable[[Results, int], float]) -> Callable[[Results, int], float]:
    return lambda results, cpus: factor * line(results, cpus)


def _ratio(program: str, basis: str, value: Value) -> Callable[[Results, int], float]:
    return lambda results, cpus: results.ratio(program, basis, cpus, value)


LARGEST = (2, 16, 64, 256)  # CPUs of a machine to which the lines of that place apply
MANY_CPUS = 64  # from here on a window of one column is several screens high
CPU_LINE, CPU_GOAL = _by_size(1.3, 1.2, 1.2, 2.5), _by_size(1.0, 1.0, 0.9, 1.5)
IDLE_SHARE = 0.6  # of the lines of a machine whose loads move
HIDDEN_SHARE = 0.4  # of a window that is seen: ticks set their labels, but nobody makes a frame
CALLS_FACTOR, CALLS_MORE = 1.1, 40.0

LIMITS = (
    Limit("CPU, of gkrellm's", _ratio(OURS, REFERENCE, cpu), CPU_LINE, CPU_GOAL),
    Limit("CPU in one column, of that in several", _ratio(OURS_BY_DEFAULT, OURS, cpu), _for_many(1.0)),
    Limit("CPU on an idle machine, of gkrellm's on a busy one", _ratio(OURS_IDLE, REFERENCE, cpu), _times(IDLE_SHARE, CPU_LINE),
          _times(IDLE_SHARE, CPU_GOAL)),
    Limit("CPU of a minimised window beside its reading, of a seen one's", lambda results, cpus:
          results.figure(OURS_HIDDEN, cpus, beside_reading) / results.figure(OURS, cpus, cpu), _by_size(HIDDEN_SHARE)),
    Limit("start, of gkrellm's", _ratio(OURS, REFERENCE, start), _by_size(1.0), _by_size(0.8)),
    Limit("CPU time of a start, of gkrellm's", _ratio(OURS, REFERENCE, start_cpu), _by_size(1.2)),
    Limit("private memory, of the empty window's", _ratio(OURS, EMPTY_WINDOW, private), _by_size(1.25, 1.3, 1.4, 2.0),
          _by_size(1.15, 1.2, 1.3, 1.7)),
    Limit("wake-ups a second", lambda results, cpus: results.figure(OURS, cpus, wakeups), _by_size(3.0)),
    Limit("system calls a second", lambda results, cpus: results.figure(OURS, cpus, calls),
          lambda results, cpus: CALLS_FACTOR * results.figure(PLAIN_READER, cpus, calls) + CALLS_MORE),
)


def verdicts(results: Results) -> str:
    """Each line to keep to, and whether it was kept; what was not measured or has no line is left out."""
    rows = []
    for limit in LIMITS:
        for cpus in results.sizes:
            measured, line, goal = (value(results, cpus) for value in (limit.measured, limit.line, limit.goal))
            if not math.isnan(measured) and not math.isnan(line):
                rows.append([limit.name, str(cpus), _text(measured), _text(line), _kept(measured, line), _text(goal), _kept(measured, goal)])
    return _table(["", "CPUs", "measured", "line", "kept", "goal", "reached"], rows)


def _kept(measured: float, line: float) -> str:
    return "–" if math.isnan(line) else "yes" if measured <= line else "no"


# --- text ---

def report(results: Results, circumstances: str) -> str:
    """The whole outcome as the document shows it."""
    parts = [f"{circumstances} {_disturbance(results)}"]
    for cpus in results.sizes:
        parts += [f"### {cpus} CPUs", *_warning(results, cpus), comparison(results, cpus)]
    return "\n\n".join([*parts, "### Lines to keep to", verdicts(results)])


def _disturbance(results: Results) -> str:
    highest = max(results.others_load(cpus) for cpus in results.sizes)
    return f"Beside the programs measured, their X servers and their machines, {highest:.2f} CPUs at most were busy with anything else."


def _warning(results: Results, cpus: int) -> list[str]:
    load = results.others_load(cpus)
    return [f"**Not for docs/performance.md: {load:.1f} CPUs were busy with other things.**"] if load > QUIET else []


def in_plain_words(results: Results) -> str:
    """What the monitor costs a usual machine, for who reads no tables."""
    if not {FEW_CPUS, USUAL_CPUS} <= set(results.sizes):
        raise ValueError(f"the machines of {FEW_CPUS} and {USUAL_CPUS} CPUs were not measured")
    cost, idle, hidden, few = (results.figure(program, cpus, cpu) / MS_PER_PERCENT for program, cpus in (
        (OURS, USUAL_CPUS), (OURS_IDLE, USUAL_CPUS), (OURS_HIDDEN, USUAL_CPUS), (OURS, FEW_CPUS)))
    memory, memory_of_few = (results.figure(OURS, cpus, private) for cpus in (USUAL_CPUS, FEW_CPUS))
    return fill(f"With {USUAL_CPUS} CPUs under a load that moves, Vantric takes {cost:.2f} % of one core, what the X server does for it "
                f"included, and {memory:.1f} MiB of memory that it shares with nobody; {idle:.2f} % while the machine is idle, {hidden:.2f} % "
                f"while the window is minimised. With 8 CPUs it lies between that and the {few:.2f} % and {memory_of_few:.1f} MiB of "
                f"{FEW_CPUS} CPUs.", LINE_WIDTH)


def write_into(document: Path, what: str, text: str) -> None:
    """Replaces what stands between two marks of the document."""
    begin, end = (f"<!-- {what} by bench/beside: {edge} -->" for edge in ("begin", "end"))
    before, has_begin, rest = document.read_text().partition(begin)
    _, has_end, after = rest.partition(end)
    if not has_begin or not has_end:
        raise ValueError(f"{document} lacks the marks for what is {what}")
    document.write_text(f"{before}{begin}\n\n{text}\n\n{end}{after}")


def _text(value: float, digits: int = 2) -> str:
    return "–" if math.isnan(value) else f"{value:.{digits}f}"


def _table(headings: Sequence[str], rows: Iterable[Sequence[str]]) -> str:
    lines = [headings, ["---", *["---:"] * (len(headings) - 1)], *rows]
    return "\n".join(f"| {' | '.join(line)} |" for line in lines)
