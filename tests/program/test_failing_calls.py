"""System calls that fail: the window comes up, can be used and ends in order, and files stay whole, wherever a bare GTK window gets as far.

VANTRIC_FAILING_CALLS=all tries all kinds of calls, and prints a table of what came of them.
"""

from __future__ import annotations

import os
import subprocess
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest

from displays import XDisplay
from failing_calls import Failure, Outcome, Patient, kept_settings
from monitor import Monitor, Start, settings_text

HERE = Path(__file__).resolve().parent
MACHINE = {"clusters": [{"cores": 4}]}
START, RUN = ("start",), ("run",)
BOTH = START + RUN

#: Kinds of calls, how they fail, and from which moments on.
CALLS: list[tuple[str, str, tuple[str, ...]]] = [
    # files
    ("open to write", "ENOSPC", BOTH), ("open to write", "EROFS", BOTH), ("openat", "EMFILE", BOTH), ("openat", "EIO", RUN),
    ("read", "EIO", BOTH), ("write", "ENOSPC", BOTH), ("write", "EIO", RUN), ("lseek", "ESPIPE", BOTH), ("close", "EIO", BOTH),
    ("fsync", "EIO", BOTH), ("ftruncate", "EIO", BOTH), ("fallocate", "EOPNOTSUPP", BOTH), ("rename", "EROFS", BOTH),
    ("rename", "EXDEV", RUN), ("unlink", "EPERM", BOTH), ("mkdir", "EACCES", BOTH), ("stat", "EACCES", BOTH), ("fstat", "EOVERFLOW", BOTH),
    ("readlink", "EINVAL", BOTH), ("access", "EACCES", BOTH), ("getdents64", "EIO", BOTH), ("fcntl", "EINVAL", BOTH),
    ("ioctl", "ENOTTY", BOTH), ("inotify_init1", "EMFILE", BOTH), ("inotify_add_watch", "ENOSPC", BOTH),
    # memory
    ("mmap", "ENOMEM", BOTH), ("mprotect", "ENOMEM", BOTH), ("madvise", "EINVAL", BOTH), ("shmget", "EINVAL", BOTH), ("shmget", "ENOSPC", BOTH),
    ("shmat", "EACCES", BOTH), ("memfd_create", "ENOSYS", BOTH),
    # threads and processes
    ("thread", "EAGAIN", BOTH), ("clone", "EAGAIN", BOTH), ("clone3", "ENOSYS", BOTH), ("futex", "ENOSYS", BOTH), ("futex", "EAGAIN", RUN),
    ("execve", "EACCES", BOTH), ("prctl", "EPERM", BOTH), ("prlimit64", "EPERM", BOTH), ("sched_getaffinity", "EPERM", BOTH),
    ("rt_sigaction", "EINVAL", BOTH), ("rt_sigprocmask", "EINVAL", BOTH),
    # connections
    ("socket", "EMFILE", BOTH), ("socket", "EACCES", BOTH), ("connect", "ECONNREFUSED", BOTH), ("getsockopt", "EINVAL", BOTH),
    ("sendmsg", "EPIPE", BOTH), ("recvmsg", "ECONNRESET", BOTH), ("poll", "EINTR", BOTH), ("eventfd2", "EMFILE", BOTH),
    ("pipe2", "EMFILE", BOTH), ("getrandom", "ENOSYS", BOTH)]
ALL = [Failure(kind, error, moment) for kind, error, moments in CALLS for moment in moments]

QUICK = [Failure("open to write", "ENOSPC", "start"), Failure("rename", "EXDEV", "run"), Failure("thread", "EAGAIN", "start"),
         Failure("shmget", "EINVAL", "start"), Failure("socket", "EMFILE", "run")]

#: Where the program does worse than a bare window, and the status of its end. It asks once at its start which sensors there are, and an
#: answer that is neither yes nor no ends it, with a report. And it has threads, which a C library without futexes ends.
WORSE = {Failure("stat", "EACCES", "start"): -6, Failure("futex", "ENOSYS", "run"): -6, Failure("futex", "EAGAIN", "run"): -6}

#: What a new thread's stack is made by. A library that finds a font in a thread may find a stack, too, left by a thread that has ended just
#: before: whether it does is chance, so that a bare window comes through now and then where the program does not.
STACK_CALLS = ("mmap", "mprotect")

HEAD = "| Call | Error | From | Window | Used | Ends with | Settings | Says | A bare GTK window |\n|---|---|---|---|---|---|---|---|---|"


@pytest.fixture(scope="session")
def bare_window(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """The program of bare_dialog.c."""
    program = tmp_path_factory.mktemp("bare") / "vantric"
    flags = subprocess.check_output(["pkg-config", "--cflags", "--libs", "gtk+-3.0"], text=True).split()
    subprocess.run(["cc", "-Wall", "-Wextra", "-Werror", "-o", program, HERE / "bare_dialog.c", *flags], check=True)
    return program


@pytest.fixture(scope="module")
def table() -> Iterator[list[str]]:
    """Rows of a table, printed at the end."""
    rows: list[str] = []
    yield rows
    print("\n".join([HEAD, *rows]))


def told(outcome: Outcome) -> str:
    """An outcome in few words."""
    if outcome.status == 0 and outcome.used:
        return "likewise" if not outcome.words else "likewise, with words"
    return f"{outcome.window}, {'used' if outcome.used else 'not used'}, {ending(outcome)}"


def ending(outcome: Outcome) -> str:
    return "never" if outcome.status is None else f"status {outcome.status}" if outcome.status >= 0 else f"signal {-outcome.status}"


@pytest.mark.parametrize("failure", ALL if os.environ.get("VANTRIC_FAILING_CALLS") == "all" else QUICK, ids=str)
def test_failing_call(failure: Failure, x11: XDisplay, start: Start, bare_window: Path, preloaded: Callable[[str], dict[str, str]],
                      tmp_path: Path, table: list[str]) -> None:
    variables = {**preloaded("failing_calls"), **failure.variables}
    monitor = start(x11, MACHINE, env=variables, accessible=False)
    patient = Patient(monitor, x11)
    ours, settings = patient.observe(patient.change_orientation), kept_settings(monitor.home, settings_text())
    (tmp_path / "bare").mkdir()
    bare = Patient(Monitor(bare_window, x11, tmp_path / "bare", env=variables, accessible=False), x11).observe()
    table.append(f"| {' | '.join(failure)} | {ours.window} | {'yes' if ours.used else 'no'} | {ending(ours)} | {settings} "
                 f"| {ours.words.splitlines()[0] if ours.words else ''} | {told(bare)} |")
    assert settings in ("old", "new")
    if failure in WORSE:
        assert ours.status == WORSE[failure]
    elif not (failure.kind in STACK_CALLS and ours.is_ended_for_want_of_a_thread):
        assert ours.excels(bare), f"{ours}\nbare: {bare}"
