"""Random use of window and dialog: silent, alive, files whole all along, and afterwards the same as a new start with the same files.

VANTRIC_RANDOM_USE_SECONDS is how long it lasts, VANTRIC_RANDOM_USE_SEED takes the choices of an earlier one, and VANTRIC_RANDOM_USE_WM names
the window manager.
"""

from __future__ import annotations

import os
import time
from contextlib import ExitStack
from pathlib import Path

from displays import XDisplay
from fakemachine import Machine
from monitor import Start, settings_text, write_settings
from random_use import MACHINE, RandomUser

SECONDS = float(os.environ.get("VANTRIC_RANDOM_USE_SECONDS", "0"))
SEED = int(os.environ.get("VANTRIC_RANDOM_USE_SEED", "20261"))
WINDOW_MANAGER = os.environ.get("VANTRIC_RANDOM_USE_WM", "openbox")
ACTS = 240 if SECONDS else 60  # from one new start to the next
ENOUGH_CHANGES = 2  # values of a setting that were saved; else nothing would have been tried


def test_random_use_of_choosers(displays: ExitStack, machines: ExitStack, start: Start, tmp_path: Path) -> None:
    """In haste: what it finds, it finds within minutes."""
    home = tmp_path / "kept"
    write_settings(home, settings_text())
    display = displays.enter_context(XDisplay(window_manager=WINDOW_MANAGER))
    user = RandomUser(start, display, home, machines.enter_context(Machine(MACHINE)), SEED)
    begin = time.monotonic()
    while user.done.total() < ACTS or time.monotonic() - begin < SECONDS:
        user.act_on_choosers()
    print(dict(user.done))
    user.finish()
    assert max(len(values) for values in user.seen.values()) >= ENOUGH_CHANGES


def test_random_use(displays: ExitStack, machines: ExitStack, start: Start, tmp_path: Path) -> None:
    print(f"seed {SEED}, {SECONDS:g} s, {WINDOW_MANAGER}")
    home = tmp_path / "kept"
    write_settings(home, settings_text())
    display = displays.enter_context(XDisplay(window_manager=WINDOW_MANAGER))
    user = RandomUser(start, display, home, machines.enter_context(Machine(MACHINE)), SEED)
    begin = time.monotonic()
    while True:
        for _ in range(ACTS):
            user.act()
        user.compare_with_new_program()
        print(f"after {time.monotonic() - begin:.0f} s: {user.done.total()} acts, {user.links_opened()} links opened")
        if time.monotonic() - begin >= SECONDS:
            break
    user.finish()
    values = {key: len(values) for key, values in user.seen.items()}
    print(f"{dict(user.done)}\n{values}")
    assert max(values.values()) >= ENOUGH_CHANGES
