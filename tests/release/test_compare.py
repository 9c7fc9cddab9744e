"""Where two builds differ, in words that help to find out why."""

from __future__ import annotations

import pefile
from compare import differences
from conftest import Built
from msf import Msf


def changed(data: bytes, *offsets: int) -> bytes:
    """The data with other bytes at the offsets."""
    other = bytearray(data)
    for offset in offsets:
        other[offset] ^= 0xFF
    return bytes(other)


def test_nothing_is_said_of_the_same_bytes(built: Built) -> None:
    assert differences("lumaris.exe", built.program, bytes(built.program)) == []


def test_a_byte_of_a_section_is_found(built: Built) -> None:
    loaded = pefile.PE(data=built.program, fast_load=True)
    section = next(section for section in loaded.sections if section.Name.startswith(b".rdata"))
    offset = section.PointerToRawData + 0x123
    former = built.program[offset]
    assert differences("lumaris.exe", built.program, changed(built.program, offset)) == [
        f"lumaris.exe differs at offset 0x{offset:X}, 1 bytes, section .rdata at 0x{section.VirtualAddress + 0x123:X}: "
        f"{former:02x} and {former ^ 0xFF:02x}"]


def test_a_byte_of_the_headers_is_found(built: Built) -> None:
    assert differences("lumaris.exe", built.program, changed(built.program, 0x80))[0].startswith(
        "lumaris.exe differs at offset 0x80, 1 bytes, the headers: ")


def test_bytes_that_are_near_each_other_are_one_difference(built: Built) -> None:
    near = differences("x", built.program, changed(built.program, 0x2000, 0x2004, 0x200F))
    assert len(near) == 1 and near[0].startswith("x differs at offset 0x2000, 16 bytes, section .text at ")
    apart = differences("x", built.program, changed(built.program, 0x2000, 0x2100))
    assert [line.split(",")[0] for line in apart] == ["x differs at offset 0x2000", "x differs at offset 0x2100"]


def test_of_many_differences_the_first_are_reported_and_the_rest_counted(built: Built) -> None:
    reported = differences("x", built.program, changed(built.program, *range(0x2000, 0x2000 + 20 * 0x100, 0x100)))
    assert len(reported) == 9
    assert reported[-1] == "x differs in 12 more places"


def test_other_lengths_are_reported(built: Built) -> None:
    longer = built.program + b"\0\0"
    assert differences("x", built.program, longer) == [f"x has {len(built.program):,} bytes in the one build and {len(longer):,} in the other"]
    assert len(differences("x", b"", built.program)) == 1


def test_a_byte_of_a_pdb_is_found_in_its_stream(built: Built) -> None:
    container = Msf(built.pdb)
    _, blocks = container.streams[1]
    offset = blocks[0] * container.block_size + 12  # the identity
    reported = differences("lumaris.pdb", built.pdb, changed(built.pdb, offset))
    assert len(reported) == 1
    assert reported[0].startswith(f"lumaris.pdb differs at offset 0x{offset:X}, 1 bytes, stream 1 (the PDB's identity) at 0xC: ")


def test_what_is_neither_is_compared_too() -> None:
    assert differences("x", b"abc", b"abd") == ["x differs at offset 0x2, 1 bytes, the PDB does not begin like one: 63 and 64"]
