"""Two builds of the product in two places, which have nothing in common but the sources and the configuration."""

from __future__ import annotations

import os
import shutil
import subprocess
import sys
import tempfile
import time
from dataclasses import dataclass
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "toolchain"))

from jobs import building  # noqa: E402  (the path to it is set above)
from jobs.common import JobError, cores  # noqa: E402

PRESET = "arm64-release"
LIMIT = 1800.0


class BuildError(Exception):
    """A build that failed, or sources that cannot be built from."""


@dataclass(frozen=True)
class Build:
    """What a build left."""

    program: bytes
    pdb: bytes
    linker_map: str

    @staticmethod
    def read(folder: Path) -> Build:
        """Reads it out of the build folder."""
        program = folder / "src/updater/lumaris.exe"
        return Build(program.read_bytes(), program.with_suffix(".pdb").read_bytes(),
                     program.with_suffix(".map").read_text(encoding="utf-8"))


@dataclass(frozen=True)
class Commit:
    """Which sources these are."""

    name: str
    time: int  # seconds since 1970
    changed: list[str]  # files that are not as committed


def _git(*arguments: str) -> str:
    # The checkout may belong to somebody else than who builds.
    done = subprocess.run(["git", "-c", "safe.directory=*", "-C", str(ROOT), *arguments], stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, timeout=60, check=False)
    if done.returncode != 0:
        raise BuildError(f"git {arguments[0]} failed, and a release is made of a commit: {done.stderr.strip()}")
    return done.stdout


def commit() -> Commit:
    """The commit that is checked out."""
    name, seconds = _git("log", "-1", "--format=%H %ct").split()
    changed = [line[3:] for line in _git("status", "--porcelain").splitlines()]
    return Commit(name, int(seconds), changed)


def copy_sources(folder: Path) -> None:
    """Copies the checkout as it is, without what is ignored."""
    for name in _git("ls-files", "-z", "--cached", "--others", "--exclude-standard").split("\0"):
        source = ROOT / name
        if name and source.is_file():
            target = folder / name
            target.parent.mkdir(parents=True, exist_ok=True)
            shutil.copyfile(source, target)


def build_here() -> Build:
    """The build that ./dev build makes, in build/arm64-release, with the compiler cache."""
    begin = time.monotonic()
    # Without CCACHE_COMMENTS the cache takes sources that differ in a comment for the same, and the PDB then holds the hash of the former
    # one. What came into the cache like this, or was built from it, is of no use here.
    os.environ["CCACHE_NAMESPACE"] = "release"
    folder = ROOT / "build" / PRESET
    if (folder / "build.ninja").exists():
        _run(["ninja", "-C", str(folder), "-t", "clean"], ROOT, dict(os.environ))
    try:
        building.build(PRESET, "lumaris")
    except JobError as error:
        raise BuildError(str(error)) from error
    print(f"release: built in {ROOT}/build/{PRESET} in {time.monotonic() - begin:.0f} s", flush=True)
    return Build.read(ROOT / "build" / PRESET)


def _run(arguments: list[str], folder: Path, environment: dict[str, str]) -> None:
    done = subprocess.run(arguments, cwd=folder, env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, errors="replace", timeout=LIMIT, check=False)
    if done.returncode != 0:
        raise BuildError(f"{arguments[0]} failed in {folder}:\n{done.stdout[-4000:].strip()}")


def build_elsewhere() -> Build:
    """A build without the compiler cache, in folders of other names, of other lengths, under another umask and time zone."""
    begin = time.monotonic()
    with tempfile.TemporaryDirectory(prefix="release-") as scratch:
        sources, folder = Path(scratch) / "a copy/of the sources", Path(scratch) / "built"
        copy_sources(sources)
        environment = {**os.environ, "CCACHE_DISABLE": "1", "TZ": "Pacific/Chatham", "LC_ALL": "C", "SOURCE_DATE_EPOCH": "1"}
        former = os.umask(0o077)
        try:
            settings = [f"-D{name}={value}" for name, value in building.settings_of(PRESET).items()]
            _run(["cmake", "--preset", PRESET, "-B", str(folder), *settings], sources, environment)
            _run(["ninja", "-C", str(folder), f"-j{cores()}", "lumaris"], sources, environment)
        finally:
            os.umask(former)
        built = Build.read(folder)
        print(f"release: built in {folder} in {time.monotonic() - begin:.0f} s, without the compiler cache", flush=True)
        return built
