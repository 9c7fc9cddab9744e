"""The kit as a release engineer uses it: commands, what they say, and the tree that they leave."""

from __future__ import annotations

import hashlib
import re
from dataclasses import dataclass
from pathlib import Path

import pytest

from bed.signing import KeyPair
from lumaris_publish import cli

HOST = "updates.tavrin.private"

SIGNING = ("stage", "offer", "promote", "withdraw")


@dataclass(frozen=True)
class Said:
    """What a command said."""

    status: int
    out: str
    err: str

    @property
    def refusals(self) -> list[str]:
        """The names of what it refuses."""
        return re.findall(r"^lumaris-publish: REFUSED \[([a-z-]+)\]: .*\w.*", self.err, re.MULTILINE)


@dataclass
class Kit:
    """A publication and the key to it."""

    root: Path
    key: KeyPair
    capfd: pytest.CaptureFixture[str]

    def __call__(self, command: str, *arguments: str | Path, key: Path | None = None) -> Said:
        """Gives a command."""
        signing = ["--key", str(key or self.key.secret)] if command in SIGNING and "--key" not in arguments else []
        self.capfd.readouterr()
        try:
            status = cli.main(["--root", str(self.root), command, *map(str, arguments), *signing])
        except SystemExit as end:
            status = int(str(end.code))
        out, err = self.capfd.readouterr()
        return Said(status, out, err)

    def done(self, command: str, *arguments: str | Path) -> Said:
        """Gives a command that must succeed, and that says what to do next if it changes anything."""
        said = self(command, *arguments)
        assert said.status == 0, said.err
        return said

    def refused(self, name: str, command: str, *arguments: str | Path, key: Path | None = None) -> Said:
        """Gives a command that must be refused for this reason alone, and must change nothing."""
        before = self.tree()
        said = self(command, *arguments, key=key)
        assert (said.status, said.refusals) == (1, [name]), said
        assert self.tree() == before
        return said

    def tree(self) -> dict[str, str]:
        """Every file and link with what it holds."""
        found = {}
        for path in sorted(self.root.rglob("*")):
            if path.name == "lock":
                continue
            name = str(path.relative_to(self.root))
            if path.is_symlink():
                found[name] = str(path.readlink())
            elif path.is_file():
                found[name] = hashlib.sha256(path.read_bytes()).hexdigest()
        return found

    def served(self, path: str) -> bytes:
        """What a server shows."""
        return (self.root / "public" / path.lstrip("/")).read_bytes()
