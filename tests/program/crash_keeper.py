"""Runs a program, and tells how it and all that it leaves behind have ended:

    crash_keeper.py LOG PROGRAM ARGS

What loses its parent becomes a child of this process, as it would become one of init's. Each line of the log is a
process with its wait status: first the program as it ends, then each orphan. The last line is "end".
"""

import ctypes
import os
import signal
import sys

PR_SET_CHILD_SUBREAPER = 36


def keep(log: str, argv: list[str]) -> None:
    ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
    program = os.fork()
    if program == 0:
        signal.signal(signal.SIGPIPE, signal.SIG_DFL)  # Python ignores it, and so would all that we start
        os.execvp(argv[0], argv)
    with open(log, "w", buffering=1) as lines:
        while True:
            try:
                pid, status = os.wait()
            except ChildProcessError:
                break
            print("program" if pid == program else "orphan", pid, status, file=lines)
        print("end", file=lines)


keep(sys.argv[1], sys.argv[2:])
