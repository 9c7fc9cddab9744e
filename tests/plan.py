#!/usr/bin/env python3
"""Checks docs/test_plan.md and the pages in docs/test_plan/ against the sources and the reports of the tests.

Every case of the plan is a bullet: a sentence, and the tests that prove it. A test that is named must exist and must have
passed in the last run on x86-64 and on ARM64, unless a note behind the bracket says otherwise and why. `./dev plan` runs
this, and a full `./dev test` ends with it.
"""

from __future__ import annotations

import argparse
import re
import sys
from collections.abc import Collection, Iterable
from dataclasses import dataclass, field
from pathlib import Path

import junit

TREE = Path(__file__).resolve().parents[1]

EXAMPLES = """examples:
  ./dev plan                  checks the plan against the reports of the last ./dev test
  ./dev plan --unnamed        also lists the tests that no case names

How a case is written, and every note that there is, stands at the top of docs/test_plan.md.
"""

X64, ARM64, NATIVE = "x86-64", "ARM64", "native"
PLACES = {"x64": X64, "arm64": ARM64, None: NATIVE}

# What a note says of the tests before it: on which machines each of them must have passed, on which it must not have run at
# all, and on which it must have been skipped.
NOTES: dict[str, tuple[frozenset[str], frozenset[str], frozenset[str]]] = {
    "": (frozenset({X64, ARM64}), frozenset(), frozenset()),
    "x86-64 only": (frozenset({X64}), frozenset({ARM64}), frozenset()),
    "ARM64 only": (frozenset({ARM64}), frozenset({X64}), frozenset()),
    "native only": (frozenset({NATIVE}), frozenset({X64, ARM64}), frozenset()),
    "partly x86-64 only": (frozenset({X64, ARM64}), frozenset(), frozenset()),
    "skipped on x86-64": (frozenset({ARM64}), frozenset(), frozenset({X64})),
    "skipped on ARM64": (frozenset({X64}), frozenset(), frozenset({ARM64})),
    "on request": (frozenset(), frozenset(), frozenset()),
}
NOT_SHOWN = "not shown"

_NAME = r"`[^`]+`"
_KINDS = "|".join(re.escape(kind) for kind in (*filter(None, NOTES), NOT_SHOWN))
_NOTE = rf"\((?P<kind>{_KINDS}): (?P<reason>[^()]*[^() ])\)"
_GROUP = re.compile(rf" \[(?P<names>{_NAME}(?:, {_NAME})*)\](?: {_NOTE})?")
_TAIL = re.compile(rf"(?P<sentence>.*?\.)(?P<groups>(?: \[{_NAME}(?:, {_NAME})*\](?: \((?:{_KINDS}): [^()]*[^() ]\))?)+)")
_UNSHOWN = re.compile(rf"(?P<sentence>.*\.) \({NOT_SHOWN}: (?P<reason>[^()]*[^() ])\)")
_HEADING_NOTE = re.compile(_NOTE)
_CPP_TEST = re.compile(r"^(?:TYPED_)?TEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\s*\)", re.MULTILINE)
_PYTHON_TEST = re.compile(r"^def (test_\w+)\(", re.MULTILINE)
_LONG_TEST = re.compile(r"^    Part\(\"([\w-]+)\"", re.MULTILINE)


@dataclass(frozen=True)
class Group:
    """Tests in one bracket, with what their note says."""

    names: tuple[str, ...]
    kind: str = ""


@dataclass(frozen=True)
class Case:
    """A bullet of the plan. One without groups cannot be shown, and says why."""

    line: int
    sentence: str
    groups: tuple[Group, ...]


@dataclass
class Section:
    """A heading of the second level with the cases below it, and the page that it stands in."""

    title: str
    file: str
    cases: list[Case] = field(default_factory=list)


@dataclass
class Plan:
    """What the document says, and what in it cannot be understood."""

    sections: list[Section] = field(default_factory=list)
    faults: list[str] = field(default_factory=list)


@dataclass
class Outcome:
    """What came of one test, with all its parameters, in one suite or place."""

    passed: set[str] = field(default_factory=set)
    failed: set[str] = field(default_factory=set)
    skipped: dict[str, str] = field(default_factory=dict)

    @property
    def ran(self) -> bool:
        """Whether the test was tried at all."""
        return bool(self.passed or self.failed or self.skipped)


@dataclass(frozen=True)
class Suite:
    """Tests that run together and write one report, as far as the check needs to know them."""

    name: str
    place: str


@dataclass
class Reports:
    """Outcomes by test and suite, and the suites without a report."""

    outcomes: dict[str, dict[Suite, Outcome]] = field(default_factory=dict)
    missing: list[Suite] = field(default_factory=list)

    def at(self, name: str, place: str) -> Outcome:
        """What came of a test in all suites of a place."""
        result = Outcome()
        for suite, outcome in self.outcomes.get(name, {}).items():
            if suite.place == place:
                result.passed |= outcome.passed
                result.failed |= outcome.failed
                result.skipped |= outcome.skipped
        return result


def parse(text: str, file: str) -> Plan:
    """Reads the plan. Indented blocks and paragraphs are for people; bullets and headings count."""
    plan = Plan()
    default_kind = {1: "", 2: "", 3: "", 4: ""}
    seen: dict[str, int] = {}
    level = 1
    bullet: list[str] = []
    begin = 0

    def finish() -> None:
        if not bullet:
            return
        case = _read_case(" ".join(bullet), begin, next(filter(None, (default_kind[at] for at in range(level, 0, -1))), ""))
        bullet.clear()
        if isinstance(case, str):
            plan.faults.append(f"{file}:{begin}: {case}")
        elif not plan.sections:
            plan.faults.append(f"{file}:{begin}: a case before the first section")
        elif case.sentence in seen:
            plan.faults.append(f"{file}:{begin}: the same case stands in line {seen[case.sentence]}")
        else:
            seen[case.sentence] = begin
            plan.sections[-1].cases.append(case)

    for number, line in enumerate(text.splitlines(), 1):
        heading = re.match(r"(#+) +(.+)", line)
        if line.startswith("- "):
            finish()
            bullet, begin = [line[2:].strip()], number
        elif bullet and re.match(r"  (?![-*+] )\s*\S", line):
            bullet.append(line.strip())
        else:
            finish()
            if heading:
                level = min(len(heading[1]), 4)
                default_kind.update({at: "" for at in range(level, 5)})
                if level == 2:
                    plan.sections.append(Section(heading[2], file))
            elif note := _HEADING_NOTE.fullmatch(line.strip()):
                default_kind[level] = note["kind"]
                if note["kind"] == NOT_SHOWN:
                    plan.faults.append(f"{file}:{number}: only a case can be \"{NOT_SHOWN}\"")
            elif re.match(r" {0,3}([-*+]|\d+\.)(\s|$)|\(", line):
                plan.faults.append(f"{file}:{number}: neither a case (\"- Sentence. [`suite.test`]\") nor a known note: {line.strip()}")
    finish()
    return plan


def _read_case(text: str, line: int, default_kind: str) -> Case | str:
    """A case, or what is wrong with it."""
    if unshown := _UNSHOWN.fullmatch(text):
        return Case(line, unshown["sentence"], ())
    if not (parts := _TAIL.fullmatch(text)):
        return (f"a case is \"- Sentence. [`suite.test`, `file.test`]\", then perhaps a note such as \"(x86-64 only: why)\", or "
                f"\"- Sentence. ({NOT_SHOWN}: why)\"; this is: {text}")
    groups = []
    for group in _GROUP.finditer(parts["groups"]):
        if group["kind"] == NOT_SHOWN:
            return f"a case that names tests is shown: {text}"
        names = tuple(re.findall(r"`([^`]+)`", group["names"]))
        if wrong := [name for name in names if not re.fullmatch(r"\w+\.[\w-]+", name)]:
            return f"`{wrong[0]}` is not the name of a test; a name is `suite.test` or `file.test`, without parameters"
        groups.append(Group(names, group["kind"] or default_kind))
    named = [name for group in groups for name in group.names]
    if len(named) != len(set(named)):
        return f"a test is named twice: {text}"
    return Case(line, parts["sentence"], tuple(groups))


def read_sources(tests: Path) -> set[str]:
    """The names of all tests that the sources hold."""
    names: set[str] = set()
    for file in tests.rglob("*.cpp"):
        names.update(f"{suite}.{test}" for suite, test in _CPP_TEST.findall(file.read_text(encoding="utf-8")))
    for file in tests.rglob("test_*.py"):
        names.update(f"{file.stem}.{test}" for test in _PYTHON_TEST.findall(file.read_text(encoding="utf-8")))
    names.update(f"fuzz.{file.stem}" for file in (tests.parent / "fuzz").glob("*_fuzz.cpp"))
    if (long_tests := tests / "soak.py").exists():
        names.update(f"soak.{part}" for part in _LONG_TEST.findall(long_tests.read_text(encoding="utf-8")))
    return names


def plain_name(class_name: str, name: str) -> tuple[str, str]:
    """The name of a reported test without what it is repeated with, and that."""
    parts = class_name.split("/")
    # "instances/suite", "suite/0" if it is repeated for types, or both.
    suite = next((part for part in reversed(parts) if not part.isdigit()), class_name)
    test = re.split(r"[/\[]", name, maxsplit=1)[0]
    return f"{suite.rpartition('.')[2]}.{test}", class_name + name[len(test):]


def read_reports(results: Path, suites: Iterable[Suite]) -> Reports:
    """What the last runs of the suites reported."""
    reports = Reports()
    for suite in suites:
        report = results / f"{suite.name}.xml"
        if not report.exists():
            reports.missing.append(suite)
            continue
        for case in junit.read_cases(report):
            name, parameters = plain_name(case.class_name, case.name)
            outcome = reports.outcomes.setdefault(name, {}).setdefault(suite, Outcome())
            if case.outcome == junit.FAILED:
                outcome.failed.add(parameters)
            elif case.outcome == junit.SKIPPED:
                outcome.skipped[parameters] = case.text.strip()
            else:
                outcome.passed.add(parameters)
    return reports


def judge(name: str, kind: str, sources: Collection[str], reports: Reports, left_out: Collection[str]) -> list[str]:
    """What is wrong with a test that a case with this note names. Nothing is asked of a place that is left out."""
    by_suite = reports.outcomes.get(name, {})
    if name not in sources and not by_suite:
        return [f"{name} does not exist"]
    faults = []
    required, excluded, skipped = NOTES[kind]
    outcomes = {place: reports.at(name, place) for place in (X64, ARM64, NATIVE)}
    for place, outcome in outcomes.items():
        if outcome.failed:
            faults.append(f"{name} failed on {place}")
        if place in left_out:
            continue
        if outcome.skipped and place not in skipped:
            faults.append(f"{name} was skipped on {place}, and the plan does not say why")
        elif place in skipped and not outcome.skipped:
            faults.append(f"{name} was not skipped on {place}, and the plan says it was")
        elif place in required and not outcome.ran:
            faults.append(f"{name} did not run on {place}")
        elif place in excluded and outcome.ran:
            faults.append(f"{name} ran on {place}, and the plan says it does not")
    if kind == "on request":
        faults += [f"{name} ran in {suite.name}, and the plan says it runs on request only"
                   for suite, outcome in by_suite.items() if outcome.ran]
    if {X64, ARM64} <= required and not {X64, ARM64} & set(left_out) and outcomes[X64].ran and outcomes[ARM64].ran:
        lacking = outcomes[X64].passed - outcomes[ARM64].passed - outcomes[ARM64].failed - set(outcomes[ARM64].skipped)
        if lacking and kind != "partly x86-64 only":
            faults.append(f"{name} ran with {len(lacking)} more parameters on {X64} than on {ARM64}, and the plan does not say why")
        elif not lacking and kind == "partly x86-64 only":
            faults.append(f"{name} ran with the same parameters on both processors, and the plan says it did not")
    return faults


@dataclass
class Verdict:
    """What the check found."""

    lines: list[str] = field(default_factory=list)
    faults: list[str] = field(default_factory=list)
    unnamed: list[str] = field(default_factory=list)


def _row(title: str, *numbers: object) -> str:
    """A line of the summary."""
    return f"{title:38}" + "".join(f" {number:>{width}}" for number, width in zip(numbers, (6, 6, 7, 6, 7, 8, 10), strict=True))


def pages_of(document: Path) -> list[Path]:
    """The document, and the pages in the folder of its name."""
    return [document, *sorted(document.with_suffix("").glob("*.md"))]


def read_plan(document: Path) -> Plan:
    """All pages as one plan."""
    plan = Plan()
    for page in pages_of(document):
        part = parse(page.read_text(encoding="utf-8"), page.name)
        plan.sections += part.sections
        plan.faults += part.faults
    return plan


def names_in_table(page: Path) -> set[str]:
    """The tests that the last column of the page's tables names."""
    rows = (line.rstrip().removesuffix("|") for line in page.read_text(encoding="utf-8").splitlines() if line.startswith("|"))
    return {name for row in rows for name in re.findall(r"`(\w+\.[\w-]+)`", row.rpartition("|")[2])}


def check(document: Path, tests: Path, results: Path, suites: Collection[Suite], left_out: Collection[str] = (),
          quoting: Iterable[Path] = ()) -> Verdict:
    """Checks the plan. `left_out` names the suites that cannot run on this machine, which has been said elsewhere; `quoting` are
    pages whose tables name tests, each of which must be named by a case of the plan, too."""
    verdict = Verdict()
    plan = read_plan(document)
    sources = read_sources(tests)
    reports = read_reports(results, [suite for suite in suites if suite.name not in left_out])
    places_left_out = {suite.place for suite in suites if suite.name in left_out}
    verdict.faults += plan.faults
    verdict.faults += [f"there is no report of {suite.name}: run ./dev test" for suite in reports.missing]
    judged: set[tuple[str, str]] = set()
    named: set[str] = set()
    unshown_in_all = 0
    verdict.lines.append(_row("section", "cases", "tests", X64, ARM64, NATIVE, "skipped", "not shown"))

    def count(title: str, cases: int, names: set[str], unshown: int) -> None:
        outcomes = {place: [reports.at(name, place) for name in names] for place in (X64, ARM64, NATIVE)}
        verdict.lines.append(_row(title, cases, len(names), *(sum(bool(each.passed) for each in outcomes[place]) for place in outcomes),
                                  sum(len(each.skipped) for at in outcomes.values() for each in at), unshown))

    for section in plan.sections:
        names: set[str] = set()
        for case in section.cases:
            for group in case.groups:
                names.update(group.names)
                for name in group.names:
                    if (name, group.kind) not in judged:
                        judged.add((name, group.kind))
                        verdict.faults += [f"{section.file}:{case.line}: {fault}"
                                           for fault in judge(name, group.kind, sources, reports, places_left_out)]
        unshown = sum(1 for case in section.cases if not case.groups)
        count(section.title, len(section.cases), names, unshown)
        named |= names
        unshown_in_all += unshown
    count("all", sum(len(section.cases) for section in plan.sections), named, unshown_in_all)
    if not named:
        verdict.faults.append(f"{document.name}: no case names a test")
    for page in quoting:
        verdict.faults += [f"{page.name}: no case of the plan names {name}" for name in sorted(names_in_table(page) - named)]
    verdict.unnamed = sorted((sources | set(reports.outcomes)) - named)
    verdict.lines.append(f"{len(verdict.unnamed)} tests are named by no case")
    return verdict


def check_tree(left_out: Collection[str] = ()) -> Verdict:
    """Checks the plan of this tree."""
    import run  # noqa: PLC0415  (it imports this module in turn)

    suites = [Suite(suite.name, PLACES[suite.architecture]) for suite in run.SUITES]
    return check(TREE / "docs/test_plan.md", TREE / "tests", run.RESULTS, suites, left_out,
                 (TREE / "SECURITY.md",))


def tell(verdict: Verdict) -> None:
    """Prints what the check found."""
    print("\n".join(verdict.lines))
    for fault in verdict.faults:
        print(f"FAULT {fault}")
    print(f"the test plan has {len(verdict.faults)} faults" if verdict.faults else "the test plan holds", flush=True)


def main() -> int:
    """Checks, and prints the result."""
    parser = argparse.ArgumentParser(prog="./dev plan", description=__doc__, epilog=EXAMPLES,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--unnamed", action="store_true", help="list the tests that no case names")
    options = parser.parse_args()
    verdict = check_tree()
    if options.unnamed:
        print("\n".join(verdict.unnamed))
    tell(verdict)
    return int(bool(verdict.faults))


if __name__ == "__main__":
    sys.exit(main())
