"""Crashes at the report server as it is shipped: each becomes one group, whose place is the line of the crash."""

from __future__ import annotations

import re
from collections.abc import Iterator
from contextlib import ExitStack
from pathlib import Path

import pytest

from bed.real_report_server import RealReportServer
from crash_world import CRASHED, CrashBed, CrashWorld
from test_crash import KINDS
from world import Bed

TREE = Path(__file__).resolve().parents[2]
PROGRAM = TREE / "build/native-asan/tools/reports/lumaris-reports"


@pytest.fixture(scope="module", name="real")
def real_fixture(bed: Bed, crash_bed: CrashBed) -> Iterator[RealReportServer]:
    """The shipped server in the place of the scripted one, with the symbols of the crash programs."""
    with ExitStack() as stack:
        stack.enter_context(crash_bed.server.away())
        server = stack.enter_context(RealReportServer(bed.network, bed.authority, PROGRAM))
        server.add_symbols(*(crash_bed.programs / f"crash_{kind}.{extension}" for kind in KINDS for extension in ("exe", "pdb")))
        yield server


# What is raised has the same bytes in several programs under the ARM64 Wine, whose walk along the stack ends before the culprit.
@pytest.mark.parametrize("kind", [pytest.param(kind, marks=[pytest.mark.any_processor] if raised else [])
                                  for kind, (_, raised, _) in KINDS.items()])
def test_a_crash_becomes_one_group_with_its_line(crashes: CrashWorld, real: RealReportServer, kind: str) -> None:
    before = {group["id"]: group for group in real.groups()}
    for _ in range(2):
        assert crashes.run(kind).exit_code == CRASHED
        crashes.assert_nothing_left()
    (group,) = [group for group in real.groups() if group["id"] not in before]
    # The same bytes twice are one report.
    assert 1 <= group["reports"] <= 2 and group["full_reports"] >= 1
    functions = KINDS[kind][2]
    assert re.search(rf"\b{functions[0]}\b", group["title"]), group
    file, line = group["place"].rsplit(":", 1)
    assert file == f"/lumaris/tests/crash/{kind}.cpp"
    page = real.page("/")
    assert f"{file}:{line}" in page
    number = re.search(r'href="/report/(\d+)"', real.page(f"/group/{group['id']}"))
    assert number is not None
    assert f"{file}:{line}" in real.page(f"/report/{number[1]}")


@pytest.mark.any_processor
def test_a_saved_report_reaches_the_server_at_the_next_start(crashes: CrashWorld, real: RealReportServer) -> None:
    real.__exit__()
    try:
        assert crashes.run("access_violation", notes=["while the server was away"]).exit_code == CRASHED
        assert crashes.files() == ["0.tzo", "0.tzr"]
    finally:
        real.__enter__()
    known = {group["id"]: group["reports"] for group in real.groups()}
    crashes.run("none")
    crashes.assert_nothing_left()
    changed = [group for group in real.groups() if known.get(group["id"]) != group["reports"]]
    assert len(changed) == 1
