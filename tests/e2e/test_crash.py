"""Every kind of crash: what reaches the server, where it happened, and how the process ends."""

from __future__ import annotations

import struct
import zlib

import pytest

from bed.report_server import FULL_WANTED, Answer
from bed.reports import Report
from crash_world import CRASHED, CrashWorld
from world import World

ACCESS_VIOLATION = 0xC0000005
STACK_OVERFLOW = 0xC00000FD
FAST_FAIL = 0xC0000409
# What the component raises for failures that are not structured exceptions, so that they reach the filter.
TERMINATE_CALLED = 0xE0544D01
ABORT_CALLED = 0xE0544D02
INVALID_PARAMETER = 0xE0544D03
# What the C++ library raises to look for a handler. Only on threads other than the first it comes to the filter: around the
# first the C runtime has a handler that sends the library on to std::terminate.
CPP_EXCEPTION = 0x20474343

# The code, whether it is raised (the first frame is then the system's), and functions that the crash lies in, innermost first.
KINDS = {
    "access_violation": (ACCESS_VIOLATION, False, ("innermost", "middle", "outer", "crash", "wWinMain")),
    "uncaught_exception": (TERMINATE_CALLED, True, ("innermost", "middle", "outer", "crash", "wWinMain")),
    "uncaught_exception_on_thread": (CPP_EXCEPTION, True, ("innermost", "middle", "outer")),
    # It is thrown on from the handler in outer().
    "exception_out_of_main": (TERMINATE_CALLED, True, ("outer", "crash", "wWinMain")),
    "terminate": (TERMINATE_CALLED, True, ("innermost", "middle", "outer", "crash", "wWinMain")),
    # The broken promise is middle()'s.
    "noexcept_violation": (TERMINATE_CALLED, True, ("middle", "outer", "crash", "wWinMain")),
    "abort": (ABORT_CALLED, True, ("innermost", "middle", "outer", "crash", "wWinMain")),
    "pure_virtual_call": (ABORT_CALLED, True, ("innermost", "middle", "unfinished", "outer", "crash", "wWinMain")),
    "invalid_parameter": (INVALID_PARAMETER, True, ("innermost", "middle", "outer", "crash", "wWinMain")),
}

# From the start of the program to its end, the upload included. Emulated programs take three seconds.
TIME_LIMIT = {"x64": 10, "arm64": 40}


def assert_crash_of(report: Report, kind: str) -> None:
    """The report describes this crash: its code, and the way to it."""
    code, raised, functions = KINDS[kind]
    program = f"crash_{kind}.exe"
    assert report.code == code
    if raised:
        assert report.frames[0].module == "kernelbase.dll"
    if report.machine == "arm64":
        # The stack walk of the ARM64 Wine gives one frame of a system library and two of a program, and ends.
        if not raised:
            assert report.functions(program) == list(functions[:2])
        return
    # Frames of the runtime lie before and between.
    assert [each for each in report.functions(program) if each in functions] == list(functions)


@pytest.mark.parametrize("kind", KINDS)
def test_a_crash_is_reported(crashes: CrashWorld, kind: str) -> None:
    run = crashes.run(kind)
    assert run.exit_code == CRASHED
    assert run.end - run.begin < TIME_LIMIT[crashes.machine.architecture]
    assert crashes.server.kinds == ["short"]
    report = crashes.read(crashes.server.requests[0].body, kind)
    assert_crash_of(report, kind)
    assert (report.kind, report.notes, len(report.records)) == ("short", (), 1)
    crashes.assert_nothing_left()


@pytest.mark.parametrize("kind", ["access_violation",
                                  pytest.param("uncaught_exception", marks=pytest.mark.any_processor)])
def test_a_full_report_tells_the_same_crash(crashes: CrashWorld, kind: str) -> None:
    crashes.server.queue = [Answer(status=449)]
    assert crashes.run(kind).exit_code == CRASHED
    assert crashes.server.kinds == ["short", "full"]
    short, full = (crashes.read(each.body, kind) for each in crashes.server.requests)
    assert_crash_of(full, kind)
    assert [(each.module, each.offset) for each in full.frames] == [(each.module, each.offset) for each in short.frames]
    assert full.records[0] == short.records[0]
    # The x86-64 build has no serialised context; it is there to test everything else.
    assert full.has_context == (full.machine == "arm64")


def test_a_full_report_holds_the_stack_of_the_crashing_function(crashes: CrashWorld) -> None:
    crashes.server.queue = [Answer(status=449)]
    crashes.run("access_violation")
    short, full = (crashes.read(each.body, "access_violation") for each in crashes.server.requests)
    assert b"left on the stack" in full.frames[0].stack
    assert [each.stack for each in short.frames if each.stack] == []


@pytest.mark.any_processor
def test_an_access_violation_tells_where_it_happened(crashes: CrashWorld) -> None:
    crashes.run("access_violation")
    report = crashes.read(crashes.server.requests[0].body, "access_violation")
    # The ARM64 Wine takes a forbidden write for a read.
    kind_of_access = 1 if report.machine == "x86-64" else 0
    assert report.records[0].parameters == (kind_of_access, 0)
    base = report.records[0].address - report.frames[0].offset
    assert (report.frames[0].module, base % 0x10000) == ("crash_access_violation.exe", 0)


def test_a_report_tells_which_build_it_comes_from(crashes: CrashWorld) -> None:
    crashes.run("access_violation")
    crash = crashes.read(crashes.server.requests[0].body).frames[0]
    program = (crashes.machine.folder / crash.module).read_bytes()
    header, = struct.unpack_from("<I", program, 0x3c)
    assert (program[header:header + 4], crash.time_stamp) == (b"PE\0\0", *struct.unpack_from("<I", program, header + 8))
    # A hash of the program, and not a number that all builds share.
    assert crash.time_stamp not in (0, 0xFFFFFFFF)


def test_a_crash_during_the_start_waits_for_earlier_reports(crashes: CrashWorld) -> None:
    with crashes.server.away():
        crashes.run("access_violation")
    earlier = crashes.pair(0)[0]
    crashes.server.queue = [Answer(wait=1)]
    run = crashes.run("during_start_up")
    assert run.exit_code == CRASHED
    assert crashes.server.kinds == ["short", "short"]
    assert crashes.server.requests[0].body == earlier
    report = crashes.read(crashes.server.requests[1].body, "during_start_up")
    assert (report.code, report.frames[0].function) == (ACCESS_VIOLATION, "innermost")
    crashes.assert_nothing_left()


def test_the_updater_reports_its_own_crash_and_writes_no_event(world: World, crashes: CrashWorld) -> None:
    """A library crashes that it asks about the network."""
    world.offer()
    world.bed.list_manager.answer(Crash=1)
    run = world.run()
    assert (run.exit_code, run.events, run.commands) == (CRASHED, (), ())
    assert world.targets == []
    assert crashes.server.kinds == ["short"]
    report = crashes.read(crashes.server.requests[0].body)
    assert (report.code, report.notes, report.frames[0].module) == (ACCESS_VIOLATION, (), "list_manager.dll")
    if report.machine == "x86-64":  # the stack walk of the ARM64 Wine ends in the library
        assert "lumaris.exe" in [each.module for each in report.frames]
    crashes.assert_nothing_left()
    world.bed.list_manager.answer()
    world.assert_installs(world.run())


def test_a_second_crash_during_the_first_is_not_reported(crashes: CrashWorld) -> None:
    crashes.server.usual = Answer(wait=2)
    assert crashes.run("second_thread").exit_code == CRASHED
    assert crashes.server.kinds == ["short"]
    report = crashes.read(crashes.server.requests[0].body, "second_thread")
    assert (report.code, report.frames[0].function) == (ACCESS_VIOLATION, "innermost")
    crashes.assert_nothing_left()


def test_a_fault_of_the_thread_that_sends_earlier_reports_ends_that_thread_only(crashes: CrashWorld) -> None:
    assert crashes.run("fault_in_start_up_thread").exit_code == 0
    assert crashes.server.requests == []
    crashes.assert_nothing_left()


def test_a_crash_after_the_component_has_gone_is_the_systems(crashes: CrashWorld) -> None:
    assert crashes.run("after_uninstall").exit_code == ACCESS_VIOLATION
    assert crashes.server.requests == []
    crashes.assert_nothing_left()


def test_a_fast_fail_is_the_systems(crashes: CrashWorld) -> None:
    assert crashes.run("fast_fail").exit_code == FAST_FAIL
    assert crashes.server.requests == []
    crashes.assert_nothing_left()


def test_what_is_known_of_the_system_is_asked_for_once_before_the_entry_point(crashes: CrashWorld) -> None:
    assert crashes.run("before_entry_point").exit_code == 0


def test_a_program_that_does_not_crash_sends_nothing(crashes: CrashWorld) -> None:
    assert crashes.run("none", notes=["one"]).exit_code == 0
    assert crashes.server.requests == []
    crashes.assert_nothing_left()


def test_a_crash_deep_in_a_recursion_has_reports_that_can_be_read(crashes: CrashWorld) -> None:
    """50,000 calls deep; with a server that wants the full report, and without a server."""
    crashes.server.queue = [FULL_WANTED, Answer()]
    assert crashes.run("deep_recursion").exit_code == CRASHED
    assert crashes.server.kinds == ["short", "full"]
    sent = [each.body for each in crashes.server.requests]
    with crashes.server.away():
        assert crashes.run("deep_recursion").exit_code == CRASHED
    for body in (*sent, *crashes.pair(0)):
        report = crashes.read(body)
        own = [each for each in report.frames if each.module == "crash_deep_recursion.exe"]
        # The stack walk of the ARM64 Wine ends after two frames of a program.
        assert len(own) > (50_000 if report.machine == "x86-64" else 1)
        assert len(zlib.decompress(body)) < 2 << 20
        stacks = [bool(each.stack) for each in own[1:]]  # the innermost function uses no stack
        assert stacks == sorted(stacks, reverse=True), "the inner frames of a full report have their memory, those beyond have none"
        assert any(stacks) == (report.kind == "full")
    (crashes.temp / "0.tzo").unlink()
    (crashes.temp / "0.tzr").unlink()


def test_a_stack_overflow_in_large_frames_is_reported(crashes: CrashWorld) -> None:
    """Such a one leaves room for the search for a handler, on every processor."""
    crashes.server.queue = [Answer(status=449)]
    assert crashes.run("stack_overflow_large").exit_code == CRASHED
    assert crashes.server.kinds == ["short", "full"]
    for received in crashes.server.requests:
        report = crashes.read(received.body, "stack_overflow_large")
        assert (report.code, report.frames[0].module) == (STACK_OVERFLOW, "crash_stack_overflow_large.exe")
    crashes.assert_nothing_left()


def test_a_stack_overflow_is_reported_where_any_filter_is_called(crashes: CrashWorld) -> None:
    """Wine puts the registers on what is left of the stack. With those of a large processor there is no room for the search
    for a handler, and Wine ends the process itself, with exit code 1; Windows keeps room."""
    bare = crashes.run("stack_overflow_bare")
    run = crashes.run("stack_overflow")
    if bare.exit_code == 77:
        assert run.exit_code == CRASHED
        report = crashes.read(crashes.server.requests[0].body, "stack_overflow")
        assert (report.code, report.frames[0].function) == (STACK_OVERFLOW, "innermost")
    else:
        assert (bare.exit_code, run.exit_code, crashes.server.requests) == (1, CRASHED, [])
    crashes.assert_nothing_left()
