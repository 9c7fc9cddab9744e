"""Versions: three numbers of a byte each, as people write them and as a description has them."""

from __future__ import annotations

import re
from dataclasses import dataclass

from .refusal import refuse


@dataclass(frozen=True, order=True)
class Version:
    """Major, minor and patch. The fourth byte is always 0: Windows Installer does not look at it."""

    major: int
    minor: int
    patch: int

    def __str__(self) -> str:
        return f"{self.major}.{self.minor}.{self.patch}"

    @property
    def number(self) -> int:
        """One byte a component, the last one 0."""
        return self.major << 24 | self.minor << 16 | self.patch << 8

    @property
    def digits(self) -> str:
        """The first line of a description."""
        return f"{self.number:x}"

    @staticmethod
    def of_number(number: int) -> Version:
        """The version that a description's number names, whatever its last byte is."""
        return Version(number >> 24 & 0xFF, number >> 16 & 0xFF, number >> 8 & 0xFF)


def parse(text: str) -> Version:
    """Reads "3.4.1", or "3.4.1.0" as packages and programs have it."""
    if not re.fullmatch(r"\d{1,9}(\.\d{1,9}){2,3}", text, re.ASCII):
        raise refuse("version", f"\"{text}\" is not a version: write three numbers with dots between them, such as 3.4.1")
    numbers = [int(part) for part in text.split(".")]
    if len(numbers) == 4 and numbers[3] != 0:
        raise refuse("fourth-field", f"{text} differs from {'.'.join(map(str, numbers[:3]))} in its fourth field alone, which Windows "
                                     "Installer ignores: raise one of the first three and leave the fourth at 0")
    if max(numbers) > 255:
        raise refuse("version-field", f"{text} has a field above 255, which no description can hold: choose numbers up to 255")
    version = Version(*numbers[:3])
    if version >= Version(255, 255, 255):
        raise refuse("highest-version", f"{text} is the highest version of all: no update could ever follow it")
    return version
