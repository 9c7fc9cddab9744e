"""Minisign signatures, made by `minisign`."""

from __future__ import annotations

import base64
import binascii
from collections.abc import Sequence
from dataclasses import dataclass
from pathlib import Path

from . import tools
from .refusal import refuse


@dataclass(frozen=True)
class Signer:
    """A secret key, and the file with its password if it has one."""

    key: Path
    password_file: Path | None = None

    def sign(self, files: Sequence[Path], comment: str) -> None:
        """Writes FILE.minisig beside each file. The password is asked for once, and goes through a pipe."""
        if not self.key.is_file():
            raise refuse("key", f"there is no secret key {self.key}: give --key FILE")
        password = self._password()
        done = tools.run(["minisign", "-S", *(["-W"] if password is None else []), "-s", self.key, "-t", comment, "-m", *files],
                         stdin=password)
        if done.returncode == 0:
            return
        for file in files:
            Path(f"{file}.minisig").unlink(missing_ok=True)
        if done.returncode == 2 or b"assword" in done.stderr:
            raise refuse("password", f"{self.key} is not opened by this password: give the right one with --password-file FILE")
        raise refuse("signing", f"minisign made no signature: {tools.words_of(done)}")

    def _password(self) -> bytes | None:
        if self.password_file is None:
            return None
        try:
            return self.password_file.read_bytes().split(b"\n")[0].rstrip(b"\r") + b"\n"
        except OSError as error:
            raise refuse("password", f"{self.password_file} cannot be read ({error.strerror}): give a file with the password in its "
                                     "first line") from error


def public_key_line(given: str) -> str:
    """The line of a public key: as it is, or out of a .pub file."""
    line = given
    if Path(given).is_file():
        lines = [each.strip() for each in Path(given).read_text(encoding="utf-8", errors="replace").splitlines()]
        line = next((each for each in lines if each and not each.startswith("untrusted comment:")), "")
    key_bytes(line)
    return line


def key_bytes(line: str) -> bytes:
    """Key id and key as a program that trusts it holds them: 40 bytes."""
    try:
        decoded = base64.b64decode(line, validate=True)
    except (binascii.Error, ValueError):
        decoded = b""
    if len(decoded) != 42 or decoded[:2] != b"Ed":
        raise refuse("public-key", f"\"{line}\" is no Minisign public key: give the last line of the .pub file, or the file")
    return decoded[2:]


def key_name(line: str) -> str:
    """The key's id as minisign shows it."""
    return key_bytes(line)[:8][::-1].hex().upper()
