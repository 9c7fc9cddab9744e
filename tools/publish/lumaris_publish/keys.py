"""`keys`: making a key pair, passing from one key to the next, and the yearly exercise."""

from __future__ import annotations

import argparse
import dataclasses
import os
import secrets
import tempfile
from pathlib import Path

from . import files, lock, record, serverconfig, settings, signing, terminal, tools
from .judge import ACCEPTED, Judge
from .publication import Publication, signature_of
from .refusal import refuse
from .signing import Signer


def add_arguments(parser: argparse.ArgumentParser) -> None:
    """The commands below this one."""
    commands = parser.add_subparsers(dest="keys_command", required=True, metavar="WHAT")
    new = commands.add_parser("new", help="make a key pair", epilog="example: lumaris-publish keys new halvoro --password-file password")
    new.add_argument("name", type=Path, help="what the two files are called, without .pub and .key")
    protection = new.add_mutually_exclusive_group(required=True)
    protection.add_argument("--password-file", type=Path, metavar="F", help="a file with the password in its first line")
    protection.add_argument("--without-password", action="store_true", help="for a key that is kept on a device of its own")
    rotate = commands.add_parser("rotate", help="leave this host and key for new ones",
                                 epilog="example: lumaris-publish keys rotate /srv/updates2 --host updates2.DOMAIN --public-key new.pub")
    rotate.add_argument("new_root", type=Path, metavar="NEWROOT", help="the publication of the new host")
    rotate.add_argument("--host", required=True, help="the new host: one host has one key for ever")
    rotate.add_argument("--public-key", required=True, metavar="K", help="the new key")
    drill = commands.add_parser("drill", help="try whether a copy of the secret key still signs",
                                epilog="example: lumaris-publish keys drill --key /mnt/copy/halvoro.key --password-file password")
    drill.add_argument("--key", type=Path, required=True, metavar="FILE", help="the copy, from where it is kept")
    drill.add_argument("--password-file", type=Path, metavar="F", help="a file with its password in its first line")
    for each in (new, rotate, drill):
        each.add_argument("--dry-run", action="store_true", help="say what would be done, and do nothing")


def run(options: argparse.Namespace) -> int:
    """One of them."""
    return {"new": _new, "rotate": _rotate, "drill": _drill}[options.keys_command](options)


def _new(options: argparse.Namespace) -> int:
    public, secret = Path(f"{options.name}.pub"), Path(f"{options.name}.key")
    for file in (public, secret):
        if file.exists():
            raise refuse("exists", f"{file} exists: a key is never written over; choose another name")
    if options.dry_run:
        terminal.say(f"would make {public} and {secret}")
        return 0
    password = b""
    if options.password_file:
        with files.explained():
            line = options.password_file.read_bytes().split(b"\n")[0].rstrip(b"\r") + b"\n"
        if line == b"\n":
            raise refuse("password", f"the first line of {options.password_file} is empty: write the password there")
        password = line * 2
    before = os.umask(0o077)
    try:
        done = tools.run(["minisign", "-G", *([] if password else ["-W"]), "-p", public, "-s", secret], stdin=password)
    finally:
        os.umask(before)
    if done.returncode != 0:
        raise refuse("key", f"minisign made no key: {tools.words_of(done)}")
    public.chmod(0o644)
    line_of_key = signing.public_key_line(str(public))
    terminal.say(f"the key {signing.key_name(line_of_key)} is made: {line_of_key}")
    terminal.next_step(f"copy {secret} to two devices that are kept apart, and its password to a third place",
                       "lumaris-publish keys drill --key COPY, with each copy",
                       f"build the program with it: ./dev release --key {public} --update-host HOST --report-host HOST --partner NAME")
    return 0


def _rotate(options: argparse.Namespace) -> int:
    publication = Publication(options.root)
    old = publication.settings
    key = signing.public_key_line(options.public_key)
    if old.bridge_key:
        raise refuse("rotated", f"this host has been left for {old.bridge_host} already: rotate the publication there")
    if key == old.public_key:
        raise refuse("same-key", "the new key is the present one: make another with lumaris-publish keys new")
    if options.host.lower() == old.host.lower():
        raise refuse("same-host", f"{old.host} serves programs that trust the present key, for ever: give the new key a host of its own")
    new = dataclasses.replace(old, host=options.host, public_key=key, packages=f"http://{options.host}/packages/", secret_key="")
    left = dataclasses.replace(old, bridge_key=key, bridge_host=options.host)
    for each in (new, left):
        each.check()
    root: Path = options.new_root
    if root.exists() and any(root.iterdir()):
        raise refuse("exists", f"{root} exists and is not empty: choose another folder")
    if options.dry_run:
        terminal.say(f"would make {root} for http://{new.host}/, and leave {old.host} for it")
        return 0
    with lock.held(options.root, "keys rotate", 30), files.explained():
        for folder in ("public/packages", "public/sets", record.PACKAGES, "server"):
            (root / folder).mkdir(parents=True)
        for name, text in serverconfig.everything(new, root.resolve() / "public").items():
            (root / "server" / name).write_text(text, encoding="utf-8")
        files.write_whole(root / settings.FILE, new.text().encode("utf-8"))
        history = record.load(options.root)
        record.append(options.root, record.Entry(id=record.next_id(history), time=record.now(history), who=record.who(), what="rotate",
                                                 note=f"to {new.host}, key {signing.key_name(key)}"))
        files.write_whole(options.root / settings.FILE, left.text().encode("utf-8"))
    terminal.say(f"{old.host} is left for {new.host}: from now on only packages whose program trusts {signing.key_name(key)} and asks {new.host} are "
                 "staged here")
    terminal.next_step(f"build the bridge release: a higher version, ./dev release --key NEW.pub --update-host {new.host} --partner NAME",
                       f"stage and offer it here, on every channel, signed with the old key; {old.host} serves it for ever",
                       f"stage and offer the same package in {root}, signed with the new key; later versions go there alone",
                       f"lumaris-publish fleet ACCESS.LOG --old-host {old.host}, to see who has not crossed over")
    return 0


def _drill(options: argparse.Namespace) -> int:
    publication = Publication(options.root)
    if options.dry_run:
        terminal.say(f"would sign a random text with {options.key} and verify it as a client")
        return 0
    with tempfile.TemporaryDirectory(prefix="lumaris-publish-") as folder:
        text = Path(folder) / "drill.txt"
        text.write_text(f"This signs nothing: {secrets.token_hex(16)}\n", encoding="ascii")
        Signer(options.key, options.password_file).sign([text], "a drill")
        with Judge(publication.settings.public_key) as clients:
            said = clients.package(text, signature_of(text))
    if said.what != ACCEPTED:
        raise refuse("drill", f"clients would refuse what {options.key} signs ({said.message}): it is not a copy of the key that publish.toml names; "
                              "find another copy today, while there is one")
    with lock.held(options.root, "keys drill", 30), files.explained():
        history = record.load(options.root)
        record.append(options.root, record.Entry(id=record.next_id(history), time=record.now(history), who=record.who(), what="drill",
                                                 note=f"the copy {options.key.name} signs"))
    terminal.say(f"{options.key} signs, and clients accept it")
    terminal.next_step("the same with the other copy; then read the page about a lost and a stolen key in docs/publishing.md",
                       "next year again: lumaris-publish status reminds you")
    return 0
