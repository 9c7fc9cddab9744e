"""Says what takes the room in a linked program, by the library that each piece came from.

    python3 bench/size_report.py build/arm64-release/src/updater/lumaris.exe

Runs in the room (./dev shell); reads the map that the linker wrote beside the program (PROGRAM.map).
"""

from __future__ import annotations

import argparse
import re
import subprocess
import sys
from collections import Counter
from pathlib import Path

# A piece of an input file in the map: address, size (hexadecimal), alignment, the object file and its section. Sections
# of the output stand further left, symbols further right.
_PIECE = re.compile(r"^[0-9a-f]{8} ([0-9a-f]{8}) +[0-9]+ {9}(\S.*):\(([^)]*)\)$")

_CPP = "C++ library (libc++, libc++abi)"
_NAMES = {"c++": _CPP, "c++abi": _CPP, "unwind": "stack unwinding (libunwind)", "clang_rt.builtins": "compiler support",
          "http_parser": "http/parser/", "http_request": "http/request/"}
_OURS = {"platform", "stream", "minisign", "errorreport", "updater"}
_REST = "headers, import and relocation tables, unwind data, alignment"


def _members(archives: list[Path]) -> dict[str, str]:
    """Object file to library name. The map names objects only."""
    found: dict[str, str] = {}
    for archive in archives:
        name = re.sub(r"-(x86_64|aarch64)$", "", archive.stem.removeprefix("lib"))
        listed = subprocess.run(["llvm-ar-19", "t", archive], capture_output=True, text=True, check=True).stdout
        for member in listed.splitlines():
            found.setdefault(Path(member).name, name)
    return found


def _origin(piece: str, section: str, members: dict[str, str]) -> str:
    """The part of the product, or the library, that an input section comes from."""
    name = Path(piece).name
    if section.startswith(".rsrc") or name.endswith(".res"):
        return "resources/"
    if "/lumaris.dir/" in piece:
        return "updater/"
    library = members.get(name)
    if library in _OURS:
        return f"{library}/"
    if library is not None:
        return _NAMES.get(library, library if library == "sodium" else "C run-time and imports")
    return "C run-time and imports"


def by_origin(program: Path) -> Counter[str]:
    """Bytes of the program file by origin; they add up to its size."""
    build = program.parents[2]
    arch = "aarch64" if "arm64" in build.name else "x86_64"
    toolchain, deps = Path(f"/opt/lumaris/toolchain-{arch}"), Path(f"/opt/lumaris/deps-{arch}")
    ours = [archive for folder in (*sorted(_OURS), "http") for archive in sorted((build / "src" / folder).glob("**/lib*.a"))]
    members = _members([*ours, deps / "lib/libsodium.a", *(toolchain / f"lib/lib{name}.a" for name in ("c++abi", "c++", "unwind")),
                        *sorted(toolchain.glob("resource/**/libclang_rt.builtins*.a"))])
    counted: Counter[str] = Counter()
    for line in program.with_suffix(".map").read_text(encoding="utf-8", errors="replace").splitlines():
        found = _PIECE.match(line)
        if found and not found.group(3).startswith((".debug", ".bss")):
            counted[_origin(found.group(2), found.group(3), members)] += int(found.group(1), 16)
    counted[_REST] += program.stat().st_size - counted.total()
    return counted


def table(program: Path) -> str:
    """The table, largest first."""
    counted = by_origin(program)
    lines = [f"  {size:>9,}  {name}" for name, size in counted.most_common()]
    return "\n".join([*lines, f"  {counted.total():>9,}  {program.name}"])


def main() -> int:
    """The command."""
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("program", type=Path, help="a program with its .map beside it")
    print(table(parser.parse_args().program))
    return 0


if __name__ == "__main__":
    sys.exit(main())
