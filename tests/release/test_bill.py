"""The bill of materials says what is in the program, and nothing else."""

from __future__ import annotations

import hashlib
import json
from typing import Any

import bill
import program
import pytest
from cyclonedx.model import HashAlgorithm, HashType
from conftest import ROOT, Built

LIST = (ROOT / "toolchain/sources.list").read_text(encoding="utf-8")


def release(**changes: object) -> bill.Release:
    given = {"version": "12.3.45", "commit": "0123abcd", "time": 1_700_000_000, "properties": {"update-host": "updates.halvoro.internal"},
             "program": b"signed", "unsigned": b"unsigned", "pdb": b"pdb"}
    return bill.Release(**{**given, **changes})  # type: ignore[arg-type]


def document(text: str = LIST, **changes: object) -> dict[str, Any]:
    made: dict[str, Any] = json.loads(bill.make_bill(release(**changes), bill.read_sources(text)))
    return made


def test_every_library_is_named_with_its_version_and_the_hash_of_its_source() -> None:
    named = {part["name"]: (part["version"], part["externalReferences"][0]["url"], part["externalReferences"][0]["hashes"])
             for part in document()["components"]}
    lines = {words[0]: words for line in LIST.splitlines() if not line.startswith("#") for words in [line.split()]}

    def source(package: str, version: str) -> tuple[str, str, list[dict[str, str]]]:
        return version, lines[package][1], [{"alg": "SHA-256", "content": lines[package][2]}]

    assert named == {
        "zlib": source("zlib", "1.3.1"), "libsodium": source("libsodium", "1.0.18"), "mingw-w64-crt": source("mingw-w64", "12.0.0"),
        "compiler-rt": source("llvm-toolchain-19", "19.1.7"), "libunwind": source("llvm-toolchain-19", "19.1.7"),
        "libc++abi": source("llvm-toolchain-19", "19.1.7"), "libc++": source("llvm-toolchain-19", "19.1.7")}


def test_every_source_is_in_the_bill_but_that_of_the_tests() -> None:
    assert bill.read_sources(LIST).keys() - {part.source for part in bill.PARTS} == {"googletest"}


def test_another_source_makes_another_bill() -> None:
    former = next(line for line in LIST.splitlines() if line.startswith("libsodium"))
    other = LIST.replace(former, f"libsodium libsodium_1.0.20.orig.tar.gz e5{former.split()[2][2:]}")
    part = next(part for part in document(other)["components"] if part["name"] == "libsodium")
    assert part["version"] == "1.0.20"
    assert part["externalReferences"][0]["hashes"][0]["content"].startswith("e5")
    assert part["purl"].startswith("pkg:generic/libsodium@1.0.20?checksum=sha256:e5")


def test_the_program_is_named_with_its_hashes() -> None:
    component = document()["metadata"]["component"]
    assert component["name"] == "lumaris.exe" and component["version"] == "12.3.45"
    assert component["hashes"] == [{"alg": "SHA-256", "content": hashlib.sha256(b"signed").hexdigest()},
                                   {"alg": "SHA-512", "content": hashlib.sha512(b"signed").hexdigest()}]
    assert {entry["name"]: entry["value"] for entry in component["properties"]} == {
        "lumaris:commit": "0123abcd", "lumaris:update-host": "updates.halvoro.internal",
        "lumaris:unsigned-sha256": hashlib.sha256(b"unsigned").hexdigest(), "lumaris:pdb-sha256": hashlib.sha256(b"pdb").hexdigest()}


def test_the_program_depends_on_every_library() -> None:
    made = document()
    depends = next(entry["dependsOn"] for entry in made["dependencies"] if entry["ref"] == "lumaris.exe")
    assert sorted(depends) == sorted(part["bom-ref"] for part in made["components"])


def test_the_patch_of_the_standard_library_is_reported() -> None:
    notes = next(part for part in document()["components"] if part["name"] == "libc++")["pedigree"]["notes"]
    patch = ROOT / "toolchain/patches/libcxx-system-category.patch"
    assert notes == f"patched with toolchain/patches/{patch.name} (SHA-256 {hashlib.sha256(patch.read_bytes()).hexdigest()})"


def test_the_same_release_makes_the_same_bill() -> None:
    sources = bill.read_sources(LIST)
    assert bill.make_bill(release(), sources) == bill.make_bill(release(), sources)
    made = document()
    assert made["metadata"]["timestamp"] == "2023-11-14T22:13:20+00:00"
    assert "serialNumber" not in made


def test_the_schema_takes_the_bill_and_refuses_a_damaged_one() -> None:
    made = document()
    assert (made["bomFormat"], made["specVersion"]) == ("CycloneDX", "1.6")
    assert bill.fault_of(json.dumps(made)) is None
    made["components"][0]["type"] = "librarian"
    assert "'librarian' is not one of" in str(bill.fault_of(json.dumps(made)))
    del made["bomFormat"]
    assert bill.fault_of(json.dumps(made)) is not None
    assert bill.fault_of('{"bomFormat": "CycloneDX"}') == "'specVersion' is a required property"


def test_a_bill_that_the_schema_refuses_is_not_made(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(bill, "_hashes", lambda data: [HashType(alg=HashAlgorithm.SHA_256, content="no hash")])
    with pytest.raises(bill.BillError, match="^the bill of materials is not valid: 'no hash' does not match "):
        document()


def test_what_is_linked_is_what_the_bill_names(built: Built) -> None:
    assert bill.check_parts(program.archives_of(built.pdb)) == []


def test_a_library_that_the_bill_does_not_name_is_reported(built: Built) -> None:
    linked = program.archives_of(built.pdb) | {"libssl.a"}
    assert bill.check_parts(linked) == ["libssl.a is linked into the program, and the bill of materials does not name it"]
    pdb = built.pdb.replace(b"/lib/libz.a\0", b"/lib/libq.a\0")
    assert bill.check_parts(program.archives_of(pdb)) == ["libq.a is linked into the program, and the bill of materials does not name it",
                                                          "the bill of materials has zlib, of which nothing is in the program"]


def test_a_library_without_a_source_is_reported() -> None:
    with pytest.raises(bill.BillError, match="^zlib comes from zlib, which the list of sources does not have$"):
        document("\n".join(line for line in LIST.splitlines() if not line.startswith("zlib")))


@pytest.mark.parametrize(("line", "complaint"), [
    ("zlib zlib_1.orig.tar.gz", "the list of sources has a line that is none: zlib zlib_1.orig.tar.gz"),
    ("zlib zlib_1.orig.tar.gz abc", "the list of sources has a line that is none: zlib zlib_1.orig.tar.gz abc"),
])
def test_a_list_of_sources_that_is_none_is_reported(line: str, complaint: str) -> None:
    with pytest.raises(bill.BillError, match=f"^{complaint}$"):
        bill.read_sources(line)


@pytest.mark.parametrize(("file", "version"), [
    ("zlib_1.3.dfsg+really1.3.1.orig.tar.gz", "1.3.1"), ("llvm-toolchain-19_19.1.7.orig.tar.xz", "19.1.7"), ("a_1.2+ds.orig.tar.bz2", "1.2+ds")])
def test_the_version_is_read_from_the_name_of_the_archive(file: str, version: str) -> None:
    assert bill.Source("a", file, "0" * 64).version == version


def test_an_archive_without_a_version_is_reported() -> None:
    with pytest.raises(bill.BillError, match="^the file a.tar.gz of the list of sources has no version$"):
        _ = bill.Source("a", "a.tar.gz", "0" * 64).version
