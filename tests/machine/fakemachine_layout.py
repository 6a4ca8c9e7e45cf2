"""From the short description of a machine to the kernel files it stands for. Nothing here touches a file.

A description says what differs from machine to machine (clusters of cores, clocks, sensors, memory); the names,
formats and numbering of the files are the kernel's.
"""

from __future__ import annotations

import dataclasses
import typing
from collections.abc import Iterator, Mapping, Sequence
from dataclasses import dataclass, field
from typing import Any

from fakemachine_tree import MachineError

CPU_FOLDER = "/sys/devices/system/cpu"
ENERGY_FOLDER = "/sys/devices/virtual/powercap/intel-rapl/intel-rapl:0"
KHZ_PER_MHZ = 1000
MILLIDEGREES_PER_DEGREE = 1000
KB_PER_GIB = 1024 * 1024

# A value of the description that may stand still (one number), move between two, or be put down as it is (a text).
Value = typing.Union[int, float, str, Sequence[float]]


class DescriptionError(MachineError):
    """A description that can't be understood."""


@dataclass(frozen=True)
class Cluster:
    """Equal cores."""

    cores: int
    threads: int = 1
    mhz: Sequence[float] | None = None  # lowest and highest clock; none: no cpufreq
    type: str | None = None  # text of cpu_type; none: no such file
    shared_clock: bool = False  # one cpufreq policy for the whole cluster, as on most ARM machines


@dataclass(frozen=True)
class Zone:
    """A thermal zone."""

    type: str
    celsius: Value | None = None  # none: no "temp" file
    number: int | None = None  # of its name; none: its place in the list
    trips: Sequence[Sequence[Any]] = ()  # type and degrees of each trip point, optionally its number


@dataclass(frozen=True)
class Input:
    """A temperature input of a hwmon chip."""

    celsius: Value
    number: int | None = None
    label: str | None = None
    max: float | None = None
    crit: float | None = None


@dataclass(frozen=True)
class Chip:
    """A hwmon chip."""

    name: str
    inputs: Sequence[Input] = ()
    number: int | None = None


@dataclass(frozen=True)
class Energy:
    """The energy counter of package 0."""

    watts: Value = (5.0, 65.0)
    max_uj: int = 262_143_328_850  # the counter goes back to 0 here
    start_uj: int = 81_234_567_890


@dataclass(frozen=True)
class Throttle:
    """The throttle counters of every CPU."""

    start: int = 0
    every: float | None = None  # seconds between two events; none: no event by itself
    cpus: Sequence[int] = (0,)  # those that count the events


@dataclass(frozen=True)
class Memory:
    """What /proc/meminfo reports."""

    total_gib: float
    used_gib: Value


@dataclass(frozen=True)
class Load:
    """How busy the CPUs are."""

    kind: str = "waves"
    percent: float | Sequence[float] | None = None  # of "steady": for all, or one for each CPU, from the front again


@dataclass(frozen=True)
class Description:
    """A machine. A part that is missing is missing in the machine too: no file stands for it."""

    about: str = ""
    architecture: str = "x86"
    model: str | None = None  # "model name" of /proc/cpuinfo; none: no such line
    virtual: bool = False  # a hypervisor takes some of the time (steal)
    clusters: Sequence[Cluster] = ()  # of one package
    packages: int = 1
    siblings: str = "adjacent"  # numbers of a core's threads: 0 and 1, or "halves": 0 and N/2
    offline: Sequence[int] = ()
    stat_cpus: int | None = None  # CPU lines of /proc/stat if they are not those of the clusters
    zones: Sequence[Zone] | None = None  # in directory order; none: no /sys/class/thermal
    chips: Sequence[Chip] | None = None  # in directory order; none: no /sys/class/hwmon
    energy: Energy | None = None
    throttle: Throttle | None = None
    memory: Memory | None = None
    load: Load = field(default_factory=Load)
    files: Mapping[str, str | None] = field(default_factory=dict)  # put down last; null: taken away
    order: Mapping[str, Sequence[str]] = field(default_factory=dict)  # of further directories: path to names
    events: Sequence[Mapping[str, Any]] = ()  # timeline, see fakemachine_motion.Event


@dataclass(frozen=True)
class Cpu:
    """A logical CPU."""

    number: int
    cluster: Cluster
    package: int
    core: int  # within its package
    siblings: tuple[int, ...]  # the CPUs of its core, itself among them
    policy: int  # its cpufreq policy: the first CPU that shares its clock


# --- reading a description ---

_PARTS: dict[str, Any] = {
    "clusters": Cluster, "zones": Zone, "chips": Chip, "inputs": Input,
    "energy": Energy, "throttle": Throttle, "memory": Memory,
}


def parse(data: Mapping[str, Any]) -> Description:
    """The description behind a dictionary as it stands in a JSON file."""
    description: Description = _record(Description, data, "the description")
    if description.architecture not in ("x86", "arm"):
        raise DescriptionError(f"unknown architecture: {description.architecture}")
    if description.siblings not in ("adjacent", "halves"):
        raise DescriptionError(f'siblings is "adjacent" or "halves", not "{description.siblings}"')
    _check_names([zone_name(zone, i) for i, zone in enumerate(description.zones or ())])
    _check_names([chip_name(chip, i) for i, chip in enumerate(description.chips or ())])
    for chip in description.chips or ():
        _check_names([input_name(one, i) for i, one in enumerate(chip.inputs)])
    return description


def load_of(data: Any) -> Load:
    """A load as it stands in a description: an object, or its kind alone."""
    load: Load = Load(data) if isinstance(data, str) else _record(Load, data, "load")
    return load


def _record(kind: type, data: Any, where: str) -> Any:
    """A record from a dictionary; a name it does not have is a typing error and must not pass silently."""
    if not isinstance(data, Mapping):
        raise DescriptionError(f"{where} is not an object: {data!r}")
    known = {f.name for f in dataclasses.fields(kind)}
    unknown = sorted(set(data) - known)
    if unknown:
        raise DescriptionError(f"{where} has no field {', '.join(unknown)}; it has {', '.join(sorted(known))}")
    try:
        return kind(**{name: _part(name, value) for name, value in data.items()})
    except TypeError as error:
        raise DescriptionError(f"{where}: {error}") from None


def _part(name: str, value: Any) -> Any:
    if name == "load":
        return load_of(value)
    kind = _PARTS.get(name)
    if kind is None or value is None:
        return value
    if isinstance(value, list | tuple):
        return [_record(kind, one, f"an entry of {name}") for one in value]
    return _record(kind, value, name)


def _check_names(names: list[str]) -> None:
    twice = {name for name in names if names.count(name) > 1}
    if twice:
        raise DescriptionError(f"twice in the description: {', '.join(sorted(twice))}")


# --- numbers ---

def lowest(value: Value) -> float | str:
    """The value at rest."""
    return value[0] if isinstance(value, Sequence) and not isinstance(value, str) else value


def between(value: Value, share: float) -> float | str:
    """The value at this share of its way from lowest to highest."""
    if isinstance(value, Sequence) and not isinstance(value, str):
        return value[0] + (value[1] - value[0]) * share
    return value


def moves(value: Value | None) -> bool:
    """Whether the value has a way to go."""
    return isinstance(value, Sequence) and not isinstance(value, str)


def scaled(value: float | str, factor: int) -> str:
    """The text of a kernel file; a text of the description stands as it is."""
    return value if isinstance(value, str) else f"{round(value * factor)}\n"


def number_list(numbers: Sequence[int]) -> str:
    """CPU numbers as the kernel prints them: 0-3,5."""
    runs: list[list[int]] = []
    for number in sorted(numbers):
        if runs and runs[-1][1] == number - 1:
            runs[-1][1] = number
        else:
            runs.append([number, number])
    return ",".join(str(a) if a == b else f"{a}-{b}" for a, b in runs) + "\n"


# --- CPUs ---

def cpus_of(description: Description) -> list[Cpu]:
    """All logical CPUs, by number."""
    places = list(_threads(description))
    if description.siblings == "halves":
        places.sort(key=lambda place: place[3])  # stable: all first threads, then all second ones
    numbers: dict[tuple[int, int], list[int]] = {}
    policies: dict[tuple[int, int], int] = {}
    for number, (package, core, index, _) in enumerate(places):
        numbers.setdefault((package, core), []).append(number)
        policies.setdefault((package, index), number)
    cpus = []
    for number, (package, core, index, _) in enumerate(places):
        cluster = description.clusters[index]
        policy = policies[package, index] if cluster.shared_clock else number
        cpus.append(Cpu(number, cluster, package, core, tuple(numbers[package, core]), policy))
    return cpus


def _threads(description: Description) -> Iterator[tuple[int, int, int, int]]:
    """Package, core, cluster and thread of each logical CPU, threads of a core beside each other."""
    for package in range(description.packages):
        core = 0
        for index, cluster in enumerate(description.clusters):
            for _ in range(cluster.cores):
                for thread in range(cluster.threads):
                    yield package, core, index, thread
                core += 1


def stat_numbers(description: Description, cpus: Sequence[Cpu]) -> list[int]:
    """The CPUs that have a line in /proc/stat when all are online."""
    return list(range(len(cpus) if description.stat_cpus is None else description.stat_cpus))


def cpu_files(cpu: Cpu) -> Iterator[tuple[str, str]]:
    """What each CPU's own folder holds as long as it is online; cpufreq is a link and comes with the policies."""
    yield "topology/physical_package_id", f"{cpu.package}\n"
    yield "topology/core_id", f"{cpu.core}\n"
    yield "topology/thread_siblings_list", number_list(cpu.siblings)


def throttle_files(throttle: Throttle) -> Iterator[tuple[str, str]]:
    """The throttle counters of each CPU."""
    yield "thermal_throttle/core_throttle_count", f"{throttle.start}\n"
    yield "thermal_throttle/package_throttle_count", f"{throttle.start}\n"


def policy_files(clock: Sequence[float], members: Sequence[int]) -> Iterator[tuple[str, str]]:
    """A cpufreq policy at rest."""
    low, high = (f"{round(mhz * KHZ_PER_MHZ)}\n" for mhz in clock)
    yield "affected_cpus", " ".join(map(str, members)) + "\n"
    yield "cpuinfo_max_freq", high
    yield "cpuinfo_min_freq", low
    yield "scaling_cur_freq", low
    yield "scaling_max_freq", high
    yield "scaling_min_freq", low


def online_files(cpus: Sequence[Cpu], online: Sequence[int]) -> Iterator[tuple[str, str]]:
    """The lists that say which CPUs there are."""
    everything = [cpu.number for cpu in cpus]
    off = sorted(set(everything) - set(online))
    yield f"{CPU_FOLDER}/present", number_list(everything)
    yield f"{CPU_FOLDER}/possible", number_list(everything)
    yield f"{CPU_FOLDER}/online", number_list(online)
    yield f"{CPU_FOLDER}/offline", number_list(off)


# --- /proc ---

def cpuinfo_text(description: Description, cpus: Sequence[Cpu], online: Sequence[int]) -> str:
    """/proc/cpuinfo, a paragraph for each CPU that is online."""
    paragraph = _x86_paragraph if description.architecture == "x86" else _arm_paragraph
    present = set(online)
    return "".join(paragraph(description, cpu) for cpu in cpus if cpu.number in present)


def _x86_paragraph(description: Description, cpu: Cpu) -> str:
    amd = (description.model or "").startswith("AMD")
    model_line = "" if description.model is None else f"model name\t: {description.model}\n"
    clock = cpu.cluster.mhz[0] if cpu.cluster.mhz else 2000.0
    cores = sum(cluster.cores for cluster in description.clusters)
    siblings = sum(cluster.cores * cluster.threads for cluster in description.clusters)
    return (
        f"processor\t: {cpu.number}\n"
        f"vendor_id\t: {'AuthenticAMD' if amd else 'GenuineIntel'}\n"
        f"cpu family\t: {25 if amd else 6}\n"
        "model\t\t: 33\n"
        f"{model_line}"
        "stepping\t: 2\n"
        f"cpu MHz\t\t: {clock:.3f}\n"
        "cache size\t: 512 KB\n"
        f"physical id\t: {cpu.package}\n"
        f"siblings\t: {siblings}\n"
        f"core id\t\t: {cpu.core}\n"
        f"cpu cores\t: {cores}\n"
        "fpu\t\t: yes\n"
        "flags\t\t: fpu tsc msr cx8 apic cmov mmx fxsr sse sse2 ht syscall nx lm constant_tsc\n"
        "address sizes\t: 48 bits physical, 48 bits virtual\n"
        "\n"
    )


def _arm_paragraph(description: Description, cpu: Cpu) -> str:
    model_line = "" if description.model is None else f"model name\t: {description.model}\n"
    return (
        f"processor\t: {cpu.number}\n"
        f"{model_line}"
        "BogoMIPS\t: 48.00\n"
        "Features\t: fp asimd evtstrm aes pmull sha1 sha2 crc32 cpuid\n"
        "CPU implementer\t: 0x41\n"
        "CPU architecture: 8\n"
        "CPU variant\t: 0x1\n"
        f"CPU part\t: 0xd{description.clusters.index(cpu.cluster):02x}\n"
        "CPU revision\t: 1\n"
        "\n"
    )


def meminfo_text(memory: Memory, share: float = 0.0) -> str:
    """/proc/meminfo with the used memory at this share of its range."""
    total = round(memory.total_gib * KB_PER_GIB)
    used = between(memory.used_gib, share)
    if isinstance(used, str):
        raise DescriptionError("used_gib is a number or two; odd texts go to files")
    available = total - round(used * KB_PER_GIB)
    rows = {
        "MemTotal": total, "MemFree": available // 2, "MemAvailable": available, "Buffers": available // 16,
        "Cached": available // 4, "SwapTotal": total // 4, "SwapFree": total // 4, "Dirty": 412, "Shmem": total // 64,
    }
    return "".join(f"{name + ':':<16}{kb:>8} kB\n" for name, kb in rows.items())


# --- sensors ---

def zone_name(zone: Zone, index: int) -> str:
    """The zone's entry in /sys/class/thermal."""
    return f"thermal_zone{index if zone.number is None else zone.number}"


def chip_name(chip: Chip, index: int) -> str:
    """The chip's entry in /sys/class/hwmon."""
    return f"hwmon{index if chip.number is None else chip.number}"


def input_name(one: Input, index: int) -> str:
    """What the names of the input's files begin with."""
    return f"temp{index + 1 if one.number is None else one.number}"


def zone_files(zone: Zone) -> Iterator[tuple[str, str]]:
    """The files of a thermal zone at rest."""
    yield "type", f"{zone.type}\n"
    yield "mode", "enabled\n"
    yield "policy", "step_wise\n"
    if zone.celsius is not None:
        yield "temp", scaled(lowest(zone.celsius), MILLIDEGREES_PER_DEGREE)
    for place, trip in enumerate(zone.trips):
        number = trip[2] if len(trip) > 2 else place
        yield f"trip_point_{number}_type", f"{trip[0]}\n"
        yield f"trip_point_{number}_temp", scaled(trip[1], MILLIDEGREES_PER_DEGREE)


def chip_files(chip: Chip) -> Iterator[tuple[str, str]]:
    """The files of a hwmon chip at rest, in the order in which the folder lists them."""
    for index, one in enumerate(chip.inputs):
        stem = input_name(one, index)
        yield f"{stem}_input", scaled(lowest(one.celsius), MILLIDEGREES_PER_DEGREE)
        if one.max is not None:
            yield f"{stem}_max", scaled(one.max, MILLIDEGREES_PER_DEGREE)
        if one.crit is not None:
            yield f"{stem}_crit", scaled(one.crit, MILLIDEGREES_PER_DEGREE)
        if one.label is not None:
            yield f"{stem}_label", f"{one.label}\n"
    yield "name", f"{chip.name}\n"


def energy_files(energy: Energy) -> Iterator[tuple[str, str]]:
    """The powercap domain of package 0."""
    yield "name", "package-0\n"
    yield "enabled", "1\n"
    yield "max_energy_range_uj", f"{energy.max_uj}\n"
    yield "energy_uj", f"{energy.start_uj}\n"
