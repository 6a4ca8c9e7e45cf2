"""All numbers that the window shows at a moment, and whether a machine's files, however false, can have told them."""

from __future__ import annotations

import re
from typing import NamedTuple

from accessibility import AccessibilityBus, Address, Node
from fakemachine import Machine
from kernel_readings import GIB_IN_KIB, KernelReadings
from proc_stat import percentage

BUSY = 0.5  # the load from which a CPU counts as held back when its clock is low
SHORTEST_PASS = 1.9  # seconds between two readings of the energy counter; a little less than there are

STATUS = re.compile(r"(?:CPU (\d+)°C)?(?:  (\d+\.\d)W)?")
THROTTLE = re.compile(r"(?:(?:🔥 )?\D+ (\d{1,3})%)?")
DIRECTION = "[\u200e\u200f]*"  # marks before figures, where words are written from right to left
TOOLTIP = re.compile(
    rf"|\D+ (?P<alone>\d{{1,3}})%|(?:\D+: {DIRECTION})?(?P<celsius>\d+)°C / (?P<limit>\d+)°C(?:\n\D+ (?P<throttle>\d{{1,3}})%)?")
MEMORY = re.compile(r"(\d+)/(\d+) GB$")


class Shown(NamedTuple):
    """The texts of all labels that hold measured values."""
    percentages: list[str]
    status: str
    throttle: str
    tooltip: str
    info: str


def look(bus: AccessibilityBus, root: Address) -> Shown:
    """Reads the main window of the program. Raises GLib.Error or ValueError where its content is being replaced."""
    nodes = list(bus.tree(bus.children(root)[0]).walk())
    roles = {id(node): [child.role for child in node.children] for node in nodes}

    def with_roles(*wanted: str) -> list[Node]:
        return [node for node in nodes if roles[id(node)] == list(wanted)]
    (status_row,) = with_roles("push button", "label", "label")
    _, status, throttle = status_row.children
    (info,) = [line.children[0] for header in with_roles("label", "filler") for line in header.children[1:] if roles[id(line)] == ["label"]]
    cards = [card for card in with_roles("filler", "chart") if roles[id(card.children[0])] == ["label", "label"]]
    (tooltip,) = bus.descriptions([throttle.address])
    percentages = [card.children[0].children[1].name for card in cards]
    if not all([*percentages, info.name]):
        raise ValueError("labels that have just been destroyed, and so have no text any more")
    return Shown(percentages, status.name, throttle.name, tooltip, info.name)


class Told:
    """What the files of a machine have told so far, and so may be shown."""

    def __init__(self, machine: Machine) -> None:
        kernel = KernelReadings(machine)
        self._cores = kernel.physical_cores
        self._limit = kernel.limit
        self._celsius: set[str] = set()
        self._totals: set[str] = set()
        self._cpus = 0
        self._joules = 0.0
        self.stat(machine.read("/proc/stat"))
        self.memory(machine.read("/proc/meminfo"))
        assert kernel.celsius is not None
        self.temperature(str(round(kernel.celsius * 1000)))

    def stat(self, text: str) -> None:
        """To be called before /proc/stat says so; the others likewise."""
        self._cpus = max(self._cpus, len(re.findall(r"^cpu\d", text, re.MULTILINE)))

    def temperature(self, text: str) -> None:
        found = re.match(r"\s*\+?(-?\d+)", text)
        if found and 0 <= int(found[1]) < 2**31:
            self._celsius.add(f"{int(found[1]) / 1000:.0f}")

    def memory(self, text: str) -> None:
        for amount in re.findall(r"^\s*MemTotal:\s*(\d+)", text, re.MULTILINE):
            if 0 < int(amount) < 2**64:
                self._totals.add(f"{int(amount) / GIB_IN_KIB:.0f}")

    def energy(self, text: str) -> None:
        found = re.match(r"\s*\+?(\d+)", text)
        if found and int(found[1]) < 2**64:
            self._joules = max(self._joules, int(found[1]) / 1e6)

    def check(self, shown: Shown) -> None:
        """Fails if something is shown that no file can have told."""
        for text in shown.percentages:
            assert re.fullmatch(r"\d{1,3}%", text) and int(text[:-1]) <= 100, f"percentage {text!r}"
        self._check_status(shown.status)
        self._check_throttle(shown.throttle, shown.tooltip)
        self._check_info(shown.info)

    def _check_status(self, text: str) -> None:
        found = STATUS.fullmatch(text)
        assert found, f"status {text!r}"
        celsius, watts = found.groups()
        assert celsius is None or celsius in self._celsius, (text, self._celsius)
        assert watts is None or float(watts) <= self._joules / SHORTEST_PASS, (text, self._joules)

    def _check_throttle(self, label: str, tooltip: str) -> None:
        found, more = THROTTLE.fullmatch(label), TOOLTIP.fullmatch(tooltip)
        assert found and more, (label, tooltip)
        for figure in (found[1], more["alone"], more["throttle"]):
            assert figure is None or int(figure) <= 100, (label, tooltip)
        assert more["celsius"] is None or more["celsius"] in self._celsius, (tooltip, self._celsius)
        assert more["limit"] in (None, f"{self._limit:.0f}"), f"tooltip {tooltip!r}"

    def _check_info(self, text: str) -> None:
        memory = MEMORY.search(text)
        if memory:
            used, total = memory.groups()
            assert total in self._totals and int(used) <= int(total), (text, self._totals)
        counts = [int(number) for number in re.findall(r"-?\d+", MEMORY.sub("", text))]
        assert counts and all(count == self._cores or 0 <= count <= self._cpus for count in counts), f"info line {text!r}"


def throttle_figure(kernel: KernelReadings, loads: list[float]) -> str:
    """How far the busy CPUs run below their rated clocks, as the label tells it; the loads from 0 to 1."""
    held_back = [min(max(1 - clock / kernel.highest_clock(cpu), 0), 1)
                 for cpu, (load, clock) in enumerate(zip(loads, kernel.clocks)) if load >= BUSY]
    return f"Throttle {percentage(sum(held_back) / len(held_back) if held_back else 0)}"


def watts_of(status: str) -> float | None:
    """The power in the status label."""
    found = STATUS.fullmatch(status)
    return float(found[2]) if found and found[2] else None
