"""The checks of ./dev lint find what they are there for: each runs over a small tree with a mistake in it, and over the tree without."""

import json
import os
import re
import shutil
import sys
import time
from argparse import Namespace
from collections.abc import Callable
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "toolchain"))

from jobs import building, linting  # noqa: E402  (the path to it is set above)
from jobs.common import JobError  # noqa: E402

HEADER = "#pragma once\n\nnamespace corvo {\nint twice(int number);\n} // namespace corvo\n"
SOURCE = '#include "platform/planted.h"\n\nnamespace corvo {\nint twice(int number) {\n    return 2 * number;\n}\n} // namespace corvo\n'

Complaints = Callable[..., str]


def within(body: str) -> str:
    """The source with something more in it."""
    return SOURCE.replace("int twice", f"{body}\nint twice", 1)


@pytest.fixture(name="complaints_of")
def complaints_of_fixture(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Complaints:
    """Runs one check over a tree of one header, one source, one script and the given files; returns what it says."""
    monkeypatch.chdir(tmp_path)
    # The tree is not built: that is not what is looked at.
    monkeypatch.setattr(building, "build", lambda *_: None)
    monkeypatch.setattr(building, "configure", lambda *_: None)
    monkeypatch.setattr(linting, "TYPED_FOLDERS", {"tools": ()})
    (tmp_path / "toolchain").mkdir()
    for name in (".clang-format", ".clang-tidy", "toolchain/mypy.ini"):
        shutil.copy(ROOT / name, tmp_path / name)

    def complaints(check: str, **files: str) -> str:
        tree = {"src/platform/planted.h": HEADER, "src/platform/planted.cpp": SOURCE, "tools/planted.cpp": "int planted() {\n    return 1;\n}\n",
                "tests/planted_test.cpp": "int planted() {\n    return 1;\n}\n",
                "dev": "#!/bin/bash\necho dev\n", ".ci/run": "#!/bin/bash\necho run\n", "tools/planted.py": "print(1)\n", **files}
        for name, text in tree.items():
            path = tmp_path / name
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(text, encoding="utf-8")
        for preset in ("x64-test", "native-asan", "native-fuzz"):
            folder = tmp_path / "build" / preset
            folder.mkdir(parents=True, exist_ok=True)
            entries = [{"directory": str(tmp_path), "file": str(tmp_path / name),
                        "command": f"/usr/bin/clang++-19 -std=c++20 -Wall -Wextra -Werror -I{tmp_path}/src -I{tmp_path} -o planted.o -c {tmp_path / name}"}
                       for name in tree if name.endswith(".cpp")]
            (folder / "compile_commands.json").write_text(json.dumps(entries), encoding="utf-8")
        return "\n".join(linting.CHECKS[check](False))

    return complaints


@pytest.mark.parametrize("check", sorted(linting.CHECKS))
def test_a_tree_without_a_mistake_passes(complaints_of: Complaints, check: str) -> None:
    assert complaints_of(check) == ""


def test_a_complaint_fails_the_job(complaints_of: Complaints, capsys: pytest.CaptureFixture[str]) -> None:
    complaints_of("python", **{"tools/planted.py": "print(\n"})
    with pytest.raises(JobError, match="lint failed: python$"):
        linting.run(Namespace(checks=["shell", "python"], fix=False))
    assert "tools/planted.py:1:7: E999 SyntaxError" in capsys.readouterr().err


@pytest.mark.parametrize(("text", "expected"), [
    ("import os\n", "F401 'os' imported but unused"),
    ("print(unknown)\n", "F821 undefined name 'unknown'"),
    ("print(1)\n\n\n\n\nprint(2)\n", "E303 too many blank lines"),
])
def test_python(complaints_of: Complaints, text: str, expected: str) -> None:
    assert expected in complaints_of("python", **{"tools/planted.py": text})


@pytest.mark.parametrize(("text", "expected"), [
    ("def twice(number):\n    return 2 * number\n", "Function is missing a type annotation"),
    ("def twice(number: int) -> str:\n    return 2 * number\n", "Incompatible return value type"),
    ("def of(names: dict) -> None:\n    print(names)\n", 'Missing type parameters for generic type "dict"'),
])
def test_types(complaints_of: Complaints, text: str, expected: str) -> None:
    said = complaints_of("types", **{"tools/planted.py": text})
    assert "tools/planted.py:1: error: " in said or "tools/planted.py:2: error: " in said
    assert expected in said


def test_types_are_looked_at_everywhere(complaints_of: Complaints, monkeypatch: pytest.MonkeyPatch) -> None:
    assert "bench/planted.py: in no folder whose types are looked at" in complaints_of("types", **{"bench/planted.py": "print(1)\n"})
    monkeypatch.setattr(linting, "TYPED_FOLDERS", {"tools": (), "bench": (), "fuzz": ()})
    assert complaints_of("types") == "mypy has nothing to look at in fuzz"


def test_format(complaints_of: Complaints) -> None:
    said = complaints_of("format", **{"src/platform/planted.cpp": SOURCE.replace("    return", "  return")})
    assert "src/platform/planted.cpp:4:" in said and "[-Wclang-format-violations]" in said


@pytest.mark.parametrize("files, expected", [
    ({"src/platform/planted.h": HEADER.replace("#pragma once\n", "")}, "src/platform/planted.h: no #pragma once"),
    ({"src/platform/planted.cpp": "#include <vector>\n" + SOURCE}, "src/platform/planted.cpp: does not include platform/planted.h first"),
    ({"src/platform/planted.h": HEADER.replace("int number", "std::string number")}, "use of undeclared identifier 'std'"),
])
def test_headers(complaints_of: Complaints, files: dict[str, str], expected: str) -> None:
    assert expected in complaints_of("headers", **files)


@pytest.mark.parametrize("file", ["dev", ".ci/run", "toolchain/build_planted.sh"])
def test_shell(complaints_of: Complaints, file: str) -> None:
    assert "SC2115" in complaints_of("shell", **{file: '#!/bin/bash\nrm -rf "$folder/"*\n'})


@pytest.mark.parametrize("mistake, expected", [
    ("int of(const int* one) {\n    if (one == nullptr) {\n        return *one;\n    }\n    return 0;\n}", "clang-analyzer-core.NullDereference"),
    ("int one(bool b) {\n    if (b) {\n        return 1;\n    } else {\n        return 1;\n    }\n}", "bugprone-branch-clone"),
    ("struct base {\n    virtual ~base() = default;\n    virtual int f();\n};\nstruct more : base {\n    virtual int f();\n};", "modernize-use-override"),
    ("struct big {\n    big();\n    big(const big&);\n    int f() const;\n};\nint of(const big b) {\n    return b.f();\n}", "performance-unnecessary-value-param"),
    ("int unused(int a) {\n    return 1;\n}", "clang-diagnostic-unused-parameter"),
    ("int of(const int* p) {\n    return p == 0 ? 1 : *p;\n}", "modernize-use-nullptr"),
    ("struct no {\n    no& operator=(int);\n    void operator=(const no&);\n};", "misc-unconventional-assign-operator"),
])
@pytest.mark.parametrize("file", ["src/platform/planted.cpp", "tools/planted.cpp"])
def test_tidy(complaints_of: Complaints, file: str, mistake: str, expected: str) -> None:
    said = complaints_of("tidy", **{file: within(mistake)})
    assert expected in said and file in said


@pytest.fixture(name="memory")
def memory_fixture(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Path:
    monkeypatch.setenv("CCACHE_DIR", str(tmp_path / "cache"))
    return tmp_path / "cache/clang-tidy"


def test_tidy_looks_at_nothing_twice(complaints_of: Complaints, memory: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    assert complaints_of("tidy") == ""
    assert memory.is_dir() and len(list(memory.iterdir())) == 2  # one of src, and one of tools, which both presets compile the same way
    looked: list[str] = []
    run = linting.output_of

    def noted(command: list[str]) -> tuple[int, str]:
        looked.append(command[-1])
        return run(command)

    monkeypatch.setattr(linting, "output_of", noted)
    assert complaints_of("tidy") == ""
    assert looked == ["--version"]


def test_tidy_looks_again_after_a_change(complaints_of: Complaints, memory: Path) -> None:
    assert complaints_of("tidy") == "" and memory.is_dir()
    for _ in range(2):  # and what has a complaint is not remembered
        assert "modernize-use-nullptr" in complaints_of(
            "tidy", **{"src/platform/planted.cpp": within("int of(const int* p) {\n    return p == 0 ? 1 : *p;\n}")})


def test_tidy_looks_again_after_a_change_of_a_header(complaints_of: Complaints, memory: Path) -> None:
    planted = {"src/platform/planted.cpp": within("int of(int PARAMETER) {\n    return 1;\n}"),
               "src/platform/planted.h": HEADER + "#define PARAMETER\n"}
    assert complaints_of("tidy", **planted) == "" and memory.is_dir()
    planted["src/platform/planted.h"] = HEADER + "#define PARAMETER number\n"
    assert "clang-diagnostic-unused-parameter" in complaints_of("tidy", **planted)


def test_tidy_looks_again_when_a_comment_no_longer_excuses_a_line(complaints_of: Complaints, memory: Path) -> None:
    line = "int of(const int* p) {\n    return p == 0 ? 1 : *p; // %s\n}"
    assert complaints_of("tidy", **{"src/platform/planted.cpp": within(line % "NOLINT")}) == "" and memory.is_dir()
    assert "modernize-use-nullptr" in complaints_of("tidy", **{"src/platform/planted.cpp": within(line % "nolint")})


def test_tidy_looks_again_with_other_settings(complaints_of: Complaints, memory: Path) -> None:
    settings = Path(".clang-tidy")
    text = settings.read_text(encoding="utf-8")
    planted = {"src/platform/planted.cpp": within("int of(const int* p) {\n    return p == 0 ? 1 : *p;\n}")}
    settings.write_text("Checks: '-*,performance-*'\n", encoding="utf-8")
    assert complaints_of("tidy", **planted) == "" and memory.is_dir()
    settings.write_text(text, encoding="utf-8")
    assert "modernize-use-nullptr" in complaints_of("tidy", **planted)


def test_tidy_forgets_what_was_long_ago(complaints_of: Complaints, memory: Path) -> None:
    memory.mkdir(parents=True)
    old, recent = memory / "old", memory / "recent"
    for file, days in ((old, linting.Passed.KEPT_DAYS + 1), (recent, linting.Passed.KEPT_DAYS - 1)):
        file.touch()
        os.utime(file, (time.time() - days * 86400,) * 2)
    complaints_of("tidy")
    assert not old.exists() and recent.exists()


def test_tidy_needs_something_to_look_at(complaints_of: Complaints) -> None:
    assert "clang-tidy has nothing to look at in fuzz" not in complaints_of("tidy")
    shutil.rmtree(Path("tools"))
    for preset in ("x64-test", "native-fuzz"):
        Path(f"build/{preset}/compile_commands.json").write_text("[]", encoding="utf-8")
    assert "clang-tidy has nothing to look at in fuzz, tools" in "\n".join(linting.CHECKS["tidy"](False))


@pytest.mark.parametrize("mistake, expected", [
    ("int last() {\n    int a[2] = {1, 2};\n    return a[2];\n}", "arrayIndexOutOfBounds"),
    ("class kept {\npublic:\n    explicit kept(int a) {}\n\nprivate:\n    int m_number;\n};", "uninitMemberVar"),
    ("int of(int a) {\n    return a / 0;\n}", "zerodiv"),
])
@pytest.mark.parametrize("file", ["src/platform/planted.cpp", "tests/planted_test.cpp"])
def test_cppcheck(complaints_of: Complaints, file: str, mistake: str, expected: str) -> None:
    said = complaints_of("cppcheck", **{file: within(mistake)})
    assert f"[{expected}]" in said and file in said


def test_cppcheck_looks_at_the_style_of_the_product(complaints_of: Complaints) -> None:
    said = complaints_of("cppcheck", **{"src/platform/planted.cpp": within("int of(int a) {\n    return (a & 0) == 1 ? 1 : 2;\n}")})
    assert "src/platform/planted.cpp:" in said and ": style: " in said


def test_cppcheck_needs_something_to_look_at(complaints_of: Complaints) -> None:
    assert complaints_of("cppcheck") == ""
    shutil.rmtree(Path("tests"))
    assert "cppcheck has nothing to look at in tests" in "\n".join(linting.CHECKS["cppcheck"](False))


def test_every_check_that_is_off_has_its_reason() -> None:
    text = (ROOT / ".clang-tidy").read_text(encoding="utf-8")
    off = re.findall(r"^  -((?!\*)[\w.-]+),?$", text, re.MULTILINE)
    reasons = dict(re.findall(r"^#   ([\w.-]+)\s+(\S.*)$", text, re.MULTILINE))
    assert len(off) > 10
    assert sorted(off) == sorted(set(reasons))


def test_every_suppression_has_its_reason() -> None:
    text = linting.SUPPRESSIONS.read_text(encoding="utf-8")
    head, *blocks = text.strip().split("\n\n")
    assert head.startswith("# ") and len(blocks) > 5
    for block in blocks:
        assert re.fullmatch(r"(# .+\n)+([\w*]+(:[\w./*]+)?\n?)+", block), block
