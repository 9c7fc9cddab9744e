#!/usr/bin/env python3
"""Breaks the product in one place at a time and looks whether the tests see it. Runs inside the room.

Each entry of breaks.toml changes one text of one file. The runner keeps a copy of the checkout with build folders of its own, in
build/mutations; there it applies a break, builds what is concerned, runs the tests that are named beside the break, and puts
the text back. A break that no named test sees has SURVIVED: a test is missing. Before the first break the tests must pass as they are.
"""

from __future__ import annotations

import argparse
import contextlib
import fcntl
import fnmatch
import hashlib
import json
import os
import re
import signal
import subprocess
import sys
import time
import tomllib
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

TREE = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TREE / "tests"))

import junit  # noqa: E402  (the path to it is set above)

LIST = Path(__file__).with_name("breaks.toml")
LEFT_OUT = frozenset({".git", "build", "__pycache__", ".pytest_cache"})

EXAMPLES = """examples:
  ./dev shell python3 tests/mutations/run.py --list
  ./dev shell python3 tests/mutations/run.py --only key-id-in-part
  ./dev shell python3 tests/mutations/run.py --shard 1/2     every second break, in a copy of its own
  ./dev soak mutations                                       all of them

A new break is tried with --wide, which runs all unit tests in the place of the named ones and prints which of them fail.
"""

COMPILER = "compiler"


@dataclass(frozen=True)
class Suite:
    """A kind of tests: what is built for it, and how long it may take before it counts as hanging."""

    preset: str
    targets: tuple[str, ...]
    limit: float


SUITES = {
    "native": Suite("native-asan", ("unit_tests",), 200),
    "unit": Suite("x64-test", ("unit_tests", "bed_agent"), 300),
    "arm64": Suite("arm64-test", ("unit_tests", "bed_agent"), 400),
    "e2e": Suite("x64-test", ("lumaris", "bed_agent", "bed_list_manager", "tests/crash/all", "tests/stress/all"), 400),
    "ground": Suite("native-asan", ("read_report",), 300),
}


@dataclass(frozen=True)
class Watch:
    """Tests that are to see a break: a suite of this file, and names in it (none: all)."""

    suite: str
    tests: tuple[str, ...]


@dataclass(frozen=True)
class Break:
    """One wrong text in one place of the product."""

    name: str
    file: str
    old: str
    new: str
    why: str
    watches: tuple[Watch, ...]
    by_compiler: bool


@dataclass(frozen=True)
class Outcome:
    """What came of running tests: those that ran, and those that failed or did not end."""

    ran: frozenset[str]
    failed: tuple[str, ...]
    output: str


class RunnerError(Exception):
    """A failure of the runner or of its list, not of a test."""


def read_breaks(text: str) -> list[Break]:
    """The entries of the list, each checked against the checkout: its text stands in its file exactly once."""
    breaks: list[Break] = []
    for entry in tomllib.loads(text)["break"]:
        name = entry.get("name", "?")
        if wrong := set(entry) ^ {"name", "file", "old", "new", "why", "caught_by"}:
            raise RunnerError(f"{name}: missing or unknown: {', '.join(sorted(wrong))}")
        if any(each.name == name for each in breaks):
            raise RunnerError(f"{name}: there are two of this name")
        path = TREE / entry["file"]
        count = path.read_text(encoding="utf-8").count(entry["old"]) if path.is_file() else 0
        if count != 1:
            raise RunnerError(f"{name}: its text stands {count} times in {entry['file']}, not once")
        if entry["old"] == entry["new"] or not entry["why"].strip() or not entry["caught_by"]:
            raise RunnerError(f"{name}: it changes nothing, or does not say why it matters, or what is to see it")
        words = [watch.split() for watch in entry["caught_by"] if watch != COMPILER]
        if unknown := {suite for suite, *_ in words} - SUITES.keys():
            raise RunnerError(f"{name}: unknown suite {', '.join(sorted(unknown))}")
        breaks.append(Break(name, entry["file"], entry["old"], entry["new"], entry["why"],
                            tuple(Watch(suite, tuple(tests)) for suite, *tests in words), COMPILER in entry["caught_by"]))
    return breaks


def files_of(folder: Path) -> dict[str, Path]:
    """The files of a checkout or of its copy, by their names in it."""
    found: dict[str, Path] = {}
    for root, folders, names in os.walk(folder):
        folders[:] = [name for name in folders if name not in LEFT_OUT]
        found |= {str(path.relative_to(folder)): path for name in names if (path := Path(root) / name).is_file()}
    return found


class Copy:
    """The copy of the checkout that is broken and mended."""

    def __init__(self, folder: Path) -> None:
        self.tree = folder / "tree"
        self.results = folder / "results"
        self.tree.mkdir(parents=True, exist_ok=True)
        self.results.mkdir(exist_ok=True)
        self.environment = os.environ | {"PYTHONPATH": str(self.tree / "tests"), "PYTHONDONTWRITEBYTECODE": "1"}

    def refresh(self) -> str:
        """Makes the copy what the checkout is, writing only what differs, so that little is built again. Returns a digest."""
        wanted = files_of(TREE)
        there = files_of(self.tree)
        digest = hashlib.sha256()
        for name in sorted(wanted):
            content = wanted[name].read_bytes()
            if wanted[name].parent != LIST.parent:  # the tests do not hang on what is still to be broken
                digest.update(f"{name}\0{len(content)}\0".encode() + content)
            target = self.tree / name
            if name not in there or target.read_bytes() != content:
                target.parent.mkdir(parents=True, exist_ok=True)
                target.write_bytes(content)
            target.chmod(wanted[name].stat().st_mode & 0o777)
        for name in there.keys() - wanted.keys():
            there[name].unlink()
        return digest.hexdigest()

    def build(self, suites: set[str], log: Path) -> bool:
        """Configures if needed, and builds what the suites need; false if it does not build."""
        with log.open("ab") as output:
            for preset in sorted({SUITES[suite].preset for suite in suites}):
                targets = sorted({target for suite in suites if SUITES[suite].preset == preset for target in SUITES[suite].targets})
                for command in ([sys.executable, "toolchain/job.py", "build", "--target", targets[0], preset],
                                ["ninja", "-C", f"build/{preset}", f"-j{len(os.sched_getaffinity(0))}", *targets]):
                    if subprocess.run(command, cwd=self.tree, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT,
                                      env=self.environment, check=False).returncode:
                        return False
        return True

    def forget_configuration(self, file: str) -> None:
        """What a toolchain file says is only read when a build folder is configured afresh."""
        if file.startswith("toolchain/"):
            for stamp in self.tree.glob("build/*/.configured"):
                stamp.unlink()

    def run(self, watch: Watch, *, stop_early: bool) -> Outcome:
        """Runs tests of one suite."""
        build = self.tree / "build" / SUITES[watch.suite].preset
        report = self.results / f"{watch.suite}.xml"
        report.unlink(missing_ok=True)
        if watch.suite == "native":
            filters = [f"--gtest_filter={':'.join(watch.tests)}"] if watch.tests else []
            command = [str(build / "tests/unit_tests"), f"--gtest_output=xml:{report}", *filters, *(["--gtest_fail_fast"] if stop_early else [])]
        elif watch.suite in ("unit", "arm64"):
            command = [sys.executable, "-m", "bed.unit_tests", SUITES[watch.suite].preset.removesuffix("-test"), str(build / "tests/unit_tests.exe"),
                       str(build / "tests/bed/windows/agent.exe"), str(report), *([":".join(watch.tests)] if watch.tests else [])]
        else:
            folder = f"tests/{watch.suite}"
            command = [sys.executable, "-m", "pytest", *([f"{folder}/{test}" for test in watch.tests] or [folder]),
                       "-p", "no:cacheprovider", "-q", "-rfE", f"--junit-xml={report}", *(["-x"] if stop_early else []),
                       *(["--arch", "x64"] if watch.suite == "e2e" else [])]
        status, output = self._perform(command, SUITES[watch.suite].limit)
        ran, failed = read_report(report, output)
        if not failed and status == 4 and watch.suite in ("e2e", "ground"):
            raise RunnerError(f"there is no such test: {' '.join(watch.tests)}\n{output}")
        if not failed and status != 0:
            failed = [f"{last_begun(output) or watch.suite} ({'does not end' if status is None else f'status {status}'})"]
        return Outcome(frozenset(ran), tuple(failed), output)

    def _perform(self, command: list[str], limit: float) -> tuple[int | None, str]:
        """Runs a command in the copy. Returns its status, None after the limit, and its output."""
        log = self.results / "output.log"
        with log.open("wb") as output:
            process = subprocess.Popen(command, cwd=self.tree, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT,
                                       env=self.environment, start_new_session=True)
            status: int | None = None
            try:
                status = process.wait(limit)
            except subprocess.TimeoutExpired:
                process.send_signal(signal.SIGINT)  # lets the bed end what it has started
                with contextlib.suppress(subprocess.TimeoutExpired):
                    process.wait(60)
            finally:
                with contextlib.suppress(ProcessLookupError):
                    os.killpg(process.pid, signal.SIGKILL)
                process.wait()
        return status, log.read_text(encoding="utf-8", errors="replace")


def read_report(report: Path, output: str) -> tuple[list[str], list[str]]:
    """The tests that ran and those that failed, from the report or, if the program died before it wrote one, its output."""
    if not report.exists():
        return [], list(dict.fromkeys(re.findall(r"^\[  FAILED  \] ([^\s,]+)", output, re.MULTILINE)))
    cases = [(f"{case.class_name}.{case.name}".removeprefix("tests.e2e.").removeprefix("tests.ground."), case.outcome)
             for case in junit.read_cases(report) if case.outcome != junit.SKIPPED]
    return [name for name, _ in cases], [name for name, outcome in cases if outcome == junit.FAILED]


def last_begun(output: str) -> str | None:
    """The unit test in which the program ended."""
    begun = re.findall(r"^\[ RUN      \] (\S+)", output, re.MULTILINE)
    return begun[-1] if begun else None


def matches(test: str, name: str, suite: str) -> bool:
    """Whether a test that ran is meant by a name in the list."""
    if suite in ("native", "unit", "arm64"):
        return fnmatch.fnmatchcase(test, name)
    file, _, function = name.partition("::")
    return test.partition("[")[0] == f"{file.removesuffix('.py')}.{function}"


def union(breaks: list[Break], *, wide: bool) -> dict[str, tuple[str, ...]]:
    """For each suite the tests that must pass before anything is broken: of the quick unit tests always all."""
    suites: dict[str, tuple[str, ...]] = {"native": (), "unit": ()} if wide else {}
    for each in breaks:
        for watch in each.watches:
            names = () if watch.suite in ("native", "unit") else watch.tests
            suites[watch.suite] = tuple(dict.fromkeys(suites.get(watch.suite, ()) + names))
    return suites


def check_baseline(copy: Copy, breaks: list[Break], digest: str, *, wide: bool) -> None:
    """Builds the copy unbroken and runs the tests that are to see breaks: they pass, and there is one for each name."""
    suites = union(breaks, wide=wide)
    stamp = copy.results / "baseline.json"
    known = json.loads(stamp.read_text(encoding="utf-8")) if stamp.exists() else {}
    if known.get("digest") != digest:
        known = {"digest": digest, "ran": {}}
    if not suites.keys() <= known["ran"].keys():
        print("unbroken: building", flush=True)
        log = copy.results / "build.log"
        log.unlink(missing_ok=True)
        # Whole runs of crashes are read by the native reader.
        if not copy.build({*suites, *({"ground"} if "e2e" in suites else ())}, log):
            raise RunnerError(f"the unbroken product does not build (log: {log})")
    for suite, names in suites.items():
        before = known["ran"].get(suite)
        if before is not None and all(any(matches(test, name, suite) for test in before) for name in names):
            continue
        begin = time.monotonic()
        outcome = copy.run(Watch(suite, names), stop_early=False)
        if outcome.failed or not outcome.ran:
            print(outcome.output)
            raise RunnerError(f"unbroken, {suite} fails: {', '.join(outcome.failed) or 'no test ran'}")
        known["ran"][suite] = sorted(outcome.ran)
        print(f"unbroken: {len(outcome.ran)} of {suite} pass in {time.monotonic() - begin:.0f} s", flush=True)
        stamp.write_text(json.dumps(known), encoding="utf-8")
    for each in breaks:
        for watch in each.watches:
            for name in watch.tests:
                if not any(matches(test, name, watch.suite) for test in known["ran"][watch.suite]):
                    raise RunnerError(f"{each.name}: {watch.suite} has no test {name}")


def try_break(copy: Copy, each: Break, *, wide: bool) -> tuple[str, bool]:
    """Breaks the copy, looks who sees it, and mends it. Returns the result and whether it is a good one."""
    path = copy.tree / each.file
    whole = path.read_text(encoding="utf-8")
    watches = (Watch("native", ()), Watch("unit", ())) if wide else each.watches
    log = copy.results / f"{each.name}.log"
    log.unlink(missing_ok=True)
    path.write_text(whole.replace(each.old, each.new), encoding="utf-8")
    copy.forget_configuration(each.file)
    try:
        seen: list[str] = []
        for watch in watches or (Watch("unit", ()),):
            if not copy.build({watch.suite}, log):
                return (f"caught by the {COMPILER}", True) if each.by_compiler else (f"does not build (log: {log})", False)
            if each.by_compiler:
                continue
            outcome = copy.run(watch, stop_early=not wide)
            with log.open("a", encoding="utf-8") as file:
                file.write(outcome.output)
            seen += [f"{watch.suite} {test}" for test in outcome.failed]
            if outcome.failed:
                break
        if seen:
            return f"caught by {', '.join(seen[:8] if wide else seen[:1])}", True
        return "SURVIVED", False
    finally:
        path.write_text(whole, encoding="utf-8")
        copy.forget_configuration(each.file)


@contextlib.contextmanager
def locked(folder: Path) -> Iterator[None]:
    """Holds the copy for this process."""
    folder.mkdir(parents=True, exist_ok=True)
    with (folder / "lock").open("w", encoding="utf-8") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        yield


def shard_of(text: str) -> tuple[int, int]:
    """The numbers of "1/2"."""
    number, _, count = text.partition("/")
    if not (number.isdecimal() and count.isdecimal() and 1 <= int(number) <= int(count)):
        raise argparse.ArgumentTypeError(f"{text} is not a shard such as 1/2")
    return int(number), int(count)


def main() -> int:
    """Selects, breaks, reports."""
    parser = argparse.ArgumentParser(description=__doc__, epilog=EXAMPLES, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--list", action="store_true", help="list the breaks, each with what is to see it and why it matters")
    parser.add_argument("--only", action="append", default=[], metavar="NAME", help="only the breaks of this name (*: anything); may be given again")
    parser.add_argument("--shard", type=shard_of, default=(1, 1), metavar="1/2", help="only every second break, beginning with the first")
    parser.add_argument("--wide", action="store_true", help="run all unit tests in the place of those that are named beside the break")
    parser.add_argument("--breaks", type=Path, default=LIST, metavar="FILE", help="another list of breaks")
    options = parser.parse_args()

    try:
        breaks = read_breaks(options.breaks.read_text(encoding="utf-8"))
        for pattern in options.only:
            if not any(fnmatch.fnmatchcase(each.name, pattern) for each in breaks):
                raise RunnerError(f"there is no break {pattern}")
        number, count = options.shard
        breaks = [each for each in breaks if not options.only or any(fnmatch.fnmatchcase(each.name, name) for name in options.only)]
        breaks = breaks[number - 1::count]
        if options.list:
            for each in breaks:
                seen = [COMPILER] * each.by_compiler + [" ".join((watch.suite, *watch.tests)) for watch in each.watches]
                print(f"{each.name}  ({each.file})\n    {each.why}\n    {'; '.join(seen)}")
            print(f"{len(breaks)} breaks")
            return 0
        return try_all(breaks, TREE / "build/mutations" / f"{number}-of-{count}", wide=options.wide)
    except RunnerError as error:
        print(f"mutations: {error}", file=sys.stderr)
        return 2


def try_all(breaks: list[Break], folder: Path, *, wide: bool) -> int:
    """Tries every break and counts. The status is 1 if one has survived."""
    with locked(folder):
        copy = Copy(folder)
        check_baseline(copy, breaks, copy.refresh(), wide=wide)
        begin = time.monotonic()
        bad: list[str] = []
        for position, each in enumerate(breaks, 1):
            start = time.monotonic()
            result, good = try_break(copy, each, wide=wide)
            print(f"{position}/{len(breaks)} {each.name}: {result} ({time.monotonic() - start:.0f} s)", flush=True)
            if not good:
                bad.append(f"{each.name}: {result}\n    {each.file}: {each.why}")
    print(f"{len(breaks)} breaks, {len(breaks) - len(bad)} caught, {len(bad)} not, in {(time.monotonic() - begin) / 60:.1f} min")
    for text in bad:
        print(text)
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
