"""`init`: a new publication."""

from __future__ import annotations

import argparse
import dataclasses
from pathlib import Path

from . import address, files, record, serverconfig, settings, signing, terminal
from .judge import Judge
from .refusal import refuse


def add_arguments(parser: argparse.ArgumentParser) -> None:
    """The options of the command."""
    parser.add_argument("folder", type=Path, metavar="ROOT", help="the new folder")
    parser.add_argument("--host", required=True, help="the host that the programs ask")
    parser.add_argument("--public-key", required=True, metavar="K", help="the key that they trust: the line that minisign prints, or a .pub file")
    parser.add_argument("--channels", default="stable", help="with commas between (default: stable)")
    parser.add_argument("--windows", default="win11,win10", help="kinds of Windows, with commas between (default: win11,win10)")
    parser.add_argument("--variants", default="", help="variants of the package besides the plain one, with commas between: --variants=-sl")
    parser.add_argument("--packages", metavar="URL", help="where clients find the packages' folders (default: http://HOST/packages/)")
    parser.add_argument("--secret-key", default="", metavar="FILE", help="the key to sign with, so that --key need not be given")
    parser.add_argument("--authenticode", action="store_true", help="packages must carry an Authenticode signature")
    parser.add_argument("--authenticode-root", default="", metavar="PEM", help="the root to check it against")
    parser.add_argument("--architecture", choices=settings.ARCHITECTURES, default="arm64", help="x64 is for trying it out")
    parser.add_argument("--docroot", metavar="FOLDER", help="where the server has the files (default: ROOT/public)")


def configured(options: argparse.Namespace) -> settings.Settings:
    """The settings that the options ask for. Raises Refusal if clients could not follow."""
    def split(text: str) -> tuple[str, ...]:
        return tuple(part.strip() for part in text.split(",") if part.strip())
    made = settings.Settings(
        host=options.host, public_key=signing.public_key_line(options.public_key), channels=split(options.channels),
        windows=split(options.windows), variants=("", *split(options.variants)), packages=options.packages or f"http://{options.host}/packages/",
        architecture=options.architecture, authenticode=options.authenticode or bool(options.authenticode_root),
        authenticode_root=options.authenticode_root, secret_key=options.secret_key)
    if not made.packages.endswith("/"):
        made = dataclasses.replace(made, packages=f"{made.packages}/")
    made.check()
    with Judge(made.public_key) as clients:
        address.check(made.packages, clients)
    return made


def run(options: argparse.Namespace) -> int:
    """Makes the folder, and in it the settings, the tree and the server's configuration."""
    root: Path = options.folder
    made = configured(options)
    if root.exists() and any(root.iterdir()):
        raise refuse("exists", f"{root} exists and is not empty: choose another folder")
    docroot = Path(options.docroot) if options.docroot else root.resolve() / "public"
    if options.dry_run:
        terminal.say(f"would make {root} for http://{made.host}/: {settings.FILE}, {record.LOG}, state/, public/, server/")
        return 0
    with files.explained():
        for folder in ("public/packages", "public/sets", record.PACKAGES, "server"):
            (root / folder).mkdir(parents=True)
        for name, text in serverconfig.everything(made, docroot).items():
            (root / "server" / name).write_text(text, encoding="utf-8")
        # Last: without it the folder is not a publication.
        files.write_whole(root / settings.FILE, made.text().encode("utf-8"))
    terminal.say(f"{root} is a publication for http://{made.host}/: channels {', '.join(made.channels)}; {', '.join(made.windows)} and any Windows")
    terminal.next_step(f"let a server show {docroot}, with the configuration in {root}/server",
                       f"lumaris-publish --root {root} stage PACKAGE.msi --key FILE")
    return 0
