"""What a release finds out about the frame pointers of the program."""

from __future__ import annotations

import struct

import frames
import pefile
from conftest import ROOT, Built

SOURCES = {each.name for each in (ROOT / "src").rglob("*.cpp")}


def table_of(image: bytes) -> tuple[int, int]:
    """Where the table of the functions lies in the file, and its size."""
    headers = pefile.PE(data=image, fast_load=True)
    entry = headers.OPTIONAL_HEADER.DATA_DIRECTORY[3]
    return headers.get_offset_from_rva(entry.VirtualAddress), entry.Size


def test_our_functions_keep_frame_pointers_and_those_of_libraries_need_not(built: Built) -> None:
    assert frames.check(built.program, built.linker_map, SOURCES) == []
    assert frames.check(built.program, built.linker_map, {"ed25519_ref10.c"}) != []
    of_libraries = [each for each in frames.frames(built.program) if each.calls and not each.kept]
    assert len(of_libraries) > 100


def test_one_function_without_a_frame_pointer_is_reported(built: Built) -> None:
    """With its record replaced by a packed one: the return address is saved, and no frame pointer is set."""
    begin, size = table_of(built.program)
    entry = built.linker_map.index("(.text$wWinMain)")
    address = int(built.linker_map[built.linker_map.rindex("\n", 0, entry) + 1:][:8], 16)
    place, = (at for at in range(begin, begin + size, 8) if struct.unpack_from("<I", built.program, at)[0] == address)
    image = built.program[:place + 4] + struct.pack("<I", 1 << 21 | 8 << 2 | 1) + built.program[place + 8:]
    complaint, = frames.check(image, built.linker_map, SOURCES)
    assert complaint.startswith("1 of ") and f"the first at 0x{address:X}: " in complaint


def test_the_map_of_another_program_is_reported(built: Built) -> None:
    complaint, = frames.check(built.program, "", SOURCES)
    assert complaint.startswith("the linker's map shows 0 functions of the ")


def test_unwind_data_that_are_cut_off_are_reported(built: Built) -> None:
    headers = pefile.PE(data=built.program, fast_load=True)
    entry = headers.OPTIONAL_HEADER.DATA_DIRECTORY[3].get_file_offset()
    image = built.program[:entry + 4] + struct.pack("<I", 12) + built.program[entry + 8:]
    complaint, = frames.check(image, built.linker_map, SOURCES)
    assert complaint.startswith("the unwind data cannot be read: ")
