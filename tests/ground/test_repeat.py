"""Repeating the tests: whatever fails once is counted by its name, whether the program says so, ends early or hangs."""

from __future__ import annotations

import sys
from collections import Counter
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests"))

import repeat  # noqa: E402  (the path to it is set above)

TWO_ROUNDS = """Repeating all tests (iteration 1) . . .

Note: Randomizing tests' orders with a seed of 12 .
unit.cpp:7: Failure
[  FAILED  ] stream.reads (0 ms)
[  FAILED  ] sizes/stream.writes/3, where GetParam() = 3 (12 ms)
[==========] 5 tests from 2 test suites ran. (1 ms total)
[  PASSED  ] 3 tests.
[  FAILED  ] 2 tests, listed below:
[  FAILED  ] stream.reads
[  FAILED  ] sizes/stream.writes/3, where GetParam() = 3

Repeating all tests (iteration 2) . . .

[  FAILED  ] stream.reads (1 ms)
[  FAILED  ] 1 test, listed below:
[  FAILED  ] stream.reads
"""


def test_each_failure_of_each_round_counts_once(tmp_path: Path) -> None:
    assert repeat.failures(1, TWO_ROUNDS, tmp_path / "none") == Counter({"stream.reads": 2, "sizes/stream.writes/3": 1})
    assert repeat.failures(0, "[==========] 5 tests ran.\n[  PASSED  ] 5 tests.\n", tmp_path / "none") == Counter()


def test_failed_and_broken_whole_runs_are_read_from_their_report(tmp_path: Path) -> None:
    report = tmp_path / "report.xml"
    report.write_text("<testsuites><testsuite><testcase classname='tests.e2e.test_a' name='test_b[c]'><failure/></testcase>"
                      "<testcase classname='tests.e2e.test_a' name='test_d'/><testcase classname='tests.e2e.test_a' name='test_e'><error/>"
                      "</testcase></testsuite></testsuites>", encoding="ascii")
    assert repeat.failures(1, "", report) == Counter({"tests.e2e.test_a.test_b[c]": 1, "tests.e2e.test_a.test_e": 1})


def test_an_end_without_a_verdict_is_a_failure(tmp_path: Path) -> None:
    assert repeat.failures(None, "[ RUN      ] stream.waits\n", tmp_path / "none") == Counter({"the program did not end, in stream.waits": 1})
    assert repeat.failures(3, "", tmp_path / "none") == Counter({"the program ended with status 3": 1})


@pytest.mark.parametrize("name", [suite.name for suite in repeat.SUITES])
def test_every_suite_gets_its_order_from_the_seed(name: str, tmp_path: Path) -> None:
    suite = next(each for each in repeat.SUITES if each.name == name)
    line = repeat.command_of(suite, 7, 4321, tmp_path / "report.xml")
    if name.startswith("e2e"):
        assert line[line.index("--shuffle") + 1] == "4321" and line[line.index("--arch") + 1] == name.removeprefix("e2e-")
    elif name == "reports":
        assert line[line.index("--shuffle") + 1] == "4321" and "--arch" not in line and str(ROOT / "tests/reports") in line
    else:
        assert {"--gtest_repeat=7", "--gtest_shuffle", "--gtest_random_seed=4321"} <= set(line)
    assert suite.times == (10 if name.startswith("e2e") else 20 if name == "reports" else 200)


def test_a_failure_in_any_round_fails_the_whole(monkeypatch: pytest.MonkeyPatch, tmp_path: Path, capsys: pytest.CaptureFixture[str]) -> None:
    # Fails in its third call of four.
    counter = tmp_path / "calls"
    script = (f"import pathlib; p = pathlib.Path({str(counter)!r}); n = len(p.read_text()) if p.exists() else 0; p.write_text('x' * (n + 1));"
              "print('[  FAILED  ] a.b (0 ms)' if n == 2 else 'fine'); raise SystemExit(n == 2)")
    monkeypatch.setattr(repeat, "RESULTS", tmp_path / "results")
    monkeypatch.setattr(repeat, "command_of", lambda *_: [sys.executable, "-c", script])
    monkeypatch.setattr(sys, "argv", ["repeat.py", "--only", "native", "--times", "80", "--seed", "99990"])
    assert repeat.main() == 1
    said = capsys.readouterr().out
    assert "native: 60 of 80 rounds, seed 31: FAILED" in said and "    a.b: 1 of 80\n" in said
    assert len(counter.read_text(encoding="ascii")) == 4
    monkeypatch.setattr(sys, "argv", ["repeat.py", "--only", "native", "--times", "20"])
    assert repeat.main() == 0
