#!/usr/bin/env python3
"""Runs the tests of a built tree and counts them. `./dev test` builds and calls it, inside the room."""

from __future__ import annotations

import argparse
import concurrent.futures
import os
import subprocess
import sys
import threading
import time
from collections.abc import Callable
from dataclasses import dataclass, field
from pathlib import Path

TREE = Path(__file__).resolve().parents[1]
BUILD = TREE / "build"
RESULTS = BUILD / "test-results"
sys.path.insert(0, str(TREE / "tests"))

import junit  # noqa: E402  (the path to it is set above)
import plan  # noqa: E402  (the path to it is set above)
from bed import windows  # noqa: E402

SUITE_LIMIT = 3000.0
FUZZ_SECONDS = 5

EXAMPLES = """examples:
  ./dev test                              all of them
  ./dev test --only x64                   unit tests and whole runs with the x86-64 build
  ./dev test --only e2e -k proxy          the whole runs whose names hold "proxy", both processors
  ./dev test --only unit -k memory_file   the unit tests of that name, everywhere

The logs and reports are in build/test-results. With CI=true nothing may be left out: a machine on which ARM64 programs
do not run fails then.
"""


@dataclass
class Result:
    """What came of a suite."""

    passed: int = 0
    failed: int = 0
    skipped: int = 0
    seconds: float = 0
    failures: list[str] = field(default_factory=list)
    skips: list[str] = field(default_factory=list)

    def fail(self, what: str) -> None:
        """Counts one failure."""
        self.failed += 1
        self.failures.append(what)


@dataclass(frozen=True)
class Suite:
    """Tests that run together. The tags are what --only knows it by."""

    name: str
    tags: frozenset[str]
    run: Callable[[Suite, argparse.Namespace], Result]
    architecture: str | None = None


def command(suite: Suite, arguments: list[str], *, log_name: str | None = None,
            environment: dict[str, str] | None = None) -> tuple[int | None, str]:
    """Runs a command with the suite's log as its output. Returns its status (None after the time limit) and output."""
    log = RESULTS / f"{log_name or suite.name}.log"
    with log.open("wb") as output:
        process = subprocess.Popen(arguments, cwd=TREE, stdin=subprocess.DEVNULL, stdout=output,
                                   stderr=subprocess.STDOUT, env={**os.environ, **(environment or {})})
        try:
            status: int | None = process.wait(SUITE_LIMIT)
        except subprocess.TimeoutExpired:
            process.terminate()
            try:
                process.wait(20)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()
            status = None
    return status, log.read_text(encoding="utf-8", errors="replace")


def read_report(report: Path, result: Result) -> None:
    """Counts the cases of a JUnit report; the unit tests and the whole runs both write one."""
    for case in junit.read_cases(report):
        name = f"{case.class_name}.{case.name}".removeprefix("tests.e2e.")
        if case.outcome == junit.FAILED:
            result.fail(f"{name}\n" + "\n".join(f"    {line}" for line in case.text.strip().splitlines()[-30:]))
        elif case.outcome == junit.SKIPPED:
            result.skipped += 1
            result.skips.append(f"{name}: {' '.join(case.text.split()) or 'no reason given'}")
        else:
            result.passed += 1


def reported(suite: Suite, arguments: list[str], report: Path, accepted: tuple[int, ...],
             environment: dict[str, str] | None = None) -> Result:
    """Runs a command that writes a report, and counts a command that does not as a failure."""
    result = Result()
    report.unlink(missing_ok=True)
    status, output = command(suite, arguments, environment=environment)
    if report.exists():
        read_report(report, result)
    tail = "\n".join(f"    {line}" for line in output.strip().splitlines()[-30:])
    if status is None:
        result.fail(f"{suite.name} did not end within {SUITE_LIMIT:.0f} s\n{tail}")
    elif status not in accepted and not result.failed:
        result.fail(f"{suite.name} ended with status {status}\n{tail}")
    elif not report.exists():
        result.fail(f"{suite.name} wrote no report\n{tail}")
    return result


def missing(*files: Path) -> Result | None:
    """A failure if one of the files has not been built."""
    for file in files:
        if not file.exists():
            result = Result()
            result.fail(f"{file.relative_to(TREE)} is missing: it has not been built")
            return result
    return None


def run_native(suite: Suite, options: argparse.Namespace) -> Result:
    """The unit tests of the portable half, with sanitizers."""
    program = BUILD / "native-asan/tests/unit_tests"
    report = RESULTS / f"{suite.name}.xml"
    filters = [f"--gtest_filter=*{options.k}*"] if options.k else []
    return missing(program) or reported(suite, [str(program), f"--gtest_output=xml:{report}", *filters], report, (0, 1))


def built(suite: Suite, preset: str, *targets: str) -> Result | None:
    """Builds what `./dev test` has not built, so that a tree without it is not a failure. A failure if it does not build."""
    for target in targets:
        status, output = command(suite, [sys.executable, "toolchain/job.py", "build", "--target", target, preset], log_name=f"{suite.name}-build")
        if status != 0:
            result = Result()
            result.fail(f"{preset} could not be built\n{output[-2000:]}")
            return result
    return None


def run_undefined(suite: Suite, options: argparse.Namespace) -> Result:
    """The unit tests under Wine in a build in which undefined behaviour ends the program."""
    build = BUILD / f"{suite.architecture}-ubsan"
    report = RESULTS / f"{suite.name}.xml"
    return built(suite, build.name, "unit_tests", "bed_agent") or reported(
        suite, [sys.executable, "-m", "bed.unit_tests", str(suite.architecture), str(build / "tests/unit_tests.exe"),
                str(build / "tests/bed/windows/agent.exe"), str(report), f"*{options.k or ''}*"], report, (0,), {"PYTHONPATH": str(TREE / "tests")})


def run_threads(suite: Suite, options: argparse.Namespace) -> Result:
    """The unit tests of the portable half once more, with the sanitizer of threads."""
    program = BUILD / "native-tsan/tests/unit_tests"
    report = RESULTS / f"{suite.name}.xml"
    filters = [f"--gtest_filter=*{options.k}*"] if options.k else []
    return built(suite, "native-tsan", "unit_tests") or reported(
        suite, [str(program), f"--gtest_output=xml:{report}", *filters], report, (0, 1))


def run_unit(suite: Suite, options: argparse.Namespace) -> Result:
    """The unit tests under Wine."""
    build = BUILD / f"{suite.architecture}-test"
    program, agent = build / "tests/unit_tests.exe", build / "tests/bed/windows/agent.exe"
    report = RESULTS / f"{suite.name}.xml"
    filters = [f"*{options.k}*"] if options.k else []
    return missing(program, agent) or reported(
        suite, [sys.executable, "-m", "bed.unit_tests", str(suite.architecture), str(program), str(agent), str(report),
                *filters], report, (0,), {"PYTHONPATH": str(TREE / "tests")})


def run_whole(suite: Suite, options: argparse.Namespace) -> Result:
    """Whole runs of the program."""
    build = BUILD / f"{suite.architecture}-test"
    report = RESULTS / f"{suite.name}.xml"
    arguments = [sys.executable, "-m", "pytest", str(TREE / "tests/e2e"), "--arch", str(suite.architecture),
                 "-p", "no:cacheprovider", "-rs", f"--junit-xml={report}"]
    # 5: none of the tests has the wanted name.
    return missing(build / "src/updater/lumaris.exe", build / "tests/bed/windows/agent.exe",
                   build / "tests/bed/windows/list_manager.dll", build / "packaging/installer/lumaris_setup.dll",
                   build / "tools/check/lumaris_check.exe", build / "tests/crash/crash_none.exe",
                   build / "tests/agreement.exe", BUILD / "native-asan/tools/publish/lumaris_judge",
                   BUILD / "native-asan/tools/report_reader/read_report", BUILD / "native-asan/tools/reports/lumaris-reports") or \
        reported(suite, arguments + (["-k", options.k] if options.k else []), report, (0, 1, 5))


def run_proof(suite: Suite, options: argparse.Namespace) -> Result:
    """The proof for a real Windows, packed and made under Wine."""
    build = BUILD / f"{suite.architecture}-test"
    report = RESULTS / f"{suite.name}.xml"
    arguments = [sys.executable, "-m", "pytest", str(TREE / "tests/proof"), "--arch", str(suite.architecture), "-p", "no:cacheprovider", "-rs",
                 f"--junit-xml={report}"]
    return missing(build / "tools/proof/proof.exe", build / "tests/unit_tests.exe", build / "tests/bed/windows/agent.exe") or \
        reported(suite, arguments + (["-k", options.k] if options.k else []), report, (0, 1, 5))


def run_pytest(suite: Suite, options: argparse.Namespace) -> Result:
    """The tests of the folder that is named like the suite: of the set-up itself, of what a release must be, or of the publisher's kit."""
    report = RESULTS / f"{suite.name}.xml"
    arguments = [sys.executable, "-m", "pytest", str(TREE / "tests" / suite.name), "-p", "no:cacheprovider", "-rs",
                 f"--junit-xml={report}"]
    return reported(suite, arguments + (["-k", options.k] if options.k else []), report, (0, 1, 5))


def run_fuzz(suite: Suite, options: argparse.Namespace) -> Result:
    """Each fuzz target over its seeds and for a few seconds more."""
    result = Result()
    found_by_target: dict[str, str] = {}
    folder = BUILD / "native-fuzz/fuzz"
    targets = sorted(file for file in folder.glob("*_fuzz") if os.access(file, os.X_OK) and file.is_file())
    if not targets:
        result.skipped += 1
        result.skips.append("fuzz: no fuzz target has been built (preset native-fuzz)")
    for target in targets:
        if options.k and options.k not in target.name:
            continue
        # What it finds goes into the first folder; the seeds remain as they are.
        found = RESULTS / "fuzz" / target.name
        (found / "corpus").mkdir(parents=True, exist_ok=True)
        seeds = TREE / "fuzz/corpus" / target.name
        dictionary = TREE / "fuzz" / f"{target.name}.dict"
        arguments = [str(target), f"-max_total_time={FUZZ_SECONDS}", "-print_final_stats=1", "-timeout=10",
                     f"-artifact_prefix={found}/", *([f"-dict={dictionary}"] if dictionary.exists() else []),
                     str(found / "corpus"), *([str(seeds)] if seeds.exists() else [])]
        status, output = command(suite, arguments, log_name=f"{suite.name}-{target.name}")
        if status == 0:
            result.passed += 1
        else:
            tail = "\n".join(f"    {line}" for line in output.strip().splitlines()[-30:])
            result.fail(f"{target.name} found something (in {found}), status {status}\n{tail}")
        found_by_target[target.name] = "" if status == 0 else f"status {status}"
    junit.write_cases(RESULTS / f"{suite.name}.xml", suite.name, found_by_target)
    return result


# The longest first, so that none is left alone at the end.
SUITES = (
    Suite("e2e-arm64", frozenset({"e2e", "arm64"}), run_whole, "arm64"),
    Suite("unit-arm64", frozenset({"unit", "arm64"}), run_unit, "arm64"),
    Suite("e2e-x64", frozenset({"e2e", "x64"}), run_whole, "x64"),
    Suite("proof-arm64", frozenset({"proof", "arm64"}), run_proof, "arm64"),
    Suite("proof-x64", frozenset({"proof", "x64"}), run_proof, "x64"),
    Suite("unit-x64", frozenset({"unit", "x64"}), run_unit, "x64"),
    Suite("ubsan-arm64", frozenset({"ubsan"}), run_undefined, "arm64"),
    Suite("ubsan-x64", frozenset({"ubsan"}), run_undefined, "x64"),
    Suite("fuzz", frozenset(), run_fuzz),
    Suite("native", frozenset({"unit"}), run_native),
    Suite("tsan", frozenset({"unit"}), run_threads),
    Suite("ground", frozenset(), run_pytest),
    Suite("release", frozenset(), run_pytest),
    Suite("reports", frozenset(), run_pytest),
    Suite("publish", frozenset(), run_pytest),
)


def select(only: list[str]) -> list[Suite]:
    """The suites that --only asks for, or all."""
    return [suite for suite in SUITES if not only or suite.name in only or suite.tags & set(only)]


def perform(suites: list[Suite], options: argparse.Namespace) -> dict[str, Result]:
    """Runs the suites, two at a time, and prints how far it is."""
    results: dict[str, Result] = {}
    running: dict[str, float] = {}
    lock = threading.Lock()

    def one(suite: Suite) -> None:
        begin = time.monotonic()
        with lock:
            running[suite.name] = begin
            print(f"{suite.name}: starts", flush=True)
        try:
            result = suite.run(suite, options)
        except Exception as error:  # noqa: BLE001  (a broken suite must not hide the others' results)
            result = Result()
            result.fail(f"{suite.name} could not be run: {error!r}")
        result.seconds = time.monotonic() - begin
        with lock:
            del running[suite.name]
            results[suite.name] = result
            print(f"{suite.name}: {result.passed} passed, {result.failed} failed, {result.skipped} skipped "
                  f"in {result.seconds:.0f} s ({len(results)} of {len(suites)} suites done)", flush=True)

    with concurrent.futures.ThreadPoolExecutor(max_workers=options.jobs) as pool:
        waiting = {pool.submit(one, suite) for suite in suites}
        while waiting:
            _, waiting = concurrent.futures.wait(waiting, timeout=30)
            with lock:
                if waiting and running:
                    names = ", ".join(f"{name} ({time.monotonic() - begin:.0f} s)" for name, begin in running.items())
                    print(f"  still running: {names}", flush=True)
    return results


def main() -> int:
    """Selects, runs, counts."""
    parser = argparse.ArgumentParser(prog="./dev test", description=__doc__, epilog=EXAMPLES,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--only", action="append", metavar="WHAT", default=[],
                        choices=sorted({suite.name for suite in SUITES}.union(*(suite.tags for suite in SUITES))),
                        help="run only these: native, tsan, x64, arm64, unit, ubsan, e2e, proof, fuzz, ground, release, publish, reports, or one suite such as e2e-x64; "
                             "may be given more than once")
    parser.add_argument("-k", metavar="NAME", help="run only the tests whose name holds this")
    parser.add_argument("--jobs", type=int, default=2, help="suites at a time (default: 2)")
    options = parser.parse_args()

    RESULTS.mkdir(parents=True, exist_ok=True)
    selected = select(options.only)
    unavailable: dict[str, Result] = {}
    for architecture in windows.ARCHITECTURES:
        concerned = [suite for suite in selected if suite.architecture == architecture]
        reason = concerned and (os.environ.get(f"LUMARIS_{architecture.upper()}_FAULT")
                                or windows.available(architecture))
        if reason:
            forbidden = os.environ.get("CI") == "true"
            print(f"{architecture} programs cannot run here: {reason}", flush=True)
            for suite in concerned:
                result = unavailable[suite.name] = Result()
                if forbidden:
                    result.fail(f"{suite.name} may not be left out with CI=true: {reason}")
                else:
                    result.skipped += 1
                    result.skips.append(f"{suite.name}: {reason}")
            selected = [suite for suite in selected if suite.name not in unavailable]
    results = perform(selected, options) | unavailable

    for name, result in results.items():
        for failure in result.failures:
            print(f"\nFAILED [{name}] {failure}")
        for skip in result.skips:
            print(f"skipped [{name}] {skip}")
    print(f"\n{'suite':12} {'passed':>7} {'failed':>7} {'skipped':>8} {'seconds':>8}")
    for suite in SUITES:
        if suite.name in results:
            result = results[suite.name]
            print(f"{suite.name:12} {result.passed:7} {result.failed:7} {result.skipped:8} {result.seconds:8.0f}")
    passed, failed, skipped = (sum(getattr(result, what) for result in results.values())
                               for what in ("passed", "failed", "skipped"))
    print(f"{passed} passed, {failed} failed, {skipped} skipped", flush=True)
    if options.only or options.k:
        return 1 if failed or not passed else 0
    verdict = plan.check_tree(unavailable)
    print()
    plan.tell(verdict)
    return 1 if failed or not passed or verdict.faults else 0


if __name__ == "__main__":
    sys.exit(main())
