"""docs/administrators.md: its commands do what it says, and its tables are those of the sources."""

from __future__ import annotations

import json
import re
import shutil
from collections.abc import Callable, Iterator
from dataclasses import dataclass

import pytest

from bed import settings
from bed import version as versions
from bed.windows import FinishedRun, windows_path
from installation import EVENTS, NEWER, OWN, PROGRAM, TREE, Installer
from world import DESCRIPTION, FOLDER, World

WRITTEN = (TREE / "docs/administrators.md").read_text(encoding="utf-8")
# The page is about the version in CMakeLists.txt; the tests may be about another one.
WRITTEN_FOR, = re.findall(r"^set\(version (\S+)\)", (TREE / "CMakeLists.txt").read_text(encoding="utf-8"), re.MULTILINE)
VERSION = OWN
PAGE = WRITTEN.replace(WRITTEN_FOR, VERSION)
UP_TO_DATE = "VERDICT: Up to date: the channel {} offers nothing newer than " + VERSION + "."
# Wine's Task Scheduler starts nothing by itself, and says so: the verdict of every check on this machine ends so, and its exit code is 2.
NEVER_RAN, NEVER_RAN_CODE = " But the scheduled task has never run.", 2

pytestmark = pytest.mark.any_processor


@dataclass(frozen=True)
class Block:
    """Commands in a fence of the page."""

    language: str
    lines: tuple[str, ...]

    @property
    def excuse(self) -> str | None:
        """Why its commands are not tried, if they are not."""
        found = re.match(r"(?:rem|#) Not tried under Wine, (\w.*)", self.lines[0])
        return found[1] if found else None


def blocks() -> list[Block]:
    """All that hold commands."""
    return [Block(language, tuple(text.strip("\n").splitlines()))
            for language, text in re.findall(r"^```(\w+)\n(.*?)^```$", PAGE, re.MULTILINE | re.DOTALL)]


# Words with which a command begins. Alone they are names.
COMMAND_WORDS = {"cmd", "icacls", "lumaris_check.exe", "msiexec", "net", "netsh", "powershell", "reg", "schtasks", "sc", "sfc", "start", "wecutil", "wevtutil",
                 "winget", "winrm"}
NOT_UNDER_WINE = {"schtasks", "sfc", "winget"}


def inline() -> dict[str, bool]:
    """The commands within sentences and tables, and whether each is marked as not tried."""
    text = re.sub(r"^```.*?^```$", "", PAGE, flags=re.MULTILINE | re.DOTALL)
    found: dict[str, bool] = {}
    for command, mark in re.findall(r"`([^`\n]+)`(†?)", text):
        first = command.split()[0]
        # A verb and a noun are PowerShell's.
        if " " in command and (first in COMMAND_WORDS or re.fullmatch(r"[A-Z][a-z]+-[A-Z]\w+", first)):
            found[command] = bool(mark) or found.get(command, False)
    return found


def commands() -> list[str]:
    """Those that are tried: the blocks in the order of the page, then what stands within sentences and tables."""
    return [line for block in blocks() if block.excuse is None for line in block.lines] + [command for command, marked in inline().items() if not marked]


@dataclass
class Reader:
    """Somebody who types what the page says, in the folder in which the package is."""

    installer: Installer
    world: World

    def type(self, command: str) -> FinishedRun:
        """Runs a command as a batch file does, and waits for what it started."""
        folder = self.installer.folder
        batch = folder / "typed.cmd"
        command = command.replace("%P ", "%%P ")  # as the page says of batch files
        batch.write_bytes(f"@echo off\r\ncd /d {windows_path(folder)}\r\n{command}\r\nexit /b %ERRORLEVEL%\r\n".encode())
        return self.world.machine.run(f'cmd /c "{windows_path(batch)}"', limit=120, settle=60)

    def channel(self) -> object:
        """The channel in the registry."""
        return self.world.machine.value(settings.UPDATER_KEY, "Channel")


@pytest.fixture
def reader(installer: Installer, world: World) -> Iterator[Reader]:
    """With nothing installed yet, and servers that offer nothing newer on any channel that the page names."""
    shutil.copyfile(installer.package(VERSION), installer.folder / f"lumaris-{VERSION}-arm64.msi")
    for channel in ("stable", "beta"):
        world.offer(version=versions.OWN.offer, description=DESCRIPTION.replace("stable", channel))
    yield Reader(installer, world)


def installed(reader: Reader, _run: FinishedRun) -> None:
    """Everything is there, and a log."""
    machine = reader.world.machine
    assert machine.unix_path(PROGRAM).exists()
    assert machine.value(EVENTS, "EventMessageFile") == PROGRAM
    assert reader.installer.has_task()
    assert reader.world.store.is_dir()
    assert (reader.installer.folder / "lumaris-install.log").stat().st_size > 1000


def on_channel(channel: str | None) -> Callable[[Reader, FinishedRun], None]:
    """The registry names this channel, or none."""
    def judge(reader: Reader, _run: FinishedRun) -> None:
        assert reader.channel() == channel
    return judge


def removed(reader: Reader, _run: FinishedRun) -> None:
    """Nothing is there any more. For what the page says next it is installed again."""
    assert not reader.world.machine.unix_path(PROGRAM).parent.parent.exists()
    assert not reader.world.maker_folder.exists()
    assert not reader.installer.has_task()
    assert reader.channel() is None
    reader.installer.install(VERSION)


def offered(reader: Reader, package: str, content: bytes) -> None:
    """A newer version on the machine's channel, with this package."""
    channel = reader.channel() or "stable"
    reader.world.offer(package=package, content=content, description=DESCRIPTION.replace("stable", str(channel)))


def withdrawn(reader: Reader) -> None:
    """Nothing newer any more."""
    for channel in ("stable", "beta"):
        reader.world.offer(version=versions.OWN.offer, description=DESCRIPTION.replace("stable", channel))


def due(reader: Reader, run: FinishedRun) -> None:
    """The package that was offered was found and verified."""
    assert f"VERDICT: An update is due: the next run installs {versions.NEWER} over {VERSION}.{NEVER_RAN}" in run.output.splitlines()
    withdrawn(reader)


def up_to_date(reader: Reader, run: FinishedRun) -> None:
    """The verdict is the one that the page shows."""
    assert UP_TO_DATE.format(reader.channel() or "stable") + NEVER_RAN in run.output.splitlines()


def as_json(_reader: Reader, run: FinishedRun) -> None:
    """The same for programs."""
    assert json.loads(run.output)["verdict"]["exit_code"] == NEVER_RAN_CODE


def started(_reader: Reader, run: FinishedRun) -> None:
    """The service runs."""
    assert "start" in run.output.lower()


def with_proxy(reader: Reader, _run: FinishedRun) -> None:
    """Name and password are where the program reads them."""
    assert reader.world.machine.value(settings.PRODUCT_KEY, "ProxyUporabnik") == "updates"
    assert reader.world.machine.value(settings.PRODUCT_KEY, "ProxyGeslo") == "secret"


CHECK = '"%ProgramFiles%\\Tavrin\\Halvoro\\lumaris_check.exe"'
PACKAGE = f"lumaris-{VERSION}-arm64.msi /qn /norestart"
REMOVAL = ("cmd /c for /f \"tokens=3\" %P in ('reg query HKLM\\SOFTWARE\\Tavrin\\Halvoro\\Lumaris /v ProductCode /reg:64') "
           "do msiexec /x %P /qn /norestart")
CHANNEL_VALUE = "HKLM\\SOFTWARE\\Tavrin\\Halvoro\\Lumaris /v Channel"

WHAT_COMES_OF: dict[str, Callable[[Reader, FinishedRun], None]] = {
    f"msiexec /i {PACKAGE} /l*v lumaris-install.log": installed,
    f"msiexec /i {PACKAGE} CHANNEL=beta TASKTIME=07:05": on_channel("beta"),
    f"msiexec /i {PACKAGE} REINSTALL=ALL REINSTALLMODE=vomus CHANNEL=stable": on_channel("stable"),
    f"start /wait msiexec /i {PACKAGE}": installed,
    f"msiexec /i {PACKAGE}": installed,
    REMOVAL: removed,
    "net start msiserver": started,
    f"msiexec /i {PACKAGE} REINSTALL=ALL REINSTALLMODE=vomus PROXYUSER=updates PROXYPASSWORD=secret": with_proxy,
    CHECK: up_to_date,
    f"{CHECK} --download": due,
    f"{CHECK} --json": as_json,
    f"{CHECK} --variant=-sl": due,
    f"reg add {CHANNEL_VALUE} /t REG_SZ /d beta /f /reg:64": on_channel("beta"),
    f'reg add {CHANNEL_VALUE} /t REG_SZ /d "" /f /reg:64': on_channel(""),
    f"reg delete {CHANNEL_VALUE} /f /reg:64": on_channel(None),
}


# What is there to be found by those that are about an offer: a package that is fetched to its end only when asked for, and one of the variant alone.
OFFERS: dict[str, Callable[[Reader], None]] = {
    f"{CHECK} --download": lambda reader: offered(reader, FOLDER + "Halvoro.ARM64.msi", b"a package that is larger than what a check fetches\n" * 5000),
    f"{CHECK} --variant=-sl": lambda reader: offered(reader, FOLDER + "Halvoro.ARM64-sl.msi", b"a package of the variant"),
}


def test_each_command_of_the_page_does_what_it_says_or_says_that_it_was_not_tried(reader: Reader) -> None:
    assert set(commands()) == set(WHAT_COMES_OF)
    for command in commands():
        if command in OFFERS:
            OFFERS[command](reader)
        run = reader.type(command)
        assert run.exit_code == (NEVER_RAN_CODE if command.startswith(CHECK) else 0), (command, run.output)
        WHAT_COMES_OF[command](reader, run)


def test_what_is_not_tried_needs_what_wine_does_not_have() -> None:
    excused = [block for block in blocks() if block.excuse is not None]
    for block in excused:
        assert len(block.lines) > 1
        words = {line.split()[0] for line in block.lines if line.split() and not line.startswith("rem ")}
        assert block.language == "powershell" or words <= {"schtasks", "wecutil", "winrm", "winget", "netsh"}
    assert {block.language for block in blocks()} == {"bat", "powershell"}
    marked = {command.split()[0] for command, mark in inline().items() if mark}
    assert len(marked) > 3
    assert {word for word in marked if "-" not in word} <= NOT_UNDER_WINE


def test_a_script_that_is_not_tried_gives_commands_that_are() -> None:
    script, = (block for block in blocks() if "New-CMApplication" in "\n".join(block.lines))
    given = re.findall(r"-(?:Uni|I)nstallCommand '((?:[^']|'')+)'", "\n".join(script.lines))
    assert [each.replace("''", "'") for each in given] == [f"msiexec /i {PACKAGE}", REMOVAL]


def test_the_removal_works_after_an_update_which_the_name_of_the_package_does_not(reader: Reader) -> None:
    reader.installer.install()
    reader.installer.install(NEWER)
    assert reader.type(f"msiexec /x {PACKAGE}").exit_code != 0
    assert reader.world.machine.unix_path(PROGRAM).exists()
    run = reader.type(REMOVAL)
    assert run.exit_code == 0, run.output
    assert not reader.world.machine.unix_path(PROGRAM).exists()
    assert not reader.installer.has_task()


def rows(heading: str, table: int = 0) -> list[list[str]]:
    """The rows of a table below a heading of the page, without its head."""
    section = re.split(rf"^##+ {re.escape(heading)}$", PAGE, flags=re.MULTILINE)[1]
    section = re.split(r"^##+ ", section, flags=re.MULTILINE)[0]
    found = re.findall(r"(?:^\|.*\n)+", section, re.MULTILINE)[table]
    return [[cell.strip() for cell in line.strip("| \n").split(" | ")] for line in found.splitlines()[2:]]


def test_the_page_has_every_reason_that_the_check_knows_in_the_same_order() -> None:
    source = (TREE / "tools/check/verdict.cpp").read_text(encoding="utf-8")
    table = source[source.index("known_messages{"):source.index("const char* word_for")]
    known = [re.sub(r'"\s*"', "", text) for text in re.findall(r'known_message\{\s*"((?:[^"\\]|\\.)*)"', table)]
    assert len(known) > 15
    reasons = [[reason.replace("… ", "Failed to load Minisign signature: ") for reason in re.findall(r"`([^`]+)`", row[0])]
               for row in rows("Reasons in the error event")]
    at = 0
    for begin in (each.replace("\\\\", "\\").rstrip("#") for each in known):
        found = next((row for row in range(at, len(reasons)) if any(reason.startswith(begin) for reason in reasons[row])), None)
        assert found is not None, begin
        at = found


def test_the_page_has_every_event_with_its_text() -> None:
    messages = (TREE / "src/resources/messages.mc").read_text(encoding="utf-8")
    texts = {int(number, 16): text for number, text in re.findall(
        r"^MessageId=(0x[0-9A-Fa-f]+)$.*?^Language=English\n(.*?)\n\.$", messages, re.MULTILINE | re.DOTALL) if text != "%1"}
    events = {int(row[1], 0) & 0xFFFF: row[3].replace("*reason*", "%2").replace("Halvoro", "%1")
              for row in rows("Exit codes, events and task results") if row[1] != "none"}
    assert events == texts


@pytest.mark.parametrize(("file", "heading", "table"), [("task.cpp", "Exit codes, events and task results", 0),
                                                        ("installer_log.cpp", "Results of the installer", 1)])
def test_the_page_has_every_result_that_the_check_knows(file: str, heading: str, table: int) -> None:
    source = (TREE / "tools/check" / file).read_text(encoding="utf-8")
    known = {int(code, 0) for code in re.findall(r"known_result\{(\w+),", source)} - ({0} if table == 0 else set())
    assert len(known) > 10
    listed = [*rows(heading, table), *(rows(heading, 1) if table == 0 else [])]
    named = {int(code, 0) for row in listed for code in re.findall(r"\b(?:0x[0-9A-F]+|\d+)\b", row[0])}
    assert known <= named, known - named


def test_the_page_has_every_property_that_the_package_takes() -> None:
    source = (TREE / "packaging/installer/lumaris.wxs").read_text(encoding="utf-8")
    named = set(re.findall(r"`([A-Z]+)`", " ".join(row[0] for row in rows("Install in three commands"))))
    assert named == {"CHANNEL", "PROXYUSER", "PROXYPASSWORD", "TASKTIME", "NOTASK"}
    for name in named:
        assert f"[{name}]" in source
