"""Makes a release: builds twice, compares, checks, signs, and writes what is shipped. `./dev release` calls it, inside the room."""

from __future__ import annotations

import argparse
import hashlib
import json
import os
import re
import shutil
import sys
import tempfile
from pathlib import Path

sys.dont_write_bytecode = True
ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(Path(__file__).resolve().parent))

import asking  # noqa: E402  (the path to it is set above)
import bill  # noqa: E402
import builds  # noqa: E402
import compare  # noqa: E402
import frames  # noqa: E402
import notices  # noqa: E402
import program  # noqa: E402
import signing  # noqa: E402
import symbols  # noqa: E402
from jobs.version import configured_version  # noqa: E402  (builds sets the path to it)

CANDIDATE = ROOT / "build/release-candidate"
OUTPUT = ROOT / "build/release"
READER = ROOT / "build/native-release/tools/report_reader/read_report"
SHIPPED = ("lumaris.exe", "lumaris.pdb", "lumaris.cdx.json", "THIRD-PARTY-NOTICES.txt", "read_report", "SHA256SUMS")


class Refusal(Exception):
    """The release is refused. Each complaint is a sentence."""

    def __init__(self, *complaints: str) -> None:
        super().__init__("\n".join(complaints))
        self.complaints = complaints


def configuration() -> program.Configuration:
    """What the release is configured with: the environment that the build takes its settings from, and the defaults."""
    lists = (ROOT / "CMakeLists.txt").read_text(encoding="utf-8")
    defaults = dict(re.findall(r'^set\((LUMARIS_\w+) "([^"]*)" CACHE STRING', lists, re.MULTILINE))
    if not {"LUMARIS_UPDATE_HOST", "LUMARIS_REPORT_HOST"} <= defaults.keys():
        raise Refusal("CMakeLists.txt does not say the default hosts")

    def setting(name: str) -> str:
        return os.environ.get(name, defaults.get(name, "")).strip()

    return program.Configuration(version=configured_version(), public_key=setting("LUMARIS_PUBLIC_KEY"),
                                 update_host=setting("LUMARIS_UPDATE_HOST"), report_host=setting("LUMARIS_REPORT_HOST"),
                                 partner=setting("LUMARIS_PARTNER"))


def test_key() -> program.TestKey:
    """The key pair of the tests."""
    def line(name: str) -> str:
        return (ROOT / "tests/keys" / name).read_text(encoding="ascii").splitlines()[1]
    return program.TestKey(line("test.pub"), line("test.key"))


def check_configuration(configured: program.Configuration, allow_default_hosts: bool) -> list[str]:
    """A release that cannot reach its servers, or that trusts no key, cannot be mended by an update either."""
    complaints = []
    try:
        program.key_parts(configured.public_key)
    except ValueError:
        complaints.append("there is no trusted key, or it is none: give --key")
    if not configured.partner:
        complaints.append("there is no partner whom the Albanian texts name: give --partner")
    for what, host in (("update", configured.update_host), ("report", configured.report_host)):
        if not re.fullmatch(r"[A-Za-z0-9-]+(\.[A-Za-z0-9-]+)*", host):
            complaints.append(f"the {what} host is \"{host}\", which is not a host name: give it alone, without scheme, port and path")
        if not program.is_laboratory_host(host):
            continue
        if allow_default_hosts:
            print(f"release: WARNING: the {what} host is {host}, which no machine can reach: this release is for trying out alone", flush=True)
        else:
            complaints.append(f"the {what} host is {host}, which is reserved for examples and tests: give --{what}-host "
                              "(or --allow-default-hosts for a release that only tries this out)")
    return complaints


def check_built(built: builds.Build, configured: program.Configuration) -> list[str]:
    """All checks of what was built."""
    allowed = program.read_allowed((Path(__file__).with_name("imports.txt")).read_text(encoding="utf-8"))
    sources = {each.name for each in (builds.ROOT / "src").rglob("*.cpp")}
    return [*program.check_program(built.program, configured, test_key(), allowed), *program.check_pdb(built.program, built.pdb),
            *frames.check(built.program, built.linker_map, sources), *bill.check_parts(program.archives_of(built.pdb))]


def remove_shipped(folder: Path) -> None:
    """No release of an earlier call remains if this one fails."""
    for name in SHIPPED:
        (folder / name).unlink(missing_ok=True)
    shutil.rmtree(folder / "symbols", ignore_errors=True)


def make(options: argparse.Namespace) -> None:
    """Builds twice, compares, checks, and leaves what was built for `ship`."""
    remove_shipped(options.output)
    shutil.rmtree(options.candidate, ignore_errors=True)
    configured = configuration()
    if complaints := check_configuration(configured, options.allow_default_hosts):
        raise Refusal(*complaints)
    commit = builds.commit()
    if commit.changed and not options.allow_changes:
        raise Refusal(f"{len(commit.changed)} files are not as committed ({', '.join(commit.changed[:5])}): nobody else could build this "
                      "(--allow-changes for a release that only tries this out)")
    if commit.changed:
        print("release: WARNING: the sources are not those of the commit: this release is for trying out alone", flush=True)

    first, second = builds.build_here(), builds.build_elsewhere()
    if complaints := [*compare.differences("lumaris.exe", first.program, second.program),
                      *compare.differences("lumaris.pdb", first.pdb, second.pdb)]:
        raise Refusal("two builds of the same sources are not the same bytes", *complaints)
    print(f"release: both builds are the same bytes: lumaris.exe {len(first.program):,}, lumaris.pdb {len(first.pdb):,}", flush=True)
    if complaints := check_built(first, configured):
        raise Refusal(*complaints)
    print("release: the program is as it must be: headers, sections, guard, imports, resources, size, keys, hosts, paths", flush=True)
    named = asking.user_agent(first.program, configured.update_host)
    if named != f"Lumaris/{configured.version}":
        raise Refusal(f"the program calls itself \"{named}\" to the update server, and this release is Lumaris/{configured.version}")
    print(f"release: the program runs, and calls itself {named}", flush=True)

    options.candidate.mkdir(parents=True)
    (options.candidate / "lumaris.exe").write_bytes(first.program)
    (options.candidate / "lumaris.pdb").write_bytes(first.pdb)
    (options.candidate / "candidate.json").write_text(json.dumps({
        "version": configured.version, "time": commit.time, "commit": commit.name + (" with changes" if commit.changed else ""),
        "properties": {"public-key": configured.public_key, "update-host": configured.update_host, "report-host": configured.report_host,
                       "partner": configured.partner,
                       "sources-sha256": hashlib.sha256((ROOT / "toolchain/sources.list").read_bytes()).hexdigest()},
    }), encoding="utf-8")


def checksums(files: dict[str, bytes]) -> str:
    """The lines that `sha256sum -c` takes."""
    return "".join(f"{hashlib.sha256(data).hexdigest()}  {name}\n" for name, data in files.items())


def adopted(program: Path, authority: Path | None, unsigned: bytes) -> bytes:
    """A program that somebody else has signed: byte for byte the one that was built, but for a signature that holds."""
    signed = program.read_bytes()
    try:
        stripped = signing.without_signature(signed)
    except ValueError as error:
        raise Refusal(f"{program.name}: {error}") from error
    if complaints := compare.differences(program.name, stripped, unsigned):
        raise Refusal(f"{program.name} without its signature is not the program that was built", *complaints)
    if stripped == signed:
        raise Refusal(f"{program.name} carries no signature: sign the program of build/release-candidate and give that")
    if authority is None:
        raise Refusal("nobody says whose signature it must be: give --authority with the root of the certificate")
    print(signing.verify_against(program, authority).strip(), flush=True)
    return signed


def assemble(candidate: Path, output: Path, reader: Path, identity: signing.Identity | None, adopt: Path | None = None,
             authority: Path | None = None) -> None:
    """Signs the candidate if there is somebody to sign, or takes the one that was signed elsewhere, and writes what is shipped: everything, or
    nothing."""
    remove_shipped(output)
    reads = reader.read_bytes()
    if complaints := symbols.check_reader(reads):
        raise Refusal(*complaints)
    unsigned, pdb = (candidate / "lumaris.exe").read_bytes(), (candidate / "lumaris.pdb").read_bytes()
    known = json.loads((candidate / "candidate.json").read_text(encoding="utf-8"))
    shipped = unsigned
    if adopt is not None:
        shipped = adopted(adopt, authority, unsigned)
        print("release: signed elsewhere; without the signature it is the program that was built, byte for byte", flush=True)
    elif identity is not None:
        with tempfile.TemporaryDirectory(prefix="sign-") as scratch:
            signed = Path(scratch) / "lumaris.exe"
            signing.sign(candidate / "lumaris.exe", identity, signed)
            print(signing.verify(signed, identity, Path(scratch)).strip(), flush=True)
            shipped = signed.read_bytes()
        if signing.without_signature(shipped) != unsigned:
            raise Refusal("the signed program without its signature is not the program that was built")
        print("release: signed; without the signature it is the program that was built, byte for byte", flush=True)
    sources = bill.read_sources((ROOT / "toolchain/sources.list").read_text(encoding="utf-8"))
    text = bill.make_bill(bill.Release(program=shipped, unsigned=unsigned, pdb=pdb, **known), sources)
    files = {"lumaris.exe": shipped, "lumaris.pdb": pdb, "lumaris.cdx.json": text.encode("utf-8"),
             notices.NAME: notices.make_notices(known["version"], sources).encode("utf-8"), "read_report": reads,
             **symbols.store(shipped, pdb)}
    for name, data in files.items():
        (output / name).parent.mkdir(parents=True, exist_ok=True)
        (output / name).write_bytes(data)
    (output / "read_report").chmod(0o755)
    # The checksums come last: a folder with them is whole.
    (output / "SHA256SUMS").write_text(checksums(files), encoding="ascii")
    for name, data in files.items():
        print(f"release: {hashlib.sha256(data).hexdigest()}  {name} ({len(data):,} bytes)", flush=True)
    if shipped != unsigned:
        print(f"release: {hashlib.sha256(unsigned).hexdigest()}  lumaris.exe without its signature", flush=True)


def ship(options: argparse.Namespace) -> None:
    """Signs what `make` left, and writes the release."""
    identity = None
    if options.adopt:
        if any((options.certificate, options.certificate_key, options.pkcs12, options.password_file, options.timestamp)):
            raise Refusal("a program that is signed already is not signed again: give --adopt, or a certificate")
    elif any((options.certificate, options.certificate_key, options.pkcs12)):
        identity = signing.Identity(certificate=options.certificate, key=options.certificate_key, pkcs12=options.pkcs12,
                                    password_file=options.password_file, authority=options.authority,
                                    timestamp_url=options.timestamp, timestamp_authority=options.timestamp_authority)
        if fault := identity.fault():
            raise Refusal(fault)
    elif any((options.password_file, options.authority, options.timestamp, options.timestamp_authority)):
        raise Refusal("there is nobody to sign: give --certificate and --certificate-key, or --pkcs12")
    assemble(options.candidate, options.output, options.reader, identity, options.adopt, options.authority)
    if identity is None and options.adopt is None:
        print("release: WARNING: the program is not signed", flush=True)


def match(options: argparse.Namespace) -> None:
    """Says whether a program, signed or not, is the one that `make` left."""
    built, given = (options.candidate / "lumaris.exe").read_bytes(), options.program.read_bytes()
    try:
        stripped = signing.without_signature(given)
    except ValueError as error:
        raise Refusal(f"{options.program.name}: {error}") from error
    if complaints := compare.differences(options.program.name, stripped, built):
        raise Refusal(f"{options.program.name} is not what these sources make", *complaints)
    print(f"release: {options.program.name} is what these sources make{', signed' if stripped != given else ''}", flush=True)


def main(arguments: list[str] | None = None) -> int:
    """Runs one step."""
    parser = argparse.ArgumentParser(prog="./dev release", description=__doc__)
    steps = parser.add_subparsers(dest="step", required=True)
    step = steps.add_parser("make", help="build twice, compare, check")
    step.add_argument("--allow-default-hosts", action="store_true")
    step.add_argument("--allow-changes", action="store_true")
    step.set_defaults(run=make)
    step = steps.add_parser("ship", help="sign, and write the release")
    for name in ("certificate", "certificate-key", "pkcs12", "password-file", "authority", "timestamp-authority", "adopt"):
        step.add_argument(f"--{name}", type=Path)
    step.add_argument("--timestamp", metavar="URL")
    step.add_argument("--reader", type=Path, default=READER, help="the reader of error reports that goes with it")
    step.set_defaults(run=ship)
    step = steps.add_parser("match", help="compare a released program with what was made")
    step.add_argument("program", type=Path)
    step.set_defaults(run=match)
    for step in steps.choices.values():
        step.add_argument("--candidate", type=Path, default=CANDIDATE, help="what was made, before it is signed")
        step.add_argument("--output", type=Path, default=OUTPUT)
    options = parser.parse_args(arguments)
    os.chdir(ROOT)
    try:
        options.run(options)
    except Refusal as refusal:
        for complaint in refusal.complaints:
            print(f"release: REFUSED: {complaint}", file=sys.stderr, flush=True)
        return 1
    except (builds.BuildError, signing.SigningError, bill.BillError, asking.AskingError, OSError) as error:
        print(f"release: REFUSED: {error}", file=sys.stderr, flush=True)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
