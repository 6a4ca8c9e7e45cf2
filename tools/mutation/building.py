"""Builds the copy of the project on which mutants are tried: once as it is, once so that it notes what it reaches, and once for each mutant.

The core becomes a shared library there, so that a mutant is one source compiled and one library linked, while most test programs stay as
they are. Only a mutant of a header wants the sources compiled anew that include it, and only tests that tell calls of the program's own
code from those of libraries have the core inside, as ever.
"""

from __future__ import annotations

import json
import os
import shlex
import shutil
import subprocess
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

CORE = "libvantric_core.so"
PROGRAM = "vantric"
CORE_OBJECTS = "CMakeFiles/vantric_core.dir/"
HERE = Path(__file__).resolve().parent
DEFINITION = ("add_library(vantric_core STATIC", "add_library(vantric_core SHARED")
ADDITION = "\ntarget_precompile_headers(vantric_core PRIVATE \"${PROJECT_SOURCE_DIR}/tools/mutation/often_included.h\")\n"
TELLS_OWN_CODE = "tests/desktop/calls.h"
QUICK_LINKER = ["-fuse-ld=gold"] if shutil.which("ld.gold") else []
LIMIT = 300  # seconds for one compiler


class BuildError(Exception):
    """The compiler or the linker has refused."""


def run(command: list[str], folder: Path) -> str:
    try:
        done = subprocess.run(command, cwd=folder, text=True, check=False, timeout=LIMIT, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT)
    except subprocess.TimeoutExpired:
        raise BuildError(f"{shlex.join(command)}: more than {LIMIT} s") from None
    if done.returncode != 0:
        raise BuildError(done.stdout)
    return done.stdout


class Build:
    """The copy of the project as it is, built."""

    def __init__(self, root: Path) -> None:
        self.root = root
        self.folder = root / "build/mutate"
        self.tree = self.folder / "tree"
        self.plain = self.folder / "plain"
        self.commands: dict[str, list[str]] = {}  # object -> how it is compiled
        self.included: dict[str, set[str]] = {}  # object -> the files of the project that go into it
        self.links: dict[str, list[str]] = {}  # library or test program -> how it is linked

    def copy(self) -> None:
        """The work tree without what was built. Files that are equal keep their time, so that little is built anew."""
        kept = {str(file.relative_to(self.root)) for entry in self.root.iterdir() if entry.name not in (".git", "build")
                for file in [entry, *entry.rglob("*")] if file.is_file() and "__pycache__" not in file.parts}
        for name in kept:
            source, copy = self.root / name, self.tree / name
            content = source.read_bytes()
            if name == "CMakeLists.txt":
                static, shared = (text.encode() for text in DEFINITION)
                if content.count(static) != 1:
                    raise SystemExit(f"mutate: no \"{DEFINITION[0]}\" in CMakeLists.txt")
                content = content.replace(static, shared) + ADDITION.encode()
            if not copy.is_file() or copy.read_bytes() != content:
                copy.parent.mkdir(parents=True, exist_ok=True)
                copy.write_bytes(content)
                shutil.copymode(source, copy)
        for copy in (file for file in self.tree.rglob("*") if file.is_file()):
            if str(copy.relative_to(self.tree)) not in kept and "__pycache__" not in copy.parts:
                copy.unlink()

    def make(self) -> None:
        subprocess.run(["cmake", "-G", "Ninja", "-S", self.tree, "-B", self.plain, "-D", "CMAKE_BUILD_TYPE=Debug", "-D", "BUILD_TESTING=ON",
                        "-D", "CMAKE_CXX_FLAGS_DEBUG=-O0 -w", "-D", "CMAKE_LINK_DEPENDS_NO_SHARED=ON"], check=True, stdout=subprocess.DEVNULL)
        subprocess.run(["ninja", "--quiet", "-C", self.plain], check=True)
        self._read_commands()

    def test_programs(self) -> list[str]:
        return sorted(name for name in self.links if name.startswith(("unit_", "desktop_")))

    def has_core_inside(self, program: str) -> bool:
        return program == PROGRAM or any(TELLS_OWN_CODE in self.included[name] for name in self.objects(program))

    def objects(self, target: str) -> list[str]:
        return [word for word in self.links[target] if word.endswith(".o")]

    def _read_commands(self) -> None:
        for entry in json.loads((self.plain / "compile_commands.json").read_text()):
            words = shlex.split(entry["command"])
            self.commands[words[words.index("-o") + 1]] = words
        self._read_includes()
        programs = [file.name for file in self.plain.iterdir() if file.name.startswith(("unit_", "desktop_")) and file.name.endswith("_test")]
        for target in [CORE, PROGRAM, *programs]:
            last = run(["ninja", "-t", "commands", target], self.plain).splitlines()[-1]
            self.links[target] = shlex.split(last.removeprefix(": && ").removesuffix(" && :"))

    def _read_includes(self) -> None:
        name = ""
        for line in run(["ninja", "-t", "deps"], self.plain).splitlines():
            if line and not line.startswith(" "):
                name = line.split(":")[0]
                self.included[name] = set()
            elif line:
                path = (self.plain / line.strip()).resolve()
                if path.is_relative_to(self.tree):
                    self.included[name].add(str(path.relative_to(self.tree)))


class Variant:
    """The library and the program in a form of their own, in a folder of their own; the rest is the build's."""

    def __init__(self, build: Build, folder: Path) -> None:
        self.build = build
        self.folder = folder
        self.sources = folder / "src"
        self.library = folder / "lib" / CORE
        self.program = folder / "bin" / PROGRAM
        self.changed: set[str] = set()  # objects that are this variant's own
        for path in (self.library, self.program):
            path.parent.mkdir(parents=True, exist_ok=True)

    def reset(self) -> None:
        """The sources as they are in the build."""
        self.changed.clear()
        self.sources.mkdir(exist_ok=True)
        for source in (self.build.tree / "src").iterdir():
            copy = self.sources / source.name
            content = source.read_bytes()
            if not copy.is_file() or copy.read_bytes() != content:
                copy.write_bytes(content)

    def concerned(self, file: str, target: str) -> list[str]:
        """The objects of a library or program that a file goes into."""
        return [name for name in self.build.objects(target) if file in self.build.included[name]]

    def compile(self, name: str, *flags: str) -> None:
        output = self.folder / "objects" / name
        output.parent.mkdir(parents=True, exist_ok=True)
        theirs, ours = f"{self.build.tree}/src", str(self.sources)
        command = [word.replace(theirs, ours) if word.startswith(("-I", theirs)) else word for word in self.build.commands[name]]
        command[command.index("-o") + 1] = str(output)
        run([*command, *flags], self.build.plain)
        self.changed.add(name)

    def is_compiled(self, name: str) -> bool:
        """Whether an object of an earlier run is newer than all that goes into it."""
        output = self.folder / "objects" / name
        if output.is_file() and all((self.build.tree / file).stat().st_mtime < output.stat().st_mtime for file in self.build.included[name]):
            self.changed.add(name)
        return name in self.changed

    def is_like_build(self, name: str) -> bool:
        """Whether the compiler has made of the changed source what it made of the build's."""
        return (self.folder / "objects" / name).read_bytes() == (self.build.plain / name).read_bytes()

    def link_library(self, *more: str) -> None:
        self._link(CORE, self.library, more)

    def link_program(self, *more: str) -> Path:
        """The program with the core inside, so that it runs wherever a test puts it."""
        return self._link(PROGRAM, self.program, more)

    def test_program(self, name: str, *more: str) -> Path:
        """The test program for this variant: the build's, if nothing that has changed went into it."""
        if self.build.has_core_inside(name) or self.changed & set(self.build.objects(name)):
            return self._link(name, self.folder / "bin" / name, more)
        return self.build.plain / name

    def _own(self, words: list[str]) -> list[str]:
        return [str(self.folder / "objects" / word) if word in self.changed else word for word in words]

    def _link(self, target: str, path: Path, more: tuple[str, ...]) -> Path:
        words = self._own(self.build.links[target])
        if target != CORE and self.build.has_core_inside(target):
            place = words.index(CORE)
            words[place:place + 1] = self._own([word for word in self.build.links[CORE] if word.endswith(".o")])
        words[words.index("-o") + 1] = str(path)
        path.unlink(missing_ok=True)  # a process may still run what was there
        run([*words, *more, *QUICK_LINKER], self.build.plain)
        return path


def traced(build: Build) -> Variant:
    """The variant that notes what it reaches."""
    variant = Variant(build, build.folder / "traced")
    variant.reset()
    run(["cc", "-O2", "-fPIC", "-c", "-o", notes_of(variant), str(HERE / "trace.c")], build.plain)
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        compiled = [pool.submit(variant.compile, name, "-g1", "-fsanitize-coverage=trace-pc")
                    for name in [*build.objects(CORE), *build.objects(PROGRAM)] if not variant.is_compiled(name)]
    for job in compiled:
        job.result()
    variant.link_library(notes_of(variant))
    variant.link_program(notes_of(variant))
    return variant


def notes_of(variant: Variant) -> str:
    """The object that takes the notes of a traced variant."""
    return str(variant.folder / "trace.o")
