"""Keeps the processes visible in a made-up /proc: a link /proc/N to the real one for every process.

The leak sanitizer and ps look a process up by its number, and tests start programs through shells and session buses,
so that nobody can name the numbers beforehand. The kernel hands them out in rising order, though: the links run some
way ahead of the last number given, and those of ended processes are removed now and then.
"""

from __future__ import annotations

import contextlib
import os
import threading
import time
from pathlib import Path

AHEAD = 256  # numbers; more than a busy machine hands out between two looks, and if it was more they are made up for
MOST_MISSED = 10_000  # numbers; with more between two looks they have come round, or nobody has looked for long
LOOK_SECONDS = 0.1
CLEAN_SECONDS = 10.0
FIRST_AFTER_WRAP = 300  # the kernel keeps the numbers below for its start


class ProcessLinks:
    """The links in the folder of one machine, kept up by a thread of its own."""

    def __init__(self, proc: Path, real_proc: Path) -> None:
        self._proc, self._real_proc = str(proc), str(real_proc)
        self._made: set[int] = set()
        self._last = 0
        self._limit = int(Path("/proc/sys/kernel/pid_max").read_text())
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._run, name="process-links", daemon=True)

    def start(self) -> None:
        """Makes the first links, before any program runs, and goes on from there."""
        for number in running():
            self._link(number)
        self.look(last_number())
        self._thread.start()

    def stop(self) -> None:
        """Ends the thread."""
        self._stop.set()
        self._thread.join()

    def look(self, last: int) -> None:
        """Makes the links ahead of the last number given, and those to all that have been given since the last look."""
        if last == self._last:
            return
        first = self._last if 0 < last - self._last < MOST_MISSED else last
        self._last = last
        for number in range(first, last + AHEAD):
            self._link(self._wrapped(number))

    def clean(self, last: int) -> None:
        """Removes the links of processes that have ended."""
        ahead = {self._wrapped(number) for number in range(last, last + AHEAD)}
        for number in self._made - ahead - running():
            self._made.discard(number)
            with contextlib.suppress(FileNotFoundError):
                os.unlink(f"{self._proc}/{number}")

    def _wrapped(self, number: int) -> int:
        return number if number < self._limit else number - self._limit + FIRST_AFTER_WRAP

    def _link(self, number: int) -> None:
        if number not in self._made:
            self._made.add(number)
            with contextlib.suppress(FileExistsError):
                os.symlink(f"{self._real_proc}/{number}", f"{self._proc}/{number}")

    def _run(self) -> None:
        cleaned = time.monotonic()
        while not self._stop.wait(LOOK_SECONDS):
            last = last_number()
            self.look(last)
            if time.monotonic() - cleaned > CLEAN_SECONDS:
                self.clean(last)
                cleaned = time.monotonic()


def last_number() -> int:
    """The number of the youngest process."""
    return int(Path("/proc/loadavg").read_text().split()[-1])


def running() -> set[int]:
    """The numbers of all processes."""
    return {int(name) for name in os.listdir("/proc") if name.isdigit()}
