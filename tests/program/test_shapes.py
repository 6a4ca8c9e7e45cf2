"""Changes of orientation and columns as seen from outside: their steps in time, where the window goes, and what they leave behind."""

from __future__ import annotations

import os
import random
import re
import signal
import threading
import time
from collections.abc import Callable, Mapping
from contextlib import ExitStack, suppress
from pathlib import Path
from typing import NamedTuple

import pytest
from gi.repository import GLib

from displays import Display, SwayDisplay, WestonDisplay, XDisplay, wait_until
from geometry_records import Record, Stored, wait_for_place
from monitor import TIMEOUT, Monitor, Start, kept_descriptors, settings_text, wait_for_main_loop
from settings_dialog import ORIENTATIONS, SettingsDialog, saved_bytes

MACHINE = {"clusters": [{"cores": 4}]}
VERTICAL, HORIZONTAL = Record(123, 77, 431, 567, 3), Record(300, 400, 700, 310, 2)
BOTH = Stored(VERTICAL, HORIZONTAL)
OTHER = {"vertical": "horizontal", "horizontal": "vertical"}
WORDS = {"vertical": "vert", "horizontal": "horiz"}

MOVE_DELAY, SETTLE_DELAY = 0.120, 0.450  # seconds after a rebuild

Preloaded = Callable[[str], dict[str, str]]


class Traced:
    """A program that writes its traces, with its dialog open."""

    def __init__(self, start: Start, display: Display, home: Path, records: Stored = BOTH, machine: dict | None = MACHINE,
                 env: Mapping[str, str | None] = {}) -> None:
        self.dialog = SettingsDialog.of_new_program(start, display, home, machine, records=records, env={"VANTRIC_TRACE": "1", **env})
        self.orientation = "vertical"
        self._seen = 0
        wait_for_main_loop(self.dialog.monitor)
        self.dialog.open()

    def lines(self) -> list[str]:
        """The traces since the last change began, as far as they have been written to the end."""
        return self.dialog.monitor.complaints().split("\n")[self._seen:-1]

    def mark(self) -> None:
        """A change begins now."""
        self._seen += len(self.lines())

    def change(self, *, again: bool = False) -> None:
        """Chooses the other orientation; `again`: as part of the same change."""
        if not again:
            self.mark()
        self.orientation = OTHER[self.orientation]
        self.dialog.choose(self.dialog.wait().orientation, ORIENTATIONS.index(self.orientation))

    def wait_for(self, begin: str, count: int = 1) -> None:
        """Waits for as many traces that begin so."""
        def written() -> bool:
            return sum(line.startswith(f"[trace] {begin}") for line in self.lines()) >= count
        wait_until(written, TIMEOUT, f"the trace {begin!r}, {count} times")

    def settle(self, count: int = 1) -> None:
        self.wait_for("settled(", count)

    def end(self) -> None:
        """Ends the program, which has written nothing but traces."""
        monitor = self.dialog.monitor
        monitor.send(signal.SIGTERM)
        assert monitor.wait() == 0
        assert [line for line in monitor.complaints().splitlines() if not line.startswith("[trace] ")] == []


def left(record: Record, word: str) -> str:
    return f"[trace] rebuild: leave {word} save {record.width}x{record.height} at {record.x},{record.y}"


def entered(record: Record, word: str, target: tuple[int, int]) -> str:
    return (f"[trace] rebuild: enter {word} stored=1 {record.width}x{record.height} at {record.x},{record.y}"
            f" -> move {target[0]},{target[1]}")


def settled(record: Record, word: str) -> str:
    return f"[trace] settled({word}): {record.width}x{record.height} at {record.x},{record.y}"


# --- one rebuild ---

def test_steps_of_a_rebuild(managed: XDisplay, start: Start, tmp_path: Path) -> None:
    program = Traced(start, managed, tmp_path / "kept")
    window, home = program.dialog.main, program.dialog.home
    wait_for_place(managed, window, VERTICAL, "at the start")
    begun = time.monotonic()
    program.change()
    wait_for_place(managed, window, HORIZONTAL, "rebuilt")
    moved = time.monotonic()
    program.settle()
    done = time.monotonic()
    assert program.lines()[:3] == [left(VERTICAL, "vert"), entered(HORIZONTAL, "horiz", HORIZONTAL.place), settled(HORIZONTAL, "horiz")]
    home.wait_for(BOTH, "rebuilt")
    assert moved - begun >= MOVE_DELAY and done - begun >= SETTLE_DELAY
    program.end()


def test_resizing_during_a_rebuild(managed: XDisplay, preloaded: Preloaded, start: Start, tmp_path: Path) -> None:
    program = Traced(start, managed, tmp_path / "kept", env=preloaded("late_settling"))
    window, home = program.dialog.main, program.dialog.home
    wait_for_place(managed, window, VERTICAL, "at the start")
    own = HORIZONTAL._replace(width=800, height=333)
    program.change()
    wait_for_place(managed, window, HORIZONTAL, "rebuilt")
    managed.resize_until(window, *own.size, lambda: managed.geometry(window)[2:] == own.size, TIMEOUT, "a size of its own")
    program.settle()
    assert program.lines()[-1] == settled(own, "horiz")
    assert [line for line in program.lines() if "configure" in line] == []
    home.wait_for(Stored(VERTICAL, own), "settled")
    program.end()


OFF_SCREEN = {  # stored place and size, and where a rebuild puts the window on a screen of 1280 by 1024
    Record(5000, 4000, 600, 300, 1): (680, 724),
    Record(-2000, -3000, 600, 300, 1): (0, 0),
    Record(1000, 200, 600, 300, 1): (680, 200),
    Record(50, 60, 3000, 2000, 1): (0, 0),
}


def test_a_rebuild_pulls_the_window_into_the_screen(displays: ExitStack, start: Start, tmp_path: Path) -> None:
    display = displays.enter_context(XDisplay(window_manager=None))
    programs = {stored: Traced(start, display, tmp_path / str(number), Stored(VERTICAL, stored))
                for number, stored in enumerate(OFF_SCREEN)}
    for program in programs.values():
        program.change()
    for stored, target in OFF_SCREEN.items():
        programs[stored].settle()
        lines = programs[stored].lines()
        assert lines[:2] == [left(VERTICAL, "vert"), entered(stored, "horiz", target)]
        there = Record(*target, min(stored.width, display.width), min(stored.height, display.height), 1)
        wait_for_place(display, programs[stored].dialog.main, there, f"stored {stored}")
        programs[stored].dialog.home.wait_for(Stored(VERTICAL, there), f"stored {stored}")
    for program in programs.values():
        program.end()


def test_two_changes_before_the_first_rebuild(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    program = Traced(start, x11, tmp_path / "kept")
    wait_for_place(x11, program.dialog.main, VERTICAL, "at the start")
    combo = program.dialog.wait().orientation.combo.address
    seen = len(program.lines())
    program.dialog.monitor.bus.select_each(combo, [1, 0], program.dialog.monitor.pid)
    program.settle(2)
    pair = [left(VERTICAL, "vert"), entered(VERTICAL, "vert", VERTICAL.place)]
    assert [line for line in program.lines()[seen:] if "configure" not in line] == [*pair * 2, *[settled(VERTICAL, "vert")] * 2]
    assert program.dialog.settings_file.read_bytes() == saved_bytes()
    program.dialog.home.wait_for(BOTH, "rebuilt twice")
    program.end()


def test_two_changes_within_one_freeze(x11: XDisplay, preloaded: Preloaded, start: Start, tmp_path: Path) -> None:
    program = Traced(start, x11, tmp_path / "kept", env=preloaded("late_settling"))
    window, home = program.dialog.main, program.dialog.home
    wait_for_place(x11, window, VERTICAL, "at the start")
    before = program.dialog.wait()
    program.change()
    program.dialog.wait(lambda now: not now.content & before.content, "the first rebuild")
    program.change(again=True)
    program.settle(2)
    steps = [line for line in program.lines() if "configure" not in line]
    in_between = left_record(steps[2], HORIZONTAL.num_columns)
    assert steps[:2] == [left(VERTICAL, "vert"), entered(HORIZONTAL, "horiz", HORIZONTAL.place)]
    assert steps[2:4] == [left(in_between, "horiz"), entered(VERTICAL, "vert", VERTICAL.place)]
    assert [line.startswith("[trace] settled(vert)") for line in steps[4:]] == [True] * 2
    wait_for_place(x11, window, VERTICAL, "vertical again")
    home.wait_for(Stored(VERTICAL, in_between), "as it was left in between")
    program.dialog.wait_for_saved("vertical again")
    program.end()


# --- on Wayland ---

@pytest.mark.parametrize("kind, reported", [(SwayDisplay, (0, 0)), (WestonDisplay, (26, 23))])
def test_a_rebuild_on_wayland(kind: Callable[[], Display], reported: tuple[int, int], displays: ExitStack, start: Start,
                              tmp_path: Path) -> None:
    program = Traced(start, displays.enter_context(kind()), tmp_path / "kept")
    program.dialog.wait_for_records(lambda stored: stored.vertical.place == VERTICAL.place, "the first save")
    vertical, horizontal = (record._replace(x=reported[0], y=reported[1]) for record in BOTH)
    for before, after in ((vertical, horizontal), (horizontal, vertical), (vertical, horizontal)):
        words = ("vert", "horiz") if after is horizontal else ("horiz", "vert")
        program.change()
        program.settle()
        assert program.lines()[:2] == [left(before, words[0]), settled(after, words[1])]  # no move, so no trace of one
        program.dialog.wait_for_records(lambda stored: after in stored, "settled")
    program.end()


# --- many changes ---

CHANGES = int(os.environ.get("VANTRIC_SHAPE_CHANGES", "20"))
LOOK_EACH = 20  # changes


MANY_CPUS = {"clusters": [{"cores": 16}]}  # so that whatever stays of their cards adds up
ALLOWED_GROWTH_KB = 384  # in the second half; the heap has grown to its size after some 30 changes, and cards that stay take more


class Resources(NamedTuple):
    """What the program takes of the system."""
    resident_kb: int
    private_kb: int
    descriptors: int
    threads: int

    @classmethod
    def of(cls, monitor: Monitor) -> Resources:
        lines = Path(f"/proc/{monitor.pid}/status").read_text().splitlines()
        status = dict(line.split(":", 1) for line in lines)
        resident, private = (int(status[name].split()[0]) for name in ("VmRSS", "RssAnon"))
        return cls(resident, private, kept_descriptors(monitor.pid), int(status["Threads"]))


def test_many_changes(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    records = {"vertical": Record(123, 77, 300, 777, 1), "horizontal": Record(100, 400, 1100, 310, 1)}
    places = {orientation: record.place for orientation, record in records.items()}
    program = Traced(start, x11, tmp_path / "kept", Stored(**records), MANY_CPUS)
    home, monitor = program.dialog.home, program.dialog.monitor
    wait_for_place(x11, program.dialog.main, records["vertical"], "at the start")
    looks: list[Resources] = []
    for number in range(1, CHANGES + 1):
        if number % 2:
            before = program.orientation
            program.change()
            program.settle()
            record = left_record(program.lines()[0], records[before].num_columns)
            assert record.place == places[before] and (before == "horizontal" or record.height == records[before].height)
            records[before] = record
            wait_for_place(x11, program.dialog.main, records[program.orientation], f"change {number}")
            home.wait_for(Stored(**records), f"change {number}")
        else:
            columns = records[program.orientation].num_columns % 3 + 1
            apply_columns(program, columns)
            records[program.orientation] = records[program.orientation]._replace(num_columns=columns)
            program.dialog.wait_for_records(lambda stored: has_columns(stored, program.orientation, columns, places, records),
                                            f"{columns} columns")
        program.dialog.wait(lambda now: now.columns == records[program.orientation].num_columns, "the number of columns")
        looks.append(Resources.of(monitor))
        if number % LOOK_EACH == 0:
            print(f"after {number} changes: {looks[-1]}")
    half, end = looks[CHANGES // 2 - 1], looks[-1]
    assert end.private_kb - half.private_kb <= ALLOWED_GROWTH_KB
    # A file that is just being read is closed soon, and GLib ends those threads of its own that have nothing to do
    wait_until(lambda: kept_descriptors(monitor.pid) <= half.descriptors, TIMEOUT, f"no more than {half.descriptors} descriptors")
    wait_until(lambda: Resources.of(monitor).threads <= half.threads, TIMEOUT, f"no more than {half.threads} threads")
    program.end()


def has_columns(stored: Stored, orientation: str, columns: int, places: dict[str, tuple[int, int]], records: dict[str, Record]) -> bool:
    """Whether this orientation has this number of columns at its old place, and the other what it had."""
    own, other = getattr(stored, orientation), getattr(stored, OTHER[orientation])
    return (own.num_columns, own.place, other) == (columns, places[orientation], records[OTHER[orientation]])


def left_record(line: str, columns: int) -> Record:
    """The record that a rebuild saved at its start."""
    width, height, x, y = map(int, re.fullmatch(r".*: leave \w+ save (\d+)x(\d+) at (-?\d+),(-?\d+)", line).groups())
    return Record(x, y, width, height, columns)


def apply_columns(program: Traced, columns: int) -> None:
    """Takes another number of columns, and opens the dialog again when that is done."""
    dialog, now = program.dialog, program.dialog.wait()
    is_rebuild = program.orientation == "horizontal" and (now.columns == 1) != (columns == 1)
    program.mark()
    for _ in range(abs(columns - now.columns)):
        dialog.press(now.more if columns > now.columns else now.fewer)
    dialog.press(now.apply)
    dialog.wait_until_hidden()
    if is_rebuild:
        program.settle()
    dialog.open()


# --- an end in the middle ---

AT_ONCE = 6
LONGEST_DELAY = 0.8  # seconds; beyond the settling of a rebuild


def test_signals_at_random_moments_of_a_rebuild(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    seed = random.randrange(10**6)
    print(f"seed {seed}")
    moments = random.Random(seed)
    dialogs = [SettingsDialog.of_new_program(start, x11, tmp_path / str(number), MACHINE, records=BOTH) for number in range(AT_ONCE)]
    for dialog in dialogs:
        wait_for_place(x11, dialog.main, VERTICAL, "at the start")
        combo = dialog.open().orientation.combo.address
        killer = threading.Timer(moments.uniform(0, LONGEST_DELAY), dialog.monitor.send, [signal.SIGTERM])
        killer.start()
        with suppress(GLib.Error):  # it may have ended
            dialog.monitor.bus.select(combo, 1)
        killer.join()
    for dialog in dialogs:
        dialog.monitor.assert_clean_end()
        vertical, horizontal = dialog.home.stored  # whole
        assert (vertical, horizontal.num_columns) == (VERTICAL, HORIZONTAL.num_columns)
        assert dialog.settings_file.read_bytes() in (saved_bytes(orientation="horizontal"), settings_text().encode())
