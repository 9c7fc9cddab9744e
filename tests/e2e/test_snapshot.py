"""The bed's snapshots: what they see of a folder, and what they leave out."""

from __future__ import annotations

import os
from pathlib import Path

import pytest

from bed.snapshot import Snapshot, nothing_else_changes
from world import World

pytestmark = pytest.mark.any_processor


@pytest.fixture
def folder(tmp_path: Path) -> Path:
    (tmp_path / "file").write_bytes(b"one")
    (tmp_path / "below").mkdir()
    (tmp_path / "below/file").write_bytes(b"two")
    (tmp_path / "link").symlink_to("file")
    return tmp_path


def test_a_folder_that_is_only_read_has_no_changes(folder: Path) -> None:
    before = Snapshot(folder)
    assert (folder / "link").read_bytes() == b"one"
    assert os.listdir(folder / "below") == ["file"]
    assert before.changes() == []


def test_a_snapshot_sees_what_is_new_gone_or_changed(folder: Path) -> None:
    before = Snapshot(folder)
    (folder / "file").write_bytes(b"six")  # no longer, no shorter
    (folder / "below/file").unlink()
    (folder / "below/new").mkdir()
    (folder / "below/new/empty").touch()
    (folder / "link").unlink()
    (folder / "link").symlink_to("below")
    assert before.changes() == ["gone - below/file", "new d below/new", "new - below/new/empty", "changed - file", "changed l link"]


def test_a_snapshot_sees_a_change_whose_time_was_set_back(folder: Path) -> None:
    times = (folder / "file").stat()
    before = Snapshot(folder)
    (folder / "file").write_bytes(b"six")
    os.utime(folder / "file", ns=(times.st_atime_ns, times.st_mtime_ns))
    assert before.changes() == ["changed - file"]


def test_a_snapshot_sees_rights_that_are_taken_away(folder: Path) -> None:
    before = Snapshot(folder)
    (folder / "below").chmod(0o500)
    assert before.changes() == ["changed d below"]


def test_a_drive_may_change_where_it_is_expected_to_and_nowhere_else(world: World) -> None:
    drive = world.machine.unix_path("C:\\")
    with nothing_else_changes(world.machine, [world.maker_folder]):
        world.store.mkdir(parents=True)
        (world.store / "file").write_bytes(b"")
    other = drive / "Tavrin"
    try:
        with pytest.raises(AssertionError, match="new - Tavrin"), nothing_else_changes(world.machine, [world.maker_folder]):
            other.write_bytes(b"")
    finally:
        other.unlink()
