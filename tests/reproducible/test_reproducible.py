"""Two builds of the same sources are the same bytes. Takes two whole builds, so it runs on request only."""

import hashlib
import os
import shutil
import subprocess
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]


def build(folder: Path, key: str) -> dict[str, str]:
    """Builds the product in the folder, without what an earlier build left anywhere; returns the hashes of its files."""
    environment = {**os.environ, "CCACHE_DISABLE": "1"}
    subprocess.run(["cmake", "--preset", "arm64-release", "-B", str(folder), f"-DLUMARIS_PUBLIC_KEY={key}"], cwd=ROOT,
                   env=environment, check=True, capture_output=True, timeout=120)
    subprocess.run(["ninja", "-C", str(folder), "lumaris"], env=environment, check=True, capture_output=True, timeout=900)
    return {name: hashlib.sha256((folder / "updater" / name).read_bytes()).hexdigest() for name in ("lumaris.exe", "lumaris.pdb")}


def test_two_builds_are_the_same_bytes(tmp_path: Path) -> None:
    subprocess.run(["minisign", "-G", "-W", "-p", str(tmp_path / "k.pub"), "-s", str(tmp_path / "k.key")], check=True,
                   capture_output=True, timeout=60)
    key = (tmp_path / "k.pub").read_text(encoding="utf-8").splitlines()[1]
    first = build(tmp_path / "build", key)
    shutil.rmtree(tmp_path / "build")
    assert build(tmp_path / "build", key) == first


def test_no_path_of_the_build_machine_is_in_the_program(tmp_path: Path) -> None:
    subprocess.run(["minisign", "-G", "-W", "-p", str(tmp_path / "k.pub"), "-s", str(tmp_path / "k.key")], check=True,
                   capture_output=True, timeout=60)
    key = (tmp_path / "k.pub").read_text(encoding="utf-8").splitlines()[1]
    build(tmp_path / "build", key)
    program = (tmp_path / "build/updater/lumaris.exe").read_bytes()
    for path in (str(tmp_path), str(ROOT), "/opt/lumaris", "/deps/", "/toolchain/"):
        assert path.encode() not in program
