"""Measures the numbers that we promise and says of each whether it is reached.

Everything is compared side by side in one run: the product and all that it is compared with take turns in one rotation, and the
median of each round's ratio is what counts, so that a busy machine slows all alike. The spread beside it is that of the middle half
of the rounds. Absolute times are printed for orientation only.
"""

from __future__ import annotations

import argparse
import json
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
import zlib
from collections.abc import Callable
from contextlib import ExitStack
from dataclasses import dataclass
from pathlib import Path

import pefile
import publishing
import report_server
import size_report
from plotting import plots, results
from verdict import Verdict

TREE = Path(__file__).resolve().parents[1]
sys.path[:0] = [str(TREE / "tests"), str(TREE / "tools/installer")]

from bed import certificates, isolation, settings, update_server, version, windows  # noqa: E402  (the path to it is set above)
from bed.report_server import BODY, FULL_WANTED, HEAD, REPLIED, Answer, ReportServer, make_report_server  # noqa: E402
from bed.services import Nginx  # noqa: E402
from bed.signing import KeyPair  # noqa: E402

import package  # noqa: E402  isort: skip

MB = 1 << 20
X64 = TREE / "build/x64-test"
ARM64 = TREE / "build/arm64-test"
NATIVE = TREE / "build/native-release"
SIZE_LIMIT = 400 * 1024
CHECK_LIMIT = 500 * 1024
INSTALLER_LIMIT = 150 * 1024
RESULTS = TREE / "bench/results.json"
PAGE = TREE / "docs/performance.md"
PICTURES = TREE / "docs/images"


class Bench:
    """The bed with what is measured in it."""

    def __init__(self, machine: windows.Windows, server: ReportServer, files: Path, key: KeyPair, runs: int, *, at_length: bool = False) -> None:
        self.machine = machine
        self.server = server
        self.files = files
        self.key = key
        self.runs = runs
        self.at_length = at_length
        self._programs: dict[str, str] = {}

    def program(self, path: Path) -> str:
        """The Windows path of a program, installed into the bed when it is first asked for."""
        if path.name not in self._programs:
            self._programs[path.name] = self.machine.install(path, path.name)
        return self._programs[path.name]

    def file(self, name: str, size: int) -> Path:
        """A signed file of `size` bytes on the server; its content does not compress."""
        file = self.files / name
        if not file.exists():
            with file.open("wb") as out, open("/dev/urandom", "rb") as random:
                for _ in range(size // MB):
                    out.write(random.read(MB))
            self.key.sign(file)
        return file

    def measured(self, program: str, *arguments: str) -> dict[str, float]:
        """Runs one of the measuring programs and returns what it measured."""
        result = self.machine.folder / "result.json"
        result.unlink(missing_ok=True)
        line = " ".join(f'"{part}"' for part in
                        (self.program(X64 / f"bench/bench_{program}.exe"), *arguments, windows.windows_path(result)))
        run = self.machine.run(line, limit=300)
        if run.exit_code != 0 or not result.exists():
            raise SystemExit(f"{line}: exit code {run.exit_code}")
        found: dict[str, float] = json.loads(result.read_text(encoding="ascii"))
        return found

    def rotation(self, *contestants: Callable[[], float]) -> list[list[float]]:
        """Lets the contestants take turns, each round beginning with another one; what each took, round by round."""
        for contestant in contestants:
            contestant()  # not counted: all start with warm caches
        taken: list[list[float]] = [[] for _ in contestants]
        for turn in range(self.runs):
            for step in range(len(contestants)):
                number = (turn + step) % len(contestants)
                taken[number].append(contestants[number]())
        return taken

    def medians(self, *contestants: Callable[[], float]) -> list[float]:
        """Lets the contestants take turns; the median of what each took."""
        return [statistics.median(taken) for taken in self.rotation(*contestants)]


@dataclass(frozen=True)
class Ratio:
    """A ratio of two contestants over the rounds of a rotation."""

    median: float
    low: float
    high: float

    @staticmethod
    def of(first: list[float], second: list[float]) -> Ratio:
        """First over second, round by round."""
        ratios = [a / b for a, b in zip(first, second, strict=True)]
        low, median, high = statistics.quantiles(ratios, n=4, method="inclusive")
        return Ratio(median, low, high)

    def __str__(self) -> str:
        return f"{self.median:.2f} ({self.low:.2f} to {self.high:.2f})"


def seconds_of(command: list[str]) -> float:
    """How long a command takes."""
    begin = time.perf_counter()
    subprocess.run(command, check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, timeout=300)
    return time.perf_counter() - begin


def present_package(bench: Bench) -> list[Verdict]:
    """The check of a package that is on disk already."""
    size = 512
    file = bench.file("package-512.bin", size * MB)
    paths = [windows.windows_path(file), windows.windows_path(file.with_name(file.name + ".minisig"))]
    ours, theirs = bench.rotation(
        lambda: bench.measured("present_package", *paths)["seconds"],
        lambda: seconds_of(["minisign", "-V", "-q", "-p", str(bench.key.public), "-m", str(file)]))
    print(f"  product {size / statistics.median(ours):.0f} MB/s, minisign -V {size / statistics.median(theirs):.0f} MB/s")
    speed = Ratio.of(theirs, ours)
    return [Verdict("check of a package already there (512 MB): throughput over minisign -V's", str(speed), "at least 0.90", speed.median >= 0.90)]


def download(bench: Bench) -> list[Verdict]:
    """A verified download over loopback."""
    size = 512
    file = bench.file("package-512.bin", size * MB)
    target = bench.machine.folder / "download.bin"
    target_path = windows.windows_path(target)

    processor: dict[str, list[float]] = {"product": [], "bare": []}

    def fetch(how: str) -> float:
        target.unlink(missing_ok=True)
        measured = bench.measured("download", how, f"/{file.name}", target_path)
        processor[how].append(measured["processor_seconds"])
        return measured["seconds"]

    def fetch_native() -> float:
        target.unlink(missing_ok=True)
        url = f"http://{isolation.UPDATE_HOST}/{file.name}"
        signature = target.with_name("download.bin.minisig")
        return (seconds_of(["curl", "-sfo", str(signature), f"{url}.minisig"]) +
                seconds_of(["curl", "-sfo", str(target), url]) +
                seconds_of(["minisign", "-V", "-q", "-p", str(bench.key.public), "-m", str(target)]))

    ours, bare, native = bench.rotation(lambda: fetch("product"), lambda: fetch("bare"), fetch_native)
    target.unlink(missing_ok=True)
    print(f"  product {size / statistics.median(ours):.0f} MB/s, bare program {size / statistics.median(bare):.0f} MB/s, native curl and "
          f"minisign -V {size / statistics.median(native):.0f} MB/s; processor time {statistics.median(processor['product']):.2f} s and "
          f"{statistics.median(processor['bare']):.2f} s")
    # The first of each was the one that is not counted.
    speed, work = Ratio.of(bare, ours), Ratio.of(processor["product"][1:], processor["bare"][1:])
    return [Verdict("verified download (512 MB): throughput over the bare program's", str(speed), "at least 0.98", speed.median >= 0.98),
            Verdict("verified download (512 MB): processor time over the bare program's", str(work), "at most 1.05", work.median <= 1.05),
            Verdict("verified download (512 MB): throughput over native curl and minisign -V", str(Ratio.of(native, ours)), "stated", True)]


def memory(bench: Bench) -> list[Verdict]:
    """Peak memory of a large download over that of a small one."""
    target = bench.machine.folder / "download.bin"
    peaks: dict[int, float] = {}
    for size in (1, 1024):
        file = bench.file(f"package-{size}.bin", size * MB)
        taken = []
        for _ in range(3):
            target.unlink(missing_ok=True)
            taken.append(bench.measured("download", "product", f"/{file.name}", windows.windows_path(target))["peak_bytes"])
        peaks[size] = statistics.median(taken)
        target.unlink(missing_ok=True)
        file.unlink()
    more = (peaks[1024] - peaks[1]) / MB
    print(f"  peak working set {peaks[1] / MB:.1f} MB for 1 MB, {peaks[1024] / MB:.1f} MB for 1 GB")
    return [Verdict("peak memory of a 1 GB download over that of a 1 MB one", f"{more:+.2f} MB", "under 1 MB more", more < 1)]


def url_parse(_: Bench) -> list[Verdict]:
    """Parsing URLs, native."""
    done = subprocess.run([NATIVE / "bench/url_parse_bench"], capture_output=True, text=True, check=True, timeout=300)
    found = re.search(r"url_parse: time over Boost.URL's ([0-9.]+)", done.stdout)
    if found is None:
        raise SystemExit("url_parse_bench printed no ratio")
    print("".join(f"  {line}\n" for line in done.stdout.splitlines() if re.match(r" *[0-9.]+  \w+://", line)), end="")
    ratio = float(found.group(1))
    ipv6 = re.search(r"url_parse: IPv6 text ([0-9.]+)", done.stdout)
    if ipv6 is None:
        raise SystemExit("url_parse_bench printed no ratio of the IPv6 text")
    address = float(ipv6.group(1))
    return [Verdict("URL parse into url_parts: time over Boost.URL's", f"{ratio:.2f}", "at most 0.55", ratio <= 0.55),
            Verdict("URL parse of an IPv6 address: time over Boost.URL's", f"{address:.2f}", "at most 1.00", address <= 1.0)]


def native_ratio(program: str, *arguments: str) -> float:
    """Runs a native benchmark that takes turns by itself, shows its details and returns the ratio of its last line."""
    done = subprocess.run([NATIVE / "bench" / program, *arguments], capture_output=True, text=True, check=True, timeout=1800)
    found = re.search(r" ([0-9.]+), to reach: ", done.stdout)
    if found is None:
        raise SystemExit(f"{program} printed no ratio")
    print("".join(f"{line}\n" for line in done.stdout.splitlines() if line.startswith("  ")), end="")
    return float(found.group(1))


def compress(bench: Bench) -> list[Verdict]:
    """Compressing through the writer, native."""
    ratio = native_ratio("zlib_writer_bench", str(min(bench.runs, 5)))
    return [Verdict("compressing 64 MB through the writer: throughput over zlib's at level 9", f"{ratio:.2f}",
                    "at least 0.97", ratio >= 0.97)]


def cached_read(bench: Bench) -> list[Verdict]:
    """Reading 10-byte pieces through the cache, native."""
    ratio = native_ratio("cache_bench", str(bench.runs * 2 - 1))
    return [Verdict("cached reading of 10-byte pieces: times faster than unbuffered", f"{ratio:.1f}", "at least 20.0",
                    ratio >= 20.0)]


def libraries_of(program: Path) -> set[str]:
    """What a program is linked with, apart from the run-time library's parts."""
    with pefile.PE(str(program)) as file:
        names = {str(entry.dll, "ascii").lower() for entry in file.DIRECTORY_ENTRY_IMPORT}
    return {name for name in names if not name.startswith("api-ms-win-crt-")}


def idle_run(bench: Bench) -> list[Verdict]:
    """A run with nothing to update, from start to exit."""
    path = update_server.description_path("win10", "stable")
    update_server.Publication(bench.files, bench.key).description(path, version.OWN.offer, f"Halvoro {version.OWN}")
    product = bench.program(X64 / "src/updater/lumaris.exe")
    bare = bench.program(X64 / "bench/bench_bare_check.exe")
    loading = bench.program(X64 / "bench/bench_bare_check_libraries.exe")
    empty = bench.program(X64 / "bench/bench_empty.exe")
    if libraries_of(X64 / "src/updater/lumaris.exe") != libraries_of(X64 / "bench/bench_bare_check_libraries.exe"):
        raise SystemExit("bench_bare_check_libraries does not load the libraries that lumaris.exe loads")

    def start(line: str) -> float:
        run = bench.machine.run(line)
        if run.exit_code != 0:
            raise SystemExit(f"{line}: exit code {run.exit_code}, {run.events}")
        return run.end - run.begin

    several = Bench(bench.machine, bench.server, bench.files, bench.key, bench.runs * 5)
    taken = several.rotation(*(lambda line=line: start(line) for line in (f'"{product}"', f'"{bare}" {path}', f'"{loading}" {path}', f'"{empty}"')))
    ours, theirs, loaded, nothing = taken
    names = ("product", "bare program", "with the product's libraries", "empty program")
    print("  " + ", ".join(f"{name} {statistics.median(times) * 1000:.0f} ms" for name, times in zip(names, taken, strict=True)))
    over = Ratio.of(ours, loaded)
    return [Verdict("run with nothing to update: time over the bare program with the same libraries", str(over), "at most 1.08",
                    over.median <= 1.08),
            Verdict("the same, over the bare program without them", str(Ratio.of(ours, theirs)), "stated", True),
            Verdict("run with nothing to update: time over an empty program's", str(Ratio.of(ours, nothing)), "stated", True)]


def machine_check(bench: Bench) -> list[Verdict]:
    """The check of a machine, from start to exit."""
    path = update_server.description_path("win10", "stable")
    update_server.Publication(bench.files, bench.key).description(path, version.OWN.offer, f"Halvoro {version.OWN}")
    check = bench.program(X64 / "tools/check/lumaris_check.exe")
    bare = bench.program(X64 / "bench/bench_bare_look.exe")

    def look() -> float:
        # The bare machine has neither task nor event source: that is a problem, and exit code 1.
        run = bench.machine.run(f'"{check}"')
        if run.exit_code != 1 or "ok description" not in " ".join(run.output.split()):
            raise SystemExit(f"{check}: exit code {run.exit_code}\n{run.output}")
        return run.end - run.begin

    def ask() -> float:
        run = bench.machine.run(f'"{bare}" {path}')
        if run.exit_code != 0:
            raise SystemExit(f"{bare}: exit code {run.exit_code}")
        return run.end - run.begin

    several = Bench(bench.machine, bench.server, bench.files, bench.key, bench.runs * 5)
    ours, theirs = several.rotation(look, ask)
    print(f"  lumaris_check {statistics.median(ours) * 1000:.0f} ms, bare program {statistics.median(theirs) * 1000:.0f} ms")
    over = Ratio.of(ours, theirs)
    return [Verdict("check of a machine: time over a bare program that asks the same", str(over), "at most 1.50", over.median <= 1.5)]


def report_size(bench: Bench) -> list[Verdict]:
    """Short and full report of a crash, and the system's minidump of the same crash."""
    dump = bench.machine.folder / "crash.dmp"
    bench.server.reset()
    bench.server.queue = [FULL_WANTED, Answer()]
    program = bench.program(X64 / "bench/bench_minidump.exe")
    bench.machine.run(f'"{program}" "{windows.windows_path(dump)}"')
    if bench.server.kinds != ["short", "full"]:
        raise SystemExit(f"the server has {bench.server.kinds} instead of a short and a full report")
    short, full = (len(each.body) for each in bench.server.requests)
    minidump = dump.stat().st_size
    print(f"  short {short:,} bytes, full {full:,} bytes, minidump {minidump:,} bytes")
    return [Verdict("short report of an access violation", f"{short} B", "under 1024 B", short < 1024),
            Verdict("full report of an access violation: size over the minidump's", f"{full / minidump:.4f}", "at most 0.1000",
                    full * 10 <= minidump)]


def installation(bench: Bench) -> list[Verdict]:
    """Static initialisation with the error-report component, and without."""
    several = Bench(bench.machine, bench.server, bench.files, bench.key, bench.runs * 5)
    ours, bare = several.medians(lambda: bench.measured("static_initialisation")["seconds"],
                                 lambda: bench.measured("static_initialisation_bare")["seconds"])

    def start(name: Path) -> float:
        run = bench.machine.run(f'"{bench.program(name)}"')
        return run.end - run.begin

    whole, empty = several.medians(lambda: start(X64 / "tests/crash/crash_none.exe"),
                                   lambda: start(X64 / "bench/bench_empty.exe"))
    more = (ours - bare) * 1000
    print(f"  static initialisation {ours * 1000:.2f} ms, without the component {bare * 1000:.2f} ms; whole run "
          f"{whole * 1000:.0f} ms, empty program {empty * 1000:.0f} ms")
    return [Verdict("static initialisation with the error reporting: time over none", f"{more:+.2f} ms", "under 5 ms more",
                    more < 5),
            Verdict("run of a program with the error reporting: time over an empty one's", f"{(whole - empty) * 1000:+.0f} ms",
                    "stated", True)]


def crash_time(bench: Bench) -> list[Verdict]:
    """From a crash to the end of the process, without boxes; the server answers at once."""
    moment = bench.machine.folder / "moment.txt"
    program = bench.program(X64 / "tests/crash/crash_access_violation.exe")
    settings.set_screen_reader(bench.machine, True)
    taken: list[tuple[float, ...]] = []
    for _ in range(bench.runs):
        bench.server.reset()
        run = bench.machine.run(f'"{program}" --moment "{windows.windows_path(moment)}"')
        if bench.server.kinds != ["short"]:
            raise SystemExit(f"the server has {bench.server.kinds} instead of a short report")
        crash = int(moment.read_text(encoding="ascii")) / 1e7 - 11644473600
        request = bench.server.requests[0].moments
        times = (crash, request[HEAD], request[BODY], request[REPLIED], run.end)
        taken.append((run.end - crash, *(after - before for before, after in zip(times, times[1:], strict=False))))
    symbols = statistics.median(bench.measured("symbol_engine")["seconds"] for _ in range(bench.runs))
    whole, before, body, reply, after = (statistics.median(each) * 1000 for each in zip(*taken, strict=True))
    print(f"  until the head of the request {before:.0f} ms (the symbol engine alone takes {symbols * 1000:.0f} ms), its body "
          f"{body:.0f} ms, the server {reply:.0f} ms, from the reply to the end {after:.0f} ms")
    return [Verdict("from a crash to the end of the process, report sent", f"{whole:.0f} ms", "stated", True)]


def deep_crash(bench: Bench) -> list[Verdict]:
    """A crash 50,000 calls deep beside a plain one, each with both reports sent, and with both saved because the server is away."""
    deep, plain = (bench.program(X64 / f"tests/crash/crash_{kind}.exe") for kind in ("deep_recursion", "access_violation"))
    moment = bench.machine.folder / "moment.txt"
    temp = bench.machine.unix_path(bench.machine.expand("%TEMP%"))
    settings.set_screen_reader(bench.machine, True)
    ends: dict[str, list[float]] = {deep: [], plain: []}

    def crash(program: str) -> tuple[float, float]:
        """The moments of a crash and of the end of its process."""
        run = bench.machine.run(f'"{program}" --moment "{windows.windows_path(moment)}"')
        return int(moment.read_text(encoding="ascii")) / 1e7 - 11644473600, run.end

    def send(program: str) -> float:
        """From the crash to the end of the process."""
        bench.server.reset()
        bench.server.queue = [FULL_WANTED, Answer()]
        begin, end = crash(program)
        if bench.server.kinds != ["short", "full"]:
            raise SystemExit(f"the server has {bench.server.kinds} instead of a short and a full report")
        return end - begin

    def save(program: str) -> float:
        """From the crash to the last byte of both files."""
        with bench.server.away():
            begin, end = crash(program)
        files = [temp / "0.tzo", temp / "0.tzr"]
        written = max(file.stat().st_mtime for file in files)
        found = [zlib.decompress(file.read_bytes())[:4] for file in files]  # it fails for a file that is not complete
        if found != [b"TZO1", b"TZR1"]:
            raise SystemExit(f"the files begin with {found}")
        for file in files:
            file.unlink()
        ends[program].append(end - begin)
        return written - begin

    sent, plain_sent, saved, plain_saved = bench.medians(lambda: send(deep), lambda: send(plain), lambda: save(deep), lambda: save(plain))
    send(deep)
    full = len(zlib.decompress(bench.server.requests[1].body))
    print(f"  50,000 calls deep {sent * 1000:.0f} ms from the crash to the end of the process, a plain crash {plain_sent * 1000:.0f} ms; "
          f"with the server away {saved * 1000:.0f} and {plain_saved * 1000:.0f} ms to the last byte of both files, "
          f"{statistics.median(ends[deep][1:]) * 1000:.0f} and {statistics.median(ends[plain][1:]) * 1000:.0f} ms to the end of the process")
    return [Verdict("crash 50,000 calls deep, both reports sent: time to the end of the process", f"{sent:.2f} s", "under 2 s", sent < 2),
            Verdict("crash 50,000 calls deep, server away: time until both reports are saved", f"{saved:.2f} s", "under 2 s", saved < 2),
            Verdict("full report of 50,000 calls, inflated", f"{full / 1048576:.2f} MiB", "under 2 MiB", full < 2 << 20)]


def size(_: Bench) -> list[Verdict]:
    """What the product for ARM64 weighs, and what takes the room."""
    program = ARM64 / "src/updater/lumaris.exe"
    print(size_report.table(program))
    taken = program.stat().st_size
    checks = {name: (build / "tools/check/lumaris_check.exe").stat().st_size for name, build in (("ARM64", ARM64), ("x86-64", X64))}
    return [Verdict("lumaris.exe for ARM64, stripped", f"{taken / 1024:.0f} KB", "at most 400 KB", taken <= SIZE_LIMIT),
            *(Verdict(f"lumaris_check.exe for {name}", f"{each / 1024:.0f} KB", "under 500 KB", each < CHECK_LIMIT) for name, each in checks.items()),
            _installer_size()]


def _installer_size() -> Verdict:
    """The installer package over the program that it carries."""
    with tempfile.TemporaryDirectory(prefix="installer-") as folder:
        programs = Path(folder)
        for file in ("src/updater/lumaris.exe", "tools/check/lumaris_check.exe", "packaging/installer/lumaris_setup.dll"):
            shutil.copy(ARM64 / file, programs)
        version = package.file_version(programs / "lumaris.exe").removesuffix(".0")
        made = programs / "lumaris.msi"
        package.make(programs, "arm64", version, made)
        more = made.stat().st_size - (programs / "lumaris.exe").stat().st_size
    return Verdict("installer package for ARM64: size over the program's", f"{more / 1024:+.0f} KB", "at most +150 KB", more <= INSTALLER_LIMIT)


def reports(bench: Bench) -> list[Verdict]:
    """The report server."""
    return report_server.measure(bench.runs, at_length=bench.at_length)


def publish(bench: Bench) -> list[Verdict]:
    """The publisher's kit: staging, offering, checking a live server, and the day of a release for 5,000 machines."""
    return publishing.measure(bench.runs, 20.0, publishing.JUDGE)


MEASUREMENTS = {"check": present_package, "download": download, "memory": memory, "url": url_parse, "compress": compress,
                "cache": cached_read, "idle": idle_run, "machine": machine_check,
                "report": report_size, "installation": installation, "crash": crash_time, "deep": deep_crash,
                "size": size, "reports": reports, "publish": publish}


def measure(names: list[str], runs: int, *, at_length: bool = False) -> list[results.Row]:
    """Makes the named measurements in a bed of their own."""
    rows: list[results.Row] = []
    with ExitStack() as stack:
        network = isolation.enter()
        stack.callback(isolation.leave, network)
        files = network.work / "published"
        files.mkdir()
        stack.enter_context(Nginx(network.work / "nginx", files))
        authority = certificates.make_authority(network.work, "bench-authority")
        network.trust(authority.path)
        server = stack.enter_context(make_report_server(network, authority))
        machine = stack.enter_context(windows.Windows("x64", network, X64 / "tests/bed/windows/agent.exe"))
        key = KeyPair(TREE / "tests/keys/test.pub", TREE / "tests/keys/test.key")
        bench = Bench(machine, server, files, key, runs, at_length=at_length)
        for name in names:
            print(f"{name}: {(MEASUREMENTS[name].__doc__ or '').rstrip('.')}", flush=True)
            rows += [results.Row(name, each.what, each.measured, each.to_reach, each.reached) for each in MEASUREMENTS[name](bench)]
    return rows


def main() -> int:
    """Returns 0 when every number is reached."""
    parser = argparse.ArgumentParser(prog="./dev bench", description=__doc__, epilog="examples:\n  ./dev bench --only download --runs 9\n"
                                     "  ./dev bench --plot\n  ./dev bench --plot --from bench/results.json",
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--only", choices=MEASUREMENTS, action="append", help="measure only this; may be given again")
    parser.add_argument("--runs", type=int, default=5, help="pairs a comparison (default: %(default)s)")
    parser.add_argument("--at-length", action="store_true", help="reports: stores a million reports, not 100,000, which takes ten minutes")
    parser.add_argument("--plot", action="store_true", help="keeps the numbers in bench/results.json, and puts table and plots into docs/performance.md")
    parser.add_argument("--from", type=Path, dest="source", metavar="FILE", help="takes the numbers from this file, and measures nothing")
    parser.add_argument("--output", type=Path, metavar="FILE", default=TREE / "build/bench/results.json",
                        help="keeps the numbers here; those of other measurements remain (default: build/bench/results.json)")
    options = parser.parse_args()
    if options.source:
        rows = results.load(options.source)
    else:
        rows = measure(list(options.only or MEASUREMENTS), options.runs, at_length=options.at_length)
        for file in (options.output, *([RESULTS] if options.plot else [])):
            results.save(file, results.merged(results.load(file) if file.exists() else [], rows))
    print("\n" + "\n".join(results.table(rows)))
    if options.plot:
        drawn = rows if options.source else results.load(RESULTS)
        PAGE.write_text(results.page_with(PAGE.read_text(encoding="utf-8"), drawn), encoding="utf-8")
        for file in plots.draw(drawn, PICTURES):
            print(f"plot: {file.relative_to(TREE)}")
    return 0 if all(row.reached for row in rows) else 1


if __name__ == "__main__":
    sys.exit(main())
