"""Leaks: what is done many times leaves the process, and the machine, as they were.

`LUMARIS_ROUNDS` says how many times (`./dev soak endurance` sets 100). Each judgement is also made over a leak that is planted,
which it has to name.
"""

from __future__ import annotations

import os
import shutil
import signal
import time
from collections import Counter
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path

import pytest

from bed.report_server import FULL_WANTED, Answer
from bed.windows import FinishedRun, Windows, windows_path
from crash_world import CRASHED, CrashBed, CrashWorld
from world import FOLDER, World

LONG = "LUMARIS_ROUNDS" in os.environ
ROUNDS = int(os.environ.get("LUMARIS_ROUNDS", "10"))
# The system's own caches fill in these.
WARM_UP = 10 if LONG else 3
# What is quick is done five times as often, after as many rounds as it takes the heap to come to rest.
QUICK_WARM_UP, QUICK = (ROUNDS, 5 * ROUNDS) if LONG else (WARM_UP, ROUNDS)
# A crash takes a second, and seven on an emulated processor.
CRASHES = ROUNDS if LONG else 3

# The short form has enough of these with one processor.
any_processor_when_short = (lambda test: test) if LONG else pytest.mark.any_processor

VARIANT = "-endurance"

# How much more a process may hold in the end. The first two go by themselves, and are waited for; objects are counted exactly. Wine's heap
# hands out small blocks from groups of them, counts a group as used while one block of it is, and has ever more groups that are half
# empty: 2000 updates made its 340 KB 560, while its pages stayed as they were, and 10 uploads may make its 630 KB 690.
ALLOWED = {"handles": 0, "threads": 0, "objects": 0, "object_bytes": 0, "heaps": 0, "modules": 0,
           "heap_bytes": 128 << 10, "private_bytes": 512 << 10}
ALLOWED_IN_A_ROUND = {"heap_bytes": 400}

Measures = dict[str, int]


@pytest.fixture(autouse=True)
def time_for_all_rounds() -> None:
    """The long form takes as long as it takes; what it starts has time limits."""
    if LONG:
        signal.alarm(3600)


# In one process


@pytest.fixture
def rounds(crash_bed: CrashBed, world: World, crashes: CrashWorld) -> Callable[..., FinishedRun]:
    """Does something many times in one process."""
    world.offer(package=f"{FOLDER}Halvoro.ARM64{VARIANT}.msi")
    program = crashes.machine.folder / "endurance.exe"
    if not program.exists():
        shutil.copyfile(crash_bed.programs.parent / "endurance/endurance.exe", program)

    def run(what: str, *more: str, warm_up: int = QUICK_WARM_UP, count: int = QUICK) -> FinishedRun:
        line = " ".join((f'"{windows_path(program)}"', VARIANT, what, str(warm_up), str(count), *more))
        return crashes.machine.run(line, limit=1800 if LONG else 55 if crashes.machine.architecture == "x64" else 170)

    return run


def measures(run: FinishedRun) -> tuple[Measures, Measures]:
    """What the process held before its rounds and after them."""
    assert run.exit_code == 0, run.output
    lines = [line.split() for line in run.output.splitlines()]
    assert [label for label, *_ in lines] == ["before", "after"], run.output
    before, after = ({name: int(number) for name, number in (each.split("=") for each in values)}
                     for _, *values in lines)
    assert before.keys() == after.keys() == ALLOWED.keys()
    return before, after


def grown(before: Measures, after: Measures, count: int) -> list[str]:
    """What there is more of than is allowed after so many rounds."""
    return [name for name, allowed in ALLOWED.items()
            if after[name] > before[name] + allowed + ALLOWED_IN_A_ROUND.get(name, 0) * count]


def test_updates_leave_the_process_as_it_was(rounds: Callable[..., FinishedRun], world: World) -> None:
    before, after = measures(rounds("updates"))
    print(before, after)
    assert grown(before, after, QUICK) == []
    # Each round asks for three descriptions and three packages: one is downloaded, one is there, one is not.
    assert len(world.requests) == (QUICK_WARM_UP + QUICK) * (3 * 2 + 2 + 1 + 1)


def expect_crashes(rounds: Callable[..., FinishedRun], crashes: CrashWorld, what: str, warm_up: int,
                   count: int) -> tuple[Measures, Measures]:
    """Every third report is sent at once, every third with the full one, and every third is saved, and sent by the next round."""
    page = Answer(status=503, body=b"<html></html>", content_type="text/html")
    total = warm_up + count
    # In the order of the requests: sent; short and full; refused and saved; sent by the next installation.
    crashes.server.queue = [Answer(), FULL_WANTED, Answer(), page, Answer()] * (total // 3 + 1)
    found = measures(rounds(what, warm_up=warm_up, count=count))
    expected = ["short", "short", "full", "short", "short"] * (total // 3) + ["short", "short", "full"][:(0, 1, 3)[total % 3]]
    # What the last round saved is still there.
    assert crashes.server.kinds == (expected[:-1] if total % 3 == 0 else expected)
    return found


def test_crashes_leave_the_process_as_it_was(rounds: Callable[..., FinishedRun], crashes: CrashWorld) -> None:
    before, after = expect_crashes(rounds, crashes, "quick-crashes", QUICK_WARM_UP, QUICK)
    print(before, after)
    assert grown(before, after, QUICK) == []


# The symbol engine of Wine keeps 1.6 KB of heap each time it is set up and taken down.
ENGINE_BYTES = 3 << 10


@any_processor_when_short
def test_crashes_with_the_symbol_engine_leave_the_process_as_it_was(rounds: Callable[..., FinishedRun], crashes: CrashWorld) -> None:
    before, after = expect_crashes(rounds, crashes, "crashes", WARM_UP, CRASHES)
    print(before, after)
    after["heap_bytes"] -= ENGINE_BYTES * CRASHES
    after["private_bytes"] -= ENGINE_BYTES * 4 * CRASHES
    assert grown(before, after, CRASHES) == []


def test_reports_leave_the_process_as_it_was(rounds: Callable[..., FinishedRun], crashes: CrashWorld) -> None:
    before, after = measures(rounds("uploads"))
    print(before, after)
    assert grown(before, after, QUICK) == []
    assert crashes.server.kinds == ["short", "full"] * (QUICK_WARM_UP + QUICK)


def test_installing_and_removing_leaves_the_process_as_it_was(rounds: Callable[..., FinishedRun]) -> None:
    before, after = measures(rounds("component", count=10 * QUICK))
    print(before, after)
    assert grown(before, after, QUICK) == []


@pytest.mark.parametrize(("leak", "seen"), [
    ("handle", ["handles"]),
    ("memory", ["objects", "object_bytes", "heap_bytes"]),
    ("thread", ["threads", "private_bytes"]),
    ("heap", ["heaps", "private_bytes"]),
    ("pages", ["private_bytes"]),
])
def test_a_leak_in_the_process_is_seen(rounds: Callable[..., FinishedRun], leak: str, seen: list[str]) -> None:
    before, after = measures(rounds("component", leak, warm_up=3, count=120))
    found = grown(before, after, 120)
    assert [name for name in found if name in seen] == seen, (before, after)


# In one prefix


@dataclass(frozen=True)
class Machine:
    """What a Windows consists of at a moment."""

    processes: Counter[str]
    server_descriptors: int
    server_kilobytes: int
    files: frozenset[str]


# What a run may leave: where the bed writes down what it sees, and the log of an installer that was ended before it had begun.
KEPT = ("trace.txt", "output.txt", "Halvoro.ARM64.log")


def processes_of(machine: Windows) -> dict[int, str]:
    """The processes of this Windows, its server among them, by their commands."""
    mark = f"WINEPREFIX={machine.prefix}".encode()
    found = {}
    for folder in Path("/proc").glob("[0-9]*"):
        try:
            if mark in (folder / "environ").read_bytes().split(b"\0"):
                command = (folder / "cmdline").read_bytes().split(b"\0")
                found[int(folder.name)] = b" ".join(command).decode("utf-8", "replace").strip()
        except OSError:  # it has ended meanwhile
            continue
    return found


def look_at(machine: Windows) -> Machine:
    """Counts everything."""
    processes = processes_of(machine)
    (server,) = (pid for pid, command in processes.items() if "wineserver" in command)
    status = Path(f"/proc/{server}/status").read_text(encoding="ascii")
    (resident,) = (line.split()[1] for line in status.splitlines() if line.startswith("VmRSS"))
    files = frozenset(str(file.relative_to(machine.folder)) for file in machine.folder.rglob("*")
                      if file.name not in KEPT)
    return Machine(Counter(processes.values()), len(os.listdir(f"/proc/{server}/fd")), int(resident), files)


# The server's memory grows in steps, with what it remembers of the registry among other things.
SERVER_KILOBYTES = 1024


def more_than(before: Machine, after: Machine) -> list[str]:
    """What the machine has more of."""
    found = [f"process {command}" for command in after.processes - before.processes]
    found += [f"file {name}" for name in sorted(after.files - before.files)]
    if after.server_descriptors > before.server_descriptors:
        found.append("descriptors of the server")
    if after.server_kilobytes > before.server_kilobytes + SERVER_KILOBYTES:
        found.append("memory of the server")
    return found


def at_rest(machine: Windows, limit: float = 20) -> Machine:
    """The machine when it has stopped to change: the server takes a moment to close what a program had."""
    until = time.monotonic() + limit
    last = look_at(machine)
    while time.monotonic() < until:
        time.sleep(0.5)
        now = look_at(machine)
        if (now.processes, now.server_descriptors, now.files) == (last.processes, last.server_descriptors, last.files):
            return now
        last = now
    return last


def settled(machine: Windows, before: Machine, limit: float = 20) -> Machine:
    """The machine when there is nothing more of anything, or at the limit: services end a while after their last use."""
    until = time.monotonic() + limit
    while more_than(before, after := look_at(machine)) and time.monotonic() < until:
        time.sleep(0.5)
    return after


def update(world: World) -> None:
    """One update, with its download."""
    (world.store / "Halvoro.ARM64.msi").unlink(missing_ok=True)
    assert world.run().exit_code == 0
    assert (world.store / "Halvoro.ARM64.msi").exists()


def crash(crashes: CrashWorld, number: int) -> None:
    """One crash. Every second report is saved, and sent by the next program that starts."""
    crashes.server.reset()
    if number % 2 == 0:
        assert crashes.run("access_violation").exit_code == CRASHED
        assert crashes.server.kinds[-1] == "short"
    else:
        with crashes.server.away():
            assert crashes.run("access_violation").exit_code == CRASHED
        assert crashes.files() == ["0.tzo", "0.tzr"]
        assert crashes.run("none").exit_code == 0
        crashes.assert_nothing_left()


def test_updates_leave_the_machine_as_it_was(world: World) -> None:
    world.offer()
    for _ in range(WARM_UP):
        update(world)
    before = at_rest(world.machine)
    for _ in range(ROUNDS if LONG else ROUNDS // 2):
        update(world)
    after = settled(world.machine, before)
    print(before.server_kilobytes, after.server_kilobytes, before.server_descriptors, after.server_descriptors)
    assert more_than(before, after) == []


@any_processor_when_short
def test_crashes_leave_the_machine_as_it_was(crashes: CrashWorld) -> None:
    for number in range(2):
        crash(crashes, number)
    before = at_rest(crashes.machine)
    for number in range(CRASHES if LONG else 2):
        crash(crashes, number)
    after = settled(crashes.machine, before)
    print(before.server_kilobytes, after.server_kilobytes, before.server_descriptors, after.server_descriptors)
    assert more_than(before, after) == []


@pytest.mark.any_processor
def test_what_stays_on_the_machine_is_seen(crashes: CrashWorld) -> None:
    crashes.begin("none").wait()
    before = at_rest(crashes.machine)
    crashes.save(0, (b"short", b"full"))
    stays = crashes.begin("none")
    crashes.server.queue = [Answer(hold_at="head")]
    crashes.server.wait_for("head")
    found = more_than(before, look_at(crashes.machine))
    crashes.server.release()
    stays.wait()
    assert [each.rsplit("/", 1)[-1].rsplit("\\", 1)[-1] for each in found] == \
        ["crash_none.exe", "0.tzo", "0.tzr", "descriptors of the server"]
