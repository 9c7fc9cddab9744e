"""The judge over files that minisign signed, and over the seeds of the fuzz targets; whole runs compare it with the program."""

from __future__ import annotations

import base64
import os
from collections.abc import Iterator
from pathlib import Path

import pytest

from conftest import TREE, Workshop
from lumaris_publish.judge import Judge, Verdict
from lumaris_publish.refusal import Refusal

RUNNING = 0x03040000
PLAIN = b"3040100\nHalvoro 3.4.1\nhttp://updates.tavrin.private/packages/3.4.1/\n"


class Bench:
    """Signs texts and asks about them."""

    def __init__(self, clients: Judge, workshop: Workshop, folder: Path) -> None:
        self.clients = clients
        self.key, self.other_key = workshop.key, workshop.other_key
        self.file = folder / "content"
        self.signature = folder / "content.minisig"

    def description(self, content: bytes, *, legacy: bool = False, running: int = RUNNING) -> Verdict:
        """What a client does with a signed description."""
        self.file.write_bytes(content)
        self.key.sign(self.file, legacy=legacy)
        return self.clients.description(self.file, self.signature, running)


@pytest.fixture(name="bench")
def bench_fixture(workshop: Workshop, tmp_path: Path) -> Iterator[Bench]:
    with Judge(workshop.key.line) as clients:
        yield Bench(clients, workshop, tmp_path)


def test_a_newer_version_installs(bench: Bench) -> None:
    said = bench.description(PLAIN)
    assert (said.what, said.version, said.label, said.address) == ("installs", 0x03040100, "Halvoro 3.4.1",
                                                                   "http://updates.tavrin.private/packages/3.4.1/")
    assert said.url is not None
    assert (said.url.scheme, said.url.host, said.url.port, said.url.path) == ("http", "updates.tavrin.private", 80, "/packages/3.4.1/")


@pytest.mark.parametrize("running", [0x03040100, 0x03040101, 0xFFFFFFFF])
def test_the_same_or_an_older_version_is_nothing_to_do(bench: Bench, running: int) -> None:
    assert bench.description(PLAIN, running=running).what == "nothing"


@pytest.mark.parametrize(("content", "message"), [
    (PLAIN[:-1], "update URL unavailable"),
    (b"3040100\nx\n\n", "update URL unavailable"),
    (b"3040100\nx\nftp://h/\n", "Unrecognized scheme"),
    (b"3040100\nx\nhttp://\n", "Failed to parse URL"),
    (PLAIN + b"x" * 65536, "Failed to load content: larger than 65536 bytes"),
])
def test_a_description_that_clients_cannot_use_is_refused_in_their_words(bench: Bench, content: bytes, message: str) -> None:
    said = bench.description(content)
    assert (said.what, said.message) == ("refused", message)


def test_signatures_that_clients_refuse_are_refused_in_their_words(bench: Bench) -> None:
    assert bench.description(PLAIN, legacy=True).message == "Unsupported Minisign signature"
    bench.other_key.sign(bench.file)
    assert bench.clients.description(bench.file, bench.signature, RUNNING).message == "Untrusted Minisign key"
    bench.key.sign(bench.file)
    bench.file.write_bytes(PLAIN.replace(b"3", b"4"))
    assert bench.clients.description(bench.file, bench.signature, RUNNING).message == "Invalid Minisign signature"
    bench.signature.write_bytes(b"untrusted comment: nothing follows\n")
    assert (bench.clients.description(bench.file, bench.signature, RUNNING).message
            == "Failed to load Minisign signature: Minisign signature is too short")
    bench.signature.write_bytes(base64.b64encode(b"XD" + b"x" * 72) + b"\n")
    assert (bench.clients.description(bench.file, bench.signature, RUNNING).message
            == "Failed to load Minisign signature: not a Minisign signature")
    bench.signature.write_bytes(b"x" * 65537)
    assert (bench.clients.description(bench.file, bench.signature, RUNNING).message
            == "Failed to load Minisign signature: larger than 65536 bytes")


def test_a_signature_over_nothing_is_taken_without_the_content(bench: Bench) -> None:
    bench.description(b"")
    bench.file.write_bytes(PLAIN)
    assert bench.clients.description(bench.file, bench.signature, RUNNING).what == "nothing"
    said = bench.clients.package(bench.file, bench.signature)
    assert (said.what, said.size) == ("accepted", 0)


@pytest.mark.parametrize("size", [1, 8192, 1 << 20, (1 << 20) + 1, 3_000_000])
def test_a_package_of_any_size_is_read_ahead_or_at_once(bench: Bench, size: int) -> None:
    bench.file.write_bytes(bytes(range(251)) * (size // 251) + b"x" * (size % 251))
    bench.key.sign(bench.file)
    assert (bench.clients.package(bench.file, bench.signature).what, bench.clients.package(bench.file, bench.signature).size) == ("accepted", size)
    assert bench.clients.ask("ahead", bench.file).what == "read"
    bench.file.write_bytes(b"y")  # what was read counts
    assert bench.clients.package(bench.file, bench.signature).what == "accepted"
    assert bench.clients.package(bench.file, bench.signature).message == "Invalid Minisign signature"


def test_what_cannot_be_read_is_no_verdict(bench: Bench) -> None:
    with pytest.raises(Refusal, match="No such file"):
        bench.clients.description(bench.file, bench.signature, RUNNING)


def test_every_seed_of_the_fuzz_targets_gets_a_verdict(bench: Bench) -> None:
    seeds = 0
    for file in sorted((TREE / "fuzz/corpus/description_fuzz").iterdir()):
        assert bench.description(file.read_bytes()).what in ("installs", "nothing", "refused"), file
        seeds += 1
    bench.file.write_bytes(PLAIN)
    for file in sorted((TREE / "fuzz/corpus/signature_fuzz").iterdir()):
        assert bench.clients.description(bench.file, file, RUNNING).what == "refused", file
        seeds += 1
    for file in sorted((TREE / "fuzz/corpus/url_parser_fuzz").iterdir()):
        text = file.read_text(encoding="utf-8", errors="surrogateescape").splitlines()[0]
        assert bench.clients.address(text).what in ("understood", "refused"), file
        seeds += 1
    assert seeds > 30


@pytest.mark.parametrize("key", ["", "RWQ", "x" * 56, "A" * 56])
def test_a_key_that_is_none_ends_the_judge(key: str, capfd: pytest.CaptureFixture[str]) -> None:
    with pytest.raises(Refusal, match="public key"), Judge(key) as clients:
        clients.address("http://h/")
    assert "lumaris_judge: this is no Minisign public key" in capfd.readouterr().err


def test_a_package_that_is_larger_than_clients_take_is_refused_in_their_words(bench: Bench) -> None:
    bench.file.write_bytes(b"")
    os.truncate(bench.file, 50_331_649)  # the builds for tests take 48 MB
    bench.key.sign(bench.file)
    assert bench.clients.limit() == 50_331_648
    message = "Failed to load content: package larger than 50331648 bytes"
    assert bench.clients.package(bench.file, bench.signature).message == message
    assert bench.clients.ask("ahead", bench.file).what == "read"
    assert bench.clients.package(bench.file, bench.signature).message == message
    os.truncate(bench.file, 50_331_648)
    bench.key.sign(bench.file)
    assert bench.clients.package(bench.file, bench.signature).what == "accepted"
