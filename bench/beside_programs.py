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
MIN_COLUMNS, MAX_COLUMNS = 2, 16

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
        return min(max(MIN_COLUMNS, math.isqrt(self.cpus)), MAX_COLUMNS)

    @property
    def size(self) -> tuple[int, int]:
        return COLUMN_WIDTH * self.columns + WINDOW_PADDING, DEFAULT_HEIGHT


@dataclass(frozen=True)
class Folders:
    """Where our own programs lie."""
    vantric: Path  # the program itself
    floors: Path  # the folder of empty_window, widgets_only, charts_only and plain_reader


@dataclass(frozen=True)
class Program:
    """One of them. `prepare` puts its configuration into a home folder."""
    name: str
    command: Callable[[Folders, Shape], list[str]]
    prepare: Callable[[XDisplay, Shape], None] = lambda display, shape: None
    has_window: bool = True
    in_each_round: bool = False  # lines are formed from it; of all others one round is enough


def _remember_shape(display: XDisplay, shape: Shape) -> None:
    folder = config_folder(display.home)
    folder.mkdir(parents=True)
    (folder / "geometry.json").write_text(Stored(vertical=Record(*PLACE, *shape.size, shape.columns)).line)


def _configure_gkrellm(display: XDisplay, updates: int) -> None:
    """It looks ten times a second unless it is told otherwise; its charts move once a second in any case."""
    folder = display.home / ".gkrellm2"
    folder.mkdir()
    (folder / "user-config").write_text(f"{(PEERS / 'gkrellm.user-config').read_text()}update_HZ {updates}\n")


def _configure_system_monitor(display: XDisplay, shape: Shape) -> None:
    with open(display.config_home / "glib-2.0/settings/keyfile", "a") as file:
        file.write((PEERS / "gnome-system-monitor.keyfile").read_text())


def _words(*values: object) -> list[str]:
    return [str(value) for value in values]


OURS, OURS_BY_DEFAULT = "vantric", "vantric in one column"
REFERENCE, EMPTY_WINDOW, PLAIN_READER = "gkrellm once a second", "empty window", "plain reader"

PROGRAMS = {program.name: program for program in (
    Program(OURS, lambda ours, shape: _words(ours.vantric), _remember_shape, in_each_round=True),
    Program(OURS_BY_DEFAULT, lambda ours, shape: _words(ours.vantric), in_each_round=True),
    Program(REFERENCE, lambda ours, shape: ["gkrellm"], lambda display, shape: _configure_gkrellm(display, 1), in_each_round=True),
    Program("gkrellm", lambda ours, shape: ["gkrellm"], lambda display, shape: _configure_gkrellm(display, 10)),
    Program("conky", lambda ours, shape: _words("conky", "-q", "-c", PEERS / "conky.lua")),
    Program("gnome-system-monitor", lambda ours, shape: ["gnome-system-monitor"], _configure_system_monitor),
    Program(EMPTY_WINDOW, lambda ours, shape: _words(ours.floors / "empty_window", *shape.size), in_each_round=True),
    Program("widgets only", lambda ours, shape: _words(ours.floors / "widgets_only", shape.cpus, shape.columns, *shape.size)),
    Program("charts only", lambda ours, shape: _words(ours.floors / "charts_only", shape.cpus, shape.columns, *shape.size)),
    Program(PLAIN_READER, lambda ours, shape: _words(ours.floors / "plain_reader", *FILES_OF_A_PASS), has_window=False),
)}
