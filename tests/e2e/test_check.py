"""The check of a machine: in every world its prediction is what the updater then does, and it changes nothing."""

from __future__ import annotations

import json
import os
import re
from collections.abc import Callable
from dataclasses import dataclass
from typing import Any

import pytest

import faults
import test_disk_faults as disk_faults
import test_package
import test_server_faults as server_faults
from bed import settings, version, windows
from bed.http_server import Reply
from bed.isolation import PAGE
from bed.services import AuthenticatingProxy
from bed.snapshot import nothing_else_changes
from bed.windows import GENERIC_READ, GENERIC_WRITE, SHARE_DELETE, SHARE_READ, SHARE_WRITE
from world import DESCRIPTION, FAILED, FOLDER, FOLDER_URL, PACKAGE, PACKAGE_CONTENT, World

EVENTS = "HKLM\\SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\HalvoroUpdate"
STORED = "Halvoro.ARM64.msi"
LARGE = b"a package that is larger than what a check fetches\n" * 5000

HEALTHY, UNHEALTHY, NOT_CHECKABLE = 0, 1, 2


@dataclass
class Checked:
    """What a check said."""

    exit_code: int | None
    said: dict[str, Any]

    @property
    def verdict(self) -> str:
        """The sentence."""
        text = self.said["verdict"]["sentence"]
        assert isinstance(text, str)
        return text

    def finding(self, name: str) -> dict[str, str]:
        """What it found about one thing."""
        found, = (each for each in self.said["findings"] if each["name"] == name)
        assert isinstance(found, dict)
        return found


Check = Callable[..., Checked]


@pytest.fixture
def check(world: World) -> Check:
    """Runs the check; it may change nothing and start nothing."""
    program = world.machine.install(world.bed.program_file.parents[2] / "tools/check/lumaris_check.exe", "lumaris_check.exe")

    def run(arguments: str = "--download") -> Checked:
        with nothing_else_changes(world.machine):
            done = world.machine.run(f'"{program}" --json {arguments}', limit=100)
        assert (done.left, done.commands, done.events) == ((), (), ())
        said = json.loads(done.output)
        assert said["verdict"]["exit_code"] == done.exit_code
        return Checked(done.exit_code, said)

    return run


def store(world: World, content: bytes) -> None:
    """A package from an earlier run."""
    world.store.mkdir(parents=True)
    (world.store / STORED).write_bytes(content)


def cost(value: int) -> Callable[[World], None]:
    """A network of this cost."""
    return lambda world: world.bed.list_manager.answer(Cost=value)


def offer_with(path: str, answer: Reply) -> Callable[[World], None]:
    """An update, but for one answer of the server's."""
    def arrange(world: World) -> None:
        world.offer()
        world.answer(path, answer)
    return arrange


def offer_then(more: Callable[[World], object]) -> Callable[[World], None]:
    """An update, and something on the machine."""
    def arrange(world: World) -> None:
        world.offer()
        more(world)
    return arrange


def a_file_in_the_place_of_the_folder(world: World) -> None:
    """The maker's folder cannot be made."""
    world.maker_folder.parent.mkdir(exist_ok=True)
    world.maker_folder.write_bytes(b"")


def a_channel_of_its_own(world: World) -> None:
    world.set_channel("beta")
    world.offer(description="/Halvoro/Lumaris/win10-beta.txt")


def a_read_only_package(world: World) -> None:
    """The package that is there cannot be written."""
    store(world, PACKAGE_CONTENT)
    (world.store / STORED).chmod(0o444)


def signed_by_another_key(world: World) -> None:
    """A description that is signed by somebody else."""
    text = f"{version.NEWER.offer}\nHalvoro\n{FOLDER_URL}\n".encode()
    world.publish(DESCRIPTION, text, signature=world.sign(text, key=world.bed.other_key))


WORLDS: dict[str, Callable[[World], object]] = {
    "nothing newer": lambda world: world.offer(version=version.OWN.offer),
    "an update": lambda world: world.offer(),
    "an update with a large package": lambda world: world.offer(content=LARGE),
    "a package that is there": offer_then(lambda world: store(world, PACKAGE_CONTENT)),
    "a stale package": offer_then(lambda world: store(world, b"stale")),
    "a read-only package": offer_then(a_read_only_package),
    "a folder in the place of the package": offer_then(lambda world: (world.store / STORED).mkdir(parents=True)),
    "a file in the place of the folder": offer_then(a_file_in_the_place_of_the_folder),
    "not connected": lambda world: world.bed.network.disconnect(),
    "fixed cost": cost(settings.FIXED),
    "over the data limit": cost(settings.UNRESTRICTED | settings.OVER_DATA_LIMIT),
    "congested": cost(settings.UNRESTRICTED | settings.CONGESTED),
    "roaming alone": offer_then(cost(settings.UNRESTRICTED | settings.ROAMING)),
    "updates off": lambda world: world.set_channel(""),
    "a channel of its own": a_channel_of_its_own,
    "a channel that is ignored": offer_then(lambda world: world.set_channel("..\\beta")),
    "no description": lambda world: None,
    "no signature": offer_with(DESCRIPTION + ".minisig", Reply(b"not here", status="404 Not Found")),
    "a page in the place of the signature": offer_with(DESCRIPTION + ".minisig", Reply(b"<html>please log in</html>")),
    "a changed description": offer_with(DESCRIPTION, Reply(f"{version.NEWEST.offer}\nHalvoro\nhttp://updates.tavrin.example/\n".encode())),
    "another key": signed_by_another_key,
    "a description without an end": offer_with(DESCRIPTION, Reply(b"x" * 65537)),
    "no package": lambda world: world.offer(package=None),
    "a package without content": offer_with(PACKAGE, Reply(b"gone", status="410 Gone")),
    "a changed package": offer_with(PACKAGE, Reply(PACKAGE_CONTENT[:-1] + b"x")),
    "an empty address": lambda world: world.offer(url="", package=None),
    "an unknown scheme": lambda world: world.offer(url="ftp://updates.tavrin.example/", package=None),
    "no address": lambda world: world.offer(url="!", package=None),
}


# Those that take different ways through the program; an emulated processor is slow.
ON_BOTH = ("nothing newer", "an update", "a package that is there", "fixed cost", "no signature", "a changed package", "another key")


@pytest.mark.parametrize("arrange", [pytest.param(arrange, id=name, marks=[] if name in ON_BOTH else [pytest.mark.any_processor])
                                     for name, arrange in WORLDS.items()])
def test_what_the_check_predicts_is_what_the_updater_then_does(world: World, check: Check, arrange: Callable[[World], object]) -> None:
    arrange(world)
    predicted = check().said["next_run"]
    run = world.run()
    messages = [each.strings[-1] for each in run.events if each.id == FAILED]
    assert predicted == {"exit_code": run.exit_code, "message": "".join(messages), "installs": bool(world.installers(run)), "known": True}


# The worlds of the tests of faults. What the platform makes now of one reply and now of another cannot be predicted by anybody: those faults
# are left out.

SERVER_FAULTS = [(server_faults.NAMES[number % 4], kind)
                 for number, (kind, fault) in enumerate(server_faults.kinds(server_faults.FORM["package"], server_faults.FORM["package"]).items())
                 if len(fault.arrives) == 1 and (number % 4 == 0 or not kind.startswith("status, "))]
CUTS = [(name, position) for name, form in server_faults.FORM.items() for position in faults.boundaries(form.whole)[1::3]]


def meet(world: World, check: Check, request_name: str, fault_of: Callable[[faults.Message], faults.Fault]) -> None:
    """The check and the program meet the same fault. If the platform lost the request after it, both meet it once more."""
    path = server_faults.path_of(request_name)
    for _ in range(4):
        world.clean()
        world.offer(content=server_faults.CONTENT)
        good = server_faults.good_reply(world, path)
        fault = fault_of(good)
        world.answer(path, fault.answer)
        arrives, = fault.arrives
        wanted = server_faults.outcome(path, good, arrives)
        predicted = check().said["next_run"]
        run = world.run()
        lost = {f"{server_faults.outer(each)}: {reason}" for each in server_faults.PHASES for reason in faults.RESET_BY_PEER}
        message = "".join(each.strings[-1] for each in run.events)
        if wanted == server_faults.TAKEN and {predicted["message"], message} & lost:
            continue
        installs = wanted == server_faults.TAKEN
        assert predicted == {"exit_code": run.exit_code, "message": message, "installs": installs, "known": True}
        assert (bool(world.installers(run)), message) == (installs, "" if installs else wanted)
        return
    pytest.fail("the platform lost each of four requests")


@pytest.mark.any_processor
@pytest.mark.parametrize(("request_name", "kind"), SERVER_FAULTS)
def test_a_fault_of_the_server_is_predicted(world: World, check: Check, request_name: str, kind: str) -> None:
    world.offer(content=server_faults.CONTENT)
    following = server_faults.next_reply(world, server_faults.path_of(request_name))
    meet(world, check, request_name, lambda good: server_faults.kinds(good, following)[kind])


@pytest.mark.any_processor
@pytest.mark.parametrize(("request_name", "position"), CUTS)
def test_a_reply_that_is_cut_is_predicted(world: World, check: Check, request_name: str, position: int) -> None:
    meet(world, check, request_name, lambda good: faults.cut(good, position))


# Where only making a file or a folder would show that there is no room, or under Wine no right, for it, a check that makes none cannot see it:
# Wine opens a folder for whatever is asked.
DISK_FAULTS: dict[str, disk_faults.Fault] = {
    "common folder is a file": disk_faults.file_at(disk_faults.common),
    "updater's folder is a file": disk_faults.file_at(disk_faults.store),
    "no right to look into the maker's folder": disk_faults.rights(disk_faults.maker, 0),
    "no right to look into the updater's folder": disk_faults.rights(disk_faults.store, 0),
    "read-only package": disk_faults.package_rights(0o444),
    "unreadable package": disk_faults.package_rights(0o222),
    "package without any right": disk_faults.package_rights(0),
}


def agree(world: World, check: Check) -> None:
    """The check says what the program then does."""
    predicted = check().said["next_run"]
    run = world.run()
    assert predicted == {"exit_code": run.exit_code, "message": "".join(each.strings[-1] for each in run.events),
                         "installs": bool(world.installers(run)), "known": True}


@pytest.mark.any_processor
@pytest.mark.parametrize("fault", [pytest.param(fault, id=name) for name, fault in DISK_FAULTS.items()])
def test_a_fault_of_folders_and_files_is_predicted(world: World, check: Check, fault: disk_faults.Fault) -> None:
    world.offer()
    with fault(world):
        agree(world, check)


@pytest.mark.any_processor
@pytest.mark.parametrize("pages", [0, disk_faults.PAGES - 1, disk_faults.PAGES])
@pytest.mark.parametrize("stale", [0, 1], ids=["no package", "a stale package"])
def test_a_disk_without_room_for_the_package_is_predicted(world: World, check: Check, pages: int, stale: int) -> None:
    """The room that a stale package takes is used again."""
    world.offer()
    world.store.mkdir(parents=True)
    with world.bed.network.disk_at(world.store, 16 * PAGE) as disk:
        if stale:
            (world.store / STORED).write_bytes(b"x" * (PAGE - 1))
        disk.fill(but=max(pages - stale, 0) * PAGE)
        agree(world, check)


@pytest.mark.any_processor
@pytest.mark.parametrize(("access", "share"), [(GENERIC_READ, SHARE_READ), (GENERIC_READ, SHARE_READ | SHARE_WRITE),
                                               (GENERIC_WRITE, SHARE_READ | SHARE_WRITE | SHARE_DELETE)])
def test_a_package_that_another_program_has_open_is_predicted(world: World, check: Check, access: int, share: int) -> None:
    world.offer()
    store(world, b"stale")
    with world.machine.held_open(world.store / STORED, access, share):
        agree(world, check)


@pytest.mark.any_processor
def test_a_package_without_an_end_is_predicted(world: World, check: Check) -> None:
    world.offer()
    world.answer(PACKAGE, faults.endless_bodies(server_faults.good_reply(world, PACKAGE), 64 * server_faults.MEGABYTE)["without a length"])
    agree(world, check)


@pytest.mark.any_processor
def test_a_server_that_does_not_answer_is_predicted(world: World, check: Check) -> None:
    with world.server_stopped():
        checked = check()
        run = world.run()
    assert checked.said["next_run"]["message"] == run.events[0].strings[-1]
    assert checked.exit_code == UNHEALTHY
    assert "cannot be reached" in checked.said["verdict"]["advice"]


@pytest.mark.any_processor
@pytest.mark.parametrize("password", ["right", "wrong"])
def test_a_proxy_with_its_password_is_used_and_named_without_it(world: World, check: Check, password: str) -> None:
    world.offer()
    with AuthenticatingProxy(world.bed.network.work / f"check-proxy-{password}", "lumaris", "right"):
        settings.set_proxy(world.machine, "proxy.tavrin.example:8118")
        world.machine.set_value(settings.PRODUCT_KEY, "ProxyUporabnik", "lumaris")
        world.machine.set_value(settings.PRODUCT_KEY, "ProxyGeslo", password)
        checked = check()
        run = world.run()
    assert checked.said["next_run"]["exit_code"] == run.exit_code
    assert [checked.said["next_run"]["message"]] == [each.strings[-1] for each in run.events] or not run.events
    assert checked.finding("proxy")["text"] == "proxy.tavrin.example:8118, user name set, password set"
    assert password not in json.dumps(checked.said)


@pytest.mark.any_processor
@pytest.mark.parametrize("variant", test_package.VARIANTS.values(), ids=test_package.VARIANTS)
def test_what_a_variant_leads_to_is_predicted(world: World, check: Check, variant: str) -> None:
    world.offer()
    world.publish(f"{FOLDER}Halvoro.ARM64{variant}.msi", PACKAGE_CONTENT)
    quoted = variant.replace('"', '\\"')
    predicted = check(f'--download "--variant={quoted}"').said["next_run"]
    run = world.run(f'"{quoted}"')
    assert predicted == {"exit_code": run.exit_code, "message": "".join(each.strings[-1] for each in run.events),
                         "installs": bool(run.commands), "known": True}


@pytest.mark.any_processor
def test_a_large_package_is_neither_fetched_nor_promised_unless_asked_for(well: World, check: Check) -> None:
    well.offer(content=LARGE)
    checked = check("")
    assert checked.said["next_run"] == {"exit_code": 0, "message": "", "installs": False, "known": False}
    assert checked.finding("package")["text"] == "Halvoro.ARM64.msi is on the server, larger than this check fetches (--download verifies it)"
    assert (checked.exit_code, checked.verdict) == (
        HEALTHY, f"An update is offered: {version.NEWER} over {version.OWN}; its package was not fetched to its end, so whether the next run "
                 "installs it is not known.")
    checked = check("--download")
    assert checked.said["next_run"] == {"exit_code": 0, "message": "", "installs": True, "known": True}
    assert (checked.exit_code, checked.verdict) == (HEALTHY, f"An update is due: the next run installs {version.NEWER} over {version.OWN}.")
    # And one that would not be installed is not called one that would.
    well.answer(PACKAGE, Reply(LARGE[:-1] + b"x"))
    assert "An update is offered" in check("").verdict
    checked = check("--download")
    assert (checked.exit_code, checked.verdict) == (UNHEALTHY, "The update check fails: Invalid Minisign signature.")
    well.machine.delete_key(EVENTS)


# What is wrong with the machine


@pytest.fixture
def well(world: World) -> World:
    """A machine with everything in its place but the task, which it was asked not to have."""
    world.offer(version=version.OWN.offer)
    world.machine.set_value(EVENTS, "EventMessageFile", world.bed.program, windows.REG_EXPAND_SZ)
    world.machine.set_value(settings.UPDATER_KEY, "NoTask", "1")
    return world


@pytest.mark.any_processor
def test_a_healthy_machine_says_so(well: World, check: Check) -> None:
    checked = check()
    assert (checked.exit_code, checked.verdict) == (HEALTHY, f"Up to date: the channel stable offers nothing newer than {version.OWN}.")
    well.machine.delete_key(EVENTS)


@pytest.mark.any_processor
def test_an_event_source_that_is_missing_is_a_problem(well: World, check: Check) -> None:
    well.machine.delete_key(EVENTS)
    checked = check()
    assert (checked.exit_code, checked.verdict) == (UNHEALTHY, "Not healthy: the event source HalvoroUpdate is not registered.")


@pytest.mark.any_processor
def test_a_task_that_is_missing_is_a_problem(well: World, check: Check) -> None:
    well.machine.delete_value(settings.UPDATER_KEY, "NoTask")
    checked = check()
    assert (checked.exit_code, checked.verdict) == (
        UNHEALTHY, "Not healthy: there is no scheduled task \\Tavrin\\Halvoro update: nothing starts the updater.")
    well.machine.delete_key(EVENTS)


DATE = r"\d{4}-\d\d-\d\d \d\d:\d\d"


@pytest.mark.any_processor
@pytest.mark.parametrize("encoding", ["utf-8", "utf-16"])
@pytest.mark.parametrize(("log", "verdict"), [
    ("Action start\r\nAction ended 3:26:25: InstallFinalize. Return value 3.\r\n",
     rf"the last installation \({DATE}\) failed, at: Action ended 3:26:25: InstallFinalize\. Return value 3\."),
    ("=== started ===\r\nMSI (c) (B0:1C) [03:26:25:120]: MainEngineThread is returning 1625\r\n=== stopped ===\r\n",
     rf"the last installation \({DATE}\) ended with 1625: a policy forbids it")])
def test_an_installation_that_failed_is_a_problem(well: World, check: Check, encoding: str, log: str, verdict: str) -> None:
    well.store.mkdir(parents=True)
    (well.store / "Halvoro.ARM64.log").write_bytes(log.encode(encoding))
    checked = check()
    assert checked.exit_code == UNHEALTHY
    assert re.fullmatch(rf"Not healthy: {verdict}\.", checked.verdict), checked.verdict
    well.machine.delete_key(EVENTS)


@pytest.mark.any_processor
def test_the_last_lines_of_an_installation_that_succeeded_are_shown_with_its_date(well: World, check: Check) -> None:
    well.store.mkdir(parents=True)
    log = well.store / "Halvoro.ARM64.log"
    log.write_bytes(
        "Action start\r\nAction ended 3:26:25: INSTALL. Return value 1.\r\n\r\nMainEngineThread is returning 0\r\n=== stopped ===\r\n".encode("utf-16"))
    # Noon, so that the day is the same in every time zone in which tests are run.
    os.utime(log, (1_700_000_000, 1_700_049_600))
    checked = check()
    assert checked.exit_code == HEALTHY
    assert re.sub(r"\d\d:\d\d\)", "TIME)", checked.finding("installer log")["text"], count=1) == (
        "the last installation (2023-11-15 TIME) ended with 0: done; the log ends with: Action ended 3:26:25: INSTALL. Return value 1. / "
        "MainEngineThread is returning 0 / === stopped ===")
    well.machine.delete_key(EVENTS)


@pytest.mark.any_processor
@pytest.mark.parametrize("open_folder", ["the folder", "the one above it"])
def test_a_folder_in_which_others_may_write_is_a_problem(well: World, check: Check, open_folder: str) -> None:
    """Wine makes the rights of a file out of those that the host keeps."""
    well.store.mkdir(parents=True)
    folder = well.store if open_folder == "the folder" else well.maker_folder
    for mode, exit_code in ((0o755, HEALTHY), (0o757, UNHEALTHY), (0o755, HEALTHY)):
        folder.chmod(mode)
        checked = check()
        assert checked.exit_code == exit_code, checked.verdict
        if exit_code == UNHEALTHY:
            seen = well.store_path.rstrip("\\") if folder == well.store else well.store_path.removesuffix("\\Lumaris\\")
            assert checked.verdict == (f"Not healthy: {seen} can be written by Everyone, who could exchange a package between its "
                                       "verification and its installation.")
    assert checked.finding("folder")["text"].endswith("\\Tavrin\\Lumaris can be written by SYSTEM and administrators alone")
    well.machine.delete_key(EVENTS)


@pytest.mark.any_processor
def test_saved_reports_are_counted(well: World, check: Check) -> None:
    saved = [well.temp / f"{number}.tzo" for number in (1, 2)]
    for each in saved:
        each.write_bytes(b"")
    assert check().finding("reports")["text"] == "2 crash reports wait for the next start"
    for each in saved:
        each.unlink()
    well.machine.delete_key(EVENTS)


@pytest.mark.any_processor
def test_a_network_that_may_not_be_used_makes_a_machine_not_checkable(well: World, check: Check) -> None:
    well.bed.list_manager.answer(Cost=settings.FIXED)
    checked = check()
    assert (checked.exit_code, checked.verdict) == (
        NOT_CHECKABLE, "The update server was not asked: the connection is metered. A run ends with 3 then.")
    assert checked.finding("network")["text"] == "connected, cost 0x00000002"
    well.machine.delete_key(EVENTS)
