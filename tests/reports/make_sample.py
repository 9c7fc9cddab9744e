#!/usr/bin/env python3
"""Writes the two reports of a crash for the trial of the package: make_sample.py FOLDER."""

from __future__ import annotations

import sys
from pathlib import Path

from running import full_report, short_report

if __name__ == "__main__":
    Path(sys.argv[1], "short.bin").write_bytes(short_report())
    Path(sys.argv[1], "full.bin").write_bytes(full_report())
