"""What the tables of a package that carries Lumaris must say, so that it does on Windows what it did under Wine.

Wine forgives what Windows does not: actions outside the transaction, missing versions, rights. So the tables themselves are checked.
"""

from __future__ import annotations

import re
import tempfile
from collections.abc import Iterator
from pathlib import Path

from package import (
    ALONE, ALONE_FOUND, ALONE_NEWER, HIDDEN, NOTICES, PLATFORMS, PRESENT, PROGRAM_COMPONENT, PROGRAMS, SECURE, STORE_RIGHTS, run, table)

from program import strings_of  # isort: skip  (package sets the path to it)

_DEFERRED = 0x400
_NO_IMPERSONATION = 0x800
_HIDE_TARGET = 0x2000
_IN_COMPONENT_64 = 256
_ONLY_DETECT = 0x2
_WITH_MINIMUM = 0x100

# A path of the machine on which it was built.
_BUILD_PATH = re.compile(r"(?:/src/|/tmp/|/home/|/root/|/work/|[A-Za-z]:\\(?:src|build|Users)\\)[\w.-]+")


def check(package: Path, architecture: str, version: str, programs: tuple[str, ...] = PROGRAMS) -> list[str]:
    """Sentences about what is wrong, or nothing."""
    summary = dict(line.split(": ", 1) for line in run("msiinfo", "suminfo", str(package)).splitlines() if ": " in line)
    properties = {row["Property"]: row["Value"] for row in table(package, "Property")}
    return [*_check_summary(summary, architecture), *_check_properties(properties, version), *_check_sequence(package),
            *_check_going_back(package, version), *_check_owner(package, properties), *_check_files(package, version, programs),
            *_check_rights(package), *_check_paths(package)]


def _check_summary(summary: dict[str, str], architecture: str) -> list[str]:
    faults = []
    if summary.get("Template") != f"{PLATFORMS[architecture]};1033":
        faults.append(f"the platform is {summary.get('Template')}, not {PLATFORMS[architecture]};1033")
    if not summary.get("Version", "").startswith("500 "):
        faults.append(f"the installer version is {summary.get('Version')}: ARM64 and rights by SDDL need 500")
    if int(summary.get("Source", "0").split()[0]) & 8:
        faults.append("the package says that it needs no administrator's rights (bit 3 of the word count)")
    return faults


def _check_properties(properties: dict[str, str], version: str) -> list[str]:
    faults = []
    if properties.get("ALLUSERS") != "1":
        faults.append("ALLUSERS is not 1: the package is not per machine")
    if properties.get("ProductVersion") != version:
        faults.append(f"ProductVersion is {properties.get('ProductVersion')}, not {version}")
    for what, names in (("SecureCustomProperties", SECURE), ("MsiHiddenProperties", HIDDEN)):
        missing = set(names) - set(properties.get(what, "").split(";"))
        if missing:
            faults.append(f"{what} lacks {', '.join(sorted(missing))}")
    return faults


def _check_sequence(package: Path) -> list[str]:
    faults = []
    numbers = {row["Action"]: int(row["Sequence"]) for row in table(package, "InstallExecuteSequence")}
    begin, end = numbers["InstallInitialize"], numbers["InstallFinalize"]
    for row in table(package, "CustomAction"):
        name, kind = row["Action"], int(row["Type"])
        number = numbers.get(name)
        if number is None:
            faults.append(f"the action {name} stands in no sequence")
        elif kind & _DEFERRED and not begin < number < end:
            faults.append(f"the deferred action {name} has the number {number}, outside of {begin} to {end}")
        if kind & _DEFERRED and not kind & _NO_IMPERSONATION:
            faults.append(f"the deferred action {name} runs as the user")
        if name.startswith("LumarisStoreSettings") and not kind & _HIDE_TARGET:
            faults.append(f"the action {name} writes the proxy's password into the log")
    for first, second in (("LumarisUnmakeTask", "LumarisMakeTask"), ("LumarisUnmakeTaskData", "LumarisUnmakeTask"),
                          ("LumarisMakeTaskData", "LumarisMakeTask"), ("LumarisStoreSettingsData", "LumarisStoreSettings"),
                          ("LumarisRemoveData", "LumarisRemove"), ("InstallFiles", "LumarisMakeTask"), ("RemoveFiles", "LumarisRemove"),
                          ("PublishProduct", "LumarisStoreSettings")):
        if numbers.get(first, 0) >= numbers.get(second, 0):
            faults.append(f"{first} does not come before {second}")
    removal = numbers.get("RemoveExistingProducts", 0)
    if not begin < removal < numbers["InstallFiles"]:
        faults.append(f"RemoveExistingProducts has the number {removal}: outside of the transaction a failure does not bring the former version back")
    conditions = {row["Action"]: row["Condition"] for row in table(package, "InstallExecuteSequence")}
    if "NOT UPGRADINGPRODUCTCODE" not in conditions.get("LumarisRemove", ""):
        faults.append("LumarisRemove also runs when a newer version removes this one")
    return faults


def _check_going_back(package: Path, version: str) -> list[str]:
    newer = [row["ActionProperty"] for row in table(package, "Upgrade")
             if row["VersionMin"] == version and not row["VersionMax"] and int(row["Attributes"]) & 2]
    refused = [row["Condition"] for row in table(package, "LaunchCondition")]
    return [] if any(f"NOT {name}" in refused for name in newer) else ["the package does not refuse to take the place of a newer version"]


def _rows(package: Path, name: str) -> list[dict[str, str]]:
    """The rows of a table that may not be there."""
    return table(package, name) if name in run("msiinfo", "tables", str(package)).split() else []


def _check_owner(package: Path, properties: dict[str, str]) -> list[str]:
    """Lumaris's package of its own must not stay beside the product's: two owners of the same files."""
    secure = properties.get("SecureCustomProperties", "").split(";")
    conditions = [row["Condition"] for row in table(package, "LaunchCondition")]
    if properties.get("UpgradeCode", "").upper() == ALONE:
        searched = ("LumarisPresent", PROGRAM_COMPONENT) in [(row["Signature_"], row["ComponentId"]) for row in _rows(package, "CompLocator")]
        found = (PRESENT, "LumarisPresent") in [(row["Property"], row["Signature_"]) for row in table(package, "AppSearch")]
        refused = f"Installed OR WIX_UPGRADE_DETECTED OR NOT {PRESENT}" in conditions
        return [] if searched and found and refused and PRESENT in secure else ["the package is installed beside the product's, which has brought the same"]
    rows = [row for row in table(package, "Upgrade") if row["UpgradeCode"].upper() == ALONE]
    takes = any(row["ActionProperty"] == ALONE_FOUND and row["VersionMin"] == "0.0.0" and not row["VersionMax"]
                and int(row["Attributes"]) & _ONLY_DETECT == 0 and int(row["Attributes"]) & _WITH_MINIMUM for row in rows)
    refuses = any(row["ActionProperty"] == ALONE_NEWER and not row["VersionMax"] and int(row["Attributes"]) & _ONLY_DETECT for row in rows)
    faults = [] if takes and ALONE_FOUND in secure else ["Lumaris's package of its own stays beside this one: two owners of the same files"]
    if not refuses or ALONE_NEWER not in secure or f"NOT {ALONE_NEWER}" not in conditions:
        faults.append("the package takes the place of a newer package of Lumaris's own")
    return faults


def _check_files(package: Path, version: str, programs: tuple[str, ...]) -> list[str]:
    files = {row["File"]: row for row in table(package, "File")}
    faults = []
    for name in programs:
        if name not in files:
            faults.append(f"the package does not carry {name}")
        elif files[name]["Version"] != f"{version}.0":
            faults.append(f"{name} has the version {files[name]['Version'] or 'none'}, not {version}.0")
    if NOTICES not in {row["FileName"].rpartition("|")[2] for row in files.values()}:
        faults.append("the package does not carry the licences of the libraries")
    for row in table(package, "Component"):
        if not int(row["Attributes"]) & _IN_COMPONENT_64:
            faults.append(f"the component {row['Component']} is one of 32 bits: its registry values would go elsewhere")
    return faults


def _check_rights(package: Path) -> list[str]:
    rows = [(row["LockObject"], row["Table"], row["SDDLText"]) for row in table(package, "MsiLockPermissionsEx")]
    return [] if ("LumarisStore", "CreateFolder", STORE_RIGHTS) in rows else ["the folder of the packages does not get its rights"]


def contents(package: Path) -> Iterator[tuple[str, bytes]]:
    """What the package holds, each by its name and uncompressed: tables, files of the cabinet, libraries of the custom actions."""
    with tempfile.TemporaryDirectory(prefix="installer-") as folder:
        for name in run("msiinfo", "tables", str(package)).split():
            # A table of streams, such as Binary, leaves them as files in a folder of its name.
            yield f"the table {name}", run("msiinfo", "export", str(package.resolve()), name, cwd=Path(folder)).encode()
        run("msiextract", "-C", folder, str(package))
        for file in sorted(path for path in Path(folder).rglob("*") if path.is_file()):
            yield file.name.removeprefix("Binary."), file.read_bytes()


def _check_paths(package: Path) -> list[str]:
    """In the package itself a cabinet is compressed, and no path would be found."""
    faults = []
    for name, content in contents(package):
        found = {place.group() for text in strings_of(content) for place in _BUILD_PATH.finditer(text)}
        faults += [f"{name} holds a path of the machine that built it: {path}" for path in sorted(found)]
    return faults
