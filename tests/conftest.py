"""Tells what tests that got a second attempt have failed of in their first: it may be the program's fault, and is to be looked into."""

from __future__ import annotations

from _pytest.terminal import TerminalReporter


def pytest_terminal_summary(terminalreporter: TerminalReporter) -> None:
    reruns = terminalreporter.stats.get("rerun", [])
    if reruns:
        terminalreporter.section("failed first attempts")
    for report in reruns:
        terminalreporter.line(f"{report.nodeid}\n{report.longreprtext}\n")
