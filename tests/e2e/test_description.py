"""The description's three lines, and when the version in it is an update."""

from __future__ import annotations

import pytest

from world import DESCRIPTION, FOLDER_URL, PACKAGE, World


@pytest.mark.parametrize("version", [
    "3030000",  # older
    "303ffff",
    "3040000",  # the same
    "0x3040000",
    "03040000",
    "0",
    "",
    "no hexadecimal digits",
    "zzz3050000",
    "-ffffffffff",  # an overflow with a minus sign gives 0
    "-ffffffff",  # the complement of all ones is 0
    "-fcfbffff",  # the complement of this is the same version
    "\ufeff3040000",
    "3040000\r",
    " \t\v\f3040000 \t",
])
def test_this_version_is_no_update(world: World, version: str) -> None:
    world.describe(f"{version}\nlabel\n{FOLDER_URL}\n")
    world.assert_nothing_to_do(world.run())
    assert world.targets == [DESCRIPTION + ".minisig", DESCRIPTION]


@pytest.mark.parametrize("version", [
    "3040001",
    "3040100",
    "4000000",
    "0x3050000",
    "0X3050000",
    "+3050000",
    "3050000 and more text",
    "ffffffff",  # all ones
    "ffffffffff",  # an overflow
    "-0",  # the complement of 0
    "-1",
    "-fcfbfffe",  # the complement of this is one more than the own version
    "\ufeff3040100",
    "3040100\r",
    " \t\v\f3040100 \t",
    "beef",
])
def test_this_version_is_an_update_unless_it_is_small(world: World, version: str) -> None:
    world.offer(version=version)
    run = world.run()
    if version == "beef":
        world.assert_nothing_to_do(run)  # hexadecimal digits, but only 0xBEEF
        return
    world.assert_installs(run)
    assert world.targets == [DESCRIPTION + ".minisig", DESCRIPTION, PACKAGE + ".minisig", PACKAGE]


def test_a_byte_order_mark_with_windows_line_ends_reads_like_the_plain_form(world: World) -> None:
    world.offer()
    world.describe(b"\xef\xbb\xbf3040100\r\nHalvoro 3.4.1\r\nhttp://updates.tavrin.example/Halvoro/3.4.1/\r\n")
    world.assert_installs(world.run())


def test_lines_are_trimmed(world: World) -> None:
    world.offer()
    world.describe(b" \t3040100 \r\n label \n\t http://updates.tavrin.example/Halvoro/3.4.1/ \v\f\r\n")
    world.assert_installs(world.run())


def test_further_lines_are_ignored(world: World) -> None:
    world.offer()
    world.describe(b"3040100\nlabel\nhttp://updates.tavrin.example/Halvoro/3.4.1/\nftp://else.where/\nunfinished")
    world.assert_installs(world.run())


@pytest.mark.parametrize("text", [b"", b"\n", b"3040100", b"3040100\r"])
def test_a_version_without_its_line_end_does_not_count(world: World, text: bytes) -> None:
    world.describe(text)
    world.assert_nothing_to_do(world.run())


@pytest.mark.parametrize("text", [
    b"3040100\n",
    b"3040100\nlabel\n",
    b"3040100\nlabel\n\n",
    b"3040100\nlabel\n \t\r\n",
    b"3040100\nlabel\nhttp://updates.tavrin.example/Halvoro/3.4.1/",  # no line end
    b"3040100\rlabel\rhttp://updates.tavrin.example/Halvoro/3.4.1/\r\n",  # a lone carriage return ends no line
])
def test_an_update_without_an_address_cannot_be_fetched(world: World, text: bytes) -> None:
    world.describe(text)
    world.assert_failed(world.run(), "update URL unavailable")
    assert world.targets == [DESCRIPTION + ".minisig", DESCRIPTION]
