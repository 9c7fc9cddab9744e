#!/usr/bin/env python3
"""Runs every test again and again in random order: one that fails once is a defect. `./dev soak repeat` calls it, inside the room.

The unit tests run 200 times, the whole runs 10 times, and the tests of the report server 20 times. Each round prints the seed of its order, which shows the same order again:

    ./dev shell python3 tests/repeat.py --only unit-x64 --seed 1234 --times 1
"""

from __future__ import annotations

import argparse
import concurrent.futures
import os
import random
import re
import subprocess
import sys
import threading
import time
import xml.etree.ElementTree as ElementTree
from collections import Counter
from dataclasses import dataclass, field
from pathlib import Path

TREE = Path(__file__).resolve().parents[1]
BUILD = TREE / "build"
RESULTS = BUILD / "test-results/repeat"

# The seeds that the test framework accepts.
SEEDS = 99999


@dataclass(frozen=True)
class Suite:
    """Tests that are repeated: how often in all, and how often by one call, which ends within the limit of the call."""

    name: str
    times: int
    at_once: int
    limit: float


SANITIZERS = {"native": "asan", "tsan": "tsan"}

# The longest first, so that none is left alone at the end. One call of unit tests under Wine may take what bed/unit_tests.py gives it.
SUITES = (
    Suite("unit-arm64", 200, 5, 900),
    Suite("e2e-arm64", 10, 1, 3600),
    Suite("e2e-x64", 10, 1, 3600),
    Suite("reports", 20, 1, 3600),
    Suite("unit-x64", 200, 10, 900),
    Suite("tsan", 200, 5, 1800),
    Suite("native", 200, 20, 900),
)


@dataclass
class Outcome:
    """What came of a suite."""

    rounds: int = 0
    seconds: float = 0
    failed: Counter[str] = field(default_factory=Counter)


def command_of(suite: Suite, times: int, seed: int, report: Path) -> list[str]:
    """The call that runs a suite so many times, in the order that follows from the seed."""
    kind, _, architecture = suite.name.partition("-")
    if kind in ("e2e", "reports"):
        return [sys.executable, "-m", "pytest", str(TREE / "tests" / kind), *(["--arch", architecture] if architecture else []), "--shuffle",
                str(seed), "-q", "-rfE", "-p", "no:cacheprovider", f"--junit-xml={report}"]
    build = BUILD / f"{architecture or 'native'}-{'test' if architecture else SANITIZERS[kind]}"
    order = [f"--gtest_repeat={times}", "--gtest_shuffle", f"--gtest_random_seed={seed}", "--gtest_brief=1"]
    if kind == "unit":
        return [sys.executable, "-m", "bed.unit_tests", architecture, str(build / "tests/unit_tests.exe"),
                str(build / "tests/bed/windows/agent.exe"), str(report), "*", *order]
    return [str(build / "tests/unit_tests"), f"--gtest_output=xml:{report}", *order]


def failures(status: int | None, output: str, report: Path) -> Counter[str]:
    """How often each test failed in a call. One that failed without a name counts as the call itself."""
    # The framework's report is of the last round alone, its output of all of them.
    found = Counter(re.findall(r"^\[  FAILED  \] ([\w/]+\.[\w/]+)(?:, where [^\n]*)? \(\d+ ms\)", output, re.MULTILINE))
    if report.exists() and not found:
        for case in ElementTree.parse(report).iter("testcase"):
            if case.find("failure") is not None or case.find("error") is not None:
                found[f"{case.get('classname')}.{case.get('name')}"] += 1
    if not found and status != 0:
        begun = re.findall(r"^\[ RUN      \] (\S+)", output, re.MULTILINE)
        how = "did not end" if status is None else f"ended with status {status}"
        found[f"the program {how}{f', in {begun[-1]}' if begun else ''}"] += 1
    return found


def repeat(suite: Suite, times: int, seed: int, outcome: Outcome) -> None:
    """Runs a suite so many times and counts its failures."""
    begin = time.monotonic()
    while outcome.rounds < times:
        rounds = min(suite.at_once, times - outcome.rounds)
        name = f"{suite.name}-{seed}"
        report, log = RESULTS / f"{name}.xml", RESULTS / f"{name}.log"
        report.unlink(missing_ok=True)
        with log.open("wb") as output:
            try:
                status: int | None = subprocess.run(
                    command_of(suite, rounds, seed, report), cwd=TREE, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT,
                    env={**os.environ, "PYTHONPATH": str(TREE / "tests")}, timeout=suite.limit, check=False).returncode
            except subprocess.TimeoutExpired:
                status = None
        found = failures(status, log.read_text(encoding="utf-8", errors="replace"), report)
        outcome.rounds += rounds
        outcome.failed += found
        outcome.seconds = time.monotonic() - begin
        print(f"{suite.name}: {outcome.rounds} of {times} rounds, seed {seed}: {'all passed' if not found else 'FAILED'} "
              f"({outcome.seconds:.0f} s)", flush=True)
        for test, count in found.items():
            print(f"    {test}: {count} of {rounds} (log: {log})", flush=True)
        if not found:
            log.unlink()
        report.unlink(missing_ok=True)
        seed = (seed + rounds - 1) % SEEDS + 1  # the framework adds one for each round


def main() -> int:
    """Repeats, two suites side by side. The status is 1 when anything failed once."""
    names = [suite.name for suite in SUITES]
    parser = argparse.ArgumentParser(prog="tests/repeat.py", description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--only", action="append", default=[], choices=names, help="only this suite; may be given again")
    parser.add_argument("--times", type=int, help="so often (default: 200 for unit tests, 10 for whole runs, 20 for those of the report server)")
    parser.add_argument("--seed", type=int, help="the order of the first round (default: a random one)")
    options = parser.parse_args()
    suites = [suite for suite in SUITES if not options.only or suite.name in options.only]
    RESULTS.mkdir(parents=True, exist_ok=True)
    if any(suite.name == "tsan" for suite in suites):
        subprocess.run([sys.executable, "toolchain/job.py", "build", "--target", "unit_tests", "native-tsan"], cwd=TREE, check=True)
    seed = options.seed or random.SystemRandom().randint(1, SEEDS)
    outcomes = {suite.name: Outcome() for suite in suites}
    lock = threading.Lock()

    def one(suite: Suite) -> None:
        try:
            repeat(suite, options.times or suite.times, seed, outcomes[suite.name])
        except OSError as error:
            with lock:
                outcomes[suite.name].failed[f"could not be run: {error}"] += 1

    with concurrent.futures.ThreadPoolExecutor(max_workers=2) as pool:
        list(pool.map(one, suites))

    print(f"\n{'suite':12} {'rounds':>7} {'seconds':>8}  failures")
    for name, outcome in outcomes.items():
        print(f"{name:12} {outcome.rounds:7} {outcome.seconds:8.0f}  {sum(outcome.failed.values())}")
        for test, count in outcome.failed.most_common():
            print(f"    {test}: {count} of {outcome.rounds}")
    return int(any(outcome.failed for outcome in outcomes.values()))


if __name__ == "__main__":
    sys.exit(main())
