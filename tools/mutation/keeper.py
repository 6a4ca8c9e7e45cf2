#!/usr/bin/python3
"""keeper.py SECONDS COMMAND...: runs a command, and ends it and whatever it has left behind: a mutant may not be able to end itself.

Fails with TIMED_OUT if the command took longer.
"""

from __future__ import annotations

import ctypes
import os
import signal
import subprocess
import sys
from pathlib import Path

TIMED_OUT = 124  # as timeout(1) has it
PR_SET_CHILD_SUBREAPER = 36


def end_children() -> None:
    """All that were started below: whoever loses its parent becomes ours, until there are none."""
    while children := Path(f"/proc/{os.getpid()}/task/{os.getpid()}/children").read_text().split():
        for child in children:
            os.kill(int(child), signal.SIGKILL)
        for child in children:
            os.waitpid(int(child), 0)


def main() -> int:
    ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
    process = subprocess.Popen(sys.argv[2:], stdin=subprocess.DEVNULL)
    try:
        return process.wait(float(sys.argv[1]))
    except subprocess.TimeoutExpired:
        return TIMED_OUT
    finally:
        end_children()


if __name__ == "__main__":
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(TIMED_OUT))
    sys.exit(main())
