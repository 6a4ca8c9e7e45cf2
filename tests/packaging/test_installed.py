"""The installed program as a desktop meets it: its entry and icon are found, its windows belong to the entry, and inside Snap its files
stand where Snap keeps them."""

from __future__ import annotations

import configparser
import os
import re
import signal
import subprocess
import sys
import xml.etree.ElementTree as ET
from dataclasses import dataclass
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests/display"))

from display_process import Process  # noqa: E402
from displays import TIMEOUT, SwayDisplay, XDisplay, wait_until  # noqa: E402

SEARCHED_WORDS = ["cpu", "load", "temperature", "monitor"]
XML_LANGUAGE = "{http://www.w3.org/XML/1998/namespace}lang"

SEARCH = """
import sys
from gi.repository import Gio
for word in sys.argv[1:]:
    assert "vantric.desktop" in sum(Gio.DesktopAppInfo.search(word), []), word
"""
FIND_ICONS = """
import gi, sys
gi.require_version("Gtk", "3.0")
from gi.repository import Gtk
theme = Gtk.IconTheme()
theme.set_search_path([sys.argv[1], "/usr/share/icons"])
for name in sys.argv[2:]:
    for size in 16, 32, 48, 128, 256:
        print(theme.lookup_icon(name, size, 0).get_filename())
"""


@dataclass
class Installed:
    """What `cmake --install` has put into an empty folder."""
    share: Path
    bin: Path

    def __post_init__(self) -> None:
        parser = configparser.ConfigParser(interpolation=None, delimiters=("=",))
        parser.optionxform = str  # type: ignore[method-assign,assignment]
        parser.read(self.share / "applications/vantric.desktop", encoding="utf-8")
        self.entry = parser["Desktop Entry"]

    @property
    def env(self) -> dict[str, str]:
        """Variables under which the program is started as its entry says."""
        return {"PATH": f"{self.bin}:{os.environ['PATH']}"}


@pytest.fixture(scope="module")
def installed(tmp_path_factory: pytest.TempPathFactory) -> Installed:
    program = Path(os.environ.get("VANTRIC", ROOT / "build/test/vantric")).absolute()
    root = tmp_path_factory.mktemp("root")
    subprocess.run(["cmake", "--install", program.parent, "--prefix", "/usr"], env={**os.environ, "DESTDIR": str(root)}, check=True,
                   stdout=subprocess.DEVNULL)
    return Installed(root / "usr/share", root / "usr/bin")


def language_codes() -> set[str]:
    codes = set(re.findall(r"\bVALUES_(\w+)\[\]", (ROOT / "src/i18n_data.h").read_text()))
    assert len(codes) == 44
    return codes


def translations(entry: configparser.SectionProxy, key: str) -> dict[str, str]:
    return {name[len(key) + 1:-1]: text for name, text in entry.items() if name.startswith(f"{key}[")}


# --- the entry ---

@pytest.mark.parametrize("key", ["GenericName", "Comment", "Keywords"])
def test_entry_speaks_every_language(installed: Installed, key: str) -> None:
    texts = translations(installed.entry, key)
    assert set(texts) == language_codes()
    assert texts["en"] == installed.entry[key]
    assert [code for code, text in texts.items() if text == texts["en"]] == ["en"]


def test_entry_has_the_same_name_everywhere(installed: Installed) -> None:
    assert installed.entry["Name"] == "Vantric"
    assert translations(installed.entry, "Name") == {}


def test_metainfo_says_what_the_entry_says(installed: Installed) -> None:
    metainfo = ET.parse(installed.share / "metainfo/example.vantric.vantric.metainfo.xml")
    summaries = {summary.get(XML_LANGUAGE, "en"): summary.text for summary in metainfo.findall("summary")}
    assert summaries == translations(installed.entry, "Comment")
    categories = [category.text for category in metainfo.findall("categories/category")]
    assert set(categories) < set(installed.entry["Categories"].split(";"))


def test_every_language_finds_it_by_the_english_words(installed: Installed) -> None:
    for code, words in translations(installed.entry, "Keywords").items():
        assert set(SEARCHED_WORDS) < set(words.split(";")), code
        assert words.endswith(";"), code


@pytest.mark.parametrize("language, words", [("en", []), ("de", ["prozessor", "überwachung"]), ("zh_TW", ["處理器"])])
def test_desktop_search_finds_it(installed: Installed, language: str, words: list[str]) -> None:
    env = {**os.environ, "XDG_DATA_DIRS": str(installed.share), "LANGUAGE": language, "LC_ALL": "C.UTF-8", **installed.env}
    subprocess.run(["/usr/bin/python3", "-c", SEARCH, *SEARCHED_WORDS, "vantric", *words], env=env, check=True)


def test_icon_theme_has_its_icons(installed: Installed) -> None:
    icons = installed.share / "icons"
    done = subprocess.run(["/usr/bin/python3", "-W", "ignore", "-c", FIND_ICONS, icons, installed.entry["Icon"],
                           installed.entry["Icon"] + "-symbolic"], stdout=subprocess.PIPE, text=True, check=True)
    assert done.stdout.split() == ([f"{icons}/hicolor/scalable/apps/vantric.svg"] * 5
                                   + [f"{icons}/hicolor/symbolic/apps/vantric-symbolic.svg"] * 5)


# --- whose window it is ---

def test_class_on_x11_is_that_of_the_entry(installed: Installed) -> None:
    with XDisplay() as display:
        program = display.spawn([installed.entry["Exec"]], installed.env)
        window = display.find_window("Vantric", timeout=TIMEOUT)
        assert display.properties(window, "WM_CLASS")["WM_CLASS"][0] == installed.entry["StartupWMClass"]
        assert program.end(TIMEOUT) == 0, program.stderr()


def test_app_id_on_wayland_is_that_of_the_entry(installed: Installed) -> None:
    assert (installed.share / f"applications/{installed.entry['StartupWMClass']}.desktop").exists()
    with SwayDisplay() as display:
        program = display.spawn([installed.entry["Exec"]], installed.env)
        assert display.view(installed.entry["StartupWMClass"], TIMEOUT)["name"] == "Vantric"
        assert program.end(TIMEOUT) == 0, program.stderr()


# --- inside Snap ---

class WindowOf:
    """As text: what each thread of a program does whose window does not come."""

    def __init__(self, program: Process) -> None:
        self._program = program

    def __str__(self) -> str:
        lines = [f"a window of the program with status {self._program.returncode} {self._program.last_words()}"]
        for task in Path(f"/proc/{self._program.pid}/task").iterdir() if self._program.running() else ():
            lines.append(" ".join((task / name).read_text().strip() for name in ("comm", "wchan", "syscall")))
        return "\n".join(lines)


def snap_environment(home: Path, runtime: Path) -> dict[str, str]:
    """What a strictly confined program finds in its environment."""
    user_data = home / "snap/vantric/7"
    env = {"SNAP": "/snap/vantric/7", "SNAP_NAME": "vantric", "SNAP_INSTANCE_NAME": "vantric", "SNAP_REVISION": "7",
           "SNAP_VERSION": "3.7", "SNAP_DATA": "/var/snap/vantric/7", "SNAP_COMMON": "/var/snap/vantric/common",
           "SNAP_USER_DATA": str(user_data), "SNAP_USER_COMMON": str(home / "snap/vantric/common"), "SNAP_REAL_HOME": str(home),
           "HOME": str(user_data), "XDG_CONFIG_HOME": str(user_data / ".config"), "XDG_RUNTIME_DIR": str(runtime / "snap.vantric")}
    for name in ("SNAP_USER_DATA", "SNAP_USER_COMMON", "XDG_RUNTIME_DIR"):
        Path(env[name]).mkdir(parents=True, mode=0o700)
    return env


def own_files(folder: Path) -> set[str]:
    """The program's own among all that its libraries leave as well."""
    return {str(file.relative_to(folder)) for file in folder.rglob("*") if re.search(r"Vantric|\.json", file.name)}


@pytest.mark.parametrize("number, left", [
    (signal.SIGTERM, {"home/snap/vantric/common/config/geometry.json"}),
    (signal.SIGABRT, {"run/snap.vantric/Vantric_crash.txt"}),
], ids=["end", "crash"])
def test_snap_keeps_the_files(installed: Installed, tmp_path: Path, number: signal.Signals, left: set[str]) -> None:
    env = snap_environment(tmp_path / "home", tmp_path / "run")
    with XDisplay() as display:
        # a core file would be one more that is left
        program = display.spawn([installed.entry["Exec"]], {**installed.env, **env}, wrap=["prlimit", "--core=0"])
        wait_until(lambda: display.windows("Vantric") or not program.running(), TIMEOUT, WindowOf(program))
        program.send_signal(number)
        assert program.wait(TIMEOUT) == (0 if number == signal.SIGTERM else -number)
        assert left <= own_files(tmp_path)
        assert own_files(tmp_path) - left <= {"home/snap/vantric/common/config/geometry.json"}
        if number == signal.SIGABRT:
            assert "\nSnap: yes (v3.7)\n" in Path(env["XDG_RUNTIME_DIR"], "Vantric_crash.txt").read_text()
