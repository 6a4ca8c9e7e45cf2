"""The program under test as it runs, on a made-up machine or the real one, and its window as seen from outside."""

from __future__ import annotations

import errno
import os
import re
import signal
import subprocess
import time
from collections.abc import Callable, Mapping, Sequence
from contextlib import suppress
from dataclasses import dataclass
from functools import cached_property
from pathlib import Path

import numpy

from accessibility import AccessibilityBus, Address, Node, Rect
from display_x11 import run_tool
from displays import TIMEOUT, Display, DisplayError, SwayDisplay, WestonDisplay, XDisplay, load_picture, wait_until
from fakemachine import Machine

MAX_LOOKS, MANY_CARDS = 5, 32  # at a window whose parts may be moving; where a look takes long
TITLE, PROGRAM_NAME = "Vantric", "vantric"

#: A group colour that nothing else in a window has, so that a colour bar can be found by it.
MARKER_COLOR = "#FE01C5"

# weston has no keyboard and pointer, which GTK takes ill at its start and where a tooltip changes.
_WITHOUT_SEAT = re.compile(r"\n?.*Gdk-CRITICAL.*: gdk_(seat_get_keyboard|seat_get_pointer"
                           r"|device_get_window_at_position_double): assertion 'GDK_IS_(SEAT|DEVICE) .*\n")

# What GTK says when somebody asks for the children of a window of its own, such as a menu's, that has just gone.
_ASKED_WHEN_GONE = re.compile(r"\n?\(vantric:\d+\): Gtk-CRITICAL .*: gtk_container_forall: assertion 'GTK_IS_CONTAINER \(container\)' failed\n")

# The signals that the program lets through at some instants only, as the kernel writes a set of them.
_GATED = sum(1 << (number - 1) for number in (signal.SIGINT, signal.SIGTERM))

#: What GTK says of a signal that came before the main loop.
QUIT_REFUSED = re.compile(r"\n\(vantric:\d+\): Gtk-CRITICAL .*: gtk_main_quit: assertion '.*' failed\n")


@dataclass
class Card:
    """The card of one logical CPU."""
    name: str  # the whole title, also where only the number is shown
    percentage: str
    rect: Rect
    name_rect: Rect
    percentage_rect: Rect
    chart: Rect
    name_label: Address
    percentage_label: Address


@dataclass
class Section:
    """A group of CPUs: a header with the cards that stand under it, in the order of reading."""
    title: str
    caption: str | None
    rect: Rect
    bar: Rect
    title_rect: Rect
    cards: list[Card]


@dataclass
class Content:
    """What stands in the window."""
    cpu_name: str
    cpu_name_rect: Rect
    gear: Rect
    total_panel: Rect
    total_chart: Rect
    sections: list[Section]

    @property
    def cards(self) -> list[Card]:
        return [card for section in self.sections for card in section.cards]

    @property
    def places(self) -> list[Rect]:
        cards = [rect for card in self.cards for rect in (card.rect, card.name_rect, card.percentage_rect, card.chart)]
        return [self.cpu_name_rect, self.gear, self.total_panel, self.total_chart, *cards]

    @property
    def titles(self) -> list[tuple[str, str | None]]:
        """Title and frequency caption of each section."""
        return [(section.title, section.caption) for section in self.sections]


class Monitor:
    """The running program. It has a home folder of its own."""

    def __init__(self, program: Path, display: Display, home: Path, machine: Machine | None = None, *,
                 env: Mapping[str, str | None] = {}, wrap: Sequence[str] = (), cwd: Path | None = None,
                 accessible: bool = True, drop_caps: bool = False) -> None:
        """`env` changes the display's environment; None removes a variable. `wrap` is a command put before."""
        self.display, self.machine, self.home = display, machine, home
        self.stdout_path, self.stderr_path = home.with_suffix(".out"), home.with_suffix(".err")
        self._accessible = accessible
        self._bus: AccessibilityBus | None = None
        self._root: Address | None = None
        changed = {**display.env, "HOME": str(home), "NO_AT_BRIDGE": None if accessible else "1", **env}
        argv = [*wrap, *_with_environment(changed), str(program)]
        with open(self.stdout_path, "wb") as out, open(self.stderr_path, "wb") as err:
            options = {"stdin": subprocess.DEVNULL, "stdout": out, "stderr": err, "cwd": cwd, "start_new_session": True}
            if machine is None:
                self._process = subprocess.Popen(argv, **options)
                self.pid = self._process.pid
            else:
                self._process = machine.popen(argv, drop_caps, **options)
                self.pid = self._process.program_pid

    # --- process ---

    @property
    def status(self) -> int | None:
        """Exit status, -n after signal n, None as long as it runs."""
        status = self._process.poll()
        in_machine = self.machine is not None and status is not None and status > 128
        return 128 - status if in_machine else status

    def running(self) -> bool:
        return self.status is None

    def send(self, number: signal.Signals) -> None:
        self._process.send_signal(number)

    def wait(self) -> int:
        """Waits for the end, by itself or by what a test has done, and returns the status."""
        wait_until(lambda: not self.running(), TIMEOUT, f"the end of the program\n{self.complaints()}")
        return self.status

    def complaints(self) -> str:
        """All that it has written, but for what GTK says of questions that came too late, and of a display without keyboard and pointer."""
        text = _ASKED_WHEN_GONE.sub("", self.stdout_path.read_text() + self.stderr_path.read_text(errors="replace"))
        return _WITHOUT_SEAT.sub("", text) if isinstance(self.display, WestonDisplay) else text

    def assert_clean_end(self) -> None:
        """It ends, has ended in order, and had nothing to say."""
        assert (self.wait(), self.complaints()) == (0, "")

    def catches(self, number: signal.Signals) -> bool:
        """Whether the process has a handler for the signal by now."""
        return bool(int(self._field("SigCgt") or "0", 16) >> (number - 1) & 1)

    def accepts(self, number: signal.Signals) -> bool:
        """Whether the main thread waits for something, with a handler for that signal, and without blocking it."""
        return self.catches(number) and self.sleeps() and not int(self._field("SigBlk") or "0", 16) >> (number - 1) & 1

    def samples(self) -> bool:
        """Whether both sampling threads run. They bear the program's name and block the signals of the gate. A library's thread bears it
        too until it has given itself its own, but lets these through if born while the gate stood open, and none before it first runs."""
        others = [task for task in self._tasks() if task.name != str(self.pid)]
        masks = [self._field("SigBlk", task) for task in others if self._field("Name", task) == PROGRAM_NAME]
        return [int(mask or "0", 16) for mask in masks].count(_GATED) == 2

    def sleeps(self) -> bool:
        """Whether the main thread waits for something."""
        return self._field("State").startswith("S")

    def _field(self, name: str, task: Path | None = None) -> str:
        """What the kernel tells of the main thread, or of the one with this folder."""
        try:
            text = ((task or Path(f"/proc/{self.pid}")) / "status").read_text()
        except OSError:
            return ""  # it has ended
        return next((line.split()[1] for line in text.splitlines() if line.startswith(name + ":")), "")

    def _tasks(self) -> list[Path]:
        """The folders of its threads; none if it has ended."""
        return list(Path(f"/proc/{self.pid}/task").glob("*"))

    def threads(self) -> list[str]:
        """The names of its threads; none if it has ended."""
        names = []
        for task in self._tasks():
            try:
                names.append((task / "comm").read_text().strip())
            except OSError:
                continue  # it has just ended
        return names

    def condition(self) -> str:
        """For whoever looks into a failed test: whether it runs, the call in which each thread waits, what it has written, the windows."""
        lines = [f"status {self.status}"]
        for task in self._tasks():
            with suppress(OSError):
                lines.append(" ".join((task / name).read_text().strip() for name in ("comm", "wchan", "syscall")))
        if isinstance(self.display, XDisplay):
            with suppress(DisplayError, OSError, subprocess.SubprocessError):
                windows = run_tool(["xwininfo", "-root", "-tree"], self.display.env).splitlines()
                lines += [line for line in windows if '"' in line]  # those with a name
        return "\n".join([*lines, self.complaints()])

    def kill(self) -> None:
        """Ends it at once, whatever it does."""
        if self._bus is not None:
            self._bus.close()
            self._bus = None
        if self.running():
            self._process.kill()
            self._process.wait()

    # --- window ---

    @cached_property
    def window(self) -> int:
        """The number of its X window, the same to the end; waits for it."""
        assert isinstance(self.display, XDisplay)
        display = self.display

        def find() -> list[int]:
            assert self.running(), f"ended with {self.status} before its window came\n{self.complaints()}"
            return display.windows(TITLE, self.pid)
        return wait_until(find, TIMEOUT, f"the window\n{self.complaints()}")[0]

    def wait_for_window(self) -> None:
        """Waits until the display shows the window, or, where that can't be asked, until it can be read."""
        if isinstance(self.display, XDisplay):
            assert self.window
        elif isinstance(self.display, SwayDisplay):
            self.display.view(PROGRAM_NAME, TIMEOUT)
        else:
            self.content()

    def close_window(self) -> None:
        """Closes it as the user does."""
        if isinstance(self.display, XDisplay):
            self.display.close(self.window)
        elif isinstance(self.display, SwayDisplay):
            self.display.close(PROGRAM_NAME)
        else:  # no pointer is there to press the button in its title bar
            (button,) = [node for node in self.tree().walk() if (node.role, node.name) == ("push button", "Close")]
            self.bus.act(button.address)

    # --- content ---

    def content(self) -> Content:
        """What the window shows now; waits for the window. A look can fall between a new text and its place, so a window of usual size is
        looked at until everything stands where it stood a moment ago."""
        content = read_content(self.bus.tree(self.root))
        for _ in range(MAX_LOOKS if len(content.cards) <= MANY_CARDS else 0):
            before, content = content, read_content(self.bus.tree(self.root))
            if content.places == before.places:
                break
        return content

    def tree(self) -> Node:
        """All widgets of the window."""
        return self.bus.tree(self.root)

    @property
    def bus(self) -> AccessibilityBus:
        assert self._accessible
        if self._bus is None:
            self._bus = AccessibilityBus(self.display.env["DBUS_SESSION_BUS_ADDRESS"])
        return self._bus

    @property
    def root(self) -> Address:
        if self._root is None:
            def come_forward() -> Address | None:
                assert self.running(), f"ended with {self.status}\n{self.complaints()}"
                return self.bus.application(self.pid)
            root = wait_until(come_forward, TIMEOUT, "the program on the accessibility bus")
            wait_until(lambda: self.bus.has(root, "push button"), TIMEOUT, "a window with something in it")
            self._root = root
        return self._root

    def percentages(self, cards: Sequence[Card]) -> list[str]:
        """What the cards show at one moment, not half before a tick and half after it."""
        labels = [card.percentage_label for card in cards]
        before = self.bus.names(labels)
        while (after := self.bus.names(labels)) != before:
            before = after
        return after

    def wait_for_percentages(self, cards: Sequence[Card], expected: Sequence[str], when: str) -> None:
        """Waits until the cards show exactly these texts."""
        seen: list[str] = []

        def shown() -> bool:
            seen[:] = self.percentages(cards)
            return seen == list(expected)
        try:
            wait_until(shown, TIMEOUT, "")
        except AssertionError:
            raise AssertionError(f"{when}: the cards show {seen}, expected {list(expected)}") from None

    def picture(self, path: Path) -> numpy.ndarray:
        """The window's content: what `content` tells of, times the display's scale, is the place in it."""
        if isinstance(self.display, XDisplay):
            self.display.window_screenshot(self.window, path)
            return load_picture(path)
        self.display.screenshot(path)
        picture = load_picture(path)
        if isinstance(self.display, SwayDisplay):
            view = self.display.view(PROGRAM_NAME)["rect"]
            return picture[view["y"] * self.display.scale:, view["x"] * self.display.scale:]
        left, top = self._offset_by_marker(picture)
        return picture[top:, left:]

    def _offset_by_marker(self, picture: numpy.ndarray) -> tuple[int, int]:
        """Where the window stands on a display that does not tell, by the colour bar in MARKER_COLOR."""
        marker = tuple(bytes.fromhex(MARKER_COLOR[1:]))
        rows, columns = numpy.nonzero((picture == marker).all(axis=2))
        bar = self.content().sections[0].bar
        # The bar's corners are round, so its first and last row are paler; it is symmetric.
        middle = (int(rows.min()) + int(rows.max()) + 1) // 2
        return int(columns.min()) - bar.x, middle - (bar.y + bar.bottom) // 2


def _with_environment(variables: Mapping[str, str | None]) -> list[str]:
    """A command that runs the one behind it with exactly these variables.

    And with no signal ignored: a shell lets what it starts in the background ignore SIGINT.
    """
    settings = [f"{name}={value}" for name, value in variables.items() if value is not None]
    return ["env", "--default-signal", "-i", *settings]


def wait_for_main_loop(monitor: Monitor) -> None:
    """Waits until the main loop waits for events: there alone the program, once its sampling threads run, lets both signals through. (It does
    as well while libraries may start programs, which is earlier.)"""
    def waits() -> bool:
        return monitor.samples() and all(map(monitor.accepts, (signal.SIGINT, signal.SIGTERM)))
    wait_until(lambda: not monitor.running() or waits(), TIMEOUT, "the main loop")
    assert monitor.running(), f"ended with {monitor.status}\n{monitor.complaints()}"


def kept_descriptors(pid: int) -> int:
    """How many descriptors a program keeps open. Each look can find a file that is just being read on top of them."""
    counts = []
    for _ in range(10):
        counts.append(len(os.listdir(f"/proc/{pid}/fd")))
        time.sleep(0.01)
    return min(counts)


def frame_place(display: XDisplay, window: int) -> tuple[int, int]:
    """Upper left corner of the window with its frame."""
    left, _, top, _ = display.properties(window).get("_NET_FRAME_EXTENTS", (0, 0, 0, 0))
    place = display.geometry(window)
    return place.x - left, place.y - top


# --- holding the program up ---

class Gate:
    """A pipe in place of a file, at which the program has to wait when it opens or reads it."""

    def __init__(self, path: Path) -> None:
        self._path = path
        self._end = -1

    def wait_for_program(self) -> None:
        """Waits until the program stands at the gate."""
        wait_until(self._is_opened, TIMEOUT, f"the program at {self._path}")

    def _is_opened(self) -> bool:
        try:
            self._end = os.open(self._path, os.O_WRONLY | os.O_NONBLOCK)
        except OSError as error:
            assert error.errno == errno.ENXIO  # nobody reads there yet
        return self._end >= 0

    def open(self) -> None:
        """Lets the program go on; it has read an empty file."""
        os.close(self._end)


# --- reading the tree of widgets ---

def read_content(application: Node) -> Content:
    """Finds in the tree what the window consists of, by how the parts are put together."""
    nodes = list(application.walk())
    (panel,) = [node for node in nodes if _roles(node)[-2:] == ["filler", "chart"]
                and any(child.role == "push button" for child in node.children[-2].children)]
    status_row, total_chart = panel.children[-2:]
    (gear,) = [child for child in status_row.children if child.role == "push button"]
    header = next(node for node in nodes if _roles(node) == ["label", "filler"]
                  and _roles(node.children[1]) == ["label"])
    sections = [_section(node) for node in nodes if _roles(node)[:2] == ["redundant object", "label"]]
    cards = [_card(node) for node in nodes if _roles(node) == ["filler", "chart"]
             and _roles(node.children[0]) == ["label", "label"]]
    mirrored = gear.rect.x > status_row.rect.x + status_row.rect.width // 2
    _hand_out(cards, sections, mirrored)
    name = header.children[0]
    return Content(name.name, name.rect, gear.rect, panel.rect, total_chart.rect, sections)


def _roles(node: Node) -> list[str]:
    return [child.role for child in node.children]


def _section(node: Node) -> Section:
    bar, title, *caption = node.children
    return Section(title.name, caption[0].name if caption else None, node.rect, bar.rect, title.rect, [])


def _card(node: Node) -> Card:
    title_row, chart = node.children
    name, percentage = title_row.children
    return Card(name.name, percentage.name, node.rect, name.rect, percentage.rect, chart.rect, name.address, percentage.address)


def _hand_out(cards: list[Card], sections: list[Section], mirrored: bool) -> None:
    """Puts sections and cards in the order of reading: each card under the nearest header above it."""
    sign = -1 if mirrored else 1

    def reading_order(item: Section | Card) -> tuple[int, int]:
        return item.rect.y, sign * item.rect.x
    sections.sort(key=reading_order)
    for card in sorted(cards, key=reading_order):
        middle = card.rect.x + card.rect.width // 2
        above = [section for section in sections
                 if section.rect.y < card.rect.y and section.rect.x <= middle < section.rect.right]
        above[-1].cards.append(card)


# --- settings ---

def settings_text(**changes: str) -> str:
    """A settings file: the look that the tests know, and the changes."""
    values = {"theme": "light", "language": "en", "group0": MARKER_COLOR, **changes}
    return "{\n" + ",\n".join(f'  "{key}": "{value}"' for key, value in values.items()) + "\n}\n"


def config_folder(home: Path) -> Path:
    return home / ".config/Vantric"


def write_settings(home: Path, content: str | bytes) -> Path:
    """Puts the settings file into a home folder."""
    file = config_folder(home) / "settings.json"
    file.parent.mkdir(parents=True, exist_ok=True)
    file.write_bytes(content.encode() if isinstance(content, str) else content)
    return file


Start = Callable[..., Monitor]


def is_root() -> bool:
    return os.geteuid() == 0


def as_root_without_rights() -> list[str]:
    """A command that takes away from root the right to read and write what its owner may not."""
    return ["setpriv", "--inh-caps=-all", "--bounding-set=-all"] if is_root() else []
