"""The report reader as a program: what it prints, what it refuses and with which exit code, and the functions of a real PDB.

Its parts have unit tests; the reports here are put together by hand once more. It takes the built trees of `./dev test`.
"""

import json
import re
import shutil
import struct
import subprocess
import uuid
import zlib
from collections.abc import Callable
from pathlib import Path
from typing import Any

import pefile
import pytest

ROOT = Path(__file__).resolve().parents[2]
PROGRAM = ROOT / "build/native-asan/tools/report_reader/read_report"
BUILT = ROOT / "build/x64-test/src/updater"
MAP = BUILT / "lumaris.map"
PROBES = {"x64": ROOT / "build/x64-test/tests/tools/report_reader/probe", "arm64": ROOT / "build/arm64-test/tests/tools/report_reader/probe"}
PROBE_SOURCE = ROOT / "tests/tools/report_reader/probe/symbol_probe.cpp"

# "TZO1", ARM64, access violation on writing to 0x10, no notes, then frames.
HEAD = bytes.fromhex("545A4F31 64AA 050000C0 00000000 4915 00A0F67F0000 02000000 0100000000000000 1000000000000000")


def module(name: str, stamp: int = 0) -> bytes:
    return b"MOD1" + struct.pack("<I", len(name)) + name.encode("utf-16-le") + struct.pack("<I", stamp)


def stamp_of(program: Path) -> int:
    return int(pefile.PE(str(program), fast_load=True).FILE_HEADER.TimeDateStamp)


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
    assert "examples:\n  read_report 0.tzr --symbols build/release/symbols\n" in shown.stdout
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
def test_what_is_damaged_is_reported_with_its_place(content: bytes, complaint: str, tmp_path: Path) -> None:
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


@pytest.mark.parametrize("arguments", [[], ["--nonsense"], ["--symbols"], ["--json"]])
def test_wrong_arguments_are_reported_from_damage(arguments: list[str]) -> None:
    shown = read(*arguments)
    assert (shown.returncode, shown.stdout) == (2, "")
    assert shown.stderr


def test_files_that_cannot_be_read_are_reported_from_damage(short: Path, tmp_path: Path) -> None:
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
    """Two frames in functions whose place the linker's map shows, and one in another module."""
    run, run_size = function_in_map("_ZN5corvo7updater3runEPv")
    main, main_size = function_in_map("wWinMain")
    path = tmp_path / "walk.tzo"
    stamp = stamp_of(BUILT / "lumaris.exe")
    # The last one returns to the very end of its function, as behind a call that does not return.
    path.write_bytes(zlib.compress(HEAD + module("Lumaris.EXE", stamp) + frame(run) + frame(main + main_size) +
                                   module("ntdll.dll", stamp) + frame(run)))
    assert run_size > 0
    return path


@pytest.fixture(name="symbols")
def symbols_fixture(tmp_path: Path) -> Path:
    """A folder with the program beside its PDB."""
    folder = tmp_path / "symbols with blanks"
    folder.mkdir()
    for name in ("lumaris.exe", "lumaris.pdb"):
        shutil.copyfile(BUILT / name, folder / name)
    return folder


def frames_of(*arguments: object) -> list[dict[str, Any]]:
    shown = read("--json", *arguments)
    assert (shown.returncode, shown.stderr) == (0, "")
    return list(json.loads(shown.stdout)["frames"])


def test_symbols_name_the_functions(walk: Path, symbols: Path) -> None:
    main_size = function_in_map("wWinMain")[1]
    first, second, third = frames_of(walk, "--symbols", symbols)
    assert (first["functions"][-1]["name"], first["function_offset"]) == ("corvo::updater::run(void*)", 0)
    assert re.search(r"/updater/run\.cpp:\d+$", first["functions"][-1]["source"])
    assert (second["functions"][-1]["name"], second["function_offset"]) == ("wWinMain", main_size)
    assert re.search(r"/updater/main\.cpp:\d+$", second["functions"][-1]["source"])
    assert "functions" not in third
    assert "      corvo::updater::run(void*)+0x0 at " in read(walk, "--symbols", symbols).stdout


def store_of(folder: Path, built: Path, name: str) -> Path:
    """A symbol store in the usual layout, made by an independent reader of the program."""
    program = pefile.PE(str(built / f"{name}.exe"))
    stamp = f"{program.FILE_HEADER.TimeDateStamp:08X}{program.OPTIONAL_HEADER.SizeOfImage:x}"
    content = (built / f"{name}.exe").read_bytes()
    at = content.index(b"RSDS")
    guid = uuid.UUID(bytes_le=content[at + 4:at + 20]).hex.upper()
    age, = struct.unpack_from("<I", content, at + 20)
    for file, key in ((f"{name}.exe", stamp), (f"{name}.pdb", f"{guid}{age:X}")):
        (folder / file / key).mkdir(parents=True)
        shutil.copyfile(built / file, folder / file / key / file)
    return folder


def test_a_symbol_store_in_the_usual_layout_names_the_functions(walk: Path, symbols: Path, tmp_path: Path) -> None:
    store = store_of(tmp_path / "store", BUILT, "lumaris")
    assert frames_of(walk, "--symbols", store) == frames_of(walk, "--symbols", symbols)


def test_the_build_of_the_report_is_found_among_others(walk: Path, symbols: Path, tmp_path: Path) -> None:
    store = store_of(tmp_path / "store", BUILT, "lumaris")
    program = store / "lumaris.exe"
    # Another build of the same name, with a stamp of its own; it is never looked at.
    other = program / "0123456710000"
    other.mkdir()
    (other / "lumaris.exe").write_bytes(b"another build")
    assert frames_of(walk, "--symbols", store) == frames_of(walk, "--symbols", symbols)


def test_the_first_folder_that_fits_counts(walk: Path, symbols: Path, tmp_path: Path) -> None:
    (tmp_path / "empty").mkdir()
    assert frames_of(walk, "--symbols", tmp_path / "empty", "--symbols", symbols) == frames_of(walk, "--symbols", symbols)


def scrambled(file: Path) -> None:
    """Keeps the first bytes, by which the file is known for what it is, and spoils what follows."""
    content = file.read_bytes()
    file.write_bytes(content[:32] + b"\xff" * 4064 + content[4096:])


def of_another_build(file: Path) -> None:
    """Another build: a time stamp of its own, and all else the same."""
    content = bytearray(file.read_bytes())
    header, = struct.unpack_from("<I", content, 0x3c)
    content[header + 8] ^= 1
    file.write_bytes(content)


def of_another_link(file: Path) -> None:
    """The PDB of another build: its GUID stands in the second stream, right behind version, signature and age."""
    guid = store_guid()
    content = file.read_bytes()
    assert content.count(guid) == 1
    file.write_bytes(content.replace(guid, bytes(16)))


def store_guid() -> bytes:
    program = (BUILT / "lumaris.exe").read_bytes()
    at = program.index(b"RSDS")
    return program[at + 4:at + 20]


@pytest.mark.parametrize(("name", "spoil", "complaint"), [
    ("lumaris.exe", of_another_build, "lumaris.exe: this is another build than the report's: its time stamp is 0x"),
    ("lumaris.pdb", of_another_link, "lumaris.pdb: this PDB is of another build than "),
    ("lumaris.exe", lambda file: file.write_bytes(b"MZ"), "lumaris.exe: this is not a Windows program: "),
    ("lumaris.pdb", lambda file: file.write_bytes(b"MZ"), "lumaris.pdb: this is not a PDB"),
    ("lumaris.pdb", lambda file: file.write_bytes(file.read_bytes()[:1000]), "lumaris.pdb: the PDB cannot be read: "),
    ("lumaris.pdb", scrambled, "lumaris.pdb: the PDB cannot be read: "),
    ("lumaris.pdb", lambda file: file.unlink(), "lumaris.exe: there is no lumaris.pdb with the identity "),
], ids=["other-program", "other-pdb", "no-program", "no-pdb", "cut", "scrambled", "missing"])
def test_symbols_that_do_not_fit_are_refused_by_name(name: str, spoil: Callable[[Path], object], complaint: str, walk: Path, symbols: Path) -> None:
    spoil(symbols / name)
    shown = read(walk, "--symbols", symbols)
    assert shown.returncode == 2
    assert shown.stderr.startswith(f"read_report: {symbols}/")
    assert complaint in shown.stderr
    # The report is shown all the same, with what is certain.
    assert shown.stdout == read(walk).stdout


def test_a_folder_that_does_not_exist_is_reported(walk: Path, tmp_path: Path) -> None:
    shown = read(walk, "--symbols", tmp_path / "missing")
    assert (shown.returncode, shown.stdout) == (2, "")
    assert shown.stderr == f"read_report: {tmp_path}/missing: this is not a folder\n"


def test_the_name_of_a_module_does_not_lead_out_of_the_folder(tmp_path: Path, symbols: Path) -> None:
    path = tmp_path / "walk.tzo"
    stamp = stamp_of(BUILT / "lumaris.exe")
    path.write_bytes(zlib.compress(HEAD + module("../symbols with blanks/lumaris.exe", stamp) + frame(0x1000)))
    (tmp_path / "empty").mkdir()
    assert "functions" not in frames_of(path, "--symbols", tmp_path / "empty")[0]


# The places that the probe has marked, innermost function first, each with the text of its line; None stands for the marked line.
PROBED: dict[str, list[tuple[str, str | None]]] = {
    "plain": [("probe::plain()", None)],
    "inlined": [("probe::leaf", None), ("probe::branch", "    leaf();"), ("probe::trunk()", "    branch();")],
    "templated": [("probe::counter<long long, 3>::add(long long)", None)],
    "lambda": [("operator()", None)],
    "behind the thunk": [("probe::both::two()", None)],
    "thunk": [("non-virtual thunk to probe::both::two()", "")],
    "return": [("probe::through(probe::second&)", "    object.two();")],
}


def marked(program: Path) -> dict[str, tuple[int, int]]:
    """Address and line of each place, out of the section that the program keeps them in."""
    (section,) = [each for each in pefile.PE(str(program)).sections if each.Name.rstrip(b"\0") == b".probes"]
    data = section.get_data()[:section.Misc_VirtualSize]
    found: dict[str, tuple[int, int]] = {}
    at = 0
    while at < len(data):
        address, line = struct.unpack_from("<II", data, at)
        name = data[at + 8:data.index(b"\0", at + 8)].decode()
        at += (8 + len(name) + 1 + 3) // 4 * 4
        if name:
            found[name] = (address, line)
    return found


@pytest.mark.parametrize("architecture", PROBES)
def test_every_kind_of_function_is_found_with_its_line(architecture: str, tmp_path: Path) -> None:
    folder = PROBES[architecture]
    program = folder / "symbol_probe.exe"
    places = marked(program)
    assert places.keys() == PROBED.keys()
    text = PROBE_SOURCE.read_text(encoding="utf-8").splitlines()
    for name, (address, line) in places.items():
        report = tmp_path / f"{name}.tzo"
        # A return address stands in the second frame.
        outer = module("symbol_probe.exe", stamp_of(program)) + frame(0) * (name == "return") + frame(address)
        report.write_bytes(zlib.compress(HEAD + outer))
        found = frames_of(report, "--symbols", folder)[-1]["functions"]
        assert len(found) == len(PROBED[name]), (name, found)
        for place, (function, source) in zip(found, PROBED[name], strict=True):
            assert function in place["name"], (name, found)
            if source == "":
                assert place["source"] is None or "symbol_probe.cpp" in place["source"]
                continue
            file, number = place["source"].rsplit(":", 1)
            assert file == "/lumaris/tests/tools/report_reader/probe/symbol_probe.cpp"
            assert (int(number) == line) if source is None else (text[int(number) - 1] == source), (name, found)


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


def test_the_damage_on_the_page_is_reported_in_its_words(tmp_path: Path) -> None:
    plain, _, _, shown = page_blocks()[:4]
    (tmp_path / "1.tzo").write_bytes(zlib.compress(block_bytes(plain)[:-12] + b"FUN0" + bytes(8)))
    result = subprocess.run([str(PROGRAM), "1.tzo"], cwd=tmp_path, capture_output=True, timeout=120, check=False)
    assert f"$ read_report 1.tzo\n{result.stderr.decode()}" == shown
