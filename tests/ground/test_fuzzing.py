"""./dev fuzz runs each target with its seeds and dictionary, and fails if one finds something."""

import argparse
import re
import sys
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "toolchain"))

from jobs import fuzzing  # noqa: E402  (the path to it is set above)
from jobs.common import JobError  # noqa: E402

# Stands for a fuzz target: prints what it was given and, like the fuzzer, how many inputs it tried.
TARGET = """#!/bin/sh
echo "$@"
echo "stat::number_of_executed_units: 1234567"
exit {status}
"""


@pytest.fixture
def tree(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Path:
    """A checkout with two built fuzz targets, of which one finds something."""
    monkeypatch.chdir(tmp_path)
    programs = tmp_path / "build/native-fuzz/fuzz"
    programs.mkdir(parents=True)
    for name, status in (("good_fuzz", 0), ("bad_fuzz", 77)):
        (programs / name).write_text(TARGET.format(status=status), encoding="utf-8")
        (programs / name).chmod(0o755)
    (tmp_path / "fuzz/corpus/good_fuzz").mkdir(parents=True)
    (tmp_path / "fuzz/good_fuzz.dict").write_text("", encoding="utf-8")
    return tmp_path


def asked(*targets: str) -> argparse.Namespace:
    """The command line."""
    return argparse.Namespace(targets=list(targets), seconds=7)


def printed(capsys: pytest.CaptureFixture[str]) -> list[str]:
    """What was printed, whatever time it took."""
    return re.sub(r"in \d+ s,", "in N s,", capsys.readouterr().out).splitlines()


def test_no_finding_is_reported_with_the_number_of_inputs(tree: Path, capsys: pytest.CaptureFixture[str]) -> None:
    fuzzing.run(asked("good_fuzz"))
    assert printed(capsys) == ["dev: fuzzing good_fuzz for 7 s",
                               "dev: good_fuzz: 1,234,567 inputs in N s, no finding (log: build/fuzz/good_fuzz.log)"]
    assert (tree / "build/fuzz/good_fuzz.log").read_text(encoding="utf-8").splitlines()[0] == (
        "-dict=fuzz/good_fuzz.dict -max_total_time=7 -timeout=10 -print_final_stats=1 "
        "-artifact_prefix=build/fuzz/good_fuzz/crash- build/fuzz/good_fuzz fuzz/corpus/good_fuzz")


def test_a_finding_is_a_failure_that_names_its_input(tree: Path, capsys: pytest.CaptureFixture[str]) -> None:
    with pytest.raises(JobError, match="^bad_fuzz found something: the input is in build/fuzz/bad_fuzz$"):
        fuzzing.run(asked())
    assert "dev: bad_fuzz: 1,234,567 inputs in N s, a finding (log: build/fuzz/bad_fuzz.log)" in printed(capsys)
    assert (tree / "build/fuzz/good_fuzz.log").exists()


def test_an_unknown_target_is_refused_with_the_known_ones(tree: Path) -> None:
    with pytest.raises(JobError, match="^there is no fuzz target ugly_fuzz; there are bad_fuzz, good_fuzz$"):
        fuzzing.run(asked("ugly_fuzz"))
    assert not (tree / "build/fuzz").exists()
