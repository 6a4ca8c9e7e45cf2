"""How the program ends: by its window, by SIGTERM and SIGINT at any moment, and without a display at all."""

from __future__ import annotations

import itertools
import os
import random
import re
import signal
import subprocess
import threading
import time
from collections.abc import Callable
from contextlib import ExitStack
from pathlib import Path

import pytest

from displays import Display, SwayDisplay, XDisplay, wait_until
from fakemachine import Machine, preset
from geometry_records import Home, Record, Stored, wait_for_place
from monitor import QUIT_REFUSED, TIMEOUT, Gate, Monitor, Start, wait_for_main_loop, write_settings

ENDING_SIGNALS = (signal.SIGTERM, signal.SIGINT)
NO_DISPLAY = re.compile(
    r"\n?(Unable to init server: .*\n\n)?\(vantric:\d+\): Gtk-WARNING .*: cannot open display: .*\n")

AT_ONCE = 15  # programs that are started side by side


def closed_window(monitor: Monitor) -> None:
    monitor.wait_for_window()
    monitor.close_window()


def sent(number: signal.Signals) -> Callable[[Monitor], None]:
    return lambda monitor: monitor.send(number)


@pytest.mark.parametrize("kind, make_end", [
    (lambda: XDisplay(window_manager="openbox"), closed_window),
    (lambda: XDisplay(window_manager="xfwm4"), closed_window),
    (SwayDisplay, closed_window),
    (XDisplay, sent(signal.SIGTERM)),
    (XDisplay, sent(signal.SIGINT)),
    (SwayDisplay, sent(signal.SIGTERM)),
    (SwayDisplay, sent(signal.SIGINT)),
], ids=["window on openbox", "window on xfwm4", "window on sway", "SIGTERM on X11", "SIGINT on X11",
        "SIGTERM on Wayland", "SIGINT on Wayland"])
def test_ends_in_order(kind: Callable[[], Display], make_end: Callable[[Monitor], None], displays: ExitStack,
                       start: Start) -> None:
    monitor = start(displays.enter_context(kind()), accessible=False)
    wait_for_main_loop(monitor)
    make_end(monitor)
    monitor.assert_clean_end()


def test_many_signals_at_once(x11: XDisplay, start: Start) -> None:
    monitor = start(x11, accessible=False)
    wait_for_main_loop(monitor)
    for number in ENDING_SIGNALS * 10:
        monitor.send(number)
    assert monitor.wait() == 0
    # Only those that came while the sampling threads were being joined, when the main loop had ended already
    assert QUIT_REFUSED.sub("", monitor.complaints()) == ""


# --- signals during the start ---

@pytest.fixture(params=ENDING_SIGNALS, ids=lambda number: number.name)
def ending_signal(request: pytest.FixtureRequest) -> signal.Signals:
    return request.param


def test_signal_before_the_handlers_ends_the_program(ending_signal: signal.Signals, x11: XDisplay, machines: ExitStack,
                                                     start: Start) -> None:
    machine = machines.enter_context(Machine(preset("vm-2")))
    machine.make_fifo("/proc/cpuinfo")  # read before anything else is done
    gate = Gate(machine.outside("/proc/cpuinfo"))
    monitor = start(x11, machine, accessible=False)
    gate.wait_for_program()
    assert not monitor.catches(ending_signal)
    monitor.send(ending_signal)
    assert (monitor.wait(), monitor.complaints()) == (-ending_signal, "")


def test_signal_before_the_window_does_not_end_the_program(ending_signal: signal.Signals, x11: XDisplay, start: Start,
                                                           tmp_path: Path) -> None:
    home = tmp_path / "home"
    settings = write_settings(home, "")
    settings.unlink()
    os.mkfifo(settings)  # read between the display's opening and the window
    gate = Gate(settings)
    monitor = start(x11, env={"HOME": str(home)}, accessible=False)
    gate.wait_for_program()
    assert monitor.catches(ending_signal)
    monitor.send(ending_signal)
    gate.open()
    wait_for_main_loop(monitor)
    assert QUIT_REFUSED.fullmatch(monitor.complaints())
    monitor.send(signal.SIGTERM)
    assert monitor.wait() == 0


def test_signals_of_the_moment_at_which_they_are_caught(x11: XDisplay, start: Start, preloaded: Callable[[str], dict[str, str]],
                                                        tmp_path: Path) -> None:
    home = Home(tmp_path / "home")
    stored = Stored(Record(100, 120, 400, 500, 2), Record(90, 80, 700, 300, 3))
    home.write(stored)
    monitor = home.start(start, x11, env=preloaded("early_signals"))
    wait_for_main_loop(monitor)
    assert re.fullmatch(f"({QUIT_REFUSED.pattern}){{2}}", monitor.complaints())
    wait_for_place(x11, monitor.window, stored.vertical, "after the signals")
    home.wait_for(stored, "after the signals")
    monitor.send(signal.SIGTERM)
    assert monitor.wait() == 0


class Trial:
    """A program that gets a signal at some moment of its start."""

    def __init__(self, monitor: Monitor, number: signal.Signals, delay: float) -> None:
        self._monitor, self._number = monitor, number
        self._was_caught = False
        self._sender = threading.Timer(delay, self._send)
        self._sender.start()

    def _send(self) -> None:
        self._was_caught = self._monitor.catches(self._number)
        self._monitor.send(self._number)

    def outcome(self) -> str:
        """How the signal has worked, after making sure that it may work so. What still runs gets a second one."""
        self._sender.join()
        monitor = self._monitor
        wait_until(lambda: not monitor.running() or QUIT_REFUSED.search(monitor.complaints()), TIMEOUT,
                   f"an effect of {self._number.name}")
        if monitor.running():  # it came before the main loop, so the program goes on
            wait_for_main_loop(monitor)
            monitor.send(signal.SIGTERM)
            return "went on"
        if monitor.status == -self._number and not self._was_caught:
            return "died early"
        return "ended"

    def check_end(self, outcome: str) -> None:
        """The program has ended with the right status, and has said what it had to."""
        status = -self._number if outcome == "died early" else 0
        assert self._monitor.wait() == status, outcome
        refusals = 1 if outcome == "went on" else 0
        assert QUIT_REFUSED.subn("", self._monitor.complaints()) == ("", refusals), outcome


def seconds_of_a_start(display: XDisplay, start: Start) -> float:
    """How long a start takes here, among as many others as in a trial."""
    begins = {start(display, accessible=False): time.monotonic() for _ in range(AT_ONCE)}
    taken: dict[Monitor, float] = {}

    def look() -> bool:
        for monitor in begins.keys() - taken.keys():
            if monitor.threads().count("vantric") >= 3:
                taken[monitor] = time.monotonic() - begins[monitor]
        return len(taken) == AT_ONCE
    wait_until(look, TIMEOUT, "all of the programs")
    for monitor in begins:
        wait_for_main_loop(monitor)
        monitor.send(signal.SIGTERM)
    return sorted(taken.values())[AT_ONCE // 2]


def test_signals_at_random_moments_of_the_start(x11: XDisplay, start: Start) -> None:
    seed = random.randrange(10**6)
    print(f"seed {seed}")
    moments = random.Random(seed)
    numbers = itertools.cycle(ENDING_SIGNALS)
    spread = 2 * seconds_of_a_start(x11, start)
    seen = set()
    for _ in range(4):
        trials = [Trial(start(x11, accessible=False), next(numbers), moments.uniform(0, spread))
                  for _ in range(AT_ONCE)]
        outcomes = [trial.outcome() for trial in trials]
        for trial, outcome in zip(trials, outcomes):
            trial.check_end(outcome)
        seen |= set(outcomes)
    assert {"went on", "ended"} <= seen  # else all of them came too early, or too late


def resizing(display: XDisplay, windows: list[int]) -> subprocess.Popen[bytes]:
    """A process that resizes these windows in turn, as quickly as it can."""
    sizes = [(300 + 7 * step % 400, 400 + 11 * step % 500) for step in range(200)]
    words = [word for width, height in sizes for window in windows
             for word in ("windowsize", str(window), str(width), str(height))]
    return subprocess.Popen(["xdotool", *words], env=display.env)


def test_signals_at_random_moments_of_resizing(x11: XDisplay, start: Start) -> None:
    seed = random.randrange(10**6)
    print(f"seed {seed}")
    moments = random.Random(seed)
    numbers = itertools.cycle(ENDING_SIGNALS)
    for _ in range(2):
        monitors = [start(x11, accessible=False) for _ in range(AT_ONCE)]
        windows = [monitor.window for monitor in monitors]
        for monitor in monitors:
            wait_for_main_loop(monitor)
        resizer = resizing(x11, windows)
        try:
            sizes = [x11.geometry(window)[2:] for window in windows]
            wait_until(lambda: [x11.geometry(window)[2:] for window in windows] != sizes, TIMEOUT, "resizing")
            for monitor, number in zip(monitors, numbers):
                time.sleep(moments.uniform(0, 0.1))
                monitor.send(number)
            for monitor in monitors:
                monitor.assert_clean_end()
        finally:
            resizer.kill()
            resizer.wait()


# --- stopped and continued ---

def test_values_are_right_again_after_a_pause(x11: XDisplay, machines: ExitStack, start: Start) -> None:
    machine = machines.enter_context(Machine({**preset("vm-2"), "load": {"kind": "steady", "percent": [20, 40]}}))
    monitor = start(x11, machine)
    cards = monitor.content().cards
    monitor.wait_for_percentages(cards, ["20%", "40%"], "at first")
    monitor.send(signal.SIGSTOP)
    machine.set_load("steady", [90, 10])
    pause_ends = time.monotonic() + 3
    wait_until(lambda: time.monotonic() > pause_ends, TIMEOUT, "the end of a pause longer than two samples")
    monitor.send(signal.SIGCONT)
    monitor.wait_for_percentages(cards, ["90%", "10%"], "after the pause")


# --- without a display ---

@pytest.mark.parametrize("variables", [
    {},
    {"DISPLAY": ":nowhere"},
    {"GDK_BACKEND": "x11", "DISPLAY": ":nowhere"},
    {"GDK_BACKEND": "wayland", "WAYLAND_DISPLAY": "nowhere"},
], ids=["no variable", "wrong variable", "X11", "Wayland"])
def test_without_a_display_gtk_ends_the_program(variables: dict[str, str], program: Path, tmp_path: Path) -> None:
    done = subprocess.run([program], env={"HOME": str(tmp_path), "XDG_RUNTIME_DIR": str(tmp_path), **variables},
                          capture_output=True, text=True, timeout=TIMEOUT, check=False)
    assert (done.returncode, done.stdout) == (1, "")
    assert NO_DISPLAY.fullmatch(done.stderr), done.stderr
    assert not (tmp_path / ".config").exists()  # it came no further
