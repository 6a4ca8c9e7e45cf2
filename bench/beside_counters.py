"""What the kernel counts of a process, and what that comes to in a second."""

from __future__ import annotations

import re
import signal
import subprocess
import time
from collections.abc import Mapping
from dataclasses import dataclass
from pathlib import Path

from displays import wait_until

MS_PER_SECOND = 1000.0
ATTACH_TIMEOUT = 30.0  # seconds
PROCESS_CLOCK = 2  # of the kernel's numbers for the clocks of other processes: the CPU time of all threads, in nanoseconds
CALLS_COLUMN = 3  # in the tracer's summary


@dataclass(frozen=True)
class Counters:
    """What a process has used since its start."""
    at: float  # monotonic seconds
    cpu: float  # seconds
    wakeups: int
    threads: int

    @staticmethod
    def of(pid: int) -> Counters:
        statuses = [file.read_text() for file in Path(f"/proc/{pid}/task").glob("*/status")]
        return Counters(time.monotonic(), cpu_seconds(pid), sum(_number("voluntary_ctxt_switches", text) for text in statuses),
                        len(statuses))

    def rates_since(self, before: Counters) -> tuple[float, float]:
        """CPU time in ms, and wake-ups, of a second."""
        seconds = self.at - before.at
        return (self.cpu - before.cpu) * MS_PER_SECOND / seconds, (self.wakeups - before.wakeups) / seconds


def cpu_seconds(pid: int) -> float:
    """The CPU time of a process, of ended threads too."""
    return time.clock_gettime(~pid << 3 | PROCESS_CLOCK)


def memory(pid: int) -> tuple[int, int]:
    """Private memory and resident memory in kB."""
    text = Path(f"/proc/{pid}/smaps_rollup").read_text()
    return _number("Private_Clean", text) + _number("Private_Dirty", text), _number("Rss", text)


def _number(name: str, text: str) -> int:
    found = re.search(rf"^{name}:\s*(\d+)", text, re.MULTILINE)
    if found is None:
        raise ValueError(f"no {name} in {text!r}")
    return int(found[1])


class CallCounter:
    """Counts the system calls of a process by a tracer, which slows it down: nothing else can be measured meanwhile."""

    def __init__(self, pid: int, folder: Path) -> None:
        self._summary, self._words = folder / f"calls-{pid}", folder / f"calls-{pid}.log"
        with open(self._words, "wb") as words:
            self._tracer = subprocess.Popen(["strace", "-f", "-c", "-o", str(self._summary), "-p", str(pid)],
                                            stdin=subprocess.DEVNULL, stderr=words)
        wait_until(lambda: "attached" in self._words.read_text(), ATTACH_TIMEOUT, f"the tracer of process {pid}")
        self._since = time.monotonic()

    def rate(self) -> float:
        """Ends the count; calls a second."""
        seconds = time.monotonic() - self._since
        self._tracer.send_signal(signal.SIGINT)
        self._tracer.wait(ATTACH_TIMEOUT)
        return calls_in(self._summary.read_text()) / seconds


def calls_in(summary: str) -> int:
    """All calls of the tracer's table; there is none where nothing was called."""
    rows = [line.split() for line in summary.splitlines()]
    return sum(int(row[CALLS_COLUMN]) for row in rows if re.fullmatch(r"[\d.]+", (row or [""])[0]) and row[-1] != "total")


def call_rates(pids: Mapping[str, int], seconds: float, folder: Path) -> dict[str, float]:
    """System calls a second of all these processes, counted at the same time."""
    counters = {name: CallCounter(pid, folder) for name, pid in pids.items()}
    time.sleep(seconds)
    return {name: counter.rate() for name, counter in counters.items()}
