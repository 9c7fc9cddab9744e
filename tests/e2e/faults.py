"""What servers and networks can do wrong: replies cut at any byte, lengths that are not true, lines that are none.

Each fault is made from the reply that would have been right, so that one list serves every request of the program.
"""

from __future__ import annotations

import contextlib
import re
import time
from dataclasses import dataclass, replace
from pathlib import Path

from bed import traces
from bed.http_server import CLOSE, RESET, Raw
from bed.windows import Started, Windows, windows_path

STATUS_LINE = "HTTP/1.1 200 OK"


@dataclass(frozen=True)
class Message:
    """A reply in its parts."""

    body: bytes
    content_type: str = "text/plain; charset=utf-8"
    status_line: str = STATUS_LINE

    @property
    def head(self) -> bytes:
        """The status line and the headers, each with its end, and the empty line."""
        return self.with_lines(f"Content-Length: {len(self.body)}", "Last-Modified: Thu, 02 Jan 2025 03:04:05 GMT")

    @property
    def whole(self) -> bytes:
        """All of it."""
        return self.head + self.body

    def with_lines(self, *lines: str) -> bytes:
        """A head with these lines behind the content type."""
        return head(self.status_line, f"Content-Type: {self.content_type}", *lines)


def head(*lines: str) -> bytes:
    """These lines, each with its end, and the empty line."""
    return "".join(line + "\r\n" for line in (*lines, "")).encode("latin-1")


def chunk(data: bytes, size: str | None = None) -> bytes:
    """A chunk, with its true size or with what is given for it."""
    return f"{len(data):x}".encode() * (size is None) + (size or "").encode() + b"\r\n" + data + b"\r\n"


LAST_CHUNK = b"0\r\n\r\n"


def boundaries(reply: bytes) -> list[int]:
    """How many bytes of a reply have been sent where its structure has a seam: in the middle and at the end of the status line and of
    each header line, before and after the first byte of the body, and before its last one."""
    body_at = reply.index(b"\r\n\r\n") + 4
    places = {0, body_at, body_at + 1, len(reply) - 1}
    at = 0
    for line in reply[:body_at - 2].splitlines(keepends=True):
        places |= {at + len(line) // 2, at + len(line)}
        at += len(line)
    return sorted(places)


@dataclass(frozen=True)
class Fault:
    """A reply with a fault, and what this platform makes of it."""

    answer: Raw
    arrives: tuple[bytes | str, ...]
    """What the program is given as the body, or the failure instead of it. More than one if it is not always the same."""


# The numbers of the platform's failures. It has no texts for those of its own.
NO_REPLY = "WinHttpReceiveResponse failed: Error 12152"
NO_HEADER = "WinHttpReceiveResponse failed: Error 12150"
TOO_MANY_REDIRECTIONS = "WinHttpReceiveResponse failed: Error 12156"
NO_REPLY_IN_TIME = "WinHttpReceiveResponse failed: Error 10060"
TIMED_OUT = "WinHttpReadData failed: Error 10060"
NO_CONNECTION_IN_TIME = "WinHttpSendRequest failed: Error 12002"
RESET_BY_PEER = ("WinHttpReceiveResponse failed: Connection reset by peer.", "WinHttpSendRequest failed: Connection reset by peer.",
                 "WinHttpReadData failed: Connection reset by peer.", "WinHttpReceiveResponse failed: Error 12030", NO_REPLY)


def cut(good: Message, position: int, *, reset: bool = False) -> Fault:
    """The connection ends after so many bytes. This platform takes an end after the status line for the end of the reply, whatever
    was still to come."""
    sent = good.whole[:position]
    # A reset overtakes what has not been read yet: what was sent is given the time to be.
    pieces: tuple[bytes | float, ...] = ((sent, 0.1) if reset else (sent,)) if sent else ()
    answer = Raw(pieces, then=RESET if reset else CLOSE)
    body = sent[len(good.head):]
    if reset:
        return Fault(answer, (*RESET_BY_PEER, *(body[:length] for length in range(len(body) + 1))))
    return Fault(answer, (body if len(sent) >= len(good.status_line) + 2 else NO_REPLY,))


def wrong_lengths(good: Message) -> dict[str, Fault]:
    """Announced lengths that are not the body's. What this platform has received together with the head it hands on all the same."""
    body, size = good.body, len(good.body)

    def announced(*lengths: object, then: str = CLOSE) -> Raw:
        return Raw((good.with_lines(*(f"Content-Length: {length}" for length in lengths)) + body,), then=then)

    return {
        "too short": Fault(announced(size - 10), (body,)),
        "too long": Fault(announced(size + 10), (body,)),
        "zero": Fault(announced(0), (b"",)),
        "negative": Fault(announced(-1), (body,)),
        "all ones": Fault(announced(2 ** 32 - 1), (body,)),
        "beyond 32 bits": Fault(announced(2 ** 32), (body,)),
        "beyond 64 bits": Fault(announced(10 ** 22), (body,)),
        "no number": Fault(announced("many"), (b"",)),
        "hexadecimal": Fault(announced(hex(size)), (b"",)),
        "with a sign": Fault(announced(f"+{size}"), (body,)),
        "empty": Fault(announced(""), (b"",)),
        "two that differ": Fault(announced(size, 5), (body,)),
        "two that differ, the wrong one first": Fault(announced(5, size), (body,)),
        "two that are the same": Fault(announced(size, size), (body,)),
        "a list": Fault(announced(f"{size}, 5"), (body,)),
        "none": Fault(announced(), (body,)),
    }


def chunks(good: Message) -> dict[str, Fault]:
    """Bodies in chunks, most of them with sizes that are not true."""
    body, size = good.body, len(good.body)
    start = good.with_lines("Transfer-Encoding: chunked")

    def chunked(*parts: bytes) -> Raw:
        return Raw((start + b"".join(parts),), then=CLOSE)

    return {
        "one chunk": Fault(chunked(chunk(body), LAST_CHUNK), (body,)),
        "a byte a chunk": Fault(chunked(*(chunk(body[at:at + 1]) for at in range(size)), LAST_CHUNK), (body,)),
        "with an extension and a trailer": Fault(
            chunked(chunk(body, f"{size:X};name=value"), b"0\r\nTrailer: one\r\n\r\n"), (body,)),
        "a chunk too long": Fault(chunked(chunk(body, f"{size + 5:x}"), LAST_CHUNK), (body + b"\r\n0\r\n",)),
        "a chunk too short": Fault(chunked(chunk(body, f"{size - 5:x}"), LAST_CHUNK), (body[:-5],)),
        "a size that is not a number": Fault(chunked(chunk(body, "zz"), LAST_CHUNK), (b"",)),
        "a negative size": Fault(chunked(chunk(body, "-5"), LAST_CHUNK), (
            "WinHttpReadData failed: Invalid pointer address.", b"")),
        "no size": Fault(chunked(chunk(body, ""), LAST_CHUNK), (b"",)),
        "a size beyond 32 bits": Fault(chunked(chunk(body, "100000000"), LAST_CHUNK), (b"",)),
        "a size of all ones": Fault(chunked(chunk(body, "f" * 17), LAST_CHUNK), (
            "WinHttpReadData failed: Invalid pointer address.", b"")),
        "no last chunk": Fault(chunked(chunk(body)), (body,)),
        "with a length, too": Fault(
            Raw((good.with_lines("Transfer-Encoding: chunked", "Content-Length: 5") + chunk(body) + LAST_CHUNK,), then=CLOSE), (body,)),
        "announced and not made": Fault(
            Raw((good.with_lines("Transfer-Encoding: chunked", f"Content-Length: {size}") + body,), then=CLOSE), (
                "WinHttpReadData failed: Invalid pointer address.", b"")),
        "another encoding": Fault(
            Raw((good.with_lines("Transfer-Encoding: gzip", f"Content-Length: {size}") + body,), then=CLOSE), (body,)),
    }


def repetitions(good: Message, next_one: Message) -> dict[str, Fault]:
    """More than one reply, or more than a reply. This platform hands on what came with it as if it belonged to the body."""
    whole, body = good.whole, good.body

    def more(*parts: bytes) -> Fault:
        behind = b"".join(parts)
        pieces = (whole + behind,) if len(parts) == 1 else (whole, *parts[1:])
        return Fault(Raw(pieces, then=CLOSE), (body + behind,) if len(parts) == 1 else (body, body + behind))

    return {
        "sent twice in one segment": more(whole),
        "sent twice": more(b"", whole),
        "with the next one in its segment": more(next_one.whole),
        "with the next one behind it": more(b"", next_one.whole),
        "with garbage in its segment": more(b"garbage\r\n\r\n"),
        "with garbage behind it": more(b"", b"garbage\r\n\r\n"),
        "after an empty line": Fault(Raw((b"\r\n" + whole,), then=CLOSE), (NO_REPLY,)),
    }


def statuses(good: Message) -> dict[str, Fault]:
    """Status lines other than that of 200, with the body that would have been right."""
    def instead(status: str) -> Raw:
        return Raw((replace(good, status_line=f"HTTP/1.1 {status}").whole,), then=CLOSE)

    def before(status: str) -> Raw:
        return Raw((head(f"HTTP/1.1 {status}"), good.whole), then=CLOSE)

    found = {f"{number}": Fault(instead(f"{number} Told"), (f"{int(number)}",)) for number in (
        "000", "099", "199", "201", "202", "203", "204", "205", "206", "226", "299", "300", "303", "304", "305", "306", "308", "310",
        "400", "401", "403", "404", "405", "407", "408", "410", "416", "418", "426", "429", "431", "449", "451", "500", "501", "502",
        "503", "504", "505", "507", "511", "599", "600", "999")}
    found |= {f"{number} without an address": Fault(instead(f"{number} Told"), (NO_HEADER,)) for number in (301, 302, 307)}
    found |= {f"{number} before 200": Fault(before(f"{number} Told"), (f"{number}",)) for number in (101, 102, 103)}
    # It waits for the real reply, and does not find it.
    found["100 before 200"] = Fault(before("100 Continue"), (NO_REPLY, good.body))
    found |= {f"{text!r}": Fault(instead(text), (NO_REPLY,)) for text in ("1000 Told", "20 Told", "2000 OK", "-200 OK", "200", "65736 OK",
                                                                          " 200 OK", "200OK", "")}
    found["'abc OK'"] = Fault(instead("abc OK"), ("0",))
    return found


def heads(good: Message) -> dict[str, Fault]:
    """Heads that are odd, broken or long."""
    body, size = good.body, len(good.body)
    length = f"Content-Length: {size}"

    def with_status_line(line: str) -> Raw:
        return Raw((replace(good, status_line=line).whole,), then=CLOSE)

    def with_line(line: str) -> Raw:
        return Raw((good.with_lines(line, length) + body,), then=CLOSE)

    return {
        "HTTP/1.0": Fault(with_status_line("HTTP/1.0 200 OK"), (body,)),
        "HTTP/9.9": Fault(with_status_line("HTTP/9.9 200 OK"), (body,)),
        "http in small letters": Fault(with_status_line("http/1.1 200 OK"), (body,)),
        "another protocol": Fault(with_status_line("220 this is another protocol"), (NO_REPLY,)),
        "an empty status line": Fault(with_status_line(""), (NO_REPLY,)),
        "a tab for a blank": Fault(with_status_line("HTTP/1.1\t200 OK"), (NO_REPLY,)),
        "line feeds alone": Fault(Raw((good.head.replace(b"\r", b"") + body,), then=CLOSE), (body,)),
        "a zero byte": Fault(with_line("X: a\0b"), (body,)),
        "bytes of no character set": Fault(with_line("X: \xff\xfe\x80"), (body,)),
        "a line of 64 KB": Fault(with_line("X: " + "a" * 65536), (body,)),
        "a line of 1 MB": Fault(with_line("X: " + "a" * 1000000), (body,)),
        "1000 lines": Fault(Raw((good.with_lines(*(f"X-{number}: {'a' * 100}" for number in range(1000)), length) + body,), then=CLOSE), (body,)),
    }


def silences(good: Message) -> dict[str, Fault]:
    """Replies that stop and leave the connection open, and those whose end this platform does not see while it is. A silence within the
    headers is left out: Wine then counts the failed read as minus one byte, as it does with a reset there."""
    def until(position: int) -> Raw:
        return Raw((good.whole[:position],) * (position > 0) + (SILENCE,))

    start = len(good.head)
    return {
        "before the reply": Fault(until(0), (NO_REPLY_IN_TIME,)),
        "in the status line": Fault(until(8), (NO_REPLY_IN_TIME,)),
        "before the body": Fault(until(start), (TIMED_OUT,)),
        "in the body": Fault(until(start + 10), (TIMED_OUT,)),
        "before the last byte": Fault(until(len(good.whole) - 1), (TIMED_OUT,)),
        "with two replies in a segment": Fault(Raw((good.whole + good.whole, SILENCE)), (TIMED_OUT,)),
        "with too short a length": Fault(Raw((good.with_lines("Content-Length: 5") + good.body, SILENCE)), (TIMED_OUT,)),
        "without a length": Fault(Raw((good.with_lines() + good.body, SILENCE)), (TIMED_OUT,)),
    }


# Longer than any time-out of the program and its platform.
SILENCE = 50.0


def endless(good: Message, most: int) -> dict[str, Fault]:
    """Replies that go on until so many bytes have gone out, and then end. This platform hands on nothing of what is not a body."""
    line = b"X-Endless: " + b"x" * 1011 + b"\r\n"
    block = b"x" * 65536
    chunked = good.with_lines("Transfer-Encoding: chunked")
    return {
        "status line": Fault(Raw((b"HTTP/1.1 200 ",), block, most, CLOSE), (NO_REPLY,)),
        "header line": Fault(Raw((good.head[:len(good.status_line) + 2] + b"X: ",), block, most, CLOSE), (b"",)),
        "header lines": Fault(Raw((good.head[:len(good.status_line) + 2],), line * 64, most, CLOSE), (b"",)),
        "100 before 200": Fault(Raw((), head("HTTP/1.1 100 Continue") * 2000, most, CLOSE), (NO_REPLY,)),
        "chunk size": Fault(Raw((chunked,), b"0" * 65536, most, CLOSE), (b"",)),
        "chunk extension": Fault(Raw((chunked + b"5;",), block, most, CLOSE), (b"",)),
        "trailer": Fault(Raw((chunked + chunk(b"12345") + b"0\r\n",), line * 64, most, CLOSE), (b"12345",)),
    }


def endless_bodies(good: Message, most: int) -> dict[str, Raw]:
    """Bodies that go on until so many bytes have gone out."""
    block = b"x" * 65536
    return {
        "without a length": Raw((good.with_lines(),), block, most, CLOSE),
        "with a length": Raw((good.with_lines(f"Content-Length: {most}"),), block, most, CLOSE),
        "in chunks": Raw((good.with_lines("Transfer-Encoding: chunked"),), chunk(block), most, CLOSE),
    }


class Registry:
    """What a Windows's registry holds at this moment, for programs to change nothing in it. Left out are the system's certificates:
    Wine copies those of the room there when a program uses TLS for the first time."""

    def __init__(self, machine: Windows) -> None:
        self._machine = machine
        self._before = self._lines()

    def changes(self) -> list[str]:
        """The values that are new, gone or changed by now."""
        return sorted(self._before ^ self._lines())

    def _lines(self) -> set[str]:
        found = set()
        for root in ("HKLM", "HKCU"):
            file = self._machine.folder / "registry.txt"
            file.unlink(missing_ok=True)
            run = self._machine.run(f'reg export {root} "{windows_path(file)}" /y', limit=50)
            assert run.exit_code == 0
            key = ""
            for line in file.read_text(encoding="utf-16").splitlines():
                key = line if line.startswith("[") else key
                if "\\Microsoft\\SystemCertificates" not in key:
                    found.add(f"{key} {line}")
        return found


class EventsSince:
    """What programs report from now on that run at the same time, and what they start."""

    def __init__(self, machine: Windows) -> None:
        self._file = machine.folder / "trace.txt"
        self._begin = self._file.stat().st_size

    def events(self) -> list[traces.Event]:
        """Their events; those of one program in their order."""
        return [event for text in self._threads() for event in traces.events(text)]

    def commands(self) -> list[traces.ShellCommand]:
        """The commands that they started."""
        return [command for text in self._threads() for command in traces.commands(text)]

    def _threads(self) -> list[str]:
        """What each thread left in the trace. The lines of several programs stand there as they came."""
        threads: dict[str, list[str]] = {}
        with self._file.open("rb") as trace:
            trace.seek(self._begin)
            for line in trace.read().decode("utf-8", "replace").splitlines():
                threads.setdefault(":".join(line.split(":")[1:2]), []).append(line)
        return ["\n".join(lines) for lines in threads.values()]


def peak_memory(program: str, started: Started) -> int:
    """The most memory, in bytes, that a started program of this name has in use at once until its end."""
    peak = 0
    while started.ended(0) is None:
        for process in Path("/proc").glob("[0-9]*"):
            with contextlib.suppress(OSError):
                if (process / "cmdline").read_bytes().split(b"\0")[0].endswith(program.encode()):
                    found = re.search(r"VmHWM:\s+(\d+) kB", (process / "status").read_text(encoding="ascii"))
                    peak = max(peak, int(found[1]) * 1024 if found else 0)
        time.sleep(0.005)
    return peak
