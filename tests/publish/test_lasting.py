"""What counts as published survives that the machine loses its power: everything is on the disk before the name that makes it count."""

from __future__ import annotations

import os
from collections.abc import Callable
from pathlib import Path
from typing import Any

import pytest

from conftest import Workshop
from kit import Kit

Act = tuple[str, str]


@pytest.fixture(name="acts")
def acts_fixture(kit: Kit, monkeypatch: pytest.MonkeyPatch) -> list[Act]:
    """What the kit asks the system for, in its order: what lasts from then on, and new names, below the publication."""
    acts: list[Act] = []

    def note(act: str, path: str) -> None:
        acts.append((act, os.path.relpath(path, kit.root)))

    def sync(descriptor: int) -> None:
        note("sync", os.readlink(f"/proc/self/fd/{descriptor}"))

    def watch(name: str, before: Callable[..., None]) -> None:
        real = getattr(os, name)

        def watched(*arguments: Any, **named: Any) -> Any:
            done = real(*arguments, **named)
            before(*arguments)
            return done
        monkeypatch.setattr(os, name, watched)
    watch("fsync", sync)
    watch("link", lambda _, target: note("link", target))
    for name in ("rename", "replace"):
        watch(name, lambda _, target: note("rename", target))
    return acts


def assert_order(acts: list[Act], *wanted: Act) -> None:
    """Each of them is there, in this order."""
    at = -1
    for each in wanted:
        assert each in acts[at + 1:], (each, acts)
        at = acts.index(each, at + 1)


def test_a_package_is_on_the_disk_before_it_counts_as_staged(kit: Kit, workshop: Workshop, acts: list[Act]) -> None:
    kit.done("stage", workshop.package())
    placed, counts = "public/packages/3.4.1", "state/packages/3.4.1.json"
    made = next(path for act, path in acts if act == "sync" and path.startswith("public/packages/.new-")).rpartition("/")[0]
    for name in ("Halvoro.ARM64.msi", "Halvoro.ARM64.msi.minisig"):
        assert_order(acts, ("sync", f"{made}/{name}"), ("link", f"{placed}/{name}"), ("sync", placed), ("sync", "public/packages"),
                     ("sync", "state/packages/.3.4.1.json.partial"), ("rename", counts), ("sync", "state/packages"), ("sync", "log.jsonl"), ("sync", "."))
    # What was signed is not made after it was put in its place.
    assert acts.index(("sync", placed)) < acts.index(("rename", counts))
    assert not [each for each in acts[acts.index(("rename", counts)):] if each[0] == "link"]


def test_a_set_is_on_the_disk_before_clients_see_it(kit: Kit, workshop: Workshop, acts: list[Act]) -> None:
    kit.done("stage", workshop.package())
    acts.clear()
    kit.done("offer", "3.4.1", "--channel", "stable,beta")
    made = "public/sets/.new-000001"
    files = [f"Halvoro/Lumaris{end}-{channel}.txt{kind}" for channel in ("stable", "beta") for end in ("/win11", "/win10", "")
             for kind in ("", ".minisig")]
    for path in [*files, "Halvoro/Lumaris", "Halvoro", "."]:
        assert_order(acts, ("sync", os.path.normpath(f"{made}/{path}")), ("rename", "public/sets/000001"), ("sync", "public/sets"),
                     ("sync", "state/.pending.json.partial"), ("rename", "state/pending.json"), ("sync", "state"), ("rename", "public/current"),
                     ("sync", "public"), ("sync", "log.jsonl"))


def test_the_folder_lasts_that_a_link_was_renamed_in(kit: Kit, workshop: Workshop, acts: list[Act]) -> None:
    kit.done("stage", workshop.package())
    kit.done("offer", "3.4.1", "--channel", "beta")
    for at, (act, path) in enumerate(acts):
        if act in ("rename", "link"):
            assert ("sync", os.path.normpath(str(Path(path).parent))) in acts[at:], path
