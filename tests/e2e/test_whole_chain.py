"""The whole chain with real parts: nginx serves a real package, and the real installer installs it."""

from __future__ import annotations

from bed import package, traces, version
from bed.services import Nginx
from bed.update_server import Publication
from world import DESCRIPTION, FOLDER_URL, PACKAGE, World


def test_a_published_update_gets_installed(world: World) -> None:
    work = world.bed.network.work
    built = package.InstallerPackage.build(work, world.machine.architecture)
    published = Publication(work / "published", world.bed.key)
    published.description(DESCRIPTION, version.NEWER.offer, f"Halvoro {version.NEWER}", FOLDER_URL)
    published.file(PACKAGE, built.path.read_bytes())
    installed = world.machine.unix_path(package.INSTALLED_FILE)
    assert not installed.exists()

    with world.server_stopped(), Nginx(work / "nginx", published.folder):
        for _ in range(2):
            run = world.run(installer_ends=True)
            world.assert_installs(run)
            assert [each.exit_code for each in run.left] == [0]

    assert installed.read_text(encoding="ascii") == built.file_text
    assert world.machine.value(package.REGISTRY_KEY, package.REGISTRY_VALUE) == str(version.NEWER)
    assert (world.store / "Halvoro.ARM64.msi").read_bytes() == built.path.read_bytes()
    assert b"InstallFinalize. Return value 1" in (world.store / "Halvoro.ARM64.log").read_bytes().replace(b"\0", b"")


def test_the_event_source_is_opened_and_closed(world: World) -> None:
    world.offer(version=version.OWN.offer)
    run = world.run()
    world.assert_nothing_to_do(run)
    assert traces.event_sources(run.trace) == ["HalvoroUpdate", "closed"]
