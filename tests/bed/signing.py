"""Keys and signatures, all of them made by the `minisign` program."""

from __future__ import annotations

import subprocess
from dataclasses import dataclass
from pathlib import Path

from .errors import BedError


@dataclass(frozen=True)
class KeyPair:
    """A key pair without a password."""

    public: Path
    secret: Path

    @property
    def line(self) -> str:
        """The public key as `minisign` prints it: one line of base64."""
        return self.public.read_text(encoding="ascii").splitlines()[1]

    @staticmethod
    def make(folder: Path, name: str = "key") -> KeyPair:
        """Makes a new pair in `folder`."""
        pair = KeyPair(folder / f"{name}.pub", folder / f"{name}.key")
        _minisign("-G", "-W", "-f", "-p", str(pair.public), "-s", str(pair.secret))
        return pair

    def sign(self, file: Path, *, legacy: bool = False, comment: str = "signed by the test bed") -> Path:
        """Signs a file and returns the signature beside it; a legacy one is not over a hash of the content."""
        signature = file.with_name(file.name + ".minisig")
        _minisign("-S", *(["-l"] if legacy else []), "-s", str(self.secret), "-t", comment, "-x", str(signature),
                  "-m", str(file))
        return signature


def _minisign(*arguments: str) -> None:
    done = subprocess.run(["minisign", *arguments], capture_output=True, text=True, stdin=subprocess.DEVNULL,
                          timeout=60, check=False)
    if done.returncode != 0:
        raise BedError(f"minisign {' '.join(arguments)}: {(done.stderr or done.stdout).strip()}")
