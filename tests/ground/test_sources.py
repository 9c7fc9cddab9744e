"""What holds for every source of the programs for Windows and cannot be seen when they run."""

import re
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]

# The memory of an exception is allocated before its arguments are evaluated, and that may change the last error. So neither an argument nor a
# constructor that asks for the last error itself stands in a throw; `throw_last` and `throw_last_error` read it into a variable first.
LAST_ERROR_IN_A_THROW = re.compile(
    r"\bthrow\b(?!_)[^;]*?(?:\b(?:Get|WSAGet)?[Ll]ast_?[Ee]rror\(\)|\berrno\b)"
    r"|\bthrow\s+(?:\w+::)*(?:win_runtime_error|http_error)\(\s*(?:\"|\w+\s*\))")


def late_readers(text: str) -> list[str]:
    """The throws of a source that read the last error too late, each on one line."""
    code = re.sub(r"//[^\n]*", "", re.sub(r'"[^"\n]*"', '""', text))
    return [" ".join(found.group().split()) for found in LAST_ERROR_IN_A_THROW.finditer(code)]


@pytest.mark.parametrize("throw", [
    'throw pwrap::win_runtime_error(::GetLastError(), "SetEvent failed");',
    'throw http_error(\n    GetLastError(), text);',
    "throw std::system_error(static_cast<int>(last_error()), std::system_category());",
    "throw std::system_error(errno, std::generic_category());",
    'throw pwrap::http_error("WinHttpOpen failed");',
    "throw win_runtime_error(message);",
])
def test_a_throw_that_reads_the_last_error_is_found(throw: str) -> None:
    assert len(late_readers("void f() {\n    " + throw + "\n}\n")) == 1


@pytest.mark.parametrize("throw", [
    'const DWORD number = ::GetLastError();\n    throw win_runtime_error(number, "SetEvent failed");',
    'pwrap::throw_last<pwrap::http_error>("WinHttpOpen failed");',
    "throw std::bad_alloc();",
    "throw; // GetLastError() is kept",
    'throw std::system_error(number, std::system_category(), "errno");',
])
def test_a_throw_that_does_not_is_not(throw: str) -> None:
    assert not late_readers("void f() {\n    " + throw + "\n}\n")


def test_no_source_reads_the_last_error_after_the_memory_of_the_exception_was_allocated() -> None:
    sources = [path for folder in ("src", "tools/check") for ending in ("*.h", "*.cpp") for path in (ROOT / folder).rglob(ending)]
    assert len(sources) > 100
    assert {str(path.relative_to(ROOT)): late for path in sources if (late := late_readers(path.read_text()))} == {}
