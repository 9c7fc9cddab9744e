"""Lumaris's own installer package on a machine: installed, run from its task, kept through upgrades, removed without a trace."""

from __future__ import annotations

import hashlib
import re
import shutil
import subprocess
import sys
import xml.etree.ElementTree as ElementTree
import zipfile
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

import pytest
import yaml

from bed import certificates, settings
from bed import package as product
from bed.snapshot import Snapshot
from bed.windows import Windows, windows_path
from installation import EVENTS, INSTALL_FAILURE, NAMESPACE, NEWER, OWN, PROGRAM, TASK, TREE, Installer
from world import PACKAGE_CONTENT, World

# installation sets the path to these.
import package as packaging  # isort: skip
import tables as checks  # isort: skip

UNAVOIDABLE = (
    r"HKEY_LOCAL_MACHINE\\Software\\(Classes|Microsoft\\Windows\\CurrentVersion)\\Installer(\\[^ ]+)?: (None -> | -> None)",
    r"HKEY_LOCAL_MACHINE\\System\\\w+\\Control\\ServiceCurrent -> .*",
    r'HKEY_LOCAL_MACHINE\\System\\\w+\\Services\\Schedule -> "Start": .*',
)


def registry(machine: Windows, key: str) -> dict[str, str]:
    """Everything below a registry key: "KEY -> VALUE = DATA"."""
    file = machine.folder / "registry.txt"
    file.unlink(missing_ok=True)
    run = machine.run(f'reg export {key} "{windows_path(file)}" /y', limit=120)
    assert run.exit_code == 0, run.output
    entries: dict[str, str] = {}
    current = ""
    for line in file.read_bytes().decode("utf-16").replace("\\\r\n  ", "").splitlines():
        if line.startswith("["):
            current = line.strip("[]")
            entries[current] = ""
        elif line and current:
            name, _, value = line.partition("=")
            entries[f"{current} -> {name}"] = value
    return entries


def registry_without_us(machine: Windows) -> list[dict[str, str]]:
    """The registry of a machine that has never seen the product; its disk has not, either."""
    shutil.rmtree(machine.unix_path("C:\\Program Files\\Tavrin"), ignore_errors=True)
    # As on every real Windows, ours is not the only source of events.
    machine.set_value("HKLM\\SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\Other", "TypesSupported", 7)
    machine.delete_key("HKLM\\SOFTWARE\\Tavrin")
    return [registry(machine, key) for key in ("HKLM\\Software", "HKLM\\System")]


def changed(before: dict[str, str], after: dict[str, str]) -> list[str]:
    """What differs between two states of the registry."""
    return [f"{name}: {before.get(name)} -> {after.get(name)}" for name in sorted(before.keys() | after.keys()) if before.get(name) != after.get(name)]


def test_an_installation_brings_program_event_source_folder_and_task_and_its_removal_takes_them(installer: Installer, world: World) -> None:
    machine = installer.machine
    installer.package()
    before = registry_without_us(machine)
    drive = Snapshot(machine.unix_path("C:\\").resolve())
    installer.install()

    assert machine.unix_path(PROGRAM).read_bytes() == world.bed.program_file.read_bytes()
    assert machine.value(EVENTS, "EventMessageFile") == PROGRAM
    assert machine.value(EVENTS, "TypesSupported") == 7
    assert world.store.is_dir()
    assert installer.has_task()
    # Windows Installer keeps a copy, in a folder of its own that is there or not yet.
    assert [line for line in drive.changes() if not re.fullmatch(r"new (d windows/Installer|- windows/Installer/[0-9a-f]+\.msi)", line)] == [
        "new d Program Files/Common Files/Tavrin", "new d Program Files/Common Files/Tavrin/Lumaris",
        "new d Program Files/Tavrin", "new d Program Files/Tavrin/Halvoro", "new - Program Files/Tavrin/Halvoro/lumaris.exe",
        "new - Program Files/Tavrin/Halvoro/lumaris_check.exe", "new - Program Files/Tavrin/Halvoro/lumaris_notices.txt",
        "new d windows/system32/tasks/Tavrin", "new - windows/system32/tasks/Tavrin/Halvoro update"]

    # The program runs as the task starts it, and leaves what a run leaves. A crash, too, has left something.
    world.offer()
    run = installer.start_task(installer.registered_task())
    assert (run.exit_code, [each.image for each in run.left]) == (0, ["C:\\windows\\system32\\msiexec.exe"])
    assert (world.store / "Halvoro.ARM64.msi").read_bytes() == PACKAGE_CONTENT
    for name in ("12345.tzo", "12345.tzr"):
        (world.temp / name).write_bytes(b"a report that was not sent")
    world.set_channel("beta")

    installer.remove()
    after = [registry(machine, key) for key in ("HKLM\\Software", "HKLM\\System")]
    # Windows Installer's own keys remain, empty. Wine starts its Task Scheduler with the first task, and counts service starts.
    assert [line for pair in zip(before, after, strict=True) for line in changed(*pair)
            if not any(re.fullmatch(allowed, line) for allowed in UNAVOIDABLE)] == []
    # Windows Installer's own folder remains, empty.
    assert set(drive.changes()) <= {"new d windows/Installer"}


def test_the_updater_replaces_itself_and_keeps_settings_and_the_changed_task(installer: Installer, world: World) -> None:
    installer.install(properties="CHANNEL=beta PROXYUSER=updates PROXYPASSWORD=Geslo-za-posrednika TASKTIME=07:05")
    machine = installer.machine
    task = installer.registered_task()
    assert task.findtext("t:Triggers/t:CalendarTrigger/t:StartBoundary", namespaces=NAMESPACE) == "2026-01-01T07:05:00"
    # Wine shows hidden properties, and the data of the last action, where Windows shows asterisks; nothing else may show the password.
    assert {line.partition(" = ")[0] for line in installer.log.splitlines() if "Geslo-za-posrednika" in line} <= {
        "Property(S): PROXYPASSWORD", "Property(S): LumarisStoreSettings", "Property(S): CustomActionData"}
    # What an administrator makes of the task.
    machine.unix_path(TASK).write_bytes(machine.unix_path(TASK).read_bytes().replace(b"<Priority>7<", b"<Priority>5<"))
    newer = installer.package(NEWER, b"a newer program")
    world.offer(content=newer.read_bytes(), description="/Halvoro/Lumaris/win10-beta.txt")

    run = installer.start_task(task)
    assert (run.exit_code, run.events) == (0, ())
    assert {(each.image, each.exit_code) for each in run.left} == {("C:\\windows\\system32\\msiexec.exe", 0)}, (world.store / "Halvoro.ARM64.log").read_bytes().decode("utf-8", "replace")[-3000:]

    assert machine.unix_path(PROGRAM).read_bytes() == world.bed.program_file.read_bytes() + b"a newer program"
    assert b"<Priority>5<" in machine.unix_path(TASK).read_bytes()
    assert machine.value(settings.UPDATER_KEY, "Channel") == "beta"
    assert machine.value(settings.PRODUCT_KEY, "ProxyUporabnik") == "updates"
    assert machine.value(settings.PRODUCT_KEY, "ProxyGeslo") == "Geslo-za-posrednika"
    assert machine.value(EVENTS, "EventMessageFile") == PROGRAM
    assert (world.store / "Halvoro.ARM64.msi").exists()

    # And the way back is barred.
    assert installer.msiexec("/i", installer.package()).exit_code == INSTALL_FAILURE
    assert "Property(S): WIX_DOWNGRADE_DETECTED = {" in installer.log
    assert machine.unix_path(PROGRAM).read_bytes() == world.bed.program_file.read_bytes() + b"a newer program"

    installer.remove(NEWER)
    assert not machine.unix_path(PROGRAM).exists()
    assert not installer.has_task()
    assert machine.value(settings.PRODUCT_KEY, "ProxyUporabnik") is None
    assert machine.value(settings.PRODUCT_KEY, "ProxyGeslo") is None
    assert machine.value(settings.UPDATER_KEY, "Channel") is None


@pytest.mark.any_processor
def test_the_settings_of_others_in_the_product_s_key_survive_the_removal(installer: Installer) -> None:
    machine = installer.machine
    machine.set_value(settings.PRODUCT_KEY, "Version", "9.9.9")
    machine.set_value(settings.PRODUCT_KEY + "\\Editor", "Colour", "blue")
    installer.install(properties="PROXYPASSWORD=Geslo-za-posrednika")
    installer.remove()
    assert machine.value(settings.PRODUCT_KEY, "Version") == "9.9.9"
    assert machine.value(settings.PRODUCT_KEY + "\\Editor", "Colour") == "blue"


@pytest.mark.any_processor
def test_a_machine_without_a_task_gets_none_from_an_upgrade_either(installer: Installer) -> None:
    installer.install(properties="NOTASK=1")
    assert not installer.has_task()
    installer.install(NEWER)
    assert not installer.has_task()
    installer.msiexec("/x", installer.package(NEWER))
    installer.install(NEWER, "NOTASK=0")
    assert installer.has_task()


@pytest.mark.any_processor
@pytest.mark.parametrize("time", ["24:00", "7:05", "07:60", "noon", "07:05:00"])
def test_a_task_time_that_is_no_time_of_day_is_refused_before_anything_is_changed(installer: Installer, time: str) -> None:
    assert installer.msiexec("/i", installer.package(), f"TASKTIME={time}").exit_code == INSTALL_FAILURE
    assert f'TASKTIME is "{time}"; it must be a time of day such as 07:05' in installer.log
    assert not installer.machine.unix_path(PROGRAM).exists()


@pytest.mark.parametrize("before", [False, True], ids=["first installation", "a task was there"])
def test_a_step_that_fails_takes_back_the_task_that_this_installation_made_and_no_other(installer: Installer, before: bool) -> None:
    if before:
        installer.install()
        assert installer.has_task()
    failing = installer.folder / "failing.msi"
    shutil.copyfile(installer.package(NEWER), failing)
    # Without its data the action has no time of day, and fails.
    packaging.run("msibuild", str(failing), "-q",
                  "INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('Fail', 3073, 'LumarisSetup', 'make_task')")
    packaging.run("msibuild", str(failing), "-q", "INSERT INTO `InstallExecuteSequence` (`Action`, `Sequence`) VALUES ('Fail', 5900)")
    assert installer.msiexec("/i", failing, "CHANNEL=beta PROXYUSER=updates PROXYPASSWORD=Geslo-za-posrednika").exit_code == INSTALL_FAILURE
    assert ("Lumaris: kept the scheduled task that was there" if before else "Lumaris: made the scheduled task") in installer.log
    assert installer.has_task() == before
    for key, value in ((settings.UPDATER_KEY, "Channel"), (settings.PRODUCT_KEY, "ProxyUporabnik"), (settings.PRODUCT_KEY, "ProxyGeslo")):
        assert installer.machine.value(key, value) is None


def test_the_product_s_own_package_brings_the_updater_with_all_that_it_needs_and_takes_it_along(installer: Installer, world: World) -> None:
    machine, build = installer.machine, installer.bed.program_file.parents[2]
    sample = product.InstallerPackage.build_with_kit(installer.folder, machine.architecture, build)
    own = packaging.file_version(installer.bed.program_file)
    complaints = checks.check(sample.path, machine.architecture, sample.version)
    # All that is wrong with it here: it carries the programs of the version that updates to it.
    assert complaints == [f"{name} has the version {own}, not {sample.version}.0" for name in packaging.PROGRAMS]

    before = registry_without_us(machine)
    drive = Snapshot(machine.unix_path("C:\\").resolve())
    world.offer(content=sample.path.read_bytes())
    run = world.run(installer_ends=True)
    # The installer runs the package's actions in a process of its own.
    assert (run.exit_code, run.events, len(run.commands)) == (0, (), 1)
    assert {(each.image, each.exit_code) for each in run.left} == {("C:\\windows\\system32\\msiexec.exe", 0)}
    assert machine.unix_path(product.INSTALLED_FILE).read_text(encoding="ascii") == sample.file_text
    assert machine.unix_path(PROGRAM).read_bytes() == world.bed.program_file.read_bytes()
    assert machine.value(EVENTS, "EventMessageFile") == PROGRAM
    assert installer.has_task()

    assert installer.msiexec("/x", sample.path).exit_code == 0, installer.log[-3000:]
    after = [registry(machine, key) for key in ("HKLM\\Software", "HKLM\\System")]
    assert [line for pair in zip(before, after, strict=True) for line in changed(*pair)
            if not any(re.fullmatch(allowed, line) for allowed in UNAVOIDABLE)] == []
    assert set(drive.changes()) <= {"new d windows/Installer"}


def owners(machine: Windows) -> list[str]:
    """The packages that Windows knows as installed, by their names."""
    uninstall = registry(machine, "HKLM\\Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall")
    return sorted(value.strip('"') for name, value in uninstall.items() if name.endswith('-> "DisplayName"') and value.strip('"') in ("Lumaris", "Halvoro"))


def sample_with_kit(installer: Installer) -> product.InstallerPackage:
    """The product's own package. Wine does not tell the version that is being replaced so; see Installer.package."""
    sample = product.InstallerPackage.build_with_kit(installer.folder, installer.machine.architecture, installer.bed.program_file.parents[2])
    packaging.run("msibuild", str(sample.path), "-q", "UPDATE `Upgrade` SET `Remove` = 'Lumaris' WHERE `ActionProperty` = 'LUMARISALONE'")
    return sample


def test_the_first_update_to_the_product_s_own_package_leaves_one_owner(installer: Installer, world: World) -> None:
    machine = installer.machine
    drive = Snapshot(machine.unix_path("C:\\").resolve())
    installer.install(properties="CHANNEL=beta PROXYUSER=updates PROXYPASSWORD=Geslo-za-posrednika")
    task = installer.registered_task()
    machine.unix_path(TASK).write_bytes(machine.unix_path(TASK).read_bytes().replace(b"<Priority>7<", b"<Priority>5<"))
    assert owners(machine) == ["Lumaris"]
    assert str(machine.value(settings.UPDATER_KEY, "ProductCode")).startswith("{")
    sample = sample_with_kit(installer)
    world.offer(content=sample.path.read_bytes(), description="/Halvoro/Lumaris/win10-beta.txt")
    try:
        run = installer.start_task(task)
        assert (run.exit_code, run.events) == (0, ())
        assert {(each.image, each.exit_code) for each in run.left} == {("C:\\windows\\system32\\msiexec.exe", 0)}
        assert owners(machine) == ["Halvoro"]
        # What the removal command of the package of its own would take.
        assert machine.value(settings.UPDATER_KEY, "ProductCode") is None
        assert machine.unix_path(PROGRAM).read_bytes() == installer.bed.program_file.read_bytes()
        assert machine.unix_path(PROGRAM).with_name("lumaris_check.exe").exists()
        assert machine.value(EVENTS, "EventMessageFile") == PROGRAM
        assert b"<Priority>5<" in machine.unix_path(TASK).read_bytes()
        assert machine.value(settings.UPDATER_KEY, "Channel") == "beta"
        assert machine.value(settings.PRODUCT_KEY, "ProxyGeslo") == "Geslo-za-posrednika"
        assert (world.store / "Halvoro.ARM64.msi").exists()

        # And it stays the only one.
        assert installer.msiexec("/i", installer.package()).exit_code == INSTALL_FAILURE
        assert owners(machine) == ["Halvoro"]
    finally:
        removed = installer.msiexec("/x", sample.path)
    assert removed.exit_code == 0, installer.log[-3000:]
    assert owners(machine) == []
    assert not installer.has_task()
    assert set(drive.changes()) <= {"new d windows/Installer"}


@pytest.mark.any_processor
def test_the_product_s_own_package_does_not_take_the_place_of_a_newer_package_of_lumaris(installer: Installer) -> None:
    installer.install(NEWER)
    sample = sample_with_kit(installer)
    assert installer.msiexec("/i", sample.path).exit_code == INSTALL_FAILURE
    assert owners(installer.machine) == ["Lumaris"]
    assert installer.machine.unix_path(PROGRAM).exists()
    installer.remove(NEWER)


@pytest.mark.any_processor
def test_the_command_of_the_removal_is_in_the_registry(installer: Installer) -> None:
    installer.install()
    code = installer.machine.value(settings.UPDATER_KEY, "ProductCode")
    assert code == {row["Property"]: row["Value"] for row in packaging.table(installer.package(), "Property")}["ProductCode"]
    assert isinstance(code, str)
    assert installer.machine.run(f"msiexec /x {code} /qn /norestart", limit=120, settle=60).exit_code == 0
    assert owners(installer.machine) == []
    assert installer.machine.value(settings.UPDATER_KEY, "ProductCode") is None


# What Wine does not show is in the tables


@dataclass
class Tables:
    """A package, and what the checks say of it."""

    file: Path
    architecture: str

    def damage(self, *statements: str) -> list[str]:
        """Changes the tables."""
        for statement in statements:
            packaging.run("msibuild", str(self.file), "-q", statement)
        complaints: list[str] = checks.check(self.file, self.architecture, OWN)
        return complaints


@pytest.fixture
def tables(made: Installer) -> Iterator[Tables]:
    """A package whose tables a test may damage."""
    file = made.folder / "damaged.msi"
    shutil.copyfile(made.package(), file)
    yield Tables(file, made.machine.architecture)


def test_the_tables_of_the_package_are_as_they_must_be(tables: Tables) -> None:
    assert tables.damage() == []


@pytest.mark.any_processor
@pytest.mark.parametrize(("statement", "complaint"), [
    ("UPDATE `InstallExecuteSequence` SET `Sequence` = 6700 WHERE `Action` = 'LumarisMakeTask'",
     "the deferred action LumarisMakeTask has the number 6700, outside of 1500 to 6600"),
    ("UPDATE `InstallExecuteSequence` SET `Sequence` = 1401 WHERE `Action` = 'RemoveExistingProducts'",
     "RemoveExistingProducts has the number 1401: outside of the transaction a failure does not bring the former version back"),
    ("UPDATE `InstallExecuteSequence` SET `Condition` = 'REMOVE' WHERE `Action` = 'LumarisRemove'",
     "LumarisRemove also runs when a newer version removes this one"),
    ("UPDATE `InstallExecuteSequence` SET `Sequence` = 5850 WHERE `Action` = 'LumarisUnmakeTask'", "LumarisUnmakeTask does not come before LumarisMakeTask"),
    ("UPDATE `CustomAction` SET `Type` = 1025 WHERE `Action` = 'LumarisMakeTask'", "the deferred action LumarisMakeTask runs as the user"),
    ("UPDATE `CustomAction` SET `Type` = 3073 WHERE `Action` = 'LumarisStoreSettings'",
     "the action LumarisStoreSettings writes the proxy's password into the log"),
    ("UPDATE `InstallExecuteSequence` SET `Sequence` = 5900 WHERE `Action` = 'LumarisStoreSettings'",
     "LumarisStoreSettingsData does not come before LumarisStoreSettings\nPublishProduct does not come before LumarisStoreSettings"),
    ("UPDATE `Property` SET `Value` = 'LumarisStoreSettings' WHERE `Property` = 'MsiHiddenProperties'", "MsiHiddenProperties lacks PROXYPASSWORD"),
    ("UPDATE `Property` SET `Value` = '2' WHERE `Property` = 'ALLUSERS'", "ALLUSERS is not 1: the package is not per machine"),
    (f"UPDATE `Property` SET `Value` = '{NEWER}' WHERE `Property` = 'ProductVersion'", f"ProductVersion is {NEWER}, not {OWN}"),
    ("DELETE FROM `LaunchCondition` WHERE `Condition` = 'NOT WIX_DOWNGRADE_DETECTED'", "the package does not refuse to take the place of a newer version"),
    ("DELETE FROM `Upgrade` WHERE `ActionProperty` = 'WIX_DOWNGRADE_DETECTED'", "the package does not refuse to take the place of a newer version"),
    ("UPDATE `File` SET `Version` = '' WHERE `File` = 'lumaris.exe'", f"lumaris.exe has the version none, not {OWN}.0"),
    ("UPDATE `Component` SET `Attributes` = 0 WHERE `Component` = 'LumarisProgram'",
     "the component LumarisProgram is one of 32 bits: its registry values would go elsewhere"),
    ("UPDATE `MsiLockPermissionsEx` SET `SDDLText` = 'D:P(A;OICI;FA;;;WD)' WHERE `LockObject` = 'LumarisStore'",
     "the folder of the packages does not get its rights"),
    ("UPDATE `Property` SET `Value` = '/work/x/lumaris.exe' WHERE `Property` = 'Manufacturer'",
     "the table Property holds a path of the machine that built it: /work/x"),
    ("DELETE FROM `AppSearch` WHERE `Property` = 'LUMARISPRESENT'", "the package is installed beside the product's, which has brought the same"),
    ("UPDATE `File` SET `FileName` = 'other.txt' WHERE `File` = 'lumaris_notices.txt'", "the package does not carry the licences of the libraries"),
])
def test_a_package_with_a_damaged_table_is_refused(tables: Tables, statement: str, complaint: str) -> None:
    assert tables.damage(statement) == complaint.splitlines()


@pytest.mark.any_processor
@pytest.mark.parametrize(("statements", "complaint"), [
    (["DELETE FROM `Upgrade` WHERE `ActionProperty` = 'LUMARISALONE'"], "Lumaris's package of its own stays beside this one: two owners of the same files"),
    # 2: it is only looked for.
    (["DELETE FROM `Upgrade` WHERE `ActionProperty` = 'LUMARISALONE'",
      "INSERT INTO `Upgrade` (`UpgradeCode`, `VersionMin`, `Attributes`, `ActionProperty`) "
      "VALUES ('{2F5D8F4E-0A5B-4D77-9A07-6F7F2F0B9C40}', '0.0.0', 258, 'LUMARISALONE')"],
     "Lumaris's package of its own stays beside this one: two owners of the same files"),
    (["DELETE FROM `LaunchCondition` WHERE `Condition` = 'NOT LUMARISALONENEWER'"], "the package takes the place of a newer package of Lumaris's own"),
])
def test_a_product_s_package_that_leaves_two_owners_is_refused(made: Installer, statements: list[str], complaint: str) -> None:
    sample = product.InstallerPackage.build_with_kit(made.folder, made.machine.architecture, made.bed.program_file.parents[2])
    before = checks.check(sample.path, made.machine.architecture, sample.version)
    for statement in statements:
        packaging.run("msibuild", str(sample.path), "-q", statement)
    assert [each for each in checks.check(sample.path, made.machine.architecture, sample.version) if each not in before] == [complaint]


@pytest.mark.any_processor
@pytest.mark.parametrize("encoding", ["ascii", "utf-16-le"])
@pytest.mark.parametrize(("name", "place"), [("lumaris_check.exe", "cabinet"), ("lumaris_setup.dll", "binary table")])
def test_a_path_of_the_build_in_a_compressed_file_is_found(made: Installer, tmp_path: Path, name: str, place: str, encoding: str) -> None:
    for each in made.programs.iterdir():
        shutil.copyfile(each, tmp_path / each.name)
    shutil.copyfile(made.bed.program_file, tmp_path / "lumaris.exe")
    with (tmp_path / name).open("ab") as program:
        program.write("\0/home/somebody/main.cpp\0".encode(encoding) * 20)
    package = tmp_path / "lumaris.msi"
    packaging.make(tmp_path, made.machine.architecture, OWN, package)
    assert ("/home/somebody".encode(encoding) in package.read_bytes()) == (place == "binary table")
    named = {"lumaris_setup.dll": "LumarisSetup"}.get(name, name)
    assert checks.check(package, made.machine.architecture, OWN) == [f"{named} holds a path of the machine that built it: /home/somebody"]


@pytest.mark.any_processor
def test_no_code_or_id_has_changed_since_the_first_version(made: Installer) -> None:
    """Windows Installer knows by them what it has to replace, keep or remove."""
    package = made.package()
    assert {row["Component"]: row["ComponentId"] for row in packaging.table(package, "Component")} == {
        "LumarisStoreFolder": "{8D0F4B0E-66AB-4A44-9A55-5A86BB0BD101}", "LumarisProgram": "{8D0F4B0E-66AB-4A44-9A55-5A86BB0BD102}",
        "LumarisMakerFolder": "{8D0F4B0E-66AB-4A44-9A55-5A86BB0BD103}", "LumarisCheck": "{8D0F4B0E-66AB-4A44-9A55-5A86BB0BD104}",
        "LumarisNotices": "{8D0F4B0E-66AB-4A44-9A55-5A86BB0BD105}"}
    assert {row["File"] for row in packaging.table(package, "File")} == {"lumaris.exe", "lumaris_check.exe", "lumaris_notices.txt"}
    properties = {row["Property"]: row["Value"] for row in packaging.table(package, "Property")}
    assert properties["UpgradeCode"].upper() == packaging.ALONE == "{2F5D8F4E-0A5B-4D77-9A07-6F7F2F0B9C40}"
    assert {row["Directory"] for row in packaging.table(package, "Directory")} >= {"LumarisStore", "LumarisCommonMaker", "INSTALLDIR"}


@pytest.mark.any_processor
def test_the_package_brings_the_licence_of_every_library(installer: Installer) -> None:
    installer.install()
    text = installer.machine.unix_path(PROGRAM).with_name("lumaris_notices.txt").read_text(encoding="utf-8")
    for each in sorted((TREE / "packaging/notices").glob("*.txt")):
        assert each.read_text(encoding="utf-8").strip() in text.replace("\r\n", "\n")
    installer.remove()


@pytest.mark.any_processor
def test_a_package_for_another_processor_is_refused(tables: Tables) -> None:
    packaging.run("msibuild", str(tables.file), "-s", "Lumaris", "Tavrin", "Intel;1033")
    assert tables.damage() == ["the platform is Intel;1033, not x64;1033"]


@pytest.mark.any_processor
def test_two_packages_of_the_same_programs_are_the_same_bytes_and_smaller_than_program_and_150_kb(made: Installer) -> None:
    shutil.copyfile(made.bed.program_file, made.programs / "lumaris.exe")
    again = made.folder / "again.msi"
    packaging.make(made.programs, made.machine.architecture, OWN, again)
    first = made.folder / "first.msi"
    packaging.make(made.programs, made.machine.architecture, OWN, first)
    assert again.read_bytes() == first.read_bytes()
    assert first.stat().st_size <= made.bed.program_file.stat().st_size + 150 * 1024


@pytest.mark.any_processor
def test_the_signed_package_installs_and_its_manifest_is_that_of_the_package(installer: Installer, tmp_path: Path) -> None:
    signer = certificates.make_signing_certificate(tmp_path, installer.bed.authority, "Tavrin test")
    made = subprocess.run([
        sys.executable, str(TREE / "tools/installer"), "--build", str(installer.bed.program_file.parents[2]), "--architecture", "x64",
        "--output", str(tmp_path), "--certificate", str(signer.path), "--certificate-key", str(signer.key),
        "--authority", str(installer.bed.authority.path), "--url", "https://downloads.tavrin.example/lumaris/"],
        capture_output=True, text=True, timeout=120, check=False)
    assert (made.returncode, made.stderr) == (0, ""), made.stdout
    assert "Signature verification: ok" in made.stdout
    package, = tmp_path.glob("lumaris-*-x64.msi")
    # What administrators need beside it.
    with zipfile.ZipFile(tmp_path / f"lumaris-{OWN}-administrators.zip") as kit:
        assert kit.namelist() == ["administrators.md", "events/all.xml", "events/failures.xml", "events/subscription.xml", "policy/Lumaris.admx",
                                  "policy/en-US/Lumaris.adml", "policy/sl-SI/Lumaris.adml", "task.xml"]
        assert kit.read("task.xml") == (TREE / "packaging/installer/task.xml").read_bytes()
        assert {each.date_time for each in kit.infolist()} == {(2000, 1, 1, 0, 0, 0)}
    assert installer.msiexec("/i", package).exit_code == 0, installer.log[-3000:]
    # Its programs are signed, too: the one that is installed is larger than the one that was built.
    assert installer.machine.unix_path(PROGRAM).stat().st_size > installer.bed.program_file.stat().st_size
    assert installer.msiexec("/x", package).exit_code == 0

    manifest = yaml.safe_load(package.with_suffix(".yaml").read_text(encoding="ascii"))
    properties = {row["Property"]: row["Value"] for row in packaging.table(package, "Property")}
    described, = manifest["Installers"]
    assert manifest["PackageVersion"] == properties["ProductVersion"]
    assert manifest["RequireExplicitUpgrade"] is True
    assert described == {
        "Architecture": "x64", "InstallerUrl": f"https://downloads.tavrin.example/lumaris/{package.name}",
        "InstallerSha256": hashlib.sha256(package.read_bytes()).hexdigest().upper(), "ProductCode": properties["ProductCode"],
        "AppsAndFeaturesEntries": [{"UpgradeCode": properties["UpgradeCode"], "InstallerType": "msi"}]}


@pytest.mark.any_processor
def test_the_task_runs_as_system_daily_on_battery_too_once_and_not_for_ever() -> None:
    task = ElementTree.fromstring((TREE / "packaging/installer/task.xml").read_text(encoding="utf-8").partition("?>")[2])

    def text(path: str) -> str | None:
        return task.findtext("/".join(f"t:{part}" for part in path.split("/")), namespaces=NAMESPACE)

    assert text("Principals/Principal/UserId") == "S-1-5-18"
    assert text("Principals/Principal/RunLevel") == "HighestAvailable"
    assert text("Triggers/CalendarTrigger/ScheduleByDay/DaysInterval") == "1"
    assert text("Triggers/CalendarTrigger/RandomDelay") == "PT4H"
    assert text("Settings/DisallowStartIfOnBatteries") == "false"
    assert text("Settings/StopIfGoingOnBatteries") == "false"
    assert text("Settings/StartWhenAvailable") == "true"
    assert text("Settings/RunOnlyIfNetworkAvailable") == "false"
    assert text("Settings/MultipleInstancesPolicy") == "IgnoreNew"
    assert text("Settings/ExecutionTimeLimit") == "PT4H"
    assert text("Settings/Enabled") == "true"
    assert text("Actions/Exec/WorkingDirectory") == "%SystemRoot%\\System32"
