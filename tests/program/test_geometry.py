"""What the program remembers of its window on X11: each move and change of size at once, and the way back to it."""

from __future__ import annotations

import itertools
from pathlib import Path

from display_x11 import run_tool
from displays import XDisplay, wait_until
from fakemachine import preset
from geometry_records import ENDS, UNSTORED, Home, Record, Stored, shown, wait_for_place, windows_of
from monitor import TIMEOUT, Start, frame_place, wait_for_main_loop

VERTICAL, HORIZONTAL = Record(123, 77, 431, 567, 3), Record(40, 300, 900, 310, 5)
PATIENCE = 5.0  # seconds, with a window manager
FOUR_CPUS = {"clusters": [{"cores": 4}]}


# --- writing ---

def test_moves_and_resizes_are_written_at_once(managed: XDisplay, start: Start, tmp_path: Path) -> None:
    home = Home(tmp_path)
    home.write(Stored(VERTICAL, HORIZONTAL))
    monitor = home.start(start, managed)
    window = monitor.window
    wait_for_place(managed, window, VERTICAL, "at the start")

    def expect(x: int, y: int, width: int, height: int, when: str) -> None:
        home.wait_for(Stored(Record(x, y, width, height, 3), HORIZONTAL), when)
        assert frame_place(managed, window) == (x, y), when
    managed.move(window, 300, 200)
    expect(300, 200, *VERTICAL.size, "moved")
    managed.resize(window, 500, 600)
    expect(300, 200, 500, 600, "resized")
    run_tool(["wmctrl", "-i", "-r", hex(window), "-e", "0,50,60,333,444"], managed.env)
    expect(50, 60, 333, 444, "both at once")
    drag(managed, window, (200, 200), (335, 290))
    if managed.window_manager == "xfwm4":  # openbox tells nobody before the end
        expect(185, 150, 333, 444, "while being dragged")
    run_tool(["xdotool", "mouseup", "1", "keyup", "alt"], managed.env)
    expect(185, 150, 333, 444, "after a drag")
    assert monitor.running()


def drag(display: XDisplay, window: int, begin: tuple[int, int], end: tuple[int, int]) -> None:
    """Drags the window from one point to the other, as a window manager lets a user do it; holds it then.

    A window manager that is told of a new keyboard, as with the first key here, misses a button for a moment.
    """
    place = frame_place(display, window)
    wanted = place[0] + end[0] - begin[0], place[1] + end[1] - begin[1]

    def has_followed() -> bool:
        run_tool(["xdotool", "mouseup", "1", "mousemove", *map(str, begin), "keydown", "alt", "mousedown", "1"], display.env)
        for step in range(1, 6):
            between = [str(first + (last - first) * step // 5) for first, last in zip(begin, end)]
            run_tool(["xdotool", "mousemove", *between], display.env)
        try:
            wait_until(lambda: frame_place(display, window) == wanted, PATIENCE, "")
        except AssertionError:
            return False
        return True
    wait_until(has_followed, TIMEOUT, "a window that follows the pointer")


def test_each_end_writes_the_record(managed: XDisplay, start: Start, tmp_path: Path) -> None:
    homes = [Home(tmp_path / end.__name__) for end in ENDS]
    for home in homes:
        home.write(Stored(VERTICAL, HORIZONTAL).line.encode() + b"\n")  # which the program's own save takes away
    monitors = [home.start(start, managed) for home in homes]
    for monitor, window in zip(monitors, windows_of(managed, monitors)):
        wait_for_place(managed, window, VERTICAL, "at the start")
        wait_for_main_loop(monitor)
    for home in homes:
        home.wait_for(Stored(VERTICAL, HORIZONTAL), "at the start")
        # A record of elsewhere: only another save brings the right one back, and takes over the other orientation from here.
        home.write(Stored(Record(1, 2, 333, 444, 9), Record(-5, -6, 777, 222, 2)))
    for monitor, end in zip(monitors, ENDS):
        end(monitor)
    for monitor, home in zip(monitors, homes):
        monitor.assert_clean_end()
        assert home.stored == Stored(VERTICAL, Record(-5, -6, 777, 222, 2)), home


# --- coming back ---

def test_five_restarts_do_not_drift(managed: XDisplay, start: Start, tmp_path: Path) -> None:
    homes = {"vertical": Home(tmp_path / "vertical"), "horizontal": Home(tmp_path / "horizontal")}
    stored = Stored(VERTICAL, HORIZONTAL)
    for home in homes.values():
        home.write(stored)
    ends = itertools.cycle(ENDS)
    for run in range(1, 6):
        monitors = [home.start(start, managed, orientation=orientation) for orientation, home in homes.items()]
        for monitor, window, record in zip(monitors, windows_of(managed, monitors), stored):
            wait_for_place(managed, window, record, f"run {run}")
            wait_for_main_loop(monitor)
            next(ends)(monitor)
        for monitor, home in zip(monitors, homes.values()):
            monitor.assert_clean_end()
            assert home.stored == stored, f"run {run}"


def test_columns_come_back(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    columns = {"vertical": 3, "horizontal": 2}
    for orientation in columns:
        home = Home(tmp_path / orientation)
        home.write(Stored(VERTICAL._replace(num_columns=3), HORIZONTAL._replace(num_columns=2)))
        cards = home.start(start, x11, FOUR_CPUS, orientation, accessible=True).content().cards
        assert len({card.rect.x for card in cards}) == columns[orientation]


def test_orientations_are_remembered_apart(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    home = Home(tmp_path)

    def run(orientation: str, opens_at: Record, left_at: Record) -> None:
        monitor = home.start(start, x11, preset("vm-2"), orientation)
        window = monitor.window
        wait_for_place(x11, window, opens_at, f"{orientation} start")
        x11.resize_until(window, *left_at.size, lambda: x11.geometry(window)[2:] == left_at.size, TIMEOUT, "the new size")
        x11.move(window, *left_at.place)
        wait_until(lambda: shown(x11, window, 1) == left_at, TIMEOUT, "the new place")
        x11.close(window)
        monitor.assert_clean_end()
    first_vertical = Record((1280 - 66) // 2, (1024 - 700) // 2, 150, 700, 1)
    first_horizontal = Record((1280 - 354) // 2, (1024 - 124) // 2, 354, 150, 1)
    vertical, horizontal = Record(200, 150, 400, 450, 1), Record(60, 500, 640, 250, 1)
    run("vertical", first_vertical, vertical)
    assert home.stored == Stored(vertical, UNSTORED)
    run("horizontal", first_horizontal, horizontal)  # knows nothing of the vertical one
    assert home.stored == Stored(vertical, horizontal)
    elsewhere = Record(210, 100, 380, 480, 1)
    run("vertical", vertical, elsewhere)
    run("horizontal", horizontal, horizontal._replace(x=70))
    assert home.stored == Stored(elsewhere, horizontal._replace(x=70))
