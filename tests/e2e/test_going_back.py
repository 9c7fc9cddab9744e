"""What a genuine new description does beside an older signed package: the client compares the description's number and nothing else, so the
package itself must refuse to go back."""

from __future__ import annotations

from collections.abc import Callable, Iterator

import pytest

from bed import package
from bed.windows import FinishedRun, windows_path
from world import PACKAGE, World

INSTALL_FAILURE = 1603


def install(world: World, made: package.InstallerPackage) -> None:
    """Somebody installs a package by hand."""
    run = world.machine.run(f'msiexec /i "{windows_path(made.path)}" /qn /norestart', limit=120, settle=60)
    assert run.exit_code == 0


def update(world: World, made: package.InstallerPackage) -> FinishedRun:
    """A client meets a description of 3.4.9 with this package behind it."""
    world.offer(version="3040900", package=None)
    world.publish(PACKAGE, made.path.read_bytes())
    run = world.run(installer_ends=True)
    world.assert_installs(run)
    return run


@pytest.fixture(name="build")
def build_fixture(world: World) -> Iterator[Callable[..., package.InstallerPackage]]:
    """Makes packages, and removes from the machine what came of them."""
    made: list[package.InstallerPackage] = []

    def build(version: str, *, guarded: bool = True) -> package.InstallerPackage:
        made.append(package.InstallerPackage.build(world.bed.network.work, world.machine.architecture, version, guarded=guarded))
        return made[-1]
    yield build
    for each in made:
        world.machine.run(f'msiexec /x "{windows_path(each.path)}" /qn /norestart', limit=120, settle=60)
    world.machine.unix_path(package.INSTALLED_FILE).unlink(missing_ok=True)


@pytest.fixture(name="newer")
def newer_fixture(world: World, build: Callable[..., package.InstallerPackage]) -> package.InstallerPackage:
    """A machine that has 3.4.2."""
    newer = build("3.4.2")
    install(world, newer)
    assert world.machine.value(package.REGISTRY_KEY, package.REGISTRY_VALUE) == "3.4.2"
    return newer


def test_an_older_package_without_a_guard_takes_the_newer_version_s_place(
        world: World, newer: package.InstallerPackage, build: Callable[..., package.InstallerPackage]) -> None:
    older = build("3.4.1", guarded=False)
    assert [each.exit_code for each in update(world, older).left] == [0]
    assert world.machine.value(package.REGISTRY_KEY, package.REGISTRY_VALUE) == "3.4.1"
    assert world.machine.unix_path(package.INSTALLED_FILE).read_text(encoding="ascii") == older.file_text
    assert newer.file_text != older.file_text


def test_an_older_package_with_a_guard_fails_and_the_newer_version_stays(
        world: World, newer: package.InstallerPackage, build: Callable[..., package.InstallerPackage]) -> None:
    older = build("3.4.1")
    assert [each.exit_code for each in update(world, older).left] == [INSTALL_FAILURE]
    assert world.machine.value(package.REGISTRY_KEY, package.REGISTRY_VALUE) == "3.4.2"
    assert world.machine.unix_path(package.INSTALLED_FILE).read_text(encoding="ascii") == newer.file_text
