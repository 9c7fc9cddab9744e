"""What a package must be before it is signed. A signature cannot be called back, so everything is checked before there is one."""

from __future__ import annotations

from collections.abc import Callable
from pathlib import Path

from . import msi, program, signing, tools, version
from .judge import Judge
from .record import History, Staged
from .refusal import Fault, Refusal, refuse
from .settings import ARCHITECTURES, Settings


def check(file: Path, package: msi.Package, settings: Settings, history: History, variant: str,
          digest: Callable[[], str]) -> tuple[list[Fault], str]:
    """What is wrong with a package, and where it installs its program. Raises Refusal if what is inside cannot even be read."""
    own = version.parse(package.version)
    with msi.program_inside(file) as (inside, place):
        carried = program.read(inside)
    return [*_check_tables(package, settings), *_check_program(carried, own, settings), *_check_file_version(package, carried, own),
            *_check_past(package, own, variant, history, digest), *_check_authenticode(file, settings), *_check_place(place, history)], place


def _check_place(place: str, history: History) -> list[Fault]:
    """What starts the program knows one place; a program in another one is never run, and the old one installs for ever."""
    former = {staged.place for staged in history.staged if staged.place}
    if not former or place in former:
        return []
    return [Fault("program-place", f"lumaris.exe is installed in \"{place}\", and was in \"{', '.join(sorted(former))}\": machines would go on running the "
                                   "old one and install this package at every run; install it where it was", policy=True)]


def _check_tables(package: msi.Package, settings: Settings) -> list[Fault]:
    faults = []
    if package.platform != settings.platform:
        faults.append(Fault("platform", f"the package is for {package.platform or 'no processor'}, not for {settings.platform}: set its "
                                        f"summary with msibuild -s (\"{settings.platform};1033\")"))
    if not package.per_machine:
        faults.append(Fault("per-machine", "the package is not per machine (ALLUSERS is not 1), and the updater runs as no user: build it "
                                           "with InstallScope=\"perMachine\""))
    if not package.refuses_to_go_back:
        faults.append(Fault("no-guard", "the package does not refuse to take the place of a newer version, and once it is signed anybody may "
                                        "hand it out for ever: put <MajorUpgrade DowngradeErrorMessage=\"...\"/> into its source"))
    if reasons := package.may_leave_out:
        faults.append(Fault("optional-program", f"some machines would install the package without its lumaris.exe, and again at every run "
                                                f"({'; '.join(reasons)}): let it be installed everywhere"))
    if not package.upgrade_code or not package.product_code:
        faults.append(Fault("codes", "the package has no UpgradeCode or no ProductCode: give it both"))
    return faults


def _check_program(carried: program.Program, own: version.Version, settings: Settings) -> list[Fault]:
    faults = []
    try:
        inside: version.Version | None = version.parse(carried.version)
    except Refusal:
        inside = None
    if inside != own:
        faults.append(Fault("program-version", f"the package is {own} but the lumaris.exe in it is {carried.version}: machines would install "
                                               "it again at every run; build the program for this version and pack it"))
    if carried.machine != settings.machine:
        faults.append(Fault("program-platform", f"the lumaris.exe in the package is for another processor (machine 0x{carried.machine:04X}, not "
                                                f"0x{ARCHITECTURES[settings.architecture][1]:04X}): pack the right one"))
    if not carried.trusts(signing.key_bytes(settings.expected_key)):
        faults.append(Fault("other-key", f"the lumaris.exe in the package does not trust the key {signing.key_name(settings.expected_key)}: "
                                         "machines that install it could never update again; build it with this key"))
    if not carried.names(settings.expected_host):
        faults.append(Fault("other-host", f"the lumaris.exe in the package does not ask {settings.expected_host}: build it with "
                                          "LUMARIS_UPDATE_HOST set to this host"))
    if hosts := carried.laboratory_hosts:
        faults.append(Fault("test-host", f"the lumaris.exe in the package names {', '.join(hosts)}, which is for tests and examples: build it "
                                         "with the true hosts", policy=True))
    return faults


def _check_file_version(package: msi.Package, carried: program.Program, own: version.Version) -> list[Fault]:
    """The installer asks the table and not the file, and takes a file on the disk for the newer one when the table says less."""
    if carried.version != f"{own}.0":
        return []  # another program altogether, which is said already
    return [Fault("file-version", f"the File table says that lumaris.exe is {row['Version'] or 'without a version'}, and the file says "
                                  f"{carried.version}: machines might keep the program that they have; put the true version into the table", policy=True)
            for row in package.programs if row["Version"] != carried.version]


def _check_past(package: msi.Package, own: version.Version, variant: str, history: History, digest: Callable[[], str]) -> list[Fault]:
    faults = []
    codes = {staged.upgrade_code for staged in history.staged if staged.variant == variant} or {staged.upgrade_code for staged in history.staged}
    if codes and package.upgrade_code not in codes:
        faults.append(Fault("upgrade-code", f"the UpgradeCode is {package.upgrade_code} and was {', '.join(sorted(codes))}: the new version would "
                                            "be installed beside the old one; keep the code", policy=True))
    for staged in history.staged:
        if staged.product_code == package.product_code and staged.sha256 != digest() and \
                (staged.version, staged.variant) != (str(own), variant):
            faults.append(Fault("product-code", f"the ProductCode {package.product_code} was that of {staged.title} already: the installer would "
                                                "refuse it; let every package have a code of its own (Id=\"*\")"))
    return faults


def check_size(name: str, size: int, clients: Judge) -> None:
    """Raises Refusal if clients would break the download off."""
    if size > (limit := clients.limit()):
        raise refuse("too-large", f"{name} has {size:,} bytes, and clients break a download off after {limit:,}: make the package smaller")


def check_same(known: Staged, digest: str) -> None:
    """The same package may be staged again. Raises Refusal if it is another one under the same version."""
    if known.sha256 != digest:
        raise Refusal(Fault("other-bytes", f"{known.title} was signed already, with other bytes (SHA-256 {known.sha256[:16]}..., now "
                                           f"{digest[:16]}...): raise the version"))


def _check_authenticode(file: Path, settings: Settings) -> list[Fault]:
    if not settings.authenticode:
        return []
    root = ["-CAfile", settings.authenticode_root] if settings.authenticode_root else []
    done = tools.run(["osslsigncode", "verify", *root, "-in", file])
    said = (done.stdout + done.stderr).decode("utf-8", "replace")
    # Without a root of ours only the signature itself is checked, not who made it.
    good = "Signature verification: ok" in said if root else "No signature found" not in said and "Calculated DigitalSignature" in said
    if good:
        return []
    return [Fault("authenticode", "the package carries no Authenticode signature that holds, and publish.toml wants one: sign it with "
                                  "osslsigncode, or ./dev installer with --pkcs12", policy=True)]
