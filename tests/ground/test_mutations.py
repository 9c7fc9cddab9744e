"""The list of breaks fits the product as it is now, and the runner reports an entry that does not."""

import importlib.util
import sys
import tomllib
from collections.abc import Mapping
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]

# By its path: there is more than one run.py.
SPECIFICATION = importlib.util.spec_from_file_location("mutations", ROOT / "tests/mutations/run.py")
assert SPECIFICATION and SPECIFICATION.loader
mutations = sys.modules["mutations"] = importlib.util.module_from_spec(SPECIFICATION)
SPECIFICATION.loader.exec_module(mutations)

GOOD = {
    "name": "one",
    "file": "src/updater/version.h",
    "old": "const std::uint32_t",
    "new": "const std::int32_t",
    "why": "An update would be missed.",
    "caught_by": ["unit own_version.*"],
}


def listed(*entries: Mapping[str, object]) -> str:
    """A list with these entries."""
    return "".join("[[break]]\n" + "".join(f"{key} = {value!r}\n" for key, value in entry.items()) for entry in entries)


def test_every_break_finds_its_text_once() -> None:
    breaks = mutations.read_breaks(mutations.LIST.read_text(encoding="utf-8"))
    assert len(breaks) >= 60


@pytest.mark.parametrize("folder", ["src/updater", "src/minisign", "src/http/request", "src/http/parser", "src/errorreport",
                                    "src/stream", "src/platform", "src/resources", "toolchain/cmake"])
def test_every_part_of_the_product_is_broken_somewhere(folder: str) -> None:
    files = [entry["file"] for entry in tomllib.loads(mutations.LIST.read_text(encoding="utf-8"))["break"]]
    assert len([file for file in files if file.startswith(folder + "/")]) >= 3


def test_an_entry_is_read() -> None:
    (found,) = mutations.read_breaks(listed(GOOD))
    assert (found.name, found.file, found.old, found.new) == ("one", "src/updater/version.h", "const std::uint32_t", "const std::int32_t")
    assert found.watches == (mutations.Watch("unit", ("own_version.*",)),)
    assert not found.by_compiler


@pytest.mark.parametrize(("change", "complaint"), [
    ({"old": "const std::uint64_t"}, "one: its text stands 0 times in src/updater/version.h, not once"),
    ({"old": "own_version"}, "one: its text stands 2 times in src/updater/version.h, not once"),
    ({"file": "src/updater/none.h"}, "one: its text stands 0 times in src/updater/none.h, not once"),
    ({"new": "const std::uint32_t"}, "one: it changes nothing"),
    ({"why": " "}, "does not say why it matters"),
    ({"caught_by": []}, "or what is to see it"),
    ({"caught_by": ["nobody some.test"]}, "one: unknown suite nobody"),
    ({"more": "of it"}, "one: missing or unknown: more"),
])
def test_an_entry_that_does_not_fit_is_refused(change: Mapping[str, object], complaint: str) -> None:
    with pytest.raises(mutations.RunnerError, match=complaint.replace(".", r"\.")):
        mutations.read_breaks(listed({**GOOD, **change}))


def test_a_name_is_given_once() -> None:
    with pytest.raises(mutations.RunnerError, match="one: there are two of this name"):
        mutations.read_breaks(listed(GOOD, GOOD))


def test_the_copy_takes_what_differs_and_drops_what_is_gone(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    tree = tmp_path / "checkout"
    (tree / "a").mkdir(parents=True)
    (tree / "a/same").write_text("same")
    (tree / "a/changed").write_text("before")
    (tree / "gone").write_text("gone")
    (tree / "build").mkdir()
    (tree / "build/left").write_text("not copied")
    monkeypatch.setattr(mutations, "TREE", tree)
    copy = mutations.Copy(tmp_path / "copy")
    first = copy.refresh()
    same = (copy.tree / "a/same").stat().st_mtime_ns
    assert copy.refresh() == first
    (tree / "a/changed").write_text("after")
    (tree / "gone").unlink()
    assert copy.refresh() != first
    assert sorted(mutations.files_of(copy.tree)) == ["a/changed", "a/same"]
    assert (copy.tree / "a/changed").read_text() == "after"
    assert (copy.tree / "a/same").stat().st_mtime_ns == same, "what has not changed is not built again"


REPORT = """<testsuites><testsuite><testcase name="good" classname="suite" status="run" result="completed"/>
<testcase name="bad" classname="suite" status="run" result="completed"><failure message="no"/></testcase>
<testcase name="skipped" classname="suite" status="run" result="skipped"><skipped message="reason"/></testcase>
<testcase name="other" classname="suite" status="notrun" result="suppressed"/></testsuite></testsuites>"""


def test_a_report_is_read(tmp_path: Path) -> None:
    report = tmp_path / "report.xml"
    report.write_text(REPORT)
    assert mutations.read_report(report, "") == (["suite.good", "suite.bad"], ["suite.bad"])


def test_a_program_that_dies_before_its_report_has_failed_where_it_died(tmp_path: Path) -> None:
    output = "[ RUN      ] suite.good\n[       OK ] suite.good (0 ms)\n[ RUN      ] suite.dies\n"
    assert mutations.read_report(tmp_path / "none.xml", output) == ([], [])
    assert mutations.last_begun(output) == "suite.dies"


@pytest.mark.parametrize(("test", "name", "suite", "meant"), [
    ("suite.test", "suite.*", "unit", True),
    ("suite.test", "suite.other", "native", False),
    ("test_crash.test_one[a-b]", "test_crash.py::test_one", "e2e", True),
    ("test_crash.test_one_more", "test_crash.py::test_one", "e2e", False),
    ("test_crash_saved.test_one", "test_crash.py::test_one", "e2e", False),
])
def test_a_name_means_tests(test: str, name: str, suite: str, meant: bool) -> None:
    assert mutations.matches(test, name, suite) is meant
