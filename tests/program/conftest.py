"""What the tests of the program share: the program, displays, and an orderly end."""

from __future__ import annotations

import os
import signal
import subprocess
import sys
from collections.abc import Callable, Iterator
from contextlib import ExitStack
from pathlib import Path

import pytest

HERE = Path(__file__).resolve().parent
ROOT = HERE.parents[1]
sys.path[:0] = [str(HERE), str(HERE.parent / "display"), str(HERE.parent / "machine")]
pytest.register_assert_rewrite("monitor")  # so that its assertions tell what they compared

from displays import Display, SwayDisplay, WestonDisplay, XDisplay  # noqa: E402
from fakemachine import Machine  # noqa: E402
from monitor import Monitor, Start, settings_text, write_settings  # noqa: E402

WINDOW_MANAGERS = ("openbox", "xfwm4")

STARTED = pytest.StashKey[list[Monitor]]()


@pytest.fixture(scope="session")
def program() -> Path:
    """The program under test: $VANTRIC, or the one that the build puts at its usual place."""
    path = Path(os.environ.get("VANTRIC", ROOT / "build/test/vantric")).absolute()
    if not os.access(path, os.X_OK):
        pytest.fail(f"{path} is no program: build it, or name one in VANTRIC", pytrace=False)
    return path


@pytest.fixture
def displays() -> Iterator[ExitStack]:
    """Takes in displays, and closes them after the programs on them."""
    with ExitStack() as stack:
        yield stack


@pytest.fixture
def machines() -> Iterator[ExitStack]:
    """Takes in made-up machines, and closes them after the programs on them."""
    with ExitStack() as stack:
        yield stack


@pytest.fixture
def x11(displays: ExitStack) -> XDisplay:
    return displays.enter_context(XDisplay())


@pytest.fixture
def sway(displays: ExitStack) -> SwayDisplay:
    return displays.enter_context(SwayDisplay())


@pytest.fixture
def weston(displays: ExitStack) -> WestonDisplay:
    return displays.enter_context(WestonDisplay())


@pytest.fixture(params=WINDOW_MANAGERS)
def managed(request: pytest.FixtureRequest, displays: ExitStack) -> XDisplay:
    """An X display with each of the window managers in turn."""
    return displays.enter_context(XDisplay(window_manager=request.param))


@pytest.fixture(params=[XDisplay, SwayDisplay, WestonDisplay])
def every_display(request: pytest.FixtureRequest, displays: ExitStack) -> Display:
    """Each kind of display in turn."""
    return displays.enter_context(request.param())


@pytest.fixture(scope="session")
def preloaded(tmp_path_factory: pytest.TempPathFactory) -> Callable[[str], dict[str, str]]:
    """Compiles a C file of this folder into a library, and gives the variables that put it before a program's own."""
    def compile(name: str) -> dict[str, str]:
        library = tmp_path_factory.mktemp("preloaded") / f"{name}.so"
        flags = subprocess.check_output(["pkg-config", "--cflags", "gtk+-3.0"], text=True).split()
        subprocess.run(["cc", "-Wall", "-Wextra", "-Werror", "-shared", "-fPIC", "-o", library, HERE / f"{name}.c",
                        *flags], check=True)
        return {"LD_PRELOAD": str(library)}
    return compile


@pytest.fixture(scope="session")
def german_locale(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """A folder with the locale de_DE.UTF-8. It takes a while: tests with it belong to the group "German", which has it made once."""
    folder = tmp_path_factory.mktemp("locales")
    subprocess.run(["localedef", "-i", "de_DE", "-f", "UTF-8", folder / "de_DE.UTF-8"], check=True, capture_output=True)
    return folder


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item: pytest.Item) -> Iterator[None]:
    """A failure tells what the programs are doing at that moment: the next time may be long in coming."""
    outcome = yield
    report = outcome.get_result()
    if report.failed and report.when != "teardown":
        report.sections += [(f"program {monitor.pid}", monitor.condition()) for monitor in item.stash.get(STARTED, [])]


@pytest.fixture
def start(request: pytest.FixtureRequest, program: Path, tmp_path: Path, displays: ExitStack, machines: ExitStack) -> Iterator[Start]:
    """Starts the program; what a test leaves running gets SIGTERM afterwards, and has to end well.

    `machine` is a description; without one the program runs on the real machine. `settings` are changes to the usual
    settings file; None leaves the home folder empty.
    """
    started = request.node.stash[STARTED] = []

    def start_monitor(display: Display, machine: dict | Machine | None = None,
                      settings: dict[str, str] | None = {}, **options: object) -> Monitor:
        home = tmp_path / f"home-{len(started)}"
        home.mkdir()
        if settings is not None:
            write_settings(home, settings_text(**settings))
        if isinstance(machine, dict):
            machine = machines.enter_context(Machine(machine))
        started.append(Monitor(program, display, home, machine, **options))
        return started[-1]
    try:
        yield start_monitor
        left = [monitor for monitor in started if monitor.running()]
        for monitor in left:
            monitor.send(signal.SIGTERM)
        for monitor in left:
            monitor.assert_clean_end()
    finally:
        for monitor in started:
            monitor.kill()
