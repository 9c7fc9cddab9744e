"""Faults of disks, folders and rights while an update is stored: what is said, what is left, and that the next run goes on.

The rights of files and folders hold for the programs of the bed as for anybody, although they run as root (bed/windows.py).
"""

from __future__ import annotations

import shutil
from collections.abc import Callable, Iterator
from contextlib import AbstractContextManager, contextmanager
from pathlib import Path

import pytest

from bed.isolation import PAGE
from bed.snapshot import nothing_else_changes
from bed.windows import (
    DELETE,
    GENERIC_READ,
    GENERIC_WRITE,
    READ_ATTRIBUTES,
    SHARE_DELETE,
    SHARE_READ,
    SHARE_WRITE,
    FinishedRun,
    windows_path,
)
from world import DESCRIPTION, PACKAGE, PACKAGE_CONTENT, World

QUICK = pytest.mark.any_processor
STORED = "Halvoro.ARM64.msi"
LOG = "Halvoro.ARM64.log"

LOADED = [DESCRIPTION + ".minisig", DESCRIPTION, PACKAGE + ".minisig", PACKAGE]
NOT_OPENED = LOADED[:2]

PAGES = 7  # that the package takes on a disk
assert (PAGES - 1) * PAGE < len(PACKAGE_CONTENT) <= PAGES * PAGE

Fault = Callable[[World], AbstractContextManager[object]]


def assert_fails(world: World, message: str, targets: list[str]) -> FinishedRun:
    """The run ends with this message, has gone as far as these requests, and has changed nothing outside its folder."""
    world.server.requests.clear()
    with nothing_else_changes(world.machine, [world.maker_folder]):
        run = world.run()
    world.assert_failed(run, message)
    assert world.targets == targets
    return run


def assert_recovers(world: World) -> None:
    """A run without the fault downloads and installs the package."""
    world.server.requests.clear()
    with nothing_else_changes(world.machine, [world.maker_folder]):
        world.assert_installs(world.run())
    assert world.targets == LOADED
    assert (world.store / STORED).read_bytes() == PACKAGE_CONTENT


# Full disks


@pytest.mark.parametrize("pages", range(PAGES))
def test_a_disk_that_is_full_after_so_many_pages(world: World, pages: int) -> None:
    world.offer()
    world.store.mkdir(parents=True)
    with world.bed.network.disk_at(world.store, 16 * PAGE) as disk:
        disk.fill(but=pages * PAGE)
        assert_fails(world, "Failed to load content: Disk full.", LOADED)
        # What found room remains: the next run checks it, finds it short, and writes over it.
        assert (world.store / STORED).read_bytes() == PACKAGE_CONTENT[:pages * PAGE]
        disk.resize(16 * PAGE)
        assert_recovers(world)


def test_a_disk_with_just_enough_room_for_the_package(world: World) -> None:
    """The installer is started; that it has no room for its log is its own affair."""
    world.offer()
    world.store.mkdir(parents=True)
    with world.bed.network.disk_at(world.store, 16 * PAGE) as disk:
        disk.fill(but=PAGES * PAGE)
        run = world.run(installer_ends=True)
        world.assert_installs(run)
        assert (world.store / STORED).read_bytes() == PACKAGE_CONTENT
        assert (world.store / LOG).read_bytes() == b""


def test_a_stale_package_is_replaced_on_a_full_disk_in_the_room_that_it_takes(world: World) -> None:
    world.offer()
    world.store.mkdir(parents=True)
    with world.bed.network.disk_at(world.store, 16 * PAGE) as disk:
        (world.store / STORED).write_bytes(b"x" * PAGES * PAGE)
        disk.fill()
        assert_recovers(world)


# Folders and files that cannot be made, opened or written


def below(folder: Callable[[World], Path], **settings: bool | int) -> Fault:
    """An empty disk in the place of this folder, without room for a single file, or one that cannot be written."""
    @contextmanager
    def fault(world: World) -> Iterator[None]:
        place = folder(world)
        place.mkdir(parents=True, exist_ok=True)
        with world.bed.network.disk_at(place, PAGE, **settings):  # type: ignore[arg-type]
            yield
    return fault


def rights(folder: Callable[[World], Path], mode: int) -> Fault:
    """The folder has only these rights."""
    @contextmanager
    def fault(world: World) -> Iterator[None]:
        place = folder(world)
        place.mkdir(parents=True, exist_ok=True)
        place.chmod(mode)
        try:
            yield
        finally:
            place.chmod(0o755)
    return fault


def package_rights(mode: int) -> Fault:
    """A stale package with only these rights."""
    @contextmanager
    def fault(world: World) -> Iterator[None]:
        world.store.mkdir(parents=True)
        (world.store / STORED).write_bytes(b"stale")
        (world.store / STORED).chmod(mode)
        try:
            yield
        finally:
            (world.store / STORED).chmod(0o644)
    return fault


def file_at(folder: Callable[[World], Path]) -> Fault:
    """A file has the place of the folder."""
    @contextmanager
    def fault(world: World) -> Iterator[None]:
        place = folder(world)
        aside = place.with_name("aside")
        place.parent.mkdir(parents=True, exist_ok=True)
        if place.exists():
            place.rename(aside)
        place.write_bytes(b"not a folder")
        try:
            yield
            assert place.read_bytes() == b"not a folder"
        finally:
            place.unlink()
            if aside.exists():
                aside.rename(place)
    return fault


def program_files(world: World) -> Path:
    """The folder of programs."""
    return world.maker_folder.parent.parent


def common(world: World) -> Path:
    """The folder of what programs share, in which the maker's folder is made."""
    return world.maker_folder.parent


def maker(world: World) -> Path:
    """The maker's folder."""
    return world.maker_folder


def store(world: World) -> Path:
    """The updater's folder."""
    return world.store


NO_COMMON = "SHGetKnownFolderPath(KF_FLAG_CREATE) failed: "
NO_MAKER = "Failed to create Common subfolder Tavrin: "
NO_STORE = "Failed to create Common\\Tavrin subfolder Lumaris: "
NO_PACKAGE = "Failed to open file: "


@pytest.mark.parametrize(("fault", "message"), [
    pytest.param(below(program_files, files=0), NO_COMMON + "Call failed.", marks=QUICK, id="no room for the common folder"),
    pytest.param(below(program_files, read_only=True), NO_COMMON + "Call failed.", marks=QUICK, id="no common folder on a read-only disk"),
    pytest.param(file_at(common), NO_MAKER + "Path not found.", marks=QUICK, id="common folder is a file"),
    pytest.param(below(common, files=0), NO_MAKER + "Disk full.", marks=QUICK, id="no room for the maker's folder"),
    pytest.param(below(common, read_only=True), NO_MAKER + "Access denied.", marks=QUICK, id="no maker's folder on a read-only disk"),
    pytest.param(rights(common, 0o555), NO_MAKER + "Access denied.", id="no right to make the maker's folder"),
    pytest.param(below(maker, files=0), NO_STORE + "Disk full.", marks=QUICK, id="no room for the updater's folder"),
    pytest.param(below(maker, read_only=True), NO_STORE + "Access denied.", marks=QUICK, id="no updater's folder on a read-only disk"),
    pytest.param(rights(maker, 0o555), NO_STORE + "Access denied.", marks=QUICK, id="no right to make the updater's folder"),
    pytest.param(rights(maker, 0), NO_STORE + "Access denied.", marks=QUICK, id="no right to look into the maker's folder"),
    pytest.param(file_at(store), NO_PACKAGE + "Path not found.", id="updater's folder is a file"),
    pytest.param(below(store, files=0), NO_PACKAGE + "Disk full.", id="no room for another file"),
    pytest.param(below(store, read_only=True), NO_PACKAGE + "Access denied.", id="read-only disk"),
    pytest.param(rights(store, 0o555), NO_PACKAGE + "Access denied.", id="no right to make the package"),
    pytest.param(rights(store, 0), NO_PACKAGE + "Access denied.", marks=QUICK, id="no right to look into the updater's folder"),
    pytest.param(package_rights(0o444), NO_PACKAGE + "Access denied.", id="read-only package"),
    pytest.param(package_rights(0o222), NO_PACKAGE + "Access denied.", marks=QUICK, id="unreadable package"),
    pytest.param(package_rights(0), NO_PACKAGE + "Access denied.", marks=QUICK, id="package without any right"),
])
def test_a_place_that_cannot_be_written_is_named_and_asked_no_server_for(world: World, fault: Fault, message: str) -> None:
    world.offer()
    with fault(world):
        assert_fails(world, message, NOT_OPENED)
    assert_recovers(world)


@pytest.mark.any_processor
def test_a_read_only_package_is_not_used_although_it_is_the_one_that_is_wanted(world: World) -> None:
    """It is opened for writing before anything is known about it."""
    world.offer()
    world.assert_installs(world.run())
    (world.store / STORED).chmod(0o444)
    assert_fails(world, "Failed to open file: Access denied.", NOT_OPENED)
    (world.store / STORED).chmod(0o644)
    world.assert_installs(world.run())


# Packages that others have open


@pytest.mark.parametrize(("access", "share", "opened"), [
    pytest.param(GENERIC_READ, 0, False, id="for reading, shared for nothing"),
    pytest.param(GENERIC_READ, SHARE_READ, False, id="for reading, shared for reading"),
    pytest.param(GENERIC_READ, SHARE_WRITE, False, marks=QUICK, id="for reading, shared for writing"),
    pytest.param(GENERIC_READ, SHARE_DELETE, False, marks=QUICK, id="for reading, shared for deleting"),
    pytest.param(GENERIC_READ, SHARE_READ | SHARE_DELETE, False, marks=QUICK, id="for reading, shared for all but writing"),
    pytest.param(GENERIC_READ, SHARE_WRITE | SHARE_DELETE, False, marks=QUICK, id="for reading, shared for all but reading"),
    pytest.param(GENERIC_READ, SHARE_READ | SHARE_WRITE, True, id="for reading, shared for reading and writing"),
    pytest.param(GENERIC_READ, SHARE_READ | SHARE_WRITE | SHARE_DELETE, True, marks=QUICK, id="for reading, shared for all"),
    pytest.param(GENERIC_WRITE, SHARE_READ | SHARE_WRITE | SHARE_DELETE, False, marks=QUICK, id="for writing, shared for all"),
    pytest.param(DELETE, SHARE_READ | SHARE_WRITE | SHARE_DELETE, False, marks=QUICK, id="for deleting, shared for all"),
    pytest.param(READ_ATTRIBUTES, 0, True, marks=QUICK, id="to look at its size, shared for nothing"),
])
def test_a_package_that_another_program_has_open(world: World, access: int, share: int, opened: bool) -> None:
    """Readers do not hinder, as far as they let others write. Nobody may write or delete what is being verified."""
    world.offer()
    world.store.mkdir(parents=True)
    package = world.store / STORED
    package.write_bytes(b"stale")
    with world.machine.held_open(package, access, share):
        if opened:
            assert_recovers(world)
            return
        assert_fails(world, "Failed to open file: Sharing violation.", NOT_OPENED)
        assert package.read_bytes() == b"stale"
    assert_recovers(world)


# The installer's log


@pytest.mark.any_processor
@pytest.mark.parametrize("kind", ["folder", "read-only", "held"])
def test_a_log_that_cannot_be_written_does_not_keep_the_installer_from_being_started(world: World, kind: str) -> None:
    world.offer()
    world.store.mkdir(parents=True)
    log = world.store / LOG
    if kind == "folder":
        log.mkdir()
    else:
        log.write_bytes(b"an earlier log")
    if kind == "read-only":
        log.chmod(0o444)
    if kind == "held":
        with world.machine.held_open(log, GENERIC_READ, 0):
            world.assert_installs(world.run(installer_ends=True))
    else:
        world.assert_installs(world.run(installer_ends=True))
    assert log.is_dir() if kind == "folder" else log.read_bytes() == b"an earlier log"


# Links


@pytest.fixture
def elsewhere(world: World) -> Iterator[Path]:
    """A folder on drive C: that has nothing to do with the updater."""
    folder = world.machine.unix_path("C:\\elsewhere").resolve()
    folder.mkdir()
    yield folder
    for link in (world.store / STORED, world.store, world.maker_folder):
        if link.is_symlink():
            link.unlink()
    shutil.rmtree(folder)


@pytest.mark.parametrize("linked", ["maker", "store", "package"])
def test_a_link_is_followed(world: World, elsewhere: Path, linked: str) -> None:
    """Who can place one there has the rights of an administrator, and needs no updater to write anywhere."""
    world.offer()
    place = {"maker": world.maker_folder, "store": world.store, "package": world.store / STORED}[linked]
    place.parent.mkdir(parents=True, exist_ok=True)
    target = elsewhere / "package" if linked == "package" else elsewhere
    place.symlink_to(target)
    expected = {"maker": elsewhere / "Lumaris" / STORED, "store": elsewhere / STORED, "package": target}[linked]
    with nothing_else_changes(world.machine, [world.maker_folder, elsewhere]):
        world.assert_installs(world.run())
    assert expected.read_bytes() == PACKAGE_CONTENT
    assert place.is_symlink()


@pytest.mark.any_processor
def test_a_file_that_a_link_leads_to_is_replaced(world: World, elsewhere: Path) -> None:
    world.offer()
    (elsewhere / "file").write_bytes(b"y" * 50000)
    world.store.mkdir(parents=True)
    (world.store / STORED).symlink_to(elsewhere / "file")
    world.assert_installs(world.run())
    assert (elsewhere / "file").read_bytes() == PACKAGE_CONTENT


@pytest.mark.parametrize(("linked", "message"), [
    ("maker", NO_STORE),
    pytest.param("store", NO_PACKAGE, marks=QUICK),
    pytest.param("package", NO_PACKAGE, marks=QUICK),
])
@pytest.mark.parametrize(("target", "reason"), [
    ("nowhere/at/all", "File not found."),
    pytest.param("itself", "The filename cannot be resolved.", marks=QUICK),
])
def test_a_link_that_leads_nowhere(world: World, elsewhere: Path, linked: str, message: str, target: str, reason: str) -> None:
    world.offer()
    place = {"maker": world.maker_folder, "store": world.store, "package": world.store / STORED}[linked]
    place.parent.mkdir(parents=True, exist_ok=True)
    place.symlink_to(place.name if target == "itself" else elsewhere / target)
    assert_fails(world, message + reason, NOT_OPENED)
    assert list(elsewhere.iterdir()) == []
    place.unlink()
    assert_recovers(world)


# Long names


@pytest.mark.parametrize("length", [259, pytest.param(260, marks=QUICK), 261])
def test_a_variant_that_makes_a_long_path_is_not_cut(world: World, length: int) -> None:
    """A path of 259 characters is the longest that every Windows opens; the system of this bed opens longer ones, too."""
    variant = "-" + "v" * (length - len(world.store_path + STORED) - 1)
    base = "Halvoro.ARM64" + variant
    assert len(world.store_path + base + ".msi") == length
    world.offer(package=f"/Halvoro/3.4.1/{base}.msi")
    run = world.run(variant, installer_ends=True)
    assert (run.exit_code, run.events) == (0, ())
    assert sorted(each.name for each in world.store.iterdir()) == [base + ".log", base + ".msi"]
    assert (world.store / (base + ".msi")).read_bytes() == PACKAGE_CONTENT


@pytest.mark.parametrize("length", [256, pytest.param(5000, marks=QUICK)])
def test_a_variant_that_makes_a_name_too_long_for_the_disk(world: World, length: int) -> None:
    world.offer(package=None)
    run = world.run("-" + "v" * (length - len(STORED) - 1))
    world.assert_failed(run, "Failed to open file: File not found.")
    assert world.targets == NOT_OPENED
    assert list(world.store.iterdir()) == []


# The temporary folder of a run without elevation


@pytest.fixture
def plain(world: World) -> str:
    """The program with a manifest that asks for no elevation."""
    manifest = b'level="requireAdministrator"'
    image = world.bed.program_file.read_bytes()
    assert image.count(manifest) == 1
    patched = world.bed.network.work / "plain.exe"
    patched.write_bytes(image.replace(manifest, b'level="asInvoker"'.ljust(len(manifest))))
    return world.machine.install(patched, "plain.exe")


@pytest.fixture
def temporary(world: World, tmp_path_factory: pytest.TempPathFactory) -> Iterator[Path]:
    """A folder of its own for temporary files, for the programs of this test. It is not made yet."""
    top = world.bed.network.work / "temporary"
    top.mkdir()
    folder = top / "mapa s piko.tmp in šumniki 日本"
    world.machine.set_environment("TMP", windows_path(folder))
    yield folder
    world.machine.set_environment("TMP", "")
    shutil.rmtree(top)


def assert_stored_in(world: World, plain: str, folder: Path) -> None:
    """The program downloads the package into this folder and starts the installer on it."""
    world.server.requests.clear()
    with nothing_else_changes(world.machine):
        world.assert_installs(world.run(program=plain), folder=windows_path(folder) + "\\")
    assert (folder / STORED).read_bytes() == PACKAGE_CONTENT
    assert world.targets == LOADED


def test_a_temporary_folder_may_have_any_name(world: World, plain: str, temporary: Path) -> None:
    world.offer()
    temporary.mkdir()
    assert_stored_in(world, plain, temporary)


@pytest.mark.parametrize(("kind", "message"), [
    ("missing", "Path not found."),
    pytest.param("file", "Path not found.", marks=QUICK),
    pytest.param("no right", "Access denied.", marks=QUICK),
])
def test_a_temporary_folder_that_cannot_be_used(world: World, plain: str, temporary: Path, kind: str, message: str) -> None:
    world.offer()
    if kind == "file":
        temporary.write_bytes(b"")
    elif kind == "no right":
        temporary.mkdir(0o555)
    with nothing_else_changes(world.machine):
        world.assert_failed(world.run(program=plain), "Failed to open file: " + message)
    assert world.targets == NOT_OPENED
    if kind == "file":
        temporary.unlink()
    temporary.mkdir(exist_ok=True)
    temporary.chmod(0o755)
    assert_stored_in(world, plain, temporary)


@pytest.mark.any_processor
def test_a_full_disk_of_temporary_files(world: World, plain: str, temporary: Path) -> None:
    world.offer()
    temporary.mkdir()
    with world.bed.network.disk_at(temporary, 16 * PAGE) as disk:
        disk.fill(but=PAGE)
        with nothing_else_changes(world.machine):
            world.assert_failed(world.run(program=plain), "Failed to load content: Disk full.")
        disk.resize(16 * PAGE)
        assert_stored_in(world, plain, temporary)


def long_folder(top: Path, length: int) -> Path:
    """A folder whose Windows path with its last backslash has so many characters."""
    rest = length - len(windows_path(top) + "\\") - 1
    folder = top / ("a" * (rest // 2)) / ("b" * (rest - rest // 2 - 1))
    folder.mkdir(parents=True)
    assert len(windows_path(folder) + "\\") == length
    return folder


# The lengths of the folder for which the package has paths of 259, 260 and 261 characters, and the longest that the system reports.
@pytest.mark.parametrize("length", [242, pytest.param(243, marks=QUICK), pytest.param(244, marks=QUICK), 259])
def test_a_long_temporary_folder_is_not_cut(world: World, plain: str, temporary: Path, length: int) -> None:
    folder = long_folder(temporary, length)
    world.machine.set_environment("TMP", windows_path(folder))
    world.offer()
    run = world.run(program=plain, installer_ends=True)
    assert (run.exit_code, run.events) == (0, ())
    assert sorted(each.name for each in folder.iterdir()) == [LOG, STORED]
    assert (folder / STORED).read_bytes() == PACKAGE_CONTENT


@pytest.mark.parametrize("length", [260, pytest.param(261, marks=QUICK), pytest.param(1000, marks=QUICK)])
def test_a_temporary_folder_whose_path_is_too_long_is_none(world: World, plain: str, temporary: Path, length: int) -> None:
    world.machine.set_environment("TMP", (windows_path(temporary.parent) + "\\" + "t" * 1000)[:length - 1])
    world.offer()
    world.assert_failed(world.run(program=plain), "GetTempPath failed: File name is too long.")
    assert world.targets == NOT_OPENED


@pytest.mark.any_processor
def test_without_a_setting_the_temporary_folder_is_that_of_the_system_s_choice(world: World, plain: str) -> None:
    """Windows takes the user's profile then."""
    before = {name: value for name in ("TMP", "TEMP") if (value := world.machine.expand(f"%{name}%")) != f"%{name}%"}
    profile = world.machine.expand("%USERPROFILE%") + "\\"
    package = world.machine.unix_path(profile + STORED)
    world.offer()
    try:
        for name in before:
            world.machine.set_environment(name, "")
        with nothing_else_changes(world.machine, [package]):
            world.assert_installs(world.run(program=plain), folder=profile)
        assert package.read_bytes() == PACKAGE_CONTENT
    finally:
        package.unlink(missing_ok=True)
        for name, value in before.items():
            world.machine.set_environment(name, value)
