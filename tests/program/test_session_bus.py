"""A desktop without a session bus, where libraries start one, and one whose bus hangs."""

from __future__ import annotations

import os
import signal
import socket
from collections.abc import Iterator
from contextlib import suppress
from pathlib import Path

import pytest

from display_process import end_processes_with, processes_with
from displays import XDisplay, wait_until
from monitor import TIMEOUT, Monitor, Start, wait_for_main_loop

ENDING_SIGNALS = (signal.SIGINT, signal.SIGTERM)


def started_by(monitor: Monitor) -> dict[int, str]:
    """What the program has started, and what that has started in its turn: process ids with names."""
    names = {}
    for pid in processes_with("HOME", str(monitor.home)):
        try:
            names[pid] = Path(f"/proc/{pid}/comm").read_text().strip()
        except OSError:
            continue  # it has just ended
    names.pop(monitor.pid, None)
    return names


def blocks(pid: int, number: signal.Signals) -> bool:
    """Whether the program blocks the signal, and so can't be ended by it. One that has just ended by itself does not."""
    try:
        status = Path(f"/proc/{pid}/status").read_text()
    except OSError:
        return False
    (mask,) = [line.split()[1] for line in status.splitlines() if line.startswith("SigBlk:")]
    return bool(int(mask, 16) >> (number - 1) & 1)


@pytest.fixture
def no_bus(tmp_path: Path) -> dict[str, str | None]:
    """The variables of a session without a bus: neither is one named, nor does one stand where it usually does."""
    runtime = tmp_path / "runtime"
    runtime.mkdir(mode=0o700)
    return {"DBUS_SESSION_BUS_ADDRESS": None, "XDG_RUNTIME_DIR": str(runtime)}


# Accessibility starts the bus from within GTK's start; without it the program's own question for the colour scheme does
@pytest.mark.parametrize("accessible, expected", [(True, {"dbus-daemon", "at-spi-bus-laun"}), (False, {"dbus-daemon"})],
                         ids=["by GTK", "by the program"])
def test_programs_that_libraries_start_can_be_ended(accessible: bool, expected: set[str], x11: XDisplay, start: Start,
                                                    no_bus: dict[str, str | None]) -> None:
    monitor = start(x11, env=no_bus, accessible=accessible)
    try:
        wait_for_main_loop(monitor)
        wait_until(lambda: expected <= set(started_by(monitor).values()), TIMEOUT, f"{expected}")
        # One that is just starting another blocks them for a moment
        wait_until(lambda: not any(blocks(pid, number) for pid in started_by(monitor) for number in ENDING_SIGNALS), TIMEOUT,
                   "programs that can be ended")
        monitor.send(signal.SIGTERM)
        monitor.assert_clean_end()
        # The bus outlives the program, as it belongs to the session
        for pid in [pid for pid, name in started_by(monitor).items() if name == "dbus-daemon"]:
            with suppress(ProcessLookupError):  # that of accessibility ends with the session's
                os.kill(pid, signal.SIGTERM)
        wait_until(lambda: "dbus-daemon" not in started_by(monitor).values(), TIMEOUT, "the end of the bus")
    finally:
        end_processes_with("HOME", str(monitor.home))


class HangingBus:
    """Takes connections, and never says a word."""

    def __init__(self, folder: Path) -> None:
        self._socket = socket.socket(socket.AF_UNIX)
        self._socket.bind(str(folder / "bus"))
        self._socket.listen(100)
        self.address = f"unix:path={folder}/bus"

    def close(self) -> None:
        self._socket.close()

    def connections(self) -> int:
        """How many there have been since the last call."""
        self._socket.setblocking(False)
        count = 0
        try:
            while True:
                connection, _ = self._socket.accept()
                connection.close()
                count += 1
        except BlockingIOError:
            return count


@pytest.fixture
def hanging_bus(tmp_path: Path) -> Iterator[HangingBus]:
    bus = HangingBus(tmp_path)
    yield bus
    bus.close()


@pytest.mark.parametrize("accessible", [False, True], ids=["without accessibility", "with accessibility"])
@pytest.mark.parametrize("theme", ["auto", "light"])
def test_bus_that_hangs_is_given_up(theme: str, accessible: bool, x11: XDisplay, hanging_bus: HangingBus, start: Start) -> None:
    monitor = start(x11, settings={"theme": theme}, env={"DBUS_SESSION_BUS_ADDRESS": hanging_bus.address}, accessible=accessible)
    monitor.wait_for_window()
    wait_for_main_loop(monitor)
    assert hanging_bus.connections() == 1  # one attempt, whoever has asked for it since
