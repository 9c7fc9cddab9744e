"""Measures the report server, side by side with bare programs that write the same rows with the same durability."""

from __future__ import annotations

import json
import os
import statistics
import subprocess
import sys
import tempfile
import time
from collections.abc import Callable, Iterator
from contextlib import ExitStack, contextmanager
from pathlib import Path

from verdict import Verdict

TREE = Path(__file__).resolve().parents[1]
sys.path.append(str(TREE / "tests/reports"))

import running  # noqa: E402  (the path to it is set above)
from bed.postgres import Postgres, free_port  # noqa: E402

RELEASE = TREE / "build/native-release"
SYMBOLS = TREE / "build/x64-test/src/updater"
CONNECTIONS = 32
# What the rates and the half load are measured with, and how many crashes a machine at a customer's really has.
REPORTS, PLACES = 3000, 100
FEW, MANY = 1000, 1000000

_seed = 0


def load(ports: list[int], reports: int, rate: float = 0, places: int = PLACES) -> dict[str, float]:
    """Sends reports that nobody has sent before."""
    global _seed  # noqa: PLW0603  (bytes must not come twice)
    _seed += 1
    done = subprocess.run([str(RELEASE / "bench/reports_load"), ",".join(map(str, ports)), str(CONNECTIONS), str(reports), str(rate), str(_seed),
                           str(places)], capture_output=True, text=True, timeout=1800, check=True)
    return dict(json.loads(done.stdout))


@contextmanager
def bare(folder: Path, how: str) -> Iterator[int]:
    """The bare program; its port."""
    folder.mkdir()
    port = free_port()
    process = subprocess.Popen([str(RELEASE / "bench/reports_bare"), str(port), str(folder / "bare.db"), str(folder), how],
                               stdin=subprocess.DEVNULL)
    try:
        running.wait_for_port(port, process)
        yield port
    finally:
        process.kill()
        process.wait(30)


@contextmanager
def server(database: str, folder: Path) -> Iterator[running.Server]:
    """The server as it is released."""
    folder.mkdir(exist_ok=True)
    with running.Server(database, folder, program=RELEASE / "tools/reports/lumaris-reports") as started:
        yield started


def memory_of(process: int) -> float:
    """Resident, in MB."""
    for line in Path(f"/proc/{process}/status").read_text(encoding="ascii").splitlines():
        if line.startswith("VmRSS:"):
            return int(line.split()[1]) / 1024
    return 0


def milliseconds(what: Callable[[], object]) -> float:
    """The median of some calls."""
    times = []
    for _ in range(25):
        begin = time.monotonic()
        what()
        times.append((time.monotonic() - begin) * 1000)
    return statistics.median(times)


def processor_seconds() -> tuple[float, float]:
    """What all processors of the machine have worked so far, and what they have idled."""
    fields = [int(field) for field in Path("/proc/stat").read_text(encoding="ascii").splitlines()[0].split()[1:9]]
    ticks = os.sysconf("SC_CLK_TCK")
    idle = fields[3] + fields[4]
    return (sum(fields) - idle) / ticks, idle / ticks


def rates(folder: Path, rounds: int) -> list[Verdict]:
    """Reports a second over SQLite, and the answers under half of that load."""
    with ExitStack() as stack:
        ours = [stack.enter_context(server(str(folder / "sqlite/reports.db"), folder / "sqlite")).port]
        each = [stack.enter_context(bare(folder / "each", "each"))]
        together = [stack.enter_context(bare(folder / "together", "together"))]
        contestants = [ours, each, together]
        for ports in contestants:
            load(ports, 500)  # not counted: all start warm
        found: dict[int, list[float]] = {ports[0]: [] for ports in contestants}
        for turn in range(rounds):
            for step in range(len(contestants)):
                ports = contestants[(turn + step) % len(contestants)]
                found[ports[0]].append(load(ports, REPORTS)["rate"])
        rate, bare_rate, together_rate = (statistics.median(found[ports[0]]) for ports in contestants)
        over_each, over_together = (statistics.median(a / b for a, b in zip(found[ours[0]], found[other[0]], strict=True))
                                    for other in (each, together))
        print(f"  SQLite, durable: {rate:.0f} reports a second, bare with one transaction each {bare_rate:.0f}, "
              f"bare with what has arrived in one {together_rate:.0f}")
        verdicts = [Verdict("reports a second, durable, SQLite: over a bare program's with one transaction each", f"{over_each:.2f}", "at least 0.80",
                            over_each >= 0.8),
                    Verdict("the same over a bare program's that writes what has arrived in one transaction", f"{over_together:.2f}",
                            "at least 0.80", over_together >= 0.8)]
        # Half of what every contestant can take.
        half = min(rate, together_rate) / 2
        slow = [(load(ours, REPORTS, half)["p99"], load(together, REPORTS, half)["p99"]) for _ in range(rounds)]
        more = statistics.median(a - b for a, b in slow)
        print(f"  99th percentile of an answer at {half:.0f} reports a second: {statistics.median(a for a, _ in slow):.1f} ms, bare "
              f"{statistics.median(b for _, b in slow):.1f} ms")
        verdicts.append(Verdict("answer under half of that load, 99th percentile: over the bare one's", f"{more:+.1f} ms", "under 50 ms more", more < 50))
    return verdicts


def two_servers(folder: Path, rounds: int) -> list[Verdict]:
    """Reports a second over PostgreSQL, with two servers and with one."""
    with ExitStack() as stack:
        postgres = stack.enter_context(Postgres(durable=True, folder=folder))
        one = [stack.enter_context(server(postgres.new_database(), folder / "one")).port]
        shared = postgres.new_database()
        two = [stack.enter_context(server(shared, folder / name)).port for name in ("first", "second")]
        load(one, 500), load(two, 500)
        ratios, found, busy = [], [], []
        for _ in range(rounds):
            single = load(one, REPORTS)["rate"]
            worked, idle = processor_seconds()
            double = load(two, REPORTS)["rate"]
            worked, idle = (now - then for now, then in zip(processor_seconds(), (worked, idle), strict=True))
            busy.append(worked / (worked + idle))
            found.append((single, double))
            ratios.append(double / single)
    ratio, spent = statistics.median(ratios), statistics.median(busy)
    print(f"  PostgreSQL, durable: one server {statistics.median(a for a, _ in found):.0f} reports a second, two "
          f"{statistics.median(b for _, b in found):.0f}; with two, the machine's processors work {spent:.0%} of the time")
    return [Verdict("reports a second, PostgreSQL: two servers over one", f"{ratio:.2f}", "at least 1.50, or processors spent",
                    ratio >= 1.5 or spent >= 0.9)]


def stored(folder: Path, many: int) -> list[Verdict]:
    """The pages over few and over many stored reports."""
    body = folder / "report.bin"
    body.write_bytes(running.short_report())
    times: dict[int, float] = {}
    front: dict[int, float] = {}
    with ExitStack() as stack:
        started = {}
        for count in (FEW, many):
            where = folder / f"stored-{count}"
            where.mkdir()
            begin = time.monotonic()
            subprocess.run([str(RELEASE / "bench/reports_fill"), str(where / "reports.db"), str(count), str(body)], check=True, timeout=3600)
            print(f"  {count:,} reports stored in {time.monotonic() - begin:.0f} s, {(where / 'reports.db').stat().st_size / 1e6:.0f} MB")
            started[count] = stack.enter_context(server(str(where / "reports.db"), where))
        for count, each in started.items():
            times[count] = milliseconds(lambda each=each: each.ask("/group/1"))  # type: ignore[misc]
            front[count] = milliseconds(lambda each=each: each.ask("/"))  # type: ignore[misc]
            assert each.ask("/group/1").text.count('href="/report/') == 50
    print(f"  page of a group: {times[FEW]:.1f} ms of {FEW:,}, {times[many]:.1f} ms of {many:,}; of all groups {front[FEW]:.1f} and {front[many]:.1f} ms")
    return [Verdict(f"page of a group over {many:,} stored reports", f"{times[many]:.1f} ms", "under 100 ms", times[many] < 100),
            Verdict("the same over that of a thousand", f"{times[many] / times[FEW]:.2f}", "under 2", times[many] < 2 * times[FEW])]


def symbols() -> list[Verdict]:
    """Names and lines of a report with fifty frames."""
    done = subprocess.run([str(RELEASE / "bench/reports_symbols"), str(SYMBOLS), "lumaris.exe", "200"], capture_output=True, text=True, check=True,
                          timeout=600)
    found = json.loads(done.stdout)
    print(f"  fifty frames of lumaris.exe: {found['cold']:.1f} ms when nothing is loaded, then {found['median']:.2f} ms, at most "
          f"{found['most']:.1f} ms; {found['named']:.0%} have a line")
    return [Verdict("names and lines of a report of 50 frames, warm", f"{found['median']:.2f} ms", "under 20 ms",
                    found["median"] < 20 and found["named"] > 0.9)]


def memory(folder: Path, many: int) -> list[Verdict]:
    """The server's memory after few and after many reports that it has taken in, of more different crashes than it remembers."""
    with server(str(folder / "memory/reports.db"), folder / "memory") as started:
        load([started.port], FEW)
        before = memory_of(started.process)
        for _ in range(10):
            load([started.port], many // 10, places=30000)
        after = memory_of(started.process)
    print(f"  memory: {before:.0f} MB after {FEW:,} reports, {after:.0f} MB after {many:,} more")
    return [Verdict(f"memory of the server after {many:,} reports: over that after a thousand", f"{after - before:+.1f} MB", "under 64 MB more",
                    after - before < 64)]


def measure(rounds: int, *, at_length: bool) -> list[Verdict]:
    """All of it; at length with a million reports, which takes ten minutes, otherwise with 100,000."""
    many = MANY if at_length else MANY // 10
    # On a disk: what is durable in memory costs nothing.
    with tempfile.TemporaryDirectory(dir=TREE / "build", prefix="bench-reports-") as name:
        folder = Path(name)
        # PostgreSQL refuses to run as root, and its user must reach its folder.
        folder.chmod(0o755)
        return [*rates(folder, rounds), *two_servers(folder, rounds), *stored(folder, many), *symbols(), *memory(folder, many)]
