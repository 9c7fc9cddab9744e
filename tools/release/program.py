"""What a released program must look like: checks over the bytes of the program and of its PDB.

Each check is a function that returns its complaints, a sentence each, and none if all is well. They read the bytes
alone and know nothing of how the program was built. Formats: Microsoft's "PE Format", with the structures of winnt.h.
"""

from __future__ import annotations

import base64
import re
import struct
import uuid
import xml.etree.ElementTree as ElementTree
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

import pefile

from msf import BrokenFile, Msf

SIZE_LIMIT = 400 * 1024

MACHINE_ARM64 = 0xAA64
SUBSYSTEM_GUI = 2
# Executable, and no fear of addresses above 2 GB; in particular not "relocations stripped".
CHARACTERISTICS = 0x0022
DLL_CHARACTERISTICS = {
    0x0020: "high-entropy addresses",
    0x0040: "dynamic base",
    0x0100: "no execution of data",
    0x4000: "control-flow guard",
    0x8000: "terminal server aware",  # a program that is not gets an old emulation of user folders
}
SECTION_EXECUTE, SECTION_WRITE = 0x20000000, 0x80000000

# Data directories that the program has; any other is a surprise.
DIRECTORIES = {1: "imports", 2: "resources", 3: "unwind data", 5: "base relocations", 6: "debug data", 9: "thread-local storage",
               10: "load configuration", 12: "import addresses"}
DIRECTORY_NAMES = ("exports", "imports", "resources", "unwind data", "certificates", "base relocations", "debug data", "architecture",
                   "global pointer", "thread-local storage", "load configuration", "bound imports", "import addresses",
                   "delayed imports", "CLR header", "reserved")

LOAD_CONFIGURATION_WITH_GUARD = 0x94  # the size of IMAGE_LOAD_CONFIG_DIRECTORY64 up to its guard flags
DEPENDENT_LOAD_FLAGS = 0x800  # LOAD_LIBRARY_SEARCH_SYSTEM32
GUARD_FLAGS = {0x00000100: "calls are checked", 0x00000400: "table of functions", 0x00010000: "table of long jumps"}

LANGUAGES = {0x0409: "English", 0x0424: "Slovenian", 0x041C: "Albanian"}
STRING_BLOCK = 28656 // 16 + 1
STRING_LANGUAGES = {0x0409: "en", 0x0424: "sl", 0x041C: "sq"}
STRINGS = frozenset(range(28656, 28667)) - {28660}
# What the program fills in: pieces of printf formats, by string.
STRING_FORMATS = {28658: ["%.*ls"], 28661: ["%.*ls"], 28662: ["%.*ls"], 28665: ["%hs"]}
# Which of them name the partner in Albanian.
PARTNER_STRINGS = (28659, 28661, 28662, 28663)
MESSAGE_LANGUAGES = (0x0409, 0x0424)
# Event id and how many texts are inserted.
MESSAGES = {0: 1, 2: 1, 3: 1, 4: 1, 5: 1, 0x80000000: 1, 0x80000001: 2, 0xC0000000: 1}
RT_STRING, RT_MESSAGETABLE, RT_VERSION, RT_MANIFEST = 6, 11, 16, 24
RESOURCES = frozenset({*((RT_STRING, STRING_BLOCK, language) for language in STRING_LANGUAGES),
                       *((RT_MESSAGETABLE, 1, language) for language in MESSAGE_LANGUAGES),
                       (RT_VERSION, 1, 0x0409), (RT_MANIFEST, 1, 0)})

# Names of source files that the libraries' assertions print. They are not paths of the machine: the libraries are compiled with
# their folders called so, wherever they are.
KNOWN_SOURCES = re.compile(r"^(\\toolchain\\llvm\\libcxxabi\\src\\[\w\\]+\.(cpp|h)"  # libc++abi
                           r"|crypto_generichash\\blake2b\\ref\\[\w-]+\.c|sodium\\core\.c)$")  # libsodium
_SOURCE = re.compile(r"[\w.+:\\/-]*[\w+-]\.(?:c|cc|cpp|cxx|h|hh|hpp|inc|s|asm|rc|rs|py|o|obj|a|lib|pdb)\b(?!\.)", re.IGNORECASE)
_FOLDER = re.compile(r"(?:\b[A-Za-z]:[\\/]\w|[\\/](?:home|root|Users|src|tmp|opt|usr|var|build|mnt|work|lumaris|deps)[\\/])[^\s\"]*")

# Names and addresses that never leave a laboratory: RFC 2606, RFC 6761, loopback.
_LABORATORY = re.compile(r"\b(?:[A-Za-z0-9-]+\.)*(?:example|invalid|test|localhost)\b(?:\.(?:com|net|org)\b)?|\b127\.\d+\.\d+\.\d+\b",
                         re.IGNORECASE)
# As words of a text these are not hosts; "localhost" is one.
_DOTLESS = re.compile(r"^(example|invalid|test)$", re.IGNORECASE)
# The text for a certificate of another host explains itself with two names, whatever the hosts are.
_EXPLANATION = "if you requested updates.tavrin.example and the certificate says www.tavrin.example."


@dataclass(frozen=True)
class Configuration:
    """What the release was configured with."""

    version: str  # as CMakeLists.txt has it, three numbers
    public_key: str  # the line that minisign prints
    update_host: str
    report_host: str
    partner: str  # whom the Albanian texts name


@dataclass(frozen=True)
class TestKey:
    """The key pair of the tests, as their files have it."""

    public_key: str
    secret_key: str


def strings_of(image: bytes) -> Iterator[str]:
    """The printable texts in the bytes, of four characters and more, 8-bit and UTF-16."""
    for found in re.finditer(rb"[\x20-\x7e]{4,}", image):
        yield found.group().decode("ascii")
    for found in re.finditer(rb"(?:[\x20-\x7e]\x00){4,}", image):
        yield found.group().decode("utf-16-le")


def _parse(image: bytes, *directories: str) -> pefile.PE:
    try:
        program = pefile.PE(data=image, fast_load=True)
        if directories:
            program.parse_data_directories([pefile.DIRECTORY_ENTRY[f"IMAGE_DIRECTORY_ENTRY_{name}"] for name in directories])
    except (pefile.PEFormatError, struct.error) as error:
        raise BrokenFile(f"the program cannot be read: {error}") from error
    return program


def _name(section: pefile.SectionStructure) -> str:
    name: bytes = section.Name
    return name.rstrip(b"\0").decode("ascii", "backslashreplace")


def check_size(image: bytes) -> list[str]:
    """The program keeps to its budget."""
    return [f"the program has {len(image):,} bytes, more than {SIZE_LIMIT:,}"] if len(image) > SIZE_LIMIT else []


def _bits(what: str, value: int, wanted: dict[int, str]) -> list[str]:
    complaints = [f"{what} lack 0x{bit:X}, {meaning}" for bit, meaning in wanted.items() if not value & bit]
    surplus = value & ~sum(wanted)
    return complaints + ([f"{what} have 0x{surplus:X}, which is not expected"] if surplus else [])


def check_headers(image: bytes) -> list[str]:
    """Machine, subsystem, characteristics; and nothing a linker leaves behind for debugging."""
    program = _parse(image)
    file, optional = program.FILE_HEADER, program.OPTIONAL_HEADER
    complaints = []
    if file.Machine != MACHINE_ARM64:
        complaints.append(f"the machine is 0x{file.Machine:04X}, not ARM64 (0x{MACHINE_ARM64:04X})")
    if optional.Magic != 0x20B:
        complaints.append(f"the optional header's magic is 0x{optional.Magic:X}, not that of a 64-bit program (0x20B)")
    if optional.Subsystem != SUBSYSTEM_GUI:
        complaints.append(f"the subsystem is {optional.Subsystem}, not the one without a console ({SUBSYSTEM_GUI})")
    if file.Characteristics != CHARACTERISTICS:
        complaints.append(f"the characteristics are 0x{file.Characteristics:04X}, not 0x{CHARACTERISTICS:04X}")
    complaints += _bits("the DLL characteristics", optional.DllCharacteristics, DLL_CHARACTERISTICS)
    if file.PointerToSymbolTable or file.NumberOfSymbols:
        complaints.append("the program has a symbol table")
    return complaints


def check_directories(image: bytes) -> list[str]:
    """No exports, no delayed imports, no signature yet, nothing else that the program does not have."""
    program = _parse(image)
    present = {number for number, entry in enumerate(program.OPTIONAL_HEADER.DATA_DIRECTORY) if entry.VirtualAddress or entry.Size}
    return [*(f"the program has {DIRECTORY_NAMES[number]}, which it should not" for number in sorted(present - DIRECTORIES.keys())),
            *(f"the program has no {name}" for number, name in DIRECTORIES.items() if number not in present)]


def check_sections(image: bytes) -> list[str]:
    """No section is both writable and executable, and nothing stands behind the last one."""
    program = _parse(image)
    both = SECTION_EXECUTE | SECTION_WRITE
    complaints = [f"the section {_name(section)} is writable and executable" for section in program.sections
                  if section.Characteristics & both == both]
    end = max((section.PointerToRawData + section.SizeOfRawData for section in program.sections), default=0)
    if len(image) > end:
        complaints.append(f"{len(image) - end:,} bytes stand behind the last section, from offset 0x{end:X}")
    elif len(image) < end:
        complaints.append(f"the last section ends at offset 0x{end:X}, the program at 0x{len(image):X}")
    return complaints


def check_load_configuration(image: bytes) -> list[str]:
    """Libraries come from System32 only, and control-flow guard has its tables."""
    loaded = getattr(_parse(image, "LOAD_CONFIG"), "DIRECTORY_ENTRY_LOAD_CONFIG", None)
    if loaded is None or loaded.struct.Size < LOAD_CONFIGURATION_WITH_GUARD:
        return ["the load configuration is missing or too short for control-flow guard"]
    fields = loaded.struct
    complaints = []
    if fields.DependentLoadFlags != DEPENDENT_LOAD_FLAGS:
        complaints.append(f"the dependent load flags are 0x{fields.DependentLoadFlags:X}, not 0x{DEPENDENT_LOAD_FLAGS:X}: "
                          "libraries from System32 only")
    complaints += _bits("the guard flags", fields.GuardFlags, GUARD_FLAGS)
    if not fields.GuardCFCheckFunctionPointer or not fields.GuardCFFunctionTable or not fields.GuardCFFunctionCount:
        complaints.append("control-flow guard has no check function, or no function in its table")
    return complaints


def read_allowed(text: str) -> dict[str, frozenset[str]]:
    """The functions of each library in the list of imports; see imports.txt for its form. ValueError if it has not that form."""
    allowed: dict[str, set[str]] = {}
    functions: set[str] | None = None
    for number, line in enumerate(text.splitlines(), 1):
        if not line.strip() or line.lstrip().startswith("#"):
            continue
        if line[0].isspace():
            if functions is None:
                raise ValueError(f"line {number}: functions before the first library")
            functions.update(line.split())
        else:
            library, separator, reason = line.partition(":")
            if not separator or not reason.strip():
                raise ValueError(f"line {number}: the library {library} has no reason")
            if library.lower() in allowed:
                raise ValueError(f"line {number}: the library {library} stands there twice")
            functions = allowed.setdefault(library.lower(), set())
    return {library: frozenset(names) for library, names in allowed.items()}


def imports_of(image: bytes) -> dict[str, set[str]]:
    """The imported functions by library, in small letters; one that is imported by its number is "#number"."""
    program = _parse(image, "IMPORT")
    found: dict[str, set[str]] = {}
    for library in getattr(program, "DIRECTORY_ENTRY_IMPORT", []):
        names = found.setdefault(library.dll.decode("ascii", "backslashreplace").lower(), set())
        names.update(entry.name.decode("ascii", "backslashreplace") if entry.name else f"#{entry.ordinal}" for entry in library.imports)
    return found


def check_imports(image: bytes, allowed: dict[str, frozenset[str]]) -> list[str]:
    """Only listed functions of listed libraries, and the list names none that is not needed."""
    complaints = []
    found = imports_of(image)
    for library, names in sorted(found.items()):
        if library not in allowed:
            complaints.append(f"the program imports from {library}, which is not in the list of imports")
            continue
        complaints += [f"the program imports {name} of {library}, which is not in the list of imports"
                       for name in sorted(names - allowed[library])]
    for library, wanted in sorted(allowed.items()):
        complaints += [f"the list of imports has {name} of {library}, which the program does not import"
                       for name in sorted(wanted - found.get(library, set()))]
    return complaints


def _resources(program: pefile.PE) -> dict[tuple[int | str, int | str, int], bytes]:
    found: dict[tuple[int | str, int | str, int], bytes] = {}
    for kind in getattr(getattr(program, "DIRECTORY_ENTRY_RESOURCE", None), "entries", []):
        for name in getattr(getattr(kind, "directory", None), "entries", []):
            for language in getattr(getattr(name, "directory", None), "entries", []):
                # A name is text, a number is a number: the type "11" as text is not a message table.
                key = (str(kind.name) if kind.name else kind.id, str(name.name) if name.name else name.id, language.id)
                found[key] = program.get_data(language.data.struct.OffsetToData, language.data.struct.Size)
    return found


def _describe(key: tuple[int | str, int | str, int]) -> str:
    kinds: dict[int | str, str] = {RT_STRING: "string table", RT_MESSAGETABLE: "message table", RT_VERSION: "version block", RT_MANIFEST: "manifest"}
    kind, name, language = key
    return f"{kinds.get(kind, f'resource of type {kind}')} {name} in {LANGUAGES.get(language, f'language 0x{language:04X}')}"


def _string_block(data: bytes) -> dict[int, str]:
    """The strings of a block of 16: a count of UTF-16 units, then the units.

    Read by hand: pefile keeps one of a block's languages, and reads on behind the end of a block that is cut off.
    """
    strings, position = {}, 0
    for number in range((STRING_BLOCK - 1) * 16, STRING_BLOCK * 16):
        if position + 2 > len(data):
            raise BrokenFile("it ends early")
        length, = struct.unpack_from("<H", data, position)
        text = data[position + 2:position + 2 + 2 * length]
        if len(text) < 2 * length:
            raise BrokenFile("it ends early")
        if length:
            strings[number] = text.decode("utf-16-le", "replace")
        position += 2 + 2 * length
    return strings


def _check_strings(language: int, data: bytes) -> list[str]:
    where = f"the string table in {LANGUAGES[language]}"
    try:
        strings = _string_block(data)
    except BrokenFile as error:
        return [f"{where} cannot be read: {error}"]
    complaints = [f"{where} lacks the string {number}" for number in sorted(STRINGS - strings.keys())]
    complaints += [f"{where} has a string {number}, which is not expected" for number in sorted(strings.keys() - STRINGS)]
    if strings.get(28656, STRING_LANGUAGES[language]) != STRING_LANGUAGES[language]:
        complaints.append(f"{where} says that its language is \"{strings[28656]}\"")
    for number, wanted in STRING_FORMATS.items():
        found = re.findall(r"%[^\s%A-Z]*[a-z]", strings[number].replace("%%", "")) if number in strings else wanted
        if found != wanted:
            complaints.append(f"the string {number} in {LANGUAGES[language]} has the formats {found}, not {wanted}")
    return complaints


def check_partner(image: bytes, partner: str) -> list[str]:
    """The Albanian texts about the server name the partner. Two of them are formats, in which a percent sign stands twice."""
    data = _resources(_parse(image, "RESOURCE")).get((RT_STRING, STRING_BLOCK, 0x041C))
    try:
        strings = _string_block(data) if data is not None else {}
    except BrokenFile:
        return []  # the check of the texts says so
    return [f"the string {number} in Albanian does not name the partner {partner}" for number in PARTNER_STRINGS
            if number in strings and partner not in strings[number].replace("%%", "%")]


def _message_table(data: bytes) -> dict[int, str]:
    """MESSAGE_RESOURCE_DATA: blocks of ids, each with the place of its entries; an entry has a length, flags and a text.

    Read by hand: pefile leaves message tables alone.
    """
    messages = {}
    try:
        count, = struct.unpack_from("<I", data)
        for block in range(count):
            low, high, position = struct.unpack_from("<III", data, 4 + 12 * block)
            for number in range(low, high + 1):
                length, flags = struct.unpack_from("<HH", data, position)
                text = data[position + 4:position + length]
                if length < 4 or len(text) != length - 4:
                    raise BrokenFile(f"message 0x{number:X} is cut off")
                messages[number] = text.decode("utf-16-le" if flags & 1 else "latin-1", "replace").rstrip("\0")
                position += length
    except struct.error as error:
        raise BrokenFile("it ends early") from error
    return messages


def _check_messages(language: int, data: bytes) -> list[str]:
    where = f"the message table in {LANGUAGES[language]}"
    try:
        messages = _message_table(data)
    except BrokenFile as error:
        return [f"{where} cannot be read: {error}"]
    complaints = [f"{where} lacks the message 0x{number:X}" for number in MESSAGES if number not in messages]
    for number, text in messages.items():
        inserted = set(re.findall(r"%\d", text))
        if number not in MESSAGES:
            complaints.append(f"{where} has a message 0x{number:X}, which is not expected")
        elif inserted != {f"%{place + 1}" for place in range(MESSAGES[number])}:
            complaints.append(f"the message 0x{number:X} in {LANGUAGES[language]} inserts {sorted(inserted)}, not {MESSAGES[number]} texts")
        if not text.endswith("\r\n"):
            complaints.append(f"the message 0x{number:X} in {LANGUAGES[language]} does not end with CR LF")
    return complaints


def _check_version(program: pefile.PE, version: str) -> list[str]:
    wanted = f"{version}.0"
    high, middle, low = (int(part) for part in version.split("."))
    complaints = []
    for fixed in getattr(program, "VS_FIXEDFILEINFO", []):
        for name in ("FileVersion", "ProductVersion"):
            found = (getattr(fixed, f"{name}MS"), getattr(fixed, f"{name}LS"))
            if found != (high << 16 | middle, low << 16):
                complaints.append(f"the version block's {name} is {found[0] >> 16}.{found[0] & 0xFFFF}.{found[1] >> 16}.{found[1] & 0xFFFF}, not {wanted}")
    texts = {key.decode(): value.decode() for info in getattr(program, "FileInfo", []) for part in info
             for table in getattr(part, "StringTable", []) for key, value in table.entries.items()}
    for name in ("FileVersion", "ProductVersion"):
        if texts.get(name) != wanted:
            complaints.append(f"the version block's text {name} is {texts.get(name)!r}, not {wanted!r}")
    for name, text in (("OriginalFilename", "lumaris.exe"), ("ProductName", "Halvoro"), ("CompanyName", "Tavrin")):
        if texts.get(name) != text:
            complaints.append(f"the version block's text {name} is {texts.get(name)!r}, not {text!r}")
    return complaints


def _check_manifest(data: bytes, version: str) -> list[str]:
    try:
        root = ElementTree.fromstring(data)
    except ElementTree.ParseError as error:
        return [f"the manifest cannot be read: {error}"]
    complaints = []
    levels = [(level.get("level"), level.get("uiAccess")) for level in root.iter("{urn:schemas-microsoft-com:asm.v3}requestedExecutionLevel")]
    if levels != [("requireAdministrator", "false")]:
        complaints.append(f"the manifest asks for {levels}, not for requireAdministrator without access to other windows")
    versions = [identity.get("version") for identity in root.iter("{urn:schemas-microsoft-com:asm.v1}assemblyIdentity")]
    if versions != [f"{version}.0"]:
        complaints.append(f"the manifest's version is {versions}, not {version}.0")
    return complaints


def check_resources(image: bytes, version: str) -> list[str]:
    """Every text in each of its languages, the version, and the manifest; nothing else."""
    program = _parse(image, "RESOURCE")
    found = _resources(program)
    complaints = [f"the {_describe(key)} is missing" for key in sorted(RESOURCES - found.keys())]
    complaints += [f"the {_describe(key)} is not expected" for key in sorted(found.keys() - RESOURCES, key=str)]
    for key, data in found.items():
        if key not in RESOURCES:
            continue
        if key[0] == RT_STRING:
            complaints += _check_strings(key[2], data)
        elif key[0] == RT_MESSAGETABLE:
            complaints += _check_messages(key[2], data)
        elif key[0] == RT_MANIFEST:
            complaints += _check_manifest(data, version)
        elif key[0] == RT_VERSION:
            complaints += _check_version(program, version)
    return complaints


def _debug_entries(image: bytes) -> list[pefile.DebugData]:
    """The entries of the debug directory; those that name a PDB have its identity in `entry`."""
    return list(getattr(_parse(image, "DEBUG"), "DIRECTORY_ENTRY_DEBUG", None) or [])


def _pdb_entries(image: bytes) -> list[pefile.Structure]:
    """What the program says of its PDB: GUID, age and name (CV_INFO_PDB70)."""
    return [each.entry for each in _debug_entries(image) if each.struct.Type == _CODE_VIEW and getattr(each.entry, "name", "") == "CV_INFO_PDB70"]


_CODE_VIEW, _REPRODUCIBLE = 2, 16


def check_debug(image: bytes) -> list[str]:
    """The program names its PDB without a folder, and says that its time stamps are none."""
    kinds = [each.struct.Type for each in _debug_entries(image)]
    complaints = [f"the debug directory has an entry of type {kind}, which is not expected" for kind in kinds
                  if kind not in (_CODE_VIEW, _REPRODUCIBLE)]
    if _REPRODUCIBLE not in kinds:
        complaints.append("the debug directory does not say that the time stamps are hashes")
    names = [getattr(entry, "PdbFileName", b"").rstrip(b"\0").decode("utf-8", "backslashreplace") for entry in _pdb_entries(image)]
    if names != ["lumaris.pdb"]:
        complaints.append(f"the program names its PDB {names}, not lumaris.pdb without a folder")
    return complaints


def check_paths(image: bytes) -> list[str]:
    """No source file and no folder of a machine is named in the program."""
    found = set()
    for text in strings_of(image):
        sources = {place.group() for place in _SOURCE.finditer(text)}
        found |= {name for name in sources if name != "lumaris.pdb" and not KNOWN_SOURCES.match(name)}
        if not any(KNOWN_SOURCES.match(name) for name in sources):
            found |= {place.group() for place in _FOLDER.finditer(text)}
    return [f"the program names \"{name}\"" for name in sorted(found)]


def key_parts(line: str) -> tuple[bytes, bytes]:
    """The id and the Ed25519 key of a minisign public key."""
    data = base64.b64decode(line, validate=True)
    if len(data) != 42 or data[:2] != b"Ed":
        raise ValueError(f"{line} is not a public key of minisign")
    return data[2:10], data[10:]


def check_trusted_key(image: bytes, public_key: str) -> list[str]:
    """The key that was given is inside exactly once: its id, and right behind it the key."""
    identity, key = key_parts(public_key)
    complaints = []
    for what, piece in (("the trusted key with its id", identity + key), ("the trusted key", key), ("the trusted key's id", identity)):
        if (count := image.count(piece)) != 1:
            complaints.append(f"{what} is {count} times in the program, not once")
    return complaints


def check_test_key(image: bytes, test_key: TestKey) -> list[str]:
    """Nothing of the tests' key pair, whose secret half anybody can read."""
    identity, key = key_parts(test_key.public_key)
    pieces = {"the test key": key, "the test key's id": identity, "the test key's id, turned round": identity[::-1]}
    for name, text in (("public", test_key.public_key), ("secret", test_key.secret_key)):
        pieces[f"the text of the {name} test key"] = text.encode("ascii")
        pieces[f"the text of the {name} test key in UTF-16"] = text.encode("utf-16-le")
    return [f"{what} is in the program" for what, piece in pieces.items() if piece in image]


def is_laboratory_host(host: str) -> bool:
    """A name that is reserved for examples and tests, or the machine itself: no release can reach it."""
    return _LABORATORY.fullmatch(host) is not None


def check_hosts(image: bytes, configuration: Configuration) -> list[str]:
    """The configured hosts are in the program, and no host of tests and examples beside them."""
    configured = {configuration.update_host, configuration.report_host}
    complaints = [f"the host {host} is not in the program" for host in sorted(configured)
                  if b"\0" + host.encode("utf-8") + b"\0" not in image]
    found = {place.group() for text in strings_of(image) for place in _LABORATORY.finditer(text.replace(_EXPLANATION, ""))
             if not _DOTLESS.match(place.group())}
    return complaints + [f"the program names {host}, a host for tests or examples" for host in sorted(found - configured)]


def check_program(image: bytes, configuration: Configuration, test_key: TestKey, allowed: dict[str, frozenset[str]]) -> list[str]:
    """All checks of the program."""
    try:
        return [*check_size(image), *check_headers(image), *check_directories(image), *check_sections(image),
                *check_load_configuration(image), *check_imports(image, allowed), *check_resources(image, configuration.version), *check_partner(image, configuration.partner),
                *check_debug(image), *check_paths(image), *check_trusted_key(image, configuration.public_key),
                *check_test_key(image, test_key), *check_hosts(image, configuration)]
    except BrokenFile as error:
        return [str(error)]


# What the PDB may name: our sources under their fixed name, the toolchain, the libraries, and the compiler.
_PDB_FOLDERS = re.compile(r"^(/lumaris/|/opt/lumaris/(toolchain|deps)-aarch64/|/usr/bin/ld\.lld-19$|/usr/lib/llvm-19/|/usr/bin/clang|/toolchain/|/deps/)")


def pdb_paths(pdb: bytes) -> set[str]:
    """The absolute file names in a PDB."""
    found = set()
    for place in re.finditer(rb"(?<![\x21-\x7e])(?:/|[A-Za-z]:[\\/])[\x21-\x7e]{2,}", pdb):
        name = place.group().decode("ascii")
        if "/" in name[1:]:
            found.add(name)
    return found


def archives_of(pdb: bytes) -> set[str]:
    """The libraries and object files outside of our build that were linked, by what the PDB says of its modules."""
    return {Path(name).name for name in pdb_paths(pdb) if re.match(r"^/opt/lumaris/.*\.(a|o|lib)$", name)}


def check_pdb(image: bytes, pdb: bytes) -> list[str]:
    """The PDB is the one that the program asks for, and it names no folder of the machine that built it."""
    try:
        identity, age = Msf(pdb).identity()
        wanted = _pdb_entries(image)
    except BrokenFile as error:
        return [str(error)]
    found = uuid.UUID(bytes_le=identity)
    complaints = []
    if [entry.Signature_String for entry in wanted] != [f"{found.hex.upper()}{age:X}"]:
        complaints.append(f"the PDB is {{{found}}}, age {age}, not the one that the program asks for")
    complaints += [f"the PDB names {name}" for name in sorted(pdb_paths(pdb)) if not _PDB_FOLDERS.match(name)]
    return complaints
