"""What a test sees of the bed: it publishes, sets, runs the program and judges what came of it."""

from __future__ import annotations

import shutil
from collections.abc import Iterator
from contextlib import ExitStack, contextmanager
from dataclasses import dataclass, field
from pathlib import Path

from bed import isolation, settings, traces
from bed import version as versions
from bed.certificates import Certificate
from bed.http_server import Answer, Reply, Request, ScriptedServer
from bed.signing import KeyPair
from bed.windows import FinishedRun, Windows

DESCRIPTION = "/Halvoro/Lumaris/win10-stable.txt"
FOLDER = "/Halvoro/3.4.1/"
FOLDER_URL = "http://updates.tavrin.example/Halvoro/3.4.1/"
PACKAGE = "/Halvoro/3.4.1/Halvoro.ARM64.msi"
# Not a package for the installer, which then ends at once: most tests are about what comes before it.
PACKAGE_CONTENT = b"the content of a package\n" * 1000
FAILED = 0x80000001


@dataclass
class Bed:
    """What is made once for all tests of a session."""

    network: isolation.PrivateNetwork
    machine: Windows
    server: ScriptedServer
    authority: Certificate
    list_manager: settings.ListManager
    program: str
    program_file: Path
    key: KeyPair
    other_key: KeyPair
    signatures: dict[tuple[str, bool, bytes], bytes] = field(default_factory=dict)


class World:
    """One test's view of the bed; what the test starts in it ends with the test."""

    def __init__(self, bed: Bed) -> None:
        self.bed = bed
        self.machine = bed.machine
        self.server = bed.server
        self._stack = ExitStack()
        common = self.machine.expand("%CommonProgramFiles%")
        self.maker_folder = self.machine.unix_path(common + "\\Tavrin")
        self.store = self.maker_folder / "Lumaris"
        self.store_path = common + "\\Tavrin\\Lumaris\\"
        self.temp_path = self.machine.expand("%TEMP%") + "\\"
        self.temp = self.machine.unix_path(self.temp_path)

    def __enter__(self) -> World:
        return self

    def __exit__(self, *_: object) -> None:
        self._stack.close()

    def clean(self) -> None:
        """Puts everything back that a test may have changed."""
        self.server.reset()
        self.bed.network.connect()
        self.bed.list_manager.restore()
        self.machine.delete_key(settings.PRODUCT_KEY)
        settings.remove_proxy(self.machine)
        settings.set_version(self.machine, 10, 0, 19043)
        if self.maker_folder.is_dir():
            shutil.rmtree(self.maker_folder)
        else:
            self.maker_folder.unlink(missing_ok=True)
        for file in self.temp.glob("Halvoro*"):
            file.unlink()

    # Arranging

    def sign(self, content: bytes, *, key: KeyPair | None = None, legacy: bool = False) -> bytes:
        """What `minisign` says about this content."""
        signer = key or self.bed.key
        known = (signer.line, legacy, content)
        if known not in self.bed.signatures:
            file = self.bed.network.work / "to-sign"
            file.write_bytes(content)
            self.bed.signatures[known] = signer.sign(file, legacy=legacy).read_bytes()
        return self.bed.signatures[known]

    def publish(self, path: str, content: bytes, *, signature: bytes | None = None,
                server: ScriptedServer | None = None) -> None:
        """Puts content and its signature on the server."""
        answers = (server or self.server).answers
        answers[path] = Reply(content)
        answers[path + ".minisig"] = Reply(self.sign(content) if signature is None else signature)

    def describe(self, text: str | bytes, *, path: str = DESCRIPTION) -> None:
        """Publishes a signed update description."""
        self.publish(path, text.encode() if isinstance(text, str) else text)

    def offer(self, *, url: str = FOLDER_URL, package: str | None = PACKAGE, content: bytes = PACKAGE_CONTENT,
              version: str = versions.NEWER.offer, description: str = DESCRIPTION) -> None:
        """Offers an update: the description, and the package if one is given."""
        self.describe(f"{version}\nHalvoro {versions.NEWER}\n{url}\n", path=description)
        if package is not None:
            self.publish(package, content)

    def answer(self, path: str, answer: Answer) -> None:
        """Makes the server answer this path so."""
        self.server.answers[path] = answer

    def serve(self, port: int, certificate: Certificate | None = None) -> ScriptedServer:
        """One more server, for this test."""
        pair = (str(certificate.path), str(certificate.key)) if certificate else None
        return self._stack.enter_context(ScriptedServer(port, pair))

    @contextmanager
    def server_stopped(self) -> Iterator[None]:
        """Nobody listens on the update server's port meanwhile."""
        self.server.__exit__()
        try:
            yield
        finally:
            self.server.__enter__()

    def set_channel(self, value: str | int | bytes, kind: int | None = None) -> None:
        """Writes the release channel into the registry."""
        self.machine.set_value(settings.UPDATER_KEY, "Channel", value, kind)

    # Running

    def run(self, arguments: str = "", *, program: str | None = None, installer_ends: bool = False) -> FinishedRun:
        """Runs the program. An installer that it starts is ended at once, or may do its work to the end."""
        line = f'"{program or self.bed.program}"' + (f" {arguments}" if arguments else "")
        return self.machine.run(line, limit=50, settle=100 if installer_ends else 0)

    @property
    def requests(self) -> list[Request]:
        """What the server was asked."""
        return self.server.requests

    @property
    def targets(self) -> list[str]:
        """The paths that the server was asked for, in order."""
        return self.server.targets

    # Judging

    def installers(self, run: FinishedRun) -> list[str]:
        """The programs that the run left running."""
        return [each.image for each in run.left]

    def assert_nothing_to_do(self, run: FinishedRun) -> None:
        """The check was done, nothing was installed, nothing was said."""
        assert (run.exit_code, run.events) == (0, ())
        assert (run.commands, self.installers(run)) == ((), [])

    def assert_installs(self, run: FinishedRun, *, folder: str | None = None, base: str = "Halvoro.ARM64") -> None:
        """The installer was started, in the way of an unattended run, and nothing was said."""
        assert (run.exit_code, run.events) == (0, ())
        package = (folder or self.store_path) + base
        parameters = f'/i "{package}.msi" /l* "{package}.log" /qn /norestart'
        assert run.commands == (traces.ShellCommand(None, "msiexec.exe", parameters, None, 1),)
        assert self.installers(run) == ["C:\\windows\\system32\\msiexec.exe"]

    def assert_failed(self, run: FinishedRun, message: str) -> None:
        """The run failed with exactly this message in its error event, and started no installer."""
        assert run.events == (traces.Event(traces.ERROR, 0, FAILED, ("Halvoro", message)),)
        assert run.exit_code == FAILED
        assert (run.commands, self.installers(run)) == ((), [])

    def assert_skipped(self, run: FinishedRun, code: int) -> None:
        """The check was put off for this reason, without a request."""
        assert run.events == (traces.Event(traces.INFORMATION, 0, code, ("Halvoro",)),)
        assert run.exit_code == code
        assert self.targets == []
