"""`push`: copies the publication to where a server shows it, packages before descriptions."""

from __future__ import annotations

import argparse

from . import files, lock, record, terminal, tools
from .publication import Publication
from .refusal import refuse


def add_arguments(parser: argparse.ArgumentParser) -> None:
    """The options of the command."""
    parser.add_argument("destination", metavar="DEST", help="a folder, or HOST:FOLDER as rsync takes it")
    parser.add_argument("--plain", action="store_true", help="for servers that know no links: files alone, and no switch at one stroke")
    parser.add_argument("--wait", type=float, default=30.0, metavar="SECONDS", help="how long to wait for somebody else (default: 30)")


def run(options: argparse.Namespace) -> int:
    """Packages, then the set that is offered, then the link to it: each step leaves something that clients accept."""
    publication = Publication(options.root)
    with lock.held(options.root, "push", options.wait):
        with files.explained():
            for line in publication.prepare():
                terminal.say(line)
        name = publication.current()
        if name is None:
            raise refuse("nothing-offered", "nothing is offered yet: lumaris-publish offer VERSION --channel C")
        destination = options.destination.rstrip("/")
        public = f"{publication.public}/"
        # --relative makes the folders that are missing; times and rights remain, so that nothing is copied twice.
        always = ["rsync", "-a", "--no-owner", "--no-group", "--relative"]
        steps = [("packages", [*always, "--partial-dir=.rsync-partial", "--exclude=.new-*", f"{public}./packages", f"{destination}/"])]
        if options.plain:
            # The pairs are put in their places at the very end, one right behind the other. Two descriptions often have the same length, and two
            # offers may follow each other within a second: only the bytes say what has changed.
            steps.append(("descriptions", ["rsync", "-rt", "--checksum", "--copy-links", "--delay-updates", "--chmod=F644", f"{public}Halvoro", f"{destination}/"]))
        else:
            steps.append(("descriptions", [*always, f"{public}./sets/{name}", f"{destination}/"]))
            # rsync renames a link into its place: this is the switch.
            steps.append(("switch", ["rsync", "-l", f"{public}current", f"{destination}/"]))
            steps.append(("link", ["rsync", "-l", f"{public}Halvoro", f"{destination}/"]))
        for what, command in steps:
            if options.dry_run:
                terminal.say(f"would copy {what}: {' '.join(command)}")
                continue
            done = tools.run(command)
            if done.returncode != 0:
                raise refuse("push", f"rsync did not copy the {what} to {destination}: {tools.words_of(done)}; what clients see there is the old "
                                     "publication or the new one; push again")
        if options.dry_run:
            return 0
        history = record.load(options.root)
        record.append(options.root, record.Entry(id=record.next_id(history), time=record.now(history), who=record.who(), what="push",
                                                 note=f"set {name} to {destination}{', plain' if options.plain else ''}"))
    terminal.say(f"{destination} shows the set {name}")
    terminal.next_step("lumaris-publish check")
    return 0
