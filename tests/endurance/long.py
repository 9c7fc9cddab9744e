#!/usr/bin/env python3
"""Runs tests of leaks and races in their long form, for both processors side by side. `./dev soak` calls it, inside the room.

    long.py endurance    a hundred updates and a hundred crashes in one process and in one Windows
    long.py races        ten minutes of threads that meet at random moments
"""

from __future__ import annotations

import os
import subprocess
import sys
import time
from pathlib import Path

TREE = Path(__file__).resolve().parents[2]
RESULTS = TREE / "build/test-results"

# What each of them takes from the environment (tests/e2e/test_endurance.py, test_races.py).
SETTINGS = {"endurance": {"LUMARIS_ROUNDS": "100"}, "races": {"LUMARIS_RACE_MINUTES": "10"}}
LIMIT = 7200.0


def main() -> int:
    """Runs the tests that are named; the status is 0 when they passed for both processors."""
    if len(sys.argv) != 2 or sys.argv[1] not in SETTINGS:
        print(__doc__)
        return 2
    name = sys.argv[1]
    RESULTS.mkdir(parents=True, exist_ok=True)
    begin = time.monotonic()
    running = {}
    for architecture in ("x64", "arm64"):
        log = RESULTS / f"{name}-{architecture}.log"
        with log.open("wb") as output:
            running[architecture] = log, subprocess.Popen(
                [sys.executable, "-m", "pytest", str(TREE / f"tests/e2e/test_{name}.py"), "--arch", architecture,
                 "-p", "no:cacheprovider", "-q", "-rP"],
                cwd=TREE, env={**os.environ, **SETTINGS[name]}, stdin=subprocess.DEVNULL, stdout=output,
                stderr=subprocess.STDOUT)
    passed = True
    for architecture, (log, process) in running.items():
        try:
            status = process.wait(max(1.0, begin + LIMIT - time.monotonic()))
        except subprocess.TimeoutExpired:
            process.terminate()
            status = process.wait()
        last = log.read_text(encoding="utf-8", errors="replace").strip().splitlines()[-1:]
        print(f"{name} {architecture}: status {status} after {time.monotonic() - begin:.0f} s: {' '.join(last)} (log: {log})",
              flush=True)
        passed = passed and status == 0
    return 0 if passed else 1


if __name__ == "__main__":
    sys.exit(main())
