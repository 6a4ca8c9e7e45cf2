"""tools/mutate, on a program of a few lines whose mutants are known."""

from __future__ import annotations

import sys
from pathlib import Path

import pytest
import small_tree

sys.path.insert(0, str(small_tree.ROOT / "tools/mutation"))

from mutants import mutants_of  # noqa: E402

FILES = {
    "CMakeLists.txt": """cmake_minimum_required(VERSION 3.25)
project(small LANGUAGES CXX)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
find_package(GTest REQUIRED)
add_library(vantric_core STATIC
  src/most_ten.cpp)
add_executable(vantric src/main.cpp)
target_link_libraries(vantric PRIVATE vantric_core)
add_executable(unit_most_ten_test tests/unit/most_ten_test.cpp)
target_include_directories(unit_most_ten_test PRIVATE src)
target_link_libraries(unit_most_ten_test PRIVATE vantric_core GTest::gtest_main)
""",
    "src/most_ten.h": "int most_ten(int x);\nint unwanted(int x);\n",
    "src/most_ten.cpp": """#include "most_ten.h"

constexpr int MOST = 10;

int most_ten(int x)
{
    if (x > MOST) {
        return MOST;
    }
    return x;
}

int unwanted(int x)
{
    return x * 2;
}
""",
    "src/main.cpp": '#include "most_ten.h"\n\nint main()\n{\n    return most_ten(12);\n}\n',
    "tests/in-machine": '#!/bin/sh\nexec "$@"\n',
    "tests/unit/most_ten_test.cpp": """#include <gtest/gtest.h>
#include "most_ten.h"
TEST(MostTen, Much) { EXPECT_EQ(10, most_ten(12)); }
TEST(MostTen, Little) { EXPECT_EQ(5, most_ten(5)); }
TEST(MostTen, FailsAlways) { EXPECT_EQ(6, most_ten(5)); }
""",
    "tests/program/test_status.py": """import os
import subprocess
def test_status():
    assert subprocess.run([os.environ["VANTRIC"]], env={}).returncode == 10
""",
}


@pytest.fixture
def project(tmp_path: Path) -> Path:
    """A project laid out like ours, with a copy of the tool."""
    small_tree.lay(tmp_path / "project")
    for name, text in FILES.items():
        file = tmp_path / "project" / name
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(text)
    for source in (tmp_path / "project/src").iterdir():
        if f"src/{source.name}" not in FILES:
            source.unlink()
    (tmp_path / "project/tests/in-machine").chmod(0o755)
    return tmp_path / "project"


def test_each_mutant_comes_to_its_end(project: Path) -> None:
    done = small_tree.run(project, "tools/mutate", "--workers", "1")
    outcomes = {mutant: outcome for line in done.stdout.splitlines() for outcome, _, mutant in [line.partition(" ")]
                if outcome in ("killed", "survived", "unreached")}
    told = {mutant.partition("  [")[0].strip(): outcome for mutant, outcome in outcomes.items()}
    assert told == {
        "src/most_ten.cpp:3: constant: 10 -> 11": "killed",
        "src/most_ten.cpp:3: constant: 10 -> 9": "killed",
        "src/most_ten.cpp:7: boundary: > -> >=": "survived",  # it makes no difference
        "src/most_ten.cpp:7: comparison: > -> <=": "killed",
        "src/most_ten.cpp:7: condition: x > MOST -> !(x > MOST)": "killed",
        "src/most_ten.cpp:8: result: MOST -> {}": "killed",
        "src/most_ten.cpp:10: result: x -> {}": "killed",
        "src/most_ten.cpp:15: arithmetic: * -> /": "unreached",
        "src/most_ten.cpp:15: constant: 2 -> 1": "unreached",
        "src/most_ten.cpp:15: constant: 2 -> 3": "unreached",
        "src/most_ten.cpp:15: result: x * 2 -> {}": "unreached",
        "src/main.cpp:5: constant: 12 -> 11": "survived",
        "src/main.cpp:5: constant: 12 -> 13": "survived",
        "src/main.cpp:5: result: most_ten(12) -> {}": "killed",
    }, done.stdout
    assert "excluded, as it fails without any mutant: unit_most_ten_test: MostTen.FailsAlways (failed)" in done.stdout
    assert done.stdout.splitlines()[-1] == "7 of 14 mutants killed: 50.0 %"


def changes(source: str) -> list[str]:
    return [f"{mutant.operator}: {mutant.before} -> {mutant.after}" for mutant in mutants_of("a.cpp", source)]


@pytest.mark.parametrize(("source", "expected"), [
    ("void f() { g(1); }", ["deletion: g(1) -> ", "constant: 1 -> 0", "constant: 1 -> 2"]),
    ("bool f() { return !a && true; }", ["negation: ! -> ", "result: !a && true -> {}", "logic: && -> ||", "word: true -> false"]),
    ("void f() { auto* x = g(); }", []),
    ("void f() { for (int i = 0; i != n; ++i) {} }", ["constant: 0 -> 1", "comparison: != -> ==", "step: ++ -> --"]),
    ("void f() { if (a) { return; } }", ["condition: a -> !(a)"]),
    ("void f() { if (const auto* a = g()) { return; } }", []),
    ("constexpr double HALF = 0.5;", ["constant: 0.5 -> (-0.5)", "constant: 0.5 -> 1.5"]),
    ("constexpr int MODE = 0600;", ["constant: 0600 -> 0577", "constant: 0600 -> 0601"]),
    ("std::vector<int*> f(T&& t);", []),
    ('#define A 1\n// 1 < 2\n/* 3 */ const char* text = "4 + 5";', []),
    ("static_assert(1 < 2);", []),
    ("char text[64];", []),
])
def test_what_is_changed(source: str, expected: list[str]) -> None:
    assert changes(source) == expected


def test_a_mutant_is_the_same_wherever_its_line_moves() -> None:
    line = "int f() { return a + b; }\n"
    assert [mutant.key for mutant in mutants_of("a.cpp", line)] == [mutant.key for mutant in mutants_of("a.cpp", "int g();\n\n" + line)]
