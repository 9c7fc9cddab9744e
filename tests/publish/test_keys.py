"""`keys`: a pair, the passage to another one, and the yearly exercise."""

from __future__ import annotations

import json
import os
from collections.abc import Callable
from pathlib import Path

import pytest

from bed.signing import KeyPair
from conftest import Workshop
from kit import Kit
from lumaris_publish import settings

NEW_HOST = "newhost.tavrin.private"


@pytest.mark.parametrize("password", ["geslo", None])
def test_a_new_pair_signs(kit: Kit, tmp_path: Path, password: str | None, workshop: Workshop, new_kit: Callable[..., Kit]) -> None:
    (tmp_path / "password").write_text(f"{password}\n", encoding="ascii")
    opened = ["--password-file", str(tmp_path / "password")] if password else []
    said = kit.done("keys", "new", str(tmp_path / "mine"), *(opened or ["--without-password"]))
    assert "two devices" in said.out
    assert os.stat(tmp_path / "mine.key").st_mode & 0o077 == 0
    pair = KeyPair(tmp_path / "mine.pub", tmp_path / "mine.key")
    other = new_kit(name="mine", key=pair)
    other.done("stage", workshop.package("3.4.1", program=workshop.program(key=pair)), *opened)


def test_a_key_is_never_written_over(kit: Kit, tmp_path: Path) -> None:
    (tmp_path / "mine.key").write_text("the only one", encoding="ascii")
    kit.refused("exists", "keys", "new", str(tmp_path / "mine"), "--without-password")
    assert (tmp_path / "mine.key").read_text(encoding="ascii") == "the only one"


def test_an_empty_password_is_refused(kit: Kit, tmp_path: Path) -> None:
    (tmp_path / "password").write_text("\n", encoding="ascii")
    kit.refused("password", "keys", "new", str(tmp_path / "mine"), "--password-file", str(tmp_path / "password"))
    assert not (tmp_path / "mine.key").exists()


def test_a_dry_run_makes_no_key(kit: Kit, tmp_path: Path) -> None:
    kit.done("keys", "new", str(tmp_path / "mine"), "--without-password", "--dry-run")
    assert not (tmp_path / "mine.key").exists()


def test_a_drill_tries_the_copy_and_stands_in_the_log(kit: Kit, workshop: Workshop) -> None:
    assert "keys drill" in kit.done("status").out
    kit.done("keys", "drill", "--key", str(workshop.key.secret))
    assert "keys drill" not in kit.done("status").out
    assert [entry["what"] for entry in json.loads(kit.done("log", "--json").out)] == ["drill"]


def test_a_drill_with_another_key_is_refused(kit: Kit, workshop: Workshop, tmp_path: Path) -> None:
    assert "find another copy today" in kit.refused("drill", "keys", "drill", "--key", str(workshop.other_key.secret)).err
    kit.refused("key", "keys", "drill", "--key", str(tmp_path / "absent.key"))


# Passing to another key


def test_a_host_that_was_left_takes_the_bridge_and_nothing_else(kit: Kit, workshop: Workshop) -> None:
    kit.done("stage", workshop.package())
    new_root = kit.root.with_name("new")
    said = kit.done("keys", "rotate", str(new_root), "--host", NEW_HOST, "--public-key", workshop.other_key.line)
    assert "build the bridge release" in said.out
    assert (settings.load(new_root).host, settings.load(new_root).public_key) == (NEW_HOST, workshop.other_key.line)
    assert settings.load(new_root).packages == f"http://{NEW_HOST}/packages/"
    # An ordinary release would leave machines behind.
    said = kit("stage", workshop.package("3.4.2"))
    assert said.refusals == ["other-key", "other-host"]
    bridge = workshop.package("3.4.3", program=workshop.program("3.4.3", key=workshop.other_key, host=NEW_HOST))
    kit.done("stage", bridge)
    kit.done("offer", "3.4.3", "--channel", "stable,beta")
    # The same package is what the new host begins with.
    new = Kit(new_root, workshop.other_key, kit.capfd)
    new.done("stage", bridge)
    new.done("offer", "3.4.3", "--channel", "stable,beta")
    assert kit.served("packages/3.4.3/Halvoro.ARM64.msi") == new.served("packages/3.4.3/Halvoro.ARM64.msi")
    assert "rotate to newhost.tavrin.private" in kit.done("log").out


def test_a_key_cannot_be_passed_on_at_the_same_host_or_to_itself(kit: Kit, workshop: Workshop) -> None:
    host = settings.load(kit.root).host
    new_root = str(kit.root.with_name("new"))
    kit.refused("same-host", "keys", "rotate", new_root, "--host", host, "--public-key", workshop.other_key.line)
    kit.refused("same-key", "keys", "rotate", new_root, "--host", NEW_HOST, "--public-key", workshop.key.line)
    kit.refused("exists", "keys", "rotate", str(kit.root), "--host", NEW_HOST, "--public-key", workshop.other_key.line)
    kit.done("keys", "rotate", new_root, "--host", NEW_HOST, "--public-key", workshop.other_key.line, "--dry-run")
    kit.done("keys", "rotate", new_root, "--host", NEW_HOST, "--public-key", workshop.other_key.line)
    kit.refused("rotated", "keys", "rotate", f"{new_root}2", "--host", f"x{NEW_HOST}", "--public-key", workshop.test_key.line)
