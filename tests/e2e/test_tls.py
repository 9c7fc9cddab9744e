"""Packages over TLS: the certificate's authority, its name, and ports."""

from __future__ import annotations

import pytest

from bed import certificates
from bed.certificates import Certificate
from bed.http_server import ScriptedServer
from world import PACKAGE_CONTENT, Bed, World

HOST = "packages.tavrin.example"
PATH = "/files/Halvoro.ARM64.msi"
REFUSED = "Failed to load Minisign signature: WinHttpSendRequest failed: Error 12157"


@pytest.fixture(scope="session")
def trusted(bed: Bed) -> Certificate:
    """A certificate for the package server from an authority that the machine trusts."""
    return certificates.make_server_certificate(bed.network.work, bed.authority, HOST, name="trusted")


def offer(world: World, server: ScriptedServer, url: str) -> None:
    world.offer(url=url, package=None)
    world.publish(PATH, PACKAGE_CONTENT, server=server)


@pytest.mark.parametrize(("port", "url"), [
    (443, "https://packages.tavrin.example/files/"),
    (443, "HTTPS://packages.tavrin.example/files"),
    (8443, "https://packages.tavrin.example:8443/files/"),
    (443, "wss://packages.tavrin.example/files/"),
])
def test_a_package_comes_over_tls(world: World, trusted: Certificate, port: int, url: str) -> None:
    server = world.serve(port, trusted)
    offer(world, server, url)
    world.assert_installs(world.run())
    assert server.targets == [PATH + ".minisig", PATH]


def test_plain_http_to_a_tls_port_is_not_turned_into_tls(world: World, trusted: Certificate) -> None:
    server = world.serve(443, trusted)
    offer(world, server, "http://packages.tavrin.example:443/files/")
    run = world.run()
    assert run.exit_code == 0x80000001
    assert server.targets == []


def test_an_authority_that_nobody_trusts_is_refused(world: World) -> None:
    work = world.bed.network.work
    authority = certificates.make_authority(work, "stranger")
    server = world.serve(443, certificates.make_server_certificate(work, authority, HOST, name="strange"))
    offer(world, server, "https://packages.tavrin.example/files/")
    world.assert_failed(world.run(), REFUSED)
    assert server.targets == []


def test_a_certificate_for_another_name_is_refused(world: World) -> None:
    work = world.bed.network.work
    other = certificates.make_server_certificate(work, world.bed.authority, "other.tavrin.example", name="other-name")
    server = world.serve(443, other)
    offer(world, server, "https://packages.tavrin.example/files/")
    world.assert_failed(world.run(), REFUSED)
    assert server.targets == []


def test_a_good_certificate_does_not_replace_the_signature(world: World, trusted: Certificate) -> None:
    server = world.serve(443, trusted)
    offer(world, server, "https://packages.tavrin.example/files/")
    world.publish(PATH, b"x" + PACKAGE_CONTENT[1:], signature=world.sign(PACKAGE_CONTENT), server=server)
    world.assert_failed(world.run(), "Invalid Minisign signature")
