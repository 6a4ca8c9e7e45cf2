"""Shows that the test displays do what they promise, on a small GTK program with known colours."""

from __future__ import annotations

import os
import shlex
import shutil
import signal
import socket
import struct
import subprocess
import sys
from collections.abc import Callable, Iterator, Mapping, Sequence
from pathlib import Path

import numpy
import pytest
from numpy.typing import NDArray

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))

from display_process import end_processes_with, processes_with  # noqa: E402
from displays import (TIMEOUT, Display, DisplayError, Process, SwayDisplay, WaitTimeout,  # noqa: E402
                      TwoMonitors, WestonDisplay, XDisplay, load_picture, pixel,
                      wait_until)

PEER = struct.Struct("3i")  # process, user and group id, as SO_PEERCRED tells them
ON_DISPLAY = str(HERE / "on-display")

Picture = NDArray[numpy.uint8]

RED, GREEN, BLUE, YELLOW = (255, 0, 0), (0, 255, 0), (0, 0, 255), (255, 255, 0)

KINDS: dict[str, Callable[..., Display]] = {
    "x11": XDisplay, "sway": SwayDisplay, "weston": WestonDisplay}

every_kind = pytest.mark.parametrize("kind", KINDS)
both_scales = pytest.mark.parametrize("scale", [1, 2])


@pytest.fixture(scope="session")
def probe(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """The program of probe.c."""
    program = tmp_path_factory.mktemp("probe") / "probe"
    flags = subprocess.run(["pkg-config", "--cflags", "--libs", "gtk+-3.0"], check=True,
                           capture_output=True, text=True).stdout.split()
    subprocess.run(["cc", "-Wall", "-Wextra", "-Werror", "-o", program, HERE / "probe.c", *flags],
                   check=True)
    return program


@pytest.fixture(params=["openbox", "xfwm4"])
def managed(request: pytest.FixtureRequest) -> Iterator[XDisplay]:
    """An X display with each of the window managers in turn."""
    with XDisplay(window_manager=request.param) as display:
        yield display


def stat_of(pid: int) -> str:
    """What the kernel tells about a process, empty if it is gone."""
    try:
        return Path(f"/proc/{pid}/stat").read_text()
    except (FileNotFoundError, ProcessLookupError):
        return ""


def wait_for_line(program: Process, line: str) -> None:
    wait_until(lambda: line in program.stdout().splitlines(), TIMEOUT,
               f"the line {line!r} of {program}")


def picture_of(display: Display, path: Path) -> Picture:
    display.screenshot(path)
    return load_picture(path)


def area_of(picture: Picture, color: tuple[int, int, int]) -> tuple[int, int, int, int]:
    """Left, top, width and height of the area with this colour, all zero if there is none."""
    rows, columns = numpy.nonzero((picture == color).all(axis=2))
    if rows.size == 0:
        return 0, 0, 0, 0
    left, top = int(columns.min()), int(rows.min())
    return left, top, int(columns.max()) - left + 1, int(rows.max()) - top + 1


def wait_for_quarters(display: Display, path: Path, width: int, height: int) -> Picture:
    """Waits until the screen shows the probe's window in this size, and returns the picture."""
    def complete() -> bool:
        picture = picture_of(display, path)
        left, top, *size = area_of(picture, RED)
        return [area_of(picture, color) for color in (RED, GREEN, BLUE, YELLOW)] == [
            (left + dx, top + dy, width // 2, height // 2)
            for dy in (0, height // 2) for dx in (0, width // 2)]
    wait_until(complete, TIMEOUT, f"four coloured quarters of {width}x{height} in all")
    return load_picture(path)


# --- windows on X11 ---

def test_window_is_found_by_title_and_by_process(managed: XDisplay, probe: Path) -> None:
    title = r'A "title" (with [odd] characters) \ – + 100%, "x", 5'
    program = managed.spawn([probe, title])
    window = managed.find_window(title=title, timeout=TIMEOUT)
    assert managed.find_window(pid=program.pid) == window
    assert managed.windows(title="A .*") == []
    assert managed.windows(title=title, pid=program.pid + 1) == []
    assert managed.properties(window)["_NET_WM_NAME"] == [title]


def test_window_has_class_type_hints_and_state(managed: XDisplay, probe: Path) -> None:
    program = managed.spawn([probe])
    window = managed.find_window("Probe", timeout=TIMEOUT)
    found = managed.properties(window)
    assert found["WM_CLASS"] == ["probe", "Probe"]
    assert found["_NET_WM_PID"] == [program.pid]
    assert found["_NET_WM_WINDOW_TYPE"] == ["_NET_WM_WINDOW_TYPE_UTILITY"]
    assert found["WM_NORMAL_HINTS"]["program specified minimum size"] == (150, 150)
    assert "_NET_WM_STATE_ABOVE" in managed.states(window)
    assert len(found["_NET_FRAME_EXTENTS"]) == 4
    protocols = managed.properties(window, "WM_PROTOCOLS", "_NOT_SET_BY_ANYBODY")
    assert "WM_DELETE_WINDOW" in protocols.pop("WM_PROTOCOLS")
    assert protocols == {}


def test_move_and_resize_arrive(managed: XDisplay, probe: Path) -> None:
    program = managed.spawn([probe])
    window = managed.find_window("Probe", timeout=TIMEOUT)
    assert managed.geometry(window)[2:] == (300, 200)
    managed.move(window, 200, 100)
    managed.resize(window, 420, 310)
    wait_for_line(program, "configure 200,100 420x310")
    left, _, top, _ = managed.properties(window)["_NET_FRAME_EXTENTS"]
    wait_until(lambda: managed.geometry(window) == (200 + left, 100 + top, 420, 310), TIMEOUT,
               "the new geometry inside the frame")


@pytest.mark.parametrize("name", ["metacity", "icewm"])
def test_other_window_managers(name: str, probe: Path) -> None:
    with XDisplay(window_manager=name) as display:
        program = display.spawn([probe])
        window = display.find_window("Probe", timeout=TIMEOUT)
        display.move(window, 200, 100)
        wait_for_line(program, "configure 200,100 300x200")
        left, _, top, _ = display.properties(window)["_NET_FRAME_EXTENTS"]
        assert left > 0 and top > left  # a title bar
        wait_until(lambda: display.geometry(window) == (200 + left, 100 + top, 300, 200), TIMEOUT,
                   "the new geometry inside the frame")
        display.close(window)
        assert program.wait(TIMEOUT) == 0


def test_close_is_a_delete_event(managed: XDisplay, probe: Path) -> None:
    program = managed.spawn([probe])
    window = managed.find_window("Probe", timeout=TIMEOUT)
    assert managed.exists(window)
    managed.close(window)
    assert program.wait(TIMEOUT) == 0
    assert program.stdout().splitlines()[-1] == "delete"
    assert not managed.exists(window)


def test_display_without_window_manager(probe: Path) -> None:
    with XDisplay(window_manager=None) as display:
        program = display.spawn([probe])
        window = display.find_window("Probe", timeout=TIMEOUT)
        assert display.geometry(window)[2:] == (300, 200)
        assert "_NET_FRAME_EXTENTS" not in display.properties(window)
        display.close(window)
        assert program.wait(TIMEOUT) == 0
        assert program.stdout().splitlines()[-1] == "delete"


def test_two_monitors(probe: Path) -> None:
    with TwoMonitors() as display:
        wait_for_line(display.spawn([probe]), "monitors 2")
        display.unplug()
        wait_for_line(display.spawn([probe]), "monitors 1")
        display.plug_in()
        wait_for_line(display.spawn([probe]), "monitors 2")


def test_click_arrives_where_it_was_aimed(probe: Path) -> None:
    with XDisplay() as display:
        program = display.spawn([probe])
        window = display.find_window("Probe", timeout=TIMEOUT)
        place = display.geometry(window)
        display.click(20, 30, window=window)
        wait_for_line(program, "press 1 at 20,30")
        display.click(place.x + 250, place.y + 150, button=3)
        wait_for_line(program, "press 3 at 250,150")


def test_restarted_program_gets_new_window_numbers(probe: Path) -> None:
    with XDisplay() as display:
        seen = set()
        for _ in range(5):
            program = display.spawn([probe])
            seen.add(display.find_window(pid=program.pid, timeout=TIMEOUT))
            program.send_signal(signal.SIGKILL)
            program.wait(TIMEOUT)
        assert len(seen) == 5


@both_scales
def test_window_picture_has_the_size_and_colors_of_the_window(
        probe: Path, tmp_path: Path, scale: int) -> None:
    with XDisplay(scale=scale) as display:
        display.spawn([probe])
        window = display.find_window("Probe", timeout=TIMEOUT)
        wait_for_quarters(display, tmp_path / "screen.png", 300 * scale, 200 * scale)
        assert display.geometry(window)[2:] == (300 * scale, 200 * scale)
        display.window_screenshot(window, tmp_path / "window.png")
        picture = load_picture(tmp_path / "window.png")
        assert picture.shape == (200 * scale, 300 * scale, 3)
        right, bottom = 300 * scale - 1, 200 * scale - 1
        assert pixel(picture, 0, 0) == RED
        assert pixel(picture, right, 0) == GREEN
        assert pixel(picture, 0, bottom) == BLUE
        assert pixel(picture, right, bottom) == YELLOW


# --- windows on Wayland ---

def test_sway_knows_resizes_moves_and_closes_a_window(probe: Path, tmp_path: Path) -> None:
    with SwayDisplay(1280, 1024) as display:
        program = display.spawn([probe])
        view = display.view("probe", TIMEOUT)
        assert (view["name"], view["pid"]) == ("Probe", program.pid)
        assert (view["rect"]["width"], view["rect"]["height"]) == (300, 200)
        display.resize("probe", 420, 310)
        display.move("probe", 50, 60)
        wait_for_line(program, "configure 0,0 420x310")  # a Wayland client never learns its place
        picture = wait_for_quarters(display, tmp_path / "shot.png", 420, 310)
        assert area_of(picture, RED)[:2] == (50, 60)
        display.close("probe")
        assert program.wait(TIMEOUT) == 0
        assert program.stdout().splitlines()[-1] == "delete"
        assert display.views("probe") == []


def test_sway_with_two_outputs(probe: Path, tmp_path: Path) -> None:
    with SwayDisplay(640, 480, outputs=2) as display:
        program = display.spawn([probe])
        wait_for_line(program, "monitors 2")
        display.view("probe", TIMEOUT)
        display.move("probe", 640 + 10, 20)
        picture = wait_for_quarters(display, tmp_path / "shot.png", 300, 200)
        assert picture.shape == (480, 1280, 3)
        assert area_of(picture, RED)[:2] == (650, 20)


def test_weston_window_is_decorated_by_the_program(probe: Path, tmp_path: Path) -> None:
    with WestonDisplay(640, 480) as display:
        display.spawn([probe])
        picture = wait_for_quarters(display, tmp_path / "shot.png", 300, 200)
        left, top, _, _ = area_of(picture, RED)
        background, bar = pixel(picture, 0, 0), pixel(picture, left + 20, top - 10)
        assert background == (0x33, 0x66, 0x99)
        assert min(bar) > 200  # the light title bar of the theme


# --- all kinds ---

@every_kind
@both_scales
def test_screen_picture(kind: str, scale: int, probe: Path, tmp_path: Path) -> None:
    with KINDS[kind](1000, 800, scale=scale) as display:
        display.spawn([probe])
        picture = wait_for_quarters(display, tmp_path / "shot.png", 300 * scale, 200 * scale)
        assert picture.shape == (800, 1000, 3)


@every_kind
def test_rendering_settings_are_the_same_everywhere(kind: str, probe: Path) -> None:
    with KINDS[kind]() as display:
        program = display.spawn([probe])
        wait_for_line(program, "settings Adwaita, DejaVu Sans 10, animations 0")


@every_kind
def test_environment_is_private_and_complete(kind: str, monkeypatch: pytest.MonkeyPatch) -> None:
    for name in ("DISPLAY", "WAYLAND_DISPLAY", "LANGUAGE", "LC_ALL", "GTK_THEME", "XDG_DATA_DIRS"):
        monkeypatch.setenv(name, "of the caller")
    monkeypatch.setenv("KEPT", "as it is")
    with KINDS[kind]() as display:
        program = display.spawn(["env"], {"ADDED": "1", "NO_AT_BRIDGE": None})
        assert program.wait(TIMEOUT) == 0
        seen = dict(line.split("=", 1) for line in program.stdout().splitlines())
        assert ("DISPLAY" in seen, "WAYLAND_DISPLAY" in seen) == (kind == "x11", kind != "x11")
        assert seen["GDK_BACKEND"] == ("x11" if kind == "x11" else "wayland")
        assert "of the caller" not in seen.values()
        assert seen["KEPT"] == "as it is"
        assert (seen["ADDED"], seen.get("NO_AT_BRIDGE")) == ("1", None)
        assert (display.env["NO_AT_BRIDGE"], seen["LANG"]) == ("1", "C.UTF-8")
        for name in ("HOME", "XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME", "XDG_STATE_HOME",
                     "XDG_RUNTIME_DIR"):
            assert Path(seen[name]).is_relative_to(display.folder)
        assert Path(seen["XDG_RUNTIME_DIR"]).stat().st_mode & 0o777 == 0o700


def bus_names(display: Display, method: str) -> str:
    program = display.spawn(["gdbus", "call", "--session", "--dest", "org.freedesktop.DBus",
                             "--object-path", "/org/freedesktop/DBus",
                             "--method", f"org.freedesktop.DBus.{method}"])
    assert program.wait(TIMEOUT) == 0, program.stderr()
    return program.stdout()


def test_session_bus_starts_no_portal() -> None:
    with XDisplay(window_manager=None) as display:
        assert "org.freedesktop.DBus" in bus_names(display, "ListNames")
        assert "org.xfce.Xfconf" in bus_names(display, "ListActivatableNames")
        assert "portal" not in bus_names(display, "ListActivatableNames")


@pytest.mark.skipif(not Path("/usr/share/dbus-1/services/org.a11y.Bus.service").exists(),
                    reason="needs at-spi2-core")
@every_kind
def test_accessibility_can_be_switched_on(kind: str, probe: Path) -> None:
    with KINDS[kind]() as display:
        display.spawn([probe], {"NO_AT_BRIDGE": None})
        runtime_dir = str(display.runtime_dir)

        def registry_runs() -> bool:
            return any("at-spi2-registr" in stat_of(pid)  # the kernel keeps 15 bytes of the name
                       for pid in processes_with("XDG_RUNTIME_DIR", runtime_dir))
        wait_until(registry_runs, TIMEOUT, "the registry that the program starts")
    assert processes_with("XDG_RUNTIME_DIR", runtime_dir) == []


def test_displays_side_by_side(probe: Path, tmp_path: Path) -> None:
    with XDisplay() as first, XDisplay(window_manager=None) as second, \
            SwayDisplay() as third, SwayDisplay() as fourth, WestonDisplay() as fifth:
        displays: list[Display] = [first, second, third, fourth, fifth]
        programs = [display.spawn([probe]) for display in displays]
        for display in displays:
            wait_for_quarters(display, tmp_path / "shot.png", 300, 200)
        assert first.windows(pid=programs[0].pid) and not first.windows(pid=programs[1].pid)
        assert [view["pid"] for view in third.views("probe")] == [programs[2].pid]
        assert [view["pid"] for view in fourth.views("probe")] == [programs[3].pid]


# --- nothing stays ---

def ended(pid: int) -> bool:
    """Whether the process is gone, or dead and only not yet collected by its new parent."""
    state = stat_of(pid).rpartition(")")[2].split()[:1]
    return state in ([], ["Z"])


def x_server_at(number: int) -> int | None:
    """Process id of the X server with this number, 0 if none, None if only its socket is there."""
    with socket.socket(socket.AF_UNIX) as client:
        try:
            client.connect(f"/tmp/.X11-unix/X{number}")
        except FileNotFoundError:
            return 0
        except ConnectionRefusedError:
            return None
        peer = client.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, PEER.size)
        return int(PEER.unpack(peer)[0])


def lock_owner(number: int) -> int:
    """Process id in the lock file of the X server with this number, 0 if there is no such file."""
    try:
        return int(Path(f"/tmp/.X{number}-lock").read_text())
    except (FileNotFoundError, ValueError):  # none, or another server is just writing its own
        return 0


@pytest.mark.parametrize("make", [XDisplay, lambda: XDisplay(window_manager="xfwm4"), SwayDisplay,
                                  WestonDisplay], ids=["openbox", "xfwm4", "sway", "weston"])
def test_nothing_is_left_behind(make: Callable[[], Display], probe: Path) -> None:
    with make() as display:
        display.spawn([probe])
        stray = display.spawn(["sh", "-c", "setsid sleep 1000 & echo $!"])  # escapes its parent
        stray.wait(TIMEOUT)
        runtime_dir = str(display.runtime_dir)
        # One that is just being replaced by its program has no environment for a moment
        pids = wait_until(lambda: (found := processes_with("XDG_RUNTIME_DIR", runtime_dir)) and int(stray.stdout()) in found and found,
                          TIMEOUT, "the stray among the display's processes")
        assert len(pids) >= 4  # bus, server, probe, sleep
    assert processes_with("XDG_RUNTIME_DIR", runtime_dir) == []
    wait_until(lambda: all(ended(pid) for pid in pids), TIMEOUT, "the end of all that the display had started")
    assert not display.folder.exists()
    if isinstance(display, XDisplay):
        number = display.number  # another worker's display may have it by now
        wait_until(lambda: x_server_at(number) is not None, TIMEOUT, "the end of the socket")
        assert x_server_at(number) not in pids
        assert lock_owner(number) not in pids


def test_program_that_ignores_sigterm_is_ended_all_the_same() -> None:
    with XDisplay(window_manager=None) as display:
        stubborn = ["sh", "-c", 'trap "" TERM; echo ready; while :; do sleep 0.01; done']
        direct = display.spawn(stubborn)
        indirect = display.spawn(stubborn, {"MARK": display.folder.name})
        wait_for_line(direct, "ready")
        wait_for_line(indirect, "ready")
        assert direct.end(timeout=0.2) == -signal.SIGKILL
        end_processes_with("MARK", display.folder.name, timeout=0.2)
        assert indirect.wait(TIMEOUT) == -signal.SIGKILL


def test_folder_that_is_closed_is_removed_all_the_same() -> None:
    with XDisplay(window_manager=None) as display:
        closed = display.config_home / "vantric"
        (closed / "deep").mkdir(parents=True)
        closed.chmod(0)
    assert not display.folder.exists()


def test_window_manager_that_fails_is_told_at_once(monkeypatch: pytest.MonkeyPatch,
                                                   tmp_path: Path) -> None:
    (tmp_path / "openbox").write_text("#!/bin/sh\necho no luck >&2\nexit 1\n")
    (tmp_path / "openbox").chmod(0o755)
    monkeypatch.setenv("PATH", str(tmp_path), prepend=os.pathsep)
    with pytest.raises(DisplayError, match="no luck"), XDisplay():
        pass


def test_display_that_fails_to_start_leaves_nothing(monkeypatch: pytest.MonkeyPatch) -> None:
    display = XDisplay()
    monkeypatch.setattr(display, "_start_window_manager", lambda: 1 / 0)
    with pytest.raises(ZeroDivisionError):
        display.__enter__()
    assert processes_with("XDG_RUNTIME_DIR", str(display.runtime_dir)) == []
    assert not display.folder.exists()


# --- on-display ---

def on_display(*arguments: str | Path, input: str = "") -> subprocess.CompletedProcess[str]:
    return subprocess.run([ON_DISPLAY, *map(str, arguments)], capture_output=True, text=True,
                          timeout=TIMEOUT, check=False, input=input)


@every_kind
def test_exit_status_and_output_are_passed_on(kind: str) -> None:
    done = on_display("--kind", kind, "--", "sh", "-c", 'cat; echo "$1" >&2; exit 7', "sh", "a  b",
                      input="typed")
    assert (done.returncode, done.stdout, done.stderr) == (7, "typed", "a  b\n")


def test_death_by_signal_becomes_128_and_its_number() -> None:
    assert on_display("sh", "-c", "kill -SEGV $$").returncode == 128 + signal.SIGSEGV


def test_program_that_is_not_there() -> None:
    done = on_display("--", "./no-such-program")
    assert done.returncode == 127
    assert "no-such-program" in done.stderr


def test_size_window_manager_and_scale_are_options() -> None:
    done = on_display("--size", "640x480", "--wm", "none", "--scale", "2", "--", "sh", "-c",
                      "xdpyinfo; xprop -root _NET_SUPPORTING_WM_CHECK; echo $GDK_SCALE")
    assert "640x480 pixels" in done.stdout
    assert done.stdout.splitlines()[-2:] == [
        "_NET_SUPPORTING_WM_CHECK:  no such atom on any window.", "2"]


def test_only_the_first_double_dash_is_its_own() -> None:
    done = on_display("--", "printf", "%s,", "--", "--size", "--")
    assert done.stdout == "--,--size,--,"


def test_discovery_runs_the_program_itself_and_without_display() -> None:
    program = ["sh", "-c", 'echo $$ "${WAYLAND_DISPLAY-none}"', "sh", "--gtest_list_tests"]
    env = {name: value for name, value in os.environ.items() if name != "WAYLAND_DISPLAY"}
    with subprocess.Popen([ON_DISPLAY, "--kind", "sway", "--", *program], env=env, text=True,
                          stdout=subprocess.PIPE) as launcher:
        output, _ = launcher.communicate(timeout=TIMEOUT)
        assert output == f"{launcher.pid} none\n"


def start_and_read_line(*arguments: str | Path) -> tuple[subprocess.Popen[str], str]:
    """Starts on-display and waits for the first line of its program. Fails without one: what tests then end and remove by that name
    would not be the display's."""
    launcher = subprocess.Popen([ON_DISPLAY, *map(str, arguments)], text=True,
                                stdout=subprocess.PIPE, start_new_session=True)
    assert launcher.stdout is not None
    line = launcher.stdout.readline().strip()
    if not line:
        launcher.kill()
        launcher.wait()
        pytest.fail("on-display has ended without a line of its program")
    return launcher, line


def test_display_without_a_line_fails_the_test_at_once() -> None:
    with pytest.raises(pytest.fail.Exception, match="without a line"):
        start_and_read_line("--wm", "none", "--", "true")


@pytest.mark.parametrize("name", ["TERM", "INT"])
def test_signals_are_passed_on(name: str) -> None:
    script = f'trap "exit 42" {name}; echo ready; while :; do sleep 0.01; done'
    launcher, line = start_and_read_line("--wm", "none", "--", "sh", "-c", script)
    assert line == "ready"
    launcher.send_signal(signal.Signals[f"SIG{name}"])
    assert launcher.wait(TIMEOUT) == 42


SIGNAL_BEFORE_A_WAIT = """\
#define _GNU_SOURCE
#include <dlfcn.h>
#include <signal.h>
#include <sys/types.h>
#include <unistd.h>

pid_t waitpid(pid_t pid, int* status, int options)
{
    static int is_sent = 0;
    if (!is_sent && access(STARTED, F_OK) == 0) {
        is_sent = 1;
        while (access(READY, F_OK) != 0) {
            usleep(1000);
        }
        kill(getpid(), SIGTERM);
    }
    return ((pid_t (*)(pid_t, int*, int))dlsym(RTLD_NEXT, "waitpid"))(pid, status, options);
}
"""


def test_signal_just_before_the_wait_is_passed_on(tmp_path: Path) -> None:
    started, ready, library = tmp_path / "started", tmp_path / "ready", tmp_path / "signal.so"
    subprocess.run(["cc", "-shared", "-fPIC", "-o", library, f'-DSTARTED="{started}"', f'-DREADY="{ready}"', "-x", "c", "-"],
                   input=SIGNAL_BEFORE_A_WAIT, text=True, check=True)
    # The library is for the launcher alone: what else it starts goes without
    script = f'unset LD_PRELOAD; touch {started}; trap "exit 42" TERM; touch {ready}; while :; do sleep 0.01; done'
    launcher = subprocess.Popen([ON_DISPLAY, "--wm", "none", "--", "sh", "-c", script], env=os.environ | {"LD_PRELOAD": str(library)})
    assert launcher.wait(TIMEOUT) == 42


@every_kind
def test_signal_during_the_start_ends_it_cleanly(kind: str) -> None:
    marker = f"on-display-test-{os.getpid()}-{kind}"
    launcher = subprocess.Popen([ON_DISPLAY, "--kind", kind, "--", "sleep", "1000"],
                                env=os.environ | {"MARK": marker})
    wait_until(lambda: set(processes_with("MARK", marker)) - {launcher.pid}, TIMEOUT,
               "the first process of the display")
    launcher.terminate()
    assert launcher.wait(TIMEOUT) == 128 + signal.SIGTERM
    assert processes_with("MARK", marker) == []


class AllBut:
    """Told when it has been waited for in vain: what still runs."""

    def __init__(self, runtime_dir: str) -> None:
        self._runtime_dir = runtime_dir

    def __str__(self) -> str:
        pids = processes_with("XDG_RUNTIME_DIR", self._runtime_dir)
        left = [Path(f"/proc/{pid}/cmdline").read_text().replace("\0", " ") for pid in pids]
        return f"the end of all but the program; left are {left}"


LATE_LOOP = """\
#define _GNU_SOURCE
#include <dlfcn.h>
#include <unistd.h>

void wl_display_run(void* display)
{
    sleep(2);
    ((void (*)(void*))dlsym(RTLD_NEXT, "wl_display_run"))(display);
}
"""


class Late(Display):
    """Before a kind of display: one of its services gets a library that holds it up, as a busy machine does."""

    HELD_UP: str

    def __init__(self, folder: Path, source: str) -> None:
        super().__init__()
        self._library = folder / "late.so"
        subprocess.run(["cc", "-shared", "-fPIC", "-o", self._library, "-x", "c", "-"], input=source, text=True, check=True)

    def _serve(self, name: str, argv: Sequence[str], env_extra: Mapping[str, str] = {},
               pass_fds: Sequence[int] = ()) -> Process:
        preloaded = {"LD_PRELOAD": str(self._library)} if name == self.HELD_UP else {}
        return super()._serve(name, argv, {**env_extra, **preloaded}, pass_fds)


class LateSway(Late, SwayDisplay):
    """Takes its time between its clients' start and its first look at events."""

    HELD_UP = "sway"


def test_sway_obeys_from_its_start_on(tmp_path: Path) -> None:
    with LateSway(tmp_path, LATE_LOOP) as display:
        assert display.server.end(TIMEOUT) == 0


LATE_LOOK = """\
#define _GNU_SOURCE
#include <X11/Xlib.h>
#include <dlfcn.h>
#include <unistd.h>

Status XQueryTree(Display* display, Window of, Window* root, Window* parent, Window** children, unsigned* count)
{
    sleep(2);
    return ((Status (*)(Display*, Window, Window*, Window*, Window**, unsigned*))dlsym(RTLD_NEXT, "XQueryTree"))(
        display, of, root, parent, children, count);
}
"""


class LateOpenbox(Late, XDisplay):
    """Takes its time between saying that it is ready and looking for windows."""

    HELD_UP = "openbox"


def test_window_manager_shows_windows_from_its_start_on(tmp_path: Path, probe: Path) -> None:
    with LateOpenbox(tmp_path, LATE_LOOK) as display:
        display.spawn([probe])
        wait_for_quarters(display, tmp_path / "screen.png", 300, 200)


@every_kind
def test_killed_launcher_takes_its_servers_along(kind: str) -> None:
    script = 'echo "$XDG_RUNTIME_DIR"; exec sleep 1000'
    launcher, runtime_dir = start_and_read_line("--kind", kind, "--", "sh", "-c", script)
    try:
        wait_until(lambda: len(processes_with("XDG_RUNTIME_DIR", runtime_dir)) >= 3, TIMEOUT,
                   "bus, server and program")  # which has no environment while the shell becomes "sleep"
        launcher.kill()
        launcher.wait(TIMEOUT)
        wait_until(lambda: len(processes_with("XDG_RUNTIME_DIR", runtime_dir)) <= 1, TIMEOUT, AllBut(runtime_dir))
    finally:
        end_processes_with("XDG_RUNTIME_DIR", runtime_dir)
        shutil.rmtree(Path(runtime_dir).parent)


@every_kind
def test_picture_of_a_program(kind: str, probe: Path, tmp_path: Path) -> None:
    shot = tmp_path / "shot.png"

    after = 0.7

    def shows_window() -> bool:  # the moment is the caller's guess, so a slow machine may repeat, and wait longer each time
        nonlocal after
        done = on_display("--kind", kind, "--screenshot", shot, "--after", str(after), "--", probe)
        after *= 2
        assert done.returncode == 0
        return area_of(load_picture(shot), YELLOW)[2:] == (150, 100)
    wait_until(shows_window, TIMEOUT, "a picture with the window")


def test_no_picture_of_a_program_that_ends_too_soon(tmp_path: Path) -> None:
    shot = tmp_path / "shot.png"
    done = on_display("--screenshot", shot, "--after", "30", "--", "true")
    assert done.returncode == 1
    assert "ended before" in done.stderr
    assert not shot.exists()


def test_picture_of_a_program_whose_launcher_tells_its_end_like_a_shell(tmp_path: Path) -> None:
    shot = tmp_path / "shot.png"
    script = 'trap "exit 143" TERM; while :; do sleep 0.01; done'
    done = on_display("--screenshot", shot, "--after", "0.1", "--", "sh", "-c", script)
    assert (done.returncode, shot.exists()) == (0, True)


@pytest.mark.skipif(shutil.which("bwrap") is None, reason="needs bubblewrap")
@every_kind
def test_program_in_a_sandbox(kind: str, probe: Path, tmp_path: Path) -> None:
    wrap = ["bwrap", "--dev-bind", "/", "/", "--"]
    with KINDS[kind]() as display:
        display.spawn([probe], wrap=wrap)
        wait_for_quarters(display, tmp_path / "shot.png", 300, 200)
        runtime_dir = str(display.runtime_dir)
    assert processes_with("XDG_RUNTIME_DIR", runtime_dir) == []


NOBODY = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--"]


@pytest.mark.skipif(os.geteuid() != 0, reason="the other tests show it already")
@every_kind
def test_ordinary_user(kind: str) -> None:
    if subprocess.run([*NOBODY, "test", "-x", ON_DISPLAY], check=False).returncode != 0:
        pytest.skip("the source tree is closed to other users")
    command = [*NOBODY, ON_DISPLAY, "--kind", kind, "--", "sh", "-c", "id -u; exit 7"]
    done = subprocess.run(command, capture_output=True, text=True, timeout=TIMEOUT, check=False)
    assert (done.returncode, done.stdout) == (7, "65534\n"), shlex.join(command) + done.stderr


# --- helpers ---

def test_wait_until_returns_the_first_true_value() -> None:
    values = iter([0, "", "found", "too late"])
    assert wait_until(lambda: next(values), TIMEOUT, "a value") == "found"


def test_wait_until_tells_what_it_waited_for() -> None:
    with pytest.raises(WaitTimeout, match="the impossible"):
        wait_until(lambda: False, 0.05, "the impossible")


def test_pixel_counts_from_the_upper_left(tmp_path: Path) -> None:
    path = tmp_path / "two.ppm"
    path.write_bytes(b"P6 2 1 255\n" + bytes([1, 2, 3, 4, 5, 6]))
    assert pixel(load_picture(path), 1, 0) == (4, 5, 6)
