"""A real PostgreSQL server for tests and measurements."""

from __future__ import annotations

import os
import shutil
import signal
import socket
import subprocess
import tempfile
import time
from contextlib import suppress
from pathlib import Path

_POSTGRES = Path("/usr/lib/postgresql/17/bin")
_NOBODY = 65534


def free_port() -> int:
    """A port of the loopback that nobody listens on."""
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return int(probe.getsockname()[1])


class Postgres:
    """A PostgreSQL server in a folder of its own, on a port of the loopback; use it as a context manager."""

    def __init__(self, *, durable: bool = False, folder: Path | None = None) -> None:
        self.folder = Path(tempfile.mkdtemp(prefix="postgres-", dir=folder))
        self.port = free_port()
        # No test cuts the power, and the disk is everybody's.
        self._durability = "on" if durable else "off"
        self._made = 0

    def _run(self, program: str, *arguments: str) -> None:
        # It refuses to run as root.
        done = subprocess.run(["setpriv", f"--reuid={_NOBODY}", f"--regid={_NOBODY}", "--clear-groups", str(_POSTGRES / program), *arguments],
                              stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=120, check=False, cwd="/",
                              env={**os.environ, "HOME": str(self.folder), "LC_ALL": "C.UTF-8"})
        assert done.returncode == 0, f"{program}: {done.stdout}{done.stderr}"

    def __enter__(self) -> Postgres:
        os.chown(self.folder, _NOBODY, _NOBODY)
        self._run("initdb", "-D", str(self.folder / "data"), "-U", "postgres", "--auth=trust", "--no-sync")
        self.start()
        return self

    def __exit__(self, *_: object) -> None:
        self._run("pg_ctl", "-D", str(self.folder / "data"), "-w", "-m", "immediate", "stop")
        shutil.rmtree(self.folder, ignore_errors=True)

    def start(self) -> None:
        """Starts it, and waits until it answers."""
        self._run("pg_ctl", "-D", str(self.folder / "data"), "-w", "-l", str(self.folder / "log"), "-o",
                  f"-p {self.port} -h 127.0.0.1 -k {self.folder} -c fsync={self._durability}", "start")

    def stop(self) -> None:
        """Stops it and cuts its connections."""
        self._run("pg_ctl", "-D", str(self.folder / "data"), "-w", "-m", "fast", "stop")

    def kill(self) -> None:
        """Ends all its processes at once, by their numbers."""
        first = int((self.folder / "data/postmaster.pid").read_text(encoding="ascii").splitlines()[0])
        processes = [first, *map(int, Path(f"/proc/{first}/task/{first}/children").read_text(encoding="ascii").split())]
        for process in processes:
            with suppress(ProcessLookupError):
                os.kill(process, signal.SIGKILL)
        until = time.monotonic() + 30
        while any(Path(f"/proc/{process}").exists() and "\nState:\tZ" not in Path(f"/proc/{process}/status").read_text(encoding="ascii")
                  for process in processes):
            assert time.monotonic() < until, "PostgreSQL does not end"
            time.sleep(0.02)

    def new_database(self) -> str:
        """Makes a database, and says how it is reached."""
        self._made += 1
        name = f"reports{self._made}"
        self._run("createdb", "-h", "127.0.0.1", "-p", str(self.port), "-U", "postgres", name)
        return f"postgresql://postgres@127.0.0.1:{self.port}/{name}"

    def drop_database(self, name: str) -> None:
        """Deletes a database that new_database() made, with whoever is connected to it: a folder of a hundred of them takes minutes to delete."""
        self._run("dropdb", "-h", "127.0.0.1", "-p", str(self.port), "-U", "postgres", "--force", name.rpartition("/")[2])
