"""The plots of the benchmarks show the numbers that were measured, and the page shows the numbers that are kept."""

from __future__ import annotations

import os
import subprocess
import sys
from pathlib import Path
from typing import cast

import numpy as np
import pytest
from matplotlib.container import ErrorbarContainer
from matplotlib.patches import Rectangle

ROOT = Path(__file__).resolve().parents[2]
sys.path.append(str(ROOT / "bench"))

from plotting import plots, results  # noqa: E402  (the path to them is set above)
from plotting.results import Row  # noqa: E402

ROWS = [Row("a", "time of one", "0.60 (0.50 to 0.90)", "at most 0.80", True),
        Row("a", "speed of two", "0.40 (0.30 to 0.45)", "at least 0.80", False),
        Row("b", "time of three", "9.90 (9.00 to 11.00)", "stated", True),
        Row("c", "size of four", "+1,024 B", "under 4096 B", True),
        Row("c", "time of five", "-3.0 ms", "under 5 ms more", True)]


def test_a_bar_is_as_long_as_its_number_is_near_to_its_limit() -> None:
    axes = plots.limits(ROWS).axes[0]
    assert [label.get_text() for label in axes.get_yticklabels()] == ["time of one", "speed of two", "size of four", "time of five"]
    # What is below zero has the shortest bar that there is.
    assert [cast("Rectangle", bar).get_width() for bar in axes.patches] == pytest.approx([0.60 / 0.80, 0.80 / 0.40, 1024 / 4096, 0.005])
    assert [text.get_text() for text in axes.texts] == ["0.60 (0.50 to 0.90), at most 0.80", "0.40 (0.30 to 0.45), at least 0.80",
                                                        "+1,024 B, under 4096 B", "-3.0 ms, under 5 ms more"]


def test_a_bar_beyond_its_limit_has_another_color() -> None:
    colors = [bar.get_facecolor() for bar in plots.limits(ROWS).axes[0].patches]
    assert colors[0] == colors[2] == colors[3] != colors[1]


def test_a_comparison_shows_its_median_its_middle_half_and_its_limit() -> None:
    axes = plots.spread(ROWS).axes[0]
    assert [label.get_text() for label in axes.get_yticklabels()] == ["time of one", "speed of two", "time of three"]
    containers = [cast("ErrorbarContainer", each) for each in axes.containers]
    points = [float(np.asarray(each.lines[0].get_xdata())[0]) for each in containers]
    assert points == pytest.approx([0.60, 0.40, 9.90])
    halves = [each.lines[2][0].get_segments()[0][:, 0].tolist() for each in containers]
    assert halves == [pytest.approx([0.50, 0.90]), pytest.approx([0.30, 0.45]), pytest.approx([9.00, 11.00])]
    marks = [float(np.asarray(line.get_xdata())[0]) for line in axes.lines if line.get_linewidth() == 1.5 and line.get_marker() == "None"]
    assert marks == pytest.approx([0.80, 0.80])


@pytest.mark.parametrize("measured", ["", "none", "MB 3"])
def test_a_row_without_a_number_is_an_error(measured: str) -> None:
    with pytest.raises(ValueError, match="no number in"):
        plots.read(Row("a", "b", measured, "stated", True))


def test_other_numbers_make_other_plots_and_the_same_ones_the_same_bytes(tmp_path: Path) -> None:
    first, again = ([file.read_bytes() for file in plots.draw(ROWS, tmp_path / name)] for name in ("first", "again"))
    other = [file.read_bytes() for file in plots.draw([*ROWS[1:], Row("a", "time of one", "0.61 (0.50 to 0.90)", "at most 0.80", True)], tmp_path / "other")]
    assert first == again
    assert all(one != another for one, another in zip(first, other, strict=True))


def test_measuring_again_replaces_the_rows_of_that_measurement_alone() -> None:
    new = [Row("b", "time of three", "8.00", "stated", True), Row("d", "six", "6", "stated", True)]
    assert results.merged(ROWS, new) == [ROWS[0], ROWS[1], new[0], ROWS[3], ROWS[4], new[1]]
    assert results.merged([], ROWS) == ROWS


def test_what_is_kept_is_what_was_measured(tmp_path: Path) -> None:
    results.save(tmp_path / "below/results.json", ROWS)
    assert results.load(tmp_path / "below/results.json") == ROWS


def test_the_command_prints_the_numbers_of_a_file_and_fails_for_one_that_is_missed(tmp_path: Path) -> None:
    def call(rows: list[Row]) -> subprocess.CompletedProcess[str]:
        results.save(tmp_path / "results.json", rows)
        return subprocess.run([sys.executable, str(ROOT / "bench/run.py"), "--from", str(tmp_path / "results.json")], capture_output=True, text=True,
                              timeout=120, check=False, env={**os.environ, "PYTHONDONTWRITEBYTECODE": "1"})

    missed = call(ROWS)
    assert missed.returncode == 1, missed.stderr
    assert missed.stdout.splitlines()[1:] == results.table(ROWS)
    assert missed.stdout.splitlines()[2].split() == ["speed", "of", "two", "0.40", "(0.30", "to", "0.45)", "at", "least", "0.80", "MISSED"]
    assert call([ROWS[0], *ROWS[2:]]).returncode == 0


def test_the_page_has_the_numbers_and_the_plots_of_the_kept_measurement(tmp_path: Path) -> None:
    rows = results.load(ROOT / "bench/results.json")
    page = (ROOT / "docs/performance.md").read_text(encoding="utf-8")
    assert page.split("```")[1].strip().splitlines() == results.table(rows)
    assert results.page_with(page, rows) == page
    for drawn in plots.draw(rows, tmp_path):
        assert (ROOT / "docs/images" / drawn.name).read_bytes() == drawn.read_bytes(), f"{drawn.name}: ./dev bench --plot --from bench/results.json"
        assert f"](images/{drawn.name})" in page
