"""What a screen reader is told: the order in which it walks through the window, what charts show, and which words belong together."""

from __future__ import annotations

import re
import subprocess
from pathlib import Path

import pytest

from accessibility import Address, Node, PropertyChange, Relation
from displays import XDisplay, wait_until
from fakemachine import Machine
from geometry_records import Record, Stored
from kernel_readings import KernelReadings
from monitor import MARKER_COLOR, TIMEOUT, Monitor, Start, read_content
from settings_dialog import (DEFAULTS, ENGLISH, TEXTS, THEMES, Dialog, SettingsDialog, Texts, charts_in, gear_in, is_horizontal,
                             main_window, wait_for_content, while_it_changes)

CLUSTERS = [{"cores": 4, "mhz": [800, 5000]}, {"cores": 3, "mhz": [800, 3500]}]
MACHINE = {"clusters": CLUSTERS, "load": {"kind": "steady", "percent": 60}}
MOVING = {"clusters": CLUSTERS, "load": "waves"}
FIRST_SECTION = 4  # cards
VERTICAL, HORIZONTAL = Record(300, 100, 500, 501, 2), Record(100, 400, 800, 300, 1)
MARKS = re.compile("[\u200e\u200f\u2066-\u2069]")


# --- the order ---

def spoken_order(main: Node) -> list[str]:
    """Names of all that has one, in the order in which a screen reader comes to it; percentages without their number."""
    return [re.sub(r"^\d+%$", "%", node.name) for node in main.walk() if node.name and node.role in ("push button", "label", "chart")]


def expected_order(texts: Texts) -> list[str]:
    """Sections and cards one behind the other, each header before its cards."""
    order = []
    for title, caption, numbers in ((texts.performance, "5.000 GHz", range(1, 5)), (texts.efficiency, "3.500 GHz", range(5, 8))):
        order += [f"{title} ({len(numbers)})", caption]
        for number in numbers:
            order += [texts.core % number, "%", texts.core % number]
    return [texts.settings, "…", texts.total, *order]


def is_in_order(main: Node, texts: Texts) -> bool:
    order = spoken_order(main)
    gear, total = order.index(texts.settings), order.index(texts.total)
    return [*order[gear:gear + 1], "…", *order[total:]] == expected_order(texts)


def stands_in_order(main: Node, texts: Texts) -> bool:
    """Whether cards that follow each other in a section stand behind each other, or below."""
    cards = [node for node in main.walk() if [child.role for child in node.children] == ["filler", "chart"] and not any(
        child.role == "push button" for child in node.children[0].children)]
    sign = -1 if texts.is_right_to_left else 1
    places = [(card.rect.y, sign * card.rect.x) for card in cards]
    return all(part == sorted(part) for part in (places[:FIRST_SECTION], places[FIRST_SECTION:]))


@pytest.mark.parametrize("language", ["English", "العربية"])
def test_order_is_the_one_that_is_seen(x11: XDisplay, start: Start, tmp_path: Path, language: str) -> None:
    texts = TEXTS[language]
    dialog = SettingsDialog.of_new_program(start, x11, tmp_path / "kept", MACHINE, records=Stored(VERTICAL, HORIZONTAL), language=texts.code)

    def assert_in_order(texts: Texts, what: str) -> None:
        def found() -> bool:
            main = main_window(dialog.monitor)
            return is_in_order(main, texts) and stands_in_order(main, texts)
        try:
            wait_until(while_it_changes(found), TIMEOUT, what)
        except AssertionError:
            raise AssertionError(f"{what}: {spoken_order(main_window(dialog.monitor))}") from None
    assert_in_order(texts, "at the start")
    apply_more_columns(dialog, 3)
    assert_in_order(texts, "three columns")
    dialog.open()
    dialog.choose_orientation("horizontal")
    assert_in_order(texts, "in one row")
    other = "Deutsch" if texts.is_right_to_left else "עברית"
    dialog.choose_language(other)
    assert_in_order(TEXTS[other], "in one row, another language")
    apply_more_columns(dialog, 2)
    assert_in_order(TEXTS[other], "in rows of two")
    dialog.open()
    dialog.choose_language(language)
    dialog.choose_orientation("vertical")
    assert_in_order(texts, "vertical again")


def apply_more_columns(dialog: SettingsDialog, columns: int) -> None:
    dialog.press(dialog.open().more)
    dialog.press(dialog.wait(lambda now: now.columns == columns, f"{columns} columns").apply)
    dialog.wait_until_hidden()
    rows = {False: -(-4 // columns) + -(-3 // columns), True: 1 if columns == 1 else -(-4 // columns) + -(-3 // columns)}
    wait_for_content(dialog.monitor, lambda now: len({card.rect.y for card in now.cards}) == rows[is_horizontal(now)], f"{columns} columns")


# --- charts ---

@pytest.mark.parametrize("orientation", ["vertical", "horizontal"])
@pytest.mark.parametrize("language", ["English", "Deutsch", "فارسی"])
def test_charts_tell_what_they_show(x11: XDisplay, start: Start, machines, language: str, orientation: str) -> None:
    machine = machines.enter_context(Machine(MACHINE))
    texts = TEXTS[language]
    monitor = start(x11, machine, {"language": texts.code, "orientation": orientation})
    wait_for_descriptions(monitor, KernelReadings(machine))
    names = [texts.core % number for number in range(1, 8)]
    assert [chart.name for chart in charts_in(main_window(monitor))] == [texts.total, *names]
    for text in told(monitor):
        assert text.startswith("\u200f\u200e" if texts.is_right_to_left else text[0])
        assert bool(MARKS.search(text)) is texts.is_right_to_left


def clock_text(mhz: float) -> str:
    return f"{mhz / 1000:.3f} GHz" if mhz >= 1000 else f"{mhz:.0f} MHz"


def told(monitor: Monitor) -> list[str]:
    """What the charts tell at this moment, the total first."""
    return monitor.bus.descriptions([chart.address for chart in charts_in(main_window(monitor))])


def wait_for_descriptions(monitor: Monitor, kernel: KernelReadings) -> None:
    """Waits until each chart of a card tells the percentage that stands beside it, and all charts the machine's clocks behind theirs."""
    def found() -> bool:
        clocks = [clock_text(mhz) for mhz in (max(kernel.clocks), *kernel.clocks)]
        percentages = monitor.percentages(monitor.content().cards)
        descriptions = [MARKS.sub("", text) for text in told(monitor)]
        loads = [text.partition(", ")[0] for text in descriptions]
        return (monitor.percentages(monitor.content().cards) == percentages == loads[1:] and "0%" not in loads
                and re.fullmatch(r"\d+%", loads[0]) is not None and descriptions == [", ".join(pair) for pair in zip(loads, clocks)])
    wait_until(while_it_changes(found), TIMEOUT, f"descriptions with {kernel.clocks}; there are {told(monitor)}")


def test_charts_without_clocks_tell_the_load_alone(x11: XDisplay, start: Start) -> None:
    monitor = start(x11, {"clusters": [{"cores": 2}], "load": {"kind": "steady", "percent": 60}})
    wait_until(lambda: all(re.fullmatch(r"[1-9]\d?%", text) for text in told(monitor)), TIMEOUT, f"loads; there are {told(monitor)}")
    assert len(told(monitor)) == 3


def test_descriptions_follow_the_language(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    dialog = SettingsDialog.of_new_program(start, x11, tmp_path / "kept", MACHINE)
    dialog.open()
    for name, is_marked in (("עברית", True), ("Deutsch", False)):
        dialog.choose_language(name)
        texts = TEXTS[name]
        charts = charts_in(main_window(dialog.monitor))
        assert [chart.name for chart in charts] == [texts.total, *(texts.core % number for number in range(1, 8))]
        assert [bool(MARKS.search(text)) for text in told(dialog.monitor)] == [is_marked] * 8
        gear = gear_in(main_window(dialog.monitor))
        assert (gear.name, dialog.monitor.bus.descriptions([gear.address])) == (texts.settings, [""])


def test_charts_raise_no_events(x11: XDisplay, start: Start) -> None:
    monitor = start(x11, MOVING)
    bus = monitor.bus
    charts = [chart.address for chart in charts_in(main_window(monitor))]
    label = monitor.content().cards[0].percentage_label
    with bus.changes() as names, bus.changes("description") as descriptions:
        before = told(monitor)
        wait_until(lambda: sum(change.address == label for change in names()) >= 3, TIMEOUT, "the third percentage of a card")
        assert told(monitor) != before  # asked for in between, they are others
        assert [change for change in [*names(), *descriptions()] if change.address in charts] == []


# A client that remembers what it was told until there is news of it, as screen readers do through this library.
REMEMBERING_CLIENT = """\
import gi
gi.require_version("Atspi", "2.0")
from gi.repository import Atspi, GLib
Atspi.init()
Atspi.set_timeout(60000, 60000)  # a busy program answers late

def walk(node):
    yield node
    for number in range(node.get_child_count()):
        yield from walk(node.get_child_at_index(number))

def look():
    seen.append([(chart.get_description(), chart.get_state_set().contains(Atspi.StateType.SHOWING)) for chart in charts])
    if len(seen) == LOOKS:
        Atspi.event_quit()
    return len(seen) < LOOKS

LOOKS, seen = 30, []
desktop = Atspi.get_desktop(0)
nodes = [node for number in range(desktop.get_child_count()) for node in walk(desktop.get_child_at_index(number))]
charts = [node for node in nodes if node.get_role() == Atspi.Role.CHART]
GLib.timeout_add(200, look)
Atspi.event_main()
print(*(len({look[number] for look in seen[1:]}) for number in range(len(charts))))
"""


def test_clients_that_remember_hear_what_is_shown_now(x11: XDisplay, start: Start) -> None:
    monitor = start(x11, MOVING)
    wait_until(lambda: all("%" in text for text in told(monitor)), TIMEOUT, "the first loads")
    done = subprocess.run(["/usr/bin/python3", "-c", REMEMBERING_CLIENT], env=x11.env, capture_output=True, text=True, timeout=TIMEOUT, check=True)
    different = [int(number) for number in done.stdout.split()]
    assert len(different) == 8 and min(different) > 1, different


# --- cards and headers ---

def labels_of(monitor: Monitor, addresses: list[Address]) -> list[str]:
    """The name of the one label that each object belongs to."""
    labels = monitor.bus.related(addresses, Relation.LABELLED_BY)
    assert [len(each) for each in labels] == [1] * len(addresses)
    return monitor.bus.names([label for (label,) in labels])


@pytest.mark.parametrize("columns, shown", [(1, "Core %d"), (4, "%d")])
def test_percentages_belong_to_the_names_of_their_cards(x11: XDisplay, start: Start, tmp_path: Path, columns: int, shown: str) -> None:
    vertical = Record(300, 100, 250, 501, columns)
    dialog = SettingsDialog.of_new_program(start, x11, tmp_path / "kept", MACHINE, records=Stored(vertical, HORIZONTAL))
    monitor = dialog.monitor

    def check(texts: Texts, shown: str) -> None:
        cards = monitor.content().cards
        names = [texts.core % number for number in range(1, 8)]
        assert labels_of(monitor, [card.percentage_label for card in cards]) == names
        assert [card.name for card in cards] == names
        assert monitor.bus.texts([card.name_label for card in cards]) == [shown % number for number in range(1, 8)]
        assert monitor.bus.related([card.name_label for card in cards], Relation.LABEL_FOR) == [[card.percentage_label] for card in cards]
    check(ENGLISH, shown)
    dialog.open()
    dialog.choose_language("Deutsch")
    check(TEXTS["Deutsch"], shown.replace("Core", "Kern"))
    dialog.choose_orientation("horizontal")
    dialog.choose_orientation("vertical")
    check(TEXTS["Deutsch"], shown.replace("Core", "Kern"))


def test_news_of_names_comes_with_another_language_alone(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    dialog = SettingsDialog.of_new_program(start, x11, tmp_path / "kept", MACHINE)
    monitor, bus = dialog.monitor, dialog.monitor.bus
    dialog.open()
    titles = [card.name_label for card in monitor.content().cards]
    with bus.changes() as changes:
        dialog.choose_language("Deutsch")
        expected = {PropertyChange(label, f"Kern {number}") for number, label in enumerate(titles, 1)}
        wait_until(lambda: expected <= set(changes()), TIMEOUT, "news of the titles")


@pytest.mark.parametrize("orientation", ["vertical", "horizontal"])
def test_color_bars_are_redundant(x11: XDisplay, start: Start, orientation: str) -> None:
    monitor = start(x11, MACHINE, {"orientation": orientation})
    roles = [node.role for node in main_window(monitor).walk()]
    assert (roles.count("redundant object"), roles.count("chart"), roles.count("drawing area")) == (2, 8, 0)
    assert [section.bar.width for section in read_content(main_window(monitor)).sections] == [3, 3]


# --- the dialog ---

@pytest.mark.parametrize("language", ["English", "اردو"])
def test_columns_belong_to_their_title_and_tell_their_number(x11: XDisplay, start: Start, tmp_path: Path, language: str) -> None:
    texts = TEXTS[language]
    dialog = SettingsDialog.of_new_program(start, x11, tmp_path / "kept", MACHINE, records=Stored(VERTICAL, HORIZONTAL), language=texts.code)
    bus = dialog.monitor.bus
    opened = dialog.open()
    assert labels_of(dialog.monitor, columns_parts(opened)) == [texts.columns] * 3
    assert bus.descriptions([opened.fewer.address, opened.more.address]) == ["2", "2"]
    buttons = {button.address for button in (opened.fewer, opened.more)}
    with bus.changes("description") as changes:
        for press, number in ((opened.more, "3"), (opened.more, "4"), (opened.fewer, "3")):
            dialog.press(press)
            told_of = {PropertyChange(button, number) for button in buttons}
            wait_until(lambda: told_of <= set([news for news in changes() if news.address in buttons][-2:]), TIMEOUT, f"news of {number}")
    assert bus.descriptions([opened.fewer.address, opened.more.address]) == ["3", "3"]
    horizontal = dialog.choose_orientation("horizontal")
    assert labels_of(dialog.monitor, columns_parts(horizontal)) == [texts.columns] * 3
    assert bus.descriptions([horizontal.fewer.address, horizontal.more.address]) == ["1", "1"]
    german = dialog.choose_language("Deutsch")
    assert labels_of(dialog.monitor, columns_parts(german)) == ["Spalten"] * 3


def columns_parts(dialog: Dialog) -> list[Address]:
    return [part.address for part in (dialog.fewer, dialog.number, dialog.more)]


def test_color_buttons_tell_their_colors(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    dialog = SettingsDialog.of_new_program(start, x11, tmp_path / "kept", MACHINE, bg_dark="#102030")
    bus = dialog.monitor.bus
    common = [DEFAULTS["total"], MARKER_COLOR, DEFAULTS["group1"]]
    light = [DEFAULTS[f"{slot}_light"] for slot in ("bg", "panel", "text", "gear")] + common

    def colors(now: Dialog) -> list[str]:
        return bus.descriptions([row.button.address for row in now.colors])
    dialog.press(dialog.open().expander)
    opened = dialog.wait(lambda now: now.expanded)
    assert colors(opened) == light
    panels = opened.color("Panels")
    with bus.changes("description") as changes:
        dialog.pick_color(panels, "Dark Blue")
        wait_until(lambda: PropertyChange(panels.address, "#1C71D8") in changes(), TIMEOUT, "news of the colour")
    assert colors(dialog.wait()) == [light[0], "#1C71D8", *light[2:]]
    dialog.choose(dialog.wait().theme, THEMES.index("dark"))
    dark = dialog.wait_for_new_content(opened)
    assert colors(dark) == ["#102030", *(DEFAULTS[f"{slot}_dark"] for slot in ("panel", "text", "gear")), *common]
    dialog.press(dark.reset)
    assert colors(dialog.wait_for_new_content(dark)) == [
        *(DEFAULTS[f"{slot}_dark"] for slot in ("bg", "panel", "text", "gear")), DEFAULTS["total"], DEFAULTS["group0"], DEFAULTS["group1"]]


def test_chooser_of_colors_tells_which_color_of_what(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    dialog = SettingsDialog.of_new_program(start, x11, tmp_path / "kept", MACHINE)
    dialog.press(dialog.open().expander)

    def title(row: int) -> str:
        dialog.press(dialog.wait(lambda now: now.expanded).colors[row].button)
        chooser = dialog.wait_for_color_chooser()
        dialog.press(next(node for node in chooser.walk() if (node.role, node.name) == ("push button", "Cancel")))
        dialog.wait_until_no_color_chooser()
        return chooser.name
    assert [title(0), title(4), title(5)] == ["Colors – Background (Light)", "Colors – Total", "Colors – Performance"]
    before = dialog.wait()
    dialog.choose(before.theme, THEMES.index("dark"))
    dialog.wait_for_new_content(before)
    dialog.choose_language("Deutsch")
    assert [title(0), title(6)] == ["Farben – Hintergrund (Dunkel)", "Farben – Effizienz"]
