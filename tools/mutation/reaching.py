"""Which lines of the sources a test reaches, from the notes that trace.c leaves."""

from __future__ import annotations

import bisect
import re
import subprocess
from pathlib import Path

import numpy

PROBE = re.compile(r"^\s*([0-9a-f]+):.*\bcall\s.*<__sanitizer_cov_trace_pc")
CALL_SIZE = 5  # bytes; the notes tell where a call returns to
ROW = re.compile(r"^(\S+\.(?:cpp|h))\s+(\d+)\s+0x([0-9a-f]+)")

Lines = dict[str, set[int]]  # file -> lines


class Places:
    """The lines behind the places of one library or program."""

    def __init__(self, binary: Path, files: set[str]) -> None:
        self._probes = sorted({int(match[1], 16) + CALL_SIZE for line in _output("objdump", "-d", "--no-show-raw-insn", str(binary))
                               if (match := PROBE.match(line))})
        self._lines: dict[int, set[tuple[str, int]]] = {probe: set() for probe in self._probes}
        self.with_code: Lines = {}
        rows = sorted({(int(match[3], 16), match[1], int(match[2])) for line in _output("readelf", "-wL", "-W", str(binary))
                       if (match := ROW.match(line))})
        for (begin, file, line), (end, _, _) in zip(rows, rows[1:]):
            if file in files and end > begin:
                self._add(begin, end, file, line)

    def _add(self, begin: int, end: int, file: str, line: int) -> None:
        """A stretch of code belongs to the probes in it, or else to the one before it."""
        first, last = (bisect.bisect_right(self._probes, place + CALL_SIZE - 1) for place in (begin, end))
        for probe in self._probes[first:last] or self._probes[max(first - 1, 0):first]:
            self._lines[probe].add((file, line))
        self.with_code.setdefault(file, set()).add(line)

    def reached(self, folder: Path) -> Lines:
        """The lines that the notes in a folder tell of, whose processes ran this binary. Removes the notes."""
        lines: Lines = {}
        for notes in folder.iterdir():
            for place in numpy.flatnonzero(numpy.fromfile(notes, dtype=numpy.uint8)):
                for file, line in self._lines.get(int(place), ()):
                    lines.setdefault(file, set()).add(line)
            notes.unlink()
        return lines


def _output(*command: str) -> list[str]:
    return subprocess.run(command, check=True, text=True, capture_output=True, errors="replace").stdout.splitlines()
