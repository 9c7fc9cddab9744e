"""Running the fuzz targets of build/native-fuzz.

A target is fuzz/NAME.cpp; its seeds are in fuzz/corpus/NAME and its dictionary is fuzz/NAME.dict. What is found is kept in
build/fuzz/NAME and reused by the next run.
"""

import argparse
import re
import subprocess
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from jobs.common import JobError, cores


def add_parser(commands: "argparse._SubParsersAction[argparse.ArgumentParser]") -> None:
    parser = commands.add_parser("fuzz", help="run fuzz targets")
    parser.add_argument("targets", nargs="*", metavar="TARGET")
    parser.add_argument("--seconds", type=int, default=60, help="time for each target (default 60)")
    parser.set_defaults(run=run)


def available() -> list[str]:
    return sorted(path.name for path in Path("build/native-fuzz/fuzz").glob("*_fuzz") if path.is_file())


def run(arguments: argparse.Namespace) -> None:
    existing = available()
    if not existing:
        raise JobError("no fuzz target has been built")
    for target in arguments.targets:
        if target not in existing:
            raise JobError(f"there is no fuzz target {target}; there are {', '.join(existing)}")
    with ThreadPoolExecutor(cores()) as side_by_side:
        findings = list(side_by_side.map(lambda target: fuzz(target, arguments.seconds), arguments.targets or existing))
    if findings := [each for each in findings if each]:
        raise JobError("; ".join(findings))


def fuzz(target: str, seconds: int) -> str:
    """Runs one target, its output in a file beside what it finds, and prints how far it came. Returns what it found, if anything."""
    found = Path("build/fuzz") / target
    found.mkdir(parents=True, exist_ok=True)
    command = [f"build/native-fuzz/fuzz/{target}", f"-max_total_time={seconds}", "-timeout=10", "-print_final_stats=1",
               f"-artifact_prefix={found}/crash-", str(found)]
    seeds = Path("fuzz/corpus") / target
    if seeds.is_dir():
        command.append(str(seeds))
    dictionary = Path("fuzz") / f"{target}.dict"
    if dictionary.is_file():
        command.insert(1, f"-dict={dictionary}")
    print(f"dev: fuzzing {target} for {seconds} s", flush=True)
    log = found.with_suffix(".log")
    begin = time.monotonic()
    with log.open("wb") as output:
        status = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT, check=False).returncode
    text = log.read_text(encoding="utf-8", errors="replace")
    inputs = re.search(r"^stat::number_of_executed_units: *(\d+)$", text, re.MULTILINE)
    print(f"dev: {target}: {int(inputs[1]) if inputs else 0:,} inputs in {time.monotonic() - begin:.0f} s, "
          f"{'a finding' if status else 'no finding'} (log: {log})", flush=True)
    if not status:
        return ""
    print(text[-4000:], flush=True)
    return f"{target} found something: the input is in {found}"
