"""The version stands in one place, and configuring refuses one that the descriptions have no room for, or no partner."""

from __future__ import annotations

import re
import subprocess
import sys
from collections.abc import Callable
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "toolchain"), str(ROOT / "tests")]

from bed.version import OWN, Version  # noqa: E402  (the path to it is set above)
from jobs.version import configured_version, version_of  # noqa: E402

PROJECT = """
cmake_minimum_required(VERSION 3.25)
{lines}
include({root}/toolchain/cmake/version.cmake)
include({root}/toolchain/cmake/partner.cmake)
message(STATUS "version: ${{PROJECT_VERSION}}")
"""

# What is built, and what builds, packs and runs it.
PRODUCT = ("src", "tools", "packaging", "toolchain", "bench", "CMakePresets.json")

Configure = Callable[..., subprocess.CompletedProcess[str]]


@pytest.fixture(name="configure")
def configure_fixture(tmp_path: Path) -> Configure:
    lists = (ROOT / "CMakeLists.txt").read_text(encoding="utf-8")
    begin, end = lists.index("set(version "), lists.index("project(lumaris ")
    lines = lists[begin:end] + "project(lumaris VERSION ${version} LANGUAGES NONE)"
    (tmp_path / "CMakeLists.txt").write_text(PROJECT.format(lines=lines, root=ROOT), encoding="utf-8")

    def configure(*definitions: str) -> subprocess.CompletedProcess[str]:
        return subprocess.run(["cmake", "-S", str(tmp_path), "-B", str(tmp_path / "build"), *(f"-D{text}" for text in definitions)],
                              capture_output=True, text=True, timeout=60, check=False)

    return configure


def words(text: str) -> str:
    """The text with CMake's line breaks undone."""
    return " ".join(text.split())


def test_the_version_stands_in_one_place() -> None:
    major, minor, patch = Version.parse(version_of((ROOT / "CMakeLists.txt").read_text(encoding="utf-8"))).parts
    text, number = f"{major}.{minor}.{patch}", f"{major << 24 | minor << 16 | patch << 8:x}"
    written = re.compile(rf"(?<![\w.]){re.escape(text)}(?![\w])|{major}, ?{minor}, ?{patch}, ?0|(?<![0-9A-Fa-f])(0x)?0?{number}(?![0-9A-Fa-f])")
    names = subprocess.run(["git", "-c", "safe.directory=*", "ls-files", "--cached", "--others", "--exclude-standard", *PRODUCT], cwd=ROOT,
                           capture_output=True, text=True, timeout=60, check=True).stdout.split()
    assert len(names) > len(PRODUCT)
    found = [f"{name}: {line.strip()}" for name in names if (ROOT / name).is_file()
             for line in (ROOT / name).read_text(encoding="utf-8", errors="replace").splitlines() if written.search(line)]
    assert found == []
    assert written.search(f'VALUE "FileVersion", "{text}.0"') and written.search(f"FILEVERSION {major}, {minor}, {patch}, 0")
    assert written.search(f"= 0x0{number};") and written.search(f'"{number}"')


def test_the_tests_read_the_version_that_is_configured(monkeypatch: pytest.MonkeyPatch) -> None:
    assert str(OWN) == configured_version()
    monkeypatch.setenv("LUMARIS_VERSION", "9.8.7")
    assert configured_version() == "9.8.7"
    monkeypatch.delenv("LUMARIS_VERSION")
    assert f"\nset(version {configured_version()})\n" in (ROOT / "CMakeLists.txt").read_text(encoding="utf-8")
    with pytest.raises(ValueError, match="0 lines with the version"):
        version_of("project(lumaris VERSION 3.4)")


def test_a_version_is_one_byte_a_component() -> None:
    assert Version.parse("9.8.7").number == 0x09080700
    assert Version.parse("9.8.7").next.offer == "9080800"
    assert str(Version.parse("3.4.255").next) == "3.5.0"


def test_another_version_is_built_where_it_is_given_and_only_then(configure: Configure) -> None:
    assert "-- version: 9.8.7\n" in configure("LUMARIS_VERSION=9.8.7", "LUMARIS_PARTNER=P").stdout
    # A default that stayed in the cache would outlive the next change of the line.
    assert f"-- version: {version_of((ROOT / 'CMakeLists.txt').read_text(encoding='utf-8'))}\n" in configure("LUMARIS_VERSION=").stdout


@pytest.mark.parametrize("version", ["3.4", "3", "3.4.0.1", "03.4.0", "3.4.00"])
def test_what_is_not_three_numbers_is_refused(configure: Configure, version: str) -> None:
    failed = configure(f"LUMARIS_VERSION={version}", "LUMARIS_PARTNER=P")
    assert failed.returncode != 0
    assert f'The version "{version}" is not three numbers such as 1.2.3' in words(failed.stderr)


@pytest.mark.parametrize("version", ["256.0.0", "3.256.0", "3.4.256", "3.4.30401"])
def test_a_number_that_a_description_has_no_room_for_is_refused(configure: Configure, version: str) -> None:
    failed = configure(f"LUMARIS_VERSION={version}", "LUMARIS_PARTNER=P")
    assert failed.returncode != 0
    assert "an update description has no room for one above 255" in words(failed.stderr)
    assert configure("LUMARIS_VERSION=255.255.255").returncode == 0


@pytest.mark.parametrize("partner", ["", "  "])
def test_without_a_partner_it_says_how_to_name_one(configure: Configure, partner: str) -> None:
    failed = configure(f"LUMARIS_PARTNER={partner}")
    assert failed.returncode != 0
    assert "No partner: LUMARIS_PARTNER is empty." in words(failed.stderr)
    assert "--partner NAME" in words(failed.stderr)
