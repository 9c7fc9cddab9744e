"""What a run should do, given the circumstances of the demonstration."""

from __future__ import annotations

from dataclasses import dataclass

from bed import update_server
from bed import version as versions

ERROR_EVENT = 0x80000001

COSTS = {"fixed": 0x2, "variable": 0x4, "overlimit": 0x10001, "congested": 0x20001, "roaming": 0x40001}
_COST_CODES = {"fixed": 3, "variable": 3, "overlimit": 4, "congested": 5}


@dataclass(frozen=True)
class Circumstances:
    """What the command line asked for."""

    architecture: str = "arm64"
    offline: bool = False
    cost: str | None = None
    channel: str | None = None
    variant: str = ""
    tamper: str | None = None
    old: bool = False
    proxy: bool = False

    @property
    def effective_channel(self) -> str:
        """The channel that the program asks for, if it asks: a text that could change the path's meaning is ignored."""
        return self.channel if self.channel and _is_plain(self.channel) else "stable"

    @property
    def effective_variant(self) -> str:
        """The variant that the program takes."""
        return self.variant if _is_plain(self.variant) else ""

    @property
    def description(self) -> str:
        """The path of the update description that the program asks for (Wine is a Windows 10)."""
        return update_server.description_path("win10", self.effective_channel)

    @property
    def package(self) -> str:
        """The path of the package on the server."""
        offered = versions.OWN if self.old else versions.NEWER
        return f"/packages/{offered}/{update_server.package_name(self.effective_variant)}"


@dataclass(frozen=True)
class Outcome:
    """What should be seen of one run."""

    why: str
    exit_code: int
    requests: tuple[str, ...] = ()
    event: int | None = None
    message: str | None = None
    installs: bool = False


def expected(given: Circumstances, *, again: bool = False) -> Outcome:
    """The outcome of the first run, or of a run after a successful one."""
    if given.offline:
        return Outcome("without a connection the check is put off", 2, event=2)
    if given.cost in _COST_CODES:
        code = _COST_CODES[given.cost]
        reason = {3: "a metered connection", 4: "a connection over its data limit", 5: "a congested connection"}[code]
        return Outcome(f"on {reason} the check is put off", code, event=code)
    if given.channel == "":
        return Outcome("an empty channel switches updates off", 0)
    description = (given.description + ".minisig", given.description)
    if given.tamper in ("description", "signature"):
        return Outcome("a description that does not match its signature is refused", ERROR_EVENT, description,
                       ERROR_EVENT, "Invalid Minisign signature")
    if given.old:
        return Outcome("the version that is offered is the one that runs: nothing to do", 0, description)
    signature = (*description, given.package + ".minisig")
    if given.tamper == "package":
        return Outcome("a package that does not match its signature is refused", ERROR_EVENT,
                       (*signature, given.package), ERROR_EVENT, "Invalid Minisign signature")
    if again:
        return Outcome("the package on disk still matches its signature: it is not downloaded again", 0, signature,
                       installs=True)
    return Outcome("a newer version is downloaded, verified and installed", 0, (*signature, given.package),
                   installs=True)


def _is_plain(text: str) -> bool:
    return not any(mark in text for mark in "/\\?")
