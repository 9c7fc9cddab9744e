"""A kit of the build under test, and a Windows in which nothing but the proof acts."""

from __future__ import annotations

import importlib.util
import sys
from collections.abc import Iterator
from pathlib import Path
from types import ModuleType

import pytest

TREE = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TREE / "tests"))

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


def pytest_configure(config: pytest.Config) -> None:
    """Declares our marker."""
    config.addinivalue_line("markers", "any_processor: the same for every processor; runs with the quick x86-64 programs only")


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
