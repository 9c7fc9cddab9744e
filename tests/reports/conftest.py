"""The report server with a database of either kind, and what reports are sent to it."""

from __future__ import annotations

import random
from collections.abc import Iterator
from pathlib import Path

import pytest
from running import Postgres, Server


def pytest_addoption(parser: pytest.Parser) -> None:
    """The order, as the whole runs of the program take it."""
    parser.addoption("--shuffle", metavar="SEED", help="run the tests in the random order that follows from this text")


def pytest_collection_modifyitems(config: pytest.Config, items: list[pytest.Item]) -> None:
    """Changes the order if that is asked for."""
    if seed := config.getoption("--shuffle"):
        random.Random(seed).shuffle(items)


@pytest.fixture(scope="session", name="postgres")
def postgres_fixture() -> Iterator[Postgres]:
    """A real PostgreSQL server for the session."""
    with Postgres() as running:
        yield running


@pytest.fixture(name="database", params=["sqlite", "postgres"])
def database_fixture(request: pytest.FixtureRequest, tmp_path: Path) -> Iterator[str]:
    """A new database of each kind."""
    if request.param == "sqlite":
        yield str(tmp_path / "reports.db")
        return
    postgres: Postgres = request.getfixturevalue("postgres")
    name = postgres.new_database()
    yield name
    postgres.drop_database(name)


@pytest.fixture(name="server")
def server_fixture(database: str, tmp_path: Path) -> Iterator[Server]:
    """A running report server."""
    with Server(database, tmp_path) as running:
        yield running
