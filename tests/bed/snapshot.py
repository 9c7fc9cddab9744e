"""What has changed in a folder: every file, folder and link below it, as it was and as it is.

A test takes a snapshot of a Windows's drive before it runs a program and asks afterwards what came of it, so that it sees what the
program wrote in places that no test would think of looking at.
"""

from __future__ import annotations

import os
import stat
from collections.abc import Iterable, Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path

from .windows import Windows


@dataclass(frozen=True)
class Entry:
    """One file, folder or link, as far as writing into it would show."""

    kind: str
    """The letter of `ls -l`: "-" for a file, "d" for a folder, "l" for a link."""
    mode: int
    target: str
    """Where a link leads; empty for everything else."""
    size: int
    changed: int
    """When its content or its rights were changed, in nanoseconds. No program can set this one back. 0 for a folder: what is put into it
    or taken out of it shows by itself."""


class Snapshot:
    """A folder as it is at this moment. Links are noted, not followed."""

    def __init__(self, folder: Path) -> None:
        self._folder = folder
        self._before = _entries(folder)

    def changes(self) -> list[str]:
        """What is new, gone or changed by now, as "new d drive_c/x", in the order of the paths."""
        now = _entries(self._folder)
        lines = []
        for path in sorted(self._before.keys() | now.keys()):
            before, after = self._before.get(path), now.get(path)
            if before == after:
                continue
            word = "new" if before is None else "gone" if after is None else "changed"
            kind = (after or before or Entry("?", 0, "", 0, 0)).kind
            lines.append(f"{word} {kind} {path}")
        return lines


@contextmanager
def nothing_else_changes(machine: Windows, but: Iterable[Path] = ()) -> Iterator[None]:
    """Meanwhile nothing changes on drive C: but these files, and these folders with what is in them."""
    drive = machine.unix_path("C:\\").resolve()
    allowed = tuple(os.path.relpath(_unlinked(each), drive) for each in but)
    before = Snapshot(drive)
    yield
    unexpected = [line for line in before.changes()
                  if not any(_is_below(line.split(" ", 2)[2], each) for each in allowed)]
    if unexpected:
        raise AssertionError("changed, too: " + ", ".join(unexpected))


def _unlinked(path: Path) -> Path:
    """The path with the links before its last name followed: the last one may itself be a link that is looked at."""
    return path.parent.resolve() / path.name


def _is_below(path: str, folder: str) -> bool:
    return path == folder or path.startswith(folder + "/")


def _entries(folder: Path) -> dict[str, Entry]:
    found: dict[str, Entry] = {}
    waiting = [os.fspath(folder)]
    while waiting:
        try:
            with os.scandir(waiting.pop()) as children:
                for each in children:
                    about = each.stat(follow_symlinks=False)
                    is_folder = stat.S_ISDIR(about.st_mode)
                    is_link = stat.S_ISLNK(about.st_mode)
                    found[os.path.relpath(each.path, folder)] = Entry(
                        stat.filemode(about.st_mode)[0], stat.S_IMODE(about.st_mode),
                        os.readlink(each.path) if is_link else "",
                        0 if is_folder else about.st_size, 0 if is_folder else about.st_ctime_ns)
                    if is_folder:
                        waiting.append(each.path)
        except FileNotFoundError:
            continue  # gone since it was listed
    return found
