"""Lumaris's own installer package in the hands of a test: made in any version, installed, removed, and looked at."""

from __future__ import annotations

import dataclasses
import sys
import xml.etree.ElementTree as ElementTree
from dataclasses import dataclass
from pathlib import Path

from bed import version as versions
from bed.windows import FinishedRun, Windows, windows_path
from world import Bed

TREE = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TREE / "tools/installer"))

import package as packaging  # noqa: E402  (the path to it is set above)

OWN, NEWER = str(versions.OWN), str(versions.NEWER)
PROGRAM = "C:\\Program Files\\Tavrin\\Halvoro\\lumaris.exe"
TASK = "C:\\windows\\system32\\tasks\\Tavrin\\Halvoro update"
EVENTS = "HKLM\\SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\HalvoroUpdate"
NAMESPACE = {"t": "http://schemas.microsoft.com/windows/2004/02/mit/task"}

# Exit codes of msiexec.
INSTALL_FAILURE = 1603


@dataclass
class Installer:
    """The packages, and the machine on which they are installed and removed."""

    machine: Windows
    bed: Bed
    folder: Path
    programs: Path

    def package(self, version: str = OWN, more: bytes = b"") -> Path:
        """The package of a version. All carry the same programs, but for what is put behind the bytes of lumaris.exe."""
        file = self.folder / f"lumaris-{version}.msi"
        if more or not file.exists():
            with (self.programs / "lumaris.exe").open("wb") as program:
                program.write(self.bed.program_file.read_bytes() + more)
            packaging.make(self.programs, self.machine.architecture, version, file)
            # Windows tells the version that is being replaced so, in UPGRADINGPRODUCTCODE. Wine does not; what it removes for a
            # newer version can then be distinguished only by the name of the feature, where a removal has ALL.
            packaging.run("msibuild", str(file), "-q", "UPDATE `Upgrade` SET `Remove` = 'Lumaris' WHERE `ActionProperty` = 'WIX_UPGRADE_DETECTED'")
        return file

    def msiexec(self, how: str, package: Path, properties: str = "") -> FinishedRun:
        """Runs msiexec to its end."""
        log = self.folder / "msiexec.log"
        log.unlink(missing_ok=True)
        return self.machine.run(f'msiexec {how} "{windows_path(package)}" /qn /norestart /l*v "{windows_path(log)}" {properties}', limit=120, settle=60)

    @property
    def log(self) -> str:
        """What the installer logged at last."""
        return (self.folder / "msiexec.log").read_bytes().decode("utf-8", "replace")

    def install(self, version: str = OWN, properties: str = "") -> None:
        """Installs a version."""
        run = self.msiexec("/i", self.package(version), properties)
        assert run.exit_code == 0, self.log[-3000:]

    def remove(self, version: str = OWN) -> None:
        """Removes a version."""
        run = self.msiexec("/x", self.package(version))
        assert run.exit_code == 0, self.log[-3000:]

    def has_task(self) -> bool:
        """Whether the task is registered."""
        return self.machine.unix_path(TASK).exists()

    def registered_task(self) -> ElementTree.Element:
        """The definition that the last installation gave the Task Scheduler. Wine's keeps neither triggers nor actions of it."""
        begin, end = (self.log.index(tag) for tag in ("<Task ", "</Task>"))
        return ElementTree.fromstring(self.log[begin:end] + "</Task>")

    def start_task(self, task: ElementTree.Element) -> FinishedRun:
        """Runs the task's own command line in the task's own folder, as the Task Scheduler does; 99 when there is no such folder."""
        command, = task.findall("t:Actions/t:Exec/t:Command", NAMESPACE)
        folder, = task.findall("t:Actions/t:Exec/t:WorkingDirectory", NAMESPACE)
        assert not task.findall("t:Actions/t:Exec/t:Arguments", NAMESPACE)
        batch = self.folder / "task.cmd"
        batch.write_bytes(f'@cd /d "{folder.text}" || exit /b 99\r\n@"{command.text}"\r\n@exit /b %ERRORLEVEL%\r\n'.encode())
        run = self.machine.run(f'cmd /c "{windows_path(batch)}"', limit=100, settle=100)
        # What the shell has started is the task itself, and not what the task has left.
        return dataclasses.replace(run, left=tuple(each for each in run.left if each.image != PROGRAM))
