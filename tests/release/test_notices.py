"""The notices of third parties name every library of the bill of materials, with its licence."""

from __future__ import annotations

import shutil
from pathlib import Path

import bill
import notices
import pytest
from conftest import ROOT

SOURCES = bill.read_sources((ROOT / "toolchain/sources.list").read_text(encoding="utf-8"))


@pytest.fixture
def folder(tmp_path: Path) -> Path:
    """A copy of the licence texts."""
    return Path(shutil.copytree(ROOT / "packaging/notices", tmp_path / "notices"))


@pytest.mark.parametrize(("library", "version", "sentence"), [
    ("zlib", "1.3.1", "This software is provided 'as-is', without any express or implied"),
    ("libsodium", "1.0.18", "Permission to use, copy, modify, and/or distribute this software for any"),
    ("mingw-w64-crt", "12.0.0", "MinGW-w64 runtime licensing"),
    ("compiler-rt", "19.1.7", "---- LLVM Exceptions to the Apache 2.0 License ----"),
    ("libunwind", "19.1.7", "---- LLVM Exceptions to the Apache 2.0 License ----"),
    ("libc++abi", "19.1.7", "---- LLVM Exceptions to the Apache 2.0 License ----"),
    ("libc++", "19.1.7", "---- LLVM Exceptions to the Apache 2.0 License ----"),
])
def test_every_library_has_its_licence(library: str, version: str, sentence: str) -> None:
    text = notices.make_notices("9.8.7", SOURCES)
    assert text.startswith("Lumaris 9.8.7 contains the following libraries")
    _, heading, rest = text.partition(f"\n{library} {version}: ")
    assert heading
    # Up to the next library's heading; the first rule closes this one's.
    assert sentence in rest.split(notices.RULE)[1]


def test_a_library_without_a_licence_is_refused(folder: Path) -> None:
    (folder / "zlib.txt").write_text("\n", encoding="utf-8")
    (folder / "libunwind.txt").unlink()
    with pytest.raises(bill.BillError, match="there is no licence text of zlib, libunwind in "):
        notices.make_notices("9.8.7", SOURCES, folder)


def test_a_licence_of_no_library_is_refused(folder: Path) -> None:
    (folder / "other.txt").write_text("Free for all.\n", encoding="utf-8")
    with pytest.raises(bill.BillError, match="has the licence text of other, which is not part of the program"):
        notices.make_notices("9.8.7", SOURCES, folder)
