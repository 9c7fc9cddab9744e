"""The command line: commands, what they share, and how a refusal is said."""

from __future__ import annotations

import argparse
import importlib
import os
import sys
from collections.abc import Collection, Sequence
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from . import VERSION, settings
from .refusal import Refusal
from .signing import Signer


@dataclass(frozen=True)
class Command:
    """A command of the command line: who does it is loaded when it is given, which is most of what a quick command takes."""

    name: str
    help: str
    example: str
    module: str
    run: str = "run"
    arguments: str = "add_arguments"
    signs: bool = False

    def load(self, function: str) -> Any:
        """A function of the command."""
        return getattr(importlib.import_module(f"{__package__}.{self.module}"), function)


COMMANDS = (
    Command("init", "make a new publication", "lumaris-publish init /srv/updates --host updates.DOMAIN --public-key halvoro.pub "
            "--channels stable,beta --windows win11,win10", "init"),
    Command("stage", "check a package, copy it, sign it", "lumaris-publish stage Halvoro-3.4.1.msi --key halvoro.key --password-file password",
            "stage", signs=True),
    Command("offer", "offer a staged version to a channel", "lumaris-publish offer 3.4.1 --channel beta --key halvoro.key",
            "offer", "offer", "add_offer_arguments", signs=True),
    Command("promote", "offer to a channel what another one offers", "lumaris-publish promote 3.4.1 --from beta --to stable --key halvoro.key",
            "offer", "promote", "add_promote_arguments", signs=True),
    Command("withdraw", "offer the version before", "lumaris-publish withdraw 3.4.1 --channel stable --key halvoro.key",
            "offer", "withdraw", "add_withdraw_arguments", signs=True),
    Command("status", "what is offered", "lumaris-publish status", "status", "status"),
    Command("log", "who published what when", "lumaris-publish log", "status", "log"),
    Command("check", "ask a live server as every client would", "lumaris-publish check --quick || mail -s updates ops@DOMAIN", "live"),
    Command("push", "copy the publication to a server", "lumaris-publish push web1.DOMAIN:/srv/updates/public", "push"),
    Command("fleet", "which versions ask", "lumaris-publish fleet /var/log/nginx/lumaris.access.log* --svg fleet.svg", "fleet"),
    Command("keys", "key pairs: new, rotate, drill", "lumaris-publish keys new halvoro --password-file password", "keys"),
)


def _reason(text: str) -> str:
    """A reason that somebody can read in the log."""
    if not text.strip():
        raise argparse.ArgumentTypeError("nobody could read the reason in the log: write one")
    return text.strip()


def make_parser(given: Collection[str]) -> argparse.ArgumentParser:
    """The command line, with the options of the commands that are given."""
    parser = argparse.ArgumentParser(prog="lumaris-publish", description="Publishes updates of Halvoro so that every client accepts them, or "
                                     "says in a sentence why not.", epilog="example: lumaris-publish status\n\neach command has its own --help",
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--version", action="version", version=f"lumaris-publish {VERSION}")
    parser.add_argument("--root", type=Path, default=Path(os.environ.get("LUMARIS_PUBLISH_ROOT", ".")),
                        help="the publication (default: LUMARIS_PUBLISH_ROOT, or the current folder)")
    commands = parser.add_subparsers(dest="command", required=True, metavar="COMMAND")
    for command in COMMANDS:
        sub = commands.add_parser(command.name, help=command.help, description=f"{command.help[0].upper()}{command.help[1:]}.", epilog=f"example: {command.example}")
        if command.name not in given:
            continue
        command.load(command.arguments)(sub)
        if command.name != "keys":  # its commands have their own
            sub.add_argument("--dry-run", action="store_true", help="say what would be done, and do nothing")
        if command.signs:
            sub.add_argument("--key", type=Path, metavar="FILE", help="the secret key (default: secret_key of publish.toml)")
            sub.add_argument("--password-file", type=Path, metavar="F", help="a file with the key's password in its first line")
            sub.add_argument("--accept", metavar="REASON", type=_reason, help="go on in spite of what is a matter of policy; the reason stands in the log")
            sub.add_argument("--wait", type=float, default=30.0, metavar="SECONDS", help="how long to wait for somebody else (default: 30)")
        sub.set_defaults(chosen=command)
    return parser


def main(arguments: Sequence[str] | None = None) -> int:
    """0 when it is done, 1 when it was refused or something is wrong, 2 for a command that cannot be understood."""
    given = sys.argv[1:] if arguments is None else arguments
    options = make_parser(given).parse_args(given)
    command: Command = options.chosen
    try:
        signer = []
        if command.signs:
            configured = settings.load(options.root)
            key = options.key or (Path(configured.secret_key) if configured.secret_key else Path("--key is not given"))
            signer.append(Signer(key, options.password_file))
        return int(command.load(command.run)(options, *signer))
    except Refusal as refusal:
        for fault in refusal.faults:
            hint = " (or --accept REASON)" if fault.policy else ""
            print(f"lumaris-publish: REFUSED [{fault.name}]: {fault.sentence}{hint}", file=sys.stderr, flush=True)
        return 1
    except KeyboardInterrupt:
        print("lumaris-publish: interrupted: the publication is as it was; the next call removes what was left", file=sys.stderr, flush=True)
        return 130
