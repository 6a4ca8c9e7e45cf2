"""A copy of the project that is built in seconds: all that builds, installs and packages it, around a program that does nothing."""

from __future__ import annotations

import os
import shutil
import subprocess
from collections.abc import Mapping
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
KEPT = ["CMakeLists.txt", "CMakePresets.json", "CONTRIBUTING.md", "COPYING", "Makefile", "README.md", "cmake", "data", "packaging", "tools"]
INSTALLED = (ROOT / "packaging/installed-files.txt").read_text().split()


def lay(folder: Path) -> Path:
    """Lays the copy down as that folder."""
    folder.mkdir(parents=True)
    for name in KEPT:
        if (ROOT / name).is_dir():
            shutil.copytree(ROOT / name, folder / name, ignore=shutil.ignore_patterns("__pycache__"))
        else:
            shutil.copy2(ROOT / name, folder / name)
    for name in ("bench", "docs", "fuzz", "src", "tests"):
        (folder / name).mkdir()
    shutil.copy2(ROOT / "src/build_config.h", folder / "src")
    for source in (ROOT / "src").glob("*.cpp"):
        (folder / "src" / source.name).write_text("")
    (folder / "src/main.cpp").write_text('#include "build_config.h"\nint main(int argc, char**) { return argc > 1 ? *BuildConfig::WEB_SITE : 0; }\n')
    return folder


def environment(changes: Mapping[str, str] | None = None) -> dict[str, str]:
    """The developer's own, without what a surrounding make or packager has set."""
    foreign = ("MAKE", "MFLAGS", "DEB_", "CXX", "CPPFLAGS", "LDFLAGS", "DESTDIR", "PREFIX", "CMAKE_", "SUDO_", "VANTRIC")
    return {name: text for name, text in os.environ.items() if not name.startswith(foreign)} | dict(changes or {})


def run(folder: Path, *command: str | Path, env: Mapping[str, str] | None = None, umask: int = 0o022,
        user: int | None = None) -> subprocess.CompletedProcess[str]:
    """A command in that folder, with both its outputs as one text."""
    return subprocess.run(command, cwd=folder, env=environment(env), umask=umask, user=user, group=user, text=True, check=False,
                          extra_groups=[] if user else None, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)


def make(folder: Path, *arguments: str, env: Mapping[str, str] | None = None, umask: int = 0o022) -> str:
    """What make said; it has to succeed."""
    done = run(folder, "make", "--no-print-directory", *arguments, env=env, umask=umask)
    assert done.returncode == 0, done.stdout
    return done.stdout


def stub(folder: Path, name: str, script: str) -> None:
    """A program of that name in a folder for the front of PATH."""
    folder.mkdir(exist_ok=True)
    (folder / name).write_text(f"#!/bin/sh\n{script}\n")
    (folder / name).chmod(0o755)


def files_below(folder: Path) -> list[str]:
    return sorted(str(file.relative_to(folder)) for file in folder.rglob("*") if not file.is_dir())
