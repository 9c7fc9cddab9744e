"""The command line: words, what they share, and how a refusal is said."""

from __future__ import annotations

import argparse
import os
import sys
from collections.abc import Callable, Sequence
from dataclasses import dataclass
from pathlib import Path

from . import VERSION, fleet, init, keys, live, offer, push, settings, stage, status
from .refusal import Refusal
from .signing import Signer


@dataclass(frozen=True)
class Word:
    """A word of the command line."""

    name: str
    help: str
    example: str
    arguments: Callable[[argparse.ArgumentParser], None]
    run: Callable[[argparse.Namespace], int] | None = None
    signs: Callable[[argparse.Namespace, Signer], int] | None = None


WORDS = (
    Word("init", "make a new publication", "lumaris-publish init /srv/updates --host updates.DOMAIN --public-key halvoro.pub "
         "--channels stable,beta --windows win11,win10", init.add_arguments, run=init.run),
    Word("stage", "check a package, copy it, sign it", "lumaris-publish stage Halvoro-3.4.1.msi --key halvoro.key --password-file password",
         stage.add_arguments, signs=stage.run),
    Word("offer", "offer a staged version to a channel", "lumaris-publish offer 3.4.1 --channel beta --key halvoro.key",
         offer.add_offer_arguments, signs=offer.offer),
    Word("promote", "offer to a channel what another one offers", "lumaris-publish promote 3.4.1 --from beta --to stable --key halvoro.key",
         offer.add_promote_arguments, signs=offer.promote),
    Word("withdraw", "offer the version before", "lumaris-publish withdraw 3.4.1 --channel stable --key halvoro.key",
         offer.add_withdraw_arguments, signs=offer.withdraw),
    Word("status", "what is offered", "lumaris-publish status", status.add_arguments, run=status.status),
    Word("log", "who published what when", "lumaris-publish log", status.add_arguments, run=status.log),
    Word("check", "ask a live server as every client would", "lumaris-publish check --quick || mail -s updates ops@DOMAIN", live.add_arguments,
         run=live.run),
    Word("push", "copy the publication to a server", "lumaris-publish push web1.DOMAIN:/srv/updates/public", push.add_arguments, run=push.run),
    Word("fleet", "which versions ask", "lumaris-publish fleet /var/log/nginx/lumaris.access.log* --svg fleet.svg", fleet.add_arguments, run=fleet.run),
    Word("keys", "key pairs: new, rotate, drill", "lumaris-publish keys new halvoro --password-file password", keys.add_arguments, run=keys.run),
)


def make_parser() -> argparse.ArgumentParser:
    """The whole command line."""
    parser = argparse.ArgumentParser(prog="lumaris-publish", description="Publishes updates of Halvoro so that every client accepts them, or "
                                     "says in a sentence why not.", epilog="example: lumaris-publish status\n\neach word has its own --help",
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--version", action="version", version=f"lumaris-publish {VERSION}")
    parser.add_argument("--root", type=Path, default=Path(os.environ.get("LUMARIS_PUBLISH_ROOT", ".")),
                        help="the publication (default: LUMARIS_PUBLISH_ROOT, or the current folder)")
    words = parser.add_subparsers(dest="word", required=True, metavar="WORD")
    for word in WORDS:
        sub = words.add_parser(word.name, help=word.help, description=f"{word.help[0].upper()}{word.help[1:]}.", epilog=f"example: {word.example}")
        word.arguments(sub)
        if word.name != "keys":  # its words have their own
            sub.add_argument("--dry-run", action="store_true", help="say what would be done, and do nothing")
        if word.signs is not None:
            sub.add_argument("--key", type=Path, metavar="FILE", help="the secret key (default: secret_key of publish.toml)")
            sub.add_argument("--password-file", type=Path, metavar="F", help="a file with the key's password in its first line")
            sub.add_argument("--accept", metavar="REASON", help="go on in spite of what is a matter of policy; the reason stands in the log")
            sub.add_argument("--wait", type=float, default=30.0, metavar="SECONDS", help="how long to wait for somebody else (default: 30)")
        sub.set_defaults(chosen=word)
    return parser


def main(arguments: Sequence[str] | None = None) -> int:
    """0 when it is done, 1 when it was refused or something is wrong, 2 for a command that cannot be understood."""
    options = make_parser().parse_args(arguments)
    word: Word = options.chosen
    try:
        if word.signs is not None:
            configured = settings.load(options.root)
            key = options.key or (Path(configured.secret_key) if configured.secret_key else Path("--key is not given"))
            return word.signs(options, Signer(key, options.password_file))
        assert word.run is not None
        return word.run(options)
    except Refusal as refusal:
        for fault in refusal.faults:
            hint = " (or --accept REASON)" if fault.policy else ""
            print(f"lumaris-publish: REFUSED [{fault.name}]: {fault.sentence}{hint}", file=sys.stderr, flush=True)
        return 1
    except KeyboardInterrupt:
        print("lumaris-publish: interrupted: the publication is as it was; the next call removes what was left", file=sys.stderr, flush=True)
        return 130
