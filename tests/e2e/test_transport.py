"""What the network does to a run: statuses, redirections, servers out of reach. `test_server_faults.py` has the faults.

The error numbers are the platform's. This one has no texts for them, so the message ends with the number alone.
"""

from __future__ import annotations

import pytest

from bed import version
from bed.http_server import Cut, Reply
from bed.windows import FinishedRun
from world import DESCRIPTION, PACKAGE, PACKAGE_CONTENT, World

OLDER = f"{version.OLDER.offer}\nolder\nhttp://updates.tavrin.example/\n".encode()
PHASES = [DESCRIPTION + ".minisig", DESCRIPTION, PACKAGE + ".minisig", PACKAGE]


def outer(path: str) -> str:
    """What a failure of this request is called."""
    return "Failed to load Minisign signature" if path.endswith(".minisig") else "Failed to load content"


def failed_at(world: World, path: str, message: str) -> FinishedRun:
    """The run fails at this request, the last one that is made."""
    run = world.run()
    world.assert_failed(run, message)
    assert world.targets == PHASES[:PHASES.index(path) + 1]
    return run


@pytest.mark.parametrize("path", PHASES)
@pytest.mark.parametrize("status", ["404 Not Found", "500 Internal Server Error"])
def test_a_status_other_than_200_ends_the_run(world: World, path: str, status: str) -> None:
    world.offer()
    world.answer(path, Reply(b"an explanation\n", status))
    failed_at(world, path, f"{outer(path)}: {status[:3]}")


@pytest.mark.parametrize("status", ["201 Created", "203 Non-Authoritative Information", "204 No Content",
                                    "206 Partial Content", "400 Bad Request", "403 Forbidden", "410 Gone",
                                    "449 Retry With", "503 Service Unavailable", "599 Unknown"])
def test_no_other_status_passes_for_200(world: World, status: str) -> None:
    world.offer()
    body = b"" if status.startswith("204") else OLDER
    world.answer(DESCRIPTION, Reply(body, status))
    failed_at(world, DESCRIPTION, f"Failed to load content: {status[:3]}")


def test_the_body_of_another_status_is_not_taken_for_the_content(world: World) -> None:
    world.offer()
    world.answer(PACKAGE, Reply(PACKAGE_CONTENT, "404 Not Found"))
    failed_at(world, PACKAGE, "Failed to load content: 404")


@pytest.mark.parametrize("status", ["301 Moved Permanently", "302 Found", "307 Temporary Redirect"])
def test_a_redirection_is_followed(world: World, status: str) -> None:
    world.publish(DESCRIPTION, OLDER)
    world.answer("/elsewhere", world.server.answers[DESCRIPTION])
    world.answer(DESCRIPTION, Reply(b"", status, ("Location: /elsewhere",)))
    world.assert_nothing_to_do(world.run())
    assert world.targets == [DESCRIPTION + ".minisig", DESCRIPTION, "/elsewhere"]


def test_redirected_content_needs_its_signature_all_the_same(world: World) -> None:
    world.publish(DESCRIPTION, OLDER)
    world.answer("/elsewhere", Reply(OLDER.replace(version.OLDER.offer.encode(), version.NEWER.offer.encode())))
    world.answer(DESCRIPTION, Reply(b"", "302 Found", ("Location: http://packages.tavrin.example/elsewhere",)))
    world.assert_failed(world.run(), "Invalid Minisign signature")


def test_after_a_cut_download_the_next_run_fetches_the_whole_package(world: World) -> None:
    world.offer()
    world.answer(PACKAGE, Cut(Reply(PACKAGE_CONTENT).encode()[:9000]))
    assert world.run().exit_code == 0x80000001
    world.offer()
    world.assert_installs(world.run())
    assert (world.store / "Halvoro.ARM64.msi").read_bytes() == PACKAGE_CONTENT


def test_an_update_server_that_nobody_runs(world: World) -> None:
    with world.server_stopped():
        world.assert_failed(world.run(), "Failed to load Minisign signature: WinHttpSendRequest failed: Error 12029")


def test_a_package_server_that_nobody_runs(world: World) -> None:
    world.offer(url="http://packages.tavrin.example:8099/", package=None)
    world.assert_failed(world.run(), "Failed to load Minisign signature: WinHttpSendRequest failed: Error 12029")


def test_a_package_server_whose_name_is_unknown(world: World) -> None:
    world.offer(url="http://unknown.tavrin.example/", package=None)
    world.assert_failed(world.run(), "Failed to load Minisign signature: WinHttpSendRequest failed: Error 12007")


def test_text_that_is_no_http_reply(world: World) -> None:
    world.answer(DESCRIPTION + ".minisig", Cut(b"220 this is another protocol\r\n\r\n"))
    run = world.run()
    message = run.events[0].strings[1]
    assert message.startswith("Failed to load Minisign signature: ")
    world.assert_failed(run, message)
