"""The group policies and the event queries: parsed as Windows parses them, and applied as registry values to the program."""

from __future__ import annotations

import re
import xml.etree.ElementTree as ElementTree
from pathlib import Path

import pytest

from bed import settings, version
from bed.services import AuthenticatingProxy
from world import FAILED, World

TREE = Path(__file__).resolve().parents[2]
POLICIES = TREE / "packaging/policy"
EVENTS = TREE / "packaging/events"
LANGUAGES = ("en-US", "sl-SI")
NS = {"p": "http://schemas.microsoft.com/GroupPolicy/2006/07/PolicyDefinitions"}

pytestmark = pytest.mark.any_processor


def definitions() -> ElementTree.Element:
    """The policies."""
    return ElementTree.parse(POLICIES / "Lumaris.admx").getroot()


def policy(name: str) -> ElementTree.Element:
    """One of them."""
    found, = (each for each in definitions().iterfind("p:policies/p:policy", NS) if each.get("name") == name)
    return found


def place(name: str) -> tuple[str, str]:
    """The key and the value that a policy writes."""
    found = policy(name)
    text = found.find("p:elements/p:text", NS)
    value = found.get("valueName") if text is None else text.get("valueName")
    assert value is not None
    return f"HKLM\\{found.get('key')}", value


@pytest.mark.parametrize("language", LANGUAGES)
def test_each_text_and_presentation_of_a_policy_is_there_in_each_language_and_no_other(language: str) -> None:
    source = (POLICIES / "Lumaris.admx").read_text(encoding="utf-8")
    texts = ElementTree.parse(POLICIES / language / "Lumaris.adml").getroot()
    strings = {each.get("id"): each.text for each in texts.iterfind("p:resources/p:stringTable/p:string", NS)}
    assert set(re.findall(r"\$\(string\.(\w+)\)", source)) == set(strings)
    assert all(text and text.strip() for text in strings.values())
    presentations = {each.get("id"): {box.get("refId") for box in each} for each in texts.iterfind("p:resources/p:presentationTable/p:presentation", NS)}
    wanted = {each.get("name"): {text.get("id") for text in each.iterfind("p:elements/p:text", NS)}
              for each in definitions().iterfind("p:policies/p:policy", NS) if each.get("presentation")}
    assert presentations == wanted


def test_every_policy_is_for_the_machine_below_our_category_and_says_what_it_runs_on() -> None:
    for each in definitions().iterfind("p:policies/p:policy", NS):
        assert each.get("class") == "Machine"
        assert [parent.get("ref") for parent in each.iterfind("p:parentCategory", NS)] == ["Lumaris"]
        assert [supported.get("ref") for supported in each.iterfind("p:supportedOn", NS)] == ["SUPPORTED_Lumaris34"]


def test_the_policies_write_the_values_that_the_program_reads_and_never_the_password() -> None:
    source = "".join(file.read_text(encoding="utf-8") for file in (
        TREE / "src/updater/updater.cpp", TREE / "src/http/request/open_request.cpp"))
    names = {place(each) for each in ("Channel", "UpdatesOff", "ProxyUser")}
    assert names == {(settings.UPDATER_KEY, "Channel"), (settings.PRODUCT_KEY, "ProxyUporabnik")}
    for key, value in names:
        assert f'L"{key.removeprefix("HKLM").lstrip(chr(92)).replace(chr(92), chr(92) * 2)}"' in source
        assert f'L"{value}"' in source
    assert "ProxyGeslo" not in (POLICIES / "Lumaris.admx").read_text(encoding="utf-8")


def test_the_channel_policy_sets_the_channel(world: World) -> None:
    world.machine.set_value(*place("Channel"), "beta")
    world.offer(version=version.OWN.offer, description="/Halvoro/Lumaris/win10-beta.txt")
    world.assert_nothing_to_do(world.run())
    assert world.targets == ["/Halvoro/Lumaris/win10-beta.txt.minisig", "/Halvoro/Lumaris/win10-beta.txt"]


def test_the_policy_that_switches_updates_off_keeps_the_program_from_asking(world: World) -> None:
    enabled = policy("UpdatesOff").find("p:enabledValue/p:string", NS)
    assert enabled is not None and enabled.text is None
    world.machine.set_value(*place("UpdatesOff"), enabled.text or "")
    world.offer()
    world.assert_nothing_to_do(world.run())
    assert world.targets == []
    # Disabled, it deletes the value, and the channel is stable again.
    assert policy("UpdatesOff").find("p:disabledValue/p:delete", NS) is not None
    world.machine.delete_value(*place("UpdatesOff"))
    world.assert_installs(world.run())


def test_the_proxy_user_policy_is_the_name_that_the_proxy_gets(world: World) -> None:
    world.offer(version=version.OWN.offer)
    with AuthenticatingProxy(world.bed.network.work / "policy-proxy", "updates", "Geslo"):
        settings.set_proxy(world.machine, "proxy.tavrin.example:8118")
        world.machine.set_value(settings.PRODUCT_KEY, "ProxyGeslo", "Geslo")
        world.machine.set_value(*place("ProxyUser"), "somebody else")
        assert world.run().exit_code == FAILED
        world.machine.set_value(*place("ProxyUser"), "updates")
        world.assert_nothing_to_do(world.run())


def queries() -> dict[str, str]:
    """The queries of all files, the one inside the subscription, too."""
    found = {}
    for file in sorted(EVENTS.glob("*.xml")):
        root = ElementTree.parse(file).getroot()
        if root.tag.endswith("Subscription"):
            inner = root.findtext("{http://schemas.microsoft.com/2006/03/windows/events/subscription}Query")
            assert inner is not None
            root = ElementTree.fromstring(inner.strip())
        selected, = (each.text for each in root.iter("Select"))
        assert selected is not None
        found[file.name] = selected
    return found


def test_the_event_queries_name_the_source_and_the_ids_that_the_program_writes() -> None:
    found = queries()
    assert sorted(found) == ["all.xml", "failures.xml", "subscription.xml"]
    main = (TREE / "src/updater/main.cpp").read_text(encoding="utf-8")
    for query in found.values():
        source, = re.findall(r"@Name='(\w+)'", query)
        assert f'L"{source}"' in main
        # The event log keeps the low 16 bits of an id as EventID.
        assert set(map(int, re.findall(r"EventID=(\d+)", query))) <= {FAILED & 0xFFFF, 2, 3, 4, 5}
    assert re.findall(r"EventID=(\d+)", found["failures.xml"]) == ["1"]
    assert len(re.findall(r"EventID=(\d+)", found["subscription.xml"])) == 5
