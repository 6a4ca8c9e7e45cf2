"""The loads on the cards and in the total chart, against an independent reading of the same counters."""

from __future__ import annotations

import itertools
import os
import random
import signal
import subprocess
import threading
import time
from collections.abc import Callable, Iterator
from contextlib import ExitStack
from pathlib import Path
from typing import NamedTuple

import pytest

from chart_pixels import read_overlay
from displays import XDisplay, wait_until
from fakemachine import Machine, preset
from monitor import TIMEOUT, Card, Gate, Monitor, Start
from proc_stat import Line, bounds, cpu_lines, percentage, usages
from repeating import Repeating

STAT = "/proc/stat"
LOW, MIDDLE, HIGH = (25, 153, 51), (204, 153, 0), (229, 51, 25)  # of the light theme


def steady(percent: list[float], machine: str | dict = "vm-2") -> dict:
    """A machine with these loads on its CPUs, from the front again if there are more."""
    description = preset(machine) if isinstance(machine, str) else machine
    return {**description, "load": {"kind": "steady", "percent": percent}}


def cpus(count: int) -> dict:
    return {"clusters": [{"cores": count}]}


def overlay(monitor: Monitor, folder: Path) -> str:
    """The percentage in the total chart."""
    picture = monitor.picture(folder / "window.png")
    return read_overlay(picture, monitor.content().total_chart, monitor.display.scale)


def texts(percent: list[float]) -> list[str]:
    return [f"{value:.0f}%" for value in percent]


# --- steady loads ---

def test_each_card_shows_the_load_of_its_cpu(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    loads = [0, 1, 4, 17, 29, 30, 31, 42, 50, 64, 69, 70, 71, 88, 99, 100]
    monitor = start(x11, steady(loads, "desktop-16"))
    content = monitor.content()
    assert {card.percentage for card in content.cards} <= {"0%"} | set(texts(loads))  # 0% before the first reading
    monitor.wait_for_percentages(content.cards, texts(loads), "steady load")
    bands = [LOW] * 5 + [MIDDLE] * 6 + [HIGH] * 5
    assert [monitor.bus.text_color(card.percentage_label) for card in content.cards] == bands
    mean = f"{sum(loads) / len(loads):.0f}%"
    wait_until(lambda: overlay(monitor, tmp_path) == mean, TIMEOUT, f"{mean} in the total chart")


def test_every_kind_of_time_counts_where_it_belongs(x11: XDisplay, machines: ExitStack, start: Start) -> None:
    kinds = ("user", "nice", "system", "idle", "iowait", "irq", "softirq", "steal", "guest", "guest_nice")
    machine = machines.enter_context(Machine({**cpus(len(kinds)), "load": {"kind": "frozen"}}))
    monitor = start(x11, machine)
    cards = monitor.content().cards
    # CPU n spends half of its time idle, a quarter waiting for a disk, and the rest with the n-th kind.
    always = {"idle": 50, "iowait": 25}
    counters = Counting(machine, [[always.get(name, 0) + 25 * (name == kind) for name in kinds] for kind in kinds])
    idle, busy = "0%", "25%"
    expected = [busy, busy, busy, idle, idle, busy, busy, busy, idle, idle]
    with counters:
        monitor.wait_for_percentages(cards, expected, f"time of each kind: {', '.join(kinds)}")


class Counting(Repeating):
    """Advances the counters of /proc/stat ten times a second: each column of each CPU by its own amount."""

    def __init__(self, machine: Machine, amounts: list[list[int]]) -> None:
        super().__init__(0.1)
        self._machine, self._amounts = machine, amounts
        self._sums = [[0] * len(columns) for columns in amounts]

    def step(self) -> None:
        self._sums = [[a + b for a, b in zip(*columns)] for columns in zip(self._sums, self._amounts)]
        lines = [f"cpu{n} {' '.join(map(str, columns))}\n" for n, columns in enumerate(self._sums)]
        # No kernel puts another line between those of the CPUs; it would not end the list.
        self._machine.write(STAT, f"cpu  1 2 3 4 5 6 7 8 0 0\n{lines[0]}intr 1 2 3\n{''.join(lines[1:])}ctxt 7\n")


# --- moving loads ---

class State(NamedTuple):
    """/proc/stat as it has been since some moment."""
    since: float
    lines: list[Line]


class Wandering(Repeating):
    """Loads that wander, in a /proc/stat that is rewritten ten times a second, with a memory of all its states."""

    TICKS = 10  # of each CPU between two states

    def __init__(self, machine: Machine, count: int, seed: int) -> None:
        super().__init__(0.1)
        self._machine = machine
        self._random = random.Random(seed)
        self._loads = [self._random.uniform(0, self.TICKS) for _ in range(count)]
        self._columns = [[1000 * n, 0, 0, 1000, 0, 0, 0, 0] for n in range(count)]
        self.states: list[State] = []
        self._publish()

    def step(self) -> None:
        for place, columns in enumerate(self._columns):
            moved = self._loads[place] + self._random.uniform(-2.5, 2.5)
            self._loads[place] = min(max(moved, 0), self.TICKS)
            busy = round(self._loads[place])
            columns[0] += busy
            columns[3] += self.TICKS - busy
        self._publish()

    def _publish(self) -> None:
        lines = [f"cpu{n} {' '.join(map(str, columns))}\n" for n, columns in enumerate(self._columns)]
        text = "cpu  1 2 3 4 5 6 7 8\n" + "".join(lines)
        self.states.append(State(time.monotonic(), cpu_lines(text)))
        self._machine.write(STAT, text)

    def explanation(self, shown: list[str]) -> list[float] | None:
        """The loads between two states about a second apart that look like this, if there are any. Where we have been held up, both readings
        may have found the same state."""
        states = [*self.states, State(time.monotonic(), [])]
        lasting = [(state, following.since - state.since) for state, following in itertools.pairwise(states)]
        for (before, seconds), (after, _) in itertools.combinations_with_replacement(lasting, 2):
            # Not exactly a second, as we may have been held up between a note and its state.
            if 0.3 < after.since - before.since < 4 or (before is after and seconds > 0.9):
                loads = usages(before.lines, after.lines)
                if [percentage(load) for load in loads] == shown:
                    return loads
        return None


def test_moving_loads_of_all_cards_and_the_total_are_those_of_one_second(
        x11: XDisplay, machines: ExitStack, start: Start, tmp_path: Path) -> None:
    seed = random.randrange(10**6)
    print(f"seed {seed}")
    count = 6
    machine = machines.enter_context(Machine({**cpus(count), "load": {"kind": "frozen"}}))
    with Wandering(machine, count, seed) as wandering:
        monitor = start(x11, machine)
        cards = monitor.content().cards
        nothing = ["0%"] * count
        wait_until(lambda: monitor.percentages(cards) != nothing, TIMEOUT, "a first reading")
        seen: list[list[str]] = []
        totals_seen: set[tuple[str, ...]] = set()

        def look() -> bool:
            shown = monitor.percentages(cards)
            if shown not in seen:
                seen.append(shown)
                loads = wandering.explanation(shown)
                assert loads is not None, f"no second had the loads {shown}"
            else:
                loads = wandering.explanation(shown)
            # The chart is painted a moment after the labels have changed, so only an agreement counts.
            if overlay(monitor, tmp_path) == percentage(sum(loads) / count):
                totals_seen.add(tuple(shown))
            return len(seen) >= 6 and len(totals_seen) >= 4
        wait_until(look, TIMEOUT, "six readings, and the total of four")


# --- the real machine ---

@pytest.fixture
def busy_cpu() -> Iterator[int]:
    """The position of a CPU of the real machine that is busy now and then."""
    number = min(os.sched_getaffinity(0))
    loop = subprocess.Popen(["taskset", "--cpu-list", str(number), "sh", "-c", "while :; do :; done"])
    stop = threading.Event()

    def rest_now_and_then() -> None:
        for signal_number in itertools.cycle((signal.SIGSTOP, signal.SIGCONT)):
            if stop.wait(random.uniform(0.8, 2.2)):
                return
            loop.send_signal(signal_number)
    thread = threading.Thread(target=rest_now_and_then)
    thread.start()
    try:
        numbers = [int(line.split()[0][3:]) for line in Path(STAT).read_text().splitlines()
                   if line.startswith("cpu") and line[3].isdigit()]
        yield numbers.index(number)
    finally:
        stop.set()
        thread.join()
        loop.kill()
        loop.wait()


class Seen(NamedTuple):
    """Percentages that have appeared on the cards."""
    at: float
    values: list[int]


SHORTEST_SECOND, LONGEST_SECOND = 0.3, 4.0  # from one reading to the next, on a busy computer
LONGEST_TELLING = 4.0  # from a reading to its percentages
HALF_A_POINT = 0.5  # they are rounded


class Recorder(Repeating):
    """Reads the real /proc/stat fifty times a second."""

    def __init__(self) -> None:
        super().__init__(0.02)
        self.states: list[State] = []

    def step(self) -> None:
        self.states.append(State(time.monotonic(), cpu_lines(Path(STAT).read_text())))

    def explains(self, seen: Seen) -> bool:
        """Whether these are the loads of some second or so that ended shortly before. Nobody can tell from outside when the program has read
        the file; but it did so between two of our own readings, however late those were."""
        states = self.states
        pairs = [(a, b) for a, b in itertools.pairwise(states) if seen.at - LONGEST_TELLING - LONGEST_SECOND < b.since and a.since < seen.at]
        return any(self._can_be(seen.values, first, last) for last in pairs if last[1].since > seen.at - LONGEST_TELLING
                   for first in pairs
                   if last[1].since - first[0].since > SHORTEST_SECOND and last[0].since - first[1].since < LONGEST_SECOND)

    @staticmethod
    def _can_be(values: list[int], first: tuple[State, State], last: tuple[State, State]) -> bool:
        lines = zip(zip(*(state.lines for state in first)), zip(*(state.lines for state in last)))
        for value, (begun, ended) in zip(values, lines):
            least, most = bounds(begun, ended)
            if not 100 * least - HALF_A_POINT <= value <= 100 * most + HALF_A_POINT:
                return False
        return True


def test_loads_of_the_real_machine(x11: XDisplay, start: Start, busy_cpu: int) -> None:
    with Recorder() as recorder:
        monitor = start(x11)
        cards = monitor.content().cards
        assert len(cards) == len(list(Path("/sys/devices/system/cpu").glob("cpu[0-9]*")))
        seen: list[Seen] = []

        def has_seen_enough() -> bool:
            values = [int(text.rstrip("%")) for text in monitor.percentages(cards)]
            if values != [0] * len(cards) and (not seen or values != seen[-1].values):
                seen.append(Seen(time.monotonic(), values))
            busiest = max((s.values[busy_cpu] for s in seen), default=0)
            # On a machine that is busy anyway the readings may never change.
            is_level = bool(seen) and min(seen[-1].values) >= 95 and time.monotonic() - seen[-1].at > 5
            return busiest >= 80 and (len(seen) >= 7 or is_level)
        wait_until(has_seen_enough, TIMEOUT, f"seven readings, with CPU {busy_cpu} busy in one")

    unexplained = [one for one in seen if not recorder.explains(one)]
    assert unexplained == [], f"no second of our own readings had these loads; all of them: {seen}"


# --- CPUs and files that go away ---

def test_cpus_go_away_and_come_back(x11: XDisplay, machines: ExitStack, start: Start) -> None:
    loads = [10, 20, 30, 40, 50, 60, 70, 80]
    machine = machines.enter_context(Machine(steady(loads, cpus(8))))
    monitor = start(x11, machine)
    cards = monitor.content().cards
    monitor.wait_for_percentages(cards, texts(loads), "at first")
    machine.cpu_offline(3)
    machine.cpu_offline(7)
    # A CPU is known by its place in the file, so those behind move up.
    monitor.wait_for_percentages(cards, texts([10, 20, 30, 50, 60, 70, 0, 0]), "without CPUs 3 and 7")
    machine.cpu_online(3)
    machine.cpu_online(7)
    monitor.wait_for_percentages(cards, texts(loads), "with all of them again")
    assert [card.name for card in monitor.content().cards] == [f"Core {n}" for n in range(1, 9)]


BREAKAGES: dict[str, Callable[[Machine], None]] = {
    "removed": lambda machine: machine.remove(STAT),
    "unreadable": lambda machine: machine.make_unreadable(STAT),
    "failing": lambda machine: machine.make_failing(STAT),
    "a directory": lambda machine: machine.make_directory(STAT),
    "a link to itself": lambda machine: machine.make_loop(STAT),
    "empty": lambda machine: machine.write(STAT, ""),
    "without CPUs": lambda machine: machine.write(STAT, "cpu  1 2 3 4 5 6 7 8 0 0\nintr 12\ncpux 1 2 3 4\ncpu\n"),
    "of letters": lambda machine: machine.write(STAT, "cpu0 a b c d\ncpu1 x\n"),
}


def test_stat_file_breaks_and_is_mended(x11: XDisplay, machines: ExitStack, start: Start) -> None:
    loads = [35, 85]
    running: dict[str, tuple[Machine, Monitor, list[Card]]] = {}
    for name in BREAKAGES:
        machine = machines.enter_context(Machine(steady(loads)))
        monitor = start(x11, machine, drop_caps=name == "unreadable")
        running[name] = machine, monitor, monitor.content().cards
    for machine, monitor, cards in running.values():
        monitor.wait_for_percentages(cards, texts(loads), "at first")
    for name, (machine, _, _) in running.items():
        BREAKAGES[name](machine)
    for name, (_, monitor, cards) in running.items():
        monitor.wait_for_percentages(cards, ["0%", "0%"], f"{STAT} is {name}")
    for name, (machine, _, _) in running.items():
        if os.path.lexists(machine.outside(STAT)):
            machine.remove(STAT)
        machine.hand_back(STAT)
    for name, (_, monitor, cards) in running.items():
        monitor.wait_for_percentages(cards, texts(loads), f"{STAT} was {name}")


def test_reading_that_hangs_stops_neither_window_nor_end(x11: XDisplay, machines: ExitStack, start: Start) -> None:
    machine = machines.enter_context(Machine(steady([50, 50])))
    monitor = start(x11, machine)
    cards = monitor.content().cards
    monitor.wait_for_percentages(cards, ["50%", "50%"], "at first")
    machine.make_fifo(STAT)
    gate = Gate(machine.outside(STAT))
    gate.wait_for_program()
    x11.resize_until(monitor.window, 400, 600, lambda: monitor.content().total_panel.width == 400, TIMEOUT, "a window that follows its frame")
    assert monitor.percentages(cards) == ["50%", "50%"]
    monitor.send(signal.SIGTERM)
    gate.open()
    monitor.assert_clean_end()
