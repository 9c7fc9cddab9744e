"""Counts which lines, regions and branches of the product the tests run.

The portable half is what the native unit tests are built from; they run here. The Windows half is everything else; it is counted in the
unit tests for x86-64 under Wine and, on request, in whole runs of the program and of the crashing programs. Both count for the
sources that they share: a line has run when it ran in either.
"""

import argparse
import json
import re
import shutil
import subprocess
import sys
from collections.abc import Set as AbstractSet, Iterable
from dataclasses import dataclass, field
from pathlib import Path
from typing import TypeVar

from junitparser import JUnitXml

from jobs import building
from jobs.common import JobError

PRODUCT = tuple(f"src/{name}" for name in ("platform", "stream", "http/parser", "http/request", "minisign", "errorreport", "updater"))
TOOLS = ("tools/report_reader",)
NATIVE = Path("build/native-coverage")
X64 = Path("build/x64-coverage")
OUT = Path("build/coverage")
LIMIT = 1800

# Percentages below which the measurement fails, a point under what it gave: lines, regions, branches.
UNIT_FLOORS = {"portable": (97.8, 98.7, 98.2), "Windows": (96.8, 97.0, 97.0), "tools": (62.8, 61.7, 65.8)}
WHOLE_FLOORS = UNIT_FLOORS

Position = tuple[int, ...]
Thing = TypeVar("Thing", int, Position)


@dataclass
class Counted:
    """What is known of one source: each thing that can run, and whether it did."""

    lines: dict[int, bool] = field(default_factory=dict)
    regions: dict[Position, bool] = field(default_factory=dict)
    branches: dict[Position, bool] = field(default_factory=dict)

    def add(self, other: "Counted") -> None:
        """Takes over what ran in another build of the source."""
        merge_all(self.lines, other.lines)
        merge_all(self.regions, other.regions)
        merge_all(self.branches, other.branches)

    def outcomes(self) -> tuple[list[bool], list[bool], list[bool]]:
        """Of every line, region and branch: whether it ran."""
        return list(self.lines.values()), list(self.regions.values()), list(self.branches.values())


@dataclass
class Sums:
    """Of a group of sources: how many there are, and how many ran, of lines, regions and branches."""

    there: list[int] = field(default_factory=lambda: [0, 0, 0])
    ran: list[int] = field(default_factory=lambda: [0, 0, 0])

    def add(self, counted: Counted) -> None:
        for at, outcomes in enumerate(counted.outcomes()):
            self.there[at] += len(outcomes)
            self.ran[at] += sum(outcomes)

    def percent(self, at: int) -> float:
        return 100.0 * self.ran[at] / self.there[at] if self.there[at] else 100.0


def add_parser(commands: "argparse._SubParsersAction[argparse.ArgumentParser]") -> None:
    parser = commands.add_parser("coverage", help="count which lines the tests run")
    parser.add_argument("--whole-runs", action="store_true", help="count whole runs of the program, too")
    parser.add_argument("--again", action="store_true", help="show what the last call counted")
    parser.set_defaults(run=run)


def run(arguments: argparse.Namespace) -> None:
    if not arguments.again:
        building.build("native-coverage")
        if arguments.whole_runs:
            building.build("x64-coverage")
        else:
            for target in ("unit_tests", "bed_agent"):
                building.build("x64-coverage", target)
        for folder in (NATIVE / "profiles", X64 / "profiles", OUT):
            shutil.rmtree(folder, ignore_errors=True)
            folder.mkdir(parents=True)
        run_native()
        run_x64()
        if arguments.whole_runs:
            # The reader of reports that the whole runs look through.
            building.build("native-asan", "read_report")
            run_whole()
    # The programs themselves hold code that is not part of the unit tests. It did not run, but it counts.
    native = counted_in(NATIVE, [NATIVE / "tests/unit_tests", NATIVE / "tools/report_reader/read_report"])
    programs = [X64 / "tests/unit_tests.exe", X64 / "src/updater/lumaris.exe"]
    if arguments.whole_runs:
        programs += sorted((X64 / "tests/crash").glob("crash_*.exe"))
    windows = counted_in(X64, programs)
    check_all_are_there(native, NATIVE)
    # The proof for Windows reads reports, too; the reader's tests run natively.
    check_all_are_there(windows, X64, elsewhere={name for name in native if name.startswith(TOOLS)})
    write_page(united(native, windows))
    everything = judge(native, windows, WHOLE_FLOORS if arguments.whole_runs else UNIT_FLOORS)
    check_explained(missed_in_product(everything), Path("docs/coverage.md").read_text(encoding="utf-8"),
                    all_of_it=not arguments.whole_runs)


# Running

def perform(what: str, command: list[str], environment: dict[str, str], accepted: tuple[int, ...] = (0,)) -> None:
    """Runs a command with a log of its own; one that fails or hangs ends the measurement."""
    log = OUT / f"{what}.log"
    print(f"dev: coverage: {what}", flush=True)
    variables = [f"{name}={value}" for name, value in environment.items()]
    try:
        with log.open("wb") as output:
            status = subprocess.run(["env", *variables, *command], stdin=subprocess.DEVNULL, stdout=output,
                                    stderr=subprocess.STDOUT, timeout=LIMIT, check=False).returncode
    except subprocess.TimeoutExpired:
        raise JobError(f"{what} did not end within {LIMIT} s (log: {log})") from None
    if status not in accepted:
        tail = "\n".join(log.read_text(encoding="utf-8", errors="replace").splitlines()[-20:])
        raise JobError(f"{what} ended with status {status} (log: {log})\n{tail}")


def run_native() -> None:
    perform("native-unit-tests", [str(NATIVE / "tests/unit_tests"), "--gtest_brief=1"],
            {"LLVM_PROFILE_FILE": str(NATIVE / "profiles/unit.profraw")})


# A program that counts names the folder for its profiles and the sources of its lines.
NOT_COUNTED = "program.holds_no_path_of_the_machine_that_built_it"


def run_x64() -> None:
    report = OUT / "x64-unit-tests.xml"
    perform("x64-unit-tests",
            [sys.executable, "-m", "bed.unit_tests", "x64", str(X64 / "tests/unit_tests.exe"),
             str(X64 / "tests/bed/windows/agent.exe"), str(report), f"-{NOT_COUNTED}"], {"PYTHONPATH": "tests"})
    # The bed's status says only that the tests ended.
    document = JUnitXml.fromfile(str(report))
    if document.failures != 0 or document.errors != 0 or not document.tests:
        raise JobError(f"unit tests failed (log: {OUT}/x64-unit-tests.log)")


def run_whole() -> None:
    perform("x64-whole-runs", [sys.executable, "-m", "pytest", "tests/e2e", "--arch", "x64", "--build", str(X64), "-q",
                               "-p", "no:cacheprovider"], {})


# Counting

def counted_in(folder: Path, programs: list[Path]) -> dict[str, Counted]:
    """What the profiles below a build folder say of the sources of product and tools."""
    profiles = sorted((folder / "profiles").glob("*.profraw"))
    if not profiles:
        raise JobError(f"there is no profile in {folder}/profiles: nothing was counted")
    merged = folder / "profiles/merged.profdata"
    names = folder / "profiles/list"
    names.write_text("".join(f"{profile}\n" for profile in profiles), encoding="utf-8")
    output_of(["llvm-profdata-19", "merge", "-sparse", f"-input-files={names}", "-o", str(merged)])
    objects = [str(programs[0]), *(word for program in programs[1:] for word in ("-object", str(program)))]
    export = ["llvm-cov-19", "export", *objects, f"-instr-profile={merged}"]
    counted: dict[str, Counted] = {}
    name = None
    for line in output_of([*export, "-format=lcov", "-skip-functions"]).splitlines():
        key, _, value = line.partition(":")
        if key == "SF":
            name = source_of(value)
        elif key == "DA" and name:
            number, count = value.split(",")[:2]
            merge(counted.setdefault(name, Counted()).lines, int(number), int(count) > 0)
    for file in json.loads(output_of([*export, "-format=text", "-skip-functions"]))["data"][0]["files"]:
        name = source_of(file["filename"])
        if name is None:
            continue
        of_file = counted.setdefault(name, Counted())
        for line_number, column, times, has_count, is_entry, is_gap in file["segments"]:
            if has_count and is_entry and not is_gap:
                merge(of_file.regions, (line_number, column), times > 0)
        for branch in file["branches"]:
            place, (taken, not_taken) = tuple(branch[:4]), branch[4:6]
            merge(of_file.branches, (*place, 1), taken > 0)
            merge(of_file.branches, (*place, 0), not_taken > 0)
    return counted


def merge(things: dict[Thing, bool], key: Thing, ran: bool) -> None:
    things[key] = things.get(key, False) or ran


def merge_all(things: dict[Thing, bool], others: dict[Thing, bool]) -> None:
    for key, ran in others.items():
        merge(things, key, ran)


def output_of(command: list[str]) -> str:
    result = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
    if result.returncode:
        raise JobError(f"{command[0]} ended with status {result.returncode}\n{result.stderr.strip()}")
    return result.stdout


def source_of(name: str) -> str | None:
    """The source's name relative to the tree, or None when it is neither the product's nor a tool's.

    llvm-cov puts names that were made relative behind the folder of the build, which is called .. or build; what is generated lies in
    a second build.
    """
    name = re.sub(r"^(/src/|/lumaris/|build/(?!build/)|\.\.?/)+", "", name.replace("\\", "/"))
    return name if name.startswith(tuple(f"{folder}/" for folder in PRODUCT + TOOLS)) else None


def write_page(everything: dict[str, Counted]) -> None:
    """The sources with what ran as pages to click through, in lcov's form."""
    trace = OUT / "coverage.info"
    text = []
    for name, counted in sorted(everything.items()):
        if not Path(name).exists():
            continue
        text.append(f"SF:{Path.cwd()}/{name}")
        text += [f"DA:{line},{int(ran)}" for line, ran in sorted(counted.lines.items())]
        text += [f"BRDA:{place[0]},0,{number},{int(ran)}" for number, (place, ran) in enumerate(sorted(counted.branches.items()))]
        text.append("end_of_record")
    trace.write_text("".join(f"{line}\n" for line in text), encoding="utf-8")
    output_of(["genhtml", "--branch-coverage", "--quiet", "--ignore-errors", "inconsistent,corrupt,range", "--prefix", str(Path.cwd()), "--title", "Lumaris", "--output-directory",
               str(OUT / "page"), str(trace)])
    print(f"\nthe sources with what ran: {OUT}/page/index.html")


def check_all_are_there(counted: dict[str, Counted], folder: Path, elsewhere: AbstractSet[str] = frozenset()) -> None:
    """A source that is built and of which nothing is known would look as if it had been counted."""
    entries = json.loads((folder / "compile_commands.json").read_text(encoding="utf-8"))
    built = {name for entry in entries if (name := source_of(entry["file"])) and name.endswith(".cpp")}
    without = sorted(built - set(counted) - elsewhere)
    if without:
        raise JobError(f"nothing was counted of {', '.join(without)}")


# Judging

def half_of(name: str, native: dict[str, Counted]) -> str:
    if name.startswith(TOOLS):
        return "tools"
    return "portable" if name in native else "Windows"


def united(native: dict[str, Counted], windows: dict[str, Counted]) -> dict[str, Counted]:
    result: dict[str, Counted] = {}
    for counted in (native, windows):
        for name, of_file in counted.items():
            result.setdefault(name, Counted()).add(of_file)
    return result


def judge(native: dict[str, Counted], windows: dict[str, Counted], floors: dict[str, tuple[float, float, float]]) -> dict[str, Counted]:
    """Prints the tables and what did not run; fails if a half is below its floor. Returns what ran in either half."""
    everything = united(native, windows)
    groups: dict[tuple[str, str], Sums] = {}
    halves: dict[str, Sums] = {half: Sums() for half in floors}
    product = Sums()
    for name, counted in sorted(everything.items()):
        half = half_of(name, native)
        folder = next(folder for folder in PRODUCT + TOOLS if name.startswith(folder + "/"))
        groups.setdefault((half, folder), Sums()).add(counted)
        halves[half].add(counted)
        if half != "tools":
            product.add(counted)
    list_missed(everything)
    print(f"\n{'half':10}{'folder':22}{'lines':>22}{'regions':>22}{'branches':>22}")
    for half in floors:
        for (of_half, folder), sums in groups.items():
            if of_half == half:
                print(row(half, folder, sums))
        print(row(half, "all of it", halves[half]))
    print(row("product", "both halves", product))
    too_low = [f"{half} {what}: {halves[half].percent(at):.1f} % ran, at least {floor:.1f} % must"
               for half, limits in floors.items() for at, (what, floor) in enumerate(zip(("lines", "regions", "branches"), limits))
               if halves[half].percent(at) < floor]
    if too_low:
        raise JobError("coverage is below its floor\n" + "\n".join(too_low))
    return everything


def missed_in_product(everything: dict[str, Counted]) -> set[str]:
    """The sources of the product in which a line did not run, or a condition had one outcome only."""
    return {name for name, counted in everything.items()
            if name.startswith(tuple(f"{folder}/" for folder in PRODUCT)) and not (all(counted.lines.values()) and all(counted.branches.values()))}


def check_explained(missed: set[str], document: str, *, all_of_it: bool) -> None:
    """The table of docs/coverage.md says why not all of these sources ran; and, with all_of_it, names no others."""
    named = {name for line in document.splitlines() if line.startswith("| `") for name in re.findall(r"`([\w/]+\.(?:cpp|h))`", line)}
    if without := sorted(missed - named):
        raise JobError(f"docs/coverage.md does not say why not all of {', '.join(without)} ran")
    if all_of_it and (ran := sorted(named - missed)):
        raise JobError(f"docs/coverage.md says why not all of {', '.join(ran)} ran, and it did")


def row(half: str, folder: str, sums: Sums) -> str:
    cells = "".join(f"{f'{sums.ran[at]} of {sums.there[at]}':>14}{sums.percent(at):6.1f} %" for at in range(3))
    return f"{half:10}{folder:22}{cells}"


def list_missed(everything: dict[str, Counted]) -> None:
    """Prints the lines that did not run, and the outcomes of conditions that did not occur in lines that did."""
    text = []
    for name, counted in sorted(everything.items()):
        source = Path(name) if Path(name).exists() else None
        content = source.read_text(encoding="utf-8").splitlines() if source else []
        for first, last in ranges(sorted(number for number, ran in counted.lines.items() if not ran)):
            shown = content[first - 1].strip() if first <= len(content) else ""
            text.append(f"{name}:{first}{f'-{last}' if last > first else ''}: {shown}")
        for number, column, *_, outcome in sorted(place for place, ran in counted.branches.items() if not ran):
            if counted.lines.get(number):
                text.append(f"{name}:{number}:{column}: never {'true' if outcome else 'false'}")
    (OUT / "missed.txt").write_text("".join(f"{line}\n" for line in text), encoding="utf-8")
    print(f"\nwhat no test ran ({OUT}/missed.txt):")
    for line in text:
        print(f"  {line}")


def ranges(numbers: Iterable[int]) -> list[tuple[int, int]]:
    result: list[tuple[int, int]] = []
    for number in numbers:
        if result and number == result[-1][1] + 1:
            result[-1] = (result[-1][0], number)
        else:
            result.append((number, number))
    return result
