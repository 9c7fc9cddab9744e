#!/usr/bin/env python3
"""Jobs of ./dev that run inside the room.

    job.py build [--target TARGET] PRESET...

Each preset is configured when it has not been (or when the toolchain or the settings given have changed) and built in
build/PRESET. Two jobs that build the same preset wait for each other.
"""

import argparse
import contextlib
import fcntl
import json
import os
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path

SETTINGS = ("LUMARIS_PUBLIC_KEY", "LUMARIS_UPDATE_HOST", "LUMARIS_REPORT_HOST")


class JobError(Exception):
    """A failure whose text is all that the user needs."""


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
    """The settings of the environment that this preset takes; test presets keep the test key."""
    given = {name: os.environ[name] for name in SETTINGS if name in os.environ}
    if preset.endswith("-test") or preset.startswith("native-"):
        given.pop("LUMARIS_PUBLIC_KEY", None)
    elif "LUMARIS_PUBLIC_KEY" in given:
        given["LUMARIS_PUBLIC_KEY"] = given["LUMARIS_PUBLIC_KEY"].strip()
    return given


def build(preset: str, target: str | None) -> None:
    folder = Path("build") / preset
    with locked(folder):
        stamp = folder / ".configured"
        wanted = json.dumps({"settings": settings_of(preset), "inputs": os.environ.get("LUMARIS_INPUTS", "")})
        configured = stamp.read_text(encoding="utf-8") if stamp.exists() else None
        if configured != wanted or not (folder / "build.ninja").exists():
            stamp.unlink(missing_ok=True)
            definitions = [f"-D{name}={value}" for name, value in settings_of(preset).items()]
            # Settings of a former call do not linger: what is not given now takes its default.
            command = ["cmake", "--fresh", "--preset", preset, *definitions]
            result = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
            (folder / "configure.log").write_text(result.stdout + result.stderr, encoding="utf-8")
            if result.returncode:
                print(result.stderr or result.stdout, file=sys.stderr)
                raise JobError(f"configuring {preset} failed (log: {folder}/configure.log)")
            stamp.write_text(wanted, encoding="utf-8")
        print(f"dev: building {preset}", flush=True)
        command = ["cmake", "--build", str(folder), "--parallel", str(os.cpu_count() or 1)]
        if target:
            command += ["--target", target]
        if subprocess.run(command, stdin=subprocess.DEVNULL, check=False).returncode:
            raise JobError(f"building {preset} failed")


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    jobs = parser.add_subparsers(dest="job", required=True)
    build_parser = jobs.add_parser("build", help="configure and build presets")
    build_parser.add_argument("presets", nargs="+", metavar="PRESET")
    build_parser.add_argument("--target")
    arguments = parser.parse_args()
    try:
        for preset in arguments.presets:
            build(preset, arguments.target)
    except JobError as error:
        print(f"dev: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
