"""The settings dialog on X11, handled with pointer and keyboard and as a screen reader does: what each control changes and saves."""

from __future__ import annotations

import os
import signal
from collections.abc import Callable
from contextlib import ExitStack
from pathlib import Path

import pytest

from accessibility import Gone, Node, State
from chart_pixels import CURVE, Chart, color_of
from display_x11 import run_tool
from displays import Display, SwayDisplay, WestonDisplay, XDisplay, wait_until
from geometry_records import Record, Stored, shown, wait_for_place
from monitor import MARKER_COLOR, TIMEOUT, Start, frame_place
from settings_dialog import (DEFAULTS, ENGLISH, LANGUAGES, ORIENTATIONS, TEXTS, THEMES, TITLE_OFFSET, Dialog, SettingsDialog, assert_dialog_speaks,
                             assert_window_speaks, charts_in, click, columns_of, dialog_edges, gear, gear_in, is_horizontal,
                             main_window, named, wait_for_content, while_it_changes, window_edges)

LOAD = 60
MACHINE = {"clusters": [{"cores": 2, "mhz": [800, 5000]}, {"cores": 2, "mhz": [800, 3500]}],
           "load": {"kind": "steady", "percent": LOAD}}

# Sizes of which some differ from the dialog's by an odd number of pixels
VERTICAL, HORIZONTAL = Record(500, 250, 251, 501, 2), Record(300, 400, 700, 300, 3)


# --- the dialog as a window ---

def test_opens_and_closes(managed: XDisplay, start: Start, tmp_path: Path) -> None:
    dialog = SettingsDialog.of_new_program(start, managed, tmp_path / "kept", MACHINE, records=Stored(VERTICAL, HORIZONTAL))
    main = dialog.main
    wait_for_place(managed, main, VERTICAL, "at the start")
    saved = dialog.settings_file.stat()
    click(dialog.monitor, main, gear(dialog.monitor))
    window = dialog.window()
    assert_stands_in_the_middle(managed, main, window, "opened by a click")
    assert_is_a_dialog_of(managed, main, window)
    assert_dialog_speaks(dialog, ENGLISH)

    managed.move(window, 100, 700)
    wait_until(lambda: frame_place(managed, window) == (100, 700), TIMEOUT, "the dialog moved away")
    dialog.press(gear(dialog.monitor))
    assert_stands_in_the_middle(managed, main, window, "opened while it was open")
    for place, close, reopen in (VERTICAL.place, dialog.close, open_by_keys), ((700, 400), lambda: managed.key("Escape"), open_by_click):
        managed.move(window, 150, 600)
        wait_until(lambda: frame_place(managed, window) == (150, 600), TIMEOUT, "the dialog moved away")
        focus(managed, window)
        close()
        dialog.wait_until_hidden()
        managed.move(main, *place)
        wait_until(lambda: frame_place(managed, main) == place, TIMEOUT, "the main window moved")
        reopen(managed, dialog)
        shown_again = wait_until(lambda: managed.windows(ENGLISH.settings, dialog.monitor.pid), TIMEOUT, "the dialog again")
        assert shown_again == [window]  # the same as before
        assert_stands_in_the_middle(managed, main, window, "reopened")
    after = dialog.settings_file.stat()
    assert (after.st_mtime_ns, after.st_ino) == (saved.st_mtime_ns, saved.st_ino)  # none of it saves anything


def open_by_click(display: XDisplay, dialog: SettingsDialog) -> None:
    click(dialog.monitor, dialog.main, gear(dialog.monitor))


def open_by_keys(display: XDisplay, dialog: SettingsDialog) -> None:
    focus(display, dialog.main)
    display.key("Tab")
    wait_for_focus(dialog, lambda: gear(dialog.monitor), "the gear")
    display.key("space")


def focus(display: XDisplay, window: int) -> None:
    """Gives the keyboard to a window as the user does, if the window manager has not done it already."""
    def focused() -> int:
        return int(run_tool(["xdotool", "getwindowfocus"], display.env))
    if focused() != window:
        run_tool(["xdotool", "windowactivate", str(window)], display.env)
        wait_until(lambda: focused() == window, TIMEOUT, "the keyboard focus of a window")


def wait_for_focus(dialog: SettingsDialog, find: Callable[[], Node], what: str) -> None:
    """Waits until a control has the keyboard."""
    bus = dialog.monitor.bus
    wait_until(while_it_changes(lambda: bus.have_state([find().address], State.FOCUSED) == [True]), TIMEOUT, f"the focus on {what}")


def assert_stands_in_the_middle(display: XDisplay, main: int, window: int, when: str) -> None:
    """The dialog's middle is the main window's, rounded towards zero."""
    def middle() -> tuple[int, ...]:
        sizes = zip(display.geometry(main)[2:], display.geometry(window)[2:])
        return tuple(place + int((size - own) / 2) for place, (size, own) in zip(frame_place(display, main), sizes))
    try:
        wait_until(lambda: frame_place(display, window) == middle(), TIMEOUT, "")
    except AssertionError:
        raise AssertionError(f"{when}: the dialog stands at {frame_place(display, window)}, expected {middle()}") from None


def assert_is_a_dialog_of(display: XDisplay, main: int, window: int) -> None:
    """It belongs to the main window, stays above it, and has one size."""
    told = display.properties(window)
    assert told["_NET_WM_WINDOW_TYPE"] == ["_NET_WM_WINDOW_TYPE_DIALOG"]
    wait_until(lambda: "_NET_WM_STATE_ABOVE" in display.states(window), TIMEOUT, "a dialog that is kept above")
    assert f"{main:#x}" in run_tool(["xprop", "-id", str(window), "-notype", "WM_TRANSIENT_FOR"], display.env)
    hints = told["WM_NORMAL_HINTS"]
    assert hints["program specified minimum size"] == hints["program specified maximum size"] == display.geometry(window)[2:]


# --- orientation ---

def test_orientation(managed: XDisplay, start: Start, tmp_path: Path) -> None:
    dialog = SettingsDialog.of_new_program(start, managed, tmp_path / "kept", MACHINE, records=Stored(VERTICAL, HORIZONTAL),
                                           env={"VANTRIC_TRACE": "1"})
    monitor = dialog.monitor
    assert dialog.open().columns == VERTICAL.num_columns
    shown_at_first = {node.address for node in charts_in(main_window(monitor))}
    choose_with_pointer(managed, dialog, ORIENTATIONS.index("horizontal"))
    # Three columns for two CPUs in a section; a look may fall between new cards and their places
    wait_for_content(monitor, lambda content: is_horizontal(content) and columns_of(content) == 2, "horizontal")
    dialog.wait_for_saved("horizontal", orientation="horizontal")
    assert not shown_at_first & {node.address for node in charts_in(main_window(monitor))}
    dialog.wait(lambda now: now.columns == HORIZONTAL.num_columns, "the number of columns of the horizontal orientation")
    wait_for_place(managed, dialog.main, HORIZONTAL, "horizontal")
    wait_for_rebuilds(dialog, 1)
    dialog.home.wait_for(Stored(VERTICAL, HORIZONTAL), "horizontal")

    moved = HORIZONTAL._replace(x=120, y=200, width=800, height=350)
    managed.resize(dialog.main, *moved.size)
    managed.move(dialog.main, *moved.place)
    dialog.home.wait_for(Stored(VERTICAL, moved), "moved and resized")
    back = dialog.choose_orientation("vertical")
    assert (back.columns, back.orientation.number) == (VERTICAL.num_columns, ORIENTATIONS.index("vertical"))
    wait_for_place(managed, dialog.main, VERTICAL, "vertical again")
    dialog.wait_for_saved("vertical again")
    dialog.home.wait_for(Stored(VERTICAL, moved), "vertical again")
    wait_for_rebuilds(dialog, 2)
    dialog.choose_orientation("horizontal")
    wait_for_place(managed, dialog.main, moved, "horizontal again")
    end_with_traces(dialog, rebuilds=3)


def choose_with_pointer(display: XDisplay, dialog: SettingsDialog, number: int) -> None:
    """Clicks on the combo box of the orientation, and on an item of the menu that opens."""
    before = dialog.wait().orientation
    dialog.click(before.combo)
    place, bus = dialog.items(before)[number].address, dialog.monitor.bus
    wait_until(lambda: bus.have_state([place], State.SHOWING) == [True], TIMEOUT, "the items of the combo box")
    where = bus.place_on_screen(place)
    display.click(where.x + where.width // 2, where.y + where.height // 2)


# --- columns ---

def test_columns_without_apply(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    dialog = SettingsDialog.of_new_program(start, x11, tmp_path / "kept", MACHINE, records=Stored(VERTICAL, HORIZONTAL))
    monitor = dialog.monitor
    saved, content = dialog.settings_file.stat(), monitor.content()
    numbers = dialog.open()
    assert (numbers.fewer.name, numbers.more.name) == ("\N{MINUS SIGN}", "+")
    dialog.click(numbers.fewer)
    dialog.wait(lambda now: now.columns == 1, "one column")
    dialog.click(numbers.fewer)
    press_until(dialog, numbers.more, [*range(2, 17), 16, 16])
    dialog.press(numbers.fewer)
    assert dialog.wait().columns == 15
    dialog.close()
    assert columns_of(monitor.content()) == columns_of(content) == 2
    dialog.wait_for_records(lambda stored: stored.vertical.num_columns == 2, "the columns that are shown")
    x11.move(dialog.main, 333, 222)
    dialog.home.wait_for(Stored(VERTICAL._replace(x=333, y=222, num_columns=15), HORIZONTAL), "the next save")
    assert dialog.open().columns == 15
    assert dialog.settings_file.stat().st_mtime_ns == saved.st_mtime_ns


def press_until(dialog: SettingsDialog, button: Node, numbers: list[int]) -> None:
    """Presses a button as often as there are numbers, and sees each of them."""
    number = dialog.wait().number.address
    for expected in numbers:
        dialog.press(button)
        wait_until(lambda: dialog.monitor.bus.names([number]) == [str(expected)], TIMEOUT, f"{expected} columns in the dialog")


def test_apply_in_vertical_orientation(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    dialog = SettingsDialog.of_new_program(start, x11, tmp_path / "kept", MACHINE, records=Stored(VERTICAL, HORIZONTAL),
                                           env={"VANTRIC_TRACE": "1"})
    monitor, before = dialog.monitor, placed_widgets(dialog)
    for press, columns in ((lambda now: now.fewer, 1), (lambda now: now.more, 2), (lambda now: now.more, 3)):
        apply_columns(dialog, press)
        content = wait_for_content(monitor, lambda now: columns_of(now) == min(columns, 2), f"{columns} columns")
        assert placed_widgets(dialog) == before  # the same charts, only elsewhere
        dialog.home.wait_for(Stored(shown(x11, dialog.main, columns), HORIZONTAL), f"{columns} columns")
        assert len({card.rect.y for card in content.cards}) == {1: 4, 2: 2, 3: 2}[columns]
    end_with_traces(dialog, rebuilds=0)


def test_apply_in_horizontal_orientation(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    record = HORIZONTAL._replace(num_columns=1)
    dialog = SettingsDialog.of_new_program(start, x11, tmp_path / "kept", MACHINE, records=Stored(VERTICAL, record),
                                           env={"VANTRIC_TRACE": "1"}, orientation="horizontal")
    monitor = dialog.monitor
    rows = {1: 1, 2: 2, 3: 2}  # one row of all cards; then a row for each section of two
    for press, columns, rebuilds in ((lambda now: now.more, 2, True), (lambda now: now.more, 3, False),
                                     (lambda now: now.fewer, 2, False), (lambda now: now.fewer, 1, True)):
        before = placed_widgets(dialog)
        apply_columns(dialog, press)
        wait_until(while_it_changes(lambda: (before & placed_widgets(dialog) == set()) == rebuilds), TIMEOUT, "new widgets")
        wait_for_content(monitor, lambda content: len({card.rect.y for card in content.cards}) == rows[columns], f"{columns} columns")
        if rebuilds:
            wait_for_rebuilds(dialog, 1 if columns == 2 else 2)
        dialog.wait_for_records(lambda stored: (stored.vertical, stored.horizontal.num_columns) == (VERTICAL, columns),
                                f"{columns} columns")
        assert (placed_widgets(dialog) & before == set()) == rebuilds
    end_with_traces(dialog, rebuilds=2)


def apply_columns(dialog: SettingsDialog, press: Callable[..., Node]) -> None:
    """Presses a button of the dialog and then Apply, which hides it."""
    dialog.press(press(dialog.open()))
    dialog.click(dialog.wait().apply)
    dialog.wait_until_hidden()


def placed_widgets(dialog: SettingsDialog) -> set[tuple[str, str]]:
    """Which charts and which gear there are in the main window."""
    main = main_window(dialog.monitor)
    return {(node.name, node.address.path) for node in [*charts_in(main), gear_in(main)]}


def traces(dialog: SettingsDialog) -> list[str]:
    return dialog.monitor.complaints().splitlines()


def wait_for_rebuilds(dialog: SettingsDialog, number: int) -> None:
    """Waits until so many have settled, in all: until then no move or size is remembered."""
    wait_until(lambda: sum("[trace] settled(" in line for line in traces(dialog)) >= number, TIMEOUT, f"the end of rebuild {number}")


def end_with_traces(dialog: SettingsDialog, rebuilds: int) -> None:
    """Ends a program that has written nothing but traces, those of so many rebuilds among them."""
    wait_for_rebuilds(dialog, rebuilds)
    dialog.monitor.send(signal.SIGTERM)
    assert dialog.monitor.wait() == 0
    assert [line for line in traces(dialog) if not line.startswith("[trace] ")] == []
    assert [sum(f"[trace] {word}" in line for line in traces(dialog)) for word in ("rebuild: leave", "rebuild: enter", "settled(")] == [
        rebuilds] * 3


# --- language ---

def test_language(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    dialog = SettingsDialog.of_new_program(start, x11, tmp_path / "kept", MACHINE,
                                           records=Stored(VERTICAL._replace(width=500), HORIZONTAL))
    monitor, english = dialog.monitor, dialog.open()
    window, main, charts = dialog.window(), monitor.window, {node.address for node in charts_in(main_window(monitor))}
    expected_edges = dialog_edges(english, False), window_edges(monitor.content(), False)
    expanded = False
    for name in ("Deutsch", "العربية", "עברית", "فارسی", "اردو", "日本語", "English"):
        texts = TEXTS[name]
        now = dialog.choose_language(name)
        dialog.wait_for_saved(name, language=texts.code)
        assert_dialog_speaks(dialog, texts)
        assert_window_speaks(monitor, texts)
        assert now.language.number == LANGUAGES.index(name)
        is_rtl = texts.is_right_to_left

        def edges(is_rtl: bool = is_rtl) -> object:
            return dialog_edges(dialog.wait(), is_rtl), window_edges(monitor.content(), is_rtl)
        wait_until(lambda: edges() == expected_edges, TIMEOUT, f"everything in its place: {name}")  # once it has been given one
        assert x11.windows(texts.settings, monitor.pid) == [window] and monitor.window == main  # neither was closed
        assert now.expanded is expanded
        if name == "العربية":  # from here on with the colours to be seen
            dialog.press(now.expander)
            expanded = dialog.wait(lambda dialog: dialog.expanded, "the colours").expanded
    assert charts == {node.address for node in charts_in(main_window(monitor))}
    dialog.choose(dialog.wait().language, 0)
    dialog.wait_for_saved("automatic", language="auto")
    dialog.wait(lambda now: now.language.number == 0, "an item for every language")
    assert_dialog_speaks(dialog, ENGLISH)


def test_names_of_charts_are_not_told_again_and_again(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    dialog = SettingsDialog.of_new_program(start, x11, tmp_path / "kept", {**MACHINE, "load": "waves"})
    monitor, bus = dialog.monitor, dialog.monitor.bus
    dialog.open()
    label = monitor.content().cards[0].percentage_label
    charts = [chart.address for chart in charts_in(main_window(monitor))]
    with bus.changes() as changes:
        wait_until(lambda: len([change for change in changes() if change.address == label]) >= 3, TIMEOUT,
                   "the third percentage of a card")
        assert [change for change in changes() if change.address in charts] == []
        dialog.choose_language("Deutsch")
        names = dict(zip(charts, bus.names(charts)))
        wait_until(lambda: names.items() <= {change for change in changes() if change.address in charts}, TIMEOUT,
                   "news of each chart's new name")
        assert len([change for change in changes() if change.address in charts]) == len(charts)


# --- theme ---

def test_theme(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    dialog = SettingsDialog.of_new_program(start, x11, tmp_path / "kept", MACHINE, records=Stored(VERTICAL, HORIZONTAL), bg_dark="#102030")
    monitor, at_first = dialog.monitor, dialog.open()
    put_aside(x11, dialog)

    def wait_for_background(color: str) -> None:
        corner = color_of(color)
        main, own = tmp_path / "main.png", tmp_path / "dialog.png"
        wait_until(lambda: tuple(monitor.picture(main)[1, 1]) == corner and tuple(dialog.picture(own)[1, 1]) == corner,
                   TIMEOUT, f"windows in {color}")
    wait_for_background(DEFAULTS["bg_light"])
    dialog.choose(at_first.theme, THEMES.index("auto"))  # which is light already
    dialog.wait_for_saved("automatic", theme="auto", bg_dark="#102030")
    dialog.press(at_first.more)
    as_before = dialog.wait(lambda now: now.columns == VERTICAL.num_columns + 1, "another number")
    assert as_before.content == at_first.content and as_before.theme.number == THEMES.index("auto")
    dialog.choose(as_before.theme, THEMES.index("dark"))
    dialog.wait_for_saved("dark", theme="dark", bg_dark="#102030")
    dark = dialog.wait(lambda now: not now.content & at_first.content, "the colours of the dark theme")
    wait_for_background("#102030")
    chart = monitor.content().total_chart
    assert tuple(monitor.picture(tmp_path / "chart.png")[chart.y, chart.x]) == (0x1E, 0x1E, 0x20)

    dialog.press(dark.expander)
    dialog.pick_color(dialog.wait(lambda now: now.expanded).color("Background"), "Dark Blue")
    dialog.wait_for_saved("a colour of the dark theme", theme="dark", bg_dark="#1C71D8")
    wait_for_background("#1C71D8")
    dialog.choose(dialog.wait().theme, THEMES.index("light"))
    dialog.wait_for_saved("light again", bg_dark="#1C71D8")
    wait_for_background(DEFAULTS["bg_light"])
    light = dialog.wait(lambda now: not now.content & dark.content, "the colours of the light theme")
    assert light.expanded
    dialog.pick_color(light.color("Background"), "Light Yellow")
    dialog.wait_for_saved("a colour of the light theme", bg_dark="#1C71D8", bg_light="#F8E45C")
    wait_for_background("#F8E45C")


def put_aside(display: XDisplay, dialog: SettingsDialog) -> None:
    """Moves the dialog away from the main window, so that both can be seen."""
    display.move(dialog.window(), 900, 100)
    wait_until(lambda: frame_place(display, dialog.window()) == (900, 100), TIMEOUT, "the dialog beside the window")


# --- colours ---

def test_colors(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    dialog = SettingsDialog.of_new_program(start, x11, tmp_path / "kept", MACHINE, records=Stored(VERTICAL, HORIZONTAL))
    dialog.open()
    opened = dialog.click_expander()
    put_aside(x11, dialog)
    assert [row.label.name for row in opened.colors] == ["Background", "Panels", "Text", "Gear", "Total", "Performance", "Efficiency"]
    eventually_paints(dialog, tmp_path, DEFAULTS["total"], [MARKER_COLOR, DEFAULTS["group1"]])
    saved: dict[str, str] = {}

    def expect(key: str, color: str) -> None:
        saved[key] = color
        dialog.wait_for_saved(f"{key} chosen", **saved)
    pick_with_pointer(x11, dialog, opened.color("Total"), "Dark Purple")
    expect("total", "#813D9C")
    eventually_paints(dialog, tmp_path, "#813D9C", [MARKER_COLOR, DEFAULTS["group1"]])
    pick_with_keys(x11, dialog, opened.color("Performance"), "Red")
    expect("group0", "#E01B24")
    for name, key, color, value in (("Efficiency", "group1", "Very Dark Orange", "#C64600"), ("Text", "text_light", "Black", "#000000"),
                                    ("Gear", "gear_light", "Blue", "#3584E4"), ("Panels", "panel_light", "Light Green", "#57E389")):
        dialog.pick_color(opened.color(name), color)
        expect(key, value)
    eventually_paints(dialog, tmp_path, "#813D9C", ["#E01B24", "#C64600"], panel="#57E389")
    assert dialog.wait().content == opened.content  # the rows stay as they are

    dialog.press(opened.color("Text"))
    dialog.wait_for_color_chooser()
    x11.key("Escape")
    dialog.wait_until_no_color_chooser()
    dialog.wait_for_saved("nothing chosen", **saved)
    dialog.click(opened.reset)
    dialog.wait_for_saved("reset", group0=DEFAULTS["group0"])
    eventually_paints(dialog, tmp_path, DEFAULTS["total"], [DEFAULTS["group0"], DEFAULTS["group1"]], panel=DEFAULTS["panel_light"])
    assert dialog.wait(lambda now: not now.content & opened.content, "new rows").expanded


def pick_with_pointer(display: XDisplay, dialog: SettingsDialog, button: Node, name: str) -> None:
    """Clicks on a colour button, on a colour, and on what takes it."""
    dialog.click(button)
    chooser = dialog.wait_for_color_chooser()
    window = display.find_window(chooser.name, dialog.monitor.pid, TIMEOUT)
    click(dialog.monitor, window, named(chooser, "radio button", name))
    click(dialog.monitor, window, named(chooser, "push button", "Select"))
    dialog.wait_until_no_color_chooser()


def pick_with_keys(display: XDisplay, dialog: SettingsDialog, button: Node, name: str) -> None:
    """Opens the chooser from the keyboard, walks to a colour, takes it and leaves by Return."""
    bus = dialog.monitor.bus
    focus(display, dialog.window())
    walk_to(display, dialog, button)
    display.key("space")
    chooser = dialog.wait_for_color_chooser()
    focus(display, display.find_window(chooser.name, dialog.monitor.pid, TIMEOUT))
    color, first = named(chooser, "radio button", name), named(chooser, "radio button", "Very Light Blue")
    walk_to(display, dialog, first)
    for key, steps in ("Right", (color.rect.x - first.rect.x) // first.rect.width), ("Down", (color.rect.y - first.rect.y) // 32):
        display.key(*[key] * steps)
    wait_until(lambda: bus.have_state([color.address], State.FOCUSED) == [True], TIMEOUT, f"the focus on {name}")
    display.key("space")
    walk_to(display, dialog, named(chooser, "push button", "Select"))
    display.key("Return")
    dialog.wait_until_no_color_chooser()


def walk_to(display: XDisplay, dialog: SettingsDialog, control: Node, key: str = "Tab") -> None:
    """Presses Tab until a control has the keyboard."""
    bus = dialog.monitor.bus
    for _ in range(80):
        if bus.have_state([control.address], State.FOCUSED) == [True]:
            return
        display.key(key)
    raise AssertionError(f"{control.name} is not to be reached by {key}")


def eventually_paints(dialog: SettingsDialog, folder: Path, total: str, groups: list[str], panel: str | None = None) -> None:
    """Waits until charts and colour bars are painted in these colours, and the panel behind the total chart."""
    def paints() -> bool:
        content, picture = dialog.monitor.content(), dialog.monitor.picture(folder / "window.png")
        charts = [Chart(picture, content.total_chart, total)]
        charts += [Chart(picture, card.chart, color) for section, color in zip(content.sections, groups) for card in section.cards]
        bars = [tuple(picture[section.bar.y + section.bar.height // 2, section.bar.x]) for section in content.sections]
        behind = picture[content.gear.y - 1, content.gear.right + 2]
        return (all(shows_load(chart) for chart in charts) and bars == [color_of(color) for color in groups]
                and (panel is None or tuple(behind) == color_of(panel)))
    wait_until(paints, TIMEOUT, f"charts in {total} and {groups}")


def shows_load(chart: Chart) -> bool:
    """Whether the chart's curve ends at LOAD in its accent colour."""
    return abs(chart.curve_height() - LOAD / 100) <= 2 / chart.height and CURVE - 0.25 <= chart.newest.max() <= CURVE + 0.1


def test_chooser_of_colors_goes_with_its_row(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    dialog = SettingsDialog.of_new_program(start, x11, tmp_path / "kept", MACHINE)
    dialog.press(dialog.open().expander)
    dialog.press(dialog.wait(lambda now: now.expanded).color("Total"))
    dialog.wait_for_color_chooser()
    dialog.choose_language("Deutsch")
    dialog.wait_until_no_color_chooser()
    dialog.wait_for_saved("another language", language="de")


def test_menu_of_a_color_goes_with_its_chooser(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    dialog = SettingsDialog.of_new_program(start, x11, tmp_path / "kept", MACHINE)
    dialog.press(dialog.open().expander)
    dialog.press(dialog.wait(lambda now: now.expanded).color("Total"))
    chooser = dialog.wait_for_color_chooser()
    window = x11.find_window(chooser.name, dialog.monitor.pid, TIMEOUT)
    click(dialog.monitor, window, named(chooser, "radio button", "Dark Red"), button=3)
    wait_until(while_it_changes(lambda: "Customize" in {node.name for node in dialog.color_chooser().walk()}), TIMEOUT, "the menu")
    dialog.choose_language("Deutsch")
    dialog.wait_until_no_color_chooser()
    assert dialog.monitor.complaints() == ""


def test_menu_of_a_link_goes_with_it(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    dialog = SettingsDialog.of_new_program(start, x11, tmp_path / "kept", MACHINE)
    opened, windows = dialog.open(), len(x11.windows(pid=dialog.monitor.pid))
    click(dialog.monitor, dialog.window(), opened.links[0], button=3)
    wait_until(lambda: len(x11.windows(pid=dialog.monitor.pid)) > windows, TIMEOUT, "the menu")
    dialog.choose_language("Deutsch")
    dialog.click(dialog.wait().more)  # which the menu would keep from it
    dialog.wait(lambda now: now.columns == 2, "two columns")
    assert dialog.monitor.complaints() == ""


# --- links ---

# No shell: those let all signals through again.
HANDLER = """\
#!/usr/bin/python3
import os, pathlib, signal, sys
folder = pathlib.Path("{folder}")
(folder / f"status-{{os.getpid()}}").write_text(pathlib.Path("/proc/self/status").read_text())
(folder / f"draft-{{os.getpid()}}").write_text("".join(argument + "\\n" for argument in sys.argv[1:]))
(folder / f"draft-{{os.getpid()}}").rename(folder / f"called-{{os.getpid()}}")
signal.pause()
"""
DESKTOP_FILE = """\
[Desktop Entry]
Type=Application
Name=Recorder
Exec={program} %u
MimeType=x-scheme-handler/https;x-scheme-handler/mailto;
"""
SCHEMES = "x-scheme-handler/https=recorder.desktop\nx-scheme-handler/mailto=recorder.desktop\n"


@pytest.mark.parametrize("kind", [XDisplay, SwayDisplay, WestonDisplay])
def test_links(kind: Callable[[], Display], displays: ExitStack, start: Start, tmp_path: Path) -> None:
    display = displays.enter_context(kind())
    folder = tmp_path / "applications"
    data = folder / "data/applications"
    data.mkdir(parents=True)
    handler = folder / "handler"
    handler.write_text(HANDLER.format(folder=folder))
    handler.chmod(0o755)
    (data / "recorder.desktop").write_text(DESKTOP_FILE.format(program=handler))
    (data / "mimeapps.list").write_text(f"[Default Applications]\n{SCHEMES}[Added Associations]\n{SCHEMES}")
    dialog = SettingsDialog.of_new_program(start, display, tmp_path / "kept", env={"XDG_DATA_HOME": str(folder / "data")})
    web, mail = dialog.open().links
    for number, (link, uri) in enumerate(((web, f"https://{web.name}/"), (mail, f"mailto:{mail.name}")), 1):
        (dialog.click if isinstance(display, XDisplay) else dialog.press)(link)
        wait_until(lambda: len(list(folder.glob("called-*"))) == number, TIMEOUT, f"a call with {uri}")
        (record,) = [one for one in folder.glob("called-*") if one.read_text() == f"{uri}\n"]
        check_that_signals_reach(int(record.name.removeprefix("called-")), folder)


def check_that_signals_reach(pid: int, folder: Path) -> None:
    """A started program has no signal blocked and neither SIGTERM nor SIGINT ignored, and SIGTERM ends it."""
    fields = dict(line.split(":", 1) for line in (folder / f"status-{pid}").read_text().splitlines())
    assert int(fields["SigBlk"], 16) == 0
    assert int(fields["SigIgn"], 16) & sum(1 << number - 1 for number in (signal.SIGTERM, signal.SIGINT)) == 0
    os.kill(pid, signal.SIGTERM)
    wait_until(lambda: has_ended(pid), TIMEOUT, "the end of the started program")


def has_ended(pid: int) -> bool:
    try:
        return Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[0] == "Z"
    except FileNotFoundError:
        return True


def test_links_that_nobody_opens(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    data = tmp_path / "data"
    data.mkdir()
    for entry in Path("/usr/share").iterdir():  # all that GTK needs, but no program
        if entry.name != "applications":
            (data / entry.name).symlink_to(entry)
    dialog = SettingsDialog.of_new_program(start, x11, tmp_path / "kept", env={"XDG_DATA_DIRS": str(data)})
    links = dialog.open().links
    for link in links:
        dialog.click(link)
    dialog.press(dialog.wait().more)  # answered after the clicks, so they have been dealt with
    dialog.wait(lambda now: now.columns == 2, "two columns")
    assert dialog.monitor.complaints() == ""


# --- keyboard ---

def test_keyboard_alone(managed: XDisplay, start: Start, tmp_path: Path) -> None:
    dialog = SettingsDialog.of_new_program(start, managed, tmp_path / "kept", MACHINE, records=Stored(VERTICAL, HORIZONTAL))
    open_by_keys(managed, dialog)
    dialog.wait()
    focus(managed, dialog.window())

    def press(*keys: str) -> None:
        managed.key(*keys)
    press("Down")  # the first control is the orientation's combo box
    dialog.wait_for_saved("Down", orientation="horizontal")
    dialog.wait(lambda now: now.columns == HORIZONTAL.num_columns, "the horizontal orientation")
    press("Up")  # still there, though what stands in the dialog is new
    dialog.wait_for_saved("Up")
    dialog.wait(lambda now: now.columns == VERTICAL.num_columns, "the vertical orientation")
    press("Tab", "Tab")
    wait_for_focus(dialog, lambda: dialog.wait().more, "+")
    press("space")
    dialog.wait(lambda now: now.columns == VERTICAL.num_columns + 1, "one more column")
    press("Tab")
    wait_for_focus(dialog, lambda: dialog.wait().apply, "Apply")
    press("Tab", "Up")  # the language above English
    dialog.wait_for_saved("the language", language="de")
    dialog.wait(lambda now: now.title == "Einstellungen", "German")
    choose_from_menu(managed, dialog, LANGUAGES.index("English"), ["Down", "Left", "Left"])
    dialog.wait_for_saved("the language back")
    dialog.wait(lambda now: now.title == "Settings", "English")
    press("Tab", "Down")
    dialog.wait_for_saved("the theme", theme="dark")
    press("Tab")
    wait_for_focus(dialog, lambda: dialog.wait().expander, "the colours")
    press("space")
    dialog.wait(lambda now: now.expanded, "the colours")
    for number in range(7):
        press("Tab")
        wait_for_focus(dialog, lambda: dialog.wait().colors[number].button, f"colour {number}")
    press("Tab")
    wait_for_focus(dialog, lambda: dialog.wait().reset, "the reset")
    press("space")
    dialog.wait_for_saved("reset", theme="dark", group0=DEFAULTS["group0"])
    wait_for_focus(dialog, lambda: dialog.wait().reset, "the new reset button")
    for number in range(2):
        press("Tab")
        wait_for_focus(dialog, lambda: dialog.wait().links[number], f"link {number}")
    press("Escape")
    dialog.wait_until_hidden()


def choose_from_menu(display: XDisplay, dialog: SettingsDialog, number: int, way: list[str]) -> None:
    """Opens the menu of the languages, which have the keyboard, and takes an item to which these keys lead."""
    item, bus = dialog.items(dialog.wait().language)[number].address, dialog.monitor.bus
    display.key("space")
    wait_until(lambda: bus.have_state([item], State.SHOWING) == [True], TIMEOUT, "the items of the combo box")
    display.key(*way, "Return")


def test_closed_colors_are_passed_over(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    dialog = SettingsDialog.of_new_program(start, x11, tmp_path / "kept", MACHINE)
    opened = dialog.open()
    focus(x11, dialog.window())
    for again in (False, True):
        walk_to(x11, dialog, opened.expander)
        x11.key("Tab")
        wait_for_focus(dialog, lambda: dialog.wait().links[0], "what comes behind the colours")
        if not again:
            opened = dialog.choose_language("Deutsch")


def test_colors_open_and_close_again_and_again(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    dialog = SettingsDialog.of_new_program(start, x11, tmp_path / "kept", MACHINE)
    opened = dialog.open()
    focus(x11, dialog.window())
    walk_to(x11, dialog, opened.expander)

    def by_pointer() -> None:
        title = dialog.monitor.bus.place(opened.expander.address)
        x11.click(title.x + TITLE_OFFSET, title.y + opened.expander.rect.height // 2, window=dialog.window())

    def by_keys() -> None:
        x11.key("space")

    def by_screen_reader() -> None:
        dialog.press(dialog.wait().expander)
    for toggle in (by_pointer, by_keys, by_screen_reader):
        for _ in range(3):
            toggle()
            dialog.wait(lambda now: now.expanded and are_shown(dialog, now), "the colours")
            toggle()
            dialog.wait(lambda now: not now.expanded and not are_shown(dialog, now), "no colours")
            x11.key("Tab")
            wait_for_focus(dialog, lambda: dialog.wait().links[0], "what comes behind the colours")
            x11.key("shift+Tab")
            wait_for_focus(dialog, lambda: dialog.wait().expander, "the title of the colours")
    assert dialog.monitor.complaints() == ""


@pytest.mark.parametrize("language, onwards, back", [("en", "Right", "Left"), ("ar", "Left", "Right")])
def test_arrows_in_colors(x11: XDisplay, start: Start, tmp_path: Path, language: str, onwards: str, back: str) -> None:
    dialog = SettingsDialog.of_new_program(start, x11, tmp_path / "kept", MACHINE, language=language)
    opened = dialog.open()
    focus(x11, dialog.window())
    walk_to(x11, dialog, opened.expander)
    x11.key(onwards, back, onwards, "Tab")
    wait_for_focus(dialog, lambda: dialog.wait().links[0], "what comes behind the closed colours")
    x11.key("shift+Tab", "space")
    opened = dialog.wait(lambda now: now.expanded and are_shown(dialog, now), "the colours")
    x11.key(onwards, onwards, back, onwards)
    walk_to(x11, dialog, opened.reset)
    x11.key(onwards, back)
    walk_to(x11, dialog, opened.links[0])


def are_shown(dialog: SettingsDialog, now: Dialog) -> bool:
    return all(dialog.monitor.bus.have_state([row.button.address for row in now.colors], State.SHOWING))


def test_what_has_been_replaced_is_known_to_be_gone(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    dialog = SettingsDialog.of_new_program(start, x11, tmp_path / "kept", MACHINE)
    old_gear, before = gear(dialog.monitor), dialog.open()
    dialog.choose_orientation("horizontal")
    for button in old_gear, before.more, before.apply, before.reset:
        with pytest.raises(Gone):
            dialog.press(button)
    with pytest.raises(Gone):
        dialog.choose(before.theme, THEMES.index("dark"))
