"""One Windows of the bed: a Wine prefix, its server, and the agent through which the bed acts in it."""

from __future__ import annotations

import os
import selectors
import shutil
import struct
import subprocess
import time
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass, field
from pathlib import Path, PureWindowsPath

from . import traces
from .errors import BedError
from .isolation import ARM64_ROOM, PrivateNetwork

ARCHITECTURES = ("x64", "arm64")

_WINE = "/usr/lib/wine/wine64"
_WINE_SERVER = "/usr/lib/wine/wineserver"

# Prefixes made once and copied for each run, if the machine has them.
_PREPARED = {"x64": Path("/opt/lumaris/prefix-x86_64"), "arm64": Path("/opt/lumaris/prefix-aarch64")}

# What the shipped programs may need on top of a bare prefix is nothing: no .NET, no HTML engine, no menus.
_OVERRIDES = "mscoree=;mshtml=;winemenubuilder.exe=;winedbg.exe=d"

# Root may do what a file's rights forbid. Without these two capabilities it may not.
_PRIVILEGES = "-dac_override,-dac_read_search"
_WITHOUT_PRIVILEGE = ["setpriv", f"--ambient-caps={_PRIVILEGES}", f"--inh-caps={_PRIVILEGES}", f"--bounding-set={_PRIVILEGES}"]

_TRACES = "-all,+timestamp,+eventlog,fixme+advapi,trace+exec"

# How a file can be used, and shared with others.
GENERIC_READ = 0x80000000
GENERIC_WRITE = 0x40000000
DELETE = 0x00010000
READ_ATTRIBUTES = 0x80
SHARE_READ = 1
SHARE_WRITE = 2
SHARE_DELETE = 4

REG_SZ = 1
REG_EXPAND_SZ = 2
REG_BINARY = 3
REG_DWORD = 4
REG_MULTI_SZ = 7


@dataclass(frozen=True)
class LeftProcess:
    """A process that the program had started, and that went on after it."""

    pid: int
    exit_code: int
    begin: float
    end: float
    image: str


@dataclass(frozen=True)
class FinishedRun:
    """What a program run left to see."""

    exit_code: int | None
    """The full 32 bits, or None when the program had to be ended at its time limit."""
    begin: float
    end: float
    events: tuple[traces.Event, ...]
    commands: tuple[traces.ShellCommand, ...]
    left: tuple[LeftProcess, ...]
    output: str = field(repr=False, default="")
    """What it wrote to its standard output and error."""
    trace: str = field(repr=False, default="")


def available(architecture: str) -> str | None:
    """None when programs of this architecture run here, else the reason why they do not."""
    if architecture == "x64":
        return None if Path(_WINE).exists() else f"no Wine here ({_WINE})"
    if not Path(str(ARM64_ROOM) + _WINE).exists():
        return f"no ARM64 Wine here ({ARM64_ROOM}{_WINE})"
    try:
        done = subprocess.run(["chroot", str(ARM64_ROOM), _WINE, "--version"], env=_environment(architecture),
                              capture_output=True, text=True, timeout=60, check=False)
    except OSError as error:
        return f"ARM64 programs do not run here: {error}"
    if done.returncode != 0:
        return f"ARM64 programs do not run here (binfmt_misc): {done.stderr.strip() or done.returncode}"
    return None


class Windows:
    """Start it inside the private network; use it as a context manager."""

    def __init__(self, architecture: str, network: PrivateNetwork, agent: Path | None, *, display: str | None = None,
                 privileged: bool = True) -> None:
        """`display` is the X server on which the programs' windows appear (bed/screen.py); without one no box is seen.

        For programs that are not `privileged` the rights of files and folders hold, although they run as root.
        """
        self.architecture = architecture
        self.network = network
        self.folder = network.work / (f"windows-{architecture}" + ("-on-display" if display else ""))
        self.prefix = self.folder / "prefix"
        self._agent_program = agent
        self._enter = [*([] if privileged else _WITHOUT_PRIVILEGE), *(["chroot", str(ARM64_ROOM)] if architecture == "arm64" else [])]
        self._environment = _environment(architecture) | {"WINEPREFIX": str(self.prefix)}
        if display:
            self._environment["DISPLAY"] = display
        self._trace_path = self.folder / "trace.txt"
        self._output_path = self.folder / "output.txt"
        self._agent: subprocess.Popen[bytes] | None = None
        self._server: subprocess.Popen[bytes] | None = None
        self._pending = b""
        self._owes_answer = False

    # Life

    def __enter__(self) -> Windows:
        self.folder.mkdir()
        self._make_prefix()
        assert self._agent_program is not None
        self.install(self._agent_program, "agent.exe")
        self.start()
        return self

    def __exit__(self, *_: object) -> None:
        self.stop()

    def start(self) -> None:
        """Starts the Wine server and the agent in it."""
        self._start_server()
        trace = self._trace_path.open("ab")
        self._agent = subprocess.Popen(
            [*self._enter, _WINE, str(self.folder / "agent.exe")], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
            stderr=trace, env=self._environment | {"WINEDEBUG": _TRACES}, cwd="/")
        trace.close()

    def _start_server(self) -> None:
        self._server = subprocess.Popen([*self._enter, _WINE_SERVER, "-f", "-p"], env=self._environment,
                                        stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL, cwd="/")
        # The first program hands its standard output to the services it starts, so it is one without a reader.
        self._wine("wineboot", limit=180)

    def run_alone(self, program: Path, limit: float) -> None:
        """Starts this Windows without an agent, runs one program to its end, whatever comes of it, and stops."""
        self.folder.mkdir()
        self._make_prefix()
        shutil.copyfile(program, self.folder / program.name)
        self._start_server()
        try:
            self._wine(str(self.folder / program.name), limit=limit, check=False)
        finally:
            self.stop()

    def stop(self) -> None:
        """Ends the agent and the server of this prefix; what was still running in it ends with them."""
        if self._agent is not None:
            assert self._agent.stdin is not None and self._agent.stdout is not None
            self._agent.stdin.close()
            _end(self._agent, 0 if self._owes_answer else 20)
            self._agent.stdout.close()
            self._agent = None
            self._pending = b""
            self._owes_answer = False
        if self._server is not None:
            subprocess.run([*self._enter, _WINE_SERVER, "-k"], env=self._environment, check=False, timeout=60,
                           capture_output=True, cwd="/")
            _end(self._server)
            self._server = None

    def _make_prefix(self) -> None:
        prepared = _PREPARED[self.architecture]
        if (prepared / "system.reg").exists():
            shutil.copytree(prepared, self.prefix, symlinks=True)
            return
        self.prefix.mkdir()
        server = subprocess.Popen([*self._enter, _WINE_SERVER, "-f", "-p"], env=self._environment, cwd="/",
                                  stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            self._wine("wineboot", "-i", limit=300)
            subprocess.run([*self._enter, _WINE_SERVER, "-k"], env=self._environment, check=False, timeout=60, cwd="/")
        finally:
            _end(server)

    def _wine(self, *arguments: str, limit: float, check: bool = True) -> None:
        subprocess.run([*self._enter, _WINE, *arguments], env=self._environment, stdin=subprocess.DEVNULL,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=limit, check=check, cwd="/")

    # Files

    def install(self, program: Path, name: str) -> str:
        """Copies a program beside the prefix and returns its Windows path."""
        shutil.copyfile(program, self.folder / name)
        return windows_path(self.folder / name)

    def unix_path(self, path: str) -> Path:
        """The file behind a Windows path such as C:\\windows."""
        drive, *rest = PureWindowsPath(path).parts
        return (self.prefix / "dosdevices" / drive[:2].lower()).joinpath(*rest)

    # Programs

    def run(self, command_line: str, *, limit: float = 60, settle: float = 0) -> FinishedRun:
        """Runs a program to its end, then waits up to `settle` seconds for what it left running.

        With `settle` 0 what it left running is ended at once.
        """
        offset = self._trace_path.stat().st_size
        how, _, code, begin, end = self.ask("run", str(int(limit * 1000)), command_line,
                                            windows_path(self._output_path), limit=limit + 30)
        left = []
        state, *fields = self.ask("settle", str(int(settle * 1000)), limit=settle + 30)
        for at in range(0, len(fields), 5):
            pid, ended_with, began, ended, image = fields[at:at + 5]
            left.append(LeftProcess(int(pid, 16), int(ended_with, 16), _seconds(began), _seconds(ended), image))
        if settle and state != "settled":
            raise BedError(f"{command_line}: still running after {settle} s: {left}")
        with self._trace_path.open("rb") as trace:
            trace.seek(offset)
            text = trace.read().decode("utf-8", "replace")
        return FinishedRun(int(code, 16) if how == "exited" else None, _seconds(begin), _seconds(end),
                           tuple(traces.events(text)), tuple(traces.commands(text)), tuple(left),
                           self._output_path.read_text(encoding="utf-8", errors="replace"), text)

    def begin(self, name: str, command_line: str) -> Started:
        """Starts a program and does not wait for it. A name that is given again ends what was started with it before."""
        self.ask("start", name, command_line, windows_path(self.folder / f"output-{name}.txt"))
        return Started(self, name)

    @contextmanager
    def held_open(self, path: Path, access: int, share: int) -> Iterator[None]:
        """Another program has this file open meanwhile, for this use of its own, and shares it for that of others."""
        self.ask("hold", windows_path(path.resolve()), f"{access:x}", f"{share:x}")
        try:
            yield
        finally:
            self.ask("release")

    def boxes(self) -> list[Box]:
        """The message boxes that can be seen."""
        answer = self.ask("boxes", limit=60)
        return [Box(answer[at], answer[at + 1], tuple(answer[at + 2].replace("&", "").split("|")))
                for at in range(0, len(answer), 3)]

    def set_environment(self, name: str, value: str) -> None:
        """Sets an environment variable for the programs to come; an empty value removes it."""
        self.ask("environment", name, value)

    def ask(self, *fields: str, limit: float = 30) -> list[str]:
        """Sends the agent one command and returns the fields of its answer."""
        answer = self._exchange(fields, limit)
        if answer[0] != "ok":
            raise BedError(f"{fields}: Windows error {answer[1]}")
        return answer[1:]

    def _exchange(self, fields: tuple[str, ...], limit: float) -> list[str]:
        if self._owes_answer:
            # Somebody lost patience with the last command; its answer must not be taken for the next one's.
            self.stop()
            self.start()
        if self._agent is None:
            raise BedError("this Windows has not been started")
        assert self._agent.stdin is not None and self._agent.stdout is not None
        line = "\t".join(field.replace("\\", "\\\\").replace("\t", "\\t").replace("\n", "\\n") for field in fields)
        self._owes_answer = True
        self._agent.stdin.write(line.encode() + b"\n")
        self._agent.stdin.flush()
        until = time.monotonic() + limit
        with selectors.DefaultSelector() as selector:
            selector.register(self._agent.stdout, selectors.EVENT_READ)
            while b"\n" not in self._pending:
                if not selector.select(max(0.0, until - time.monotonic())):
                    raise BedError(f"the agent did not answer within {limit} s: {fields}")
                received = os.read(self._agent.stdout.fileno(), 65536)
                if not received:
                    raise BedError(f"the agent has ended; it was asked {fields}")
                self._pending += received
        answer, self._pending = self._pending.split(b"\n", 1)
        self._owes_answer = False
        return [_unescape(part) for part in answer.decode().split("\t")]

    # Registry

    def set_value(self, key: str, name: str, value: str | int | bytes, kind: int | None = None) -> None:
        """Writes a registry value (64-bit view), making the key if need be. `key` begins with HKLM or HKCU."""
        if isinstance(value, int):
            kind, data = kind or REG_DWORD, struct.pack("<I", value)
        elif isinstance(value, str):
            kind, data = kind or REG_SZ, (value + "\0").encode("utf-16-le")
        else:
            kind, data = kind or REG_BINARY, value
        self.ask("set", key, name, str(kind), data.hex())

    def value(self, key: str, name: str) -> str | int | bytes | None:
        """Reads a registry value, or None if there is none."""
        answer = self._exchange(("get", key, name), 30)
        if answer[0] != "ok":
            return None
        kind, data = int(answer[1]), bytes.fromhex(answer[2])
        if kind in (REG_SZ, REG_EXPAND_SZ):
            return data.decode("utf-16-le").rstrip("\0")
        return struct.unpack("<I", data)[0] if kind == REG_DWORD else data

    def delete_value(self, key: str, name: str) -> None:
        """Removes a registry value; one that is not there is no error."""
        self._exchange(("delete-value", key, name), 30)

    def delete_key(self, key: str) -> None:
        """Removes a registry key with everything below it; one that is not there is no error."""
        self._exchange(("delete-key", key), 30)

    def expand(self, text: str) -> str:
        """Replaces the environment variables in a text."""
        return self.ask("expand", text)[0]

    def message(self, module: str, entry: traces.Event, language: int = 1033) -> str:
        """The text that the event viewer would show, from the program's own message table."""
        return self.ask("message", module, f"{entry.id:x}", str(language), *entry.strings)[0]


@dataclass(frozen=True)
class Box:
    """A message box."""

    title: str
    text: str
    buttons: tuple[str, ...]


@dataclass(frozen=True)
class Ended:
    """How a started program ended."""

    exit_code: int | None
    """None when it had to be ended at its time limit."""
    begin: float
    end: float


class Started:
    """A program that runs while the bed does something else."""

    def __init__(self, machine: Windows, name: str) -> None:
        self._machine = machine
        self._name = name

    def wait(self, limit: float = 60) -> Ended:
        """Waits for its end, which comes at the time limit at the latest."""
        ended = self.ended(limit)
        if ended is None:
            self.kill()
            killed = self.ended(30)
            ended = Ended(None, killed.begin if killed else 0, killed.end if killed else 0)
        return ended

    def ended(self, limit: float = 0) -> Ended | None:
        """How it ended, or None while it runs; waits for that so many seconds."""
        how, _, code, begin, end = self._machine.ask("wait", self._name, str(int(limit * 1000)), limit=limit + 30)
        return Ended(int(code, 16), _seconds(begin), _seconds(end)) if how == "exited" else None

    def kill(self) -> None:
        """Ends it where it stands, as the task manager does."""
        self._machine.ask("kill", self._name)


def windows_path(path: Path) -> str:
    """The path under which a Windows program sees a file of the room."""
    return "Z:" + str(path).replace("/", "\\")


def _seconds(ticks: str) -> float:
    """Windows file time (100 ns since 1601) to seconds since 1970."""
    return int(ticks) / 1e7 - 11644473600


def _environment(architecture: str) -> dict[str, str]:
    environment = {"HOME": "/root", "USER": "root", "LANG": "C.UTF-8", "PATH": "/usr/sbin:/usr/bin:/sbin:/bin",
                   "WINEDLLOVERRIDES": _OVERRIDES, "WINEDEBUG": "-all"}
    if architecture == "arm64":
        # The emulator's default processor checks branch targets, which stops Wine.
        environment["QEMU_CPU"] = "cortex-a72"
    return environment


def _unescape(text: str) -> str:
    parts = text.split("\\\\")
    return "\\".join(part.replace("\\t", "\t").replace("\\n", "\n") for part in parts)


def _end(process: subprocess.Popen[bytes], limit: float = 20) -> None:
    try:
        process.wait(limit)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait(20)
