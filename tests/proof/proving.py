"""What the tests of the proof share: how it is started, what it has reported, and that nothing of it is left."""

from __future__ import annotations

import json
import re
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import Any

from bed.snapshot import nothing_else_changes
from bed.windows import FinishedRun, Windows, windows_path

CHECKS = {"unit-tests", "crashes", "network-gate", "updates", "tls", "saved-reports", "installation"}
PROVED, FAILED, NOT_BEGUN = 0, 1, 2

# Where the proof keeps the list of what it has changed, as long as it has not put that back.
JOURNAL = "C:\\ProgramData\\Lumaris proof"

# Windows Installer's own keys remain, empty. Wine starts its Task Scheduler with the first task, and counts service starts.
KEPT = (
    r"\[HKEY_LOCAL_MACHINE\\Software\\(Classes|Microsoft\\Windows\\CurrentVersion)\\Installer(\\[^\]]+)?\]",
    r"\[HKEY_LOCAL_MACHINE\\System\\\w+\\Control\\ServiceCurrent\] .*",
    r'\[HKEY_LOCAL_MACHINE\\System\\\w+\\Services\\Schedule\] "Start"=.*',
)


# The proof itself, and as it is when somebody starts it with administrator rights: then it does not start itself again to get them.
PLAIN, ELEVATED = "proof.exe", "elevated/proof.exe"


def elevate(folder: Path) -> None:
    """Makes a proof that Wine starts with administrator rights, as it does a program whose manifest requires them."""
    program = (folder / PLAIN).read_bytes()
    begin = program.index(b"<!-- It asks")
    end = program.index(b"/>", begin)
    assert b'level="asInvoker"' in program[begin:end]
    wanted = b'<requestedExecutionLevel level="requireAdministrator" uiAccess="false"'.ljust(end - begin)
    (folder / ELEVATED).parent.mkdir()
    for name in ("programs", "signed", "installers", "kit.json"):
        (folder / ELEVATED).with_name(name).symlink_to(folder / name)
    (folder / ELEVATED).write_bytes(program[:begin] + wanted + program[end:])


def command_line(machine: Windows, folder: Path, *options: str) -> str:
    """How the proof is called by somebody who has administrator rights, without a question. Its report lies in the folder `elevated`."""
    trace = windows_path(machine.folder / "trace.txt")
    return f'"{windows_path(folder / ELEVATED)}" --yes --wine-trace {trace} {" ".join(options)}'


def prove(machine: Windows, folder: Path, *options: str, limit: float = 900) -> FinishedRun:
    """Runs the proof to its end. It is started without administrator rights, and gets them itself."""
    trace = windows_path(machine.folder / "trace.txt")
    return machine.run(f'"{windows_path(folder / PLAIN)}" --yes --wine-trace {trace} {" ".join(options)}', limit=limit)


def report_of(folder: Path) -> Any:
    """What the last proof reported."""
    return json.loads((folder / "proof-report.json").read_text(encoding="utf-8"))


def remove_report(folder: Path) -> None:
    """Removes what a proof has reported."""
    for name in ("proof-report.txt", "proof-report.html", "proof-report.json"):
        (folder / name).unlink(missing_ok=True)


def hosts_of(machine: Windows) -> Path:
    """The hosts file, to which the proof adds names."""
    return machine.unix_path("C:\\windows\\system32\\drivers\\etc\\hosts")


def registry_of(machine: Windows) -> set[str]:
    """Every value of the machine's part of the registry, with its key."""
    lines = set()
    file = machine.folder / "registry.txt"
    assert machine.run(f'reg export HKLM "{windows_path(file)}" /y').exit_code == 0
    key = ""
    for line in file.read_text(encoding="utf-16").splitlines():
        key = line if line.startswith("[") else key
        if line:
            lines.add(key if line == key else f"{key} {line}")
    return lines


@contextmanager
def nothing_left(machine: Windows, folder: Path) -> Iterator[None]:
    """Drive and registry are afterwards as they were, but for what Windows Installer keeps. The report remains, of course."""
    registry = registry_of(machine)
    installers = machine.unix_path("C:\\windows\\Installer")
    hosts = hosts_of(machine)
    names = hosts.read_bytes()
    with nothing_else_changes(machine, [installers, hosts]):
        yield
    assert hosts.read_bytes() == names
    assert [line for line in sorted(registry_of(machine) ^ registry) if not any(re.fullmatch(kept, line) for kept in KEPT)] == []
    assert not installers.exists() or list(installers.iterdir()) == []
    remove_report(folder)
