"""Where the programs are measured: one moving machine that all of one size see, and a display with a window manager for each."""

from __future__ import annotations

import json
import signal
import struct
import subprocess
import time
from collections.abc import Mapping, Sequence
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Self

from display_process import processes_with
from display_xwire import SUBSTRUCTURE_NOTIFY_MASK, XWire
from display_x11 import run_tool
from displays import DisplayError, WaitTimeout, XDisplay, wait_until
from fakemachine import Machine, Program as Inside

from beside_counters import cpu_seconds, cpu_seconds_at_rest
from beside_programs import Folders, Program, Shape

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


@dataclass(frozen=True)
class Start:
    """What a start has taken, in seconds: until the window is there, and CPU time until the program rests after that."""
    until_window: float
    cpu: float


class Place:
    """Where one program runs: its display, on which another GTK program has already been, as on every desktop, and a home with its
    configuration. A context manager."""

    def __init__(self, program: Program, shape: Shape, ours: Folders, machine: Machine, screen: tuple[int, int]) -> None:
        self.program, self._machine = program, machine
        self._ours, self._shape = ours, shape
        self._running: Inside | None = None
        self.display = XDisplay(*screen)

    def __enter__(self) -> Self:
        self.display.__enter__()
        try:
            self._log = self.display.folder / "output"
            self.server = self._find_server()
            if self.program.has_window:
                self._start([str(self._ours.floors / "empty_window"), "100", "100"], with_window=True)
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

    def start(self) -> None:
        """Starts the program, and waits for its window if it has one."""
        self._start(self.program.command(self._ours, self._shape), self.program.has_window)

    def measured_start(self) -> Start:
        """Starts a program that has a window, and ends it."""
        started, cpu = self._start(self.program.command(self._ours, self._shape), with_window=True)
        until_window = time.monotonic() - started
        cpu_later = cpu_seconds_at_rest(self.pid)
        self.end(signal.SIGKILL)
        return Start(until_window, cpu_later - cpu)

    def end(self, by: signal.Signals = signal.SIGTERM) -> None:
        """Ends the program, if it runs."""
        if self._running is None:
            return
        self.go_on()
        self._running.send_signal(by)
        try:
            self._running.wait(END_TIMEOUT)
        except subprocess.TimeoutExpired:
            pass  # not every program listens
        self._running.end()
        self._running = None

    def hold(self) -> None:
        """Stops the program where it is, so that it disturbs nobody."""
        assert self._running is not None
        self._running.send_signal(signal.SIGSTOP)

    def go_on(self) -> None:
        assert self._running is not None
        self._running.send_signal(signal.SIGCONT)

    def minimise(self) -> None:
        """Puts the monitor's window away, as its user can."""
        window = self.display.windows("Vantric", self.pid)[0]
        run_tool(["xdotool", "windowminimize", str(window)], self.display.env)
        wait_until(lambda: "_NET_WM_STATE_HIDDEN" in self.display.states(window), TIMEOUT, "a minimised window")

    def assert_running(self) -> None:
        assert self._running is not None
        if self._running.poll() is not None:
            last_words = self._log.read_text(errors="replace")[-2000:]
            raise DisplayError(f"{self.program.name} has ended with {self._running.poll()}\n{last_words}")

    def _start(self, command: Sequence[str], with_window: bool) -> tuple[float, float]:
        """Monotonic time and the process's CPU time when the program began to run; its window is there by now."""
        self.display.catch_up()
        watch = FirstWindow(self.display.number) if with_window else None
        try:
            with open(self._log, "wb") as log:
                self._running = self._machine.popen([*_clean_environment(self.display.env), *command],
                                                    stdin=subprocess.DEVNULL, stdout=log, stderr=log)
            began = time.monotonic(), cpu_seconds(self.pid)  # it stood at the gate of its machine until a moment ago
            if watch:
                watch.wait(TIMEOUT)
            return began
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

    def wait(self, timeout: float) -> None:
        deadline = time.monotonic() + timeout
        while self._wire.wait_for_message(max(0.0, deadline - time.monotonic())):
            message = self._wire.next_message()
            (parent,) = struct.unpack_from("<I", message, 4)
            if message[0] == MAP_NOTIFY and parent == self._wire.root:
                return
        raise WaitTimeout(f"waited {timeout:g} s in vain for a window")

    def close(self) -> None:
        self._wire.close()


def _clean_environment(variables: Mapping[str, str]) -> list[str]:
    return ["env", "-i", *(f"{name}={value}" for name, value in variables.items())]
