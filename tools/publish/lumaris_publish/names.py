"""The names that clients ask for: channels, kinds of Windows, variants, and the paths made of them."""

from __future__ import annotations

import re

from .refusal import refuse

WINDOWS = ("win11", "win10", "win8_1", "win8", "win7sp1", "win7")

# A client takes any channel without a backslash, a slash and a question mark; but what it asks for then is not the same behind every server
# and proxy. These characters are.
_PLAIN = re.compile(r"[A-Za-z0-9][A-Za-z0-9_-]{0,31}")
_VARIANT = re.compile(r"[A-Za-z0-9_-]{1,32}")


def check_channels(channels: list[str]) -> None:
    """Raises Refusal if a client would not ask for one of them."""
    for channel in channels:
        if not _PLAIN.fullmatch(channel):
            raise refuse("channel-name", f"clients do not ask for a channel \"{channel}\": use letters, digits, \"-\" and \"_\", 32 at most")
    _check_distinct("channel-name", "channels", channels)


def check_windows(windows: list[str]) -> None:
    """Raises Refusal if no client has such a Windows."""
    for name in windows:
        if name not in WINDOWS:
            raise refuse("windows-name", f"no client asks for a Windows \"{name}\": there are {', '.join(WINDOWS)}")
    _check_distinct("windows-name", "kinds of Windows", windows)


def check_variants(variants: list[str]) -> None:
    """Raises Refusal if a client would ignore one of them."""
    for variant in variants:
        if variant and not _VARIANT.fullmatch(variant):
            raise refuse("variant-name", f"clients do not ask for a variant \"{variant}\": use letters, digits, \"-\" and \"_\", as in -sl")
    _check_distinct("variant-name", "variants", variants)


def _check_distinct(name: str, what: str, values: list[str]) -> None:
    lower = [value.lower() for value in values]
    twice = sorted({value for value in lower if lower.count(value) > 1})
    if twice:
        raise refuse(name, f"the {what} hold \"{twice[0]}\" more than once: some servers tell capitals from small letters, and others do not")


def description_path(windows: str | None, channel: str) -> str:
    """Where a client looks for its description; None is a Windows that has no name."""
    return f"/Halvoro/Lumaris/{windows}-{channel}.txt" if windows else f"/Halvoro/Lumaris-{channel}.txt"


def package_name(variant: str) -> str:
    """The file that a client of this variant looks for in the package's folder."""
    return f"Halvoro.ARM64{variant}.msi"


def show_variant(variant: str) -> str:
    """A variant as people read it."""
    return variant or "(none)"
