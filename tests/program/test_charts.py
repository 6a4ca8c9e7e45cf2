"""What is painted: charts with their colours and heights, the bars of the sections, on every kind of display."""

from __future__ import annotations

from collections.abc import Callable
from contextlib import ExitStack
from pathlib import Path

import numpy
import pytest

from chart_pixels import CHART_BACKGROUND, CURVE, GRID_LINES, Chart, color_of, fill_share, read_overlay
from displays import Display, SwayDisplay, WestonDisplay, XDisplay, wait_until
from fakemachine import preset
from monitor import MARKER_COLOR, TIMEOUT, Content, Monitor, Start

TOTAL = "#2040FF"
COLORS = {"total": TOTAL, "group0": MARKER_COLOR, "group1": "00b060", "group2": "#B06000", "group3": "#404040"}
GROUP_COLORS = [COLORS[f"group{n}"] for n in range(4)]

LOADS = [40, 100, 0, 80]
MACHINE = {"clusters": [{"cores": 2, "mhz": [800, 3900]}, {"cores": 2, "mhz": [800, 2000]}],
           "load": {"kind": "steady", "percent": LOADS}}

GRID = 0.2  # more than a grid line's share of any accent colour used here
SHOWN_POINTS = 4  # enough to see a level curve

DISPLAYS: dict[str, Callable[[], Display]] = {
    "X11": XDisplay,
    "X11 at scale 2": lambda: XDisplay(2560, 2048, scale=2),
    "sway": SwayDisplay,
    "sway at scale 2": lambda: SwayDisplay(2560, 2048, scale=2),
    "weston": WestonDisplay,
}


class View:
    """A picture of the window with what stands in it."""

    def __init__(self, monitor: Monitor, folder: Path) -> None:
        self.scale = monitor.display.scale
        self.content: Content = monitor.content()
        self.picture = monitor.picture(folder / "window.png")

    @property
    def total(self) -> Chart:
        return Chart(self.picture, self.content.total_chart, TOTAL, self.scale)

    @property
    def charts(self) -> list[Chart]:
        """The charts of all cards."""
        return [Chart(self.picture, card.chart, GROUP_COLORS[place % 4], self.scale)
                for place, section in enumerate(self.content.sections) for card in section.cards]

    @property
    def bars(self) -> list[numpy.ndarray]:
        """The colour bars of the sections."""
        s = self.scale
        return [self.picture[bar.y * s:bar.bottom * s, bar.x * s:bar.right * s]
                for bar in (section.bar for section in self.content.sections)]


def assert_level_chart(chart: Chart, load: float) -> None:
    """The chart shows this load at its right edge: background, curve, and fill in the accent colour."""
    assert abs(chart.curve_height() - load) <= 1.5 * chart.scale / chart.height
    assert CURVE - 0.25 <= chart.newest.max() <= CURVE + 0.1
    top = (1 - load) * chart.height
    for row, found in enumerate(chart.newest):
        middle = row + 0.5
        if min(abs(middle - line * chart.height) for line in (1 - load, *GRID_LINES)) <= 2 * chart.scale:
            continue  # in a line, or at its pale rim
        expected = fill_share(middle / chart.height) if middle > top else 0.0
        assert abs(found - expected) < 0.04, f"row {row} of {chart.height} at a load of {load}"


def check_view(view: View) -> None:
    """All charts of MACHINE are as they should be."""
    charts, total = view.charts, view.total
    mean = sum(LOADS) / len(LOADS) / 100
    assert total.points() >= SHOWN_POINTS
    for chart in [*charts, total]:
        assert chart.corners() == [CHART_BACKGROUND] * 2
    for chart, load in zip([*charts, total], [*(load / 100 for load in LOADS), mean]):
        if load:
            assert_level_chart(chart, load)
            assert abs(chart.points() - total.points()) <= 1
    idle = charts[LOADS.index(0)]
    assert idle.newest[:-3 * view.scale].max() < GRID  # the curve lies on the ground
    assert idle.newest[-1] > GRID
    assert total.is_drawn_in_full_resolution()
    assert read_overlay(view.picture, view.content.total_chart, view.scale) == f"{mean * 100:.0f}%"
    for bar, color in zip(view.bars, GROUP_COLORS):
        assert tuple(bar[bar.shape[0] // 2, 0]) == color_of(color)
        assert tuple(bar[bar.shape[0] // 2, -1]) != color_of(color)  # the strip is half as wide as its widget


def eventually(check: Callable[[], None]) -> None:
    """Waits until the check passes: a tick can come between two looks, and a load be held up at its start."""
    failure: list[AssertionError] = []

    def passes() -> bool:
        try:
            check()
        except AssertionError as error:
            failure[:] = [error]
            return False
        return True
    try:
        wait_until(passes, TIMEOUT, "")
    except AssertionError:
        raise failure[0] from None


@pytest.mark.parametrize("name", DISPLAYS)
def test_charts(name: str, displays: ExitStack, start: Start, tmp_path: Path) -> None:
    monitor = start(displays.enter_context(DISPLAYS[name]()), MACHINE, COLORS)
    eventually(lambda: check_view(View(monitor, tmp_path)))


def test_colors_of_more_sections_than_there_are_colors(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    colors = {**COLORS, "group1": "blue", "group2": "#12345"}  # no colours, so the built-in ones stand
    monitor = start(x11, preset("levels-5"), colors)
    expected = [color_of(color) for color in (MARKER_COLOR, "#0080D9", "#00A659", COLORS["group3"], MARKER_COLOR)]

    def check() -> None:
        assert [tuple(bar[bar.shape[0] // 2, 0]) for bar in View(monitor, tmp_path).bars] == expected
    eventually(check)
