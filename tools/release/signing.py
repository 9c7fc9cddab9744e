"""Authenticode: signing a program with osslsigncode, checking the signature, and taking it off again."""

from __future__ import annotations

import struct
import subprocess
from dataclasses import dataclass
from pathlib import Path

import pefile

LIMIT = 120.0


class SigningError(Exception):
    """A signature that could not be made, or that does not hold."""


@dataclass(frozen=True)
class Identity:
    """Who signs: certificate and key in PEM files, or both in a PKCS#12 file whose password is in another file."""

    certificate: Path | None = None
    key: Path | None = None
    pkcs12: Path | None = None
    password_file: Path | None = None
    authority: Path | None = None  # roots that the certificate is checked against; without it the certificate's own file
    timestamp_url: str | None = None
    timestamp_authority: Path | None = None

    def fault(self) -> str | None:
        """What is missing, or given twice."""
        if self.pkcs12 is not None:
            return "a PKCS#12 file has certificate and key: give no others" if self.certificate or self.key else None
        if self.certificate is None or self.key is None:
            return "a signature needs a certificate and its key, or a PKCS#12 file with both"
        return None


def _run(arguments: list[str]) -> str:
    """Runs a program; its output, errors too, if it succeeds."""
    try:
        done = subprocess.run(arguments, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              errors="replace", timeout=LIMIT, check=False)
    except subprocess.TimeoutExpired as error:
        raise SigningError(f"{arguments[0]} {arguments[1]} did not end within {LIMIT:.0f} s") from error
    if done.returncode != 0:
        raise SigningError(f"{arguments[0]} {arguments[1]} failed:\n{done.stdout.strip()}")
    return done.stdout


def sign(program: Path, identity: Identity, signed: Path) -> None:
    """Writes the signed program."""
    if fault := identity.fault():
        raise SigningError(fault)
    if identity.pkcs12 is not None:
        who = ["-pkcs12", str(identity.pkcs12)]
    else:
        who = ["-certs", str(identity.certificate), "-key", str(identity.key)]
    if identity.password_file is not None:
        who += ["-readpass", str(identity.password_file)]
    when = ["-ts", identity.timestamp_url] if identity.timestamp_url else []
    signed.unlink(missing_ok=True)  # osslsigncode does not write over a file
    _run(["osslsigncode", "sign", *who, "-h", "sha256", "-n", "Lumaris, the updater of Halvoro", *when, "-in", str(program), "-out", str(signed)])


def _authority(identity: Identity, scratch: Path) -> Path:
    if identity.authority is not None:
        return identity.authority
    if identity.certificate is not None:
        return identity.certificate
    certificates = scratch / "certificates.pem"
    password = ["-passin", f"file:{identity.password_file}"] if identity.password_file else ["-passin", "pass:"]
    _run(["openssl", "pkcs12", "-in", str(identity.pkcs12), "-nokeys", *password, "-out", str(certificates)])
    return certificates


def verify(signed: Path, identity: Identity, scratch: Path) -> str:
    """Checks the signature as osslsigncode does, and returns what it said."""
    when = ["-TSA-CAfile", str(identity.timestamp_authority)] if identity.timestamp_authority else []
    said = _run(["osslsigncode", "verify", "-CAfile", str(_authority(identity, scratch)), *when, "-in", str(signed)])
    if "Signature verification: ok" not in said:
        raise SigningError(f"osslsigncode verify does not say that the signature holds:\n{said.strip()}")
    # osslsigncode does not fail for a time stamp that nobody vouches for.
    if identity.timestamp_url and "Timestamp Server Signature verification: ok" not in said:
        raise SigningError(f"the signature has no time stamp that holds:\n{said.strip()}")
    return said


def verify_against(signed: Path, authority: Path) -> str:
    """Checks a signature that somebody else has made against a root, and returns what osslsigncode said."""
    said = _run(["osslsigncode", "verify", "-CAfile", str(authority), "-in", str(signed)])
    if "Signature verification: ok" not in said:
        raise SigningError(f"osslsigncode verify does not say that the signature holds:\n{said.strip()}")
    return said


def without_signature(image: bytes) -> bytes:
    """The program as it was before it was signed. A program without a signature remains as it is.

    A signature adds three things: the certificate table at the end, its entry in the directory of data, and the checksum of the
    file, which our linker leaves 0. (osslsigncode remove-signature takes off the first two and works out the checksum anew.)
    ValueError if the table is not at the end, or if the bytes are not a program.
    """
    try:
        program = pefile.PE(data=image, fast_load=True)
    except (pefile.PEFormatError, struct.error) as error:
        raise ValueError("this is not a Windows program") from error
    if program.PE_TYPE != pefile.OPTIONAL_HEADER_MAGIC_PE_PLUS:
        raise ValueError("this is not a 64-bit Windows program")
    table = program.OPTIONAL_HEADER.DATA_DIRECTORY[pefile.DIRECTORY_ENTRY["IMAGE_DIRECTORY_ENTRY_SECURITY"]]
    start, size = table.VirtualAddress, table.Size
    checksum, entry = program.OPTIONAL_HEADER.get_field_absolute_offset("CheckSum"), table.get_file_offset()
    if not start and not size:
        return image
    if start + size != len(image) or start < entry + 8:
        raise ValueError("the signature does not stand at the end of the program")
    stripped = bytearray(image[:start])
    stripped[checksum:checksum + 4] = bytes(4)
    stripped[entry:entry + 8] = bytes(8)
    return bytes(stripped)
