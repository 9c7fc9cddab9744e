"""Says where two builds differ."""

from __future__ import annotations

import pefile

from msf import BrokenFile, Msf


def _place(data: bytes, offset: int) -> str:
    if data.startswith(b"MZ"):
        try:
            program = pefile.PE(data=data, fast_load=True)
        except pefile.PEFormatError:
            return "a program that cannot be read"
        if offset < program.OPTIONAL_HEADER.SizeOfHeaders:
            return "the headers"
        for section in program.sections:
            if section.PointerToRawData <= offset < section.PointerToRawData + section.SizeOfRawData:
                address = offset - section.PointerToRawData + section.VirtualAddress
                return f"section {section.Name.rstrip(bytes(1)).decode('ascii', 'backslashreplace')} at 0x{address:X}"
        return "behind the last section"
    try:
        return Msf(data).place(offset)
    except BrokenFile as error:
        return str(error)


def _ranges(first: bytes, second: bytes) -> list[tuple[int, int]]:
    """Begin and end of what differs in the common part; gaps of up to 15 equal bytes are taken in."""
    ranges: list[tuple[int, int]] = []
    step = 4096
    for begin in range(0, min(len(first), len(second)), step):
        if first[begin:begin + step] == second[begin:begin + step]:
            continue
        for offset in range(begin, min(begin + step, len(first), len(second))):
            if first[offset] == second[offset]:
                continue
            if ranges and offset - ranges[-1][1] < 16:
                ranges[-1] = (ranges[-1][0], offset + 1)
            else:
                ranges.append((offset, offset + 1))
    return ranges


def differences(name: str, first: bytes, second: bytes, at_most: int = 8) -> list[str]:
    """Where two files that should be the same differ, a sentence each; nothing if they do not."""
    if first == second:
        return []
    complaints = []
    if len(first) != len(second):
        complaints.append(f"{name} has {len(first):,} bytes in the one build and {len(second):,} in the other")
    ranges = _ranges(first, second)
    for begin, end in ranges[:at_most]:
        shown = slice(begin, min(end, begin + 16))
        complaints.append(f"{name} differs at offset 0x{begin:X}, {end - begin} bytes, {_place(first, begin)}: "
                          f"{first[shown].hex(' ')} and {second[shown].hex(' ')}")
    if len(ranges) > at_most:
        complaints.append(f"{name} differs in {len(ranges) - at_most} more places")
    return complaints
