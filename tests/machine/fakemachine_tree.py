"""The files of a made-up machine: one folder that holds its /proc and its /sys.

Paths are given as the program sees them ("/proc/stat"); what happens to them happens in the folder. Every change
is one rename or unlink, so that a program that is reading meanwhile sees the old state or the new one, never half.
"""

from __future__ import annotations

import contextlib
import itertools
import os
import stat
import threading
from collections.abc import Iterable, Iterator, Sequence
from pathlib import Path

MARKER = "/proc/made-up-machine"

# What programs need of the real /proc whatever machine they are on: GLib, the sanitizers and the C library read
# /proc/self, and /proc/mounts leads there as well.
REAL_PROC_ENTRIES = ("self", "thread-self", "sys", "filesystems")

# Opens in every process, and reading at its start fails with EIO: nothing is mapped at address 0.
FAILING_FILE = "self/mem"


class MachineError(Exception):
    """Something that the user of the tool can put right; its text is one line."""


class OrderError(MachineError):
    """The file system does not let the order of a directory be chosen."""


class Tree:
    """The folder of a made-up machine and all that can be done to the files in it. Any thread."""

    def __init__(self, folder: str | Path) -> None:
        self.folder = Path(folder).resolve()
        self._lock = threading.RLock()
        self._held: set[Path] = set()
        self._numbers = itertools.count()
        self._make_frame()

    # --- what tests call: paths as the program sees them ---

    def write(self, path: str, text: str) -> None:
        """Puts a file with this text there, in one step, whatever was there before.

        From then on the file is the caller's: movement leaves it alone until hand_back.
        """
        with self._changing(path) as target:
            self._replace(target, self._staged_file(text))

    def read(self, path: str) -> str:
        """The text that is there now."""
        return self.outside(path).read_text()

    def remove(self, path: str) -> None:
        """Takes a file, link or whole folder away in one step."""
        with self._lock:
            entry = self._entry(path)
            self._held.add(entry)
            self._discard(entry)

    def make_directory(self, path: str) -> None:
        """Puts an empty folder there; in place of a file it opens, but can't be read."""
        with self._changing(path) as target:
            staged = self._staging_name()
            staged.mkdir()
            self._replace(target, staged)

    def make_fifo(self, path: str) -> None:
        """Puts a pipe there that nobody writes to: opening it hangs, as a stuck sensor does."""
        with self._changing(path) as target:
            staged = self._staging_name()
            os.mkfifo(staged)
            self._replace(target, staged)

    def release_fifo(self, path: str, text: str = "") -> bool:
        """Lets whoever hangs in this pipe go on with `text`; False if nobody hangs there."""
        try:
            pipe = os.open(self.outside(path), os.O_WRONLY | os.O_NONBLOCK)
        except OSError:
            return False  # ENXIO: nobody has it open for reading
        try:
            os.write(pipe, text.encode())
        finally:
            os.close(pipe)
        return True

    def make_unreadable(self, path: str) -> None:
        """Takes all rights away from a file or folder. Root is refused only in a program run with drop_caps."""
        with self._changing(path) as target:
            if not target.resolve().is_relative_to(self.folder):
                raise ValueError(f"leads out of the machine: {path}")
            target.chmod(0)

    def make_failing(self, path: str) -> None:
        """Puts a file there that exists and opens, but whose reading fails with EIO."""
        self.make_link(path, str(self.folder / "realproc" / FAILING_FILE))

    def make_loop(self, path: str) -> None:
        """Puts a link to itself there, so that even a status query fails, with ELOOP."""
        self.make_link(path, os.path.basename(path))

    def make_link(self, path: str, destination: str) -> None:
        """Puts a symbolic link there."""
        with self._changing(path) as target:
            # Behind a value's link (see set_order) the name is another one: a loop has to name that.
            loop = destination == os.path.basename(path)
            staged = self._staging_name()
            staged.symlink_to(target.name if loop else destination)
            self._replace(target, staged)

    def hand_back(self, path: str) -> None:
        """Lets movement rewrite a file again that the caller had taken over."""
        with self._lock:
            self._held -= {self._entry(path), self._target(self._entry(path))}

    def set_order(self, directory: str, names: Sequence[str]) -> None:
        """Makes the directory list its entries in exactly this order; entries not named come after them.

        Re-creates the entries, which are gone for an instant: call it before the program starts. tmpfs lists the
        newest entry first on some kernels and last on others, and a replaced file counts as new on some. So the
        order is tried both ways and looked at, and the files' contents move out of the directory: each becomes a
        link to a value elsewhere, and later writes replace that value without touching the directory.
        """
        with self._lock:
            folder = self._entry(directory).resolve()
            wanted = self._full_order(folder, names)
            self._move_values_out(folder)
            if self.listing(folder) == wanted:
                return
            for creation in (wanted[::-1], wanted):
                self._recreate(folder, creation)
                if self.listing(folder) == wanted:
                    return
            raise OrderError(f"the file system of {self.folder} does not let the order of {directory} be chosen")

    def outside(self, path: str) -> Path:
        """Where a path of the machine lies for those outside it."""
        parts = Path(path).parts
        if parts[:1] != ("/",) or parts[1:2] not in (("proc",), ("sys",)) or ".." in parts:
            raise ValueError(f"not a plain path under /proc or /sys: {path}")
        return self.folder.joinpath(*parts[1:])

    @staticmethod
    def listing(folder: Path) -> list[str]:
        """The names in the order in which a program meets them."""
        with os.scandir(folder) as entries:
            return [entry.name for entry in entries]

    # --- laying: nobody looks yet, so files are made in place, which is quicker ---

    def lay_file(self, path: str, text: str) -> None:
        """Makes a new file in a folder that exists."""
        self._create(f"{self.folder}{path}", text)

    def lay_directory(self, path: str) -> None:
        """Makes a folder with all above it."""
        os.makedirs(f"{self.folder}{path}", exist_ok=True)

    def lay_link(self, path: str, destination: str) -> None:
        """Makes a link in a folder that exists."""
        os.symlink(destination, f"{self.folder}{path}")

    # --- movement ---

    def publish(self, file: Path, text: str) -> None:
        """A write by the machine itself; `file` lies outside and has no link above it.

        Gives way to what the caller took over or took away.
        """
        with self._lock:
            if file not in self._held:
                staged = self._staged_file(text)
                try:
                    os.rename(staged, file)
                except (FileNotFoundError, NotADirectoryError):
                    os.unlink(staged)  # the folder has been taken away

    def movable(self, path: str) -> Path:
        """The file that publish has to replace for this path."""
        with self._lock:
            return self._target(self._entry(path))

    def delete(self) -> None:
        """Removes the whole folder, never stepping over into another file system."""
        remove_tree(self.folder)

    # --- inside ---

    def _make_frame(self) -> None:
        for name in ("proc", "sys", "realproc", "staging", "values"):
            (self.folder / name).mkdir(parents=True)
        self.folder.chmod(0o755)  # a program under another user id must get through to realproc
        for name in REAL_PROC_ENTRIES:
            (self.folder / "proc" / name).symlink_to(self.folder / "realproc" / name)
        (self.folder / "proc" / "mounts").symlink_to("self/mounts")
        self.lay_file(MARKER, f"{self.folder}\n")

    @contextlib.contextmanager
    def _changing(self, path: str) -> Iterator[Path]:
        """Holds the lock, makes the folder above, and gives the file to replace, which is the caller's from now."""
        with self._lock:
            entry = self._entry(path)
            entry.parent.mkdir(parents=True, exist_ok=True)
            target = self._target(entry)
            yield target
            self._held.add(target)

    def _entry(self, path: str) -> Path:
        """The directory entry itself: links above it are followed, and it isn't."""
        plain = self.outside(path)
        parent = plain.parent.resolve()
        if not any(parent.is_relative_to(self.folder / top) for top in ("proc", "sys")) and parent != self.folder:
            raise ValueError(f"leads out of the machine: {path}")
        return parent / plain.name

    def _target(self, entry: Path) -> Path:
        """The file that holds the entry's content, see set_order."""
        if entry.is_symlink():
            destination = entry.parent / os.readlink(entry)
            if destination.parent == self.folder / "values":
                return destination
        return entry

    def _staging_name(self) -> Path:
        return self.folder / "staging" / str(next(self._numbers))

    def _staged_file(self, text: str) -> str:
        """A new file outside the directories that programs list.

        Beside its later place it would show up there: "temp1_input.new" looks like a sensor.
        """
        name = f"{self.folder}/staging/{next(self._numbers)}"
        self._create(name, text)
        return name

    @staticmethod
    def _create(name: str, text: str) -> None:
        file = os.open(name, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o644)
        try:
            data = text.encode()
            while data:
                data = data[os.write(file, data):]
        finally:
            os.close(file)

    def _replace(self, target: Path, staged: str | Path) -> None:
        if _is_directory(target) or (os.path.lexists(target) and _is_directory(Path(staged))):
            self._discard(target)  # rename puts only like over like
        os.rename(staged, target)

    def _discard(self, entry: Path) -> None:
        if _is_directory(entry):
            gone = self._staging_name()
            os.rename(entry, gone)
            remove_tree(gone)
        else:
            entry.unlink()

    def _full_order(self, folder: Path, names: Sequence[str]) -> list[str]:
        present = self.listing(folder)
        missing = sorted(set(names) - set(present))
        if missing or len(set(names)) != len(names):
            raise ValueError(f"no such entries, or twice the same: {missing or list(names)}")
        return [*names, *(name for name in present if name not in set(names))]

    def _move_values_out(self, folder: Path) -> None:
        for name in self.listing(folder):
            file = folder / name
            if stat.S_ISREG(file.lstat().st_mode):
                value = self.folder / "values" / str(next(self._numbers))
                os.rename(file, value)
                file.symlink_to(value)
                if file in self._held:
                    self._held.add(value)

    def _recreate(self, folder: Path, creation: Iterable[str]) -> None:
        aside = self._staging_name()
        aside.mkdir()
        for name in self.listing(folder):
            os.rename(folder / name, aside / name)
        for name in creation:
            os.rename(aside / name, folder / name)
        aside.rmdir()


def remove_tree(folder: Path) -> None:
    """Removes a folder with what is in it; folders without rights too, mounted ones never."""
    device = folder.lstat().st_dev

    def clear(directory: str) -> None:
        os.chmod(directory, 0o700)
        with os.scandir(directory) as entries:
            for entry in list(entries):
                if entry.is_dir(follow_symlinks=False):
                    if entry.stat(follow_symlinks=False).st_dev == device:
                        clear(entry.path)
                else:
                    os.unlink(entry.path)
        os.rmdir(directory)

    clear(str(folder))


def _is_directory(path: Path) -> bool:
    return path.is_dir() and not path.is_symlink()
