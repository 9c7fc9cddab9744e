"""`fleet`: which versions ask, from how many addresses a day, out of the access logs of a server."""

from __future__ import annotations

import argparse
import gzip
import json
import re
import sys
from collections import defaultdict
from collections.abc import Iterable, Iterator
from dataclasses import dataclass, field
from html import escape
from pathlib import Path

from . import terminal

# The combined format of nginx and Apache. Where the remote user would stand, our configurations write the host.
_LINE = re.compile(r'(?P<address>\S+) \S+ (?P<host>\S+) \[(?P<day>\d{2}/\w{3}/\d{4}):[^\]]*\] "(?:GET|HEAD) (?P<path>\S+)[^"]*" (?P<status>\d{3}) '
                   r'(?P<bytes>\d+|-) "[^"]*" "Lumaris/(?P<version>\d+\.\d+\.\d+)[^"]*"')
_MONTHS = {name: number for number, name in enumerate("Jan Feb Mar Apr May Jun Jul Aug Sep Oct Nov Dec".split(), 1)}
_COLOURS = ("#4269d0", "#efb118", "#ff725c", "#6cc5b0", "#3ca951", "#ff8ab7", "#a463f2", "#97bbf5")


def add_arguments(parser: argparse.ArgumentParser) -> None:
    """The options of the command."""
    parser.add_argument("logs", nargs="+", type=Path, metavar="ACCESS.LOG", help="access logs, as they are or compressed by gzip; - is the input")
    parser.add_argument("--old-host", action="append", default=[], metavar="H", help="a host that was left: who still asks it")
    parser.add_argument("--json", action="store_true", help="for programs")
    parser.add_argument("--svg", type=Path, metavar="FILE", help="draws it")


@dataclass
class Fleet:
    """Addresses by day and version, and what else the logs say."""

    days: dict[str, dict[str, set[str]]] = field(default_factory=lambda: defaultdict(lambda: defaultdict(set)))
    last_version: dict[str, tuple[str, str]] = field(default_factory=dict)
    hosts: dict[str, set[str]] = field(default_factory=lambda: defaultdict(set))
    lines: int = 0
    others: int = 0
    bytes: int = 0
    failures: dict[int, int] = field(default_factory=lambda: defaultdict(int))

    def read(self, lines: Iterable[str]) -> None:
        """Takes the lines of a log. Requests of others than the program are counted, no more."""
        for line in lines:
            found = _LINE.match(line)
            if found is None:
                self.others += 1
                continue
            self.lines += 1
            day, month, year = found["day"].split("/")
            date = f"{year}-{_MONTHS.get(month, 0):02}-{day}"
            asked, address = found["version"], found["address"]
            self.bytes += int(found["bytes"]) if found["bytes"] != "-" else 0
            if int(found["status"]) >= 400:
                self.failures[int(found["status"])] += 1
            self.days[date][asked].add(address)
            if date >= self.last_version.get(address, ("", ""))[0]:
                self.last_version[address] = (date, asked)
            self.hosts[found["host"]].add(address)

    @property
    def versions(self) -> list[str]:
        """In their order."""
        return sorted({asked for day in self.days.values() for asked in day}, key=lambda text: [int(part) for part in text.split(".")])


def _lines(file: Path) -> Iterator[str]:
    if str(file) == "-":
        yield from sys.stdin
        return
    with (gzip.open(file, "rt", encoding="utf-8", errors="replace") if file.suffix == ".gz" else
          file.open(encoding="utf-8", errors="replace")) as log:
        yield from log


def draw(fleet: Fleet) -> str:
    """Stacked bars, one a day: addresses by version."""
    width, height, left, bottom = 960, 400, 60, 60
    versions, days = fleet.versions, sorted(fleet.days)
    most = max((sum(len(addresses) for addresses in fleet.days[day].values()) for day in days), default=1)
    step = (width - left - 160) / max(len(days), 1)
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" font-family="sans-serif" font-size="12">',
             "<title>Addresses a day by version</title>", f'<rect width="{width}" height="{height}" fill="white"/>']
    for number in range(5):
        y = height - bottom - (height - bottom - 20) * number / 4
        parts.append(f'<line x1="{left}" y1="{y:.1f}" x2="{width - 160}" y2="{y:.1f}" stroke="#ddd"/>'
                     f'<text x="{left - 6}" y="{y + 4:.1f}" text-anchor="end">{most * number / 4:,.0f}</text>')
    for index, day in enumerate(days):
        y = float(height - bottom)
        for asked in versions:
            count = len(fleet.days[day].get(asked, ()))
            tall = (height - bottom - 20) * count / most
            y -= tall
            parts.append(f'<rect x="{left + index * step + 1:.1f}" y="{y:.1f}" width="{max(step - 2, 1):.1f}" height="{tall:.1f}" '
                         f'fill="{_COLOURS[versions.index(asked) % len(_COLOURS)]}"><title>{day}: {escape(asked)}, {count:,}</title></rect>')
        if len(days) <= 31 or index % 7 == 0:
            x = left + (index + 0.5) * step
            parts.append(f'<text x="{x:.1f}" y="{height - bottom + 14}" text-anchor="end" transform="rotate(-45 {x:.1f} {height - bottom + 14})">'
                         f'{day[5:]}</text>')
    for index, asked in enumerate(versions):
        parts.append(f'<rect x="{width - 140}" y="{20 + index * 20}" width="12" height="12" fill="{_COLOURS[index % len(_COLOURS)]}"/>'
                     f'<text x="{width - 122}" y="{30 + index * 20}">{escape(asked)}</text>')
    return "\n".join([*parts, "</svg>"]) + "\n"


def run(options: argparse.Namespace) -> int:
    """A table, or JSON; and a plot."""
    fleet = Fleet()
    for log in options.logs:
        fleet.read(_lines(log))
    asking = {host: sorted(fleet.hosts.get(host, ())) for host in options.old_host}
    if options.svg and not options.dry_run:
        options.svg.write_text(draw(fleet), encoding="utf-8")
    if options.json:
        print(json.dumps({"days": {day: {asked: len(addresses) for asked, addresses in sorted(by.items())} for day, by in sorted(fleet.days.items())},
                          "now": {asked: sum(last == asked for _, last in fleet.last_version.values()) for asked in fleet.versions},
                          "requests": fleet.lines, "others": fleet.others, "bytes": fleet.bytes,
                          "failures": dict(sorted(fleet.failures.items())), "hosts": {host: len(each) for host, each in sorted(fleet.hosts.items())},
                          "old_hosts": asking}, indent=1))
        return 0
    rows = [[day, *(len(fleet.days[day].get(asked, ())) for asked in fleet.versions),
             len(set().union(*fleet.days[day].values()))] for day in sorted(fleet.days)]
    terminal.say(terminal.table(("day", *fleet.versions, "addresses"), rows))
    terminal.say(f"\n{fleet.lines:,} requests, {fleet.bytes / 1e6:,.1f} MB; {fleet.others:,} lines of others; failures: "
                 f"{', '.join(f'{status}: {count:,}' for status, count in sorted(fleet.failures.items())) or 'none'}")
    for host, addresses in asking.items():
        terminal.say(f"{host} is still asked by {len(addresses):,} addresses{': ' + ', '.join(addresses[:20]) if addresses else ''}")
    if fleet.versions:
        behind = sum(last != fleet.versions[-1] for _, last in fleet.last_version.values())
        terminal.next_step(f"{behind:,} of {len(fleet.last_version):,} addresses were not seen with {fleet.versions[-1]}" if behind else
                           f"nothing: every address was last seen with {fleet.versions[-1]}")
    else:
        terminal.next_step("give the log of the server that the programs ask: none of them asked here")
    return 0
