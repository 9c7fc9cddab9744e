"""Which signatures are taken, and in which order they are refused. They come from `minisign`, some with a change."""

from __future__ import annotations

import base64

import pytest

from bed import version
from bed.http_server import CLOSE, Raw, Reply
from world import DESCRIPTION, FOLDER_URL, PACKAGE, PACKAGE_CONTENT, World

OLDER = f"{version.OLDER.offer}\nolder\nhttp://updates.tavrin.example/\n".encode()
TOO_SHORT = "Failed to load Minisign signature: Minisign signature is too short"


def refused(world: World, signature: bytes, message: str, *, content: bool = False) -> None:
    """With this signature the description is refused; the content itself is asked for only if need be."""
    world.publish(DESCRIPTION, OLDER, signature=signature)
    world.assert_failed(world.run(), message)
    assert world.targets == [DESCRIPTION + ".minisig"] + ([DESCRIPTION] if content else [])


def taken(world: World, signature: bytes) -> None:
    """With this signature the description is taken."""
    world.publish(DESCRIPTION, OLDER, signature=signature)
    world.assert_nothing_to_do(world.run())


def changed(signature: bytes, position: int, value: int) -> bytes:
    """The signature with one byte of its decoded first line changed."""
    comment, line, *rest = signature.split(b"\n")
    decoded = bytearray(base64.b64decode(line))
    decoded[position] = value
    return b"\n".join([comment, base64.b64encode(bytes(decoded)), *rest])


def test_another_key_is_refused(world: World) -> None:
    refused(world, world.sign(OLDER, key=world.bed.other_key), "Untrusted Minisign key")


def test_another_key_is_refused_before_its_legacy_algorithm(world: World) -> None:
    refused(world, world.sign(OLDER, key=world.bed.other_key, legacy=True), "Untrusted Minisign key")


def test_a_legacy_signature_of_the_trusted_key_is_refused(world: World) -> None:
    refused(world, world.sign(OLDER, legacy=True), "Unsupported Minisign signature")


def test_changed_content_is_refused(world: World) -> None:
    refused(world, world.sign(OLDER.replace(version.OLDER.offer.encode(), version.NEWER.offer.encode())), "Invalid Minisign signature", content=True)


@pytest.mark.parametrize("position", [10, 41, 42, 73])
def test_a_changed_signature_is_refused(world: World, position: int) -> None:
    signature = world.sign(OLDER)
    byte = base64.b64decode(signature.split(b"\n")[1])[position]
    refused(world, changed(signature, position, byte ^ 1), "Invalid Minisign signature", content=True)


@pytest.mark.parametrize("position", [2, 9])
def test_every_byte_of_the_key_id_counts(world: World, position: int) -> None:
    signature = world.sign(OLDER)
    byte = base64.b64decode(signature.split(b"\n")[1])[position]
    refused(world, changed(signature, position, byte ^ 0x80), "Untrusted Minisign key")


def test_another_format_is_refused(world: World) -> None:
    refused(world, changed(world.sign(OLDER), 0, ord("X")),
            "Failed to load Minisign signature: not a Minisign signature")


def test_another_algorithm_is_refused(world: World) -> None:
    refused(world, changed(world.sign(OLDER), 1, ord("X")), "Unsupported Minisign signature")


@pytest.mark.parametrize("signature", [
    b"",
    b"untrusted comment: nothing else\n",
    b"untrusted comment: one\nuntrusted comment: two\n\n\r\n",
    b"   \n",
    b"RUQ=\n",
    b"Untrusted comment: with a capital\n",
], ids=["empty", "comment", "comments", "blanks", "short", "capital"])
def test_a_file_without_a_whole_signature_is_refused(world: World, signature: bytes) -> None:
    refused(world, signature, TOO_SHORT)


def test_a_signature_line_without_its_line_end_is_not_seen(world: World) -> None:
    comment, line, *_ = world.sign(OLDER).split(b"\n")
    refused(world, comment + b"\n" + line, TOO_SHORT)


def test_a_line_of_blanks_before_the_signature_is_the_signature_line(world: World) -> None:
    comment, line, *_ = world.sign(OLDER).split(b"\n")
    refused(world, comment + b"\n \n" + line + b"\n", TOO_SHORT)


def test_the_trusted_comment_may_say_anything(world: World) -> None:
    comment, line, *_ = world.sign(OLDER).split(b"\n")
    taken(world, comment + b"\n" + line + b"\ntrusted comment: changed\nAAAA\n")


def test_the_lines_after_the_signature_may_be_missing(world: World) -> None:
    taken(world, world.sign(OLDER).split(b"\n")[1] + b"\n")


def test_windows_line_ends_are_taken(world: World) -> None:
    taken(world, world.sign(OLDER).replace(b"\n", b"\r\n"))


def test_empty_lines_and_more_comments_are_skipped(world: World) -> None:
    taken(world, b"\n\r\nuntrusted comment:\n\n" + world.sign(OLDER))


def test_blanks_within_the_signature_are_skipped(world: World) -> None:
    comment, line, *_ = world.sign(OLDER).split(b"\n")
    taken(world, comment + b"\n " + b" \t\r-_".join([line[:7], line[7:50], line[50:]]) + b" \n")


def test_the_signature_of_other_content_by_the_same_key_is_refused(world: World) -> None:
    refused(world, world.sign(b"other content\n"), "Invalid Minisign signature", content=True)


def test_the_packages_signature_is_none_of_the_description(world: World) -> None:
    world.offer()
    world.answer(DESCRIPTION + ".minisig", Reply(world.sign(PACKAGE_CONTENT)))
    world.assert_failed(world.run(), "Invalid Minisign signature")
    assert world.targets == [DESCRIPTION + ".minisig", DESCRIPTION]


def test_the_descriptions_signature_is_none_of_the_package(world: World) -> None:
    world.offer()
    signature = world.server.answers[DESCRIPTION + ".minisig"]
    world.answer(PACKAGE + ".minisig", signature)
    world.assert_failed(world.run(), "Invalid Minisign signature")
    assert world.targets == [DESCRIPTION + ".minisig", DESCRIPTION, PACKAGE + ".minisig", PACKAGE]


def test_a_signed_description_in_the_packages_place_is_left_for_the_installer_to_refuse(world: World) -> None:
    world.offer()
    for ending in ("", ".minisig"):
        world.answer(PACKAGE + ending, world.server.answers[DESCRIPTION + ending])
    # What is signed does not say what it is for.
    world.assert_installs(world.run())


# A signature says who made a file, not that it is the newest: what can be done with an old one is as follows, and no more.


def test_an_old_description_played_again_changes_nothing(world: World) -> None:
    world.offer(version=version.NEWEST.offer)
    world.publish(DESCRIPTION, OLDER)
    world.assert_nothing_to_do(world.run())


def test_an_old_description_that_is_still_newer_than_the_program_installs_the_old_package(world: World) -> None:
    world.describe(f"{version.NEWEST.offer}\nHalvoro\n{FOLDER_URL.replace('3.4.1', '3.4.2')}\n")
    world.publish(PACKAGE.replace("3.4.1", "3.4.2"), b"the newest package\n")
    world.offer(version=version.NEWER.offer)
    world.assert_installs(world.run())
    assert (world.store / "Halvoro.ARM64.msi").read_bytes() == PACKAGE_CONTENT


# Before the signature has been checked nobody vouches for a length.


@pytest.mark.parametrize("length", [65536, 65537])
@pytest.mark.parametrize("chunked", [False, True], ids=["announced", "chunked"])
def test_a_signature_file_is_taken_up_to_65536_bytes(world: World, length: int, chunked: bool) -> None:
    signature = world.sign(OLDER)
    world.publish(DESCRIPTION, OLDER)
    comment = b"untrusted comment: ".ljust(length - len(signature) - 1, b"x") + b"\n"
    world.answer(DESCRIPTION + ".minisig", Reply(comment + signature, chunked=chunked))
    if length <= 65536:
        world.assert_nothing_to_do(world.run())
    else:
        world.assert_failed(world.run(), "Failed to load Minisign signature: larger than 65536 bytes")
        assert world.targets == [DESCRIPTION + ".minisig"]


@pytest.mark.parametrize("length", [65536, 65537])
def test_a_description_is_taken_up_to_65536_bytes(world: World, length: int) -> None:
    world.describe(OLDER.ljust(length, b"x"))
    if length <= 65536:
        world.assert_nothing_to_do(world.run())
    else:
        world.assert_failed(world.run(), "Failed to load content: larger than 65536 bytes")
        assert world.targets == [DESCRIPTION + ".minisig", DESCRIPTION]


@pytest.mark.any_processor
@pytest.mark.parametrize("status", ["404 Not Found", "407 Proxy Authentication Required", "503 Service Unavailable"])
@pytest.mark.parametrize("request_name", [DESCRIPTION + ".minisig", DESCRIPTION])
def test_the_status_of_an_error_page_is_reported_however_long_it_is(world: World, request_name: str, status: str) -> None:
    """The limit is for what would be taken for a signature or a description."""
    world.describe(OLDER)
    page = b"<p>an error page</p>" * 5000
    head = f"HTTP/1.1 {status}\r\nContent-Type: text/html\r\n".encode()
    outer = "Failed to load Minisign signature" if request_name.endswith(".minisig") else "Failed to load content"
    for answer in (Reply(page, status), Raw((head + b"\r\n",), repeated=page, most=4_000_000, then=CLOSE)):
        world.answer(request_name, answer)
        world.assert_failed(world.run(), f"{outer}: {status[:3]}")


# The package goes through the same checks.


def test_a_package_by_another_key_is_refused_unread(world: World) -> None:
    world.offer()
    world.publish(PACKAGE, PACKAGE_CONTENT, signature=world.sign(PACKAGE_CONTENT, key=world.bed.other_key))
    world.assert_failed(world.run(), "Untrusted Minisign key")
    assert world.targets == [DESCRIPTION + ".minisig", DESCRIPTION, PACKAGE + ".minisig"]


def test_a_package_with_a_legacy_signature_is_refused_unread(world: World) -> None:
    world.offer()
    world.publish(PACKAGE, PACKAGE_CONTENT, signature=world.sign(PACKAGE_CONTENT, legacy=True))
    world.assert_failed(world.run(), "Unsupported Minisign signature")
    assert world.targets == [DESCRIPTION + ".minisig", DESCRIPTION, PACKAGE + ".minisig"]


def test_a_changed_package_is_refused_and_the_next_run_replaces_it(world: World) -> None:
    world.offer()
    world.publish(PACKAGE, b"x" + PACKAGE_CONTENT[1:], signature=world.sign(PACKAGE_CONTENT))
    world.assert_failed(world.run(), "Invalid Minisign signature")
    assert world.targets == [DESCRIPTION + ".minisig", DESCRIPTION, PACKAGE + ".minisig", PACKAGE]
    world.offer()
    world.assert_installs(world.run())
    assert (world.store / "Halvoro.ARM64.msi").read_bytes() == PACKAGE_CONTENT
