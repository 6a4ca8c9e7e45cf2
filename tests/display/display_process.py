"""Processes of the test displays: start, observe and end them, and wait for what they do."""

from __future__ import annotations

import os
import select
import signal
import subprocess
import threading
import time
from collections.abc import Callable, Iterable, Mapping, Sequence
from pathlib import Path
from typing import TypeVar

T = TypeVar("T")

POLL_INTERVAL = 0.01  # seconds; short against all that is waited for, long against a look
LONGEST_POLL_INTERVAL = 0.2
WAITED_PER_POLL = 20  # times as long as a look comes too late
REST_PER_LOOK = 4  # times as long as a look takes
LONGEST_REST = 0.5

# Seconds for whatever has to come: a deadline for a machine that does a hundred other things, not an expectation. What comes costs no
# more for it.
TIMEOUT = 120.0
END_TIMEOUT = 30.0  # seconds a process has to obey SIGTERM before SIGKILL follows


class DisplayError(RuntimeError):
    """A display, or a tool used on it, did not do what it should."""


class WaitTimeout(DisplayError, AssertionError):
    """A condition did not come true in time; an AssertionError, so that it counts as a failure."""


def wait_until(condition: Callable[[], T], timeout: float, what: object) -> T:
    """Returns the condition's first true value, or raises with what was waited for, as text.

    The condition is asked once more after the deadline: a busy machine that never let us ask in
    between does not make a true condition fail.
    """
    start = time.monotonic()
    while True:
        begin = time.monotonic()
        value = condition()
        if value:
            return value
        if begin >= start + timeout:
            raise WaitTimeout(f"waited {timeout:g} s in vain for {what}")
        # A question that takes long costs whoever answers it as much. And what has been waited for long need not be noticed to the instant.
        now = time.monotonic()
        interval = min(max(POLL_INTERVAL, (now - start) / WAITED_PER_POLL), LONGEST_POLL_INTERVAL)
        time.sleep(max(interval, min(REST_PER_LOOK * (now - begin), LONGEST_REST)))


def dying_with_parent(argv: Sequence[str]) -> list[str]:
    """The command, changed so that the kernel ends it when this program is killed.

    The kernel binds the signal to the thread that starts the process. A short-lived worker
    thread would take its display away as it ends, so only the main thread asks for this.
    """
    if threading.current_thread() is not threading.main_thread():
        return list(argv)
    return ["setpriv", "--pdeathsig", "TERM", "--", *argv]


class Process:
    """A running program. Its output goes into two files, unless it shares ours."""

    def __init__(self, argv: Sequence[str], env: Mapping[str, str], *,
                 output_base: Path | None, new_session: bool = True,
                 pass_fds: Sequence[int] = ()) -> None:
        """`output_base` is the path of the output files without ".out" and ".err"; None: ours.

        A new session keeps the keyboard's Ctrl-C away: a server must not end before its clients.
        """
        self.argv = list(argv)
        self.stdout_path = Path(f"{output_base}.out") if output_base else None
        self.stderr_path = Path(f"{output_base}.err") if output_base else None
        self._popen = self._start(env, new_session, pass_fds)

    def _start(self, env: Mapping[str, str], new_session: bool,
               pass_fds: Sequence[int]) -> subprocess.Popen[bytes]:
        if self.stdout_path is None or self.stderr_path is None:
            return subprocess.Popen(self.argv, env=env, start_new_session=new_session,
                                    pass_fds=pass_fds)
        with open(self.stdout_path, "wb") as out, open(self.stderr_path, "wb") as err:
            return subprocess.Popen(self.argv, env=env, start_new_session=new_session,
                                    pass_fds=pass_fds, stdin=subprocess.DEVNULL,
                                    stdout=out, stderr=err)

    @property
    def pid(self) -> int:
        """The process started here; with a wrapper in front, that is the wrapper's."""
        return self._popen.pid

    @property
    def returncode(self) -> int | None:
        """Exit status, -n after signal n, None as long as it runs."""
        return self._popen.poll()

    def running(self) -> bool:
        return self.returncode is None

    def stdout(self) -> str:
        """What it has written to its standard output so far."""
        return self._read(self.stdout_path)

    def stderr(self) -> str:
        """What it has written to its standard error so far."""
        return self._read(self.stderr_path)

    def last_words(self) -> str:
        """The end of its output, for the message of an error."""
        return (self.stdout() + self.stderr())[-2000:]

    @staticmethod
    def _read(path: Path | None) -> str:
        return path.read_text(errors="replace") if path else ""

    def send_signal(self, number: int) -> None:
        """Sends a signal; nothing happens if the process has ended."""
        self._popen.send_signal(number)

    def wait(self, timeout: float | None = None) -> int:
        """Waits for the end and returns `returncode`; raises WaitTimeout if it takes longer."""
        try:
            return self._popen.wait(timeout)
        except subprocess.TimeoutExpired:
            raise WaitTimeout(f"waited {timeout:g} s in vain for the end of {self}\n"
                              f"{self.last_words()}") from None

    def end(self, timeout: float = END_TIMEOUT) -> int:
        """Ends the process if it still runs: SIGTERM, and SIGKILL if that is not obeyed."""
        self.send_signal(signal.SIGTERM)
        try:
            return self.wait(timeout)
        except WaitTimeout:
            self.send_signal(signal.SIGKILL)
            return self.wait(TIMEOUT)

    def __str__(self) -> str:
        return f"process {self.pid} ({' '.join(self.argv)})"


class ReadyPipe:
    """A pipe over which a server says, in one line, that clients may come."""

    def __init__(self) -> None:
        self._read_end, self.write_end = os.pipe()

    def line(self, server: Process, timeout: float) -> str:
        """The line without its end. Raises if the server ends or stays silent."""
        os.close(self.write_end)  # ours; once the server's copy is gone too, reading sees the end
        try:
            return self._read_line(server, time.monotonic() + timeout)
        finally:
            os.close(self._read_end)

    def _read_line(self, server: Process, deadline: float) -> str:
        text = b""
        while not text.endswith(b"\n"):  # a display number comes in two pieces
            left = max(0.0, deadline - time.monotonic())
            readable, _, _ = select.select([self._read_end], [], [], left)
            more = os.read(self._read_end, 256) if readable else b""
            if not more:
                raise DisplayError(f"no word from {server}:\n{server.last_words()}")
            text += more
        return text.decode().strip()


def processes_with(variable: str, value: str) -> list[int]:
    """Ids of all processes whose environment has exactly this variable, except our own.

    Finds what the programs on a display started in their turn (bus services, shells' children),
    wherever it has gone in the process tree. Ended processes have no environment any more.
    """
    wanted = f"{variable}={value}".encode()
    return [pid for pid in _all_pids() if pid != os.getpid() and wanted in _environment(pid)]


def _all_pids() -> Iterable[int]:
    return (int(name) for name in os.listdir("/proc") if name.isdigit())


def _environment(pid: int) -> list[bytes]:
    try:
        return Path(f"/proc/{pid}/environ").read_bytes().split(b"\0")
    except OSError:  # it has ended meanwhile, or belongs to someone else
        return []


def end_processes_with(variable: str, value: str, timeout: float = END_TIMEOUT) -> None:
    """Ends all processes of `processes_with`: SIGTERM, and SIGKILL for those who do not obey."""
    for number in (signal.SIGTERM, signal.SIGKILL):
        for pid in processes_with(variable, value):
            _kill_quietly(pid, number)
        try:
            wait_until(lambda: not processes_with(variable, value), timeout, "the last processes")
            return
        except WaitTimeout:
            continue  # SIGKILL is next; after that there is nothing more to do


def _kill_quietly(pid: int, number: int) -> None:
    try:
        os.kill(pid, number)
    except ProcessLookupError:
        pass  # it has ended by itself since we looked
