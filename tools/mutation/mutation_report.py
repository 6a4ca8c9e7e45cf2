"""A plugin for pytest: writes a line of JSON for each test to the file MUTATION_REPORT. With MUTATION_TRACED, a folder, every process that
runs tests gives them a copy of the traced program to start, and the notes of trace.c a folder for each test."""

from __future__ import annotations

import hashlib
import json
import os
import shutil
from collections.abc import Iterator
from pathlib import Path

import pytest

_seconds: dict[str, float] = {}
_failed: set[str] = set()
_skipped: set[str] = set()


def pytest_configure() -> None:
    if "MUTATION_TRACED" in os.environ:
        folder = _own_folder()
        folder.mkdir(parents=True, exist_ok=True)
        shutil.copy2(os.environ["VANTRIC"], folder / "vantric")
        os.environ["VANTRIC"] = str(folder / "vantric")


def _own_folder() -> Path:
    return Path(os.environ["MUTATION_TRACED"]) / os.environ.get("PYTEST_XDIST_WORKER", "main")


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_protocol(item: pytest.Item) -> Iterator[None]:
    if "MUTATION_TRACED" in os.environ:
        folder = Path(os.environ["MUTATION_TRACED"]) / "reached" / hashlib.sha256(item.nodeid.encode()).hexdigest()
        folder.mkdir(parents=True, exist_ok=True)
        (_own_folder() / "trace-to").write_text(str(folder))
    yield


def pytest_runtest_logreport(report: pytest.TestReport) -> None:
    """Where tests run in several processes, the one that hands them out hears of all."""
    if "PYTEST_XDIST_WORKER" in os.environ:
        return
    test = report.nodeid
    _seconds[test] = _seconds.get(test, 0.0) + report.duration
    if report.failed:
        _failed.add(test)
    if report.skipped:
        _skipped.add(test)
    if report.when == "teardown":
        outcome = "failed" if test in _failed else "skipped" if test in _skipped else "passed"
        with open(os.environ["MUTATION_REPORT"], "a", encoding="utf-8") as file:
            print(json.dumps({"test": test, "outcome": outcome, "seconds": round(_seconds[test], 3)}), file=file)
