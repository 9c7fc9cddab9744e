"""The description's three lines, and when the version in it is an update."""

from __future__ import annotations

import pytest

from bed import version as versions
from world import DESCRIPTION, FOLDER_URL, PACKAGE, World

OWN, NEWER, OLDER = versions.OWN.offer, versions.NEWER.offer, versions.OLDER.offer
OWN_NUMBER = versions.OWN.number


@pytest.mark.parametrize("version", [
    OLDER,
    f"{OWN_NUMBER - 1:x}",
    OWN,
    f"0x{OWN}",
    f"0{OWN}",
    "0",
    "",
    "no hexadecimal digits",
    f"zzz{NEWER}",
    "-ffffffffff",  # an overflow with a minus sign gives 0
    "-ffffffff",  # the complement of all ones is 0
    f"-{0xFFFFFFFF ^ OWN_NUMBER:x}",  # the complement of this is the same version
    f"\ufeff{OWN}",
    f"{OWN}\r",
    f" \t\v\f{OWN} \t",
])
def test_this_version_is_no_update(world: World, version: str) -> None:
    world.describe(f"{version}\nlabel\n{FOLDER_URL}\n")
    world.assert_nothing_to_do(world.run())
    assert world.targets == [DESCRIPTION + ".minisig", DESCRIPTION]


@pytest.mark.parametrize("version", [
    f"{OWN_NUMBER + 1:x}",
    NEWER,
    f"{OWN_NUMBER + 0x1000000:x}",
    f"0x{NEWER}",
    f"0X{NEWER}",
    f"+{NEWER}",
    f"{NEWER} and more text",
    "ffffffff",  # all ones
    "ffffffffff",  # an overflow
    "-0",  # the complement of 0
    "-1",
    f"-{0xFFFFFFFF ^ (OWN_NUMBER + 1):x}",  # the complement of this is one more than the own version
    f"\ufeff{NEWER}",
    f"{NEWER}\r",
    f" \t\v\f{NEWER} \t",
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
    world.describe(f"\ufeff{NEWER}\r\nHalvoro\r\n{FOLDER_URL}\r\n")
    world.assert_installs(world.run())


def test_lines_are_trimmed(world: World) -> None:
    world.offer()
    world.describe(f" \t{NEWER} \r\n label \n\t {FOLDER_URL} \v\f\r\n")
    world.assert_installs(world.run())


def test_further_lines_are_ignored(world: World) -> None:
    world.offer()
    world.describe(f"{NEWER}\nlabel\n{FOLDER_URL}\nftp://else.where/\nunfinished")
    world.assert_installs(world.run())


@pytest.mark.parametrize("text", ["", "\n", NEWER, f"{NEWER}\r"])
def test_a_version_without_its_line_end_does_not_count(world: World, text: str) -> None:
    world.describe(text)
    world.assert_nothing_to_do(world.run())


@pytest.mark.parametrize("text", [
    f"{NEWER}\n",
    f"{NEWER}\nlabel\n",
    f"{NEWER}\nlabel\n\n",
    f"{NEWER}\nlabel\n \t\r\n",
    f"{NEWER}\nlabel\n{FOLDER_URL}",  # no line end
    f"{NEWER}\rlabel\r{FOLDER_URL}\r\n",  # a lone carriage return ends no line
])
def test_an_update_without_an_address_cannot_be_fetched(world: World, text: str) -> None:
    world.describe(text)
    world.assert_failed(world.run(), "update URL unavailable")
    assert world.targets == [DESCRIPTION + ".minisig", DESCRIPTION]
