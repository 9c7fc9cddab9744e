"""From the publisher's kit over nginx to the program and the installer, and from there on with the program that was installed."""

from __future__ import annotations

import os
import shutil
import signal
import subprocess
import sys
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path

import pytest

from bed import isolation, package
from bed import version as versions
from bed.services import NginxWith
from bed.signing import KeyPair
from bed.windows import FinishedRun, windows_path
from conftest import TIME_LIMIT
from world import World

TREE = Path(__file__).resolve().parents[2]
sys.path.append(str(TREE / "tools/publish"))

from lumaris_publish import serverconfig, settings  # noqa: E402  (the path to it is set above)

INSTALLED = "C:\\Program Files\\Tavrin\\Halvoro\\lumaris.exe"
OLD_HOST, NEW_HOST = isolation.UPDATE_HOST, isolation.PACKAGE_HOST
REASON = "hosts of the test bed"


@dataclass(frozen=True)
class Publisher:
    """Somebody who publishes with the kit."""

    root: Path
    key: KeyPair

    def __call__(self, *arguments: str) -> None:
        """Gives a command."""
        done = subprocess.run([sys.executable, "-m", "lumaris_publish", "--root", str(self.root), *arguments], capture_output=True, text=True,
                              timeout=60, check=False, env={**os.environ, "PYTHONPATH": str(TREE / "tools/publish"),
                                                            "LUMARIS_JUDGE": str(TREE / "build/native-asan/tools/publish/lumaris_judge")})
        assert done.returncode == 0, done.stdout + done.stderr

    def publish(self, made: Path, version: versions.Version) -> None:
        """Stages a package and offers it on the channel of the machines."""
        self("stage", str(made), "--key", str(self.key.secret), "--accept", REASON)
        self("offer", str(version), "--channel", "stable", "--key", str(self.key.secret))

    def server(self) -> str:
        """What nginx is to be configured with."""
        return serverconfig.nginx(settings.load(self.root), self.root / "public", listen="127.0.0.1:80", log=str(self.root / "access.log"))


@dataclass
class Factory:
    """Builds programs and packages of them."""

    world: World
    folder: Path
    second_key: KeyPair
    made: list[Path]

    def package(self, version: versions.Version, *, key: KeyPair | None = None, host: str = OLD_HOST) -> Path:
        """A package with the program of its version in it, built so."""
        architecture = self.world.machine.architecture
        build = TREE / f"build/chain-{architecture}"
        with unlimited(architecture):
            _run("cmake", "--preset", f"{architecture}-test", "-B", str(build), f"-DLUMARIS_VERSION={version}", f"-DLUMARIS_UPDATE_HOST={host}",
                 f"-DLUMARIS_PUBLIC_KEY={(key or self.world.bed.key).line}")
            _run("ninja", "-C", str(build), "lumaris")
        folder = self.folder / f"{version}-{host}"
        folder.mkdir(exist_ok=True)
        shutil.copy(build / "src/updater/lumaris.exe", folder / "lumaris.exe")
        made = package.InstallerPackage.build(folder, architecture, str(version), program=folder / "lumaris.exe").path
        self.made.append(made)
        return made


def _run(*arguments: str) -> None:
    done = subprocess.run(arguments, cwd=TREE, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=900,
                          check=False)
    assert done.returncode == 0, f"{arguments}\n{done.stdout[-4000:]}"


@contextmanager
def unlimited(architecture: str) -> Iterator[None]:
    """Building takes as long as it takes; the test's own limit begins anew."""
    signal.alarm(0)
    try:
        yield
    finally:
        signal.alarm(TIME_LIMIT[architecture])


@pytest.fixture(name="factory")
def factory_fixture(world: World) -> Iterator[Factory]:
    folder = world.bed.network.work / "chain"
    folder.mkdir()
    # Kept, so that the next build finds everything done; one for each processor, whose tests run side by side.
    keys = TREE / f"build/chain-keys-{world.machine.architecture}"
    keys.mkdir(parents=True, exist_ok=True)
    second = KeyPair(keys / "second.pub", keys / "second.key")
    if not second.secret.exists():
        second = KeyPair.make(keys, "second")
    factory = Factory(world, folder, second, [])
    yield factory
    clean(factory)
    shutil.rmtree(folder)


def clean(factory: Factory) -> None:
    """Nothing of what was installed remains."""
    machine = factory.world.machine
    for made in reversed(factory.made):
        machine.run(f'msiexec /x "{windows_path(made)}" /qn /norestart', limit=120, settle=60)
    for file in (INSTALLED, package.INSTALLED_FILE):
        machine.unix_path(file).unlink(missing_ok=True)


@pytest.fixture(name="publisher")
def publisher_fixture(world: World, factory: Factory) -> Publisher:
    """A publication for the host and the key of the program under test."""
    publisher = Publisher(factory.folder / "publication", world.bed.key)
    publisher("init", str(publisher.root), "--host", OLD_HOST, "--public-key", world.bed.key.line, "--architecture", world.machine.architecture)
    return publisher


@pytest.fixture(name="serve")
def serve_fixture(world: World, factory: Factory) -> Callable[..., NginxWith]:
    """nginx with what the kit has written for these publications."""
    def serve(*publishers: Publisher) -> NginxWith:
        return NginxWith(factory.folder / f"nginx-{len(publishers)}", "\n".join(each.server() for each in publishers), 80)
    return serve


def update(world: World, version: versions.Version, *, program: str | None = None) -> None:
    """A run that must install this version."""
    run = world.run(program=program, installer_ends=True)
    # The version before is removed by an installer of its own.
    assert (run.exit_code, run.events, {each.exit_code for each in run.left}) == (0, (), {0}), run
    assert world.machine.value(package.REGISTRY_KEY, package.REGISTRY_VALUE) == str(version)


def assert_nothing_to_do(world: World, *, program: str | None = INSTALLED) -> FinishedRun:
    """A run that must do nothing."""
    run = world.run(program=program, installer_ends=True)
    world.assert_nothing_to_do(run)
    return run


def test_machines_pass_from_version_to_version_and_then_rest(world: World, factory: Factory, publisher: Publisher,
                                                             serve: Callable[..., NginxWith]) -> None:
    newer, newest = factory.package(versions.NEWER), factory.package(versions.NEWEST)
    with world.server_stopped(), serve(publisher):
        publisher.publish(newer, versions.NEWER)
        update(world, versions.NEWER)
        assert_nothing_to_do(world)
        publisher.publish(newest, versions.NEWEST)
        update(world, versions.NEWEST, program=INSTALLED)
        assert_nothing_to_do(world)
        # The older description with the newer package behind it: that installs, and its program rests.
        clean(factory)
        publisher("withdraw", str(versions.NEWEST), "--channel", "stable", "--key", str(publisher.key.secret))
        target = publisher.root / f"public/packages/{versions.NEWER}"
        for name in ("Halvoro.ARM64.msi", "Halvoro.ARM64.msi.minisig"):
            (target / name).unlink()
            shutil.copy(publisher.root / f"public/packages/{versions.NEWEST}/{name}", target / name)
        update(world, versions.NEWEST)
        assert_nothing_to_do(world)
    agents = {line.rsplit('"', 2)[1] for line in (publisher.root / "access.log").read_text(encoding="ascii").splitlines()}
    assert agents == {f"Lumaris/{each}" for each in (versions.OWN, versions.NEWER, versions.NEWEST)}


def test_a_key_is_passed_on_over_a_bridge_and_a_machine_that_slept_crosses_later(world: World, factory: Factory, publisher: Publisher,
                                                                                 serve: Callable[..., NginxWith]) -> None:
    bridge = factory.package(versions.NEWER, key=factory.second_key, host=NEW_HOST)
    later = factory.package(versions.NEWEST, key=factory.second_key, host=NEW_HOST)
    new = Publisher(factory.folder / "new", factory.second_key)
    publisher("keys", "rotate", str(new.root), "--host", NEW_HOST, "--public-key", factory.second_key.line)
    with world.server_stopped(), serve(publisher, new):
        publisher.publish(bridge, versions.NEWER)
        new.publish(bridge, versions.NEWER)
        update(world, versions.NEWER)  # at the old host, under the old key
        assert_nothing_to_do(world)  # at the new one
        new.publish(later, versions.NEWEST)
        update(world, versions.NEWEST, program=INSTALLED)
        assert_nothing_to_do(world)
        # Another machine has slept all the time. The old host still serves the bridge.
        clean(factory)
        update(world, versions.NEWER)
        update(world, versions.NEWEST, program=INSTALLED)
        assert_nothing_to_do(world)
    asked = {(line.split()[2], line.rsplit('"', 2)[1]) for each in (publisher, new)
             for line in (each.root / "access.log").read_text(encoding="ascii").splitlines()}
    assert asked == {(OLD_HOST, f"Lumaris/{versions.OWN}"), (NEW_HOST, f"Lumaris/{versions.NEWER}"), (NEW_HOST, f"Lumaris/{versions.NEWEST}")}


def test_a_client_says_in_which_set_it_began(world: World, factory: Factory, publisher: Publisher) -> None:
    publisher.publish(factory.package(versions.NEWER), versions.NEWER)
    block = publisher.server().replace("$http_referer", "$http_cookie")
    with world.server_stopped(), NginxWith(factory.folder / "nginx", block, 80):
        update(world, versions.NEWER)
    log = (publisher.root / "access.log").read_text(encoding="ascii").splitlines()
    assert [(line.split('"')[1].split()[1].rpartition("/")[2], line.split('"')[3]) for line in log[:2]] == [
        ("win10-stable.txt.minisig", "-"), ("win10-stable.txt", "lumaris_set=000001")]
