"""The unit tests where nobody may make namespaces, as in many builds of packages: there are no made-up machines."""

from __future__ import annotations

import os
import subprocess
import xml.etree.ElementTree as ET
from pathlib import Path

import pytest

from small_tree import ROOT, environment, stub

REASON = "it needs a made-up machine, and namespaces are not allowed here: bwrap: No permissions to create new namespace"
PROGRAMS = Path(os.environ.get("VANTRIC", ROOT / "build/test/vantric")).absolute().parent


def run_cases(tmp_path: Path, program: str, pattern: str, env: dict[str, str] | None = None) -> subprocess.CompletedProcess[str]:
    stub(tmp_path / "bin", "bwrap", "echo 'bwrap: No permissions to create new namespace' >&2; exit 1")
    (tmp_path / "results").mkdir(exist_ok=True)
    changes = {"PATH": f"{tmp_path}/bin:{os.environ['PATH']}", "TEST_RESULTS": str(tmp_path / "results"), **(env or {})}
    inherited = {name: text for name, text in environment().items() if name != "MACHINES_REQUIRED"}
    return subprocess.run([ROOT / "tests/in-machine", ROOT / "tests/run-cases", PROGRAMS / program, pattern], env=inherited | changes,
                          text=True, check=False, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)


def test_what_needs_a_machine_is_skipped_by_name_and_says_why(tmp_path: Path) -> None:
    done = run_cases(tmp_path, "unit_kernel_file_test", "ReadNumber.*")
    *skipped, summary = done.stdout.splitlines()
    assert done.returncode == 0 and len(skipped) > 2
    for line in skipped:
        case, _, why = line.partition(" skipped: ")
        assert case.startswith("ReadNumber.") and why == REASON
    assert summary == f"unit_kernel_file_test: {len(skipped)} cases, 0 failed, {len(skipped)} skipped"
    marks = [ET.parse(file).getroot().find("testcase/skipped") for file in (tmp_path / "results").iterdir()]
    assert len(marks) == len(skipped) and None not in marks


def test_what_needs_no_machine_runs(tmp_path: Path) -> None:
    done = run_cases(tmp_path, "unit_theme_test", "RgbToHex.*")
    assert done.returncode == 0
    assert done.stdout.splitlines()[-1].endswith(" cases, 0 failed, 0 skipped") and len(done.stdout.splitlines()) == 1


@pytest.mark.parametrize("program", ["unit_kernel_file_test", "unit_theme_test"])
def test_where_every_test_shall_run_it_fails(tmp_path: Path, program: str) -> None:
    done = run_cases(tmp_path, program, "Read*:RgbToHex.*", {"MACHINES_REQUIRED": "1"})
    assert done.returncode == 2
    assert "namespaces are not allowed here" in done.stdout


def test_make_test_and_the_checks_want_every_test() -> None:
    assert "\nexport MACHINES_REQUIRED=1 " in (ROOT / "tools/run-tests").read_text()
