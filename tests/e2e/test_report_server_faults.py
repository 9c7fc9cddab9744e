"""What faulty servers and networks do to a report: no reply, however broken, loses one that has not arrived, or sends one twice.

Both posts, of the short and of the full report, meet every fault, most of them at the next start, which sends what a crash has left. A
report whose reply cannot be read remains; one whose reply could be read counts as delivered, whatever the reply says.
"""

from __future__ import annotations

import itertools
import os
import time
import zlib
from collections.abc import Iterator

import pytest

import faults
from bed import certificates, isolation
from bed.certificates import Certificate
from bed.http_server import CLOSE, RESET, InTurn, Raw, Reply, Request, ScriptedServer, Single
from bed.report_server import PATH
from bed.snapshot import nothing_else_changes
from crash_world import CRASHED, CrashBed, CrashWorld
from faults import Message
from world import Bed, World

Pair = tuple[bytes, bytes]

THANKS = Message("Hvala za poročilo.".encode())
FULL_WANTED = Message("Prosim za celotno poročilo.".encode(), status_line="HTTP/1.1 449 Retry With")

# What becomes of a report: it counts as delivered and is deleted; it remains; it remains and the reply is kept, too, as a page.
DELIVERED, KEPT, PAGE = "delivered", "kept", "page"
POSTS = ["short", "full"]

REDIRECTIONS = ["301 Moved Permanently", "302 Found", "307 Temporary Redirect"]
LOCATIONS = ["https://reports.tavrin.example/elsewhere", "http://updates.tavrin.example/elsewhere", "file:///C:/windows/win.ini", PATH]


def kinds() -> dict[str, tuple[Raw, set[str]]]:
    """All faults but the cuts, by their names, with what becomes of the report."""
    found: dict[str, tuple[Raw, set[str]]] = {}
    for group, some in (("length", faults.wrong_lengths(THANKS)), ("chunks", faults.chunks(THANKS)),
                        ("repeated", faults.repetitions(THANKS, FULL_WANTED)), ("status", faults.statuses(THANKS)),
                        ("head", faults.heads(THANKS))):
        for name, fault in some.items():
            found[f"{group}, {name}"] = fault.answer, {becomes(name, each) for each in fault.arrives}
    # Nobody may announce more than a reply is allowed to hold; to the platform a negative number is a large one.
    for name in ("all ones", "negative", "beyond 32 bits", "beyond 64 bits"):
        found[f"length, {name}"] = found[f"length, {name}"][0], {KEPT}
    return found


def becomes(name: str, arrives: bytes | str) -> str:
    """What becomes of a report to which this arrives as the reply's body, or this failure in the place of a reply."""
    if name.endswith("before 200") and isinstance(arrives, str) and arrives.isdigit():
        return PAGE  # its head has no content type
    return DELIVERED if isinstance(arrives, bytes) or arrives.isdigit() else KEPT


def cut(position: int, *, reset: bool = False) -> tuple[Raw, set[str]]:
    """The reply ends after so many bytes."""
    fault = faults.cut(THANKS, position, reset=reset)
    if reset:
        return fault.answer, {DELIVERED, KEPT}
    sent = THANKS.whole[:position]
    if any(isinstance(each, str) for each in fault.arrives):
        return fault.answer, {KEPT}
    # What has come of the head is all of it to this platform. The content type is the first line.
    first = sent.splitlines(keepends=True)[1:2]
    whole = bool(first) and first[0].endswith(b"\n")
    return fault.answer, {DELIVERED} if whole else {PAGE, DELIVERED} if first and b"text/plain" in first[0] else {PAGE}


def pytest_generate_tests(metafunc: pytest.Metafunc) -> None:
    """Which fault meets which post."""
    every = metafunc.config.getoption("--every-byte")
    emulated = metafunc.config.getoption("--arch") == "arm64"
    if "position" in metafunc.fixturenames:
        reset = "reset" in metafunc.function.__name__
        places = list(range(len(THANKS.whole))) if every else faults.boundaries(THANKS.whole)
        # A reset within the headers is left out, as for updates.
        places = [each for each in places if not reset or not len(THANKS.status_line) <= each < len(THANKS.head)]
        cases = [(POSTS[number % 2], place) for number, place in enumerate(places)]
        if every:
            cases = [(post, place) for post in POSTS for place in places]
        elif emulated:
            cases = cases[::2]
        metafunc.parametrize(("post", "position"), cases)
    elif "kind" in metafunc.fixturenames:
        names = list(kinds())
        kinds_of_posts = [(POSTS[number % 2], kind) for number, kind in enumerate(names)]
        if every:
            kinds_of_posts = [(post, kind) for post in POSTS for kind in names]
        else:
            # The platform is the same as for updates: a few will do.
            kinds_of_posts = kinds_of_posts[::16 if emulated else 6]
        metafunc.parametrize(("post", "kind"), kinds_of_posts)
    elif "location" in metafunc.fixturenames:
        redirected = list(itertools.product(POSTS, REDIRECTIONS, LOCATIONS))
        metafunc.parametrize(("post", "status", "location"), redirected if every else redirected[::5])
    elif "what" in metafunc.fixturenames:
        endless = list(itertools.product(POSTS, faults.endless_bodies(THANKS, 0)))
        metafunc.parametrize(("post", "what"), endless if every else endless[::2])


@pytest.fixture(scope="module")
def certificate(bed: Bed) -> Certificate:
    """A certificate for the report server."""
    return certificates.make_server_certificate(bed.network.work, bed.authority, isolation.REPORT_HOST, name="faulty-reports")


@pytest.fixture(scope="module")
def faulty(bed: Bed, crash_bed: CrashBed, certificate: Certificate) -> Iterator[ScriptedServer]:
    """The report server of this module, in the place of the other one."""
    with crash_bed.server.away(), \
            ScriptedServer(443, (str(certificate.path), str(certificate.key)), isolation.REPORT_ADDRESS) as server:
        yield server


@pytest.fixture(scope="module")
def pair(bed: Bed, crash_bed: CrashBed, faulty: ScriptedServer) -> Pair:
    """The files of a crash."""
    faulty.instead_of_tls = Raw(then=CLOSE)
    with CrashWorld(crash_bed, bed.machine) as crashes:
        crashes.run("access_violation", notes=["kept"])
        faulty.reset()
        return crashes.pair(0)


@pytest.fixture(scope="module", autouse=True)
def nothing_outside_changes(bed: Bed, pair: Pair) -> Iterator[None]:
    """All runs of this module together change nothing on the drive outside the temporary folder's reports, and nothing in the registry."""
    fresh = World(bed)
    fresh.clean()
    registry = faults.Registry(bed.machine)
    with nothing_else_changes(bed.machine):
        yield
    assert registry.changes() == []


@pytest.fixture
def saved(crashes: CrashWorld, faulty: ScriptedServer, pair: Pair) -> CrashWorld:
    """A Windows in which a crash has left its files, before a server that behaves."""
    faulty.reset()
    crashes.save(0, pair)
    return crashes


def posts(server: ScriptedServer) -> list[bytes]:
    """The bodies that came whole."""
    return [each.body for each in server.requests if each.method == "POST"]


def next_start(crashes: CrashWorld, *answers: Raw | Reply, server: ScriptedServer) -> None:
    """A program starts and ends while the server gives these answers, the last one for ever."""
    server.requests.clear()
    server.answers[PATH] = InTurn(list(answers))
    run = crashes.run("none")
    assert (run.exit_code, run.events) == (0, ())


def suffer(crashes: CrashWorld, server: ScriptedServer, pair: Pair, post: str, answer: Raw | Reply, wanted: set[str]) -> str:
    """The next start meets this answer to this post, and the one after it finds everything in order."""
    good = Raw((THANKS.whole,))
    before = [Raw((FULL_WANTED.whole,))] if post == "full" else []
    next_start(crashes, *before, answer, good, server=server)
    left = crashes.files()
    page = "Odgovor.html" in left
    left = [each for each in left if each != "Odgovor.html"]
    came = DELIVERED if not left else PAGE if page else KEPT
    assert came in wanted
    assert page == (came == PAGE)
    # The one that is deleted has arrived as it was written, and so has the short one that the full one was asked for.
    received = posts(server)
    if post == "full":
        assert received[0] == pair[0]
        assert left == ([] if came == DELIVERED else ["0.tzr"])
        assert came != DELIVERED or received[-1] == pair[1]
    else:
        assert left == ([] if came == DELIVERED else ["0.tzo", "0.tzr"])
        assert came != DELIVERED or received[0] == pair[0]

    next_start(crashes, good, server=server)
    assert posts(server) == ([pair[0]] if post == "short" and came != DELIVERED else [])
    # A full report whose short one has arrived is not looked for: the next crash of that number takes its place.
    assert [each for each in crashes.files() if each != "Odgovor.html"] == (left if post == "full" else [])
    return came


def test_a_reply_cut_at_this_byte_loses_no_report(saved: CrashWorld, faulty: ScriptedServer, pair: Pair, post: str, position: int) -> None:
    suffer(saved, faulty, pair, post, *cut(position))


def test_a_reply_reset_at_this_byte_loses_no_report(saved: CrashWorld, faulty: ScriptedServer, pair: Pair, post: str,
                                                    position: int) -> None:
    suffer(saved, faulty, pair, post, *cut(position, reset=True))


def test_a_reply_with_this_fault_loses_no_report(saved: CrashWorld, faulty: ScriptedServer, pair: Pair, post: str, kind: str) -> None:
    suffer(saved, faulty, pair, post, *kinds()[kind])


@pytest.mark.parametrize("how", [
    pytest.param(Raw(then=CLOSE), id="closed"),
    pytest.param(Raw(then=RESET), id="reset"),
    pytest.param(Raw((b"220 this is another protocol\r\n",), then=CLOSE), id="another protocol"),
    pytest.param(Raw((b"\x15\x03\x03\x00\x02\x02\x28",), then=CLOSE), id="refused"),
    pytest.param(Raw((b"\x16\x03\x03\x40\x00" + b"\x02" * 100,), then=CLOSE), id="cut"),
    pytest.param(Raw((THANKS.whole,), then=CLOSE), id="a reply without TLS"),
])
def test_a_failed_handshake_loses_no_report(saved: CrashWorld, faulty: ScriptedServer, pair: Pair, how: Raw) -> None:
    faulty.instead_of_tls = how
    next_start(saved, Raw((THANKS.whole,)), server=faulty)
    assert saved.pair(0) == pair
    assert faulty.requests == []
    faulty.instead_of_tls = None
    next_start(saved, Raw((THANKS.whole,)), server=faulty)
    assert posts(faulty) == [pair[0]]
    saved.assert_nothing_left()


@pytest.mark.any_processor
def test_a_redirected_report_goes_nowhere_else_and_stays(saved: CrashWorld, faulty: ScriptedServer, bed: Bed, pair: Pair, post: str,
                                                         status: str, location: str) -> None:
    """Another server's answer would count as delivery."""
    bed.server.reset()
    bed.server.answers["/elsewhere"] = faulty.answers["/elsewhere"] = Raw((THANKS.whole,))
    redirection = Reply(b"", status, ("Content-Type: text/plain", f"Location: {location}"))
    before = [Raw((FULL_WANTED.whole,))] if post == "full" else []
    next_start(saved, *before, redirection, Raw((THANKS.whole,)), server=faulty)
    # Neither to that place, nor once more to its own, by whatever method; and once is enough.
    asked = [(each.method, each.target, each.body) for each in faulty.requests]
    assert asked == [("POST", PATH, body) for body in (pair if post == "full" else pair[:1])]
    assert bed.server.targets == []
    assert saved.files() == (["0.tzr"] if post == "full" else ["0.tzo", "0.tzr"])
    next_start(saved, Raw((THANKS.whole,)), server=faulty)
    assert posts(faulty) == ([] if post == "full" else [pair[0]])


def test_a_short_reply_that_asks_for_more_and_is_cut_still_asks_for_it(saved: CrashWorld, faulty: ScriptedServer, pair: Pair) -> None:
    """The status has come, and says all that is needed."""
    next_start(saved, Raw((FULL_WANTED.whole[:-5],), then=CLOSE), Raw((THANKS.whole,)), server=faulty)
    assert posts(faulty) == list(pair)
    saved.assert_nothing_left()


@pytest.mark.any_processor
def test_a_reply_without_end_fills_no_memory_and_loses_no_report(saved: CrashWorld, faulty: ScriptedServer, pair: Pair, post: str,
                                                                 what: str) -> None:
    suffer(saved, faulty, pair, post, faults.endless_bodies(THANKS, 64 * 1048576)[what], {KEPT})
    # What has left the server and was not read by the program was on its way: it is the system's.
    assert faulty.repeated < 24 * 1048576


@pytest.mark.parametrize("post", POSTS)
@pytest.mark.parametrize("place", ["in the status line", "in the headers"])
@pytest.mark.any_processor
def test_a_crash_whose_reply_is_cut_saves_both_reports(crashes: CrashWorld, faulty: ScriptedServer, post: str, place: str) -> None:
    faulty.reset()
    before = [Raw((FULL_WANTED.whole,))] if post == "full" else []
    sent = THANKS.whole[:9 if place == "in the status line" else 20]
    faulty.answers[PATH] = InTurn([*before, Raw((sent,), then=CLOSE)])
    assert crashes.run("access_violation").exit_code == CRASHED
    assert [each for each in crashes.files() if each != "Odgovor.html"] == ["0.tzo", "0.tzr"]
    short = crashes.pair(0)[0]
    next_start(crashes, Raw((THANKS.whole,)), server=faulty)
    assert posts(faulty) == [short]


# Silence. How long a reply may take to begin is the system's own affair (Wine waits 21 s); the program's 30 s are for each part of the body.


class ByReport(InTurn):
    """The first answers for short reports in turn, and others for full ones."""

    def __init__(self, short: list[Single], full: list[Single]) -> None:
        super().__init__(short)
        self._full = InTurn(full)

    def next(self, asked: Request) -> Single:
        """The answer to this report."""
        return self._full.next(asked) if zlib.decompress(asked.body)[:4] == b"TZR1" else super().next(asked)


@pytest.mark.any_processor
def test_a_server_that_falls_silent_is_given_up_everywhere(crashes: CrashWorld, faulty: ScriptedServer) -> None:
    """Every silence at both posts, all at the same time: as many crashes, each of which meets one of them."""
    faulty.reset()
    silent: list[Single] = [fault.answer for fault in list(faults.silences(THANKS).values())[:5]]
    faulty.answers[PATH] = ByReport([*silent, Raw((FULL_WANTED.whole,))], [*silent])
    programs = [crashes.begin("access_violation", name=f"silence-{number}") for number in range(2 * len(silent))]
    assert [each.wait(58).exit_code for each in programs] == [CRASHED] * len(programs)
    assert crashes.files() == sorted(f"{number}.{extension}" for number in range(len(programs)) for extension in ("tzo", "tzr"))

    next_start(crashes, Raw((THANKS.whole,)), server=faulty)
    assert [crashes.read(each).kind for each in posts(faulty)] == ["short"] * len(programs)
    crashes.assert_nothing_left()


@pytest.mark.at_length
@pytest.mark.any_processor
def test_a_server_that_takes_no_report_is_given_up(saved: CrashWorld, faulty: ScriptedServer) -> None:
    # More than what the systems at both ends take in to send or hand over later: 4 MiB to send at most, and the window of a connection that
    # nobody reads from does not grow.
    large = os.urandom(8 * 1048576)
    (saved.temp / "0.tzo").write_bytes(large)
    faulty.deaf = True
    begin = time.monotonic()
    next_start(saved, Raw((THANKS.whole,)), server=faulty)
    print(f"given up after {time.monotonic() - begin:.0f} s")
    assert saved.files() == ["0.tzo", "0.tzr"]
    faulty.reset()
    next_start(saved, Raw((THANKS.whole,)), server=faulty)
    assert posts(faulty) == [large]
    saved.assert_nothing_left()
