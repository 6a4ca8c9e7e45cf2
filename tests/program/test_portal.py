"""Light and dark as the desktop's portal says, at the start and while the program runs, whatever the portal and the bus do.

What the program has made of it is seen by the colour of its window; by the questions that reach the portal, whether it has asked.
"""

from __future__ import annotations

import time
from collections.abc import Callable, Sequence
from contextlib import ExitStack
from pathlib import Path

import numpy
import pytest
from gi.repository import GLib
from PIL import ImageGrab

import mock_portal as portals
from displays import XDisplay, wait_until
from mock_portal import COLOR_SCHEME, DARK, LIGHT, NO_PREFERENCE, Answer, Late, MockPortal, PrivateBus, emit, scheme, value
from monitor import TIMEOUT, Monitor, Start

BACKGROUNDS = {LIGHT: (0xD9, 0xD9, 0xD9), DARK: (0x1C, 0x1C, 0x1E)}
MARGIN = 2000  # pixels; fewer than the margins of a window show of its background

AUTO = {"theme": "auto"}
WAVES = {"clusters": [{"cores": 2}], "load": "waves"}  # charts of a real machine that is busy all the time never change


class Screen:
    """A display with a column for each program, looked at without asking for windows: that would take long so often."""

    COLUMN, HEIGHT = 220, 800  # pixels; a little more than a window needs

    def __init__(self, displays: ExitStack, columns: int = 1) -> None:
        self.display = displays.enter_context(XDisplay(columns * self.COLUMN, self.HEIGHT))
        self._columns: dict[Monitor, int] = {}
        self._lay_small_theme()

    def _lay_small_theme(self) -> None:
        """GTK loads its own theme anew at each change of the scheme; the usual one would take most of the time."""
        theme = self.display.data_home / "themes/Plain/gtk-3.0"
        theme.mkdir(parents=True)
        (theme / "gtk.css").write_text("")
        with open(self.display.config_home / "gtk-3.0/settings.ini", "a", encoding="utf-8") as file:
            file.write("gtk-theme-name=Plain\n")

    def hand_out(self, running: Sequence[Monitor]) -> None:
        """Gives each program a column of its own; a single one has it by itself."""
        for column, monitor in enumerate(running):
            self.display.move(monitor.window, column * self.COLUMN, 0)
        for column, monitor in enumerate(running):
            wait_until(lambda: self.display.geometry(monitor.window).x // self.COLUMN == column, TIMEOUT, "the window in its column")
            self._columns[monitor] = column

    def picture(self, monitor: Monitor) -> numpy.ndarray:
        assert monitor.running(), f"ended with {monitor.status}\n{monitor.complaints()}"
        left = self._columns.get(monitor, 0) * self.COLUMN
        return numpy.asarray(ImageGrab.grab(xdisplay=self.display.env["DISPLAY"]))[:, left:left + self.COLUMN, :3]

    def scheme(self, monitor: Monitor) -> int | None:
        """In which the window is painted; None as long as it isn't."""
        picture = self.picture(monitor)
        seen = [number for number, color in BACKGROUNDS.items() if (picture == color).all(axis=2).sum() > MARGIN]
        return seen[0] if len(seen) == 1 else None

    def wait_for(self, monitor: Monitor, expected: int) -> None:
        wait_until(lambda: self.scheme(monitor) == expected, TIMEOUT, InVain(self, monitor, expected))

    def wait_for_ticks(self, monitor: Monitor) -> None:
        """Waits until the charts have moved twice: the main loop runs, and the sampling threads, too."""
        for _ in range(2):
            before = self.picture(monitor)
            wait_until(lambda: not numpy.array_equal(self.picture(monitor), before), TIMEOUT, "the next tick")


class InVain:
    """Told when a scheme has been waited for in vain: what the window's column shows instead."""

    def __init__(self, screen: Screen, monitor: Monitor, expected: int) -> None:
        self._screen, self._monitor, self._expected = screen, monitor, expected

    def __str__(self) -> str:
        colors, counts = numpy.unique(self._screen.picture(self._monitor).reshape(-1, 3), axis=0, return_counts=True)
        commonest = sorted(zip(counts.tolist(), colors.tolist()), reverse=True)[:8]
        return f"a window in scheme {self._expected} of program {self._monitor.pid}, whose column has (pixels, color) {commonest}"


@pytest.fixture
def screen(displays: ExitStack) -> Screen:
    return Screen(displays)


@pytest.fixture
def open_portal(displays: ExitStack) -> Callable[[Screen, Answer], MockPortal]:
    """Opens portals on the buses of displays, and closes them after the programs."""
    return lambda screen, answer: displays.enter_context(MockPortal(screen.display.env["DBUS_SESSION_BUS_ADDRESS"], answer))


class GtkSettings:
    """Folders of settings in which GTK finds what the desktop says without a portal."""

    def __init__(self, screen: Screen, folder: Path) -> None:
        self._usual = (screen.display.config_home / "gtk-3.0/settings.ini").read_text()
        self._folder = folder
        self._count = 0

    def __call__(self, number: int, **changes: object) -> dict[str, str]:
        """The variables for a program; the scheme by the theme's name, and further settings."""
        lines = [f"gtk-theme-name={'Adwaita-dark' if number == DARK else 'Adwaita'}"]
        lines += [f"{name.replace('_', '-')}={content}" for name, content in changes.items()]
        self._count += 1
        config = self._folder / f"config-{self._count}"
        (config / "gtk-3.0").mkdir(parents=True)
        (config / "gtk-3.0/settings.ini").write_text(self._usual + "\n".join(lines) + "\n")
        return {"XDG_CONFIG_HOME": str(config)}


# --- at the start ---

def test_scheme_at_the_start(displays: ExitStack, start: Start, tmp_path: Path,
                             open_portal: Callable[[Screen, Answer], MockPortal]) -> None:
    screen = Screen(displays, 4)
    portal = open_portal(screen, portals.refusal)
    gtk_settings = GtkSettings(screen, tmp_path)
    cases = [(scheme(DARK), LIGHT, DARK), (scheme(LIGHT), DARK, LIGHT), (scheme(NO_PREFERENCE), DARK, DARK),
             (portals.refusal, LIGHT, LIGHT)]
    running = []
    for answer, gtk, _ in cases:
        portal.answer = answer
        running.append(start(screen.display, WAVES, settings=AUTO, env=gtk_settings(gtk), accessible=False))
        portal.wait_for_questions(len(running))
    screen.hand_out(running)
    for monitor, (_, _, expected) in zip(running, cases):
        screen.wait_for(monitor, expected)
    assert portal.questions == [COLOR_SCHEME] * len(cases)


def test_scheme_of_gtk_without_portal_and_without_bus(displays: ExitStack, start: Start, tmp_path: Path) -> None:
    screen = Screen(displays, 5)
    gtk_settings = GtkSettings(screen, tmp_path)
    cases = [(gtk_settings(DARK), DARK), (gtk_settings(LIGHT), LIGHT), (gtk_settings(LIGHT, gtk_application_prefer_dark_theme=1), DARK),
             (gtk_settings(DARK) | {"DBUS_SESSION_BUS_ADDRESS": "unix:path=/nowhere"}, DARK),
             (gtk_settings(LIGHT) | {"DBUS_SESSION_BUS_ADDRESS": "nonsense"}, LIGHT)]
    running = [start(screen.display, WAVES, settings=AUTO, env=env, accessible=False) for env, _ in cases]
    screen.hand_out(running)
    for monitor, (_, expected) in zip(running, cases):
        screen.wait_for(monitor, expected)


def test_silent_portal_holds_the_start_up_for_half_a_second(screen: Screen, start: Start,
                                                            open_portal: Callable[[Screen, Answer], MockPortal]) -> None:
    def seconds_to_the_window() -> tuple[Monitor, float]:
        begin = time.monotonic()
        monitor = start(screen.display, WAVES, settings=AUTO, accessible=False)
        monitor.wait_for_window()
        return monitor, time.monotonic() - begin
    portal = open_portal(screen, scheme(LIGHT))
    first, usual = seconds_to_the_window()
    first.close_window()
    first.assert_clean_end()

    silent = portal.answer = Late(scheme(DARK))
    monitor, held_up = seconds_to_the_window()
    assert len(portal.questions) == 2
    assert held_up - usual < 0.5 + 20  # D-Bus itself would wait for 25 s; the rest is for a busy computer
    screen.wait_for(monitor, LIGHT)
    silent.give()  # too late: nobody listens any more
    screen.wait_for_ticks(monitor)
    assert screen.scheme(monitor) == LIGHT
    portal.change(scheme(DARK))
    screen.wait_for(monitor, DARK)


# --- while it runs ---

def number(content: int) -> GLib.Variant:
    return GLib.Variant("u", content)


@pytest.fixture
def following(screen: Screen, start: Start, open_portal: Callable[[Screen, Answer], MockPortal]) -> tuple[Monitor, MockPortal]:
    """A program that follows the portal, in light."""
    portal = open_portal(screen, scheme(LIGHT))
    monitor = start(screen.display, WAVES, settings=AUTO, accessible=False)
    screen.wait_for(monitor, LIGHT)
    portals.wait_for_reader(portal.connection, monitor.pid)
    return monitor, portal


def test_follows_what_the_portal_answers_and_not_what_its_signal_carries(following: tuple[Monitor, MockPortal], screen: Screen) -> None:
    monitor, portal = following
    for depth, carried in [(1, number(LIGHT)), (2, GLib.Variant("s", "light")), (3, GLib.Variant("v", number(LIGHT))),
                           (20, number(NO_PREFERENCE))]:
        portal.change(scheme(DARK, depth), carried)
        screen.wait_for(monitor, DARK)
        portal.change(scheme(LIGHT, depth), number(DARK))
        screen.wait_for(monitor, LIGHT)
    assert len(portal.questions) == 1 + 8


#: What says nothing about the scheme.
NOTHING: list[Answer] = [
    *(scheme(word, depth) for word in (NO_PREFERENCE, 3, 7, 0xFFFFFFFF) for depth in (1, 2)),
    *(value(GLib.Variant("s", text)) for text in ("", "dark", "light")),
    *(value(GLib.Variant(kind, word)) for kind in "iyqxt" for word in (DARK, LIGHT)),
    *(value(GLib.Variant("(u)", (word,))) for word in (DARK, LIGHT)),
    value(GLib.Variant("av", [number(DARK)])), value(GLib.Variant("b", True)), portals.refusal,
    *(portals.bare(GLib.Variant("(u)", (word,))) for word in (DARK, LIGHT)),
    portals.bare(GLib.Variant("(vv)", (number(LIGHT), number(DARK)))), portals.bare(GLib.Variant("()", ()))]


def test_stays_as_it_is_when_the_portal_has_nothing_to_say(following: tuple[Monitor, MockPortal], screen: Screen) -> None:
    # GTK decides then, which was told the scheme in force: so a single answer taken for the other scheme would show to the end
    monitor, portal = following
    for in_force in (DARK, LIGHT):
        portal.change(scheme(in_force))
        screen.wait_for(monitor, in_force)
        late = Late(scheme(LIGHT if in_force == DARK else DARK))
        for answer in (late, *NOTHING):
            before = len(portal.questions)
            portal.change(answer)
            portal.wait_for_questions(before + 1)
        late.give()  # nobody has been listening since half a second after the question
        screen.wait_for_ticks(monitor)
        assert screen.scheme(monitor) == in_force


def test_portal_that_comes_goes_and_comes_again(screen: Screen, start: Start) -> None:
    address = screen.display.env["DBUS_SESSION_BUS_ADDRESS"]
    monitor = start(screen.display, WAVES, settings=AUTO, accessible=False)
    screen.wait_for(monitor, LIGHT)
    with MockPortal(address, scheme(DARK)) as portal:
        portals.wait_for_reader(portal.connection, monitor.pid)
        screen.wait_for_ticks(monitor)
        assert (screen.scheme(monitor), portal.questions) == (LIGHT, [])  # it has not said a word yet
        emit(portal.connection)
        screen.wait_for(monitor, DARK)
    with MockPortal(address, scheme(LIGHT)) as portal:
        emit(portal.connection)
        screen.wait_for(monitor, LIGHT)


def test_portal_that_dies_over_a_question(following: tuple[Monitor, MockPortal], screen: Screen) -> None:
    monitor, first = following
    first.change(Late(scheme(DARK)))
    first.wait_for_questions(2)
    first.connection.close_sync(None)
    screen.wait_for_ticks(monitor)
    assert screen.scheme(monitor) == LIGHT
    with MockPortal(screen.display.env["DBUS_SESSION_BUS_ADDRESS"], scheme(DARK)) as second:
        emit(second.connection)
        screen.wait_for(monitor, DARK)


def test_burst_of_a_thousand_signals(following: tuple[Monitor, MockPortal], screen: Screen) -> None:
    monitor, portal = following
    signals = 1000
    # Back and forth, and dark to the last
    portal.answer = lambda question: scheme(LIGHT if len(portal.questions) % 2 == 0 else DARK)(question)
    for _ in range(signals):
        portal.connection.emit_signal(None, portals.PATH, portals.INTERFACE, portals.SIGNAL,
                                      GLib.Variant("(ssv)", (*COLOR_SCHEME, number(LIGHT))))
    portal.wait_for_questions(1 + signals, 4 * TIMEOUT)
    screen.wait_for(monitor, DARK)
    screen.wait_for_ticks(monitor)
    assert (screen.scheme(monitor), len(portal.questions)) == (DARK, 1 + signals)


def test_other_signals_are_ignored(following: tuple[Monitor, MockPortal], screen: Screen) -> None:
    monitor, portal = following
    portal.answer = scheme(DARK)
    bus = portal.connection
    for setting in [(COLOR_SCHEME[0], "accent-color"), (COLOR_SCHEME[0], "Color-Scheme"), ("org.gnome.desktop.interface", COLOR_SCHEME[1]),
                    ("", ""), (COLOR_SCHEME[1], COLOR_SCHEME[0])]:
        emit(bus, setting, number(DARK))
    emit(bus, path="/org/freedesktop/portal")
    emit(bus, interface="org.freedesktop.impl.portal.Settings")
    emit(bus, signal="SettingsChanged")
    for parameters in [GLib.Variant("(ss)", COLOR_SCHEME), GLib.Variant("(ssu)", (*COLOR_SCHEME, DARK)), GLib.Variant("()", ()),
                       GLib.Variant("(ssvv)", (*COLOR_SCHEME, number(1), number(1))), GLib.Variant("(asv)", (COLOR_SCHEME, number(1)))]:
        emit(bus, parameters=parameters)
    stranger = portals.connect(screen.display.env["DBUS_SESSION_BUS_ADDRESS"])
    emit(stranger, content=number(DARK))
    stranger.close_sync(None)
    emit(bus)  # signals come in their order: whoever asks because of an earlier one has asked before
    screen.wait_for(monitor, DARK)
    assert len(portal.questions) == 2


def test_fixed_themes_neither_ask_nor_react(displays: ExitStack, start: Start,
                                            open_portal: Callable[[Screen, Answer], MockPortal]) -> None:
    screen = Screen(displays, 2)
    portal = open_portal(screen, scheme(DARK))
    wanted = {start(screen.display, WAVES, settings={"theme": name}, accessible=False): expected
              for name, expected in [("light", LIGHT), ("dark", DARK)]}
    screen.hand_out(list(wanted))
    for monitor, expected in wanted.items():
        screen.wait_for(monitor, expected)
        portals.wait_for_reader(portal.connection, monitor.pid)
    for answer in (scheme(LIGHT), scheme(DARK)):
        portal.change(answer)
    for monitor in wanted:
        portals.wait_for_reader(portal.connection, monitor.pid)
    for monitor, expected in wanted.items():
        screen.wait_for_ticks(monitor)
        assert screen.scheme(monitor) == expected
    assert portal.questions == []


def test_end_of_the_bus_is_not_the_end_of_the_program(screen: Screen, start: Start, tmp_path: Path, displays: ExitStack) -> None:
    bus = PrivateBus(screen.display, tmp_path)
    displays.enter_context(MockPortal(bus.address, scheme(DARK)))
    monitor = start(screen.display, WAVES, settings=AUTO, env={"DBUS_SESSION_BUS_ADDRESS": bus.address}, accessible=False)
    screen.wait_for(monitor, DARK)
    bus.end()
    screen.wait_for_ticks(monitor)
    assert screen.scheme(monitor) == DARK


def test_end_of_the_bus_in_the_midst_of_the_question(screen: Screen, start: Start, tmp_path: Path, displays: ExitStack) -> None:
    bus = PrivateBus(screen.display, tmp_path)
    portal = displays.enter_context(MockPortal(bus.address, Late(scheme(DARK))))
    monitor = start(screen.display, WAVES, settings=AUTO, env={"DBUS_SESSION_BUS_ADDRESS": bus.address}, accessible=False)
    portal.wait_for_questions(1)
    bus.end()
    screen.wait_for(monitor, LIGHT)
    screen.wait_for_ticks(monitor)
