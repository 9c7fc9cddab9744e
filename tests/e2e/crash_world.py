"""What a test of crashes sees of the bed: it lets programs crash, and judges what reached the server and what is left."""

from __future__ import annotations

import shutil
from collections.abc import Sequence
from contextlib import ExitStack
from dataclasses import dataclass
from pathlib import Path

from bed import isolation, settings
from bed.report_server import ReportServer
from bed.reports import Reader, Report
from bed.screen import Screen
from bed.windows import FinishedRun, Started, Windows, windows_path

CRASHED = 0xFFFFFFFF
MACHINES = {"x64": "x86-64", "arm64": "arm64"}


@dataclass(frozen=True)
class CrashBed:
    """What is made once for all crashes of a session."""

    network: isolation.PrivateNetwork
    server: ReportServer
    reader: Reader
    programs: Path
    """The folder of the crash programs and their PDBs."""


class CrashWorld:
    """One test's view of a Windows in which programs crash; use it as a context manager."""

    def __init__(self, bed: CrashBed, machine: Windows, screen: Screen | None = None) -> None:
        self.machine = machine
        self.server = bed.server
        self.network = bed.network
        self.screen = screen
        self._bed = bed
        self._stack = ExitStack()
        self.temp_path = machine.expand("%TEMP%") + "\\"
        self.temp = machine.unix_path(self.temp_path)

    def __enter__(self) -> CrashWorld:
        self.server.reset()
        self._remove_files()
        # Nobody sits before a machine without a screen: the programs ask nobody, and attach what they have noted.
        settings.set_screen_reader(self.machine, self.screen is None)
        return self

    def __exit__(self, *_: object) -> None:
        self._stack.close()
        self.server.release()
        settings.set_screen_reader(self.machine, False)
        self._remove_files()

    def _remove_files(self) -> None:
        for name in self.files():
            (self.temp / name).unlink()

    # Arranging

    def use_temporary_folder(self, folder: Path) -> None:
        """The programs of this test have their temporary folder there."""
        self.machine.set_environment("TMP", windows_path(folder))
        self._stack.callback(self.machine.set_environment, "TMP", "")

    def small_disk(self, name: str, size: int, *, read_only: bool = False) -> Path:
        """A small disk for this test."""
        return self._stack.enter_context(self.network.small_disk(name, size, read_only=read_only))

    def save(self, number: int, pair: tuple[bytes, bytes]) -> None:
        """Leaves the files of an earlier crash."""
        for extension, content in zip(("tzo", "tzr"), pair, strict=True):
            (self.temp / f"{number}.{extension}").write_bytes(content)

    # Running

    def run(self, kind: str, *, notes: Sequence[str] = (), limit: float = 50) -> FinishedRun:
        """Runs a crash program to its end."""
        return self.machine.run(self.command_line(kind, notes), limit=limit)

    def begin(self, kind: str, *, notes: Sequence[str] = (), name: str = "crash") -> Started:
        """Starts a crash program, which ends with the test at the latest."""
        return self.machine.begin(name, self.command_line(kind, notes))

    def command_line(self, kind: str, notes: Sequence[str] = ()) -> str:
        """How a crash program is called."""
        file = f"crash_{kind}.exe"
        if not (self.machine.folder / file).exists():
            shutil.copyfile(self._bed.programs / file, self.machine.folder / file)
        options = "".join(f' --note "{note}"' for note in notes)
        return f'"{windows_path(self.machine.folder / file)}"{options}'

    # Judging

    def files(self) -> list[str]:
        """The files of crashes in the temporary folder, and the server's page."""
        return sorted(each.name for pattern in ("*.tzo", "*.tzr", "Odgovor.html") for each in self.temp.glob(pattern))

    def pair(self, number: int) -> tuple[bytes, bytes]:
        """The files of one saved crash."""
        return (self.temp / f"{number}.tzo").read_bytes(), (self.temp / f"{number}.tzr").read_bytes()

    def read(self, body: bytes, kind: str | None = None) -> Report:
        """Reads a report to its last byte, with the functions of this crash program."""
        report = self._bed.reader.read(body, symbols=self._bed.programs if kind else None)
        assert report.machine == MACHINES[self.machine.architecture]
        return report

    def assert_nothing_left(self) -> None:
        """No report waits for the next start."""
        assert self.files() == []
