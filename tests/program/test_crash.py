"""What a fatal signal leaves: the true status, the report, and the dialogue that offers to mail it."""

from __future__ import annotations

import ctypes
import os
import random
import re
import signal
import subprocess
import tempfile
import time
import urllib.parse
from collections.abc import Callable, Iterator
from contextlib import ExitStack
from datetime import datetime, timedelta, timezone
from pathlib import Path

import pytest

from accessibility import AccessibilityBus, Rect
from crash_scene import (DESCRIPTION_HEAD, PYTHON, REPORT_NAME, SIGNAL_TEXTS, CrashScene, Report, is_whole,
                         parse_report, signal_line)
from displays import SwayDisplay, XDisplay, wait_until
from display_x11 import run_tool
from fakemachine import Machine, preset
from monitor import TIMEOUT, Gate, Monitor, Start

ADDRESS = "crashes@vantric.example"  # the default of the build
MAX_FRAMES = 32
PATH_MAX = os.pathconf("/", "PC_PATH_MAX")
GERMAN = {"LANG": "de_DE.UTF-8"}
SEND, CANCEL = "Absturzbericht senden", "Nicht senden"
TITLE = "Vantric - Können Sie beschreiben, wann der Fehler aufgetreten ist?"
WORDS = {
    "German": (TITLE, SEND, CANCEL),
    "English": ("Vantric - Can you describe when the error occurred?", "Send crash report", "Don't send"),
}

#: Lets GTK's complaint about a missing display be an error that GLib ends the program for.
FATAL_WARNING = {"G_DEBUG": "fatal-warnings", "DISPLAY": ":nowhere"}

#: 32 and 33, of which no program can change what they do; one that was started by such means passes them on as ignored.
SIGNALS_OF_LIBC = 0b11 << 31

_libc = ctypes.CDLL(None)


@pytest.fixture(scope="module")
def fault(preloaded: Callable[[str], dict[str, str]]) -> dict[str, str]:
    """The variables by which a program fails at a chosen call."""
    return preloaded("crash_fault")


@pytest.fixture
def scene(program: Path, fault: dict[str, str], tmp_path: Path) -> Iterator[CrashScene]:
    """Crashes before the window opens, which need no display."""
    scene = CrashScene(program, tmp_path, fault)
    try:
        yield scene
    finally:
        scene.end()


# --- the report ---

@pytest.mark.parametrize("number", SIGNAL_TEXTS, ids=lambda number: number.name)
def test_each_signal_leaves_its_text_and_ends_the_program(number: signal.Signals, scene: CrashScene) -> None:
    assert scene.crash(CRASH_BY=number.name).wait() == -number
    assert scene.report().signal == signal_line(number)


def test_lines_of_the_report(scene: CrashScene) -> None:
    zone = timezone(timedelta(hours=5, minutes=30))
    before = datetime.now(zone).replace(microsecond=0)
    scene.crash(TZ="HERE-5:30", XDG_CURRENT_DESKTOP="Ünity:GNOME", XDG_SESSION_TYPE="wayland", SNAP_VERSION="1.15-3")
    after = datetime.now(zone)
    report = scene.report()
    system = os.uname()
    assert report == Report("1.15", "SIGSEGV (Segmentation fault) (11)", report.time,
                            f"{system.sysname} {system.release} {system.machine}", "Ünity:GNOME (wayland)",
                            "yes (v1.15-3)", report.frames)
    assert before <= datetime.fromisoformat(report.time).replace(tzinfo=zone) <= after
    assert 3 < len(report.frames) < MAX_FRAMES


@pytest.mark.parametrize("variables, desktop, snap", [
    ({}, "unknown (unknown)", "no"),
    ({"XDG_CURRENT_DESKTOP": "sway"}, "sway (unknown)", "no"),
    ({"XDG_SESSION_TYPE": "x11"}, "unknown (x11)", "no"),
    ({"XDG_CURRENT_DESKTOP": "", "XDG_SESSION_TYPE": "", "SNAP_VERSION": ""}, " ()", "yes (v)"),
    ({"SNAP": "/snap/vantric/7", "SNAP_REVISION": "7"}, "unknown (unknown)", "no"),
], ids=["none", "desktop", "session", "all empty", "other variables of Snap"])
def test_lines_from_variables(variables: dict[str, str], desktop: str, snap: str, scene: CrashScene) -> None:
    scene.crash(**variables)
    assert (scene.report().desktop, scene.report().snap) == (desktop, snap)


def test_system_line_is_left_out_where_uname_fails(scene: CrashScene) -> None:
    scene.crash(CRASH_FAILS="uname")
    assert scene.report().system is None


def test_report_is_whole_though_writing_is_interrupted_and_cut_short(scene: CrashScene) -> None:
    scene.crash(CRASH_FAILS="write")
    report = scene.report()
    assert report.signal == signal_line(signal.SIGSEGV)
    assert 3 < len(report.frames) < MAX_FRAMES


def test_backtrace_names_the_functions_of_the_program(scene: CrashScene) -> None:
    scene.crash()
    assert re.search(r"\bgtk_init .*App3run.* main .*__libc_start_main", scene.report().functions)


def test_backtrace_ends_after_32_frames(scene: CrashScene) -> None:
    scene.crash(CRASH_BY="deep")
    assert len(scene.report().frames) == MAX_FRAMES


def test_second_crash_replaces_the_report(scene: CrashScene) -> None:
    scene.report_path.write_text("an older and longer report\n" * 1000)
    scene.crash()
    scene.crash(CRASH_BY="abort", XDG_CURRENT_DESKTOP="second")
    assert (scene.report().signal, scene.report().desktop) == (signal_line(signal.SIGABRT), "second (unknown)")


# --- where the report goes ---

IN_A_NAMESPACE = 128  # is added by bwrap to the number of the signal that has ended its program


def test_report_is_in_tmp_without_a_runtime_folder(scene: CrashScene, fault: dict[str, str]) -> None:
    own_tmp = scene.folder / "tmp"
    own_tmp.mkdir()
    kept = [word for file in (scene.program, fault["LD_PRELOAD"], scene.folder) for word in ("--bind", file, file)]
    crash = scene.crash(wrap=["bwrap", "--dev-bind", "/", "/", "--bind", own_tmp, "/tmp", *kept, "--"],
                        XDG_RUNTIME_DIR=None)
    assert crash.wait() == IN_A_NAMESPACE + signal.SIGSEGV
    assert parse_report((own_tmp / REPORT_NAME).read_text())


def test_empty_runtime_folder_counts_as_set(scene: CrashScene) -> None:
    writable = ["--dev-bind", "/dev", "/dev", "--bind", scene.folder, scene.folder]
    crash = scene.start(wrap=["bwrap", "--ro-bind", "/", "/", *writable, "--"], XDG_RUNTIME_DIR="")
    assert crash.wait_for_all() == []
    assert crash.wait() == IN_A_NAMESPACE + signal.SIGSEGV
    assert scene.calls()[-2:] == [f"open /{REPORT_NAME}", "raise 11"]


@pytest.mark.parametrize("name, length", [("missing", 0), ("runtime", PATH_MAX - len(REPORT_NAME) // 2)],
                         ids=["no such folder", "path too long"])
def test_without_a_report_the_program_ends_at_once_and_has_no_child(name: str, length: int, scene: CrashScene) -> None:
    crash = scene.start(XDG_RUNTIME_DIR=f"{scene.folder}/{name}".ljust(length, "/"), **GERMAN)
    assert crash.wait_for_all() == []
    assert (crash.wait(), crash.complaints()) == (-signal.SIGSEGV, "")
    assert scene.calls()[-1] == "raise 11"
    assert "fork" not in scene.calls()
    assert not any(scene.runtime.iterdir())  # also no report under half its name


def state_of_files(scene: CrashScene) -> dict[str, tuple[int, ...]]:
    """What stands in the report's place and beside it, and whether it is changed."""
    files = {file.name: file.lstat() for place in (scene.runtime, scene.folder / "elsewhere") for file in place.iterdir()}
    return {name: (state.st_mode, state.st_ino, state.st_size, state.st_mtime_ns) for name, state in files.items()}


def file_elsewhere(scene: CrashScene) -> Path:
    file = scene.folder / "elsewhere" / "file"
    file.write_text("precious")
    return file


def put_link(scene: CrashScene) -> None:
    scene.report_path.symlink_to(file_elsewhere(scene))


def put_second_name(scene: CrashScene) -> None:
    scene.report_path.hardlink_to(file_elsewhere(scene))


def put_file_of_another_user(scene: CrashScene) -> None:
    if os.geteuid() != 0:
        pytest.skip("only root can make a file of another user")
    scene.report_path.write_text("precious")
    os.chown(scene.report_path, 65534, 65534)
    scene.report_path.chmod(0o666)


@pytest.mark.parametrize("put", [
    put_link, put_second_name, put_file_of_another_user,
    lambda scene: scene.report_path.symlink_to(scene.folder / "elsewhere" / "missing"),
    lambda scene: scene.report_path.mkdir(),
    lambda scene: os.mkfifo(scene.report_path),
], ids=["link", "second name", "another user's file", "link to nothing", "folder", "fifo"])
def test_what_is_not_its_own_file_is_left_alone(put: Callable[[CrashScene], None], scene: CrashScene) -> None:
    (scene.folder / "elsewhere").mkdir()
    put(scene)
    before = state_of_files(scene)
    crash = scene.start(**GERMAN)
    assert crash.wait_for_all() == []
    assert (crash.wait(), crash.complaints()) == (-signal.SIGSEGV, "")
    assert scene.calls()[-2:] == [f"open {scene.report_path}", "raise 11"]
    assert state_of_files(scene) == before


def test_fifo_with_a_reader_gets_nothing(scene: CrashScene) -> None:
    os.mkfifo(scene.report_path)
    reader = os.open(scene.report_path, os.O_RDONLY | os.O_NONBLOCK)
    try:
        assert scene.crash().wait() == -signal.SIGSEGV
        assert os.read(reader, 1) == b""
    finally:
        os.close(reader)


# --- the steps of the handler ---

def test_handler_is_installed_first_for_six_signals(scene: CrashScene) -> None:
    scene.crash(CRASH_AT="sem_init")  # the first thing that the constructor of the application does
    reset_on_entry = f"flags {0x80000000:#x} masked 0"
    installed = [f"sigaction {number.value} {reset_on_entry}" for number in SIGNAL_TEXTS]
    assert scene.calls()[:7] == [*installed, "signal 11 default"]


def test_steps_of_process_and_child(scene: CrashScene) -> None:
    scene.crash(DISPLAY=":7", XAUTHORITY="", LANG="C")
    steps = scene.calls()[scene.calls().index("signal 11 default"):]
    watchdog = ["sigaction 14 flags 0 masked 0", "alarm 3"]
    assert steps == ["signal 11 default", *watchdog, f"open {scene.report_path}", "fork", "raise 11"]
    handed_on = [call for call in scene.child_calls() if call.startswith("setenv")]
    assert handed_on == ["setenv DISPLAY=:7 1", "setenv XAUTHORITY= 1"]  # WAYLAND_DISPLAY stays unset


def test_failed_fork_leaves_the_report(scene: CrashScene) -> None:
    crash = scene.start(CRASH_FAILS="fork", **GERMAN)
    assert crash.wait_for_all() == []
    assert crash.wait() == -signal.SIGSEGV
    assert scene.report()


def test_child_ends_well_where_bash_can_not_be_run(scene: CrashScene) -> None:
    crash = scene.start(CRASH_FAILS="execl", **GERMAN)
    assert crash.wait_for_all() == [0]
    assert (crash.wait(), crash.complaints()) == (-signal.SIGSEGV, "")


def test_other_signal_in_the_handler_restarts_the_report(scene: CrashScene) -> None:
    crash = scene.crash(CRASH_AT="backtrace_symbols_fd", **FATAL_WARNING)
    assert crash.wait() == -signal.SIGSEGV
    assert scene.report().signal == signal_line(signal.SIGSEGV)
    assert ["signal 5 default", "signal 11 default", "raise 11"] == [
        call for call in scene.calls() if re.match(r"signal .* default|raise", call)]
    assert scene.calls().count("alarm 3") == 1  # the time does not begin anew


def test_same_signal_in_the_handler_waits(scene: CrashScene) -> None:
    crash = scene.crash(CRASH_AT="backtrace_symbols_fd", CRASH_BY="SIGTRAP", **FATAL_WARNING)
    assert crash.wait() == -signal.SIGTRAP
    assert scene.report()
    assert scene.calls().count(f"open {scene.report_path}") == 1


@pytest.mark.parametrize("call, blocked", [("fork", []), ("backtrace_symbols_fd", ["ALRM"])],
                         ids=["fork", "backtrace, where the program was started with SIGALRM blocked"])
def test_handler_that_hangs_is_ended_by_the_signal(call: str, blocked: list[str], scene: CrashScene) -> None:
    crash = scene.start(blocked=blocked, CRASH_AT=call, CRASH_BY="hang", **FATAL_WARNING)
    assert crash.wait_for_all() == []
    assert crash.wait() == -signal.SIGTRAP
    assert is_whole(scene.report_path.read_text()) == (call == "fork")


def test_exhausted_stack_leaves_no_report(scene: CrashScene) -> None:
    crash = scene.crash(CRASH_BY="endless")
    assert crash.wait() == -signal.SIGSEGV
    assert not scene.report_path.exists()


def test_core_is_dumped_as_without_the_handler(scene: CrashScene) -> None:
    unlimited = ["prlimit", "--core=unlimited:"]
    other = subprocess.Popen([*unlimited, "sh", "-c", "kill -SEGV $$"], cwd=scene.folder)
    _, status = os.waitpid(other.pid, 0)
    assert os.WTERMSIG(status) == signal.SIGSEGV
    crash = scene.crash(wrap=unlimited)
    assert os.WCOREDUMP(crash.wait_status()) == os.WCOREDUMP(status)
    for core in scene.folder.glob("core*"):
        core.unlink()  # large


# --- the child ---

def process_field(pid: int, name: str) -> str:
    return re.search(rf"^{name}:\s*(\S+)", Path(f"/proc/{pid}/status").read_text(), re.MULTILINE)[1]


def parent(pid: int) -> int:
    return int(process_field(pid, "PPid"))


def script_of(tool: int) -> int:
    """The process that runs the script, of a tool that the script has started."""
    script = parent(tool)
    while b"DESC=" in Path(f"/proc/{parent(script)}/cmdline").read_bytes():
        script = parent(script)  # a shell of its own for the substitution
    return script


def open_files(pid: int) -> set[str]:
    return {os.readlink(link) for link in Path(f"/proc/{pid}/fd").iterdir()}


def variables_of(pid: int) -> set[str]:
    return {text for text in Path(f"/proc/{pid}/environ").read_text().split("\0") if text}


class WaitingDialogue:
    """A tool in the dialogue's place, which waits until a test lets it go."""

    def __init__(self, scene: CrashScene) -> None:
        self._pid_file = scene.folder / "dialogue"
        fifo = scene.folder / "gate"
        os.mkfifo(fifo)
        self.gate = Gate(fifo)
        scene.make_tool("zenity", f'echo $$ >"{self._pid_file}"; read -r text <"{fifo}"; exit 1')

    def wait(self) -> int:
        """Waits for it; returns its process."""
        self.gate.wait_for_program()
        return int(self._pid_file.read_text())


def test_child_outlives_the_program_and_leaves_nothing_behind(scene: CrashScene) -> None:
    dialogue = WaitingDialogue(scene)
    crash = scene.start(**GERMAN)
    assert crash.wait() == -signal.SIGSEGV
    assert parent(script_of(dialogue.wait())) == crash.keeper_pid()
    dialogue.gate.open()
    assert crash.wait_for_all() == [0]


def test_child_keeps_nothing_of_the_program_open(scene: CrashScene) -> None:
    dialogue = WaitingDialogue(scene)
    scene.start(**GERMAN)
    opened = open_files(script_of(dialogue.wait()))
    assert {file for file in opened if not file.startswith("pipe:")} == {"/dev/null", str(scene.folder / "out")}


def test_child_hands_on_the_environment(scene: CrashScene) -> None:
    dialogue = WaitingDialogue(scene)
    variables = {"DISPLAY": ":7", "WAYLAND_DISPLAY": "wayland-7", "XAUTHORITY": "/some/file", "EMPTY": "", **GERMAN}
    scene.start(**variables)
    own = {f"{name}={value}" for name, value in scene.environment(**variables, LD_PRELOAD=None).items()}
    of_shell = {f"PWD={scene.folder}", "SHLVL=1", f"_={scene.tools}/zenity"}
    assert variables_of(dialogue.wait()) == own | of_shell


def test_dialogue_can_be_ended_as_any_program(scene: CrashScene) -> None:
    dialogue = WaitingDialogue(scene)
    crash = scene.start(**GERMAN)  # at a moment at which the program holds SIGINT and SIGTERM back
    shown = dialogue.wait()
    assert [int(process_field(shown, name), 16) & ~SIGNALS_OF_LIBC for name in ("SigBlk", "SigIgn")] == [0, 0]
    os.kill(shown, signal.SIGTERM)
    assert crash.wait_for_all() == [0]


@pytest.mark.parametrize("way, number", [("null", signal.SIGSEGV), ("abort", signal.SIGABRT),
                                         ("hang", signal.SIGTRAP)], ids=["fault", "abort", "hang"])
def test_child_that_dies_itself_does_so_alone(way: str, number: signal.Signals, scene: CrashScene) -> None:
    crash = scene.start(CRASH_AT="setenv", CRASH_BY=way, **FATAL_WARNING)
    assert crash.wait_for_all() == [-number]
    assert crash.wait() == -signal.SIGTRAP
    assert scene.report().signal == signal_line(signal.SIGTRAP)
    assert not {"fork", f"open {scene.report_path}"} & set(scene.child_calls())


def test_dialogue_has_no_time_limit(scene: CrashScene) -> None:
    scene.crash()
    calls = scene.child_calls()
    assert calls[calls.index("execl /bin/bash bash -c") - 1] == "alarm 0"


# --- the script ---

def expected_script(path: Path, time_text: str, title: str, send: str, cancel: str) -> list[str]:
    return [
        f"DESC=$(zenity --text-info --editable --title='{title}' --width=500 --height=250 --ok-label='{send}'"
        f" --cancel-label='{cancel}' 2>/dev/null)",
        "if [ $? -ne 0 ]; then exit 0; fi",
        f"echo '' >> '{path}'",
        f"echo 'User description:' >> '{path}'",
        f"""echo "$DESC" >> '{path}'""",
        'BODY=$(python3 -c "',
        "import urllib.parse",
        f"with open('{path}') as f: data = f.read()",
        "print(urllib.parse.quote(data))",
        '" 2>/dev/null)',
        'SUBJ=$(python3 -c "import urllib.parse; print(urllib.parse.quote('
        f"""'Vantric Crash: SIGSEGV (Segmentation fault) - {time_text}'))" 2>/dev/null)""",
        f'xdg-open "mailto:{ADDRESS}?subject=${{SUBJ}}&body=${{BODY}}" 2>/dev/null || true',
    ]


GERMAN_VARIABLES = [
    {"LANG": "de_DE.UTF-8"},
    {"LANG": "de"},
    {"LANG": "en_US.UTF-8", "LANGUAGE": "de"},
    {"LANG": "de_DE.UTF-8", "LC_ALL": "C"},
    {"LC_ALL": "de_AT.UTF-8"},
    {"LANG": "", "LC_ALL": "", "LANGUAGE": "den"},
    {"LANG": "den"},
]
OTHER_VARIABLES = [
    {},
    {"LANG": "en_US.UTF-8", "LC_ALL": "en_US.UTF-8", "LANGUAGE": "en:de"},
    {"LANG": "", "LC_ALL": "", "LANGUAGE": ""},
    {"LANG": "d", "LC_ALL": "DE_de", "LANGUAGE": " de"},
    {"LANG": "nds_DE.UTF-8", "LC_MESSAGES": "de_DE.UTF-8"},
    {"LANG": "ja_JP.UTF-8"},
]


@pytest.mark.parametrize("language, variables", [
    *(("German", variables) for variables in GERMAN_VARIABLES),
    *(("English", variables) for variables in OTHER_VARIABLES),
], ids=lambda value: value if isinstance(value, str) else " ".join(map("=".join, value.items())))
def test_script_is_german_or_english(language: str, variables: dict[str, str], scene: CrashScene) -> None:
    scene.crash(**variables)
    calls = scene.child_calls()
    script = calls[calls.index("execl /bin/bash bash -c") + 1:]
    time_text = parse_report(scene.report_path.read_text().partition(DESCRIPTION_HEAD)[0]).time
    assert script == expected_script(scene.report_path, time_text, *WORDS[language])


def test_english_script_is_refused_by_bash(scene: CrashScene) -> None:
    scene.make_tool("zenity", f'echo shown >"{scene.folder}/shown"')
    scene.record_mail()
    crash = scene.start(LANG="en_US.UTF-8")
    (status,) = crash.wait_for_all()
    assert status in (2, 127)  # which of them depends on bash's version
    assert crash.complaints() == ""
    assert scene.report()
    assert (scene.mail(), (scene.folder / "shown").exists()) == (None, False)


# --- what the script does ---

DESCRIPTION = "Über'm \"Ätna\" \\n passierte's:\n\n\tß & 100 % `touch x` $(touch x) $HOME 'Ende' — 終"


@pytest.fixture
def tooled(scene: CrashScene) -> CrashScene:
    """With all that the script needs; the user writes DESCRIPTION at once, and sends it."""
    (scene.folder / "description").write_text(DESCRIPTION)
    scene.link_tool("cat")
    scene.make_tool("zenity", f'cat "{scene.folder}/description"')
    scene.link_tool("python3", PYTHON)
    scene.record_mail()
    return scene


def assert_mailed(scene: CrashScene, description: str, number: signal.Signals) -> None:
    """The report has got the description, and is in the mail with its subject."""
    text = scene.report_path.read_text()
    report, head, described = text.partition(DESCRIPTION_HEAD)
    assert (head, described) == (DESCRIPTION_HEAD, description + "\n")
    subject = f"Vantric Crash: {SIGNAL_TEXTS[number]} - {parse_report(report).time}"
    assert scene.mail() == f"mailto:{ADDRESS}?subject={urllib.parse.quote(subject)}&body={urllib.parse.quote(text)}"


@pytest.mark.parametrize("number", [signal.SIGSEGV, signal.SIGTRAP], ids=lambda number: number.name)
def test_description_is_appended_and_the_report_mailed(number: signal.Signals, tooled: CrashScene) -> None:
    crash = tooled.start(CRASH_BY=number.name, **GERMAN)
    assert (crash.wait_for_all(), crash.complaints()) == ([0], "")
    assert_mailed(tooled, DESCRIPTION, number)


def test_dialogue_without_zenity_does_nothing(tooled: CrashScene) -> None:
    (tooled.tools / "zenity").unlink()
    crash = tooled.start(**GERMAN)
    assert (crash.wait_for_all(), crash.complaints()) == ([0], "")
    assert (tooled.report() is not None, tooled.mail()) == (True, None)


def test_mail_is_empty_without_python(tooled: CrashScene) -> None:
    (tooled.tools / "python3").unlink()
    crash = tooled.start(**GERMAN)
    assert (crash.wait_for_all(), crash.complaints()) == ([0], "")
    assert tooled.mail() == f"mailto:{ADDRESS}?subject=&body="
    assert tooled.report_path.read_text().endswith(DESCRIPTION_HEAD + DESCRIPTION + "\n")


@pytest.mark.parametrize("opener", [None, "echo trouble >&2; exit 3"], ids=["missing", "failing"])
def test_mail_client_that_does_not_open_shows_nothing(opener: str | None, tooled: CrashScene) -> None:
    (tooled.tools / "xdg-open").unlink()
    if opener is not None:
        tooled.make_tool("xdg-open", opener)
    crash = tooled.start(**GERMAN)
    assert (crash.wait_for_all(), crash.complaints()) == ([0], "")


# --- the dialogue that the user sees ---

class Dialogue:
    """The real dialogue of a crash, on a display."""

    def __init__(self, scene: CrashScene, display: XDisplay, variables: dict[str, str]) -> None:
        scene.link_tool("zenity")
        scene.link_tool("python3", PYTHON)
        scene.record_mail()
        self._display = display
        desktop = {name: display.env[name] for name in ("DISPLAY", "DBUS_SESSION_BUS_ADDRESS", "XDG_CONFIG_HOME")}
        self.crash = scene.start(**desktop, **variables)
        self.window = display.find_window(TITLE, timeout=TIMEOUT)
        assert self.crash.wait() == -signal.SIGSEGV  # so the dialogue lives without it
        (pid,) = display.properties(self.window)["_NET_WM_PID"]
        with AccessibilityBus(display.env["DBUS_SESSION_BUS_ADDRESS"]) as bus:
            root = wait_until(lambda: bus.application(pid), TIMEOUT, "the dialogue on the accessibility bus")
            nodes = list(bus.tree(root).walk())
        self.buttons = {node.name: node.rect for node in nodes if node.role == "push button" and node.name}
        (self._text,) = [node.rect for node in nodes if node.role == "text"]

    def click(self, rect: Rect) -> None:
        self._display.click(rect.x + rect.width // 2, rect.y + rect.height // 2, window=self.window)

    def _focus(self) -> int:
        return int(run_tool(["xdotool", "getwindowfocus"], self._display.env))

    def write(self, text: str) -> None:
        """Types on a German keyboard."""
        run_tool(["setxkbmap", "de"], self._display.env)
        wait_until(lambda: self._focus() == self.window, TIMEOUT, "the keyboard's focus")
        self.click(self._text)
        for number, line in enumerate(text.split("\n")):
            if number > 0:
                self._display.key("Return")
            if line:
                run_tool(["xdotool", "type", "--delay", "5", line], self._display.env)


@pytest.mark.xdist_group("German")
def test_user_describes_and_sends(x11: XDisplay, scene: CrashScene, german_locale: Path) -> None:
    dialogue = Dialogue(scene, x11, {"LOCPATH": str(german_locale), **GERMAN})
    assert x11.geometry(dialogue.window)[2:] == (500, 250)
    assert sorted(dialogue.buttons) == [SEND, CANCEL]
    typed = "Größe \"geändert\", dann war's aus:\n\n$HOME ist 100 % übervoll"
    dialogue.write(typed)
    dialogue.click(dialogue.buttons[SEND])
    assert (dialogue.crash.wait_for_all(), dialogue.crash.complaints()) == ([0], "")
    assert_mailed(scene, typed, signal.SIGSEGV)


@pytest.mark.parametrize("leave", [
    lambda dialogue, _: dialogue.click(dialogue.buttons[CANCEL]),
    lambda dialogue, display: display.close(dialogue.window),
], ids=["button", "window"])
@pytest.mark.xdist_group("German")
def test_user_does_not_send(leave: Callable[[Dialogue, XDisplay], None], x11: XDisplay, scene: CrashScene,
                            german_locale: Path) -> None:
    dialogue = Dialogue(scene, x11, {"LOCPATH": str(german_locale), **GERMAN})
    dialogue.write("nichts")
    leave(dialogue, x11)
    assert (dialogue.crash.wait_for_all(), dialogue.crash.complaints()) == ([0], "")
    assert (scene.report() is not None, scene.mail()) == (True, None)


# --- where in the program ---

def test_constructor_before_any_display(scene: CrashScene) -> None:
    assert scene.crash(CRASH_AT="sem_init").wait() == -signal.SIGSEGV
    assert re.search(r"sem_init .*SystemMetricsC\dEv .* main", scene.report().functions)


def test_fatal_warning_of_a_library(scene: CrashScene) -> None:
    assert scene.crash(CRASH_AT=None, **FATAL_WARNING).wait() == -signal.SIGTRAP
    assert scene.report().signal == signal_line(signal.SIGTRAP)
    assert re.search(r"gtk_init .*App3run.* main", scene.report().functions)


@pytest.mark.parametrize("variables, number, functions", [
    ({"CRASH_AT": "cairo_stroke", "CRASH_BY": "null"}, signal.SIGSEGV, r"cairo_stroke .*App.*draw_chart"),
    ({"CRASH_AT": "cairo_stroke", "CRASH_BY": "throw"}, signal.SIGABRT, r"abort .*cairo_stroke .*App.*draw_chart"),
    ({"CRASH_AT": "cairo_stroke", "CRASH_BY": "g_error"}, signal.SIGTRAP, r"cairo_stroke .*App.*draw_chart"),
    ({"CRASH_AT": "nanosleep", "CRASH_BY": "null"}, signal.SIGSEGV, r"nanosleep .*CPUReader9read_loop"),
    ({"CRASH_AT": "sem_clockwait", "CRASH_BY": "null"}, signal.SIGSEGV, r"sem_clockwait .*SystemMetrics11update_loop"),
    ({"CRASH_AT": "cairo_stroke", "CRASH_BY": "double free"}, signal.SIGABRT, r"abort .*cairo_stroke .*draw_chart"),
    ({"CRASH_AT": "nanosleep", "CRASH_BY": "damaged size"}, signal.SIGABRT, r"abort .*nanosleep .*CPUReader9read_loop"),
    ({"CRASH_AT": "sem_clockwait", "CRASH_BY": "fault in free"}, signal.SIGSEGV, r"free .*update_loop"),
    ({"CRASH_FAILS": "pthread_mutex_lock"}, signal.SIGABRT, r"abort .*(CPUReader.*read|SystemMetrics.*update)_loop"),
], ids=["draw handler", "exception in a draw handler", "error of GLib in a draw handler", "loads' thread",
        "sensors' thread", "double free in a draw handler", "damaged size in the loads' thread",
        "free in the sensors' thread", "mutex of a sampling thread"])
def test_faults_in_the_running_program(variables: dict[str, str], number: signal.Signals, functions: str, x11: XDisplay,
                                       fault: dict[str, str], start: Start) -> None:
    monitor = start(x11, preset("hybrid-20"), env={**fault, **variables}, accessible=False)
    assert monitor.wait() == -number
    report = parse_report((x11.runtime_dir / REPORT_NAME).read_text())
    assert report.signal == signal_line(number)
    assert re.search(functions, report.functions), report.functions


def own_threads(monitor: Monitor) -> dict[int, str]:
    """The states of the program's own threads, as the kernel tells them, the main thread first."""
    states = {}
    for task in Path(f"/proc/{monitor.pid}/task").iterdir():
        try:
            name, state = re.search(r"Name:\t(.*)\n(?:.*\n)*?State:\t(\w)", (task / "status").read_text()).groups()
        except OSError:
            continue  # it has just ended
        if name == "vantric":
            states[int(task.name)] = state
    return dict(sorted(states.items()))


def wait_for_threads(monitor: Monitor) -> list[int]:
    """Waits until main, loads' and sensors' thread, in this order, pause at the same time."""
    monitor.wait_for_window()
    return list(wait_until(lambda: list((found := own_threads(monitor)).values()) == ["S"] * 3 and found, TIMEOUT,
                           "three threads' pause"))


def send_to_thread(monitor: Monitor, thread: int, number: signal.Signals) -> None:
    assert _libc.tgkill(monitor.pid, thread, number.value) == 0


@pytest.mark.parametrize("index, functions", [
    (0, r"gtk_main .*App3run.* main"), (1, r"CPUReader9read_loop"), (2, r"SystemMetrics11update_loop"),
], ids=["main", "loads", "sensors"])
def test_signal_from_outside_to_each_thread(index: int, functions: str, sway: SwayDisplay, start: Start) -> None:
    monitor = start(sway, preset("vm-2"), accessible=False)
    send_to_thread(monitor, wait_for_threads(monitor)[index], signal.SIGBUS)
    assert monitor.wait() == -signal.SIGBUS
    report = parse_report((sway.runtime_dir / REPORT_NAME).read_text())
    assert report.desktop == "unknown (wayland)"
    assert re.search(functions, report.functions), report.functions


def test_crash_while_a_library_is_opened(x11: XDisplay, start: Start, preloaded: Callable[[str], dict[str, str]]) -> None:
    library = preloaded("crash_in_loader")["LD_PRELOAD"]
    # A module for GTK to open, whatever others are installed; any library will do
    monitor = start(x11, env={"LD_AUDIT": library, "GTK_MODULES": library, "PATH": "/nowhere"}, accessible=False)
    assert monitor.wait() == -signal.SIGSEGV
    text = (x11.runtime_dir / REPORT_NAME).read_text()
    assert is_whole(text)
    assert parse_report(text).signal == signal_line(signal.SIGSEGV)


def test_window_is_gone_while_the_dialogue_shows(x11: XDisplay, scene: CrashScene, start: Start) -> None:
    dialogue = WaitingDialogue(scene)
    monitor = start(x11, env={"PATH": str(scene.tools), **GERMAN}, accessible=False)
    window = monitor.window
    monitor.send(signal.SIGSEGV)
    assert monitor.wait() == -signal.SIGSEGV
    script = script_of(dialogue.wait())
    wait_until(lambda: not x11.exists(window), TIMEOUT, "the window's end")
    assert not [file for file in open_files(script) if file.startswith("socket:")]
    dialogue.gate.open()
    wait_until(lambda: not Path(f"/proc/{script}").exists(), TIMEOUT, "the child's end")


# --- many crashes ---

CRASHES = int(os.environ.get("VANTRIC_CRASHES", "10"))
AT_ONCE = 5  # programs that run side by side
SECONDS_OF_A_RUN = 3.0  # the start, the window, and a few ticks


class RandomCrash:
    """A program of which some thread gets some signal at some moment, whatever it does just then."""

    def __init__(self, monitor: Monitor, report: Path, moments: random.Random) -> None:
        self._monitor, self._report = monitor, report
        self._number = moments.choice(list(SIGNAL_TEXTS))
        self._thread = moments.random()
        self._due = time.monotonic() + moments.uniform(0, SECONDS_OF_A_RUN)

    def try_to_send(self) -> bool:
        """Sends the signal, if it is time and the handler is there."""
        if time.monotonic() < self._due or not self._monitor.catches(signal.SIGTRAP):
            return False
        threads = list(own_threads(self._monitor))
        return _libc.tgkill(self._monitor.pid, threads[int(self._thread * len(threads))], self._number.value) == 0

    def fault(self) -> str:
        """Empty if the program has ended by the signal, and its report is whole and tells that signal."""
        status = self._monitor.wait()
        text = self._report.read_text() if self._report.exists() else ""
        if status == -self._number and is_whole(text) and parse_report(text).signal == signal_line(self._number):
            return ""
        return f"{self._number!r} to a thread: status {status}, report {text!r}, output {self._monitor.complaints()!r}"


def random_crashes(start_in: Callable[[Path], Monitor], folder: Path,
                   moments: random.Random) -> list[str]:
    """Some programs that crash side by side, each with a runtime folder of its own, and their faults."""
    crashes = []
    for _ in range(AT_ONCE):
        runtime = Path(tempfile.mkdtemp(dir=folder))
        crashes.append(RandomCrash(start_in(runtime), runtime / REPORT_NAME, moments))
    left = list(crashes)

    def send_the_rest() -> bool:
        left[:] = [crash for crash in left if not crash.try_to_send()]
        return not left
    wait_until(send_the_rest, TIMEOUT, "each program's moment")
    return [crash.fault() for crash in crashes]


def test_random_signals_at_random_moments(x11: XDisplay, machines: ExitStack, start: Start, tmp_path: Path) -> None:
    """VANTRIC_CRASHES is how many."""
    seed = random.randrange(10**6)
    moments = random.Random(seed)
    machine = machines.enter_context(Machine(preset("hybrid-20")))

    def start_in(runtime: Path) -> Monitor:
        return start(x11, machine, env={"XDG_RUNTIME_DIR": str(runtime)}, accessible=False)
    faults: list[str] = []
    while len(faults) < CRASHES:
        faults += random_crashes(start_in, tmp_path, moments)
    print(f"seed {seed}: {len(faults)} crashes")
    assert [fault for fault in faults if fault] == []
