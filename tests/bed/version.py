"""The version of the program under test, and those that are offered to it. A test that needs one takes it from here."""

from __future__ import annotations

import sys
from dataclasses import dataclass
from pathlib import Path

TREE = Path(__file__).resolve().parents[2]
sys.path.append(str(TREE / "toolchain"))

from jobs.version import configured_version  # noqa: E402  (the path to it is set above)


@dataclass(frozen=True, order=True)
class Version:
    """A version as an update description counts it: one byte a component, from the most significant one."""

    number: int

    @staticmethod
    def parse(text: str) -> Version:
        """Reads "3.4.0"."""
        major, minor, patch = (int(part) for part in text.split("."))
        return Version(major << 24 | minor << 16 | patch << 8)

    @property
    def parts(self) -> tuple[int, int, int]:
        """Major, minor and patch."""
        return self.number >> 24, self.number >> 16 & 0xFF, self.number >> 8 & 0xFF

    @property
    def next(self) -> Version:
        """The next patch."""
        return Version(self.number + 0x100)

    @property
    def offer(self) -> str:
        """As the first line of a description has it."""
        return f"{self.number:x}"

    def __str__(self) -> str:
        return ".".join(str(part) for part in self.parts)


OWN = Version.parse(configured_version())
NEWER = OWN.next
NEWEST = NEWER.next
OLDER = Version(OWN.number - 0x10000)


def of_build(folder: Path) -> str:
    """The version that a build folder is configured with."""
    cache = (folder / "CMakeCache.txt").read_text(encoding="utf-8")
    return next(line.partition("=")[2] for line in cache.splitlines() if line.startswith("CMAKE_PROJECT_VERSION:"))
