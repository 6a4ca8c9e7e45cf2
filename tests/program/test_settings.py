"""What the program takes from its settings file and from the user's language, and what it leaves alone."""

from __future__ import annotations

import os
import re
import signal
from collections.abc import Callable
from contextlib import ExitStack
from pathlib import Path

import pytest

from displays import Display, SwayDisplay, XDisplay, wait_until
from fakemachine import preset
from monitor import TIMEOUT, Content, Monitor, Start, as_root_without_rights, config_folder, settings_text, write_settings
from settings_dialog import is_horizontal

SIDE_PANEL_WIDTH = 230
TWO_GROUPS = {**preset("frequency-hybrid-12"), "model": "Chip", "load": {"kind": "steady", "percent": 50}}


def core_names(content: Content) -> list[str]:
    return [card.name for card in content.cards]


# --- languages ---

LANGUAGES = {
    "de": ("Kern %d", ["Leistung (8)", "Effizienz (4)"]),
    "ar": ("النواة %d", None),
    "he": ("ליבה %d", None),
    "ja": ("コア %d", None),
    "zh_TW": ("核心 %d", None),
}


def test_language_of_the_settings(x11: XDisplay, start: Start) -> None:
    # The user's own language has no say then.
    running = {code: start(x11, TWO_GROUPS, {"language": code}, env={"LANGUAGE": "fr"}) for code in LANGUAGES}
    for code, (pattern, titles) in LANGUAGES.items():
        content = running[code].content()
        assert core_names(content) == [pattern % n for n in range(1, 13)], code
        assert titles in (None, [section.title for section in content.sections])


SYSTEM_LANGUAGES: list[tuple[dict[str, str], str]] = [
    ({"LANGUAGE": "de_AT"}, "Kern 1"),
    ({"LANGUAGE": "xx:nn_NO:fr"}, "Cœur 1"),
    ({"LANGUAGE": "zh_HK"}, "核心 1"),
    ({"LC_ALL": "ru_RU.UTF-8"}, "Ядро 1"),
    ({"LC_MESSAGES": "de_DE.UTF-8@euro"}, "Kern 1"),
    ({"LANG": "ja_JP.eucJP", "LC_MESSAGES": "he_IL"}, "ליבה 1"),
    ({"LANG": "C"}, "Core 1"),
    ({"LANGUAGE": "xx_XX:nn"}, "Core 1"),
]
NO_SUCH_LOCALE = re.compile(
    r"\n\(.*\): Gtk-WARNING .*: Locale not supported by C library\.\n\tUsing the fallback 'C' locale\.\n")


def test_language_of_the_user(x11: XDisplay, start: Start) -> None:
    running = [(start(x11, preset("vm-2"), {"language": "auto"}, env=env), name) for env, name in SYSTEM_LANGUAGES]
    assert [monitor.content().cards[0].name for monitor, _ in running] == [name for _, name in running]
    for monitor, _ in running:
        monitor.send(signal.SIGTERM)
    for monitor, _ in running:  # GTK complains where the machine has not installed that locale
        assert (monitor.wait(), NO_SUCH_LOCALE.sub("", monitor.complaints())) == (0, "")


# --- orientation and direction ---

def test_horizontal_orientation(x11: XDisplay, start: Start) -> None:
    content = start(x11, TWO_GROUPS, {"orientation": "horizontal"}).content()
    panel = content.total_panel
    assert (panel.x, panel.width) == (0, SIDE_PANEL_WIDTH)
    assert panel.x <= content.cpu_name_rect.x < panel.right  # the panel holds the name, too
    first, second = content.sections
    assert first.rect.y == second.rect.y and first.rect.right <= second.rect.x
    assert {card.rect.y for card in content.cards} == {content.cards[0].rect.y}
    assert min(card.rect.x for card in content.cards) >= panel.right
    assert core_names(content) == [f"Core {n}" for n in range(1, 13)] or core_names(content) == [
        str(n) for n in range(1, 13)]


def test_vertical_orientation(x11: XDisplay, start: Start) -> None:
    content = start(x11, TWO_GROUPS, {"orientation": "vertical"}).content()
    assert content.cpu_name_rect.bottom <= content.total_panel.y
    assert content.total_panel.bottom <= content.sections[0].rect.y
    assert len({(card.rect.x, card.rect.width) for card in content.cards}) == 1  # one column
    tops = [card.rect.y for card in content.cards]
    assert tops == sorted(tops)


def distances_to_start(content: Content, left_to_right: bool) -> list[int]:
    """How far gear, colour bars, titles and names stand from where a line begins."""
    pairs = [(content.gear, content.total_panel)]
    pairs += [(part, section.rect) for section in content.sections for part in (section.bar, section.title_rect)]
    pairs += [(card.name_rect, card.rect) for card in content.cards]
    return [part.x - whole.x if left_to_right else whole.right - part.right for part, whole in pairs]


@pytest.mark.parametrize("kind, orientation", [
    (XDisplay, "vertical"), (XDisplay, "horizontal"), (SwayDisplay, "horizontal")])
def test_right_to_left_mirrors_the_window(
        kind: Callable[[], Display], orientation: str, displays: ExitStack, start: Start) -> None:
    display = displays.enter_context(kind())
    english, arabic = (start(display, TWO_GROUPS, {"language": language, "orientation": orientation})
                       for language in ("en", "ar"))

    def is_mirrored() -> bool:
        return distances_to_start(arabic.content(), left_to_right=False) == distances_to_start(english.content(), left_to_right=True)
    wait_until(is_mirrored, TIMEOUT, "a mirrored window")  # a look may fall between a new text and its place
    plain, mirrored = english.content(), arabic.content()
    assert all(card.name_rect.right <= card.percentage_rect.x for card in plain.cards)
    assert all(card.percentage_rect.right <= card.name_rect.x for card in mirrored.cards)
    if orientation == "horizontal":
        assert all(card.rect.x >= plain.total_panel.right for card in plain.cards)
        assert all(card.rect.right <= mirrored.total_panel.x for card in mirrored.cards)
        lefts = [card.rect.x for card in mirrored.cards]
        assert lefts == sorted(lefts, reverse=True)
    for monitor in (english, arabic):  # number and sign stay in this order
        monitor.wait_for_percentages(monitor.content().cards, ["50%"] * 12, "steady load")


# --- damaged files ---

CUT_SHORT = '{\n  "language": "de",\n  "orientation": "horizontal",\n  "total": "#00A6'

# Contents, and the first section's title and the orientation that come of them
DAMAGED: dict[str, tuple[bytes, str, bool]] = {
    "empty": (b"", "Performance (8)", False),
    "of zeros": (bytes(5000), "Performance (8)", False),
    "of random bytes": (bytes(range(256)) * 40, "Performance (8)", False),
    "large": (b'{"orientation": "horizontal", "x": "' + b"y" * 2_000_000, "Performance (8)", True),
    "cut short": (CUT_SHORT.encode(), "Leistung (8)", True),
    "of other types": (b'{"language": 7, "orientation": null, "theme": [], "total": {}}', "Performance (8)", False),
    "of refused values": (b'{"language": "xx", "orientation": "diagonal", "group0": "red"}', "Performance (8)", False),
    "of one line in another order": (b'{"z":1,"orientation" : "horizontal","language":"de"}', "Leistung (8)", True),
    "no JSON": ('"language" is: "de"\x00\xff'.encode("latin-1"), "Leistung (8)", False),
}


def test_damaged_files_are_left_alone(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    running: dict[str, tuple[Monitor, Path, os.stat_result]] = {}
    for name, (content, _, _) in DAMAGED.items():
        home = tmp_path / name
        file = write_settings(home, content)
        running[name] = start(x11, TWO_GROUPS, env={"HOME": str(home)}), file, file.stat()
    for name, (monitor, _, _) in running.items():
        content = monitor.content()
        assert (content.sections[0].title, is_horizontal(content)) == DAMAGED[name][1:], name
        monitor.send(signal.SIGTERM)
    for name, (monitor, file, before) in running.items():
        monitor.assert_clean_end()
        after = file.stat()
        assert file.read_bytes() == DAMAGED[name][0]
        assert (after.st_mtime_ns, after.st_ino, after.st_mode) == (before.st_mtime_ns, before.st_ino, before.st_mode)
        assert not file.with_suffix(".json.tmp").exists()


def test_settings_that_cannot_be_read(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    unreadable = write_settings(tmp_path / "unreadable", settings_text(orientation="horizontal"))
    unreadable.chmod(0)
    directory = config_folder(tmp_path / "directory") / "settings.json"
    directory.mkdir(parents=True)
    loop = write_settings(tmp_path / "loop", "")
    loop.unlink()
    loop.symlink_to(loop.name)
    homes = [tmp_path / name for name in ("unreadable", "directory", "loop")]
    running = [start(x11, preset("vm-2"), env={"HOME": str(home)}, wrap=as_root_without_rights()) for home in homes]
    assert not any(is_horizontal(monitor.content()) for monitor in running)
    assert directory.is_dir() and loop.is_symlink()


# --- the place of the files ---

def test_folder_is_made_at_start_and_no_settings_file(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    deep, snap = tmp_path / "not/there/yet", tmp_path / "snap/common"
    monitors = [start(x11, settings=None, env={"HOME": str(deep)}, accessible=False),
                start(x11, settings=None, env={"SNAP_USER_COMMON": str(snap)}, accessible=False)]
    for monitor in monitors:
        assert monitor.window
    for folder in (config_folder(deep), snap / "config"):
        assert folder.is_dir()
        assert not (folder / "settings.json").exists()
    assert not (monitors[1].home / ".config").exists()


def test_settings_without_a_home(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    write_settings(tmp_path / "here", settings_text(orientation="horizontal"))
    monitor = start(x11, preset("vm-2"), env={"HOME": None}, cwd=tmp_path / "here")
    assert is_horizontal(monitor.content())


def test_settings_of_a_snap(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    file = tmp_path / "snap/config/settings.json"
    file.parent.mkdir(parents=True)
    file.write_text(settings_text(orientation="horizontal"))
    monitor = start(x11, preset("vm-2"), env={"SNAP_USER_COMMON": str(tmp_path / "snap")})
    assert is_horizontal(monitor.content())


def test_read_only_home(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    home = tmp_path / "read-only"
    home.mkdir(mode=0o555)
    monitor = start(x11, env={"HOME": str(home)}, wrap=as_root_without_rights(), accessible=False)
    assert monitor.window
    monitor.send(signal.SIGTERM)
    monitor.assert_clean_end()
    assert list(home.iterdir()) == []
