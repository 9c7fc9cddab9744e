"""Other programs: running them, and saying what is missing."""

from __future__ import annotations

import shutil
import subprocess
from collections.abc import Sequence
from pathlib import Path

from .refusal import refuse

# Where each comes from, for whoever lacks it.
PACKAGES = {"minisign": "minisign", "msiinfo": "msitools", "msiextract": "msitools", "osslsigncode": "osslsigncode", "rsync": "rsync"}
LIMIT = 900.0


def find(name: str) -> None:
    """Raises Refusal if a program is missing."""
    if shutil.which(name) is None:
        raise refuse("missing-program", f"{name} is missing: apt-get install {PACKAGES.get(name, name)}")


def run(arguments: Sequence[str | Path], *, stdin: bytes | None = None, cwd: Path | None = None) -> subprocess.CompletedProcess[bytes]:
    """Runs a program to its end, whatever it returns."""
    find(str(arguments[0]))
    return subprocess.run([str(argument) for argument in arguments], input=b"" if stdin is None else stdin, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, timeout=LIMIT, check=False, cwd=cwd)


def words_of(done: subprocess.CompletedProcess[bytes]) -> str:
    """The last line of what a program said, for a sentence."""
    lines = (done.stderr + b"\n" + done.stdout).decode("utf-8", "replace").strip().splitlines()
    return lines[-1].strip() if lines else f"exit code {done.returncode}"
