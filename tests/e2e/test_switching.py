"""What the program sees while a publication switches from one version to another, and whoever publishes is killed at any step of it."""

from __future__ import annotations

import itertools
import os
import shutil
import signal
import struct
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path

import pytest

from bed import package
from bed import version as versions
from bed.services import NginxWith
from test_publishing import OLD_HOST, REASON, TREE, Publisher, unlimited
from world import World

from lumaris_publish import judge, serverconfig, settings  # isort: skip

# What a client makes of two files is the same on every processor; here it is how often it can ask that counts.
pytestmark = pytest.mark.any_processor

JUDGE = TREE / "build/native-asan/tools/publish/lumaris_judge"
ENDED = 77  # kill_at.py: the kit had ended before
TORN = "Invalid Minisign signature"
# Nobody listens there: who is offered the newer version says so, and installs nothing.
PACKAGES = "http://127.0.0.1:9/packages/"
# The calls of rsync that change what stands under a name.
CHANGES = "rename,renameat,renameat2,symlink,symlinkat,link,linkat,unlink,unlinkat,mkdir,mkdirat,rmdir"
# Every so many steps, unless all are asked for.
STEP = 4


class Switching:
    """A publication with two versions, one of which is the clients' own, and clients that ask again and again."""

    def __init__(self, world: World, folder: Path, every_step: bool) -> None:
        self.world = world
        self.publisher = Publisher(folder / "publication", world.bed.key)
        self.folder = folder
        self.step = 1 if every_step else STEP
        architecture = world.machine.architecture
        self.publisher("init", str(self.publisher.root), "--host", OLD_HOST, "--public-key", world.bed.key.line, "--architecture", architecture,
                       "--packages", PACKAGES)
        self.packages = {version: self._package(version) for version in (versions.OWN, versions.NEWER)}
        for made in self.packages.values():
            self.publisher("stage", str(made), "--key", str(world.bed.key.secret), "--accept", REASON)
        self.offered = versions.OWN
        self.publisher(*self.offer(versions.OWN))

    def _package(self, version: versions.Version) -> Path:
        """A package with the program of this version, as far as its own version block says it."""
        image = bytearray(self.world.bed.program_file.read_bytes())
        major, minor, build = (int(part) for part in str(version).split("."))
        struct.pack_into("<HHHH", image, image.index(struct.pack("<I", 0xFEEF04BD)) + 8, minor, major, 0, build)
        folder = self.folder / f"package-{version}"
        folder.mkdir()
        (folder / "lumaris.exe").write_bytes(image)
        return package.InstallerPackage.build(folder, self.world.machine.architecture, str(version), program=folder / "lumaris.exe").path

    def offer(self, version: versions.Version) -> list[str]:
        """The command that offers it, be it higher or lower than what is offered."""
        return ["offer", str(version), "--channel", "stable", "--key", str(self.world.bed.key.secret), "--accept", "there and back"]

    @property
    def other(self) -> versions.Version:
        """What is not offered."""
        return versions.NEWER if self.offered == versions.OWN else versions.OWN

    def start(self, *command: str, environment: dict[str, str] | None = None, kill_at: int | None = None) -> subprocess.Popen[bytes]:
        """Gives a command, and goes on. It may be killed before its change of the disk with this number."""
        program = ["-m", "lumaris_publish"] if kill_at is None else [str(TREE / "tests/publish/kill_at.py"), str(kill_at)]
        return subprocess.Popen([sys.executable, *program, "--root", str(self.publisher.root), *command], stdout=subprocess.DEVNULL,
                                stderr=subprocess.DEVNULL, env={**os.environ, "PYTHONPATH": str(TREE / "tools/publish"), **(environment or {}),
                                                                "LUMARIS_JUDGE": str(JUDGE)})

    def see(self) -> str:
        """What a client makes of what it is sent: nothing, or what stands in its event."""
        run = self.world.run()
        assert len(run.events) <= 1, run
        return run.events[0].strings[1] if run.events else ""

    def see_while(self, process: subprocess.Popen[bytes]) -> list[str]:
        """What clients see until the process has ended, and then."""
        seen = []
        while process.poll() is None:
            seen.append(self.see())
        return [*seen, self.see()]

    def serve(self, docroot: Path, *, plain: bool = False) -> NginxWith:
        """nginx with the configuration of the kit, or with one that knows nothing of sets."""
        block = f"server {{ listen 127.0.0.1:80; root {docroot}; }}" if plain else serverconfig.nginx(
            settings.load(self.publisher.root), docroot, listen="127.0.0.1:80", log=str(self.folder / "access.log"))
        return NginxWith(self.folder / f"nginx-{docroot.name}", block, 80)


@pytest.fixture(name="switching")
def switching_fixture(world: World, request: pytest.FixtureRequest) -> Iterator[Switching]:
    folder = world.bed.network.work / "switching"
    folder.mkdir()
    with unlimited(world.machine.architecture):  # each run of a client has a limit of its own
        yield Switching(world, folder, request.config.getoption("--every-step"))
    shutil.rmtree(folder)


def newest(switching: Switching) -> str:
    """What clients say that are offered the newer version."""
    switching.publisher(*switching.offer(versions.NEWER))
    said = switching.see()
    assert said.startswith("Failed to load Minisign signature: ") and "404" not in said
    switching.publisher(*switching.offer(versions.OWN))
    assert switching.see() == ""
    return said


def test_clients_see_the_old_set_or_the_new_when_an_offer_is_killed_at_any_step(world: World, switching: Switching) -> None:
    with unlimited(world.machine.architecture), world.server_stopped(), switching.serve(switching.publisher.root / "public"):
        new = newest(switching)
        seen: list[str] = []
        outcomes = {"done": 0, "not done": 0}
        for number in itertools.count(1, switching.step):
            process = switching.start(*switching.offer(switching.other), kill_at=number)
            seen += switching.see_while(process)
            assert process.returncode in (ENDED, -signal.SIGKILL)
            done = seen[-1] == (new if switching.other == versions.NEWER else "")
            outcomes["done" if done else "not done"] += 1
            if done:
                switching.offered = switching.other
            if process.returncode == ENDED:
                break
            # The next call completes it or removes what was left; clients see no more of that.
            switching.publisher("stage", str(switching.packages[versions.OWN]), "--key", str(world.bed.key.secret))
            assert switching.see() == (new if switching.offered == versions.NEWER else "")
    assert set(seen) == {"", new}
    assert done and outcomes["not done"] > 20 / switching.step and outcomes["done"] >= 3 / switching.step


def push_killed(switching: Switching, there: Path, options: list[str], call: int, change: int) -> subprocess.Popen[bytes]:
    """Begins a push whose rsync is killed at its change of names with this number, in the call with the other number."""
    tools = switching.folder / "tools"
    tools.mkdir(exist_ok=True)
    calls = switching.folder / "calls"
    calls.unlink(missing_ok=True)
    (tools / "rsync").write_text(f"""#!/bin/sh
echo >>{calls}
[ "$(wc -l <{calls})" = {call} ] || exec /usr/bin/rsync "$@"
exec strace -f -qq -o /dev/null -e trace={CHANGES} -e inject={CHANGES}:signal=KILL:when={change} /usr/bin/rsync "$@"
""", encoding="ascii")
    (tools / "rsync").chmod(0o755)
    return switching.start("push", str(there), *options, environment={"PATH": f"{tools}:{os.environ['PATH']}"})


def torn_pairs(there: Path, key: str) -> int:
    """How many descriptions of a copy do not fit their signatures."""
    with judge.Judge(key) as clients:
        verdicts = [clients.description(content, content.with_name(f"{content.name}.minisig")) for content in there.glob("Halvoro/**/*.txt")
                    if ".~tmp~" not in content.parts]  # where rsync keeps what it has not put in its place
    assert len(verdicts) == 3 and {each.message for each in verdicts} <= {"", TORN}
    return sum(each.message == TORN for each in verdicts)


@pytest.mark.parametrize("plain", [False, True], ids=["switch", "plain"])
def test_clients_see_the_old_set_or_the_new_when_a_push_is_killed_at_any_step(world: World, switching: Switching, plain: bool,
                                                                              monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("LUMARIS_JUDGE", str(JUDGE))
    there = switching.folder / "there"
    there.mkdir()
    options = ["--plain"] if plain else []
    with unlimited(world.machine.architecture), world.server_stopped(), switching.serve(there, plain=plain):
        switching.publisher("push", str(there), *options)
        assert switching.see() == ""
        switching.publisher(*switching.offer(versions.NEWER))
        switching.publisher("push", str(there), *options)
        new = switching.see()
        assert new.startswith("Failed to load Minisign signature: ") and "404" not in new
        switching.offered = versions.NEWER
        lasting = killed = 0
        for call in range(1, 3 if plain else 5):
            for change in itertools.count(1, switching.step):
                switching.publisher(*switching.offer(switching.other))
                switching.offered = switching.other
                process = push_killed(switching, there, options, call, change)
                seen = switching.see_while(process)
                assert set(seen) <= ({"", new, TORN} if plain else {"", new}), (call, change)
                # On a plain copy a client may ask between the two files of a description, once; killed there, one description remains torn.
                assert process.returncode != 0 or seen.count(TORN) <= 1
                assert torn_pairs(there, world.bed.key.line) <= (1 if plain else 0), (call, change)
                lasting += seen[-1] == TORN
                # The same again completes it.
                switching.publisher("push", str(there), *options)
                assert switching.see() == (new if switching.offered == versions.NEWER else "")
                if process.returncode == 0:
                    break
                killed += 1
        assert killed >= 7 // switching.step
        assert lasting <= (2 if plain else 0)


def test_clients_in_a_loop_meet_no_torn_pair_with_the_switch(world: World, switching: Switching) -> None:
    with unlimited(world.machine.architecture), world.server_stopped(), switching.serve(switching.publisher.root / "public"):
        new = newest(switching)
        seen: list[str] = []
        for _ in range(40 // switching.step):
            process = switching.start(*switching.offer(switching.other))
            seen += switching.see_while(process)
            assert process.returncode == 0
            switching.offered = switching.other
            assert seen[-1] == (new if switching.offered == versions.NEWER else "")
    assert set(seen) == {"", new}
