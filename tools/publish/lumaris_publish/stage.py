"""`stage`: takes a package, or refuses it; afterwards it is signed, and nobody has been offered it."""

from __future__ import annotations

import argparse
import concurrent.futures
from collections.abc import Callable
from pathlib import Path

from . import address, checks, files, lock, names, record, terminal, version
from .judge import ACCEPTED, Judge
from .publication import Publication, signature_of
from .refusal import refuse, settle
from .signing import Signer


def add_arguments(parser: argparse.ArgumentParser) -> None:
    """The options of the word."""
    parser.add_argument("package", type=Path, metavar="PACKAGE.msi", help="the installer package, with the lumaris.exe of its version")
    parser.add_argument("--variant", default="", help="the variant that it is for: --variant=-sl")
    parser.add_argument("--expect", metavar="VERSION", help="the version that it must have")


def run(options: argparse.Namespace, signer: Signer) -> int:
    """Checks, copies, signs, verifies as a client, and writes the record."""
    publication = Publication(options.root)
    settings, given = publication.settings, options.package
    if not given.is_file():
        raise refuse("no-package", f"there is no package {given}")
    if options.variant not in settings.variants:
        raise refuse("variant-name", f"no client asks for the variant \"{options.variant}\": publish.toml has "
                                     f"{', '.join(map(names.show_variant, settings.variants))}")
    with lock.held(options.root, "stage", options.wait):
        with files.explained():
            for line in publication.prepare():
                terminal.say(line)
        history = record.load(options.root)
        time = record.now(history)
        made = publication.packages / f".new-{given.stem}"
        name = names.package_name(options.variant)
        try:
            with files.explained(), Judge(settings.public_key) as clients, concurrent.futures.ThreadPoolExecutor(1) as pool:
                # What is checked must be what is signed: everything is done with our own copy. Reading it costs the most, so the judge and
                # the digest begin before they are needed. Nothing is signed before all is checked: a signature cannot be called back.
                made.mkdir()
                progress = terminal.Progress("copying", given.stat().st_size)
                size = files.copy(given, made / name, progress)
                progress.end()
                digesting = pool.submit(files.digest, made / name)
                clients.send("ahead", made / name)
                found = checks.check(made / name, settings, history, options.variant, digesting.result)
                accepted = _judge_version(found, options, history, digesting.result)
                if accepted is None:
                    terminal.say(f"{found.version} is staged already, with the same bytes: nothing to do")
                    return 0
                folder = str(found.version)
                address.check(f"{settings.packages}{folder}/", clients)
                if options.dry_run:
                    terminal.say(f"would sign {given.name} ({size:,} bytes) as {settings.packages}{folder}/{name}")
                    return 0
                signer.sign([made / name], f"{name}, Halvoro {found.version}")
                said = clients.package(made / name, signature_of(made / name))
                if said.what != ACCEPTED or said.size != size:
                    raise refuse("judge", f"clients would refuse the package: {said.message or 'it is empty'}; is the key the one that "
                                          "publish.toml names?")
                digest = digesting.result()
                staged = record.Staged(str(found.version), options.variant, folder, digest, size, found.package.product_code,
                                       found.package.upgrade_code)
                publication.add_package(staged, made, record.Entry(
                    id=record.next_id(history), time=time, who=record.who(), what="stage", version=staged.version, variant=options.variant,
                    sha256=digest, accepted=tuple(accepted), reason=options.accept or ""))
        finally:
            with files.explained():
                files.remove(made)
    terminal.say(f"{staged.title} is signed: {size:,} bytes, SHA-256 {digest}")
    lacking = [variant for variant in settings.variants if variant != options.variant and history.find(staged.version, variant) is None]
    terminal.next_step(*[f"stage the variant {names.show_variant(variant)} too" for variant in lacking],
                       f"lumaris-publish offer {staged.version} --channel {settings.channels[-1]}")
    return 0


def _judge_version(found: checks.Found, options: argparse.Namespace, history: record.History, digest: Callable[[], str]) -> list[str] | None:
    """The names of what was accepted, or None for a package that is staged already."""
    if options.expect and version.parse(options.expect) != found.version:
        raise refuse("version", f"the package is {found.version}, not {options.expect}: give the package that you mean")
    known = history.find(str(found.version), options.variant)
    if known is not None:
        checks.check_same(known, digest())
        return None
    return settle(found.faults, options.accept)
