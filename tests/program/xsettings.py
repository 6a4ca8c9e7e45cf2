"""What a desktop tells all programs on an X display: its theme, its font, its scale."""

from __future__ import annotations

import signal
from pathlib import Path

from displays import TIMEOUT, XDisplay, wait_until


class XSettings:
    """A desktop's settings manager on an X display."""

    USUAL = {"Net/ThemeName": '"Adwaita"', "Net/IconThemeName": '"Adwaita"', "Gtk/FontName": '"DejaVu Sans 10"', "Gtk/EnableAnimations": 0,
             "Xft/DPI": 96 * 1024, "Gdk/UnscaledDPI": 96 * 1024, "Gdk/WindowScalingFactor": 1, "Xft/Antialias": 1, "Xft/Hinting": 0,
             "Xft/RGBA": '"none"'}

    def __init__(self, display: XDisplay, folder: Path) -> None:
        self._file = folder / "xsettings.conf"
        self._write({})
        self._manager = display.spawn(["xsettingsd", "-c", self._file])
        wait_until(lambda: "Created" in self._manager.stderr(), TIMEOUT, "the settings manager")

    def set(self, changes: dict[str, object]) -> None:
        """The usual settings, with these changes."""
        self._write(changes)
        self._manager.send_signal(signal.SIGHUP)

    def _write(self, changes: dict[str, object]) -> None:
        draft = self._file.with_suffix(".draft")
        draft.write_text("".join(f"{name} {value}\n" for name, value in (self.USUAL | changes).items()))
        draft.rename(self._file)
