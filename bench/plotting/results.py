"""What was measured, as a file that is kept from one call to the next, and as the table that a person reads."""

from __future__ import annotations

import json
from dataclasses import asdict, dataclass
from pathlib import Path


@dataclass(frozen=True)
class Row:
    """One number, with the name of the measurement that it belongs to. The texts are those of the table."""

    measurement: str
    what: str
    measured: str
    to_reach: str  # "at most 0.55", "at least 0.90", "under 5 ms more", or "stated"
    reached: bool

    @property
    def outcome(self) -> str:
        """The last column."""
        return "" if self.to_reach == "stated" else "reached" if self.reached else "MISSED"


def load(file: Path) -> list[Row]:
    """The rows of a file that `save` has written."""
    return [Row(**each) for each in json.loads(file.read_text(encoding="utf-8"))]


def save(file: Path, rows: list[Row]) -> None:
    """Writes one row a line, so that two measurements can be compared with `diff`."""
    file.parent.mkdir(parents=True, exist_ok=True)
    file.write_text("[\n" + ",\n".join(json.dumps(asdict(row), ensure_ascii=False) for row in rows) + "\n]\n", encoding="utf-8")


def merged(old: list[Row], new: list[Row]) -> list[Row]:
    """The rows of both, in the order of the old ones; a measurement that was made again replaces all its old rows."""
    again = {row.measurement for row in new}
    names = list(dict.fromkeys(row.measurement for row in (*old, *new)))
    kept = [row for row in old if row.measurement not in again] + new
    return sorted(kept, key=lambda row: names.index(row.measurement))


def table(rows: list[Row]) -> list[str]:
    """The lines of the table."""
    widths = [max((len(getattr(row, name)) for row in rows), default=0) for name in ("what", "measured", "to_reach")]
    return [f"{row.what:{widths[0]}}  {row.measured:>{widths[1]}}  {row.to_reach:>{widths[2]}}  {row.outcome}".rstrip() for row in rows]


def page_with(page: str, rows: list[Row]) -> str:
    """The text of docs/performance.md with this table in the place of its first block."""
    before, _, after = page.split("```", 2)
    return "```".join((before, "\n" + "\n".join(table(rows)) + "\n", after))
