"""The report reader as a program: what it prints, what it refuses and with which exit code, and the functions of a real PDB.

Its parts have unit tests; the reports here are put together by hand once more. It takes the built trees of `./dev test`.
"""

import json
import re
import struct
import subprocess
import zlib
from collections.abc import Callable
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
PROGRAM = ROOT / "build/native-asan/tools/report_reader/read_report"
PDB = ROOT / "build/x64-test/src/updater/lumaris.pdb"
MAP = ROOT / "build/x64-test/src/updater/lumaris.map"

# "TZO1", ARM64, access violation on writing to 0x10, no notes, then frames.
HEAD = bytes.fromhex("545A4F31 64AA 050000C0 00000000 4915 00A0F67F0000 02000000 0100000000000000 1000000000000000")


def module(name: str) -> bytes:
    return b"MOD1" + struct.pack("<I", len(name)) + name.encode("utf-16-le") + bytes(4)


def frame(offset: int) -> bytes:
    return b"FUN1" + struct.pack("<Q", offset)


SHORT = HEAD + module("lumaris.exe") + frame(0x1549)


def read(*arguments: object, given: bytes = b"", environment: dict[str, str] | None = None) -> subprocess.CompletedProcess[str]:
    result = subprocess.run([str(PROGRAM), *(str(argument) for argument in arguments)], input=given, capture_output=True,
                            timeout=120, check=False, env=environment)
    return subprocess.CompletedProcess(result.args, result.returncode, result.stdout.decode(), result.stderr.decode())


@pytest.fixture(name="short")
def short_fixture(tmp_path: Path) -> Path:
    path = tmp_path / "0.tzo"
    path.write_bytes(zlib.compress(SHORT, 9))
    return path


def test_help_has_an_example_and_the_exit_codes() -> None:
    shown = read("--help")
    assert shown.returncode == 0 and shown.stderr == ""
    assert "examples:\n  read_report 0.tzr --pdb lumaris.pdb\n" in shown.stdout
    assert "exit codes: 0 " in shown.stdout


def test_a_report_is_shown_as_text(short: Path) -> None:
    shown = read(short)
    assert (shown.returncode, shown.stderr) == (0, "")
    assert shown.stdout == (
        f"{short}: short report, ARM64\n"
        "exception 0xC0000005 (access violation) writing to 0x0000000000000010\n"
        "  at 0x00007FF6A0001549, flags 0x00000000\n"
        "  parameter 0: 0x0000000000000001\n"
        "  parameter 1: 0x0000000000000010\n"
        "frames, from the fault outward\n"
        "   0  lumaris.exe+0x1549 (time stamp 0x00000000)\n")


def test_a_report_is_shown_as_json(short: Path) -> None:
    shown = read("--json", short)
    assert (shown.returncode, shown.stderr) == (0, "")
    assert shown.stdout.count("\n") == 1
    assert json.loads(shown.stdout) == {
        "file": str(short), "kind": "short", "machine": "arm64",
        "records": [{"code": 0xC0000005, "flags": 0, "address": 0x7FF6A0001549, "parameters": [1, 16]}],
        "context": None, "notes": None,
        "frames": [{"module": "lumaris.exe", "time_stamp": 0, "checksum": None, "base": None, "offset": 0x1549, "stack": None}]}


def test_a_report_is_read_from_standard_input(short: Path) -> None:
    shown = read("-", given=short.read_bytes())
    assert shown.returncode == 0
    assert shown.stdout.startswith("standard input: short report, ARM64\n")


def test_all_files_are_read_even_when_one_is_damaged(short: Path, tmp_path: Path) -> None:
    damaged = tmp_path / "1.tzo"
    damaged.write_bytes(zlib.compress(SHORT[:-1], 9))
    shown = read("--json", short, damaged, short)
    assert shown.returncode == 1
    assert [json.loads(line)["file"] for line in shown.stdout.splitlines()] == [str(short)] * 2
    assert shown.stderr == (f"read_report: {damaged}: damaged at byte 80 (0x50) of the inflated report: the report ends inside "
                            "a frame's offset: 8 bytes are wanted, 7 are left\n")


@pytest.mark.parametrize(("content", "complaint"), [
    (b"", "damaged at byte 0 (0x0) of the file: the compressed stream ends early"),
    (zlib.compress(SHORT)[:-1], "of the file: the compressed stream ends early"),
    (zlib.compress(SHORT) + b"\0", "of the file: 1 bytes behind the compressed stream"),
    (SHORT, "damaged at byte 2 (0x2) of the file: not a compressed stream: incorrect header check"),
    (zlib.compress(b"TZO2" + SHORT[4:]), "damaged at byte 0 (0x0) of the inflated report: it begins with neither"),
    (zlib.compress(SHORT[:4] + b"\x4C\x01" + SHORT[6:]), "damaged at byte 4 (0x4) of the inflated report: machine type 0x014C"),
], ids=["empty", "cut", "more", "plain", "magic", "machine"])
def test_what_is_damaged_is_told_with_its_place(content: bytes, complaint: str, tmp_path: Path) -> None:
    path = tmp_path / "x.tzr"
    path.write_bytes(content)
    shown = read(path)
    assert (shown.returncode, shown.stdout) == (1, "")
    assert shown.stderr.startswith(f"read_report: {path}: damaged at byte ")
    assert complaint in shown.stderr


def test_a_body_with_its_chunk_framing_needs_the_option(short: Path, tmp_path: Path) -> None:
    data = short.read_bytes()
    body = tmp_path / "body"
    body.write_bytes(b"A\r\n%s\r\n%X\r\n%s\r\n0\r\n\r\n" % (data[:10], len(data) - 10, data[10:]))
    refused = read(body)
    assert (refused.returncode, refused.stdout) == (1, "")
    assert "this is an upload body with its HTTP chunk framing; --body takes that off" in refused.stderr
    shown = read("--body", body)
    assert shown.returncode == 0
    assert shown.stdout.split(": ", 1)[1] == read(short).stdout.split(": ", 1)[1]
    # A body that a server has taken apart is a report like any other.
    assert read("--body", short).stdout == read(short).stdout


@pytest.mark.parametrize("arguments", [[], ["--nonsense"], ["--pdb"], ["--json"]])
def test_wrong_arguments_are_told_from_damage(arguments: list[str]) -> None:
    shown = read(*arguments)
    assert (shown.returncode, shown.stdout) == (2, "")
    assert shown.stderr


def test_files_that_cannot_be_read_are_told_from_damage(short: Path, tmp_path: Path) -> None:
    missing = read(tmp_path / "missing", short)
    assert missing.returncode == 2
    assert missing.stderr == f"read_report: {tmp_path}/missing: No such file or directory\n"
    assert missing.stdout == read(short).stdout
    assert "Is a directory" in read(tmp_path).stderr


def test_output_that_cannot_be_written_is_a_failure(short: Path) -> None:
    with open("/dev/full", "wb") as full:
        result = subprocess.run([str(PROGRAM), str(short)], stdout=full, stderr=subprocess.PIPE, timeout=120, check=False)
    assert result.returncode == 2
    assert b"No space left on device" in result.stderr


def function_in_map(name: str) -> tuple[int, int]:
    """Start and size of a function, as the linker's map has them."""
    pattern = re.compile(rf"^([0-9a-f]{{8}}) ([0-9a-f]{{8}}) .*\(\.text\${re.escape(name)}\)$", re.MULTILINE)
    found = pattern.search(MAP.read_text(encoding="utf-8"))
    assert found is not None
    return int(found[1], 16), int(found[2], 16)


@pytest.fixture(name="walk")
def walk_fixture(tmp_path: Path) -> Path:
    """Two frames in functions whose place the linker's map tells, and one in another module."""
    run, run_size = function_in_map("_ZN5corvo7updater3runEPv")
    main, main_size = function_in_map("wWinMain")
    path = tmp_path / "walk.tzo"
    # The last one returns to the very end of its function, as behind a call that does not return.
    path.write_bytes(zlib.compress(HEAD + module("Lumaris.EXE") + frame(run) + frame(main + main_size) + module("ntdll.dll") +
                                   frame(run)))
    assert run_size > 0
    return path


def test_a_pdb_names_the_functions(walk: Path) -> None:
    main_size = function_in_map("wWinMain")[1]
    shown = read("--json", walk, "--pdb", PDB)
    assert (shown.returncode, shown.stderr) == (0, "")
    first, second, third = json.loads(shown.stdout)["frames"]
    assert (first["function"], first["function_offset"]) == ("corvo::updater::run(void*)", 0)
    assert re.search(r"/updater/run\.cpp:\d+$", first["source"])
    assert (second["function"], second["function_offset"]) == ("wWinMain", main_size)
    assert re.search(r"/updater/main\.cpp:\d+$", second["source"])
    assert "function" not in third and "source" not in third
    assert "      corvo::updater::run(void*)+0x0 at " in read(walk, "--pdb", PDB).stdout


def test_only_the_pdb_is_needed(walk: Path, tmp_path: Path) -> None:
    alone = tmp_path / "alone with blanks/lumaris.pdb"
    alone.parent.mkdir()
    alone.write_bytes(PDB.read_bytes())
    assert "corvo::updater::run(void*)" in read("--pdb", alone, walk).stdout


def test_the_first_pdb_of_the_name_counts(walk: Path, tmp_path: Path) -> None:
    other = tmp_path / "other.pdb"
    other.write_bytes(PDB.read_bytes())
    shown = read("--pdb", other, "--pdb", PDB, walk)
    assert shown.returncode == 0
    assert "corvo::updater::run(void*)" in shown.stdout
    assert shown.stderr == f"read_report: {other}: no frame lies in a module of that name\n"


@pytest.mark.parametrize(("make", "complaint"), [
    (lambda pdb: None, "No such file or directory"),
    (lambda pdb: b"MZ" + pdb[2:], "this is no PDB"),
    (lambda pdb: pdb[:1000], "the PDB cannot be read: llvm-pdbutil"),
    (lambda pdb: pdb[:32] + b"\xff" * 4064 + pdb[4096:], "the PDB cannot be read: llvm-pdbutil"),
], ids=["missing", "other", "cut", "scrambled"])
def test_a_pdb_that_cannot_be_read_is_told(make: Callable[[bytes], bytes | None], complaint: str, walk: Path, tmp_path: Path) -> None:
    path = tmp_path / "lumaris.pdb"
    content = make(PDB.read_bytes())
    if content is not None:
        path.write_bytes(content)
    shown = read(walk, "--pdb", path)
    assert (shown.returncode, shown.stdout) == (2, "")
    assert shown.stderr.startswith(f"read_report: {path}: ")
    assert complaint in shown.stderr


def test_without_llvm_it_says_what_is_missing(walk: Path, tmp_path: Path) -> None:
    shown = read(walk, "--pdb", PDB, environment={"PATH": str(tmp_path)})
    assert (shown.returncode, shown.stdout) == (2, "")
    assert "PDBs are read with llvm-pdbutil-19 (package llvm-19), which cannot be started: No such file or directory" in shown.stderr


def page_blocks() -> list[str]:
    """The fenced blocks of the format's page."""
    page = (ROOT / "docs/report_format.md").read_text(encoding="utf-8")
    return [block.removeprefix("\n") for block in page.split("```")[1::2]]


def block_bytes(block: str) -> bytes:
    """The bytes of a block in hex: an offset, bytes with one blank between them, and a remark behind three blanks or more."""
    data = b""
    for line in block.splitlines():
        offset, digits = line.split("  ", 1)
        assert int(offset, 16) == len(data), line
        data += bytes.fromhex(re.split(r" {3,}", digits)[0])
    return data


def test_the_worked_example_is_what_the_page_says(tmp_path: Path) -> None:
    plain, packed, shown = page_blocks()[:3]
    assert len(block_bytes(plain)) == 160 and len(block_bytes(packed)) == 118
    assert zlib.decompress(block_bytes(packed)) == block_bytes(plain)
    (tmp_path / "example.tzo").write_bytes(block_bytes(packed))
    result = subprocess.run([str(PROGRAM), "example.tzo"], cwd=tmp_path, capture_output=True, timeout=120, check=True)
    assert f"$ read_report example.tzo\n{result.stdout.decode()}" == shown


def test_the_damage_on_the_page_is_told_in_its_words(tmp_path: Path) -> None:
    plain, _, _, shown = page_blocks()[:4]
    (tmp_path / "1.tzo").write_bytes(zlib.compress(block_bytes(plain)[:-12] + b"FUN0" + bytes(8)))
    result = subprocess.run([str(PROGRAM), "1.tzo"], cwd=tmp_path, capture_output=True, timeout=120, check=False)
    assert f"$ read_report 1.tzo\n{result.stderr.decode()}" == shown
