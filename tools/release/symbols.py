"""What reads the error reports of a release: its symbol store, and the reader that looks names up in it."""

from __future__ import annotations

import struct
import uuid

import pefile
from msf import Msf

_INTERPRETER, _DYNAMIC = 3, 2
_ELF_64_LITTLE = b"\x7fELF\x02\x01"


def store(program: bytes, pdb: bytes) -> dict[str, bytes]:
    """The program and its PDB in the usual layout, by path: a time stamp and a size for the one, GUID and age for the other."""
    image = pefile.PE(data=program, fast_load=True)
    identity, age = Msf(pdb).identity()
    guid = uuid.UUID(bytes_le=identity).hex.upper()
    return {f"symbols/lumaris.exe/{image.FILE_HEADER.TimeDateStamp:08X}{image.OPTIONAL_HEADER.SizeOfImage:x}/lumaris.exe": program,
            f"symbols/lumaris.pdb/{guid}{age:x}/lumaris.pdb": pdb}


def check_reader(image: bytes) -> list[str]:
    """The reader is one file that starts on any Linux for x86-64: nothing of it comes out of libraries of the machine that built it."""
    if not image.startswith(_ELF_64_LITTLE) or len(image) < 64 or struct.unpack_from("<H", image, 18)[0] != 62:
        return ["read_report is no Linux program for x86-64"]
    table, = struct.unpack_from("<Q", image, 32)
    size, count = struct.unpack_from("<HH", image, 54)
    kinds = {struct.unpack_from("<I", image, table + size * number)[0] for number in range(count)}
    return ["read_report is not linked statically: it would not start on other machines"] if kinds & {_INTERPRETER, _DYNAMIC} else []
