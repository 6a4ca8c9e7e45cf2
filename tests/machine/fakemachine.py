"""Machines we don't have: /proc and /sys of a described machine, in which any program runs unmodified.

    with Machine(preset("desktop-16")) as machine:
        machine.write("/sys/class/hwmon/hwmon0/temp1_input", "61000\\n")
        print(machine.run(["cat", "/proc/stat"]).stdout)

The tree lies on a tmpfs; bubblewrap binds it over /proc and /sys for the program alone. See README.md.
"""

from __future__ import annotations

import contextlib
import dataclasses
import fcntl
import json
import os
import signal
import subprocess
import tempfile
import threading
import time
import warnings
from collections.abc import Callable, Iterator, Mapping, Sequence
from pathlib import Path
from typing import Any

import fakemachine_layout as layout
from fakemachine_layout import CPU_FOLDER, DescriptionError, Load
from fakemachine_motion import UPDATE_SECONDS, Driver, Event, Loads, events_of
from fakemachine_processes import ProcessLinks
from fakemachine_tree import MARKER, MachineError, OrderError, Tree, remove_tree

__all__ = ["MARKER", "UPDATE_SECONDS", "DescriptionError", "Machine", "MachineError", "OrderError", "Program",
           "full_description", "lay", "load_description", "load_timeline", "load_words", "preset", "presets"]

PRESETS = Path(__file__).resolve().parent / "presets"
PREFIX = "fake-machine-"
SETTLING_SECONDS = 10  # a folder this young may not have its lock yet

# bwrap itself must outlive these, to report how the program took them. On its way through these two the program ignores them, too.
STARTERS = ("bwrap", "env")
PASSED_ON = (signal.SIGHUP, signal.SIGINT, signal.SIGQUIT, signal.SIGTERM)


# --- descriptions ---

def presets() -> list[str]:
    """The names of the machines that come with the tool."""
    return sorted(file.stem for file in PRESETS.glob("*.json"))


def preset(name: str) -> dict[str, Any]:
    """The description of a machine that comes with the tool; the caller may change it."""
    if name not in presets():
        raise DescriptionError(f"no preset {name}; there are {', '.join(presets())}")
    return _read_description(PRESETS / f"{name}.json")


def load_description(name: str) -> dict[str, Any]:
    """The description of a preset, or of a file whose name has a slash or ends in .json."""
    return _read_description(Path(name)) if "/" in name or name.endswith(".json") else preset(name)


def full_description(description: Mapping[str, Any]) -> dict[str, Any]:
    """The description with all defaults filled in."""
    return dataclasses.asdict(layout.parse(description))


def load_words(text: str) -> dict[str, Any]:
    """A load as given on a command line: a kind, and for "steady" the percentages behind a colon."""
    kind, colon, numbers = text.partition(":")
    try:
        return {"kind": kind, "percent": [float(word) for word in numbers.split(",")]} if colon else {"kind": kind}
    except ValueError:
        raise DescriptionError(f"not a list of percentages: {numbers}") from None


def load_timeline(file: str) -> list[dict[str, Any]]:
    """The events of a file."""
    events = _read_json(Path(file))
    if not isinstance(events, list):
        raise DescriptionError(f"{file}: a timeline is a list of events")
    return events


def _read_description(file: Path) -> dict[str, Any]:
    description = _read_json(file)
    if not isinstance(description, dict):
        raise DescriptionError(f"{file}: a description is an object")
    return description


def _read_json(file: Path) -> Any:
    try:
        return json.loads(file.read_text())
    except OSError as error:
        raise DescriptionError(f"{file}: {error.strerror}") from None
    except ValueError as error:
        raise DescriptionError(f"{file}: {error}") from None


# --- laying ---

def lay(description: Mapping[str, Any], folder: str | Path) -> Machine:
    """Lays the machine in a folder that is empty or missing, and leaves it there."""
    folder = Path(folder)
    if folder.exists() and (not folder.is_dir() or any(folder.iterdir())):
        raise MachineError(f"not an empty folder: {folder}")
    return Machine(description, folder=folder)


def _new_folder() -> tuple[Path, int]:
    """A folder of our own in memory, and the lock that tells others that it is in use."""
    shared = "/dev/shm"
    where = shared if os.access(shared, os.W_OK | os.X_OK) else tempfile.gettempdir()
    _sweep(Path(where))
    folder = tempfile.mkdtemp(prefix=f"{PREFIX}{os.getpid()}-", dir=where)
    lock = os.open(folder, os.O_RDONLY | os.O_DIRECTORY)
    fcntl.flock(lock, fcntl.LOCK_EX)
    return Path(folder), lock


def _sweep(where: Path) -> None:
    """Removes the folders of tools that were killed: nobody holds their locks."""
    for folder in where.glob(f"{PREFIX}*"):
        with contextlib.suppress(OSError):  # in use, another user's, or just being removed
            if time.time() - folder.stat().st_ctime > SETTLING_SECONDS:
                lock = os.open(folder, os.O_RDONLY | os.O_DIRECTORY | os.O_NOFOLLOW)
                try:
                    fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
                    remove_tree(folder)
                finally:
                    os.close(lock)


class Machine(Tree):
    """A made-up machine: its files, what moves in them, and the programs that run inside."""

    def __init__(self, description: Mapping[str, Any], *, folder: str | Path | None = None, speed: float = 1.0,
                 interval: float = UPDATE_SECONDS) -> None:
        """Lays the tree: in a fresh folder that close removes, or in `folder`, which stays.

        `speed` makes the machine's time run faster, `interval` is the time between two updates in real seconds.
        """
        self.description = layout.parse(description)
        self.cpus = layout.cpus_of(self.description)
        self._stat_numbers = layout.stat_numbers(self.description, self.cpus)
        self._numbers_online = [cpu.number for cpu in self.cpus]
        self.loads = Loads(self.description.load, len(self._stat_numbers), self.description.virtual)
        self.events = events_of(self.description.events)
        self._speed, self._interval = speed, interval
        self._driver: Driver | None = None
        self._processes: ProcessLinks | None = None
        self._programs: list[Program] = []
        self._slow: dict[Path, tuple[str, float]] = {}
        self._slow_thread: threading.Thread | None = None
        self._closing = threading.Event()
        self._lock_file = -1
        self._fresh = folder is None
        if folder is None:
            folder, self._lock_file = _new_folder()
        try:
            super().__init__(folder)
            self._lay()
        except BaseException:
            self._remove_folder(Path(folder))
            raise

    def __enter__(self) -> Machine:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        """Ends what runs inside and removes the tree. Can be called again."""
        self._closing.set()
        self.stop()
        if self._slow_thread:
            self._slow_thread.join()
        for program in self._programs:
            program.end()
        self._programs.clear()
        if self._processes:
            self._processes.stop()
            self._processes = None
        self._remove_folder(self.folder)

    def _remove_folder(self, folder: Path) -> None:
        if self._fresh and folder.exists():
            remove_tree(folder)
        if self._lock_file >= 0:
            os.close(self._lock_file)
            self._lock_file = -1

    # --- running programs ---

    def command(self, argv: Sequence[str], drop_caps: bool = False, env: Mapping[str, str] | None = None,
                options: Sequence[str] = ()) -> list[str]:
        """The command line that runs a program inside; `env` is added to the environment, `options` are bwrap's.

        Signals to this command end bwrap, not the program: use popen where that matters.
        """
        self._show_processes()
        folder = str(self.folder)
        line = ["bwrap", "--dev-bind", "/", "/", "--bind", "/proc", f"{folder}/realproc",
                "--bind", f"{folder}/proc", "/proc", "--bind", f"{folder}/sys", "/sys"]
        if drop_caps:
            line += ["--cap-drop", "ALL"]  # else root reads files of mode 000
        for name, value in (env or {}).items():
            line += ["--setenv", name, value]
        return [*line, *options, "--", *argv]

    def _show_processes(self) -> None:
        """Nobody would keep the links up in a folder that stays."""
        if self._fresh and self._processes is None:
            self._processes = ProcessLinks(self.folder / "proc", self.folder / "realproc")
            self._processes.start()

    def popen(self, argv: Sequence[str], drop_caps: bool = False, env: Mapping[str, str] | None = None,
              **options: Any) -> Program:
        """Starts a program inside, and the movement with it. `options` are those of subprocess.Popen."""
        program = Program(self, argv, drop_caps, env, **options)
        self._programs.append(program)
        self.start()
        return program

    def run(self, argv: Sequence[str], drop_caps: bool = False, env: Mapping[str, str] | None = None,
            timeout: float | None = None, input: str | None = None, check: bool = False,
            **options: Any) -> subprocess.CompletedProcess[str]:
        """Runs a program inside and waits for it; its output is captured as text unless told otherwise."""
        options = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "text": True, **options}
        if input is not None:
            options["stdin"] = subprocess.PIPE
        with self.popen(argv, drop_caps, env, **options) as program:
            try:
                out, err = program.communicate(input, timeout)
            except BaseException:
                program.end()
                raise
        self._programs.remove(program)
        program.end()
        done: subprocess.CompletedProcess[str] = subprocess.CompletedProcess(list(argv), program.returncode, out, err)
        if check:
            done.check_returncode()
        return done

    # --- movement ---

    def start(self) -> None:
        """Starts movement and timeline if they have not been started; popen and run do that."""
        if self._driver is None and not self._closing.is_set():
            self._driver = Driver(self, self._speed, self._interval)
            if self.events or self._stat_numbers or self._moves_without_cpus():
                self._driver.start()
            else:
                self._driver = None

    def stop(self) -> None:
        """Stops movement and timeline for good."""
        if self._driver:
            self._driver.stop()

    def set_load(self, kind: str, percent: float | Sequence[float] | None = None) -> None:
        """Another kind of load from now on."""
        load = Load(kind, percent)
        if self._driver:
            self._driver.set_load(load)
        else:
            self.loads.set(load, 0.0)
            self.publish_stat()

    @property
    def driver_seconds(self) -> float:
        """The CPU time that movement has cost so far."""
        return self._driver.cpu_seconds if self._driver else 0.0

    @property
    def driver_errors(self) -> list[str]:
        """The events of the timeline that could not be done."""
        return list(self._driver.errors) if self._driver else []

    def changing(self) -> contextlib.AbstractContextManager[Any]:
        """Keeps all other changes out."""
        return self._lock

    def do(self, event: Event) -> None:
        """Makes an event of the timeline happen."""
        for path, text in event.write.items():
            self.write(path, text)
        for path, (text, seconds) in event.slow.items():
            self.make_slow(path, text, seconds)
        changes: tuple[tuple[Sequence[str], Callable[[str], Any]], ...] = (
            (event.remove, self.remove), (event.directory, self.make_directory), (event.fifo, self.make_fifo),
            (event.release, self.release_fifo), (event.unreadable, self.make_unreadable),
            (event.failing, self.make_failing), (event.loop, self.make_loop), (event.hand_back, self.hand_back),
        )
        for paths, change in changes:
            for path in paths:
                change(path)
        for number in event.offline:
            self.cpu_offline(number)
        for number in event.online:
            self.cpu_online(number)
        if event.load is not None:
            load = layout.load_of(event.load)
            self.set_load(load.kind, load.percent)

    def publish_stat(self) -> None:
        """Puts /proc/stat down as the counters stand."""
        off = {cpu.number for cpu in self.cpus} - set(self._numbers_online)
        numbers = [number for number in self._stat_numbers if number not in off]
        if self._stat_numbers:
            self.publish(self.folder / "proc/stat", self.loads.stat_text(numbers))

    def make_slow(self, path: str, text: str, seconds: float) -> None:
        """Puts a file there that takes so long to read, each time, as a slow sensor does."""
        with self._lock:
            self.make_fifo(path)
            self._slow[self._target(self._entry(path))] = (text, seconds)
            if self._slow_thread is None:
                self._slow_thread = threading.Thread(target=self._serve_slow_files, daemon=True)
                self._slow_thread.start()

    def _serve_slow_files(self) -> None:
        poll_seconds = 0.005
        while not self._closing.wait(poll_seconds):
            for file, (text, seconds) in list(self._slow.items()):
                self._serve_slow_file(file, text, seconds)

    def _serve_slow_file(self, file: Path, text: str, seconds: float) -> None:
        try:
            pipe = os.open(file, os.O_WRONLY | os.O_NONBLOCK)
        except OSError:
            return  # nobody reads it now, or it is no pipe any more
        try:
            self._closing.wait(seconds)
            self._renew_pipe(file)
            with contextlib.suppress(BrokenPipeError):  # the reader has gone
                os.write(pipe, text.encode())
        finally:
            os.close(pipe)

    def _renew_pipe(self, file: Path) -> None:
        """The next reader gets another pipe, so that this one meets its end and is not served twice."""
        with self._lock:
            if file.is_fifo():
                fresh = self._staging_name()
                os.mkfifo(fresh)
                os.rename(fresh, file)

    def set_order(self, directory: str, names: Sequence[str]) -> None:
        """See Tree.set_order."""
        with self._lock:
            super().set_order(directory, names)
            if self._driver:
                self._driver.find_files()

    # --- CPUs that come and go ---

    @property
    def online(self) -> list[int]:
        """The CPUs that are online."""
        return self._numbers_online

    def cpu_offline(self, number: int) -> None:
        """Takes a CPU offline: its line and what describes it go, its folder stays."""
        with self._lock:
            if number not in self._numbers_online:
                raise MachineError(f"CPU {number} is not online")
            self._set_online([n for n in self._numbers_online if n != number])
            folder, parked = self._cpu_places(number)
            parked.mkdir(parents=True)
            for name in ("cpufreq", "topology", "thermal_throttle"):
                if os.path.lexists(folder / name):
                    os.rename(folder / name, parked / name)
            self._publish_online(number)

    def cpu_online(self, number: int) -> None:
        """Brings a CPU back with all that it had."""
        with self._lock:
            folder, parked = self._cpu_places(number)
            if not parked.is_dir():
                raise MachineError(f"CPU {number} is not offline")
            for entry in list(parked.iterdir()):
                os.rename(entry, folder / entry.name)
            parked.rmdir()
            self._set_online([*self._numbers_online, number])
            self._publish_online(number)

    def _cpu_places(self, number: int) -> tuple[Path, Path]:
        return self.folder / f"{CPU_FOLDER[1:]}/cpu{number}", self.folder / f"values/offline/cpu{number}"

    def _set_online(self, numbers: list[int]) -> None:
        self._numbers_online = sorted(numbers)

    def _publish_online(self, changed: int) -> None:
        for path, text in layout.online_files(self.cpus, self.online):
            self.publish(self.folder / path[1:], text)
        if changed:  # CPU 0 has no switch
            self.publish(self._cpu_places(changed)[0] / "online", f"{int(changed in self.online)}\n")
        self.publish_stat()
        self.publish(self.folder / "proc/cpuinfo", layout.cpuinfo_text(self.description, self.cpus, self.online))

    # --- laying ---

    def _moves_without_cpus(self) -> bool:
        description = self.description
        return any((description.energy, description.memory, description.zones, description.chips))

    def _lay(self) -> None:
        description = self.description
        if self._stat_numbers:
            self.lay_file("/proc/stat", self.loads.stat_text(self._stat_numbers))
        if self.cpus:
            self.lay_file("/proc/cpuinfo", layout.cpuinfo_text(description, self.cpus, self.online))
            self._lay_cpus()
        if description.memory:
            self.lay_file("/proc/meminfo", layout.meminfo_text(description.memory))
        if description.zones is not None:
            self._lay_zones(description.zones)
        if description.chips is not None:
            self._lay_chips(description.chips)
        if description.energy:
            self._lay_energy(description.energy)
        for number in description.offline:
            self.cpu_offline(number)
        for path, text in description.files.items():
            self.remove(path) if text is None else self.write(path, text)
        for directory, names in description.order.items():
            self._order_if_possible(directory, names)

    def _lay_files(self, folder: str, files: Iterator[tuple[str, str]]) -> None:
        made = set()
        for name, text in files:
            path = f"{folder}/{name}"
            parent = path.rpartition("/")[0]
            if parent not in made:
                self.lay_directory(parent)
                made.add(parent)
            self.lay_file(path, text)

    def _lay_cpus(self) -> None:
        for name in ("cpufreq", "cpuidle", "hotplug", "power", "smt"):
            self.lay_directory(f"{CPU_FOLDER}/{name}")
        self.lay_directory("/sys/bus/cpu/devices")
        for path, text in layout.online_files(self.cpus, self.online):
            self.lay_file(path, text)
        self._lay_policies()
        for cpu in self.cpus:
            self._lay_cpu(cpu)

    def _lay_policies(self) -> None:
        members: dict[int, list[int]] = {}
        for cpu in self.cpus:
            members.setdefault(cpu.policy, []).append(cpu.number)
        for policy, numbers in members.items():
            clock = self.cpus[policy].cluster.mhz
            if clock:
                self._lay_files(f"{CPU_FOLDER}/cpufreq/policy{policy}", layout.policy_files(clock, numbers))

    def _lay_cpu(self, cpu: layout.Cpu) -> None:
        folder = f"{CPU_FOLDER}/cpu{cpu.number}"
        self._lay_files(folder, layout.cpu_files(cpu))
        if self.description.throttle:
            self._lay_files(folder, layout.throttle_files(self.description.throttle))
        if cpu.cluster.mhz:
            self.lay_link(f"{folder}/cpufreq", f"../cpufreq/policy{cpu.policy}")
        if cpu.number:
            self.lay_file(f"{folder}/online", "1\n")
        if cpu.cluster.type is not None:
            self.lay_file(f"{folder}/cpu_type", f"{cpu.cluster.type}\n")
        self.lay_link(f"/sys/bus/cpu/devices/cpu{cpu.number}", f"../../../devices/system/cpu/cpu{cpu.number}")

    def _lay_zones(self, zones: Sequence[layout.Zone]) -> None:
        names = [layout.zone_name(zone, index) for index, zone in enumerate(zones)]
        self.lay_directory("/sys/class/thermal")
        for zone, name in zip(zones, names):
            self._lay_files(f"/sys/devices/virtual/thermal/{name}", layout.zone_files(zone))
            self.lay_link(f"/sys/class/thermal/{name}", f"../../devices/virtual/thermal/{name}")
        self._order_if_possible("/sys/class/thermal", names)

    def _lay_chips(self, chips: Sequence[layout.Chip]) -> None:
        names = [layout.chip_name(chip, index) for index, chip in enumerate(chips)]
        self.lay_directory("/sys/class/hwmon")
        for index, (chip, name) in enumerate(zip(chips, names)):
            device = f"/sys/devices/platform/{chip.name}.{index}/hwmon/{name}"
            self._lay_files(device, layout.chip_files(chip))
            self.lay_link(f"/sys/class/hwmon/{name}", f"../..{device.removeprefix('/sys')}")
            if len(chip.inputs) > 1:
                self._order_if_possible(device, [file for file, _ in layout.chip_files(chip)])
        self._order_if_possible("/sys/class/hwmon", names)

    def _lay_energy(self, energy: layout.Energy) -> None:
        self._lay_files(layout.ENERGY_FOLDER, layout.energy_files(energy))
        self.lay_directory("/sys/class/powercap")
        self.lay_link("/sys/class/powercap/intel-rapl", "../../devices/virtual/powercap/intel-rapl")
        self.lay_link("/sys/class/powercap/intel-rapl:0", "../../devices/virtual/powercap/intel-rapl/intel-rapl:0")

    def _order_if_possible(self, directory: str, names: Sequence[str]) -> None:
        """A machine whose order can't be had still serves most purposes, but not without a word."""
        try:
            self.set_order(directory, names)
        except OrderError as error:
            warnings.warn(str(error), stacklevel=2)


class Program(subprocess.Popen):  # type: ignore[type-arg]
    """A program inside a machine. Its signals reach the program itself; its status is that of bwrap: 128+n."""

    def __init__(self, machine: Machine, argv: Sequence[str], drop_caps: bool = False,
                 env: Mapping[str, str] | None = None, **options: Any) -> None:
        check_namespaces()
        status, status_end = os.pipe()
        gate_end, gate = os.pipe()
        reset = [s for s in PASSED_ON if signal.getsignal(s) != signal.SIG_IGN]
        line = machine.command([*_env("--default-signal", reset), *argv], drop_caps, env,
                               _bwrap_options(status_end, gate_end))
        self._status, self._namespace, self._handle = status, -1, -1
        self._reset = reset
        try:
            super().__init__([*_env("--ignore-signal", PASSED_ON), *line],
                             pass_fds=(status_end, gate_end, *options.pop("pass_fds", ())), **options)
            os.close(status_end)
            status_end = -1
            self._meet(gate)
        except BaseException:
            self._give_up()
            raise
        finally:
            for end in (status_end, gate_end, gate):
                if end >= 0:
                    os.close(end)

    def _meet(self, gate: int) -> None:
        """Learns the program's id while bwrap holds it at the gate, so that it can't be gone yet."""
        line = b""
        while not line.endswith(b"\n"):  # bwrap writes it in pieces
            piece = os.read(self._status, 4096)
            if not piece:
                raise MachineError("bwrap could not make a namespace for the program")
            line += piece
        self.program_pid = int(json.loads(line)["child-pid"])
        self._handle = os.pidfd_open(self.program_pid)
        self._namespace = os.open(f"/proc/{self.program_pid}/ns/mnt", os.O_RDONLY)
        os.write(gate, b"x")

    def send_signal(self, sig: int) -> None:
        """Sends a signal to the program."""
        if self.poll() is None:
            self._await_readiness(sig)
            with contextlib.suppress(ProcessLookupError):  # it has just ended
                signal.pidfd_send_signal(self._handle, sig)

    def end(self) -> None:
        """Kills the program and all that it left running inside the machine."""
        self.kill()
        self.wait()
        if self._namespace >= 0:
            while _kill_all_in(self._namespace):
                time.sleep(0.01)
            for end in (self._namespace, self._handle, self._status):
                os.close(end)
            self._namespace = -1

    def _give_up(self) -> None:
        """Nothing of a program that could not be started stays: bwrap would make missing folders anew."""
        if hasattr(self, "pid"):
            super().send_signal(signal.SIGKILL)
            self.wait()
        for end in (self._status, self._handle, self._namespace):
            if end >= 0:
                os.close(end)

    def _await_readiness(self, sig: int) -> None:
        """On its way through bwrap the program ignores the signals that bwrap has to outlive. What ignores them later does so on purpose."""
        while sig in self._reset and _is_on_its_way(self.program_pid, sig):
            time.sleep(0.002)


def _env(option: str, signals: Sequence[int]) -> list[str]:
    names = ",".join(signal.Signals(s).name.removeprefix("SIG") for s in signals)
    return ["env", f"{option}={names}"] if names else ["env"]


def _bwrap_options(status: int, gate: int) -> list[str]:
    options = ["--json-status-fd", str(status), "--block-fd", str(gate)]
    if threading.current_thread() is threading.main_thread():
        # Else a killed tool leaves the program behind. Not from other threads: the kernel takes the end of the
        # thread that started bwrap for the end of its parent.
        options.append("--die-with-parent")
    return options


def _is_on_its_way(pid: int, sig: int) -> bool:
    with contextlib.suppress(OSError):
        fields = dict(line.split(":\t", 1) for line in Path(f"/proc/{pid}/status").read_text().splitlines() if ":\t" in line)
        return fields["Name"] in STARTERS and bool(int(fields.get("SigIgn", "0"), 16) >> (sig - 1) & 1)
    return False


def _kill_all_in(namespace: int) -> int:
    """Kills the processes of a mount namespace and says how many there were; it is held open, so can't be another."""
    ours = os.fstat(namespace)
    count = 0
    for name in os.listdir("/proc"):
        if name.isdigit():
            with contextlib.suppress(OSError):  # gone, or another user's
                theirs = os.stat(f"/proc/{name}/ns/mnt")
                if (theirs.st_dev, theirs.st_ino) == (ours.st_dev, ours.st_ino):
                    os.kill(int(name), signal.SIGKILL)
                    count += 1
    return count


_namespaces_work = False


def check_namespaces() -> None:
    """Says in one line what is wrong where bwrap can't work; once for each process."""
    global _namespaces_work
    if _namespaces_work:
        return
    try:
        probe = subprocess.run(["bwrap", "--dev-bind", "/", "/", "true"], capture_output=True, text=True)
    except FileNotFoundError:
        raise MachineError("bwrap is missing; install the package bubblewrap") from None
    if probe.returncode:
        reason = " ".join(probe.stderr.split()) or f"status {probe.returncode}"
        raise MachineError(f"namespaces are not allowed here: {reason}")
    _namespaces_work = True
