"""`fleet`: logs as nginx writes them, counted by hand."""

from __future__ import annotations

import gzip
import json
import xml.etree.ElementTree as ElementTree
from pathlib import Path

from kit import Kit


def line(address: str, day: str, asked: str, *, host: str = "updates.tavrin.private", status: int = 200, size: int = 300,
         path: str = "/Halvoro/Lumaris/win11-stable.txt") -> str:
    """A line of our log format."""
    return f'{address} - {host} [{day}/Nov/2026:10:00:00 +0000] "GET {path} HTTP/1.1" {status} {size} "-" "Lumaris/{asked}"\n'


LINES = [line("10.0.0.1", "20", "3.4.0"), line("10.0.0.1", "20", "3.4.0"), line("10.0.0.2", "20", "3.4.0"), line("10.0.0.1", "21", "3.4.1"),
         line("10.0.0.2", "21", "3.4.0", host="old.tavrin.private"), line("10.0.0.3", "21", "3.4.10", status=404),
         '10.0.0.9 - - [21/Nov/2026:10:00:00 +0000] "GET / HTTP/1.1" 200 5 "-" "curl/8"\n', "nonsense\n"]


def test_addresses_are_counted_by_day_and_version(kit: Kit, tmp_path: Path) -> None:
    (tmp_path / "access.log").write_text("".join(LINES[:4]), encoding="ascii")
    with gzip.open(tmp_path / "access.log.1.gz", "wt", encoding="ascii") as log:
        log.writelines(LINES[4:])
    said = json.loads(kit.done("fleet", str(tmp_path / "access.log"), str(tmp_path / "access.log.1.gz"), "--json", "--old-host",
                               "old.tavrin.private").out)
    assert said == {"days": {"2026-11-20": {"3.4.0": 2}, "2026-11-21": {"3.4.0": 1, "3.4.1": 1, "3.4.10": 1}},
                    "now": {"3.4.0": 1, "3.4.1": 1, "3.4.10": 1}, "requests": 6, "others": 2, "bytes": 1800, "failures": {"404": 1},
                    "hosts": {"old.tavrin.private": 1, "updates.tavrin.private": 3}, "old_hosts": {"old.tavrin.private": ["10.0.0.2"]}}


def test_a_table_and_a_plot_say_the_same(kit: Kit, tmp_path: Path) -> None:
    (tmp_path / "access.log").write_text("".join(LINES), encoding="ascii")
    out = kit.done("fleet", str(tmp_path / "access.log"), "--svg", str(tmp_path / "fleet.svg"), "--old-host", "old.tavrin.private").out
    assert out.splitlines()[:3] == ["day         3.4.0  3.4.1  3.4.10  addresses", "2026-11-20      2      0       0          2",
                                    "2026-11-21      1      1       1          3"]
    assert "old.tavrin.private is still asked by 1 addresses: 10.0.0.2" in out
    assert "2 of 3 addresses were not seen with 3.4.10" in out
    svg = ElementTree.parse(tmp_path / "fleet.svg").getroot()
    titles = [each.text for each in svg.iter("{http://www.w3.org/2000/svg}title")]
    assert titles[1:] == ["2026-11-20: 3.4.0, 2", "2026-11-20: 3.4.1, 0", "2026-11-20: 3.4.10, 0", "2026-11-21: 3.4.0, 1", "2026-11-21: 3.4.1, 1",
                          "2026-11-21: 3.4.10, 1"]


def test_a_log_with_nothing_in_it_is_no_failure(kit: Kit, tmp_path: Path) -> None:
    (tmp_path / "access.log").write_text("", encoding="ascii")
    assert "0 requests" in kit.done("fleet", str(tmp_path / "access.log"), "--svg", str(tmp_path / "fleet.svg")).out


def test_a_version_that_somebody_made_up_is_counted_and_stops_nothing(kit: Kit, tmp_path: Path) -> None:
    (tmp_path / "access.log").write_text(line("10.0.0.1", "20", "3.4.0") + line("10.0.0.2", "20", "999999.0.0"), encoding="ascii")
    assert "1 of 2 addresses were not seen with 999999.0.0" in kit.done("fleet", str(tmp_path / "access.log")).out
