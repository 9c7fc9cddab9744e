"""What both demonstrations have in common: the isolated network, the timeline, what was expected and the verdict."""

from __future__ import annotations

from abc import ABC, abstractmethod
from pathlib import Path

from bed import isolation, windows
from bed.errors import BedError
from timeline import Timeline

LIMIT = 120.0


class Demonstration(ABC):
    """One demonstration. A class of its own says what it needs, what it does and why this is right."""

    def __init__(self, tree: Path, architecture: str) -> None:
        self._tree = tree
        self._architecture = architecture
        self._build = tree / f"build/{architecture}-demo"
        self._timeline = Timeline()
        self._faults: list[str] = []

    def run(self) -> bool:
        """Runs it all; true when everything happened as it should."""
        for needed in self._needed():
            if not needed.exists():
                raise BedError(f"{needed} is missing; ./dev run makes it")
        if reason := windows.available(self._architecture):
            raise BedError(reason)
        network = isolation.enter()
        try:
            self._perform(network)
        finally:
            isolation.leave(network)
        return self._verdict()

    @abstractmethod
    def _needed(self) -> tuple[Path, ...]:
        """The files that must have been built."""

    @abstractmethod
    def _perform(self, network: isolation.PrivateNetwork) -> None:
        """Does it, and notes what happens and what should have happened."""

    @abstractmethod
    def _why(self) -> str:
        """What should happen, and why."""

    @property
    def _processor(self) -> str:
        return {"arm64": "ARM64", "x64": "x86-64"}[self._architecture]

    def _say(self, text: str) -> None:
        self._timeline.add("demo", text)

    def _expect(self, what: str, wanted: object, got: object) -> None:
        if wanted != got:
            self._faults.append(f"{what}: should be {str(wanted).strip()}, is {str(got).strip()}")

    def _verdict(self) -> bool:
        print()
        for fault in self._faults:
            print(f"  missing: {fault}")
        print(f"VERDICT: it did NOT happen as it should ({self._why()})" if self._faults
              else f"VERDICT: everything happened as it should: {self._why()}")
        return not self._faults


def code(value: int | None) -> str:
    """An exit code as the timeline shows it."""
    return "none" if value is None else f"0x{value:08X}"
