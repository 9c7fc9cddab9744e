"""Reads the reports that suites write: GoogleTest's and pytest's forms of JUnit's XML."""

from __future__ import annotations

from collections.abc import Iterator, Mapping
from dataclasses import dataclass
from pathlib import Path

from junitparser import Attr, Error, Failure, JUnitXml, Skipped, TestCase, TestSuite

PASSED, FAILED, SKIPPED = "passed", "failed", "skipped"


class _Case(TestCase):  # type: ignore[misc]  # the package has no types
    """A case with what GoogleTest adds: a test that was left out is reported, too."""

    status = Attr("status")
    result_word = Attr("result")


@dataclass(frozen=True)
class Case:
    """What came of one test: PASSED, FAILED or SKIPPED, and what the report says of it."""

    class_name: str
    name: str
    outcome: str
    text: str


def read_cases(report: Path) -> Iterator[Case]:
    """The cases that ran or said why not, in the report's order. Throws what the parser throws for a report that is damaged."""
    document = JUnitXml.fromfile(str(report))
    suites = [document] if isinstance(document, TestSuite) else list(document)
    for suite in suites:
        for element in suite:
            case = _Case.fromelem(element)
            if case.status == "notrun" or case.result_word == "suppressed":
                continue
            yield _judged(case)


def write_cases(report: Path, suite_name: str, faults: Mapping[str, str]) -> None:
    """Writes a report with a case for each name; an empty fault means that it passed."""
    suite = TestSuite(suite_name)
    for name, fault in faults.items():
        case = TestCase(name, suite_name)
        case.result = [Failure(fault)] if fault else []
        suite.add_testcase(case)
    document = JUnitXml()
    document.add_testsuite(suite)
    document.write(str(report))


def _judged(case: _Case) -> Case:
    faults = [entry for entry in case.result if isinstance(entry, (Failure, Error))]
    skips = [entry for entry in case.result if isinstance(entry, Skipped)]
    named = (case.classname or "", case.name or "")
    if faults:
        return Case(*named, FAILED, faults[0].text or faults[0].message or "")
    if skips or case.result_word == "skipped":
        return Case(*named, SKIPPED, (skips[0].message or skips[0].text or "") if skips else "")
    return Case(*named, PASSED, "")
