"""The window: what it tells the window manager, its first size and place, and the threads behind it."""

from __future__ import annotations

import re
from collections.abc import Callable
from contextlib import ExitStack
from pathlib import Path

import pytest

from display_x11 import run_tool
from displays import Display, SwayDisplay, WestonDisplay, XDisplay, wait_until
from monitor import TIMEOUT, TITLE, Monitor, Start, frame_place

# The arithmetic of the first size, in pixels
VERTICAL_WIDTH, VERTICAL_HEIGHT = 58 + 8, 700  # of one column
MIN_SIZE = 150

# Threads of GTK's own: of D-Bus and settings, and of Wayland's settings reader
GTK_THREADS = {"gmain", "gdbus", "dconf worker", "pool-spawner", "pool-vantric"}
OWN_THREADS = 3  # main, loads, sensors

NO_CPUS = {"about": "nothing in the window that could want room"}
WIDE = {"clusters": [{"cores": 8, "mhz": [800, 5000]}, {"cores": 4, "mhz": [800, 3500]}], "load": {"kind": "idle"}}


def hints(display: XDisplay, window: int) -> dict[str, tuple[int, ...]]:
    return display.properties(window)["WM_NORMAL_HINTS"]


def minimum(display: XDisplay, window: int) -> tuple[int, int]:
    return hints(display, window)["program specified minimum size"]


def test_window_tells_who_it_is_stays_above_and_opens_in_the_centre(managed: XDisplay, start: Start) -> None:
    monitor = start(managed, accessible=False)
    window = monitor.window
    wait_until(lambda: "_NET_WM_STATE_ABOVE" in managed.states(window), TIMEOUT, "the state above others")
    found = managed.properties(window)
    assert found["_NET_WM_NAME"] == [TITLE]
    assert found["WM_CLASS"] == ["vantric", "Vantric"]
    assert found["_NET_WM_WINDOW_TYPE"] == ["_NET_WM_WINDOW_TYPE_UTILITY"]
    assert found["_NET_WM_PID"] == [monitor.pid]
    assert hints(managed, window)["program specified maximum size"] == (managed.width, managed.height)
    least_width, least_height = minimum(managed, window)
    assert min(least_width, least_height) >= MIN_SIZE
    centre = (managed.width - VERTICAL_WIDTH) // 2, (managed.height - VERTICAL_HEIGHT) // 2
    wait_until(lambda: frame_place(managed, window) == centre, TIMEOUT, f"the frame at {centre}")
    assert managed.geometry(window)[2:] == (max(VERTICAL_WIDTH, least_width), max(VERTICAL_HEIGHT, least_height))


def test_minimum_is_150_where_the_content_wants_less(x11: XDisplay, start: Start) -> None:
    window = start(x11, NO_CPUS).window
    least_width, least_height = minimum(x11, window)
    assert (least_width, least_height >= MIN_SIZE) == (MIN_SIZE, True)
    assert x11.geometry(window)[2] == MIN_SIZE
    x11.resize_until(window, 40, 40, lambda: x11.geometry(window)[2:] == (least_width, least_height), TIMEOUT, "the smallest window")
    x11.resize_until(window, 4000, 4000, lambda: x11.geometry(window)[2:] == (x11.width, x11.height), TIMEOUT, "the largest window")


@pytest.mark.parametrize("size, centre", [
    ((1281, 1025), (607, 162)),  # halves are cut
    ((801, 601), (367, -49)),  # towards zero: a screen lower than the window
])
def test_centre_is_reckoned_in_whole_numbers_cut_towards_zero(
        size: tuple[int, int], centre: tuple[int, int], displays: ExitStack, start: Start) -> None:
    # Without a window manager, which would push the window back into the screen.
    display = displays.enter_context(XDisplay(*size, window_manager=None))
    window = start(display, NO_CPUS, accessible=False).window
    wait_until(lambda: display.geometry(window)[:2] == centre, TIMEOUT, f"the window at {centre}")


def test_scale_2_counts_in_points(displays: ExitStack, start: Start) -> None:
    display = displays.enter_context(XDisplay(1280, 1600, window_manager=None, scale=2))
    window = start(display, NO_CPUS, accessible=False).window
    centre = (640 - VERTICAL_WIDTH) // 2 * 2, (800 - VERTICAL_HEIGHT) // 2 * 2
    wait_until(lambda: display.geometry(window)[:2] == centre, TIMEOUT, f"the window at {centre}")
    assert display.geometry(window)[2:] == (2 * MIN_SIZE, 2 * VERTICAL_HEIGHT)
    assert hints(display, window)["program specified maximum size"] == (1280, 1600)


@pytest.mark.parametrize("machine, width, height", [
    (WIDE, 8 * 58 + 238, 2 * 92 + 2 * 20 + 12),
    (NO_CPUS, 470, 124),
], ids=["two sections", "no cards"])
def test_first_size_and_place_in_horizontal_orientation(
        machine: dict, width: int, height: int, x11: XDisplay, start: Start) -> None:
    window = start(x11, machine, {"orientation": "horizontal"}, accessible=False).window
    least_width, least_height = minimum(x11, window)
    centre = (x11.width - width) // 2, (x11.height - height) // 2
    wait_until(lambda: frame_place(x11, window) == centre, TIMEOUT, f"the frame at {centre}")
    assert x11.geometry(window)[2:] == (max(width, least_width), max(height, least_height))


def test_card_titles_shorten_where_they_do_not_fit(displays: ExitStack, start: Start) -> None:
    display = displays.enter_context(XDisplay(2000, 800))
    monitor = start(display, WIDE, {"orientation": "horizontal"})

    def names(width: int) -> list[str]:
        display.resize_until(monitor.window, width, 300, lambda: display.geometry(monitor.window).width == width, TIMEOUT, f"a width of {width}")
        wait_until(lambda: abs(monitor.content().cards[-1].rect.right - width) < 20, TIMEOUT, "cards of that width")
        return monitor.bus.texts([card.name_label for card in monitor.content().cards])
    long, short = [f"Core {n}" for n in range(1, 13)], [str(n) for n in range(1, 13)]
    narrow = max(702, minimum(display, monitor.window)[0])
    assert [names(width) for width in (1900, narrow, 1900)] == [long, short, long]


def test_windows_have_their_icon(managed: XDisplay, start: Start) -> None:
    """From the first moment on: to a window without one a window manager gives one of its own."""
    monitor = start(managed, WIDE)
    text = run_tool(["xprop", "-id", str(monitor.window), "-notype", "32c", "_NET_WM_ICON"], managed.env)
    pixels = [int(number) for number in re.findall(r"\d+", text.partition("=")[2])]
    width, height = pixels[:2]
    rows = [pixels[first:first + width] for first in range(2, 2 + width * height, width)]
    meters = [0xFFF9D33C, 0xFFFF5B4A, 0xFF33D17A]
    assert [rows[height * 23 // 32][width * place // 4] for place in (1, 2, 3)] == meters
    column = [row[width // 2] for row in rows]
    assert column[height // 2] == meters[1]
    assert meters[1] not in column[:height // 5] + column[-height // 8:]
    opacities = [[color >> 24 for color in row] for row in rows]
    assert all(abs(left - right) <= 1 for row in opacities for left, right in zip(row, row[::-1]))  # rounded
    assert max(row[0] for row in opacities) < 255


# --- Wayland ---

def requests(monitor: Monitor, name: str) -> list[str]:
    """The arguments of each such request that the program has sent to its compositor."""
    return re.findall(rf" -> xdg_toplevel@\d+\.{name}\((.*)\)", monitor.stderr_path.read_text())


def test_wayland_window_tells_who_it_is(sway: SwayDisplay, start: Start) -> None:
    monitor = start(sway, NO_CPUS)
    view = sway.view("vantric", TIMEOUT)
    assert (view["name"], view["pid"]) == (TITLE, monitor.pid)
    assert (view["rect"]["width"], view["rect"]["height"]) == (MIN_SIZE, VERTICAL_HEIGHT)


def test_wayland_size_limits(sway: SwayDisplay, start: Start) -> None:
    monitor = start(sway, NO_CPUS, env={"WAYLAND_DEBUG": "1"}, accessible=False)
    view = sway.view("vantric", TIMEOUT)
    width, height = map(int, requests(monitor, "set_min_size")[-1].split(", "))
    assert (width, height >= MIN_SIZE) == (MIN_SIZE, True)
    assert requests(monitor, "set_max_size")[-1] == f"{sway.width}, {sway.height}"
    assert view["rect"]["height"] == max(VERTICAL_HEIGHT, height)
    monitor.close_window()
    assert monitor.wait() == 0  # not assert_clean_end: the protocol's log stands in its output


def test_wayland_first_size_in_horizontal_orientation(sway: SwayDisplay, start: Start) -> None:
    start(sway, NO_CPUS, {"orientation": "horizontal"}, accessible=False)
    view = sway.view("vantric", TIMEOUT)
    assert (view["rect"]["width"], view["rect"]["height"]) == (470, max(124, MIN_SIZE))


def test_window_with_decorations_of_its_own(weston: WestonDisplay, start: Start) -> None:
    monitor = start(weston, NO_CPUS)
    (frame,) = [node for node in monitor.tree().walk() if node.role == "frame"]
    assert frame.name == TITLE
    content = frame.children[-1].rect
    assert content.height == VERTICAL_HEIGHT
    assert content.x > 0 and content.y > 0  # shadow and title bar stand around


# --- threads and start ---

def test_threads(every_display: Display, start: Start) -> None:
    monitor = start(every_display)
    cards = monitor.content().cards
    wait_until(lambda: monitor.threads().count("vantric") == OWN_THREADS, TIMEOUT, "both sampling threads")
    wait_until(lambda: any(text != "0%" for text in monitor.percentages(cards)), TIMEOUT, "a first reading")
    threads = monitor.threads()
    assert threads.count("vantric") == OWN_THREADS
    assert {name for name in threads if name != "vantric"} <= GTK_THREADS


START_ORDER = ["signal 2", "signal 15", "gtk_init", "gtk_widget_set_default_direction 1", "gtk_window_new",
               "gtk_window_move", "gtk_widget_show_all", "thread", "thread", "g_timeout_add 1000", "gtk_main"]


@pytest.mark.parametrize("kind", [XDisplay, SwayDisplay])
def test_order_of_the_start(kind: Callable[[], Display], preloaded: Callable[[str], dict[str, str]],
                            displays: ExitStack, start: Start, tmp_path: Path) -> None:
    display = displays.enter_context(kind())
    notes = tmp_path / "notes"
    monitor = start(display, env={**preloaded("call_order"), "CALL_ORDER_FILE": str(notes)})
    wait_until(lambda: "gtk_main\n" in (notes.read_text() if notes.exists() else ""), TIMEOUT, "the main loop")
    expected = [call for call in START_ORDER if kind is XDisplay or call != "gtk_window_move"]
    # A stylesheet or a dialog may bring further calls of the same name behind these.
    assert notes.read_text().splitlines()[:len(expected)] == expected
    monitor.wait_for_window()
