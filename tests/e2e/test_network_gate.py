"""Whether the network may be used at all: exit codes and events 2 to 5, and everything that lets the check go on."""

from __future__ import annotations

import pytest

from bed import traces, version
from world import DESCRIPTION, World

E_FAIL = 0x80004005
E_NOINTERFACE = 0x80004002


def test_without_a_default_route_the_check_is_put_off(world: World) -> None:
    world.describe(f"{version.OLDER.offer}\nolder\nhttp://updates.tavrin.example/\n")
    world.bed.network.disconnect()
    world.assert_skipped(world.run(), 2)


def test_with_a_default_route_the_check_is_done(world: World) -> None:
    world.describe(f"{version.OLDER.offer}\nolder\nhttp://updates.tavrin.example/\n")
    world.assert_nothing_to_do(world.run())
    assert world.targets == [DESCRIPTION + ".minisig", DESCRIPTION]


@pytest.mark.parametrize(("cost", "code"), [
    (0x00000002, 3),  # fixed
    (0x00000004, 3),  # variable
    (0x00030002, 3),  # fixed, over its limit and congested: metered wins
    (0x000A0004, 3),  # variable, near its limit and congested
    (0x00010001, 4),  # unrestricted, over its limit
    (0x00080001, 4),  # unrestricted, near its limit
    (0x00030001, 4),  # unrestricted, over its limit and congested: the limit wins
    (0x00010000, 4),  # unknown, over its limit
    (0x00020001, 5),  # unrestricted, congested
    (0x00060000, 5),  # unknown, congested and roaming
])
def test_a_costly_connection_puts_the_check_off(world: World, cost: int, code: int) -> None:
    world.describe(f"{version.OLDER.offer}\nolder\nhttp://updates.tavrin.example/\n")
    world.bed.list_manager.answer(Cost=cost)
    world.assert_skipped(world.run(), code)


@pytest.mark.parametrize("cost", [
    0x00000000,  # unknown
    0x00000001,  # unrestricted
    0x00040001,  # unrestricted, roaming
    0x00040000,  # unknown, roaming
])
def test_a_free_connection_lets_the_check_go_on(world: World, cost: int) -> None:
    world.describe(f"{version.OLDER.offer}\nolder\nhttp://updates.tavrin.example/\n")
    world.bed.list_manager.answer(Cost=cost)
    world.assert_nothing_to_do(world.run())
    assert world.targets == [DESCRIPTION + ".minisig", DESCRIPTION]


def test_not_connected_comes_before_the_cost(world: World) -> None:
    world.bed.list_manager.answer(Connected=0, Cost=0x2)
    world.assert_skipped(world.run(), 2)


@pytest.mark.parametrize("answers", [
    {"CreateResult": E_FAIL, "Connected": 0},
    {"ConnectedResult": E_FAIL, "Connected": 0, "Cost": 0x2},
    {"QueryResult": E_NOINTERFACE, "Cost": 0x2},
    {"CostResult": E_FAIL, "Cost": 0x2},
], ids=lambda answers: next(iter(answers)))
def test_a_list_manager_that_fails_lets_the_check_go_on(world: World, answers: dict[str, int]) -> None:
    world.describe(f"{version.OLDER.offer}\nolder\nhttp://updates.tavrin.example/\n")
    world.bed.list_manager.answer(**answers)
    world.assert_nothing_to_do(world.run())
    assert world.targets == [DESCRIPTION + ".minisig", DESCRIPTION]


ENGLISH = 1033
SLOVENIAN = 1060


@pytest.mark.parametrize(("code", "language", "text"), [
    (2, ENGLISH, "No connection reported. Skipping Halvoro programme update check.\r\n"),
    (3, ENGLISH, "Metered connection detected. Skipping Halvoro programme update check.\r\n"),
    (4, ENGLISH, "Approaching or over the connection data limit. Skipping Halvoro programme update check.\r\n"),
    (5, ENGLISH, "Congested connection reported. Skipping Halvoro programme update check.\r\n"),
    (2, SLOVENIAN, "Ni zaznane povezave. Preverjanje posodobitev programa Halvoro je odloženo.\r\n"),
    (3, SLOVENIAN, "Zaznana povezava z omejenim prenosom podatkov. Preverjanje posodobitev programa Halvoro je "
                   "odloženo.\r\n"),
    (4, SLOVENIAN, "Blizu ali čez količinsko omejitev prenosa podatkov. Preverjanje posodobitev programa Halvoro je "
                   "odloženo.\r\n"),
    (5, SLOVENIAN, "Zaznan zastoj v povezavi. Preverjanje posodobitev programa Halvoro je odloženo.\r\n"),
])
def test_the_event_of_a_check_put_off_reads(world: World, code: int, language: int, text: str) -> None:
    costs = {3: 0x2, 4: 0x10001, 5: 0x20001}
    world.bed.list_manager.answer(Connected=int(code != 2), Cost=costs.get(code, 1))
    run = world.run()
    world.assert_skipped(run, code)
    assert world.machine.message(world.bed.program, run.events[0], language) == text


@pytest.mark.parametrize(("language", "text"), [
    (ENGLISH, "Error checking for Halvoro programme update: Failed to load Minisign signature: 404\r\n"),
    (SLOVENIAN, "Pri preverjanju posodobitev programa Halvoro je prišlo do napake: Failed to load Minisign "
                "signature: 404\r\n"),
])
def test_the_event_of_a_failed_check_reads(world: World, language: int, text: str) -> None:
    run = world.run()
    world.assert_failed(run, "Failed to load Minisign signature: 404")
    assert world.machine.message(world.bed.program, run.events[0], language) == text


@pytest.mark.parametrize("identifier", [0x0, 0x80000000, 0xC0000000])
@pytest.mark.parametrize("language", [ENGLISH, SLOVENIAN])
def test_a_generic_message_is_its_insertion_string(world: World, identifier: int, language: int) -> None:
    event = traces.Event(traces.INFORMATION, 0, identifier, ("besedilo",))
    assert world.machine.message(world.bed.program, event, language) == "besedilo\r\n"
