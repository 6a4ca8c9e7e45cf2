"""Somebody who uses window and dialog without sense: clicks, keys, the wheel, moves, sizes, settings, ends and new starts, at random."""

from __future__ import annotations

import json
import os
import random
import time
from collections import Counter
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path
from typing import NamedTuple

import numpy
from gi.repository import GLib
from PIL import Image

from accessibility import Gone, Node, Rect, State
from display_process import WaitTimeout
from display_x11 import run_tool
from displays import DisplayError, XDisplay, load_picture, wait_until
from fakemachine import Machine
from geometry_records import Home, Record, interrupted, least_size, shown, terminated, wait_for_place
from monitor import TIMEOUT, Monitor, Start, settings_text, wait_for_main_loop
from settings_dialog import DEFAULTS, ORIENTATIONS, THEMES, Dialog, SettingsDialog, main_window, while_it_changes

LONGEST_REST = 0.2  # seconds between two acts
LONGEST_MINIMISED = 1.0  # seconds
FARTHEST_DRAG = 80  # pixels
REACH = 60  # pixels from the left end of a control, within which it is met: the title of an expander is short
KEYS = ["Tab", "Tab", "Tab", "shift+Tab", "space", "Return", "Escape", "Up", "Down", "Left", "Right", "Home", "End", "Prior", "Next", "F10",
        "Menu", "ctrl+a", "ctrl+Tab", "plus", "minus", "a", "D", "7"]
LEFT, MIDDLE, RIGHT, WHEEL_UP, WHEEL_DOWN = range(1, 6)  # buttons
STATES = ("maximized_vert,maximized_horz", "fullscreen", "shaded")
POINT = (1, 1)  # the size of windows in which GTK shows nothing
TRACE = "[trace] "
CRASH_REPORT = "Vantric_crash.txt"
BESIDE = "Beside"  # the title of a window of another program, which nothing but a signal ends
BESIDE_SCRIPT = f"""
import gi
gi.require_version("Gtk", "3.0")
from gi.repository import Gtk
window = Gtk.Window(title="{BESIDE}")
window.connect("delete-event", lambda *_: True)
window.show()
Gtk.main()
"""

#: A machine on which nothing changes that is shown, so that two programs show the same once both have begun.
MACHINE = {
    "clusters": [{"cores": 4, "mhz": [800, 5000], "type": "intel_core"}, {"cores": 4, "mhz": [800, 3800], "type": "intel_atom"}],
    "zones": [{"type": "x86_pkg_temp", "celsius": 61, "trips": [["passive", 95]]}], "memory": {"total_gib": 16, "used_gib": 5},
    "load": {"kind": "steady", "percent": [0, 20, 30, 50, 60, 70, 80, 100]}}

#: What stands in the place of everything that would open a link, and notes each call.
RECORDER = '#!/bin/sh\nprintf "%s\\n" "$1" >>"{calls}"\n'
OPENERS = ("xdg-open", "gio-open", "sensible-browser", "x-www-browser")
DESKTOP_FILE = ("[Desktop Entry]\nType=Application\nName=Recorder\nExec={program} %u\n"
                "MimeType=x-scheme-handler/http;x-scheme-handler/https;x-scheme-handler/mailto;\n")
SCHEMES = "".join(f"x-scheme-handler/{scheme}=recorder.desktop\n" for scheme in ("http", "https", "mailto"))


def record_links(folder: Path) -> dict[str, str | None]:
    """Puts the recorder in its places; the variables that make it known."""
    applications, tools = folder / "data/applications", folder / "tools"
    applications.mkdir(parents=True)
    tools.mkdir()
    for name in OPENERS:
        (tools / name).write_text(RECORDER.format(calls=folder / "calls"))
        (tools / name).chmod(0o755)
    (applications / "recorder.desktop").write_text(DESKTOP_FILE.format(program=tools / OPENERS[0]))
    (applications / "mimeapps.list").write_text(f"[Default Applications]\n{SCHEMES}[Added Associations]\n{SCHEMES}")
    return {"XDG_DATA_HOME": str(folder / "data"), "PATH": f"{tools}:{os.environ['PATH']}"}


class Widget(NamedTuple):
    """What is told of a widget that can be seen."""
    depth: int
    role: str
    name: str
    description: str
    rect: Rect


@dataclass
class Look:
    """All that is seen of a program at rest."""
    record: Record
    window: list[Widget]
    dialog: list[Widget]
    choices: list[int]
    picture: numpy.ndarray  # of the window, without the charts: their curves are as long as the program has run


class RandomUser:
    """Uses the program at random, starts it again when it has ended, and looks after each act whether all is well."""

    def __init__(self, start: Start, display: XDisplay, home: Path, machine: Machine, seed: int) -> None:
        self.done = Counter[str]()
        self.seen: dict[str, set[str]] = {key: set() for key in DEFAULTS}  # the values that were saved
        self._start, self._display, self._home, self._machine = start, display, Home(home), machine
        self._random = random.Random(seed)
        self._links = home.with_suffix(".links")
        self._env = {**record_links(self._links), "HOME": str(home), "VANTRIC_TRACE": "1"}
        self._beside = _window_beside(display)
        self._new_program()

    def act(self) -> None:
        """Does something after a little while, and checks that it has done no harm."""
        self._do({self._click: 20, self._press_keys: 12, self._turn_wheel: 8, self._drag: 6, self._use_control: 22, self._pick_color: 6,
                  self._open_dialog: 8, self._resize: 6, self._move: 6, self._change_state: 3, self._minimise: 2, self._close_dialog: 3, self._end: 1}, LONGEST_REST)

    def act_on_choosers(self) -> None:
        """Does something in haste in the dialog and in a chooser of colours, whose content is replaced with each change of the orientation."""
        self._do({self._click_on_chooser: 30, self._press_keys: 10, self._pick_color: 8, self._change_orientation: 6, self._open_dialog: 2}, 0)

    def _do(self, acts: dict[Callable[[], None], int], longest_rest: float) -> None:
        (act,) = self._random.choices(list(acts), list(acts.values()))
        time.sleep(self._random.uniform(0, longest_rest))
        try:
            act()
            self.done[act.__name__.strip("_").replace("_", " ")] += 1
        except WaitTimeout:
            raise
        except (DisplayError, GLib.Error, Gone):
            self.done["came too late"] += 1  # the window or widget has just gone
        self._check()

    def compare_with_new_program(self) -> None:
        """Comes to rest, and starts the program again, which has to show the same. One that has just been closed can't be compared."""
        try:
            before = self._rest()
        except WaitTimeout:
            raise
        except DisplayError:
            wait_until(lambda: not self._monitor.running(), TIMEOUT, "the end of a program whose window is gone")
            self._check()
            return
        self._end()
        self._check_end()
        self._new_program()
        wait_for_place(self._display, self._main, before.record, "started again")
        self._wait_for(before)
        self._check()
        self.done["compared"] += 1

    def _wait_for(self, before: Look) -> None:
        """Waits until the program shows that."""
        seen: list[Look] = []

        def same() -> bool:
            seen[:] = [self._look()]
            return _differences(before, seen[0]) == []
        try:
            wait_until(while_it_changes(same), TIMEOUT, "")
        except AssertionError:
            pictures = [self._save_picture(name, look) for name, look in (("before", before), ("after", seen[0]))]
            lines = ["started again it shows something else:", *_differences(before, seen[0]), *pictures]
            raise AssertionError("\n".join(lines)) from None

    def finish(self) -> None:
        """Ends the program."""
        self._end()
        self._check_end()

    def links_opened(self) -> int:
        """How often something that opens links was called."""
        calls = self._links / "calls"
        return len(calls.read_text().splitlines()) if calls.exists() else 0

    # --- life cycle ---

    def _new_program(self) -> None:
        self._monitor: Monitor = self._start(self._display, self._machine, settings=None, env=self._env)
        self._dialog = SettingsDialog(self._monitor, self._home)
        self._main = self._monitor.window
        wait_for_main_loop(self._monitor)

    def _end(self) -> None:
        wait_for_main_loop(self._monitor)
        run_tool(["xdotool", "windowactivate", str(self._main)], self._display.env)  # a minimised window can't be closed everywhere
        self._random.choice([self._close_main, lambda: terminated(self._monitor), lambda: interrupted(self._monitor)])()
        self._monitor.wait()

    def _close_main(self) -> None:
        """GTK keeps a window open while a menu, or a dialog for which all others have to wait, is open."""
        self._close_windows()
        self._display.close(self._main)

    def _check(self) -> None:
        """All is well; if the program has ended, it is started again."""
        if not self._monitor.running():
            self._check_end()
            self._new_program()
        self._check_words_and_files()

    def _check_end(self) -> None:
        self._check_words_and_files()
        assert self._monitor.status == 0

    def _check_words_and_files(self) -> None:
        complaints = [line for line in self._monitor.complaints().splitlines() if not line.startswith(TRACE)]
        assert not complaints, "\n".join(complaints)
        if self._dialog.settings_file.exists():
            saved = json.loads(self._dialog.settings_file.read_text())
            assert set(saved) in ({*DEFAULTS}, {*json.loads(settings_text())}), "keys of a file that was saved, or of the first one"
            for key, value in saved.items():
                self.seen[key].add(value)
        wait_until(lambda: self._home.stored, TIMEOUT, "a whole file of the geometry")
        assert not (self._display.runtime_dir / CRASH_REPORT).exists()

    # --- acts ---

    def _click(self) -> None:
        self._point()
        self._press(self._random.choice([LEFT] * 8 + [MIDDLE, RIGHT]), self._random.choice([1, 1, 1, 2, 3]))

    def _click_on_chooser(self) -> None:
        """And on the dialog: windows are told in the order in which they were opened."""
        self._point(self._random.choice(self._windows()[-2:]))
        self._press(self._random.choice([LEFT, RIGHT]), self._random.choice([1, 1, 2]))

    def _press_keys(self) -> None:
        self._focus(self._random.choice(self._windows()))
        self._display.key(*self._random.choices(KEYS, k=self._random.randrange(1, 8)))

    def _turn_wheel(self) -> None:
        self._point()
        self._press(self._random.choice([WHEEL_UP, WHEEL_DOWN]), self._random.randrange(1, 12))

    def _drag(self) -> None:
        self._point()
        words = ["mousedown", "1"]
        for _ in range(self._random.randrange(1, 4)):
            words += ["mousemove_relative", "--", *(str(self._random.randrange(-FARTHEST_DRAG, FARTHEST_DRAG)) for _ in range(2))]
        run_tool(["xdotool", *words, "mouseup", "1"], self._display.env)

    def _use_control(self) -> None:
        """Clicks on a control of the dialog, turns the wheel over it, or chooses an item."""
        dialog = while_it_changes(self._dialog.shown)()
        if dialog is None:
            self._open_dialog()
            return
        choosers = [dialog.orientation, dialog.language, dialog.theme]
        kind = self._random.choice(["choose", "wheel", "click", "click"])
        if kind == "choose":
            chooser = self._random.choice(choosers)
            self._dialog.choose(chooser, self._random.randrange(len(self._dialog.items(chooser))))
            return
        control = self._random.choice([*(chooser.combo for chooser in choosers), *self._buttons(dialog)])
        x = control.rect.x + self._random.randrange(1, max(2, min(control.rect.width, REACH)))
        window = self._display.windows(dialog.title, self._monitor.pid)
        if not window:
            raise DisplayError("the dialog has just gone")
        self._display.point(x, control.rect.y + control.rect.height // 2, window[0])
        self._press(self._random.choice([WHEEL_UP, WHEEL_DOWN]) if kind == "wheel" else LEFT)

    def _change_orientation(self) -> None:
        dialog = while_it_changes(self._dialog.shown)()
        if dialog is not None:
            self._dialog.choose(dialog.orientation, self._random.randrange(len(ORIENTATIONS)))

    @staticmethod
    def _buttons(dialog: Dialog) -> list[Node]:
        colors = [*(row.button for row in dialog.colors), dialog.reset] if dialog.expanded else []
        return [dialog.more, dialog.more, dialog.fewer, dialog.apply, dialog.expander, *dialog.links, *colors]

    def _pick_color(self) -> None:
        """Takes some colour in the chooser of colours, if that is open; else opens it."""
        chooser = self._dialog.color_chooser()
        dialog = while_it_changes(self._dialog.shown)()
        if chooser is not None:
            palette = [node for node in chooser.walk() if node.role == "radio button"]  # none while a colour is being mixed
            answers = [node for node in chooser.walk() if node.name in ("Select", "Cancel")]
            for button in (self._random.choice(nodes) for nodes in (palette, answers) if nodes):
                self._dialog.press(button)
        elif dialog is not None:
            self._dialog.press(self._random.choice([row.button for row in dialog.colors]) if dialog.expanded else dialog.expander)

    def _open_dialog(self) -> None:
        self._focus(self._main)
        self._display.key("Tab", "space")  # the gear is all that can have the keyboard there

    def _close_dialog(self) -> None:
        for window in self._windows():
            if window != self._main:
                self._display.close(window)

    def _resize(self) -> None:
        """No less than the program allows: icewm gives a maximised window that is asked for less what it is asked for."""
        width, height = self._least_size()
        self._display.resize(self._main, self._random.randrange(width, 1500), self._random.randrange(height, 1300))

    def _move(self) -> None:
        self._display.move(self._random.choice(self._windows()), self._random.randrange(-400, 1300), self._random.randrange(-400, 1050))

    def _change_state(self) -> None:
        self._set_state("toggle", self._random.choice(STATES))

    def _minimise(self) -> None:
        run_tool(["xdotool", "windowminimize", str(self._main)], self._display.env)
        time.sleep(self._random.uniform(0, LONGEST_MINIMISED))
        self._focus(self._main)

    # --- hands ---

    def _windows(self) -> list[int]:
        """Its visible windows, menus among them; the main window even if it can't be seen."""
        return self._display.windows(pid=self._monitor.pid) or [self._main]

    def _point(self, window: int | None = None) -> None:
        """Puts the pointer at some place in a window, or in some window."""
        window = window or self._random.choice(self._windows())
        place = self._display.geometry(window)
        self._display.point(self._random.randrange(place.width), self._random.randrange(place.height), window)

    def _least_size(self) -> tuple[int, int]:
        return least_size(self._display, self._main)

    def _press(self, button: int, times: int = 1) -> None:
        run_tool(["xdotool", "click", "--repeat", str(times), "--delay", "5", str(button)], self._display.env)

    def _focus(self, window: int) -> None:
        run_tool(["xdotool", "windowactivate", str(window)], self._display.env)

    def _set_state(self, change: str, state: str) -> None:
        run_tool(["wmctrl", "-i", "-r", hex(self._main), "-b", f"{change},{state}"], self._display.env)

    # --- coming to rest ---

    def _rest(self) -> Look:
        """Puts the window to a place on the screen with all changes of its shape behind it, and looks at it."""
        self._close_windows()
        wait_until(self._is_plain, TIMEOUT, "a plain window")
        dialog = self._dialog.open()
        # Without a portal "auto" stays dark after a dark theme, until a new start
        if dialog.theme.number == THEMES.index("auto"):
            self._dialog.choose(dialog.theme, THEMES.index(self._random.choice(["light", "dark"])))
        present = dialog.orientation.number
        for number in (1 - present, present):  # columns that were counted but not applied are applied then, as at a new start
            self._dialog.choose_orientation(ORIENTATIONS[number])
        self._close_windows()
        wait_until(lambda: self._traces("rebuild: enter") == self._traces("settled("), TIMEOUT, "the end of all rebuilds")
        self._stand_still()
        seen: list[Look] = [self._look()]

        def is_at_rest() -> bool:
            seen.append(self._look())
            return _differences(*seen[-2:]) == []
        wait_until(while_it_changes(is_at_rest), TIMEOUT, "a program at rest")
        return seen[-1]

    def _is_plain(self) -> bool:
        """Takes away all states that change size or place; True if there are none."""
        set_now = self._display.states(self._main)
        for state in STATES:
            if any(f"_NET_WM_STATE_{word.upper()}" in set_now for word in state.split(",")):
                self._set_state("remove", state)
        return not any(f"_NET_WM_STATE_{word.upper()}" in set_now for state in STATES for word in state.split(","))

    def _traces(self, begin: str) -> int:
        return sum(line.startswith(TRACE + begin) for line in self._monitor.complaints().splitlines())

    def _close_windows(self) -> None:
        """Closes all but the main window, menus too."""
        def closed() -> bool:
            others = [window for window in self._windows() if window != self._main and self._display.geometry(window)[2:] > POINT]
            if others:
                self._display.key("Escape")
                for window in others:
                    self._display.close(window)
            return not others
        self._focus(self._main)
        wait_until(_while_windows_go(closed), TIMEOUT, "a main window alone")

    def _stand_still(self) -> None:
        """Moves the window to some place and size that the screen has room for, and waits until it is remembered there."""
        display, main = self._display, self._main
        width, height = (self._random.randrange(max(low, 200), max(low, 200) + 300) for low in self._least_size())
        place = self._random.randrange(40, 300), self._random.randrange(40, 150)
        display.resize_until(main, width, height, lambda: display.geometry(main)[2:] == (width, height), TIMEOUT, "the size")
        display.move(main, *place)

        def remembered() -> bool:
            stored = self._home.stored
            record = shown(display, main, 0)
            return stored is not None and any(one._replace(num_columns=0) == record for one in stored)
        wait_until(remembered, TIMEOUT, "the record of the place")

    def _look(self) -> Look:
        """Looks at both windows. The keyboard is elsewhere, and so is the pointer."""
        self._dialog.open()
        dialog = self._dialog.wait()
        if dialog.expanded:
            self._dialog.press(dialog.expander)
            dialog = self._dialog.wait(lambda now: not now.expanded, "closed colours")
        in_dialog = self._widgets(dialog.frame)
        self._close_windows()
        self._display.point(self._display.width - 1, 0)
        self._focus(self._beside)
        main = main_window(self._monitor)
        in_window = self._widgets(main)
        record = shown(self._display, self._main, dialog.columns)
        choices = [chooser.number for chooser in (dialog.orientation, dialog.language, dialog.theme)]
        return Look(record, in_window, in_dialog, choices, self._picture(main))

    def _widgets(self, root: Node) -> list[Widget]:
        nodes = list(_with_depth(root))
        addresses = [node.address for _, node in nodes]
        bus = self._monitor.bus
        showing = bus.have_state(addresses, State.SHOWING)
        return [Widget(depth, node.role, node.name, description, node.rect)
                for (depth, node), description, is_shown in zip(nodes, bus.descriptions(addresses), showing) if is_shown]

    def _save_picture(self, name: str, look: Look) -> str:
        path = self._links / f"{name}.png"
        Image.fromarray(look.picture).save(path)
        return str(path)

    def _picture(self, main: Node) -> numpy.ndarray:
        path = self._links / "window.png"
        self._display.window_screenshot(self._main, path)
        picture = load_picture(path).copy()
        for chart in (node.rect for node in main.walk() if node.role == "chart"):
            picture[chart.y:chart.bottom, chart.x:chart.right] = 0
        return picture


def _window_beside(display: XDisplay) -> int:
    """A small window of another program, which can have the keyboard, in the lower right corner."""
    display.spawn(["/usr/bin/python3", "-c", BESIDE_SCRIPT])
    window = display.find_window(BESIDE, timeout=TIMEOUT)
    display.move(window, display.width - 100, display.height - 100)
    return window


def _while_windows_go(look: Callable[[], bool]) -> Callable[[], bool]:
    """A look at windows that may go at any moment; False when it happens while looking."""
    def look_again() -> bool:
        try:
            return look()
        except WaitTimeout:
            raise
        except DisplayError:
            return False
    return look_again


def _with_depth(node: Node, depth: int = 0) -> list[tuple[int, Node]]:
    return [(depth, node), *(deeper for child in node.children for deeper in _with_depth(child, depth + 1))]


def _differences(one: Look, other: Look) -> list[str]:
    """What differs between two looks, a line for each."""
    lines = [f"{before} -> {after}" for before, after in ((one.record, other.record), (one.choices, other.choices)) if before != after]
    for name, before, after in (("window", one.window, other.window), ("dialog", one.dialog, other.dialog)):
        if len(before) != len(after):
            lines.append(f"{name}: {len(before)} -> {len(after)} widgets")
        lines += [f"{name}: {old} -> {new}" for old, new in zip(before, after) if old != new]
    if one.picture.shape != other.picture.shape:
        lines.append(f"picture: {one.picture.shape} -> {other.picture.shape}")
    elif len(places := numpy.argwhere((one.picture != other.picture).any(axis=2))):
        lines.append(f"picture: {len(places)} pixels within {places.min(axis=0).tolist()} and {places.max(axis=0).tolist()}")
    return lines
