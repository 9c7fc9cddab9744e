"""What should come of a crash, given the circumstances of the demonstration."""

from __future__ import annotations

from dataclasses import dataclass

from bed.report_server import BODY, FULL_WANTED, REPLIED, Answer

CRASHED = 0xFFFFFFFF
ACCESS_VIOLATION = 0xC0000005

_TERMINATE_CALLED = 0xE0544D01
_ABORT_CALLED = 0xE0544D02

# The exception code in the report of each crash program, and what it does.
REPORTED = {
    "access_violation": (ACCESS_VIOLATION, "writes to an address that is never there"),
    "uncaught_exception": (_TERMINATE_CALLED, "throws an exception that nobody catches"),
    "uncaught_exception_on_thread": (0x20474343, "throws an exception that nobody catches on a second thread"),
    "exception_out_of_main": (_TERMINATE_CALLED, "lets an exception go on out of its entry point"),
    "terminate": (_TERMINATE_CALLED, "gives up by std::terminate"),
    "noexcept_violation": (_TERMINATE_CALLED, "throws in a function that has promised not to"),
    "abort": (_ABORT_CALLED, "gives up by abort"),
    "pure_virtual_call": (_ABORT_CALLED, "calls a function of an object that is not finished"),
    "invalid_parameter": (0xE0544D03, "hands the C library a parameter that it does not accept"),
    "during_start_up": (ACCESS_VIOLATION, "crashes while it starts"),
    "second_thread": (ACCESS_VIOLATION, "crashes, and then on a second thread, too"),
}

# The exit code of the programs that leave no report.
SILENT = {
    "none": (0, "does nothing and ends"),
    "after_uninstall": (ACCESS_VIOLATION, "crashes when the component has removed itself already"),
    "fault_in_start_up_thread": (0, "has a fault in the thread that sends earlier reports, and goes on"),
}

KINDS = (*REPORTED, *SILENT)


@dataclass(frozen=True)
class Server:
    """One way of the server to behave."""

    what: str
    answers: tuple[Answer, ...]
    """To the requests in turn; none at all if nobody listens."""
    requests: tuple[str, ...]
    text: str
    """What the last box says about it."""
    saved: bool = False
    page: bool = False
    real: bool = False
    """It is the server that ships, and not one whose answers are given."""


_ANSWERED = "which replied with"
_TROUBLE = "the following issue occurred"
_SAVED = "It saved the error report to a file successfully"
_PAGE = b"<!DOCTYPE html>\n<html><body><h1>Tavrin</h1><p>Stre\xc5\xbenik je v vzdr\xc5\xbeevanju.</p></body></html>\n"

SERVERS = {
    "real": Server("is lumaris-reports behind nginx, with the symbols of the program", (), ("short", "full"), _ANSWERED, real=True),
    "ok": Server("thanks for the report", (Answer(),), ("short",), _ANSWERED),
    "full": Server("asks for the full report, and thanks", (FULL_WANTED, Answer()), ("short", "full"), _ANSWERED),
    "error": Server("has an error", (Answer(500, "Podatkovna baza ni na voljo.".encode()),), ("short",), _TROUBLE),
    "html": Server("sends a page instead of an answer", (Answer(503, _PAGE, "text/html; charset=utf-8"),), ("short",),
                   _SAVED, saved=True, page=True),
    "silence": Server("begins an answer and falls silent; the program waits 30 s for more", (Answer(hold_at=REPLIED),),
                      ("short",), _SAVED, saved=True),
    "cut": Server("cuts the connection when it has the report", (Answer(cut_at=BODY),), ("short",), _SAVED, saved=True),
    "away": Server("cannot be reached", (), (), _SAVED, saved=True),
}


@dataclass(frozen=True)
class CrashCircumstances:
    """What the command line asked for."""

    kind: str
    architecture: str = "arm64"
    server: str = "real"
    notes: tuple[str, ...] = ()

    @property
    def reported(self) -> bool:
        """The component sees this crash."""
        return self.kind in REPORTED

    @property
    def what(self) -> str:
        """What the program does."""
        return (REPORTED[self.kind] if self.reported else SILENT[self.kind])[1]

    @property
    def exit_code(self) -> int:
        """How the program should end."""
        return CRASHED if self.reported else SILENT[self.kind][0]

    @property
    def boxes(self) -> int:
        """How many boxes the user should see."""
        return (1 + bool(self.notes)) if self.reported else 0

    @property
    def why(self) -> str:
        """What should happen, in one line."""
        if not self.reported:
            return "there is nothing to report"
        asked = "the user agrees to the notes, " if self.notes else ""
        if SERVERS[self.server].saved:
            return f"the crash is reported: {asked}the report is saved, the next start sends it and nothing is left"
        return f"the crash is reported: {asked}the server has the report, nothing is left"
