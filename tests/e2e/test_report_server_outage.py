"""The real programs and the real report server, whose database cannot take a report: programs keep their files and deliver them later."""

from __future__ import annotations

import re
import sqlite3
from collections.abc import Callable, Iterator
from contextlib import AbstractContextManager, contextmanager
from pathlib import Path

import pytest

from bed.isolation import Disk
from bed.postgres import Postgres
from bed.real_report_server import RealReportServer
from crash_world import CRASHED, CrashBed, CrashWorld
from test_report_server import PROGRAM
from world import Bed

Outage = Callable[[], AbstractContextManager[None]]
PAGE = "Odgovor.html"


@contextmanager
def full(disk: Disk) -> Iterator[None]:
    """There is no room on the disk of the database."""
    disk.fill()
    yield
    disk.resize(16 << 20)


@contextmanager
def locked(database: Path) -> Iterator[None]:
    """Somebody else writes for a long time."""
    with sqlite3.connect(database, isolation_level=None) as rows:
        rows.execute("BEGIN IMMEDIATE")
        yield
        rows.execute("ROLLBACK")


@contextmanager
def gone(postgres: Postgres) -> Iterator[None]:
    """The database server is not there."""
    postgres.kill()
    yield
    postgres.start()


@pytest.fixture(name="outage", params=["disk full", "locked", "gone"])
def outage_fixture(request: pytest.FixtureRequest, bed: Bed, crash_bed: CrashBed) -> Iterator[tuple[RealReportServer, Outage]]:
    """The shipped server in the place of the scripted one, and what befalls it."""
    name = f"outage-{request.param.replace(' ', '-')}"
    folder = bed.network.work / f"{name}-database"
    folder.mkdir()
    with crash_bed.server.away():
        if request.param == "gone":
            with Postgres() as postgres, \
                    RealReportServer(bed.network, bed.authority, PROGRAM, database=postgres.new_database(), name=name) as server:
                yield server, lambda: gone(postgres)
            return
        with bed.network.disk_at(folder, 16 << 20) as disk, \
                RealReportServer(bed.network, bed.authority, PROGRAM, database=str(folder / "reports.db"), name=name) as server:
            yield server, (lambda: full(disk)) if request.param == "disk full" else (lambda: locked(folder / "reports.db"))


def reports(crashes: CrashWorld) -> list[str]:
    """The files of crashes, without the server's page."""
    return [name for name in crashes.files() if name != PAGE]


@pytest.mark.any_processor
def test_a_database_that_takes_nothing_makes_programs_keep_their_reports_and_deliver_them_later(
        crashes: CrashWorld, outage: tuple[RealReportServer, Outage]) -> None:
    server, befalls = outage
    assert crashes.run("access_violation", notes=["before"]).exit_code == CRASHED
    crashes.assert_nothing_left()
    (group,) = server.groups()
    assert (group["reports"], group["full_reports"]) == (1, 1)
    answered = len(server.deliveries())
    with befalls():
        assert crashes.run("access_violation", notes=["meanwhile"]).exit_code == CRASHED
        assert reports(crashes) == ["0.tzo", "0.tzr"]
        saved = crashes.pair(0)
        # What the server says is a page, which no program takes for an answer.
        assert "cannot take error reports at the moment" in (crashes.temp / PAGE).read_text(encoding="utf-8")
        crashes.run("none")
        assert reports(crashes) == ["0.tzo", "0.tzr"]
        assert crashes.pair(0) == saved
        assert {status for _, status in server.deliveries()[answered:]} == {503}
    crashes.run("none")
    assert reports(crashes) == []
    (group,) = server.groups()
    assert (group["reports"], group["full_reports"]) == (2, 2)
    stored = [server.body(int(number)) for number in re.findall(r'href="/report/(\d+)"', server.page(f"/group/{group['id']}"))]
    assert len(stored) == 4
    assert set(saved) < set(stored)
