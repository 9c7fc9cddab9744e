"""A publication in a folder of its own, packages by wixl with a real lumaris.exe inside, and keys by minisign."""

from __future__ import annotations

import itertools
import os
import struct
import subprocess
import sys
from collections.abc import Callable, Iterator
from dataclasses import dataclass, field
from pathlib import Path

import pytest

TREE = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TREE / "tests"))
sys.path.insert(0, str(TREE / "tools/publish"))
sys.dont_write_bytecode = True

JUDGE = TREE / "build/native-asan/tools/publish/lumaris_judge"
os.environ.setdefault("LUMARIS_JUDGE", str(JUDGE))

pytest.register_assert_rewrite("kit")

from bed.package import InstallerPackage  # noqa: E402  (the path to it is set above)
from bed.signing import KeyPair  # noqa: E402
from kit import HOST, Kit  # noqa: E402

TIME_LIMIT = 120


def pytest_sessionstart() -> None:
    """Nothing can be shown without what is tested."""
    for needed in (Path(os.environ["LUMARIS_JUDGE"]), TREE / "build/arm64-test/src/updater/lumaris.exe"):
        if not needed.exists():
            pytest.exit(f"{needed} is missing: it has not been built", returncode=3)


@dataclass
class Workshop:
    """Makes programs and packages, each once a session."""

    folder: Path
    key: KeyPair
    other_key: KeyPair
    test_key: KeyPair
    made: dict[tuple[object, ...], Path] = field(default_factory=dict)
    numbers: Iterator[int] = field(default_factory=itertools.count)

    def program(self, version: str = "3.4.1", *, key: KeyPair | None = None, host: str = HOST, architecture: str = "arm64") -> Path:
        """The real program, with another version, key and host written into its bytes."""
        trusted = key or self.key
        known = ("program", version, trusted.line, host, architecture)
        if known not in self.made:
            image = bytearray((TREE / f"build/{architecture}-test/src/updater/lumaris.exe").read_bytes())
            at = image.index(struct.pack("<I", 0xFEEF04BD))
            numbers = [int(part) for part in f"{version}.0.0".split(".")[:4]]
            struct.pack_into("<HHHH", image, at + 8, numbers[1], numbers[0], numbers[3], numbers[2])
            for old, new in ((_key_bytes(self.test_key), _key_bytes(trusted)), (b"updates.tavrin.example\0", host.encode("ascii") + b"\0"),
                             (b"reports.tavrin.example", b"reports.tavrin.private"),
                             ("reports.tavrin.example".encode("utf-16-le"), "reports.tavrin.private".encode("utf-16-le"))):
                assert len(old) == len(new)
                image = image.replace(old, new)
            folder = self.folder / f"program-{next(self.numbers)}"
            folder.mkdir()
            (folder / "lumaris.exe").write_bytes(image)
            self.made[known] = folder / "lumaris.exe"
        return self.made[known]

    def package(self, version: str = "3.4.1", *statements: str, guarded: bool = True, program: Path | None = None, with_program: bool = True,
                platform: str = "Arm64;1033", name: str = "") -> Path:
        """A package, with statements that change its tables afterwards."""
        inside = (program or self.program(version)) if with_program else None
        known = ("package", version, statements, guarded, inside, platform, name)
        if known not in self.made:
            folder = self.folder / f"package-{next(self.numbers)}"
            folder.mkdir()
            made = InstallerPackage.build(folder, "arm64", version, guarded=guarded, program=inside).path
            for statement in statements:
                _run("msibuild", str(made), "-q", statement)
            if platform != "Arm64;1033":
                _run("msibuild", str(made), "-s", "Halvoro", "Tavrin", platform)
            self.made[known] = made
        return self.made[known]


def _key_bytes(pair: KeyPair) -> bytes:
    from lumaris_publish import signing  # noqa: PLC0415  (its path is set by then)
    return signing.key_bytes(pair.line)


def _run(*arguments: str) -> None:
    done = subprocess.run(arguments, capture_output=True, text=True, timeout=60, check=False)
    assert done.returncode == 0 and not done.stderr.strip(), f"{arguments}: {done.stderr}"


@pytest.fixture(scope="session", name="workshop")
def workshop_fixture(tmp_path_factory: pytest.TempPathFactory) -> Workshop:
    folder = tmp_path_factory.mktemp("workshop")
    keys = TREE / "tests/keys"
    return Workshop(folder, KeyPair.make(folder, "halvoro"), KeyPair.make(folder, "other"), KeyPair(keys / "test.pub", keys / "test.key"))


@pytest.fixture(name="new_kit")
def new_kit_fixture(tmp_path: Path, workshop: Workshop, capfd: pytest.CaptureFixture[str]) -> Callable[..., Kit]:
    """Makes a publication with more options."""
    def make(*options: str, host: str = HOST, name: str = "updates", key: KeyPair | None = None) -> Kit:
        kit = Kit(tmp_path / name, key or workshop.key, capfd)
        kit.done("init", str(kit.root), "--host", host, "--public-key", (key or workshop.key).line, "--channels", "stable,beta", *options)
        return kit
    return make


@pytest.fixture(name="kit")
def kit_fixture(new_kit: Callable[..., Kit]) -> Kit:
    """A publication with nothing in it."""
    return new_kit()
