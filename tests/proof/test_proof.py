"""The proof that travels to a real Windows, made under Wine: it passes with exactly the differences that its table knows."""

from __future__ import annotations

import json
import socket
from collections.abc import Callable
from html.parser import HTMLParser
from pathlib import Path

import pytest
from conftest import TREE, load_kit
from proving import CHECKS, JOURNAL, NOT_BEGUN, PROVED, hosts_of, nothing_left, prove, report_of

from bed import settings
from bed.windows import Windows, windows_path

EVENTS = "HKLM\\SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\HalvoroUpdate"

# Seconds that a whole proof may take.
LIMIT = {"x64": 300, "arm64": 600}
MOST_BYTES = 8_000_000

# What can be seen of TLS where there is no server for it.
SEEN_OF_TLS = {"tls.handshake cut.text", "tls.revoked.place of the list", "tls.revoked.in the list", "tls.revoked.authority in the list",
               "tls.revoked.certificate", "tls.revoked.list", "tls.report without TLS.arrives", "tls.report without TLS.saved"}


def test_the_kit_is_small_enough(kit: Path) -> None:
    assert kit.stat().st_size < MOST_BYTES


def test_the_same_programs_make_the_same_kit(kit: Path, architecture: str, tmp_path: Path) -> None:
    again = load_kit().make(TREE / f"build/{architecture}-test", architecture, tmp_path)
    assert again.read_bytes() == kit.read_bytes()


def test_the_proof_passes_with_the_differences_that_are_known(machine: Windows, folder: Path, architecture: str) -> None:
    with nothing_left(machine, folder):
        run = prove(machine, folder)
        report = report_of(folder)
        assert (run.exit_code, report["passed"]) == (PROVED, True), (folder / "proof-report.txt").read_text(encoding="utf-8")
        assert report["seconds"] < LIMIT[architecture]
        assert {each["name"] for each in report["checks"]} == CHECKS
        assert {seen["name"] for each in report["checks"] for seen in each["seen"]} >= SEEN_OF_TLS
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


class Cells(HTMLParser):
    """The rows of a page's tables, and the elements that are open at its end."""

    def __init__(self) -> None:
        super().__init__()
        self.rows: list[list[str]] = []
        self.open: list[str] = []

    def handle_starttag(self, tag: str, attrs: list[tuple[str, str | None]]) -> None:
        """Opens a row, a cell or something else."""
        if tag in ("meta", "br"):
            return
        self.open.append(tag)
        if tag == "tr":
            self.rows.append([])
        elif tag in ("td", "th"):
            self.rows[-1].append("")

    def handle_endtag(self, tag: str) -> None:
        """Closes the element that was opened last."""
        assert self.open.pop() == tag

    def handle_data(self, data: str) -> None:
        """Adds to the cell at hand."""
        if self.open and self.open[-1] in ("td", "th"):
            self.rows[-1][-1] += data


def test_text_page_and_json_report_the_same(machine: Windows, folder: Path) -> None:
    target = machine.folder / "reports"
    target.mkdir()
    with nothing_left(machine, folder):
        run = prove(machine, folder, f'--only network-gate --output "{windows_path(target)}"')
    text = (target / "proof-report.txt").read_text(encoding="utf-8")
    assert run.output.endswith(text)
    report = report_of(target)
    page = Cells()
    page.feed((target / "proof-report.html").read_text(encoding="utf-8"))
    page.close()
    assert page.open == []
    [check] = report["checks"]
    assert {each["name"] for each in check["seen"]} >= {"network-gate.exit", "network-gate.event"}
    for each in check["seen"]:
        assert f"    {each['name']}: {each['seen']}\n" in text
        assert [each["name"], each["seen"], each["wanted"]] in page.rows
    for name, note in check["notes"].items():
        assert f"    {name}: {note}\n" in text
        assert [name, note, ""] in page.rows
    for each in report["differences"]:
        assert f"    {each['name']}: Wine " in text
        assert [each["name"], each["wine_x64"], each["wine_arm64"], each["windows"], each["here"] or "not looked at", each["why"]] in page.rows
    assert text.splitlines()[-1].startswith("passed: 1 checks passed, 0 failed in ")


def test_json_is_all_that_is_printed_when_it_is_wanted(machine: Windows, folder: Path) -> None:
    with nothing_left(machine, folder):
        run = prove(machine, folder, "--json --only network-gate")
        assert (run.exit_code, json.loads(run.output)) == (PROVED, report_of(folder))


@pytest.mark.any_processor
def test_what_is_kept_can_be_looked_at_until_the_next_start(machine: Windows, folder: Path) -> None:
    """Somebody has added a name meanwhile, which remains."""
    hosts = hosts_of(machine)
    names = hosts.read_bytes()
    try:
        with nothing_left(machine, folder):
            assert prove(machine, folder, "--keep --only network-gate").exit_code == PROVED
            changes = (machine.unix_path(JOURNAL) / "changes.txt").read_text(encoding="utf-8").splitlines()
            assert "hosts" in changes
            assert hosts.read_bytes().startswith(names)
            assert b"127.0.0.1 updates.tavrin.example\r\n" in hosts.read_bytes()
            with hosts.open("ab") as file:
                file.write(b"10.1.1.1 printer\r\n")
            again = prove(machine, folder, "--only network-gate")
            assert again.exit_code == PROVED
            assert again.output.startswith("proof: an earlier proof was ended; what it had changed is put back first\n")
            assert hosts.read_bytes() == names + b"10.1.1.1 printer\r\n"
            hosts.write_bytes(names)
    finally:
        hosts.write_bytes(names)


@pytest.mark.any_processor
def test_what_was_left_can_be_put_back_alone(machine: Windows, folder: Path) -> None:
    with nothing_left(machine, folder):
        assert prove(machine, folder, "--keep --only network-gate").exit_code == PROVED
        run = machine.run(f'"{windows_path(folder / "proof.exe")}" --clean')
        assert (run.exit_code, run.output) == (PROVED, "proof: an earlier proof was ended; what it had changed is put back first\n")
        assert not machine.unix_path(JOURNAL).exists()


@pytest.mark.any_processor
def test_what_cannot_be_put_back_is_named_and_stays_in_the_list(machine: Windows, folder: Path) -> None:
    with nothing_left(machine, folder):
        assert prove(machine, folder, "--keep --only network-gate").exit_code == PROVED
        journal = machine.unix_path(JOURNAL) / "changes.txt"
        with journal.open("ab") as file:
            file.write(b"nonsense\tC:\\x\nkey\tSOFTWARE\\Cut off before its en")
        for _ in range(2):
            run = prove(machine, folder)
            assert run.exit_code == NOT_BEGUN
            assert "proof: could not be undone: nonsense\tC:\\x: an unknown entry\n" in run.output
            assert journal.read_bytes() == b"nonsense\tC:\\x\n"
        journal.write_bytes(b"")
        assert machine.run(f'"{windows_path(folder / "proof.exe")}" --clean').exit_code == PROVED
