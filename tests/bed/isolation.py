"""A network and mount namespace of our own, with the names that the program knows and a test certificate authority.

`enter` moves the calling process there for good: its children (servers, Wine) live in the same network, in which
nothing but its own loopback and one virtual pair exists, so ports 80 and 443 are free and nothing can leave. The
files of the two rooms that must differ for a run (/etc/hosts, the certificate bundle) are bound over, not changed.
"""

from __future__ import annotations

import ctypes
import os
import shutil
import socket
import subprocess
import tempfile
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path

from .errors import BedError

UPDATE_HOST = "updates.tavrin.example"
REPORT_HOST = "reports.tavrin.example"
PACKAGE_HOST = "packages.tavrin.example"
PROXY_HOST = "proxy.tavrin.example"

# An address of its own: port 443 of the other one belongs to the servers of packages.
REPORT_ADDRESS = "127.0.0.2"

ARM64_ROOM = Path("/rooms/arm64")

# The address that the program sees as the machine's own network card. It belongs to a pair whose other end is in the
# same namespace: the default route makes the list manager say "connected", and still leads nowhere.
CARD_ADDRESS = "10.77.0.1"
GATEWAY_ADDRESS = "10.77.0.2"

# The unit in which a disk of this bed is filled.
PAGE = 4096

# Files on such a disk, for tests in which their number does not matter. A disk without a limit could not be given one later.
MANY = 1000

# No name server: a name that is not in /etc/hosts fails at once, without a packet and without a wait.
_NO_NAME_SERVER = "nameserver 127.0.0.1\noptions timeout:1 attempts:1\n"
_NAMES_OF_FILES = "hosts: files\n"

_MS_RDONLY = 0x1
_MS_REMOUNT = 0x20
_MS_BIND = 0x1000
_MS_REC = 0x4000
_MS_PRIVATE = 1 << 18
_MNT_DETACH = 2

# The room has no mount program, and Python no call for it.
_LIBC = ctypes.CDLL(None, use_errno=True)


@dataclass(frozen=True)
class PrivateNetwork:
    """Where the run's own files are, and the switch between connected and not connected."""

    work: Path
    rooms: tuple[Path, ...]

    def connect(self) -> None:
        """Gives the machine a default route: from now on it counts as connected to the internet."""
        _command("ip", "route", "replace", "default", "via", GATEWAY_ADDRESS, "dev", "card0")

    def disconnect(self) -> None:
        """Takes the default route away."""
        subprocess.run(["ip", "route", "del", "default"], check=False, capture_output=True, timeout=10)

    def trust(self, certificate: Path) -> None:
        """Makes the rooms' programs trust this certificate authority; call it before Wine's server starts."""
        for room in self.rooms:
            bundle = room / "etc/ssl/certs/ca-certificates.crt"
            text = bundle.read_text(encoding="ascii") if bundle.exists() else ""
            _bind_text(self.work, bundle, text + "\n" + certificate.read_text(encoding="ascii"))

    @contextmanager
    def silent_name_server(self) -> Iterator[None]:
        """Programs that start meanwhile ask a name server, which never answers, for the names that are not in /etc/hosts."""
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as server:
            server.bind(("127.0.0.1", 53))
            self._resolve("nameserver 127.0.0.1\noptions timeout:20 attempts:1\n", "hosts: files dns\n")
            try:
                yield
            finally:
                self._resolve(_NO_NAME_SERVER, _NAMES_OF_FILES)

    def _resolve(self, servers: str, order: str) -> None:
        for room in self.rooms:
            _bind_text(self.work, room / "etc/resolv.conf", servers)
            _bind_text(self.work, room / "etc/nsswitch.conf", order)

    @contextmanager
    def small_disk(self, name: str, size: int, *, read_only: bool = False) -> Iterator[Path]:
        """A folder in the working folder that is a disk of its own: of so many bytes, or one that cannot be written."""
        folder = self.work / name
        folder.mkdir()
        try:
            with self.disk_at(folder, size, read_only=read_only):
                yield folder
        finally:
            folder.rmdir()

    @contextmanager
    def disk_at(self, folder: Path, size: int, *, files: int = MANY, read_only: bool = False) -> Iterator[Disk]:
        """A new disk in the place of a folder below the working folder; what was in there comes back with its end."""
        # Below the working folder everything has the same path in each room.
        folder = folder.resolve()
        places = [folder if room == Path("/") else Path(f"{room}{folder}") for room in self.rooms]
        _mount("tmpfs", folder, kind="tmpfs", options=_tmpfs_options(size, files))
        for place in places[1:]:
            _mount(str(folder), place, flags=_MS_BIND)
        disk = Disk(folder, tuple(places))
        try:
            if read_only:
                disk.set_read_only(True)
            yield disk
        finally:
            for place in reversed(places):
                _LIBC.umount2(os.fsencode(place), _MNT_DETACH)


@dataclass(frozen=True)
class Disk:
    """A disk that is mounted on a folder, and whose size and rights can be changed while it is used."""

    folder: Path
    _places: tuple[Path, ...]

    def fill(self, but: int = 0) -> None:
        """Makes it as small as what is on it, and so many bytes: what is written beyond them finds no room."""
        system = os.statvfs(self.folder)
        used = (system.f_blocks - system.f_bfree) * system.f_frsize
        if used + but == 0:
            # A tmpfs of no bytes is one without a limit.
            (self.folder / "filler").write_bytes(b"x" * PAGE)
            used = PAGE
        self.resize(used + but)

    def resize(self, size: int, *, files: int = MANY) -> None:
        """From now on it has room for so many bytes, rounded up to pages, and for so many files and folders."""
        _mount("tmpfs", self.folder, kind="tmpfs", flags=_MS_REMOUNT, options=_tmpfs_options(size, files))

    def set_read_only(self, read_only: bool) -> None:
        """Whether it can be written. Nobody may have a file open for writing when it becomes read-only."""
        for place in self._places:
            _mount("none", place, flags=_MS_REMOUNT | _MS_BIND | (_MS_RDONLY if read_only else 0))


def _tmpfs_options(size: int, files: int) -> str:
    # The folder itself counts as one.
    return f"size={size},nr_inodes={files + 1},mode=0755"


def enter(*, more_names: tuple[str, ...] = ()) -> PrivateNetwork:
    """Enters the private namespaces and returns their handle. `more_names` are further names of this machine."""
    if os.geteuid() != 0:
        raise BedError("the test bed needs root rights")
    if not os.environ.get("LUMARIS_IN_ROOM"):
        raise BedError("the test bed runs inside the room; use ./dev run, ./dev test or ./dev shell")
    try:
        os.unshare(os.CLONE_NEWNS | os.CLONE_NEWNET)
    except OSError as error:
        raise BedError(f"this machine forbids network or mount namespaces: {error.strerror}") from error
    _mount("none", Path("/"), flags=_MS_REC | _MS_PRIVATE)
    work = Path(tempfile.mkdtemp(prefix="lumaris-bed.", dir=os.environ.get("LUMARIS_BED_FOLDER", "/tmp")))
    rooms = [Path("/")]
    if (ARM64_ROOM / "usr/lib/wine/wine64").exists():
        rooms.append(ARM64_ROOM)
        _prepare_room(ARM64_ROOM, work)
    network = PrivateNetwork(work, tuple(rooms))
    names = " ".join(("localhost", UPDATE_HOST, PACKAGE_HOST, PROXY_HOST, *more_names))
    hosts = f"127.0.0.1 {names}\n{REPORT_ADDRESS} {REPORT_HOST}\n"
    for room in rooms:
        _bind_text(work, room / "etc/hosts", hosts)
        _bind_text(work, room / "etc/resolv.conf", _NO_NAME_SERVER)
        _bind_text(work, room / "etc/nsswitch.conf", _NAMES_OF_FILES)
    _command("ip", "link", "set", "lo", "up")
    _command("ip", "link", "add", "card0", "type", "veth", "peer", "name", "card1")
    _command("ip", "address", "add", f"{CARD_ADDRESS}/24", "dev", "card0")
    _command("ip", "link", "set", "card0", "up")
    _command("ip", "link", "set", "card1", "up")
    network.connect()
    return network


def leave(network: PrivateNetwork) -> None:
    """Removes the working folder. The namespaces end with the process."""
    for room in network.rooms[1:]:
        _LIBC.umount2(os.fsencode(str(room) + str(network.work)), _MNT_DETACH)
    shutil.rmtree(network.work, ignore_errors=True)


def _command(*arguments: str) -> None:
    done = subprocess.run(arguments, check=False, capture_output=True, text=True, timeout=30)
    if done.returncode != 0:
        raise BedError(f"{' '.join(arguments)}: {done.stderr.strip()}")


def _mount(source: str, target: Path, *, kind: str = "none", flags: int = 0, options: str | None = None) -> None:
    data = options.encode() if options else None
    if _LIBC.mount(os.fsencode(source), os.fsencode(target), kind.encode(), ctypes.c_ulong(flags), data) != 0:
        raise BedError(f"cannot mount {source} on {target}: {os.strerror(ctypes.get_errno())}")


def _prepare_room(room: Path, work: Path) -> None:
    """Gives a foreign room what its programs need: processes, devices and the working folder at the same path."""
    if not (room / "proc/self").exists():
        _mount("/proc", room / "proc", flags=_MS_BIND | _MS_REC)
    if not (room / "dev/null").exists():
        _mount("/dev", room / "dev", flags=_MS_BIND | _MS_REC)
    inside = Path(str(room) + str(work))
    if not inside.exists():
        _writable_parent(room, work)
        inside.mkdir(parents=True, exist_ok=True)
    if not inside.samefile(work):
        _mount(str(work), inside, flags=_MS_BIND)


def _writable_parent(room: Path, work: Path) -> None:
    top = room / work.parts[1]
    if not os.access(top, os.W_OK):
        _mount("tmpfs", top, kind="tmpfs")


def _bind_text(work: Path, target: Path, text: str) -> None:
    """Makes `target` read as `text` in this mount namespace only."""
    replacement = work / "bound" / str(target).strip("/").replace("/", "_")
    replacement.parent.mkdir(exist_ok=True)
    bound_before = replacement.exists()
    replacement.write_text(text, encoding="ascii")
    if bound_before:
        return
    if not target.exists():
        try:
            target.parent.mkdir(parents=True, exist_ok=True)
            target.touch()
        except OSError:
            # A read-only room without the file: what the file would have said is the default there.
            return
    _mount(str(replacement), target, flags=_MS_BIND)
