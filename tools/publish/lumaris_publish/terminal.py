"""What a person sees: progress of long work, tables, and what to do next."""

from __future__ import annotations

import sys
import time
from collections.abc import Sequence


class Progress:
    """How far some work is, on the standard error: a line that is written over on a terminal, and one every ten seconds elsewhere."""

    def __init__(self, what: str, size: int) -> None:
        self._what = what
        self._size = max(size, 1)
        self._terminal = sys.stderr.isatty()
        self._next = time.monotonic() + (0.2 if self._terminal else 10)

    def __call__(self, done: int) -> None:
        """So many bytes are done."""
        if time.monotonic() < self._next:
            return
        self._next = time.monotonic() + (0.2 if self._terminal else 10)
        line = f"{self._what}: {done / 1e6:,.0f} of {self._size / 1e6:,.0f} MB ({100 * done // self._size} %)"
        print(f"\r\033[K{line}" if self._terminal else line, end="" if self._terminal else "\n", file=sys.stderr, flush=True)

    def end(self) -> None:
        """Clears the line."""
        if self._terminal:
            print("\r\033[K", end="", file=sys.stderr, flush=True)


def table(head: Sequence[str], rows: Sequence[Sequence[object]]) -> str:
    """Columns as wide as what stands in them; numbers to the right."""
    texts = [list(head), *([str(cell) for cell in row] for row in rows)]
    widths = [max(len(row[column]) for row in texts) for column in range(len(head))]
    right = [bool(rows) and all(isinstance(row[column], (int, float)) for row in rows) for column in range(len(head))]
    return "\n".join("  ".join(cell.rjust(width) if numeric else cell.ljust(width)
                               for cell, width, numeric in zip(row, widths, right, strict=True)).rstrip() for row in texts)


def say(line: str) -> None:
    """One line for whoever gave the command."""
    print(line, flush=True)


def next_step(*lines: str) -> None:
    """Ends a command with what to do next."""
    for index, line in enumerate(lines):
        print(f"{'next: ' if index == 0 else '      '}{line}", flush=True)
