"""One Windows, one network and one set of servers for all tests of a session; a clean state for each test."""

from __future__ import annotations

import random
import shutil
import signal
import sys
from collections.abc import Iterator
from contextlib import ExitStack
from pathlib import Path
from types import FrameType

import pytest

TREE = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TREE / "tests"))

pytest.register_assert_rewrite("world", "crash_world", "faults", "installation")

from bed import certificates, isolation, settings, windows  # noqa: E402  (the path to it is set above)
from bed.http_server import ScriptedServer  # noqa: E402
from bed.report_server import make_report_server  # noqa: E402
from bed.reports import Reader  # noqa: E402
from bed.screen import Screen  # noqa: E402
from bed.signing import KeyPair  # noqa: E402
from crash_world import CrashBed, CrashWorld  # noqa: E402
from installation import NEWER, OWN, Installer  # noqa: E402
from world import Bed, World  # noqa: E402

READER = TREE / "build/native-asan/tools/report_reader/read_report"

# A test that takes longer hangs. Emulated programs start ten times as slowly.
TIME_LIMIT = {"x64": 60, "arm64": 180}


def pytest_addoption(parser: pytest.Parser) -> None:
    """The processor of the program under test; a session tests one."""
    parser.addoption("--arch", choices=windows.ARCHITECTURES, default="x64", help="processor of the program under test")
    parser.addoption("--build", metavar="FOLDER", help="build folder (default: build/ARCH-test)")
    parser.addoption("--every-byte", action="store_true",
                     help="cut replies after every byte and not only at their seams, and let every fault meet every request")
    parser.addoption("--every-step", action="store_true", help="kill a publisher at every step of an offer and a push, and not at some of them")
    parser.addoption("--shuffle", metavar="SEED", help="run the tests in the random order that follows from this text")
    parser.addoption("--backwards", action="store_true", help="run the tests in the opposite order")


def pytest_configure(config: pytest.Config) -> None:
    """Declares our marker."""
    config.addinivalue_line("markers", "any_processor: the same for every processor; runs with the quick x86-64 build only")
    config.addinivalue_line("markers", "at_length: waits for a time-out of its own; runs with --every-byte only")


def pytest_collection_modifyitems(config: pytest.Config, items: list[pytest.Item]) -> None:
    """Leaves out what the other processor does and what takes long, and changes the order if that is asked for."""
    without = [*["any_processor"] * (config.getoption("--arch") == "arm64"), *["at_length"] * (not config.getoption("--every-byte"))]
    left_out = [item for item in items if any(item.get_closest_marker(each) for each in without)]
    if left_out:
        items[:] = [item for item in items if item not in left_out]
        config.hook.pytest_deselected(items=left_out)
    if config.getoption("--backwards"):
        items.reverse()
    if seed := config.getoption("--shuffle"):
        random.Random(seed).shuffle(items)


@pytest.hookimpl(wrapper=True)
def pytest_runtest_protocol(item: pytest.Item) -> Iterator[None]:
    """Gives every test its own time limit."""
    limit = TIME_LIMIT[item.config.getoption("--arch")]

    def expired(_signal: int, _frame: FrameType | None) -> None:
        pytest.fail(f"{item.name} took longer than {limit} s")

    before = signal.signal(signal.SIGALRM, expired)
    signal.alarm(limit)
    try:
        return (yield)
    finally:
        signal.alarm(0)
        signal.signal(signal.SIGALRM, before)


def _build_of(request: pytest.FixtureRequest) -> Path:
    architecture = request.config.getoption("--arch")
    return Path(request.config.getoption("--build") or TREE / f"build/{architecture}-test").resolve()


@pytest.fixture(scope="session")
def bed(request: pytest.FixtureRequest) -> Iterator[Bed]:
    """Everything that is made once."""
    architecture = request.config.getoption("--arch")
    build = _build_of(request)
    if reason := windows.available(architecture):
        pytest.exit(reason, returncode=3)
    for name in ("src/updater/lumaris.exe", "tests/bed/windows/agent.exe", "tests/bed/windows/list_manager.dll"):
        if not (build / name).exists():
            pytest.exit(f"{build / name} is missing: it has not been built", returncode=3)
    network = isolation.enter()
    with ExitStack() as stack:
        stack.callback(isolation.leave, network)
        authority = certificates.make_authority(network.work, "test-authority")
        network.trust(authority.path)
        server = stack.enter_context(ScriptedServer(80))
        machine = stack.enter_context(
            windows.Windows(architecture, network, build / "tests/bed/windows/agent.exe", privileged=False))
        program = build / "src/updater/lumaris.exe"
        keys = network.work / "keys"
        keys.mkdir()
        for name in ("test.pub", "test.key"):
            shutil.copy(TREE / "tests/keys" / name, keys / name)
        yield Bed(network=network, machine=machine, server=server, authority=authority,
                  list_manager=settings.ListManager(machine, build / "tests/bed/windows/list_manager.dll"),
                  program=machine.install(program, "lumaris.exe"), program_file=program,
                  key=KeyPair(keys / "test.pub", keys / "test.key"), other_key=KeyPair.make(keys, "other"))


@pytest.fixture
def world(bed: Bed) -> Iterator[World]:
    """The bed in its first state: connected, no settings, nothing published, nothing stored."""
    fresh = World(bed)
    fresh.clean()
    with fresh:
        yield fresh


@pytest.fixture(scope="module")
def made(bed: Bed) -> Iterator[Installer]:
    """The package of the build under test."""
    build = bed.program_file.parents[2]
    folder = bed.network.work / "installer"
    programs = folder / "programs"
    programs.mkdir(parents=True)
    shutil.copy(build / "packaging/installer/lumaris_setup.dll", programs)
    shutil.copy(build / "tools/check/lumaris_check.exe", programs)
    yield Installer(bed.machine, bed, folder, programs)
    shutil.rmtree(folder)


@pytest.fixture
def installer(made: Installer, world: World) -> Iterator[Installer]:
    """A machine on which nothing of Lumaris is installed, before and after."""
    yield made
    for version in (OWN, NEWER):
        if (made.folder / f"lumaris-{version}.msi").exists():
            made.msiexec("/x", made.package(version))


@pytest.fixture(scope="session")
def crash_bed(request: pytest.FixtureRequest, bed: Bed) -> Iterator[CrashBed]:
    """What the tests of crashes need on top of the bed."""
    programs = _build_of(request) / "tests/crash"
    for needed in (READER, programs / "crash_none.exe"):
        if not needed.exists():
            pytest.exit(f"{needed} is missing: it has not been built", returncode=3)
    with make_report_server(bed.network, bed.authority) as server:
        yield CrashBed(bed.network, server, Reader(READER, bed.network.work), programs)


@pytest.fixture
def crashes(request: pytest.FixtureRequest, bed: Bed, crash_bed: CrashBed) -> Iterator[CrashWorld]:
    """A Windows without a screen, for programs that crash unseen."""
    if "world" not in request.fixturenames:
        World(bed).clean()  # an earlier test may have left its proxy, and reports would go there
    with CrashWorld(crash_bed, bed.machine) as fresh:
        yield fresh


@pytest.fixture(scope="session")
def desktop(request: pytest.FixtureRequest, bed: Bed) -> Iterator[tuple[windows.Windows, Screen]]:
    """A second Windows, on a screen of its own."""
    agent = _build_of(request) / "tests/bed/windows/agent.exe"
    with Screen(bed.network.work) as screen, \
            windows.Windows(bed.machine.architecture, bed.network, agent, display=screen.display, privileged=False) as machine:
        yield machine, screen


@pytest.fixture
def watched(crash_bed: CrashBed, desktop: tuple[windows.Windows, Screen]) -> Iterator[CrashWorld]:
    """A Windows with a screen, for programs that show their crash to a user."""
    with CrashWorld(crash_bed, *desktop) as fresh:
        yield fresh
