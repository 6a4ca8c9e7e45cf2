"""Headless displays for tests: the real program opens its real window on them.

    with XDisplay(window_manager="xfwm4") as display:
        program = display.spawn(["./vantric"])
        window = display.find_window(pid=program.pid)
        display.screenshot("screen.png")

A display starts all it needs in a private folder: server, window manager, session bus, home. It
ends by process id what it started, whatever that started in its turn, and removes the folder.
Nothing is shared, so any number of displays can be open at the same time, as root or as an ordinary
user.
"""

from __future__ import annotations

import json
import os
import shutil
import signal
import socket
import subprocess
import tempfile
from abc import ABC, abstractmethod
from collections.abc import Callable, Mapping, Sequence
from pathlib import Path
from types import TracebackType
from typing import Any, Self, TypeVar

from display_managers import WINDOW_MANAGERS
from display_pictures import load_picture, pixel
from display_process import (TIMEOUT, DisplayError, Process, ReadyPipe, WaitTimeout,
                             dying_with_parent, end_processes_with, wait_until)
from display_x11 import Geometry, X11Windows, run_tool
from display_xwire import SlotKeeper, XWire, wait_for_managed_window, wait_for_window_manager

__all__ = ["TIMEOUT", "Display", "DisplayError", "Geometry", "Process", "SwayDisplay", "TwoMonitors",
           "WaitTimeout", "WestonDisplay", "XDisplay", "load_picture", "pixel", "wait_until"]

T = TypeVar("T")

# What a caller's own desktop would bring into a client; all else of our environment is passed on.
DESKTOP_PREFIXES = ("XDG_", "GTK_", "GTK3_", "GDK_", "GSETTINGS_", "GNOME_", "KDE_", "LC_", "DBUS_",
                    "WAYLAND_", "WLR_", "XCURSOR_", "AT_SPI_")
DESKTOP_VARIABLES = {"DISPLAY", "XAUTHORITY", "HOME", "LANG", "LANGUAGE", "SESSION_MANAGER",
                     "DESKTOP_SESSION", "DESKTOP_STARTUP_ID", "NO_AT_BRIDGE", "SWAYSOCK", "I3SOCK"}

# The same look on every machine. GTK reads it from settings.ini on X11, from GSettings on Wayland.
GTK_SETTINGS = """\
[Settings]
gtk-theme-name=Adwaita
gtk-icon-theme-name=Adwaita
gtk-font-name=DejaVu Sans 10
gtk-enable-animations=0
gtk-cursor-blink=0
gtk-xft-antialias=1
gtk-xft-hinting=0
gtk-xft-rgba=none
gtk-xft-dpi=98304
"""
GSETTINGS = """\
[org/gnome/desktop/interface]
gtk-theme='Adwaita'
icon-theme='Adwaita'
font-name='DejaVu Sans 10'
enable-animations=false
cursor-blink=false
font-antialiasing='grayscale'
font-hinting='none'
"""

# The session bus starts only what a display's clients need: settings of xfwm4, accessibility. A
# desktop portal of the machine would be started by the first question and then answer nothing.
BUS_SERVICES = ("org.xfce.Xfconf.service", "org.a11y.Bus.service")
BUS_CONFIG = """\
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path={socket}</listen>
  <auth>EXTERNAL</auth>
  <servicedir>{services}</servicedir>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
"""


class Display(ABC):
    """What all displays have in common; a context manager."""

    def __init__(self, width: int, height: int, scale: int) -> None:
        """Size of the screen in pixels, and how many pixels a client shall take for one."""
        self.width, self.height, self.scale = width, height, scale
        self.env: dict[str, str] = {}  #: complete environment of a client
        self.processes: list[Process] = []  #: what `spawn` has started, oldest first
        self._services: list[Process] = []  # bus, server, window manager, in this order
        self.server: Process  #: X server or compositor; a test may end it

    # --- life cycle ---

    def __enter__(self) -> Self:
        # In /tmp whatever TMPDIR says: a socket's path has to be shorter than 108 bytes.
        self.folder = Path(tempfile.mkdtemp(prefix="test-display-", dir="/tmp"))
        try:
            self._make_folders()
            self.env = self._base_environment()
            bus = self._launch_bus()
            self._start()
            bus.line(self._services[0], TIMEOUT)
            self._start_window_manager()
        except BaseException:  # also an interruption from the keyboard
            self.stop()
            raise
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        self.stop()

    def stop(self) -> None:
        """Ends everything, clients first, and removes the folder."""
        for process in [*reversed(self.processes), *reversed(self._services)]:
            process.end()
        # Also reaches who was started in the midst of an interruption and is in no list.
        end_processes_with("XDG_RUNTIME_DIR", str(self.runtime_dir))
        _remove(self.folder)

    @abstractmethod
    def _start(self) -> None:
        """Starts the server, and puts into `env` how clients find it."""

    def _start_window_manager(self) -> None:
        """Starts what manages the windows, if that isn't the server itself; the bus is there."""

    # --- private places ---

    @property
    def home(self) -> Path:
        return self.folder / "home"

    @property
    def config_home(self) -> Path:
        return self.home / ".config"

    @property
    def data_home(self) -> Path:
        return self.home / ".local/share"

    @property
    def runtime_dir(self) -> Path:
        return self.folder / "run"

    @property
    def _bus_socket(self) -> Path:
        return self.runtime_dir / "bus"

    def _make_folders(self) -> None:
        self.runtime_dir.mkdir(mode=0o700)
        for folder in (self.data_home, self.config_home / "gtk-3.0", self.folder / "services",
                       self.config_home / "glib-2.0/settings", self.folder / "logs"):
            folder.mkdir(parents=True)
        (self.config_home / "gtk-3.0/settings.ini").write_text(GTK_SETTINGS)
        (self.config_home / "glib-2.0/settings/keyfile").write_text(GSETTINGS)

    def _base_environment(self) -> dict[str, str]:
        inherited = {name: value for name, value in os.environ.items()
                     if name not in DESKTOP_VARIABLES and not name.startswith(DESKTOP_PREFIXES)}
        return inherited | {
            "HOME": str(self.home),
            "XDG_CONFIG_HOME": str(self.config_home),
            "XDG_DATA_HOME": str(self.data_home),
            "XDG_CACHE_HOME": str(self.home / ".cache"),
            "XDG_STATE_HOME": str(self.home / ".local/state"),
            "XDG_RUNTIME_DIR": str(self.runtime_dir),
            "DBUS_SESSION_BUS_ADDRESS": f"unix:path={self._bus_socket}",
            "GSETTINGS_BACKEND": "keyfile",
            "NO_AT_BRIDGE": "1",  # else each client starts the accessibility bus first
            "LANG": "C.UTF-8",
        }

    # --- processes ---

    def spawn(self, argv: Sequence[str | Path], env_extra: Mapping[str, str | None] = {},
              wrap: Sequence[str | Path] | None = None, *, share_output: bool = False) -> Process:
        """Starts a program as a client.

        `env_extra` changes its environment; None removes a variable. `wrap` is a command put before
        the program's. The output goes into files, or to our own with `share_output`, which also
        leaves it in our session, so that it can be used from a terminal.
        """
        command = [str(word) for word in (*(wrap or ()), *argv)]
        env: dict[str, str | None] = {**self.env, **env_extra}
        name = f"{len(self.processes)}-{Path(argv[0]).name}"
        process = Process(command, {k: v for k, v in env.items() if v is not None},
                          output_base=None if share_output else self.folder / "logs" / name,
                          new_session=not share_output)
        self.processes.append(process)
        return process

    def _serve(self, name: str, argv: Sequence[str], env_extra: Mapping[str, str] = {},
               pass_fds: Sequence[int] = ()) -> Process:
        process = Process(dying_with_parent(argv), {**self.env, **env_extra},
                          output_base=self.folder / "logs" / name, pass_fds=pass_fds)
        self._services.append(process)
        return process

    def _launch_bus(self) -> ReadyPipe:
        services = self.folder / "services"
        for installed in Path("/usr/share/dbus-1/services").glob("*.service"):
            if installed.name in BUS_SERVICES:
                (services / installed.name).symlink_to(installed)
        config = self.folder / "bus.conf"
        config.write_text(BUS_CONFIG.format(socket=self._bus_socket, services=services))
        pipe = ReadyPipe()
        self._serve("dbus-daemon", ["dbus-daemon", "--nofork", "--nopidfile", "--nosyslog",
                                    f"--config-file={config}", f"--print-address={pipe.write_end}"],
                    pass_fds=[pipe.write_end])
        return pipe

    # --- pictures ---

    @abstractmethod
    def screenshot(self, path: Path | str) -> None:
        """Takes a picture of the whole screen, as PNG."""


class XDisplay(X11Windows, Display):
    """An X server in memory (Xvfb), with a window manager."""

    def __init__(self, width: int = 1280, height: int = 1024,
                 window_manager: str | None = "openbox",
                 scale: int = 1, server_options: Sequence[str] = ()) -> None:
        """`window_manager` is one of WINDOW_MANAGERS, which has to be installed.

        `scale` is GDK_SCALE: the screen stays as large, GTK draws each point N pixels wide.
        """
        super().__init__(width, height, scale)
        self.window_manager = window_manager
        self._server_options = server_options
        self._keeper: SlotKeeper | None = None
        self._trial: XWire | None = None

    def _start(self) -> None:
        pipe = ReadyPipe()
        command = [*self._server_command(), "-displayfd", str(pipe.write_end), "-dpi", "96",
                   "-nolisten", "tcp",
                   "-noreset",  # else it forgets all settings when the last client leaves
                   "-maxclients", "1024",  # room for the slots that SlotKeeper occupies
                   *self._server_options]
        self.server = self._serve(command[0], command, pass_fds=[pipe.write_end])
        self.number = int(pipe.line(self.server, TIMEOUT))
        self.env |= {"DISPLAY": f":{self.number}", "GDK_BACKEND": "x11",
                     "GDK_SCALE": str(self.scale), "XDG_SESSION_TYPE": "x11"}
        self._keeper = SlotKeeper(self.number)
        self._keeper.start()

    def _server_command(self) -> list[str]:
        return ["Xvfb", "-screen", "0", f"{self.width}x{self.height}x24"]

    def _start_window_manager(self) -> None:
        if self.window_manager is None:
            return
        self._run_window_manager()
        self._trial = wait_for_managed_window(self.number, TIMEOUT, hope=self._manager.running)
        if self._trial is None:
            self._complain_of_manager()

    def _run_window_manager(self) -> None:
        kind = WINDOW_MANAGERS[self.window_manager]
        self._manager = self._serve(self.window_manager, kind.set_up(self.home),
                                    {"GDK_SCALE": "1", **kind.variables})
        if not wait_for_window_manager(self.number, kind.is_modern, TIMEOUT,
                                       hope=self._manager.running):
            self._complain_of_manager()

    def _complain_of_manager(self) -> None:
        raise DisplayError(f"{self._manager} does not manage windows:\n"
                           f"{self._manager.last_words()}")

    def replace_window_manager(self) -> None:
        """Lets the window manager die, and starts another of its kind, which has windows to manage."""
        self._manager.send_signal(signal.SIGKILL)
        self._manager.wait(TIMEOUT)
        self._run_window_manager()

    def spawn(self, argv: Sequence[str | Path], env_extra: Mapping[str, str | None] = {},
              wrap: Sequence[str | Path] | None = None, *, share_output: bool = False) -> Process:
        """Starts a program as a client; its windows' numbers are none that were used before."""
        self.catch_up()
        return super().spawn(argv, env_extra, wrap, share_output=share_output)

    def catch_up(self) -> None:
        """Call it before a client is started without `spawn`, if another has ended before."""
        if self._keeper is not None:
            self._keeper.catch_up(TIMEOUT)

    def stop(self) -> None:
        if self._keeper is not None:
            self._keeper.stop()
            self._keeper = None
        if self._trial is not None:
            self._trial.close()
            self._trial = None
        super().stop()

    def close(self, window: int) -> None:
        """Asks the program to close the window, as the close button of its frame does."""
        if self.window_manager and WINDOW_MANAGERS[self.window_manager].is_modern:
            super().close(window)
            return
        wire = XWire(self.number)  # nobody is there who would pass the usual request on
        wire.send_delete(window)
        wire.close()


class TwoMonitors(XDisplay):
    """An X server with two monitors side by side (Xorg), of which the left is the primary one until it is put to the right."""

    MONITOR = (1024, 768)  #: pixels of each; what the driver offers by itself

    def __init__(self, window_manager: str | None = "openbox") -> None:
        super().__init__(2 * self.MONITOR[0], self.MONITOR[1], window_manager)

    def _server_command(self) -> list[str]:
        config = self.folder / "xorg.conf"
        config.write_text(XORG_CONFIG.format(width=self.width, height=self.height))
        return ["Xorg", "-config", str(config), "-configdir", "none",
                "-logfile", str(self.folder / "logs/Xorg.log"), "-sharevts", "-novtswitch"]

    def _start(self) -> None:
        super()._start()
        run_tool(["xrandr", "--addmode", "DUMMY1", self._mode], self.env)
        self.plug_in()

    @property
    def _mode(self) -> str:
        return f"{self.MONITOR[0]}x{self.MONITOR[1]}"

    def plug_in(self) -> None:
        self._place(primary=0, second=self.MONITOR[0])

    def put_primary_right(self) -> None:
        self._place(primary=self.MONITOR[0], second=0)

    def _place(self, primary: int, second: int) -> None:
        run_tool(["xrandr", "--output", "DUMMY0", "--mode", self._mode, "--pos", f"{primary}x0", "--primary",
                  "--output", "DUMMY1", "--mode", self._mode, "--pos", f"{second}x0"],
                 self.env)
        run_tool(["xrandr", "--query"], self.env)  # lets the server notice that it is connected

    def unplug(self) -> None:
        """Takes the second monitor away."""
        run_tool(["xrandr", "--output", "DUMMY1", "--off"], self.env)


XORG_CONFIG = """\
Section "Device"
  Identifier "memory"
  Driver "dummy"
  VideoRam 65536
EndSection
Section "Screen"
  Identifier "screen"
  Device "memory"
  DefaultDepth 24
  SubSection "Display"
    Depth 24
    Virtual {width} {height}
  EndSubSection
EndSection
Section "ServerFlags"
  Option "AutoAddDevices" "false"
  Option "AutoAddGPU" "false"
  Option "DontVTSwitch" "true"
EndSection
"""


class SwayDisplay(Display):
    """A Wayland compositor without decorations of its own or the client's (sway)."""

    def __init__(self, width: int = 1280, height: int = 1024, outputs: int = 1,
                 scale: int = 1) -> None:
        """`outputs` screens of this size in pixels stand side by side."""
        super().__init__(width, height, scale)
        self.outputs = outputs

    def _start(self) -> None:
        config = self.folder / "sway.conf"
        config.write_text(self._config())
        self.server = self._serve("sway", _as_ordinary_user(["sway", "-c", str(config)]), {
            "WLR_BACKENDS": "headless", "WLR_HEADLESS_OUTPUTS": str(self.outputs),
            "WLR_RENDERER": "pixman", "WLR_LIBINPUT_NO_DEVICES": "1",
            "SWAYSOCK": str(self._control_socket),
        })
        name = _wait_for_server(self.server, self._socket_name)
        _wait_for_server(self.server, self._answers)
        self.env |= {"WAYLAND_DISPLAY": name, "GDK_BACKEND": "wayland",
                     "XDG_SESSION_TYPE": "wayland", "SWAYSOCK": str(self._control_socket)}

    @property
    def _name_file(self) -> Path:
        return self.folder / "sway.name"

    def _socket_name(self) -> str:
        """The name that sway has chosen for its socket, empty until it is ready for clients."""
        text = self._name_file.read_text() if self._name_file.exists() else ""
        return text.rstrip("\n") if text.endswith("\n") else ""

    def _answers(self) -> bool:
        """Whether sway has begun to look at events: a SIGTERM that comes before is forgotten by it."""
        question = ["swaymsg", "--socket", str(self._control_socket), "--type", "get_version"]
        return subprocess.run(question, env=self.env, capture_output=True, check=False).returncode == 0

    @property
    def _control_socket(self) -> Path:
        return self.runtime_dir / "sway.sock"

    def _config(self) -> str:
        screens = [f"output HEADLESS-{i + 1} resolution {self.width}x{self.height}"
                   f" position {i * self.width // self.scale} 0 scale {self.scale}"
                   for i in range(self.outputs)]
        return "\n".join([
            "xwayland disable",
            "swaybg_command -",
            *screens,
            'for_window [app_id=".*"] floating enable',  # else a window fills the screen
            "default_border none",
            "default_floating_border none",
            f'exec echo "$WAYLAND_DISPLAY" >{self._name_file}',  # runs once clients may come
            ""])

    def command(self, text: str) -> Any:
        """Gives sway a command and returns its answer; raises if sway refuses."""
        return json.loads(run_tool(["swaymsg", "--raw", "--", text], self.env))

    def tree(self) -> dict[str, Any]:
        """All that sway knows about screens and windows, as "swaymsg -t get_tree" tells it."""
        tree: dict[str, Any] = json.loads(
            run_tool(["swaymsg", "--raw", "-t", "get_tree"], self.env))
        return tree

    def views(self, app_id: str) -> list[dict[str, Any]]:
        """The parts of the tree that describe windows of the program with this id."""
        return [node for node in _nodes(self.tree()) if node.get("app_id") == app_id]

    def view(self, app_id: str, timeout: float = TIMEOUT) -> dict[str, Any]:
        """Waits for a window of the program with this id (GTK takes the program's file name)."""
        return wait_until(lambda: self.views(app_id), timeout, f"a window of {app_id}")[0]

    def close(self, app_id: str) -> None:
        """Asks the program to close its window."""
        self.command(f'[app_id="{app_id}"] kill')

    def set_scale(self, scale: int) -> None:
        """Another scale for all outputs, which clients have to follow."""
        self.command(f"output * scale {scale}")
        self.scale = scale

    def resize(self, app_id: str, width: int, height: int) -> None:
        self.command(f'[app_id="{app_id}"] resize set {width} {height}')

    def move(self, app_id: str, x: int, y: int) -> None:
        self.command(f'[app_id="{app_id}"] move absolute position {x} {y}')

    def screenshot(self, path: Path | str) -> None:
        run_tool(["grim", str(path)], self.env)


class WestonDisplay(Display):
    """A Wayland compositor whose clients draw title bar and shadow themselves (weston).

    It has no keyboard or pointer: GTK complains about that with two criticals at its start.
    """

    def __init__(self, width: int = 1280, height: int = 1024, scale: int = 1) -> None:
        super().__init__(width, height, scale)

    def _start(self) -> None:
        name = "wayland-0"
        config = self.folder / "weston.ini"
        config.write_text(WESTON_CONFIG)
        self.server = self._serve("weston", [
            "weston", "--backend=headless-backend.so", "--use-pixman", f"--config={config}",
            f"--width={self.width // self.scale}", f"--height={self.height // self.scale}",
            f"--scale={self.scale}", f"--socket={name}", "--idle-time=0",
            "--debug",  # else it refuses screenshots
        ])
        _wait_for_server(self.server, lambda: _accepts(self.runtime_dir / name))
        self.env |= {"WAYLAND_DISPLAY": name, "GDK_BACKEND": "wayland",
                     "XDG_SESSION_TYPE": "wayland"}

    def screenshot(self, path: Path | str) -> None:
        # The tool chooses the name and writes into the working directory.
        with tempfile.TemporaryDirectory(dir=self.folder) as folder:
            run_tool(["weston-screenshooter"], self.env, folder)
            (picture,) = Path(folder).iterdir()
            shutil.copyfile(picture, path)


WESTON_CONFIG = """\
[shell]
panel-position=none
locking=false
background-color=0xff336699
animation=none
startup-animation=none
close-animation=none
"""


def _remove(folder: Path) -> None:
    """Removes the folder with all in it, also what a test has closed to the program."""
    for parent, children, _ in os.walk(folder):
        for child in children:  # a folder is opened here before os.walk looks into it
            if not os.path.islink(path := os.path.join(parent, child)):
                os.chmod(path, 0o700)
    shutil.rmtree(folder)


def _as_ordinary_user(argv: Sequence[str]) -> list[str]:
    """The command, for a program that refuses to run as root: root looks like a user to it."""
    if os.geteuid() != 0:
        return list(argv)
    # Entering the namespace, a process ceases to die with its parent: it has to ask again.
    return ["unshare", "--user", "--map-user=1000", "--map-group=1000", "--",
            *dying_with_parent(argv)]


def _wait_for_server(server: Process, ready: Callable[[], T]) -> T:
    """Waits until a server is ready; raises with what it has written if it ends instead."""
    def ready_or_dead() -> T:
        value = ready()
        if not value and not server.running():
            raise DisplayError(f"{server} has ended:\n{server.last_words()}")
        return value
    return wait_until(ready_or_dead, TIMEOUT, f"{server} to accept clients")


def _nodes(node: dict[str, Any]) -> list[dict[str, Any]]:
    """The node of sway's tree and all below it."""
    below = [*node.get("nodes", []), *node.get("floating_nodes", [])]
    return [node, *(deeper for child in below for deeper in _nodes(child))]


def _accepts(path: Path) -> bool:
    """Whether a server listens at this socket."""
    with socket.socket(socket.AF_UNIX) as client:
        return client.connect_ex(str(path)) == 0
