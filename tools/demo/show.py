"""The demonstration itself: publishes an update, runs the program, and compares what happened with what should."""

from __future__ import annotations

import os
import re
import subprocess
import sys
import time
from contextlib import ExitStack
from pathlib import Path

from bed import isolation, package, settings, traces, update_server
from bed import version as versions
from bed.errors import BedError
from bed.services import AuthenticatingProxy, Nginx
from bed.signing import KeyPair
from bed.windows import FinishedRun, Windows
from frame import LIMIT, Demonstration, code
from outcome import COSTS, Circumstances, Outcome, expected

_PROXY_USER = "lumaris"
_PROXY_PASSWORD = "Geslo-za-posrednika"
_INSTALLED_PROGRAM = "C:\\Program Files\\Tavrin\\Halvoro\\lumaris.exe"
_INSTALLED_CHECK = "C:\\Program Files\\Tavrin\\Halvoro\\lumaris_check.exe"
_EVENT_SOURCE = "HKLM\\SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\HalvoroUpdate"
_TASK = "C:\\windows\\system32\\tasks\\Tavrin\\Halvoro update"


class Show(Demonstration):
    """The demonstration of an update."""

    def __init__(self, tree: Path, given: Circumstances) -> None:
        super().__init__(tree, given.architecture)
        self._given = given
        self._key = KeyPair(tree / "build/demo-key/demo.pub", tree / "build/demo-key/demo.key")
        # Wine stamps its trace with the raw monotonic clock.
        self._clock = time.time() - time.clock_gettime(time.CLOCK_MONOTONIC_RAW)

    def _needed(self) -> tuple[Path, ...]:
        return self._key.public, self._key.secret, self._program_file("lumaris.exe")

    def _why(self) -> str:
        outcome = expected(self._given)
        return outcome.why + ("; the second run reuses the package" if outcome.installs else "")

    def _perform(self, network: isolation.PrivateNetwork) -> None:
        given = self._given
        files = network.work / "publication/public"
        self._publish(network.work, files)
        with ExitStack() as stack:
            self._server = Nginx(network.work / "nginx", files)
            stack.enter_context(self._server)
            self._say(f"nginx publishes it as http://{isolation.UPDATE_HOST}/ (port 80 of an isolated network)")
            self._timeline.show()
            machine = stack.enter_context(Windows(given.architecture, network, self._program_file("agent.exe")))
            self._program = machine.install(self._program_file("lumaris.exe"), "lumaris.exe")
            self._say(f"{self._processor} Windows (Wine) is up, with the {self._processor} "
                      f"lumaris.exe ({self._program_file('lumaris.exe').stat().st_size:,} bytes) that trusts this key")
            self._arrange(machine, stack, network)
            self._timeline.show()
            self._one_run(machine, expected(given))
            if expected(given).installs:
                print()
                self._say("second run in the same Windows: the package is there already")
                self._one_run(machine, expected(given, again=True))

    # Before the run

    def _publish(self, work: Path, files: Path) -> None:
        given = self._given
        offered = versions.OWN if given.old else versions.NEWER
        self._offered_build = self._build if given.old else Path(f"{self._build}-next")
        self._package = package.InstallerPackage.build_with_kit(work, given.architecture, self._offered_build, str(offered))
        self._say(f"minisign key pair {self._key.public.name}: {self._key.line}")
        self._say(f"wixl built Halvoro {offered}: {self._package.path.stat().st_size:,} bytes, a file, a registry value, and the updater "
                  "of its version with its check, event source and task")
        root = files.parent
        channel, variant = given.effective_channel, given.effective_variant
        self._kit("init", str(root), "--host", isolation.UPDATE_HOST, "--public-key", self._key.line, "--channels", channel,
                  "--architecture", given.architecture, *([f"--variants={variant}"] if variant else []))
        for each in dict.fromkeys(("", variant)):
            self._kit("--root", str(root), "stage", str(self._package.path), *([f"--variant={each}"] if each else []), "--key", str(self._key.secret),
                      "--accept", "the demonstration has hosts that are reserved for examples")
        self._kit("--root", str(root), "offer", str(offered), "--channel", channel, "--key", str(self._key.secret))
        package_file, description = files / given.package.lstrip("/"), files / given.description.lstrip("/")
        if given.tamper == "description":
            description.write_bytes(description.read_bytes().replace(b"Halvoro 3", b"Halvoro 9"))
            self._say(f"and somebody changed {description.name} afterwards")
        elif given.tamper == "package":
            content = bytearray(package_file.read_bytes())
            content[len(content) // 2] ^= 1
            package_file.write_bytes(content)
            self._say(f"and somebody changed one bit of {package_file.name} afterwards")
        elif given.tamper == "signature":
            signature = description.with_name(description.name + ".minisig")
            comment, line, *rest = signature.read_text(encoding="ascii").splitlines()
            changed = line[:60] + ("A" if line[60] != "A" else "B") + line[61:]
            signature.write_text("\n".join([comment, changed, *rest]) + "\n", encoding="ascii")
            self._say(f"and somebody changed one character of {signature.name} afterwards")

    def _kit(self, *arguments: str) -> None:
        """Publishes as a release engineer does."""
        done = subprocess.run([sys.executable, "-m", "lumaris_publish", *arguments], capture_output=True, text=True, timeout=120, check=False,
                              env={**os.environ, "PYTHONPATH": str(self._tree / "tools/publish"),
                                   "LUMARIS_JUDGE": str(self._tree / "build/native-release/tools/publish/lumaris_judge")})
        if done.returncode != 0:
            raise BedError(done.stderr.strip())
        for line in done.stdout.splitlines():
            if not line.startswith(("next: ", "      ")):
                self._timeline.add("publisher", line)

    def _arrange(self, machine: Windows, stack: ExitStack, network: isolation.PrivateNetwork) -> None:
        given = self._given
        if given.offline:
            network.disconnect()
            self._say("the machine has no default route: it is offline")
        if given.cost:
            settings.ListManager(machine, self._program_file("list_manager.dll")).answer(Cost=COSTS[given.cost])
            self._say(f"the network list manager says: cost 0x{COSTS[given.cost]:x} ({given.cost})")
        if given.channel is not None:
            machine.set_value(settings.UPDATER_KEY, "Channel", given.channel)
            self._say(f"registry: Channel = \"{given.channel}\"")
        self._proxy: AuthenticatingProxy | None = None
        if given.proxy:
            self._proxy = AuthenticatingProxy(network.work / "proxy", _PROXY_USER, _PROXY_PASSWORD)
            stack.enter_context(self._proxy)
            settings.set_proxy(machine, f"{isolation.PROXY_HOST}:8118")
            machine.set_value(settings.PRODUCT_KEY, "ProxyUporabnik", _PROXY_USER)
            machine.set_value(settings.PRODUCT_KEY, "ProxyGeslo", _PROXY_PASSWORD)
            self._say(f"the machine's proxy is {isolation.PROXY_HOST}:8118, which asks for user name and password; the "
                      "registry has ProxyUporabnik and ProxyGeslo")

    # The run

    def _one_run(self, machine: Windows, outcome: Outcome) -> None:
        log_size = _size(self._server.access_log)
        proxy_size = _size(self._proxy.log) if self._proxy else 0
        folder = machine.unix_path(machine.expand("%CommonProgramFiles%") + "\\Tavrin\\Lumaris")
        log = folder / update_server.package_name(self._given.effective_variant).replace(".msi", ".log")
        log.unlink(missing_ok=True)
        line = f'"{self._program}"' + (f" {self._given.variant}" if self._given.variant else "")
        self._say(f"should happen: {outcome.why} (exit code {code(outcome.exit_code)})")
        run = machine.run(line, limit=LIMIT, settle=LIMIT)
        self._timeline.add("windows", f"{line} starts", run.begin)
        requests = self._show_requests(log_size, len(outcome.requests))
        if self._proxy:
            self._show_proxy(self._proxy, proxy_size)
        for event in run.events:
            self._show_event(machine, event)
        self._timeline.add("program", "writes to its standard output: " + (run.output.strip() or "nothing"), run.end)
        if not run.events:
            self._timeline.add("event log", "nothing reported", run.end)
        self._expect("the event source", ["HalvoroUpdate", "closed"], traces.event_sources(run.trace))
        self._timeline.add("windows", "lumaris.exe ends with exit code "
                           + (code(run.exit_code) if run.exit_code is not None else "(none: stopped at its time limit)"),
                           run.end)
        self._expect("the exit code", code(outcome.exit_code), code(run.exit_code))
        self._expect("the requests", list(outcome.requests), requests)
        self._expect_event(outcome, run)
        self._show_installation(machine, outcome, run, folder, log)
        self._timeline.show()

    def _show_requests(self, offset: int, count: int) -> list[str]:
        # nginx writes its line when a reply is finished, which may be after the program has read all of it.
        until = time.monotonic() + 5
        while True:
            lines = _text_from(self._server.access_log, offset).splitlines()
            if len(lines) >= count or time.monotonic() > until:
                break
            time.sleep(0.01)
        targets = []
        for line in lines:
            moment, _, rest = line.partition(" ")
            self._timeline.add("server", rest, float(moment))
            found = re.search(r'"GET (\S+) HTTP/1\.[01]" 200 ', rest)
            targets.append(found[1] if found else rest)
        return targets

    def _show_proxy(self, proxy: AuthenticatingProxy, offset: int) -> None:
        passed = 0
        for line in _text_from(proxy.log, offset).splitlines():
            found = re.match(r"\S+\s+(\w+ \d+ [\d:]+)(\.\d+) \[\d+\]: (.*)", line)
            if found and re.match(r"Request|Established|.*[Aa]uth", found[3]):
                moment = time.mktime(time.strptime(f"{time.localtime().tm_year} {found[1]}", "%Y %b %d %H:%M:%S"))
                self._timeline.add("proxy", found[3], moment + float(found[2]))
                passed += "Established connection" in found[3]
        if expected(self._given).requests and not passed:
            self._faults.append("nothing went through the proxy")

    def _show_event(self, machine: Windows, event: traces.Event) -> None:
        kind = {traces.INFORMATION: "information", traces.WARNING: "warning", traces.ERROR: "error"}
        text = machine.message(self._program, event).strip()
        self._timeline.add("event log", f"{kind.get(event.kind, str(event.kind))} event {event.id if event.id < 0x10000 else code(event.id)}: {text}",
                           event.time + self._clock)

    def _show_installation(self, machine: Windows, outcome: Outcome, run: FinishedRun, folder: Path, log: Path) -> None:
        for command in run.commands:
            self._timeline.add("program", f"starts {command.file} {command.parameters}", command.time + self._clock)
        installers = [each for each in run.left if each.image.lower().endswith("\\msiexec.exe")]
        for installer in installers:
            self._timeline.add("windows", f"{installer.image} starts", installer.begin)
            self._timeline.add("windows", f"{installer.image} ends with exit code {code(installer.exit_code)}", installer.end)
            self._expect("the installer's exit code", 0, installer.exit_code)
        # One is started; it runs the package's actions in processes of its own.
        self._expect("the number of installers started", 1 if outcome.installs else 0, len(run.commands))
        self._expect("an installer still at work", outcome.installs, bool(installers))
        if not outcome.installs:
            self._expect("anything installed", False, machine.unix_path(package.INSTALLED_FILE).exists())
            return
        steps = _installer_steps(log)
        # The log has whole seconds of local time; what matters is their order, before the installer's end.
        moment = max((each.end for each in installers), default=time.time())
        self._timeline.add("installer", f"{log.name} ({_size(log):,} bytes): " + ", ".join(
            f"{name} {'done' if value == '1' else 'returned ' + value}" for name, value in steps.items()), moment)
        if steps.get("INSTALL") != "1":
            self._faults.append(f"the installer's log {log} does not say that the installation succeeded")
        stored = folder / log.name.replace(".log", ".msi")
        same = stored.exists() and stored.read_bytes() == self._package.path.read_bytes()
        self._timeline.add("disk", f"{stored.name} in C:\\Program Files\\Common Files\\Tavrin\\Lumaris is "
                           + ("the package that was signed" if same else "NOT the package that was signed"))
        self._expect("the stored package to be the signed one", True, same)
        installed = machine.unix_path(package.INSTALLED_FILE)
        text = installed.read_text(encoding="ascii") if installed.exists() else None
        value = machine.value(package.REGISTRY_KEY, package.REGISTRY_VALUE)
        self._timeline.add("disk", f"{package.INSTALLED_FILE}: {text.strip() if text else 'missing'}")
        self._timeline.add("disk", f"{package.REGISTRY_KEY}, {package.REGISTRY_VALUE}: {value!s}")
        self._expect("the installed file", self._package.file_text, text)
        self._expect("the installed registry value", self._package.version, value)
        self._show_kit(machine, outcome)

    def _show_kit(self, machine: Windows, outcome: Outcome) -> None:
        """What the package has brought for the updater, and what its check says of the machine."""
        program = machine.unix_path(_INSTALLED_PROGRAM)
        same = program.exists() and program.read_bytes() == (self._offered_build / "src/updater/lumaris.exe").read_bytes()
        self._timeline.add("disk", f"{_INSTALLED_PROGRAM}: " + ("the program that was packed" if same else "NOT the program that was packed"))
        self._expect("the installed updater to be the packed one", True, same)
        texts = machine.value(_EVENT_SOURCE, "EventMessageFile")
        self._timeline.add("disk", f"event source HalvoroUpdate: texts in {texts!s}")
        self._expect("the event source's texts", _INSTALLED_PROGRAM, texts)
        task = machine.unix_path(_TASK).exists()
        self._timeline.add("disk", "scheduled task \\Tavrin\\Halvoro update: " + ("there" if task else "missing"))
        self._expect("the scheduled task", True, task)
        log_size = _size(self._server.access_log)
        checked = machine.run(f'"{_INSTALLED_CHECK}"', limit=LIMIT)
        verdict = next((line for line in checked.output.splitlines() if line.startswith("VERDICT: ")), "VERDICT: none")
        # The installed program is the version that is offered: its check asks for the description, and for no package.
        asked = list(outcome.requests[:2])
        self._expect("the check's requests", asked, self._show_requests(log_size, len(asked)))
        self._timeline.add("check", f"lumaris_check.exe: {verdict.removeprefix('VERDICT: ')}", checked.end)
        # Up to date; but the Task Scheduler here starts nothing, and the check does not call a machine healthy whose task has never run.
        self._expect("the check's exit code", 2, checked.exit_code)
        self._expect("the check's verdict", True, "Up to date" in verdict and "the scheduled task has never run" in verdict)

    # The judgement

    def _expect_event(self, outcome: Outcome, run: FinishedRun) -> None:
        self._expect("the events", [] if outcome.event is None else [outcome.event], [each.id for each in run.events])
        if outcome.message and run.events:
            self._expect("the error event's message", outcome.message, run.events[0].strings[-1])

    def _program_file(self, name: str) -> Path:
        folder = "src/updater" if name == "lumaris.exe" else "tests/bed/windows"
        return self._build / folder / name


def _installer_steps(log: Path) -> dict[str, str]:
    """What the installer's actions returned at last; 1 is success. Wine's log is 8-bit text, Windows writes UTF-16."""
    data = log.read_bytes() if log.exists() else b""
    text = data.decode("utf-16" if data.startswith(b"\xff\xfe") else "utf-8", "replace")
    shown = ("InstallFiles", "WriteRegistryValues", "RegisterProduct", "InstallFinalize", "INSTALL")
    ends = dict(re.findall(r"Action ended [^:]*:\d+:\d+: (\w+)\. Return value (\d+)", text))
    return {name: ends[name] for name in shown if name in ends}


def _size(file: Path) -> int:
    return file.stat().st_size if file.exists() else 0


def _text_from(file: Path, offset: int) -> str:
    if not file.exists():
        return ""
    with file.open("rb") as stream:
        stream.seek(offset)
        return stream.read().decode("utf-8", "replace")
