#!/usr/bin/env python3
"""Runs the tests that take too long for every change. `./dev soak` builds and calls it, inside the room."""

from __future__ import annotations

import argparse
import subprocess
import sys
import time
from dataclasses import dataclass
from pathlib import Path

TREE = Path(__file__).resolve().parents[1]

EXAMPLES = """examples:
  ./dev soak            all parts
  ./dev soak fuzz       one of them
  ./dev soak --list     the parts and their times
"""


@dataclass(frozen=True)
class Part:
    """One long test: a command that says by its status whether it passed."""

    name: str
    minutes: int  # as measured on two cores
    what: str
    command: tuple[str, ...]


PARTS = (
    Part("fuzz", 121, "every fuzz target for 30 minutes",
         (sys.executable, "toolchain/job.py", "fuzz", "--seconds", "1800")),
    Part("coverage", 15, "which lines run in unit tests and whole runs together",
         (sys.executable, "toolchain/job.py", "coverage", "--whole-runs")),
    Part("endurance", 25, "a hundred updates and a hundred crashes in one process and in one Windows, on both processors",
         (sys.executable, "tests/endurance/long.py", "endurance")),
    Part("races", 11, "ten minutes of the error reporting's threads meeting at random moments, on both processors",
         (sys.executable, "tests/endurance/long.py", "races")),
    Part("faults", 25, "every fault of a server at every request, and every reply cut after every byte",
         (sys.executable, "-m", "pytest", "tests/e2e/test_server_faults.py", "tests/e2e/test_report_server_faults.py",
          "--every-byte", "-p", "no:cacheprovider", "-q")),
    Part("switching", 5, "an offer and a push killed at every step while the program asks in a loop",
         (sys.executable, "-m", "pytest", "tests/e2e/test_switching.py", "--every-step", "-p", "no:cacheprovider", "-q")),
    Part("proof", 15, "the proof for a real Windows killed at 25 random moments, and after each change that it writes down",
         (sys.executable, "-m", "pytest", "tests/proof/test_kills.py", "--kills", "25", "--every-step", "-p", "no:cacheprovider", "-q")),
    Part("repeat", 420, "all unit tests 200 times, all whole runs 10 and those of the report server 20 times, in random order",
         (sys.executable, "tests/repeat.py")),
    Part("mutations", 40, "the product broken in one place after another, which the tests must see",
         (sys.executable, "tests/mutations/run.py")),
)


def main() -> int:
    """Runs the parts that are asked for, one after another, and prints the result of each."""
    parser = argparse.ArgumentParser(prog="./dev soak", description=__doc__, epilog=EXAMPLES,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("parts", nargs="*", metavar="PART", help=f"of {', '.join(part.name for part in PARTS)} (default: all)")
    parser.add_argument("--list", action="store_true", help="list the parts and their times")
    options = parser.parse_args()
    known = {part.name for part in PARTS}
    if unknown := [name for name in options.parts if name not in known]:
        parser.error(f"there is no part {unknown[0]}; there are {', '.join(sorted(known))}")
    if options.list:
        for part in PARTS:
            print(f"{part.name:12} {part.minutes:4} min  {part.what}")
        return 0

    outcomes = []
    for part in PARTS:
        if options.parts and part.name not in options.parts:
            continue
        print(f"== {part.name}: {part.what} (about {part.minutes} min)", flush=True)
        begin = time.monotonic()
        status = subprocess.run(part.command, cwd=TREE, stdin=subprocess.DEVNULL, check=False).returncode
        outcomes.append((part.name, status, time.monotonic() - begin))
    print()
    for name, status, seconds in outcomes:
        print(f"{name:12} {'passed' if status == 0 else f'FAILED with status {status}'} in {seconds / 60:.1f} min")
    return int(any(status for _, status, _ in outcomes))


if __name__ == "__main__":
    sys.exit(main())
