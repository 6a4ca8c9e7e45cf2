"""A damaged geometry file, or one that can't be used: the program starts all the same, and its next save makes it whole if it can."""

from __future__ import annotations

from collections.abc import Callable
from contextlib import ExitStack
from pathlib import Path

import pytest

from displays import XDisplay
from geometry_records import (STILL, UNSTORED, Home, Record, Stored, end_all, least_size, opened, understood, wait_for_place,
                              windows_of)
from monitor import Start, as_root_without_rights

VERTICAL, HORIZONTAL = Record(-12, 34, 431, 567, 3), Record(56, -78, 900, 310, 12)
WHOLE = Stored(VERTICAL, HORIZONTAL).line.encode()


@pytest.fixture
def bare(displays: ExitStack) -> XDisplay:
    """A display without a window manager: nobody else has a say in place and size."""
    return displays.enter_context(XDisplay(window_manager=None))


# --- contents ---

FIRST_START = Record(607, 162, 0, 700, 1)  # with the least width that the content allows

# Contents, and what the window and the other orientation come to
DAMAGED: dict[str, tuple[bytes, Record, Record]] = {
    "empty": (b"", FIRST_START, UNSTORED),
    "of one blank": (b" ", FIRST_START, UNSTORED),
    "of zeros": (bytes(5000), FIRST_START, UNSTORED),
    "of all bytes": (bytes(range(256)) * 40, FIRST_START, UNSTORED),
    "of an empty object": (b"{}", FIRST_START, UNSTORED),
    "of texts": (WHOLE.replace(b":", b':"').replace(b",", b'",'), FIRST_START, UNSTORED),
    "with blanks before the colons": (WHOLE.replace(b":", b" :"), FIRST_START, UNSTORED),
    "on many lines": (WHOLE.replace(b":", b":\n\t ").replace(b",", b",\n"), VERTICAL, HORIZONTAL),
    "of other line ends": (b"\xef\xbb\xbf" + WHOLE + b"\r\n", VERTICAL, HORIZONTAL),
    "twice the line": (WHOLE + Stored(HORIZONTAL, VERTICAL).line.encode(), VERTICAL, HORIZONTAL),
    "a line and a half, of a longer one before": (WHOLE + WHOLE[-30:], VERTICAL, HORIZONTAL),
    "behind much else": (b"y" * 2_000_000 + WHOLE, VERTICAL, HORIZONTAL),
    "of numbers that are too large": (
        WHOLE.replace(b"-12", b"99999999999").replace(b"900", b"2147483648"), VERTICAL._replace(x=0), HORIZONTAL._replace(width=0)),
    "of fractions": (WHOLE.replace(b"431", b"431.9").replace(b"56,", b"0x56,"), VERTICAL, HORIZONTAL._replace(x=0)),
    "of columns beyond all measure": (
        WHOLE.replace(b":3,", b":-1,").replace(b":12}", b":77}"), VERTICAL._replace(num_columns=1),
        HORIZONTAL._replace(num_columns=16)),
    "without the horizontal half": (WHOLE[:WHOLE.index(b',"h_x"')] + b"}", VERTICAL, UNSTORED),
    "without the vertical half": (b"{" + WHOLE[WHOLE.index(b'"h_x"'):], FIRST_START, HORIZONTAL),
}


def test_damaged_contents(bare: XDisplay, start: Start, tmp_path: Path) -> None:
    homes = {name: Home(tmp_path / name) for name in DAMAGED}
    for name, home in homes.items():
        home.write(DAMAGED[name][0])
    monitors = [home.start(start, bare, STILL) for home in homes.values()]
    for (name, home), window in zip(homes.items(), windows_of(bare, monitors)):
        _, record, other = DAMAGED[name]
        record = record._replace(width=record.width or least_size(bare, window)[0])
        wait_for_place(bare, window, record, f"file {name}")
        home.wait_for(Stored(record, other), f"file {name}")


CUTS = range(len(WHOLE))
OWN_HALF = WHOLE.index(b',"h_x"')  # all that the start needs


def test_start_with_a_file_cut_at_each_byte(bare: XDisplay, start: Start, tmp_path: Path) -> None:
    at_once = 32  # programs side by side
    for first in range(0, OWN_HALF + 2, at_once):
        homes = {cut: Home(tmp_path / str(cut)) for cut in range(first, min(first + at_once, OWN_HALF + 2))}
        for cut, home in homes.items():
            home.write(WHOLE[:cut])
        monitors = [home.start(start, bare, STILL) for home in homes.values()]
        for (cut, home), window in zip(homes.items(), windows_of(bare, monitors)):
            read = understood(WHOLE[:cut])
            expected = opened(read.vertical, least_size(bare, window))
            home.wait_for(Stored(expected, read.horizontal), f"cut to {cut} bytes")
        end_all(monitors)


def test_save_into_a_file_cut_at_each_byte(bare: XDisplay, start: Start, tmp_path: Path) -> None:
    home = Home(tmp_path)
    home.write(WHOLE + b"\n")  # which the program's own save takes away
    window = home.start(start, bare).window
    wait_for_place(bare, window, VERTICAL, "at the start")
    home.wait_for(Stored(VERTICAL, HORIZONTAL), "at the start")
    for cut in CUTS:
        home.write(WHOLE[:cut])
        bare.move(window, 100 + cut, 200)
        home.wait_for(Stored(VERTICAL._replace(x=100 + cut, y=200), understood(WHOLE[:cut]).horizontal), f"cut to {cut} bytes")


# --- files and folders ---

Prepare = Callable[[Home], Path | None]


def directory(home: Home) -> None:
    home.geometry.mkdir()


def loop(home: Home) -> None:
    home.geometry.symlink_to(home.geometry.name)


def file_of_mode(mode: int, is_written: bool) -> Prepare:
    def prepare(home: Home) -> Path | None:
        home.write(WHOLE)
        home.geometry.chmod(mode)
        return home.geometry if is_written else None
    return prepare


def read_only_folder(home: Home) -> None:
    home.geometry.parent.chmod(0o555)


def file_in_a_read_only_folder(home: Home) -> Path:
    home.write(WHOLE)
    read_only_folder(home)
    return home.geometry  # overwritten in place


def folder_that_is_a_file(home: Home) -> None:
    home.geometry.parent.rmdir()
    home.geometry.parent.write_text("")


def link(home: Home) -> Path:
    target = home.path / "elsewhere"
    target.write_bytes(WHOLE)
    home.geometry.symlink_to(target)
    return target


def link_to_nothing(home: Home) -> Path:
    home.geometry.symlink_to(home.path / "elsewhere")
    return home.path / "elsewhere"


# What is prepared, and whether the record in it can be read
UNUSUAL: dict[str, tuple[Prepare, bool]] = {
    "directory": (directory, False),
    "loop": (loop, False),
    "closed file": (file_of_mode(0o000, is_written=False), False),
    "read-only file": (file_of_mode(0o444, is_written=False), True),
    "write-only file": (file_of_mode(0o200, is_written=True), False),
    "read-only folder": (read_only_folder, False),
    "file in a read-only folder": (file_in_a_read_only_folder, True),
    "folder that is a file": (folder_that_is_a_file, False),
    "link": (link, True),
    "link to nothing": (link_to_nothing, False),
}


def looks(home: Home) -> dict[str, tuple[int, int]]:
    """Number and kind of all that stands in a home, so that something new or replaced would show."""
    entries = [path for path in home.path.rglob("*") if not path.is_relative_to(home.path / "elsewhere")]
    return {str(path): (status.st_ino, status.st_mode) for path in entries for status in [path.lstat()]}


def test_unusual_files(bare: XDisplay, start: Start, tmp_path: Path) -> None:
    homes = {name: Home(tmp_path / name) for name in UNUSUAL}
    written: dict[str, Path | None] = {}
    for name, (prepare, _) in UNUSUAL.items():
        homes[name].geometry.parent.mkdir(parents=True)
        written[name] = prepare(homes[name])
    before = {name: looks(home) for name, home in homes.items()}
    monitors = [home.start(start, bare, STILL, orientation=None, wrap=as_root_without_rights()) for home in homes.values()]
    ends_at: dict[str, Stored] = {}
    for (name, (_, is_read)), window in zip(UNUSUAL.items(), windows_of(bare, monitors)):
        record = VERTICAL if is_read else FIRST_START._replace(width=least_size(bare, window)[0])
        wait_for_place(bare, window, record, name)
        bare.move(window, 200, 100)
        ends_at[name] = Stored(record._replace(x=200, y=100), HORIZONTAL if is_read else UNSTORED)
    end_all(monitors)
    for name, home in homes.items():
        assert looks(home) == before[name], name
        if file := written[name]:
            file.chmod(0o600)
            assert file.read_text() == ends_at[name].line, name
    for name in ("closed file", "read-only file"):
        homes[name].geometry.chmod(0o600)
        assert homes[name].geometry.read_bytes() == WHOLE, name


def test_file_is_overwritten_in_place(bare: XDisplay, start: Start, tmp_path: Path) -> None:
    home = Home(tmp_path / "home")
    home.write(WHOLE)
    home.geometry.chmod(0o640)
    (tmp_path / "other name").hardlink_to(home.geometry)
    before = home.geometry.stat()
    monitor = home.start(start, bare)
    wait_for_place(bare, monitor.window, VERTICAL, "at the start")
    bare.move(monitor.window, 1, 2)
    expected = Stored(VERTICAL._replace(x=1, y=2), HORIZONTAL)
    home.wait_for(expected, "moved")
    assert (tmp_path / "other name").read_text() == expected.line
    after = home.geometry.stat()
    assert (after.st_ino, after.st_mode, after.st_nlink) == (before.st_ino, before.st_mode, 2)
    assert {path.name for path in home.geometry.parent.iterdir()} == {"geometry.json", "settings.json"}
