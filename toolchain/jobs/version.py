"""The version that is built: the one line of CMakeLists.txt, or LUMARIS_VERSION, which builds and tests another one."""

import os
import re
from pathlib import Path

TREE = Path(__file__).resolve().parents[2]


def version_of(lists: str) -> str:
    """The version in the text of CMakeLists.txt: three numbers."""
    found = re.findall(r"^set\(version (\d+\.\d+\.\d+)\)$", lists, re.MULTILINE)
    if len(found) != 1:
        raise ValueError(f"CMakeLists.txt has {len(found)} lines with the version")
    return str(found[0])


def configured_version() -> str:
    """The version that a build has which is configured now."""
    given = os.environ.get("LUMARIS_VERSION", "").strip()
    return given or version_of((TREE / "CMakeLists.txt").read_text(encoding="utf-8"))


def next_version(version: str) -> str:
    """The next patch of a version."""
    major, minor, patch = version.split(".")
    return f"{major}.{minor}.{int(patch) + 1}"
