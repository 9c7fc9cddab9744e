"""A small web server that answers as the test says, misbehaviour included, and remembers what it was asked.

A request is remembered before it is answered, so a test that has seen the program end knows all requests. Real
servers stand in `services`; this one is for what they would never do.
"""

from __future__ import annotations

import contextlib
import socket
import ssl
import struct
import threading
from collections.abc import Iterator
from dataclasses import dataclass, field


@dataclass(frozen=True)
class Request:
    """One request as it came in."""

    method: str
    target: str
    headers: tuple[tuple[str, str], ...]

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


Answer = Reply | Cut


@dataclass
class ScriptedServer:
    """Listens on one loopback port; use it as a context manager. Answers can be changed between runs."""

    port: int
    certificate: tuple[str, str] | None = None
    address: str = "127.0.0.1"
    answers: dict[str, Answer] = field(default_factory=dict)
    requests: list[Request] = field(default_factory=list)

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
        with self._lock:
            self._open.add(connection)
        try:
            if self._context:
                connection = self._context.wrap_socket(connection, server_side=True)
            for head in _heads(connection):
                asked = _parse(head)
                self.requests.append(asked)
                given = self.answers.get(asked.target, Reply(b"not found\n", "404 Not Found"))
                if isinstance(given, Cut):
                    _cut(connection, given)
                    return
                connection.sendall(given.encode())
        except OSError:
            pass  # The program may go away in the middle; what it saw is for the test to judge.
        finally:
            with self._lock:
                self._open.discard(connection)
            connection.close()


def _heads(connection: socket.socket) -> Iterator[bytes]:
    """The heads of the requests on a connection; none of them has a body."""
    pending = b""
    while True:
        while b"\r\n\r\n" not in pending:
            received = connection.recv(65536)
            if not received:
                return
            pending += received
        head, pending = pending.split(b"\r\n\r\n", 1)
        yield head


def _parse(head: bytes) -> Request:
    first, *rest = head.decode("latin-1").split("\r\n")
    method, target, _ = first.split(" ", 2)
    headers = (line.partition(":") for line in rest)
    return Request(method, target, tuple((name, value.strip()) for name, _, value in headers))


def _cut(connection: socket.socket, how: Cut) -> None:
    if how.sent:
        connection.sendall(how.sent)
    if how.reset:
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    else:
        connection.shutdown(socket.SHUT_WR)
