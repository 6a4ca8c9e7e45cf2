"""Programs whose system calls fail: what comes of window, end and files."""

from __future__ import annotations

import errno
import json
import signal
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path
from typing import NamedTuple

import numpy

from display_x11 import run_tool
from displays import DisplayError, WaitTimeout, XDisplay, load_picture, wait_until
from monitor import TIMEOUT, TITLE, Monitor, config_folder

DIALOG = "Settings"
PAINTED = "painted"
COLORS = 10  # of a window with something in it; one that has only been mapped has one


class Failure(NamedTuple):
    """A kind of call of failing_calls.c, how it fails, and from which moment on."""
    kind: str
    error: str
    moment: str  # "start" or "run"

    @property
    def variables(self) -> dict[str, str]:
        return {"FAILING_CALLS": f"{self.kind}={getattr(errno, self.error)}", "FAILING_CALLS_FROM": self.moment}

    def __str__(self) -> str:
        return f"{self.kind} {self.error} {self.moment}"


@dataclass
class Outcome:
    """What was seen of a program whose calls failed."""
    window: str  # "painted", "empty" or "none"
    used: bool  # its dialog could be opened, and what stands in it used
    status: int | None  # of its end, by SIGTERM unless it ended before; None: it did not end
    words: str  # on its outputs

    def excels(self, other: Outcome) -> bool:
        """Whether all went well that has gone well with the other."""
        return ((self.window == PAINTED or other.window != PAINTED) and (self.used or not other.used)
                and (self.status == 0 or other.status != 0) and (self.words == "" or other.words != ""))

    @property
    def is_ended_for_want_of_a_thread(self) -> bool:
        """Whether GLib has ended the program, as a library's thread could not be started."""
        return self.status == -signal.SIGTRAP and "GLib-ERROR" in self.words and "creating thread" in self.words


class Patient:
    """A program that has calls fail, in use."""

    def __init__(self, monitor: Monitor, display: XDisplay) -> None:
        self._monitor, self._display = monitor, display

    def observe(self, in_dialog: Callable[[int], bool] = lambda _: True) -> Outcome:
        """Waits for the window, opens the dialog, does something there, and ends the program."""
        window, used = "none", False
        if self._comes(lambda: self._display.windows(TITLE)):
            (main,) = self._display.windows(TITLE)
            window = PAINTED if self._comes(lambda: self._is_painted(main)) else "empty"
            used = window == PAINTED and self._open_dialog(main) and in_dialog(main)
        self._monitor.send(signal.SIGTERM)
        _holds(lambda: not self._monitor.running())
        status = self._monitor.status
        self._monitor.kill()
        return Outcome(window, used, status, self._monitor.complaints().strip())

    def change_orientation(self, main: int) -> bool:
        """Makes a vertical window horizontal: that is what has the keyboard in the dialog."""
        def is_wide() -> bool:
            place = self._display.geometry(main)
            return place.width > place.height
        self._display.key("Down")
        return self._comes(is_wide)

    def _open_dialog(self, main: int) -> bool:
        """By keys: the first control of the window opens it."""
        self._focus(main)
        self._display.key("Tab", "space")
        if not self._comes(lambda: self._display.windows(DIALOG)):
            return False
        self._focus(self._display.windows(DIALOG)[0])
        return True

    def _focus(self, window: int) -> None:
        run_tool(["xdotool", "windowactivate", "--sync", str(window)], self._display.env)

    def _is_painted(self, window: int) -> bool:
        path = self._monitor.home / "window.png"
        self._display.window_screenshot(window, path)
        return len(numpy.unique(load_picture(path).reshape(-1, 3), axis=0)) >= COLORS

    def _comes(self, condition: Callable[[], object]) -> bool:
        """Waits for a condition; False if the program ends before, or it does not come true in time."""
        return _holds(lambda: condition() or not self._monitor.running()) and self._monitor.running()


def kept_settings(home: Path, old: str) -> str:
    """What has become of the settings: "old", "new" or "damaged"."""
    text = (config_folder(home) / "settings.json").read_text()
    try:
        return "old" if text == old else "new" if json.loads(text)["orientation"] == "horizontal" else "damaged"
    except (ValueError, KeyError):
        return "damaged"


def _holds(condition: Callable[[], object]) -> bool:
    """Waits for a condition; False if it does not come true in time. A look at a window that goes meanwhile is repeated."""
    def look() -> bool:
        try:
            return bool(condition())
        except DisplayError:
            return False
    try:
        return wait_until(look, TIMEOUT, "")
    except WaitTimeout:
        return False
