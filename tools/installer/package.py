"""Makes an installer package that carries Lumaris, and finishes one that another source file has described.

wixl packs; what it does not know (ARM64, versions of files, hidden and secure properties, rights) is written into the tables afterwards, and
everything that differs from one run to the next is replaced, so that the same programs make the same bytes.
"""

from __future__ import annotations

import os
import shutil
import struct
import subprocess
import sys
import tempfile
import uuid
from pathlib import Path

import pefile

ROOT = Path(__file__).resolve().parents[2]
sys.path.append(str(ROOT / "tools/release"))

import bill  # noqa: E402  (the path to it is set above)
import notices  # noqa: E402

SOURCES = ROOT / "packaging/installer"
LIMIT = 120.0

# What the packaging of every version of Lumaris is derived from: never change it.
NAMESPACE = uuid.UUID("5b0f3f0a-6d0e-4c53-8f1b-0a1d5c8b2f11")

PLATFORMS = {"arm64": "Arm64", "x64": "x64"}
# What is installed.
PROGRAMS = ("lumaris.exe", "lumaris_check.exe")
# The licences of the libraries in them. Not THIRD-PARTY-NOTICES.txt, as in a release: the product may have a file of that name in the same folder.
NOTICES = "lumaris_notices.txt"
# The upgrade code of Lumaris's package of its own.
ALONE = "{2F5D8F4E-0A5B-4D77-9A07-6F7F2F0B9C40}"
# What FindRelatedProducts sets when that package is on the machine, in any version and in a newer one.
ALONE_FOUND = "LUMARISALONE"
ALONE_NEWER = "LUMARISALONENEWER"
# What AppSearch sets when some package has installed the program, whose component has this code.
PRESENT = "LUMARISPRESENT"
PROGRAM_COMPONENT = "{8D0F4B0E-66AB-4A44-9A55-5A86BB0BD102}"
SECURE = ("CHANNEL", "LUMARISNOTASK", "NOTASK", "PROXYPASSWORD", "PROXYUSER", "TASKTIME")
HIDDEN = ("LumarisStoreSettings", "PROXYPASSWORD")

# Only administrators and SYSTEM may write where packages wait for the installer; everybody may read. Inheritance from above is cut off.
STORE_RIGHTS = "D:PAI(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)"

# Custom action types: the action's target is not written into the log.
_HIDE_TARGET = 0x2000

# 2000-01-01T00:00:00Z, in seconds and as Windows counts time: no package says when it was made.
_EPOCH = 946684800
_FILE_TIME = (_EPOCH + 11644473600) * 10_000_000


class PackagingError(Exception):
    """A package that could not be made."""


def run(*arguments: str, cwd: Path | None = None) -> str:
    """Runs a program that says nothing when all is well; its output."""
    done = subprocess.run(arguments, capture_output=True, text=True, timeout=LIMIT, check=False, cwd=cwd,
                          env={**os.environ, "SOURCE_DATE_EPOCH": str(_EPOCH)})
    if done.returncode != 0 or done.stderr.strip():
        raise PackagingError(f"{' '.join(arguments)}: {(done.stderr or done.stdout).strip()}")
    return done.stdout


def table(package: Path, name: str) -> list[dict[str, str]]:
    """The rows of a table."""
    lines = run("msiinfo", "export", str(package), name).splitlines()
    columns = lines[0].split("\t")
    return [dict(zip(columns, line.split("\t"), strict=False)) for line in lines[3:]]


def file_version(program: Path) -> str:
    """The version in a program's version block, four numbers."""
    image = pefile.PE(str(program))
    try:
        fixed = image.VS_FIXEDFILEINFO[0]
    except (AttributeError, IndexError) as error:
        raise PackagingError(f"{program.name} has no version block") from error
    return ".".join(str(part) for high_low in (fixed.FileVersionMS, fixed.FileVersionLS) for part in (high_low >> 16, high_low & 0xFFFF))


def _import_table(package: Path, name: str, head: list[str], rows: list[list[str]]) -> None:
    with tempfile.TemporaryDirectory(prefix="installer-") as folder:
        source = Path(folder) / f"{name}.idt"
        source.write_bytes("".join(f"{line}\r\n" for line in [*head, *("\t".join(row) for row in rows)]).encode("ascii"))
        run("msibuild", str(package), "-i", str(source))


def finish(package: Path, architecture: str, programs: dict[str, Path], *, subject: str = "Lumaris", more: dict[str, str] | None = None) -> None:
    """Writes what wixl does not know into the tables. `programs` are the files with a version block, by their id in the File table.

    `more` are further folders with their rights, by their id in the Directory table.
    """
    statements = []
    for identifier, program in programs.items():
        # Without a version Windows Installer takes a file on the disk that has one for the newer one, and keeps it.
        statements.append(f"UPDATE `File` SET `Version` = '{file_version(program)}', `Language` = '1033' WHERE `File` = '{identifier}'")
        statements.append(f"DELETE FROM `MsiFileHash` WHERE `File_` = '{identifier}'")
    properties = {row["Property"]: row["Value"] for row in table(package, "Property")}
    is_alone = properties["UpgradeCode"].upper() == ALONE
    for name, values in (("SecureCustomProperties", (*SECURE, *((PRESENT,) if is_alone else (ALONE_FOUND, ALONE_NEWER)))),
                         ("MsiHiddenProperties", HIDDEN)):
        wanted = ";".join(sorted({*values, *filter(None, properties.get(name, "").split(";"))}))
        statements.append(f"UPDATE `Property` SET `Value` = '{wanted}' WHERE `Property` = '{name}'" if name in properties else
                          f"INSERT INTO `Property` (`Property`, `Value`) VALUES ('{name}', '{wanted}')")
    for row in table(package, "CustomAction"):
        if row["Action"] in ("LumarisStoreSettings", "LumarisStoreSettingsData"):
            statements.append(f"UPDATE `CustomAction` SET `Type` = {int(row['Type']) | _HIDE_TARGET} WHERE `Action` = '{row['Action']}'")
    for statement in statements:
        run("msibuild", str(package), "-q", statement)
    if is_alone:
        _import_table(package, "CompLocator", ["Signature_\tComponentId\tType", "s72\ts38\tI2", "CompLocator\tSignature_"],
                      [["LumarisPresent", PROGRAM_COMPONENT, "1"]])
        run("msibuild", str(package), "-q", f"INSERT INTO `AppSearch` (`Property`, `Signature_`) VALUES ('{PRESENT}', 'LumarisPresent')")
    _import_table(package, "MsiLockPermissionsEx",
                  ["MsiLockPermissionsEx\tLockObject\tTable\tSDDLText\tCondition", "s72\ts72\ts32\ts0\tS255", "MsiLockPermissionsEx\tMsiLockPermissionsEx"],
                  [[f"{folder}Rights", folder, "CreateFolder", rights, ""] for folder, rights in {"LumarisStore": STORE_RIGHTS, **(more or {})}.items()])
    stamp(package, architecture, subject)


def stamp(package: Path, architecture: str, subject: str) -> None:
    """Gives the package its platform, and in the place of a random code and the present time what its content says."""
    zero = "{00000000-0000-0000-0000-000000000000}"
    run("msibuild", str(package), "-s", subject, "Tavrin", f"{PLATFORMS[architecture]};1033", zero)
    _set_times(package)
    code = uuid.uuid5(NAMESPACE, package.read_bytes().hex())
    content = package.read_bytes()
    if content.count(zero.encode()) != 1:
        raise PackagingError(f"{package.name}: the place of the package code is not known")
    package.write_bytes(content.replace(zero.encode(), f"{{{str(code).upper()}}}".encode()))


def _set_times(package: Path) -> None:
    """Sets the two times of the summary information (properties 12 and 13 of its stream), which say when the package was created."""
    content = bytearray(package.read_bytes())
    # [MS-OLEPS]: byte order, version, system, class, one set, its format (that of the summary information) and its place in the stream.
    form = uuid.UUID("f29f85e0-4ff9-1068-ab91-08002b27b3d9").bytes_le
    at = bytes(content).find(form)
    if at < 28 or bytes(content).find(form, at + 1) != -1:
        raise PackagingError(f"{package.name}: there is no summary information, or more than one")
    stream = at - 28
    start = stream + struct.unpack_from("<I", content, at + 16)[0]
    count = struct.unpack_from("<I", content, start + 4)[0]
    found = 0
    for index in range(count):
        identifier, offset = struct.unpack_from("<II", content, start + 8 + 8 * index)
        if identifier in (12, 13) and struct.unpack_from("<I", content, start + offset)[0] == 64:  # VT_FILETIME
            struct.pack_into("<Q", content, start + offset + 4, _FILE_TIME)
            found += 1
    if found != 2:
        raise PackagingError(f"{package.name}: the summary information has {found} times, not 2")
    package.write_bytes(content)


def stage(programs: dict[str, Path], folder: Path) -> None:
    """Copies files to where the source file expects them, without the time at which they were built: cabinets keep that."""
    for name, program in programs.items():
        target = folder / name
        shutil.copyfile(program, target)
        target.chmod(0o644)
        os.utime(target, (_EPOCH, _EPOCH))


def pack(source: Path, package: Path, staged: Path, variables: dict[str, str]) -> None:
    """Packs what a source file describes, with the fragment of Lumaris at hand, and the licences of the libraries beside the staged programs."""
    sources = bill.read_sources((ROOT / "toolchain/sources.list").read_text(encoding="utf-8"))
    text = staged / NOTICES
    version = file_version(staged / "lumaris.exe").removesuffix(".0")
    text.write_text(notices.make_notices(version, sources), encoding="utf-8", newline="\r\n")
    os.utime(text, (_EPOCH, _EPOCH))
    definitions = [part for name, value in {"programs": str(staged), "lumaris_version": version, **variables}.items() for part in ("-D", f"{name}={value}")]
    package.unlink(missing_ok=True)
    run("wixl", "-a", "x64", "-I", str(SOURCES), *definitions, "-o", str(package), str(source))


def programs_of(build: Path) -> dict[str, Path]:
    """What a package needs of a build folder."""
    return {"lumaris.exe": build / "src/updater/lumaris.exe", "lumaris_check.exe": build / "tools/check/lumaris_check.exe",
            "lumaris_setup.dll": build / "packaging/installer/lumaris_setup.dll"}


def make(programs: Path, architecture: str, version: str, package: Path) -> None:
    """Makes Lumaris's own package of the programs in a folder."""
    files = {name: programs / name for name in (*PROGRAMS, "lumaris_setup.dll")}
    with tempfile.TemporaryDirectory(prefix="installer-") as folder:
        staged = Path(folder)
        stage(files, staged)
        # The same version is the same product whoever packs it: a second package of one version is refused, not installed beside the first.
        product = str(uuid.uuid5(NAMESPACE, f"{architecture} {version}")).upper()
        pack(SOURCES / "package.wxs", package, staged, {"version": version, "product": product, "lumaris_alone": "yes"})
        finish(package, architecture, {name: files[name] for name in PROGRAMS}, subject=f"Lumaris {version}, the updater of Halvoro")
