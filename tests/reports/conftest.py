"""The report server with a database of either kind, and what reports are sent to it."""

from __future__ import annotations

from collections.abc import Iterator
from pathlib import Path

import pytest
from running import Postgres, Server


@pytest.fixture(scope="session", name="postgres")
def postgres_fixture() -> Iterator[Postgres]:
    """A real PostgreSQL server for the session."""
    with Postgres() as running:
        yield running


@pytest.fixture(name="database", params=["sqlite", "postgres"])
def database_fixture(request: pytest.FixtureRequest, tmp_path: Path) -> str:
    """A new database of each kind."""
    if request.param == "sqlite":
        return str(tmp_path / "reports.db")
    return str(request.getfixturevalue("postgres").new_database())


@pytest.fixture(name="server")
def server_fixture(database: str, tmp_path: Path) -> Iterator[Server]:
    """A running report server."""
    with Server(database, tmp_path) as running:
        yield running
