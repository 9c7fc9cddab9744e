"""`init`: what a publication may be for, and the servers' configurations."""

from __future__ import annotations

import shutil
import subprocess
import xml.etree.ElementTree as ElementTree
from collections.abc import Callable
from pathlib import Path

import pytest

from bed.services import NginxWith
from conftest import Workshop
from kit import HOST, Kit
from lumaris_publish import settings


def make(kit: Kit, *options: str) -> list[str]:
    """The refusals of an `init` with these options in the place of others."""
    root = kit.root.with_name("other")
    said = kit("init", str(root), "--host", HOST, "--public-key", kit.key.line, *options)
    assert (said.status == 1) == bool(said.refusals) and (not said.refusals or not root.exists()), said
    return said.refusals


def test_a_new_publication_can_be_read_again(kit: Kit) -> None:
    known = settings.load(kit.root)
    assert (known.host, known.public_key) == (HOST, kit.key.line)
    assert (known.channels, known.windows, known.variants) == (("stable", "beta"), ("win11", "win10"), ("",))
    assert settings.load(kit.root).text() == (kit.root / "publish.toml").read_text(encoding="utf-8")


def test_a_public_key_may_be_a_file(kit: Kit) -> None:
    assert make(kit, "--public-key", str(kit.key.public)) == []


@pytest.mark.parametrize("url", ["http://user@h/packages/", "http://user:geslo@h/packages/", "http://h/packages/?v=1", "http://h/packages/#x",
                                 "ftp://h/packages/", "file:///packages/", "ws://h/packages/", "h/packages/", "http://h/pack ages/", "http://",
                                 "http://h/pakête/", "http://h:99999/packages/", "//h/packages/", "http://h/\tx/", "http://h/a^b/"])
def test_an_address_of_packages_that_clients_cannot_use_is_refused(kit: Kit, url: str) -> None:
    assert make(kit, "--packages", url) == ["address"]


@pytest.mark.parametrize("url", ["http://h/", "https://cdn.tavrin.private/halvoro", "http://h:8080/packages/", "HTTP://h/p/", "http://h:80/p/",
                                 "http://[::1]/p/", "http://127.0.0.1/p/"])
def test_an_address_of_packages_that_clients_can_use_is_taken(kit: Kit, url: str) -> None:
    assert make(kit, "--packages", url) == []


@pytest.mark.parametrize(("options", "fault"), [
    (("--channels", "a/b"), "channel-name"), (("--channels", "a\\b"), "channel-name"), (("--channels", "a?b"), "channel-name"),
    (("--channels", "stable,Stable"), "channel-name"), (("--channels", ","), "channel-name"), (("--channels", "büta"), "channel-name"),
    (("--channels", "a b"), "channel-name"), (("--windows", "win12"), "windows-name"), (("--windows", "win11,win11"), "windows-name"),
    (("--windows", "Win11"), "windows-name"), (("--variants=-s/l",), "variant-name"), (("--variants=-sl,-SL",), "variant-name"),
    (("--host", "http://h/"), "host"), (("--host", "h:80"), "host"), (("--host", ""), "host"), (("--host=-h",), "host"),
    (("--public-key", "RWQ"), "public-key"), (("--public-key", "x" * 56), "public-key"),
])
def test_what_clients_would_not_follow_is_refused(kit: Kit, options: tuple[str, ...], fault: str) -> None:
    assert make(kit, *options) == [fault]


def test_a_folder_that_is_in_use_is_refused(kit: Kit) -> None:
    kit.refused("exists", "init", str(kit.root), "--host", HOST, "--public-key", kit.key.line)


def test_a_dry_run_makes_nothing(kit: Kit) -> None:
    kit.done("init", str(kit.root.with_name("dry")), "--host", HOST, "--public-key", kit.key.line, "--dry-run")
    assert not kit.root.with_name("dry").exists()


@pytest.mark.parametrize("change", [("host", "hosts"), ('"stable"', "7"), ("[", ""), ('architecture = "arm64"', 'architecture = "mips"'),
                                    ("authenticode = false", 'authenticode = "no"'), ('bridge_host = ""', 'bridge_host = "h"')])
def test_settings_that_cannot_be_understood_are_refused(kit: Kit, change: tuple[str, str]) -> None:
    file = kit.root / "publish.toml"
    file.write_text(file.read_text(encoding="utf-8").replace(*change), encoding="utf-8")
    kit.refused("settings", "status")


# Servers


def test_nginx_takes_the_configuration(kit: Kit, tmp_path: Path) -> None:
    block = (kit.root / "server/nginx.conf").read_text(encoding="utf-8").replace("/var/log/nginx/", f"{tmp_path}/").replace(
        "listen 80;", "listen 127.0.0.1:18080;")
    nginx = NginxWith(tmp_path / "nginx", block, 18080)
    done = subprocess.run([*nginx._arguments, "-t"], capture_output=True, text=True, timeout=30, check=False)  # noqa: SLF001
    assert done.returncode == 0 and "warn" not in done.stderr, done.stderr


def test_apache_takes_the_configuration(kit: Kit, tmp_path: Path) -> None:
    modules = "\n".join(f"LoadModule {name}_module /usr/lib/apache2/modules/mod_{name}.so" for name in
                        ("mpm_event", "authz_core", "headers", "mime", "dir", "alias"))
    configuration = tmp_path / "apache.conf"
    configuration.write_text(f"ServerRoot {tmp_path}\nServerName localhost\n{modules}\nTypesConfig /dev/null\nDefine APACHE_LOG_DIR {tmp_path}\n"
                             f"PidFile {tmp_path}/pid\nErrorLog {tmp_path}/error.log\n"
                             + (kit.root / "server/apache.conf").read_text(encoding="utf-8"), encoding="utf-8")
    done = subprocess.run(["/usr/sbin/apache2", "-t", "-f", str(configuration)], capture_output=True, text=True, timeout=30, check=False)
    assert done.returncode == 0 and "Syntax OK" in done.stderr, done.stderr


def test_iis_is_given_the_type_of_signatures(kit: Kit) -> None:
    root = ElementTree.parse(kit.root / "server/web.config").getroot()
    types = {each.get("fileExtension"): each.get("mimeType") for each in root.iter("mimeMap")}
    assert types == {".minisig": "text/plain", ".msi": "application/octet-stream"}
    assert {each.get("path") for each in root.iter("location")} == {"Halvoro", "packages"}


def test_the_rules_for_a_cdn_name_the_host(kit: Kit) -> None:
    assert f"http://{HOST}/" in (kit.root / "server/cdn.txt").read_text(encoding="utf-8")


# The command line


def test_every_word_has_help_with_an_example_and_a_dry_run(kit: Kit) -> None:
    words = ("init", "stage", "offer", "promote", "withdraw", "status", "log", "check", "push", "fleet")
    for word in words:
        said = kit(word, "--help")
        assert said.status == 0 and "example: lumaris-publish" in said.out and "--dry-run" in said.out, word
    for word in ("new", "rotate", "drill"):
        said = kit("keys", word, "--help")
        assert said.status == 0 and "example: lumaris-publish keys" in said.out and "--dry-run" in said.out, word
    assert kit("nonsense").status == 2


def test_a_new_kit_is_used_from_its_own_folder(new_kit: Callable[..., Kit], workshop: Workshop, monkeypatch: pytest.MonkeyPatch) -> None:
    kit = new_kit()
    monkeypatch.chdir(kit.root)
    kit.root = Path(".")
    kit.done("stage", workshop.package())
    assert shutil.which("minisign") and Path("public/packages/3.4.1/Halvoro.ARM64.msi").exists()
