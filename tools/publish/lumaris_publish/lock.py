"""One at a time: whoever changes a publication holds its lock, and the next one waits or learns who that is."""

from __future__ import annotations

import contextlib
import fcntl
import os
import sys
import time
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

from . import files, record
from .refusal import refuse

FILE = "state/lock"


@contextmanager
def held(root: Path, command: str, wait: float) -> Iterator[None]:
    """Holds the lock of a publication. The system lets go of it when the process ends, however it ends."""
    with files.explained():
        (root / "state").mkdir(exist_ok=True)
        lock = os.open(root / FILE, os.O_RDWR | os.O_CREAT, 0o644)
    try:
        until = time.monotonic() + wait
        said = False
        while True:
            try:
                fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
                break
            except BlockingIOError:
                holder = os.pread(lock, 1000, 0).decode("utf-8", "replace").strip() or "somebody"
                if time.monotonic() >= until:
                    raise refuse("locked", f"{holder} is at work on this publication: try again when that has ended, or wait longer with "
                                           "--wait SECONDS") from None
                if not said:
                    print(f"waiting for {holder}", file=sys.stderr, flush=True)
                    said = True
                time.sleep(0.1)
        # The name is for people; on a full disk the lock holds without it.
        with contextlib.suppress(OSError):
            os.ftruncate(lock, 0)
            os.pwrite(lock, f"{record.who()} (process {os.getpid()}, {command}, since {time.strftime('%H:%M:%S')})\n".encode(), 0)
        yield
    finally:
        os.close(lock)
