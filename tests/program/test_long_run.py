"""Many minutes of running, in a few seconds: charts fill up and scroll, and the memory stays what it was."""

from __future__ import annotations

import re
from collections.abc import Callable
from contextlib import ExitStack
from pathlib import Path

from chart_pixels import Chart
from displays import XDisplay, wait_until
from fakemachine import Machine
from monitor import MARKER_COLOR, TIMEOUT, Monitor, Start

FACTOR = 100  # at which the program's time runs
WARM_UP, END = 200, 1000  # samples; until all texts have been shown once, and until the memory is looked at again
ALLOWED_GROWTH_KB = 64  # one of sixty bytes a sample would show


def samples(monitor: Monitor) -> int:
    """How often a sampling thread has slept, which it does once for each sample."""
    counts = [0]
    for task in Path(f"/proc/{monitor.pid}/task").iterdir():
        if int(task.name) != monitor.pid and (task / "comm").read_text() == "vantric\n":
            found = re.search(r"^voluntary_ctxt_switches:\s*(\d+)$", (task / "status").read_text(), re.MULTILINE)
            counts.append(int(found.group(1)))
    return max(counts)


def memory_kb(monitor: Monitor) -> int:
    """Memory of the program's own; pages of files and of the X server's pictures don't count."""
    text = Path(f"/proc/{monitor.pid}/status").read_text()
    return int(re.search(r"^RssAnon:\s*(\d+) kB$", text, re.MULTILINE).group(1))


def test_quarter_of_an_hour(x11: XDisplay, preloaded: Callable[[str], dict[str, str]], machines: ExitStack,
                            start: Start, tmp_path: Path) -> None:
    machine = machines.enter_context(Machine({"clusters": [{"cores": 8}]}, speed=FACTOR, interval=0.8 / FACTOR))
    monitor = start(x11, machine, env={**preloaded("time_lapse"), "TIME_LAPSE": str(FACTOR)})
    card = monitor.content().cards[0]
    wait_until(lambda: samples(monitor) >= WARM_UP, TIMEOUT, f"{WARM_UP} samples")
    before = memory_kb(monitor)
    wait_until(lambda: samples(monitor) >= END, 2 * TIMEOUT, f"{END} samples")
    grown = memory_kb(monitor) - before
    assert grown <= ALLOWED_GROWTH_KB, f"{grown} kB more after {END - WARM_UP} samples"
    chart = Chart(monitor.picture(tmp_path / "window.png"), card.chart, MARKER_COLOR)
    assert chart.fills_whole_width()
