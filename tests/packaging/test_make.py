"""What make installs and removes, for whom, and where: as root under sudo, below odd folders, in a checkout that was moved."""

from __future__ import annotations

import os
import pwd
import re
import shutil
import tempfile
from collections.abc import Iterator
from pathlib import Path

import pytest

from small_tree import INSTALLED, ROOT, files_below, lay, make, run, stub

NOBODY = pwd.getpwnam("nobody")
needs_root = pytest.mark.skipif(os.geteuid() != 0, reason="only root can be root for one step and somebody else for the next")
SYSTEM = ["", "usr", "usr/local", "usr/local/bin", "usr/local/share", "usr/local/share/man"]

pytestmark = pytest.mark.xdist_group("make")  # one after another, so that the release is built once for all


@pytest.fixture(scope="module")
def built(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """A copy of the project with its release built."""
    tree = lay(tmp_path_factory.mktemp("make") / "tree")
    make(tree, "install", "PREFIX=/usr", f"DESTDIR={tree.parent}/thrown away")
    return tree


@pytest.fixture
def moved(built: Path, tmp_path: Path) -> Path:
    """That copy under another name, for one test."""
    return Path(shutil.copytree(built, tmp_path / "a moved tree", symlinks=True))


@pytest.fixture
def public() -> Iterator[Path]:
    """A folder that other users may enter; pytest closes its own to them."""
    with tempfile.TemporaryDirectory(prefix="vantric-make-") as folder:
        os.chmod(folder, 0o755)
        yield Path(folder)


def owners(folder: Path) -> set[int]:
    return {path.lstat().st_uid for path in [folder, *folder.rglob("*")]}


# --- whose the build is ---

@needs_root
def test_under_sudo_the_build_is_the_users(public: Path) -> None:
    tree = lay(public / "home/checkout")
    for path in [public, *public.rglob("*")]:
        os.chown(path, NOBODY.pw_uid, NOBODY.pw_gid)
    sudo = {"SUDO_UID": str(NOBODY.pw_uid), "SUDO_GID": str(NOBODY.pw_gid)}
    make(tree, "install", f"DESTDIR={public}/root", env=sudo, umask=0o077)
    assert owners(tree) == {NOBODY.pw_uid}
    assert owners(public / "root") == {0}
    for again in (["tools/build", "release"], ["make", "clean"]):
        done = run(tree, *again, user=NOBODY.pw_uid)
        assert done.returncode == 0, done.stdout
    assert not (tree / "build").exists()


def test_only_packages_and_the_installation_are_roots_under_sudo() -> None:
    steps = re.findall(r"^\t@?((?:tools|bench)/.*)", (ROOT / "Makefile").read_text(), re.MULTILINE)
    own = [step for step in steps if not step.startswith(("tools/ensure-packages ", "tools/install ", "tools/uninstall "))]
    assert len(own) > 10
    assert [step for step in own if not step.startswith("tools/as-user ")] == []


@needs_root
def test_roots_own_checkout_stays_roots_under_sudo(moved: Path) -> None:
    sudo = {"SUDO_UID": str(NOBODY.pw_uid), "SUDO_GID": str(NOBODY.pw_gid)}
    make(moved, "install", f"DESTDIR={moved}/root", env=sudo)
    assert owners(moved) == {0}


# --- where it goes ---

@pytest.mark.parametrize("prefix", ["/opt/a prefix; touch wrong", "/opt/Müller's \"own\"", "/usr", "/", ""])
def test_any_folder_can_be_the_prefix(built: Path, tmp_path: Path, prefix: str) -> None:
    root = tmp_path / "a root & more"
    make(built, "install", f"PREFIX={prefix}", f"DESTDIR={root}")
    installed = root / prefix.lstrip("/")
    assert files_below(installed) == sorted(INSTALLED)
    assert files_below(root) == sorted(os.path.join(prefix.lstrip("/"), file) for file in INSTALLED)
    make(built, "uninstall", f"PREFIX={prefix}", f"DESTDIR={root}")
    assert list(root.iterdir()) == []
    assert not (built / "wrong").exists()


def test_a_prefix_of_ones_own_goes_without_destdir(built: Path, tmp_path: Path) -> None:
    prefix = tmp_path / "my own"
    make(built, "install", f"PREFIX={prefix}")
    assert files_below(prefix) == sorted(INSTALLED)
    (prefix / "share/applications/other.desktop").write_text("")
    make(built, "uninstall", f"PREFIX={prefix}")
    assert files_below(tmp_path) == ["my own/share/applications/other.desktop"]
    assert {path.name for path in prefix.rglob("*") if path.is_dir()} == {"share", "applications"}


def test_the_folder_above_a_prefix_of_ones_own_stays_though_it_is_empty(built: Path, tmp_path: Path) -> None:
    (tmp_path / "outer").mkdir()
    for target in ("install", "uninstall"):
        make(built, target, f"PREFIX={tmp_path}/outer/my own")
    assert [path.name for path in tmp_path.rglob("*")] == ["outer"]


def test_folders_of_the_system_stay_though_they_are_empty(built: Path, tmp_path: Path) -> None:
    home = tmp_path / "home"
    for folder in ("bin", "share/man"):
        (home / ".local" / folder).mkdir(parents=True)
    before = sorted(home.rglob("*"))
    for target in ("install", "uninstall"):
        make(built, target, f"PREFIX={home}/.local", env={"HOME": str(home)})
    assert sorted(home.rglob("*")) == before


def test_installed_folders_are_readable_whatever_the_umask(built: Path, tmp_path: Path) -> None:
    make(built, "install", f"DESTDIR={tmp_path}/root", umask=0o077)
    for path in (tmp_path / "root").rglob("*"):
        wanted = 0o755 if path.is_dir() or path.name == "vantric" else 0o644
        assert path.stat().st_mode & 0o777 == wanted, path


@pytest.mark.parametrize("copied", [False, True], ids=["moved", "copied"])
def test_a_checkout_elsewhere_builds_again(built: Path, tmp_path: Path, copied: bool) -> None:
    first = Path(shutil.copytree(built, tmp_path / "first", symlinks=True))
    make(first, "install", f"DESTDIR={tmp_path}/root")
    second = tmp_path / "second, längerer Name"
    (shutil.copytree if copied else shutil.move)(first, second)
    program = second / "src/main.cpp"
    program.write_text(program.read_text().replace(": 0;", ": 42;"))
    make(second, "install", f"DESTDIR={tmp_path}/root")
    assert run(second, "build/release/vantric").returncode == 42


# --- what can't be ---

@needs_root
@pytest.mark.parametrize("target", ["install", "uninstall"])
def test_without_rights_there_is_one_line(built: Path, public: Path, target: str) -> None:
    moved = Path(shutil.copytree(built, public / "tree", symlinks=True))
    for path in [moved, *moved.rglob("*")]:
        os.chown(path, NOBODY.pw_uid, NOBODY.pw_gid)
    make(moved, "install", f"DESTDIR={public}/root")
    done = run(moved, "make", "--no-print-directory", target, f"DESTDIR={public}/root", user=NOBODY.pw_uid)
    assert done.returncode != 0
    assert len(done.stdout.splitlines()) == 2, done.stdout
    assert done.stdout.startswith("No right to write to "), done.stdout
    assert done.stdout.splitlines()[1].startswith("make: ***")
    assert files_below(public / "root/usr/local") == sorted(INSTALLED)


def test_who_may_not_use_sudo_gets_one_line(tmp_path: Path) -> None:
    tree, bin_folder = lay(tmp_path / "tree"), tmp_path / "bin"
    stub(bin_folder, "id", "echo 1000")
    stub(bin_folder, "dpkg-query", "exit 1")
    stub(bin_folder, "apt-get", f"touch '{tmp_path}/asked'")
    stub(bin_folder, "sudo", "echo 'We trust you have received the usual lecture.\n\nSorry, user x may not run sudo.' >&2; exit 1")
    done = run(tree, "tools/ensure-packages", "build", env={"PATH": f"{bin_folder}:{os.environ['PATH']}"})
    assert done.returncode == 1
    assert done.stdout.count("\n") == 1, done.stdout
    assert done.stdout.endswith("apt-get install g++ cmake ninja-build pkg-config libgtk-3-dev\n")
    assert not (tmp_path / "asked").exists()


@pytest.mark.parametrize("tool", ["tools/format", "tools/check-format"])
def test_formatting_without_git_says_so_and_fails(built: Path, tmp_path: Path, tool: str) -> None:
    # It need not be installed for that
    stub(tmp_path / "bin", "clang-format", "echo 'called without files'")
    path = f"{tmp_path}/bin:{os.environ['PATH']}"
    done = run(built, tool, env={"GIT_CEILING_DIRECTORIES": str(built.parent), "PATH": path})
    assert done.returncode != 0
    assert done.stdout == "This works on the files that git keeps, and here it keeps none.\n"
