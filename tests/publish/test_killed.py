"""Killed at any step, the publication is the old one or the new one, and the next call completes or removes what was left."""

from __future__ import annotations

import json
import os
import shutil
import signal
import subprocess
import sys
from pathlib import Path

import pytest

from conftest import TREE, Workshop
from kit import Kit
from lumaris_publish.judge import Judge

ENDED = 77
PATHS = [f"/Halvoro/Lumaris{end}-{channel}.txt" for channel in ("stable", "beta") for end in ("/win11", "/win10", "")]


def run_killed(kit: Kit, number: int, *arguments: str) -> int:
    """Runs the kit, killed before its change with this number."""
    done = subprocess.run([sys.executable, str(TREE / "tests/publish/kill_at.py"), str(number), "--root", str(kit.root), *arguments, "--key",
                           str(kit.key.secret)], env={**os.environ, "PYTHONPATH": str(TREE / "tools/publish"), "PYTHONDONTWRITEBYTECODE": "1"},
                          capture_output=True, timeout=60, check=False)
    assert done.returncode in (-signal.SIGKILL, ENDED), done.stderr.decode()
    return done.returncode


def seen(kit: Kit) -> list[int]:
    """The versions that clients see, by path; a description that they refuse is a failure."""
    versions = []
    with Judge(kit.key.line) as clients:
        for path in PATHS:
            content = kit.root / "public" / path.lstrip("/")
            said = clients.description(content, Path(f"{content}.minisig"))
            assert said.what == "installs", said
            versions.append(said.version)
    return versions


def put_back(copy: Path, kit: Kit) -> None:
    """The publication as it was before."""
    shutil.rmtree(kit.root)
    shutil.copytree(copy, kit.root, symlinks=True)


@pytest.fixture(name="offered")
def offered_fixture(kit: Kit, workshop: Workshop) -> Kit:
    """A publication that offers 3.4.1, and has 3.4.2."""
    for version in ("3.4.1", "3.4.2"):
        kit.done("stage", workshop.package(version))
    kit.done("offer", "3.4.1", "--channel", "stable,beta")
    return kit


def test_an_offer_that_is_killed_is_done_or_not_done(offered: Kit, tmp_path: Path) -> None:
    copy = tmp_path / "copy"
    shutil.copytree(offered.root, copy, symlinks=True)
    outcomes = []
    for number in range(1, 500):
        put_back(copy, offered)
        ended = run_killed(offered, number, "offer", "3.4.2", "--channel", "stable,beta")
        versions = seen(offered)
        assert versions in ([0x03040100] * 6, [0x03040200] * 6)
        outcomes.append(versions[0])
        # The next call finds everything in order, and the log says what clients see.
        offered.done("stage", offered.root / "public/packages/3.4.1/Halvoro.ARM64.msi")
        entries = json.loads(offered.done("log", "--json").out)
        assert [entry["version"] for entry in entries[4:]] == (["3.4.2"] * 2 if versions[0] == 0x03040200 else []), number
        left = [name for name in offered.tree() if ".new-" in name or "pending" in name or "partial" in name]
        assert not left, number
        if ended == ENDED:
            break
    assert ended == ENDED
    # Old up to the switch, new from there on.
    switch = outcomes.index(0x03040200)
    assert switch > 20 and set(outcomes[switch:]) == {0x03040200} and len(outcomes) - switch > 3


def test_a_staging_that_is_killed_is_done_or_not_done(kit: Kit, workshop: Workshop, tmp_path: Path) -> None:
    copy = tmp_path / "copy"
    shutil.copytree(kit.root, copy, symlinks=True)
    package = workshop.package()
    outcomes = []
    for number in range(1, 500):
        put_back(copy, kit)
        ended = run_killed(kit, number, "stage", str(package))
        outcomes.append((kit.root / "state/packages/3.4.1.json").exists())
        # The same command again completes it, and the log has it once.
        kit.done("stage", package)
        kit.done("offer", "3.4.1", "--channel", "stable,beta")
        assert seen(kit) == [0x03040100] * 6
        assert [entry["what"] for entry in json.loads(kit.done("log", "--json").out)] == ["stage", "offer", "offer"], number
        if ended == ENDED:
            break
    assert ended == ENDED
    assert not outcomes[0] and outcomes[-1] and sorted(outcomes) == outcomes


def test_a_line_of_the_log_that_was_cut_off_is_completed(offered: Kit) -> None:
    log = offered.root / "log.jsonl"
    with log.open("a", encoding="utf-8") as file:
        file.write('{"id": "5", "time": 17')
    offered.done("offer", "3.4.2", "--channel", "beta")
    assert [entry["id"] for entry in json.loads(offered.done("log", "--json").out)] == ["1", "2", "3", "4", "5"]


def test_an_interrupted_call_leaves_the_publication_as_it_was(offered: Kit, monkeypatch: pytest.MonkeyPatch) -> None:
    from lumaris_publish import signing  # noqa: PLC0415

    def interrupted(*_: object) -> None:
        raise KeyboardInterrupt
    before = offered.tree()
    monkeypatch.setattr(signing.Signer, "sign", interrupted)
    assert offered("offer", "3.4.2", "--channel", "beta").status == 130
    assert offered.tree() == before
