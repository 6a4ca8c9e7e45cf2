"""Where pictures of the program are taken: private displays and made-up machines, as the tests have them."""

from __future__ import annotations

import signal
import sys
import tempfile
import time
from collections.abc import Mapping, Sequence
from contextlib import ExitStack
from pathlib import Path
from typing import Any, Self

import numpy
from PIL import Image

ROOT = Path(__file__).resolve().parents[1]
TESTS = ROOT / "tests"
sys.path[:0] = [str(TESTS / folder) for folder in ("program", "display", "machine")]

from displays import XDisplay, wait_until  # noqa: E402
from fakemachine import Machine  # noqa: E402
from geometry_records import Home, Record, Stored  # noqa: E402
from monitor import TIMEOUT, Monitor, wait_for_main_loop, write_settings  # noqa: E402
from settings_dialog import DEFAULTS, SettingsDialog, wait_for_content  # noqa: E402

HISTORY_TIMEOUT = 300.0  # seconds; a chart is full after one minute, but on a busy computer the machine may stumble in it
CHANGES_EVERY = 1.0  # seconds, a chart
COLORFUL = 60  # between the largest and the smallest part of a colour; the fill is paler far down
GROUND_PART = 12  # of a chart's height
PLACE = (40, 40)  # of the main window on its screen
GAP = 16  # around windows that stand in one picture
DIALOG_TOP = 10
BACKDROP = "#737A84"  # near neither theme's background, so that the edges of windows show


class Stage:
    """Displays, machines and programs of one run; a context manager that ends them and sees to it that none has complained."""

    def __init__(self, program: Path) -> None:
        self._program = program.absolute()
        self._stack = ExitStack()
        self._monitors: list[Monitor] = []

    def __enter__(self) -> Self:
        self.folder = Path(self._stack.enter_context(tempfile.TemporaryDirectory(prefix="vantric-pictures-")))
        return self

    def __exit__(self, kind: type[BaseException] | None, *_: object) -> None:
        try:
            if kind is None:
                self.end_programs()
        finally:
            for monitor in self._monitors:
                monitor.kill()
            self._stack.close()

    def open(self, display: XDisplay) -> XDisplay:
        """A display that stays until the end."""
        return self._stack.enter_context(display)

    def start(self, display: XDisplay, machine: Mapping[str, Any], columns: int, size: tuple[int, int], **settings: str) -> SettingsDialog:
        """Starts the program with these changes of its default settings, and with this window in its orientation."""
        home = Home(self.folder / f"home-{len(self._monitors)}")
        home.path.mkdir()
        values = {**DEFAULTS, "language": "en", "theme": "light", **settings}
        write_settings(home.path, "{\n" + ",\n".join(f'  "{key}": "{value}"' for key, value in values.items()) + "\n}\n")
        record = Record(*PLACE, *size, columns)
        home.write(Stored(horizontal=record) if values["orientation"] == "horizontal" else Stored(vertical=record))
        monitor = Monitor(self._program, display, home.path, self._stack.enter_context(Machine(dict(machine))))
        self._monitors.append(monitor)
        return SettingsDialog(monitor, home)

    def full_picture(self, monitor: Monitor) -> Image.Image:
        """The main window once its large chart is full, and without a gap from a moment in which a busy computer held up the machine."""
        left, top, width, height = wait_for_content(monitor, lambda _: True, "its chart").total_chart

        def whole() -> Image.Image | None:
            time.sleep(CHANGES_EVERY)
            picture = monitor.picture(self.folder / "look.png")
            return Image.fromarray(picture) if shows_whole_minute(picture[top:top + height, left:left + width]) else None
        return wait_until(whole, HISTORY_TIMEOUT, "a chart full of history")

    def end_programs(self) -> None:
        """Ends all programs in order, and fails if one of them had anything to say."""
        running = [monitor for monitor in self._monitors if monitor.running()]
        for monitor in running:
            wait_for_main_loop(monitor)
            monitor.send(signal.SIGTERM)
        for monitor in self._monitors:
            monitor.assert_clean_end()


def shows_whole_minute(chart: numpy.ndarray) -> bool:
    """Whether the curve goes from edge to edge of a chart, and never down to its ground. The curve alone has colour in both themes."""
    color = chart.max(axis=2).astype(int) - chart.min(axis=2)
    ground = color[-len(color) // GROUND_PART:]
    return bool(color[:, 0].max() > COLORFUL and ground.max() < COLORFUL)


def open_dialog(program: SettingsDialog, *, with_colors: bool) -> None:
    """Opens the dialog and puts it beside the main window, which it would cover."""
    shown = program.open()
    if with_colors:
        program.press(shown.expander)
        program.wait(lambda dialog: dialog.expanded, "the colours")
    display, main = program.monitor.display, program.monitor.window
    left = display.geometry(main).x + display.geometry(main).width + GAP
    display.move(program.window(), left, DIALOG_TOP)
    wait_until(lambda: display.geometry(program.window()).x >= left, TIMEOUT, "the dialog beside the window")


def take_picture(display: XDisplay, window: int) -> Image.Image:
    """The window without its frame."""
    with tempfile.NamedTemporaryFile(suffix=".png") as file:
        display.window_screenshot(window, file.name)
        with Image.open(file.name) as picture:
            return picture.convert("RGB")


def side_by_side(pictures: Sequence[Image.Image]) -> Image.Image:
    """The pictures on a plain ground."""
    whole = Image.new("RGB", (sum(one.width + GAP for one in pictures) + GAP, max(one.height for one in pictures) + 2 * GAP), BACKDROP)
    left = GAP
    for picture in pictures:
        whole.paste(picture, (left, GAP))
        left += picture.width + GAP
    return whole
