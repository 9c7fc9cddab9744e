"""Configuring and building presets.

A preset is configured when it has not been, or when the toolchain, the presets or the settings given have changed. Two jobs
that build the same preset wait for each other.
"""

import argparse
import contextlib
import fcntl
import hashlib
import json
import os
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path

from jobs.common import JobError, cores
from jobs.version import configured_version, next_version

SETTINGS = ("LUMARIS_PUBLIC_KEY", "LUMARIS_UPDATE_HOST", "LUMARIS_REPORT_HOST", "LUMARIS_PARTNER", "LUMARIS_VERSION")


def add_parser(commands: "argparse._SubParsersAction[argparse.ArgumentParser]") -> None:
    parser = commands.add_parser("build", help="configure and build presets")
    parser.add_argument("presets", nargs="+", metavar="PRESET")
    parser.add_argument("--target")
    parser.set_defaults(run=run)


def run(arguments: argparse.Namespace) -> None:
    for preset in arguments.presets:
        build(preset, arguments.target)


@contextlib.contextmanager
def locked(folder: Path) -> Iterator[None]:
    """Holds the build folder for this process."""
    folder.mkdir(parents=True, exist_ok=True)
    with open(folder / ".lock", "w", encoding="utf-8") as lock:
        try:
            fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            print(f"dev: another job builds {folder.name}, waiting", file=sys.stderr, flush=True)
            fcntl.flock(lock, fcntl.LOCK_EX)
        yield


def settings_of(preset: str) -> dict[str, str]:
    """The settings of the environment that this preset takes; test presets keep the test key, the default hosts and their partner."""
    given = {name: os.environ[name].strip() for name in SETTINGS if name in os.environ}
    if preset.endswith("-next"):
        return {**given, "LUMARIS_VERSION": next_version(configured_version())}
    if not preset.startswith("native-") and not preset.endswith(("-test", "-coverage", "-ubsan")):
        return given
    settings = {name: value for name, value in given.items() if name == "LUMARIS_VERSION"}
    # If there is no /proc, a program with sanitizers does not run.
    if preset.startswith("native-") and os.environ.get("LUMARIS_NO_SANITIZERS"):
        settings["LUMARIS_SANITIZE"] = ""
    return settings


def configure(preset: str, folder: Path) -> None:
    settings = settings_of(preset)
    inputs = os.environ.get(f"LUMARIS_INPUTS_{preset.partition('-')[0].upper()}", "")
    # CMake reads a preset's variables only if the build folder is new.
    presets = hashlib.sha256(Path("CMakePresets.json").read_bytes()).hexdigest()
    stamp = folder / ".configured"
    former = json.loads(stamp.read_text(encoding="utf-8")) if stamp.exists() else None
    if former == {"settings": settings, "inputs": inputs, "presets": presets} and (folder / "build.ninja").exists():
        return
    stamp.unlink(missing_ok=True)
    print(f"dev: configuring {preset}", flush=True)
    # --fresh: settings of a former call do not linger, what is not given now takes its default.
    command = ["cmake", "--fresh", "--preset", preset, *(f"-D{name}={value}" for name, value in settings.items())]
    result = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
    (folder / "configure.log").write_text(result.stdout + result.stderr, encoding="utf-8")
    if result.returncode:
        print(result.stderr or result.stdout, file=sys.stderr)
        raise JobError(f"configuring {preset} failed (log: {folder}/configure.log)")
    if former is None or former["inputs"] != inputs:
        # Built with another toolchain, which ninja does not see.
        subprocess.run(["ninja", "-C", str(folder), "-t", "clean"], stdout=subprocess.DEVNULL, check=True)
    stamp.write_text(json.dumps({"settings": settings, "inputs": inputs, "presets": presets}), encoding="utf-8")


def build(preset: str, target: str | None = None) -> None:
    folder = Path("build") / preset
    with locked(folder):
        configure(preset, folder)
        print(f"dev: building {preset}", flush=True)
        command = ["ninja", "-C", str(folder), f"-j{cores()}", *([target] if target else [])]
        if subprocess.run(command, stdin=subprocess.DEVNULL, check=False).returncode:
            raise JobError(f"building {preset} failed")
