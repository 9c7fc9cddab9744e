"""A kit of the build under test, and a Windows in which nothing but the proof acts."""

from __future__ import annotations

import importlib.util
import random
import shutil
import sys
from collections.abc import Iterator
from pathlib import Path
from types import ModuleType

import pytest

TREE = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TREE / "tests"))

import proving  # noqa: E402  (it needs the path)

from bed import isolation, windows  # noqa: E402  (the path to it is set above)


def load_kit() -> ModuleType:
    """The program that makes kits."""
    specification = importlib.util.spec_from_file_location("proof_kit", TREE / "tools/proof/__main__.py")
    assert specification and specification.loader
    module = importlib.util.module_from_spec(specification)
    specification.loader.exec_module(module)
    return module


def pytest_addoption(parser: pytest.Parser) -> None:
    """The processor of the programs; a session proves one."""
    parser.addoption("--arch", choices=windows.ARCHITECTURES, default="x64", help="processor of the programs")
    parser.addoption("--kills", type=int, default=5, help="at how many random moments the proof is killed")
    parser.addoption("--kill-seed", type=int, default=random.randrange(1 << 32), help="which moments these are (default: others each time)")
    parser.addoption("--every-step", action="store_true", help="kill every check after each entry of the list of changes")


def pytest_configure(config: pytest.Config) -> None:
    """Declares our marker."""
    config.addinivalue_line("markers", "any_processor: the same for every processor; runs with the quick x86-64 programs only")


def pytest_report_header(config: pytest.Config) -> str:
    """What repeats the random moments of this session."""
    return f"moments of kills: --kill-seed {config.getoption('--kill-seed')}"


def pytest_generate_tests(metafunc: pytest.Metafunc) -> None:
    """A test a kill, and one a check that is killed at each step."""
    if "kill_number" in metafunc.fixturenames:
        metafunc.parametrize("kill_number", range(metafunc.config.getoption("--kills")))
    if "stepped_check" in metafunc.fixturenames:
        every_step = metafunc.config.getoption("--every-step")
        metafunc.parametrize("stepped_check", sorted(proving.CHECKS - {"unit-tests"}) if every_step else ["installation", "tls"])


def pytest_collection_modifyitems(config: pytest.Config, items: list[pytest.Item]) -> None:
    """Leaves out what the other processor does."""
    if config.getoption("--arch") == "arm64":
        left_out = [item for item in items if item.get_closest_marker("any_processor")]
        items[:] = [item for item in items if item not in left_out]
        config.hook.pytest_deselected(items=left_out)


@pytest.fixture(scope="session")
def architecture(request: pytest.FixtureRequest) -> str:
    """The processor of the programs."""
    return str(request.config.getoption("--arch"))


@pytest.fixture(scope="session")
def kill_seed(request: pytest.FixtureRequest) -> int:
    """What the random moments of this session follow from."""
    return int(request.config.getoption("--kill-seed"))


@pytest.fixture(scope="session")
def kit(architecture: str, tmp_path_factory: pytest.TempPathFactory) -> Path:
    """The zip file of a kit; beside it lies the folder that it unpacks to."""
    made = load_kit().make(TREE / f"build/{architecture}-test", architecture, tmp_path_factory.mktemp("kit"))
    assert isinstance(made, Path)
    return made


@pytest.fixture(scope="session")
def machine(architecture: str) -> Iterator[windows.Windows]:
    """A connected Windows."""
    if reason := windows.available(architecture):
        pytest.exit(reason, returncode=3)
    network = isolation.enter()
    try:
        with windows.Windows(architecture, network, TREE / f"build/{architecture}-test/tests/bed/windows/agent.exe") as started:
            network.connect()
            # As on every real Windows, ours is not the only source of events.
            started.set_value("HKLM\\SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\Other", "TypesSupported", 7)
            yield started
    finally:
        isolation.leave(network)


@pytest.fixture(scope="session")
def folder(kit: Path, machine: windows.Windows) -> Path:
    """The unpacked kit, where the Windows sees it."""
    target = machine.folder / "kit"
    shutil.unpack_archive(kit, target)
    proving.elevate(target / kit.stem)
    # At its first use Wine puts the room's certificates into its registry, and makes the keys that those of its programs lie in.
    proving.prove(machine, target / kit.stem, "--only tls")
    proving.remove_report(target / kit.stem)
    return target / kit.stem
