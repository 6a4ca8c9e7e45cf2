"""SIGKILL during saves: the settings are the old ones or the new ones, always whole, and any geometry that is left starts the program.

VANTRIC_KILLS is how many programs are killed at random moments.
"""

from __future__ import annotations

import itertools
import os
import random
import signal
import threading
import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager, suppress
from pathlib import Path

from gi.repository import GLib

from displays import DisplayError, XDisplay, wait_until
from geometry_records import Home, Record, Stored, closed, windows_of
from monitor import TIMEOUT, Monitor, Start, config_folder, settings_text, wait_for_main_loop
from settings_dialog import THEMES, SettingsDialog, saved_bytes

KILLS = int(os.environ.get("VANTRIC_KILLS", "15"))
AT_ONCE = 5  # programs side by side
SLOW_CALL = 2000  # microseconds that each call of a save takes longer, so that most moments are in the midst of one
VERTICAL, HORIZONTAL = Record(123, 77, 431, 567, 3), Record(40, 300, 900, 310, 5)
STORED = Stored(VERTICAL, HORIZONTAL)
MOVED = Stored(VERTICAL._replace(x=300, y=200), HORIZONTAL)

Preloaded = Callable[[str], dict[str, str]]


class Orders:
    """What the preloaded library is to do in one program; it looks at each call, so orders can come at any time."""

    def __init__(self, library: dict[str, str], file: Path) -> None:
        self._file = file
        self.env = {**library, "KILL_AT_CALL_FILE": str(file)}

    def give(self, word: str, number: int) -> None:
        draft = self._file.with_suffix(".draft")
        draft.write_text(f"{word} {number}\n")
        draft.rename(self._file)

    @property
    def calls(self) -> list[str]:
        """The calls since the first order."""
        return Path(f"{self._file}.calls").read_text().split()


def moments_of(calls: list[str]) -> list[tuple[str, int]]:
    """An order for each moment at which these calls can be cut short."""
    moments = [("kill", number) for number in range(1, len(calls) + 1)]
    return moments + [("halve", number) for number, call in enumerate(calls, 1) if call == "write"]


def wait_for_kill(monitor: Monitor, when: str) -> None:
    assert monitor.wait() == -signal.SIGKILL, when
    assert monitor.complaints() == "", when


def assert_starts_and_ends_whole(start: Start, display: XDisplay, homes: list[Home]) -> None:
    """A program in each of these homes shows its window and leaves a whole record behind."""
    monitors = [home.start(start, display, orientation=None) for home in homes]
    windows_of(display, monitors)
    for monitor in monitors:
        closed(monitor)
    for monitor, home in zip(monitors, homes):
        monitor.assert_clean_end()
        assert home.stored, home.geometry.read_bytes()


# --- at each call ---

def test_kill_at_each_call_of_saving_settings(x11: XDisplay, preloaded: Preloaded, start: Start, tmp_path: Path) -> None:
    library = preloaded("kill_at_call")
    old, new = settings_text().encode(), saved_bytes(theme="dark")

    def open_dialog(name: str) -> tuple[SettingsDialog, Orders]:
        orders = Orders(library, tmp_path / f"{name}.orders")
        return SettingsDialog.of_new_program(start, x11, tmp_path / name, env=orders.env), orders

    def choose_dark(dialog: SettingsDialog) -> None:
        dialog.choose(dialog.wait().theme, THEMES.index("dark"))
    dialog, orders = open_dialog("unharmed")
    dialog.open()
    orders.give("kill", 0)
    choose_dark(dialog)
    dialog.wait_for_saved("unharmed", theme="dark")
    calls = orders.calls
    assert [call for call in calls if call in ("fopen", "write", "rename")] == ["fopen", "write", "rename"]

    victims = {moment: open_dialog(f"{moment[0]}-{moment[1]}") for moment in moments_of(calls)}
    for (word, number), (victim, orders) in victims.items():
        victim.open()
        orders.give(word, number)
        with suppress(GLib.Error):  # it has gone
            choose_dark(victim)
        wait_for_kill(victim.monitor, f"{word} {number} of {calls}")
        is_renamed = "rename" in calls[:number - 1]
        assert victim.settings_file.read_bytes() == (new if is_renamed else old), f"{word} {number} of {calls}"
    assert_starts_and_ends_whole(start, x11, [victim.home for victim, _ in victims.values()])
    halved = next(victim for (word, _), (victim, _) in victims.items() if word == "halve")
    left = halved.settings_file.with_suffix(".json.tmp").read_bytes()
    assert left == new[:len(new) // 2]
    again = SettingsDialog(halved.home.start(start, x11, orientation=None, accessible=True), halved.home)
    again.open()
    choose_dark(again)
    again.wait_for_saved("over the half that was left", theme="dark")


def test_kill_at_each_call_of_saving_the_geometry(x11: XDisplay, preloaded: Preloaded, start: Start, tmp_path: Path) -> None:
    library = preloaded("kill_at_call")

    def start_in(name: str) -> tuple[Home, Monitor, Orders]:
        home, orders = Home(tmp_path / name), Orders(library, tmp_path / f"{name}.orders")
        home.write(STORED.line.encode() + b"\n")  # which the program's own save takes away
        return home, home.start(start, x11, env=orders.env), orders

    def wait_for_first_save(home: Home, monitor: Monitor) -> None:
        home.wait_for(STORED, "at the start")
        wait_for_main_loop(monitor)  # the file has been closed by then

    def move(window: int) -> None:
        x11.move(window, *MOVED.vertical.place)
    home, monitor, orders = start_in("unharmed")
    wait_for_first_save(home, monitor)
    (window,) = windows_of(x11, [monitor])
    orders.give("kill", 0)
    move(window)
    home.wait_for(MOVED, "moved")
    wait_until(lambda: orders.calls.count("fclose") > orders.calls.count("write"), TIMEOUT, "the end of the save")
    calls = orders.calls
    first_save = calls[:calls.index("write") + 2]  # and the closing behind it; the window manager may send more events than one
    assert "fopen" in first_save and first_save[-1] == "fclose"

    victims = {moment: start_in(f"{moment[0]}-{moment[1]}") for moment in moments_of(first_save)}
    windows = windows_of(x11, [monitor for _, monitor, _ in victims.values()])
    for (home, monitor, _) in victims.values():
        wait_for_first_save(home, monitor)
    for ((word, number), (home, monitor, orders)), window in zip(victims.items(), windows):
        orders.give(word, number)
        move(window)
        wait_for_kill(monitor, f"{word} {number} of {first_save}")
        left, line = home.geometry.read_bytes(), MOVED.line.encode()
        done = first_save[:number - 1]
        if word == "halve":
            expected = line[:len(line) // 2]
        elif "write" in done:
            expected = line
        else:
            expected = b"" if "fopen" in done else STORED.line.encode()
        assert left == expected, f"{word} {number} of {first_save}"
    assert_starts_and_ends_whole(start, x11, [home for home, _, _ in victims.values()])


# --- at random moments ---

class Changer(threading.Thread):
    """Changes a setting again and again, until the program is no more."""

    def __init__(self, dialog: SettingsDialog) -> None:
        super().__init__()
        self.dialog = dialog
        self._combo = dialog.open().theme.combo.address
        self.saved = self.asked = dialog.settings_file.read_bytes()
        self.changes = 0

    def run(self) -> None:
        with suppress(GLib.Error):  # it has gone
            for theme in itertools.cycle(["auto", "light"]):  # without a portal both are light, so the dialog stays as it is
                self.asked = saved_bytes(theme=theme)
                self.dialog.monitor.bus.select(self._combo, THEMES.index(theme))
                self.saved = self.asked
                self.changes += 1


@contextmanager
def moving(display: XDisplay, windows: list[int]) -> Iterator[None]:
    """Moves the windows all the time, each as often as can be."""
    stop = threading.Event()

    def move(window: int) -> None:
        for step in itertools.count():
            if stop.is_set():
                return
            with suppress(DisplayError):  # it has gone
                display.move(window, 50 + 13 * step % 350, 40 + 17 * step % 250)
    movers = [threading.Thread(target=move, args=(window,)) for window in windows]
    for mover in movers:
        mover.start()
    try:
        yield
    finally:
        stop.set()
        for mover in movers:
            mover.join()


def test_kill_at_random_moments(x11: XDisplay, preloaded: Preloaded, start: Start, tmp_path: Path) -> None:
    seed = random.randrange(10**6)
    print(f"seed {seed}")
    moments = random.Random(seed)
    library = preloaded("kill_at_call")
    homes = [Home(tmp_path / f"home {number}") for number in range(AT_ONCE)]
    for home in homes:
        home.write(STORED)
        (config_folder(home.path) / "settings.json").write_bytes(saved_bytes())
    orders = [Orders(library, tmp_path / f"{number}.orders") for number in range(AT_ONCE)]
    for one in orders:
        one.give("slow", SLOW_CALL)
    killed = changes = in_settings = in_geometry = 0
    while killed < KILLS:
        # Each starts with what the one before has left
        monitors = [home.start(start, x11, orientation=None, env=one.env, accessible=True)
                    for home, one in list(zip(homes, orders))[:KILLS - killed]]
        windows = windows_of(x11, monitors)
        changers = [Changer(SettingsDialog(monitor, home)) for monitor, home in zip(monitors, homes)]
        before = [home.geometry.read_bytes() for home in homes]
        with moving(x11, windows):
            wait_until(lambda: before != [home.geometry.read_bytes() for home in homes], TIMEOUT, "the windows' moving")
            for changer in changers:
                changer.start()
            for changer in moments.sample(changers, len(changers)):
                time.sleep(moments.uniform(0, 0.15))
                changer.dialog.monitor.send(signal.SIGKILL)
        for changer in changers:
            changer.join()
            wait_for_kill(changer.dialog.monitor, f"kill {killed}")
            assert changer.dialog.settings_file.read_bytes() in (changer.saved, changer.asked), f"kill {killed}"
            killed += 1
            changes += changer.changes
            in_settings += changer.dialog.settings_file.with_suffix(".json.tmp").exists()
            in_geometry += changer.dialog.home.stored is None
            changer.dialog.monitor.kill()  # gives back our connection to it
    print(f"{killed} killed after {changes} changes: {in_settings} within a save of the settings, {in_geometry} within one of the geometry")
    assert_starts_and_ends_whole(start, x11, homes)
