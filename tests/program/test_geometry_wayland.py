"""What the program remembers of its window on Wayland, where it can't learn its place, and may draw a frame and shadow of its own."""

from __future__ import annotations

import signal
from collections.abc import Callable
from contextlib import ExitStack
from pathlib import Path
from typing import NamedTuple

import pytest

from accessibility import Rect
from displays import SwayDisplay, WestonDisplay
from fakemachine import preset
from geometry_records import ENDS, UNSTORED, Home, Record, Stored, closed, interrupted, terminated
from monitor import PROGRAM_NAME, TIMEOUT, Monitor, Start, wait_for_main_loop

VERTICAL, HORIZONTAL = Record(77, -88, 400, 500, 3), Record(1234, 22, 900, 310, 5)
STORED = Stored(VERTICAL, HORIZONTAL)
ORIENTATIONS = ("vertical", "horizontal")


def with_set(orientation: str, record: Record, stored: Stored) -> Stored:
    """The same with another record of this orientation."""
    return stored._replace(**{orientation: record})


# --- sway: no frame, and what is reported is 0,0 ---

@pytest.mark.parametrize("end", ENDS)
@pytest.mark.parametrize("orientation", ORIENTATIONS)
def test_place_lasts_until_a_signal(orientation: str, end: Callable[[Monitor], None], sway: SwayDisplay, start: Start,
                                    tmp_path: Path) -> None:
    home = Home(tmp_path)
    home.write(STORED)
    monitor = home.start(start, sway, orientation=orientation)
    wait_for_main_loop(monitor)
    record: Record = getattr(STORED, orientation)
    view = sway.view(PROGRAM_NAME, TIMEOUT)["rect"]
    assert (view["width"], view["height"]) == record.size
    sway.resize(PROGRAM_NAME, 950, 600)
    sway.move(PROGRAM_NAME, 30, 40)
    record = record._replace(width=950, height=600)
    home.wait_for(with_set(orientation, record, STORED), "resized")
    end(monitor)
    monitor.assert_clean_end()
    if end is not closed:
        record = record._replace(x=0, y=0)
    assert home.stored == with_set(orientation, record, STORED)


def test_first_start_remembers_place_zero(sway: SwayDisplay, start: Start, tmp_path: Path) -> None:
    home = Home(tmp_path)
    monitor = home.start(start, sway, preset("vm-2"))
    first = Record(0, 0, 150, 700, 1)
    sway.view(PROGRAM_NAME, TIMEOUT)
    home.wait_for(Stored(first), "at the start")
    home.geometry.unlink()
    closed(monitor)
    monitor.assert_clean_end()
    assert home.stored == Stored(first)  # written anew, and place 0,0 without a record


@pytest.mark.parametrize("end", ENDS)
def test_each_end_writes_the_record(end: Callable[[Monitor], None], sway: SwayDisplay, start: Start, tmp_path: Path) -> None:
    home = Home(tmp_path)
    monitor = home.start(start, sway, preset("vm-2"))
    sway.view(PROGRAM_NAME, TIMEOUT)
    home.wait_for(Stored(Record(0, 0, 150, 700, 1)), "at the start")
    wait_for_main_loop(monitor)
    home.write(STORED)
    end(monitor)
    monitor.assert_clean_end()
    place = VERTICAL.place if end is closed else (0, 0)  # the place is read anew each time
    assert home.stored == Stored(Record(*place, 150, 700, 1), HORIZONTAL)


def test_five_restarts_on_sway(sway: SwayDisplay, start: Start, tmp_path: Path) -> None:
    home = Home(tmp_path)
    home.write(STORED)
    for run in range(1, 6):
        monitor = home.start(start, sway)
        wait_for_main_loop(monitor)
        view = sway.view(PROGRAM_NAME, TIMEOUT)["rect"]
        assert (view["width"], view["height"]) == VERTICAL.size
        closed(monitor)
        monitor.assert_clean_end()
        assert home.stored == STORED, run


# --- weston: title bar and shadow belong to the window ---

class Frame(NamedTuple):
    """The parts of a decorated window, in its own coordinates."""
    whole: Rect
    title_bar: Rect
    content: Rect

    @classmethod
    def of(cls, monitor: Monitor) -> Frame:
        (frame,) = [node for node in monitor.tree().walk() if node.role == "frame"]
        return cls(frame.rect, frame.children[0].rect, frame.children[-1].rect)


@pytest.mark.parametrize("orientation", ORIENTATIONS)
def test_decorated_window(orientation: str, weston: WestonDisplay, start: Start, tmp_path: Path) -> None:
    homes = {end: Home(tmp_path / end.__name__) for end in ENDS}
    for home in homes.values():
        home.write(STORED)
    record: Record = getattr(STORED, orientation)
    monitors = {end: home.start(start, weston, orientation=orientation, accessible=True) for end, home in homes.items()}
    for end, monitor in monitors.items():
        home = homes[end]
        frame = Frame.of(monitor)
        assert (frame.content.width, frame.content.height) == record.size
        assert frame.whole.width > record.width and frame.whole.height > record.height + frame.title_bar.height
        # An event tells the size with all around it; its place is the stored one.
        with_frame = record._replace(width=frame.whole.width, height=frame.whole.height)
        home.wait_for(with_set(orientation, with_frame, STORED), "at the start")
        wait_for_main_loop(monitor)
        end(monitor)
    for end, monitor in monitors.items():
        monitor.assert_clean_end()
        # The end tells the size without; a signal with the place inside the shadow, which is what GTK reports.
        place = record.place if end is closed else (frame.title_bar.x, frame.title_bar.y)
        assert homes[end].stored == with_set(orientation, Record(*place, *record.size, record.num_columns), STORED)
    assert frame.title_bar.x > 0 and frame.title_bar.y > 0


def test_decorated_window_at_its_first_start(weston: WestonDisplay, start: Start, tmp_path: Path) -> None:
    homes = {end: Home(tmp_path / end.__name__) for end in (closed, terminated)}
    monitors = {end: home.start(start, weston, preset("vm-2"), accessible=True) for end, home in homes.items()}
    for end, monitor in monitors.items():
        frame = Frame.of(monitor)
        homes[end].wait_for(Stored(Record(0, 0, frame.whole.width, frame.whole.height, 1)), "at the start")
        wait_for_main_loop(monitor)
        end(monitor)
    for end, monitor in monitors.items():
        monitor.assert_clean_end()
        place = (0, 0) if end is closed else (frame.title_bar.x, frame.title_bar.y)
        assert homes[end].stored == Stored(Record(*place, frame.content.width, 700, 1), UNSTORED)


def test_five_restarts_on_weston(weston: WestonDisplay, start: Start, tmp_path: Path) -> None:
    home = Home(tmp_path)
    home.write(STORED)
    place = VERTICAL.place
    for run, end in enumerate((closed, closed, terminated, interrupted, closed), 1):
        monitor = home.start(start, weston, accessible=True)
        frame = Frame.of(monitor)
        # What is remembered while it runs has the shadow around it; each end puts that right.
        home.wait_for(Stored(Record(*place, frame.whole.width, frame.whole.height, 3), HORIZONTAL), f"run {run}")
        wait_for_main_loop(monitor)
        end(monitor)
        monitor.assert_clean_end()
        place = place if end is closed else (frame.title_bar.x, frame.title_bar.y)
        assert home.stored == Stored(VERTICAL._replace(x=place[0], y=place[1]), HORIZONTAL), run


@pytest.mark.parametrize("kind", [SwayDisplay, WestonDisplay])
def test_traces(kind: type[SwayDisplay] | type[WestonDisplay], displays: ExitStack, start: Start, tmp_path: Path) -> None:
    home = Home(tmp_path)
    home.write(STORED)
    monitor = home.start(start, displays.enter_context(kind()), env={"VANTRIC_TRACE": ""}, accessible=True)
    frame = Frame.of(monitor)
    home.wait_for(Stored(Record(*VERTICAL.place, frame.whole.width, frame.whole.height, 3), HORIZONTAL), "at the start")
    wait_for_main_loop(monitor)
    monitor.send(signal.SIGTERM)
    line = f"[trace] configure(vert): {frame.whole.width}x{frame.whole.height} at 77,-88"
    assert monitor.wait() == 0
    assert set(monitor.complaints().split("\n")) == {line, ""}
