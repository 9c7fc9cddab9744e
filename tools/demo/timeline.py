"""Collects what everyone saw, and prints it in the order of time."""

from __future__ import annotations

import sys
import time
from dataclasses import dataclass

_SOURCES = {"demo": "", "windows": "34", "program": "34", "server": "36", "publisher": "35", "proxy": "35", "event log": "33",
            "installer": "32", "disk": "32", "screen": "35", "user": "33", "check": "32"}
_WIDTH = max(map(len, _SOURCES))


@dataclass(frozen=True)
class Entry:
    """One line of the timeline; entries of the same moment keep the order in which they came."""

    moment: float
    source: str
    text: str

    @property
    def order(self) -> float:
        """A server writes its line when it is done with a reply, just after its client is."""
        return self.moment - (0.01 if self.source in ("server", "proxy") else 0)


class Timeline:
    """Entries since the last `show`."""

    def __init__(self) -> None:
        self._entries: list[Entry] = []
        self._begin = time.time()

    def add(self, source: str, text: str, moment: float | None = None) -> None:
        """Notes what `source` had to say, now or at a moment that it gave itself."""
        self._entries.append(Entry(time.time() if moment is None else moment, source, text))

    def show(self) -> None:
        """Prints and forgets the entries."""
        for entry in sorted(self._entries, key=lambda each: each.order):
            first, *more = entry.text.splitlines() or [""]
            print(f"{entry.moment - self._begin:8.3f}  {_painted(entry.source)}  {first}")
            for line in more:
                print(f"{'':8}  {'':{_WIDTH}}  {line}")
        sys.stdout.flush()
        self._entries.clear()


def _painted(source: str) -> str:
    text = f"{source:{_WIDTH}}"
    color = _SOURCES[source]
    return f"\033[{color}m{text}\033[0m" if color and sys.stdout.isatty() else text
