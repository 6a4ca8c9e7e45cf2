"""A storm: everything around the program changes, vanishes, hangs, fails and lies at random, and nothing of it may break the program.

The kernel's files, CPUs, the window, the settings, the portal and harmless signals each have an actor of their own. Meanwhile every number
that the window shows has to be one that the files can have told, and the main thread has to answer. Then all is put right, and the window
has to show exactly what the files hold.

VANTRIC_STORM_SECONDS is how long it lasts; VANTRIC_STORM_SEED takes the actors' choices from an earlier one.
"""

from __future__ import annotations

import os
import random
import signal
import time
import traceback
from collections import Counter
from collections.abc import Callable
from contextlib import ExitStack, suppress
from pathlib import Path

from gi.repository import GLib

import mock_portal as portals
from accessibility import AccessibilityBus, Gone
from displays import XDisplay, wait_until
from display_x11 import run_tool
from fakemachine import Machine
from geometry_records import Home
from kernel_readings import CPUS, ENERGY, THERMAL, KernelReadings
from mock_portal import COLOR_SCHEME, DARK, LIGHT, Answer, Late, MockPortal, emit, scheme, value
from monitor import TIMEOUT, Monitor, Start, kept_descriptors
from repeating import Repeating
from settings_dialog import LANGUAGES, THEMES, SettingsDialog, while_it_changes
from shown_values import Shown, Told, look, throttle_figure, watts_of

SECONDS = float(os.environ.get("VANTRIC_STORM_SECONDS", "15"))
SEED = int(os.environ.get("VANTRIC_STORM_SEED", "0")) or random.randrange(1, 10**6)

LONGEST_ANSWER = TIMEOUT  # it may be held up by half a second for each question that the portal leaves open, but not for good
LONGEST_PAUSE = 0.3  # seconds that the program is stopped at once
LONGEST_HANG = 1.0  # seconds that a file hangs
HANGING_AT_ONCE = 1  # files; with more of them the samplers would hardly see anything else
ALLOWED_DESCRIPTORS = 8  # more than at first; GTK opens some for the dialog

LOADS = [0, 15, 30, 50, 65, 70, 85, 100]
WATTS = 40
STAT, MEMINFO, ZONE = "/proc/stat", "/proc/meminfo", f"{THERMAL}/thermal_zone0/temp"
MACHINE = {
    "clusters": [{"cores": 4, "mhz": [800, 5000], "type": "intel_core"}, {"cores": 4, "mhz": [800, 3800], "type": "intel_atom"}],
    "zones": [{"type": "x86_pkg_temp", "celsius": 61, "trips": [["passive", 95]]}], "energy": {"watts": WATTS},
    "throttle": {"start": 5, "cpus": [0, 1]}, "memory": {"total_gib": 16, "used_gib": 5}, "load": {"kind": "steady", "percent": LOADS}}

Act = Callable[[random.Random], str]


class Actor(Repeating):
    """Does something at random moments. What it did is counted; an error ends it."""

    def __init__(self, name: str, act: Act, longest_rest: float) -> None:
        super().__init__(longest_rest, name)
        self.name, self.done, self.error = name, Counter[str](), ""
        self._act = act
        self._random = random.Random(f"{SEED} {name}")

    def rest(self) -> float:
        return self._random.uniform(0, super().rest())

    def step(self) -> None:
        try:
            self.done[self._act(self._random)] += 1
        except Exception as error:  # the test looks at it
            self.error = f"{self.name}: {error!r}\n{traceback.format_exc()}"
            self._stop.set()


# --- the kernel's files ---

def garbage(choices: random.Random) -> str:
    """What no kernel writes: letters, nothing, numbers beyond all measure, signs, half numbers, many bytes."""
    return choices.choice(["", "\n", "N/A\n", "-\n", "0x1f\n", "1e9\n", "nan\n", "inf\n", " \t\n7", "9" * 19 + "\n", "9" * 40 + "\n",
                           "12.5\n", "\x00\x01\n", "ÿ€\n", "x" * 200_000])


def lying_stat(choices: random.Random) -> str:
    """Counters that are wrong in one way or other."""
    if choices.random() < 0.4:  # less idle time than ever before, though much time has passed
        return "".join(f"cpu{n} {choices.randrange(10**8, 10**12)} 0 0 {choices.randrange(1000)} 0 0 0 0\n" for n in range(8))
    top = choices.choice([10, 10**6, 2**63, 2**64 - 1, 10**25])
    sign = choices.choice(["", "", "-"])
    lines = [f"cpu{n} " + " ".join(f"{sign}{choices.randrange(top)}" for _ in range(choices.randrange(11)))
             for n in range(choices.choice([0, 1, 7, 8, 9, 40, 3000]))]
    text = "\n".join(["cpu  1 2 3 4 5 6 7 8 0 0", *lines, "intr 12 0\n"])
    return text[:choices.randrange(len(text))] if choices.random() < 0.3 else text


def lying_meminfo(choices: random.Random) -> str:
    """Amounts that are wrong in one way or other."""
    names = choices.sample(["MemTotal:", "MemAvailable:", "MemFree:", "Buffers:", "MemTotal"], choices.randrange(6))
    return "".join(f"{name}   {choices.choice([0, 1, 2**20, 2**24, 2**40, 2**64 - 1, 10**22, 'kB'])} kB\n" for name in names)


class Files:
    """The files that the program reads at each sample. Only the actor of this storm changes them."""

    def __init__(self, machine: Machine, told: Told) -> None:
        self._machine, self._told = machine, told
        self._paths = [STAT, MEMINFO, ZONE, ENERGY, *self._of_cpus(range(8))]
        self._whole = {path: machine.read(path) for path in self._paths}
        self._hanging: dict[str, tuple[int, float]] = {}  # path to our end of the pipe, and the time at which it is let go
        self._let_go: list[tuple[int, float]] = []  # ends to be closed a little later, for those who just come through the door
        self._offline: list[int] = []

    @staticmethod
    def _of_cpus(cpus: range | list[int]) -> list[str]:
        clocks = [f"{CPUS}/cpu{cpu}/cpufreq/scaling_cur_freq" for cpu in cpus]
        return clocks + [f"{CPUS}/cpu{cpu}/thermal_throttle/core_throttle_count" for cpu in cpus]

    def disturb(self, choices: random.Random) -> str:
        """Something goes wrong, or right again."""
        self._close_pipes(time.monotonic())
        if choices.random() < 0.15:
            return self._switch_cpu(choices)
        gone = self._of_cpus(self._offline)
        # The four that all else depends on come up as often as those of all CPUs together
        path = choices.choice([path for path in self._paths if path not in gone] + self._paths[:4] * 4)
        if path in self._hanging:
            return "still hanging"
        disturbances = [self._lie, self._lie, self._lie, self._mend, self._mend, self._remove, self._machine.make_directory,
                        self._machine.make_failing, self._machine.make_loop, self._close, self._hang]
        chosen = choices.choice(disturbances)
        if chosen in (self._lie, self._hang):
            chosen(path, choices)
        else:
            chosen(path)
        return chosen.__name__.strip("_")

    def mend_all(self) -> None:
        """All is as it was at first, and moves as it did."""
        self._close_pipes(float("inf"))
        self._close_pipes(float("inf"))
        for cpu in list(self._offline):
            self._machine.cpu_online(cpu)
        for path in self._paths:
            self._mend(path)

    def _switch_cpu(self, choices: random.Random) -> str:
        if self._offline and (len(self._offline) == 7 or choices.random() < 0.6):
            self._machine.cpu_online(self._offline.pop(choices.randrange(len(self._offline))))
            return "CPU online"
        cpu = choices.choice([cpu for cpu in range(8) if cpu not in self._offline])
        if any(path in self._hanging for path in self._of_cpus([cpu])):
            return "still hanging"
        self._machine.cpu_offline(cpu)
        self._offline.append(cpu)
        return "CPU offline"

    def _lie(self, path: str, choices: random.Random) -> None:
        self._write(path, self._lying_text(path, choices))

    def _lying_text(self, path: str, choices: random.Random) -> str:
        if choices.random() < 0.3:
            return garbage(choices)
        if path == STAT:
            return lying_stat(choices)
        if path == MEMINFO:
            return lying_meminfo(choices)
        # No negative energy: read as the unsigned number that it is to be, it is a large one
        least = 0 if path == ENERGY else -10**6
        return f"{choices.choice([0, choices.randrange(least, 200_000), choices.randrange(least, 2**31), choices.randrange(2**63)])}\n"

    def _write(self, path: str, text: str) -> None:
        self._tell(path, text)
        self._machine.write(path, text)

    def _tell(self, path: str, text: str) -> None:
        tell = {STAT: self._told.stat, MEMINFO: self._told.memory, ZONE: self._told.temperature, ENERGY: self._told.energy}
        tell.get(path, lambda _: None)(text)

    def _mend(self, path: str) -> None:
        self._write(path, self._whole[path])  # movement replaces files only by files
        self._machine.hand_back(path)

    def _remove(self, path: str) -> None:
        if os.path.lexists(self._machine.outside(path)):
            self._machine.remove(path)

    def _close(self, path: str) -> None:
        self._mend(path)
        self._machine.make_unreadable(path)

    def _hang(self, path: str, choices: random.Random) -> None:
        if len(self._hanging) < HANGING_AT_ONCE:
            self._machine.make_fifo(path)
            # Open at our end, too: else the program could never be let go once another file has taken this one's place
            end = os.open(self._machine.outside(path), os.O_RDWR | os.O_NONBLOCK)
            self._hanging[path] = end, time.monotonic() + choices.uniform(0, LONGEST_HANG)

    def _close_pipes(self, now: float) -> None:
        for end, due in list(self._let_go):
            if due <= now:
                os.close(end)
                self._let_go.remove((end, due))
        for path, (end, due) in list(self._hanging.items()):
            if due <= now:
                self._mend(path)
                del self._hanging[path]
                self._let_go.append((end, time.monotonic() + 0.1))


# --- window, portal, signals ---

def disturb_window(display: XDisplay, window: int) -> Act:
    toggles = ["maximized_vert,maximized_horz", "fullscreen", "shaded", "above"]

    def act(choices: random.Random) -> str:
        kind = choices.choice(["resize"] * 5 + ["move"] * 3 + ["toggle"])
        if kind == "resize":
            display.resize(window, choices.randrange(1, 1500), choices.randrange(1, 1300))
        elif kind == "move":
            display.move(window, choices.randrange(-600, 1500), choices.randrange(-600, 1300))
        else:
            run_tool(["wmctrl", "-i", "-r", hex(window), "-b", f"toggle,{choices.choice(toggles)}"], display.env)
        return kind
    return act


def disturb_portal(portal: MockPortal) -> Act:
    number = GLib.Variant("u", DARK)
    nonsense: list[Answer] = [
        portals.refusal, scheme(7), scheme(0xFFFFFFFF), scheme(DARK, 20), value(GLib.Variant("s", "dark")), value(GLib.Variant("d", 1.0)),
        value(GLib.Variant("av", [number])), portals.bare(GLib.Variant("(u)", (1,))), portals.bare(GLib.Variant("()", ())),
        portals.bare(GLib.Variant("(vv)", (number, number))), portals.bare(GLib.Variant("(s)", ("x" * 100_000,)))]
    wrong = [GLib.Variant("(ss)", COLOR_SCHEME), GLib.Variant("()", ()), GLib.Variant("(asv)", (COLOR_SCHEME, number)),
             GLib.Variant("(ssu)", (*COLOR_SCHEME, 1)), GLib.Variant("(ssv)", ("", "x" * 50_000, number))]

    def act(choices: random.Random) -> str:
        kind = choices.choice(["scheme", "nonsense", "nonsense", "silence", "wrong signal", "burst"])
        if kind == "wrong signal":
            emit(portal.connection, parameters=choices.choice(wrong))
        elif kind == "silence":
            late = Late(scheme(choices.choice([DARK, LIGHT])))
            for _ in range(choices.randrange(1, 4)):
                portal.change(late)
            time.sleep(choices.uniform(0, 1))
            late.give()
        else:
            portal.answer = choices.choice(nonsense) if kind == "nonsense" else scheme(choices.randrange(4))
            for _ in range(choices.randrange(2, 6) if kind == "burst" else 1):
                emit(portal.connection, content=GLib.Variant("s", "nonsense"))
        return kind
    return act


def send_signals(monitor: Monitor) -> Act:
    harmless = [signal.SIGWINCH, signal.SIGCHLD, signal.SIGURG, signal.SIGCONT]

    def act(choices: random.Random) -> str:
        if choices.random() < 0.2:
            monitor.send(choices.choice([signal.SIGSTOP, signal.SIGTSTP, signal.SIGTTIN]))
            time.sleep(choices.uniform(0, LONGEST_PAUSE))
            monitor.send(signal.SIGCONT)
            return "pause"
        for number in choices.choices(harmless, k=choices.randrange(1, 40)):
            monitor.send(number)
        return "burst"
    return act


# --- settings ---

class Fiddler:
    """Somebody who changes all settings without end."""

    def __init__(self, dialog: SettingsDialog) -> None:
        self._dialog = dialog
        self._random = random.Random(f"{SEED} settings")
        self._is_closed = False
        self.done = Counter[str]()

    def act(self) -> None:
        changes = [self._theme, self._language, self._orientation, self._columns, self._colors, self._close]
        change = self._open if self._is_closed else self._random.choice(changes)
        with suppress(GLib.Error, Gone):  # the widget has just been replaced
            change()
            self.done[change.__name__.strip("_")] += 1

    def put_right(self) -> None:
        """A setting in which the test can read the window."""
        if self._is_closed:
            self._open()
        self._dialog.choose(self._dialog.wait().theme, THEMES.index("auto"))
        for choose, wanted, chooser in ((self._dialog.choose_language, "English", "language"),
                                        (self._dialog.choose_orientation, "vertical", "orientation")):
            numbers = {"language": LANGUAGES.index("English"), "orientation": 0}
            if getattr(self._dialog.wait(), chooser).number != numbers[chooser]:
                choose(wanted)

    def _theme(self) -> None:
        self._dialog.choose(self._dialog.wait().theme, self._random.choice([0, 0, 0, 1, 2]))  # the portal counts only for the first

    def _language(self) -> None:
        present = self._dialog.wait().language.number
        self._dialog.choose_language(self._random.choice([name for place, name in enumerate(LANGUAGES) if place != present]))

    def _orientation(self) -> None:
        before = self._dialog.wait()
        self._dialog.choose(before.orientation, 1 - before.orientation.number)
        self._dialog.wait_for_new_content(before)

    def _columns(self) -> None:
        dialog = self._dialog.wait()
        for _ in range(self._random.randrange(1, 8)):
            self._dialog.press(self._random.choice([dialog.more, dialog.fewer]))
        self._is_closed = True  # by the button
        self._dialog.press(dialog.apply)
        self._dialog.wait_until_hidden()

    def _colors(self) -> None:
        self._dialog.press(self._dialog.wait().reset)

    def _close(self) -> None:
        self._is_closed = True
        self._dialog.close()

    def _open(self) -> None:
        self._dialog.open()
        self._is_closed = False


# --- watching ---

class Asker:
    """Asks the main thread all the time, and notes how long it takes to answer."""

    def __init__(self, monitor: Monitor) -> None:
        self._root = monitor.root
        self._bus = AccessibilityBus(monitor.display.env["DBUS_SESSION_BUS_ADDRESS"])
        self.longest = 0.0

    def act(self, _: random.Random) -> str:
        begin = time.monotonic()
        self._bus.names([self._root])
        self.longest = max(self.longest, time.monotonic() - begin)
        return "answer"


class Watcher:
    """Looks at the window all the time, with a connection of its own."""

    def __init__(self, monitor: Monitor, told: Told) -> None:
        self._monitor, self._told, self._root = monitor, told, monitor.root
        self._bus = AccessibilityBus(monitor.display.env["DBUS_SESSION_BUS_ADDRESS"])
        self.seen: set[str] = set()

    def act(self, _: random.Random) -> str:
        assert self._monitor.running() and self._monitor.complaints() == "", self._monitor.complaints()
        shown = while_it_changes(lambda: look(self._bus, self._root))()
        if shown is None:
            return "look at a window that is being rebuilt"
        self._told.check(shown)
        self.seen.add(str(shown))
        return "look"

    def look(self) -> Shown:
        return look(self._bus, self._root)


def wait_for_truth(watcher: Watcher, machine: Machine) -> float:
    """Waits until everything that is shown equals our own reading; says how many seconds it took."""
    kernel = KernelReadings(machine)
    begin = time.monotonic()
    seen: list[Shown] = []
    expected: list[object] = []

    def is_true() -> bool:
        seen[:] = [watcher.look()]
        (shown,) = seen
        expected[:] = [[f"{load}%" for load in LOADS], kernel.status, throttle_figure(kernel, [load / 100 for load in LOADS]),
                       f"{kernel.celsius:.0f}°C / {kernel.limit:.0f}°C", kernel.info_forms[0]]
        watts = watts_of(shown.status)
        return watts is not None and abs(watts - WATTS) < 0.1 * WATTS and expected == [
            shown.percentages, shown.status.partition("  ")[0], shown.throttle, shown.tooltip, shown.info]
    try:
        wait_until(while_it_changes(is_true), TIMEOUT, "")
    except AssertionError:
        raise AssertionError(f"after the storm {seen} is shown, expected {expected} and {WATTS} W") from None
    return time.monotonic() - begin


def calm_window(display: XDisplay, window: int) -> None:
    for state in ("maximized_vert,maximized_horz", "fullscreen", "shaded"):
        run_tool(["wmctrl", "-i", "-r", hex(window), "-b", f"remove,{state}"], display.env)
    display.move(window, 100, 50)
    display.resize(window, 900, 700)


def test_storm(x11: XDisplay, machines: ExitStack, displays: ExitStack, start: Start, tmp_path: Path) -> None:
    print(f"seed {SEED}, {SECONDS:g} s")
    portal = displays.enter_context(MockPortal(x11.env["DBUS_SESSION_BUS_ADDRESS"], scheme(LIGHT)))
    machine = machines.enter_context(Machine(MACHINE))
    told = Told(machine)
    told.energy(str(10**6 * WATTS * 3600))  # as far as the counter comes by itself
    files = Files(machine, told)
    monitor = start(x11, machine, {"theme": "auto"}, drop_caps=True)
    dialog = SettingsDialog(monitor, Home(monitor.home))
    window = dialog.main
    calm_window(x11, window)
    dialog.open()
    watcher = Watcher(monitor, told)
    wait_for_truth(watcher, machine)
    descriptors = kept_descriptors(monitor.pid)
    fiddler, asker = Fiddler(dialog), Asker(monitor)
    actors = [Actor("files", files.disturb, 0.1), Actor("window", disturb_window(x11, window), 0.2), Actor("watcher", watcher.act, 0.05),
              Actor("asker", asker.act, 0.03), Actor("portal", disturb_portal(portal), 0.4), Actor("signals", send_signals(monitor), 0.3)]
    with ExitStack() as running:
        running.callback(files.mend_all)  # else a hanging file would hold up the end
        for actor in actors:
            running.enter_context(actor)
        end = time.monotonic() + SECONDS
        while time.monotonic() < end and not any(actor.error for actor in actors):
            fiddler.act()
    for actor in actors:
        print(f"{actor.name}: {dict(actor.done)}")
    print(f"settings: {dict(fiddler.done)}; {len(watcher.seen)} different states of the window seen")
    assert not [actor.error for actor in actors if actor.error]
    assert watcher.seen, "the window could never be read"
    portal.answer = scheme(DARK)
    calm_window(x11, window)
    fiddler.put_right()
    print(f"true again after {wait_for_truth(watcher, machine):.1f} s; longest answer {asker.longest:.2f} s")
    assert asker.longest < LONGEST_ANSWER
    assert kept_descriptors(monitor.pid) <= descriptors + ALLOWED_DESCRIPTORS
    monitor.send(signal.SIGTERM)
    monitor.assert_clean_end()
    assert dialog.home.stored
