"""A screen that nobody sees: an X server of our own, on which message boxes appear, are photographed and answered.

Programs under Wine draw on it when its name is in their environment before the Wine server starts (`Windows(..., display=)`).
It listens in the private network only, and on a socket below /tmp, which both rooms share.
"""

from __future__ import annotations

import os
import selectors
import subprocess
import time
from dataclasses import dataclass
from pathlib import Path

from .errors import BedError

_PAUSE = 0.02
_FEW_COLOURS = 16


@dataclass(frozen=True)
class Window:
    """A window that can be seen."""

    id: str
    title: str


class Screen:
    """Use it as a context manager; the programs that draw on it should have ended before it does."""

    def __init__(self, folder: Path, size: str = "1024x768") -> None:
        self._log = folder / "screen.log"
        self._size = size
        self._server: subprocess.Popen[bytes] | None = None
        self.display = ""

    def __enter__(self) -> Screen:
        read, write = os.pipe()
        with self._log.open("ab") as log:
            self._server = subprocess.Popen(
                ["Xvfb", "-displayfd", str(write), "-screen", "0", f"{self._size}x24", "-nolisten", "tcp", "-noreset"],
                pass_fds=(write,), stdin=subprocess.DEVNULL, stdout=log, stderr=log, cwd="/")
        os.close(write)
        with os.fdopen(read, "rb") as numbers, selectors.DefaultSelector() as selector:
            # It takes a free number and writes it when it listens.
            selector.register(numbers, selectors.EVENT_READ)
            number = numbers.readline().strip() if selector.select(20) else b""
        if not number:
            self.__exit__()
            raise BedError(f"Xvfb does not start: {self._log.read_text(errors='replace').strip()[-2000:]}")
        self.display = f":{number.decode('ascii')}"
        return self

    def __exit__(self, *_: object) -> None:
        if self._server is not None:
            self._server.terminate()
            try:
                self._server.wait(10)
            except subprocess.TimeoutExpired:
                self._server.kill()
                self._server.wait(10)
            self._server = None

    def windows(self, title: str) -> list[Window]:
        """The windows that can be seen and have this title."""
        found = self._do("xdotool", "search", "--onlyvisible", "--name", f"^{title}$", accepted=(0, 1))
        return [Window(each, title) for each in found.split()]

    def wait_for(self, title: str, limit: float = 30, *, other_than: Window | None = None) -> Window:
        """Waits until a window of this title can be seen, and returns it."""
        until = time.monotonic() + limit
        while True:
            for window in self.windows(title):
                if window != other_than:
                    return window
            if time.monotonic() > until:
                raise BedError(f"no window \"{title}\" appeared within {limit} s")
            time.sleep(_PAUSE)

    def wait_until_gone(self, window: Window, limit: float = 30) -> None:
        """Waits until the window cannot be seen any more."""
        until = time.monotonic() + limit
        while window in self.windows(window.title):
            if time.monotonic() > until:
                raise BedError(f"window \"{window.title}\" did not go away within {limit} s")
            time.sleep(_PAUSE)

    def press(self, window: Window, key: str, limit: float = 30) -> None:
        """Presses a key in a window until it goes away. A box that has just appeared does not hear the first one."""
        until = time.monotonic() + limit
        while window in self.windows(window.title):
            if time.monotonic() > until:
                raise BedError(f"window \"{window.title}\" does not answer to the key {key}")
            # Without a window manager nobody else gives the window the keys. It may go away at any moment.
            self._do("xdotool", "windowfocus", window.id, "key", key, accepted=(0, 1))
            time.sleep(0.1)

    def picture(self, file: Path, window: Window, limit: float = 30) -> Path:
        """Photographs a window into a PNG file, as soon as its icon has been drawn: it appears empty, in few colours."""
        file.parent.mkdir(parents=True, exist_ok=True)
        until = time.monotonic() + limit
        while True:
            self._do("import", "-window", window.id, str(file))
            if int(self._do("identify", "-format", "%k", str(file))) > _FEW_COLOURS:
                return file
            if time.monotonic() > until:
                raise BedError(f"window \"{window.title}\" remains empty for {limit} s")
            time.sleep(_PAUSE)

    def _do(self, *command: str, accepted: tuple[int, ...] = (0,)) -> str:
        done = subprocess.run(command, env={**os.environ, "DISPLAY": self.display}, capture_output=True, text=True,
                              stdin=subprocess.DEVNULL, timeout=30, check=False)
        if done.returncode not in accepted:
            raise BedError(f"{' '.join(command)}: {done.stderr.strip()}")
        return done.stdout
