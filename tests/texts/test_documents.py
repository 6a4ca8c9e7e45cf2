"""README, CONTRIBUTING, the manual page and the metainfo say what is so, as far as the sources tell."""

from __future__ import annotations

import json
import re
from functools import cache
from pathlib import Path

import pytest

from source_texts import SOURCES, fixed_texts, keys, native_names

ROOT = SOURCES.parent
PAGES = ["README.md", "CONTRIBUTING.md", "docs/architecture.md", "docs/frames.md", "docs/performance.md", "docs/reliability.md"]

VARIABLE = re.compile(r"(XDG|SNAP|LC|VANTRIC|WAYLAND|GDK)_[A-Z_]+|HOME|LANG|LANGUAGE|DISPLAY|XAUTHORITY")
VARIABLES_OF_LIBRARIES = {"LC_MESSAGES", "GDK_BACKEND", "GDK_SCALE"}  # which read them for the program


@cache
def readme() -> str:
    return (ROOT / "README.md").read_text()


@cache
def section(title: str) -> str:
    """What stands under a title of the README."""
    found = re.search(rf"^## {re.escape(title)}.*?\n(.*?)(?=^## |\Z)", readme(), re.DOTALL | re.MULTILINE)
    assert found, title
    return found[1]


@cache
def manual() -> str:
    """The manual page without its markup."""
    (file,) = [file for file in (ROOT / "data").glob("vantric.1*")]
    text = file.read_text().replace("\\-", "-").replace("\\(lq", '"').replace("\\(rq", '"').replace("\\ ", " ").replace("\\(de", "°")
    return re.sub(r"^\.(?!S[HS] )[A-Z]+ ?", "", text, flags=re.MULTILINE)


def manual_section(title: str) -> str:
    found = re.search(rf"^\.SH {title}\n(.*?)(?=^\.SH |\Z)", manual(), re.DOTALL | re.MULTILINE)
    assert found, title
    return found[1]


def source(name: str) -> str:
    return (SOURCES / name).read_text()


def constant(file: str, name: str) -> str:
    found = re.search(rf"constexpr [\w: ]+ {name}(?: = |\{{)([^;}}]+)", source(file))
    assert found, name
    return found[1]


# --- what is named is there ---

@pytest.mark.parametrize("page", PAGES)
def test_links_lead_somewhere(page: str) -> None:
    links = re.findall(r"\]\(([^)#:]+)\)", (ROOT / page).read_text())
    assert [link for link in links if not (ROOT / page).parent.joinpath(link).exists()] == []
    assert links or page != "README.md"


def test_targets_of_make_exist() -> None:
    targets = set(re.findall(r"^([a-z-]+):.*## ", (ROOT / "Makefile").read_text(), re.MULTILINE))
    named = set()
    for page in PAGES:
        text = (ROOT / page).read_text()
        named |= set(re.findall(r"(?:^    (?:sudo )?|`(?:sudo )?)make ([a-z-]+)", text, re.MULTILINE))
    assert {"run", "test", "deb", "install", "uninstall"} <= named
    assert named - targets == set()


def test_presets_of_cmake_exist() -> None:
    presets = {preset["name"] for preset in json.loads((ROOT / "CMakePresets.json").read_text())["configurePresets"]}
    text = (ROOT / "CONTRIBUTING.md").read_text()
    sentence = re.search(r"Presets: (.*?)\. ", text, re.DOTALL)
    assert sentence
    named = set(re.findall(r"`(\w+)`", sentence[1])) | set(re.findall(r"--preset (\w+)", text))
    assert named <= presets and len(named) >= 7


def test_tools_and_files_that_are_named_exist() -> None:
    for page in PAGES[:2]:
        text = (ROOT / page).read_text()
        for path in re.findall(r"`((?:tools|tests|src|docs|data|bench|fuzz|packaging)/[\w./-]*)`", text):
            assert (ROOT / path).exists(), f"{path}, in {page}"


# --- what the program reads and keeps ---

def kernel_paths() -> set[str]:
    """The kernel files and folders of the sources, and what is read below each CPU."""
    absolute = {text for text in fixed_texts() if re.match(r"/(proc|sys)/", text)}
    below_cpus = {text for text in fixed_texts() if re.fullmatch(r"(cpufreq|thermal_throttle)/\w+", text)}
    absolute.remove("/sys/bus/cpu/devices/cpu")  # a number follows
    assert "/cpu_type" in fixed_texts()
    return absolute | below_cpus | {"/sys/bus/cpu/devices", "cpu_type"}


def sensor_names() -> set[str]:
    """Zone types and chip names that count as the CPU's."""
    code = source("temperature_sensor.cpp")
    functions = re.search(r"bool is_cpu_zone_type.*?^}.*?^}", code, re.DOTALL | re.MULTILINE)
    assert functions
    names = set(re.findall(r'"([\w-]+)"', functions[0]))
    assert {"x86_pkg_temp", "acpitz", "cpu"} <= names
    return {name for name in names if name != "cpu-thermal"}  # which "contains cpu" says already


def test_readme_tells_what_is_read() -> None:
    table = section("What the window shows")
    told = set(re.findall(r"`([\w/:.-]+)`", table))
    wanted = kernel_paths() | sensor_names()
    assert wanted - told == set()
    assert told - wanted - {"_max", "_crit"} == set()


def test_manual_tells_what_is_read() -> None:
    told = set(re.findall(r"[\w/:-]+", manual_section("SENSORS")))
    assert kernel_paths() | sensor_names() <= told
    assert {word for word in told if word.startswith("/")} <= kernel_paths()


def test_limits_of_temperature_are_told() -> None:
    limit = constant("system_metrics.cpp", "DEFAULT_LIMIT").removesuffix(".0")
    margin = constant("system_metrics.cpp", "LIMIT_MARGIN").removesuffix(".0")
    assert constant("system_metrics.cpp", "PAUSE") == "2"
    for text in (section("What the window shows"), manual_section("SENSORS")):
        assert f"else\n{limit} °C" in text or f"else {limit} °C" in text
        assert f"from {margin} °C below the limit" in text
        assert "last two seconds" in text


def test_command_that_opens_the_energy_counter_names_the_one_that_is_read() -> None:
    (counter,) = [path for path in kernel_paths() if path.endswith("energy_uj")]
    assert f"sudo chmod a+r {counter}" in section("Limits")
    assert f"sudo chmod a+r {counter}" in manual()
    assert f'KERNEL=="{Path(counter).parent.name}"' in section("Limits")


def test_variables_of_the_manual_are_those_that_are_read() -> None:
    read = {text for text in fixed_texts() if VARIABLE.fullmatch(text)}
    told = {word for word in re.findall(r"[A-Z_]+", manual_section("ENVIRONMENT")) if VARIABLE.fullmatch(word)}
    assert {"HOME", "SNAP_USER_COMMON", "VANTRIC_TRACE"} <= read
    assert told == read | VARIABLES_OF_LIBRARIES


@pytest.mark.parametrize("name", ["settings.json", "geometry.json", "Vantric_crash.txt"])
def test_files_are_told(name: str) -> None:
    assert any(name in text for text in fixed_texts())
    assert name in section("Where it keeps things")
    assert name in manual_section("FILES")


def test_signals_of_the_manual_are_those_that_are_handled() -> None:
    fatal = {text.split(" (")[0] for text in fixed_texts() if re.match(r"SIG[A-Z]+ \(", text)}
    orderly = set(re.findall(r"\bSIG[A-Z]+\b", source("app.cpp")))
    assert len(fatal) == 6 and len(orderly) == 2
    assert set(re.findall(r"\bSIG[A-Z]+\b", manual_section("SIGNALS"))) == fatal | orderly


# --- numbers ---

def test_numbers_of_languages_and_columns_are_told() -> None:
    rtl = source("i18n_data.h").count(", true, VALUES_")
    numbers = {4: "four"}
    languages = len(native_names())
    assert f"**Language**: {languages}, {numbers[rtl]} of them written from right to left" in section("What can be changed")
    assert f"One of {languages}, or" in manual()
    (metainfo,) = (ROOT / "data").glob("*.metainfo.xml*")
    assert f"in {languages} languages" in metainfo.read_text()
    least, most = constant("window_manager.h", "MIN_COLUMNS"), constant("window_manager.h", "MAX_COLUMNS")
    assert f"**Columns**, {least} to {most}:" in section("What can be changed")
    assert f"From {least} to {most}." in manual()


def test_controls_go_by_the_names_that_they_have() -> None:
    dialog = manual()[manual().index("What the dialog holds"):manual().index(".SH KEYS")]
    for name in ("Orientation", "Columns", "Apply", "Language", "Theme", "Colors", "Reset colors"):
        assert name in keys()
        assert name in dialog
        assert name.lower() in section("What can be changed").replace("\n  ", " ").lower()
    assert {"−", "+"} <= set(fixed_texts())


# --- what was measured ---

#: How the reason begins why a line is not kept. Where it names numbers of CPUs, it is the reason for these alone.
REASONS = {
    "CPU, of gkrellm's": "CPU.* moving",
    "CPU in one column, of that in several": "CPU in one column",
    "CPU on an idle machine, of gkrellm's on a busy one": "CPU.* idle",
    "CPU of a minimised window beside its reading, of a seen one's": "CPU.* minimised",
    "start, of gkrellm's": "Start",
    "CPU time of a start, of gkrellm's": "Start.* CPU time",
    "private memory, of the empty window's": "Private memory",
    "wake-ups a second": "Wake-ups",
    "system calls a second": "System calls",
}


def lines_to_keep_to() -> list[tuple[str, str, str]]:
    """Their names, for how many CPUs, and whether they were kept."""
    table = (ROOT / "docs/performance.md").read_text().partition("### Lines to keep to\n")[2].partition("<!--")[0]
    return re.findall(r"^\| (\w[^|]*) \| (\d+) \| [\d.]+ \| [\d.]+ \| (yes|no) \|", table, re.MULTILINE)


def test_each_line_that_is_not_kept_has_its_reason() -> None:
    lines = lines_to_keep_to()
    assert {name for name, _, _ in lines} == set(REASONS)
    told = (ROOT / "docs/performance.md").read_text().partition("## Which lines are not kept, and why\n")[2].partition("\n## ")[0]
    beginnings = re.findall(r"^- \*\*(.*?)\.\*\*", told, re.MULTILINE)

    def has_reason(name: str, cpus: str) -> bool:
        fitting = [beginning for beginning in beginnings if re.match(REASONS[name], beginning)]
        return any(cpus in re.findall(r"\d+", beginning) or not re.search(r"\d", beginning) for beginning in fitting)

    assert [f"{name}, {cpus} CPUs" for name, cpus, kept in lines if kept == "no" and not has_reason(name, cpus)] == []


# --- what is not decided ---

def test_placeholders_are_named_where_they_stand() -> None:
    undecided = section("Licence")
    for name in ("WEB_SITE", "CONTACT_ADDRESS", "CRASH_MAILBOX"):
        found = re.search(rf'#define VANTRIC_{name} "(?:https://)?([^"/]+)', source("build_config.h"))
        assert found
        assert found[1] in undecided, f"the README calls a placeholder what is none, or the other way round: {found[1]}"
        assert f"`VANTRIC_{name}`" in (ROOT / "CONTRIBUTING.md").read_text()
    assert "`example.vantric.vantric`" in undecided
    assert re.search(r"\*\*Reporting a fault\*\*", undecided) and "COPYING" in undecided


def test_readme_begins_with_three_sentences_pictures_and_two_commands() -> None:
    words, _, rest = readme().removeprefix("# Vantric\n\n").partition("\n\n")
    assert len(re.findall(r"[.!?](?=\s|$)", words)) == 3
    pictures, _, rest = rest.partition("## Try it\n")
    assert pictures.count("![") == 4
    commands = re.findall(r"^    (.+)$", rest[:rest.index("\n## ")], re.MULTILINE)
    assert [command.split("  ")[0] for command in commands] == ["make run", "make test"]
