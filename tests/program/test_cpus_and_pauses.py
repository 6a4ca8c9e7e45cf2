"""CPUs taken away and brought back under load, signals in storms, and pauses as long as a suspend: the values are right again after them.

VANTRIC_PAUSE_SECONDS is how long a pause is, VANTRIC_HOTPLUG_ROUNDS how often CPUs are switched at random.
"""

from __future__ import annotations

import ctypes
import math
import os
import random
import signal
import struct
import time
from contextlib import ExitStack
from pathlib import Path
from typing import Self

from displays import XDisplay, wait_until
from fakemachine import Machine
from kernel_readings import EnergyHistory, FileHistory, KernelReadings
from monitor import TIMEOUT, Monitor, Start
from settings_dialog import while_it_changes
from shown_values import Shown, look, throttle_figure, watts_of

PAUSE_SECONDS = float(os.environ.get("VANTRIC_PAUSE_SECONDS", "5"))
ROUNDS = int(os.environ.get("VANTRIC_HOTPLUG_ROUNDS", "1"))
SAMPLE_SECONDS, PASS_SECONDS = 1, 2  # between two readings of the loads, and of all else; at least
WATTS = 40
LOADS = [10, 20, 30, 40, 60, 70, 80, 90]
OTHER_LOADS = [95, 85, 75, 55, 45, 35, 25, 15]


def machine_of(loads: list[int]) -> dict:
    return {"clusters": [{"cores": len(loads), "mhz": [1000, 4000]}], "zones": [{"type": "x86_pkg_temp", "celsius": 55}],
            "energy": {"watts": WATTS}, "memory": {"total_gib": 16, "used_gib": 5}, "load": {"kind": "steady", "percent": loads}}


def look_at(monitor: Monitor) -> Shown:
    return look(monitor.bus, monitor.root)


def wait_for_loads(monitor: Monitor, machine: Machine, loads: list[int], when: str) -> None:
    """Waits until the cards show these loads, nothing behind them, and the throttle figure is that of the CPUs that tell their clock."""
    seen: list[Shown] = []
    kernel = KernelReadings(machine)
    expected = texts(loads + [0] * (len(LOADS) - len(loads)))
    throttle = ""

    def shown() -> bool:
        nonlocal throttle
        throttle = throttle_figure(kernel, [load / 100 for load in loads]) if kernel.clocks else ""
        seen[:] = [look_at(monitor)]
        return (seen[0].percentages, seen[0].throttle) == (expected, throttle)
    try:
        wait_until(while_it_changes(shown), TIMEOUT, "")
    except AssertionError as error:
        raise AssertionError(f"{when}: {seen} is shown, expected {expected} and {throttle}") from error


# --- CPUs ---

def test_many_cpus_go_away_at_once(x11: XDisplay, machines: ExitStack, start: Start) -> None:
    seed = random.randrange(10**6)
    print(f"seed {seed}")
    choices = random.Random(seed)
    numbers = list(range(len(LOADS)))
    # The lowest, the highest, all but the one, all but the other, and by chance
    sets = [[0], [7], numbers[1:], numbers[:-1], *(choices.sample(numbers, choices.randrange(1, 8)) for _ in range(ROUNDS))]
    running: list[tuple[Machine, Monitor, list[int]]] = []
    for gone in sets:
        machine = machines.enter_context(Machine(machine_of(LOADS)))
        running.append((machine, start(x11, machine), gone))
        # One after the other: where many start at once, one may wait longer for the session bus than it does, and then can't be read
        running[-1][1].content()
    for machine, monitor, gone in running:
        wait_for_loads(monitor, machine, LOADS, "at first")
        for number in gone:
            machine.cpu_offline(number)
    for machine, monitor, gone in running:
        wait_for_loads(monitor, machine, [load for number, load in enumerate(LOADS) if number not in gone], f"without {gone}")
        for number in choices.sample(gone, len(gone)):
            machine.cpu_online(number)
    for machine, monitor, gone in running:
        wait_for_loads(monitor, machine, LOADS, f"with {gone} again")


# --- signals and pauses ---

class Readings:
    """Counts how often the program opens the machine's files from now on.

    The kernel makes one event of equal ones in a row, so the closings in between are listened to as well.
    """

    IN_CLOSE_NOWRITE, IN_OPEN = 0x10, 0x20
    EVENT = struct.Struct("iIII")

    def __init__(self, machine: Machine) -> None:
        self._folder = machine.outside("/proc")
        self._library = ctypes.CDLL(None, use_errno=True)
        self._names: list[str] = []

    def __enter__(self) -> Self:
        self._fd = self._library.inotify_init1(os.O_NONBLOCK)
        added = self._library.inotify_add_watch(self._fd, os.fsencode(self._folder), self.IN_OPEN | self.IN_CLOSE_NOWRITE)
        assert self._fd >= 0 and added >= 0, os.strerror(ctypes.get_errno())
        return self

    def __exit__(self, *_: object) -> None:
        os.close(self._fd)

    def names(self) -> list[str]:
        """The files that have been opened since the last question, one after the other."""
        self._listen()
        names, self._names = self._names, []
        return names

    def has_read_loads(self) -> bool:
        """Whether there has been a reading of the loads since the last question for names."""
        self._listen()
        return "stat" in self._names

    def _listen(self) -> None:
        try:
            while data := os.read(self._fd, 65536):
                while data:
                    _, what, _, length = self.EVENT.unpack_from(data)
                    if what & self.IN_OPEN:
                        self._names.append(data[self.EVENT.size:self.EVENT.size + length].rstrip(b"\0").decode())
                    data = data[self.EVENT.size + length:]
        except BlockingIOError:
            return

    def check_no_more_than(self, seconds: float) -> None:
        """No more readings than there can have been in that time: nothing has been made up for."""
        names = self.names()
        assert 1 <= names.count("stat") <= seconds / SAMPLE_SECONDS + 2, (names, seconds)
        assert names.count("meminfo") <= seconds / PASS_SECONDS + 2, (names, seconds)


def wait_for_power(monitor: Monitor) -> None:
    """Waits until the figure is no more that of the first pass, which begins before the machine moves."""
    wait_until(while_it_changes(lambda: is_about_right(watts_of(look_at(monitor).status) or 0)), TIMEOUT, f"{WATTS} W")


def is_about_right(watts: float) -> bool:
    return abs(watts - WATTS) < WATTS / 4


def is_stopped(monitor: Monitor) -> bool:
    stats = [stat.read_text() for stat in Path(f"/proc/{monitor.pid}/task").glob("*/stat")]
    return all(stat.rpartition(")")[2].split()[0] == "T" for stat in stats)


def send_storm(monitor: Monitor) -> None:
    for number in (signal.SIGCONT, signal.SIGWINCH, signal.SIGCHLD, signal.SIGURG):
        for _ in range(1000):
            monitor.send(number)
    for stop in (signal.SIGSTOP, signal.SIGTSTP):
        for _ in range(100):
            monitor.send(stop)
            monitor.send(signal.SIGCONT)


def test_storm_of_signals_and_a_pause(x11: XDisplay, machines: ExitStack, start: Start) -> None:
    machine = machines.enter_context(Machine(machine_of(LOADS)))
    energy = EnergyHistory(machine)
    monitor = start(x11, machine)
    wait_for_loads(monitor, machine, LOADS, "at first")
    wait_for_power(monitor)
    stat = FileHistory(machine, "/proc/stat")
    with Readings(machine) as readings:
        begin = time.monotonic()
        send_storm(monitor)
        wait_for_loads(monitor, machine, LOADS, "after the storm")
        wait_until(readings.has_read_loads, TIMEOUT, "a reading")
        readings.check_no_more_than(time.monotonic() - begin)

        monitor.send(signal.SIGSTOP)
        wait_until(lambda: is_stopped(monitor), TIMEOUT, "the stop of all threads")
        machine.set_load("steady", OTHER_LOADS)
        readings.names()
        pause_ends = time.monotonic() + PAUSE_SECONDS
        wait_until(lambda: time.monotonic() > pause_ends, PAUSE_SECONDS + TIMEOUT, "the end of the pause")
        assert readings.names() == []
        begin = time.monotonic()
        monitor.send(signal.SIGCONT)
        seen, powers = states_until(monitor, OTHER_LOADS)
        readings.check_no_more_than(time.monotonic() - begin)
    # Between those of before and those of now there is one reading, which spans the pause and so lies between the two. On a busy computer
    # the machine may stand still from one reading to the next: then there was nothing to do.
    nothing = texts([0] * len(LOADS))
    assert nothing not in seen or stat.has_stood_still(SAMPLE_SECONDS), seen
    between = [state for state in seen if state not in (texts(LOADS), texts(OTHER_LOADS), nothing)]
    print(f"{PAUSE_SECONDS:g} s: {between} between, powers {set(powers)}")
    assert len(between) <= 1, seen
    for state in between:
        for text, old, new in zip(state, LOADS, OTHER_LOADS):
            assert min(old, new) <= int(text.rstrip("%")) <= max(old, new), seen
    # A pass that spans the pause lasts as long.
    assert not [power for power in set(powers) if power is not None and not energy.explains(power, math.inf)], powers
    wait_for_loads(monitor, machine, OTHER_LOADS, "with the clocks of now")
    wait_for_power(monitor)
    monitor.send(signal.SIGTERM)
    monitor.assert_clean_end()


def texts(loads: list[int]) -> list[str]:
    return [f"{load}%" for load in loads]


def states_until(monitor: Monitor, loads: list[int]) -> tuple[list[list[str]], list[float | None]]:
    """All that the cards and the power show, up to these loads."""
    seen: list[list[str]] = []
    powers: list[float | None] = []
    cards = monitor.content().cards

    def is_right() -> bool:
        powers.append(watts_of(look_at(monitor).status))
        shown = monitor.percentages(cards)
        if shown not in seen:
            seen.append(shown)
        return shown == texts(loads)
    wait_until(is_right, TIMEOUT, f"{loads}")
    return seen, powers
