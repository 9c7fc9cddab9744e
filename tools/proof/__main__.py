"""Packs a proof for a real Windows: proof.exe and everything that it needs, in one zip file.

Programs come from a build folder with the test key. Files are signed by `minisign` and packages made by `wixl` here. The same programs
make the same bytes.
"""

from __future__ import annotations

import argparse
import json
import re
import shutil
import subprocess
import sys
import tempfile
import uuid
import zipfile
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tools/installer"))

import package as packaging  # noqa: E402  (the path to it is set above)

LIMIT = 120.0
EPOCH = (2000, 1, 1, 0, 0, 0)
EXAMPLES = """example:
  ./dev proof-kit --arch arm64
"""

# Products of a proof are derived from this; those of the installer from its own.
NAMESPACE = uuid.UUID("0e3f6f0c-3c7b-4b8e-8a55-8f0f2f6f6d15")

# Functions by which the frames of a crash are judged. Those of the runtime lie between them, and differ.
NAMED = ("crash", "innermost", "middle", "outer", "unfinished", "wWinMain")

# The programs that check_crashes.cpp, check_saved_reports.cpp and check_tls.cpp start.
CRASHES = ("abort", "access_violation", "after_uninstall", "deep_recursion", "during_start_up", "exception_out_of_main", "fast_fail",
           "fault_in_start_up_thread", "foreign_fault_during_start_up", "foreign_fault_during_upload", "in_atexit_function", "in_static_destructor",
           "invalid_parameter", "none", "noexcept_violation", "on_thread_at_exit", "pure_virtual_call", "second_thread", "stack_overflow",
           "stack_overflow_bare", "stack_overflow_large", "terminate", "uncaught_exception", "uncaught_exception_on_thread", "under_exit_lock",
           "under_heap_lock", "under_loader_lock", "without_tls")

# Of each of them so many bytes in turn, in one file: see together.h.
BLOCK = 512

# A line of a linker's map: address, size, alignment, object file and the section of one function.
_FUNCTION = re.compile(r"^([0-9a-f]{8}) ([0-9a-f]{8}) +\d+ +tests/crash/\S+\(\.text\$\S+\)$")
_NAME = re.compile(r"^[0-9a-f]{8} 00000000 +0 +(\S.*)$")

README = """Lumaris {version}, proof for Windows on {architecture}

Open a command prompt in this folder and enter

    proof

It says what it will change on this machine and for how long, asks, and puts everything back. It needs administrator rights and ends with
one verdict; the report is written beside it, as proof-report.txt, proof-report.html and proof-report.json.

    proof --list    what is checked, and what each check changes
    proof --clean   puts back what a proof that was ended has left

lumaris.exe in here trusts a test key that everybody knows: do not install it anywhere.
"""


class KitError(Exception):
    """A kit that could not be made."""


def run(*arguments: str) -> None:
    """Runs a program to its end."""
    done = subprocess.run(arguments, capture_output=True, text=True, timeout=LIMIT, check=False, stdin=subprocess.DEVNULL)
    if done.returncode != 0:
        raise KitError(f"{' '.join(arguments)}: {(done.stderr or done.stdout).strip()}")


def version_of(build: Path) -> tuple[int, int, int]:
    """The version that a build folder is configured with."""
    cache = (build / "CMakeCache.txt").read_text(encoding="utf-8")
    text = next(line.partition("=")[2] for line in cache.splitlines() if line.startswith("CMAKE_PROJECT_VERSION:"))
    major, minor, patch = (int(part) for part in text.split("."))
    return major, minor, patch


def functions_of(linker_map: Path) -> list[tuple[int, int, str]]:
    """Address, size and plain name of the functions of a crash program that count."""
    found: list[tuple[int, int, str]] = []
    place: tuple[int, int] | None = None
    for line in linker_map.read_text(encoding="utf-8").splitlines():
        if function := _FUNCTION.match(line):
            place = int(function[1], 16), int(function[2], 16)
        elif place and (name := _NAME.match(line)):
            plain = name[1].replace("(anonymous namespace)", "").partition("(")[0].rpartition("::")[2]
            if plain in NAMED:
                found.append((*place, plain))
            place = None
    if not found:
        raise KitError(f"{linker_map} names no functions")
    return sorted(found)


def together(contents: list[bytes]) -> bytes:
    """Files that are almost the same in one, so that they take little room in a zip file."""
    return b"".join(content[at:at + BLOCK] for at in range(0, max(map(len, contents)), BLOCK) for content in contents)


def sign(file: Path, key: Path) -> None:
    """Signs a file."""
    run("minisign", "-S", "-W", "-s", str(key), "-t", "signed for a proof", "-x", f"{file}.minisig", "-m", str(file))


def pack_update(folder: Path, architecture: str, version: str, product: str) -> Path:
    """The package of the update that is offered."""
    target = folder / "update.msi"
    with tempfile.TemporaryDirectory(prefix="proof-") as staged:
        (Path(staged) / "text").write_text(f"Installed by a proof of Lumaris, version {version}.\n", encoding="ascii")
        packaging.stage({"installed.txt": Path(staged) / "text"}, Path(staged))
        packaging.run("wixl", "-a", "x64", "-D", f"programs={staged}", "-D", f"version={version}", "-D", f"product={product}", "-o", str(target),
                      str(ROOT / "tools/proof/package.wxs"))
    packaging.stamp(target, architecture, f"Lumaris proof {version}")
    return target


def product_code(architecture: str, version: str) -> str:
    """The product code of Lumaris's own package."""
    return f"{{{uuid.uuid5(packaging.NAMESPACE, f'{architecture} {version}')}}}".upper()


def make_installers(folder: Path, build: Path, architecture: str, version: str, newer: str) -> None:
    """Lumaris's own package, the one that takes its place, and one that tries to and fails."""
    folder.mkdir()
    with tempfile.TemporaryDirectory(prefix="proof-") as staged:
        for name, file in packaging.programs_of(build).items():
            shutil.copy(file, Path(staged) / name)
        packaging.make(Path(staged), architecture, version, folder / "lumaris.msi")
        with (Path(staged) / "lumaris.exe").open("ab") as program:
            program.write(b"newer")
        packaging.make(Path(staged), architecture, newer, folder / "lumaris-next.msi")
        failing = folder / "lumaris-failing.msi"
        packaging.make(Path(staged), architecture, newer, failing)
        # Without its data the action has no time of day, and fails.
        run("msibuild", str(failing), "-q", "INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('Fail', 3073, 'LumarisSetup', 'make_task')")
        run("msibuild", str(failing), "-q", "INSERT INTO `InstallExecuteSequence` (`Action`, `Sequence`) VALUES ('Fail', 5900)")
        packaging.stamp(failing, architecture, f"Lumaris {newer}, which fails")


def fill(folder: Path, build: Path, architecture: str) -> None:
    """Puts the content of a kit into a folder."""
    major, minor, patch = version_of(build)
    version, newer, older = f"{major}.{minor}.{patch}", f"{major}.{minor}.{patch + 1}", f"{major}.{minor - 1}.0"
    shutil.copy(build / "tools/proof/proof.exe", folder)
    # Some unit tests look for the program where it is built, so everything lies as it does in the build folder.
    crashes = [build / f"tests/crash/crash_{kind}.exe" for kind in CRASHES]
    for program in (build / "src/updater/lumaris.exe", build / "tools/proof/lumaris_large.exe", build / "tests/unit_tests.exe", build / "tools/check/lumaris_check.exe"):
        target = folder / "programs" / program.relative_to(build)
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(program, target)
    (folder / "programs/crashes.bin").write_bytes(together([program.read_bytes() for program in crashes]))

    signed = folder / "signed"
    signed.mkdir()
    offers = {"newer": (major << 24 | minor << 16 | (patch + 1) << 8, newer), "same": (major << 24 | minor << 16 | patch << 8, version),
              "older": (major << 24 | (minor - 1) << 16, older)}
    for name, (number, text) in offers.items():
        (signed / f"{name}.txt").write_bytes(f"{number:x}\nHalvoro {text}\nhttp://updates.tavrin.example/Halvoro/{newer}/\n".encode())
    (signed / "tls.txt").write_bytes(f"{offers['newer'][0]:x}\nHalvoro {newer}\nhttps://packages.tavrin.example/files/\n".encode())
    product = f"{{{uuid.uuid5(NAMESPACE, f'{architecture} {newer}')}}}".upper()
    pack_update(signed, architecture, newer, product.strip("{}"))
    with tempfile.TemporaryDirectory(prefix="proof-") as keys:
        key = shutil.copy(ROOT / "tests/keys/test.key", keys)
        for file in sorted(signed.iterdir()):
            sign(file, Path(key))

    make_installers(folder / "installers", build, architecture, version, newer)
    (folder / "kit.json").write_text(json.dumps({
        "version": version, "newer": newer, "architecture": architecture, "product": product,
        "installed": product_code(architecture, version), "upgraded": product_code(architecture, newer),
        "crashes": [[program.name, program.stat().st_size] for program in crashes],
        "functions": {program.name: functions_of(program.with_suffix(".map")) for program in crashes},
    }, indent=1) + "\n", encoding="ascii")
    # Notepad of older Windows knows no other line ends.
    (folder / "README.txt").write_bytes(README.format(version=version, architecture={"arm64": "ARM64", "x64": "x86-64"}[architecture])
                                        .replace("\n", "\r\n").encode("ascii"))


def zip_folder(folder: Path, target: Path) -> None:
    """One zip file of a folder, the same for the same content."""
    with zipfile.ZipFile(target, "w", zipfile.ZIP_DEFLATED, compresslevel=9) as archive:
        for file in sorted(file for file in folder.rglob("*") if file.is_file()):
            entry = zipfile.ZipInfo(str(Path(folder.name) / file.relative_to(folder)), EPOCH)
            entry.compress_type = zipfile.ZIP_DEFLATED
            entry.create_system = 0
            archive.writestr(entry, file.read_bytes(), compresslevel=9)


def make(build: Path, architecture: str, output: Path) -> Path:
    """Makes the kit of a build folder, and beside it the folder that it unpacks to. Returns the zip file."""
    name = f"lumaris-proof-{'.'.join(str(part) for part in version_of(build))}-{architecture}"
    folder = output / name
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    fill(folder, build, architecture)
    target = output / f"{name}.zip"
    target.unlink(missing_ok=True)
    zip_folder(folder, target)
    return target


def main() -> int:
    """Makes the kits that are asked for."""
    parser = argparse.ArgumentParser(prog="./dev proof-kit", description=__doc__, epilog=EXAMPLES,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--arch", action="append", choices=("arm64", "x64"), help="the processor (default: both)")
    parser.add_argument("--output", type=Path, default=ROOT / "build/proof-kit", help="where the kits go (default: build/proof-kit)")
    options = parser.parse_args()
    try:
        for architecture in options.arch or ("arm64", "x64"):
            made = make(ROOT / f"build/{architecture}-test", architecture, options.output)
            print(f"{made} ({made.stat().st_size / 1e6:.1f} MB)")
    except (KitError, packaging.PackagingError, OSError) as error:
        print(f"./dev proof-kit: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
