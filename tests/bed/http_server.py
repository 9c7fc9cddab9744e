"""A small web server that answers as the test says, misbehaviour included, and remembers what it was asked.

A request is remembered before it is answered, so a test that has seen the program end knows all requests. Real
servers stand in `services`, and the one that takes reports in `report_server`; this one is for what they would never do.
"""

from __future__ import annotations

import contextlib
import socket
import ssl
import struct
import threading
import time
from collections.abc import Iterator
from dataclasses import dataclass, field, replace
from typing import BinaryIO


@dataclass(frozen=True)
class Request:
    """One request as it came in."""

    method: str
    target: str
    headers: tuple[tuple[str, str], ...]
    body: bytes = b""
    """Without the framing of its chunks; all of it, since a request whose body ends early is not remembered."""

    def header(self, name: str) -> str | None:
        """The value of a header, whatever its case."""
        return next((value for key, value in self.headers if key.lower() == name.lower()), None)


@dataclass(frozen=True)
class Reply:
    """What the server sends. Without `length` the body's own length is announced."""

    body: bytes = b""
    status: str = "200 OK"
    headers: tuple[str, ...] = ()
    length: int | None = None
    chunked: bool = False

    def encode(self) -> bytes:
        """The bytes on the wire."""
        lines = [f"HTTP/1.1 {self.status}", *self.headers]
        if self.chunked:
            lines.append("Transfer-Encoding: chunked")
            blocks = [self.body[at:at + 1000] for at in range(0, len(self.body), 1000)]
            body = b"".join(b"%x\r\n%s\r\n" % (len(block), block) for block in blocks) + b"0\r\n\r\n"
        else:
            lines.append(f"Content-Length: {len(self.body) if self.length is None else self.length}")
            body = self.body
        return "\r\n".join(lines).encode() + b"\r\n\r\n" + body


@dataclass(frozen=True)
class Cut:
    """Sends these bytes as they stand and then cuts the connection, hard (reset) or with a proper end."""

    sent: bytes = b""
    reset: bool = False


KEEP, CLOSE, RESET = "keep", "close", "reset"


@dataclass(frozen=True)
class Raw:
    """Sends these pieces as they stand, each on its own. A number among them is a pause in seconds."""

    pieces: tuple[bytes | float, ...] = ()
    repeated: bytes = b""
    """Sent after the pieces, again and again, until the program goes away or this has come to `most` bytes."""
    most: int = 0
    then: str = KEEP
    """What becomes of the connection: it is kept for further requests, closed with a proper end, or reset."""


Single = Reply | Cut | Raw


@dataclass
class InTurn:
    """One answer after the other; the last one for ever. Several targets can share one."""

    answers: list[Single]

    def next(self, asked: Request) -> Single:  # noqa: ARG002  (for those that look at it)
        """The answer to this request."""
        return self.answers.pop(0) if len(self.answers) > 1 else self.answers[0]


Answer = Single | InTurn


@dataclass
class ScriptedServer:
    """Listens on one loopback port; use it as a context manager. Answers can be changed between runs."""

    port: int
    certificate: tuple[str, str] | None = None
    address: str = "127.0.0.1"
    answers: dict[str, Answer] = field(default_factory=dict)
    requests: list[Request] = field(default_factory=list)
    instead_of_tls: Raw | None = None
    """What is sent to whoever connects, in the place of a TLS handshake."""
    deaf: bool = False
    """It takes connections, and nothing that comes over them."""
    repeated: int = 0
    """Bytes that went out in repetitions, as far as the system took them."""

    def __enter__(self) -> ScriptedServer:
        self._context: ssl.SSLContext | None = None
        if self.certificate:
            self._context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
            self._context.load_cert_chain(*self.certificate)
        self._open: set[socket.socket] = set()
        self._lock = threading.Lock()
        self._listener = socket.create_server((self.address, self.port), backlog=16)
        self._thread = threading.Thread(target=self._accept, daemon=True)
        self._thread.start()
        return self

    def __exit__(self, *_: object) -> None:
        # Closing alone would not wake the accepting thread.
        with contextlib.suppress(OSError):
            self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        with self._lock:
            for connection in self._open:
                with contextlib.suppress(OSError):
                    connection.shutdown(socket.SHUT_RDWR)
        self._thread.join(10)

    def reset(self) -> None:
        """Forgets all answers and requests."""
        self.answers = {}
        self.requests = []
        self.instead_of_tls = None
        self.deaf = False
        self.repeated = 0

    @property
    def targets(self) -> list[str]:
        """The request targets so far, in order."""
        return [each.target for each in self.requests]

    def _accept(self) -> None:
        while True:
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            threading.Thread(target=self._serve, args=(connection,), daemon=True).start()

    def _serve(self, connection: socket.socket) -> None:
        connection.settimeout(60)
        # Each piece is to leave at once.
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        with self._lock:
            self._open.add(connection)
        try:
            if self.instead_of_tls:
                self._send(connection, self.instead_of_tls)
                return
            if self._context:
                plain, connection = connection, self._context.wrap_socket(connection, server_side=True)
                with self._lock:
                    self._open.remove(plain)
                    self._open.add(connection)
            while self.deaf:
                time.sleep(0.1)
            for asked in _requests(connection):
                with self._lock:
                    self.requests.append(asked)
                    given = self.answers.get(asked.target, Reply(b"not found\n", "404 Not Found"))
                    given = given.next(asked) if isinstance(given, InTurn) else given
                if not self._send(connection, _raw(given)):
                    return
        except OSError:
            pass  # The program may go away in the middle; what it saw is for the test to judge.
        finally:
            with self._lock:
                self._open.discard(connection)
            connection.close()

    def _send(self, connection: socket.socket, answer: Raw) -> bool:
        """Answers; true if the connection goes on."""
        for piece in answer.pieces:
            if isinstance(piece, bytes):
                connection.sendall(piece)
            elif not _pause(connection, piece):
                return False
        left = answer.most
        while left > 0:
            connection.sendall(answer.repeated)
            left -= len(answer.repeated)
            with self._lock:
                self.repeated += len(answer.repeated)
        if answer.then == RESET:
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        elif answer.then == CLOSE:
            connection.shutdown(socket.SHUT_WR)
        return answer.then == KEEP


def _raw(answer: Single) -> Raw:
    if isinstance(answer, Reply):
        return Raw((answer.encode(),))
    if isinstance(answer, Cut):
        return Raw((answer.sent,) if answer.sent else (), then=RESET if answer.reset else CLOSE)
    return answer


def _pause(connection: socket.socket, seconds: float) -> bool:
    """Says nothing for so long; false if the program goes away meanwhile."""
    connection.settimeout(seconds)
    try:
        return bool(connection.recv(1))
    except TimeoutError:
        return True
    finally:
        connection.settimeout(60)


def _requests(connection: socket.socket) -> Iterator[Request]:
    """The requests on a connection."""
    with connection.makefile("rb") as stream:
        head = b""
        while line := stream.readline():
            head += line
            if line != b"\r\n":
                continue
            asked, head = _parse(head), b""
            if asked.header("Transfer-Encoding") == "chunked":
                body = _unchunked(stream)
                if body is None:
                    return
                asked = replace(asked, body=body)
            yield asked


def _unchunked(stream: BinaryIO) -> bytes | None:
    """A body without the framing of its chunks, or None if it ends early."""
    body = b""
    while True:
        line = stream.readline()
        if not line.endswith(b"\r\n"):
            return None
        size = int(line, 16)
        piece = stream.read(size + 2)
        if len(piece) < size + 2:
            return None
        if size == 0:
            return body
        body += piece[:-2]


def _parse(head: bytes) -> Request:
    first, *rest = head.decode("latin-1").removesuffix("\r\n\r\n").split("\r\n")
    method, target, _ = first.split(" ", 2)
    headers = (line.partition(":") for line in rest)
    return Request(method, target, tuple((name, value.strip()) for name, _, value in headers))
