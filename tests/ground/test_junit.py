"""The reports of GoogleTest and of pytest are read alike."""

from __future__ import annotations

import sys
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests"))

import junit  # noqa: E402  (the path to it is set above)

GOOGLETEST = """<?xml version="1.0" encoding="UTF-8"?>
<testsuites tests="4" failures="1" disabled="1" errors="0" time="0" name="AllTests">
  <testsuite name="stream" tests="4" failures="1" disabled="1" skipped="1" errors="0" time="0">
    <testcase name="reads" status="run" result="completed" time="0" classname="stream" />
    <testcase name="writes" status="run" result="completed" time="0" classname="stream">
      <failure message="1 is not 2" type=""><![CDATA[stream_test.cpp:1
1 is not 2]]></failure>
    </testcase>
    <testcase name="seeks" status="run" result="skipped" time="0" classname="stream">
      <skipped message="no disk"><![CDATA[no disk]]></skipped>
    </testcase>
    <testcase name="left_out" status="notrun" result="suppressed" time="0" classname="stream" />
  </testsuite>
</testsuites>
"""
PYTEST = """<?xml version="1.0" encoding="utf-8"?>
<testsuites><testsuite name="pytest" errors="1" failures="0" skipped="1" tests="3" time="0">
  <testcase classname="tests.e2e.test_run" name="test_runs[a.b]" time="0" />
  <testcase classname="tests.e2e.test_run" name="test_skips" time="0"><skipped type="pytest.skip" message="no screen">why</skipped></testcase>
  <testcase classname="tests.e2e.test_run" name="test_breaks" time="0"><error message="no bed">at setup</error></testcase>
</testsuite></testsuites>
"""


@pytest.mark.parametrize(("text", "expected"), [
    (GOOGLETEST, [("stream", "reads", "passed", ""), ("stream", "writes", "failed", "stream_test.cpp:1\n1 is not 2"),
                  ("stream", "seeks", "skipped", "no disk")]),
    (PYTEST, [("tests.e2e.test_run", "test_runs[a.b]", "passed", ""), ("tests.e2e.test_run", "test_skips", "skipped", "no screen"),
              ("tests.e2e.test_run", "test_breaks", "failed", "at setup")]),
], ids=["googletest", "pytest"])
def test_a_report_is_read(tmp_path: Path, text: str, expected: list[tuple[str, str, str, str]]) -> None:
    (tmp_path / "report.xml").write_text(text, encoding="utf-8")
    assert [(case.class_name, case.name, case.outcome, case.text) for case in junit.read_cases(tmp_path / "report.xml")] == expected


def test_a_report_that_was_written_is_read_again(tmp_path: Path) -> None:
    junit.write_cases(tmp_path / "report.xml", "fuzz", {"one_fuzz": "", "two_fuzz": "status 77"})
    assert [(case.class_name, case.name, case.outcome, case.text) for case in junit.read_cases(tmp_path / "report.xml")] == \
        [("fuzz", "one_fuzz", "passed", ""), ("fuzz", "two_fuzz", "failed", "status 77")]


def test_a_damaged_report_is_an_error(tmp_path: Path) -> None:
    (tmp_path / "report.xml").write_text(GOOGLETEST[:300], encoding="utf-8")
    with pytest.raises(Exception, match="report.xml, line 4"):
        list(junit.read_cases(tmp_path / "report.xml"))
