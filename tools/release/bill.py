"""The bill of materials of a release: what the program is made of, as a CycloneDX document.

The libraries' versions and the hashes of their sources are those of toolchain/sources.list, which the set-up builds from. The
document has no serial number and no time of its own: the same commit, configuration and program give the same bytes.
"""

from __future__ import annotations

import datetime
import hashlib
import re
from collections.abc import Iterable
from dataclasses import dataclass
from pathlib import Path

from cyclonedx.model import ExternalReference, ExternalReferenceType, HashAlgorithm, HashType, Property, XsUri
from cyclonedx.model.bom import Bom
from cyclonedx.model.component import Component, ComponentType, Patch, PatchClassification, Pedigree
from cyclonedx.model.contact import OrganizationalEntity
from cyclonedx.model.license import DisjunctiveLicense, LicenseExpression
from cyclonedx.output.json import JsonV1Dot6
from cyclonedx.schema import SchemaVersion
from cyclonedx.validation.json import JsonStrictValidator
from packageurl import PackageURL

ROOT = Path(__file__).resolve().parents[2]


class BillError(Exception):
    """A bill that cannot be made, or that would not be true."""


@dataclass(frozen=True)
class Source:
    """A line of toolchain/sources.list."""

    package: str
    file: str
    sha256: str

    @property
    def version(self) -> str:
        """The upstream version: PACKAGE_VERSION.orig.tar.X, where "A+really" before it is Debian's order of versions."""
        found = re.fullmatch(r"[^_]+_(.+)\.orig\.tar\.\w+", self.file)
        if not found:
            raise BillError(f"the file {self.file} of the list of sources has no version")
        return found.group(1).rpartition("really")[2]


@dataclass(frozen=True)
class Part:
    """A library in the program: from which source, and which archives hold it."""

    name: str
    description: str
    source: str
    folder: str  # within the source, "" for all of it
    license: str  # SPDX expression, or the text file that says it
    archives: frozenset[str]
    patches: str = ""  # a pattern of toolchain/patches


# libc++.a holds libc++abi, too. Import libraries are MinGW-w64's and leave nothing of theirs but names of functions.
_LLVM_LICENSE = "Apache-2.0 WITH LLVM-exception"
PARTS = (
    Part("zlib", "compression of error reports", "zlib", "", "Zlib", frozenset({"libz.a"})),
    Part("libsodium", "BLAKE2b and Ed25519 of Minisign signatures", "libsodium", "", "ISC", frozenset({"libsodium.a"})),
    Part("mingw-w64-crt", "start of the program, import libraries, what the universal C run-time lacks", "mingw-w64", "mingw-w64-crt",
         "COPYING.MinGW-w64-runtime.txt",
         frozenset({"crt2u.o", "crtbegin.o", "crtend.o", "libmingw32.a", "libmingwex.a", "libmsvcrt.a", "libadvapi32.a", "libkernel32.a",
                    "libsecur32.a", "libshell32.a", "libuuid.a"})),
    Part("compiler-rt", "the compiler's helper functions", "llvm-toolchain-19", "compiler-rt", _LLVM_LICENSE,
         frozenset({"libclang_rt.builtins-aarch64.a"})),
    Part("libunwind", "unwinding of exceptions", "llvm-toolchain-19", "libunwind", _LLVM_LICENSE, frozenset({"libunwind.a"})),
    Part("libc++abi", "exceptions and type information of C++", "llvm-toolchain-19", "libcxxabi", _LLVM_LICENSE, frozenset({"libc++.a"})),
    Part("libc++", "C++ standard library", "llvm-toolchain-19", "libcxx", _LLVM_LICENSE, frozenset({"libc++.a"}), "libcxx-*.patch"),
)


def read_sources(text: str) -> dict[str, Source]:
    """The sources by package."""
    lines = [line.split() for line in text.splitlines() if line.strip() and not line.startswith("#")]
    if broken := [words for words in lines if len(words) != 3 or not re.fullmatch("[0-9a-f]{64}", words[2])]:
        raise BillError(f"the list of sources has a line that is none: {' '.join(broken[0])}")
    return {words[0]: Source(*words) for words in lines}


def check_parts(archives: Iterable[str]) -> list[str]:
    """What was linked is what the bill names, and nothing on the bill was left out of the program."""
    linked = set(archives)
    known = frozenset().union(*(part.archives for part in PARTS))
    return [*(f"{archive} is linked into the program, and the bill of materials does not name it" for archive in sorted(linked - known)),
            *(f"the bill of materials has {part.name}, of which nothing is in the program" for part in PARTS if not part.archives & linked)]


def _patches(pattern: str) -> tuple[list[Patch], str]:
    files = sorted((ROOT / "toolchain/patches").glob(pattern)) if pattern else []
    notes = ", ".join(f"toolchain/patches/{file.name} (SHA-256 {hashlib.sha256(file.read_bytes()).hexdigest()})" for file in files)
    return [Patch(type=PatchClassification.UNOFFICIAL) for _ in files[:1]], notes


def _license(part: Part) -> DisjunctiveLicense | LicenseExpression:
    # MinGW-w64's is a collection (ZPL 2.1, BSD and others) for which there is no one expression: its file in the source is named.
    return DisjunctiveLicense(name=f"{part.source}: {part.license}") if part.license.endswith(".txt") else LicenseExpression(part.license)


def _component(part: Part, source: Source) -> Component:
    patches, notes = _patches(part.patches)
    return Component(
        type=ComponentType.LIBRARY, bom_ref=f"{part.name}@{source.version}", name=part.name, version=source.version,
        description=part.description, licenses=[_license(part)],
        purl=PackageURL("generic", None, source.package.removesuffix("-toolchain-19"), source.version,
                        {"checksum": f"sha256:{source.sha256}"}, part.folder or None),
        external_references=[ExternalReference(type=ExternalReferenceType.SOURCE_DISTRIBUTION, url=XsUri(source.file),
                                               hashes=[HashType(alg=HashAlgorithm.SHA_256, content=source.sha256)])],
        pedigree=Pedigree(patches=patches, notes=f"patched with {notes}") if patches else None)


@dataclass(frozen=True)
class Release:
    """What the bill says of the program itself."""

    version: str
    commit: str
    time: int  # of the commit, seconds since 1970
    properties: dict[str, str]
    program: bytes  # as it is shipped
    unsigned: bytes  # as it is built
    pdb: bytes


def _hashes(data: bytes) -> list[HashType]:
    return [HashType(alg=HashAlgorithm.SHA_256, content=hashlib.sha256(data).hexdigest()),
            HashType(alg=HashAlgorithm.SHA_512, content=hashlib.sha512(data).hexdigest())]


def make_bill(release: Release, sources: dict[str, Source]) -> str:
    """The document, valid against the schema of CycloneDX 1.6."""
    for part in PARTS:
        if part.source not in sources:
            raise BillError(f"{part.name} comes from {part.source}, which the list of sources does not have")
    program = Component(
        type=ComponentType.APPLICATION, bom_ref="lumaris.exe", name="lumaris.exe", version=release.version,
        supplier=OrganizationalEntity(name="Tavrin"), description="Lumaris, the updater of Halvoro, for Windows on ARM64",
        hashes=_hashes(release.program),
        properties=[Property(name=f"lumaris:{name}", value=value) for name, value in sorted({
            **release.properties, "commit": release.commit,
            "unsigned-sha256": hashlib.sha256(release.unsigned).hexdigest(),
            "pdb-sha256": hashlib.sha256(release.pdb).hexdigest()}.items())])
    libraries = [_component(part, sources[part.source]) for part in PARTS]
    bom = Bom(components=libraries)
    # Of the same content is the same document: no serial number, and the time is that of the commit.
    bom.serial_number = None  # type: ignore[assignment]
    bom.metadata.timestamp = datetime.datetime.fromtimestamp(release.time, datetime.timezone.utc)
    bom.metadata.component = program
    bom.register_dependency(program, libraries)
    text = JsonV1Dot6(bom).output_as_string(indent=2) + "\n"
    if fault := fault_of(text):
        raise BillError(f"the bill of materials is not valid: {fault}")
    return text


def fault_of(text: str) -> str | None:
    """What the schema of CycloneDX 1.6 says against the document."""
    fault = JsonStrictValidator(SchemaVersion.V1_6).validate_str(text)
    # The full text repeats the whole schema.
    return None if fault is None else str(fault.data.message)
