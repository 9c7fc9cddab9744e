"""Reading the lumaris.exe inside a package: version, processor, and whom it asks and trusts."""

from __future__ import annotations

import re
from dataclasses import dataclass, field
from pathlib import Path

import pefile

from .refusal import refuse

# Ends of names that no machine outside of a laboratory finds (RFC 2606, RFC 6761), and the loopback. A literal comes first in each, which
# makes the search quick.
_LABORATORY = re.compile(rb"\.(?:example|invalid|test|localhost)(?![A-Za-z0-9.-])|\.example\.(?:com|net|org)(?![A-Za-z0-9.-])|"
                         rb"localhost(?![A-Za-z0-9.-])|127\.\d+\.\d+\.\d+(?![0-9.])")
_NAME_BEFORE = re.compile(rb"[A-Za-z0-9.-]*\Z")
# The program explains a certificate of another host with these, whatever its hosts are.
_EXPLANATION = b"if you requested updates.tavrin.example and the certificate says www.tavrin.example."


@dataclass(frozen=True)
class Program:
    """What a program says of itself."""

    version: str
    machine: int
    image: bytes = field(repr=False)

    def trusts(self, key: bytes) -> bool:
        """Whether these 40 bytes of key id and key are built in."""
        return key in self.image

    def names(self, host: str) -> bool:
        """Whether this host is built in, as a text of its own."""
        return b"\0" + host.encode("ascii") + b"\0" in self.image

    @property
    def laboratory_hosts(self) -> list[str]:
        """The hosts in it that no machine can reach."""
        texts = self.image.replace(_EXPLANATION, b"").replace(_EXPLANATION.decode("ascii").encode("utf-16-le"), b"")
        hosts = set()
        for found in _LABORATORY.finditer(texts):
            before = _NAME_BEFORE.search(texts[max(0, found.start() - 253):found.start()])
            name = (before.group() if before else b"") + found.group()
            # A word of a text is not a host, and a longer number is not an address.
            if name == found.group() if found.group()[:1] in (b"1", b"l") else not name.startswith(b"."):
                hosts.add(name.decode("ascii"))
        return sorted(hosts)


def read(file: Path) -> Program:
    """Reads a program. Raises Refusal if it is none, or has no version."""
    image = file.read_bytes()
    try:
        parsed = pefile.PE(data=image, fast_load=True)
        parsed.parse_data_directories([pefile.DIRECTORY_ENTRY["IMAGE_DIRECTORY_ENTRY_RESOURCE"]])
        fixed = parsed.VS_FIXEDFILEINFO[0]
        version = ".".join(str(part) for pair in (fixed.FileVersionMS, fixed.FileVersionLS) for part in (pair >> 16, pair & 0xFFFF))
        return Program(version, parsed.FILE_HEADER.Machine, image)
    except (pefile.PEFormatError, AttributeError, IndexError) as error:
        raise refuse("no-program", f"the {file.name} in the package is no Windows program with a version: build it anew") from error
