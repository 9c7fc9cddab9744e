"""The publication on the disk, and how it passes from one state to the next at one stroke.

    publish.toml                        what it is for (settings)
    log.jsonl                           who did what when (record)
    state/                              what the kit knows: packages, the lock, the act that is under way
    public/                             what the server shows
        packages/FOLDER/                packages with their signatures; a file in there is never written again
        sets/000007/Halvoro/...         all descriptions with their signatures; a set is never written again
        current -> sets/000007          the set that clients see
        Halvoro -> current/Halvoro

An act first makes everything that is new, where no client looks; writes down what it is about to do; and then renames one link (for a set)
or writes one file (for a package). Killed before that, the publication is the old one, afterwards the new one; the next call reads what was
written down, completes the log, and removes what was left.
"""

from __future__ import annotations

import dataclasses
import json
import os
import shutil
from collections.abc import Mapping, Sequence
from dataclasses import dataclass
from pathlib import Path

from . import files, names, record, settings
from .judge import INSTALLS, REFUSED, Judge, Verdict
from .refusal import refuse
from .signing import Signer
from .version import Version

KEPT_SETS = 10


@dataclass(frozen=True)
class Offer:
    """What the descriptions of a channel are to say."""

    version: Version
    address: str


class Publication:
    """A publication and what its settings say."""

    def __init__(self, root: Path, configured: settings.Settings | None = None) -> None:
        self.root = root
        self.settings = configured or settings.load(root)
        self.public = root / "public"
        self.packages = self.public / "packages"
        self.sets = self.public / "sets"
        self._current = self.public / "current"
        self._pending = root / "state/pending.json"

    # Reading

    def current(self) -> str | None:
        """The name of the set that clients see."""
        try:
            return Path(os.readlink(self._current)).name
        except FileNotFoundError:
            return None

    def file(self, windows: str | None, channel: str, within: str | None = None) -> Path:
        """The description for a Windows and a channel, in the current set or another one."""
        chosen = within or self.current() or "none"
        return self.sets / chosen / names.description_path(windows, channel).lstrip("/")

    def offered(self, channel: str, clients: Judge, within: str | None = None) -> Verdict | None:
        """What the channel offers at present, as a client of no version understands it."""
        content = self.file(None, channel, within)
        if not content.exists():
            return None
        return clients.description(content, signature_of(content))

    # Changing: the lock is held

    def prepare(self) -> list[str]:
        """Completes or removes what a killed call left, and says what that was."""
        said = []
        for folder in (self.packages, self.sets):
            folder.mkdir(parents=True, exist_ok=True)
        if self._pending.exists():
            said += self._finish(json.loads(self._pending.read_text(encoding="utf-8")))
        for folder in (self.root, self.root / "state", self.root / record.PACKAGES, self.public):
            for partial in folder.glob(".*.partial"):
                partial.unlink()
        known = {(staged.folder, names.package_name(staged.variant)) for staged in record.load(self.root).staged}
        for folder in self.packages.iterdir():
            if folder.name.startswith("."):
                said.append(f"removed {folder.name}, which was not finished")
                files.remove(folder)
                continue
            for file in folder.iterdir():
                if (folder.name, file.name.removesuffix(".minisig")) not in known:
                    said.append(f"removed {folder.name}/{file.name}, which was not finished")
                    file.unlink()
            if not any(folder.iterdir()):
                folder.rmdir()
        current = self.current() or "000000"
        for each in self.sets.iterdir():
            if each.name.startswith(".") or each.name > current:
                said.append(f"removed the set {each.name}, which was not finished")
                files.remove(each)
        return said

    def _finish(self, pending: dict[str, object]) -> list[str]:
        values = pending["entries"]
        assert isinstance(values, list)
        done = self.current() == pending["set"] if "set" in pending else (self.root / str(pending["record"])).exists()
        said = []
        for entry in (record.Entry(**{**each, "accepted": tuple(each["accepted"])}) for each in values):
            if not done:
                said.append(f"{entry.what} {entry.version} of {entry.day_and_time} was not done")
            elif record.append(self.root, entry):
                said.append(f"completed the log: {entry.what} {entry.version} of {entry.day_and_time} was done")
        self._pending.unlink()
        return said

    def _write_pending(self, what: str, name: str, entries: Sequence[record.Entry]) -> None:
        files.write_whole(self._pending, json.dumps({what: name, "entries": [dataclasses.asdict(entry) for entry in entries]}).encode("utf-8"))

    def add_package(self, staged: record.Staged, made: Path, entry: record.Entry) -> None:
        """Puts a package with its signature, made in a folder of its own, in its place."""
        folder = self.packages / staged.folder
        name = names.package_name(staged.variant)
        target = f"{record.PACKAGES}/{staged.version}{staged.variant}.json"
        self._write_pending("record", target, [entry])
        folder.mkdir(exist_ok=True)
        for each in (name, f"{name}.minisig"):
            (made / each).chmod(0o444)
            # The record must never outlive what it speaks of.
            files.sync(made / each)
            # A rename would write over a file that is there.
            os.link(made / each, folder / each)
        files.sync(folder)
        files.sync(self.packages)
        record.write_staged(self.root, staged)
        record.append(self.root, entry)
        self._pending.unlink()
        files.remove(made)

    def switch(self, offers: Mapping[str, Offer], signer: Signer, entries: Sequence[record.Entry]) -> str:
        """Makes a new set in which these channels offer something else, and lets clients see it. Returns its name."""
        before = self.current()
        name = f"{int(before or '0') + 1:06}"
        made = self.sets / f".new-{name}"
        if before:
            # Signed files remain the same bytes: one copy of each on the disk.
            shutil.copytree(self.sets / before, made, copy_function=os.link)
        written = []
        for channel, offer in offers.items():
            for windows in self.settings.all_windows:
                content = made / names.description_path(windows, channel).lstrip("/")
                content.parent.mkdir(parents=True, exist_ok=True)
                content.unlink(missing_ok=True)
                signature_of(content).unlink(missing_ok=True)
                content.write_bytes(self._text(offer, channel, windows))
                written.append(content)
        signer.sign(written, f"Halvoro updates, {', '.join(offers)}")
        self._verify(made, offers)
        for content in written:
            for each in (content, signature_of(content)):
                each.chmod(0o444)
                files.sync(each)
        for folder in (made, *(each for each in made.rglob("*") if each.is_dir())):
            files.sync(folder)
        made.rename(self.sets / name)
        files.sync(self.sets)
        self._write_pending("set", name, entries)
        files.link_whole(self._current, f"sets/{name}")
        if not (self.public / "Halvoro").is_symlink():
            files.link_whole(self.public / "Halvoro", "current/Halvoro")
        for entry in entries:
            record.append(self.root, entry)
        self._pending.unlink()
        for old in sorted(each.name for each in self.sets.iterdir())[:-KEPT_SETS]:
            files.remove(self.sets / old)
        return name

    def _text(self, offer: Offer, channel: str, windows: str | None) -> bytes:
        label = f"Halvoro {offer.version}, {channel}, {windows or 'any Windows'}"
        return f"{offer.version.digits}\n{label}\n{offer.address}\n".encode("ascii")

    def _verify(self, made: Path, offers: Mapping[str, Offer]) -> None:
        """Every description of the set, as clients see it: those of former versions, and those that have the new one already."""
        with Judge(self.settings.public_key) as clients:
            for channel, offer in offers.items():
                for windows in self.settings.all_windows:
                    content = made / names.description_path(windows, channel).lstrip("/")
                    for running in (0, offer.version.number - 1, offer.version.number):
                        said = clients.description(content, signature_of(content), running)
                        wanted = INSTALLS if running < offer.version.number else "nothing"
                        if said.what != wanted or (said.version, said.address) != (offer.version.number, offer.address):
                            raise refuse("judge", f"clients would not do with {content.name} what they should: {said.message or said.what}; "
                                                  "is the key the one that publish.toml names?")
            for content in made.rglob("*.txt"):
                said = clients.description(content, signature_of(content))
                if said.what == REFUSED:
                    raise refuse("judge", f"clients would refuse {content.name}: {said.message}; offer its channel again")


def signature_of(file: Path) -> Path:
    """The signature beside a file."""
    return file.with_name(f"{file.name}.minisig")
