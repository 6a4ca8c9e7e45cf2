"""make check, and how tests are run: every part runs, whatever fails, and each that fails makes the whole fail. Most of what they call is
replaced."""

from __future__ import annotations

import os
import signal
import subprocess
from pathlib import Path

import pytest

from small_tree import lay, run, stub

#: What finds something,
FINDERS = ["cmake", "ctest", "clang-format", "shellcheck", "run-clang-tidy", "cppcheck"]
RESULT = '<testsuite><testcase classname="unit" name="one"/></testsuite>'


@pytest.fixture
def tree(tmp_path: Path) -> Path:
    """A checkout in which all tools stand in for the real ones: they note that they were called, and one of them can be told to fail."""
    tree = lay(tmp_path / "tree")
    subprocess.run(["git", "init", "-q", tree], check=True)
    subprocess.run(["git", "-C", tree, "add", "src", "tools"], check=True)
    stub(tmp_path / "bin", "dpkg-query", 'shift 3; for package; do echo "$package installed"; done')
    fails = '[ "$FAILS" != {0} ] || {{ echo "{0} complains"; exit 1; }}'
    for name in FINDERS:
        stub(tmp_path / "bin", name, f'echo "{name} $*" >>"{tmp_path}/calls"\n' + fails.format(name))
    stub(tmp_path / "bin", "ctest", f'''echo "ctest $* $(sed -n "s/^SigIgn:.//p" /proc/self/status)" >>"{tmp_path}/calls"
echo '{RESULT}' >"$TEST_RESULTS/one.xml"
case $* in *numbers*) exit 0 ;; esac
''' + fails.format("ctest"))
    (tree / "build/static").mkdir(parents=True)
    return tree


def make_check(tree: Path, fails: str = "") -> tuple[int, str, list[str]]:
    """Its status, what it said, and all that it called."""
    calls = tree.parent / "calls"
    calls.unlink(missing_ok=True)
    done = run(tree, "make", "--no-print-directory", "check", env={"PATH": f"{tree.parent}/bin:{os.environ['PATH']}", "FAILS": fails})
    return done.returncode, done.stdout, calls.read_text().splitlines()


def test_check_builds_and_runs_the_unit_tests_and_looks_at_every_source(tree: Path) -> None:
    status, said, calls = make_check(tree)
    assert (status, said) == (0, "1 passed, 0 failed, 0 skipped\n")
    assert "cmake --build build/test --target unit_tests" in calls
    assert any(call.startswith("ctest --test-dir build/test ") and " -R ^unit/ " in call for call in calls)
    formatted = next(call for call in calls if call.startswith("clang-format --dry-run -Werror"))
    assert "src/main.cpp" in formatted
    assert "tools/check" in next(call for call in calls if call.startswith("shellcheck")).split()
    assert any(call.startswith("run-clang-tidy -quiet -p build/static") for call in calls)
    assert any(call.startswith("cppcheck") and call.endswith(" src") for call in calls)


@pytest.mark.parametrize("finder", FINDERS)
def test_check_fails_with_each_of_its_parts_and_runs_the_others(tree: Path, finder: str) -> None:
    status, said, calls = make_check(tree, finder)
    assert status != 0
    assert f"{finder} complains" in said
    if finder != "cmake":  # nothing can be run without a build
        # cppcheck comes behind clang-tidy, and what one of them finds is enough to mend; so it is with the two that look at the format
        later = {"run-clang-tidy": "cppcheck", "clang-format": "shellcheck"}.get(finder)
        assert {call.split()[0] for call in calls} >= set(FINDERS) - {later}


@pytest.mark.parametrize("fails, said_last", [
    ("", "3 passed, 0 failed, 0 skipped"), ("ctest", "3 passed, 0 failed, 0 skipped"), ("python", "2 passed, 1 failed, 0 skipped"),
    ("cmake", "1 passed, 0 failed, 0 skipped"),
])
def test_the_tests_of_both_kinds_are_built_and_run_whichever_fail(tree: Path, fails: str, said_last: str) -> None:
    (tree / "tests/test_one.py").write_text("import os\n\n\ndef test_one():\n    assert os.environ['FAILS'] != 'python'\n")
    stub(tree.parent / "bin", "localedef", 'mkdir "$5"')
    # As in the background of a shell
    done = run(tree, "env", "--ignore-signal=INT", "tools/run-tests", "test",
               env={"PATH": f"{tree.parent}/bin:{os.environ['PATH']}", "FAILS": fails})
    assert (done.returncode == 0) == (fails == "")
    assert done.stdout.splitlines()[-1] == said_last
    calls = [call.split() for call in (tree.parent / "calls").read_text().splitlines()]
    runs = [call for call in calls if call[0] == "ctest"]
    assert calls == [["cmake", "--preset", "test"]] + (runs and [["cmake", "--build", "build/test", "--target", "all"], *runs])
    assert ["numbers" in call for call in runs] == ([] if fails == "cmake" else [False, True])
    assert [int(call[-1], 16) >> (signal.SIGINT - 1) & 1 for call in runs] == [0] * len(runs)
    assert (f"{fails} complains" in done.stdout) == (fails in FINDERS)
