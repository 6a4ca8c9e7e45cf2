"""The remembered geometry as the tests see it: the one line of the file, a reading of damaged ones, and homes to keep it in."""

from __future__ import annotations

import re
import signal
from collections.abc import Callable, Iterable
from dataclasses import dataclass
from pathlib import Path
from typing import NamedTuple

from displays import Display, XDisplay, wait_until
from monitor import TIMEOUT, TITLE, Monitor, Start, config_folder, frame_place, settings_text, wait_for_main_loop, write_settings

SCREEN = (1280, 1024)
COLUMN_WIDTH, WINDOW_PADDING, DEFAULT_HEIGHT = 58, 8, 700
STORED_HEIGHTS = range(101, 3000)  # others are not believed
LARGEST_INT = 2**31 - 1
STILL = {"clusters": [{"cores": 2, "mhz": [800, 5000]}], "load": {"kind": "frozen"}}  # on which the content wants the same room all the time


class Record(NamedTuple):
    """What is remembered of one orientation."""
    x: int
    y: int
    width: int
    height: int
    num_columns: int

    @property
    def place(self) -> tuple[int, int]:
        return self.x, self.y

    @property
    def size(self) -> tuple[int, int]:
        return self.width, self.height


UNSTORED = Record(0, 0, 0, 0, 4)  # how an orientation is written that was never shown
PREFIXES = ("", "h_")


class Stored(NamedTuple):
    """What is remembered of both."""
    vertical: Record = UNSTORED
    horizontal: Record = UNSTORED

    @property
    def line(self) -> str:
        """The file that holds exactly this."""
        pairs = [f'"{prefix}{name}":{value}' for prefix, record in zip(PREFIXES, self)
                 for name, value in zip(Record._fields, record)]
        return "{" + ",".join(pairs) + "}"


def whole(text: bytes) -> Stored | None:
    """What a file says that holds one whole line, all of it in order; None for every other."""
    numbers = [int(number) for number in re.findall(rb":(-?\d+)", text)]
    if len(numbers) != 2 * len(Record._fields):
        return None
    stored = Stored(Record(*numbers[:5]), Record(*numbers[5:]))
    return stored if stored.line.encode() == text else None


def understood(text: bytes) -> Stored:
    """What the program makes of any file."""
    def number(key: str, default: int) -> int:
        found = re.search(rb'"%b":(\s*([+-]?\d+))?' % key.encode(), text)
        value = int(found[2]) if found and found[2] else default
        return value if -LARGEST_INT - 1 <= value <= LARGEST_INT else default

    def record(prefix: str) -> Record:
        *place, columns = (number(prefix + name, default) for name, default in zip(Record._fields, UNSTORED))
        return Record(*place, min(max(columns, 1), 16))
    return Stored(*(record(prefix) for prefix in PREFIXES))


def opened(read: Record, least: tuple[int, int], screen: tuple[int, int] = SCREEN) -> Record:
    """What a vertical window comes to, and is remembered by, that opens with this where no window manager has a say."""
    default_width, columns = COLUMN_WIDTH + WINDOW_PADDING, 1
    if read.width > 0:
        columns = read.num_columns
    width = read.width if read.width > 0 else default_width
    height = read.height if read.width > 0 and read.height in STORED_HEIGHTS else DEFAULT_HEIGHT
    place = read.place if read.width > 0 else ((screen[0] - width) // 2, (screen[1] - height) // 2)
    return Record(*place, *(max(low, min(wish, high)) for wish, low, high in zip((width, height), least, screen)), columns)


def least_size(display: XDisplay, window: int) -> tuple[int, int]:
    """What the content allows now. Three digits of a load want more room than two, so it is the same all the time only where loads are."""
    return display.properties(window)["WM_NORMAL_HINTS"]["program specified minimum size"]


def shown(display: XDisplay, window: int, columns: int) -> Record:
    """The record of the window as it stands there now."""
    return Record(*frame_place(display, window), *display.geometry(window)[2:], columns)


def windows_of(display: XDisplay, monitors: Iterable[Monitor]) -> list[int]:
    """The windows of all these programs, found together: the search takes long where a window manager adds windows of its own."""
    pids = [monitor.pid for monitor in monitors]
    found: dict[int, int] = {}

    def all_found() -> bool:
        new = set(display.windows(TITLE)) - set(found.values())
        found.update({display.properties(window, "_NET_WM_PID")["_NET_WM_PID"][0]: window for window in new})
        return set(pids) <= set(found)
    wait_until(all_found, TIMEOUT, "all the windows")
    return [found[pid] for pid in pids]


def wait_for_place(display: XDisplay, window: int, record: Record, when: str) -> None:
    """Waits until the window stands exactly there."""
    seen: list[Record] = []

    def stands() -> bool:
        seen[:] = [shown(display, window, record.num_columns)]
        return seen == [record]
    try:
        wait_until(stands, TIMEOUT, "")
    except AssertionError:
        raise AssertionError(f"{when}: the window stands at {seen}, expected {record}") from None


@dataclass
class Home:
    """A home folder that is kept from one run of the program to the next."""
    path: Path

    @property
    def geometry(self) -> Path:
        return config_folder(self.path) / "geometry.json"

    def write(self, content: Stored | bytes) -> None:
        """Puts the file there, in one go."""
        self.geometry.parent.mkdir(parents=True, exist_ok=True)
        draft = self.geometry.with_suffix(".draft")
        draft.write_bytes(content.line.encode() if isinstance(content, Stored) else content)
        draft.rename(self.geometry)

    def start(self, start: Start, display: Display, machine: dict | None = None, orientation: str | None = "vertical", *,
              env: dict[str, str | None] = {}, accessible: bool = False, **options: object) -> Monitor:
        """Starts the program here; without an orientation, with the settings as they are."""
        if orientation is not None:
            write_settings(self.path, settings_text(orientation=orientation))
        return start(display, machine, settings=None, env={"HOME": str(self.path), **env}, accessible=accessible, **options)

    @property
    def stored(self) -> Stored | None:
        """What the file says; None unless it is one whole line, which it is not while it is being written."""
        return whole(self.geometry.read_bytes()) if self.geometry.is_file() else None

    def wait_for(self, expected: Stored, when: str) -> None:
        """Waits until the file says exactly this."""
        seen = b""

        def said() -> bool:
            nonlocal seen
            seen = self.geometry.read_bytes() if self.geometry.is_file() else b""
            return seen == expected.line.encode()
        try:
            wait_until(said, TIMEOUT, "")
        except AssertionError:
            raise AssertionError(f"{when}: the file says\n{seen!r}, expected\n{expected.line!r}") from None


# --- ends ---

def closed(monitor: Monitor) -> None:
    monitor.close_window()


def terminated(monitor: Monitor) -> None:
    monitor.send(signal.SIGTERM)


def interrupted(monitor: Monitor) -> None:
    monitor.send(signal.SIGINT)


ENDS: tuple[Callable[[Monitor], None], ...] = (closed, terminated, interrupted)


def end_all(monitors: Iterable[Monitor]) -> None:
    """Ends them all by SIGTERM, and sees to it that they end well."""
    running = list(monitors)
    for monitor in running:
        wait_for_main_loop(monitor)
        terminated(monitor)
    for monitor in running:
        monitor.assert_clean_end()
