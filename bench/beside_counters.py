"""What the kernel counts of a process and of the whole computer, and what that comes to in a second."""

from __future__ import annotations

import os
import re
import signal
import subprocess
import time
from collections.abc import Mapping
from dataclasses import dataclass
from pathlib import Path

from displays import wait_until

MS_PER_SECOND = 1000.0
NS_PER_SECOND = 1e9
ATTACH_TIMEOUT = 30.0  # seconds
PROCESS_CLOCK = 2  # of the kernel's numbers for the clocks of other processes: the CPU time of all threads, in nanoseconds
CALLS_COLUMN = 3  # in the tracer's summary
REST_SECONDS, REST_CPU, REST_TIMEOUT = 0.1, 0.001, 10.0  # who takes no more CPU time than that in so long rests


@dataclass(frozen=True)
class Counters:
    """What a process has used since its start."""
    at: float  # monotonic seconds
    cpu: float  # seconds
    main_cpu: float  # seconds, of the first thread
    wakeups: int
    threads: int

    @staticmethod
    def of(pid: int) -> Counters:
        statuses = [file.read_text() for file in Path(f"/proc/{pid}/task").glob("*/status")]
        main_cpu = int(Path(f"/proc/{pid}/task/{pid}/schedstat").read_text().split()[0]) / NS_PER_SECOND
        return Counters(time.monotonic(), cpu_seconds(pid), main_cpu, sum(_number("voluntary_ctxt_switches", text) for text in statuses),
                        len(statuses))

    def rates_since(self, before: Counters) -> tuple[float, float]:
        """CPU time in ms, and wake-ups, of a second."""
        return (self.cpu - before.cpu) * MS_PER_SECOND / self._since(before), (self.wakeups - before.wakeups) / self._since(before)

    def main_rate_since(self, before: Counters) -> float:
        """CPU time of the first thread in ms a second."""
        return (self.main_cpu - before.main_cpu) * MS_PER_SECOND / self._since(before)

    def _since(self, before: Counters) -> float:
        return self.at - before.at


def cpu_seconds(pid: int) -> float:
    """The CPU time of a process, of ended threads too."""
    return time.clock_gettime(~pid << 3 | PROCESS_CLOCK)


def cpu_seconds_at_rest(pid: int) -> float:
    """The same, once it has done what it had to do and rests."""
    deadline = time.monotonic() + REST_TIMEOUT
    before, now = 0.0, cpu_seconds(pid)
    while now - before > REST_CPU and time.monotonic() < deadline:
        time.sleep(REST_SECONDS)
        before, now = now, cpu_seconds(pid)
    return now


def memory(pid: int) -> tuple[int, int]:
    """Memory in kB: what the process has written to and shares with nobody, and all that it has in use."""
    text = Path(f"/proc/{pid}/smaps_rollup").read_text()
    return _number("Private_Dirty", text), _number("Rss", text)


def _number(name: str, text: str) -> int:
    found = re.search(rf"^{name}:\s*(\d+)", text, re.MULTILINE)
    if found is None:
        raise ValueError(f"no {name} in {text!r}")
    return int(found[1])


class OthersLoad:
    """How many CPUs of the computer are busy with what is none of ours: neither this process nor any that came of it."""

    def __init__(self) -> None:
        self._at, self._others = time.monotonic(), _busy_seconds() - _own_seconds()

    def so_far(self) -> float:
        seconds = time.monotonic() - self._at
        return max(0.0, _busy_seconds() - _own_seconds() - self._others) / seconds


def _busy_seconds() -> float:
    """CPU time of all processes; what a hypervisor keeps away counts, as whoever has it is at work beside us."""
    user, nice, system, _, _, irq, softirq, steal = map(int, Path("/proc/stat").read_text().split("\n")[0].split()[1:9])
    return (user + nice + system + irq + softirq + steal) / os.sysconf("SC_CLK_TCK")


def _own_seconds() -> float:
    """CPU time of this process and of its descendants, dead ones too as far as their parents know of them."""
    fields = dict(filter(None, map(_parent_and_ticks, Path("/proc").glob("[0-9]*"))))
    ours: dict[int, bool] = {os.getpid(): True, 0: False}

    def is_ours(pid: int) -> bool:
        if pid not in ours:
            ours[pid] = pid in fields and is_ours(fields[pid][0])
        return ours[pid]
    return sum(ticks for pid, (_, ticks) in fields.items() if is_ours(pid)) / os.sysconf("SC_CLK_TCK")


def _parent_and_ticks(folder: Path) -> tuple[int, tuple[int, int]] | None:
    """A process with its parent and its CPU time, that of ended children included; none if it has just gone."""
    try:
        words = (folder / "stat").read_text().rpartition(")")[2].split()
    except OSError:
        return None
    return int(folder.name), (int(words[1]), sum(map(int, words[11:15])))


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
