"""The settings dialog on Wayland, where no pointer and no keyboard is: handled as a screen reader does."""

from __future__ import annotations

from collections.abc import Callable
from contextlib import ExitStack
from pathlib import Path

import pytest

from chart_pixels import color_of
from displays import Display, SwayDisplay, WestonDisplay, load_picture, wait_until
from geometry_records import Record, Stored
from monitor import MARKER_COLOR, TIMEOUT, Start
from settings_dialog import (DEFAULTS, ENGLISH, TEXTS, THEMES, SettingsDialog, assert_dialog_speaks, assert_window_speaks, columns_of,
                             dialog_edges, is_horizontal, main_window, view, wait_for_content, window_edges)

MACHINE = {"clusters": [{"cores": 2, "mhz": [800, 5000]}, {"cores": 2, "mhz": [800, 3500]}]}
VERTICAL, HORIZONTAL = Record(30, 40, 500, 501, 2), Record(50, 60, 700, 300, 3)
MANY = 5000  # pixels; more than letters and frames make up


@pytest.fixture(params=[SwayDisplay, WestonDisplay])
def wayland(request: pytest.FixtureRequest, displays: ExitStack) -> Display:
    return displays.enter_context(request.param())


@pytest.fixture
def dialog(wayland: Display, start: Start, tmp_path: Path) -> SettingsDialog:
    """The dialog of a program that knows both orientations; not yet opened."""
    return SettingsDialog.of_new_program(start, wayland, tmp_path / "kept", MACHINE, records=Stored(VERTICAL, HORIZONTAL))


def test_opens_and_closes(dialog: SettingsDialog) -> None:
    saved = dialog.settings_file.stat()
    for _ in range(2):
        opened = dialog.open()
        assert_dialog_speaks(dialog, ENGLISH)
        assert (opened.columns, opened.expanded) == (VERTICAL.num_columns, False)
        dialog.close()
        assert dialog.monitor.running()
    assert dialog.settings_file.stat().st_mtime_ns == saved.st_mtime_ns


def test_orientation_and_columns(dialog: SettingsDialog) -> None:
    display, monitor = dialog.monitor.display, dialog.monitor
    assert not is_horizontal(monitor.content())
    dialog.open()
    assert dialog.choose_orientation("horizontal").columns == HORIZONTAL.num_columns
    dialog.wait_for_saved("horizontal", orientation="horizontal")
    if isinstance(display, SwayDisplay):
        wait_until(lambda: view(display, "Vantric")["rect"]["width"] == HORIZONTAL.width, TIMEOUT, "the horizontal window")
    back = dialog.choose_orientation("vertical")
    dialog.wait_for_saved("vertical")
    assert back.columns == VERTICAL.num_columns
    wait_for_content(monitor, lambda content: columns_of(content) == VERTICAL.num_columns, "the columns of the vertical orientation")
    before = {node.address for node in main_window(monitor).walk()}
    dialog.press(back.fewer)
    dialog.wait(lambda now: now.columns == 1, "one column")
    assert columns_of(monitor.content()) == VERTICAL.num_columns
    dialog.press(back.apply)
    dialog.wait_until_hidden()
    wait_for_content(monitor, lambda content: columns_of(content) == 1, "one column")
    assert {node.address for node in main_window(monitor).walk()} == before
    dialog.wait_for_records(lambda stored: [record.num_columns for record in stored] == [1, HORIZONTAL.num_columns],
                            "the number of columns")


def test_language(dialog: SettingsDialog) -> None:
    english, monitor = dialog.open(), dialog.monitor
    expected = dialog_edges(english, False), window_edges(monitor.content(), False)
    dialog.press(english.expander)
    for name in ("العربية", "Deutsch"):
        texts = TEXTS[name]
        now = dialog.choose_language(name)
        dialog.wait_for_saved(name, language=texts.code)
        assert_dialog_speaks(dialog, texts)
        assert_window_speaks(monitor, texts)
        assert now.expanded

        def edges(mirrored: bool = texts.is_right_to_left) -> object:
            return dialog_edges(dialog.wait(), mirrored), window_edges(monitor.content(), mirrored)
        wait_until(lambda: edges() == expected, TIMEOUT, f"everything in its place: {name}")  # once it has been given one


def test_theme_and_colors(dialog: SettingsDialog, tmp_path: Path) -> None:
    opened = dialog.open()

    def wait_for_pixels(condition: Callable[[Callable[[str], int]], bool], what: str) -> None:
        def look() -> bool:
            dialog.monitor.display.screenshot(tmp_path / "screen.png")
            picture = load_picture(tmp_path / "screen.png")
            return condition(lambda color: int((picture == color_of(color)).all(axis=2).sum()))
        wait_until(look, TIMEOUT, what)
    light, dark = DEFAULTS["bg_light"], DEFAULTS["bg_dark"]
    wait_for_pixels(lambda count: count(light) > MANY > count(dark), "the light theme")
    dialog.choose(opened.theme, THEMES.index("dark"))
    dialog.wait_for_saved("dark", theme="dark")
    dialog.press(dialog.wait_for_new_content(opened).expander)
    wait_for_pixels(lambda count: count(dark) > MANY > count(light), "the dark theme")
    colors = dialog.wait(lambda now: now.expanded, "the colours")

    dialog.pick_color(colors.color("Performance"), "Dark Purple")
    dialog.wait_for_saved("a group's colour", theme="dark", group0="#813D9C")
    wait_for_pixels(lambda count: count("#813D9C") > 0 == count(MARKER_COLOR), "a group in another colour")
    dialog.pick_color(colors.color("Background"), "Dark Green")
    dialog.wait_for_saved("the background", theme="dark", group0="#813D9C", bg_dark="#2EC27E")
    wait_for_pixels(lambda count: count("#2EC27E") > MANY > count(dark), "another background")
    dialog.press(colors.reset)
    dialog.wait_for_saved("reset", theme="dark", group0=DEFAULTS["group0"])
    wait_for_pixels(lambda count: count(dark) > MANY and count("#2EC27E") == 0, "the built-in colours")
