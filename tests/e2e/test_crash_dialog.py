"""What the user of a crashing program sees and answers, on a screen."""

from __future__ import annotations

import time
from collections.abc import Sequence
from dataclasses import dataclass
from pathlib import Path

import pytest

from bed import settings
from bed.report_server import FULL_WANTED, REPLIED, Answer
from bed.windows import Box
from crash_world import CRASHED, CrashWorld

QUICK = pytest.mark.any_processor
TITLE = "Unexpected Error"
INTRODUCTION = ("Unexpected error occurred while executing »crash_access_violation.exe« programme or one of its "
                "modules.\n")
QUESTION = ("The programme will send an error report to Tavrin server now. May it attach the following text to help "
            "development personnel resolve the issue a lot?\n")
ANSWERED = "The programme sent technical error report to Tavrin server, which replied with:\n\n"
TROUBLE = ("The programme sent technical error report to Tavrin server. However, the following issue occurred during the "
           "receiving:\n\n")
NOT_SENT = "The programme tried to send technical error report to Tavrin Server, but failed unfortunately. "
SAVED = "It saved the error report to a file successfully and shall send it at its next start."
NOT_SAVED = "It tried to save the error report to a file. However, this failed too: "
CLOSING = "\n\nWe sincerely apologize for the inconvenience. The programme will now close."


@dataclass(frozen=True)
class Seen:
    """What a user saw."""

    boxes: tuple[Box, ...]
    exit_code: int | None

    @property
    def texts(self) -> list[str]:
        """The texts of the boxes."""
        return [each.text for each in self.boxes]


def crash_before_a_user(world: CrashWorld, *, notes: Sequence[str] = (), keys: Sequence[str] = ("Return",),
                        pictures: Path | None = None) -> Seen:
    """Lets a program crash, and presses these keys in the boxes that come."""
    assert world.screen is not None
    program = world.begin("access_violation", notes=notes)
    seen: list[Box] = []
    last = None
    for key in keys:
        last = world.screen.wait_for(TITLE, 60, other_than=last)
        if pictures:
            world.screen.picture(pictures / f"box-{len(seen) + 1}.png", last)
        seen += world.machine.boxes()
        world.screen.press(last, key)
    return Seen(tuple(seen), program.wait().exit_code)


@QUICK
def test_a_box_can_be_read_at_leisure(watched: CrashWorld) -> None:
    """Longer than a report may go without a sign, which for this program is ten seconds."""
    assert watched.screen is not None
    program = watched.begin("hurried", notes=["a note"])
    last = None
    for key in ("y", "Return"):
        last = watched.screen.wait_for(TITLE, 60, other_than=last)
        time.sleep(12)
        watched.screen.press(last, key)
    assert program.wait().exit_code == CRASHED
    assert [watched.read(each.body).notes for each in watched.server.requests] == [("a note",)]
    watched.assert_nothing_left()


def test_a_crash_is_reported_with_the_servers_answer(watched: CrashWorld, tmp_path: Path) -> None:
    seen = crash_before_a_user(watched, pictures=tmp_path)
    assert seen.texts == [INTRODUCTION + ANSWERED + "Hvala za poročilo." + CLOSING]
    assert [(box.title, box.buttons) for box in seen.boxes] == [(TITLE, ("OK",))]
    assert seen.exit_code == CRASHED
    assert (tmp_path / "box-1.png").stat().st_size > 500
    watched.assert_nothing_left()


@pytest.mark.parametrize(("key", "attached"), [("y", ("one note", "druga opomba")), ("n", ())])
def test_the_user_decides_about_the_notes(watched: CrashWorld, key: str, attached: tuple[str, ...]) -> None:
    seen = crash_before_a_user(watched, notes=["one note", "druga opomba"], keys=[key, "Return"])
    assert seen.texts == [INTRODUCTION + QUESTION + "\none note\ndruga opomba",
                          ANSWERED + "Hvala za poročilo." + CLOSING]
    assert [(box.title, box.buttons) for box in seen.boxes] == [(TITLE, ("Yes", "No")), (TITLE, ("OK",))]
    assert seen.exit_code == CRASHED
    assert watched.read(watched.server.requests[0].body).notes == attached


@pytest.mark.any_processor
def test_the_decision_holds_for_the_full_report_too(watched: CrashWorld) -> None:
    watched.server.queue = [FULL_WANTED]
    seen = crash_before_a_user(watched, notes=["not for you"], keys=["n", "Return"])
    assert watched.server.kinds == ["short", "full"]
    assert [watched.read(each.body).notes for each in watched.server.requests] == [(), ()]
    assert seen.texts[1] == ANSWERED + "Hvala za poročilo." + CLOSING


@pytest.mark.any_processor
def test_the_decision_holds_for_saved_reports_too(watched: CrashWorld) -> None:
    with watched.server.away():
        crash_before_a_user(watched, notes=["not for you"], keys=["n", "Return"])
    assert [watched.read(each).notes for each in watched.pair(0)] == [(), ()]


@pytest.mark.any_processor
def test_a_long_note_is_shown_in_part_and_sent_whole(watched: CrashWorld) -> None:
    notes = ["x" * 100, "y" * 101]
    seen = crash_before_a_user(watched, notes=notes, keys=["y", "Return"])
    assert seen.texts[0].split("\n")[-2:] == ["x" * 100, "y" * 100 + "..."]
    assert watched.read(watched.server.requests[0].body).notes == tuple(notes)


# The bytes, how they are announced, and what the user reads.
@pytest.mark.parametrize(("body", "content_type", "text"), [
    pytest.param(b"\xe8\x9a\x9e", "text/plain", "čšž", marks=QUICK),
    pytest.param(b"\xe8\x9a\x9e", "Text/Plain; Charset=Windows-1250", "čšž", marks=QUICK),
    pytest.param("čšž".encode("utf-7"), "text/plain; charset=utf-7", "čšž", marks=QUICK),
    ("čšž\0hidden".encode("utf-16-le"), "Text/Plain; Charset=UTF-16", "čšž"),
    pytest.param("čšž".encode("utf-32-le"), "text/plain; charset=utf-32", "", marks=QUICK),
    pytest.param("čšž".encode(), "text/plain; charset=utf-8", "čšž", marks=QUICK),
    pytest.param("čšž".encode(), "text/plain; charset=made-up", "čšž", marks=QUICK),
])
def test_an_answer_is_read_by_its_charset(watched: CrashWorld, body: bytes, content_type: str, text: str) -> None:
    watched.server.usual = Answer(body=body, content_type=content_type)
    assert crash_before_a_user(watched).texts == [INTRODUCTION + ANSWERED + text + CLOSING]


@pytest.mark.any_processor
def test_an_answer_with_an_error_is_reported_as_trouble(watched: CrashWorld) -> None:
    watched.server.usual = Answer(status=500, body=b"out of order")
    assert crash_before_a_user(watched).texts == [INTRODUCTION + TROUBLE + "out of order" + CLOSING]


def test_an_unreachable_server_is_reported_with_what_becomes_of_the_report(watched: CrashWorld) -> None:
    with watched.server.away():
        seen = crash_before_a_user(watched)
    assert seen.texts == [INTRODUCTION + NOT_SENT + SAVED + CLOSING]
    assert watched.files() == ["0.tzo", "0.tzr"]


@pytest.mark.any_processor
def test_a_report_that_is_lost_is_reported_with_the_reason(watched: CrashWorld) -> None:
    watched.use_temporary_folder(watched.small_disk("read-only", 65536, read_only=True))
    with watched.server.away():
        (text,) = crash_before_a_user(watched).texts
    assert text.startswith(INTRODUCTION + NOT_SENT + NOT_SAVED + "Napaka pri ustvarjanju datoteke TZO")
    assert text.endswith(CLOSING)


@pytest.mark.any_processor
def test_a_page_for_an_answer_is_reported_as_not_sent(watched: CrashWorld) -> None:
    watched.server.usual = Answer(body=b"<html></html>", content_type="text/html")
    assert crash_before_a_user(watched).texts == [INTRODUCTION + NOT_SENT + SAVED + CLOSING]
    assert watched.files() == ["0.tzo", "0.tzr", "Odgovor.html"]


@pytest.mark.any_processor
def test_an_answer_that_breaks_off_is_shown_as_far_as_it_came(watched: CrashWorld) -> None:
    """The report has arrived. Wine does not report that a body ends before its announced length."""
    watched.server.usual = Answer(body=b"Thanks so f", content_type="text/plain; charset=utf-8", cut_at=REPLIED)
    assert crash_before_a_user(watched).texts == [INTRODUCTION + ANSWERED + "Thanks so f" + CLOSING]


def test_with_a_screen_reader_a_crash_is_silent_and_its_notes_are_sent(watched: CrashWorld) -> None:
    settings.set_screen_reader(watched.machine, True)
    assert watched.run("access_violation", notes=["one note"]).exit_code == CRASHED
    assert watched.read(watched.server.requests[0].body).notes == ("one note",)


@pytest.mark.any_processor
def test_saved_reports_are_sent_without_a_word(watched: CrashWorld) -> None:
    with watched.server.away():
        crash_before_a_user(watched)
    assert watched.run("none").exit_code == 0
    assert watched.server.kinds == ["short"]
    watched.assert_nothing_left()
