"""Minisign signatures, made by `minisign`."""

from __future__ import annotations

import base64
import binascii
import contextlib
import fcntl
import os
import subprocess
import threading
from collections.abc import Sequence
from dataclasses import dataclass
from pathlib import Path

from . import tools
from .refusal import Refusal, refuse


@dataclass(frozen=True)
class Signer:
    """A secret key, and the file with its password if it has one."""

    key: Path
    password_file: Path | None = None

    def sign(self, files: Sequence[Path], comment: str) -> None:
        """Writes FILE.minisig beside each file. The password is asked for once, and goes through a pipe."""
        command, password = self.command(comment)
        done = tools.run([*command, "-m", *files], stdin=password)
        if done.returncode == 0:
            return
        for file in files:
            Path(f"{file}.minisig").unlink(missing_ok=True)
        raise self.refusal(done)

    def start(self, file: Path, comment: str) -> Signing:
        """Begins to sign a file; what comes of it depends on `Signing.finish`."""
        return Signing(self, file, comment)

    def refusal(self, done: subprocess.CompletedProcess[bytes]) -> Refusal:
        """Why minisign made no signature."""
        if done.returncode == 2 or b"assword" in done.stderr:
            return refuse("password", f"{self.key} is not opened by this password: give the right one with --password-file FILE")
        return refuse("signing", f"minisign made no signature: {tools.words_of(done)}")

    def command(self, comment: str) -> tuple[list[str | Path], bytes]:
        """How minisign is called, without the files, and what it gets on its standard input."""
        if not self.key.is_file():
            raise refuse("key", f"there is no secret key {self.key}: give --key FILE")
        password = self._password()
        return ["minisign", "-S", *(["-W"] if password is None else []), "-s", self.key, "-t", comment], password or b""

    def _password(self) -> bytes | None:
        if self.password_file is None:
            return None
        try:
            return self.password_file.read_bytes().split(b"\n")[0].rstrip(b"\r") + b"\n"
        except OSError as error:
            raise refuse("password", f"{self.password_file} cannot be read ({error.strerror}): give a file with the password in its "
                                     "first line") from error


class Signing:
    """A signature in the making: minisign reads the file while other work goes on, all but its end, which only `finish` hands over.

    Use it as a context manager; left without `finish`, nothing has been signed. The signature is in memory until then, and not on the disk:
    minisign takes the death of this process for the end of the file.
    """

    _END = 4096

    def __init__(self, signer: Signer, file: Path, comment: str) -> None:
        command, password = signer.command(comment)
        tools.find("minisign")
        self._signer = signer
        self._file = file.open("rb")
        self._held_back = max(0, os.fstat(self._file.fileno()).st_size - self._END)
        self._signature = os.memfd_create("signature")
        content, self._pipe = os.pipe()
        with contextlib.suppress(OSError):  # a larger pipe is quicker, no more
            fcntl.fcntl(self._pipe, fcntl.F_SETPIPE_SZ, 1 << 20)
        self.process = subprocess.Popen([*command, "-x", f"/dev/fd/{self._signature}", "-m", f"/dev/fd/{content}"], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE, pass_fds=(content, self._signature))
        os.close(content)
        assert self.process.stdin is not None
        with contextlib.suppress(BrokenPipeError), self.process.stdin as stdin:
            stdin.write(password)
        self.process.stdin = None
        self._feeding = threading.Thread(target=self._feed, daemon=True)
        self._feeding.start()

    def _feed(self) -> None:
        # A minisign that has ended says why when it is waited for.
        with contextlib.suppress(BrokenPipeError):
            done = 0
            while count := os.splice(self._file.fileno(), self._pipe, min(1 << 20, self._held_back - done), offset_src=done):
                done += count

    def finish(self) -> bytes:
        """The signature file. Raises Refusal if there is none."""
        self._feeding.join()
        with contextlib.suppress(BrokenPipeError):
            os.write(self._pipe, os.pread(self._file.fileno(), self._END, self._held_back))
        self._close_pipe()
        out, err = self.process.communicate(timeout=tools.LIMIT)
        if self.process.returncode != 0:
            raise self._signer.refusal(subprocess.CompletedProcess(["minisign"], self.process.returncode, out, err))
        return os.pread(self._signature, 1 << 16, 0)

    def _close_pipe(self) -> None:
        if self._pipe >= 0:
            os.close(self._pipe)
            self._pipe = -1

    def __enter__(self) -> Signing:
        return self

    def __exit__(self, *_: object) -> None:
        # Killed before its input ends, it has nothing to sign.
        self.process.kill()
        self.process.communicate()
        self._feeding.join()
        self._close_pipe()
        self._file.close()
        os.close(self._signature)


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
