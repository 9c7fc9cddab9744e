"""`check` and `push` with real servers: nginx under the configuration that the kit writes, and a server that errs on purpose."""

from __future__ import annotations

import http.client
import http.server
import json
import os
import shutil
import socket
import subprocess
import sys
import threading
from collections.abc import Callable, Iterator
from contextlib import ExitStack
from pathlib import Path

import pytest

from bed.services import NginxWith
from conftest import TREE, Workshop
from kit import HOST, Kit
from lumaris_publish import serverconfig, settings
from lumaris_publish.judge import Judge

DESCRIPTION = "/Halvoro/Lumaris/win11-stable.txt"
PACKAGE = "/packages/3.4.1/Halvoro.ARM64.msi"


def free_port() -> int:
    """A port that nobody listens on."""
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return int(probe.getsockname()[1])


@pytest.fixture(name="serve")
def serve_fixture(tmp_path: Path) -> Iterator[Callable[..., str]]:
    """Shows a folder with the kit's configuration for nginx; its address."""
    with ExitStack() as stack:
        def serve(kit: Kit, docroot: Path | None = None, change: Callable[[str], str] = str) -> str:
            port = free_port()
            folder = tmp_path / f"nginx-{port}"
            block = serverconfig.nginx(settings.load(kit.root), docroot or kit.root / "public", listen=f"127.0.0.1:{port}",
                                       log=str(folder / "access.log"))
            stack.enter_context(NginxWith(folder, change(block), port))
            return f"http://127.0.0.1:{port}/"
        yield serve


@pytest.fixture(name="offered")
def offered_fixture(kit: Kit, workshop: Workshop) -> Kit:
    """A publication that offers 3.4.1 on both channels."""
    kit.done("stage", workshop.package())
    kit.done("offer", "3.4.1", "--channel", "stable,beta")
    return kit


def ask(server: str, path: str, cookie: str = "") -> tuple[int, dict[str, str], bytes]:
    """One request of its own."""
    connection = http.client.HTTPConnection(server.removeprefix("http://").rstrip("/"), timeout=20)
    connection.request("GET", path, headers={"Host": HOST, **({"Cookie": cookie} if cookie else {})})
    response = connection.getresponse()
    body = response.read()
    connection.close()
    return response.status, {name.lower(): value for name, value in response.getheaders()}, body


def findings(kit: Kit, server: str, *options: str) -> list[tuple[str, str, bool]]:
    """What a check finds, by path."""
    said = kit("check", "--url", server, "--json", *options)
    found = json.loads(said.out)
    assert said.status == (0 if found["accepted"] else 1)
    return [(each["url"].removeprefix(f"http://{HOST}"), each["sentence"], each["refused"]) for each in found["findings"]]


# nginx under our configuration


@pytest.mark.parametrize("options", [(), ("--quick",)])
def test_a_whole_publication_is_accepted(offered: Kit, serve: Callable[..., str], options: tuple[str, ...]) -> None:
    server = serve(offered)
    assert findings(offered, server, *options) == []
    said = offered.done("check", "--url", server, *options)
    assert "6 descriptions and 1 packages" in said.out and "clients accept everything\nnext: lumaris-publish fleet" in said.out


def test_nginx_sends_what_clients_and_proxies_need(offered: Kit, serve: Callable[..., str]) -> None:
    server = serve(offered)
    for path in (DESCRIPTION, f"{DESCRIPTION}.minisig", "/Halvoro/Lumaris-beta.txt"):
        status, headers, body = ask(server, path)
        assert (status, headers["content-type"], headers["cache-control"]) == (200, "text/plain", "no-cache")
        assert body == offered.served(path)
    status, headers, body = ask(server, PACKAGE)
    assert (status, headers["content-type"], headers["cache-control"]) == (200, "application/octet-stream", "public, max-age=31536000, immutable")
    assert body == offered.served(PACKAGE)
    assert ask(server, f"{PACKAGE}.minisig")[1]["content-type"] == "text/plain"


@pytest.mark.parametrize("path", ["/sets/000001/Halvoro/Lumaris-beta.txt", "/current/Halvoro/Lumaris-beta.txt", "/.set/etc/passwd", "/publish.toml",
                                  "/packages/", "/packages/../../publish.toml", "/Halvoro/Lumaris/win7-stable.txt", "/"])
def test_nginx_shows_nothing_else(offered: Kit, serve: Callable[..., str], path: str) -> None:
    assert ask(serve(offered), path)[0] in (400, 403, 404)


@pytest.mark.parametrize("cookie", ["lumaris_set=999999", "lumaris_set=../../..", "lumaris_set=", "lumaris_set=000001/..", "other=1"])
def test_a_cookie_that_names_no_set_gets_the_current_one(offered: Kit, serve: Callable[..., str], cookie: str) -> None:
    status, _, body = ask(serve(offered), DESCRIPTION, cookie)
    assert (status, body) == (200, offered.served(DESCRIPTION))


def test_a_client_that_asks_across_a_switch_gets_files_that_belong_together(offered: Kit, workshop: Workshop, serve: Callable[..., str],
                                                                            tmp_path: Path) -> None:
    server = serve(offered)
    _, headers, signature = ask(server, f"{DESCRIPTION}.minisig")
    offered.done("stage", workshop.package("3.4.2"))
    offered.done("offer", "3.4.2", "--channel", "stable")
    _, _, content = ask(server, DESCRIPTION, headers["set-cookie"].partition(";")[0])
    assert content.startswith(b"3040100\n")
    (tmp_path / "c").write_bytes(content)
    (tmp_path / "c.minisig").write_bytes(signature)
    with Judge(offered.key.line) as clients:
        assert clients.description(tmp_path / "c", tmp_path / "c.minisig").what == "installs"
    # A client that begins now, or keeps no cookies, gets the new one.
    assert ask(server, DESCRIPTION)[2].startswith(b"3040200\n")


def test_clients_in_a_loop_never_see_half_of_a_switch(offered: Kit, workshop: Workshop, serve: Callable[..., str], tmp_path: Path) -> None:
    server = serve(offered)
    offered.done("stage", workshop.package("3.4.2"))
    seen: list[str] = []
    stop = threading.Event()

    def client(number: int) -> None:
        content, signature = tmp_path / f"{number}.txt", tmp_path / f"{number}.txt.minisig"
        with Judge(offered.key.line) as clients:
            while not stop.is_set():
                _, headers, body = ask(server, f"{DESCRIPTION}.minisig")
                signature.write_bytes(body)
                content.write_bytes(ask(server, DESCRIPTION, headers["set-cookie"].partition(";")[0])[2])
                said = clients.description(content, signature)
                seen.append(said.message or f"{said.version:x}")
    threads = [threading.Thread(target=client, args=(number,)) for number in range(2)]
    for thread in threads:
        thread.start()
    try:
        for turn in range(10):
            offered.done("offer", "3.4.1" if turn % 2 else "3.4.2", "--channel", "stable", "--accept", "there and back")
            wanted = len(seen) + 6
            while len(seen) < wanted and all(thread.is_alive() for thread in threads):
                stop.wait(0.005)
    finally:
        stop.set()
        for thread in threads:
            thread.join()
    assert set(seen) == {"3040100", "3040200"}, set(seen)


# A server that errs


def replace(file: Path, content: bytes) -> None:
    """Writes over a file that others may share."""
    file.unlink(missing_ok=True)
    file.write_bytes(content)


@pytest.fixture(name="copy")
def copy_fixture(offered: Kit, tmp_path: Path) -> Path:
    """A copy of what is shown, to damage."""
    copy = tmp_path / "copy"
    shutil.copytree(offered.root / "public", copy, symlinks=True)
    return copy


def test_a_description_that_is_missing_or_unsigned_is_refused(offered: Kit, copy: Path, serve: Callable[..., str]) -> None:
    server = serve(offered, copy)
    (copy / DESCRIPTION.lstrip("/")).unlink()
    (copy / "Halvoro/Lumaris/win10-stable.txt.minisig").unlink()
    replace(copy / "Halvoro/Lumaris-stable.txt", b"3040900\nx\nhttp://h/\n")
    assert findings(offered, server) == [(DESCRIPTION, "404", True), ("/Halvoro/Lumaris/win10-stable.txt.minisig", "404", True),
                                         ("/Halvoro/Lumaris-stable.txt", "Invalid Minisign signature", True)]


def test_a_package_that_is_missing_cut_off_or_exchanged_is_refused(offered: Kit, copy: Path, serve: Callable[..., str]) -> None:
    server = serve(offered, copy)
    package = copy / PACKAGE.lstrip("/")
    content = package.read_bytes()
    replace(package, content[:-1])
    short = (PACKAGE, f"has {len(content) - 1:,} bytes, and {len(content):,} were signed", True)
    assert findings(offered, server) == [(PACKAGE, "Invalid Minisign signature", True), short]
    assert findings(offered, server, "--quick") == [short]
    replace(package, b"x" + content[1:])
    assert findings(offered, server) == [(PACKAGE, "Invalid Minisign signature", True)]
    package.unlink()
    assert findings(offered, server) == findings(offered, server, "--quick") == [(PACKAGE, "404", True)]
    (copy / f"{PACKAGE.lstrip('/')}.minisig").unlink()
    assert findings(offered, server, "--quick") == [(f"{PACKAGE}.minisig", "404", True)]


def test_a_package_that_is_larger_than_clients_take_is_refused(offered: Kit, copy: Path, serve: Callable[..., str], workshop: Workshop) -> None:
    server = serve(offered, copy)
    package = copy / PACKAGE.lstrip("/")
    content = package.read_bytes()
    replace(package, content)
    os.truncate(package, 60_000_000)
    package.with_name(package.name + ".minisig").unlink()
    workshop.key.sign(package)
    assert findings(offered, server) == [(PACKAGE, "Failed to load content: package larger than 50331648 bytes", True)]
    assert (PACKAGE, "has 60,000,000 bytes, and clients break a download off after 50,331,648", True) in findings(offered, server, "--quick")


def test_a_package_under_another_key_or_a_legacy_signature_is_refused(offered: Kit, copy: Path, serve: Callable[..., str], workshop: Workshop) -> None:
    server = serve(offered, copy)
    package = copy / PACKAGE.lstrip("/")
    package.with_name(package.name + ".minisig").unlink()
    workshop.other_key.sign(package)
    assert findings(offered, server) == findings(offered, server, "--quick") == [(PACKAGE, "Untrusted Minisign key", True)]
    workshop.key.sign(package, legacy=True)
    assert findings(offered, server) == findings(offered, server, "--quick") == [(PACKAGE, "Unsupported Minisign signature", True)]


def test_a_number_whose_last_byte_is_not_0_is_refused(offered: Kit, copy: Path, serve: Callable[..., str], workshop: Workshop) -> None:
    server = serve(offered, copy)
    file = copy / DESCRIPTION.lstrip("/")
    replace(file, file.read_bytes().replace(b"3040100", b"30401000"))
    file.with_name(file.name + ".minisig").unlink()
    workshop.key.sign(file)
    found = findings(offered, server)
    assert (DESCRIPTION, "offers 0x30401000, whose last byte is not 0: machines would install it again at every run", True) not in found
    assert (DESCRIPTION, "offers 48.64.16, and this publication 3.4.1: push it", False) in found
    replace(file, file.read_bytes().replace(b"30401000", b"3040101"))
    workshop.key.sign(file)
    assert (DESCRIPTION, "offers 0x03040101, whose last byte is not 0: machines would install it again at every run", True) in findings(offered, server)


def test_an_old_set_on_the_server_is_remarked(offered: Kit, copy: Path, serve: Callable[..., str], workshop: Workshop) -> None:
    server = serve(offered, copy)
    offered.done("stage", workshop.package("3.4.2"))
    offered.done("offer", "3.4.2", "--channel", "stable")
    found = findings(offered, server)
    assert len(found) == 3 and all(not refused and "push it" in sentence for _, sentence, refused in found)


def test_descriptions_that_proxies_may_keep_are_remarked(offered: Kit, serve: Callable[..., str]) -> None:
    found = findings(offered, serve(offered, change=lambda block: block.replace('add_header Cache-Control "no-cache";', "")))
    assert len(found) == 12 and all(not refused and "no-cache" in sentence for _, sentence, refused in found)


def test_a_redirect_is_followed_and_remarked(offered: Kit, serve: Callable[..., str]) -> None:
    target = serve(offered)
    server = serve(offered, change=lambda block: block.replace("location /packages/ {", f"location /packages/ {{ return 302 {target[:-1]}$uri;"))
    found = findings(offered, server)
    assert [(path, refused) for path, _, refused in found] == [(f"{PACKAGE}.minisig", False), (PACKAGE, False)]


def test_a_server_that_does_not_answer_is_refused(offered: Kit) -> None:
    found = findings(offered, f"http://127.0.0.1:{free_port()}/")
    assert len(found) == 6 and all(refused and "does not answer" in sentence for _, sentence, refused in found)


def test_an_address_that_is_none_is_refused(offered: Kit) -> None:
    offered.refused("address", "check", "--url", "updates")


class HalfServer(http.server.BaseHTTPRequestHandler):
    """Sends files without their length, and ends packages in the middle."""

    root: Path

    def do_GET(self) -> None:  # noqa: N802
        """Any file."""
        content = (self.root / self.path.lstrip("/")).read_bytes()
        self.send_response(200)
        self.send_header("Cache-Control", "no-cache")
        self.end_headers()
        self.wfile.write(content[:len(content) // 2] if self.path.endswith(".msi") else content)

    def log_message(self, *_: object) -> None:
        """Nothing."""


def test_a_package_that_ends_in_the_middle_is_refused(offered: Kit) -> None:
    HalfServer.root = offered.root / "public"
    with http.server.ThreadingHTTPServer(("127.0.0.1", 0), HalfServer) as server:
        thread = threading.Thread(target=server.serve_forever)
        thread.start()
        found = findings(offered, f"http://127.0.0.1:{server.server_port}/")
        server.shutdown()
        thread.join()
    assert ("Invalid Minisign signature", True) in [(sentence, refused) for _, sentence, refused in found]
    assert any("without its length" in sentence for _, sentence, _ in found)


# Pushing


def test_a_push_makes_a_server_that_clients_accept(offered: Kit, workshop: Workshop, serve: Callable[..., str], tmp_path: Path) -> None:
    there = tmp_path / "there"
    there.mkdir()
    offered.done("push", str(there))
    server = serve(offered, there)
    assert findings(offered, server) == []
    offered.done("stage", workshop.package("3.4.2"))
    offered.done("offer", "3.4.2", "--channel", "beta")
    offered.done("push", f"{there}/")
    assert findings(offered, server) == []
    assert ask(server, "/Halvoro/Lumaris-beta.txt")[2].startswith(b"3040200\n")
    assert "push set 000002" in offered.done("log").out


def test_a_plain_push_holds_files_alone(offered: Kit, serve: Callable[..., str], tmp_path: Path) -> None:
    there = tmp_path / "there"
    there.mkdir()
    offered.done("push", str(there), "--plain")
    assert not [path for path in there.rglob("*") if path.is_symlink()] and not (there / "sets").exists()
    assert (there / DESCRIPTION.lstrip("/")).read_bytes() == offered.served(DESCRIPTION)
    plain = "server { listen 127.0.0.1:%d; root %s; location /Halvoro { add_header Cache-Control no-cache; } }"
    port = free_port()
    with NginxWith(tmp_path / "plain", plain % (port, there), port):
        assert findings(offered, f"http://127.0.0.1:{port}/") == []


def test_a_plain_push_sees_an_offer_of_the_same_second(offered: Kit, workshop: Workshop, tmp_path: Path) -> None:
    """The descriptions of two versions have the same length, and then the same time, too."""
    there = tmp_path / "there"
    there.mkdir()
    offered.done("push", str(there), "--plain")
    former = (there / DESCRIPTION.lstrip("/")).read_bytes()
    offered.done("stage", workshop.package("3.4.2"))
    offered.done("offer", "3.4.2", "--channel", "stable,beta")
    for path in [*there.rglob("*.txt*"), *offered.root.rglob("*.txt*")]:
        os.utime(path, (1_750_000_000, 1_750_000_000))
    offered.done("push", str(there), "--plain")
    offer = (there / DESCRIPTION.lstrip("/")).read_bytes()
    assert offer == offered.served(DESCRIPTION) != former and len(offer) == len(former)


def test_nothing_is_pushed_before_there_is_an_offer(kit: Kit, tmp_path: Path) -> None:
    kit.refused("nothing-offered", "push", str(tmp_path))


def test_a_push_that_cannot_write_is_refused(offered: Kit) -> None:
    offered.refused("push", "push", "/proc/no/such/folder")


def test_a_dry_push_changes_nothing(offered: Kit, tmp_path: Path) -> None:
    there = tmp_path / "there"
    said = offered.done("push", str(there), "--dry-run")
    assert said.out.index("packages") < said.out.index("descriptions") < said.out.index("switch") and not there.exists()


def test_a_push_that_is_killed_leaves_the_old_set_or_the_new(offered: Kit, workshop: Workshop, tmp_path: Path) -> None:
    there = tmp_path / "there"
    there.mkdir()
    offered.done("push", str(there))
    offered.done("stage", workshop.package("3.4.2"))
    offered.done("offer", "3.4.2", "--channel", "stable,beta")
    pushed = tmp_path / "pushed"
    shutil.copytree(there, pushed, symlinks=True)
    outcomes: list[int] = []
    for number in range(1, 100):
        shutil.rmtree(there)
        shutil.copytree(pushed, there, symlinks=True)
        done = subprocess.run([sys.executable, str(TREE / "tests/publish/kill_at.py"), str(number), "--root", str(offered.root), "push", str(there)],
                              env={**os.environ, "PYTHONPATH": str(TREE / "tools/publish"), "PYTHONDONTWRITEBYTECODE": "1"},
                              capture_output=True, timeout=60, check=False)
        version = set()
        with Judge(offered.key.line) as clients:
            for content in there.glob("Halvoro/**/*.txt"):
                said = clients.description(content, Path(f"{content}.minisig"))
                assert said.what == "installs"
                version.add(said.version)
                assert said.url is not None and (there / said.url.path.lstrip("/") / "Halvoro.ARM64.msi").exists()
        assert len(version) == 1
        outcomes += version
        if done.returncode == 77:
            break
    assert done.returncode == 77 and outcomes[0] == 0x03040100 and outcomes[-1] == 0x03040200 and sorted(outcomes) == outcomes
    offered.done("push", str(there))
