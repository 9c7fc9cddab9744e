"""Crashes at the report server as it is shipped: each becomes one group, whose place is the line of the crash."""

from __future__ import annotations

import re
import shutil
import time
from collections.abc import Iterator
from contextlib import ExitStack
from pathlib import Path
from typing import Any

import pytest

from bed.real_report_server import RealReportServer
from bed.windows import windows_path
from crash_world import CRASHED, CrashBed, CrashWorld
from test_crash import KINDS
from world import Bed

TREE = Path(__file__).resolve().parents[2]
PROGRAM = TREE / "build/native-asan/tools/reports/lumaris-reports"
VERSIONS = ("3.4.0", "3.5.0")


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


def run_version(crashes: CrashWorld, crash_bed: CrashBed, version: str, note: str) -> None:
    """One of the two versions of a program crashes, and its report is answered."""
    folder = crashes.machine.folder / version
    folder.mkdir(exist_ok=True)
    shutil.copyfile(crash_bed.programs / version / "crash_versioned.exe", folder / "crash_versioned.exe")
    # The note makes it a crash of its own, whose report has other bytes.
    run = crashes.machine.run(f'"{windows_path(folder / "crash_versioned.exe")}" --note "{note}"', limit=50)
    assert run.exit_code == CRASHED
    crashes.assert_nothing_left()


# Under the ARM64 Wine a walk along the stack ends after a frame or two, and the two builds make two groups.
@pytest.mark.any_processor
def test_a_crash_that_is_mended_in_a_later_version_is_one_group_through_both(
        crashes: CrashWorld, crash_bed: CrashBed, real: RealReportServer) -> None:
    before = {group["id"] for group in real.groups()}

    def groups() -> list[dict[str, Any]]:
        return [group for group in real.groups() if group["id"] not in before]

    for version in VERSIONS:
        run_version(crashes, crash_bed, version, f"{version} without symbols")
    # Nobody has symbols yet: a place in each build.
    assert len(groups()) == 2
    assert all(re.search(r"crash_versioned\.exe\+0x[0-9A-F]+ of build", group["title"]) for group in groups())
    for version in VERSIONS:
        real.add_symbols(*(crash_bed.programs / version / f"crash_versioned.{extension}" for extension in ("exe", "pdb")))
    until = time.monotonic() + 30
    while len(groups()) != 1 and time.monotonic() < until:
        time.sleep(0.1)
    (group,) = groups()
    assert re.search(r"\binnermost\b", group["title"])
    assert (group["reports"], group["full_reports"], group["state"]) == (2, 2, "new")
    assert {each["version"] for each in group["versions"]} == set(VERSIONS)

    real.change(group["id"], "mended", VERSIONS[1])
    mended = real.metric('lumaris_reports_total{outcome="mended"}')
    answered = len(real.deliveries())
    run_version(crashes, crash_bed, VERSIONS[0], "the earlier one again")
    # It is thanked, and no full report is asked for any more.
    assert [status for _, status in real.deliveries()[answered:]] == [200]
    assert real.metric('lumaris_reports_total{outcome="mended"}') == mended + 1
    (group,) = groups()
    assert (group["reports"], group["full_reports"], group["state"]) == (3, 2, "mended")
    assert f"mended in {VERSIONS[1]}" in real.page(f"/group/{group['id']}")

    run_version(crashes, crash_bed, VERSIONS[1], "the later one, all the same")
    (group,) = groups()
    assert (group["reports"], group["full_reports"], group["state"]) == (4, 3, "new")
