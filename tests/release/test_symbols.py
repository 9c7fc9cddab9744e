"""What reads the error reports of a release: the symbols of its program, and the reader beside them."""

from __future__ import annotations

import json
import shutil
import struct
import subprocess
import uuid
import zlib
from pathlib import Path

import pefile
import pytest
from conftest import ROOT, Built, Signer
from test_release import EXIT_REFUSED, Steps, environment_fixture, steps_fixture  # noqa: F401  (fixtures)

# "TZO1", ARM64, access violation on writing to 0x10, no notes.
HEAD = bytes.fromhex("545A4F31 64AA 050000C0 00000000 4915 00A0F67F0000 02000000 0100000000000000 1000000000000000")


def report_of(program: Path, offset: int) -> bytes:
    """A short report with one frame in this program."""
    stamp = pefile.PE(str(program), fast_load=True).FILE_HEADER.TimeDateStamp
    name = "lumaris.exe"
    return zlib.compress(HEAD + b"MOD1" + struct.pack("<I", len(name)) + name.encode("utf-16-le") + struct.pack("<I", stamp) + b"FUN1" +
                         struct.pack("<Q", offset))


def entry_of(program: Path) -> int:
    """Where the program begins, in its image."""
    return int(pefile.PE(str(program), fast_load=True).OPTIONAL_HEADER.AddressOfEntryPoint)


def test_the_reader_of_a_release_finds_its_symbols(steps: Steps, signer: Signer, tmp_path: Path) -> None:
    assert steps("make") == 0
    assert steps("ship", "--certificate", str(signer.certificate), "--certificate-key", str(signer.key), "--authority", str(signer.root)) == 0
    report = tmp_path / "0.tzo"
    report.write_bytes(report_of(steps.output / "lumaris.exe", entry_of(steps.output / "lumaris.exe") + 4))
    done = subprocess.run([str(steps.output / "read_report"), "--json", str(report), "--symbols", str(steps.output / "symbols")], capture_output=True,
                          text=True, timeout=120, check=False, env={})
    assert (done.returncode, done.stderr) == (0, "")
    (frame,) = json.loads(done.stdout)["frames"]
    assert frame["functions"][-1]["name"] == "WinMainCRTStartup"


def test_the_symbols_lie_where_other_tools_look_for_them(steps: Steps, built: Built) -> None:
    assert (steps("make"), steps("ship")) == (0, 0)
    image = pefile.PE(data=built.program)
    debug = next(entry.entry for entry in image.DIRECTORY_ENTRY_DEBUG if entry.struct.Type == 2)
    guid = uuid.UUID(bytes_le=struct.pack("<IHH", debug.Signature_Data1, debug.Signature_Data2, debug.Signature_Data3) +
                     bytes([debug.Signature_Data4, debug.Signature_Data5]) + debug.Signature_Data6)
    places = {f"lumaris.exe/{image.FILE_HEADER.TimeDateStamp:08X}{image.OPTIONAL_HEADER.SizeOfImage:x}/lumaris.exe": built.program,
              f"lumaris.pdb/{guid.hex.upper()}{debug.Age:x}/lumaris.pdb": built.pdb}
    assert {str(path.relative_to(steps.output / "symbols")): path.read_bytes() for path in (steps.output / "symbols").rglob("*")
            if path.is_file()} == places


@pytest.mark.parametrize("damage", ["other libraries", "no program", "missing"])
def test_a_reader_that_would_not_start_elsewhere_is_not_shipped(steps: Steps, tmp_path: Path, damage: str, capsys: pytest.CaptureFixture[str]) -> None:
    reader = tmp_path / "read_report"
    if damage == "other libraries":
        shutil.copy(str(shutil.which("minisign")), reader)
    elif damage == "no program":
        shutil.copy(ROOT / "README.md", reader)
    assert steps("make") == 0
    assert steps("ship", "--reader", str(reader)) == EXIT_REFUSED
    assert {"other libraries": "release: REFUSED: read_report is not linked statically: it would not start on other machines",
            "no program": "release: REFUSED: read_report is no Linux program for x86-64", "missing": "No such file"}[damage] in capsys.readouterr().err
    assert steps.left() == []
