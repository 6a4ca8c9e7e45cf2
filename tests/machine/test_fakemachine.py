"""Shows that a made-up machine is what it claims to be, seen from inside by small programs.

Run with: /usr/bin/python3 -m pytest tests/machine
"""

from __future__ import annotations

import contextlib
import errno
import json
import os
import pty
import re
import shlex
import signal
import stat
import subprocess
import sys
import tempfile
import textwrap
import threading
import time
from collections.abc import Callable, Iterator, Sequence
from pathlib import Path
from typing import Any

import pytest

import fakemachine
import fakemachine_tree
from fakemachine import DescriptionError, Machine, MachineError, OrderError, preset
from fakemachine_layout import Energy, Load, cpus_of, number_list, parse
from fakemachine_motion import EnergyCounter, Loads, events_of
from fakemachine_processes import ProcessLinks, running

TOOL = str(Path(__file__).resolve().parent / "fake-machine")
DEADLINE = 120.0  # seconds; only ever reached by a failure
FROZEN = {"load": {"kind": "frozen"}}
CPU = "/sys/devices/system/cpu"
NOBODY = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
ZONE = {"zones": [{"type": "x86_pkg_temp", "celsius": [40, 90]}]}
TEMP = "/sys/class/thermal/thermal_zone0/temp"


def wait_until(condition: Callable[[], Any], what: str = "the condition") -> Any:
    """The first true value of the condition, which is asked once more after the deadline."""
    deadline = time.monotonic() + DEADLINE
    while True:
        begin = time.monotonic()
        value = condition()
        if value:
            return value
        if begin >= deadline:
            raise AssertionError(f"never came true: {what}")
        time.sleep(0.01)


def python(code: str, *arguments: str) -> list[str]:
    """The command line of a small program."""
    return [sys.executable, "-IS", "-c", textwrap.dedent(code), *arguments]


def start_tool(*arguments: str, before: Sequence[str] = (), program: str = TOOL,
               **options: Any) -> subprocess.Popen[str]:
    """Starts the command line tool, with another command before it that becomes it."""
    started = subprocess.Popen([*before, program, *arguments], text=True, **options)
    OURS.add(started.pid)
    return started


def tool(*arguments: str, input: str | None = None, **options: Any) -> subprocess.CompletedProcess[str]:
    """Runs the command line tool."""
    streams: dict[str, Any] = {name: subprocess.PIPE for name in ("stdin", "stdout", "stderr")}
    with start_tool(*arguments, **streams, **options) as started:
        try:
            out, err = started.communicate(input, DEADLINE)
        except subprocess.TimeoutExpired:
            started.kill()
            raise
    return subprocess.CompletedProcess(arguments, started.returncode, out, err)


OURS = {os.getpid()}  # processes whose trees are ours; those of others come and go beside them


def trees(*owners: int) -> list[str]:
    """The trees that processes of these numbers have laid."""
    beginnings = tuple(f"{fakemachine.PREFIX}{owner}-" for owner in owners)
    return [name for name in os.listdir("/dev/shm") if name.startswith(beginnings)]


def cpu_lines(text: str) -> dict[str, list[int]]:
    """The CPU lines of /proc/stat, read independently of the tool."""
    rows = (line.split() for line in text.splitlines() if re.match(r"cpu\d", line))
    return {row[0]: [int(word) for word in row[1:]] for row in rows}


def loads_between(first: str, second: str) -> dict[str, float]:
    """The loads that a reader works out from two readings; time that waits for devices counts as idle."""
    loads, before = {}, cpu_lines(first)
    for name, new in cpu_lines(second).items():
        old = before[name]
        total = sum(new[:8]) - sum(old[:8])
        loads[name] = 1 - (new[3] + new[4] - old[3] - old[4]) / total if total else 0.0
    return loads


def next_stat(machine: Machine, first: str) -> str:
    """A reading of /proc/stat that differs from the first one."""
    wait_until(lambda: machine.read("/proc/stat") != first, "moved counters")
    return machine.read("/proc/stat")


@pytest.fixture(autouse=True)
def nothing_left_behind() -> Iterator[None]:
    yield
    assert not trees(*OURS)


# --- what a program sees ---

def test_program_sees_the_made_up_files_and_nothing_of_the_real_machine() -> None:
    with Machine({"files": {"/proc/stat": "cpu0 1 2 3\n", "/sys/class/x/y": "z\n"}}) as machine:
        seen = machine.run(["sh", "-c", "cat /proc/stat /sys/class/x/y /proc/made-up-machine; ls /sys; ls /sys/class"])
        assert seen.stdout == f"cpu0 1 2 3\nz\n{machine.folder}\nclass\nx\n"
        assert machine.run(["ls", "/proc/cpuinfo", "/proc/meminfo"]).returncode != 0


def test_empty_machine_has_only_the_marker_and_the_processes() -> None:
    with Machine(preset("empty")) as machine:
        names = machine.run(["ls", "/proc"]).stdout.split()
        assert {name for name in names if not name.isdigit()} == {
            "made-up-machine", "self", "thread-self", "sys", "filesystems", "mounts"}
        assert machine.run(["ls", "/sys"]).stdout == ""


def test_programs_find_themselves_by_number_too() -> None:
    """The leak sanitizer opens /proc/N/task of a process whose parent the tool does not know."""
    code = "import os; print(os.getpid(), *os.listdir(f'/proc/{os.getpid()}/task'))"
    with Machine({}) as machine:
        seen = machine.run(["sh", "-c", shlex.join(python(code)) + "; true"])
        assert re.fullmatch(r"(\d+) \1\n", seen.stdout), seen


def test_process_links_run_ahead_and_ended_processes_lose_theirs(tmp_path: Path) -> None:
    limit = int(Path("/proc/sys/kernel/pid_max").read_text())
    unused = max(set(range(limit)) - running())
    links = ProcessLinks(tmp_path, Path("/real"))
    links.look(unused - 200)
    assert os.readlink(tmp_path / str(unused)) == f"/real/{unused}"
    links.look(1000)
    links.clean(1000)
    assert not os.path.lexists(tmp_path / str(unused))
    assert os.path.lexists(tmp_path / "1200")
    links.look(5000)
    assert all(os.path.lexists(tmp_path / str(number)) for number in range(1000, 5201))  # none is left out by a look that comes late
    links.look(limit - 10)
    assert os.path.lexists(tmp_path / str(limit - 1))
    assert os.path.lexists(tmp_path / "310") and not os.path.lexists(tmp_path / str(limit))


def test_program_gets_no_descriptors_of_the_tool() -> None:
    listing = "import os; print(sorted(int(n) for n in os.listdir('/proc/self/fd'))[:4])"
    assert tool("run", "empty", *python(listing)).stdout == "[0, 1, 2, 3]\n"  # 3 is the listing's own


def test_tree_can_be_written_from_inside() -> None:
    with Machine({}) as machine:
        zone = "/sys/class/thermal/a"
        machine.run(["sh", "-c", f"echo 7 > /proc/stat; mkdir -p {zone}; echo b > {zone}/type"], check=True)
        assert machine.read("/proc/stat") == "7\n"
        assert machine.read("/sys/class/thermal/a/type") == "b\n"


def test_command_is_a_plain_command_line_with_its_own_environment() -> None:
    with Machine({"files": {"/sys/a": "inside\n"}}) as machine:
        command = machine.command(["sh", "-c", "cat /sys/a; echo $SIGN"], env={"SIGN": "a b"})
        assert subprocess.run(command, capture_output=True, text=True).stdout == "inside\na b\n"
        assert machine.run(["sh", "-c", "echo $SIGN"], env={"SIGN": "c"}).stdout == "c\n"


def test_works_as_an_ordinary_user(public_folder: Path) -> None:
    """An ordinary user needs no drop_caps for a file to be unreadable."""
    copy = public_folder / "machine"  # the repository may lie where only its owner can read
    subprocess.run(["cp", "-r", str(Path(TOOL).parent), str(copy)], check=True)
    (public_folder / "events.json").write_text(json.dumps([{"at": 0, "unreadable": [TEMP]}]))
    become = NOBODY if os.getuid() == 0 else []
    program = f"id -u; head -1 /proc/meminfo; while cat {TEMP}; do :; done; echo x > /sys/mine; cat /sys/mine"
    done = tool("run", "--script", str(public_folder / "events.json"), "hybrid-20", "--", "sh", "-c", program,
                before=become, program=str(copy / "fake-machine"), cwd="/")
    assert done.stdout.split()[0] == ("65534" if become else str(os.getuid()))
    assert "MemTotal:" in done.stdout
    assert done.stdout.endswith("\nx\n")
    assert done.stderr == f"cat: {TEMP}: Permission denied\n"


@pytest.fixture
def public_folder() -> Iterator[Path]:
    """A folder that every user can read."""
    with tempfile.TemporaryDirectory() as folder:
        os.chmod(folder, 0o755)
        yield Path(folder)


# --- changing files ---

def test_write_is_never_seen_half_done() -> None:
    reader = python("""
        import os, sys
        print("ready", flush=True)
        whole = {"a" * 200_000, "b" * 200_000}
        torn = 0
        while not os.path.exists("/sys/stop"):
            torn += open("/sys/text").read() not in whole
        print(torn)
    """)
    with Machine({}) as machine:
        machine.write("/sys/text", "a" * 200_000)
        program = machine.popen(reader, stdout=subprocess.PIPE, text=True)
        assert program.stdout and program.stdout.readline() == "ready\n"
        for _ in range(300):
            machine.write("/sys/text", "b" * 200_000)
            machine.write("/sys/text", "a" * 200_000)
        machine.write("/sys/stop", "")
        assert program.stdout.read() == "0\n"


def test_directory_never_lists_a_file_in_the_making() -> None:
    lister = python("""
        import os
        print("ready", flush=True)
        names = set()
        while "stop" not in names:
            names |= set(os.listdir("/sys/chip"))
        print(sorted(names))
    """)
    with Machine({}) as machine:
        machine.write("/sys/chip/temp1_input", "1\n")
        program = machine.popen(lister, stdout=subprocess.PIPE, text=True)
        assert program.stdout and program.stdout.readline() == "ready\n"
        for value in range(1000):
            machine.write("/sys/chip/temp1_input", f"{value}\n")
        machine.write("/sys/chip/stop", "")
        assert program.stdout.read() == "['stop', 'temp1_input']\n"


def test_remove_takes_files_links_and_whole_folders() -> None:
    with Machine(preset("hybrid-20") | FROZEN) as machine:
        for path in ("/proc/stat", "/sys/class/thermal/thermal_zone2", f"{CPU}/cpu3"):
            machine.remove(path)
            assert machine.run(["ls", path]).returncode != 0
        assert machine.run(["ls", f"{CPU}/cpu2"]).returncode == 0
        with pytest.raises(FileNotFoundError):
            machine.remove("/proc/stat")


def test_directory_in_place_of_a_file() -> None:
    with Machine(preset("vm-2") | FROZEN) as machine:
        machine.make_directory("/proc/stat")
        assert "Is a directory" in machine.run(["cat", "/proc/stat"]).stderr
        machine.write("/proc/stat", "back\n")
        assert machine.run(["cat", "/proc/stat"]).stdout == "back\n"


def test_unreadable_file_and_folder_refuse_root_without_capabilities() -> None:
    with Machine(ZONE | FROZEN) as machine:
        machine.make_unreadable(TEMP)
        assert "Permission denied" in machine.run(["cat", TEMP], drop_caps=True).stderr
        if os.getuid() == 0:
            assert machine.run(["cat", TEMP]).stdout == "40000\n"
        machine.make_unreadable("/sys/class")
        assert "Permission denied" in machine.run(["stat", TEMP], drop_caps=True).stderr


@pytest.mark.parametrize("drop_caps", [False, True])
def test_failing_file_exists_and_opens_and_gives_an_error(drop_caps: bool) -> None:
    code = f"""
        import os
        assert os.path.exists("{TEMP}")
        file = os.open("{TEMP}", os.O_RDONLY)
        try:
            os.read(file, 10)
        except OSError as error:
            print(error.errno)
    """
    with Machine(ZONE | FROZEN) as machine:
        machine.make_failing(TEMP)
        assert machine.run(python(code), drop_caps).stdout == f"{errno.EIO}\n"


def test_loop_makes_even_the_status_fail() -> None:
    code = f"""
        import os
        try:
            os.stat("{TEMP}")
        except OSError as error:
            print(error.errno)
    """
    with Machine(ZONE | FROZEN) as machine:
        machine.make_loop(TEMP)
        assert machine.run(python(code)).stdout == f"{errno.ELOOP}\n"
        machine.make_loop("/sys/class/thermal")
        assert machine.run(python(code)).stdout == f"{errno.ELOOP}\n"


def test_fifo_hangs_until_released() -> None:
    with Machine(ZONE | FROZEN) as machine:
        machine.make_fifo(TEMP)
        assert not machine.release_fifo(TEMP)
        program = machine.popen(["cat", TEMP], stdout=subprocess.PIPE, text=True)
        wait_until(lambda: machine.release_fifo(TEMP, "51000\n"), "somebody hangs")
        assert program.communicate()[0] == "51000\n"


def test_program_hanging_in_a_fifo_ends_with_the_machine() -> None:
    with Machine(ZONE | FROZEN) as machine:
        machine.make_fifo(TEMP)
        program = machine.popen(["cat", TEMP])
    assert program.returncode == 128 + signal.SIGKILL


def test_slow_file_takes_its_time_each_time_and_gives_its_text_once() -> None:
    with Machine(ZONE | FROZEN) as machine:
        machine.make_slow(TEMP, "47000\n", 0.2)
        for _ in range(3):
            start = time.monotonic()
            assert machine.run(["cat", TEMP]).stdout == "47000\n"
            assert time.monotonic() - start >= 0.2  # a promise of the tool, not a measurement
        machine.write(TEMP, "48000\n")
        assert machine.run(["cat", TEMP]).stdout == "48000\n"


def test_slow_file_ends_for_a_reader_that_lingers() -> None:
    code = f"""
        import os, time
        file = os.open("{TEMP}", os.O_RDONLY)
        print(os.read(file, 100), flush=True)
        input()
        print(os.read(file, 100))
    """
    with Machine(ZONE | FROZEN) as machine:
        machine.make_slow(TEMP, "47000\n", 0.01)
        program = machine.popen(python(code), stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        assert program.stdout and program.stdout.readline() == "b'47000\\n'\n"
        for _ in range(5):  # others are served meanwhile
            assert machine.run(["cat", TEMP]).stdout == "47000\n"
        assert program.communicate("\n")[0] == "b''\n"


def test_paths_outside_proc_and_sys_are_refused() -> None:
    with Machine({}) as machine:
        for path in ("/etc/passwd", "proc/stat", "/proc/../etc/passwd", "/proc/self/comm", "/"):
            with pytest.raises(ValueError):
                machine.write(path, "x")
        assert not (machine.folder / "realproc" / "self").exists()


# --- directory order ---

def order_inside(machine: Machine, directory: str) -> list[str]:
    code = "import os, sys; print(*[e.name for e in os.scandir(sys.argv[1])])"
    return machine.run(python(code, directory)).stdout.split()


@pytest.mark.parametrize("names", ["a b c d", "d c b a", "c a d b", "b d a c"])
def test_order_of_a_directory_is_as_given_and_stays(names: str) -> None:
    wanted = names.split()
    with Machine({}) as machine:
        for name in "bcad":
            machine.write(f"/sys/things/{name}", f"text {name}")
        machine.set_order("/sys/things", wanted)
        assert order_inside(machine, "/sys/things") == wanted
        for name in "adbc":  # replacing a file makes it a new one for some kernels
            machine.write(f"/sys/things/{name}", f"new {name}")
            assert order_inside(machine, "/sys/things") == wanted
        assert machine.run(["cat", "/sys/things/a", "/sys/things/c"]).stdout == "new anew c"
        machine.remove(f"/sys/things/{wanted[1]}")
        assert order_inside(machine, "/sys/things") == [wanted[0], *wanted[2:]]


def test_entries_not_named_come_last_and_folders_and_links_are_moved_whole() -> None:
    with Machine({}) as machine:
        machine.write("/sys/top/folder/file", "content")
        machine.write("/sys/top/plain", "plain")
        machine.make_link("/sys/top/link", "folder")
        machine.write("/sys/top/other", "other")
        machine.set_order("/sys/top", ["link", "plain", "folder"])
        assert order_inside(machine, "/sys/top") == ["link", "plain", "folder", "other"]
        assert machine.run(["cat", "/sys/top/link/file"]).stdout == "content"
        with pytest.raises(ValueError):
            machine.set_order("/sys/top", ["missing"])


def test_ordered_files_can_be_made_bad_without_losing_their_place() -> None:
    with Machine({}) as machine:
        for name in ("one", "two", "three"):
            machine.write(f"/sys/chip/{name}", name)
        machine.set_order("/sys/chip", ["two", "one", "three"])
        machine.make_failing("/sys/chip/one")
        assert "Input/output error" in machine.run(["cat", "/sys/chip/one"]).stderr
        machine.make_loop("/sys/chip/one")
        assert "Too many levels" in machine.run(["cat", "/sys/chip/one"]).stderr
        machine.make_unreadable("/sys/chip/three")
        assert "Permission denied" in machine.run(["cat", "/sys/chip/three"], drop_caps=True).stderr
        assert order_inside(machine, "/sys/chip") == ["two", "one", "three"]


def test_file_system_without_a_choice_of_order_is_an_error(monkeypatch: pytest.MonkeyPatch) -> None:
    with Machine({}) as machine:
        machine.make_directory("/sys/things/a")
        machine.make_directory("/sys/things/b")
        other = machine.listing(machine.folder / "sys/things")[::-1]
        monkeypatch.setattr(fakemachine_tree.Tree, "_recreate", lambda *_: None)
        with pytest.raises(OrderError):
            machine.set_order("/sys/things", other)
        with pytest.warns(UserWarning, match="order"):
            Machine({"zones": [{"type": "a"}, {"type": "b"}], "order": {"/sys/class/thermal": [
                "thermal_zone1", "thermal_zone0"]}}).close()


def test_zones_chips_and_inputs_are_listed_as_described_while_they_move() -> None:
    with Machine(preset("many-zones-8"), speed=50, interval=0.01) as machine:
        machine.start()
        before = machine.read("/sys/class/hwmon/hwmon3/temp3_input")
        wait_until(lambda: machine.read("/sys/class/hwmon/hwmon3/temp3_input") != before)
        zones = order_inside(machine, "/sys/class/thermal")
        assert zones == [f"thermal_zone{n}" for n in (7, 2, 9, 4, 6, 3, 0)]
        assert order_inside(machine, "/sys/class/hwmon") == ["hwmon5", "hwmon3"]
        inputs = [n for n in order_inside(machine, "/sys/class/hwmon/hwmon3") if n.endswith("_input")]
        assert inputs == ["temp3_input", "temp2_input"]


def test_order_set_while_the_machine_moves_stays() -> None:
    chip = "/sys/class/hwmon/hwmon0"
    with Machine(preset("offline-8"), speed=50, interval=0.01) as machine:
        machine.start()
        wanted = ["name", "temp1_max", "temp1_input", "temp1_label", "temp1_crit"]
        machine.set_order(chip, wanted)
        before = machine.read(f"{chip}/temp1_input")
        wait_until(lambda: machine.read(f"{chip}/temp1_input") != before)
        assert order_inside(machine, chip) == wanted


# --- CPUs that go and come back ---

def test_offline_cpu_loses_its_line_and_its_entries_and_gets_them_back() -> None:
    with Machine(preset("hybrid-20") | FROZEN) as machine:
        machine.write(f"{CPU}/cpu5/cpufreq/scaling_cur_freq", "1234567\n")
        before = {path: machine.read(path) for path in ("/proc/stat", "/proc/cpuinfo", f"{CPU}/online")}
        machine.cpu_offline(5)
        assert list(cpu_lines(machine.read("/proc/stat"))) == [f"cpu{n}" for n in range(20) if n != 5]
        assert "processor\t: 5\n" not in machine.read("/proc/cpuinfo")
        assert machine.run(["ls", f"{CPU}/cpu5"]).stdout.split() == ["cpu_type", "online"]
        seen = machine.run(["sh", "-c", f"cd {CPU}; cat online offline present cpu5/online"]).stdout
        assert seen == "0-4,6-19\n5\n0-19\n0\n"
        with pytest.raises(MachineError):
            machine.cpu_offline(5)
        machine.cpu_online(5)
        assert {path: machine.read(path) for path in before} == before
        assert machine.read(f"{CPU}/cpu5/cpufreq/scaling_cur_freq") == "1234567\n"
        assert machine.read(f"{CPU}/cpu5/topology/core_id") == "2\n"
        assert machine.read(f"{CPU}/cpu5/thermal_throttle/core_throttle_count") == "0\n"
        with pytest.raises(MachineError):
            machine.cpu_online(5)


def test_offline_holds_while_the_machine_moves() -> None:
    with Machine(preset("offline-8")) as machine:
        machine.start()
        machine.cpu_offline(6)
        text = machine.read("/proc/stat")
        for _ in range(3):
            text = next_stat(machine, text)
            assert list(cpu_lines(text)) == [f"cpu{n}" for n in (0, 1, 2, 4, 5, 7)]
        machine.cpu_online(3)
        assert list(cpu_lines(machine.read("/proc/stat"))) == [f"cpu{n}" for n in (0, 1, 2, 3, 4, 5, 7)]


# --- presets ---

PROBE = """
    import glob, json, os, re
    def read(path):
        return open(path).read().strip()
    cpus = sorted(n for n in os.listdir("/sys/devices/system/cpu") if re.match(r"cpu\\d", n)) if os.path.isdir(
        "/sys/devices/system/cpu") else []
    base = "/sys/devices/system/cpu/"
    stat = [l for l in open("/proc/stat") if re.match(r"cpu\\d", l)] if os.path.exists("/proc/stat") else []
    info = read("/proc/cpuinfo") if os.path.exists("/proc/cpuinfo") else ""
    def distinct(pattern, base=base):
        return len({read(p) for p in glob.glob(base + pattern)})
    print(json.dumps({
        "cpus": len(cpus),
        "lines": len(stat),
        "paragraphs": len(re.findall("^processor", info, re.M)),
        "online": read(base + "online") if cpus else "",
        "cores": len({(read(base + c + "/topology/physical_package_id"), read(base + c + "/topology/core_id"))
                      for c in cpus if os.path.isdir(base + c + "/topology")}),
        "levels": distinct("cpu*/cpufreq/cpuinfo_max_freq"),
        "types": distinct("cpu*/cpu_type", "/sys/bus/cpu/devices/"),
        "zones": [read(z.path + "/type") for z in os.scandir("/sys/class/thermal")] if os.path.isdir(
            "/sys/class/thermal") else None,
        "chips": [read(c.path + "/name") for c in os.scandir("/sys/class/hwmon")] if os.path.isdir(
            "/sys/class/hwmon") else None,
        "energy": os.path.exists("/sys/class/powercap/intel-rapl/intel-rapl:0/energy_uj"),
        "throttle": len(glob.glob(base + "cpu*/thermal_throttle/core_throttle_count")),
        "model": bool(re.search("^model name\\t: .", info, re.M)),
        "memory": os.path.exists("/proc/meminfo") and re.findall(r"^Mem(Total|Available): +\\d+ kB$",
            read("/proc/meminfo"), re.M) == ["Total", "Available"],
    }))
"""


def facts(cpus: int, **others: Any) -> dict[str, Any]:
    """What the probe is to find; unless said otherwise an ordinary machine without threads and sensors."""
    return {"cpus": cpus, "lines": cpus, "paragraphs": cpus, "online": f"0-{cpus - 1}", "cores": cpus, "levels": 1,
            "types": 0, "zones": [], "chips": [], "energy": False, "throttle": 0, "model": True,
            "memory": True} | others


CLAIMS = {
    "empty": facts(0, online="", levels=0, zones=None, chips=None, model=False, memory=False),
    "vm-2": facts(2, levels=0),
    "desktop-16": facts(16, cores=8, chips=["nvme", "amdgpu", "k10temp"]),
    "hybrid-20": facts(20, cores=12, levels=2, types=2, zones=["acpitz", "pch_cannonlake", "x86_pkg_temp"],
                       chips=["acpitz", "nvme", "coretemp"], energy=True, throttle=20),
    "hybrid-22": facts(22, cores=16, levels=3, types=3, zones=["INT3400 Thermal", "SEN1", "TCPU", "x86_pkg_temp"],
                       chips=["AC", "BAT0", "coretemp"], energy=True, throttle=22),
    "arm-8": facts(8, levels=3, zones=["gpu-thermal", "cpu-thermal"], chips=["gpu_thermal"], model=False),
    "server-64": facts(64, cores=32, chips=["k10temp"]),
    "server-256": facts(256, cores=128, chips=["k10temp"]),
    "server-1024": facts(1024, cores=512, zones=["x86_pkg_temp"] * 2, chips=["coretemp"], energy=True),
    "laptop-acpitz": facts(4, cores=2, zones=["acpitz"], chips=["BAT0", "acpitz"]),
    "offline-8": facts(8, lines=7, paragraphs=7, online="0-2,4-7", cores=7, zones=["x86_pkg_temp"],
                       chips=["coretemp"], energy=True, throttle=7),
    "levels-5": facts(10, levels=5, zones=["soc_cpu0"], model=False),
    "frequency-hybrid-12": facts(12, cores=8, levels=2, zones=["acpitz"], chips=["k10temp", "acpitz"], energy=True),
    "container-5": facts(5, lines=32, zones=None, chips=None),
    "container-32": facts(32, lines=5, zones=None, chips=None),
    "many-zones-8": facts(8, cores=4, zones=["iwlwifi_1", "INT3400 Thermal", "SKIN", "pch_skylake", "x86_pkg_temp",
                                             "B0D4", "acpitz"],
                          chips=["iwlwifi_1", "coretemp"], energy=True, throttle=8),
}


def test_every_preset_is_claimed_here_and_listed() -> None:
    listed = [line.split()[0] for line in tool("list").stdout.splitlines()]
    assert listed == sorted(CLAIMS) == fakemachine.presets()


@pytest.mark.parametrize("name", sorted(CLAIMS))
def test_preset_is_what_it_claims(name: str) -> None:
    done = tool("run", name, "--", *python(PROBE))
    assert done.stderr == ""
    assert json.loads(done.stdout) == CLAIMS[name]


def test_threads_of_a_core_and_packages_are_numbered_as_described() -> None:
    halves = cpus_of(parse(preset("server-256")))
    assert [(c.number, c.package, c.core) for c in halves if 0 in c.siblings] == [(0, 0, 0), (128, 0, 0)]
    assert (halves[64].package, halves[64].core, halves[64].siblings) == (1, 0, (64, 192))
    adjacent = cpus_of(parse(preset("hybrid-20")))
    assert [c.siblings for c in adjacent[:3]] == [(0, 1), (0, 1), (2, 3)]
    assert [(c.core, c.siblings) for c in adjacent[16:18]] == [(8, (16,)), (9, (17,))]


def test_kernel_lists_of_numbers() -> None:
    lists: list[list[int]] = [[], [0], [0, 1, 2, 5], [1, 3, 4]]
    assert [number_list(numbers) for numbers in lists] == ["\n", "0\n", "0-2,5\n", "1,3-4\n"]


def test_cpus_of_one_clock_share_a_policy() -> None:
    with Machine(preset("arm-8") | FROZEN) as machine:
        machine.write(f"{CPU}/cpu5/cpufreq/scaling_cur_freq", "777000\n")
        seen = machine.run(["sh", "-c", f"cat {CPU}/cpu[3-7]/cpufreq/scaling_cur_freq"]).stdout.split()
        assert seen == ["408000", "777000", "777000", "777000", "408000"]


# --- descriptions ---

@pytest.mark.parametrize("bad, words", [
    ({"clusterz": []}, "clusterz"),
    ({"clusters": [{"core": 2}]}, "core"),
    ({"clusters": [{}]}, "cores"),
    ({"siblings": "random"}, "siblings"),
    ({"architecture": "abacus"}, "abacus"),
    ({"load": {"kind": "sometimes"}}, "sometimes"),
    ({"load": {"kind": "steady"}}, "percent"),
    ({"load": {"kind": "steady", "percent": [50, 101]}, "clusters": [{"cores": 1}]}, "101"),
    ({"load": {"kind": "full", "percent": 5}}, "steady"),
    ({"zones": [{"type": "a", "number": 1}, {"type": "b"}]}, "twice"),
    ({"events": [{"write": {}}]}, "at"),
    ({"events": [{"at": 1, "wright": {}}]}, "wright"),
    ({"stat_cpus": 200, "load": {"kind": "steady", "percent": [1, 2, 3]}}, "divides"),
])
def test_mistakes_in_a_description_are_named(bad: dict[str, Any], words: str) -> None:
    if words == "twice":
        bad["zones"][1]["number"] = 1
    with pytest.raises(DescriptionError, match=words):
        Machine(bad)


def test_texts_of_a_description_stand_as_they_are() -> None:
    description = {"zones": [{"type": "cpu", "celsius": "abc"}], "files": {"/sys/extra": "1", "/proc/cpuinfo": None}}
    with Machine(description | {"clusters": [{"cores": 1}]} | FROZEN) as machine:
        assert machine.run(["cat", TEMP, "/sys/extra"]).stdout == "abc1"
        assert machine.run(["ls", "/proc/cpuinfo"]).returncode != 0


def test_show_prints_all_that_a_description_can_say_and_can_be_read_again(tmp_path: Path) -> None:
    shown = tool("show", "hybrid-22").stdout
    file = tmp_path / "machine.json"
    file.write_text(shown)
    assert json.loads(shown)["packages"] == 1
    assert tool("show", str(file)).stdout == shown
    assert json.loads(tool("run", str(file), "--", *python(PROBE)).stdout) == CLAIMS["hybrid-22"]


# --- load ---

@pytest.mark.parametrize("percent", [[0, 10, 20, 100], [37], [12.5, 99.5, 0.1], [33, 66, 5, 45]])
def test_steady_load_is_exact_between_any_two_readings(percent: list[float]) -> None:
    description = {"clusters": [{"cores": 6}], "load": {"kind": "steady", "percent": percent}}
    with Machine(description) as machine:
        machine.start()
        readings = [next_stat(machine, machine.read("/proc/stat"))]
        for _ in range(5):
            readings.append(next_stat(machine, readings[-1]))
    for first in range(len(readings)):
        for second in range(first + 1, len(readings)):
            loads = loads_between(readings[first], readings[second])
            for number in range(6):
                wanted = percent[number % len(percent)] / 100
                assert loads[f"cpu{number}"] == pytest.approx(wanted, abs=1e-9), (first, second, number)


def test_steady_load_is_exact_seen_from_inside() -> None:
    code = """
        import sys, time
        def read():
            return open("/proc/stat").read()
        first = second = read()
        while second == first:
            time.sleep(0.01)
            second = read()
        print(first, "----", second)
    """
    first, second = tool("run", "--load", "steady:10,30,100,0", "vm-2", *python(code)).stdout.split("----")
    assert loads_between(first, second) == pytest.approx({"cpu0": 0.1, "cpu1": 0.3})


def test_steady_load_on_many_cpus() -> None:
    loads = Loads(Load("steady", [10, 20, 30, 40]), 1024, False)
    first = loads.stat_text(range(1024))
    loads.advance(1.0)
    seen = loads_between(first, loads.stat_text(range(1024)))
    assert all(seen[f"cpu{n}"] == pytest.approx((n % 4 + 1) / 10) for n in range(1024))


@pytest.mark.parametrize("kind", ["waves", "idle", "full"])
def test_counters_advance_a_hundred_a_second_and_never_go_back(kind: str) -> None:
    loads = Loads(Load(kind), 8, virtual=True)
    texts, busy = [loads.stat_text(range(8))], [0.0] * 8
    for step in range(1, 101):
        assert loads.advance(step / 10)
        texts.append(loads.stat_text(range(8)))
        busy = [sum(pair) for pair in zip(busy, (10 * loads.load(cpu) for cpu in range(8)))]
    for older, newer in zip(texts, texts[1:]):
        for name, row in cpu_lines(newer).items():
            assert all(new >= old for new, old in zip(row, cpu_lines(older)[name]))
            assert sum(row) - sum(cpu_lines(older)[name]) == 10
    changes = [[b - a for a, b in zip(cpu_lines(texts[0])[n], cpu_lines(texts[-1])[n])] for n in cpu_lines(texts[0])]
    for row, ticks in zip(changes, busy):
        assert 0 <= ticks + 0.001 - (sum(row) - row[3] - row[4]) < 1.002
    if kind == "waves":  # every column that the kernel fills on a virtual machine moves
        assert all(any(row[column] for row in changes) for column in range(8))
        assert all(row[0] > row[2] > row[1] for row in changes)
        assert len({row[0] for row in changes}) > 4
    if kind == "full":
        assert all(row[3] == row[4] == 0 for row in changes)
    if kind == "idle":
        assert all(row[3] + row[4] >= 960 for row in changes)


def test_summary_line_is_the_sum() -> None:
    loads = Loads(Load("waves"), 200, False)
    loads.advance(7.0)
    text = loads.stat_text([0, 5, 150, 199])
    assert [int(word) for word in text.split("\n")[0].split()[1:]] == [
        sum(column) for column in zip(*cpu_lines(text).values())]


def test_waves_move_up_and_down() -> None:
    loads = Loads(Load("waves"), 4, False)
    seen: list[list[float]] = [[] for _ in range(4)]
    for step in range(1, 600):
        loads.advance(step / 10)
        for cpu in range(4):
            seen[cpu].append(loads.load(cpu))
    assert all(max(one) - min(one) > 0.4 and 0 < min(one) and max(one) <= 1 for one in seen)
    assert seen[0] != seen[1]


def test_frozen_machine_does_nothing_until_its_load_changes() -> None:
    with Machine(preset("hybrid-20") | FROZEN) as machine:
        machine.start()
        before = snapshot(machine)
        machine.set_load("full")
        after = next_stat(machine, machine.read("/proc/stat"))
        assert before["/proc/stat"] != after
        assert set(loads_between(before["/proc/stat"], after).values()) == {1.0}
    with Machine(preset("hybrid-20") | FROZEN | {"events": [{"at": 0.5, "write": {"/sys/late": ""}}]}) as machine:
        before = snapshot(machine)
        machine.start()
        wait_until(lambda: machine.outside("/sys/late").exists())
        assert snapshot(machine) == before


def snapshot(machine: Machine) -> dict[str, str]:
    paths = ("/proc/stat", "/proc/meminfo", "/sys/class/thermal/thermal_zone2/temp",
             "/sys/class/powercap/intel-rapl/intel-rapl:0/energy_uj", f"{CPU}/cpu0/cpufreq/scaling_cur_freq")
    return {path: machine.read(path) for path in paths}


def test_change_of_load_keeps_the_counters() -> None:
    loads = Loads(Load("full"), 2, False)
    loads.advance(1.0)
    before = loads.stat_text([0, 1])
    loads.set(Load("steady", 40), 1.0)
    assert loads.stat_text([0, 1]) == before
    loads.advance(2.0)
    assert loads_between(before, loads.stat_text([0, 1])) == pytest.approx({"cpu0": 0.4, "cpu1": 0.4})


# --- what follows the load ---

@pytest.mark.parametrize("percent, mhz", [(100, 5000), (0, 800), (50, 2900)])
def test_clocks_follow_the_load(percent: float, mhz: int) -> None:
    with Machine(preset("hybrid-20") | {"load": {"kind": "steady", "percent": percent}}) as machine:
        machine.start()
        paths = [f"{CPU}/cpu{cpu}/cpufreq/scaling_cur_freq" for cpu in (0, 15)]
        wait_until(lambda: [machine.read(path) for path in paths] == [f"{mhz * 1000}\n"] * 2, f"{mhz} MHz")


def test_temperature_follows_the_load() -> None:
    with Machine(ZONE | {"clusters": [{"cores": 2}]} | FROZEN, speed=100) as machine:
        machine.start()
        machine.set_load("full")
        wait_until(lambda: int(machine.read(TEMP)) > 89_000, "hot")
        machine.set_load("steady", 0)
        wait_until(lambda: int(machine.read(TEMP)) < 41_000, "cool")


def test_fixed_temperature_stays() -> None:
    with Machine(preset("hybrid-20"), speed=50) as machine:
        machine.start()
        wait_until(lambda: machine.read("/sys/class/thermal/thermal_zone2/temp") != "38000\n")
        assert machine.read("/sys/class/thermal/thermal_zone0/temp") == "27800\n"


def test_energy_grows_with_the_load_and_wraps() -> None:
    counter = EnergyCounter(Energy(watts=[10, 110], max_uj=500_000_000, start_uj=400_000_000))
    assert counter.follow(0.0, 1.0) == "410000000\n"
    assert counter.follow(0.5, 1.5) == "440000000\n"
    assert counter.follow(1.0, 2.5) == "50000000\n"


def test_energy_counter_file_moves_and_wraps() -> None:
    path = "/sys/class/powercap/intel-rapl/intel-rapl:0/energy_uj"
    energy = {"energy": {"watts": 50, "max_uj": 1_000_000_000, "start_uj": 990_000_000}}
    with Machine({"clusters": [{"cores": 1}]} | energy, speed=20) as machine:
        machine.start()
        wait_until(lambda: int(machine.read(path)) < 500_000_000, "wrapped")
        assert machine.read(path.replace("energy_uj", "max_energy_range_uj")) == "1000000000\n"


def test_throttle_counters_step() -> None:
    throttle = {"throttle": {"start": 7, "every": 2, "cpus": [1]}}
    with Machine({"clusters": [{"cores": 2}]} | throttle, speed=20) as machine:
        machine.start()
        wait_until(lambda: int(machine.read(f"{CPU}/cpu1/thermal_throttle/core_throttle_count")) >= 9)
        assert machine.read(f"{CPU}/cpu0/thermal_throttle/core_throttle_count") == "7\n"


def test_memory_moves_within_its_range() -> None:
    with Machine(preset("vm-2"), speed=100) as machine:
        machine.start()
        first = available(machine)
        wait_until(lambda: available(machine) != first)
        assert 3.83 - 1.41 <= available(machine) / 2**20 <= 3.83 - 0.89


def available(machine: Machine) -> int:
    return int(re.findall(r"MemAvailable: +(\d+) kB", machine.read("/proc/meminfo"))[0])


def test_movement_leaves_alone_what_a_test_has_taken_over() -> None:
    clock = f"{CPU}/cpu0/cpufreq/scaling_cur_freq"
    with Machine(preset("hybrid-20"), speed=20) as machine:
        machine.start()
        machine.write("/proc/stat", "mine\n")
        machine.make_unreadable(clock)
        machine.remove("/sys/class/powercap/intel-rapl/intel-rapl:0/energy_uj")
        temperatures: set[str] = set()
        while len(temperatures) < 4:  # so many rounds of all that moves every time
            temperatures.add(wait_until(lambda: machine.read("/sys/class/thermal/thermal_zone2/temp")))
        assert machine.read("/proc/stat") == "mine\n"
        assert stat.S_IMODE(machine.outside(clock).stat().st_mode) == 0
        assert not machine.outside("/sys/class/powercap/intel-rapl/intel-rapl:0/energy_uj").exists()
        machine.hand_back("/proc/stat")
        machine.hand_back(clock)
        wait_until(lambda: machine.read("/proc/stat") != "mine\n")
        wait_until(lambda: stat.S_IMODE(machine.outside(clock).stat().st_mode) == 0o644)


def test_movement_survives_folders_that_vanish() -> None:
    with Machine(preset("hybrid-20"), speed=20) as machine:
        machine.start()
        machine.remove(f"{CPU}/cpufreq")
        machine.remove("/sys/devices/virtual")
        text = machine.read("/proc/stat")
        for _ in range(10):
            text = next_stat(machine, text)
        with machine.changing():
            assert os.listdir(machine.folder / "staging") == []


def test_movement_reports_its_cost() -> None:
    done = tool("run", "--cost", "desktop-16", "true")
    assert re.fullmatch(r"fake-machine: moving the machine took \d+\.\d\d s of CPU time in .*\n", done.stderr)
    with Machine(preset("desktop-16")) as machine:
        machine.start()
        wait_until(lambda: machine.driver_seconds > 0)


# --- timeline ---

def test_timeline_does_all_its_events(tmp_path: Path) -> None:
    program = python("""
        import os, time
        def state(path):
            try:
                with open(path) as file:
                    return file.read().strip()
            except OSError as error:
                return os.strerror(error.errno)
        def lines():
            return sum(line.startswith("cpu") for line in open("/proc/stat")) - 1
        paths = [f"/sys/t/{n}" for n in ("written", "removed", "unreadable", "failing", "loop", "directory")]
        while not os.path.exists("/sys/t/end"):
            time.sleep(0.005)
        print([state(p) for p in paths] + [str(lines())])
        print(state("/sys/t/pipe"))
    """)
    names = ("written", "removed", "unreadable", "failing", "loop", "directory")
    description = preset("vm-2") | {"files": {f"/sys/t/{name}": "first\n" for name in names}}
    machine = tmp_path / "machine.json"
    machine.write_text(json.dumps(description))
    script = tmp_path / "script.json"
    script.write_text(json.dumps([
        {"at": 0.7, "write": {"/sys/t/end": ""}},
        {"at": 0.6, "online": [1], "slow": {"/sys/t/pipe": ["piped\n", 0.01]}},
        {"at": 0.3, "write": {"/sys/t/written": "second\n"}, "remove": ["/sys/t/removed"],
         "unreadable": ["/sys/t/unreadable"], "failing": ["/sys/t/failing"], "loop": ["/sys/t/loop"],
         "directory": ["/sys/t/directory"], "fifo": ["/sys/t/pipe"]},
        {"at": 0.3, "offline": [1]}, {"at": 0.5, "offline": [0]},
    ]))
    done = tool("run", "--drop-caps", "--script", str(script), str(machine), *program)
    assert done.stderr == ""
    assert done.stdout.splitlines() == [
        repr(["second", "No such file or directory", "Permission denied", "Input/output error",
              "Too many levels of symbolic links", "Is a directory", "1"]),
        "piped",
    ]


def test_events_come_in_their_order_and_not_too_early() -> None:
    assert [event.at for event in events_of([{"at": 3}, {"at": 0.5}, {"at": 1}])] == [0.5, 1, 3]
    with Machine({"events": [{"at": 0.4, "write": {"/sys/late": ""}}]}) as machine:
        start = time.monotonic()
        machine.start()
        wait_until(lambda: machine.outside("/sys/late").exists())
        assert time.monotonic() - start >= 0.4


def test_event_changes_the_load_and_hands_back() -> None:
    first_event, second_event = events_of([
        {"at": 0, "write": {"/proc/stat": "mine\n"}},
        {"at": 0.2, "load": {"kind": "steady", "percent": 70}, "hand_back": ["/proc/stat"]}])
    with Machine(preset("vm-2") | {"load": "idle"}) as machine:
        machine.start()
        # One by one: on a busy computer what the first one writes would be gone before anybody looks.
        machine.do(first_event)
        assert machine.read("/proc/stat") == "mine\n"
        machine.do(second_event)
        first = next_stat(machine, "mine\n")
        second = next_stat(machine, first)
        assert loads_between(first, second) == pytest.approx({"cpu0": 0.7, "cpu1": 0.7})


def test_event_that_cannot_be_done_is_reported_and_the_rest_goes_on(tmp_path: Path) -> None:
    script = tmp_path / "script.json"
    script.write_text(json.dumps([{"at": 0, "remove": ["/sys/missing"]}, {"at": 0.01, "write": {"/sys/end": ""}}]))
    done = tool("run", "--script", str(script), "empty", "sh", "-c", "until [ -e /sys/end ]; do sleep 0.01; done")
    assert done.returncode == 0
    assert re.fullmatch(r"fake-machine: event at 0 s: .*missing.*\n", done.stderr)


# --- exit status, signals, cleaning up ---

@pytest.mark.parametrize("program, status", [
    ("exit 0", 0), ("exit 7", 7), ("kill -KILL $$", 137), ("kill -SEGV $$", 139), ("kill -TERM $$", 143),
])
def test_exit_status_is_the_programs(program: str, status: int) -> None:
    assert tool("run", "empty", "--", "sh", "-c", program).returncode == status
    with Machine({}) as machine:
        assert machine.run(["sh", "-c", program]).returncode == status


def test_missing_program_is_told() -> None:
    done = tool("run", "empty", "/no/such/program")
    assert done.returncode == 127
    assert "/no/such/program" in done.stderr


def test_streams_are_inherited() -> None:
    done = tool("run", "empty", "sh", "-c", "cat; echo error >&2", input="through\n")
    assert (done.stdout, done.stderr) == ("through\n", "error\n")


TRAPPER = "trap 'echo got {0}; exit 5' {0}; echo $$; while :; do sleep 0.01; done"


@pytest.mark.parametrize("name", ["TERM", "INT", "HUP", "QUIT", "USR1"])
def test_signals_reach_the_program_and_the_tool_waits_for_it(name: str) -> None:
    with start_tool("run", "desktop-16", "sh", "-c", TRAPPER.format(name), stdout=subprocess.PIPE) as started:
        assert started.stdout and started.stdout.readline()
        assert trees(started.pid)
        started.send_signal(getattr(signal, f"SIG{name}"))
        assert started.communicate()[0] == f"got {name}\n"
        assert started.returncode == 5
        assert not trees(started.pid)


def test_signal_at_any_moment_of_the_start_ends_all() -> None:
    """Early ones find the program still on its way through bwrap, where it ignores them."""
    for step in range(25):
        with start_tool("run", "vm-2", "sleep", "60", stderr=subprocess.DEVNULL) as started:
            time.sleep(step * 0.006)  # no guess: every moment has to do
            started.terminate()
            assert started.wait(DEADLINE) in (128 + signal.SIGTERM, -signal.SIGTERM)
            assert not trees(started.pid)


def test_popen_passes_signals_on_at_once() -> None:
    with Machine({}) as machine:
        for _ in range(20):
            program = machine.popen(["sleep", "60"])
            program.terminate()
            assert program.wait(DEADLINE) == 128 + signal.SIGTERM


def test_interrupt_from_the_terminal_comes_once() -> None:
    code = """
        import os, signal, time
        count = 0
        def handle(*_):
            global count
            count += 1
        signal.signal(signal.SIGINT, handle)
        print("ready", flush=True)
        while count == 0:
            time.sleep(0.01)
        signal.signal(signal.SIGTERM, lambda *_: (os.write(1, b"interrupts: %d\\n" % count), os._exit(0)))
        os.write(1, b"one\\n")
        while True:
            time.sleep(0.01)
    """
    child, terminal = pty.fork()
    if child == 0:
        os.execv(TOOL, [TOOL, "run", "empty", *python(code)])
    read_until(terminal, b"ready")
    os.write(terminal, b"\x03")
    read_until(terminal, b"one\r\n")
    os.kill(child, signal.SIGTERM)  # passed on behind any second interrupt
    assert b"interrupts: 1\r\n" in read_until(terminal, b"\r\n", b"interrupts")
    assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 0
    os.close(terminal)


def read_until(terminal: int, word: bytes, after: bytes = b"") -> bytes:
    output = b""
    while word not in output.partition(after)[2] if after else word not in output:
        output += os.read(terminal, 1)
    return output


def test_ignored_signals_stay_ignored_and_others_do_not() -> None:
    show = python("""
        import signal
        print(*[s for s in (1, 2, 3, 15) if signal.getsignal(s) == signal.SIG_IGN])
    """)
    assert tool("run", "empty", *show).stdout == "\n"
    quiet = tool("run", "empty", *show, before=["env", "--ignore-signal=HUP"])
    assert quiet.stdout == "1\n"


def test_no_signal_is_blocked() -> None:
    show = "import signal; print(signal.pthread_sigmask(signal.SIG_BLOCK, []))"
    assert tool("run", "empty", *python(show)).stdout == "set()\n"


def test_what_a_program_leaves_running_ends_with_it() -> None:
    with Machine({}) as machine:
        done = machine.run(["sh", "-c", "sleep 600 > /dev/null 2>&1 & echo $!"])
        wait_until(lambda: gone(int(done.stdout)), "the sleeper's end")


def gone(pid: int) -> bool:
    try:
        return Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[0] == "Z"
    except OSError:
        return True


def test_killed_tool_takes_the_program_with_it() -> None:
    program = "cat /proc/made-up-machine; echo $$; exec sleep 600"
    with start_tool("run", "empty", "sh", "-c", program, stdout=subprocess.PIPE) as started:
        assert started.stdout
        tree, pid = Path(started.stdout.readline().strip()), int(started.stdout.readline())
        started.kill()
        started.wait()
        wait_until(lambda: gone(pid), "the program's end")
        with contextlib.suppress(FileNotFoundError):  # nobody was left to remove it, but the next tool may be doing so
            fakemachine_tree.remove_tree(tree)


def test_left_trees_are_swept_and_those_in_use_are_not(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    left, foreign = tmp_path / f"{fakemachine.PREFIX}left", tmp_path / "other"
    (left / "proc" / "deep").mkdir(parents=True)
    foreign.mkdir()
    fakemachine._sweep(tmp_path)
    assert left.exists()  # too young to tell
    monkeypatch.setattr(fakemachine, "SETTLING_SECONDS", -1)
    with Machine({}) as machine:
        fakemachine._sweep(machine.folder.parent)
        assert machine.folder.is_dir()
    fakemachine._sweep(tmp_path)
    assert not left.exists() and foreign.exists()


def test_without_shared_memory_the_temporary_folder_serves(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(os, "access", lambda *_: False)
    monkeypatch.setattr(tempfile, "tempdir", str(tmp_path))
    with Machine(preset("vm-2")) as machine:
        assert machine.folder.parent == tmp_path
        assert machine.run(["cat", "/proc/made-up-machine"]).stdout == f"{machine.folder}\n"
    assert not list(tmp_path.iterdir())


def test_close_removes_the_tree_also_after_an_error() -> None:
    with pytest.raises(ZeroDivisionError), Machine(preset("desktop-16")) as machine:
        machine.make_unreadable("/sys/class")
        machine.popen(["sleep", "600"])
        raise ZeroDivisionError
    assert not machine.folder.exists()
    machine.close()
    with pytest.raises(ValueError):
        Machine({"files": {"/etc/passwd": ""}})
    assert not trees(os.getpid())


def test_removal_never_steps_into_what_is_mounted_in_the_tree() -> None:
    """Seen from inside that is the real /proc; here a scratch file system stands for it, so that no harm is done."""
    code = f"""
        import sys
        sys.path.insert(0, {str(Path(TOOL).parent)!r})
        from pathlib import Path
        import fakemachine_tree
        tree = Path(sys.argv[1])
        (tree / "mounted" / "precious").touch()
        mode = (tree / "mounted").stat().st_mode
        try:
            fakemachine_tree.remove_tree(tree)
        except OSError:
            print("refused", (tree / "mounted" / "precious").exists(), mode == (tree / "mounted").stat().st_mode)
    """
    with tempfile.TemporaryDirectory() as folder:
        (Path(folder) / "inner").mkdir()
        line = ["bwrap", "--dev-bind", "/", "/", "--tmpfs", f"{folder}/mounted", *python(code, folder)]
        assert subprocess.run(line, capture_output=True, text=True).stdout == "refused True True\n"


def test_rights_are_never_taken_from_files_outside(tmp_path: Path) -> None:
    outside = tmp_path / "file"
    outside.touch()
    with Machine({}) as machine:
        machine.make_link("/sys/link", str(outside))
        before = outside.stat().st_mode
        with pytest.raises(ValueError):
            machine.make_unreadable("/sys/link")
        assert outside.stat().st_mode == before


def test_program_started_by_a_thread_outlives_it() -> None:
    with Machine({}) as machine:
        started: list[fakemachine.Program] = []
        thread = threading.Thread(target=lambda: started.append(
            machine.popen(["sh", "-c", "echo up; read line; echo $line"], stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE, text=True)))
        thread.start()
        thread.join()
        assert started[0].communicate("alive\n", timeout=DEADLINE)[0] == "up\nalive\n"


def test_run_that_takes_too_long_is_ended() -> None:
    with Machine({}) as machine:
        with pytest.raises(subprocess.TimeoutExpired):
            machine.run(["sleep", "600"], timeout=0.2)
        with pytest.raises(subprocess.CalledProcessError):
            machine.run(["false"], check=True)


def test_lay_leaves_a_tree_and_prints_the_command_that_uses_it(tmp_path: Path) -> None:
    folder = tmp_path / "laid"
    done = tool("lay", "vm-2", str(folder))
    command = shlex.split(done.stdout)
    assert command[-1] == "PROGRAM"
    seen = subprocess.run([*command[:-1], "sh", "-c", "cat /proc/made-up-machine; grep -c ^cpu /proc/stat"],
                          capture_output=True, text=True)
    assert seen.stdout == f"{folder}\n3\n"
    again = tool("lay", "vm-2", str(folder))
    assert again.returncode == 2 and "empty" in again.stderr


# --- where bwrap does not work ---

def test_missing_bwrap_is_told_in_one_line(tmp_path: Path) -> None:
    done = tool("run", "empty", "true", env=os.environ | {"PATH": str(tmp_path)})
    assert (done.returncode, done.stderr) == (2, "fake-machine: bwrap is missing; install the package bubblewrap\n")


def test_forbidden_namespaces_are_told_in_one_line(tmp_path: Path) -> None:
    refusing = tmp_path / "bwrap"
    refusing.write_text("#!/bin/sh\necho 'bwrap: No permissions to create new namespace' >&2\nexit 1\n")
    refusing.chmod(0o755)
    done = tool("run", "empty", "true", env=os.environ | {"PATH": f"{tmp_path}:{os.environ['PATH']}"})
    assert done.returncode == 2
    assert done.stderr == ("fake-machine: namespaces are not allowed here: "
                           "bwrap: No permissions to create new namespace\n")


@pytest.mark.parametrize("arguments, words", [
    (["run", "nowhere-9", "true"], "nowhere-9"),
    (["run", "./none.json", "true"], "none.json"),
    (["run", "empty"], "no program"),
    (["run", "--load", "steady:x", "vm-2", "true"], "percentages"),
    (["run", "--load", "naps", "vm-2", "true"], "naps"),
])
def test_mistakes_on_the_command_line_are_told_in_one_line(arguments: list[str], words: str) -> None:
    done = tool(*arguments)
    assert done.returncode == 2
    assert re.fullmatch(rf"fake-machine: .*{re.escape(words)}.*\n", done.stderr)
