"""The programs that are measured beside each other, and how each is told to show a chart for every CPU."""

from __future__ import annotations

import math
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path

from displays import XDisplay
from geometry_records import COLUMN_WIDTH, DEFAULT_HEIGHT, WINDOW_PADDING, Record, Stored
from monitor import config_folder

PEERS = Path(__file__).resolve().parent / "peers"
PLACE = (40, 40)  # of a window on its screen

# What the monitor reads every other second on the machines of the comparison.
FILES_OF_A_PASS = (
    "/proc/meminfo",
    "/sys/class/thermal/thermal_zone2/temp",
    "/sys/class/powercap/intel-rapl:0/energy_uj",
    "/sys/devices/system/cpu/cpu[0-9]*/cpufreq/scaling_cur_freq",
    "/sys/devices/system/cpu/cpu[0-9]*/thermal_throttle/core_throttle_count",
)


@dataclass(frozen=True)
class Shape:
    """The window that this many CPUs are shown in: about as many columns as rows, in the monitor's default size for them."""
    cpus: int

    @property
    def columns(self) -> int:
        return min(max(1, math.isqrt(self.cpus)), 16)

    @property
    def size(self) -> tuple[int, int]:
        return COLUMN_WIDTH * self.columns + WINDOW_PADDING, DEFAULT_HEIGHT


@dataclass(frozen=True)
class Program:
    """One of them. `command` is given the folder of our own programs; `prepare` puts its configuration into a home folder."""
    name: str
    command: Callable[[Path, Shape], list[str]]
    prepare: Callable[[XDisplay, Shape], None] = lambda display, shape: None
    has_window: bool = True


def _remember_shape(display: XDisplay, shape: Shape) -> None:
    folder = config_folder(display.home)
    folder.mkdir(parents=True)
    (folder / "geometry.json").write_text(Stored(vertical=Record(*PLACE, *shape.size, shape.columns)).line)


def _configure_gkrellm(display: XDisplay, shape: Shape, updates: int = 10) -> None:
    """It looks ten times a second unless it is told otherwise; its charts move once a second in any case."""
    folder = display.home / ".gkrellm2"
    folder.mkdir()
    (folder / "user-config").write_text(f"{(PEERS / 'gkrellm.user-config').read_text()}update_HZ {updates}\n")


def _configure_slow_gkrellm(display: XDisplay, shape: Shape) -> None:
    _configure_gkrellm(display, shape, updates=1)


def _configure_system_monitor(display: XDisplay, shape: Shape) -> None:
    with open(display.config_home / "glib-2.0/settings/keyfile", "a") as file:
        file.write((PEERS / "gnome-system-monitor.keyfile").read_text())


def _words(*values: object) -> list[str]:
    return [str(value) for value in values]


REFERENCE, OURS, EMPTY_WINDOW, PLAIN_READER = "gkrellm", "vantric", "empty window", "plain reader"

PROGRAMS = {program.name: program for program in (
    Program(OURS, lambda build, shape: _words(build / "vantric"), _remember_shape),
    Program(REFERENCE, lambda build, shape: ["gkrellm"], _configure_gkrellm),
    Program("gkrellm once a second", lambda build, shape: ["gkrellm"], _configure_slow_gkrellm),
    Program("conky", lambda build, shape: _words("conky", "-q", "-c", PEERS / "conky.lua")),
    Program("gnome-system-monitor", lambda build, shape: ["gnome-system-monitor"], _configure_system_monitor),
    Program(EMPTY_WINDOW, lambda build, shape: _words(build / "empty_window", *shape.size)),
    Program("charts only", lambda build, shape: _words(build / "charts_only", shape.cpus, shape.columns, *shape.size)),
    Program(PLAIN_READER, lambda build, shape: _words(build / "plain_reader", *FILES_OF_A_PASS), has_window=False),
)}
