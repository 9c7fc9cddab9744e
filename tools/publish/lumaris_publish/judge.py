"""Asks lumaris_judge, which decides with the program's own sources."""

from __future__ import annotations

import contextlib
import json
import os
import subprocess
from dataclasses import dataclass
from pathlib import Path
from types import TracebackType
from typing import Any

from .refusal import refuse

# Its verdicts, as it writes them.
REFUSED, NOTHING, INSTALLS, ACCEPTED, UNDERSTOOD, UNREADABLE = "refused", "nothing", "installs", "accepted", "understood", "unreadable"


@dataclass(frozen=True)
class Url:
    """An address as a client understands it."""

    scheme: str
    host: str
    port: int
    user: str
    password: str
    path: str


@dataclass(frozen=True)
class Verdict:
    """One answer."""

    what: str
    message: str = ""
    version: int = 0
    label: str = ""
    address: str = ""
    size: int = 0
    url: Url | None = None


def program() -> Path:
    """The judge: beside the kit if it is installed there, or what LUMARIS_JUDGE names."""
    named = os.environ.get("LUMARIS_JUDGE")
    beside = Path(__file__).resolve().parents[1] / "lumaris_judge"
    found = Path(named) if named else beside
    if not found.is_file():
        raise refuse("no-judge", f"{found} is missing: install the kit's package again, or let LUMARIS_JUDGE name lumaris_judge")
    return found


class Judge:
    """A running judge for one public key; use it as a context manager."""

    def __init__(self, public_key: str) -> None:
        self._process = subprocess.Popen([str(program()), public_key], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                                         encoding="utf-8", errors="surrogateescape")
        self._unanswered = 0

    def __enter__(self) -> Judge:
        return self

    def __exit__(self, kind: type[BaseException] | None, _error: BaseException | None, _trace: TracebackType | None) -> None:
        if kind is not None:
            self._process.kill()
        assert self._process.stdin is not None and self._process.stdout is not None
        with contextlib.suppress(BrokenPipeError):
            self._process.stdin.close()
        self._process.stdout.close()
        self._process.wait()

    def ask(self, *question: str | Path) -> Verdict:
        """One question and its answer; those to earlier ones that nobody has fetched are let go."""
        self.send(*question)
        while self._unanswered > 1:
            self.receive()
        return self.receive()

    def send(self, *question: str | Path) -> None:
        """Puts a question whose answer is wanted later."""
        parts = [str(part) for part in question]
        if any(character in part for part in parts for character in "\t\n"):
            raise refuse("name", f"a name holds a tab or a line feed: {parts!r}")
        assert self._process.stdin is not None
        # A judge that has ended says why when its answer is wanted.
        with contextlib.suppress(BrokenPipeError):
            self._process.stdin.write("\t".join(parts) + "\n")
            self._process.stdin.flush()
        self._unanswered += 1

    def receive(self) -> Verdict:
        """The answer to the oldest question without one."""
        assert self._process.stdout is not None
        line = self._process.stdout.readline()
        if not line:
            raise refuse("no-judge", f"{program()} ended with status {self._process.wait()}: is the public key in publish.toml whole?")
        self._unanswered -= 1
        said: dict[str, Any] = json.loads(line)
        if said["verdict"] == UNREADABLE:
            raise refuse("unreadable", f"cannot be read: {said['message']}")
        url = said.get("url")
        return Verdict(what=said["verdict"], message=said.get("message", ""), version=said.get("version", 0), label=said.get("label", ""),
                       address=said.get("address", ""), size=said.get("size", 0), url=Url(**url) if url else None)

    def description(self, content: Path, signature: Path, running: int = 0) -> Verdict:
        """What a client of the version `running` does with a description."""
        return self.ask("description", content, signature, f"{running:x}")

    def package(self, content: Path, signature: Path) -> Verdict:
        """Whether a client takes a package."""
        return self.ask("package", content, signature)

    def limit(self) -> int:
        """How many bytes of a package a client takes."""
        return self.ask("limit").size

    def address(self, text: str) -> Verdict:
        """What a client makes of the address of a folder."""
        return self.ask("address", text)
