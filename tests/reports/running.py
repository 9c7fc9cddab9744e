"""Servers as the tests run them, and reports as the program sends them."""

from __future__ import annotations

import atexit
import base64
import http.client
import json
import re
import shutil
import signal
import socket
import sqlite3
import struct
import subprocess
import sys
import tempfile
import time
import urllib.parse
import zlib
from collections.abc import Iterator, Mapping
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path
from typing import Any

TREE = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TREE / "tests"))

from bed.postgres import Postgres, free_port  # noqa: E402  (the path to it is set above)

__all__ = ["Postgres"]

PROGRAM = TREE / "build/native-asan/tools/reports/lumaris-reports"
PATH = "/KestraneSprejem/sprejem/"
USER, PASSWORD = "ana", "čez plot"


# Of all servers: each makes the same 256 folders in there, and hundreds of servers would fill the disk with them.
BODIES = Path(tempfile.mkdtemp(prefix="lumaris-bodies-"))
atexit.register(shutil.rmtree, BODIES, ignore_errors=True)


def wait_for_port(port: int, process: subprocess.Popen[bytes]) -> bool:
    """Waits until the process listens there; False when it has ended or takes a minute."""
    until = time.monotonic() + 60
    while True:
        with socket.socket() as client:
            if client.connect_ex(("127.0.0.1", port)) == 0:
                return True
        if process.poll() is not None or time.monotonic() > until:
            return False
        time.sleep(0.02)


# Reports


def module(name: str, stamp: int = 0, *, full: bool = False) -> bytes:
    """A module of a report."""
    return b"MOD1" + struct.pack("<I", len(name)) + name.encode("utf-16-le") + struct.pack("<I", stamp) + bytes(12 * full)


def frame(offset: int, stack: bytes | None = None) -> bytes:
    """A frame; with stack memory, or none, of a full report."""
    memory = b"" if stack is None else struct.pack("<Q", len(stack)) + (struct.pack("<Q", 0x1000) + stack if stack else b"")
    return b"FUN1" + struct.pack("<Q", offset) + memory


def short_report(offset: int = 0x1549, *, name: str = "halvoro.exe", stamp: int = 7, code: int = 0xC0000005, address: int = 0,
                 note: str | None = None) -> bytes:
    """An upload: a crash in one function."""
    notes = b"" if note is None else b"DOOP" + struct.pack("<I", len(note.encode("utf-16-le")) // 2 + 1) + note.encode("utf-16-le") + b"\0\0"
    return zlib.compress(b"TZO1\x64\xAA" + struct.pack("<IIQI", code, 0, address, 0) + notes + module(name, stamp) + frame(offset), 9)


def full_report(offset: int = 0x1549, *, name: str = "halvoro.exe", stamp: int = 7, code: int = 0xC0000005, address: int = 0,
                stack: bytes = b"left on the stack") -> bytes:
    """The full report of the same crash; an x86-64 one, which has no registers."""
    return zlib.compress(b"TZR1\x64\x86" + struct.pack("<IIIQI", 1, code, 0, address, 0) + struct.pack("<I", 0) +
                         module(name, stamp, full=True) + frame(offset, stack), 9)


@dataclass(frozen=True)
class Answer:
    """What a server said."""

    status: int
    headers: Mapping[str, str]
    body: bytes

    @property
    def type(self) -> str:
        """Its content type."""
        return self.headers.get("content-type", "")

    @property
    def text(self) -> str:
        """Its body."""
        return self.body.decode()


def _answer(connection: http.client.HTTPConnection) -> Answer:
    got = connection.getresponse()
    return Answer(got.status, {name.lower(): value for name, value in got.getheaders()}, got.read())


# Servers


class Server:
    """lumaris-reports; use it as a context manager. It can be killed and started again."""

    def __init__(self, database: str, folder: Path, *options: str, ports: tuple[int, int] | None = None, program: Path = PROGRAM) -> None:
        self.database = database
        self.symbols = folder / "symbols"
        self.symbols.mkdir(exist_ok=True)
        self.port, self.pages = ports or (free_port(), free_port())
        passwords = folder / "passwords"
        subprocess.run(["htpasswd", "-cbB", "-C", "4", str(passwords), USER, PASSWORD], check=True, capture_output=True, timeout=60)
        self.log = folder / f"server-{self.port}.log"
        self._command = [str(program), "serve", "--database", database, "--symbols", str(self.symbols), "--reports", f"127.0.0.1:{self.port}",
                         "--pages", f"127.0.0.1:{self.pages}", "--password-file", str(passwords), "--folder", str(BODIES), *options]
        self._process: subprocess.Popen[bytes] | None = None

    def __enter__(self) -> Server:
        self.start()
        return self

    def __exit__(self, *_: object) -> None:
        self.stop()

    def start(self) -> None:
        """Starts it, and waits until it listens."""
        with self.log.open("ab") as log:
            self._process = subprocess.Popen(self._command, stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        for port in (self.port, self.pages):
            if not wait_for_port(port, self._process):
                raise AssertionError(f"the server does not listen: {self.log.read_text(errors='replace')}")

    def stop(self) -> int:
        """Ends it as its service manager does, and returns its exit code."""
        if self._process is None:
            return 0
        self._process.terminate()
        try:
            return self._process.wait(30)
        finally:
            self._process.kill()
            self._process = None

    def kill(self) -> None:
        """Ends it at once, as a power failure does."""
        assert self._process is not None
        self._process.send_signal(signal.SIGKILL)
        self._process.wait(30)
        self._process = None

    def has_ended(self) -> bool:
        """Whether it is not there any more."""
        assert self._process is not None
        return self._process.poll() is not None

    @property
    def process(self) -> int:
        """Its process id."""
        assert self._process is not None
        return self._process.pid

    def send(self, body: bytes, language: str = "en", **headers: str) -> Answer:
        """Sends a report as the program does: in chunks, without a length."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=60)
        try:
            connection.putrequest("POST", PATH, skip_accept_encoding=True)
            for name, value in {"Accept": "*/*", "Accept-Language": language, "Content-Type": "application/x-kestranez",
                                "User-Agent": "Kestrane/13.0", "Transfer-Encoding": "chunked", **headers}.items():
                connection.putheader(name, value)
            connection.endheaders()
            for at in range(0, len(body), 8180):
                piece = body[at:at + 8180]
                connection.send(b"%x\r\n%s\r\n" % (len(piece), piece))
            connection.send(b"0\r\n\r\n")
            return _answer(connection)
        finally:
            connection.close()

    def ask(self, path: str, *, port: int | None = None, user: str | None = USER, password: str = PASSWORD, method: str = "GET",
            form: Mapping[str, str] | None = None, body: bytes | None = None, headers: Mapping[str, str] | None = None, **more: str) -> Answer:
        """Asks for a page, or posts a form or whatever else."""
        connection = http.client.HTTPConnection("127.0.0.1", port or self.pages, timeout=60)
        try:
            sent = {**(headers or {}), **{name.replace("_", "-"): value for name, value in more.items()}}
            if user is not None:
                sent["Authorization"] = "Basic " + base64.b64encode(f"{user}:{password}".encode()).decode()
            if form is not None:
                method, body = "POST", urllib.parse.urlencode(form).encode()
                sent["Content-Type"] = "application/x-www-form-urlencoded"
            connection.request(method, path, body, sent)
            return _answer(connection)
        finally:
            connection.close()

    def groups(self) -> list[dict[str, Any]]:
        """All groups, as they are exported."""
        got = self.ask("/export.json")
        assert got.status == 200, got.text
        return list(json.loads(got.text))

    def metric(self, name: str) -> float:
        """One number of those that are counted."""
        found = re.search(rf"^{re.escape(name)} (\S+)$", self.ask("/metrics", user=None).text, re.MULTILINE)
        assert found is not None
        return float(found[1])


@contextmanager
def locked(database: str) -> Iterator[None]:
    """Somebody else holds the database's tables."""
    if database.startswith("postgresql:"):
        # It holds the lock until its standard input ends.
        with subprocess.Popen(["psql", "--quiet", "--tuples-only", "--no-align", database], stdin=subprocess.PIPE, stdout=subprocess.PIPE) as other:
            assert other.stdin is not None and other.stdout is not None
            other.stdin.write(b"BEGIN; LOCK TABLE groups, reports IN EXCLUSIVE MODE; SELECT 'locked';\n")
            other.stdin.flush()
            assert other.stdout.readline() == b"locked\n"
            yield
            other.stdin.close()
            assert other.wait(30) == 0
        return
    with sqlite3.connect(database, isolation_level=None) as rows:
        rows.execute("BEGIN IMMEDIATE")
        yield
        rows.execute("ROLLBACK")
