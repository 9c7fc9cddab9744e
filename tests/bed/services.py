"""Real servers as child processes: nginx and an authenticating proxy. Started when they listen, stopped by pid."""

from __future__ import annotations

import socket
import subprocess
import time
from pathlib import Path
from typing import Self

from .errors import BedError


class Service:
    """A server process; use it as a context manager."""

    def __init__(self, arguments: list[str], port: int, log: Path) -> None:
        self._arguments = arguments
        self._port = port
        self._log = log
        self._process: subprocess.Popen[bytes] | None = None

    def __enter__(self) -> Self:
        with self._log.open("ab") as log:
            self._process = subprocess.Popen(self._arguments, stdin=subprocess.DEVNULL, stdout=log, stderr=log, cwd="/")
        until = time.monotonic() + 20
        while not _listens(self._port):
            if self._process.poll() is not None or time.monotonic() > until:
                self.__exit__()
                raise BedError(f"{self._arguments[0]} does not listen on port {self._port}: "
                               f"{self._log.read_text(errors='replace').strip()[-2000:]}")
            time.sleep(0.02)
        return self

    def __exit__(self, *_: object) -> None:
        if self._process is not None:
            self._process.terminate()
            try:
                self._process.wait(10)
            except subprocess.TimeoutExpired:
                self._process.kill()
                self._process.wait(10)
            self._process = None


class Nginx(Service):
    """nginx on port 80, which serves the files of one folder under every name."""

    def __init__(self, folder: Path, files: Path) -> None:
        folder.mkdir(parents=True, exist_ok=True)
        self.access_log = folder / "access.log"
        self.error_log = folder / "error.log"
        configuration = folder / "nginx.conf"
        temporary = "\n".join(f"  {kind}_temp_path {folder}/{kind};"
                              for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        configuration.write_text(
            f"daemon off;\nuser root;\nworker_processes 1;\npid {folder}/nginx.pid;\n"
            f"error_log {self.error_log} notice;\nevents {{ worker_connections 64; }}\nhttp {{\n{temporary}\n"
            "  types { text/plain txt minisig; application/octet-stream msi; }\n"
            "  log_format timeline '$msec $remote_addr $host \"$request\" $status $body_bytes_sent "
            "\"$http_user_agent\"';\n"
            f"  access_log {self.access_log} timeline;\n"
            f"  server {{ listen 127.0.0.1:80 default_server; root {files}; }}\n}}\n", encoding="ascii")
        super().__init__(["nginx", "-c", str(configuration), "-p", str(folder), "-e", str(self.error_log)], 80,
                         folder / "output.log")


class NginxWith(Service):
    """nginx with a configuration for its http block that somebody else has written, which listens on 127.0.0.1 and this port."""

    def __init__(self, folder: Path, block: str, port: int) -> None:
        folder.mkdir(parents=True, exist_ok=True)
        configuration = folder / "nginx.conf"
        temporary = "\n".join(f"  {kind}_temp_path {folder}/{kind};" for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        configuration.write_text(f"daemon off;\nuser root;\nworker_processes 1;\npid {folder}/nginx.pid;\nerror_log {folder}/error.log notice;\n"
                                 f"events {{ worker_connections 512; }}\nhttp {{\n{temporary}\n  access_log {folder}/access.log;\n  sendfile on;\n{block}\n}}\n", encoding="utf-8")
        super().__init__(["nginx", "-c", str(configuration), "-p", str(folder), "-e", str(folder / "error.log")], port, folder / "output.log")


class AuthenticatingProxy(Service):
    """A forward proxy that lets nobody through without this user name and password."""

    def __init__(self, folder: Path, user: str, password: str, port: int = 8118) -> None:
        folder.mkdir(parents=True, exist_ok=True)
        self.log = folder / "proxy.log"
        configuration = folder / "tinyproxy.conf"
        configuration.write_text(
            f"Port {port}\nListen 127.0.0.1\nTimeout 60\nMaxClients 20\nLogFile \"{self.log}\"\nLogLevel Connect\n"
            f"PidFile \"{folder}/proxy.pid\"\nBasicAuth {user} {password}\nAllow 127.0.0.1\n", encoding="utf-8")
        super().__init__(["tinyproxy", "-d", "-c", str(configuration)], port, folder / "output.log")


def _listens(port: int) -> bool:
    with socket.socket() as client:
        client.settimeout(1)
        return client.connect_ex(("127.0.0.1", port)) == 0
