"""What the program shows of its measurements, against an independent reading of the same files."""

from __future__ import annotations

import os
import re
from collections.abc import Callable
from itertools import count
from pathlib import Path
from typing import NamedTuple

import cairo
import numpy
import pytest

from accessibility import Node, Rect
from chart_pixels import color_of
from displays import XDisplay, wait_until
from fakemachine import Machine, preset
from kernel_readings import CPUS, ENERGY, EnergyHistory, KernelReadings
from monitor import TIMEOUT, Monitor, Start
from repeating import Repeating
from settings_dialog import while_it_changes
from shown_values import Told, look

PRESETS = ["hybrid-20", "hybrid-22", "desktop-16", "laptop-acpitz", "server-64", "vm-2", "arm-8", "offline-8",
           "levels-5"]
WITHOUT_CLOCKS = {"vm-2"}
SECONDS_A_DAY = 86400

ZONE = "/sys/class/thermal/thermal_zone0"
THROTTLE_COUNT = f"{CPUS}/cpu0/thermal_throttle/core_throttle_count"

LOW, MIDDLE, HIGH, HOT = (25, 153, 51), (204, 153, 0), (229, 51, 25), (216, 25, 12)  # of the light theme


# --- the labels ---

class Labels(NamedTuple):
    """Where the readouts stand."""
    status_row: Node
    gear: Node
    status: Node
    throttle: Node
    info: Node


class Readouts(NamedTuple):
    """What the readouts show."""
    status: str
    throttle: str
    tooltip: str
    info: str


def labels_of(monitor: Monitor) -> Labels:
    """Finds the labels by how the window is put together."""
    nodes = list(monitor.tree().walk())
    roles = {id(node): [child.role for child in node.children] for node in nodes}
    (row,) = [node for node in nodes if roles[id(node)] == ["push button", "label", "label"]]
    header = next(node for node in nodes if roles[id(node)] == ["label", "filler"]
                  and roles[id(node.children[1])] == ["label"])
    return Labels(row, *row.children, header.children[1].children[0])


def readouts(monitor: Monitor, labels: Labels) -> Readouts:
    """What is shown now."""
    status, throttle, info = monitor.bus.names([labels.status.address, labels.throttle.address, labels.info.address])
    (tooltip,) = monitor.bus.descriptions([labels.throttle.address])
    return Readouts(status, throttle, tooltip, info)


def wait_for(monitor: Monitor, expected: Readouts, when: str = "") -> None:
    """Waits until the program shows exactly this."""
    labels = labels_of(monitor)
    wait_for_what(lambda: readouts(monitor, labels), expected, when)


def wait_for_what(look: Callable[[], object], expected: object, when: str = "") -> None:
    seen: list[object] = []

    def shown() -> bool:
        seen[:] = [look()]
        return seen == [expected]
    try:
        wait_until(shown, TIMEOUT, "")
    except AssertionError:
        raise AssertionError(f"{when}: shows {seen[0]}, expected {expected}") from None


def widen(display: XDisplay, monitor: Monitor, width: int = 640) -> None:
    """Gives all labels room."""
    display.resize_until(monitor.window, width, 700, lambda: monitor.content().total_panel.width == width, TIMEOUT,
                         f"a window {width} pixels wide")


def status_text(monitor: Monitor) -> str:
    return monitor.bus.names([labels_of(monitor).status.address])[0]


# --- machines that stand still ---

def test_frozen_machines_show_exactly_what_their_files_hold(x11: XDisplay, start: Start, machines) -> None:
    running: dict[str, tuple[Machine, Monitor]] = {}
    for name in PRESETS:
        machine = machines.enter_context(Machine({**preset(name), "load": {"kind": "frozen"}}))
        running[name] = machine, start(x11, machine)
    for name, (machine, monitor) in running.items():
        widen(x11, monitor)
        kernel = KernelReadings(machine)
        throttle = "" if name in WITHOUT_CLOCKS else "Throttle 0%"
        # A counter that stands still is no reading, so there is no power.
        wait_for(monitor, Readouts(kernel.status, throttle, kernel.tooltip, kernel.info_forms[0]), name)


#: What the made-up machines are to show, by hand, so that the independent reading is not believed blindly.
BY_HAND = {
    "hybrid-20": Readouts("CPU 38°C", "Throttle 0%", "38°C / 95°C", "12 Cores / 20 Threads / RAM 12/63 GB"),
    "desktop-16": Readouts("CPU 41°C", "Throttle 0%", "41°C / 95°C", "8 Cores / 16 Threads / RAM 8/31 GB"),
    "laptop-acpitz": Readouts("CPU 28°C", "Throttle 0%", "28°C / 98°C", "2 Cores / 4 Threads / RAM 3/8 GB"),
    "vm-2": Readouts("", "", "", "2 Cores / RAM 1/4 GB"),
    "arm-8": Readouts("CPU 43°C", "Throttle 0%", "43°C / 85°C", "8 Cores / RAM 2/8 GB"),
    "offline-8": Readouts("CPU 34°C", "Throttle 0%", "34°C / 95°C", "7 Cores / RAM 4/16 GB"),
    "levels-5": Readouts("CPU 31°C", "Throttle 0%", "31°C / 90°C", "10 Cores / RAM 3/11 GB"),
}


@pytest.mark.parametrize("name", BY_HAND)
def test_independent_reading_agrees_with_the_presets(name: str, machines) -> None:
    kernel = KernelReadings(machines.enter_context(Machine({**preset(name), "load": {"kind": "frozen"}})))
    status, _, warmth, info = BY_HAND[name]
    assert (kernel.status, kernel.tooltip, kernel.info_forms[0]) == (status, warmth, info)


@pytest.mark.parametrize("orientation", ["vertical", "horizontal"])
def test_info_line_takes_the_longest_form_that_fits(orientation: str, x11: XDisplay, start: Start, machines) -> None:
    running: dict[str, tuple[Machine, Monitor]] = {}
    for name in ("hybrid-20", "server-64", "vm-2"):
        machine = machines.enter_context(Machine({**preset(name), "load": {"kind": "frozen"}}))
        running[name] = machine, start(x11, machine, {"orientation": orientation})
    for machine, monitor in running.values():
        forms = KernelReadings(machine).info_forms
        labels = labels_of(monitor)
        wait_until(lambda: readouts(monitor, labels).info in forms, TIMEOUT, f"one of {forms}")
        if orientation == "horizontal":
            continue
        shown = [form_at(x11, monitor, width) for width in (150, 190, 640)]
        assert shown == sorted(shown, key=len)
        assert shown[-1] == forms[0]
        assert set(shown) <= set(forms)


def form_at(display: XDisplay, monitor: Monitor, width: int) -> str:
    """The info line in a window so wide, or as wide as it can be."""
    least = max(width, display.properties(monitor.window)["WM_NORMAL_HINTS"]["program specified minimum size"][0])
    display.resize_until(monitor.window, width, 700, lambda: monitor.content().total_panel.width == least, TIMEOUT,
                         f"a window {least} pixels wide")
    labels = labels_of(monitor)
    first = readouts(monitor, labels).info
    return wait_until(lambda: readouts(monitor, labels).info == first and first, TIMEOUT, "a text")


def test_machine_without_sensors_shows_nothing_false_and_keeps_its_shape(x11: XDisplay, start: Start) -> None:
    bare, full = start(x11, preset("vm-2")), start(x11, preset("hybrid-20"))
    for monitor in (bare, full):
        widen(x11, monitor)
    wait_until(lambda: status_text(full) != "", TIMEOUT, "a temperature")
    wait_until(lambda: any(card.percentage != "0%" for card in bare.content().cards), TIMEOUT, "a first reading")
    plain, sensing = bare.content(), full.content()
    assert readouts(bare, labels_of(bare))[:3] == ("", "", "")
    for part in ("gear", "total_panel", "total_chart"):
        assert getattr(plain, part) == getattr(sensing, part)
    texts = [node.name for node in bare.tree().walk() if node.role == "label" and node.name]
    assert not [text for text in texts if re.search(r"°C|\dW|Hz|Throttle|-1|nan", text) and text != plain.cpu_name]


def test_readouts_stand_at_the_two_ends_of_their_row(x11: XDisplay, start: Start) -> None:
    english, arabic = start(x11, preset("hybrid-20")), start(x11, preset("hybrid-20"), {"language": "ar"})
    for monitor in (english, arabic):
        widen(x11, monitor)
        wait_until(lambda: status_text(monitor) != "", TIMEOUT, "a temperature")
    left, right = labels_of(english), labels_of(arabic)
    row = left.status_row.rect
    assert row.x <= left.gear.rect.x < left.gear.rect.right <= left.status.rect.x
    assert left.status.rect.right <= left.throttle.rect.x
    assert row.right - left.throttle.rect.right == 4
    assert right.throttle.rect.x - right.status_row.rect.x == 4
    assert right.throttle.rect.right <= right.status.rect.x
    assert right.status.rect.right <= right.gear.rect.x


# --- machines that move ---

class Recorder(Repeating):
    """Reads a machine's files twenty times a second, and remembers what they have held."""

    def __init__(self, machine: Machine) -> None:
        super().__init__(0.05)
        self._kernel = KernelReadings(machine)
        self.statuses: set[str] = set()
        self.tooltips: set[str] = set()
        self.infos: set[str] = set()
        self.step()

    def step(self) -> None:
        kernel = self._kernel
        self.statuses.add(kernel.status)
        self.tooltips.add(kernel.tooltip)
        self.infos.add(kernel.info_forms[0])


def test_moving_machine_shows_only_what_its_files_have_held(x11: XDisplay, start: Start, machines) -> None:
    machine = machines.enter_context(Machine({**preset("offline-8"), "throttle": None}))
    history = EnergyHistory(machine)
    machine.start()
    with Recorder(machine) as recorder:
        monitor = start(x11, machine)
        widen(x11, monitor)
        labels = labels_of(monitor)
        wait_until(lambda: readouts(monitor, labels).info in recorder.infos, TIMEOUT, "a first reading")
        # The first pass follows the start at once, so only what comes after it spans a whole pause
        first = readouts(monitor, labels).status
        wait_until(lambda: readouts(monitor, labels).status != first, TIMEOUT, "a second reading")
        seen: set[Readouts] = set()

        def look() -> bool:
            seen.add(readouts(monitor, labels))
            return len({shown.status for shown in seen}) >= 6
        wait_until(look, TIMEOUT, "several readings")
    parts = [re.fullmatch(r"(CPU \d+°C)?(?:  (\d+\.\d)W)?", shown.status) for shown in seen]
    assert all(parts), seen
    assert {part[1] for part in parts if part and part[1]} <= recorder.statuses
    powers = [float(part[2]) for part in parts if part and part[2]]
    assert len(powers) >= 3
    assert not [watts for watts in powers if not history.explains(watts)], powers
    assert {shown.info for shown in seen} <= recorder.infos
    degrees = {shown.tooltip for shown in seen if "°C" in shown.tooltip}
    assert {re.sub(r"^Throttle: |\n.*", "", text) for text in degrees} <= recorder.tooltips


def test_clock_that_is_set_back_and_forth(x11: XDisplay, start: Start, machines, preloaded, tmp_path: Path) -> None:
    machine = machines.enter_context(Machine(steady_cpus([20, 60], energy={"watts": 40})))
    history = EnergyHistory(machine)
    machine.start()
    clock = tmp_path / "clock"
    clock.write_text("0")
    monitor = start(x11, machine, env={**preloaded("set_clock"), "SET_CLOCK_FILE": str(clock)})
    cards = monitor.content().cards
    seen = [""]

    def look() -> int:
        """How many texts there have been."""
        if (text := status_text(monitor)) != seen[-1]:
            seen.append(text)
        return len(seen)
    wait_until(lambda: look() and seen[-1].endswith("W"), TIMEOUT, "a power")
    first = look()
    wait_until(lambda: look() > first, TIMEOUT, "one that spans a whole pause")
    del seen[:-1]
    for day, load in [(1, [60, 20]), (-1, [20, 60])]:
        clock.write_text(str(day * SECONDS_A_DAY))
        machine.set_load("steady", load)
        before, expected = look(), [f"{percent}%" for percent in load]
        wait_until(lambda: look() >= before + 2 and monitor.percentages(cards) == expected, TIMEOUT, f"the values of day {day}")
    powers = [re.fullmatch(r"CPU 50°C  (\d+\.\d)W", text) for text in seen]
    assert all(power and history.explains(float(power[1])) for power in powers), seen



def steady_cpus(loads: list[float], mhz: float = 4000, **more: object) -> dict:
    """A machine with these loads, all of one rated clock."""
    return {"clusters": [{"cores": len(loads), "mhz": [400, mhz]}], "load": {"kind": "steady", "percent": loads},
            "zones": [{"type": "x86_pkg_temp", "celsius": 50, "trips": [["passive", 90]]}],
            "memory": {"total_gib": 16, "used_gib": 5}, **more}


def set_clock(machine: Machine, cpu: int, mhz: float) -> None:
    machine.write(f"{CPUS}/cpu{cpu}/cpufreq/scaling_cur_freq", f"{round(mhz * 1000)}\n")


@pytest.mark.parametrize("loads, clocks, figure, color", [
    ([100, 100], [4000, 4000], "0%", LOW),
    ([100, 100], [3000, 2000], "38%", MIDDLE),
    ([100, 40], [3000, 400], "25%", LOW),  # the idle one does not count
    ([50, 100], [1000, 4000], "38%", MIDDLE),  # half busy is busy
    ([100, 100], [400, 400], "90%", HIGH),
    ([100, 100], [4400, 5000], "0%", LOW),  # above the rated clock
    ([100, 100], [1200, 1200], "70%", HIGH),
    ([10, 20], [400, 400], "0%", LOW),
])
def test_throttle_is_how_far_busy_cpus_run_below_their_rated_clock(
        loads: list[float], clocks: list[float], figure: str, color: tuple[int, int, int],
        x11: XDisplay, start: Start, machines) -> None:
    machine = machines.enter_context(Machine(steady_cpus(loads)))
    for cpu, mhz in enumerate(clocks):
        set_clock(machine, cpu, mhz)
    monitor = start(x11, machine)
    widen(x11, monitor)
    monitor.wait_for_percentages(monitor.content().cards, [f"{load:.0f}%" for load in loads], "steady loads")
    wait_for(monitor, Readouts("CPU 50°C", f"Throttle {figure}", "50°C / 90°C", "2 Cores / RAM 5/16 GB"))
    assert monitor.bus.text_color(labels_of(monitor).throttle.address) == color


class Throttling(Repeating):
    """Counts one event more ten times a second: a fire burns for one pass only, which on a busy computer may end between two questions."""

    def __init__(self, machine: Machine, events: int) -> None:
        super().__init__(0.1)
        self._machine, self._events = machine, count(events)

    def step(self) -> None:
        self._machine.write(THROTTLE_COUNT, f"{next(self._events)}\n")


def test_throttle_events_light_the_fire_until_they_end(x11: XDisplay, start: Start, machines) -> None:
    machine = machines.enter_context(Machine(steady_cpus([100, 100], throttle={"start": 7, "cpus": [0]})))
    monitor = start(x11, machine)
    widen(x11, monitor)
    labels = labels_of(monitor)

    def look() -> tuple[Readouts, tuple[int, int, int] | None]:
        return readouts(monitor, labels), monitor.bus.text_color(labels.throttle.address)
    calm = Readouts("CPU 50°C", "Throttle 0%", "50°C / 90°C", "2 Cores / RAM 5/16 GB")
    wait_for_what(look, (calm, LOW), "before")
    with Throttling(machine, 8):
        hot = calm._replace(throttle="🔥 Throttle 0%", tooltip="Throttle: 50°C / 90°C\nThrottle 0%")
        wait_for_what(look, (hot, HOT), "with an event in each pass")
    wait_for_what(look, (calm, LOW), "after the last event")


def test_heat_lights_the_fire_where_events_are_not_counted(x11: XDisplay, start: Start, machines) -> None:
    machine = machines.enter_context(Machine(steady_cpus([100])))
    machine.write(f"{ZONE}/temp", "86900\n")
    monitor = start(x11, machine)
    widen(x11, monitor)
    info = "1 Cores / RAM 5/16 GB"
    wait_for(monitor, Readouts("CPU 87°C", "Throttle 0%", "87°C / 90°C", info), "3.1 degrees below")
    machine.write(f"{ZONE}/temp", "87000\n")
    hot = Readouts("CPU 87°C", "🔥 Throttle 0%", "Throttle: 87°C / 90°C\nThrottle 0%", info)
    wait_for(monitor, hot, "3 degrees below")
    machine.write(f"{ZONE}/temp", "50000\n")
    wait_for(monitor, Readouts("CPU 50°C", "Throttle 0%", "50°C / 90°C", info), "cool again")


@pytest.mark.parametrize("language", ["ar", "fa", "he", "ur"])
def test_hot_machine_is_understood_from_right_to_left(language: str, x11: XDisplay, start: Start, machines) -> None:
    machine = machines.enter_context(Machine(steady_cpus([100, 100])))
    machine.write(f"{ZONE}/temp", "87000\n")
    monitor, told = start(x11, machine, {"language": language}), Told(machine)
    look_again = while_it_changes(lambda: look(monitor.bus, monitor.root))
    wait_until(lambda: (shown := look_again()) and "\n" in shown.tooltip, TIMEOUT, "a fire")
    told.check(look(monitor.bus, monitor.root))


# --- readings that go and come ---

def test_temperature_goes_away_and_comes_back(x11: XDisplay, start: Start, machines) -> None:
    machine = machines.enter_context(Machine(steady_cpus([100, 100])))
    set_clock(machine, 0, 3000)
    monitor = start(x11, machine)
    widen(x11, monitor)
    info = "2 Cores / RAM 5/16 GB"
    warm = Readouts("CPU 50°C", "Throttle 12%", "50°C / 90°C", info)
    gone = Readouts("", "Throttle 12%", "Throttle 12%", info)
    set_clock(machine, 1, 4000)
    wait_for(monitor, warm, "at first")
    breakages: list[Callable[[], None]] = [
        lambda: machine.remove(f"{ZONE}/temp"), lambda: machine.make_failing(f"{ZONE}/temp"),
        lambda: machine.write(f"{ZONE}/temp", "\n"), lambda: machine.write(f"{ZONE}/temp", "-1000\n")]
    for number, breakage in enumerate(breakages):
        breakage()
        wait_for(monitor, gone, f"breakage {number}")
        if os.path.lexists(machine.outside(f"{ZONE}/temp")):
            machine.remove(f"{ZONE}/temp")
        machine.write(f"{ZONE}/temp", "50000\n")
        wait_for(monitor, warm, f"after breakage {number}")


def test_clocks_and_memory_go_away_and_come_back(x11: XDisplay, start: Start, machines) -> None:
    machine = machines.enter_context(Machine(steady_cpus([100, 100])))
    for cpu in (0, 1):
        set_clock(machine, cpu, 2000)
    monitor = start(x11, machine)
    widen(x11, monitor)
    whole = Readouts("CPU 50°C", "Throttle 50%", "50°C / 90°C", "2 Cores / RAM 5/16 GB")
    wait_for(monitor, whole, "at first")
    clock = f"{CPUS}/cpu0/cpufreq/scaling_cur_freq"
    memory = machine.read("/proc/meminfo")
    machine.remove(clock)
    machine.remove("/proc/meminfo")
    wait_for(monitor, Readouts("CPU 50°C", "", "", "2 Cores"), "without clocks and memory")
    set_clock(machine, 0, 2000)
    machine.write("/proc/meminfo", memory)
    wait_for(monitor, whole, "with both again")


def test_power_goes_away_and_comes_back(x11: XDisplay, start: Start, machines) -> None:
    machine = machines.enter_context(Machine(steady_cpus([100], energy={"watts": 40})))
    monitor = start(x11, machine)
    widen(x11, monitor)
    wait_until(lambda: re.fullmatch(r"CPU 50°C  \d+\.\dW", status_text(monitor)), TIMEOUT, "a power")
    machine.remove(ENERGY)
    wait_until(lambda: status_text(monitor) == "CPU 50°C", TIMEOUT, "no power without a counter")
    machine.hand_back(ENERGY)
    wait_until(lambda: re.fullmatch(r"CPU 50°C  \d+\.\dW", status_text(monitor)), TIMEOUT, "a power again")
    machine.remove(f"{ZONE}/temp")
    wait_until(lambda: re.fullmatch(r"  \d+\.\dW", status_text(monitor)), TIMEOUT, "the power alone")


def test_energy_counter_that_starts_again_gives_no_false_power(x11: XDisplay, start: Start, machines) -> None:
    watts = 40
    machine = machines.enter_context(Machine(steady_cpus([100], energy={"watts": watts, "max_uj": 7 * watts * 10**6})))
    monitor = start(x11, machine)
    widen(x11, monitor)
    seen: set[str] = set()

    def shows(pattern: str) -> bool:
        text = status_text(monitor)
        seen.add(text)
        return re.fullmatch(pattern, text) is not None
    for wrap in range(2):  # each hides the figure for one pass
        wait_until(lambda: shows(r"CPU 50°C  \d+\.\dW"), TIMEOUT, f"a power before wrap {wrap}")
        wait_until(lambda: shows("CPU 50°C"), TIMEOUT, f"no power after wrap {wrap}")
    wait_until(lambda: shows(r"CPU 50°C  \d+\.\dW"), TIMEOUT, "a power after both wraps")
    powers = [float(text[len("CPU 50°C  "):-1]) for text in seen if text.endswith("W")]
    assert max(powers) < 2 * watts, seen


# --- sections ---

GROUPS = {"group0": "#FE01C5", "group1": "#00B060", "group2": "#B06000", "group3": "#4040F0"}


def bar_colors(monitor: Monitor, folder: Path) -> list[tuple[int, ...]]:
    """The colour in the middle of each section's bar."""
    content, picture = monitor.content(), monitor.picture(folder / "window.png")
    return [tuple(int(part) for part in picture[bar.y + bar.height // 2, bar.x]) for bar in
            (section.bar for section in content.sections)]


def test_sections_of_interleaved_core_types(x11: XDisplay, start: Start, tmp_path: Path) -> None:
    types = ["intel_atom", "intel_core", "intel_lowpower", "intel_core ", "intel_atom", "intel_core"]
    clocks = {"intel_core": 5100, "intel_atom": 3900, "intel_lowpower": 900}
    files = {f"{CPUS}/cpu{cpu}/cpu_type": f"{kind}\n" for cpu, kind in enumerate(types)}
    rated = {f"{CPUS}/cpu{cpu}/cpufreq/cpuinfo_max_freq": f"{clocks[kind.strip()] * 1000}\n"
             for cpu, kind in enumerate(types)}
    monitor = start(x11, {"clusters": [{"cores": 6, "mhz": [400, 5100], "type": "x"}], "load": {"kind": "idle"},
                          "files": files | rated}, GROUPS)
    widen(x11, monitor)
    content = monitor.content()
    assert content.titles == [
        ("Cluster 1 (3)", "5.100 GHz"), ("Cluster 2 (2)", "3.900 GHz"), ("Cluster 3 (1)", "900 MHz")]
    assert [[card.name for card in section.cards] for section in content.sections] == [
        ["Core 2", "Core 4", "Core 6"], ["Core 1", "Core 5"], ["Core 3"]]
    assert bar_colors(monitor, tmp_path) == [color_of(GROUPS[f"group{n}"]) for n in range(3)]


@pytest.mark.parametrize("orientation", ["vertical", "horizontal"])
def test_fifth_section_takes_the_first_colour_again(
        orientation: str, x11: XDisplay, start: Start, tmp_path: Path) -> None:
    monitor = start(x11, preset("levels-5"), {**GROUPS, "orientation": orientation})
    assert len(monitor.content().sections) == 5
    colors = [color_of(GROUPS[f"group{n % 4}"]) for n in range(5)]
    wait_until(lambda: bar_colors(monitor, tmp_path) == colors, TIMEOUT, "the five bars")


# --- the clocks behind the curves ---

GHOST_LEGIBLE, GHOST_SIZE, GHOST_SHARE, GHOST_MARGINS = 9.0, 18.0, 0.42, 6.0


def ghost_forms(mhz: float, point: str) -> list[str]:
    """The texts of a clock, longest first."""
    if mhz < 1000:
        return [f"{mhz:.0f} MHz", f"{mhz:.0f}M", f"{mhz:.0f}"]
    texts = [f"{mhz / 1000:.3f} GHz", f"{mhz / 1000:.1f} GHz", f"{mhz / 1000:.1f}G", f"{mhz / 1000:.1f}"]
    return [text.replace(".", point) for text in texts]


def drawn_ghost(mhz: float, point: str, width: int, height: int) -> numpy.ndarray:
    """The clock's ink in a chart of that size."""
    surface = cairo.ImageSurface(cairo.FORMAT_A8, width, height)
    context = cairo.Context(surface)
    context.select_font_face("monospace", cairo.FONT_SLANT_NORMAL, cairo.FONT_WEIGHT_BOLD)
    base = min(GHOST_SIZE, height * GHOST_SHARE)
    for text in ghost_forms(mhz, point):
        context.set_font_size(base)
        size = base * min(1.0, (width - GHOST_MARGINS) / context.text_extents(text).width)
        if size >= GHOST_LEGIBLE:
            context.set_font_size(size)
            ink = context.text_extents(text)
            context.move_to((width - ink.width) / 2 - ink.x_bearing, (height - ink.height) / 2 - ink.y_bearing)
            context.show_text(text)
            break
    surface.flush()
    rows = numpy.frombuffer(surface.get_data(), numpy.uint8).reshape(height, surface.get_stride())
    return rows[:, :width].astype(float)


def read_ghost(picture: numpy.ndarray, rect: Rect, candidates: list[tuple[float, str]]) -> tuple[float, str]:
    """Clock and decimal point, read by comparison with all that they can be."""
    chart = picture[rect.y:rect.bottom, rect.x:rect.right].astype(float)
    ink = numpy.abs(chart - numpy.median(chart, axis=(0, 1))).sum(axis=2)
    middle = slice(rect.height // 4 + 1, rect.height * 3 // 4)  # without outer grid lines, curve and percentage

    def likeness(candidate: tuple[float, str]) -> float:
        drawing = drawn_ghost(*candidate, rect.width, rect.height)
        return float(numpy.corrcoef(ink[middle].ravel(), drawing[middle].ravel())[0, 1])
    return max(candidates, key=likeness)


CLOCKS = [1234.0, 4321.5, 800.0, 2999.9]


def assert_ghosts(monitor: Monitor, point: str, folder: Path) -> None:
    """Waits until each card has its CPU's clock behind its curve, and the total chart the highest."""
    candidates = [(mhz, sign) for mhz in [*CLOCKS, 1243.0, 4312.5, 400.0, 2399.9] for sign in (".", ",")]
    content = monitor.content()
    rects = [card.chart for card in content.cards] + [content.total_chart]

    def look() -> list[tuple[float, str]]:
        picture = monitor.picture(folder / "window.png")
        return [read_ghost(picture, rect, candidates) for rect in rects]
    # A clock below a gigahertz has no decimals.
    expected = [(mhz, point if mhz >= 1000 else ".") for mhz in [*CLOCKS, max(CLOCKS)]]
    wait_for_what(look, expected, "clocks behind the curves")


@pytest.mark.parametrize("orientation", ["vertical", "horizontal"])
def test_clocks_stand_behind_the_curves(
        orientation: str, x11: XDisplay, start: Start, machines, tmp_path: Path) -> None:
    machine = machines.enter_context(Machine({**steady_cpus([0] * 4), "load": {"kind": "frozen"}}))
    for cpu, mhz in enumerate(CLOCKS):
        set_clock(machine, cpu, mhz)
    monitor = start(x11, machine, {"orientation": orientation})
    x11.resize_until(monitor.window, 900, 700, lambda: x11.geometry(monitor.window)[2:] == (900, 700), TIMEOUT, "a large window")
    assert_ghosts(monitor, ".", tmp_path)


# --- decimal commas ---

@pytest.mark.xdist_group("German")
def test_decimal_commas_are_shown_and_kernel_files_read_right(
        german_locale: Path, x11: XDisplay, start: Start, machines, tmp_path: Path) -> None:
    commas = {"LC_NUMERIC": "de_DE.UTF-8", "LOCPATH": str(german_locale), "LC_ALL": None}
    machine = machines.enter_context(Machine(steady_cpus([100, 0, 0, 0], 5250, energy={"watts": 37.5})))
    for cpu, mhz in enumerate(CLOCKS):
        set_clock(machine, cpu, mhz)
    machine.write(f"{ZONE}/temp", "61499\n")
    monitor = start(x11, machine, env=commas)
    widen(x11, monitor)
    assert monitor.content().titles == [("CPU (4)", "5,250 GHz")]
    power = r"(CPU 61°C)  (\d+,\d)W"
    found = wait_until(lambda: re.fullmatch(power, status_text(monitor)), TIMEOUT, "temperature and power with a comma")
    assert 0 < float(found[2].replace(",", ".")) < 75
    labels = labels_of(monitor)
    wait_for_what(lambda: readouts(monitor, labels)[1:], ("Throttle 76%", "61°C / 90°C", "4 Cores / RAM 5/16 GB"))
    monitor.wait_for_percentages(monitor.content().cards, ["100%", "0%", "0%", "0%"], "steady loads")
    machine.set_load("steady", [0])
    x11.resize(monitor.window, 640, 700)
    monitor.wait_for_percentages(monitor.content().cards, ["0%"] * 4, "no load")
    assert_ghosts(monitor, ",", tmp_path)


def test_german_interface_alone_changes_no_number(x11: XDisplay, start: Start) -> None:
    monitor = start(x11, preset("hybrid-20"), {"language": "de"})
    assert [section.caption for section in monitor.content().sections] == ["5.000 GHz", "3.800 GHz"]
