"""Crashes after which somebody waits for what does not come any more: the process ends all the same, and leaves what it can."""

from __future__ import annotations

from dataclasses import replace

import pytest

from bed.report_server import FULL_WANTED, Answer
from bed.windows import FinishedRun
from crash_world import CRASHED, CrashWorld

ACCESS_VIOLATION = 0xC0000005

# From the start of the program to its end. In these programs five minutes pass in five or ten seconds; ten more are the limit for the begin of the
# thread that reports, and a few go by for locks that cannot be had.
LIMIT = 45


def ended_in_time(run: FinishedRun) -> bool:
    """The program came to its end by itself."""
    return run.exit_code == CRASHED and run.end - run.begin < LIMIT


def assert_saved(crashes: CrashWorld, kind: str) -> None:
    """The crash is saved, whole, as far as it is known without the symbol engine."""
    for body, name in zip(crashes.pair(0), ("short", "full"), strict=True):
        report = crashes.read(body, kind)
        assert (report.kind, report.code, report.notes) == (name, ACCESS_VIOLATION, ())
        assert (report.frames[0].module, report.frames[0].function) == (f"crash_{kind}.exe", "innermost")
    assert crashes.files() == ["0.tzo", "0.tzr"]


@pytest.mark.parametrize("kind", ["under_heap_lock", "under_loader_lock", "under_exit_lock", "foreign_fault_during_upload"])
def test_a_crash_that_keeps_its_report_from_being_sent_saves_it(crashes: CrashWorld, kind: str) -> None:
    run = crashes.run(kind, notes=["a note"])
    assert ended_in_time(run), run
    assert crashes.server.kinds == []
    assert_saved(crashes, kind)


@pytest.mark.parametrize("kind", ["in_atexit_function", "in_static_destructor", "on_thread_at_exit"])
def test_a_crash_while_the_program_ends_is_reported(crashes: CrashWorld, kind: str) -> None:
    run = crashes.run(kind)
    assert ended_in_time(run), run
    assert crashes.server.kinds == ["short"]
    report = crashes.read(crashes.server.requests[0].body, kind)
    assert (report.code, report.frames[0].function) == (ACCESS_VIOLATION, "innermost")
    crashes.assert_nothing_left()


def test_a_fault_of_the_transport_while_earlier_reports_are_sent_ends_the_program_and_leaves_them(crashes: CrashWorld) -> None:
    with crashes.server.away():
        crashes.run("access_violation")
    earlier = crashes.pair(0)
    run = crashes.run("foreign_fault_during_start_up")
    assert ended_in_time(run), run
    assert (crashes.files(), crashes.pair(0)) == (["0.tzo", "0.tzr"], earlier)
    assert crashes.run("none").exit_code == 0
    assert crashes.server.bodies("short")[-1] == earlier[0]
    crashes.assert_nothing_left()


def test_a_slow_server_is_waited_for(crashes: CrashWorld) -> None:
    """Each notification is a sign that the report is on its way. All of it takes longer than the limit between two signs, which for this
    program is ten seconds."""
    crashes.server.queue = [replace(FULL_WANTED, wait=6), Answer(wait=6)]
    run = crashes.run("hurried")
    assert run.exit_code == CRASHED
    assert crashes.server.kinds == ["short", "full"]
    crashes.assert_nothing_left()
