"""What whoever builds or packages the program may set: their flags win, their values stand everywhere, and the packages are compiled as
the program that is measured."""

from __future__ import annotations

import datetime
import json
import os
import re
import shlex
import subprocess
import xml.etree.ElementTree as ET
from collections.abc import Mapping
from email.utils import parsedate_to_datetime
from pathlib import Path

import pytest

from small_tree import ROOT, lay, make, run, stub

METAINFO = "example.vantric.vantric.metainfo.xml"
FIRST_RUNTIME = (48, datetime.date(2025, 3, 19))  # one every half year since, each supported until the next but one
SITE = "https://a-b.example/x?a=1&b=2"

Commands = dict[str, list[str]]


def configure(folder: Path, *options: str, env: Mapping[str, str] | None = None) -> Commands:
    """The arguments with which each source is compiled once CMake has configured the project with these options."""
    done = run(ROOT, "cmake", "-S", ".", "-B", str(folder), *options, env=env)
    assert done.returncode == 0, done.stdout
    entries = json.loads((folder / "compile_commands.json").read_text())
    return {os.path.relpath(entry["file"], ROOT): shlex.split(entry["command"]) for entry in entries}


def plain(folder: Path, *options: str, env: Mapping[str, str] | None = None) -> Commands:
    return configure(folder, "-G", "Ninja", "-D", "BUILD_TESTING=OFF", *options, env=env)


def last(pattern: str, arguments: list[str]) -> str:
    """Of arguments that exclude each other the last one counts."""
    return ([""] + [one for one in arguments if re.fullmatch(pattern, one)])[-1]


def code_flags(arguments: list[str]) -> set[str]:
    """Those on which it depends what a source becomes; not what it is checked for, nor what is known of it while debugging."""
    plain_ones = {one for one in arguments if re.match(r"-(f|m|std=)", one) and not one.startswith("-ffile-prefix-map=")}
    return plain_ones | {last("-O.*", arguments), last("-D_FORTIFY_SOURCE=.*", arguments)}


def preset(name: str) -> dict[str, str]:
    """The cache variables of a preset, those that it inherits among them."""
    presets = {one["name"]: one for one in json.loads((ROOT / "CMakePresets.json").read_text())["configurePresets"]}
    one = presets[name]
    return (preset(one["inherits"]) if "inherits" in one else {}) | one.get("cacheVariables", {})


# --- flags ---

@pytest.mark.parametrize("name", ["", "release"])
def test_the_flags_of_whoever_builds_win(tmp_path: Path, name: str) -> None:
    theirs = ["-D", "CMAKE_CXX_FLAGS=-D_FORTIFY_SOURCE=3 -fno-stack-protector -Wno-shadow", "-D", "CMAKE_CXX_FLAGS_RELEASE=-O1 -DTHEIRS",
              "-D", "CMAKE_CXX_STANDARD=23", "-D", "VANTRIC_CURVE_FLAGS="]
    options = ["--preset", name] if name else ["-G", "Ninja", "-D", "CMAKE_BUILD_TYPE=Release", "-D", "BUILD_TESTING=OFF"]
    for source, arguments in configure(tmp_path / "b", *options, *theirs).items():
        assert last("-O.*", arguments) == "-O1", source
        assert last(".*_FORTIFY_SOURCE.*", arguments) == "-D_FORTIFY_SOURCE=3", source
        assert last("-f(no-)?stack-protector.*", arguments) == "-fno-stack-protector", source
        assert last("-W(no-)?shadow", arguments) == "-Wno-shadow", source
        assert last("-std=.*", arguments) == "-std=c++23", source
        assert "-DTHEIRS" in arguments, source


@pytest.mark.parametrize("build_type", ["", "None", "Debug", "MinSizeRel"])
def test_without_presets_nothing_is_optimised_beyond_the_given_flags(tmp_path: Path, build_type: str) -> None:
    given = {"": "", "None": "", "Debug": "", "MinSizeRel": "-Os"}[build_type]
    for source, arguments in plain(tmp_path / "b", "-D", f"CMAKE_BUILD_TYPE={build_type}", env={"CXXFLAGS": ""}).items():
        assert last("-O.*", arguments) == given, source
        assert last(".*_FORTIFY_SOURCE.*|-f(cf|stack)-.*", arguments) == "", source


def test_presets_harden_and_make_small_what_is_not_a_curve(tmp_path: Path) -> None:
    commands = configure(tmp_path / "b", "--preset", "release")
    assert {last("-O.*", arguments) for source, arguments in commands.items() if not source.startswith("src/curve_")} == {"-Os"}
    assert {last("-O.*", arguments) for source, arguments in commands.items() if source.startswith("src/curve_")} == {"-O3"}
    for source, arguments in commands.items():
        assert {"-fstack-protector-strong", "-fstack-clash-protection", "-D_FORTIFY_SOURCE=2"} <= set(arguments), source


# --- as it was measured ---

def rules(tree: Path, tmp_path: Path, target: str, env: Mapping[str, str] | None = None) -> list[str]:
    """What debian/rules asks of debhelper for that target. Behind it the flags that it hands to CMake then."""
    (tmp_path / "asked").write_text("")
    for tool in ("dh_auto_configure", "dh_auto_build", "ctest"):
        stub(tmp_path / "bin", tool, f"printf '%s\\n' \"$@\" > '{tmp_path}/asked'; "
             f"echo $(dpkg-buildflags --get CXXFLAGS) $(dpkg-buildflags --get CPPFLAGS) >> '{tmp_path}/asked'")
    done = run(tree, "make", "-f", "packaging/debian/rules", target, env={"PATH": f"{tmp_path}/bin:{os.environ['PATH']}"} | dict(env or {}))
    assert done.returncode == 0, done.stdout
    return (tmp_path / "asked").read_text().splitlines()


def test_debian_compiles_the_program_that_was_measured(tmp_path: Path) -> None:
    dashes, *options, flags = rules(ROOT, tmp_path, "override_dh_auto_configure", {"DEB_BUILD_OPTIONS": "nocheck"})
    assert dashes == "--"
    debian = configure(tmp_path / "debian", "-G", "Ninja", "-D", "CMAKE_BUILD_TYPE=None", *options, env={"CXXFLAGS": flags})
    measured = configure(tmp_path / "measured", "--preset", "release")
    assert set(debian) == set(measured)
    for source, arguments in measured.items():
        assert code_flags(debian[source]) == code_flags(arguments), source


def test_no_optimisation_means_none_in_debian(tmp_path: Path) -> None:
    _, *options, flags = rules(ROOT, tmp_path, "override_dh_auto_configure", {"DEB_BUILD_OPTIONS": "nocheck noopt"})
    debian = configure(tmp_path / "debian", "-G", "Ninja", "-D", "CMAKE_BUILD_TYPE=None", *options, env={"CXXFLAGS": flags})
    assert {last("-O.*", arguments) for arguments in debian.values()} == {"-O0"}


@pytest.mark.parametrize("other", ["test", "bench"])
def test_what_is_tested_and_measured_is_the_release(other: str) -> None:
    its_own = {"BUILD_TESTING", "VANTRIC_BENCH", "VANTRIC_WERROR"}
    assert {name: text for name, text in preset(other).items() if name not in its_own} == \
        {name: text for name, text in preset("release").items() if name not in its_own}


@pytest.mark.parametrize("manifest", ["snap/snapcraft.yaml", "flatpak/example.vantric.vantric.yaml"])
def test_other_packages_are_compiled_like_the_release(manifest: str) -> None:
    given = dict(re.findall(r"^ +- -D(\w+)=(\S+)$", (ROOT / "packaging" / manifest).read_text(), re.MULTILINE))
    assert {name: text for name, text in given.items() if name != "CMAKE_INSTALL_PREFIX"} == preset("release")


@pytest.mark.parametrize("options, tested", [("", True), ("nocheck", False)])
def test_debian_runs_the_unit_tests_unless_it_is_told_not_to(tmp_path: Path, options: str, tested: bool) -> None:
    env = {"DEB_BUILD_OPTIONS": options}
    assert (f"BUILD_TESTING={'ON' if tested else 'OFF'}" in rules(ROOT, tmp_path, "override_dh_auto_configure", env))
    assert rules(ROOT, tmp_path, "override_dh_auto_build", env)[:-1] == ["--", "vantric", *["unit_tests"] * tested]
    asked = rules(ROOT, tmp_path, "override_dh_auto_test", env)[:-1]
    assert asked[:1] + asked[2:] == (["--test-dir", "--tests-regex", "^unit/", "--no-tests=error", "--verbose"] if tested else [])


# --- what is needed ---

def test_without_google_test_there_is_the_program_alone(tmp_path: Path) -> None:
    missing = ["-G", "Ninja", "-D", "CMAKE_DISABLE_FIND_PACKAGE_GTest=ON"]
    commands = configure(tmp_path / "b", *missing)
    assert {source.split("/")[0] for source in commands} == {"src"}
    wanted = run(ROOT, "cmake", "-S", ".", "-B", str(tmp_path / "c"), *missing, "-D", "BUILD_TESTING=ON")
    assert wanted.returncode != 0
    assert "GTest" in wanted.stdout


def test_with_google_test_the_tests_come_by_themselves(tmp_path: Path) -> None:
    assert any(source.startswith("tests/unit/") for source in configure(tmp_path / "b", "-G", "Ninja"))


# --- values ---

def default(name: str) -> str:
    found = re.search(rf'^#define {name} "(.*)"$', (ROOT / "src/build_config.h").read_text(), re.MULTILINE)
    assert found
    return found[1]


def told(folder: Path) -> dict[str, str]:
    """What the installed texts below that folder say of the maker."""
    metainfo = ET.parse(folder / f"share/metainfo/{METAINFO}")
    pictures = {str(image.text).rpartition("screenshots/")[0] for image in metainfo.iter("image")}
    assert len(pictures) == 1
    return {"site": str(metainfo.findtext("url[@type='homepage']")), "contact": str(metainfo.findtext("update_contact")),
            "pictures": pictures.pop(), "manual": (folder / "share/man/man1/vantric.1").read_text().splitlines()[-1]}


def test_set_values_stand_in_every_installed_text(tmp_path: Path) -> None:
    options = f"CMAKE_OPTIONS=-D 'VANTRIC_WEB_SITE={SITE}' -D VANTRIC_CONTACT_ADDRESS=me@b.example"
    make(lay(tmp_path / "tree"), "install", f"PREFIX={tmp_path}/set", options)
    assert told(tmp_path / "set") == {"site": SITE, "contact": "me@b.example", "pictures": SITE + "/", "manual": SITE.replace("-", r"\-")}
    # main of the small tree returns the first letter of the site that has been compiled in
    assert subprocess.run([tmp_path / "set/bin/vantric", "?"], check=False).returncode == ord("h")
    assert SITE.encode() in configured_definitions(tmp_path / "tree/build/release")


def configured_definitions(build: Path) -> bytes:
    return (build / "compile_commands.json").read_bytes()


def test_unset_values_are_those_of_the_program_everywhere(tmp_path: Path) -> None:
    tree = lay(tmp_path / "tree")
    make(tree, "install", f"PREFIX={tmp_path}/unset")
    site, contact = default("VANTRIC_WEB_SITE"), default("VANTRIC_CONTACT_ADDRESS")
    assert told(tmp_path / "unset") == {"site": site, "contact": contact, "pictures": site, "manual": site.replace("-", r"\-")}
    assert b"VANTRIC_" not in configured_definitions(tree / "build/release")


def test_the_program_and_its_texts_take_them_from_one_place() -> None:
    # So that the dialog, the crash report and the installed texts follow what is set
    domain = default("VANTRIC_CONTACT_ADDRESS").partition("@")[2]
    assert domain in default("VANTRIC_WEB_SITE") and domain in default("VANTRIC_CRASH_MAILBOX")
    files = [file for folder in ("src", "data") for file in (ROOT / folder).rglob("*") if file.is_file()]
    assert [file.name for file in files if domain.encode() in file.read_bytes()] == ["build_config.h"]


@pytest.mark.parametrize("file, name, pattern", [
    ("snap/snapcraft.yaml", "VANTRIC_WEB_SITE", r"^website: (.*)$"),
    ("snap/snapcraft.yaml", "VANTRIC_CONTACT_ADDRESS", r"^contact: (.*)$"),
    ("debian/control", "VANTRIC_WEB_SITE", r"^Homepage: (.*)$"),
    ("debian/control", "VANTRIC_CONTACT_ADDRESS", r"^Maintainer: .* <(.*)>$"),
    ("debian/copyright", "VANTRIC_WEB_SITE", r"^Source: (.*)$"),
    ("debian/copyright", "VANTRIC_CONTACT_ADDRESS", r"^Upstream-Contact: .* <(.*)>$"),
])
def test_packages_name_the_default_values(file: str, name: str, pattern: str) -> None:
    assert re.findall(pattern, (ROOT / "packaging" / file).read_text(), re.MULTILINE) == [default(name)]


def test_make_deb_passes_options_on(tmp_path: Path) -> None:
    tree, bin_folder = lay(tmp_path / "tree"), tmp_path / "bin"
    stub(bin_folder, "dpkg-query", 'shift 3; for package; do echo "$package installed"; done')
    stub(bin_folder, "dpkg-buildpackage", "make -f debian/rules override_dh_auto_configure; touch ../vantric_1_all.deb")
    stub(bin_folder, "dh_auto_configure", f"printf '%s\\n' \"$@\" > '{tmp_path}/asked'")
    make(tree, "deb", "CMAKE_OPTIONS=-D 'CMAKE_CXX_FLAGS=-O1 -g' -D VANTRIC_WEB_SITE=https://b.example",
         env={"PATH": f"{bin_folder}:{os.environ['PATH']}"})
    assert (tmp_path / "asked").read_text().splitlines()[-4:] == ["-D", "CMAKE_CXX_FLAGS=-O1 -g", "-D", "VANTRIC_WEB_SITE=https://b.example"]


# --- Snap, Flatpak, licence ---

def test_snaps_line_can_be_repeated(tmp_path: Path) -> None:
    tree = lay(tmp_path / "tree")
    line = next(line for line in (ROOT / "README.md").read_text().splitlines() if "packaging/snap snap" in line)
    stub(tmp_path / "bin", "snapcraft", "test -f snap/snapcraft.yaml")
    for _ in range(2):
        done = run(tree, "sh", "-c", line, env={"PATH": f"{tmp_path}/bin:{os.environ['PATH']}"})
        assert done.returncode == 0, done.stdout
    assert [file.name for file in (tree / "packaging/snap").iterdir()] == ["snapcraft.yaml"]
    assert (tree / "snap").is_symlink()


def test_flatpaks_runtime_is_supported_at_the_date_of_the_changelog() -> None:
    changelog = (ROOT / "packaging/debian/changelog").read_text()
    date = parsedate_to_datetime(re.findall(r"^ -- .*>  (.*)$", changelog, re.MULTILINE)[0]).date()
    number, since = FIRST_RUNTIME
    newest = number + ((date.year - since.year) * 12 + date.month - since.month - (date.day < since.day)) // 6
    manifest = (ROOT / "packaging/flatpak/example.vantric.vantric.yaml").read_text()
    named = re.findall(r'^runtime-version: "(\d+)"$', manifest, re.MULTILINE)
    assert len(named) == 1 and int(named[0]) in (newest - 1, newest)


def test_the_licence_is_open_in_each_place_that_names_one() -> None:
    copying = (ROOT / "COPYING").read_text()
    places = re.findall(r"^    (\S+) {2,}", copying, re.MULTILINE)
    assert len(places) == 4 and all((ROOT / place).is_file() for place in places)
    assert "COPYING" in (ROOT / "README.md").read_text().partition("\n## Licence")[2]
    assert ET.parse(ROOT / f"data/{METAINFO}.in").findtext("project_license") == "LicenseRef-proprietary"
    copyright_file = (ROOT / "packaging/debian/copyright").read_text()
    assert "\nFiles: *\nCopyright: 2026 Ilan Morvay, Fennmark Software\nLicense: LicenseRef-proprietary\n" in copyright_file
    assert "\nDisclaimer: " in copyright_file
    assert "\nSection: non-free/" in (ROOT / "packaging/debian/control").read_text()
