"""A certificate authority for the tests, and server certificates that it signs; made by `openssl`."""

from __future__ import annotations

import subprocess
from dataclasses import dataclass
from pathlib import Path

from .errors import BedError


@dataclass(frozen=True)
class Certificate:
    """A certificate and its private key, both PEM files."""

    path: Path
    key: Path


def make_authority(folder: Path, name: str) -> Certificate:
    """Makes a self-signed authority."""
    made = Certificate(folder / f"{name}.pem", folder / f"{name}.key")
    _openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "30", "-subj", f"/CN={name}",
             "-addext", "basicConstraints=critical,CA:TRUE", "-addext", "keyUsage=critical,keyCertSign,cRLSign",
             "-keyout", str(made.key), "-out", str(made.path))
    return made


def make_server_certificate(folder: Path, authority: Certificate, host: str, *, name: str) -> Certificate:
    """Makes a server certificate for one host name, signed by the authority."""
    made = Certificate(folder / f"{name}.pem", folder / f"{name}.key")
    _openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "30", "-subj", f"/CN={host}",
             "-CA", str(authority.path), "-CAkey", str(authority.key), "-addext", f"subjectAltName=DNS:{host}",
             "-addext", "basicConstraints=CA:FALSE", "-keyout", str(made.key), "-out", str(made.path))
    return made


def make_signing_certificate(folder: Path, authority: Certificate, name: str) -> Certificate:
    """Makes a certificate for signing programs, signed by the authority."""
    made = Certificate(folder / f"{name}.pem", folder / f"{name}.key")
    _openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "30", "-subj", f"/CN={name}",
             "-CA", str(authority.path), "-CAkey", str(authority.key), "-addext", "basicConstraints=CA:FALSE",
             "-addext", "keyUsage=critical,digitalSignature", "-addext", "extendedKeyUsage=critical,codeSigning",
             "-keyout", str(made.key), "-out", str(made.path))
    return made


def _openssl(*arguments: str) -> None:
    done = subprocess.run(["openssl", *arguments], capture_output=True, text=True, timeout=60, check=False)
    if done.returncode != 0:
        raise BedError(f"openssl {' '.join(arguments)}: {done.stderr.strip()}")
