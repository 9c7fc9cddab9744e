"""The proof killed at any moment: the next start puts back what it had changed, and nothing is left."""

from __future__ import annotations

import random
import time
from contextlib import suppress
from pathlib import Path

import pytest
from proving import ELEVATED, JOURNAL, PROVED, command_line, nothing_left, prove

from bed.errors import BedError
from bed.windows import Started, Windows, windows_path

pytestmark = pytest.mark.any_processor

# About how long each check takes, in seconds: moments are spread over that. One that comes too late kills nothing, which is right, too.
SECONDS = {"crashes": 20, "network-gate": 1, "updates": 50, "tls": 3, "saved-reports": 15, "installation": 12}

# The least number of entries that each check makes: some come only with files that the machine does not have.
ENTRIES = {"crashes": 2, "network-gate": 2, "updates": 6, "tls": 4, "saved-reports": 2, "installation": 8}


def kill(started: Started) -> None:
    """Ends the proof alone, where it stands, and none of the programs that it has started."""
    with suppress(BedError):  # it has come to its end meanwhile
        started.kill()
    assert started.ended(30) is not None


def put_back(machine: Windows, folder: Path, at: str) -> None:
    """Starts the proof again, only to put back what the killed one has changed."""
    run = machine.run(f'"{windows_path(folder / "proof.exe")}" --clean', limit=300)
    assert run.exit_code == PROVED, f"{at}: {run.output}"
    assert not machine.unix_path(JOURNAL).exists(), at


def test_nothing_is_left_after_a_kill_at_a_random_moment(machine: Windows, folder: Path, kill_seed: int, kill_number: int) -> None:
    """Sometimes the next start is killed, too, while it puts things back."""
    chance = random.Random(f"{kill_seed} {kill_number}")
    check = chance.choice(sorted(SECONDS))
    moment = chance.uniform(0, SECONDS[check])
    again = chance.choice((None, None, chance.uniform(0, 3)))
    at = f"seed {kill_seed}, kill {kill_number}: {check} after {moment:.3f} s" + (f", and the next start after {again:.3f} s" if again else "")
    print(at)
    with nothing_left(machine, folder):
        started = machine.begin("proof", command_line(machine, folder, f"--only {check}"))
        if started.ended(moment) is None:
            kill(started)
        if again is not None:
            started = machine.begin("proof", f'"{windows_path(folder / ELEVATED)}" --clean')
            if started.ended(again) is None:
                kill(started)
        if kill_number % 2:
            put_back(machine, folder, at)
        else:
            run = prove(machine, folder, "--only network-gate")
            assert run.exit_code == PROVED, f"{at}:\n{run.output}"


def test_nothing_is_left_after_a_kill_at_each_entry_of_the_list(machine: Windows, folder: Path, stepped_check: str) -> None:
    """The list names a change before it is made: the kill comes before, in or after it."""
    changes = machine.unix_path(JOURNAL) / "changes.txt"
    steps = 0
    with nothing_left(machine, folder):
        while True:
            started = machine.begin("proof", command_line(machine, folder, f"--only {stepped_check}"))
            if not comes_to(changes, steps + 1, started):
                break
            kill(started)
            steps += 1
            put_back(machine, folder, f"{stepped_check}, entry {steps}")
    assert steps >= ENTRIES[stepped_check]


def comes_to(changes: Path, entries: int, started: Started) -> bool:
    """Waits until the list has so many entries. False when the proof comes to its end without."""
    until = time.monotonic() + 300
    while time.monotonic() < until:
        for _ in range(50):
            try:
                if changes.read_bytes().count(b"\n") >= entries:
                    return True
            except FileNotFoundError:
                pass
            time.sleep(0.002)
        if started.ended() is not None:
            return False
    raise AssertionError(f"neither {entries} entries nor an end")
