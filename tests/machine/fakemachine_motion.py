"""What moves in a made-up machine: loads, clocks, temperatures, counters, and the events of a timeline.

The models know no files; the driver puts their values down a few times a second from a thread of its own. It must
cost little, as benchmarks run beside it: the CPUs share a limited number of courses of load, and the clocks are
rewritten a few at a time.
"""

from __future__ import annotations

import dataclasses
import math
import threading
import time
from collections.abc import Callable, Iterator, Mapping, Sequence
from dataclasses import dataclass, field
from pathlib import Path
from typing import TYPE_CHECKING, Any

import fakemachine_layout as layout
from fakemachine_layout import CPU_FOLDER, DescriptionError, Load
from fakemachine_tree import MachineError

if TYPE_CHECKING:
    from fakemachine import Machine

TICKS_PER_SECOND = 100  # USER_HZ of every architecture we know
FULL = 100_000  # a load of one, in the whole numbers that keep steady loads exact
MANY_CPUS = 128  # with more, CPUs that are COURSES apart have the same load
COURSES = 64
UPDATE_SECONDS = 0.1
CLOCKS_PER_UPDATE = 8  # 16 CPUs are rewritten five times a second, 1024 every 13 seconds
SENSOR_SECONDS = 0.5
MEMORY_SECONDS = 1.0
ROUNDING = 1e-6  # ticks; 0.29 s must not be 28 of them
WARMING_SECONDS = 5.0  # time constant of the temperature behind the load
LOAD_KINDS = ("waves", "idle", "full", "steady", "frozen")

Course = Callable[[float], int]  # seconds to a load of 0 to FULL


# --- load ---

class Counter:
    """The columns of a CPU line: user, nice, system, idle, iowait, irq, softirq, steal."""

    # Of the busy time; the rest is user. Steal only on virtual machines.
    _NICE, _SYSTEM, _IRQ, _SOFTIRQ, _STEAL = 0.02, 0.2, 0.01, 0.02, 0.03
    _IOWAIT = 0.02  # of the idle time

    def __init__(self, first: int, virtual: bool) -> None:
        # As after some hours, and different from CPU to CPU, so that a mixed-up pair of lines shows.
        self.columns = [50_000 + 10 * first, 900 + first, 20_000 + first, 900_000 + 100 * first, 3000, 500, 800, 0]
        self._shares = (self._NICE, self._SYSTEM, self._IRQ, self._SOFTIRQ, self._STEAL if virtual else 0.0)
        self._rests = [0.0] * 6
        self._busy_rest = 0

    def add(self, ticks: int, load: int) -> None:
        """Lets time pass. No column ever goes back, and the busy ones together are exact."""
        busy, self._busy_rest = divmod(ticks * load + self._busy_rest, FULL)
        idle = ticks - busy
        iowait = self._part(5, idle, self._IOWAIT, idle)
        left = busy
        for place, column in enumerate((1, 2, 5, 6, 7)):
            part = self._part(place, busy, self._shares[place], left)
            self.columns[column] += part
            left -= part
        self.columns[0] += left
        self.columns[3] += idle - iowait
        self.columns[4] += iowait

    def _part(self, place: int, amount: int, share: float, limit: int) -> int:
        self._rests[place] += amount * share
        part = min(int(self._rests[place]), limit)
        self._rests[place] -= part
        return part


class Loads:
    """The loads of all CPUs and what /proc/stat counts of them."""

    def __init__(self, load: Load, count: int, virtual: bool) -> None:
        self._shared = count > MANY_CPUS
        self._number = COURSES if self._shared else count
        self._counters = [Counter(i, virtual) for i in range(self._number)]
        self._loads = [0] * self._number
        self.set(load, 0.0)

    def set(self, load: Load, now: float) -> None:
        """Another kind of load from now on; the counters go on from where they are."""
        self._courses = courses(load, self._number, self._shared)
        self.frozen = load.kind == "frozen"
        self._since, self._counted = now, 0
        self._quantum, self._rate = _pace([course(0.0) for course in self._courses]) if load.kind == "steady" \
            else (1, TICKS_PER_SECOND)
        self._loads = [course(now) for course in self._courses]

    def advance(self, now: float) -> bool:
        """Counts up to `now`, in seconds; whether anything has changed."""
        if self.frozen:
            return False
        due = int((now - self._since) * self._rate + ROUNDING) // self._quantum * self._quantum
        ticks, self._counted = due - self._counted, due
        if ticks <= 0:
            return False
        for index, (course, counter) in enumerate(zip(self._courses, self._counters)):
            self._loads[index] = course(now)
            counter.add(ticks, self._loads[index])
        return True

    def load(self, cpu: int) -> float:
        """The load of a CPU at the last advance, 0 to 1."""
        return self._loads[cpu % self._number] / FULL if self._number else 0.0

    def mean(self, cpus: Sequence[int]) -> float:
        """The mean load of these CPUs."""
        return sum(self._loads[cpu % self._number] for cpu in cpus) / (FULL * len(cpus)) if cpus else 0.0

    def stat_text(self, cpus: Sequence[int]) -> str:
        """/proc/stat with a line for each of these CPUs."""
        tails = [" ".join(map(str, counter.columns)) + " 0 0\n" for counter in self._counters]
        users = [0] * self._number
        for cpu in cpus:
            users[cpu % self._number] += 1
        sums = [sum(n * c.columns[i] for n, c in zip(users, self._counters)) for i in range(8)]
        lines = [f"cpu{cpu} {tails[cpu % self._number]}" for cpu in cpus]
        return f"cpu  {' '.join(map(str, sums))} 0 0\n{''.join(lines)}{_STAT_END}"


_STAT_END = (
    "intr 81234567 33 0 0 0 0 0 0 1 0 0 0 0 4 0\n"
    "ctxt 214748364\n"
    "btime 1700000000\n"
    "processes 41234\n"
    "procs_running 2\n"
    "procs_blocked 0\n"
    "softirq 31234567 12 4123456 9 812345 0 0 71234 9123456 0 8123456\n"
)


def courses(load: Load, count: int, shared: bool = False) -> list[Course]:
    """The course of load of each CPU, or of each of the courses that many CPUs share."""
    if load.kind == "steady":
        return [_constant(percent) for percent in _percentages(load, count, shared)]
    if load.percent is not None:
        raise DescriptionError('percent belongs to the load "steady"')
    if load.kind == "waves":
        return [_wave(index) for index in range(count)]
    if load.kind == "idle":
        return [_doze(index) for index in range(count)]
    if load.kind in ("full", "frozen"):
        return [_constant(100 if load.kind == "full" else 0)] * count
    raise DescriptionError(f"unknown load {load.kind}; there are {', '.join(LOAD_KINDS)}")


def _percentages(load: Load, count: int, shared: bool) -> list[float]:
    given = load.percent
    if given is None:
        raise DescriptionError('the load "steady" needs percent')
    percents = list(given) if isinstance(given, Sequence) else [given]
    if not percents or any(not isinstance(p, int | float) or not 0 <= p <= 100 for p in percents):
        raise DescriptionError(f"percent is 0 to 100 or a list of such numbers, not {given}")
    if shared and COURSES % len(percents):
        raise DescriptionError(f"with more than {MANY_CPUS} CPUs a list of percent has a length that divides {COURSES}")
    return [percents[index % len(percents)] for index in range(count)]


def _constant(percent: float) -> Course:
    value = round(percent * FULL / 100)
    return lambda _: value


def _wave(index: int) -> Course:
    """A slow swing with a small quick one on it; neighbours differ in level, period and phase."""
    level = 0.15 + 0.55 * (index * 0.618 % 1.0)
    slow = 2 * math.pi / (9 + index * 7 % 23)
    phase = index * 2.4

    def course(now: float) -> int:
        load = level + 0.3 * math.sin(slow * now + phase) + 0.07 * math.sin(2.7 * now + 3 * phase)
        return round(FULL * min(1.0, max(0.01, load)))
    return course


def _doze(index: int) -> Course:
    return lambda now: round(FULL * 0.015 * (1 + math.sin(0.4 * now + index)))


def _pace(loads: Sequence[int]) -> tuple[int, int]:
    """Quantum and rate of the ticks by which any two readings give exactly these loads.

    A quantum is the least number of ticks of which each load is a whole number; only whole ones are published.
    The reader sees no pause as long as each update has one. Loads that aren't multiples of 10 % need larger quanta:
    then the counters run faster than 100 a second, which changes no ratio.
    """
    quantum = FULL // math.gcd(FULL, *loads)
    per_update = round(TICKS_PER_SECOND * UPDATE_SECONDS)
    return quantum, TICKS_PER_SECOND * math.ceil(quantum / per_update)


# --- other counters ---

@dataclass
class Heat:
    """How warm the machine is, 0 to 1: the load, smoothed."""

    share: float = 0.0
    _at: float = 0.0

    def follow(self, load: float, now: float) -> float:
        """The warmth after this load up to `now`."""
        self.share += (load - self.share) * -math.expm1((self._at - now) / WARMING_SECONDS)
        self._at = now
        return self.share


@dataclass
class EnergyCounter:
    """A counter of microjoules that starts again at its end."""

    energy: layout.Energy
    _spent: float = 0.0
    _at: float = 0.0

    def follow(self, load: float, now: float) -> str:
        """The counter's text after this load up to `now`."""
        watts = layout.between(self.energy.watts, load)
        if isinstance(watts, str):
            raise DescriptionError("watts is a number or two; odd texts go to files")
        self._spent += watts * (now - self._at) * 1e6
        self._at = now
        return f"{(self.energy.start_uj + int(self._spent)) % self.energy.max_uj}\n"


# --- timeline ---

@dataclass(frozen=True)
class Event:
    """What happens at one moment of a timeline. Fields are done in the order in which they stand here."""

    at: float  # seconds since the program's start
    write: Mapping[str, str] = field(default_factory=dict)
    remove: Sequence[str] = ()
    directory: Sequence[str] = ()
    fifo: Sequence[str] = ()
    slow: Mapping[str, Sequence[Any]] = field(default_factory=dict)  # path to text and seconds
    release: Sequence[str] = ()
    unreadable: Sequence[str] = ()
    failing: Sequence[str] = ()
    loop: Sequence[str] = ()
    offline: Sequence[int] = ()
    online: Sequence[int] = ()
    hand_back: Sequence[str] = ()
    load: Any = None


def events_of(timeline: Sequence[Mapping[str, Any]]) -> list[Event]:
    """The events in the order in which they happen."""
    known = {f.name for f in dataclasses.fields(Event)}
    for event in timeline:
        if not isinstance(event, Mapping) or not isinstance(event.get("at"), int | float):
            raise DescriptionError(f'an event is an object with "at" in seconds, not {event!r}')
        if set(event) - known:
            raise DescriptionError(f"an event has no field {', '.join(sorted(set(event) - known))}")
    return sorted((Event(**event) for event in timeline), key=lambda event: event.at)


# --- the driver ---

class Driver:
    """The thread that moves a machine. Time is the machine's: seconds since the start, times `speed`."""

    def __init__(self, machine: Machine, speed: float, interval: float) -> None:
        self._machine = machine
        self._speed, self._interval = speed, interval
        self._loads = machine.loads
        self._events = list(machine.events)
        self._heat = Heat(self._loads.mean(machine.online))
        description = machine.description
        self._energy = EnergyCounter(description.energy) if description.energy else None
        self.find_files()
        self._next_clock = 0
        self._throttled = 0
        self._next_sensors = self._next_memory = 0.0
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._run, name="fake-machine", daemon=True)
        self.errors: list[str] = []  # events that could not be done
        self.cpu_seconds = 0.0  # what the thread has cost
        self._start = time.monotonic()

    def find_files(self) -> None:
        """Looks up where the files to rewrite lie; again after an order has been set."""
        machine = self._machine
        energy = machine.description.energy
        self._energy_file = machine.movable(f"{layout.ENERGY_FOLDER}/energy_uj") if energy else None
        self._clocks = list(_clocks(machine))
        self._sensors = list(_sensors(machine))

    def start(self) -> None:
        """Starts the clock and the thread, if anything ever moves."""
        self._start = time.monotonic()
        self._thread.start()

    def stop(self) -> None:
        """Ends the movement; values stay as they are."""
        self._stop.set()
        self._thread.join()

    def set_load(self, load: Load) -> None:
        """Another kind of load from now on. Any thread."""
        with self._machine.changing():
            self._loads.set(load, self._now())

    def _now(self) -> float:
        return (time.monotonic() - self._start) * self._speed

    def _run(self) -> None:
        due = time.monotonic()
        while not self._stop.wait(max(0.0, self._wake(due) - time.monotonic())):
            now = self._now()
            self._do_events(now)
            if time.monotonic() >= due:
                due = max(due + self._interval, time.monotonic())
                with self._machine.changing():
                    self._move(now)
            self.cpu_seconds = time.thread_time()

    def _wake(self, due: float) -> float:
        """When the next thing happens, in monotonic time."""
        if not self._events:
            return due
        return min(due, self._start + self._events[0].at / self._speed)

    def _do_events(self, now: float) -> None:
        while self._events and self._events[0].at <= now:
            event = self._events.pop(0)
            try:
                self._machine.do(event)
            except (OSError, ValueError, TypeError, MachineError) as error:
                self.errors.append(f"event at {event.at} s: {error}")

    def _move(self, now: float) -> None:
        if self._loads.frozen:
            return
        if self._loads.advance(now):
            self._machine.publish_stat()
        mean = self._loads.mean(self._machine.online)
        self._move_clocks()
        self._heat.follow(mean, now)
        if self._energy and self._energy_file:
            self._machine.publish(self._energy_file, self._energy.follow(mean, now))
        self._throttle(now)
        if now >= self._next_sensors:
            self._next_sensors = now + SENSOR_SECONDS
            self._move_sensors()
        if now >= self._next_memory:
            self._next_memory = now + MEMORY_SECONDS
            self._move_memory(now)

    def _move_clocks(self) -> None:
        for _ in range(min(CLOCKS_PER_UPDATE, len(self._clocks))):
            file, members, (low, high) = self._clocks[self._next_clock]
            self._next_clock = (self._next_clock + 1) % len(self._clocks)
            share = max(self._loads.load(cpu) for cpu in members)
            self._machine.publish(file, f"{round((low + (high - low) * share) * layout.KHZ_PER_MHZ)}\n")

    def _move_sensors(self) -> None:
        for file, value in self._sensors:
            degrees = layout.between(value, self._heat.share)
            self._machine.publish(file, layout.scaled(degrees, layout.MILLIDEGREES_PER_DEGREE))

    def _move_memory(self, now: float) -> None:
        memory = self._machine.description.memory
        if memory and layout.moves(memory.used_gib):
            share = 0.5 - 0.5 * math.cos(now / 20)
            self._machine.publish(self._machine.folder / "proc/meminfo", layout.meminfo_text(memory, share))

    def _throttle(self, now: float) -> None:
        throttle = self._machine.description.throttle
        count = int(now / throttle.every) if throttle and throttle.every else 0
        if throttle and count > self._throttled:
            self._throttled = count
            for cpu in throttle.cpus:
                for name, _ in layout.throttle_files(throttle):
                    file = self._machine.folder / f"{CPU_FOLDER[1:]}/cpu{cpu}/{name}"
                    self._machine.publish(file, f"{throttle.start + count}\n")


def _clocks(machine: Machine) -> Iterator[tuple[Path, list[int], Sequence[float]]]:
    """The clock files, whose load they follow, and their range."""
    members: dict[int, list[int]] = {}
    for cpu in machine.cpus:
        if cpu.cluster.mhz:
            members.setdefault(cpu.policy, []).append(cpu.number)
    for policy, numbers in members.items():
        file = machine.movable(f"{CPU_FOLDER}/cpufreq/policy{policy}/scaling_cur_freq")
        yield file, numbers, machine.cpus[policy].cluster.mhz or (0.0, 0.0)


def _sensors(machine: Machine) -> Iterator[tuple[Path, layout.Value]]:
    """The temperature files that move."""
    for index, zone in enumerate(machine.description.zones or ()):
        if zone.celsius is not None and layout.moves(zone.celsius):
            yield machine.movable(f"/sys/class/thermal/{layout.zone_name(zone, index)}/temp"), zone.celsius
    for index, chip in enumerate(machine.description.chips or ()):
        for place, one in enumerate(chip.inputs):
            if layout.moves(one.celsius):
                name = layout.input_name(one, place)
                yield machine.movable(f"/sys/class/hwmon/{layout.chip_name(chip, index)}/{name}_input"), one.celsius
