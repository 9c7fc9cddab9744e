"""The workflow for hosted Windows runners, which cannot be run here: its syntax, and that it calls what there is."""

from __future__ import annotations

import re
import subprocess
from pathlib import Path

import pytest
import yaml

TREE = Path(__file__).resolve().parents[2]
pytestmark = pytest.mark.any_processor
WORKFLOW = TREE / ".github/workflows/windows.yml"


def test_the_workflow_says_first_that_it_has_not_been_run() -> None:
    assert WORKFLOW.read_text(encoding="utf-8").startswith("# Not run here yet")


def test_the_workflow_is_well_formed() -> None:
    done = subprocess.run(["yamllint", "--strict", "-d", "{extends: default, rules: {document-start: disable, line-length: {max: 160}}}",
                           str(WORKFLOW)], capture_output=True, text=True, timeout=60, check=False)
    assert (done.returncode, done.stdout) == (0, "")


def test_the_workflow_runs_what_it_has_built_on_both_processors() -> None:
    jobs = yaml.safe_load(WORKFLOW.read_text(encoding="utf-8"))["jobs"]
    assert set(jobs) == {"kits", "proof"}
    assert jobs["proof"]["needs"] == "kits"
    assert {(each["runner"], each["architecture"]) for each in jobs["proof"]["strategy"]["matrix"]["include"]} == {
        ("windows-11-arm", "arm64"), ("windows-2025", "x64")}
    for job in jobs.values():
        for step in job["steps"]:
            assert ("uses" in step) != ("run" in step), step
    # A report is kept whatever the verdict is.
    assert [step["if"] for step in jobs["proof"]["steps"] if "if" in step] == ["always()"]
    words = re.findall(r"\./dev ([\w-]+)", str(jobs))
    assert words == ["proof-kit"]
    assert f"\n    {words[0]}) " in (TREE / "toolchain/commands.sh").read_text(encoding="utf-8")
