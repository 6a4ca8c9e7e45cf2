"""What happens to a desktop while the program runs: other settings and scales, workspaces, monitors that come and go, the end of buses,
servers and compositors, descriptors that run out."""

from __future__ import annotations

import os
import re
import resource
import signal
import time
from contextlib import ExitStack
from pathlib import Path

import numpy
import pytest

from accessibility import Rect
from display_process import processes_with
from display_x11 import run_tool
from displays import Display, SwayDisplay, TwoMonitors, WestonDisplay, XDisplay, load_picture, wait_until
from fakemachine import Machine
from geometry_records import Home, Record, Stored, wait_for_place
from monitor import PROGRAM_NAME, TIMEOUT, TITLE, Monitor, Start, wait_for_main_loop
from settings_dialog import SettingsDialog
from xsettings import XSettings

FROZEN = {"clusters": [{"cores": 4, "mhz": [800, 3000]}], "load": "frozen"}
STEADY = {"clusters": [{"cores": 2}], "load": {"kind": "steady", "percent": [20, 40]}}
WAVES = STEADY | {"load": "waves"}
VERTICAL, HORIZONTAL = Record(123, 77, 400, 467, 3), Record(300, 400, 700, 310, 2)
BOTH = Stored(VERTICAL, HORIZONTAL)
TICKS_TO_WATCH = 2.5  # seconds for something that must not happen meanwhile


# --- window managers ---

@pytest.mark.parametrize("name", ["metacity", "icewm"])
def test_place_and_orientation_under_other_window_managers(name: str, displays: ExitStack, start: Start, tmp_path: Path) -> None:
    display = displays.enter_context(XDisplay(window_manager=name))
    dialog = SettingsDialog.of_new_program(start, display, tmp_path / "kept", STEADY, records=BOTH)
    wait_for_place(display, dialog.main, VERTICAL, "at the start")
    dialog.open()
    for orientation, record in [("horizontal", HORIZONTAL), ("vertical", VERTICAL)]:
        dialog.choose_orientation(orientation)
        wait_for_place(display, dialog.main, record, orientation)
        dialog.home.wait_for(BOTH, orientation)
    close(dialog.monitor)
    for run in range(2):
        assert dialog.home.stored == BOTH, f"before run {run}"
        monitor = dialog.home.start(start, display, STEADY)
        wait_for_place(display, monitor.window, VERTICAL, f"run {run}")
        close(monitor)


def close(monitor: Monitor) -> None:
    """Closes its window as the user does, and sees to it that it ends well."""
    wait_for_main_loop(monitor)
    monitor.close_window()
    monitor.assert_clean_end()


# --- a second monitor ---

def test_second_monitor(displays: ExitStack, start: Start, tmp_path: Path) -> None:
    display = displays.enter_context(TwoMonitors())
    # On the primary one's left edge the frame has room. At its right edge it has none, and a window manager that gets the new size only
    # after the new place, as on a busy computer, would push the window by the frame's width.
    display.put_primary_right()
    width, _ = display.MONITOR
    over_there = VERTICAL._replace(x=123)
    stored = Stored(over_there, HORIZONTAL._replace(x=50))
    home = Home(tmp_path / "kept")
    home.write(stored)
    monitor = home.start(start, display, STEADY)
    wait_for_place(display, monitor.window, over_there, "at the start")
    close(monitor)
    assert home.stored == stored
    dialog = SettingsDialog.of_new_program(start, display, home.path, STEADY)
    wait_for_place(display, dialog.main, over_there, "at the second start")
    dialog.open()
    dialog.choose_orientation("horizontal")
    at_the_edge = HORIZONTAL._replace(x=width)
    wait_for_place(display, dialog.main, at_the_edge, "on the primary monitor, as README says")
    dialog.home.wait_for(Stored(over_there, at_the_edge), "on the primary monitor")


def test_monitor_that_goes_and_comes(displays: ExitStack, start: Start, tmp_path: Path) -> None:
    display = displays.enter_context(TwoMonitors())
    over_there = VERTICAL._replace(x=display.MONITOR[0] + 123)
    home = Home(tmp_path / "kept")
    home.write(Stored(over_there, HORIZONTAL))
    monitor = home.start(start, display, STEADY, accessible=True)
    wait_for_place(display, monitor.window, over_there, "at the start")
    for change in (display.unplug, display.plug_in):
        change()
        assert len(monitor.percentages(monitor.content().cards)) == 2
    close(monitor)


# --- settings and scales ---

class Twins:
    """The program, and how one looks beside it that starts later. Charts are left out: they tell of the past."""

    SIZE = 300, 350
    ELDER, YOUNGER = (10, 30), (330, 30)  # where they stand

    def __init__(self, start: Start, display: Display, machine: Machine, folder: Path) -> None:
        self._start, self._display, self._machine, self._folder = start, display, machine, folder
        self.elder = self._born(self.ELDER)

    def _born(self, place: tuple[int, int]) -> Monitor:
        home = Home(self._folder / f"at-{place[0]}")
        home.write(Stored(Record(*place, *self.SIZE, 2), HORIZONTAL))
        monitor = home.start(self._start, self._display, self._machine, accessible=True, env={"GDK_SCALE": None})
        monitor.content()
        if isinstance(self._display, SwayDisplay):
            self._display.command(f"[pid={monitor.pid}] move absolute position {place[0]} {place[1]}")
        return monitor

    def assert_alike(self, scale: int, when: str) -> None:
        """One that starts now comes to look just the same."""
        younger = self._born(self.YOUNGER)
        wait_until(lambda: self._picture(self.elder, scale) == self._picture(younger, scale), TIMEOUT, f"windows that look alike, {when}")
        younger.send(signal.SIGTERM)
        younger.assert_clean_end()

    def _picture(self, monitor: Monitor, scale: int) -> bytes:
        content = monitor.content()
        picture = self._whole_picture(monitor, scale).copy()
        assert picture.shape[:2] == (scale * self.SIZE[1], scale * self.SIZE[0])
        for chart in [content.total_chart, *(card.chart for card in content.cards)]:
            part_of(picture, chart, scale)[:] = 0
        return picture.tobytes()

    def _whole_picture(self, monitor: Monitor, scale: int) -> numpy.ndarray:
        if not isinstance(self._display, SwayDisplay):
            return monitor.picture(self._folder / "window.png")
        (view,) = [one for one in self._display.views(PROGRAM_NAME) if one["pid"] == monitor.pid]
        self._display.screenshot(self._folder / "screen.png")
        return part_of(load_picture(self._folder / "screen.png"), Rect(*(view["rect"][name] for name in ("x", "y", "width", "height"))), scale)


def part_of(picture: numpy.ndarray, part: Rect, scale: int) -> numpy.ndarray:
    return picture[scale * part.y:scale * part.bottom, scale * part.x:scale * part.right]


def test_settings_of_the_desktop(displays: ExitStack, machines: ExitStack, start: Start, tmp_path: Path) -> None:
    display = displays.enter_context(XDisplay())
    settings = XSettings(display, tmp_path)
    twins = Twins(start, display, machines.enter_context(Machine(FROZEN)), tmp_path)
    settings.set({"Net/ThemeName": '"HighContrast"', "Net/IconThemeName": '"hicolor"', "Gtk/FontName": '"DejaVu Serif 16"',
                  "Xft/DPI": 240 * 1024, "Gdk/UnscaledDPI": 120 * 1024, "Gdk/WindowScalingFactor": 2})
    twins.assert_alike(2, "with another theme, font, resolution and scale")
    settings.set({})
    twins.assert_alike(1, "as usual again")
    assert twins.elder.complaints() == ""


def test_scale_on_wayland(displays: ExitStack, machines: ExitStack, start: Start, tmp_path: Path) -> None:
    display = displays.enter_context(SwayDisplay())
    twins = Twins(start, display, machines.enter_context(Machine(FROZEN)), tmp_path)
    for scale in (2, 1):
        display.set_scale(scale)
        twins.assert_alike(scale, f"scale {scale}")
    assert twins.elder.complaints() == ""


# --- out of sight ---

def written(monitor: Monitor) -> int:
    """Bytes that the main thread has written so far, which are its orders to the X server."""
    text = Path(f"/proc/{monitor.pid}/task/{monitor.pid}/io").read_text()
    return int(re.search(r"^wchar: (\d+)$", text, re.MULTILINE)[1])


def test_on_another_workspace_nothing_is_painted(displays: ExitStack, start: Start, tmp_path: Path) -> None:
    display = displays.enter_context(XDisplay())
    home = Home(tmp_path / "kept")
    home.write(BOTH)
    monitor = home.start(start, display, STEADY)
    window = monitor.window
    wait_for_place(display, window, VERTICAL, "at the start")
    wait_for_main_loop(monitor)

    def wait_for_painting(when: str) -> None:
        before = written(monitor)
        wait_until(lambda: written(monitor) > before, TIMEOUT, f"painting, {when}")

    def is_idle() -> bool:
        before = written(monitor)
        time.sleep(TICKS_TO_WATCH)
        return written(monitor) == before
    wait_for_painting("at the start")
    run_tool(["wmctrl", "-s", "1"], display.env)
    wait_until(lambda: window not in display.windows(TITLE), TIMEOUT, "the window to be out of sight")
    wait_until(is_idle, TIMEOUT, "painting to end")
    run_tool(["wmctrl", "-s", "0"], display.env)
    wait_for_place(display, window, VERTICAL, "back again")
    wait_for_painting("back again")
    close(monitor)
    assert home.stored == BOTH


# --- ends ---

#: What Xlib and GDK say as they end the program, if anything: it depends on the call that is the first to notice.
LOST = re.compile(r"(\n?vantric: Fatal IO error \d+ \(.*\) on X server :\d+\.\n"
                  r"|X connection to :\d+ broken \(.*\)\.\n"
                  r"|(\(vantric:\d+\): )?Gdk-Message: .*: (Lost connection to Wayland compositor\.|Error (reading events from|flushing) display: .*)\n"
                  r"|\(vantric:\d+\): Gdk-WARNING .*\n)*")


@pytest.mark.parametrize("kind", [XDisplay, SwayDisplay, WestonDisplay])
def test_end_of_the_display_ends_the_program(kind: type[Display], displays: ExitStack, start: Start) -> None:
    display = displays.enter_context(kind())
    monitors = [start(display, STEADY, accessible=False) for _ in range(3)]
    for monitor in monitors:
        wait_for_main_loop(monitor)
        if not isinstance(display, WestonDisplay):
            monitor.wait_for_window()
    display.server.send_signal(signal.SIGKILL)
    for monitor in monitors:
        assert monitor.wait() == 1
        assert LOST.fullmatch(monitor.complaints()), monitor.complaints()
    assert list(display.folder.rglob("*crash*")) == []


def test_end_of_the_accessibility_bus(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    monitor = start(x11, WAVES)
    assert len(monitor.content().cards) == 2
    (bus,) = [pid for pid in processes_with("XDG_RUNTIME_DIR", str(x11.runtime_dir)) if "accessibility.conf" in command_of(pid)]
    os.kill(bus, signal.SIGKILL)
    wait_until(lambda: not command_of(bus), TIMEOUT, "the end of the bus")
    for _ in range(2):  # the main loop runs, and so do the sampling threads
        before = monitor.picture(tmp_path / "window.png")
        wait_until(lambda: not numpy.array_equal(monitor.picture(tmp_path / "window.png"), before), TIMEOUT, "the next tick")
    close(monitor)


def command_of(pid: int) -> str:
    """What it was started with; empty if it has ended."""
    try:
        return Path(f"/proc/{pid}/cmdline").read_text()
    except OSError:
        return ""


# --- want ---

def lowest_free_descriptor(pid: int) -> int:
    """With this limit it can open nothing more. Files that are just being read don't count: each look may find some."""
    kept: set[int] = set()
    for look in range(10):
        now = {int(name) for name in os.listdir(f"/proc/{pid}/fd")}
        kept = kept & now if look else now
        time.sleep(0.05)
    return min(set(range(len(kept) + 1)) - kept)


def test_without_descriptors_it_waits_for_better_times(x11: XDisplay, machines: ExitStack, start: Start, tmp_path: Path) -> None:
    machine = machines.enter_context(Machine(STEADY))
    home = Home(tmp_path / "kept")
    home.write(BOTH)
    monitor = home.start(start, x11, machine, accessible=True, wrap=["prlimit", "--nofile=16:64"])
    window, cards = monitor.window, monitor.content().cards
    monitor.wait_for_percentages(cards, ["20%", "40%"], "with 16 descriptors")
    wait_for_place(x11, window, VERTICAL, "at the start")
    usual = resource.prlimit(monitor.pid, resource.RLIMIT_NOFILE, (lowest_free_descriptor(monitor.pid), 64))
    machine.set_load("steady", [90, 10])
    x11.move(window, 300, 200)
    wait_for_place(x11, window, VERTICAL._replace(x=300, y=200), "without descriptors")
    time.sleep(TICKS_TO_WATCH)
    assert (monitor.running(), home.stored) == (True, BOTH)
    resource.prlimit(monitor.pid, resource.RLIMIT_NOFILE, usual)
    monitor.wait_for_percentages(cards, ["90%", "10%"], "with descriptors again")
    x11.move(window, 310, 210)
    home.wait_for(Stored(VERTICAL._replace(x=310, y=210), HORIZONTAL), "with descriptors again")
    close(monitor)
