"""Signals at random moments, and what is remembered after them: always a whole line, and one that was true.

VANTRIC_SIGNAL_ROUNDS is how many programs each of the tests ends in that way.
"""

from __future__ import annotations

import itertools
import os
import random
import signal
import statistics
import subprocess
import threading
import time
from collections import Counter, defaultdict
from collections.abc import Callable, Iterator
from contextlib import ExitStack, contextmanager
from dataclasses import dataclass
from pathlib import Path

import pytest

from displays import DisplayError, SwayDisplay, XDisplay, wait_until
from fakemachine import Machine, preset
from geometry_records import UNSTORED, Home, Record, Stored, interrupted, terminated, windows_of
from monitor import PROGRAM_NAME, QUIT_REFUSED, TIMEOUT, Gate, Monitor, Start, wait_for_main_loop, write_settings

ROUNDS = int(os.environ.get("VANTRIC_SIGNAL_ROUNDS", "10"))
AT_ONCE, MOVING_AT_ONCE = 10, 5  # programs side by side; more of them a window manager can't keep up with
SIGNALS = {terminated: signal.SIGTERM, interrupted: signal.SIGINT}
VERTICAL, HORIZONTAL = Record(123, 77, 431, 567, 3), Record(40, 300, 900, 310, 5)
DAMAGED = Stored(VERTICAL, HORIZONTAL).line[:-20].encode()


@dataclass
class KeptHome(Home):
    """A home, and what was remembered in it before the program's start."""
    before: Stored | None = None


class Round:
    """A program that is to end at some moment from now on."""

    def __init__(self, home: KeptHome, monitor: Monitor, end: Callable[[Monitor], None], delay: float) -> None:
        self.home, self.monitor = home, monitor
        self._end, self._due = end, time.monotonic() + delay
        self._number = SIGNALS.get(end)  # none: the window is closed
        self._asked = 0  # how often it was asked to end
        self._asked_at = 0.0
        self._was_caught = True
        self.seconds = 0.0  # from the request that it has followed to its end

    @property
    def kind(self) -> str:
        return self._number.name if self._number else "close"

    def advance(self) -> bool:
        """Does what is to be done now; says whether the program has ended."""
        now = time.monotonic()
        if not self._asked:
            if now >= self._due:
                self._was_caught = self._number is None or self.monitor.catches(self._number)
                self._ask(self._end)
            return False
        if not self.monitor.running():
            self.seconds = now - self._asked_at
            return True
        if self._refusals() == self._asked and self.monitor.sleeps():  # before the main loop, so it has gone on
            self._ask(terminated)
        return False

    def _ask(self, end: Callable[[Monitor], None]) -> None:
        self._asked += 1
        self._asked_at = time.monotonic()
        end(self.monitor)

    def _refusals(self) -> int:
        return len(QUIT_REFUSED.findall(self.monitor.complaints()))

    def outcome(self) -> str:
        """How it has ended, after making sure that it may end so, and has said only what it had to."""
        assert QUIT_REFUSED.sub("", self.monitor.complaints()) == ""
        if not self._was_caught and self.monitor.status == -self._number:
            return "died early"
        assert (self.monitor.status, self._refusals()) == (0, self._asked - 1)
        return "ended" if self._asked == 1 else "went on"

    def check_record(self, outcome: str, places: set[tuple[int, int]] | None, sizes: set[tuple[int, int]]) -> None:
        """The file is as it was before, or whole and true: one of these places and sizes, and the other orientation kept."""
        before, after = self.home.before, self.home.stored
        if outcome == "died early":
            assert after == before
            assert self.home.geometry.exists() == (before is not None)
            return
        assert after, self.home.geometry.read_bytes()
        assert after.horizontal == (before.horizontal if before else UNSTORED)
        assert after.vertical.size in sizes
        assert places is None or after.vertical.place in places
        assert after.vertical.num_columns == (before.vertical.num_columns if before else 1)


class Tally:
    """All rounds of a test: a seed for their moments, and what came of them."""

    def __init__(self) -> None:
        self._outcomes: Counter[str] = Counter()
        self._seconds: defaultdict[str, list[float]] = defaultdict(list)
        seed = random.randrange(10**6)
        print(f"seed {seed}")
        self.random = random.Random(seed)

    def follow(self, rounds: list[Round], places: set[tuple[int, int]] | None, sizes: set[tuple[int, int]]) -> None:
        """Follows these rounds to their ends, and checks them."""
        going = list(rounds)

        def all_have_ended() -> bool:
            going[:] = [one for one in going if not one.advance()]
            return not going
        wait_until(all_have_ended, 2 * TIMEOUT, "the ends of all of them")
        for one in rounds:
            outcome = one.outcome()
            one.check_record(outcome, places, sizes)
            self._outcomes[outcome] += 1
            self._seconds[one.kind].append(one.seconds)

    def report(self) -> str:
        times = [f"{kind} {statistics.median(seconds):.2f} (most {max(seconds):.2f})" for kind, seconds in self._seconds.items()]
        return f"{dict(self._outcomes)}, seconds to the end: {', '.join(times)}"


def homes_for(folder: Path, numbers: list[int]) -> list[KeptHome]:
    """Home folders, every second one with a record."""
    homes = [KeptHome(folder / str(number), None if number % 2 else Stored(VERTICAL, HORIZONTAL)) for number in numbers]
    for home in homes:
        if home.before:
            home.write(home.before)
    return homes


def batches(at_once: int) -> Iterator[list[int]]:
    """The numbers of the rounds, in batches."""
    for first in range(0, ROUNDS, at_once):
        yield list(range(first, min(first + at_once, ROUNDS)))


# --- during the start ---

def seconds_of_a_start(display: XDisplay, start: Start, folder: Path) -> float:
    """How long it takes here until as many programs as in a batch are in their main loops."""
    begin = time.monotonic()
    monitors = [home.start(start, display) for home in homes_for(folder, list(range(AT_ONCE)))]
    for monitor in monitors:
        wait_for_main_loop(monitor)
    return time.monotonic() - begin


def test_signals_during_the_start(managed: XDisplay, start: Start, tmp_path: Path) -> None:
    tally = Tally()
    spread = seconds_of_a_start(managed, start, tmp_path / "measured")
    ends = itertools.cycle(SIGNALS)
    for numbers in batches(AT_ONCE):
        rounds = [Round(home, home.start(start, managed), next(ends), tally.random.uniform(0, spread))
                  for home in homes_for(tmp_path, numbers)]
        tally.follow(rounds, None, {VERTICAL.size, (150, 700)})
    print(tally.report())


@pytest.mark.parametrize("content", [DAMAGED, None], ids=["damaged", "none"])
def test_signal_before_the_handlers_leaves_the_file_alone(content: bytes | None, x11: XDisplay, machines: ExitStack, start: Start,
                                                          tmp_path: Path) -> None:
    home = Home(tmp_path)
    if content is not None:
        home.write(content)
    machine = machines.enter_context(Machine(preset("vm-2")))
    machine.make_fifo("/proc/cpuinfo")  # read before anything else is done
    gate = Gate(machine.outside("/proc/cpuinfo"))
    monitor = home.start(start, x11, machine)
    gate.wait_for_program()
    terminated(monitor)
    assert monitor.wait() == -signal.SIGTERM
    assert (home.geometry.read_bytes() if home.geometry.exists() else None) == content


@pytest.mark.parametrize("end", SIGNALS)
def test_signal_before_the_window_saves_and_the_next_one_too(end: Callable[[Monitor], None], x11: XDisplay, start: Start,
                                                             tmp_path: Path) -> None:
    home = Home(tmp_path)
    home.write(Stored(VERTICAL, HORIZONTAL))
    settings = write_settings(tmp_path, "")
    settings.unlink()
    os.mkfifo(settings)  # read between the display's opening and the window
    gate = Gate(settings)
    monitor = home.start(start, x11, orientation=None)
    gate.wait_for_program()
    end(monitor)
    gate.open()
    wait_until(lambda: QUIT_REFUSED.fullmatch(monitor.complaints()), TIMEOUT, "the refusal to end")
    window = monitor.window
    x11.move(window, 200, 100)
    home.wait_for(Stored(VERTICAL._replace(x=200, y=100), HORIZONTAL), "moved")
    home.write(DAMAGED)
    end(monitor)
    assert monitor.wait() == 0
    assert home.stored and home.stored.vertical == VERTICAL._replace(x=200, y=100)


# --- while the window moves ---

PLACES = [(50 + 13 * step % 350, 40 + 17 * step % 250) for step in range(300)]
SIZES = [(450 + 7 * step % 200, 400 + 11 * step % 200) for step in range(300)]


@contextmanager
def moving(display: XDisplay, window: int, home: Home) -> Iterator[None]:
    """Moves and resizes the window many times a second, as somebody does who drags it. The program has saved some of it by then."""
    words = [word for place, size in zip(PLACES, SIZES) for word in (
        "windowmove", str(window), *map(str, place), "sleep", "0.03", "windowsize", str(window), *map(str, size), "sleep", "0.03")]
    mover = subprocess.Popen(["xdotool", *words], env=display.env, stderr=subprocess.DEVNULL)  # it complains when the window goes
    try:
        wait_until(lambda: (stored := home.stored) and stored.vertical.size in SIZES, TIMEOUT, "the window's moving")
        yield
    finally:
        mover.kill()
        mover.wait()


def test_ends_while_the_window_moves(managed: XDisplay, start: Start, tmp_path: Path) -> None:
    tally = Tally()
    for numbers in batches(MOVING_AT_ONCE):
        homes = homes_for(tmp_path, numbers)
        monitors = [home.start(start, managed) for home in homes]
        windows = windows_of(managed, monitors)
        for monitor in monitors:
            wait_for_main_loop(monitor)
        with ExitStack() as movers:
            for home, window in zip(homes, windows):
                movers.enter_context(moving(managed, window, home))
            ends = [(terminated, interrupted, lambda _, window=window: managed.close(window))[number % 3]
                    for number, window in zip(numbers, windows)]
            rounds = [Round(home, monitor, end, tally.random.uniform(0, 1)) for home, monitor, end in zip(homes, monitors, ends)]
            tally.follow(rounds, set(PLACES), set(SIZES))
    print(tally.report())


@contextmanager
def resizing(display: SwayDisplay) -> Iterator[None]:
    """Resizes all windows of the program, again and again."""
    stop = threading.Event()

    def resize() -> None:
        for size in itertools.cycle(SIZES):
            if stop.is_set():
                return
            try:
                display.resize(PROGRAM_NAME, *size)
            except DisplayError:
                return  # the last window has gone
    thread = threading.Thread(target=resize)
    thread.start()
    try:
        yield
    finally:
        stop.set()
        thread.join()


def test_signals_while_sway_resizes_the_window(sway: SwayDisplay, start: Start, tmp_path: Path) -> None:
    tally = Tally()
    ends = itertools.cycle(SIGNALS)
    for numbers in batches(AT_ONCE):
        homes = homes_for(tmp_path, numbers)
        monitors = [home.start(start, sway) for home in homes]
        wait_until(lambda: len(sway.views(PROGRAM_NAME)) == len(monitors), TIMEOUT, "all windows")
        for monitor in monitors:
            wait_for_main_loop(monitor)
        with resizing(sway):
            rounds = [Round(home, monitor, next(ends), tally.random.uniform(0, 1)) for home, monitor in zip(homes, monitors)]
            tally.follow(rounds, {(0, 0)}, {*SIZES, VERTICAL.size, (150, 700)})
    print(tally.report())
