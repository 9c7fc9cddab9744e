"""`check`: asks a live server as each client would, and judges what it sends."""

from __future__ import annotations

import argparse
import concurrent.futures
import contextlib
import dataclasses
import http.client
import json
import os
import socket
import ssl
import tempfile
import threading
from collections.abc import Callable
from dataclasses import dataclass, field
from pathlib import Path
from urllib.parse import urljoin, urlsplit

from . import names, record, signing, terminal, version
from .judge import ACCEPTED, INSTALLS, Judge, Url
from .publication import Publication
from .refusal import refuse

_TIMEOUT = 30.0
_REDIRECTS = 10  # as many as WinHTTP follows
_BLOCK = 1 << 20
# More than any client takes, so that the judge can say so.
_TEXT_LIMIT = 70_000

Take = Callable[[bytes], None]


def add_arguments(parser: argparse.ArgumentParser) -> None:
    """The options of the command."""
    parser.add_argument("--url", metavar="U", help="ask this server in the place of the publication's host, http://127.0.0.1:8080/ for example")
    parser.add_argument("--quick", action="store_true", help="ask for the size of packages only")
    parser.add_argument("--json", action="store_true", help="for programs")


@dataclass(frozen=True)
class Finding:
    """Something to look at. Clients refuse what is `refused`; the rest is a remark."""

    url: str
    sentence: str
    refused: bool = True


@dataclass(frozen=True)
class Reply:
    """What a server sent at last."""

    status: int
    headers: dict[str, str]
    size: int
    body: bytes
    redirects: tuple[str, ...] = ()


@dataclass
class Outcome:
    """What came of a whole check."""

    findings: list[Finding] = field(default_factory=list)
    descriptions: int = 0
    packages: int = 0
    bytes: int = 0
    lock: threading.Lock = field(default_factory=threading.Lock)

    def add(self, url: str, sentence: str, *, refused: bool = True) -> None:
        """One more finding."""
        with self.lock:
            self.findings.append(Finding(url, sentence, refused))


class Session:
    """What a client keeps during a run: connections, and the cookies of its host. One thread at a time."""

    def __init__(self, aliases: dict[str, str]) -> None:
        self._aliases = aliases
        self._connections: dict[tuple[str, str], http.client.HTTPConnection] = {}
        self.cookies: dict[str, str] = {}

    def close(self) -> None:
        """Ends the connections."""
        for connection in self._connections.values():
            connection.close()

    def get(self, url: str, *, method: str = "GET", accept: str = "text/plain", fresh: bool = True, take: Take | None = None) -> Reply:
        """A request, and the ones that it is redirected to. `take` gets the body piece by piece, which is kept otherwise."""
        redirects: list[str] = []
        while True:
            connection, parts = self._connection(url)
            headers = {"Host": parts.netloc, "Accept": accept, "User-Agent": "Lumaris/0.0.0 (lumaris-publish check)"}
            if fresh:
                headers |= {"Pragma": "no-cache", "Cache-Control": "no-cache"}
            if self.cookies and parts.path.startswith("/Halvoro/"):
                headers["Cookie"] = "; ".join(f"{name}={value}" for name, value in self.cookies.items())
            response = self._ask(connection, method, parts.path or "/", headers)
            said = {name.lower(): value for name, value in response.getheaders()}
            if response.status in (301, 302, 303, 307, 308) and "location" in said and len(redirects) < _REDIRECTS:
                response.read()
                target = urljoin(url, said["location"])
                if urlsplit(url).scheme == "https" and urlsplit(target).scheme == "http":
                    return Reply(response.status, said, 0, b"", (*redirects, target))
                redirects.append(target)
                url = target
                continue
            for cookie in response.headers.get_all("Set-Cookie") or []:
                name, _, value = cookie.partition(";")[0].partition("=")
                self.cookies[name.strip()] = value.strip()
            size, body = 0, b""
            while block := response.read(_TEXT_LIMIT if take is None else _BLOCK):
                size += len(block)
                if take is not None:
                    take(block)
                elif len(body) < _TEXT_LIMIT:
                    body += block
            return Reply(response.status, said, size, body, tuple(redirects))

    def _connection(self, url: str) -> tuple[http.client.HTTPConnection, "SplitUrl"]:
        parts = SplitUrl(url)
        known = (parts.scheme, parts.netloc)
        if known not in self._connections:
            there = self._aliases.get(parts.netloc, parts.netloc)
            self._connections[known] = http.client.HTTPSConnection(there, timeout=_TIMEOUT, context=ssl.create_default_context()) \
                if parts.scheme == "https" else http.client.HTTPConnection(there, timeout=_TIMEOUT)
        return self._connections[known], parts

    @staticmethod
    def _ask(connection: http.client.HTTPConnection, method: str, path: str, headers: dict[str, str]) -> http.client.HTTPResponse:
        try:
            connection.request(method, path, headers=headers)
            return connection.getresponse()
        except (http.client.RemoteDisconnected, BrokenPipeError, ConnectionResetError):
            # A kept connection that the server has ended meanwhile.
            connection.close()
            connection.request(method, path, headers=headers)
            return connection.getresponse()


class SplitUrl:
    """An address in parts; the path with what follows it."""

    def __init__(self, url: str) -> None:
        parts = urlsplit(url)
        self.scheme, self.netloc = parts.scheme, parts.netloc
        self.path = parts.path + (f"?{parts.query}" if parts.query else "")


@dataclass(frozen=True)
class Where:
    """A package that descriptions name."""

    url: str
    version: version.Version
    variant: str


class Check:
    """One check of a server."""

    def __init__(self, publication: Publication, server: str, quick: bool, folder: Path) -> None:
        self._publication = publication
        self._settings = publication.settings
        self._server = urlsplit(server)
        if self._server.scheme not in ("http", "https") or not self._server.netloc:
            raise refuse("address", f"\"{server}\" is not the address of a server: write http://HOST/")
        self._quick = quick
        self._folder = folder
        self._history = record.load(publication.root)
        self._aliases = {self._settings.host: self._server.netloc} if self._server.scheme == "http" else {}
        self.outcome = Outcome()

    def run(self) -> Outcome:
        """Every channel and Windows, then every package that they name, in every variant."""
        packages: dict[Where, None] = {}
        session = Session(self._aliases)
        with Judge(self._settings.public_key) as clients:
            for channel in self._settings.channels:
                for windows in self._settings.all_windows:
                    packages |= dict.fromkeys(self._guarded(lambda url, c=channel, w=windows: self._description(session, clients, c, w, url),  # type: ignore[misc]
                                                            self._url(names.description_path(windows, channel))) or [])
        session.close()
        with concurrent.futures.ThreadPoolExecutor(2) as pool:
            list(pool.map(self._package, packages))
        return self.outcome

    def _url(self, path: str) -> str:
        return f"http://{self._settings.host}{path}" if self._server.scheme == "http" else f"https://{self._server.netloc}{path}"

    def _guarded(self, act: Callable[[str], list[Where]], url: str) -> list[Where]:
        try:
            return act(url)
        except (OSError, http.client.HTTPException, socket.timeout) as error:
            self.outcome.add(url, f"does not answer: {error}")
            return []

    def _description(self, session: Session, clients: Judge, channel: str, windows: str | None, url: str) -> list[Where]:
        content, signature = self._folder / "description.txt", self._folder / "description.txt.minisig"
        for file, address in ((signature, f"{url}.minisig"), (content, url)):
            reply = session.get(address)
            if not self._usable(address, reply):
                return []
            if "no-cache" not in reply.headers.get("cache-control", "") and "no-store" not in reply.headers.get("cache-control", ""):
                self.outcome.add(address, "may be kept by proxies: let the server send Cache-Control: no-cache", refused=False)
            file.write_bytes(reply.body)
        self.outcome.descriptions += 1
        said = clients.description(content, signature)
        if said.what != INSTALLS or said.url is None:
            self.outcome.add(url, said.message or "offers no version at all")
            return []
        offered = version.Version.of_number(said.version)
        if said.version & 0xFF:
            self.outcome.add(url, f"offers 0x{said.version:08X}, whose last byte is not 0: machines would install it again at every run")
        own = self._publication.offered(channel, clients)
        if own is not None and own.version != said.version:
            self.outcome.add(url, f"offers {offered}, and this publication {version.Version.of_number(own.version)}: push it", refused=False)
        return [Where(f"{_text(said.url)}{'' if said.url.path.endswith('/') else '/'}{names.package_name(variant)}", offered, variant)
                for variant in self._settings.variants]

    def _usable(self, url: str, reply: Reply) -> bool:
        if reply.redirects:
            self.outcome.add(url, f"is redirected to {reply.redirects[-1]}: let the address itself answer", refused=False)
        if reply.status != 200:
            self.outcome.add(url, f"{reply.status}")
            return False
        return True

    def _package(self, where: Where) -> None:
        def act(_: str) -> list[Where]:
            session = Session(self._aliases)
            try:
                with tempfile.TemporaryDirectory(dir=self._folder) as scratch, Judge(self._settings.public_key) as clients:
                    self._judge_package(session, clients, where, Path(scratch))
            finally:
                session.close()
            return []
        self._guarded(act, where.url)

    def _judge_package(self, session: Session, clients: Judge, where: Where, scratch: Path) -> None:
        signature = scratch / "signature"
        reply = session.get(f"{where.url}.minisig", fresh=False)
        if not self._usable(f"{where.url}.minisig", reply):
            return
        signature.write_bytes(reply.body)
        if self._quick:
            reply = session.get(where.url, method="HEAD", accept="application/octet-stream", fresh=False)
            size = int(reply.headers.get("content-length", "-1"))
            # Over no content a signature that clients would look at any further does not hold.
            said = clients.package(Path(os.devnull), signature)
            message = "" if said.message == "Invalid Minisign signature" else said.message or "is signed as an empty package"
            if size > (limit := clients.limit()):
                message = f"has {size:,} bytes, and clients break a download off after {limit:,}"
        else:
            # The judge hashes what has arrived while the rest arrives.
            pipe = scratch / "content"
            os.mkfifo(pipe)
            clients.send("ahead", pipe)
            progress = terminal.Progress(where.url, self._known_size(where))
            done = 0
            with pipe.open("wb", buffering=0) as content:
                def take(block: bytes) -> None:
                    nonlocal done
                    rest = memoryview(block)
                    while rest:
                        rest = rest[content.write(rest):]
                    done += len(block)
                    progress(done)
                whole = False
                # The judge stops reading where a client breaks the download off.
                with contextlib.suppress(BrokenPipeError):
                    reply = session.get(where.url, accept="application/octet-stream", fresh=False, take=take)
                    whole = True
            progress.end()
            if not whole:
                self.outcome.add(where.url, clients.package(pipe, signature).message)
                return
            size = done
            said = clients.package(pipe, signature) if reply.status == 200 else clients.package(Path(os.devnull), signature)
            message = said.message if said.what != ACCEPTED else "" if said.size else "is signed as an empty package"
        if not self._usable(where.url, reply):
            return
        with self.outcome.lock:
            self.outcome.packages += 1
            self.outcome.bytes += 0 if self._quick else size
        if message:
            self.outcome.add(where.url, message)
        if "content-length" not in reply.headers:
            self.outcome.add(where.url, "comes without its length: a download that is cut off looks like a whole one", refused=False)
        if (known := self._known_size(where)) and size != known:
            self.outcome.add(where.url, f"has {size:,} bytes, and {known:,} were signed")

    def _known_size(self, where: Where) -> int:
        staged = self._history.find(str(where.version), where.variant)
        return staged.size if staged else 0


def _text(url: Url) -> str:
    default = {"http": 80, "https": 443}.get(url.scheme)
    # To clients ws and wss mean the same as http and https.
    scheme = {"ws": "http", "wss": "https"}.get(url.scheme, url.scheme)
    host = f"[{url.host}]" if ":" in url.host else url.host
    return f"{scheme}://{host}{'' if url.port == default else f':{url.port}'}{url.path}"


def run(options: argparse.Namespace) -> int:
    """0 when every client is served, 1 when one of them would refuse something."""
    publication = Publication(options.root)
    server = options.url or f"http://{publication.settings.host}/"
    if options.dry_run:
        terminal.say(f"would ask {server} for {len(publication.settings.channels) * len(publication.settings.all_windows)} descriptions")
        return 0
    signing.key_bytes(publication.settings.public_key)
    with tempfile.TemporaryDirectory(prefix="lumaris-publish-") as folder:
        outcome = Check(publication, server, options.quick, Path(folder)).run()
    refused = [finding for finding in outcome.findings if finding.refused]
    if options.json:
        print(json.dumps({"server": server, "descriptions": outcome.descriptions, "packages": outcome.packages, "bytes": outcome.bytes,
                          "accepted": not refused, "findings": [dataclasses.asdict(finding) for finding in outcome.findings]}, indent=1))
        return 1 if refused else 0
    for finding in outcome.findings:
        terminal.say(f"{'REFUSED' if finding.refused else 'remark '}  {finding.url}  {finding.sentence}")
    terminal.say(f"{outcome.descriptions} descriptions and {outcome.packages} packages ({outcome.bytes / 1e6:,.1f} MB) of {server}: "
                 f"{'clients would refuse something' if refused else 'clients accept everything'}")
    terminal.next_step("lumaris-publish status, then push again; docs/publishing.md has a page for a bad release" if refused else
                       "lumaris-publish fleet ACCESS.LOG, to see the machines follow")
    return 1 if refused else 0
