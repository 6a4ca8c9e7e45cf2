"""Windows on an X display, seen and handled with the usual tools.

xprop and xwininfo tell the truth about a window; xdotool counts a frame twice in its geometry and
its windowclose destroys a window without asking it, so neither is used.
"""

from __future__ import annotations

import math
import re
import subprocess
import time
from collections.abc import Callable, Mapping
from pathlib import Path
from typing import Any, NamedTuple

from display_process import TIMEOUT, DisplayError, wait_until

ASK_AGAIN = 3.0  # seconds

# xprop shows _NET_WM_NAME as it is, but leaves quotes in WM_NAME bare.
PROPERTIES = ("_NET_WM_NAME", "WM_CLASS", "WM_NORMAL_HINTS", "_NET_WM_PID", "_NET_WM_STATE",
              "_NET_WM_WINDOW_TYPE", "_NET_FRAME_EXTENTS")

Fields = dict[str, str | tuple[int, ...]]


class Geometry(NamedTuple):
    """A window without its frame, in pixels of the screen."""
    x: int
    y: int
    width: int
    height: int


def run_tool(argv: list[str], env: Mapping[str, str], folder: Path | str | None = None) -> str:
    """Runs a tool (in this folder) and returns its output; raises with its complaint."""
    done = subprocess.run(argv, env=env, cwd=folder, capture_output=True, text=True,
                          errors="replace", timeout=TIMEOUT, check=False)
    if done.returncode != 0:
        raise DisplayError(f"{' '.join(argv)}: status {done.returncode}: {done.stderr.strip()}")
    return done.stdout


class X11Windows:
    """The windows of one X display. A window is named by its number."""

    env: dict[str, str]  # the environment of a client

    def find_window(self, title: str | None = None, pid: int | None = None,
                    timeout: float = TIMEOUT) -> int:
        """Waits for a visible window with exactly this title, of this process, or both.

        The process tells its own id, so one in a container of process ids can't be found by it.
        """
        what = f"a window with title {title!r}, pid {pid} on display {self.env['DISPLAY']}"
        return wait_until(lambda: self.windows(title, pid), timeout, what)[0]

    def windows(self, title: str | None = None, pid: int | None = None) -> list[int]:
        """All visible windows with exactly this title, of this process, or both."""
        if title is None and pid is None:
            raise ValueError("a title or a process is needed to know a window by")
        argv = ["xdotool", "search", "--all", "--onlyvisible"]
        argv += ["--pid", str(pid)] if pid is not None else []
        argv += ["--name", f"^{_literal(title)}$"] if title is not None else []
        found = subprocess.run(argv, env=self.env, capture_output=True, text=True,
                               timeout=TIMEOUT, check=False)  # status 1: none found
        return [int(line) for line in found.stdout.split()]

    def geometry(self, window: int) -> Geometry:
        """Place and size of the window itself, without its frame."""
        text = run_tool(["xwininfo", "-id", str(window)], self.env)
        labels = ("Absolute upper-left X", "Absolute upper-left Y", "Width", "Height")
        return Geometry(*(_number_after(label, text) for label in labels))

    def exists(self, window: int) -> bool:
        try:
            self.geometry(window)
        except DisplayError:
            return False
        return True

    def properties(self, window: int, *names: str) -> dict[str, Any]:
        """The named properties (PROPERTIES if none is named); those that aren't set are left out.

        Each is a list of numbers and texts, such as ["vantric", "Vantric"], apart from
        WM_NORMAL_HINTS with its named fields: {"program specified minimum size": (150, 150)}.
        """
        argv = ["xprop", "-id", str(window), "-notype", *(names or PROPERTIES)]
        return parse_properties(run_tool(argv, self.env))

    def states(self, window: int) -> set[str]:
        """What _NET_WM_STATE holds, such as "_NET_WM_STATE_ABOVE"."""
        return set(self.properties(window, "_NET_WM_STATE").get("_NET_WM_STATE", []))

    def move(self, window: int, x: int, y: int) -> None:
        """Asks for the frame's upper left corner at this place; the window manager decides."""
        run_tool(["xdotool", "windowmove", str(window), str(x), str(y)], self.env)

    def resize(self, window: int, width: int, height: int) -> None:
        """Asks for this size without the frame, in pixels; the window manager decides."""
        run_tool(["xdotool", "windowsize", str(window), str(width), str(height)], self.env)

    def resize_until(self, window: int, width: int, height: int, condition: Callable[[], bool], timeout: float, what: str) -> None:
        """Asks for this size until the condition holds: a program that is just asking for a size of its own wins over a single request."""
        asked = -math.inf

        def holds() -> bool:
            nonlocal asked
            if time.monotonic() - asked > ASK_AGAIN:
                self.resize(window, width, height)
                asked = time.monotonic()
            return condition()
        wait_until(holds, timeout, what)

    def close(self, window: int) -> None:
        """Asks the program to close the window, as the close button of its frame does."""
        run_tool(["wmctrl", "-i", "-c", hex(window)], self.env)

    def point(self, x: int, y: int, window: int | None = None) -> None:
        """Puts the pointer at a place of the screen, or of the window if given, in pixels."""
        inside = ["--window", str(window)] if window is not None else []
        run_tool(["xdotool", "mousemove", *inside, str(x), str(y)], self.env)

    def click(self, x: int, y: int, button: int = 1, window: int | None = None) -> None:
        """Clicks at a place, counted as in `point`; buttons 4 and 5 are the wheel."""
        self.point(x, y, window)
        run_tool(["xdotool", "click", str(button)], self.env)

    def key(self, *keys: str) -> None:
        """Presses keys by their X names, such as "Escape" or "ctrl+w"."""
        run_tool(["xdotool", "key", *keys], self.env)

    def screenshot(self, path: Path | str) -> None:
        """Takes a picture of the whole screen, in the format that the file's name says."""
        self._grab(path, None)

    def window_screenshot(self, window: int, path: Path | str) -> None:
        """Takes a picture of the window without its frame, as far as it is on the screen."""
        self._grab(path, self.geometry(window))

    def _grab(self, path: Path | str, part: Geometry | None) -> None:
        from PIL import ImageGrab  # imported here: it would double the start-up of on-display

        picture = ImageGrab.grab(xdisplay=self.env["DISPLAY"])
        if part is not None:
            picture = picture.crop((max(0, part.x), max(0, part.y),
                                    min(picture.width, part.x + part.width),
                                    min(picture.height, part.y + part.height)))
        picture.save(path)


def _literal(title: str) -> str:
    """The title as an extended regular expression that matches nothing else."""
    return re.sub(r"([][\\.*^$+?(){}|])", r"\\\1", title)


def _number_after(label: str, text: str) -> int:
    match = re.search(rf"^\s*{re.escape(label)}:\s*(-?\d+)", text, re.MULTILINE)
    if match is None:
        raise DisplayError(f"xwininfo does not tell {label!r}:\n{text}")
    return int(match.group(1))


def parse_properties(text: str) -> dict[str, Any]:
    """Reads what xprop writes: "NAME = a, b", or "NAME:" with a list of fields below it."""
    result: dict[str, Any] = {}
    block: Fields = {}
    for line in text.splitlines():
        if line.startswith("\t"):
            block.update(_parse_field(line.strip()))
        elif match := re.fullmatch(r"(\w+)(?: =|: protocols) (.*)", line):
            result[match.group(1)] = _parse_values(match.group(2))
        elif match := re.fullmatch(r"(\w+):\s*", line):
            result[match.group(1)] = block = {}
    return result


def _parse_field(line: str) -> Fields:
    """One line of WM_NORMAL_HINTS: "name: 150 by 150", "name: 3, 4", "name: NorthWest"."""
    name, _, value = line.partition(": ")
    if re.fullmatch(r"-?\d+(( by |, |/)-?\d+)*", value):
        return {name: tuple(int(number) for number in re.findall(r"-?\d+", value))}
    return {name: value}


def _parse_values(text: str) -> list[int | str]:
    """Values behind "NAME =": quoted texts, numbers or names of atoms."""
    if text.startswith('"'):
        quoted = re.findall(r'"((?:[^"\\]|\\.)*)"', text)
        return [re.sub(r"\\(.)", r"\1", value) for value in quoted]
    values = text.split(", ") if text.strip() else []
    return [int(value) if re.fullmatch(r"-?\d+", value) else value.strip() for value in values]
