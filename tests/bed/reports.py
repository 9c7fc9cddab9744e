"""Reports as `read_report` reads them: a reader of its own, which shares no code with what writes them."""

from __future__ import annotations

import json
import subprocess
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from .errors import BedError


@dataclass(frozen=True)
class Record:
    """One exception record."""

    code: int
    flags: int
    address: int
    parameters: tuple[int, ...]


@dataclass(frozen=True)
class Frame:
    """One frame, from the fault outward."""

    module: str
    time_stamp: int
    """Of the module's file header."""
    offset: int
    functions: tuple[str, ...]
    """If symbols were given: the innermost one first, those that were put into it, and last the one that the code belongs
    to; without namespaces and parameters."""
    sources: tuple[str, ...]
    """"file:line" of each of them, empty if it is not known."""
    stack: bytes
    """Full reports only; empty if the report has none."""

    @property
    def function(self) -> str | None:
        """The innermost function, if it is known."""
        return self.functions[0] if self.functions else None


@dataclass(frozen=True)
class Report:
    """One report."""

    kind: str
    machine: str
    records: tuple[Record, ...]
    has_context: bool
    """It holds registers."""
    notes: tuple[str, ...]
    frames: tuple[Frame, ...]

    @property
    def code(self) -> int:
        """The exception code of the crash."""
        return self.records[0].code

    def functions(self, module: str) -> list[str]:
        """The functions of a module that have a name, innermost first."""
        return [name for each in self.frames if each.module == module for name in each.functions if name]


class Reader:
    """Reads reports with a built `read_report`."""

    def __init__(self, program: Path, work: Path) -> None:
        self._program = program
        self._file = work / "report"

    def read(self, body: bytes, *, symbols: Path | None = None) -> Report:
        """Reads a report, with the programs and PDBs of a folder; one that is damaged in any way fails."""
        found = json.loads(self._run(body, symbols, "--json"))
        if isinstance(found, list):
            (found,) = found
        return _report(found)

    def text(self, body: bytes, *, symbols: Path | None = None) -> str:
        """The report as people read it."""
        return self._run(body, symbols)

    def _run(self, body: bytes, symbols: Path | None, *options: str) -> str:
        self._file.write_bytes(body)
        named = ["--symbols", str(symbols)] if symbols else []
        done = subprocess.run([str(self._program), str(self._file), *options, *named], capture_output=True,
                              text=True, timeout=120, check=False)
        if done.returncode != 0:
            raise BedError(f"read_report ended with {done.returncode}: {done.stderr.strip() or done.stdout.strip()}")
        return done.stdout


def _report(found: dict[str, Any]) -> Report:
    records = tuple(Record(each["code"], each["flags"], each["address"], tuple(each["parameters"]))
                    for each in found["records"])
    frames = tuple(Frame(each["module"], each["time_stamp"], each["offset"],
                         tuple(_plain_name(place["name"]) for place in each.get("functions", [])),
                         tuple(place["source"] or "" for place in each.get("functions", [])),
                         bytes.fromhex(each["stack"]["bytes"]) if each.get("stack") else b"")
                   for each in found["frames"])
    context = found["context"]
    return Report(found["kind"], found["machine"], records, bool(context and context["flags"]),
                  tuple(found["notes"] or ()), frames)


def _plain_name(name: str) -> str:
    """`(anonymous namespace)::middle(int)` is `middle`."""
    plain = name.replace("(anonymous namespace)", "").replace("`anonymous namespace'", "")
    return plain.split("(")[0].split("::")[-1].strip() or name
