"""What a machine's files tell, read without the program: the figures that it should show of them."""

from __future__ import annotations

import math
import re
import time
from dataclasses import dataclass
from itertools import combinations, count
from pathlib import Path

from fakemachine import Machine

CPUS, THERMAL, HWMON = "/sys/devices/system/cpu", "/sys/class/thermal", "/sys/class/hwmon"
ENERGY = "/sys/class/powercap/intel-rapl:0/energy_uj"
CPU_CHIPS = {"coretemp", "k10temp", "cpu_thermal", "acpitz"}
FALLBACK_LIMIT = 95.0
GIB_IN_KIB = 1024 * 1024


class KernelReadings:
    """The files of a machine as they are at this moment."""

    def __init__(self, machine: Machine) -> None:
        self._machine = machine

    def text(self, path: str | Path) -> str | None:
        """The first line of a file, None if there is none."""
        try:
            return self._machine.outside(str(path)).read_text().split("\n")[0]
        except OSError:
            return None

    def number(self, path: str | Path) -> int | None:
        """The whole number that a file begins with."""
        found = re.match(r"-?\d+", self.text(path) or "")
        return int(found[0]) if found else None

    def _entries(self, directory: str) -> list[str]:
        folder = self._machine.outside(directory)
        return [f"{directory}/{name}" for name in self._machine.listing(folder)] if folder.is_dir() else []

    # --- CPUs ---

    @property
    def cpus(self) -> list[int]:
        """The numbers of all CPUs that have a folder."""
        names = [Path(path).name for path in self._entries(CPUS)]
        return sorted(int(name[3:]) for name in names if re.fullmatch(r"cpu\d+", name))

    @property
    def physical_cores(self) -> int:
        """Pairs of package and core."""
        folders = [f"{CPUS}/cpu{cpu}/topology" for cpu in self.cpus]
        pairs = {(self.number(f"{folder}/physical_package_id"), self.number(f"{folder}/core_id")) for folder in folders}
        return len({pair for pair in pairs if None not in pair})

    @property
    def counted_cpus(self) -> int:
        """The CPUs with a line in /proc/stat."""
        return len(re.findall(r"^cpu\d", self._machine.read("/proc/stat"), re.MULTILINE))

    @property
    def clocks(self) -> list[float]:
        """MHz of CPU 0 and those behind it, up to the first that tells none."""
        clocks: list[float] = []
        for cpu in count():
            khz = self.number(f"{CPUS}/cpu{cpu}/cpufreq/scaling_cur_freq")
            if khz is None:
                break
            clocks.append(khz / 1000)
        return clocks

    def highest_clock(self, cpu: int) -> float:
        """The rated MHz, 0 if unknown."""
        return (self.number(f"{CPUS}/cpu{cpu}/cpufreq/cpuinfo_max_freq") or 0) / 1000

    # --- temperature ---

    @property
    def _temperature_file(self) -> str | None:
        for zone in self._entries(THERMAL):
            kind = self.text(f"{zone}/type")
            if kind is not None and (kind == "x86_pkg_temp" or "cpu" in kind) and self.text(f"{zone}/temp") is not None:
                return f"{zone}/temp"
        for chip in self._entries(HWMON):
            inputs = sorted((path for path in self._entries(chip) if re.search(r"/temp\d+_input$", path)),
                            key=lambda path: not path.endswith("/temp1_input"))
            if self.text(f"{chip}/name") in CPU_CHIPS and inputs:
                return inputs[0]
        return None

    @property
    def celsius(self) -> float | None:
        """The CPU's temperature."""
        file = self._temperature_file
        milli = self.number(file) if file else None
        return None if milli is None else milli / 1000

    @property
    def limit(self) -> float:
        """The temperature at which the CPU slows down."""
        beside = re.sub("_input$", "", self._temperature_file or "")
        files = [f"{beside}_max", f"{beside}_crit"] if beside else []
        for zone in self._entries(THERMAL):
            trips = [f"{zone}/trip_point_{n}" for n in range(16)]
            files += [f"{trip}_temp" for trip in trips if self.text(f"{trip}_type") in ("passive", "hot")]
        limits = [(self.number(file) or 0) / 1000 for file in files]
        return next((limit for limit in limits if 40 < limit < 130), FALLBACK_LIMIT)

    # --- memory ---

    @property
    def memory(self) -> tuple[float, float] | None:
        """Used and total GiB."""
        try:
            fields = dict(re.findall(r"^(\w+): +(\d+)", self._machine.read("/proc/meminfo"), re.MULTILINE))
        except OSError:
            return None
        total, available = int(fields["MemTotal"]), int(fields["MemAvailable"])
        return (total - available) / GIB_IN_KIB, total / GIB_IN_KIB

    # --- as texts ---

    @property
    def status(self) -> str:
        """The temperature as it is shown."""
        return "" if self.celsius is None else f"CPU {self.celsius:.0f}°C"

    @property
    def tooltip(self) -> str:
        """The throttle label's tooltip on a machine that is cool and has nothing to do."""
        if not self.clocks:
            return ""
        return "Throttle 0%" if self.celsius is None else f"{self.celsius:.0f}°C / {self.limit:.0f}°C"

    @property
    def info_forms(self) -> list[str]:
        """The forms of the info line, longest first."""
        cores, threads = self.physical_cores, self.counted_cpus
        words, letters = (f"{threads} Cores", f"{threads}C") if cores in (0, threads) else (
            f"{cores} Cores / {threads} Threads", f"{cores}C/{threads}T")
        if self.memory is None:
            return [words, letters]
        memory = "{:.0f}/{:.0f} GB".format(*self.memory)
        return [f"{words} / RAM {memory}", f"{letters} / RAM {memory}", f"{letters} / {memory}", letters]


# --- files that move ---

@dataclass
class Standing:
    """What a file has held, and the time in which a program can have read it."""
    text: str
    since: float
    until: float = math.inf


class FileHistory:
    """Every state of a file that moves. It listens to the machine, as reading would miss states on a busy computer."""

    def __init__(self, machine: Machine, path: str) -> None:
        self._states = [Standing(machine.read(path), time.monotonic())]
        self._file = machine.movable(path)
        self._publish = machine.publish
        machine.publish = self._listen

    def _listen(self, file: Path, text: str) -> None:
        before = time.monotonic()
        self._publish(file, text)
        if file == self._file:
            self._states[-1].until = time.monotonic()
            self._states.append(Standing(text, before))

    def has_stood_still(self, seconds: float) -> bool:
        """Whether two readings so long apart can have found the same."""
        now = time.monotonic()
        return any(min(state.until, now) - state.since >= seconds for state in list(self._states))


class EnergyHistory(FileHistory):
    """Every state of a machine's energy counter."""

    LEAST_SECONDS, MOST_SECONDS = 1.9, 4.0  # between two readings of the program
    HELD_UP_SECONDS = 0.1  # at most, from a reading to the look at the clock
    ROUNDING = 0.06  # of a figure in tenths of a watt

    def __init__(self, machine: Machine) -> None:
        super().__init__(machine, ENERGY)

    def explains(self, watts: float, most_seconds: float = MOST_SECONDS) -> bool:
        """Whether two readings a pass apart give this power."""
        return any(self._can_give(watts, early, late, most_seconds) for early, late in combinations(list(self._states), 2))

    def _can_give(self, watts: float, early: Standing, late: Standing, most_seconds: float) -> bool:
        joules = (int(late.text) - int(early.text)) / 1e6
        longest = late.until + self.HELD_UP_SECONDS - early.since
        shortest = max(late.since - early.until - self.HELD_UP_SECONDS, self.LEAST_SECONDS)
        return (longest >= self.LEAST_SECONDS and shortest <= most_seconds and joules > 0
                and joules / longest - self.ROUNDING <= watts <= joules / shortest + self.ROUNDING)
