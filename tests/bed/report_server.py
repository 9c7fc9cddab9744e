"""The report server: takes error reports over HTTPS, remembers every request, and answers as the test says.

It runs on a thread with an event loop of its own. A request is remembered when its head has come, and what follows is added to it
as it comes; a test that has seen the program end knows everything.
"""

from __future__ import annotations

import asyncio
import contextlib
import ssl
import threading
import time
import zlib
from collections.abc import Coroutine, Iterator
from dataclasses import dataclass, field

from aiohttp import web

from . import isolation
from .certificates import Certificate, make_server_certificate
from .errors import BedError

PATH = "/KestraneSprejem/sprejem/"
THANKS = "Hvala za poročilo."

# The stages of a request, as the server sees them.
HEAD, HALF, BODY, REPLIED = "head", "half", "body", "replied"


@dataclass(frozen=True)
class Answer:
    """What the server says to a request."""

    status: int = 200
    body: bytes = THANKS.encode()
    content_type: str = "text/plain; charset=utf-8"
    hold_at: str | None = None
    """Goes no further than this stage until `release`, or until the program has gone away."""
    cut_at: str | None = None
    """Cuts the connection at this stage. For both, "replied" is in the middle of the reply."""
    wait: float = 0
    """Seconds before the reply."""


FULL_WANTED = Answer(status=449, body="Prosim za celotno poročilo.".encode())


@dataclass
class Received:
    """One request."""

    method: str
    path: str
    headers: tuple[tuple[str, str], ...]
    body: bytes = b""
    """Without the framing of its chunks."""
    moments: dict[str, float] = field(default_factory=dict)
    """When each stage was reached."""

    def header(self, name: str) -> str | None:
        """The value of a header, whatever its case."""
        return next((value for key, value in self.headers if key.lower() == name.lower()), None)

    @property
    def whole(self) -> bool:
        """The body came to its end."""
        return BODY in self.moments

    @property
    def kind(self) -> str:
        """"short", "full", or "part" of a report."""
        with contextlib.suppress(zlib.error):
            return {b"TZO1": "short", b"TZR1": "full"}.get(zlib.decompress(self.body)[:4], "part")
        return "part"


class ReportServer:
    """Listens on one loopback port; use it as a context manager. Answers can be changed between runs."""

    def __init__(self, certificate: Certificate, port: int = 443) -> None:
        self._tls = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
        self._tls.load_cert_chain(certificate.path, certificate.key)
        self._port = port
        self._loop = asyncio.new_event_loop()
        self._thread = threading.Thread(target=self._loop.run_forever, daemon=True)
        self._runner: web.ServerRunner | None = None
        self.requests: list[Received] = []
        self.queue: list[Answer] = []
        """The answers to the next requests, in turn; `usual` once they are used up."""
        self.usual = Answer()
        self._released = asyncio.Event()

    def __enter__(self) -> ReportServer:
        self._thread.start()
        self._on_loop(self._start())
        return self

    def __exit__(self, *_: object) -> None:
        self._on_loop(self._stop())
        self._loop.call_soon_threadsafe(self._loop.stop)
        self._thread.join(10)
        self._loop.close()

    def reset(self) -> None:
        """Forgets all requests and answers, and lets go what it still holds."""
        self.release()
        self.requests, self.queue, self.usual = [], [], Answer()

    @contextlib.contextmanager
    def away(self) -> Iterator[None]:
        """Nobody listens on the port meanwhile."""
        self._on_loop(self._stop())
        try:
            yield
        finally:
            self._on_loop(self._start())

    def release(self) -> None:
        """Lets the requests go on that are held now."""
        self._on_loop(self._release())

    def wait_for(self, stage: str, *, number: int = 1, limit: float = 30) -> Received:
        """Waits until the request of this number (the first is 1) has come to the stage, and returns it."""
        until = time.monotonic() + limit
        while len(self.requests) < number or stage not in self.requests[number - 1].moments:
            if time.monotonic() > until:
                raise BedError(f"request {number} did not come to \"{stage}\" within {limit} s; there are "
                               f"{[(each.kind, list(each.moments)) for each in self.requests]}")
            time.sleep(0.01)
        return self.requests[number - 1]

    @property
    def kinds(self) -> list[str]:
        """The reports that came whole, in order; those that did not as "part"."""
        return [each.kind if each.whole else "part" for each in self.requests]

    def bodies(self, kind: str) -> list[bytes]:
        """The reports of a kind that came whole."""
        return [each.body for each in self.requests if each.whole and each.kind == kind]

    # On the loop's thread

    def _on_loop(self, work: Coroutine[object, object, None]) -> None:
        asyncio.run_coroutine_threadsafe(work, self._loop).result(30)

    async def _start(self) -> None:
        # A program that goes away takes its handler with it.
        self._runner = web.ServerRunner(web.Server(self._handle, handler_cancellation=True), shutdown_timeout=1)
        await self._runner.setup()
        await web.TCPSite(self._runner, isolation.REPORT_ADDRESS, self._port, ssl_context=self._tls).start()

    async def _stop(self) -> None:
        if self._runner is not None:
            await self._release()
            await self._runner.cleanup()
            self._runner = None

    async def _release(self) -> None:
        released, self._released = self._released, asyncio.Event()
        released.set()

    async def _handle(self, request: web.BaseRequest) -> web.StreamResponse:
        received = Received(request.method, request.path_qs, tuple(
            (name.decode("latin-1"), value.decode("latin-1")) for name, value in request.raw_headers))
        answer = self.queue.pop(0) if self.queue else self.usual
        self.requests.append(received)
        if not await self._pass(HEAD, received, answer, request):
            return web.Response()
        async for piece in request.content.iter_chunked(64):
            received.body += piece
            # What a half is, is not known before the end: any part of the body will do.
            if HALF not in received.moments and not await self._pass(HALF, received, answer, request):
                return web.Response()
        if not await self._pass(BODY, received, answer, request):
            return web.Response()
        await asyncio.sleep(answer.wait)
        return await self._reply(received, answer, request)

    async def _pass(self, stage: str, received: Received, answer: Answer, request: web.BaseRequest) -> bool:
        """Notes that a stage is reached; false if the connection ends there."""
        received.moments[stage] = time.time()
        if answer.hold_at == stage:
            await self._released.wait()
        if answer.cut_at == stage and request.transport is not None:
            request.transport.abort()
            return False
        return True

    async def _reply(self, received: Received, answer: Answer, request: web.BaseRequest) -> web.StreamResponse:
        reason = "Retry With" if answer.status == 449 else None
        if REPLIED in (answer.cut_at, answer.hold_at):
            cut = web.StreamResponse(status=answer.status, reason=reason, headers={"Content-Type": answer.content_type})
            cut.content_length = len(answer.body) + 1
            await cut.prepare(request)
            await cut.write(answer.body)
            await self._pass(REPLIED, received, answer, request)
            return cut
        reply = web.Response(status=answer.status, reason=reason, body=answer.body,
                             headers={"Content-Type": answer.content_type})
        await reply.prepare(request)
        await reply.write_eof()
        await self._pass(REPLIED, received, answer, request)
        return reply


def make_report_server(network: isolation.PrivateNetwork, authority: Certificate) -> ReportServer:
    """A report server with a certificate for the name under which the program knows it."""
    return ReportServer(make_server_certificate(network.work, authority, isolation.REPORT_HOST, name="reports"))
