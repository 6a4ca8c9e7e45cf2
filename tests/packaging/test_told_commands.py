"""Every command that CONTRIBUTING, the documents and the READMEs tell does something: what is cheap is run, of the rest it is looked up
whether there is what it names. A command of a new kind has to find its check here."""

from __future__ import annotations

import os
import re
import shlex
import subprocess
from collections.abc import Iterator
from pathlib import Path

import pytest

from small_tree import ROOT, environment

PROGRAM = Path(os.environ.get("VANTRIC", ROOT / "build/test/vantric")).absolute()
PAGES = ["README.md", "CONTRIBUTING.md", "fuzz/README.md", *(str(page.relative_to(ROOT)) for folder in ("docs", "tests")
                                                          for page in sorted((ROOT / folder).rglob("*.md")))]
#: With these a command begins, behind what is set or asked for in front of it
WORD = r"(?:make|cmake|ctest|python3|/usr/bin/python3|\.ci/run|on-display|fake-machine|(?:tools|bench|tests)/[\w./-]+)"
COMMAND = re.compile(rf"(?:(?:sudo|nice|\w+=\S*) +)*{WORD}(?: .*)?")
#: What no checkout can check: other people's tools, and words in place of which something is to be put
FOREIGN = re.compile(r"(sudo )?(apt-get|snap|flatpak|flatpak-builder|ln|tail|git|localedef) .*")
PLACEHOLDERS = re.compile(r"\b(PREFIX|DIR|FILE|TARGET\w*|NAME\w*|SECONDS \[.*|OPTIONS)(?=\s|$)")
EXAMPLES = {"./vantric": str(PROGRAM), "build/release/vantric": str(PROGRAM), "build/vantric": str(PROGRAM), "./some_test": "true"}


def commands_of(page: str) -> Iterator[str]:
    """What stands in indented or fenced lines, and in quotes of code."""
    text = (ROOT / page).read_text()
    lines = re.findall(r"^(?: {4}|(?=tests/|fake-machine ))(\S.*)$", text, re.MULTILINE)
    quotes = [quote for line in text.splitlines() if not line.startswith("    ") for quote in re.findall(r"`([^`]+)`", line)]
    for code in [*lines, *quotes]:
        for command in re.split(r" +&& +", re.sub(r" +#.*$| {3,}.*$| +[<>]\S+| &$", "", code)):
            if COMMAND.fullmatch(command) and not FOREIGN.fullmatch(command):
                yield command


TOLD = sorted({command for page in PAGES for command in commands_of(page)})


def run(*command: str | Path, **variables: str) -> subprocess.CompletedProcess[str]:
    env = environment({"VANTRIC": str(PROGRAM)} | variables) | {"TMPDIR": os.environ.get("TMPDIR", "/tmp")}
    return subprocess.run(command, cwd=ROOT, env=env, text=True, check=False, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)


def check_make(words: list[str]) -> None:
    targets = [word for word in words[1:] if "=" not in word and not word.startswith("-")]
    for target in targets:
        done = run("make", "-n", target, *[word for word in words[1:] if "=" in word])
        assert done.returncode == 0, done.stdout
        assert re.search(rf"^{target}: .*## ", (ROOT / "Makefile").read_text(), re.MULTILINE)


def check_cmake(words: list[str]) -> None:
    kind = "build" if words[1] == "--build" else "configure"
    if "--preset" in words and (name := words[words.index("--preset") + 1]) != "...":
        assert f'"{name}"' in run("cmake", f"--list-presets={kind}").stdout


def check_ctest(words: list[str]) -> None:
    words[words.index("--test-dir") + 1] = str(PROGRAM.parent)
    done = run(*words, "--show-only", "--no-tests=error")
    assert done.returncode == 0 and not re.search(r"^Total Tests: 0$", done.stdout, re.MULTILINE), done.stdout


def check_python(words: list[str]) -> None:
    assert words[1:3] == ["-m", "pytest"]
    done = run("/usr/bin/python3", *words[1:], "--collect-only", "-q", "-p", "no:cacheprovider")
    assert done.returncode == 0, done.stdout


def check_options(words: list[str]) -> None:
    """A tool that takes long: there are the options that it is called with."""
    offered = run(words[0], "--help").stdout
    for word in words[1:]:
        assert not word.startswith("--") or re.search(rf"{word}\b", offered), f"{word} is none of\n{offered}"


def check_tool(words: list[str]) -> None:
    """Something short is run, with what stands for the program replaced by it."""
    done = run(*words)
    assert done.returncode == 0, done.stdout


def check_existence(words: list[str]) -> None:
    assert (ROOT / words[0]).exists() or (ROOT / words[0].partition("*")[0]).exists()
    assert len(words) == 1 or os.access(ROOT / words[0], os.X_OK)


def check_of(words: list[str], command: str) -> None:
    first = Path(words[0]).name
    is_whole = len(words) > 1 and not PLACEHOLDERS.search(command) and "..." not in command
    by_name = {"make": check_make, "cmake": check_cmake, "ctest": check_ctest, "python3": check_python}
    if first in by_name:
        by_name[first](words)
    elif words[0].startswith("bench/") and is_whole:
        check_options(words)
    elif first in ("fake-machine", "on-display", "in-machine") and is_whole:
        check_tool(words)
    else:
        check_existence(words)


@pytest.mark.parametrize("command", TOLD)
def test_a_told_command_does_what_it_says(command: str, tmp_path: Path) -> None:
    words = [EXAMPLES.get(word, word) for word in shlex.split(command)]
    while words[0] in ("sudo", "nice") or "=" in words[0]:
        words.pop(0)
    tools = {"on-display": "tests/display/on-display", "fake-machine": "tests/machine/fake-machine"}
    words = [tools.get(word, word) for word in words]
    if "--screenshot" in words:
        words[words.index("--screenshot") + 1] = str(tmp_path / "shot.png")
        words[words.index("--after") + 1] = "0.1"
    if str(PROGRAM) in words:
        # In its place something that ends by itself, or whenever it is told to
        place = words.index(str(PROGRAM))
        words[place:place + 1] = ["sleep", "1000"] if "--screenshot" in words else ["true"]
    words = [re.sub("^build/(test|release)/", f"{PROGRAM.parent}/", word) for word in words]
    check_of(words, command)
    if "--screenshot" in words:
        assert (tmp_path / "shot.png").stat().st_size > 1000


def test_commands_are_found_at_all() -> None:
    for known in ("make test", "tests/machine/fake-machine list", "ctest --test-dir build/test -R unit/cpu_reader --no-tests=error"):
        assert known in TOLD
    assert len(TOLD) > 40
