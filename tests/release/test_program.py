"""What a release must be: the program as it is built passes, and each kind of damage is reported."""

from __future__ import annotations

import base64
import re
import struct
from collections.abc import Callable

import pefile
import program
import pytest
from bed import version
from conftest import PARTNER, ROOT, Built
from msf import BrokenFile, Msf

OWN, NEWER = str(version.OWN), str(version.NEWER)
PATCH = version.OWN.parts[2]


def replaced(image: bytes, old: bytes, new: bytes, count: int | None = 1) -> bytes:
    """The image with the bytes replaced, which stand there as often as is said (None: at least once)."""
    assert len(old) == len(new)
    assert image.count(old) == count if count is not None else old in image, image.count(old)
    return image.replace(old, new)


def patched(image: bytes, offset: int, form: str, *values: int) -> bytes:
    """The image with numbers written over those at an offset."""
    return image[:offset] + struct.pack(form, *values) + image[offset + struct.calcsize(form):]


def header(image: bytes, part: str, field: str) -> tuple[int, int]:
    """Offset and value of a field of FILE_HEADER or OPTIONAL_HEADER."""
    structure = getattr(pefile.PE(data=image, fast_load=True), part)
    return structure.get_field_absolute_offset(field), getattr(structure, field)


def directory(image: bytes, number: int) -> tuple[int, int, int]:
    """Offset of an entry of the data directory in the file; the address and the size that it has."""
    entry = pefile.PE(data=image, fast_load=True).OPTIONAL_HEADER.DATA_DIRECTORY[number]
    return entry.get_file_offset(), entry.VirtualAddress, entry.Size


def offset_of(image: bytes, address: int) -> int:
    """The offset in the file of an address relative to the image."""
    return int(pefile.PE(data=image, fast_load=True).get_offset_from_rva(address))


def resource(image: bytes, kind: int, language: int) -> tuple[int, int, int]:
    """Where the resource's data is, its size, and where the entry with its language is."""
    loaded = pefile.PE(data=image)
    for types in loaded.DIRECTORY_ENTRY_RESOURCE.entries:
        for names in types.directory.entries if types.id == kind else []:
            for entry in names.directory.entries:
                if entry.id == language:
                    return loaded.get_offset_from_rva(entry.data.struct.OffsetToData), entry.data.struct.Size, entry.struct.get_file_offset()
    raise AssertionError(f"no resource of type {kind} in language {language:#x}")


def test_the_program_as_it_is_built_passes_every_check(built: Built) -> None:
    assert built.complaints(built.program) == []
    assert program.check_pdb(built.program, built.pdb) == []


# Size and headers.

def test_a_program_over_its_budget_is_refused(built: Built) -> None:
    largest = built.program + bytes(409_600 - len(built.program))
    assert program.check_size(largest) == []
    assert program.check_size(largest + b"\0") == ["the program has 409,601 bytes, more than 409,600"]
    assert program.check_size(largest + b"\0")[0] in built.complaints(largest + b"\0")


@pytest.mark.parametrize(("part", "field", "value", "complaint"), [
    ("FILE_HEADER", "Machine", 0x8664, "the machine is 0x8664, not ARM64 (0xAA64)"),
    ("FILE_HEADER", "Machine", 0xA641, "the machine is 0xA641, not ARM64 (0xAA64)"),
    ("OPTIONAL_HEADER", "Subsystem", 3, "the subsystem is 3, not the one without a console (2)"),
    ("FILE_HEADER", "Characteristics", 0x0023, "the characteristics are 0x0023, not 0x0022"),
    ("FILE_HEADER", "Characteristics", 0x0002, "the characteristics are 0x0002, not 0x0022"),
    ("FILE_HEADER", "NumberOfSymbols", 1, "the program has a symbol table"),
    ("FILE_HEADER", "PointerToSymbolTable", 0x400, "the program has a symbol table"),
])
def test_another_header_is_refused(built: Built, part: str, field: str, value: int, complaint: str) -> None:
    offset, former = header(built.program, part, field)
    assert former != value
    image = patched(built.program, offset, "<I" if "Symbol" in field else "<H", value)
    assert program.check_headers(image) == [complaint]
    assert complaint in built.complaints(image)


@pytest.mark.parametrize(("bit", "meaning"), [
    (0x0020, "high-entropy addresses"), (0x0040, "dynamic base"), (0x0100, "no execution of data"), (0x4000, "control-flow guard"),
    (0x8000, "terminal server aware"),
])
def test_a_protection_that_is_switched_off_is_reported(built: Built, bit: int, meaning: str) -> None:
    offset, value = header(built.program, "OPTIONAL_HEADER", "DllCharacteristics")
    image = patched(built.program, offset, "<H", value & ~bit)
    assert built.complaints(image) == [f"the DLL characteristics lack 0x{bit:X}, {meaning}"]


@pytest.mark.parametrize("bit", [0x0080, 0x0200, 0x0400, 0x0800, 0x1000, 0x2000])
def test_a_characteristic_that_nobody_asked_for_is_reported(built: Built, bit: int) -> None:
    offset, value = header(built.program, "OPTIONAL_HEADER", "DllCharacteristics")
    assert built.complaints(patched(built.program, offset, "<H", value | bit)) == [
        f"the DLL characteristics have 0x{bit:X}, which is not expected"]


@pytest.mark.parametrize(("number", "name"), [
    (0, "exports"), (4, "certificates"), (7, "architecture"), (11, "bound imports"), (13, "delayed imports"), (14, "CLR header")])
def test_a_directory_that_the_program_should_not_have_is_reported(built: Built, number: int, name: str) -> None:
    offset, _, _ = directory(built.program, number)
    image = patched(built.program, offset, "<II", 0x1000, 8)
    assert program.check_directories(image) == [f"the program has {name}, which it should not"]


@pytest.mark.parametrize(("number", "name"), [(3, "unwind data"), (5, "base relocations"), (6, "debug data"), (10, "load configuration")])
def test_a_directory_that_is_missing_is_reported(built: Built, number: int, name: str) -> None:
    offset, _, _ = directory(built.program, number)
    image = patched(built.program, offset, "<II", 0, 0)
    assert f"the program has no {name}" in program.check_directories(image)
    assert f"the program has no {name}" in built.complaints(image)


def test_a_section_that_can_be_written_and_executed_is_reported(built: Built) -> None:
    section = pefile.PE(data=built.program, fast_load=True).sections[0]
    image = patched(built.program, section.get_field_absolute_offset("Characteristics"), "<I", section.Characteristics | 0x80000000)
    assert built.complaints(image) == ["the section .text is writable and executable"]


def test_what_stands_behind_the_last_section_is_reported(built: Built) -> None:
    assert built.complaints(built.program + b"x") == [f"1 bytes stand behind the last section, from offset 0x{len(built.program):X}"]


def test_a_program_that_is_cut_off_is_reported(built: Built) -> None:
    assert program.check_sections(built.program[:-1]) == [
        f"the last section ends at offset 0x{len(built.program):X}, the program at 0x{len(built.program) - 1:X}"]


@pytest.mark.parametrize("image", [b"", b"MZ", b"\x7fELF" + bytes(1000), b"MZ" + bytes(1000)])
def test_what_is_no_program_is_reported(built: Built, image: bytes) -> None:
    complaints = built.complaints(image)
    assert len(complaints) == 1
    assert complaints[0].startswith("the program cannot be read: ")


# Load configuration. Offsets are those of IMAGE_LOAD_CONFIG_DIRECTORY64.

def load_configuration(image: bytes) -> int:
    return offset_of(image, directory(image, 10)[1])


@pytest.mark.parametrize("flags", [0, 0x1000, 0xA00])
def test_libraries_from_elsewhere_are_reported(built: Built, flags: int) -> None:
    image = patched(built.program, load_configuration(built.program) + 0x4E, "<H", flags)
    assert built.complaints(image) == [f"the dependent load flags are 0x{flags:X}, not 0x800: libraries from System32 only"]


@pytest.mark.parametrize(("change", "complaint"), [
    (0x100, "the guard flags lack 0x100, calls are checked"),
    (0x400, "the guard flags lack 0x400, table of functions"),
    (0x10000, "the guard flags lack 0x10000, table of long jumps"),
    (0x800, "the guard flags have 0x800, which is not expected"),
])
def test_other_guard_flags_are_reported(built: Built, change: int, complaint: str) -> None:
    offset = load_configuration(built.program) + 0x90
    flags, = struct.unpack_from("<I", built.program, offset)
    assert built.complaints(patched(built.program, offset, "<I", flags ^ change)) == [complaint]


@pytest.mark.parametrize("offset", [0x70, 0x80, 0x88])
def test_a_guard_without_its_tables_is_reported(built: Built, offset: int) -> None:
    image = patched(built.program, load_configuration(built.program) + offset, "<Q", 0)
    assert built.complaints(image) == ["control-flow guard has no check function, or no function in its table"]


def test_a_load_configuration_of_old_is_reported(built: Built) -> None:
    image = patched(built.program, load_configuration(built.program), "<I", 0x70)
    assert built.complaints(image) == ["the load configuration is missing or too short for control-flow guard"]


@pytest.mark.parametrize("address", [0, 0x7FFFFFF0])
def test_a_load_configuration_that_is_not_there_is_reported(built: Built, address: int) -> None:
    image = patched(built.program, directory(built.program, 10)[0], "<I", address)
    assert "the load configuration is missing or too short for control-flow guard" in built.complaints(image)


# Imports.

def test_another_function_is_reported(built: Built) -> None:
    image = replaced(built.program, b"\0TerminateThread\0", b"\0SuspendThread\0\0\0")
    assert built.complaints(image) == [
        "the program imports SuspendThread of kernel32.dll, which is not in the list of imports",
        "the list of imports has TerminateThread of kernel32.dll, which the program does not import"]


def test_another_library_is_reported(built: Built) -> None:
    complaints = built.complaints(replaced(built.program, b"Secur32.dll\0", b"wininet.dll\0"))
    assert complaints == ["the program imports from wininet.dll, which is not in the list of imports",
                          "the list of imports has GetUserNameExW of secur32.dll, which the program does not import"]


def test_a_function_by_its_number_is_reported(built: Built) -> None:
    loaded = pefile.PE(data=built.program)
    first = next(entry for entry in loaded.DIRECTORY_ENTRY_IMPORT if entry.dll == b"Secur32.dll").struct.OriginalFirstThunk
    image = patched(built.program, loaded.get_offset_from_rva(first), "<Q", 1 << 63 | 17)
    assert "the program imports #17 of secur32.dll, which is not in the list of imports" in built.complaints(image)


def test_a_library_that_is_on_the_list_for_nothing_is_reported(built: Built) -> None:
    allowed = {**built.allowed, "wininet.dll": frozenset({"InternetOpenW"})}
    assert program.check_imports(built.program, allowed) == [
        "the list of imports has InternetOpenW of wininet.dll, which the program does not import"]


@pytest.mark.parametrize(("text", "complaint"), [
    ("kernel32.dll\n    ReadFile\n", "line 1: the library kernel32.dll has no reason"),
    ("kernel32.dll:  \n    ReadFile\n", "line 1: the library kernel32.dll has no reason"),
    ("# first\n    ReadFile\n", "line 2: functions before the first library"),
    ("kernel32.dll: files\n    ReadFile\nKERNEL32.dll: threads\n    Sleep\n", "line 3: the library KERNEL32.dll stands there twice"),
])
def test_a_list_of_imports_that_is_none_is_reported(text: str, complaint: str) -> None:
    with pytest.raises(ValueError, match=f"^{re.escape(complaint)}$"):
        program.read_allowed(text)


def test_the_list_of_imports_is_read(built: Built) -> None:
    assert program.read_allowed("# why\n\nA.dll: reason\n    One Two\n    # inside\n    Three\nb.dll: other\n    One\n") == {
        "a.dll": {"One", "Two", "Three"}, "b.dll": {"One"}}


# Resources.

@pytest.mark.parametrize(("kind", "language", "name"), [
    (6, 0x0409, "string table 1792 in English"), (6, 0x0424, "string table 1792 in Slovenian"), (6, 0x041C, "string table 1792 in Albanian"),
    (11, 0x0409, "message table 1 in English"), (11, 0x0424, "message table 1 in Slovenian"), (16, 0x0409, "version block 1 in English"),
    (24, 0x0000, "manifest 1 in language 0x0000"),
])
def test_a_resource_in_another_language_is_reported(built: Built, kind: int, language: int, name: str) -> None:
    _, _, entry = resource(built.program, kind, language)
    complaints = built.complaints(patched(built.program, entry, "<I", 0x0407))
    assert complaints == [f"the {name} is missing", f"the {re.sub(' in .*', '', name)} in language 0x0407 is not expected"]


def test_a_program_without_resources_lacks_each_of_them(built: Built) -> None:
    offset, _, _ = directory(built.program, 2)
    complaints = program.check_resources(patched(built.program, offset, "<II", 0, 0), OWN)
    assert len(complaints) == 7
    assert all(complaint.endswith(" is missing") for complaint in complaints)


def test_strings_that_call_themselves_another_language_are_reported(built: Built) -> None:
    offset, _, _ = resource(built.program, 6, 0x041C)
    assert built.program[offset:offset + 6] == b"\x02\0s\0q\0"
    assert built.complaints(patched(built.program, offset + 2, "<H", ord("e"))) == ['the string table in Albanian says that its language is "eq"']


def test_a_string_that_is_missing_is_reported(built: Built) -> None:
    offset, size, _ = resource(built.program, 6, 0x0424)
    data = built.program[offset:offset + size]
    text = "Za nevšečnosti se vam iskreno opravičujemo. Program se bo zdaj zaprl.".encode("utf-16-le")
    entry = struct.pack("<H", len(text) // 2) + text
    assert data.count(entry) == 1
    image = built.program[:offset] + data.replace(entry, b"\0\0") + bytes(len(text)) + built.program[offset + size:]
    assert built.complaints(image) == ["the string table in Slovenian lacks the string 28666"]


def test_a_string_too_many_is_reported() -> None:
    block = b"".join(struct.pack("<H", 1) + b"x\0" for _ in range(16))
    complaints = program._check_strings(0x0409, block)  # noqa: SLF001
    assert "the string table in English has a string 28660, which is not expected" in complaints
    assert "the string table in English has a string 28667, which is not expected" in complaints
    assert 'the string table in English says that its language is "x"' in complaints


def test_strings_that_are_cut_off_are_reported(built: Built) -> None:
    offset, _, _ = resource(built.program, 6, 0x0409)
    assert built.complaints(patched(built.program, offset, "<H", 0x7FFF)) == [
        "the string table in English cannot be read: it ends early"]


@pytest.mark.parametrize("language", [0x0409, 0x0424, 0x041C])
def test_a_text_with_another_format_is_reported(built: Built, language: int) -> None:
    offset, size, _ = resource(built.program, 6, language)
    data = built.program[offset:offset + size]
    old, new = "%.*ls".encode("utf-16-le"), "%.*hs".encode("utf-16-le")
    image = built.program[:offset] + data.replace(old, new, 1) + built.program[offset + size:]
    assert built.complaints(image) == [
        f"the string 28658 in {program.LANGUAGES[language]} has the formats ['%.*hs'], not ['%.*ls']"]


def test_an_event_message_that_is_missing_is_reported(built: Built) -> None:
    offset, _, _ = resource(built.program, 11, 0x0424)
    count, = struct.unpack_from("<I", built.program, offset)
    low, high = struct.unpack_from("<II", built.program, offset + 4 + 12)
    assert (count, low, high) == (4, 2, 5)
    assert built.complaints(patched(built.program, offset + 4 + 12, "<II", 2, 4)) == ["the message table in Slovenian lacks the message 0x5"]


def test_an_event_message_too_many_is_reported(built: Built) -> None:
    offset, _, _ = resource(built.program, 11, 0x0409)
    image = patched(built.program, offset + 4, "<II", 7, 7)
    assert built.complaints(image) == ["the message table in English lacks the message 0x0",
                                       "the message table in English has a message 0x7, which is not expected"]


def test_an_event_message_that_inserts_something_else_is_reported(built: Built) -> None:
    image = replaced(built.program, "%1 programme update: %2".encode("utf-16-le"), "%1 programme update: %3".encode("utf-16-le"))
    assert built.complaints(image) == ["the message 0x80000001 in English inserts ['%1', '%3'], not 2 texts"]


def test_an_event_message_without_its_line_end_is_reported(built: Built) -> None:
    image = replaced(built.program, "prišlo do napake: %2\r\n".encode("utf-16-le"), "prišlo do napake: %2\n\n".encode("utf-16-le"))
    assert built.complaints(image) == ["the message 0x80000001 in Slovenian does not end with CR LF"]


@pytest.mark.parametrize(("offset", "value", "fault"), [
    (4 + 8, 0x7FFFFFFF, "it ends early"),  # place of the first block's entries
    (4 + 12 * 4, 0xFFFF, "message 0x0 is cut off"),  # length of the first entry
])
def test_a_message_table_that_is_cut_off_is_reported(built: Built, offset: int, value: int, fault: str) -> None:
    start, _, _ = resource(built.program, 11, 0x0409)
    assert built.complaints(patched(built.program, start + offset, "<I", value)) == [f"the message table in English cannot be read: {fault}"]


def test_another_partner_is_reported(built: Built) -> None:
    assert program.check_partner(built.program, PARTNER) == []
    assert program.check_partner(built.program, "Tavrin") == [
        f"the string {number} in Albanian does not name the partner Tavrin" for number in (28659, 28661, 28662, 28663)]
    image = replaced(built.program, PARTNER.replace("%", "%%").encode("utf-16-le"), PARTNER.replace("%", "xy").encode("utf-16-le"), 2)
    assert built.complaints(image) == [f"the string {number} in Albanian does not name the partner {PARTNER}" for number in (28661, 28662)]


@pytest.mark.parametrize("name", ["FileVersion", "ProductVersion"])
def test_another_version_is_reported(built: Built, name: str) -> None:
    fixed = pefile.PE(data=built.program).VS_FIXEDFILEINFO[0]
    image = patched(built.program, fixed.get_field_absolute_offset(f"{name}MS"), "<I", 0x00FE00FD)
    assert built.complaints(image) == [f"the version block's {name} is 254.253.{PATCH}.0, not {OWN}.0"]


@pytest.mark.parametrize(("old", "new", "complaint"), [
    (f"FileVersion\0\0{OWN}.0", f"FileVersion\0\0{OWN}.1", f"the version block's text FileVersion is '{OWN}.1', not '{OWN}.0'"),
    ("lumaris.exe", "updater.exe", "the version block's text OriginalFilename is 'updater.exe', not 'lumaris.exe'"),
])
def test_another_text_of_the_version_is_reported(built: Built, old: str, new: str, complaint: str) -> None:
    assert complaint in built.complaints(replaced(built.program, old.encode("utf-16-le"), new.encode("utf-16-le")))


def test_a_release_of_another_version_is_reported(built: Built) -> None:
    complaints = program.check_resources(built.program, NEWER)
    assert f"the version block's FileVersion is {OWN}.0, not {NEWER}.0" in complaints
    assert f"the version block's text ProductVersion is '{OWN}.0', not '{NEWER}.0'" in complaints
    assert f"the manifest's version is ['{OWN}.0'], not {NEWER}.0" in complaints


@pytest.mark.parametrize(("old", "new", "found"), [
    (b'level="requireAdministrator"', b'level="asInvoker"           ', "[('asInvoker', 'false')]"),
    (b'uiAccess="false"', b'uiAccess="true" ', "[('requireAdministrator', 'true')]"),
    (b'<requestedExecutionLevel ', b'<askedForExecutionLevel  ', "[]"),
])
def test_a_manifest_that_asks_for_something_else_is_reported(built: Built, old: bytes, new: bytes, found: str) -> None:
    assert built.complaints(replaced(built.program, old, new)) == [
        f"the manifest asks for {found}, not for requireAdministrator without access to other windows"]


def test_a_manifest_that_cannot_be_read_is_reported(built: Built) -> None:
    complaints = built.complaints(replaced(built.program, b"</assembly>", b"<assembly>>"))
    assert len(complaints) == 1 and complaints[0].startswith("the manifest cannot be read: ")


# What must not be inside.

def debug_entry(image: bytes, number: int) -> int:
    return offset_of(image, directory(image, 6)[1]) + 28 * number


def test_a_pdb_with_a_folder_is_reported(built: Built) -> None:
    image = replaced(built.program, b"\x01\0\0\0lumaris.pdb\0", b"\x01\0\0\0/x/aris.pdb\0")
    assert "the program names its PDB ['/x/aris.pdb'], not lumaris.pdb without a folder" in built.complaints(image)


def test_a_program_that_names_its_pdb_in_another_form_is_reported(built: Built) -> None:
    image = replaced(built.program, b"RSDS", b"NB10")
    assert built.complaints(image) == ["the program names its PDB [], not lumaris.pdb without a folder"]
    assert len(program.check_pdb(image, built.pdb)) == 1


@pytest.mark.parametrize("place", [4, 12, 20])
def test_a_program_that_asks_for_another_pdb_is_reported(built: Built, place: int) -> None:
    start = built.program.index(b"RSDS")
    value, = struct.unpack_from("<I", built.program, start + place)
    complaints = program.check_pdb(patched(built.program, start + place, "<I", value ^ 0x01000000), built.pdb)
    assert len(complaints) == 1 and complaints[0].endswith("not the one that the program asks for")


def test_debug_data_of_another_kind_is_reported(built: Built) -> None:
    image = patched(built.program, debug_entry(built.program, 1) + 12, "<I", 12)
    assert built.complaints(image) == ["the debug directory has an entry of type 12, which is not expected",
                                       "the debug directory does not say that the time stamps are hashes"]


@pytest.mark.parametrize("name", [
    "/src/src/updater/main.cpp", "/home/somebody/lumaris", "/root/build", "/tmp/x1/y", "/opt/lumaris/toolchain-aarch64/include/c++/v1/string",
    "C:\\Users\\somebody", "D:/work/x", "\\src\\src\\updater\\main.cpp", "src/updater/main.cpp", "component.cpp", "build/libz.a", "updater.h",
    "/lumaris/src/updater/run.cpp", "\\toolchain\\llvm\\libcxx\\src\\string.cpp",
])
@pytest.mark.parametrize("coding", ["ascii", "utf-16-le"])
def test_a_path_of_a_machine_is_reported(built: Built, name: str, coding: str) -> None:
    complaints = program.check_paths(built.program + "\0".encode(coding) + name.encode(coding) + "\0".encode(coding))
    assert complaints, name
    assert any(complaint == f'the program names "{name}"' for complaint in complaints)


@pytest.mark.parametrize("text", ["/Halvoro/Lumaris/%s-%ls.txt", "application/x-kestranez", "HTTP/1.1", "and/or", "lumaris.pdb",
                                  "\\toolchain\\llvm\\libcxxabi\\src\\cxa_demangle.cpp", "sodium\\core.c"])
def test_what_only_looks_like_a_path_is_let_through(text: str) -> None:
    assert program.check_paths(b"\0" + text.encode("ascii") + b"\0") == []


def test_every_known_source_is_in_the_program(built: Built) -> None:
    # What is let through for nothing would hide something one day.
    names = {place.group() for text in program.strings_of(built.program) for place in program._SOURCE.finditer(text)}  # noqa: SLF001
    assert {bool(re.match(r"\\toolchain", name)) for name in names if program.KNOWN_SOURCES.match(name)} == {True, False}
    assert "sodium\\core.c" in names


def test_the_trusted_key_must_be_inside(built: Built) -> None:
    identity, key = program.key_parts(built.configuration.public_key)
    image = replaced(built.program, identity + key, bytes(40))
    assert built.complaints(image) == ["the trusted key with its id is 0 times in the program, not once",
                                       "the trusted key is 0 times in the program, not once",
                                       "the trusted key's id is 0 times in the program, not once"]


def test_the_trusted_key_must_be_inside_with_its_own_id(built: Built) -> None:
    identity, key = program.key_parts(built.configuration.public_key)
    complaints = built.complaints(replaced(built.program, identity + key, bytes(8) + key))
    assert complaints == ["the trusted key with its id is 0 times in the program, not once",
                          "the trusted key's id is 0 times in the program, not once"]


def test_the_trusted_key_must_be_inside_once(built: Built) -> None:
    _, key = program.key_parts(built.configuration.public_key)
    assert "the trusted key is 2 times in the program, not once" in built.complaints(built.program + key)


def test_the_bytes_of_a_key_are_those_that_minisign_means() -> None:
    line = (ROOT / "tests/keys/test.pub").read_text(encoding="ascii").splitlines()
    identity, key = program.key_parts(line[1])
    assert f"{int.from_bytes(identity, 'little'):016X}" in line[0]
    assert base64.b64encode(b"Ed" + identity + key).decode() == line[1]


@pytest.mark.parametrize("line", ["", "RW", "not base64!", base64.b64encode(b"Ed" + bytes(39)).decode(), base64.b64encode(b"ED" + bytes(40)).decode()])
def test_what_is_no_key_is_none(line: str) -> None:
    with pytest.raises(ValueError):
        program.key_parts(line)


@pytest.mark.parametrize(("what", "make"), [
    ("the test key", lambda key: program.key_parts(key.public_key)[1]),
    ("the test key's id", lambda key: program.key_parts(key.public_key)[0]),
    ("the test key's id, turned round", lambda key: program.key_parts(key.public_key)[0][::-1]),
    ("the text of the public test key", lambda key: key.public_key.encode("ascii")),
    ("the text of the public test key in UTF-16", lambda key: key.public_key.encode("utf-16-le")),
    ("the text of the secret test key", lambda key: key.secret_key.encode("ascii")),
    ("the text of the secret test key in UTF-16", lambda key: key.secret_key.encode("utf-16-le")),
])
def test_anything_of_the_test_key_is_reported(built: Built, what: str, make: Callable[[program.TestKey], bytes]) -> None:
    complaints = built.complaints(built.program + make(built.test_key))
    assert f"{what} is in the program" in complaints


def test_a_release_that_trusts_the_test_key_is_reported(built: Built) -> None:
    mine, theirs = (b"".join(program.key_parts(line)) for line in (built.configuration.public_key, built.test_key.public_key))
    complaints = built.complaints(replaced(built.program, mine, theirs))
    assert "the test key is in the program" in complaints and "the trusted key is 0 times in the program, not once" in complaints


@pytest.mark.parametrize("host", ["updates.tavrin.example", "reports.tavrin.example", "packages.tavrin.example", "proxy.tavrin.example",
                                  "localhost", "127.0.0.1", "127.0.0.53", "mirror.invalid", "server.test", "some.localhost", "example.com"])
@pytest.mark.parametrize("coding", ["ascii", "utf-16-le"])
def test_a_host_of_the_tests_is_reported(built: Built, host: str, coding: str) -> None:
    image = built.program + "\0\0".encode(coding) + host.encode(coding) + "\0".encode(coding)
    assert program.check_hosts(image, built.configuration) == [f"the program names {host}, a host for tests or examples"]


@pytest.mark.parametrize("host", ["updates.halvoro.internal", "reports.halvoro.internal"])
def test_a_configured_host_that_is_not_inside_is_reported(built: Built, host: str) -> None:
    image = replaced(built.program, b"\0" + host.encode() + b"\0", b"\0x" + host[1:].encode() + b"\0")
    assert built.complaints(image) == [f"the host {host} is not in the program"]


def test_the_hosts_for_trying_out_are_those_that_it_is_configured_with(built: Built) -> None:
    configured = program.Configuration(OWN, built.configuration.public_key, "updates.tavrin.example", "reports.halvoro.internal", "Partneri")
    image = replaced(built.program, b"\0updates.halvoro.internal\0", b"\0updates.tavrin.example\0\0\0")
    assert program.check_hosts(image, configured) == []
    assert program.check_hosts(image, built.configuration) == [
        "the host updates.halvoro.internal is not in the program",
        "the program names updates.tavrin.example, a host for tests or examples"]


@pytest.mark.parametrize(("host", "laboratory"), [
    ("updates.tavrin.example", True), ("example", True), ("localhost", True), ("a.localhost", True), ("x.test", True), ("y.invalid", True),
    ("127.0.0.1", True), ("127.8.8.8", True), ("example.com", True), ("www.example.org", True), ("UPDATES.TAVRIN.EXAMPLE", True),
    ("updates.tavrin.internal", False), ("updates.halvoro.internal", False), ("test.tavrin.internal", False), ("testing.com", False),
    ("128.0.0.1", False), ("example.tavrin.internal", False), ("examples.com", False),
])
def test_names_that_no_release_can_reach(host: str, laboratory: bool) -> None:
    assert program.is_laboratory_host(host) is laboratory


# The PDB.

def test_a_pdb_of_another_build_is_reported(built: Built) -> None:
    identity, age = Msf(built.pdb).identity()
    assert age == 1
    other = replaced(built.pdb, identity, identity[::-1], None)
    complaints = program.check_pdb(built.program, other)
    assert len(complaints) == 1
    assert re.fullmatch(r"the PDB is \{[0-9a-f-]{36}\}, age 1, not the one that the program asks for", complaints[0])


@pytest.mark.parametrize("name", ["/src/src/updater/main.cpp", "/home/somebody/x.cpp", "/tmp/build/y.obj", "C:\\Users\\me/x.cpp"])
def test_a_pdb_that_names_a_folder_of_the_machine_is_reported(built: Built, name: str) -> None:
    place = built.pdb.index(b"\0/lumaris/") + 1
    longer = built.pdb[:place] + name.encode() + b"\0" + built.pdb[place + len(name) + 1:]
    assert len(longer) == len(built.pdb)
    assert f"the PDB names {name}" in program.check_pdb(built.program, longer)


@pytest.mark.parametrize(("make", "complaint"), [
    (lambda pdb: b"MZ" + pdb[2:], "the PDB does not begin like one"),
    (lambda pdb: b"", "the PDB does not begin like one"),
    (lambda pdb: pdb[:-4096], "the PDB is cut off"),
    (lambda pdb: patched(pdb, 52, "<I", 0xFFFFFF), "the PDB has no block 16777215"),
    (lambda pdb: patched(pdb, 32, "<I", 5), "the PDB is cut off"),
])
def test_a_broken_pdb_is_reported(built: Built, make: Callable[[bytes], bytes], complaint: str) -> None:
    assert program.check_pdb(built.program, make(built.pdb)) == [complaint]


def test_a_stream_that_is_not_there_is_reported(built: Built) -> None:
    with pytest.raises(BrokenFile, match="^the PDB has no stream 9999$"):
        Msf(built.pdb).stream(9999)
