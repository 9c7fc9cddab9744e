"""`status` and `log`: what is offered, and how it came to that."""

from __future__ import annotations

import argparse
import json
import time

from . import record, terminal, version
from .judge import Judge
from .publication import Publication

YEAR = 366 * 86400


def add_arguments(parser: argparse.ArgumentParser) -> None:
    """The options of both commands."""
    parser.add_argument("--json", action="store_true", help="for programs")


def status(options: argparse.Namespace) -> int:
    """A table of channels and one of packages."""
    publication = Publication(options.root)
    history = record.load(options.root)
    channels = []
    with Judge(publication.settings.public_key) as clients:
        for channel in publication.settings.channels:
            said = publication.offered(channel, clients)
            last = next(iter(reversed(history.offers(channel))), None)
            channels.append({"channel": channel, "offers": str(version.Version.of_number(said.version)) if said else "nothing",
                             "since": last.day_and_time if last else "", "by": last.who if last else "", "address": said.address if said else ""})
    packages = [{"version": staged.version, "variant": staged.variant, "bytes": staged.size, "sha256": staged.sha256} for staged in history.staged]
    drill = max((entry.time for entry in history.log if entry.what == "drill"), default=None)
    if options.json:
        print(json.dumps({"host": publication.settings.host, "set": publication.current(), "channels": channels, "packages": packages,
                          "last_drill": drill}, indent=1))
        return 0
    terminal.say(f"http://{publication.settings.host}/, set {publication.current() or 'none'}\n")
    terminal.say(terminal.table(("channel", "offers", "since", "by"), [list(each.values())[:4] for each in channels]))
    terminal.say("")
    terminal.say(terminal.table(("package", "variant", "bytes", "SHA-256"),
                                [(each["version"], each["variant"] or "(none)", each["bytes"], str(each["sha256"])[:16]) for each in packages]))
    if drill is None or time.time() - drill > YEAR:
        terminal.next_step("lumaris-publish keys drill: nobody has tried the copy of the secret key for a year")
    else:
        terminal.next_step("lumaris-publish check, which asks the server itself")
    return 0


def log(options: argparse.Namespace) -> int:
    """Who published what when."""
    entries = record.load(options.root).log
    if options.json:
        print(json.dumps([{**vars(entry)} for entry in entries], indent=1))
        return 0
    for entry in entries:
        what = " ".join(filter(None, (entry.what, entry.version, entry.variant, f"on {entry.channel}" if entry.channel else "", entry.note)))
        accepted = f"; accepted {', '.join(entry.accepted)}: {entry.reason}" if entry.accepted else ""
        terminal.say(f"{entry.day_and_time}  {entry.who}  {what}{accepted}")
    terminal.next_step("lumaris-publish status, for what is offered now" if entries else
                       "nothing was published: lumaris-publish stage PACKAGE.msi --key FILE")
    return 0
