#!/usr/bin/python3
"""cases.py JOB REPORT: runs the cases of a GoogleTest program, each in a process of its own, as tests/run-cases does, and ends with the
first that fails.

JOB is a JSON file: "program", "library", "cases" with a limit of seconds for each, and perhaps
"unchanged", a program and a library that a case must not fail with as well, or else its failure does not count;
"trace", the folder for the notes of trace.c, with a folder for each case, by its number; then all cases run, whatever fails.
REPORT gets a line of JSON for each case.
"""

from __future__ import annotations

import json
import os
import subprocess
import sys
import time


def run(program: str, library: str, case: str, limit: float) -> str:
    """Whether it "passed", "failed", was "skipped" or "timed out"."""
    os.environ["LD_LIBRARY_PATH"] = os.path.dirname(library)
    process = subprocess.Popen([program, f"--gtest_filter={case}", "--gtest_brief=1"], text=True, errors="replace",
                               stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    try:
        output, _ = process.communicate(timeout=limit)
    except subprocess.TimeoutExpired:
        process.kill()
        process.communicate()
        return "timed out"
    if "[  SKIPPED ] 1 test" in output:
        return "skipped"
    return "passed" if process.returncode == 0 and "[  PASSED  ] 1 test." in output else "failed"


def main() -> int:
    with open(sys.argv[1], encoding="utf-8") as file:
        job = json.load(file)
    trace = job.get("trace")
    with open(sys.argv[2], "a", encoding="utf-8") as report:
        for number, (case, limit) in enumerate(job["cases"]):
            if trace:
                os.environ["MUTATION_TRACE"] = os.path.join(trace, str(number))
                os.makedirs(os.environ["MUTATION_TRACE"], exist_ok=True)
            begin = time.monotonic()
            outcome = run(job["program"], job["library"], case, limit)
            if outcome in ("failed", "timed out") and job.get("unchanged") and run(*job["unchanged"], case, limit) != "passed":
                outcome = "failed unchanged"
            print(json.dumps({"test": case, "outcome": outcome, "seconds": round(time.monotonic() - begin, 3)}), file=report, flush=True)
            if outcome in ("failed", "timed out") and not trace:
                return 1
    return 0


sys.exit(main())
