"""Which description is asked for: the release channel, the Windows version, and how the question looks."""

from __future__ import annotations

import pytest

from bed import settings, version
from bed.windows import REG_BINARY, REG_DWORD, REG_EXPAND_SZ, REG_MULTI_SZ, REG_SZ
from world import DESCRIPTION, World

OLDER = f"{version.OLDER.offer}\nolder\nhttp://updates.tavrin.example/\n"


def assert_asks_for(world: World, path: str) -> None:
    """The check is done, with this description."""
    world.describe(OLDER, path=path)
    world.assert_nothing_to_do(world.run())
    assert world.targets == [path + ".minisig", path]


def test_without_a_registry_key_the_channel_is_stable(world: World) -> None:
    assert_asks_for(world, "/Halvoro/Lumaris/win10-stable.txt")


def test_without_a_registry_value_the_channel_is_stable(world: World) -> None:
    world.machine.set_value(settings.UPDATER_KEY, "Other", "beta")
    assert_asks_for(world, "/Halvoro/Lumaris/win10-stable.txt")


def test_the_channel_is_taken_from_the_registry(world: World) -> None:
    world.set_channel("beta")
    assert_asks_for(world, "/Halvoro/Lumaris/win10-beta.txt")


def test_an_expandable_channel_is_expanded(world: World) -> None:
    world.set_channel("%OS%-beta", REG_EXPAND_SZ)
    assert_asks_for(world, "/Halvoro/Lumaris/win10-Windows_NT-beta.txt")


def test_a_channel_stored_without_its_end_is_read(world: World) -> None:
    world.set_channel("beta".encode("utf-16-le"), REG_SZ)
    assert_asks_for(world, "/Halvoro/Lumaris/win10-beta.txt")


def test_the_first_of_several_channels_counts(world: World) -> None:
    world.set_channel("beta\0\0".encode("utf-16-le"), REG_MULTI_SZ)
    assert_asks_for(world, "/Halvoro/Lumaris/win10-beta.txt")


@pytest.mark.parametrize("kind", [REG_BINARY, REG_DWORD])
def test_a_channel_that_is_no_text_is_ignored(world: World, kind: int) -> None:
    world.set_channel("be".encode("utf-16-le"), kind)
    assert_asks_for(world, "/Halvoro/Lumaris/win10-stable.txt")


@pytest.mark.parametrize("channel", ["../beta", "/", "..\\beta", "\\", "beta?x=1", "?"])
def test_a_channel_that_could_change_the_path_is_ignored(world: World, channel: str) -> None:
    world.set_channel(channel)
    assert_asks_for(world, "/Halvoro/Lumaris/win10-stable.txt")


@pytest.mark.parametrize(("channel", "targets", "message"), [
    ("caf\u00e9", ["/Halvoro/Lumaris/win10-caf%EF%BF%BD.txt.minisig"], "Failed to load Minisign signature: 404"),
    ("caf\u0161", [], "encoding error"),
])
def test_a_channel_beyond_ascii_finds_nothing(world: World, channel: str, targets: list[str], message: str) -> None:
    world.set_channel(channel)
    world.assert_failed(world.run(), message)
    assert world.targets == targets


def test_a_long_channel_is_read_whole(world: World) -> None:
    world.set_channel("b" * 700)
    assert_asks_for(world, "/Halvoro/Lumaris/win10-" + "b" * 700 + ".txt")


@pytest.mark.parametrize("kind", [REG_SZ, REG_EXPAND_SZ])
def test_an_empty_channel_switches_updates_off(world: World, kind: int) -> None:
    world.offer()
    world.set_channel("", kind)
    world.assert_nothing_to_do(world.run())
    assert world.targets == []


@pytest.mark.parametrize(("version", "path"), [
    ((11, 0, 1), "/Halvoro/Lumaris/win11-stable.txt"),
    ((10, 0, 26100), "/Halvoro/Lumaris/win11-stable.txt"),
    ((10, 0, 22000), "/Halvoro/Lumaris/win11-stable.txt"),
    ((10, 0, 21999), "/Halvoro/Lumaris/win10-stable.txt"),
    ((6, 3, 9600), "/Halvoro/Lumaris/win8_1-stable.txt"),
    ((6, 2, 9200), "/Halvoro/Lumaris/win8-stable.txt"),
    ((6, 1, 7601), "/Halvoro/Lumaris/win7sp1-stable.txt"),
    ((6, 1, 7600), "/Halvoro/Lumaris/win7-stable.txt"),
    ((6, 0, 6002), "/Halvoro/Lumaris-stable.txt"),
])
def test_the_path_names_the_windows_version(world: World, version: tuple[int, int, int], path: str) -> None:
    settings.set_version(world.machine, *version)
    assert_asks_for(world, path)


def test_the_description_is_asked_for_afresh_and_as_text(world: World) -> None:
    world.describe(OLDER)
    world.assert_nothing_to_do(world.run())
    for request in world.requests:
        assert request.method == "GET"
        assert request.header("Host") == "updates.tavrin.example"
        assert request.header("User-Agent") == f"Lumaris/{version.OWN}"
        assert request.header("Accept") == "text/plain"
        assert request.header("Cache-Control") == "no-cache"
        assert request.header("Pragma") == "no-cache"
        assert request.header("Proxy-Authorization") is None
    names = [name for name, _ in world.requests[0].headers]
    assert names.index("Cache-Control") < names.index("Pragma")
    assert world.targets == [DESCRIPTION + ".minisig", DESCRIPTION]
