"""One number that is promised, and whether it is reached."""

from __future__ import annotations

from dataclasses import dataclass


@dataclass
class Verdict:
    """One number, what it was to be, and whether it is."""

    what: str
    measured: str
    to_reach: str
    reached: bool
