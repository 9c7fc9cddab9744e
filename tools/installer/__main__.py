"""Makes lumaris-VERSION-arm64.msi: Lumaris in an installer package of its own, checked, and signed if a certificate is given.

Beside it go lumaris-VERSION-arm64.yaml, with which winget installs it from a private source, and lumaris-VERSION-administrators.zip with the group
policies, the event queries and the definition of the task.
"""

from __future__ import annotations

import argparse
import hashlib
import sys
import tempfile
from pathlib import Path

sys.dont_write_bytecode = True
ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(Path(__file__).resolve().parent))
sys.path.append(str(ROOT / "tools/release"))

import kit  # noqa: E402  (the path to it is set above)
import package  # noqa: E402
import signing  # noqa: E402
import tables  # noqa: E402
import winget  # noqa: E402


def collect(build: Path, program: Path | None, folder: Path) -> None:
    """Puts the programs of a build folder side by side; `program` is the released lumaris.exe, if it is another one."""
    sources = package.programs_of(build) | ({"lumaris.exe": program} if program else {})
    for name, source in sources.items():
        (folder / name).write_bytes(source.read_bytes())


def _identity(options: argparse.Namespace) -> signing.Identity | None:
    if not (options.certificate or options.certificate_key or options.pkcs12):
        return None
    return signing.Identity(options.certificate, options.certificate_key, options.pkcs12, options.password_file, options.authority,
                            options.timestamp, options.timestamp_authority)


def _sign_programs(programs: Path, names: tuple[str, ...], identity: signing.Identity) -> None:
    for name in names:
        unsigned = programs / f"{name}.unsigned"
        (programs / name).rename(unsigned)
        signing.sign(unsigned, identity, programs / name)
        unsigned.unlink()


def main(arguments: list[str] | None = None) -> int:
    """Returns 0 when the package is made and as it must be."""
    parser = argparse.ArgumentParser(prog="./dev installer", description=__doc__,
                                     epilog="example: ./dev installer --key halvoro.pub --pkcs12 tavrin.p12 --password-file password")
    parser.add_argument("--build", type=Path, default=ROOT / "build/arm64-release", help="build folder with the programs")
    parser.add_argument("--program", type=Path, help="the lumaris.exe to pack, such as that of ./dev release (default: the one of the build)")
    parser.add_argument("--architecture", choices=package.PLATFORMS, default="arm64")
    parser.add_argument("--output", type=Path, default=ROOT / "build/installer", help="folder for the package")
    for name in ("certificate", "certificate-key", "pkcs12", "password-file", "authority", "timestamp-authority"):
        parser.add_argument(f"--{name}", type=Path)
    parser.add_argument("--timestamp", metavar="URL")
    parser.add_argument("--url", default="https://downloads.tavrin.example/lumaris", help="where winget is to fetch the package: the folder's address")
    options = parser.parse_args(arguments)
    try:
        with tempfile.TemporaryDirectory(prefix="installer-") as scratch:
            programs = Path(scratch) / "programs"
            programs.mkdir()
            collect(options.build, options.program, programs)
            identity = _identity(options)
            if identity is not None:
                # A released program has its signature.
                _sign_programs(programs, ("lumaris_check.exe", "lumaris_setup.dll", *(() if options.program else ("lumaris.exe",))), identity)
            version = package.file_version(programs / "lumaris.exe").removesuffix(".0")
            unsigned = [Path(scratch) / f"{turn}.msi" for turn in ("first", "second")]
            for each in unsigned:
                package.make(programs, options.architecture, version, each)
            if unsigned[0].read_bytes() != unsigned[1].read_bytes():
                raise package.PackagingError("two packages of the same programs are not the same bytes")
            if faults := tables.check(unsigned[0], options.architecture, version):
                raise package.PackagingError("\n".join(faults))
            options.output.mkdir(parents=True, exist_ok=True)
            made = options.output / f"lumaris-{version}-{options.architecture}.msi"
            made.unlink(missing_ok=True)
            if identity is not None:
                signing.sign(unsigned[0], identity, made)
                print(signing.verify(made, identity, Path(scratch)).strip(), flush=True)
            else:
                made.write_bytes(unsigned[0].read_bytes())
                print("installer: WARNING: the package is not signed", flush=True)
            made.with_suffix(".yaml").write_text(winget.manifest(made, options.architecture, f"{options.url.rstrip('/')}/{made.name}"), encoding="ascii")
            kit.write(options.output / f"lumaris-{version}-administrators.zip")
            content, carried = made.read_bytes(), (programs / "lumaris.exe").stat().st_size
    except (package.PackagingError, signing.SigningError, OSError) as error:
        for line in str(error).splitlines():
            print(f"installer: REFUSED: {line}", file=sys.stderr, flush=True)
        return 1
    print(f"installer: {hashlib.sha256(content).hexdigest()}  {made.name} ({len(content):,} bytes; the program in it {carried:,})", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
