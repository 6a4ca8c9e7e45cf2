"""The tests: which lines each of them reaches, and running those that concern a mutant."""

from __future__ import annotations

import hashlib
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import threading
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass, field
from pathlib import Path

import building
from building import Build, Variant
from mutants import Mutant, Source
from reaching import Lines, Places

HERE = Path(__file__).resolve().parent
LAUNCHERS = {"unit": "in-machine", "desktop": "on-desktop"}
PYTHON = "/usr/bin/python3"
PYTHON_TESTS = "tests/program"
FIRST_LIMIT = 150.0  # seconds for a test whose time is not known
SPARE = 20.0  # seconds that a test may take on top of ten times its usual time: the computer may be busy
BAD = ("failed", "timed out", "broke off")
MAX_DEPTH = 3  # of constants made of constants


@dataclass
class Test:
    group: str  # the test program, or the Python file
    name: str
    seconds: float
    lines: Lines

    @property
    def is_python(self) -> bool:
        return self.group.endswith(".py")

    @property
    def limit(self) -> float:
        return SPARE + 10 * self.seconds

    def __str__(self) -> str:
        return self.name if self.is_python else f"{self.group}: {self.name}"


@dataclass
class Verdict:
    """What came of a batch of tests."""
    failed: str = ""  # the first that failed, if one did, and how
    ran: int = 0


@dataclass
class Reach:
    """All tests that pass on the program as it is, and what they reach."""
    tests: list[Test] = field(default_factory=list)
    excluded: list[str] = field(default_factory=list)
    with_code: Lines = field(default_factory=dict)


def run_cases(build: Build, library: Path, program: Path, cases: list[tuple[str, float]], **more: object) -> list[dict]:
    """Runs cases of a C++ test program; what came of each, up to the first that failed. What `more` can be, cases.py tells."""
    kind = program.name.partition("_")[0]
    with tempfile.TemporaryDirectory(prefix="mutate-") as folder:
        job, report = Path(folder, "job"), Path(folder, "report")
        job.write_text(json.dumps({"program": str(program), "library": str(library), "cases": cases, **more}))
        command = [str(build.tree / "tests" / LAUNCHERS[kind]), PYTHON, str(HERE / "cases.py"), str(job), str(report)]
        limit = SPARE + 2 * sum(limit for _, limit in cases)
        return _run(build, command, limit, report, {"MACHINES_REQUIRED": "1"})


def run_python(build: Build, program: Path, tests: list[str], limit: float, options: list[str], **variables: str) -> list[dict]:
    """Likewise with tests of the program, or whole files of them."""
    with tempfile.TemporaryDirectory(prefix="mutate-") as folder:
        report = Path(folder, "report")
        command = [PYTHON, "-m", "pytest", "-q", "--rootdir=.", "-p", "no:cacheprovider", "-p", "mutation_report", *options, *tests]
        path = os.pathsep.join(filter(None, (str(HERE), os.environ.get("PYTHONPATH"))))
        return _run(build, command, limit, report, {"VANTRIC": str(program), "PYTHONPATH": path, "MUTATION_REPORT": str(report), **variables})


def _run(build: Build, command: list[str], limit: float, report: Path, variables: dict[str, str]) -> list[dict]:
    report.touch()
    inherited = {name: text for name, text in os.environ.items() if not name.startswith("PYTEST_")}
    with tempfile.TemporaryFile() as output:
        status = subprocess.run([PYTHON, str(HERE / "keeper.py"), str(limit), *command], cwd=build.tree, env={**inherited, **variables},
                                check=False, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT).returncode
        results = [json.loads(line) for line in report.read_text().splitlines()]
        if status not in (0, 1) or not results:
            output.seek(0)
            results.append({"test": "", "outcome": "broke off", "seconds": 0.0, "output": output.read()[-2000:].decode(errors="replace")})
    return results


class Tests:
    """Knows the tests of a build, and runs them on variants of it."""

    def __init__(self, build: Build) -> None:
        self.build = build
        self.reach = Reach()
        self._sources: dict[str, Source] = {}
        self._texts: dict[str, list[str]] = {}
        self._unchanged: Variant | None = None
        self._unchanged_programs: dict[str, Path] = {}
        self._lock = threading.Lock()

    # --- what they reach ---

    def find_reach(self, chosen: list[str], workers: int) -> None:
        """Runs every test of these folders or files once on the traced program, but for those whose notes of an earlier time still hold."""
        variant = building.traced(self.build)
        self._in_library = self._places(variant.library)
        self._in_program = self._places(variant.program)
        for places in (self._in_library, self._in_program):
            for file, lines in places.with_code.items():
                self.reach.with_code.setdefault(file, set()).update(lines)
        core = _digest(*(variant.folder / "objects" / name for name in sorted(variant.changed)))
        python = sorted(str(path.relative_to(self.build.tree)) for path in (self.build.tree / PYTHON_TESTS).glob("test_*.py"))
        jobs = {name: _digest(self.build.plain / name) for name in self.build.test_programs()}
        jobs |= {name: _digest(self.build.tree / name) for name in python}
        jobs = {name: digest for name, digest in jobs.items() if {_told_name(name), _told_name(name).partition("/")[0]} & set(chosen)}
        kept = self.build.folder / "reach"
        kept.mkdir(exist_ok=True)
        with ThreadPoolExecutor(workers) as pool:
            traces = [pool.submit(self._trace, name, variant, kept / f"{name.replace('/', '.')}.json", core + digest)
                      for name, digest in jobs.items()]
        for trace in traces:
            trace.result()
        for name, digest in jobs.items():
            notes = json.loads((kept / f"{name.replace('/', '.')}.json").read_text())
            for test in notes["tests"]:
                if test["outcome"] == "passed":
                    lines = {path: set(numbers) for path, numbers in test["lines"].items()}
                    self.reach.tests.append(Test(name, test["test"], test["seconds"], lines))
                elif test["outcome"] != "skipped":
                    self.reach.excluded.append(f"{name}: {test['test']} ({test['outcome']})")

    def _places(self, binary: Path) -> Places:
        return Places(binary, {path.name for path in (self.build.tree / "src").iterdir()})

    def _trace(self, name: str, variant: Variant, file: Path, digest: str) -> None:
        if file.is_file() and json.loads(file.read_text())["digest"] == digest:
            return
        folder = self.build.folder / "notes" / name.replace("/", ".")
        shutil.rmtree(folder, ignore_errors=True)
        folder.mkdir(parents=True)
        if name.endswith(".py"):
            results = self._trace_python(name, variant, folder)
        else:
            results = self._trace_cases(name, variant, folder)
        shutil.rmtree(folder, ignore_errors=True)
        file.write_text(json.dumps({"digest": digest, "tests": results}))
        print(f"traced {name}: {len(results)} tests", file=sys.stderr, flush=True)

    def _trace_cases(self, name: str, variant: Variant, folder: Path) -> list[dict]:
        program, places = self.build.plain / name, self._in_library
        if self.build.has_core_inside(name):
            program = variant.test_program(name, building.notes_of(variant))
            places = self._places(program)
        cases = _cases_of(program)
        results = run_cases(self.build, variant.library, program, [(case, FIRST_LIMIT) for case in cases], trace=str(folder))
        for number, result in enumerate(results):
            notes = folder / str(number)
            result["lines"] = _as_lists(places.reached(notes)) if notes.is_dir() else {}
        return results

    def _trace_python(self, name: str, variant: Variant, folder: Path) -> list[dict]:
        results = run_python(self.build, variant.program, [name], 3600.0, [], MUTATION_TRACED=str(folder))
        for result in results:
            notes = folder / "reached" / hashlib.sha256(result["test"].encode()).hexdigest()
            result["lines"] = _as_lists(self._in_program.reached(notes)) if notes.is_dir() else {}
        return results

    # --- which of them concern a mutant ---

    def concerned(self, mutant: Mutant) -> list[Test]:
        """The tests that reach the mutant, those of its own file first, then the narrow and quick ones."""
        file = Path(mutant.file).name
        lines = self._lines_of(file, mutant.line, mutant.declared, 0)
        found = [test for test in self.reach.tests if any(test.lines.get(path, set()) & numbers for path, numbers in lines.items())]
        if not lines:  # nobody knows who needs it
            found = [test for test in self.reach.tests if file in test.lines]
        if file.endswith(".h"):  # a test program has its own copy of what stands in headers, which is not traced
            users = {name for name in self.build.test_programs()
                     if any(mutant.file in self.build.included[part] for part in self.build.objects(name))}
            found += [test for test in self.reach.tests if test.group in users and test not in found]
        return sorted(found, key=lambda test: (test.is_python, not _belongs(test, file), test.seconds * (1 + _breadth(test))))

    def _lines_of(self, file: str, line: int, declared: str, depth: int) -> Lines:
        """The lines with code of what stands in a line: itself, or where its statement begins, or those that use what it declares."""
        with_code = self.reach.with_code.get(file, set())
        if line in with_code:
            return {file: {line}}
        if not declared:
            before = [number for number in with_code if number < line]
            return {file: {max(before)}} if before else {}
        lines: Lines = {}
        for path, number in self._uses(declared, file, line) if depth < MAX_DEPTH else ():
            for user, numbers in self._lines_of(path, number, self._declared_in(path, number), depth + 1).items():
                lines.setdefault(user, set()).update(numbers)
        return lines

    def _uses(self, name: str, file: str, line: int) -> list[tuple[str, int]]:
        word = re.compile(rf"\b{re.escape(name)}\b")
        if not self._texts:
            self._texts = {path.name: path.read_text().splitlines() for path in (self.build.tree / "src").iterdir()}
        return [(path, number) for path, text in self._texts.items() for number, content in enumerate(text, 1)
                if word.search(content) and (path, number) != (file, line)]

    def _declared_in(self, file: str, line: int) -> str:
        if file not in self._sources:
            self._sources[file] = Source((self.build.tree / "src" / file).read_text())
        found = self._sources[file]
        number = 1
        for index, token in enumerate(found.tokens):
            number = found.source.count("\n", 0, token.start) + 1 if number < line else number
            if number >= line:
                return found.declared(found.statement_end(index) or index)
        return ""

    # --- running them ---

    def run(self, variant: Variant, tests: list[Test]) -> Verdict:
        """Runs tests until one fails that passes on the unchanged program just then."""
        verdict = Verdict()
        for batch in _batches(tests):
            while batch and not verdict.failed:
                results = self._run_python(variant, batch) if batch[0].is_python else self._run_cases(variant, batch)
                verdict.ran += len(results)
                done = {result["test"] for result in results}
                waiting = [test for test in batch if test.name not in done]
                if results[-1]["outcome"] in BAD:
                    last = next((test for test in batch if test.name == results[-1]["test"]), waiting[0] if waiting else batch[-1])
                    verdict.failed = f"{last} {results[-1]['outcome']}" if self._is_new(last, results[-1]["outcome"]) else ""
                    waiting = [test for test in waiting if test is not last]
                batch = waiting
        return verdict

    def _run_cases(self, variant: Variant, batch: list[Test]) -> list[dict]:
        assert self._unchanged
        name = batch[0].group
        return run_cases(self.build, variant.library, variant.test_program(name), [(test.name, test.limit) for test in batch],
                         unchanged=(str(self._unchanged_program(name)), str(self._unchanged.library)))

    def _run_python(self, variant: Variant, batch: list[Test]) -> list[dict]:
        limit = 60 + sum(SPARE + 3 * test.seconds for test in batch)
        return run_python(self.build, variant.link_program(), [test.name for test in batch], limit, ["-x"])

    def _is_new(self, test: Test, outcome: str) -> bool:
        """Whether a test does not fail so without the mutant. Cases have looked for themselves; all break off only if there is no display."""
        assert self._unchanged
        if not test.is_python:
            return outcome != "broke off"
        results = run_python(self.build, self._unchanged.program, [test.name], 60 + test.limit, [])
        return [result["outcome"] for result in results] == ["passed"]

    def _unchanged_program(self, name: str) -> Path:
        assert self._unchanged
        with self._lock:
            if name not in self._unchanged_programs:
                self._unchanged_programs[name] = self._unchanged.test_program(name)
            return self._unchanged_programs[name]

    def make_unchanged(self) -> None:
        self._unchanged = Variant(self.build, self.build.folder / "unchanged")
        self._unchanged.link_library()
        self._unchanged.link_program()


def _batches(tests: list[Test]) -> list[list[Test]]:
    """Those of a program or of Python together, in the order of their first."""
    batches: dict[str, list[Test]] = {}
    for test in tests:
        batches.setdefault("python" if test.is_python else test.group, []).append(test)
    return list(batches.values())


def _belongs(test: Test, file: str) -> bool:
    return Path(test.group).stem.removeprefix("unit_").removeprefix("desktop_").removeprefix("test_").startswith(Path(file).stem)


def _breadth(test: Test) -> int:
    return sum(len(numbers) for numbers in test.lines.values())


def _cases_of(program: Path) -> list[str]:
    cases, suite = [], ""
    for line in subprocess.run([program, "--gtest_list_tests"], check=True, text=True, capture_output=True).stdout.splitlines():
        name = line.partition("#")[0].rstrip()
        if not line.startswith(" "):
            suite = name
        elif name:
            cases.append(suite + name.strip())
    return cases


def _as_lists(lines: Lines) -> dict[str, list[int]]:
    return {file: sorted(numbers) for file, numbers in lines.items()}


def _told_name(group: str) -> str:
    """A test program or a Python file as people tell it: "unit/theme", "program/test_load"."""
    if group.endswith(".py"):
        return f"{Path(group).parent.name}/{Path(group).stem}"
    return group.replace("_", "/", 1).removesuffix("_test")


def _digest(*files: Path) -> str:
    return hashlib.sha256(b"".join(file.read_bytes() for file in files)).hexdigest()[:16]
