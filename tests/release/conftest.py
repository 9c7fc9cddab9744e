"""One build of the real program for the tests of the release, which damage copies of it."""

from __future__ import annotations

import importlib.util
import subprocess
import sys
from collections.abc import Callable
from dataclasses import dataclass, field
from pathlib import Path
from types import ModuleType

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tools/release"))

sys.path.append(str(ROOT / "tests"))

import program  # noqa: E402  (the path to it is set above)
from bed import version  # noqa: E402
from program import Configuration, TestKey  # noqa: E402

UPDATE_HOST, REPORT_HOST = "updates.halvoro.internal", "reports.halvoro.internal"
# With what the resource scripts and the formats have to double.
PARTNER = "Partneri \"Provë\" 100%"


@dataclass(frozen=True)
class Built:
    """The program with its PDB and the linker's map, and what they were configured with."""

    program: bytes = field(repr=False)
    pdb: bytes = field(repr=False)
    linker_map: str = field(repr=False)
    configuration: Configuration
    test_key: TestKey
    allowed: dict[str, frozenset[str]]

    def complaints(self, image: bytes) -> list[str]:
        """All complaints about a program that should be this one."""
        return program.check_program(image, self.configuration, self.test_key, self.allowed)


def _run(*arguments: str) -> None:
    done = subprocess.run(arguments, cwd=ROOT, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          timeout=600, check=False)
    assert done.returncode == 0, f"{arguments}\n{done.stdout[-4000:]}"


@pytest.fixture(scope="session", name="built")
def built_fixture() -> Built:
    """Builds with a key of its own, which remains in the build folder so that the next build finds everything done."""
    folder = ROOT / "build/release-test"
    folder.mkdir(parents=True, exist_ok=True)
    if not (folder / "test-release.pub").exists():
        _run("minisign", "-G", "-W", "-f", "-p", str(folder / "test-release.pub"), "-s", str(folder / "test-release.key"))
    key = (folder / "test-release.pub").read_text(encoding="ascii").splitlines()[1]
    _run("cmake", "--preset", "arm64-release", "-B", str(folder), f"-DLUMARIS_PUBLIC_KEY={key}", f"-DLUMARIS_UPDATE_HOST={UPDATE_HOST}",
         f"-DLUMARIS_REPORT_HOST={REPORT_HOST}", f"-DLUMARIS_PARTNER={PARTNER}", f"-DLUMARIS_VERSION={version.OWN}")
    _run("ninja", "-C", str(folder), "lumaris")
    lines = {name: (ROOT / "tests/keys" / name).read_text(encoding="ascii").splitlines()[1] for name in ("test.pub", "test.key")}
    return Built((folder / "src/updater/lumaris.exe").read_bytes(), (folder / "src/updater/lumaris.pdb").read_bytes(),
                 (folder / "src/updater/lumaris.map").read_text(encoding="utf-8"), program.Configuration(str(version.OWN), key, UPDATE_HOST, REPORT_HOST, PARTNER),
                 program.TestKey(lines["test.pub"], lines["test.key"]),
                 program.read_allowed((ROOT / "tools/release/imports.txt").read_text(encoding="utf-8")))


@pytest.fixture(scope="session", name="reader")
def reader_fixture() -> Path:
    """The reader of error reports as it is released."""
    _run(sys.executable, "toolchain/job.py", "build", "--target", "read_report", "native-release")
    return ROOT / "build/native-release/tools/report_reader/read_report"


@pytest.fixture(scope="session", name="release")
def release_fixture() -> ModuleType:
    """The module behind `./dev release`."""
    spec = importlib.util.spec_from_file_location("release_main", ROOT / "tools/release/__main__.py")
    assert spec is not None and spec.loader is not None
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


@dataclass(frozen=True)
class Signer:
    """Somebody who signs, with the root that vouches for the certificate."""

    root: Path
    certificate: Path
    key: Path


@pytest.fixture(scope="session", name="make_signer")
def make_signer_fixture(tmp_path_factory: pytest.TempPathFactory) -> Callable[[str, str], Signer]:
    """Makes a root, and a certificate for a purpose (an extended key usage of openssl)."""
    def make(name: str, purpose: str) -> Signer:
        folder = tmp_path_factory.mktemp(name)
        made = Signer(folder / "root.pem", folder / "certificate.pem", folder / "key.pem")
        new = ("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "30")
        _run(*new, "-subj", f"/CN={name} root", "-addext", "basicConstraints=critical,CA:TRUE",
             "-addext", "keyUsage=critical,keyCertSign", "-keyout", str(folder / "root.key"), "-out", str(made.root))
        _run(*new, "-subj", f"/CN={name}", "-CA", str(made.root), "-CAkey", str(folder / "root.key"), "-addext", "basicConstraints=CA:FALSE",
             "-addext", "keyUsage=critical,digitalSignature", "-addext", f"extendedKeyUsage=critical,{purpose}",
             "-keyout", str(made.key), "-out", str(made.certificate))
        return made
    return make


@pytest.fixture(scope="session", name="signer")
def signer_fixture(make_signer: Callable[[str, str], Signer]) -> Signer:
    """A certificate for signing programs."""
    return make_signer("Tavrin test", "codeSigning")
