"""What a program asked of Windows, read from Wine's trace: the events that it reported, the commands that it started.

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
_SHELL = re.compile(r"(\d+\.\d+):[0-9a-f]+:trace:exec:SHELL_execute mask=\S+ hwnd=\S+ verb=(.*) file=(.*) parm=(.*) "
                    r"dir=(.*) show=0x([0-9a-f]+) class=")
_SOURCE = re.compile(r":advapi:(RegisterEventSourceW|DeregisterEventSource) \((?:\(null\),)?(\S+?)\)")
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


@dataclass(frozen=True)
class ShellCommand:
    """A program that was started through the shell. What was not given is None."""

    verb: str | None
    file: str | None
    parameters: str | None
    folder: str | None
    show: int
    time: float = field(default=0, compare=False)


def commands(trace: str) -> Iterator[ShellCommand]:
    """The commands in a trace, in their order."""
    for line in trace.splitlines():
        if found := _SHELL.search(line):
            time, *texts, show = found.groups()
            verb, file, parameters, folder = (_text(text) if text.startswith('L"') else None for text in texts)
            yield ShellCommand(verb, file, parameters, folder, int(show, 16), float(time))


def event_sources(trace: str) -> list[str]:
    """The names of the event sources that a trace opens, and "closed" if it closes one."""
    return [_text(found[2]) if found[1] == "RegisterEventSourceW" else "closed"
            for found in map(_SOURCE.search, trace.splitlines()) if found]


def events(trace: str) -> Iterator[Event]:
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
