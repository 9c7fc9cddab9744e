#!/usr/bin/env python3
"""Makes the seeds of the report reader's fuzz target, in fuzz/corpus/report_reader_fuzz.

    python3 fuzz/report_reader_seeds.py

The seeds are binary, so this is how they are read and changed. Each is a small report in one of the three forms that the
target takes: inflated, as a file, as an upload body with chunk framing. docs/report_format.md has the format.
"""

import struct
import zlib
from pathlib import Path

FOLDER = Path(__file__).resolve().parent / "corpus/report_reader_fuzz"
ARM64, X86_64 = 0xAA64, 0x8664


def text(value: str) -> bytes:
    return value.encode("utf-16-le")


def record(code: int, *parameters: int) -> bytes:
    return struct.pack(f"<IIQI{len(parameters)}Q", code, 0, 0x1234, len(parameters), *parameters)


def context(flags: int) -> bytes:
    blocks = ((0x400002, 248), (0x400001, 36), (0x400004, 520), (0x400008, 120))
    return struct.pack("<I", flags) + b"".join(bytes(size) for value, size in blocks if flags & value)


def notes(*values: str) -> bytes:
    units = text("".join(value + "\0" for value in values))
    return b"DOOP" + struct.pack("<I", len(units) // 2) + units


def module(name: str, *, base: int | None = None) -> bytes:
    head = b"MOD1" + struct.pack("<I", len(name)) + text(name) + struct.pack("<I", 7)
    return head + (b"" if base is None else struct.pack("<IQ", 8, base))


def short_frame(offset: int) -> bytes:
    return b"FUN1" + struct.pack("<Q", offset)


def full_frame(offset: int, stack: bytes = b"") -> bytes:
    return short_frame(offset) + struct.pack("<Q", len(stack)) + (struct.pack("<Q", 0x1000) + stack if stack else b"")


def short_report(*rest: bytes, machine: int = ARM64) -> bytes:
    return b"TZO1" + struct.pack("<H", machine) + record(0xC0000005, 0, 0) + b"".join(rest)


def full_report(flags: int, *rest: bytes, machine: int = ARM64, records: int = 1) -> bytes:
    head = b"TZR1" + struct.pack("<HI", machine, records)
    return head + record(0xE0544D01) * records + context(flags) + b"".join(rest)


def chunked(data: bytes, size: int) -> bytes:
    pieces = [data[start:start + size] for start in range(0, len(data), size)]
    return b"".join(b"%X\r\n%s\r\n" % (len(piece), piece) for piece in [*pieces, b""])


def main() -> None:
    short = short_report(notes("a", ""), module("a.exe"), short_frame(1), short_frame(2), module("b.dll"), short_frame(3))
    full = full_report(0x0040001F, notes("a"), module("a.exe", base=0x10000), full_frame(1, b"stack"), full_frame(2))
    seeds = {
        "short": short,
        "short_without_frames": short_report(),
        "short_x86_64": short_report(module("a.exe"), short_frame(1), machine=X86_64),
        "full": full,
        "full_control_alone": full_report(0x1, module("a", base=1), full_frame(1)),
        "full_integer_alone": full_report(0x2, module("a", base=1), full_frame(1)),
        "full_without_registers": full_report(0, module("a", base=1), full_frame(1), module("b", base=2), full_frame(1)),
        "full_x86_64_two_records": full_report(0, module("a", base=1), full_frame(1), machine=X86_64, records=2),
        "module_without_frame": short_report(module("a.exe")),
        "file_short": zlib.compress(short, 9),
        "file_full": zlib.compress(full, 9),
        "file_behind_it_more": zlib.compress(short, 9) + b"\0",
        "body": chunked(zlib.compress(short, 9), 16),
        "empty": b"",
    }
    FOLDER.mkdir(parents=True, exist_ok=True)
    for name, content in seeds.items():
        (FOLDER / name).write_bytes(content)


if __name__ == "__main__":
    main()
