"""Where the programs are measured: one moving machine that all of them see, and a display with a window manager for each."""

from __future__ import annotations

import json
import signal
import struct
import subprocess
import time
from collections.abc import Mapping, Sequence
from pathlib import Path
from typing import Any, Self

from display_process import processes_with
from display_xwire import SUBSTRUCTURE_NOTIFY_MASK, XWire
from displays import DisplayError, WaitTimeout, XDisplay, wait_until
from fakemachine import Machine, Program as Inside

from beside_programs import Program, Shape

MACHINES = Path(__file__).resolve().parent / "machines"
THREADS_PER_CORE = 2
TIMEOUT = 60.0  # seconds; a deadline for a busy computer, not an expectation
END_TIMEOUT = 5.0
MAP_NOTIFY = 19  # of the X protocol

# Read by some of the peers, which complain each time or end without them; their content matters to nobody here.
FILES_OF_PEERS = ("/proc/vmstat", "/proc/uptime", "/proc/loadavg", "/proc/net/dev")
MEMORY_OF_PEERS = "Slab:                  0 kB\n"


class CommonMachine(Machine):
    """A machine whose /proc/stat stays the same file, as the kernel's does: there are programs that open it once and then read it again
    and again. The counters only grow and so does the text, which one write replaces as a whole."""

    def publish(self, file: Path, text: str) -> None:
        if file.name == "stat":
            with self.changing(), open(file, "r+b", buffering=0) as stat:
                stat.write(text.encode())
        else:
            super().publish(file, text + MEMORY_OF_PEERS if file.name == "meminfo" else text)


def make_machine(cpus: int) -> CommonMachine:
    """A machine with all sensors that there are and this many CPUs, under a load that moves."""
    description: dict[str, Any] = json.loads((MACHINES / "all-sources-16.json").read_text())
    (cluster,) = description["clusters"]
    cluster["cores"] = max(1, cpus // THREADS_PER_CORE)
    description["files"] = {path: Path(path).read_text() for path in FILES_OF_PEERS}
    return CommonMachine(description)


class Place:
    """Where one program runs: its display, on which another GTK program has already been, as on every desktop, and a home with its
    configuration. A context manager."""

    def __init__(self, program: Program, shape: Shape, build: Path, machine: Machine, screen: tuple[int, int]) -> None:
        self.program, self._machine = program, machine
        self._build, self._shape = build, shape
        self._running: Inside | None = None
        self.display = XDisplay(*screen)

    def __enter__(self) -> Self:
        self.display.__enter__()
        try:
            self._log = self.display.folder / "output"
            self.server = self._find_server()
            if self.program.has_window:
                self._start([str(self._build / "empty_window"), "100", "100"], with_window=True)
                self.end()
            self.program.prepare(self.display, self._shape)
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_: object) -> None:
        self.end()
        self.display.stop()

    @property
    def pid(self) -> int:
        assert self._running is not None
        return self._running.program_pid

    def start(self) -> float | None:
        """Starts the program; the seconds until its window is there, None for a program without one."""
        return self._start(self.program.command(self._build, self._shape), self.program.has_window)

    def end(self) -> None:
        """Ends the program, if it runs."""
        if self._running is None:
            return
        self._running.send_signal(signal.SIGTERM)
        try:
            self._running.wait(END_TIMEOUT)
        except subprocess.TimeoutExpired:
            pass  # not every program listens
        self._running.end()
        self._running = None

    def assert_running(self) -> None:
        assert self._running is not None
        if self._running.poll() is not None:
            last_words = self._log.read_text(errors="replace")[-2000:]
            raise DisplayError(f"{self.program.name} has ended with {self._running.poll()}\n{last_words}")

    def _start(self, command: Sequence[str], with_window: bool) -> float | None:
        watch = FirstWindow(self.display.number) if with_window else None
        try:
            with open(self._log, "wb") as log:
                self._running = self._machine.popen([*_clean_environment(self.display.env), *command],
                                                    stdin=subprocess.DEVNULL, stdout=log, stderr=log)
            started = time.monotonic()  # it stood at the gate of its machine until a moment ago
            return watch.wait(TIMEOUT) - started if watch else None
        except WaitTimeout:
            self.assert_running()
            raise
        finally:
            if watch:
                watch.close()

    def _find_server(self) -> int:
        def servers() -> list[int]:
            ours = processes_with("XDG_RUNTIME_DIR", str(self.display.runtime_dir))
            return [pid for pid in ours if Path(f"/proc/{pid}/comm").read_text().strip() == "Xvfb"]
        return wait_until(servers, TIMEOUT, "the X server among the processes")[0]


class FirstWindow:
    """Sees the first window that the window manager puts on the screen from now on, in its frame."""

    def __init__(self, display: int) -> None:
        self._wire = XWire(display)
        self._wire.select_events(self._wire.root, SUBSTRUCTURE_NOTIFY_MASK)
        self._wire.ask_for_sign()
        self._wire.next_message()  # the server has got here

    def wait(self, timeout: float) -> float:
        """When it came, in monotonic time."""
        deadline = time.monotonic() + timeout
        while self._wire.wait_for_message(max(0.0, deadline - time.monotonic())):
            message = self._wire.next_message()
            (parent,) = struct.unpack_from("<I", message, 4)
            if message[0] == MAP_NOTIFY and parent == self._wire.root:
                return time.monotonic()
        raise WaitTimeout(f"waited {timeout:g} s in vain for a window")

    def close(self) -> None:
        self._wire.close()


def _clean_environment(variables: Mapping[str, str]) -> list[str]:
    return ["env", "-i", *(f"{name}={value}" for name, value in variables.items())]
