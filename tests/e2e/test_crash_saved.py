"""Reports that cannot be sent: the files they leave, and their sending at the next start."""

from __future__ import annotations

import os
import shutil
import socket

import pytest

from bed import isolation, version
from bed.report_server import BODY, FULL_WANTED, HALF, HEAD, Answer
from crash_world import CRASHED, CrashBed, CrashWorld
from world import DESCRIPTION, World

Pair = tuple[bytes, bytes]


@pytest.fixture(scope="session")
def made_pairs() -> dict[str, Pair]:
    """Saved reports that the tests below share; a crash for each of them would take seconds."""
    return {}


@pytest.fixture
def pairs(crashes: CrashWorld, made_pairs: dict[str, Pair]) -> tuple[Pair, Pair]:
    """The files of two crashes, which differ."""
    for note in ("the first crash", "the second crash"):
        if note not in made_pairs:
            with crashes.server.away():
                crashes.run("access_violation", notes=[note])
            made_pairs[note] = crashes.pair(0)
            for name in crashes.files():
                (crashes.temp / name).unlink()
    crashes.server.reset()
    first, second = made_pairs.values()
    assert first[0] != second[0]
    return first, second


def test_a_report_is_saved_when_the_server_is_away(crashes: CrashWorld) -> None:
    with crashes.server.away():
        assert crashes.run("access_violation", notes=["kept"]).exit_code == CRASHED
    assert crashes.files() == ["0.tzo", "0.tzr"]
    short, full = (crashes.read(each, "access_violation") for each in crashes.pair(0))
    assert (short.kind, full.kind) == ("short", "full")
    assert short.frames[0].function == full.frames[0].function == "innermost"
    assert short.notes == full.notes == ("kept",)


def test_a_saved_report_tells_as_much_as_one_that_is_sent(crashes: CrashWorld) -> None:
    crashes.run("abort")
    sent = crashes.read(crashes.server.requests[0].body)
    with crashes.server.away():
        crashes.run("abort")
    for saved in (crashes.read(each) for each in crashes.pair(0)):
        assert [(each.module, each.offset) for each in saved.frames] == [(each.module, each.offset) for each in sent.frames]


@pytest.mark.any_processor
def test_two_programs_that_crash_at_once_save_a_pair_each(crashes: CrashWorld) -> None:
    with crashes.server.away():
        programs = [crashes.begin("access_violation", notes=[name], name=name) for name in ("one", "other")]
        assert [each.wait().exit_code for each in programs] == [CRASHED, CRASHED]
    assert crashes.files() == ["0.tzo", "0.tzr", "1.tzo", "1.tzr"]
    notes = [[crashes.read(each).notes for each in crashes.pair(number)] for number in (0, 1)]
    assert sorted(notes) == [[("one",), ("one",)], [("other",), ("other",)]]


@pytest.mark.any_processor
@pytest.mark.parametrize("stage", [HEAD, BODY])
def test_a_crash_that_is_killed_while_it_reports_leaves_nothing_behind(crashes: CrashWorld, stage: str) -> None:
    """What is reported at once is saved only when that has failed: its report is lost, and nothing else."""
    crashes.server.queue = [Answer(hold_at=stage)]
    program = crashes.begin("access_violation")
    crashes.server.wait_for(stage)
    program.kill()
    assert program.wait().exit_code == 0xDEAD
    crashes.assert_nothing_left()
    crashes.server.reset()
    assert crashes.run("access_violation").exit_code == CRASHED
    assert crashes.server.kinds == ["short"]


def test_the_next_start_sends_the_short_report_and_deletes_both(crashes: CrashWorld, pairs: tuple[Pair, Pair]) -> None:
    crashes.save(0, pairs[0])
    assert crashes.run("none").exit_code == 0
    assert [each.body for each in crashes.server.requests] == [pairs[0][0]]
    crashes.assert_nothing_left()


def test_the_updater_sends_what_an_earlier_crash_left_and_does_its_work(
        world: World, crashes: CrashWorld, pairs: tuple[Pair, Pair]) -> None:
    crashes.save(0, pairs[0])
    world.describe(f"{version.OWN.offer}\nHalvoro\nhttp://updates.tavrin.example/\n")
    world.assert_nothing_to_do(world.run())
    assert world.targets == [DESCRIPTION + ".minisig", DESCRIPTION]
    assert [each.body for each in crashes.server.requests] == [pairs[0][0]]
    crashes.assert_nothing_left()


def test_the_updater_waits_for_earlier_reports_before_it_asks_about_the_network(
        world: World, crashes: CrashWorld, pairs: tuple[Pair, Pair]) -> None:
    """On a metered connection nothing else holds it up: without the wait it would end before the server has answered."""
    crashes.save(0, pairs[0])
    crashes.server.queue = [Answer(wait=1)]
    world.bed.list_manager.answer(Cost=0x2)
    world.assert_skipped(world.run(), 3)
    assert [each.body for each in crashes.server.requests] == [pairs[0][0]]
    crashes.assert_nothing_left()


def test_the_next_start_sends_both_where_the_server_asks_for_more(crashes: CrashWorld, pairs: tuple[Pair, Pair]) -> None:
    crashes.save(0, pairs[0])
    crashes.server.queue = [FULL_WANTED]
    assert crashes.run("none").exit_code == 0
    assert [each.body for each in crashes.server.requests] == list(pairs[0])
    crashes.assert_nothing_left()


def test_the_next_start_sends_every_saved_report(crashes: CrashWorld, pairs: tuple[Pair, Pair]) -> None:
    crashes.save(0, pairs[0])
    crashes.save(7, pairs[1])
    crashes.server.queue = [FULL_WANTED, Answer(), FULL_WANTED]
    assert crashes.run("none").exit_code == 0
    assert crashes.server.kinds == ["short", "full", "short", "full"]
    assert {each.body for each in crashes.server.requests} == {*pairs[0], *pairs[1]}
    crashes.assert_nothing_left()


@pytest.mark.any_processor
def test_a_report_is_saved_beside_those_that_are_still_there(crashes: CrashWorld, pairs: tuple[Pair, Pair]) -> None:
    crashes.save(0, pairs[0])
    (crashes.temp / "1.tzr").write_bytes(b"left behind by a sender that was killed: without its .tzo it is free")
    with crashes.server.away():
        assert crashes.run("access_violation").exit_code == CRASHED
    assert crashes.files() == ["0.tzo", "0.tzr", "1.tzo", "1.tzr"]
    assert crashes.pair(0) == pairs[0]
    assert [crashes.read(each).kind for each in crashes.pair(1)] == ["short", "full"]


def test_reports_stay_while_the_server_is_away(crashes: CrashWorld, pairs: tuple[Pair, Pair]) -> None:
    crashes.save(0, pairs[0])
    with crashes.server.away():
        assert crashes.run("none").exit_code == 0
    assert crashes.pair(0) == pairs[0]


def test_a_page_for_an_answer_leaves_the_saved_report(crashes: CrashWorld, pairs: tuple[Pair, Pair]) -> None:
    crashes.save(0, pairs[0])
    crashes.server.usual = Answer(status=503, body=b"<html></html>", content_type="text/html")
    assert crashes.run("none").exit_code == 0
    assert crashes.files() == ["0.tzo", "0.tzr", "Odgovor.html"]


# Which request the sender is killed in, how far the server has come with it, and which files that leaves. The server asks for
# the full report each time, so the second request is the full report of the first crash.
@pytest.mark.parametrize(("request_number", "stage", "left"), [
    (1, HEAD, ["0.tzo", "0.tzr", "1.tzo", "1.tzr"]),
    (1, HALF, ["0.tzo", "0.tzr", "1.tzo", "1.tzr"]),
    (1, BODY, ["0.tzo", "0.tzr", "1.tzo", "1.tzr"]),
    (2, HEAD, ["0.tzr", "1.tzo", "1.tzr"]),
    (2, BODY, ["0.tzr", "1.tzo", "1.tzr"]),
    (3, HALF, ["1.tzo", "1.tzr"]),
    (4, BODY, ["1.tzr"]),
])
def test_no_report_is_lost_when_the_sender_is_killed(crashes: CrashWorld, pairs: tuple[Pair, Pair], request_number: int,
                                                     stage: str, left: list[str]) -> None:
    for number, pair in enumerate(pairs):
        crashes.save(number, pair)
    answers = [FULL_WANTED, Answer()] * 2
    crashes.server.queue = [*answers[:request_number - 1], Answer(hold_at=stage)]
    sender = crashes.begin("none")
    crashes.server.wait_for(stage, number=request_number)
    sender.kill()
    assert sender.wait().exit_code == 0xDEAD
    assert crashes.files() == left

    crashes.server.release()
    crashes.server.queue = []
    crashes.server.usual = Answer()
    assert crashes.run("none").exit_code == 0
    assert set(crashes.server.bodies("short")) == {pairs[0][0], pairs[1][0]}
    # A full report whose short one has arrived is not looked for: the next crash of that number takes its place.
    assert crashes.files() == ["0.tzr"] * ("0.tzo" not in left and "0.tzr" in left) + ["1.tzr"] * (left == ["1.tzr"])


def test_a_sender_killed_before_the_server_has_answered_the_call_loses_nothing(
        crashes: CrashWorld, pairs: tuple[Pair, Pair]) -> None:
    crashes.save(0, pairs[0])
    with crashes.server.away(), socket.create_server((isolation.REPORT_ADDRESS, 443)) as silent:
        silent.settimeout(30)
        sender = crashes.begin("none")
        connection, _ = silent.accept()
        sender.kill()
        assert sender.wait().exit_code == 0xDEAD
        connection.close()
    assert crashes.files() == ["0.tzo", "0.tzr"]
    assert crashes.run("none").exit_code == 0
    assert crashes.server.bodies("short") == [pairs[0][0]]
    crashes.assert_nothing_left()


def test_two_programs_at_once_send_each_report_once(crashes: CrashWorld, pairs: tuple[Pair, Pair]) -> None:
    for number, pair in enumerate(pairs):
        crashes.save(number, pair)
    crashes.server.usual = Answer(wait=0.2)
    programs = [crashes.begin("none", name=name) for name in ("one", "other")]
    assert [each.wait().exit_code for each in programs] == [0, 0]
    assert sorted(each.body for each in crashes.server.requests) == sorted([pairs[0][0], pairs[1][0]])
    crashes.assert_nothing_left()


def test_a_program_that_waits_in_vain_for_another_leaves_its_reports_alone(
        crashes: CrashWorld, pairs: tuple[Pair, Pair]) -> None:
    crashes.save(0, pairs[0])
    crashes.server.queue = [Answer(hold_at=BODY)]
    first = crashes.begin("none", name="one")
    crashes.server.wait_for(BODY)
    second = crashes.run("none")
    # It waits a second for the other.
    assert second.exit_code == 0
    assert second.end - second.begin > 1
    assert len(crashes.server.requests) == 1
    crashes.server.release()
    assert first.wait().exit_code == 0
    crashes.assert_nothing_left()


def test_a_folder_that_cannot_be_written_changes_nothing_for_the_system(crashes: CrashWorld) -> None:
    crashes.use_temporary_folder(crashes.small_disk("read-only", 65536, read_only=True))
    with crashes.server.away():
        assert crashes.run("access_violation").exit_code == CRASHED
    crashes.assert_nothing_left()


@pytest.mark.any_processor
def test_a_full_disk_leaves_no_report_that_stays_for_ever(crashes: CrashWorld, pairs: tuple[Pair, Pair]) -> None:
    disk = crashes.small_disk("full", 16384)
    (disk / "filler").write_bytes(os.urandom(16384))
    crashes.use_temporary_folder(disk)
    with crashes.server.away():
        assert crashes.run("access_violation").exit_code == CRASHED
    (disk / "filler").unlink()
    # What the crash could still write is sent like any other report; the server sees that it is cut short.
    assert crashes.run("none").exit_code == 0
    assert [each.name for each in disk.iterdir()] == []


def test_reports_are_found_in_a_folder_of_any_name(crashes: CrashWorld, crash_bed: CrashBed, pairs: tuple[Pair, Pair]) -> None:
    folder = crash_bed.network.work / f"mapa s piko.tmp in šumniki {crashes.machine.architecture}"
    folder.mkdir()
    crashes.use_temporary_folder(folder)
    (folder / "0.tzo").write_bytes(pairs[0][0])
    (folder / "0.tzr").write_bytes(pairs[0][1])
    crashes.server.queue = [FULL_WANTED]
    assert crashes.run("none").exit_code == 0
    assert [each.body for each in crashes.server.requests] == list(pairs[0])
    assert list(folder.iterdir()) == []


@pytest.mark.any_processor
def test_what_only_has_the_name_of_a_report_stays_and_keeps_no_report_back(crashes: CrashWorld, pairs: tuple[Pair, Pair]) -> None:
    """Everybody may make files in the temporary folder of SYSTEM."""
    (crashes.temp / "0.tzo").mkdir()
    (crashes.temp / "0.tzo" / "inside").write_bytes(b"")
    with (crashes.temp / "1.tzo").open("wb") as large:
        large.truncate(8 * 2**20 + 1)
    crashes.save(2, pairs[0])
    crashes.save(3, pairs[1])
    (crashes.temp / "3.tzr").unlink()
    (crashes.temp / "3.tzr").mkdir()
    try:
        crashes.server.usual = FULL_WANTED
        assert crashes.run("none").exit_code == 0
        assert crashes.server.bodies("short") == [pairs[0][0], pairs[1][0]]
        assert crashes.server.bodies("full") == [pairs[0][1]]
        assert crashes.files() == ["0.tzo", "1.tzo", "3.tzr"]
    finally:
        shutil.rmtree(crashes.temp / "0.tzo")
        (crashes.temp / "3.tzr").rmdir()
