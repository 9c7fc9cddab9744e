"""The proof that travels to a real Windows, made under Wine: it passes with exactly the differences that its table knows."""

from __future__ import annotations

import json
import re
import shutil
import socket
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import Any

import pytest
from conftest import TREE, load_kit

from bed import settings
from bed.snapshot import nothing_else_changes
from bed.windows import FinishedRun, Windows, windows_path

# Emulated, the other checks have not been tried yet.
ARM64_CHECKS = ("unit-tests", "crashes", "network-gate")
CHECKS = {"unit-tests", "crashes", "network-gate", "updates", "tls", "saved-reports", "installation"}
EVENTS = "HKLM\\SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\HalvoroUpdate"

# Seconds that a whole proof may take.
# Windows Installer's own keys stay, empty. Wine starts its Task Scheduler with the first task, and counts service starts.
KEPT = (
    r"\[HKEY_LOCAL_MACHINE\\Software\\(Classes|Microsoft\\Windows\\CurrentVersion)\\Installer(\\[^\]]+)?\]",
    r"\[HKEY_LOCAL_MACHINE\\System\\\w+\\Control\\ServiceCurrent\] .*",
    r'\[HKEY_LOCAL_MACHINE\\System\\\w+\\Services\\Schedule\] "Start"=.*',
)

LIMIT = {"x64": 300, "arm64": 600}
MOST_BYTES = 8_000_000
PROVED, FAILED, NOT_BEGUN = 0, 1, 2


@pytest.fixture(scope="session")
def folder(kit: Path, machine: Windows) -> Path:
    """The unpacked kit, where the Windows sees it."""
    target = machine.folder / "kit"
    shutil.unpack_archive(kit, target)
    # At its first use Wine puts the room's certificates into its registry, and makes the keys that those of its programs lie in.
    prove(machine, target / kit.stem, "--only tls")
    remove_report(target / kit.stem)
    return target / kit.stem


def prove(machine: Windows, folder: Path, *options: str, limit: float = 900) -> FinishedRun:
    """Runs the proof to its end."""
    trace = windows_path(machine.folder / "trace.txt")
    return machine.run(f'"{windows_path(folder / "proof.exe")}" --yes --wine-trace {trace} {" ".join(options)}', limit=limit)


def report_of(folder: Path) -> Any:
    """What the last proof reported."""
    return json.loads((folder / "proof-report.json").read_text(encoding="utf-8"))


def remove_report(folder: Path) -> None:
    """Removes what a proof has reported."""
    for name in ("proof-report.txt", "proof-report.html", "proof-report.json"):
        (folder / name).unlink(missing_ok=True)


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
    """Drive and registry are afterwards as they were, but for what Windows Installer keeps. The report stays, of course."""
    registry = registry_of(machine)
    installers = machine.unix_path("C:\\windows\\Installer")
    hosts = machine.unix_path("C:\\windows\\system32\\drivers\\etc\\hosts")
    names = hosts.read_bytes()
    with nothing_else_changes(machine, [installers, hosts]):
        yield
    assert hosts.read_bytes() == names
    assert [line for line in sorted(registry_of(machine) ^ registry) if not any(re.fullmatch(kept, line) for kept in KEPT)] == []
    assert not installers.exists() or list(installers.iterdir()) == []
    remove_report(folder)


def test_the_kit_is_small_enough(kit: Path) -> None:
    assert kit.stat().st_size < MOST_BYTES


def test_the_same_programs_make_the_same_kit(kit: Path, architecture: str, tmp_path: Path) -> None:
    again = load_kit().make(TREE / f"build/{architecture}-test", architecture, tmp_path)
    assert again.read_bytes() == kit.read_bytes()


def test_the_proof_passes_with_the_differences_that_are_known(machine: Windows, folder: Path, architecture: str) -> None:
    with nothing_left(machine, folder):
        chosen = ARM64_CHECKS if architecture == "arm64" else ()
        run = prove(machine, folder, *(f"--only {each}" for each in chosen))
        report = report_of(folder)
        assert (run.exit_code, report["passed"]) == (PROVED, True), (folder / "proof-report.txt").read_text(encoding="utf-8")
        assert report["seconds"] < LIMIT[architecture]
        assert {each["name"] for each in report["checks"]} == (set(chosen) or CHECKS)
        assert (folder / "proof-report.html").read_text(encoding="utf-8").startswith("<!DOCTYPE html>")


def test_the_list_changes_nothing(machine: Windows, folder: Path) -> None:
    with nothing_left(machine, folder):
        run = machine.run(f'"{windows_path(folder / "proof.exe")}" --list')
    assert run.exit_code == PROVED
    assert {line.partition(":")[0] for line in run.output.split("\n\n")[0].splitlines() if not line.startswith(" ")} == CHECKS


def test_an_unknown_check_is_refused(machine: Windows, folder: Path) -> None:
    run = machine.run(f'"{windows_path(folder / "proof.exe")}" --yes --only everything')
    assert (run.exit_code, run.output.strip()) == (NOT_BEGUN, "proof: there is no such check; see proof --list")


def test_without_consent_nothing_is_begun(machine: Windows, folder: Path) -> None:
    """Its standard input is at its end."""
    with nothing_left(machine, folder):
        run = machine.run(f'"{windows_path(folder / "proof.exe")}"')
    assert run.exit_code == NOT_BEGUN
    assert "Go on? [y/N]" in run.output
    assert "ports 80 and 8118" in run.output


def make_key(machine: Windows) -> None:
    machine.set_value(settings.PRODUCT_KEY, "Version", "3.4.0")


def make_event_source(machine: Windows) -> None:
    machine.set_value(EVENTS, "TypesSupported", 7)


def make_folder(machine: Windows) -> None:
    machine.unix_path("C:\\Program Files\\Tavrin").mkdir()


@pytest.mark.parametrize("make", [make_key, make_event_source, make_folder])
def test_somebody_elses_things_are_left_alone(machine: Windows, folder: Path, make: Callable[[Windows], None]) -> None:
    make(machine)
    try:
        with nothing_left(machine, folder):
            assert prove(machine, folder).exit_code == NOT_BEGUN
            assert not (folder / "proof-report.json").exists()
    finally:
        machine.delete_key("HKLM\\SOFTWARE\\Tavrin")
        machine.delete_key(EVENTS)
        if (made := machine.unix_path("C:\\Program Files\\Tavrin")).exists():
            made.rmdir()


@pytest.mark.parametrize("port", [80, 443])
def test_somebody_elses_server_is_left_alone(machine: Windows, folder: Path, port: int) -> None:
    with socket.create_server(("127.0.0.1", port)), nothing_left(machine, folder):
        assert prove(machine, folder).exit_code == NOT_BEGUN
