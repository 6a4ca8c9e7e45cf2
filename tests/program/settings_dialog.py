"""The settings dialog of a running program: what stands in it, and how a person handles it."""

from __future__ import annotations

from collections.abc import Callable, Mapping
from dataclasses import dataclass
from functools import cached_property
from pathlib import Path
from typing import Any, NamedTuple, TypeVar

import numpy
from gi.repository import GLib

from accessibility import Address, Node, Rect, State
from displays import Display, SwayDisplay, XDisplay, load_picture, wait_until
from geometry_records import Home, Stored
from monitor import (MARKER_COLOR, PROGRAM_NAME, TIMEOUT, TITLE, Content, Monitor, Start, config_folder, read_content, settings_text,
                     write_settings)

T = TypeVar("T")

LANGUAGES = ["Automatic", "Bahasa Indonesia", "Bahasa Melayu", "Català", "Dansk", "Deutsch", "English", "Español", "Français",
             "Hrvatski", "Italiano", "Kiswahili", "Latviešu", "Lietuvių", "Magyar", "Nederlands", "Norsk bokmål", "Polski",
             "Português", "Română", "Slovenčina", "Slovenščina", "Suomi", "Svenska", "Tagalog", "Tiếng Việt", "Türkçe", "Čeština",
             "Ελληνικά", "Български", "Русский", "Српски", "Українська", "עברית", "اردو", "العربية", "فارسی", "नेपाली", "हिन्दी",
             "বাংলা", "ไทย", "中文", "日本語", "繁體中文", "한국어"]
ORIENTATIONS = ["vertical", "horizontal"]  # as they are saved, in the order of the items
THEMES = ["auto", "light", "dark"]

TITLE_OFFSET = 24  # pixels from the left end of an expander into its title, in a language written from left to right

#: All that is saved, in its order, and what it is at first.
DEFAULTS = {
    "language": "auto", "theme": "auto", "orientation": "vertical",
    "bg_light": "#D9D9D9", "panel_light": "#EBEBEB", "text_light": "#404040", "gear_light": "#CC3326",
    "bg_dark": "#1C1C1E", "panel_dark": "#2C2C2E", "text_dark": "#E5E5E7", "gear_dark": "#FFFFFF",
    "total": "#00A659", "group0": "#CC3326", "group1": "#0080D9", "group2": "#00A659", "group3": "#8066D9",
}


def saved_bytes(**changes: str) -> bytes:
    """The file that a program has saved which was started with the tests' usual settings and these changes."""
    values = {**DEFAULTS, "theme": "light", "language": "en", "group0": MARKER_COLOR, **changes}
    return ("{\n" + ",\n".join(f'  "{key}": "{value}"' for key, value in values.items()) + "\n}\n").encode()


@dataclass
class Chooser:
    """A combo box with its label."""
    label: Node
    combo: Node
    number: int  # of the item that it shows


@dataclass
class ColorRow:
    """A colour with its button."""
    label: Node
    button: Node


@dataclass
class Dialog:
    """What stands in the dialog. Nothing here depends on the language."""
    frame: Node
    box: Node
    orientation: Chooser
    language: Chooser
    theme: Chooser
    columns_title: str
    fewer: Node
    number: Node
    more: Node
    apply: Node
    expander: Node
    expanded: bool
    colors: list[ColorRow]
    reset: Node
    about: list[str]
    links: list[Node]
    disclaimer: list[Node]

    @property
    def title(self) -> str:
        return self.frame.name

    @property
    def columns(self) -> int:
        return int(self.number.name)

    @property
    def content(self) -> set[Address]:
        """What is replaced when the content is built afresh."""
        return {child.address for child in self.box.children}

    def color(self, name: str) -> Node:
        """The button of the colour with this name."""
        (row,) = [row for row in self.colors if row.label.name == name]
        return row.button


class SettingsDialog:
    """The dialog of a running program, with what the program keeps in its home."""

    def __init__(self, monitor: Monitor, home: Home) -> None:
        self.monitor, self.home = monitor, home
        self._window = 0

    @classmethod
    def of_new_program(cls, start: Start, display: Display, home: Path, machine: dict | None = None, *, records: Stored | None = None,
                       env: Mapping[str, str | None] = {}, **settings: str) -> SettingsDialog:
        """Starts a program with these records of its geometry and these changes of the tests' usual settings."""
        kept = Home(home)
        write_settings(home, settings_text(**settings))
        if records is not None:
            kept.write(records)
        return cls(start(display, machine, settings=None, env={"HOME": str(home), **env}), kept)

    # --- looking ---

    def shown(self) -> Dialog | None:
        """The dialog as it is now, None while it is hidden."""
        bus = self.monitor.bus
        windows = bus.children(self.monitor.root)
        for window, name in zip(windows, bus.names(windows)):
            if name != TITLE:
                frame = bus.tree(window, closed=["combo box", "dialog"])
                if frame.role == "frame":
                    return self._read(frame)
        return None

    def items(self, chooser: Chooser) -> list[Node]:
        """All that a combo box has to choose from."""
        return self.monitor.bus.tree(chooser.combo.address).children[0].children

    def wait(self, condition: Callable[[Dialog], bool] = lambda _: True, what: str = "the dialog") -> Dialog:
        """Waits until the dialog is shown and as wished."""
        def found() -> Dialog | None:
            dialog = self.shown()
            return dialog if dialog is not None and condition(dialog) else None
        return wait_until(while_it_changes(found), TIMEOUT, what)

    def wait_until_hidden(self) -> None:
        wait_until(while_it_changes(lambda: self.shown() is None), TIMEOUT, "the dialog to disappear")

    def _read(self, frame: Node) -> Dialog:
        (box,) = [node for node in frame.walk() if any(child.role == "toggle button" for child in node.children)]
        orientation, columns, language, theme, expander, *about = box.children
        row, title = columns.children
        fewer, number, more, apply = row.children
        colors = expander.children[0]
        choosers = self._choosers([orientation, language, theme])
        (expanded,) = self.monitor.bus.have_state([expander.address], State.EXPANDED)
        return Dialog(frame, box, *choosers, title.name, fewer, number, more, apply, expander, expanded,
                      [ColorRow(*one.children) for one in colors.children[:-1]], colors.children[-1],
                      [node.name for node in about if node.role == "label"], [node for node in about if node.role == "push button"],
                      about[-1].children)

    def _choosers(self, rows: list[Node]) -> list[Chooser]:
        numbers = self.monitor.bus.selected([row.children[1].address for row in rows])
        return [Chooser(*row.children, number) for row, number in zip(rows, numbers)]

    # --- handling ---

    def open(self) -> Dialog:
        """Presses the gear as a screen reader does."""
        self.press(gear(self.monitor))
        return self.wait()

    def press(self, button: Node) -> None:
        self.monitor.bus.act(button.address)

    def choose(self, chooser: Chooser, number: int) -> None:
        """Takes an item, counted from 0. The program has saved it when this returns."""
        self.monitor.bus.select(chooser.combo.address, number)

    def choose_orientation(self, orientation: str) -> Dialog:
        """Takes it, and waits for the window to show it and for the dialog to have been built anew."""
        before = self.wait()
        self.choose(before.orientation, ORIENTATIONS.index(orientation))
        wait_for_content(self.monitor, lambda content: is_horizontal(content) == (orientation == "horizontal"), orientation)
        return self.wait_for_new_content(before)

    def choose_language(self, name: str) -> Dialog:
        """Takes it by its own name, and waits for the dialog to speak it."""
        before = self.wait()
        self.choose(before.language, LANGUAGES.index(name))
        return self.wait_for_new_content(before)

    def wait_for_new_content(self, before: Dialog) -> Dialog:
        """Waits until the content has been replaced, and reads it whole: the look that noticed it may have begun before."""
        self.wait(lambda now: not now.content & before.content, "new content of the dialog")
        return self.wait()

    def pick_color(self, button: Node, name: str) -> None:
        """Takes the colour of this name in the chooser behind a colour button."""
        self.press(button)
        chooser = self.wait_for_color_chooser()
        self.press(named(chooser, "radio button", name))
        self.press(named(chooser, "push button", "Select"))
        self.wait_until_no_color_chooser()

    def wait_for_color_chooser(self) -> Node:
        return wait_until(while_it_changes(self.color_chooser), TIMEOUT, "the chooser of colours")

    def wait_until_no_color_chooser(self) -> None:
        wait_until(while_it_changes(lambda: self.color_chooser() is None), TIMEOUT, "the chooser of colours to disappear")

    def color_chooser(self) -> Node | None:
        """The chooser behind a colour button, None if none is open."""
        bus = self.monitor.bus
        windows = [bus.tree(window) for window in bus.children(self.monitor.root)[1:]]
        return next((window for window in windows if window.role == "dialog"), None)

    # --- what is saved ---

    @property
    def settings_file(self) -> Path:
        return config_folder(self.home.path) / "settings.json"

    def wait_for_saved(self, when: str, **changes: str) -> None:
        """Waits until exactly these changes of the tests' usual settings are saved."""
        expected, file = saved_bytes(**changes), self.settings_file
        try:
            wait_until(lambda: file.read_bytes() == expected, TIMEOUT, "")
        except AssertionError:
            raise AssertionError(f"{when}: saved is\n{file.read_text()}expected\n{expected.decode()}") from None
        assert not file.with_suffix(".json.tmp").exists()

    def wait_for_records(self, condition: Callable[[Stored], bool], what: str) -> None:
        """Waits until the file of the geometry is whole, which it is not while it is being written, and as wished."""
        def found() -> bool:
            stored = self.home.stored
            return stored is not None and condition(stored)
        wait_until(found, TIMEOUT, f"a record: {what}")

    # --- as a window ---

    def window(self) -> int:
        """The number of its X window, which has to be shown when this is asked first; it stays the same."""
        if not self._window:
            title = self.wait().title
            found = wait_until(lambda: self.monitor.display.windows(title, self.monitor.pid), TIMEOUT, f"the window {title}")
            (self._window,) = found
        return self._window

    @cached_property
    def main(self) -> int:
        """The number of the main window."""
        return self.monitor.window

    def click(self, node: Node) -> None:
        """Clicks in the middle of a control with the pointer."""
        click(self.monitor, self.window(), node)

    def click_expander(self) -> Dialog:
        """Clicks on the title of the colours, which ends long before the control does; they are shown then."""
        click(self.monitor, self.window(), self.wait().expander, TITLE_OFFSET)
        return self.wait(lambda now: now.expanded, "the colours")

    def close(self) -> None:
        """Closes it as the user does, by its frame."""
        display = self.monitor.display
        if isinstance(display, XDisplay):
            display.close(self.window())
        elif isinstance(display, SwayDisplay):
            display.command(f'[con_id="{view(display, self.wait().title)["id"]}"] kill')
        else:
            self.press(named(self.wait().frame, "push button", "Close"))
        self.wait_until_hidden()

    def picture(self, path: Path) -> numpy.ndarray:
        """A picture of it, on displays that tell where it is."""
        display = self.monitor.display
        if isinstance(display, XDisplay):
            display.window_screenshot(self.window(), path)
            return load_picture(path)
        place = view(display, self.wait().title)["rect"]
        display.screenshot(path)
        return load_picture(path)[place["y"]:place["y"] + place["height"], place["x"]:place["x"] + place["width"]]


# --- the main window beside it ---

def main_window(monitor: Monitor) -> Node:
    """All widgets of the main window, without those of the dialog."""
    return monitor.bus.tree(monitor.bus.children(monitor.root)[0])


def wait_for_content(monitor: Monitor, condition: Callable[[Content], bool], what: str) -> Content:
    """Waits until the main window shows something; its content may be replaced meanwhile."""
    def found() -> Content | None:
        content = read_content(main_window(monitor))
        return content if condition(content) else None
    return wait_until(while_it_changes(found), TIMEOUT, f"the window: {what}")


def gear(monitor: Monitor) -> Node:
    """The button that opens the dialog."""
    return wait_until(while_it_changes(lambda: gear_in(main_window(monitor))), TIMEOUT, "the gear")


def gear_in(main: Node) -> Node:
    (row,) = [node for node in main.walk() if [child.role for child in node.children] == ["push button", "label", "label"]]
    return row.children[0]


def charts_in(main: Node) -> list[Node]:
    return [node for node in main.walk() if node.role == "chart"]


def is_horizontal(content: Content) -> bool:
    """Whether the cards stand beside the panel of the total chart, not below it."""
    return content.cards[0].rect.y < content.total_chart.bottom


def columns_of(content: Content) -> int:
    """How many cards stand side by side."""
    return len({card.rect.x for card in content.cards})


def view(display: SwayDisplay, title: str) -> dict[str, Any]:
    """What sway tells of the program's window with this title."""
    def found() -> list[dict[str, Any]]:
        return [one for one in display.views(PROGRAM_NAME) if one["name"] == title]
    return wait_until(found, TIMEOUT, f"a window {title}")[0]


def click(monitor: Monitor, window: int, node: Node, offset: int | None = None, button: int = 1) -> None:
    """Clicks with the pointer in the middle of a widget, or so far from its left end, once it has found its place."""
    def settled() -> Rect | None:
        place = monitor.bus.place(node.address)
        return place if place.x >= 0 and monitor.bus.place(node.address) == place else None
    place = wait_until(settled, TIMEOUT, f"the place of {node.name}")
    monitor.display.click(place.x + (place.width // 2 if offset is None else offset), place.y + place.height // 2, button, window)


def named(root: Node, role: str, name: str) -> Node:
    """The one widget of this role and name."""
    (found,) = [node for node in root.walk() if (node.role, node.name) == (role, name)]
    return found


def while_it_changes(look: Callable[[], T]) -> Callable[[], T | None]:
    """A look at widgets that may be replaced at any moment; None when it happens while looking, which a test that fails tells."""
    last = ""

    def look_again() -> T | None:
        nonlocal last
        try:
            return look()
        except (GLib.Error, ValueError, IndexError, StopIteration) as error:  # one is gone already, or not yet there
            if last != (last := repr(error)):
                print(f"meanwhile: {last}")
            return None
    return look_again


# --- languages ---

class Texts(NamedTuple):
    """Some of what window and dialog say in a language."""
    code: str
    settings: str
    orientation: str
    vertical: str
    columns: str
    apply: str
    language: str
    theme: str
    dark: str
    colors: str
    background: str
    performance: str
    efficiency: str
    total: str
    reset: str
    developed_by: str
    core: str
    disclaimer: str

    @property
    def is_right_to_left(self) -> bool:
        return self.code in ("ar", "he", "fa", "ur")


ENGLISH = Texts("en", "Settings", "Orientation", "Vertical", "Columns", "Apply", "Language", "Theme", "Dark", "Colors", "Background",
                "Performance", "Efficiency", "Total", "Reset colors", "Developed by", "Core %d", "Disclaimer")
TEXTS = {
    "English": ENGLISH,
    "Deutsch": Texts("de", "Einstellungen", "Ausrichtung", "Vertikal", "Spalten", "Anwenden", "Sprache", "Erscheinungsbild", "Dunkel",
                     "Farben", "Hintergrund", "Leistung", "Effizienz", "Gesamt", "Farben zurücksetzen", "Entwickelt von", "Kern %d",
                     "Haftungsausschluss"),
    "日本語": Texts("ja", "設定", "向き", "垂直", "列数", "適用", "言語", "テーマ", "ダーク", "色", "背景", "パフォーマンス", "効率", "全体",
                 "色をリセット", "開発者", "コア %d", "免責事項"),
    "العربية": Texts("ar", "الإعدادات", "الاتجاه", "عمودي", "الأعمدة", "طبّق", "اللغة", "السمة", "داكنة", "الألوان", "الخلفية", "الأداء",
                     "الكفاءة", "الإجمالي", "أعد تعيين الألوان", "من تطوير", "النواة %d", "إخلاء المسؤولية"),
    "עברית": Texts("he", "הגדרות", "כיוון", "אנכי", "עמודות", "החלה", "שפה", "ערכת נושא", "כהה", "צבעים", "רקע", "ביצועים", "יעילות",
                   "סך הכול", "איפוס הצבעים", "פותח על ידי", "ליבה %d", "כתב ויתור"),
    "فارسی": Texts("fa", "تنظیمات", "جهت", "عمودی", "ستون\u200cها", "اعمال", "زبان", "تم", "تیره", "رنگ\u200cها", "پس\u200cزمینه",
                   "کارایی", "کم\u200cمصرف", "کل", "بازنشانی رنگ\u200cها", "توسعه\u200cدهنده", "هستهٔ %d", "سلب مسئولیت"),
    "اردو": Texts("ur", "ترتیبات", "سمت بندی", "عمودی", "کالم", "لاگو کریں", "زبان", "تھیم", "گہری", "رنگ", "پس منظر", "کارکردگی",
                  "بجلی کی بچت", "کُل", "رنگ بحال کریں", "تیار کردہ", "کور %d", "اعلانِ دستبرداری"),
}


def assert_dialog_speaks(settings: SettingsDialog, texts: Texts) -> None:
    """All in it is in this language, also what only a screen reader is told."""
    dialog = settings.wait()
    rows = dialog.orientation, dialog.language, dialog.theme
    names = [texts.orientation, texts.language, texts.theme]
    assert [row.label.name for row in rows] == [row.combo.name for row in rows] == names
    assert (dialog.title, dialog.columns_title, dialog.apply.name) == (texts.settings, texts.columns, texts.apply)
    orientations, languages, themes = ([item.name for item in settings.items(row)] for row in rows)
    assert (orientations[0], themes[-1]) == (texts.vertical, texts.dark)
    assert languages[1:] == LANGUAGES[1:]  # in their own words
    colors = [row.label.name for row in dialog.colors]
    assert [row.button.name for row in dialog.colors] == colors
    assert (colors[0], colors[4:]) == (texts.background, [texts.total, texts.performance, texts.efficiency])
    assert (dialog.expander.name, dialog.reset.name) == (texts.colors, texts.reset)
    assert dialog.about[:2] == [TITLE, "v1.15"] and dialog.about[2] == texts.developed_by
    assert dialog.disclaimer[0].name == texts.disclaimer


def assert_window_speaks(monitor: Monitor, texts: Texts) -> None:
    """So does the main window of a program with two sections of two CPUs, wide enough for whole titles."""
    main = main_window(monitor)
    content = read_content(main)
    cores = [texts.core % number for number in range(1, 5)]
    assert [section.title for section in content.sections] == [f"{texts.performance} (2)", f"{texts.efficiency} (2)"]
    assert [card.name for card in content.cards] == cores
    assert sorted(chart.name for chart in charts_in(main)) == sorted([texts.total, *cores])
    assert gear_in(main).name == texts.settings


def dialog_edges(dialog: Dialog, right_to_left: bool) -> list[int]:
    """How far controls stand from where a line begins or ends, whichever they stand at."""
    rows = dialog.orientation, dialog.language, dialog.theme
    first, last = [*(row.label for row in rows), dialog.fewer], [*(row.combo for row in rows), dialog.apply]
    return ([_distance(dialog.box.rect, node.rect, right_to_left) for node in first]
            + [_distance(dialog.box.rect, node.rect, not right_to_left) for node in last])


def window_edges(content: Content, right_to_left: bool) -> list[int]:
    """The same of the main window."""
    parts = [_distance(card.rect, card.name_rect, right_to_left) for card in content.cards]
    parts += [_distance(card.rect, card.percentage_rect, not right_to_left) for card in content.cards]
    return [_distance(content.total_panel, content.gear, right_to_left), *parts]


def _distance(whole: Rect, part: Rect, from_right: bool) -> int:
    return whole.right - part.right if from_right else part.x - whole.x
