"""`offer`, `promote` and `withdraw`: what a channel offers from now on."""

from __future__ import annotations

import argparse

from . import address, checks, files, lock, msi, names, record, terminal, version
from .judge import ACCEPTED, Judge
from .publication import Offer, Publication, signature_of
from .refusal import Fault, refuse, settle
from .signing import Signer


def add_offer_arguments(parser: argparse.ArgumentParser) -> None:
    """The options of `offer`."""
    parser.add_argument("version", help="a version that is staged")
    parser.add_argument("--channel", required=True, metavar="C", help="the channel, or several with commas between")


def add_promote_arguments(parser: argparse.ArgumentParser) -> None:
    """The options of `promote`."""
    parser.add_argument("version", help="the version that the one channel offers")
    parser.add_argument("--from", dest="source", required=True, metavar="C", help="the channel that offers it")
    parser.add_argument("--to", dest="channel", required=True, metavar="C", help="the channel that is to offer it")


def add_withdraw_arguments(parser: argparse.ArgumentParser) -> None:
    """The options of `withdraw`."""
    parser.add_argument("version", help="the version that the channel offers")
    parser.add_argument("--channel", required=True, metavar="C")


def offer(options: argparse.Namespace, signer: Signer) -> int:
    """Offers a staged version."""
    return _act(options, signer, "offer", _channels(options.channel))


def promote(options: argparse.Namespace, signer: Signer) -> int:
    """Offers what another channel offers: the same package, under the signature that it has."""
    return _act(options, signer, "promote", _channels(options.channel))


def withdraw(options: argparse.Namespace, signer: Signer) -> int:
    """Offers the version before."""
    return _act(options, signer, "withdraw", _channels(options.channel))


def _channels(text: str) -> list[str]:
    return [part.strip() for part in text.split(",") if part.strip()]


def _act(options: argparse.Namespace, signer: Signer, what: str, channels: list[str]) -> int:
    publication = Publication(options.root)
    settings = publication.settings
    if not channels:
        raise refuse("channel-name", f"no channel is given: publish.toml has {', '.join(settings.channels)}")
    for channel in [*channels, *([options.source] if what == "promote" else [])]:
        if channel not in settings.channels:
            raise refuse("channel-name", f"no client asks for the channel \"{channel}\": publish.toml has {', '.join(settings.channels)}")
    given = version.parse(options.version)
    with lock.held(options.root, what, options.wait):
        with files.explained():
            for line in publication.prepare():
                terminal.say(line)
        history = record.load(options.root)
        time = record.now(history)
        with files.explained(), Judge(settings.public_key) as clients:
            if what == "promote":
                _require_offered(publication, clients, options.source, given)
            offers, faults = {}, []
            for channel in channels:
                wanted = _version_before(publication, clients, history, channel, given) if what == "withdraw" else given
                folder = _check_staged(publication, clients, history, wanted)
                text = f"{settings.packages}{folder}/"
                address.check(text, clients)
                offers[channel] = Offer(wanted, text)
                if what != "withdraw":
                    faults += _check_above(publication, clients, channel, wanted)
            accepted = settle(faults, options.accept)
        shown = ", ".join(f"{channel}: {each.version}" for channel, each in offers.items())
        if options.dry_run:
            terminal.say(f"would sign {len(offers) * len(settings.all_windows)} descriptions and switch to {shown}")
            return 0
        first = int(record.next_id(history))
        entries = [record.Entry(id=str(first + number), time=time, who=record.who(), what=what, version=str(each.version), channel=channel,
                                accepted=tuple(accepted), reason=options.accept or "",
                                note=f"from {options.source}" if what == "promote" else f"instead of {given}" if what == "withdraw" else "")
                   for number, (channel, each) in enumerate(offers.items())]
        with files.explained():
            try:
                name = publication.switch(offers, signer, entries)
            except BaseException:
                publication.prepare()
                raise
    terminal.say(f"clients are offered {shown} ({len(offers) * len(settings.all_windows)} descriptions, set {name})")
    if what == "withdraw":
        terminal.say(f"machines that have {given} already stay on it until they are offered a higher version; nothing was deleted")
    terminal.next_step("lumaris-publish push DEST, if the server has its own copy", "lumaris-publish check",
                       *(["build a higher version with the fault mended, then stage and offer it"] if what == "withdraw" else []))
    return 0


def _require_offered(publication: Publication, clients: Judge, channel: str, wanted: version.Version) -> None:
    said = publication.offered(channel, clients)
    if said is None or said.version != wanted.number:
        present = str(version.Version.of_number(said.version)) if said else "nothing"
        raise refuse("not-offered", f"{channel} offers {present}, not {wanted}: promote what it offers, or use lumaris-publish offer")


def _version_before(publication: Publication, clients: Judge, history: record.History, channel: str, given: version.Version) -> version.Version:
    _require_offered(publication, clients, channel, given)
    before = record.offered_before(history, channel, str(given))
    if before is None:
        raise refuse("nothing-before", f"{channel} has offered nothing before {given}: build a higher version with the fault mended and offer "
                                       "that, or stop the server until there is one")
    return version.parse(before)


def _check_staged(publication: Publication, clients: Judge, history: record.History, wanted: version.Version) -> str:
    """The folder of the version, whose packages are as they were signed."""
    packages = history.of_version(str(wanted))
    if not packages:
        known = sorted({version.parse(staged.version) for staged in history.staged})
        raise refuse("not-staged", f"{wanted} is not staged{f' (there is {known[-1]})' if known else ''}: lumaris-publish stage PACKAGE.msi")
    if lacking := [variant for variant in publication.settings.variants if all(staged.variant != variant for staged in packages)]:
        raise refuse("missing-variant", f"{wanted} has no package for {', '.join(map(names.show_variant, lacking))}, and clients of that variant "
                                        "would find none: stage it too")
    for staged in packages:
        file = publication.packages / staged.folder / names.package_name(staged.variant)
        checks.check_size(file.name, staged.size, clients)
        if not file.exists():
            raise refuse("damaged", f"{file} is gone: bring it back from a copy, it must be the same bytes (SHA-256 {staged.sha256})")
        said = clients.package(file, signature_of(file))
        if said.what != ACCEPTED or said.size != staged.size:
            raise refuse("damaged", f"{file} is not what was signed ({said.message or 'another size'}): bring it back from a copy "
                                    f"(SHA-256 {staged.sha256})")
        if version.parse(msi.Reading(file).package().version) != wanted:
            raise refuse("offer-version", f"{file} is not {wanted}: machines would install it again at every run; stage the right package")
    return packages[0].folder


def _check_above(publication: Publication, clients: Judge, channel: str, wanted: version.Version) -> list[Fault]:
    said = publication.offered(channel, clients)
    if said is None or wanted.number > said.version:
        return []
    complete = all(publication.file(windows, channel).exists() for windows in publication.settings.all_windows)
    if wanted.number == said.version and not complete:
        return []  # a kind of Windows is new
    present = version.Version.of_number(said.version)
    return [Fault("not-above", f"{channel} offers {present}, and {wanted} is not above it: clients never go back; raise the version, or use "
                               "lumaris-publish withdraw", policy=True)]
