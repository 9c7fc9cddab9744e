"""The events that a program reported, read from Wine's trace of the event-log functions.

Wine keeps no event log; its trace prints the handle, type, category, id and counts of each report on one line and
then the insertion strings. A line end inside a string splits it over several lines, and a string longer than about
280 characters is cut there and ends in three dots.
"""

from __future__ import annotations

import re
from collections.abc import Iterator
from dataclasses import dataclass, field

ERROR = 1
WARNING = 2
INFORMATION = 4

_REPORT = re.compile(r"(\d+\.\d+):[0-9a-f]+:\S+ReportEventW \([0-9A-Fa-f]+,0x([0-9a-f]{4}),0x([0-9a-f]{4}),0x([0-9a-f]{8}),([0-9A-Fa-f]+),"
                     r"0x([0-9a-f]{4}),0x([0-9a-f]{8})")
_STRING = re.compile(r':eventlog:ReportEventW (L".*)$')
_ESCAPE = re.compile(r"\\(n|r|t|\"|\\|[0-9a-f]{4})")


@dataclass(frozen=True)
class Event:
    """One reported event."""

    kind: int
    category: int
    id: int
    strings: tuple[str, ...]
    data_size: int = 0
    time: float = field(default=0, compare=False)
    """Seconds on the machine's raw monotonic clock."""


def read(trace: str) -> Iterator[Event]:
    """The events in a trace, in their order."""
    report: re.Match[str] | None = None
    lines: list[str] = []
    for line in trace.splitlines():
        if found := _REPORT.search(line):
            if report:
                yield _event(report, lines)
            report, lines = found, []
        elif report and (string := _STRING.search(line)):
            lines.append(_text(string[1]))
    if report:
        yield _event(report, lines)


def _event(report: re.Match[str], lines: list[str]) -> Event:
    time, *numbers = report.groups()
    kind, category, identifier, _, count, size = (int(part, 16) for part in numbers)
    strings: list[str] = []
    for line in lines:
        # All strings but the last are single lines; what is left over belongs to the last one.
        if len(strings) < count:
            strings.append(line)
        else:
            strings[-1] += line
    return Event(kind, category, identifier, tuple(strings), size, float(time))


def _text(quoted: str) -> str:
    def plain(found: re.Match[str]) -> str:
        code = found[1]
        return {"n": "\n", "r": "\r", "t": "\t"}.get(code) or (chr(int(code, 16)) if len(code) == 4 else code)

    text = quoted.removeprefix('L"')
    cut = text.endswith('"...')
    return _ESCAPE.sub(plain, text.removesuffix("...").removesuffix('"')) + ("..." if cut else "")
