"""Configuring checks the trusted key: what is missing, malformed, or public knowledge does not get into a release."""

import base64
import string
import subprocess
from pathlib import Path
from typing import Protocol

import pytest

ROOT = Path(__file__).resolve().parents[2]
TEST_KEY = "RWSdBpKBlweqR1j6w5PtEHraf1utWMH9IJH8L35Y81QL0NeT6UiVgEfv"

PROJECT = f"""
cmake_minimum_required(VERSION 3.25)
project(key LANGUAGES NONE)
include({ROOT}/toolchain/cmake/trusted_key.cmake)
message(STATUS "id: ${{LUMARIS_KEY_ID_BYTES}}")
message(STATUS "key: ${{LUMARIS_KEY_BYTES}}")
"""


class Configure(Protocol):
    """Configures a project with these cache variables."""

    def __call__(self, *definitions: str) -> subprocess.CompletedProcess[str]: ...


@pytest.fixture(name="configure")
def configure_fixture(tmp_path: Path) -> Configure:
    (tmp_path / "tests/keys").mkdir(parents=True)
    (tmp_path / "tests/keys/test.pub").write_bytes((ROOT / "tests/keys/test.pub").read_bytes())
    (tmp_path / "CMakeLists.txt").write_text(PROJECT, encoding="utf-8")

    def configure(*definitions: str) -> subprocess.CompletedProcess[str]:
        return subprocess.run(["cmake", "-S", str(tmp_path), "-B", str(tmp_path / "build"), *(f"-D{text}" for text in definitions)],
                              capture_output=True, text=True, timeout=60, check=False)

    return configure


def words(text: str) -> str:
    """The text with CMake's line breaks undone."""
    return " ".join(text.split())


def test_without_a_key_it_says_how_to_make_one(configure: Configure) -> None:
    failed = configure()
    assert failed.returncode != 0
    assert "No trusted public key: LUMARIS_PUBLIC_KEY is empty." in words(failed.stderr)
    assert "minisign -G -p halvoro.pub -s halvoro.key" in words(failed.stderr)


def test_a_key_that_minisign_made_is_taken_apart(configure: Configure, tmp_path: Path) -> None:
    subprocess.run(["minisign", "-G", "-W", "-p", str(tmp_path / "k.pub"), "-s", str(tmp_path / "k.key")], check=True,
                   capture_output=True, timeout=60)
    comment, line = (tmp_path / "k.pub").read_text(encoding="utf-8").splitlines()
    shown = configure(f"LUMARIS_PUBLIC_KEY={line}")
    assert shown.returncode == 0, shown.stderr
    identity = next(text for text in shown.stdout.splitlines() if text.startswith("-- id: "))
    values = [int(text, 16) for text in identity.removeprefix("-- id: ").split(", ")]
    # minisign prints the id as one little-endian number.
    assert f"{int.from_bytes(bytes(values), 'little'):016X}" in comment


def test_the_bytes_of_a_key_are_those_of_its_base64_text(configure: Configure) -> None:
    shown = configure(f"LUMARIS_PUBLIC_KEY={TEST_KEY}", "LUMARIS_BUILD_TESTS=ON")
    assert "-- id: 0x9d, 0x06, 0x92, 0x81, 0x97, 0x07, 0xaa, 0x47\n" in shown.stdout
    assert ("-- key: 0x58, 0xfa, 0xc3, 0x93, 0xed, 0x10, 0x7a, 0xda, 0x7f, 0x5b, 0xad, 0x58, 0xc1, 0xfd, 0x20, 0x91, "
            "0xfc, 0x2f, 0x7e, 0x58, 0xf3, 0x54, 0x0b, 0xd0, 0xd7, 0x93, 0xe9, 0x48, 0x95, 0x80, 0x47, 0xef\n") in shown.stdout


def test_every_character_of_the_alphabet_has_its_value(configure: Configure) -> None:
    """The keys that the other tests meet need not hold all 64 of them."""
    alphabet = string.ascii_uppercase + string.ascii_lowercase + string.digits + "+/"
    for part in (alphabet[:42], alphabet[22:]):
        line = "RWQ" + "A" * 11 + part  # "Ed" and what follows it
        content = base64.b64decode(line)
        shown = configure(f"LUMARIS_PUBLIC_KEY={line}")
        assert shown.returncode == 0, shown.stderr
        for name, expected in (("id", content[2:10]), ("key", content[10:])):
            assert f"-- {name}: {', '.join(f'0x{byte:02x}' for byte in expected)}\n" in shown.stdout


def test_a_test_build_without_a_key_takes_the_test_key(configure: Configure) -> None:
    shown = configure("LUMARIS_BUILD_TESTS=ON")
    assert shown.returncode == 0
    assert "-- id: 0x9d, 0x06, 0x92, 0x81, 0x97, 0x07, 0xaa, 0x47\n" in shown.stdout


def test_the_test_key_is_refused_in_a_release(configure: Configure) -> None:
    failed = configure(f"LUMARIS_PUBLIC_KEY={TEST_KEY}")
    assert failed.returncode != 0
    assert "The trusted public key is the test key of tests/keys" in words(failed.stderr)


@pytest.mark.parametrize(("key", "reason"), [
    ("untrusted comment: minisign public key", "it is not base64 text"),
    ("RWSdBpKBlweqR1j6w5PtEHraf1utWMH9IJH8L35Y81QL0NeT6UiVgE!v", "it is not base64 text"),
    (TEST_KEY[:-1], "it has 55 characters where a Minisign public key has 56 (42 bytes)"),
    (TEST_KEY + "AAAA", "it has 60 characters where a Minisign public key has 56 (42 bytes)"),
    (TEST_KEY[:-1] + "=", "it has 56 characters"),
    ("RU" + TEST_KEY[2:], 'it does not begin with the algorithm "Ed"'),
])
def test_a_malformed_key_is_refused_with_the_reason(configure: Configure, key: str, reason: str) -> None:
    failed = configure(f"LUMARIS_PUBLIC_KEY={key}")
    assert failed.returncode != 0
    assert f"The trusted public key is malformed: {reason}" in words(failed.stderr)
