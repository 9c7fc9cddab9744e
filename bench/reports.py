#!/usr/bin/env python3
"""Measures the report server, side by side with a bare program that writes the same rows.

example:
  ./dev build native-release
  ./dev shell bench/reports.py
  ./dev shell bench/reports.py --stored 100000
"""

from __future__ import annotations

import argparse
import json
import os
import sqlite3
import statistics
import subprocess
import sys
import tempfile
import time
from collections.abc import Callable
from contextlib import ExitStack
from pathlib import Path

TREE = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(TREE / "tests/reports"))

import running  # noqa: E402  (the path to it is set above)

RELEASE = TREE / "build/native-release"
CONNECTIONS = 32
ROUNDS = 5


class Bare:
    """The bare program."""

    def __init__(self, folder: Path) -> None:
        self.port = running.free_port()
        folder.mkdir()
        self._process = subprocess.Popen([str(RELEASE / "bench/reports_bare"), str(self.port), str(folder / "bare.db"), str(folder)],
                                         stdin=subprocess.DEVNULL)
        time.sleep(1)

    def __enter__(self) -> Bare:
        return self

    def __exit__(self, *_: object) -> None:
        self._process.kill()
        self._process.wait(30)


_seed = 0


def load(port: int, reports: int, rate: float = 0) -> dict[str, float]:
    """Sends reports that nobody has sent before."""
    global _seed  # noqa: PLW0603  (bytes must not come twice)
    _seed += 1
    done = subprocess.run([str(RELEASE / "bench/reports_load"), str(port), str(CONNECTIONS), str(reports), str(rate), str(_seed)],
                          capture_output=True, text=True, timeout=600, check=True)
    return dict(json.loads(done.stdout))


def tell(what: str, measured: str, to_reach: str, reached: bool) -> None:
    """One line."""
    print(f"{what:75} {measured:>14}   {to_reach:>24}  {'reached' if reached else 'MISSED'}", flush=True)


def memory_of(process: int) -> float:
    """Resident, in MB."""
    for line in Path(f"/proc/{process}/status").read_text(encoding="ascii").splitlines():
        if line.startswith("VmRSS:"):
            return int(line.split()[1]) / 1024
    return 0


def milliseconds(what: Callable[[], object]) -> float:
    """The median of some calls."""
    times = []
    for _ in range(15):
        begin = time.monotonic()
        what()
        times.append((time.monotonic() - begin) * 1000)
    return statistics.median(times)


def fill(database: Path, count: int) -> None:
    """Multiplies what is there up to this many reports, with everything that is counted of them."""
    with sqlite3.connect(database) as rows:
        there, = rows.execute("SELECT COUNT(*) FROM reports").fetchone()
        groups, = rows.execute("SELECT COUNT(*) FROM groups").fetchone()
        sample = rows.execute("SELECT common, group_id, is_full, received, address, language, machine, program, stamp, is_unnamed, body FROM reports "
                              "LIMIT 1000").fetchall()
        rows.executemany("INSERT INTO reports (digest, common, group_id, is_full, received, address, language, machine, program, stamp, is_unnamed, body) "
                         "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)", ((os.urandom(32), *sample[index % len(sample)]) for index in range(count - there)))
        rows.execute("UPDATE groups SET reports = reports + ?", ((count - there) // groups,))


def measure(folder: Path, stored: int) -> None:
    """All of it."""
    running.PROGRAM = RELEASE / "tools/reports/lumaris-reports"
    (folder / "server").mkdir()
    with ExitStack() as stack:
        server = stack.enter_context(running.Server(str(folder / "server/reports.db"), folder / "server"))
        bare = stack.enter_context(Bare(folder / "bare"))
        load(server.port, 500), load(bare.port, 500)  # warm
        pairs = [(load(server.port, 3000)["rate"], load(bare.port, 3000)["rate"]) for _ in range(ROUNDS)]
        ratio = statistics.median(ours / theirs for ours, theirs in pairs)
        rate = statistics.median(ours for ours, _ in pairs)
        tell("reports a second, durable, SQLite: over the bare program's", f"{ratio:.2f}", "at least 0.80", ratio >= 0.8)
        print(f"    ({rate:.0f} a second, and {statistics.median(theirs for _, theirs in pairs):.0f})")
        half = min(rate, statistics.median(theirs for _, theirs in pairs)) / 2
        slow = statistics.median(load(server.port, 2000, half)["p99"] - load(bare.port, 2000, half)["p99"] for _ in range(3))
        tell(f"answer under half of that load ({half:.0f} a second), 99th percentile: over the bare one's", f"{slow:+.1f} ms", "under 50 ms more", slow < 50)
    with running.Server(str(folder / "server/reports.db"), folder / "server") as server:
        few = milliseconds(lambda: server.ask("/group/1"))
        front = milliseconds(lambda: server.ask("/"))
        before = memory_of(server.process)
    fill(folder / "server/reports.db", stored)
    with running.Server(str(folder / "server/reports.db"), folder / "server") as server:
        many = milliseconds(lambda: server.ask("/group/1"))
        tell(f"page of a group over {stored:,} stored reports", f"{many:.1f} ms", "under 100 ms", many < 100)
        tell("the same over that with some thousand reports", f"{many / few:.2f}", "under 2", many < 2 * few)
        front_many = milliseconds(lambda: server.ask("/"))
        tell("page of all groups, likewise", f"{front_many:.1f} ms", "under 100 ms", front_many < 100)
        load(server.port, 3000)
        more = memory_of(server.process) - before
        tell(f"memory of the server with {stored:,} reports: over that with some thousand", f"{more:+.1f} MB", "under 64 MB more", more < 64)
        print(f"    (all groups with few reports: {front:.1f} ms)")


def main() -> int:
    """Runs it in a folder of its own."""
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--stored", type=int, default=1000000, help="stored reports for the pages and the memory (default: a million)")
    options = parser.parse_args()
    # On a disk: what is durable in memory costs nothing.
    with tempfile.TemporaryDirectory(dir=TREE / "build", prefix="bench-reports-") as folder:
        measure(Path(folder), options.stored)
    return 0


if __name__ == "__main__":
    sys.exit(main())
