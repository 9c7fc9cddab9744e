"""The way of a report to the server, and what the server's answers do."""

from __future__ import annotations

import pytest

from bed import certificates, isolation
from bed.report_server import BODY, FULL_WANTED, HEAD, Answer, ReportServer
from crash_world import CRASHED, CrashWorld
from world import Bed

QUICK = pytest.mark.any_processor
NOTES = ("the first note", "druga opomba: č š ž")


def test_a_report_is_posted_in_chunks_of_unknown_length(crashes: CrashWorld) -> None:
    crashes.run("access_violation")
    (request,) = crashes.server.requests
    assert (request.method, request.path) == ("POST", "/KestraneSprejem/sprejem/")
    assert request.header("Host") == "reports.tavrin.example"
    assert request.header("User-Agent") == "Kestrane/13.0"
    assert request.header("Accept") == "*/*"
    assert request.header("Accept-Language") == "en"
    assert request.header("Content-Type") == "application/x-kestranez"
    assert request.header("Transfer-Encoding") == "chunked"
    assert request.header("Content-Length") is None


@pytest.mark.parametrize("notes", [pytest.param((), marks=QUICK), pytest.param(NOTES[:1], marks=QUICK), NOTES])
def test_a_server_that_asks_for_more_gets_the_full_report(crashes: CrashWorld, notes: tuple[str, ...]) -> None:
    crashes.server.queue = [FULL_WANTED]
    assert crashes.run("access_violation", notes=notes).exit_code == CRASHED
    assert crashes.server.kinds == ["short", "full"]
    assert [crashes.read(each.body).notes for each in crashes.server.requests] == [notes, notes]
    crashes.assert_nothing_left()


@pytest.mark.any_processor
def test_the_ten_newest_notes_are_sent(crashes: CrashWorld) -> None:
    crashes.run("access_violation", notes=[f"note {number}" for number in range(1, 13)])
    report = crashes.read(crashes.server.requests[0].body)
    assert report.notes == tuple(f"note {number}" for number in range(3, 13))


@pytest.mark.any_processor
def test_a_note_ends_at_its_limit_in_either_form(crashes: CrashWorld) -> None:
    options = ' --limit 4 --note abcdef --narrow-note čšžabc --limit 100 --note whole --narrow-note "ves š"'
    assert crashes.machine.run(crashes.command_line("access_violation") + options, limit=50).exit_code == CRASHED
    assert crashes.read(crashes.server.requests[0].body).notes == ("abcd", "čšža", "whole", "ves š")


@pytest.mark.any_processor
def test_a_full_report_is_not_asked_for_twice(crashes: CrashWorld) -> None:
    crashes.server.usual = FULL_WANTED
    assert crashes.run("access_violation").exit_code == CRASHED
    assert crashes.server.kinds == ["short", "full"]
    crashes.assert_nothing_left()


@pytest.mark.parametrize("status", [202, 404, 500])
@pytest.mark.any_processor
def test_any_other_answer_in_plain_text_ends_it(crashes: CrashWorld, status: int) -> None:
    crashes.server.usual = Answer(status=status)
    assert crashes.run("access_violation").exit_code == CRASHED
    assert crashes.server.kinds == ["short"]
    crashes.assert_nothing_left()


def test_a_page_is_kept_and_shown_and_the_report_saved(crashes: CrashWorld) -> None:
    page = "<html><body>Strežnik je v vzdrževanju.</body></html>".encode()
    crashes.server.usual = Answer(status=503, body=page, content_type="text/html; charset=utf-8")
    run = crashes.run("access_violation")
    assert run.exit_code == CRASHED
    assert (crashes.temp / "Odgovor.html").read_bytes() == page
    shown = [(each.verb, each.file, each.parameters, each.folder, each.show) for each in run.commands]
    assert shown == [("open", crashes.temp_path + "Odgovor.html", None, None, 1)]
    assert crashes.files() == ["0.tzo", "0.tzr", "Odgovor.html"]


@pytest.mark.parametrize("stage", [pytest.param(HEAD, marks=QUICK), BODY])
def test_a_cut_connection_saves_the_report(crashes: CrashWorld, stage: str) -> None:
    crashes.server.usual = Answer(cut_at=stage)
    assert crashes.run("access_violation").exit_code == CRASHED
    assert crashes.files() == ["0.tzo", "0.tzr"]
    assert crashes.read(crashes.pair(0)[0]).kind == "short"


@pytest.mark.any_processor
@pytest.mark.parametrize(("host", "trusted"), [(isolation.REPORT_HOST, False), ("other.tavrin.example", True)],
                         ids=["an authority that nobody trusts", "another name"])
def test_a_server_that_cannot_prove_its_name_gets_nothing(bed: Bed, crashes: CrashWorld, host: str, trusted: bool) -> None:
    work = bed.network.work
    authority = bed.authority if trusted else certificates.make_authority(work, "strange-authority")
    made = certificates.make_server_certificate(work, authority, host, name=f"reports-{trusted}")
    with crashes.server.away(), ReportServer(made) as impostor:
        assert crashes.run("access_violation").exit_code == CRASHED
        assert impostor.requests == []
    assert crashes.files() == ["0.tzo", "0.tzr"]


@pytest.mark.any_processor
def test_a_report_is_saved_when_the_full_one_cannot_be_sent(crashes: CrashWorld) -> None:
    crashes.server.queue = [FULL_WANTED, Answer(cut_at=HEAD)]
    assert crashes.run("access_violation", notes=["kept"]).exit_code == CRASHED
    assert [crashes.read(each).notes for each in crashes.pair(0)] == [("kept",), ("kept",)]
