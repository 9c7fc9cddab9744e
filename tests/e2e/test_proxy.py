"""The way out through a real proxy that asks for user name and password."""

from __future__ import annotations

import base64
from collections.abc import Iterator

import pytest

from bed import isolation, settings
from bed.http_server import Reply
from bed.services import AuthenticatingProxy
from bed.windows import REG_EXPAND_SZ
from world import DESCRIPTION, PACKAGE, World

# This proxy says 407 to a client without a user name and a password, and 401 to one with wrong ones.
ASKED = "Failed to load Minisign signature: 407"
REFUSED = "Failed to load Minisign signature: 401"


@pytest.fixture
def proxy(world: World) -> Iterator[AuthenticatingProxy]:
    """The machine's proxy."""
    with AuthenticatingProxy(world.bed.network.work / "proxy", "lumaris", "Geslo-1") as running:
        settings.set_proxy(world.machine, f"{isolation.PROXY_HOST}:8118")
        yield running


def credentials(world: World, user: str | None, password: str | None) -> None:
    if user is not None:
        world.machine.set_value(settings.PRODUCT_KEY, "ProxyUporabnik", user)
    if password is not None:
        world.machine.set_value(settings.PRODUCT_KEY, "ProxyGeslo", password)


@pytest.mark.usefixtures("proxy")
def test_the_registry_s_user_name_and_password_open_the_proxy(world: World) -> None:
    world.offer()
    credentials(world, "lumaris", "Geslo-1")
    world.assert_installs(world.run())
    assert world.targets == [DESCRIPTION + ".minisig", DESCRIPTION, PACKAGE + ".minisig", PACKAGE]
    # The proxy keeps the password to itself.
    assert all(request.header("Proxy-Authorization") is None for request in world.requests)


@pytest.mark.usefixtures("proxy")
def test_an_expandable_user_name_is_expanded(world: World) -> None:
    world.offer()
    credentials(world, None, "Geslo-1")
    # %OS% is "Windows_NT", which this proxy does not know.
    world.machine.set_value(settings.PRODUCT_KEY, "ProxyUporabnik", "%OS%", REG_EXPAND_SZ)
    world.assert_failed(world.run(), REFUSED)
    world.machine.set_value(settings.PRODUCT_KEY, "ProxyUporabnik", "lumaris", REG_EXPAND_SZ)
    world.assert_installs(world.run())


@pytest.mark.usefixtures("proxy")
@pytest.mark.parametrize(("user", "password", "message"), [
    (None, None, ASKED),
    (None, "Geslo-1", ASKED),
    ("lumaris", None, ASKED),
    ("lumaris", "Geslo-2", REFUSED),
    ("somebody", "Geslo-1", REFUSED),
])
def test_without_both_of_them_the_proxy_refuses(world: World, user: str | None, password: str | None,
                                                message: str) -> None:
    world.offer()
    credentials(world, user, password)
    world.assert_failed(world.run(), message)
    assert world.targets == []


def test_without_a_proxy_they_are_kept_back(world: World) -> None:
    world.offer()
    credentials(world, "lumaris", "Geslo-1")
    world.assert_installs(world.run())
    for request in world.requests:
        assert request.header("Proxy-Authorization") is None
        assert request.header("Authorization") is None


def test_a_proxy_that_nobody_runs(world: World) -> None:
    settings.set_proxy(world.machine, f"{isolation.PROXY_HOST}:8119")
    world.assert_failed(world.run(), "Failed to load Minisign signature: WinHttpSendRequest failed: Error 12029")
    assert world.targets == []


@pytest.mark.usefixtures("proxy")
def test_a_refused_target_is_the_proxy_s_answer(world: World) -> None:
    credentials(world, "lumaris", "Geslo-1")
    with world.server_stopped():
        world.assert_failed(world.run(), "Failed to load Minisign signature: 500")


@pytest.mark.any_processor
def test_whoever_answers_407_is_offered_name_and_password(world: World) -> None:
    """This platform does not ask whether there is a proxy at all; the documents say so to administrators."""
    credentials(world, "lumaris", "Geslo-1")
    world.answer(DESCRIPTION + ".minisig", Reply(b"", "407 Proxy Authentication Required", ('Proxy-Authenticate: Basic realm="x"',)))
    world.assert_failed(world.run(), ASKED)
    first, *others = [each.header("Proxy-Authorization") for each in world.requests]
    assert first is None
    assert others
    assert set(others) == {"Basic " + base64.b64encode(b"lumaris:Geslo-1").decode()}
