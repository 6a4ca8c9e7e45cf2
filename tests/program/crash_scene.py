"""A crash and what comes of it: the report, the child with its dialogue, and how all of them end."""

from __future__ import annotations

import os
import re
import signal
import subprocess
from collections.abc import Mapping, Sequence
from dataclasses import dataclass
from pathlib import Path

from displays import wait_until
from monitor import TIMEOUT

HERE = Path(__file__).resolve().parent
PYTHON = "/usr/bin/python3"
REPORT_NAME = "Vantric_crash.txt"
DESCRIPTION_HEAD = "\nUser description:\n"

#: The signals that leave a report, and their texts.
SIGNAL_TEXTS = {
    signal.SIGSEGV: "SIGSEGV (Segmentation fault)",
    signal.SIGABRT: "SIGABRT (Abort)",
    signal.SIGFPE: "SIGFPE (Floating point exception)",
    signal.SIGBUS: "SIGBUS (Bus error)",
    signal.SIGILL: "SIGILL (Illegal instruction)",
    signal.SIGTRAP: "SIGTRAP (Trap — usually a fatal GLib/GTK error)",
}

_REPORT = re.compile(r"=== Vantric Crash Report ===\n"
                     r"Version: (?P<version>.*)\n"
                     r"Signal: (?P<signal>.*)\n"
                     r"Time: (?P<time>\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)\n"
                     r"(System: (?P<system>.*)\n)?"
                     r"Desktop: (?P<desktop>.*)\n"
                     r"Snap: (?P<snap>.*)\n"
                     r"\nBacktrace:\n(?P<frames>(.+\[(0x[0-9a-f]+|\(nil\))\]\n)+)"
                     r"\n=== End Report ===\n")


@dataclass
class Report:
    """A whole report."""
    version: str
    signal: str
    time: str
    system: str | None
    desktop: str
    snap: str
    frames: list[str]

    @property
    def functions(self) -> str:
        """The names of the functions, as the compiler writes them, the innermost first."""
        return " ".join(re.findall(r"\(([^()+]+)\+0x", "\n".join(self.frames)))


def parse_report(text: str) -> Report:
    """Reads a report, which has to be whole, with nothing before or behind it."""
    match = _REPORT.fullmatch(text)
    assert match, f"not a whole report:\n{text}"
    return Report(**{**match.groupdict(), "frames": match["frames"].splitlines()})


def is_whole(text: str) -> bool:
    return _REPORT.fullmatch(text) is not None


def signal_line(number: signal.Signals) -> str:
    return f"{SIGNAL_TEXTS[number]} ({number.value})"


class Crash:
    """A program that dies, and its child."""

    def __init__(self, scene: CrashScene, argv: Sequence[str]) -> None:
        self._scene = scene
        self._log = scene.folder / "endings"
        self._log.unlink(missing_ok=True)
        with open(scene.folder / "out", "wb") as out, open(scene.folder / "err", "wb") as err:
            self._keeper = subprocess.Popen(
                [PYTHON, "-I", "-S", HERE / "crash_keeper.py", self._log, *argv], stdin=subprocess.DEVNULL, stdout=out,
                stderr=err, cwd=scene.folder, env={"PATH": "/usr/bin:/bin"}, start_new_session=True)

    def _endings(self, kind: str) -> list[int]:
        lines = self._log.read_text().splitlines() if self._log.exists() else []
        return [int(line.split()[2]) for line in lines if line.split()[0] == kind]

    def wait(self) -> int:
        """Waits until the program has ended, which its child may outlive; returns the status, -n after signal n."""
        return os.waitstatus_to_exitcode(self.wait_status())

    def wait_status(self) -> int:
        """As `wait`, but the status as the system tells it."""
        return wait_until(lambda: self._endings("program"), TIMEOUT, f"the program's end\n{self.complaints()}")[0]

    def wait_for_all(self) -> list[int]:
        """Waits until nothing is left; returns the statuses of what the program has left behind."""
        self.wait()
        wait_until(lambda: self._keeper.poll() is not None, TIMEOUT, f"the end of all\n{self.complaints()}")
        assert self._log.read_text().endswith("end\n")
        return [os.waitstatus_to_exitcode(status) for status in self._endings("orphan")]

    def keeper_pid(self) -> int:
        """The process that adopts what the program leaves behind."""
        return self._keeper.pid

    def complaints(self) -> str:
        """All that has been written to the program's output."""
        return "".join((self._scene.folder / name).read_text(errors="replace") for name in ("out", "err"))

    def kill(self) -> None:
        """Ends at once what still runs."""
        if self._keeper.poll() is None:
            os.killpg(self._keeper.pid, signal.SIGKILL)
            self._keeper.wait()


class CrashScene:
    """All that a dying program and its child see: variables, tools and places of their own."""

    def __init__(self, program: Path, folder: Path, preloaded: Mapping[str, str]) -> None:
        self.program, self.folder, self.preloaded = program, folder, preloaded
        self.tools, self.runtime = folder / "tools", folder / "runtime"
        for place in (self.tools, self.runtime, folder / "home"):
            place.mkdir()
        self._crashes: list[Crash] = []

    def environment(self, **changes: str | None) -> dict[str, str]:
        """The variables of a program that crashes before it would open its window; None removes one."""
        usual = {"PATH": str(self.tools), "HOME": str(self.folder / "home"), "XDG_RUNTIME_DIR": str(self.runtime),
                 "CRASH_NOTES": str(self.folder / "notes"), "CRASH_AT": "gtk_init", "CRASH_BY": "null",
                 **self.preloaded}
        return {name: value for name, value in {**usual, **changes}.items() if value is not None}

    def start(self, *, wrap: Sequence[str | Path] = (), blocked: Sequence[str] = (), **changes: str | None) -> Crash:
        """Starts the program; `wrap` is a command put before, `blocked` are signals, `changes` are variables."""
        for notes in self.folder.glob("notes*"):
            notes.unlink()
        settings = [f"{name}={value}" for name, value in self.environment(**changes).items()]
        self._crashes.append(Crash(self, [*map(str, wrap), "env", "--default-signal",
                                          *(f"--block-signal={name}" for name in blocked), "-i", *settings,
                                          str(self.program)]))
        return self._crashes[-1]

    def crash(self, *, wrap: Sequence[str | Path] = (), **changes: str | None) -> Crash:
        """As `start`, and waits for the end of the program and of all that it has left behind."""
        crash = self.start(wrap=wrap, **changes)
        crash.wait_for_all()
        return crash

    def end(self) -> None:
        """Ends at once what still runs."""
        for crash in self._crashes:
            crash.kill()

    @property
    def report_path(self) -> Path:
        return self.runtime / REPORT_NAME

    def report(self) -> Report:
        return parse_report(self.report_path.read_text())

    # --- tools that the dialogue's script finds ---

    def link_tool(self, name: str, to: str | None = None) -> None:
        """Lets the script find a real tool."""
        (self.tools / name).symlink_to(to or f"/usr/bin/{name}")

    def make_tool(self, name: str, script: str) -> None:
        """Puts a shell script in a tool's place."""
        file = self.tools / name
        file.write_text(f"#!/bin/sh\n{script}\n")
        file.chmod(0o755)

    def record_mail(self) -> None:
        """Puts a recorder in the place of the tool that opens the mail client."""
        self.make_tool("xdg-open", f'[ $# = 1 ] && printf %s "$1" >"{self.folder}/mail"')

    def mail(self) -> str | None:
        """The address that was opened, None if none was."""
        file = self.folder / "mail"
        return file.read_text() if file.exists() else None

    # --- what the program has called ---

    def calls(self) -> list[str]:
        """The noted calls of the program."""
        return (self.folder / "notes").read_text().splitlines()

    def child_calls(self) -> list[str]:
        """The noted calls of its child, the script's lines at the end; none if there was no child."""
        file = self.folder / "notes.child"
        return file.read_text().splitlines() if file.exists() else []
