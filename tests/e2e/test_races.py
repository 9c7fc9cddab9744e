"""The threads of the error reporting against each other, at moments picked at random.

Each round starts a program whose start-up thread sends what earlier crashes left, to a server that is quick, slow, unwilling or away,
while its main thread crashes, ends, notes, installs or removes. A round is made from its number alone: `LUMARIS_RACE=17` does that one
again. `LUMARIS_RACE_MINUTES` goes on for so long (`./dev soak races` sets 10).
"""

from __future__ import annotations

import os
import random
import shutil
import signal
import time
import zlib
from collections.abc import Callable
from dataclasses import dataclass, replace

import pytest

from bed.errors import BedError
from bed.report_server import BODY, FULL_WANTED, HALF, HEAD, Answer
from bed.windows import FinishedRun, windows_path
from crash_world import CRASHED, CrashBed, CrashWorld

MINUTES = float(os.environ.get("LUMARIS_RACE_MINUTES", "0"))
FIRST = int(os.environ.get("LUMARIS_RACE", "1"))
ROUNDS = {"x64": 10, "arm64": 4}

# Longer than all time-outs of a program's life together: 30 s for the start-up thread, then a report that cannot be sent.
HANG = 150

CRASHES = ("fault", "throw", "abort", "invalid")

# What the main thread does. One of a group is what ends the process.
ENDS = (
    ("return",), ("exit",), ("end",), ("wait", "return"), ("wait", "exit"),
    ("CRASH",), ("note", "CRASH"), ("wait", "CRASH"), ("install", "CRASH"), ("install", "wait", "return"),
    ("remove", "return"), ("remove", "exit"), ("remove", "install", "return"), ("remove", "install", "CRASH"),
    ("remove", "CRASH"), ("pause", "remove", "pause", "install", "wait", "CRASH"),
)

SERVERS: dict[str, Callable[[random.Random], list[Answer]]] = {
    "quick": lambda _: [],
    "slow": lambda choice: [Answer(wait=choice.choice((0.05, 0.1, 0.2, 1))) for _ in range(8)],
    "wants more": lambda choice: [FULL_WANTED, Answer(wait=choice.choice((0, 0.1)))] * 4,
    "unwilling": lambda _: [Answer(status=503, body=b"<html></html>", content_type="text/html")] * 8,
    "cuts the request": lambda choice: [Answer(cut_at=choice.choice((HEAD, HALF)))] + [Answer()] * 7,
    "cuts before the reply": lambda _: [Answer(cut_at=BODY)] + [Answer()] * 7,
}


@dataclass(frozen=True)
class Round:
    """What happens in a round."""

    number: int
    pending: int
    server: str
    answers: tuple[Answer, ...]
    delay: int
    """Microseconds."""
    noters: int
    crashers: int
    deeds: tuple[str, ...]

    @staticmethod
    def make(number: int) -> Round:
        """The round of this number, always the same."""
        choice = random.Random(number)
        server = choice.choice([*SERVERS, "away"])
        answers = tuple(SERVERS[server](choice)) if server in SERVERS else ()
        delay = choice.choice((0, int(10 ** choice.uniform(2, 6))))
        crashers = choice.choice((0, 0, 0, 1, 3))
        # A crash of another thread meets each end, or is waited for.
        end = choice.choice((*ENDS, ("sleep",))) if crashers else choice.choice(ENDS)
        deeds = tuple(choice.choice(CRASHES) if deed == "CRASH" else deed for deed in end if deed != "return")
        return Round(number, choice.choice((0, 1, 1, 2)), server, answers, delay, choice.choice((0, 0, 1, 3)), crashers, deeds)

    @property
    def crashes(self) -> bool:
        """Main crashes."""
        return bool(self.deeds) and self.deeds[-1] in CRASHES

    @property
    def removed(self) -> bool:
        """The component may be removed when a crash comes: by name or, at exit, by itself."""
        return "remove" in self.deeds or not (self.crashes or "sleep" in self.deeds)

    def exit_codes(self) -> set[int]:
        """How the program may end."""
        if self.crashes and not self.removed and not self.crashers:
            return {CRASHED}
        if not self.crashes and not self.crashers:
            return {0}
        allowed = {CRASHED}
        if not self.crashes:
            allowed.add(0)
        if self.removed:
            # Without the component the system, and the C runtime, end the process: for a fault, for abort, for an invalid parameter.
            allowed |= {0xC0000005, 3, 0xC0000417, 0xC0000409}
            # The C runtime of Wine goes on after an invalid parameter that nobody handles.
            allowed |= {0} if "invalid" in self.deeds else set()
        return allowed

    def must_report(self) -> bool:
        """A crash comes while the component is there, and nothing else ends the process."""
        return (self.crashes or bool(self.crashers)) and not self.removed


def kind_of(body: bytes) -> str | None:
    """"short" or "full", or None for anything but a complete report."""
    stream = zlib.decompressobj()
    try:
        content = stream.decompress(body)
    except zlib.error:
        return None
    return {b"TZO1": "short", b"TZR1": "full"}.get(content[:4]) if stream.eof and not stream.unused_data else None


Pair = tuple[bytes, bytes]


@pytest.fixture(scope="module")
def made_pairs() -> list[Pair]:
    """The files of saved reports, which the tests share: a crash for each of them would take seconds."""
    return []


@pytest.fixture
def pairs(crashes: CrashWorld, made_pairs: list[Pair]) -> list[Pair]:
    """The files of two crashes, which differ."""
    if not made_pairs:
        with crashes.server.away():
            crashes.run("access_violation", notes=["a crash"])
        short, full = crashes.pair(0)
        for name in crashes.files():
            (crashes.temp / name).unlink()
        # The other is the same crash in other bytes: compressed less.
        made_pairs += [(short, full), (less_compressed(short), less_compressed(full))]
        assert made_pairs[0][0] != made_pairs[1][0]
    return made_pairs


def less_compressed(report: bytes) -> bytes:
    """The same report in other bytes."""
    return zlib.compress(zlib.decompress(report), 1)


def perform(crashes: CrashWorld, made: Round, pairs: list[Pair]) -> FinishedRun:
    """Runs the program of a round."""
    crashes.server.reset()
    for name in crashes.files():
        (crashes.temp / name).unlink()
    for number in range(made.pending):
        crashes.save(number, pairs[number])
    crashes.server.queue = list(made.answers)
    line = " ".join((f'"{windows_path(crashes.machine.folder / "races.exe")}"', str(made.delay), str(made.noters),
                     str(made.crashers), *made.deeds))
    if made.server == "away":
        with crashes.server.away():
            return crashes.machine.run(line, limit=HANG)
    return crashes.machine.run(line, limit=HANG)


def complaints(crashes: CrashWorld, made: Round, run: FinishedRun, pairs: list[Pair]) -> list[str]:
    """What is wrong with a round that has ended."""
    wrong = []
    if run.exit_code is None:
        return ["it hangs"]
    if run.exit_code not in made.exit_codes():
        wrong.append(f"exit code 0x{run.exit_code:08X}")
    wrong += [line for line in run.output.splitlines() if line.startswith("exception ")]

    # A process that is ended in the middle of saving leaves what it had written by then; nothing else does.
    may_be_cut = "end" in made.deeds and made.crashers > 0
    names = [name for name in crashes.files() if name != "Odgovor.html"]
    saved = {name: (crashes.temp / name).read_bytes() for name in names}
    for name, body in saved.items():
        if kind_of(body) != {"tzo": "short", "tzr": "full"}[name[-3:]] and not may_be_cut:
            wrong.append(f"{name} is not whole")
        elif kind_of(body):
            crashes.read(body)
        if name.endswith(".tzo") and name[:-3] + "tzr" not in saved and not may_be_cut:
            wrong.append(f"{name} has no full report")
    arrived = {each.body for each in crashes.server.requests if each.whole}
    for number in range(made.pending):
        short, _ = pairs[number]
        if short not in arrived and short not in saved.values():
            wrong.append(f"the saved report {number} is lost")

    known = {short for short, _ in pairs}
    new = {body for body in (*arrived, *saved.values()) if kind_of(body) == "short" and body not in known}
    if made.must_report() and not new:
        wrong.append("the crash has no report")
    if len(new) > 1 and not may_be_cut:
        wrong.append(f"{len(new)} reports of one crash")
    if new and not made.crashes and not made.crashers:
        wrong.append("a report without a crash")
    return wrong


def next_start(crashes: CrashWorld) -> list[str]:
    """What is wrong with a start after the round: it has to send what is there."""
    crashes.server.reset()
    left = [(crashes.temp / name).read_bytes() for name in crashes.files() if name.endswith(".tzo")]
    run = crashes.machine.run(f'"{windows_path(crashes.machine.folder / "races.exe")}" 0 0 0 wait', limit=HANG)
    wrong = [] if run.exit_code == 0 else [f"the next start ends with {run.exit_code}"]
    if sorted(left) != sorted(each.body for each in crashes.server.requests):
        wrong.append(f"the next start sends {crashes.server.kinds} where {len(left)} are saved")
    return wrong + [f"{name} remains" for name in crashes.files() if name.endswith(".tzo")]


@pytest.mark.parametrize(("lock", "exit_code"), [
    ("loader", 0), ("heap", 0), ("loader-for-ever", CRASHED), ("heap-for-ever", CRASHED)])
def test_a_program_ends_when_its_sender_holds_a_lock_of_the_system(crashes: CrashWorld, crash_bed: CrashBed, lock: str,
                                                                   exit_code: int) -> None:
    file = crashes.machine.folder / "ends_while_locked.exe"
    shutil.copyfile(crash_bed.programs.parent / "stress/ends_while_locked.exe", file)
    assert crashes.machine.run(f'"{windows_path(file)}" {lock}', limit=40).exit_code == exit_code


@pytest.fixture
def program(crashes: CrashWorld, crash_bed: CrashBed) -> None:
    """The program of the rounds is there."""
    shutil.copyfile(crash_bed.programs.parent / "stress/races.exe", crashes.machine.folder / "races.exe")


@pytest.mark.any_processor
@pytest.mark.usefixtures("program")
def test_what_goes_wrong_in_a_round_is_seen(crashes: CrashWorld, pairs: list[Pair]) -> None:
    quiet = Round(0, 1, "away", (), 0, 0, 0, ("wait",))
    run = perform(crashes, quiet, pairs)
    assert complaints(crashes, quiet, run, pairs) == []
    assert complaints(crashes, replace(quiet, deeds=("fault",)), run, pairs) == \
        ["exit code 0x00000000", "the crash has no report"]
    (crashes.temp / "1.tzo").write_bytes(zlib.compress(b"TZO1" + bytes(8)))
    (crashes.temp / "1.tzr").write_bytes(pairs[1][1])
    with pytest.raises(BedError):  # whole as a stream, and no report
        complaints(crashes, quiet, run, pairs)
    (crashes.temp / "1.tzo").write_bytes(pairs[1][0][:-1])
    (crashes.temp / "1.tzr").unlink()
    assert complaints(crashes, quiet, run, pairs) == ["1.tzo is not whole", "1.tzo has no full report"]
    (crashes.temp / "0.tzo").write_bytes(pairs[1][0])
    (crashes.temp / "1.tzo").unlink()
    assert complaints(crashes, quiet, run, pairs) == ["the saved report 0 is lost"]

    stray = replace(quiet, deeds=("stray", "wait"))
    (found,) = complaints(crashes, stray, perform(crashes, stray, pairs), pairs)
    assert found.startswith("exception E0000BAD ")
    assert complaints(crashes, quiet, replace(run, exit_code=None), pairs) == ["it hangs"]


@pytest.mark.usefixtures("program")
def test_no_moment_is_the_wrong_one(crashes: CrashWorld, pairs: list[Pair]) -> None:
    if MINUTES:
        signal.alarm(int(MINUTES * 60) + 600)
    begin = time.monotonic()
    wrong = {}
    number = FIRST
    while True:
        made = Round.make(number)
        run = perform(crashes, made, pairs)
        found = complaints(crashes, made, run, pairs) + next_start(crashes)
        print(f"{made.number}: {made.pending} saved, server {made.server}, after {made.delay} us, {made.noters} note, "
              f"{made.crashers} crash, main: {' '.join(made.deeds) or 'return'}: 0x{run.exit_code or 0:08X} {run.end - run.begin:.2f} s {found}", flush=True)
        if found:
            wrong[number] = found
        number += 1
        if "LUMARIS_RACE" in os.environ and not MINUTES:
            break
        if time.monotonic() - begin > MINUTES * 60 and number >= FIRST + ROUNDS[crashes.machine.architecture]:
            break
    print(f"{number - FIRST} rounds in {time.monotonic() - begin:.0f} s")
    assert wrong == {}


@pytest.mark.any_processor
def test_a_crash_beside_a_sender_of_the_full_report_of_its_number_keeps_its_short_one(
        crashes: CrashWorld, pairs: list[Pair]) -> None:
    """The number is free once the short report has gone, and the full one of that number is still open."""
    crashes.save(0, pairs[0])
    crashes.server.queue = [FULL_WANTED, Answer(hold_at=HEAD), Answer(status=503, body=b"<html></html>", content_type="text/html")]
    sender = crashes.begin("none")
    crashes.server.wait_for(HEAD, number=2)
    assert crashes.run("access_violation").exit_code == CRASHED
    short, full = crashes.pair(0)
    assert (crashes.read(short).kind, short != pairs[0][0], full) == ("short", True, pairs[0][1])
    crashes.server.release()
    assert sender.wait().exit_code == 0
    # The sender has deleted what it sent; the crash's own full report could not be made.
    assert crashes.files() == ["0.tzo", "Odgovor.html"]
    crashes.server.reset()
    assert crashes.run("none").exit_code == 0
    assert crashes.server.bodies("short") == [short]
