"""Faults of disks, folders and rights around error reports: a crash ends as ever, and what could be saved is sent once that is possible."""

from __future__ import annotations

import random
import shutil
import zlib
from collections.abc import Iterator
from pathlib import Path

import pytest

from bed.isolation import PAGE
from bed.report_server import FULL_WANTED, Answer
from bed.snapshot import nothing_else_changes
from bed.windows import DELETE, GENERIC_READ, GENERIC_WRITE, SHARE_DELETE, SHARE_READ, SHARE_WRITE, windows_path
from crash_world import CRASHED, CrashBed, CrashWorld
from test_crash_dialog import CLOSING, INTRODUCTION, NOT_SAVED, NOT_SENT, crash_before_a_user

QUICK = pytest.mark.any_processor
PAGE_FOR_AN_ANSWER = Answer(status=503, body=b"<html>" + b"x" * 20000 + b"</html>", content_type="text/html")


def noise(seed: int) -> str:
    """A text that does not become much shorter when it is compressed."""
    source = random.Random(seed)
    return "".join(source.choice("abcdefghijklmnopqrstuvwxyz0123456789") for _ in range(2400))


# With these both reports take three pages each.
NOTES = [noise(seed) for seed in range(5)]
SHORT_PAGES = FULL_PAGES = 3


@pytest.fixture
def temporary(crash_bed: CrashBed, crashes: CrashWorld) -> Iterator[Path]:
    """A folder of its own for temporary files, for the programs of this test."""
    folder = crash_bed.network.work / "temporary"
    folder.mkdir()
    crashes.use_temporary_folder(folder)
    yield folder
    if folder.is_dir():
        folder.chmod(0o755)
        shutil.rmtree(folder)
    else:
        folder.unlink(missing_ok=True)


def names(folder: Path) -> list[str]:
    """What is in the folder."""
    return sorted(each.name for each in folder.iterdir())


def save_in(folder: Path, *numbers: int) -> None:
    """Leaves the files of earlier crashes. Their content does not matter to who sends them."""
    for number in numbers:
        (folder / f"{number}.tzo").write_bytes(b"short report %d" % number)
        (folder / f"{number}.tzr").write_bytes(b"full report %d" % number)


def bodies(crashes: CrashWorld) -> list[bytes]:
    """What has come to the server since this was last asked."""
    came = [each.body for each in crashes.server.requests]
    crashes.server.requests.clear()
    return came


def crash(crashes: CrashWorld, notes: list[str] | None = None) -> None:
    """A crash, which ends the program as it should and changes nothing but its temporary folder, which is elsewhere."""
    with nothing_else_changes(crashes.machine):
        assert crashes.run("access_violation", notes=notes or []).exit_code == CRASHED


def start(crashes: CrashWorld) -> list[bytes]:
    """A program that does nothing starts and ends; what reached the server."""
    crashes.server.requests.clear()
    with nothing_else_changes(crashes.machine):
        assert crashes.run("none").exit_code == 0
    return bodies(crashes)


# Full disks


@pytest.mark.parametrize("pages", [
    0, pytest.param(1, marks=QUICK), pytest.param(2, marks=QUICK), pytest.param(3, marks=QUICK), pytest.param(4, marks=QUICK), 5,
    pytest.param(6, marks=QUICK),
])
def test_a_disk_that_is_full_after_so_many_pages(crashes: CrashWorld, temporary: Path, pages: int) -> None:
    """What found room is sent by the next start; the server sees where it is cut short."""
    with crashes.network.disk_at(temporary, 16 * PAGE) as disk:
        disk.fill(but=pages * PAGE)
        with crashes.server.away():
            crash(crashes, NOTES)
        (temporary / "filler").unlink(missing_ok=True)
        short = (temporary / "0.tzo").read_bytes()
        assert zlib.decompressobj().decompress(short)[:4] == b"TZO1"[:4 * (pages > 0)]
        if pages < SHORT_PAGES:
            # No full report is begun after a short one that is lost.
            assert (names(temporary), len(short)) == (["0.tzo"], pages * PAGE)
        else:
            full = (temporary / "0.tzr").read_bytes()
            assert names(temporary) == ["0.tzo", "0.tzr"]
            assert crashes.read(short).notes == tuple(NOTES)
            if pages < SHORT_PAGES + FULL_PAGES:
                assert len(full) == (pages - SHORT_PAGES) * PAGE
            else:
                assert crashes.read(full).notes == tuple(NOTES)
        disk.resize(16 * PAGE)
        assert start(crashes) == [short]
        assert names(temporary) == []


@pytest.mark.any_processor
@pytest.mark.parametrize(("files", "left"), [(0, []), (1, ["0.tzo"])])
def test_a_disk_without_room_for_another_file(crashes: CrashWorld, temporary: Path, files: int, left: list[str]) -> None:
    with crashes.network.disk_at(temporary, 16 * PAGE, files=files) as disk:
        with crashes.server.away():
            crash(crashes)
        assert names(temporary) == left
        disk.resize(16 * PAGE)
        assert len(start(crashes)) == len(left)
        assert names(temporary) == []


@pytest.mark.any_processor
@pytest.mark.parametrize(("pages", "files", "reason"), [
    (1, 9, "failed to flush compressed stream: Disk full."),
    (9, 0, "Napaka pri ustvarjanju datoteke TZO: Disk full."),
    (9, 1, "Napaka pri ustvarjanju datoteke TZR: Disk full."),
])
def test_the_user_reads_why_a_report_could_not_be_saved(watched: CrashWorld, pages: int, files: int, reason: str) -> None:
    folder = watched.network.work / "temporary"
    folder.mkdir()
    try:
        with watched.network.disk_at(folder, 16 * PAGE, files=files + 1) as disk:
            (folder / "filler").write_bytes(b"x" * PAGE)
            disk.resize((1 + pages) * PAGE, files=files + 1)
            watched.use_temporary_folder(folder)
            with watched.server.away():
                assert crash_before_a_user(watched).texts == [INTRODUCTION + NOT_SENT + NOT_SAVED + reason + CLOSING]
    finally:
        folder.rmdir()


# Temporary folders that are none


@pytest.mark.parametrize("kind", [pytest.param("missing", marks=QUICK), pytest.param("file", marks=QUICK), "no right to write",
                                  pytest.param("no right at all", marks=QUICK)])
def test_without_a_temporary_folder_a_crash_ends_and_nothing_is_saved(crashes: CrashWorld, temporary: Path, kind: str) -> None:
    if kind == "no right to write":
        temporary.chmod(0o555)
    elif kind == "no right at all":
        temporary.chmod(0)
    else:
        temporary.rmdir()
        if kind == "file":
            temporary.write_bytes(b"")
    with crashes.server.away():
        crash(crashes)
    assert start(crashes) == []
    if temporary.is_dir():
        assert names(temporary) == []
        temporary.chmod(0o755)
    else:
        temporary.unlink(missing_ok=True)
        temporary.mkdir()
    with crashes.server.away():
        crash(crashes)
    assert names(temporary) == ["0.tzo", "0.tzr"]


# The Windows path of the folder with its backslash; "N.tzo" adds five characters. The system of this bed opens longer paths than every
# Windows does; the program takes paths of up to 260 characters, and folders for which the system gives up to 259.
@pytest.mark.parametrize(("length", "saved", "sent"), [
    pytest.param(254, True, True, marks=QUICK),
    (255, True, True),
    pytest.param(256, True, False, marks=QUICK),
    pytest.param(259, True, False, marks=QUICK),
    pytest.param(260, False, False, marks=QUICK),
    pytest.param(300, False, False, marks=QUICK),
])
def test_a_temporary_folder_with_a_long_path(crashes: CrashWorld, temporary: Path, length: int, saved: bool, sent: bool) -> None:
    rest = length - len(windows_path(temporary) + "\\") - 1
    folder = temporary / ("a" * (rest // 2)) / ("b" * (rest - rest // 2 - 1))
    folder.mkdir(parents=True)
    assert len(windows_path(folder) + "\\") == length
    crashes.use_temporary_folder(folder)
    with crashes.server.away():
        crash(crashes)
    assert names(folder) == (["0.tzo", "0.tzr"] if saved else [])
    assert len(start(crashes)) == int(sent)
    assert names(folder) == (["0.tzo", "0.tzr"] if saved and not sent else [])


@pytest.mark.any_processor
def test_a_report_names_a_program_with_a_long_path(crashes: CrashWorld, crash_bed: CrashBed, temporary: Path) -> None:
    """A path of 259 characters is the longest that a program can be started by."""
    name = "crash_access_violation.exe"
    rest = 259 - len(windows_path(temporary) + "\\") - len(name) - 1
    folder = temporary / ("a" * (rest // 2)) / ("b" * (rest - rest // 2 - 1))
    folder.mkdir(parents=True)
    shutil.copyfile(crash_bed.programs / name, folder / name)
    assert len(windows_path(folder / name)) == 259
    assert crashes.machine.run(f'"{windows_path(folder / name)}"', limit=50).exit_code == CRASHED
    (report,) = bodies(crashes)
    assert crashes.read(report).frames[0].module == name


# Names that are taken


@pytest.mark.any_processor
def test_a_folder_in_the_place_of_the_short_report_moves_the_pair_to_the_next_number(
        crashes: CrashWorld, temporary: Path) -> None:
    (temporary / "0.tzo").mkdir()
    with crashes.server.away():
        crash(crashes)
    assert names(temporary) == ["0.tzo", "1.tzo", "1.tzr"]
    # A folder is not a report, and keeps none from being sent.
    assert len(start(crashes)) == 1
    assert names(temporary) == ["0.tzo"]


def test_a_folder_in_the_place_of_the_full_report_leaves_the_short_one(crashes: CrashWorld, temporary: Path) -> None:
    (temporary / "0.tzr").mkdir()
    (temporary / "0.tzr/file").write_bytes(b"somebody's")
    with crashes.server.away():
        crash(crashes)
    assert names(temporary) == ["0.tzo", "0.tzr"]
    save_in(temporary, 1)
    # The short report is sent and deleted; the folder is neither, and keeps no report from being sent.
    assert start(crashes)[1:] == [b"short report 1"]
    assert names(temporary) == ["0.tzr"]
    assert names(temporary / "0.tzr") == ["file"]


@pytest.mark.any_processor
def test_a_full_report_that_is_held_open_keeps_the_new_one_from_being_saved(crashes: CrashWorld, temporary: Path) -> None:
    (temporary / "0.tzr").write_bytes(b"held")
    with crashes.machine.held_open(temporary / "0.tzr", GENERIC_READ, SHARE_READ | SHARE_WRITE | SHARE_DELETE), crashes.server.away():
        crash(crashes)
    assert names(temporary) == ["0.tzo", "0.tzr"]
    assert (temporary / "0.tzr").read_bytes() == b"held"
    assert len(start(crashes)) == 1
    assert names(temporary) == []


# Saved reports that cannot be read or deleted


def hinder(crashes: CrashWorld, temporary: Path, kind: str) -> None:
    """Spoils the second of three saved reports."""
    file = temporary / "1.tzo"
    file.chmod({"unreadable": 0o200, "read-only": 0o444}[kind])


def mend(temporary: Path) -> None:
    """The second saved report is as it was."""
    (temporary / "1.tzo").chmod(0o644)


# What of the second of three reports gets through each time. What remains is tried again by each start.
@pytest.mark.parametrize(("kind", "sent"), [
    pytest.param("unreadable", [], marks=QUICK),
    ("read-only", [b"short report 1"]),
])
def test_a_report_that_cannot_be_sent_and_deleted_keeps_those_behind_it(crashes: CrashWorld, temporary: Path, kind: str,
                                                                        sent: list[bytes]) -> None:
    save_in(temporary, 0, 1, 2)
    hinder(crashes, temporary, kind)
    assert start(crashes) == [b"short report 0", *sent]
    assert names(temporary) == ["1.tzo", "1.tzr", "2.tzo", "2.tzr"]
    assert start(crashes) == sent
    mend(temporary)
    assert start(crashes) == [b"short report 1", b"short report 2"]
    assert names(temporary) == []


@pytest.mark.any_processor
def test_a_folder_in_the_place_of_a_saved_report_keeps_none_back(crashes: CrashWorld, temporary: Path) -> None:
    save_in(temporary, 0, 1, 2)
    (temporary / "1.tzo").unlink()
    (temporary / "1.tzo").mkdir()
    assert start(crashes) == [b"short report 0", b"short report 2"]
    assert names(temporary) == ["1.tzo", "1.tzr"]
    assert start(crashes) == []
    (temporary / "1.tzo").rmdir()
    (temporary / "1.tzo").write_bytes(b"short report 1")
    assert start(crashes) == [b"short report 1"]
    assert names(temporary) == []


@pytest.mark.any_processor
@pytest.mark.parametrize(("access", "share", "sent", "left"), [
    (GENERIC_READ, 0, [], "1.tzo 1.tzr 2.tzo 2.tzr"),
    (GENERIC_READ, SHARE_WRITE | SHARE_DELETE, [], "1.tzo 1.tzr 2.tzo 2.tzr"),
    (GENERIC_READ, SHARE_READ | SHARE_WRITE, [b"short report 1"], "1.tzo 1.tzr 2.tzo 2.tzr"),
    (GENERIC_WRITE, SHARE_READ | SHARE_WRITE | SHARE_DELETE, [], "1.tzo 1.tzr 2.tzo 2.tzr"),
    (DELETE, SHARE_READ | SHARE_WRITE | SHARE_DELETE, [], "1.tzo 1.tzr 2.tzo 2.tzr"),
    # Deleted, and gone as soon as it is closed.
    (GENERIC_READ, SHARE_READ | SHARE_DELETE, [b"short report 1", b"short report 2"], "1.tzo"),
], ids=["for nothing", "not for reading", "not for deleting", "for all by a writer", "for all by who may delete it",
        "for reading and deleting"])
def test_a_report_that_another_program_has_open(crashes: CrashWorld, temporary: Path, access: int, share: int,
                                                sent: list[bytes], left: str) -> None:
    save_in(temporary, 0, 1, 2)
    with crashes.machine.held_open(temporary / "1.tzo", access, share):
        assert start(crashes) == [b"short report 0", *sent]
        assert names(temporary) == left.split()
    assert start(crashes) == ([b"short report 1", b"short report 2"] if "2.tzo" in left else [])
    assert names(temporary) == []


@pytest.mark.any_processor
@pytest.mark.parametrize("hindrance", ["held", "unreadable", "missing"])
def test_a_full_report_that_is_wanted_and_cannot_be_read(crashes: CrashWorld, temporary: Path, hindrance: str) -> None:
    """Its short report has been sent: it remains, and the next start goes on with the next report."""
    save_in(temporary, 0, 1)
    file = temporary / "0.tzr"
    crashes.server.queue = [FULL_WANTED]
    if hindrance == "held":
        with crashes.machine.held_open(file, GENERIC_READ, 0):
            assert start(crashes) == [b"short report 0"]
    else:
        if hindrance == "unreadable":
            file.chmod(0o200)
        else:
            file.unlink()
        assert start(crashes) == [b"short report 0"]
    rest = ["0.tzr"] * (hindrance != "missing")
    assert names(temporary) == [*rest, "1.tzo", "1.tzr"]
    assert start(crashes) == [b"short report 1"]
    assert names(temporary) == rest


@pytest.mark.any_processor
def test_a_folder_in_the_place_of_a_full_report_that_is_wanted_keeps_none_back(crashes: CrashWorld, temporary: Path) -> None:
    save_in(temporary, 0, 1)
    (temporary / "0.tzr").unlink()
    (temporary / "0.tzr").mkdir()
    crashes.server.queue = [FULL_WANTED]
    assert start(crashes) == [b"short report 0", b"short report 1"]
    assert names(temporary) == ["0.tzr"]


@pytest.mark.any_processor
def test_reports_in_a_folder_that_cannot_be_searched_stay(crashes: CrashWorld, temporary: Path) -> None:
    save_in(temporary, 0, 1)
    temporary.chmod(0)
    assert start(crashes) == []
    temporary.chmod(0o755)
    assert start(crashes) == [b"short report 0", b"short report 1"]
    assert names(temporary) == []


def test_a_torn_report_is_sent_as_it_is_and_deleted(crashes: CrashWorld, temporary: Path) -> None:
    """A crash that is killed while it saves leaves one, an empty one at the earliest."""
    with crashes.server.away():
        crash(crashes)
    whole = [(temporary / name).read_bytes() for name in ("0.tzo", "0.tzr")]
    torn = [content[:cut] for cut in (0, 1, 50, -1) for content in whole]
    for number, content in enumerate(torn):
        (temporary / f"{number // 2}.{('tzo', 'tzr')[number % 2]}").write_bytes(content)
    crashes.server.usual = FULL_WANTED
    assert start(crashes) == torn
    assert names(temporary) == []


# Links


@pytest.mark.any_processor
def test_a_link_in_the_place_of_the_short_report_is_left_alone(crashes: CrashWorld, temporary: Path) -> None:
    (temporary / "target").write_bytes(b"somebody's")
    (temporary / "0.tzo").symlink_to("target")
    with crashes.server.away():
        crash(crashes)
    assert (temporary / "target").read_bytes() == b"somebody's"
    assert names(temporary) == ["0.tzo", "1.tzo", "1.tzr", "target"]


@pytest.mark.any_processor
def test_a_link_in_the_place_of_the_full_report_is_followed(crashes: CrashWorld, temporary: Path) -> None:
    """That name is written anew, whatever has it."""
    (temporary / "target").write_bytes(b"somebody's")
    (temporary / "0.tzr").symlink_to("target")
    with crashes.server.away():
        crash(crashes)
    assert crashes.read((temporary / "target").read_bytes()).kind == "full"


@pytest.mark.any_processor
def test_a_saved_report_that_is_a_link_is_read_where_it_leads(crashes: CrashWorld, temporary: Path) -> None:
    """What is deleted then is the link on Windows; the system of this bed does not know the links of its disk and takes the target."""
    (temporary / "target").write_bytes(b"somebody's")
    (temporary / "0.tzo").symlink_to("target")
    assert start(crashes) == [b"somebody's"]


# The server's page


@pytest.mark.any_processor
@pytest.mark.parametrize(("kind", "kept"), [
    ("folder", None),
    ("read-only", b"an earlier page"),
    ("held", b"an earlier page"),
    ("writable", PAGE_FOR_AN_ANSWER.body),
], ids=["folder", "read-only", "held", "writable"])
def test_a_page_that_cannot_be_saved_does_not_hinder_the_report(crashes: CrashWorld, temporary: Path, kind: str,
                                                                kept: bytes | None) -> None:
    page = temporary / "Odgovor.html"
    crashes.server.usual = PAGE_FOR_AN_ANSWER
    if kind == "folder":
        page.mkdir()
    else:
        page.write_bytes(b"an earlier page")
    if kind == "read-only":
        page.chmod(0o444)
    if kind == "held":
        with crashes.machine.held_open(page, GENERIC_READ, SHARE_READ | SHARE_WRITE | SHARE_DELETE):
            crash(crashes)
    else:
        crash(crashes)
    assert page.is_dir() if kept is None else page.read_bytes() == kept
    assert names(temporary) == ["0.tzo", "0.tzr", "Odgovor.html"]
    crashes.server.usual = Answer()
    assert len(start(crashes)) == 1


# The page takes five pages of the disk, and each report takes one.
@pytest.mark.parametrize("pages", [pytest.param(0, marks=QUICK), pytest.param(1, marks=QUICK), pytest.param(4, marks=QUICK), pytest.param(5, marks=QUICK), 6,
                                   pytest.param(7, marks=QUICK)])
def test_a_disk_that_is_full_after_so_many_pages_of_the_servers_page(crashes: CrashWorld, temporary: Path, pages: int) -> None:
    """It is saved before the report, as far as there is room."""
    crashes.server.usual = PAGE_FOR_AN_ANSWER
    with crashes.network.disk_at(temporary, 16 * PAGE) as disk:
        disk.fill(but=pages * PAGE)
        crash(crashes)
        (temporary / "filler").unlink(missing_ok=True)
        assert (temporary / "Odgovor.html").read_bytes() == PAGE_FOR_AN_ANSWER.body[:pages * PAGE]
        short = (temporary / "0.tzo").read_bytes()
        assert (len(short) > 0, (temporary / "0.tzr").exists()) == (pages > 5, pages > 5)
        if pages == 7:
            assert crashes.read((temporary / "0.tzr").read_bytes()).kind == "full"
        disk.resize(16 * PAGE)
        crashes.server.usual = Answer()
        assert start(crashes) == [short]
        assert names(temporary) == ["Odgovor.html"]
