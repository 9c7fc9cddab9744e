"""The check of the test plan finds each way in which a plan can be wrong, and passes one that is right."""

from __future__ import annotations

import sys
from pathlib import Path
from xml.sax.saxutils import quoteattr

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests"))

import plan  # noqa: E402  (the path to it is set above)

SUITES = (plan.Suite("unit-x64", plan.X64), plan.Suite("unit-arm64", plan.ARM64), plan.Suite("e2e-x64", plan.X64),
          plan.Suite("e2e-arm64", plan.ARM64), plan.Suite("native", plan.NATIVE))
SOURCE = """
TEST(stream, reads) {
TEST_F(stream, writes) {
TYPED_TEST(stream, closes) {
TEST_P(stream,
       seeks) {
TEST(stream, never_built) {
"""
PASSED, FAILED, ERROR, SKIPPED = "", "<failure message='1 is not 2'/>", "<error message='no bed'/>", "<skipped message='no screen'/>"


class Tree:
    """A tree with a plan, some tests and their reports; at first all of them passed everywhere."""

    def __init__(self, folder: Path) -> None:
        self.document = folder / "plan.md"
        self.tests = folder / "tests"
        self.results = folder / "results"
        (self.tests / "e2e").mkdir(parents=True)
        self.results.mkdir()
        (self.tests / "stream_test.cpp").write_text(SOURCE, encoding="utf-8")
        (self.tests / "e2e/test_run.py").write_text("def test_runs(world):\n", encoding="utf-8")
        (self.tests / "soak.py").write_text('PARTS = (\n    Part("long-runs", 60,\n', encoding="utf-8")
        for suite in ("unit-x64", "unit-arm64"):
            self.report(suite, ("stream", "reads", PASSED), ("stream", "writes", PASSED), ("stream/0", "closes", PASSED),
                        ("stream/1", "closes", PASSED), ("all/stream", "seeks/to_1", PASSED), ("all/stream", "seeks/to_2", PASSED))
        for suite in ("e2e-x64", "e2e-arm64"):
            self.report(suite, ("tests.e2e.test_run", "test_runs[a.b]", PASSED))
        self.report("native", ("stream", "reads", PASSED))

    def report(self, suite: str, *cases: tuple[str, str, str]) -> None:
        """Writes the report of a suite."""
        lines = [f"<testcase classname={quoteattr(class_name)} name={quoteattr(name)}>{inner}</testcase>"
                 for class_name, name, inner in cases]
        (self.results / f"{suite}.xml").write_text(f"<testsuites><testsuite>{''.join(lines)}</testsuite></testsuites>",
                                                   encoding="utf-8")

    def check(self, *lines: str, left_out: tuple[str, ...] = ()) -> plan.Verdict:
        """Checks a plan of these lines below one section."""
        self.document.write_text("\n".join(("# Plan", "", "## Streams", "", *lines, "")), encoding="utf-8")
        return plan.check(self.document, self.tests, self.results, SUITES, left_out)


@pytest.fixture
def tree(tmp_path: Path) -> Tree:
    """A tree in which everything is right."""
    return Tree(tmp_path)


def only_fault(verdict: plan.Verdict) -> str:
    """The one fault that was found."""
    assert len(verdict.faults) == 1, verdict.faults
    return verdict.faults[0]


def test_tests_that_passed_on_both_processors_prove_a_case(tree: Tree) -> None:
    verdict = tree.check("- Reads, writes,", "  and closes. [`stream.reads`, `stream.writes`,", "  `stream.closes`, `stream.seeks`]",
                         "- Runs. [`test_run.test_runs`]")
    assert verdict.faults == []
    assert verdict.lines[1].split() == ["Streams", "2", "5", "5", "5", "1", "0", "0"]
    assert verdict.lines[2].split() == ["all", "2", "5", "5", "5", "1", "0", "0"]
    assert verdict.unnamed == ["soak.long-runs", "stream.never_built"]


def test_a_name_that_no_test_has_is_a_fault(tree: Tree) -> None:
    assert only_fault(tree.check("- Reads. [`stream.reed`]")) == "plan.md:5: stream.reed does not exist"


def test_a_test_that_did_not_run_is_a_fault_on_each_processor(tree: Tree) -> None:
    assert tree.check("- Reads. [`stream.never_built`]").faults == [
        "plan.md:5: stream.never_built did not run on x86-64", "plan.md:5: stream.never_built did not run on ARM64"]


@pytest.mark.parametrize("outcome", [FAILED, ERROR])
@pytest.mark.parametrize(("suite", "place"), [("unit-x64", "x86-64"), ("unit-arm64", "ARM64"), ("native", "native")])
def test_a_test_that_failed_anywhere_is_a_fault(tree: Tree, suite: str, place: str, outcome: str) -> None:
    tree.report(suite, ("stream", "reads", outcome))
    assert only_fault(tree.check("- Reads. [`stream.reads`]")) == f"plan.md:5: stream.reads failed on {place}"


def test_one_failed_parameter_is_a_fault(tree: Tree) -> None:
    tree.report("e2e-arm64", ("tests.e2e.test_run", "test_runs[a.b]", PASSED), ("tests.e2e.test_run", "test_runs[c]", FAILED))
    assert only_fault(tree.check("- Runs. [`test_run.test_runs`]")) == "plan.md:5: test_run.test_runs failed on ARM64"


@pytest.mark.parametrize(("suite", "place"), [("unit-x64", "x86-64"), ("unit-arm64", "ARM64")])
def test_a_test_missing_on_one_processor_is_a_fault(tree: Tree, suite: str, place: str) -> None:
    tree.report(suite, ("stream", "writes", PASSED))
    assert only_fault(tree.check("- Reads. [`stream.reads`]")) == f"plan.md:5: stream.reads did not run on {place}"


def test_a_report_that_is_missing_is_a_fault_unless_its_suite_was_left_out(tree: Tree) -> None:
    (tree.results / "unit-arm64.xml").unlink()
    (tree.results / "e2e-arm64.xml").unlink()
    faults = tree.check("- Reads. [`stream.reads`]").faults
    assert "there is no report of unit-arm64: run ./dev test" in faults
    assert "plan.md:5: stream.reads did not run on ARM64" in faults
    assert tree.check("- Reads. [`stream.reads`]", left_out=("unit-arm64", "e2e-arm64")).faults == []


def test_a_test_listed_but_not_run_did_not_run(tree: Tree) -> None:
    (tree.results / "unit-x64.xml").write_text(
        "<testsuites><testcase classname='stream' name='reads' status='notrun' result='suppressed'/></testsuites>", encoding="utf-8")
    assert only_fault(tree.check("- Reads. [`stream.reads`]")) == "plan.md:5: stream.reads did not run on x86-64"


def test_a_note_states_the_one_processor_of_a_test(tree: Tree) -> None:
    tree.report("unit-arm64", ("stream", "writes", PASSED))
    assert tree.check("- Reads. [`stream.reads`] (x86-64 only: it takes an hour)").faults == []
    tree.report("unit-x64", ("stream", "writes", PASSED))
    tree.report("unit-arm64", ("stream", "reads", PASSED))
    assert tree.check("- Reads. [`stream.reads`] (ARM64 only: the other one has no such register)").faults == []


@pytest.mark.parametrize(("kind", "place"), [("x86-64 only", "ARM64"), ("ARM64 only", "x86-64")])
def test_a_note_that_is_no_longer_true_is_a_fault(tree: Tree, kind: str, place: str) -> None:
    assert only_fault(tree.check(f"- Reads. [`stream.reads`] ({kind}: why)")) == \
        f"plan.md:5: stream.reads ran on {place}, and the plan says it does not"


def test_a_note_is_for_the_bracket_before_it(tree: Tree) -> None:
    tree.report("unit-arm64", ("stream", "writes", PASSED))
    assert tree.check("- Reads. [`stream.writes`] [`stream.reads`] (x86-64 only: it takes an hour)").faults == []
    assert tree.check("- Reads. [`stream.reads`] [`stream.writes`] (x86-64 only: it takes an hour)").faults == [
        "plan.md:5: stream.reads did not run on ARM64",
        "plan.md:5: stream.writes ran on ARM64, and the plan says it does not"]


def test_a_native_test_says_so(tree: Tree) -> None:
    tree.report("native", ("stream", "never_built", PASSED))
    assert tree.check("- Reads. [`stream.never_built`] (native only: the sanitizers are there)").faults == []
    assert tree.check("- Reads. [`stream.reads`] (native only: the sanitizers are there)").faults == [
        "plan.md:5: stream.reads ran on x86-64, and the plan says it does not",
        "plan.md:5: stream.reads ran on ARM64, and the plan says it does not",
        "plan.md:5: stream.reads did not run on native"]


def test_a_skipped_test_needs_its_reason_in_the_plan_and_is_counted(tree: Tree) -> None:
    tree.report("unit-arm64", ("stream", "reads", SKIPPED))
    assert only_fault(tree.check("- Reads. [`stream.reads`]")) == \
        "plan.md:5: stream.reads was skipped on ARM64, and the plan does not say why"
    verdict = tree.check("- Reads. [`stream.reads`] (skipped on ARM64: there is no screen)")
    assert verdict.faults == []
    assert verdict.lines[1].split() == ["Streams", "1", "1", "1", "0", "1", "1", "0"]


def test_a_skip_in_the_plan_that_did_not_happen_is_a_fault(tree: Tree) -> None:
    assert only_fault(tree.check("- Reads. [`stream.reads`] (skipped on ARM64: there is no screen)")) == \
        "plan.md:5: stream.reads was not skipped on ARM64, and the plan says it was"


def test_parameters_that_run_on_one_processor_only_need_a_note(tree: Tree) -> None:
    tree.report("e2e-x64", ("tests.e2e.test_run", "test_runs[a.b]", PASSED), ("tests.e2e.test_run", "test_runs[c]", PASSED))
    assert only_fault(tree.check("- Runs. [`test_run.test_runs`]")) == \
        "plan.md:5: test_run.test_runs ran with 1 more parameters on x86-64 than on ARM64, and the plan does not say why"
    assert tree.check("- Runs. [`test_run.test_runs`] (partly x86-64 only: the same everywhere)").faults == []
    tree.report("e2e-x64", ("tests.e2e.test_run", "test_runs[a.b]", PASSED))
    assert only_fault(tree.check("- Runs. [`test_run.test_runs`] (partly x86-64 only: the same everywhere)")) == \
        "plan.md:5: test_run.test_runs ran with the same parameters on both processors, and the plan says it did not"


def test_a_test_on_request_must_exist_and_may_not_run_every_time(tree: Tree) -> None:
    assert tree.check("- Lasts. [`soak.long-runs`] (on request: takes an hour)").faults == []
    assert only_fault(tree.check("- Lasts. [`soak.longer-runs`] (on request: takes an hour)")) == \
        "plan.md:5: soak.longer-runs does not exist"
    faults = tree.check("- Lasts. [`test_run.test_runs`] (on request: takes an hour)").faults
    assert "plan.md:5: test_run.test_runs ran in e2e-x64, and the plan says it runs on request only" in faults


def test_a_note_below_a_heading_is_for_all_cases_there(tree: Tree) -> None:
    tree.report("unit-arm64", ("stream", "writes", PASSED))
    assert tree.check("(x86-64 only: it takes an hour)", "", "### Reading", "", "- Reads. [`stream.reads`]").faults == []
    assert only_fault(tree.check("### Long ones", "", "(x86-64 only: it takes an hour)", "", "- Reads. [`stream.reads`]", "",
                                 "### Short ones", "", "- Reads quickly. [`stream.reads`]")) == \
        "plan.md:13: stream.reads did not run on ARM64"


def test_a_case_that_cannot_be_shown_is_counted(tree: Tree) -> None:
    verdict = tree.check("- Reads. [`stream.reads`]", "- Survives a power cut. (not shown: the bed has no power to cut)")
    assert verdict.faults == []
    assert verdict.lines[1].split()[-1] == "1"


@pytest.mark.parametrize("bullet", [
    "- Reads.",
    "- Reads. []",
    "- Reads [`stream.reads`]",
    "- Reads. [stream.reads]",
    "- Reads. [`stream.reads` `stream.writes`]",
    "- Reads. [`stream.reads`] and more",
    "- Reads. [`stream.reads`] (Linux only: why)",
    "- Reads. [`stream.reads`] (x86-64 only)",
    "- Reads. [`stream.reads`] (x86-64 only: )",
    "- Reads. [`stream.reads`] (not shown: why)",
    "- Reads. (not shown: )",
    "- Reads. [`reads`]",
    "- Reads. [`stream.reads/to_1`]",
    "- Reads. [`stream.reads`, `stream.reads`]",
    "* Reads. [`stream.reads`]",
    "1. Reads. [`stream.reads`]",
    "  - Reads. [`stream.reads`]",
    "(only on Sundays: why)",
])
def test_a_malformed_line_is_a_fault_with_its_place(tree: Tree, bullet: str) -> None:
    assert only_fault(tree.check("- Writes. [`stream.writes`]", "", bullet)).startswith("plan.md:7: ")


def test_a_case_within_a_case_is_a_fault(tree: Tree) -> None:
    assert only_fault(tree.check("- Writes. [`stream.writes`]", "  - Reads. [`stream.reads`]")).startswith("plan.md:6: ")


def test_a_sentence_that_stands_twice_is_a_fault(tree: Tree) -> None:
    assert only_fault(tree.check("- Reads. [`stream.reads`]", "- Reads. [`stream.writes`]")) == \
        "plan.md:6: the same case stands in line 5"


def test_a_case_outside_a_section_is_a_fault(tree: Tree) -> None:
    tree.document.write_text("# Plan\n\n- Reads. [`stream.reads`]\n\n## Streams\n\n- Writes. [`stream.writes`]\n", encoding="utf-8")
    assert only_fault(plan.check(tree.document, tree.tests, tree.results, SUITES)) == "plan.md:3: a case before the first section"


def test_a_plan_without_tests_is_a_fault(tree: Tree) -> None:
    assert only_fault(tree.check("    - Reads. [`stream.reads`]")) == "plan.md: no case names a test"


def test_the_pages_in_the_folder_of_the_plan_are_part_of_it(tree: Tree) -> None:
    folder = tree.document.with_suffix("")
    folder.mkdir()
    (folder / "more.md").write_text("# More\n\n## Further streams\n\n- Reads. [`stream.flies`]\n- Not a case\n", encoding="utf-8")
    verdict = tree.check("- Reads. [`stream.reads`]")
    assert [fault.split(": ")[0] for fault in verdict.faults] == ["more.md:6", "more.md:5"]
    assert any(line.startswith("Further streams") for line in verdict.lines)


def test_a_page_may_name_in_its_tables_only_tests_that_a_case_names(tree: Tree) -> None:
    tree.check("- Reads. [`stream.reads`]")
    page = tree.tests.parent / "SECURITY.md"
    page.write_text("`stream.writes`\n\n| attack | test |\n|---|---|\n| `a.b` | `stream.reads`, `stream.closes` |\n", encoding="utf-8")
    verdict = plan.check(tree.document, tree.tests, tree.results, SUITES, quoting=[page])
    assert only_fault(verdict) == "SECURITY.md: no case of the plan names stream.closes"


def test_the_plan_of_this_tree_can_be_read() -> None:
    document = plan.read_plan(ROOT / "docs/test_plan.md")
    assert document.faults == []
    sources = plan.read_sources(ROOT / "tests")
    assert [name for section in document.sections for case in section.cases for group in case.groups for name in group.names
            if name not in sources] == []
