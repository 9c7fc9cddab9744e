"""`stage`: takes a package, or refuses it; afterwards it is signed, and nobody has been offered it."""

from __future__ import annotations

import argparse
import concurrent.futures
import contextlib
import queue
from pathlib import Path

from . import address, checks, files, lock, msi, names, record, terminal, version
from .judge import ACCEPTED, Judge
from .publication import Publication, signature_of
from .refusal import refuse, settle
from .signing import Signer


def add_arguments(parser: argparse.ArgumentParser) -> None:
    """The options of the command."""
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
            with files.explained(), Judge(settings.public_key) as clients, concurrent.futures.ThreadPoolExecutor(2) as pool:
                checks.check_size(given.name, given.stat().st_size, clients)
                # What is checked must be what is signed: everything is done with our own copy. Reading it costs the most, so the digest is
                # taken while the copy is written, and the judge and minisign read it while it is checked. Nothing is signed before all is: a
                # signature cannot be called back.
                made.mkdir()
                size, digesting = _copy(given, made / name, pool)
                lasting = pool.submit(files.sync, made / name)
                reading = msi.Reading(made / name)
                own = version.parse(reading.properties().get("ProductVersion", ""))
                if options.expect and version.parse(options.expect) != own:
                    raise refuse("version", f"the package is {own}, not {options.expect}: give the package that you mean")
                known = history.find(str(own), options.variant)
                if known is not None:
                    checks.check_same(known, digesting.result())
                    terminal.say(f"{own} is staged already, with the same bytes: nothing to do")
                    terminal.next_step(f"lumaris-publish offer {own} --channel {settings.channels[-1]}, unless it is offered")
                    return 0
                folder = str(own)
                with signer.start(made / name, f"{name}, Halvoro {own}") if not options.dry_run else contextlib.nullcontext() as signature:
                    clients.send("ahead", made / name)
                    package = reading.package()
                    faults, place = checks.check(made / name, package, settings, history, options.variant, digesting.result)
                    accepted = settle(faults, options.accept)
                    address.check(f"{settings.packages}{folder}/", clients)
                    if signature is None:
                        terminal.say(f"would sign {given.name} ({size:,} bytes) as {settings.packages}{folder}/{name}")
                        return 0
                    signature_of(made / name).write_bytes(signature.finish())
                said = clients.package(made / name, signature_of(made / name))
                if said.what != ACCEPTED or said.size != size:
                    raise refuse("judge", f"clients would refuse the package: {said.message or 'it is empty'}; is the key the one that "
                                          "publish.toml names?")
                digest = digesting.result()
                lasting.result()
                staged = record.Staged(folder, options.variant, folder, digest, size, package.product_code, package.upgrade_code, place)
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


def _copy(given: Path, copied: Path, pool: concurrent.futures.Executor) -> tuple[int, concurrent.futures.Future[str]]:
    """Copies the package; the size of the copy, and its digest, which the pool takes meanwhile."""
    progress = terminal.Progress("copying", given.stat().st_size)
    lengths: queue.SimpleQueue[int | None] = queue.SimpleQueue()
    copied.touch()
    digesting = pool.submit(files.digest, copied, iter(lengths.get, None))

    def written(done: int) -> None:
        lengths.put(done)
        progress(done)

    try:
        size = files.copy(given, copied, written)
    finally:
        lengths.put(None)
    progress.end()
    return size, digesting
