"""Remembered places and sizes out of the ordinary, the folders that remember them, and the traces of it all."""

from __future__ import annotations

import re
from contextlib import ExitStack
from pathlib import Path

import pytest

from displays import XDisplay, wait_until
from geometry_records import STILL, Home, Record, Stored, end_all, least_size, shown, terminated, wait_for_place, windows_of
from monitor import TIMEOUT, Start, config_folder, frame_place, wait_for_main_loop

VERTICAL, HORIZONTAL = Record(123, 77, 431, 567, 3), Record(40, 300, 900, 310, 5)

OFF_SCREEN = ((-2000, -2000), (5000, 4000), (-1, 1023), (1279, -300))


def test_stored_place_is_taken_unchecked(displays: ExitStack, start: Start, tmp_path: Path) -> None:
    display = displays.enter_context(XDisplay(window_manager=None))
    records = [Record(*place, 400, 500, 3) for place in OFF_SCREEN]
    homes = [Home(tmp_path / str(number)) for number in range(len(records))]
    for home, record in zip(homes, records):
        home.write(Stored(record, HORIZONTAL))
    monitors = [home.start(start, display) for home in homes]
    for window, record in zip(windows_of(display, monitors), records):
        wait_for_place(display, window, record, f"stored {record}")
    end_all(monitors)
    for home, record in zip(homes, records):
        assert home.stored == Stored(record, HORIZONTAL)


def test_window_manager_may_put_it_elsewhere(managed: XDisplay, start: Start, tmp_path: Path) -> None:
    homes = [Home(tmp_path / str(number)) for number in range(len(OFF_SCREEN))]
    for home, place in zip(homes, OFF_SCREEN):
        home.write(Stored(Record(*place, 400, 500, 3), HORIZONTAL))
    monitors = [home.start(start, managed) for home in homes]
    for window, home in zip(windows_of(managed, monitors), homes):
        def is_remembered(home: Home = home, window: int = window) -> bool:
            record = shown(managed, window, 3)
            return home.stored == Stored(record, HORIZONTAL) and record.place not in OFF_SCREEN
        wait_until(is_remembered, TIMEOUT, "the record of where it is")
        x, y = frame_place(managed, window)
        assert -400 < x < managed.width and -500 < y < managed.height  # both bring it where it can be seen


# --- sizes ---

LEAST = 0  # stands for the least that the window's content allows
FIRST_START = None
HIGH_SCREEN = (1280, 3100)  # has room for every height that is believed
USUAL_SCREEN = (1280, 1024)
LARGEST_INT = 2**31 - 1
TWO_SECTIONS = {"clusters": [{"cores": 8, "mhz": [800, 5000]}, {"cores": 4, "mhz": [800, 3500]}]}
HORIZONTAL_HEIGHT = 2 * 92 + 2 * 20 + 12  # the default of two sections

SIZES: list[tuple[tuple[int, int], dict[tuple[int, int], tuple[int, int] | None]]] = [
    (HIGH_SCREEN, {(400, 100): (400, 700), (400, 101): (400, LEAST), (400, 2999): (400, 2999), (400, 3000): (400, 700),
                   (400, 0): (400, 700), (400, -700): (400, 700), (0, 500): FIRST_START, (-400, 500): FIRST_START}),
    (USUAL_SCREEN, {(400, 2999): (400, 1024), (400, 3000): (400, 700), (5000, 500): (1280, 500), (1, 500): (LEAST, 500),
                    (LARGEST_INT, LARGEST_INT): (1280, 700)}),
]


def wait_for_size(display: XDisplay, window: int, record: Record, when: str) -> None:
    """Waits until the window stands there, and is as large or LEAST; the least grows when the first values are shown."""
    def stands() -> bool:
        width, height = least_size(display, window)
        return shown(display, window, record.num_columns) == record._replace(
            width=record.width or width, height=record.height or height)
    wait_until(stands, TIMEOUT, f"{record}, {when}")


@pytest.mark.parametrize("screen, sizes", SIZES, ids=["what is believed", "what the window can be"])
def test_stored_sizes(screen: tuple[int, int], sizes: dict[tuple[int, int], tuple[int, int] | None], displays: ExitStack,
                      start: Start, tmp_path: Path) -> None:
    display = displays.enter_context(XDisplay(*screen, window_manager=None))
    homes = [Home(tmp_path / f"{width}x{height}") for width, height in sizes]
    for home, size in zip(homes, sizes):
        home.write(Stored(Record(33, 44, *size, 2), HORIZONTAL))
    monitors = [home.start(start, display, STILL) for home in homes]
    first_start = Record((screen[0] - 66) // 2, (screen[1] - 700) // 2, LEAST, 700, 1)
    for window, home, (stored, size) in zip(windows_of(display, monitors), homes, sizes.items()):
        record = Record(33, 44, *size, 2) if size is not FIRST_START else first_start
        wait_for_size(display, window, record, f"stored {stored}")
        wait_until(lambda: home.stored == Stored(shown(display, window, record.num_columns), HORIZONTAL), TIMEOUT,
                   f"its record, stored {stored}")


def test_stored_heights_in_horizontal_orientation(displays: ExitStack, start: Start, tmp_path: Path) -> None:
    display = displays.enter_context(XDisplay(*HIGH_SCREEN, window_manager=None))
    heights = {100: HORIZONTAL_HEIGHT, 101: LEAST, 2999: 2999, 3000: HORIZONTAL_HEIGHT}
    homes = [Home(tmp_path / str(height)) for height in heights]
    for home, height in zip(homes, heights):
        home.write(Stored(VERTICAL, Record(33, 44, 1000, height, 8)))
    monitors = [home.start(start, display, TWO_SECTIONS, "horizontal") for home in homes]
    for monitor, (stored, height) in zip(monitors, heights.items()):
        window = monitor.window
        wait_for_size(display, window, Record(33, 44, 1000, height, 8), f"stored {stored}")


def test_stored_columns(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    columns = {0: 1, -3: 1, 1: 1, 16: 16, 17: 16, LARGEST_INT: 16}
    wide = VERTICAL._replace(width=1000)  # 16 columns want some room
    homes = [Home(tmp_path / str(number)) for number in columns]
    for home, number in zip(homes, columns):
        home.write(Stored(wide._replace(num_columns=number), HORIZONTAL._replace(num_columns=number)))
    monitors = [home.start(start, x11) for home in homes]
    for home, window, number in zip(homes, windows_of(x11, monitors), columns.values()):
        x11.move(window, 200, 100)
        # Both sets have been read by now, each in its way, and are written with what they could be understood as.
        home.wait_for(Stored(wide._replace(x=200, y=100, num_columns=number), HORIZONTAL._replace(num_columns=number)),
                      "columns")


# --- folders ---

def test_folder_of_a_snap_and_no_home(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    snap, here = Home(tmp_path / "snap"), Home(tmp_path / "here")
    moved = Stored(VERTICAL._replace(x=200, y=100), HORIZONTAL)
    files = {snap.path / "snap/common/config/geometry.json": (snap, {"SNAP_USER_COMMON": str(snap.path / "snap/common")}),
             here.geometry: (here, {"HOME": None})}
    monitors = []
    for file, (home, variables) in files.items():
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(Stored(VERTICAL, HORIZONTAL).line)
        here.path.mkdir(exist_ok=True)
        monitors.append(home.start(start, x11, env=variables, cwd=here.path))
    for file, window in zip(files, windows_of(x11, monitors)):
        wait_for_place(x11, window, VERTICAL, f"of {file}")
        x11.move(window, *moved.vertical.place)
        wait_until(lambda: file.read_text() == moved.line, TIMEOUT, f"a new record in {file}")
        x11.close(window)
    for file, monitor in zip(files, monitors):
        monitor.assert_clean_end()
        assert file.read_text() == moved.line
    assert not snap.geometry.exists()
    assert not any(config_folder(monitor.home).exists() for monitor in monitors)


# --- traces ---

TRACE = re.compile(r"\[trace\] configure\((?P<word>vert|horiz)\): (?P<width>\d+)x(?P<height>\d+) at (?P<x>-?\d+),(?P<y>-?\d+)")


@pytest.mark.parametrize("orientation, word", [("vertical", "vert"), ("horizontal", "horiz")])
def test_traces(orientation: str, word: str, x11: XDisplay, start: Start, tmp_path: Path) -> None:
    values: dict[str, str | None] = {"1": "1", "empty": "", "0": "0", "unset": None}
    homes = [Home(tmp_path / name) for name in values]
    monitors = [home.start(start, x11, orientation=orientation, env={"VANTRIC_TRACE": value})
                for home, value in zip(homes, values.values())]
    end = Record(200, 150, 700, 500, 1)
    windows = windows_of(x11, monitors)
    for window in windows:
        x11.resize_until(window, *end.size, lambda: x11.geometry(window)[2:] == end.size, TIMEOUT, "the new size")
        x11.move(window, *end.place)
    expected = Stored(horizontal=end) if orientation == "horizontal" else Stored(vertical=end)
    for monitor, home in zip(monitors, homes):
        home.wait_for(expected, "moved")
    for monitor, window, is_closed in zip(monitors, windows, (True, False, False, True)):
        wait_for_main_loop(monitor)
        if is_closed:
            x11.close(window)
        else:
            terminated(monitor)
    for monitor, home, (name, value) in zip(monitors, homes, values.items()):
        assert (monitor.wait(), monitor.stdout_path.read_text(), home.stored) == (0, "", expected), name
        *lines, rest = monitor.stderr_path.read_text().split("\n")
        assert rest == "" and all(TRACE.fullmatch(line) for line in lines), lines
        if value is None:
            assert lines == []
        else:
            assert lines[-1] == f"[trace] configure({word}): 700x500 at 200,150", name
            assert len(lines) >= 3, name  # the first appearance, the new size, the new place
            assert {line[:len(f"[trace] configure({word}):")] for line in lines} == {f"[trace] configure({word}):"}
