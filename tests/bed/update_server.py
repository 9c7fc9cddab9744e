"""What the update server publishes: the description of an update and its package, each with its signature."""

from __future__ import annotations

from dataclasses import dataclass
from pathlib import Path

from . import isolation
from .signing import KeyPair

PACKAGE_FOLDER = "/Halvoro/3.4.1"


def description_path(windows_name: str | None, channel: str) -> str:
    """Where the program looks for the description on a Windows of this name."""
    return f"/Halvoro/Lumaris/{windows_name}-{channel}.txt" if windows_name else f"/Halvoro/Lumaris-{channel}.txt"


def package_name(variant: str = "") -> str:
    """The package's file name on the server and on disk."""
    return f"Halvoro.ARM64{variant}.msi"


@dataclass(frozen=True)
class Publication:
    """A folder of files as the update server shows them."""

    folder: Path
    key: KeyPair

    def description(self, path: str, version: str, label: str,
                    url: str = f"http://{isolation.UPDATE_HOST}{PACKAGE_FOLDER}/") -> Path:
        """Publishes a signed description at a request path."""
        return self.file(path, f"{version}\n{label}\n{url}\n".encode())

    def file(self, path: str, content: bytes) -> Path:
        """Publishes a signed file at a request path."""
        file = self.folder / path.lstrip("/")
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_bytes(content)
        self.key.sign(file)
        return file
