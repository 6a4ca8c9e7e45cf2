"""The window managers that an X display can be started with: how each is called, and set up so that a window stands where it asks to."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass, field
from pathlib import Path

CONFIG = "CONFIG"  # in a command: the file with the manager's configuration


@dataclass(frozen=True)
class WindowManager:
    """A window manager of the distribution, without session and compositing."""
    command: Sequence[str]
    config: str = ""  # what its configuration says
    config_file: str = ""  # where it looks for that below the home folder; empty: named in the command
    variables: dict[str, str] = field(default_factory=dict)
    is_modern: bool = True  # knows what desktops have agreed on: says when it is there, passes on requests to close

    def set_up(self, home: Path) -> list[str]:
        """Lays its configuration into the home folder, and returns the command."""
        path = home / (self.config_file or f"{self.command[0]}.conf")
        if self.config:
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(self.config)
        return [str(path) if word == CONFIG else word for word in self.command]


_TWM = """\
RandomPlacement
UsePPosition "on"
NoGrabServer
TitleFont "fixed"
ResizeFont "fixed"
MenuFont "fixed"
IconFont "fixed"
IconManagerFont "fixed"
"""
_I3 = "# i3 config file (v4)\nfont pango:DejaVu Sans 10\nfocus_follows_mouse no\n"

WINDOW_MANAGERS = {
    "openbox": WindowManager(["openbox", "--sm-disable"]),
    "xfwm4": WindowManager(["xfwm4", "--compositor=off"]),
    "metacity": WindowManager(["metacity", "--sm-disable", "--no-composite"]),
    "marco": WindowManager(["marco", "--sm-disable", "--no-composite"]),
    "kwin_x11": WindowManager(["kwin_x11"], variables={"KWIN_COMPOSE": "N", "QT_LOGGING_RULES": "*=false"}),
    "mutter": WindowManager(["mutter", "--x11", "--sm-disable"]),
    "icewm": WindowManager(["icewm"], "ShowTaskBar=0\n", ".icewm/preferences"),
    "fluxbox": WindowManager(["fluxbox"], "session.screen0.toolbar.visible: false\n", ".fluxbox/init"),
    "i3": WindowManager(["i3", "-c", CONFIG], _I3),
    "i3-tiled": WindowManager(["i3", "-c", CONFIG], _I3 + 'for_window [title="."] floating disable\n'),
    "twm": WindowManager(["twm", "-f", CONFIG], _TWM, is_modern=False),
}
