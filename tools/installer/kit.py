"""What an administrator gets beside the package: group policies, event queries, the definition of the task, and the page that explains them."""

from __future__ import annotations

import zipfile
from pathlib import Path

from package import ROOT

# A time that every zip archive can hold: the same files make the same bytes.
_TIME = (2000, 1, 1, 0, 0, 0)


def files() -> dict[str, Path]:
    """By their name in the archive."""
    found = {"administrators.md": ROOT / "docs/administrators.md", "task.xml": ROOT / "packaging/installer/task.xml"}
    for folder in ("events", "policy"):
        found |= {str(file.relative_to(ROOT / "packaging")): file for file in (ROOT / "packaging" / folder).rglob("*") if file.is_file()}
    return dict(sorted(found.items()))


def write(archive: Path) -> None:
    """Writes the archive."""
    with zipfile.ZipFile(archive, "w", zipfile.ZIP_DEFLATED) as content:
        for name, file in files().items():
            entry = zipfile.ZipInfo(name, _TIME)
            entry.compress_type = zipfile.ZIP_DEFLATED
            entry.external_attr = 0o644 << 16
            content.writestr(entry, file.read_bytes())
