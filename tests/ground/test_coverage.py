"""./dev coverage knows the product's sources by every name that they get, and fails if less ran than must."""

import json
import sys
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "toolchain"))

from jobs import coverage  # noqa: E402  (the path to it is set above)
from jobs.common import JobError  # noqa: E402

FLOORS = {"portable": (50.0, 50.0, 50.0), "Windows": (50.0, 50.0, 50.0), "tools": (0.0, 0.0, 0.0)}


@pytest.mark.parametrize("name, expected", [
    ("/src/src/stream/file.cpp", "src/stream/file.cpp"), ("./src/stream/file.cpp", "src/stream/file.cpp"), ("../src/stream/file.cpp", "src/stream/file.cpp"),
    ("build/src/stream/file.cpp", "src/stream/file.cpp"), ("/lumaris/src/stream/file.cpp", "src/stream/file.cpp"),
    ("..\\src\\http\\request\\wide.cpp", "src/http/request/wide.cpp"), ("/src/tools/report_reader/pdb.cpp", "tools/report_reader/pdb.cpp"),
    ("build/build/src/updater/build_config.cpp", None), ("/src/build/x64-coverage/src/updater/build_config.cpp", None),
    ("../tests/stream/file_test.cpp", None), ("/usr/include/c++/14/string", None), ("/opt/src/stream/file.cpp", None),
])
def test_sources_have_one_name(name: str, expected: str | None) -> None:
    assert coverage.source_of(name) == expected


def counted(ran: int) -> coverage.Counted:
    """A source of ten lines, regions and branches, some of which ran."""
    return coverage.Counted({line: line <= ran for line in range(1, 11)}, {(line, 1): line <= ran for line in range(1, 11)},
                            {(line, 1, 1, 2, 1): line <= ran for line in range(1, 11)})


@pytest.mark.parametrize("portable, windows, below", [(5, 5, []), (4, 5, ["portable"]), (5, 4, ["Windows"]), (0, 0, ["portable", "Windows"])])
def test_a_half_below_its_floor_fails(tmp_path: Path, monkeypatch: pytest.MonkeyPatch, portable: int, windows: int, below: list[str]) -> None:
    monkeypatch.setattr(coverage, "OUT", tmp_path)
    native, other = {"src/stream/basic.cpp": counted(portable)}, {"src/stream/file.cpp": counted(windows)}
    if not below:
        coverage.judge(native, other, FLOORS)
        return
    with pytest.raises(JobError) as raised:
        coverage.judge(native, other, FLOORS)
    for half in ("portable", "Windows"):
        for what in ("lines", "regions", "branches"):
            assert (f"{half} {what}: " in str(raised.value)) == (half in below)


def test_what_ran_in_either_half_ran(tmp_path: Path, monkeypatch: pytest.MonkeyPatch, capsys: pytest.CaptureFixture[str]) -> None:
    monkeypatch.setattr(coverage, "OUT", tmp_path)
    other = coverage.Counted({9: True, 10: True}, {(9, 1): True, (10, 1): True}, {(9, 1, 1, 2, 1): True, (10, 1, 1, 2, 1): True})
    coverage.judge({"src/stream/basic.cpp": counted(8)}, {"src/stream/basic.cpp": other}, FLOORS)
    assert "10 of 10 100.0 %" in capsys.readouterr().out
    assert (tmp_path / "missed.txt").read_text(encoding="utf-8") == ""


def test_the_sources_become_pages_with_what_ran(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(coverage, "OUT", tmp_path / "out")
    monkeypatch.chdir(tmp_path)
    (tmp_path / "out").mkdir()
    (tmp_path / "src/stream").mkdir(parents=True)
    (tmp_path / "src/stream/basic.cpp").write_text("".join(f"int line_{number};\n" for number in range(1, 11)), encoding="utf-8")
    coverage.write_page({"src/stream/basic.cpp": counted(7)})
    assert "70.0" in (tmp_path / "out/page/index.html").read_text(encoding="utf-8")
    shown = next((tmp_path / "out/page").rglob("basic.cpp.gcov.html")).read_text(encoding="utf-8")
    assert "int line_7;" in shown and "int line_8;" in shown


def test_lines_and_outcomes_that_were_missed_are_listed(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(coverage, "OUT", tmp_path)
    monkeypatch.chdir(tmp_path)
    (tmp_path / "src/stream").mkdir(parents=True)
    (tmp_path / "src/stream/basic.cpp").write_text("".join(f"    line {line};\n" for line in range(1, 11)), encoding="utf-8")
    source = counted(8)
    source.branches[(2, 7, 2, 9, 0)] = False
    coverage.judge({"src/stream/basic.cpp": source}, {}, FLOORS)
    assert (tmp_path / "missed.txt").read_text(encoding="utf-8") == \
        "src/stream/basic.cpp:9-10: line 9;\nsrc/stream/basic.cpp:2:7: never false\n"


def test_what_did_not_run_and_is_not_explained_fails() -> None:
    all_of_it, some = counted(10), counted(9)
    one_sided = coverage.Counted({1: True}, {(1, 1): True}, {(1, 1, 1, 2, 1): False, (1, 1, 1, 2, 0): True})
    missed = coverage.missed_in_product({"src/stream/basic.cpp": all_of_it, "src/stream/file.cpp": some, "src/http/parser/url.h": one_sided,
                                         "tools/report_reader/pdb.cpp": some})
    assert missed == {"src/stream/file.cpp", "src/http/parser/url.h"}
    table = "| where | what | why |\n|---|---|---|\n| `src/stream/file.cpp`, `src/http/parser/url.h` | a failure | cannot be made |\n`src/stream/basic.cpp` ran.\n"
    coverage.check_explained(missed, table, all_of_it=True)
    with pytest.raises(JobError, match="does not say why not all of src/stream/cache.cpp ran$"):
        coverage.check_explained(missed | {"src/stream/cache.cpp"}, table, all_of_it=True)
    coverage.check_explained({"src/stream/file.cpp"}, table, all_of_it=False)
    with pytest.raises(JobError, match="says why not all of src/http/parser/url.h ran, and it did$"):
        coverage.check_explained({"src/stream/file.cpp"}, table, all_of_it=True)


def test_a_source_that_was_not_counted_fails(tmp_path: Path) -> None:
    entries = [{"file": "/src/src/stream/basic.cpp"}, {"file": "/src/src/stream/file.cpp"}, {"file": "/src/tests/stream/file_test.cpp"}]
    (tmp_path / "compile_commands.json").write_text(json.dumps(entries), encoding="utf-8")
    coverage.check_all_are_there({"src/stream/basic.cpp": counted(1), "src/stream/file.cpp": counted(1)}, tmp_path)
    with pytest.raises(JobError, match="nothing was counted of src/stream/file.cpp$"):
        coverage.check_all_are_there({"src/stream/basic.cpp": counted(1)}, tmp_path)
