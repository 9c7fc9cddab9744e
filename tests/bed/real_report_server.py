"""The report server as it runs at the maker's: lumaris-reports behind nginx with the configuration that is shipped."""

from __future__ import annotations

import base64
import json
import subprocess
import urllib.parse
import urllib.request
from contextlib import ExitStack
from pathlib import Path
from typing import Any

from . import isolation
from .certificates import Certificate, make_server_certificate
from .errors import BedError
from .services import Service

TREE = Path(__file__).resolve().parents[2]
USER, PASSWORD = "ana", "lines of code"
REPORTS_PORT, PAGES_PORT, PAGES_TLS_PORT = 8090, 8091, 8443


class RealReportServer:
    """Both servers in an isolated network; use it as a context manager."""

    def __init__(self, network: isolation.PrivateNetwork, authority: Certificate, program: Path, *, database: str | None = None,
                 name: str = "real-reports") -> None:
        self._folder = network.work / name
        self._folder.mkdir()
        self._program = program
        self._database = database or str(self._folder / "reports.db")
        self._certificate = make_server_certificate(network.work, authority, isolation.REPORT_HOST, name=name)
        self.symbols = self._folder / "symbols"
        self.symbols.mkdir()
        self._stack = ExitStack()

    def __enter__(self) -> RealReportServer:
        passwords = self._folder / "passwords"
        subprocess.run(["htpasswd", "-cbB", str(passwords), USER, PASSWORD], check=True, capture_output=True, timeout=60)
        with ExitStack() as stack:
            stack.enter_context(Service(
                [str(self._program), "serve", "--database", self._database, "--symbols", str(self.symbols), "--folder",
                 str(self._folder / "bodies"), "--reports", f"127.0.0.1:{REPORTS_PORT}", "--pages", f"127.0.0.1:{PAGES_PORT}", "--password-file",
                 str(passwords), "--client-header", "X-Forwarded-For"], PAGES_PORT, self._folder / "server.log"))
            stack.enter_context(Service(["nginx", "-c", str(self._configure()), "-p", str(self._folder), "-e", str(self._folder / "error.log")],
                                        PAGES_TLS_PORT, self._folder / "nginx.log"))
            self._stack = stack.pop_all()
        return self

    def __exit__(self, *_: object) -> None:
        self._stack.close()

    def _configure(self) -> Path:
        """The shipped configuration with this network's addresses and certificates."""
        shipped = (TREE / "packaging/reports/nginx.conf").read_text(encoding="utf-8")
        for former, now in (("/etc/nginx/tls/reports.pem", str(self._certificate.path)), ("/etc/nginx/tls/reports.key", str(self._certificate.key)),
                            ("listen 443 ssl", f"listen {isolation.REPORT_ADDRESS}:443 ssl"),
                            ("listen 8443 ssl", f"listen 127.0.0.1:{PAGES_TLS_PORT} ssl"),
                            # All crashes of the tests come from one address, within seconds.
                            ("burst=20 nodelay", "burst=2000 nodelay")):
            if former not in shipped:
                raise BedError(f"nginx.conf has no {former}")
            shipped = shipped.replace(former, now)
        temporary = "\n".join(f"{kind}_temp_path {self._folder}/{kind};" for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        configuration = self._folder / "nginx.conf"
        configuration.write_text(f"daemon off;\nuser root;\npid {self._folder}/nginx.pid;\nerror_log {self._folder}/error.log;\nevents {{}}\nhttp {{\n"
                                 f"{temporary}\nlog_format moments '$msec $status $request_length $request';\n"
                                 f"access_log {self._folder}/access.log moments;\n{shipped}\n}}\n", encoding="utf-8")
        return configuration

    def add_symbols(self, *files: Path) -> None:
        """Puts programs and PDBs into the symbol store, as a release does."""
        subprocess.run([str(self._program), "symbols", "add", "--symbols", str(self.symbols), *(str(each) for each in files)], check=True,
                       capture_output=True, timeout=120)

    def deliveries(self) -> list[tuple[float, int]]:
        """When each report was answered, and with which status."""
        lines = [line.split(" ") for line in (self._folder / "access.log").read_text(encoding="utf-8").splitlines()]
        return [(float(line[0]), int(line[1])) for line in lines if line[3] == "POST"]

    def body(self, report: int) -> bytes:
        """The bytes of a report, as it came."""
        return self._get(f"/report/{report}/body")

    def page(self, path: str) -> str:
        """What a developer sees."""
        return self._get(path).decode()

    def change(self, group: int, state: str, mended_in: str = "", note: str = "") -> None:
        """Says what somebody says of a group."""
        self._get(f"/group/{group}/state", urllib.parse.urlencode({"state": state, "mended_in": mended_in, "note": note}).encode())

    def metric(self, name: str) -> float:
        """One number of those that are counted."""
        (line,) = (line for line in self.page("/metrics").splitlines() if line.startswith(f"{name} "))
        return float(line.split()[-1])

    def _get(self, path: str, form: bytes | None = None) -> bytes:
        asked = urllib.request.Request(f"http://127.0.0.1:{PAGES_PORT}{path}", data=form, headers={
            "Authorization": "Basic " + base64.b64encode(f"{USER}:{PASSWORD}".encode()).decode()})
        with urllib.request.urlopen(asked, timeout=60) as answer:
            return bytes(answer.read())

    def picture(self, path: str, file: Path) -> None:
        """Photographs a page."""
        user = f"{USER}:{PASSWORD.replace(' ', '%20')}"
        done = subprocess.run(["chromium", "--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--window-size=1280,900",
                               f"--user-data-dir={self._folder}/browser", f"--screenshot={file}", f"http://{user}@127.0.0.1:{PAGES_PORT}{path}"],
                              capture_output=True, text=True, timeout=120, check=False)
        if done.returncode != 0 or not file.exists():
            raise BedError(f"chromium made no picture: {done.stderr.strip()[-1000:]}")

    def groups(self) -> list[dict[str, Any]]:
        """All groups, as they are exported."""
        return list(json.loads(self.page("/export.json")))
