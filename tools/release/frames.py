"""Whether the functions of the program keep a frame pointer.

An error report holds the memory of a frame, from its stack pointer to its frame pointer: without frame pointers the memory of one frame
reaches to that of some caller, again and again. Functions of libraries may do without. Which functions are our own, the linker's map says:
it names the object file of each. Whether one keeps a frame pointer, its unwind data say, as they are laid down in "ARM64 exception handling".
"""

from __future__ import annotations

import re
import struct
from dataclasses import dataclass

import pefile
from msf import BrokenFile

# address, size, alignment, object file and section
_PIECE = re.compile(r"^([0-9a-f]{8}) ([0-9a-f]{8}) +\d+ {9}(?:\S*/)?([^/\s]+)\.obj:\(\.text", re.MULTILINE)

# How long an unwind code is, by its first byte; the others are one byte long.
_CODE_LENGTHS = {**dict.fromkeys(range(0xC0, 0xE0), 2), 0xE0: 4, 0xE2: 2, 0xE7: 3}
_ENDS = {0xE4, 0xE5}


@dataclass(frozen=True)
class Frame:
    """What the unwind data say of a function."""

    address: int
    calls: bool
    """It saves the return address, as only a function that calls others does."""
    kept: bool
    """It sets the frame pointer."""


def _prologue(program: pefile.PE, unwind: int) -> bytes:
    """The codes of a function's prologue, the last instruction first; of its own record in .xdata."""
    first, = struct.unpack("<I", program.get_data(unwind, 4))
    epilogues, words, header = first >> 22 & 0x1F, first >> 27, 4
    if not epilogues and not words:
        second, = struct.unpack("<I", program.get_data(unwind + 4, 4))
        epilogues, words, header = second & 0xFFFF, second >> 16 & 0xFF, 8
    codes = unwind + header + (0 if first >> 21 & 1 else 4 * epilogues)
    return bytes(program.get_data(codes, 4 * words))


def _read(codes: bytes) -> tuple[bool, bool]:
    """Whether a prologue saves the return address, and whether it sets the frame pointer."""
    calls = kept = False
    at = 0
    while at < len(codes) and codes[at] not in _ENDS:
        code = codes[at]
        value = int.from_bytes(codes[at:at + 2], "big")
        calls |= (0x40 <= code < 0xC0                                # save_fplr, save_fplr_x
                  or code & 0xFE == 0xD6                             # save_lrpair
                  or code & 0xF8 == 0xC8 and value >> 6 & 0xF == 10  # save_regp, save_regp_x of x29 and x30
                  or code & 0xFC == 0xD0 and value >> 6 & 0xF == 11  # save_reg of x30
                  or code & 0xFE == 0xD4 and value >> 5 & 0xF == 11)  # save_reg_x of x30
        kept |= code in {0xE1, 0xE2}                                 # set_fp, add_fp
        at += _CODE_LENGTHS.get(code, 1)
    return calls, kept


def frames(image: bytes) -> list[Frame]:
    """The functions that have unwind data: all but those that neither call nor use the stack."""
    program = pefile.PE(data=image, fast_load=True)
    entry = program.OPTIONAL_HEADER.DATA_DIRECTORY[pefile.DIRECTORY_ENTRY["IMAGE_DIRECTORY_ENTRY_EXCEPTION"]]
    found = []
    try:
        for address, unwind in struct.iter_unpack("<II", program.get_data(entry.VirtualAddress, entry.Size)):
            kind = unwind >> 21 & 3  # of a packed record: 0 saves no return address, 2 and 3 set the frame pointer
            found.append(Frame(address, *((kind != 0, kind >= 2) if unwind & 3 else _read(_prologue(program, unwind)))))
    except (struct.error, pefile.PEFormatError) as error:
        raise BrokenFile(f"the unwind data cannot be read: {error}") from error
    return found


def check(image: bytes, linker_map: str, sources: set[str]) -> list[str]:
    """All functions of the named source files that call others keep a frame pointer."""
    pieces = [(int(address, 16), int(size, 16)) for address, size, source in _PIECE.findall(linker_map) if source in sources]
    ours = {address for begin, size in pieces for address in range(begin, begin + size, 4)}
    try:
        calling = [each for each in frames(image) if each.calls and each.address in ours]
    except BrokenFile as error:
        return [str(error)]
    if len(calling) < len(sources):
        return [f"the linker's map shows {len(calling)} functions of the {len(sources)} source files that call others: it is not this program's"]
    without = [each for each in calling if not each.kept]
    if without:
        return [f"{len(without)} of {len(calling)} functions keep no frame pointer, the first at 0x{without[0].address:X}: "
                "error reports would not hold the memory of their frames"]
    return []
