"""publish.toml: what a publication is for. Written by `init` and `keys rotate`, read by every command."""

from __future__ import annotations

import json
import re
import tomllib
from dataclasses import dataclass, fields
from pathlib import Path
from typing import Any

from . import names, signing
from .refusal import refuse

FILE = "publish.toml"
ARCHITECTURES = {"arm64": ("Arm64", 0xAA64), "x64": ("x64", 0x8664)}

_COMMENTS = {
    "host": "The host that the programs ask, over HTTP on port 80. One host has one key for ever.",
    "public_key": "The key that they trust.",
    "packages": "Where the packages' folders are, as clients see it. Another host is allowed.",
    "variants": "What clients give as their first argument; \"\" is not a variant.",
    "architecture": "arm64, the product; x64 is for trying it out.",
    "authenticode": "Whether packages must carry an Authenticode signature, and the root to check it against (PEM; \"\" is any).",
    "bridge_key": "Where this host is left: what the bridge release trusts, and whom it asks (see keys rotate).",
}


@dataclass(frozen=True)
class Settings:
    """The content of publish.toml."""

    host: str
    public_key: str
    channels: tuple[str, ...]
    windows: tuple[str, ...]
    variants: tuple[str, ...] = ("",)
    packages: str = ""
    architecture: str = "arm64"
    authenticode: bool = False
    authenticode_root: str = ""
    secret_key: str = ""
    bridge_key: str = ""
    bridge_host: str = ""

    @property
    def all_windows(self) -> tuple[str | None, ...]:
        """Every kind of Windows, the one without a name too."""
        return (*self.windows, None)

    @property
    def platform(self) -> str:
        """What the summary of a package must say."""
        return ARCHITECTURES[self.architecture][0]

    @property
    def machine(self) -> int:
        """The machine type of the program in a package."""
        return ARCHITECTURES[self.architecture][1]

    @property
    def expected_key(self) -> str:
        """What the program in a package must trust."""
        return self.bridge_key or self.public_key

    @property
    def expected_host(self) -> str:
        """Whom the program in a package must ask."""
        return self.bridge_host or self.host

    def check(self) -> None:
        """Raises Refusal if clients could not follow."""
        check_host(self.host)
        signing.key_bytes(self.public_key)
        if not self.channels:
            raise refuse("channel-name", "there is no channel: give --channels stable, or more of them with commas between")
        names.check_channels(list(self.channels))
        names.check_windows(list(self.windows))
        names.check_variants(list(self.variants))
        if self.architecture not in ARCHITECTURES:
            raise refuse("settings", f"the architecture \"{self.architecture}\" is unknown: use arm64")
        if bool(self.bridge_key) != bool(self.bridge_host):
            raise refuse("settings", "bridge_key and bridge_host belong together: give both or none")
        if self.bridge_key:
            signing.key_bytes(self.bridge_key)
            check_host(self.bridge_host)

    def text(self) -> str:
        """As it is written."""
        lines = ["# The publication of Halvoro's updates; see lumaris-publish --help."]
        for each in fields(self):
            value: Any = getattr(self, each.name)
            if each.name in _COMMENTS:
                lines += ["", f"# {_COMMENTS[each.name]}"]
            # Strings, lists of strings and truth values are written alike in JSON and TOML.
            lines.append(f"{each.name} = {json.dumps(list(value) if isinstance(value, tuple) else value)}")
        return "\n".join(lines) + "\n"


def check_host(host: str) -> None:
    """A host name or an address alone."""
    if not re.fullmatch(r"[A-Za-z0-9]([A-Za-z0-9-]*[A-Za-z0-9])?(\.[A-Za-z0-9]([A-Za-z0-9-]*[A-Za-z0-9])?)*", host) or len(host) > 253:
        raise refuse("host", f"\"{host}\" is not a host name: give it alone, without scheme, port and path")


def load(root: Path) -> Settings:
    """Reads the settings of a publication."""
    file = root / FILE
    try:
        known = tomllib.loads(file.read_text(encoding="utf-8"))
    except FileNotFoundError as error:
        raise refuse("no-publication", f"{root} holds no publication: go to its folder or give --root, or make one with "
                                       "lumaris-publish init") from error
    except (OSError, UnicodeDecodeError, tomllib.TOMLDecodeError) as error:
        raise refuse("settings", f"{file} cannot be read: {error}") from error
    wanted = {each.name: each for each in fields(Settings)}
    values: dict[str, Any] = {}
    for name, value in known.items():
        if name not in wanted:
            raise refuse("settings", f"{file} has a setting \"{name}\", which there is not: remove it")
        kind = str(wanted[name].type)
        right = isinstance(value, list) and all(isinstance(each, str) for each in value) if kind.startswith("tuple") else \
            isinstance(value, bool) if kind == "bool" else isinstance(value, str)
        if not right:
            raise refuse("settings", f"{file}: the value of {name} is of the wrong kind")
        values[name] = tuple(value) if isinstance(value, list) else value
    if missing := [name for name in ("host", "public_key", "channels", "windows") if name not in values]:
        raise refuse("settings", f"{file} lacks {', '.join(missing)}")
    settings = Settings(**values)
    settings.check()
    return settings
