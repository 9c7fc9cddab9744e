"""Draws what was measured: how near each number is to its limit, and how far the rounds of a comparison lie apart.

The drawings depend on the numbers alone, so that the same numbers give the same bytes.
"""

from __future__ import annotations

import os
import re
import tempfile
from dataclasses import dataclass
from pathlib import Path

# matplotlib keeps a cache of the fonts; without this it looks for a home folder.
os.environ.setdefault("MPLCONFIGDIR", str(Path(tempfile.gettempdir()) / "lumaris-matplotlib"))

import matplotlib  # noqa: E402  (it reads the variable when it is loaded)

matplotlib.use("svg")

import matplotlib.pyplot as plt  # noqa: E402  (the backend is chosen first)
from matplotlib.figure import Figure  # noqa: E402

from .results import Row  # noqa: E402

_NUMBER = r"[+-]?\d[\d,]*(?:\.\d+)?"
_REACHED, _MISSED, _STATED = "#2a7f62", "#c0392b", "#5d6d7e"
# A number below zero has no place on a logarithmic axis; it is drawn at the left edge.
_LEAST = 0.005


@dataclass(frozen=True)
class Reading:
    """A row's numbers: what was measured with the middle half of its rounds, and the limit, if there is one."""

    value: float
    low: float | None
    high: float | None
    limit: float | None
    at_least: bool

    @property
    def share(self) -> float | None:
        """How much of what is allowed is used: up to 1 the limit is kept, whichever way it points."""
        if self.limit is None:
            return None
        return self.limit / self.value if self.at_least else self.value / self.limit


def _number(text: str) -> float:
    return float(text.replace(",", ""))


def read(row: Row) -> Reading:
    """The numbers in a row's texts."""
    found = re.match(rf"({_NUMBER})(?: \(({_NUMBER}) to ({_NUMBER})\))?", row.measured)
    if found is None:
        raise ValueError(f"no number in \"{row.measured}\"")
    low, high = (_number(each) if each else None for each in found.groups()[1:])
    limit = re.match(rf"(at least|at most|under) ({_NUMBER})", row.to_reach)
    return Reading(_number(found[1]), low, high, _number(limit[2]) if limit else None, bool(limit and limit[1] == "at least"))


def limits(rows: list[Row]) -> Figure:
    """A bar for each number that has a limit: how much of what is allowed it uses."""
    shown = [(row, reading.share) for row in rows if (reading := read(row)).share is not None]
    figure, axes = plt.subplots(figsize=(10.5, 0.34 * len(shown) + 1.2), layout="constrained")
    for place, (row, share) in enumerate(shown):
        drawn = max(share or 0, _LEAST)
        axes.barh(place, drawn, color=_REACHED if row.reached else _MISSED)
        axes.annotate(f"{row.measured}, {row.to_reach}", (max(drawn, 1), place), xytext=(4, 0), textcoords="offset points", va="center", fontsize=8)
    axes.axvline(1, color="black", linewidth=1)
    axes.set_xscale("log")
    axes.set_xlim(_LEAST, 12)
    axes.set_xticks([0.01, 0.1, 1], ["1 %", "10 %", "the limit"])
    axes.set_yticks(range(len(shown)), [row.what for row, _ in shown], fontsize=8)
    axes.invert_yaxis()
    axes.set_xlabel("how much of what is allowed is used (left of the line: reached)")
    return figure


def spread(rows: list[Row]) -> Figure:
    """For each comparison that says so: the median of the rounds' ratios with their middle half, and the limit."""
    shown = [(row, reading) for row in rows if (reading := read(row)).low is not None]
    figure, axes = plt.subplots(figsize=(10.5, 0.42 * len(shown) + 1.2), layout="constrained")
    for place, (row, reading) in enumerate(shown):
        low, high = reading.low or 0, reading.high or 0
        color = _STATED if reading.limit is None else _REACHED if row.reached else _MISSED
        axes.errorbar(reading.value, place, xerr=[[reading.value - low], [high - reading.value]], fmt="o", color=color, capsize=4)
        if reading.limit is not None:
            axes.plot([reading.limit, reading.limit], [place - 0.3, place + 0.3], color="black", linewidth=1.5)
    axes.axvline(1, color="grey", linewidth=0.5, linestyle=":")
    axes.set_xscale("log")
    axes.set_xticks([0.1, 0.2, 0.5, 1, 2, 5, 10], ["0.1", "0.2", "0.5", "1", "2", "5", "10"])
    axes.minorticks_off()
    axes.set_yticks(range(len(shown)), [row.what for row, _ in shown], fontsize=8)
    axes.set_ylim(max(len(shown), 1) - 0.5, -0.5)
    axes.set_xlabel("ratio: median of the rounds with their middle half; the short line is the limit")
    return figure


PLOTS = {"bench_limits.svg": limits, "bench_spread.svg": spread}


def draw(rows: list[Row], folder: Path) -> list[Path]:
    """Writes all plots into the folder, the same bytes for the same rows."""
    folder.mkdir(parents=True, exist_ok=True)
    written = []
    with matplotlib.rc_context({"svg.hashsalt": "lumaris", "svg.fonttype": "none", "font.family": "DejaVu Sans"}):
        for name, plot in PLOTS.items():
            figure = plot(rows)
            figure.savefig(folder / name, metadata={"Date": None, "Creator": None})
            plt.close(figure)
            written.append(folder / name)
    return written
