"""The notices of third parties that come with the program: the licence of every library that the bill of materials names.

The texts stand in packaging/notices, one for each library, as the library's source archive has them.
"""

from __future__ import annotations

from collections.abc import Mapping
from pathlib import Path

from bill import PARTS, ROOT, BillError, Source

FOLDER = ROOT / "packaging/notices"
NAME = "THIRD-PARTY-NOTICES.txt"
RULE = "=" * 80


def make_notices(version: str, sources: Mapping[str, Source], folder: Path = FOLDER) -> str:
    """The text of the file. Throws BillError for a library without a notice, and for a notice without a library."""
    texts = {path.stem: path.read_text(encoding="utf-8") for path in folder.glob("*.txt")}
    if lacking := [part.name for part in PARTS if not texts.get(part.name, "").strip()]:
        raise BillError(f"there is no licence text of {', '.join(lacking)} in {folder}")
    if surplus := sorted(set(texts) - {part.name for part in PARTS}):
        raise BillError(f"{folder} has the licence text of {', '.join(surplus)}, which is not part of the program")
    parts = [f"Lumaris {version} contains the following libraries, each under its own licence.\n"]
    for part in PARTS:
        changed = ", changed for this program" if part.patches else ""
        parts.append(f"{RULE}\n{part.name} {sources[part.source].version}: {part.description}{changed}\n{RULE}\n\n{texts[part.name].strip()}\n")
    return "\n".join(parts)
