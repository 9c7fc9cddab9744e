"""The bed itself: what the other tests rely on."""

from __future__ import annotations

import pytest

from bed import traces
from bed.windows import REG_EXPAND_SZ
from world import World


@pytest.mark.parametrize(("argument", "code"), [("0", 0), ("7", 7), ("256", 256), ("-1", 0xFFFFFFFF),
                                                ("-2147483647", 0x80000001)])
def test_an_exit_code_is_reported_in_full(world: World, argument: str, code: int) -> None:
    assert world.machine.run(f"cmd /c exit {argument}").exit_code == code


def test_a_program_that_does_not_end_is_ended(world: World) -> None:
    run = world.machine.run("cmd /c ping -n 1000 127.0.0.1", limit=1)
    assert run.exit_code is None
    assert world.machine.run("cmd /c exit 3").exit_code == 3


def test_what_a_program_left_running_is_reported_with_its_exit_code(world: World) -> None:
    run = world.machine.run("cmd /c start cmd /c exit 1627", settle=50)
    assert (run.exit_code, [each.exit_code for each in run.left if each.image.endswith("cmd.exe")]) == (0, [1627])


@pytest.mark.parametrize("value", ["", "text", "čšž \\ \t \n", "a\0b"])
def test_a_registry_text_is_read_as_it_was_written(world: World, value: str) -> None:
    key = "HKLM\\Software\\Tavrin\\Halvoro\\Test"
    world.machine.set_value(key, "Value", value, REG_EXPAND_SZ)
    assert world.machine.value(key, "Value") == value
    world.machine.delete_value(key, "Value")
    assert world.machine.value(key, "Value") is None


def test_an_event_is_read_from_the_trace() -> None:
    trace = ("12.500:00f4:fixme:advapi:RegisterEventSourceW ((null),L\"Source\"): stub\n"
             "12.501:00f4:fixme:advapi:ReportEventW (00000000CAFE4242,0x0001,0x0000,0x80000001,0000000000000000,0x0002,"
             "0x00000000,00007FFFFE2FFED0,0000000000000000): stub\n"
             "12.501:00f4:err:eventlog:ReportEventW L\"Name\"\n"
             "12.501:00f4:err:eventlog:ReportEventW L\"\\010d: first \\\"line\\\"\\r\\n\"\n"
             "12.501:00f4:err:eventlog:ReportEventW L\"back\\\\slash \\\\n\"\n"
             "12.502:00f4:fixme:advapi:ReportEventW (00000000CAFE4242,0x0004,0x0000,0x00000003,0000000000000000,0x0001,"
             "0x00000000,00007FFFFE2FFED0,0000000000000000): stub\n"
             "12.502:00f4:trace:eventlog:ReportEventW L\"Name\"\n"
             "12.503:00f4:fixme:advapi:DeregisterEventSource (00000000CAFE4242) stub\n")
    assert list(traces.events(trace)) == [
        traces.Event(traces.ERROR, 0, 0x80000001, ("Name", 'č: first "line"\r\nback\\slash \\n')),
        traces.Event(traces.INFORMATION, 0, 3, ("Name",))]
    assert [event.time for event in traces.events(trace)] == [12.501, 12.502]
    assert traces.event_sources(trace) == ["Source", "closed"]
