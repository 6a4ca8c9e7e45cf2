"""Homes in which nothing can be kept, or only by detours: the program starts, says nothing, and changes take effect all the same."""

from __future__ import annotations

import os
import shlex
import shutil
from collections.abc import Callable, Sequence
from dataclasses import dataclass, field
from pathlib import Path

from displays import XDisplay, wait_until
from fakemachine import preset
from geometry_records import Home, Record, Stored, terminated
from monitor import (TIMEOUT, Monitor, Start, as_root_without_rights, config_folder, is_root, settings_text, wait_for_main_loop,
                     write_settings)
from settings_dialog import THEMES, SettingsDialog, saved_bytes

OLD, NEW = settings_text().encode(), saved_bytes(theme="dark")
RECORD = Stored(Record(123, 77, 431, 567, 3), Record(40, 300, 900, 310, 5)).line.encode()
IDLE = {"light": (25, 153, 51), "dark": (76, 216, 102)}  # the colour of 0% in either theme


@dataclass
class Scene:
    """How a home is prepared, how the program is started in it, and what has come of a change of the theme."""
    prepare: Callable[[Path], object] = lambda home: write_settings(home, OLD)
    check: Callable[[Path], None] = lambda home: None
    env: Callable[[Path], dict[str, str | None]] = lambda home: {"HOME": str(home)}
    script: str = ""  # run before the program, in a mount namespace of its own; $1 is the home
    cwd: bool = False  # the program is started in the home


def in_own_mounts(script: str, home: Path) -> list[str]:
    """A command that runs the script, which may mount what it likes, and then the program, which has no rights left to pass over modes."""
    as_user = [] if is_root() else ["--user", "--map-current-user", "--keep-caps"]
    rest = shlex.join(as_root_without_rights())
    return ["unshare", "--mount", *as_user, "sh", "-ec", f'{script}\nshift\nexec {rest} "$@"', "sh", str(home)]


READ_ONLY_ROOT = 'mount --bind "$1" "$1"; mount -o remount,bind,ro /; cd "$1"'


def settings_file(home: Path) -> Path:
    return config_folder(home) / "settings.json"


def geometry_file(home: Path) -> Path:
    return config_folder(home) / "geometry.json"


def has_new_settings(home: Path) -> None:
    assert settings_file(home).read_bytes() == NEW
    assert not settings_file(home).with_suffix(".json.tmp").exists()


def has_old_settings(home: Path) -> None:
    assert settings_file(home).read_bytes() == OLD
    assert sorted(path.name for path in config_folder(home).iterdir()) == ["settings.json"]


def has_nothing(home: Path) -> None:
    assert list(home.iterdir()) == []


# --- homes ---

def link_as_home(home: Path) -> None:
    target = home.with_name("target of the home")
    target.mkdir()
    write_settings(target, OLD)
    home.rmdir()
    home.symlink_to(target.name)


def link_as_folder(home: Path) -> None:
    target = home / "elsewhere"
    target.mkdir()
    (target / "settings.json").write_bytes(OLD)
    config_folder(home).parent.mkdir()
    config_folder(home).symlink_to(target)


def is_behind_link(link: Callable[[Path], Path]) -> Callable[[Path], None]:
    def check(home: Path) -> None:
        assert link(home).is_symlink()
        has_new_settings(home)
        assert Home(home).stored and not geometry_file(home).is_symlink()
    return check


def file_as_folder(home: Path) -> None:
    config_folder(home).parent.mkdir()
    config_folder(home).write_text("mine")


def is_still_a_file(home: Path) -> None:
    assert config_folder(home).read_text() == "mine"
    assert [path.name for path in config_folder(home).parent.iterdir()] == ["Vantric"]


def read_only_folder(home: Path) -> None:
    write_settings(home, OLD)
    config_folder(home).chmod(0o555)


# --- files ---

def folder_as_settings(home: Path) -> None:
    settings_file(home).mkdir(parents=True)


def is_still_a_folder(home: Path) -> None:
    assert list(settings_file(home).iterdir()) == []
    assert not settings_file(home).with_suffix(".json.tmp").exists()


def closed_settings(home: Path) -> None:
    write_settings(home, OLD).chmod(0)


def link_to_nothing(home: Path) -> None:
    settings_file(home).parent.mkdir(parents=True)
    settings_file(home).symlink_to(home / "nothing")


def is_replaced(home: Path) -> None:
    """A save puts a whole new file there, whatever was there before; only what differs from the defaults of the program was lost."""
    assert not settings_file(home).is_symlink() and settings_file(home).read_bytes() == saved_bytes(
        theme="dark", language="auto", group0="#CC3326")
    assert not (home / "nothing").exists()


def temporary_file_is_a_folder(home: Path) -> None:
    write_settings(home, OLD)
    settings_file(home).with_suffix(".json.tmp").mkdir()


def keeps_old_beside_folder(home: Path) -> None:
    assert settings_file(home).read_bytes() == OLD and settings_file(home).with_suffix(".json.tmp").is_dir()


SCENES: dict[str, Scene] = {
    "link as home": Scene(link_as_home, is_behind_link(lambda home: home)),
    "link as folder": Scene(link_as_folder, is_behind_link(config_folder)),
    "read-only folder": Scene(read_only_folder, has_old_settings),
    "read-only file system": Scene(check=has_old_settings, script='mount --bind "$1" "$1"; mount -o remount,bind,ro "$1"'),
    "file as folder": Scene(file_as_folder, is_still_a_file),
    "home that does not exist": Scene(lambda home: None, has_nothing, lambda home: {"HOME": "/nowhere/at/all"}, READ_ONLY_ROOT),
    "empty HOME": Scene(lambda home: None, has_nothing, lambda home: {"HOME": ""}, READ_ONLY_ROOT),
    "no HOME": Scene(check=has_new_settings, env=lambda home: {"HOME": None}, cwd=True),
    "folder as settings": Scene(folder_as_settings, is_still_a_folder),
    "closed settings": Scene(closed_settings, is_replaced),
    "link to nothing as settings": Scene(link_to_nothing, is_replaced),
    "folder as temporary file": Scene(temporary_file_is_a_folder, keeps_old_beside_folder),
}


@dataclass
class Running:
    """A program in its scene."""
    scene: Scene
    home: Path
    dialog: SettingsDialog = field(init=False)

    def start(self, start: Start, display: XDisplay) -> None:
        self.home.mkdir()
        self.scene.prepare(self.home)
        wrap: Sequence[str] = in_own_mounts(self.scene.script, self.home) if self.scene.script else as_root_without_rights()
        monitor = start(display, IDLE_MACHINE, settings=None, env=self.scene.env(self.home), wrap=wrap,
                        cwd=self.home if self.scene.cwd else None)
        self.dialog = SettingsDialog(monitor, Home(self.home))

    @property
    def monitor(self) -> Monitor:
        return self.dialog.monitor


IDLE_MACHINE = {**preset("vm-2"), "load": {"kind": "frozen"}}


def wait_for_theme(monitor: Monitor, theme: str, when: str) -> None:
    label = monitor.content().cards[0].percentage_label
    wait_until(lambda: monitor.bus.text_color(label) == IDLE[theme], TIMEOUT, f"a {theme} window, {when}")


def choose_dark(dialog: SettingsDialog) -> None:
    dialog.choose(dialog.open().theme, THEMES.index("dark"))


def test_unusual_homes(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    running = {name: Running(scene, tmp_path / name) for name, scene in SCENES.items()}
    for one in running.values():
        one.start(start, x11)
    for name, one in running.items():
        wait_for_theme(one.monitor, "light", name)
        choose_dark(one.dialog)
    for name, one in running.items():
        wait_for_theme(one.monitor, "dark", name)
        wait_for_main_loop(one.monitor)
        terminated(one.monitor)
    for one in running.values():
        one.monitor.assert_clean_end()
        one.scene.check(one.home)


# --- a full disk ---

def fill(folder: Path) -> Path:
    """Takes all room that is left, to the last byte."""
    filler = folder / "filler"
    with open(filler, "wb", buffering=0) as file:
        for size in (4096, 1):
            try:
                while True:
                    file.write(bytes(size))
            except OSError:
                continue
    return filler


def test_full_disk(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    home = tmp_path / "home"
    (home / ".config").mkdir(parents=True)
    script = f"""
        mount -t tmpfs -o size=64k none "$1/.config"
        mkdir "$1/.config/Vantric"
        printf %s {shlex.quote(OLD.decode())} >"$1/.config/Vantric/settings.json"
        printf %s {shlex.quote(RECORD.decode())} >"$1/.config/Vantric/geometry.json"
    """
    monitor = start(x11, IDLE_MACHINE, settings=None, env={"HOME": str(home)}, wrap=in_own_mounts(script, home))
    dialog = SettingsDialog(monitor, Home(home))
    wait_for_theme(monitor, "light", "with room")
    folder = Path(f"/proc/{monitor.pid}/root{home}/.config/Vantric")
    dialog.open()
    filler = fill(folder)
    assert shutil.disk_usage(folder).free == 0
    dialog.choose(dialog.wait().theme, THEMES.index("dark"))
    wait_for_theme(monitor, "dark", "on a full disk")
    assert (folder / "settings.json").read_bytes() == OLD
    assert (folder / "settings.json.tmp").read_bytes() == b""  # its save was tried, and is reused
    os.unlink(filler)
    dialog.choose(dialog.wait().theme, THEMES.index("auto"))
    wait_until(lambda: (folder / "settings.json").read_bytes() == saved_bytes(theme="auto"), TIMEOUT, "a save with room again")
    assert not (folder / "settings.json.tmp").exists()
    # The geometry is overwritten in place: what a full disk leaves of it may be short, and the next save is whole again
    window = dialog.main
    x11.move(window, 200, 100)
    wait_until(lambda: b'"x":200,"y":100,' in (folder / "geometry.json").read_bytes(), TIMEOUT, "the record of a move")
    terminated(monitor)
    monitor.assert_clean_end()
