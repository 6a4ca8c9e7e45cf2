"""Many minutes of running, in a few seconds: charts fill up and scroll, all settings change on the way, and the program takes no more than
before. VANTRIC_LONG_RUN_SAMPLES=86400 makes a day of it on each machine, VANTRIC_LONG_RUN_CHANGES=200 so many rounds of all changes."""

from __future__ import annotations

import os
import re
from collections.abc import Callable
from contextlib import ExitStack, closing
from dataclasses import dataclass
from pathlib import Path
from typing import NamedTuple

import pytest

from chart_pixels import Chart
from displays import XDisplay, wait_until
from fakemachine import Machine
from geometry_records import Record, Stored
from monitor import MARKER_COLOR, TIMEOUT, Start, kept_descriptors
from settings_dialog import ORIENTATIONS, THEMES, SettingsDialog
from x_resources import XResources


class Run(NamedTuple):
    """A machine, and how the program lives on it."""
    cpus: int
    factor: int  # at which its time runs; no faster than the program can paint
    warm_up: int  # samples until all texts have been shown once
    samples: int  # from one look at what it takes to the next
    changes: int  # rounds of all changes on the way


RUNS = [Run(2, 100, 80, 400, 1), Run(64, 50, 70, 70, 0), Run(256, 25, 65, 30, 0)]

MANY_SAMPLES = int(os.environ.get("VANTRIC_LONG_RUN_SAMPLES", "0"))
MANY_CHANGES = int(os.environ.get("VANTRIC_LONG_RUN_CHANGES", "0"))
SHORTEST_SAMPLE = 1.0  # seconds that a sample may take on a busy computer

LANGUAGES_SEEN = ("العربية", "日本語", "Deutsch", "English") if MANY_CHANGES else ("Deutsch", "English")

ALLOWED_GROWTH_KB = 3 * 1024  # cairo keeps letters in hundreds of sizes, and drops many at a time
ALLOWED_PIXMAP_KB = 5 * 1024  # of the frame that is just being painted, as large as the screen at most
ALLOWED_IN_SERVER = {"PIXMAP": 2, "PICTURE": 16, "GLYPHSET": 300}  # that frame, and cairo's letters there; of all else not one more


@dataclass(frozen=True)
class Look:
    """What the program takes at one moment."""
    samples: int
    cpu_seconds: float
    reads: int
    resident_kb: int
    anonymous_kb: int  # memory of its own; pages of libraries are private or shared by what else runs
    descriptors: int
    threads: int
    pixmap_kb: int
    server_side: dict[str, int]

    @classmethod
    def at(cls, pid: int, window: int, server: XResources) -> Look:
        process = Path(f"/proc/{pid}")
        status = (process / "status").read_text()
        return cls(samples_of(pid), cpu_seconds(process), _number("syscr", (process / "io").read_text()), _number("VmRSS", status),
                   _number("RssAnon", status), kept_descriptors(pid),
                   len(list((process / "task").iterdir())), server.pixmap_kb(window), server.of(window))

    def of_a_sample(self, before: Look) -> tuple[float, float]:
        """CPU time in ms, and calls that read, of a sample since then.

        Neither decides: as time runs so fast, how many readings of all else come to a sample depends on how late each thread is.
        """
        samples = self.samples - before.samples
        return (self.cpu_seconds - before.cpu_seconds) * 1000 / samples, (self.reads - before.reads) / samples


def cpu_seconds(process: Path) -> float:
    fields = (process / "stat").read_text().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def samples_of(pid: int) -> int:
    """How often a sampling thread has slept, which it does once for each sample."""
    counts = [0]
    for task in Path(f"/proc/{pid}/task").iterdir():
        if int(task.name) != pid and (task / "comm").read_text() == "vantric\n":
            counts.append(_number("voluntary_ctxt_switches", (task / "status").read_text()))
    return max(counts)


def _number(name: str, text: str) -> int:
    found = re.search(rf"^{name}:\s*(\d+)", text, re.MULTILINE)
    assert found, f"no {name} in {text!r}"
    return int(found[1])


class Life:
    """A program whose time runs fast, with its dialog."""

    def __init__(self, dialog: SettingsDialog, server: XResources) -> None:
        self.dialog, self._server = dialog, server
        self._window = dialog.main

    def look(self) -> Look:
        return Look.at(self.dialog.monitor.pid, self._window, self._server)

    def live(self, samples: int) -> None:
        end, pid = samples_of(self.dialog.monitor.pid) + samples, self.dialog.monitor.pid
        wait_until(lambda: samples_of(pid) >= end, TIMEOUT + samples * SHORTEST_SAMPLE, f"{samples} samples")

    def change_everything(self) -> None:
        """Language, theme, a colour, columns and orientation: all of them change, and come back in the end."""
        dialog = self.dialog
        dialog.open()
        for language in LANGUAGES_SEEN:
            dialog.choose_language(language)
        for theme in ("dark", "light"):
            before = dialog.wait()
            dialog.choose(before.theme, THEMES.index(theme))
            dialog.wait_for_new_content(before)
        opened = dialog.wait() if dialog.wait().expanded else dialog.click_expander()
        dialog.pick_color(opened.color("Background"), "Dark Blue")
        before = dialog.wait()
        dialog.press(before.reset)
        dialog.wait_for_new_content(before)
        for press in ("more", "fewer"):
            now = dialog.wait()
            dialog.press(getattr(now, press))
            dialog.press(now.apply)
            dialog.wait_until_hidden()
            dialog.open()
        for orientation in reversed(ORIENTATIONS):
            dialog.choose_orientation(orientation)
        dialog.close()


@pytest.mark.parametrize("run", RUNS, ids=lambda run: f"{run.cpus}")
def test_nothing_grows(run: Run, x11: XDisplay, preloaded: Callable[[str], dict[str, str]], machines: ExitStack, start: Start,
                       tmp_path: Path) -> None:
    description = {"clusters": [{"cores": run.cpus, "mhz": [800, 4800]}], "zones": [{"type": "x86_pkg_temp", "celsius": [40, 90]}]}
    machine = machines.enter_context(Machine(description, speed=run.factor, interval=0.8 / run.factor))
    columns = min(16, run.cpus)
    shape = Record(20, 20, 60 * columns, 500, columns)
    dialog = SettingsDialog.of_new_program(start, x11, tmp_path / "kept", machine, records=Stored(shape, shape),
                                           env={**preloaded("time_lapse"), "TIME_LAPSE": str(run.factor)})
    with closing(XResources(x11.number)) as server:
        life = Life(dialog, server)
        changes = MANY_CHANGES or run.changes
        for _ in range(min(changes, 2)):
            life.change_everything()
        life.live(run.warm_up)
        first = life.look()
        life.live(run.warm_up)
        before = life.look()
        for _ in range(changes):
            life.change_everything()
        life.live(max(0, (MANY_SAMPLES or run.samples) - (life.look().samples - before.samples)))
        last = life.look()
        life.live(run.warm_up)
        after = life.look()
    costs = before.of_a_sample(first), after.of_a_sample(last)
    for when, look, (ms, reads) in (("before", before, costs[0]), ("after", after, costs[1])):
        print(f"{run.cpus} CPUs, {when}: {look}, {ms:.2f} ms of CPU time and {reads:.1f} reads for each sample")
    assert_no_growth(before, after)
    if run.cpus == 2:
        card = dialog.monitor.content().cards[0]
        assert Chart(dialog.monitor.picture(tmp_path / "window.png"), card.chart, MARKER_COLOR).fills_whole_width()


def assert_no_growth(before: Look, after: Look) -> None:
    assert after.descriptors <= before.descriptors
    assert after.threads <= before.threads  # GLib ends those of its own that have nothing to do
    assert after.anonymous_kb - before.anonymous_kb <= ALLOWED_GROWTH_KB
    more = {kind: number - before.server_side.get(kind, 0) for kind, number in after.server_side.items()}
    assert {kind: number for kind, number in more.items() if number > ALLOWED_IN_SERVER.get(kind, 0)} == {}
    assert after.pixmap_kb - before.pixmap_kb <= ALLOWED_PIXMAP_KB
