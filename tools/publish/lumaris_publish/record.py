"""What was published: the packages that were signed, and the log of who did what when.

A package counts as staged when its file in `state/packages` is there, which is the last thing that staging writes. The log has a line of
JSON for each act; a line without its line feed is one that was cut off, and does not count.
"""

from __future__ import annotations

import dataclasses
import getpass
import json
import os
import socket
import time
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from . import files
from .refusal import refuse

LOG = "log.jsonl"
PACKAGES = "state/packages"

# Before this there was no kit: a clock that says so is wrong.
_BEGINNING = 1_767_225_600  # 2026-01-01


@dataclass(frozen=True)
class Staged:
    """A package that was signed."""

    version: str
    variant: str
    folder: str
    sha256: str
    size: int
    product_code: str
    upgrade_code: str
    place: str = ""  # the folder of the program; publications of the kit's first days do not say it

    @property
    def title(self) -> str:
        """As people read it."""
        return f"{self.version}{f' (variant {self.variant})' if self.variant else ''}"


@dataclass(frozen=True)
class Entry:
    """A line of the log."""

    id: str
    time: float
    who: str
    what: str
    version: str = ""
    channel: str = ""
    variant: str = ""
    sha256: str = ""
    accepted: tuple[str, ...] = ()
    reason: str = ""
    note: str = ""

    @property
    def day_and_time(self) -> str:
        """In the zone of the reader."""
        return time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(self.time))


@dataclass(frozen=True)
class History:
    """Everything that was done."""

    staged: tuple[Staged, ...]
    log: tuple[Entry, ...]

    def of_version(self, wanted: str) -> list[Staged]:
        """The packages of a version, one a variant."""
        return [staged for staged in self.staged if staged.version == wanted]

    def find(self, wanted: str, variant: str) -> Staged | None:
        """One package."""
        return next((staged for staged in self.of_version(wanted) if staged.variant == variant), None)

    def offers(self, channel: str) -> list[Entry]:
        """What a channel has offered, oldest first."""
        return [entry for entry in self.log if entry.channel == channel and entry.what in ("offer", "promote", "withdraw")]


def load(root: Path) -> History:
    """Reads all of it."""
    staged = []
    for file in sorted((root / PACKAGES).glob("*.json")):
        staged.append(Staged(**json.loads(file.read_text(encoding="utf-8"))))
    return History(tuple(staged), tuple(_read_log(root / LOG)))


def _read_log(file: Path) -> list[Entry]:
    try:
        text = file.read_text(encoding="utf-8", errors="replace")
    except FileNotFoundError:
        return []
    entries = []
    for line in text.split("\n")[:-1]:
        try:
            values: dict[str, Any] = json.loads(line)
            entries.append(Entry(**{**values, "accepted": tuple(values.get("accepted", ()))}))
        except (ValueError, TypeError) as error:
            raise refuse("log", f"{file} holds a line that is none of the log: {line[:60]!r}; bring the file back from a copy") from error
    return entries


def write_staged(root: Path, staged: Staged) -> None:
    """Makes a package count as staged."""
    name = f"{staged.version}{staged.variant}.json"
    files.write_whole(root / PACKAGES / name, json.dumps(dataclasses.asdict(staged), indent=1).encode("utf-8") + b"\n")


def append(root: Path, entry: Entry) -> bool:
    """Adds a line to the log, once: false for an entry that is there already."""
    file = root / LOG
    is_new = not file.exists()
    content = b"" if is_new else file.read_bytes()
    if not content.endswith(b"\n") and content:
        # Cut off in the middle: nobody has seen it.
        content = content[:content.rfind(b"\n") + 1]
        with file.open("r+b") as log:
            log.truncate(len(content))
    if any(known.id == entry.id for known in _read_log(file)):
        return False
    line = json.dumps(dataclasses.asdict(entry), ensure_ascii=False) + "\n"
    descriptor = os.open(file, os.O_WRONLY | os.O_APPEND | os.O_CREAT, 0o644)
    try:
        rest = memoryview(line.encode("utf-8"))
        while rest:  # a disk that is nearly full takes a part
            rest = rest[os.write(descriptor, rest):]
        os.fsync(descriptor)
    finally:
        os.close(descriptor)
    if is_new:
        files.sync(root)
    return True


def who() -> str:
    """Who is at work, and where."""
    name = os.environ.get("SUDO_USER") or getpass.getuser()
    return f"{name}@{socket.gethostname()}"


def now(history: History) -> float:
    """The time. Raises Refusal if the clock cannot be right."""
    said = time.time()
    last = max((entry.time for entry in history.log), default=0.0)
    if said < _BEGINNING or said < last - 60:
        raise refuse("clock", f"this machine's clock says {time.strftime('%Y-%m-%d %H:%M', time.localtime(said))}, which is before "
                              f"{'the last entry of the log' if said < last else 'there were releases'}: set the clock")
    return max(said, last)


def next_id(history: History) -> str:
    """The id of the next entry."""
    return str(len(history.log) + 1)


def offered_before(history: History, channel: str, current: str) -> str | None:
    """The version that a channel offered before the present one; what was withdrawn does not come back."""
    offered: list[str] = []
    for entry in history.offers(channel):
        if entry.what == "withdraw" and entry.version in offered:
            del offered[len(offered) - offered[::-1].index(entry.version):]
        elif not offered or offered[-1] != entry.version:
            offered.append(entry.version)
    while offered and offered[-1] == current:
        offered.pop()
    return offered[-1] if offered else None
