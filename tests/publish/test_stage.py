"""`stage`: each package that must not be signed, and what a signed one leaves."""

from __future__ import annotations

import hashlib
import json
import os
import resource
import shutil
import signal
import subprocess
import sys
import time
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest

from bed.signing import KeyPair
from conftest import TREE, Workshop
from kit import HOST, Kit
from lumaris_publish import files, program, signing

PACKAGE = "public/packages/3.4.1/Halvoro.ARM64.msi"


def set_property(name: str, value: str) -> str:
    """A statement that changes a property of a package."""
    return f"UPDATE `Property` SET `Value` = '{value}' WHERE `Property` = '{name}'"


def upgrade_row(name: str, *, code: str = "{6C1F8C0E-5D25-4F4E-9A53-0D1B6B3A7C11}", least: str = "3.4.1", attributes: int = 2) -> tuple[str, str]:
    """Statements that put another row into the Upgrade table in the place of the one with this property."""
    return (f"DELETE FROM `Upgrade` WHERE `ActionProperty` = '{name}'",
            "INSERT INTO `Upgrade` (`UpgradeCode`, `VersionMin`, `VersionMax`, `Language`, `Attributes`, `Remove`, `ActionProperty`) "
            f"VALUES ('{code}', '{least}', '', '', {attributes}, '', '{name}')")


def test_a_package_is_copied_signed_and_recorded(kit: Kit, workshop: Workshop) -> None:
    package = workshop.package()
    said = kit.done("stage", package)
    assert "3.4.1 is signed: " in said.out and "next: lumaris-publish offer 3.4.1 --channel beta" in said.out
    assert f"SHA-256 {hashlib.sha256(package.read_bytes()).hexdigest()}\n" in said.out
    assert (kit.root / PACKAGE).read_bytes() == package.read_bytes()
    assert os.stat(kit.root / PACKAGE).st_mode & 0o222 == 0
    done = subprocess.run(["minisign", "-V", "-P", kit.key.line, "-m", str(kit.root / PACKAGE)], capture_output=True, timeout=30, check=False)
    assert done.returncode == 0
    assert sorted(kit.tree()) == sorted([PACKAGE, f"{PACKAGE}.minisig", "log.jsonl", "publish.toml", "server/apache.conf", "server/cdn.txt",
                                         "server/nginx.conf", "server/web.config", "state/packages/3.4.1.json"])


def test_the_digest_follows_a_file_that_is_being_written(tmp_path: Path) -> None:
    content, file = os.urandom(1_000_000), tmp_path / "growing"

    def lengths() -> Iterator[int]:
        for length in (0, 1, 1, 300_000, len(content)):
            file.write_bytes(content[:length])
            yield length

    file.touch()
    assert files.digest(file, lengths()) == hashlib.sha256(content).hexdigest()


def test_a_copy_that_became_shorter_has_no_digest(tmp_path: Path) -> None:
    file = tmp_path / "shorter"
    file.write_bytes(b"12345")
    with pytest.raises(OSError, match="became shorter"):
        files.digest(file, iter([6]))


def test_nothing_is_offered_by_staging(kit: Kit, workshop: Workshop) -> None:
    kit.done("stage", workshop.package())
    assert not (kit.root / "public/current").is_symlink()


def test_the_same_package_may_be_staged_again(kit: Kit, workshop: Workshop) -> None:
    kit.done("stage", workshop.package())
    before = kit.tree()
    assert "nothing to do" in kit.done("stage", workshop.package()).out
    assert kit.tree() == before


def test_a_dry_run_changes_nothing(kit: Kit, workshop: Workshop) -> None:
    before = kit.tree()
    assert "would sign" in kit.done("stage", workshop.package(), "--dry-run").out
    assert kit.tree() == before
    kit.refused("no-guard", "stage", workshop.package(guarded=False), "--dry-run")


@pytest.mark.parametrize(("fault", "arguments", "statements"), [
    ("platform", {"platform": "x64;1033"}, ()),
    ("platform", {"platform": "Intel;1033"}, ()),
    ("per-machine", {}, (set_property("ALLUSERS", "2"),)),
    ("per-machine", {}, ("DELETE FROM `Property` WHERE `Property` = 'ALLUSERS'",)),
    ("no-guard", {"guarded": False}, ()),
    ("no-guard", {}, ("DELETE FROM `LaunchCondition` WHERE `Condition` = 'NOT WIX_DOWNGRADE_DETECTED'",)),
    ("no-guard", {}, upgrade_row("WIX_DOWNGRADE_DETECTED", attributes=0)),
    ("no-guard", {}, upgrade_row("WIX_DOWNGRADE_DETECTED", code="{00000000-5D25-4F4E-9A53-0D1B6B3A7C11}")),
    ("no-guard", {}, ("UPDATE `InstallExecuteSequence` SET `Sequence` = 5000 WHERE `Action` = 'FindRelatedProducts'",)),
    ("no-guard", {}, ("DELETE FROM `InstallExecuteSequence` WHERE `Action` = 'LaunchConditions'",)),
    ("no-guard", {}, (set_property("SecureCustomProperties", "OTHER"),)),
    ("no-guard", {}, ("UPDATE `InstallExecuteSequence` SET `Condition` = 'NOT Installed' WHERE `Action` = 'FindRelatedProducts'",)),
    ("no-guard", {}, ("UPDATE `InstallExecuteSequence` SET `Condition` = '0' WHERE `Action` = 'LaunchConditions'",)),
    ("no-guard", {}, ("INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('Forget', 307, 'WIX_DOWNGRADE_DETECTED', '{}')",)),
    ("optional-program", {}, ("UPDATE `Component` SET `Condition` = 'VersionNT >= 1000' WHERE `Component` = 'Updater'",)),
    ("optional-program", {}, ("UPDATE `Feature` SET `Level` = 0",)),
    ("optional-program", {}, ("UPDATE `Feature` SET `Level` = 200",)),
    ("no-program", {"with_program": False}, ()),
    ("fourth-field", {}, (set_property("ProductVersion", "3.4.0.1"),)),
    ("fourth-field", {}, (set_property("ProductVersion", "3.4.1.7"),)),
    ("version-field", {}, (set_property("ProductVersion", "3.4.256"),)),
    ("version-field", {}, (set_property("ProductVersion", "256.0.0"),)),
    ("highest-version", {}, (set_property("ProductVersion", "255.255.255"),)),
    ("version", {}, (set_property("ProductVersion", "3.4"),)),
    ("version", {}, (set_property("ProductVersion", "3.4.x"),)),
])
def test_a_package_that_must_not_be_signed_is_refused(kit: Kit, workshop: Workshop, fault: str, arguments: dict[str, str],
                                                      statements: tuple[str, ...]) -> None:
    kit.refused(fault, "stage", workshop.package("3.4.1", *statements, **arguments))  # type: ignore[arg-type]
    # Not even with a reason.
    kit.refused(fault, "stage", workshop.package("3.4.1", *statements, **arguments), "--accept", "in a hurry")  # type: ignore[arg-type]


def test_a_guard_that_leaves_versions_out_is_none(kit: Kit, workshop: Workshop) -> None:
    for least, attributes in (("3.4.2", 2), ("3.4.1", 0x102), ("", 2), ("3.4.0", 2)):
        kit.refused("no-guard", "stage", workshop.package("3.4.1", *upgrade_row("WIX_DOWNGRADE_DETECTED", least=least, attributes=attributes)))
    kit.done("stage", workshop.package("3.4.1", *upgrade_row("WIX_DOWNGRADE_DETECTED")))


def test_a_program_of_another_version_is_refused(kit: Kit, workshop: Workshop) -> None:
    said = kit.refused("program-version", "stage", workshop.package("3.4.1", program=workshop.program("3.4.0")))
    assert "the package is 3.4.1 but the lumaris.exe in it is 3.4.0.0: machines would install it again at every run" in said.err


def test_a_program_whose_fourth_field_is_not_0_is_refused(kit: Kit, workshop: Workshop) -> None:
    kit.refused("program-version", "stage", workshop.package("3.4.1", program=workshop.program("3.4.1.5")))


def test_a_file_table_that_calls_the_program_older_is_refused_unless_there_is_a_reason(kit: Kit, workshop: Workshop) -> None:
    for version in ("3.4.0.0", ""):
        package = workshop.package("3.4.1", f"UPDATE `File` SET `Version` = '{version}' WHERE `File` = 'lumaris.exe'")
        kit.refused("file-version", "stage", package)
    kit.done("stage", package, "--accept", "the old product goes before the new one comes")


def test_a_program_that_trusts_another_key_is_refused(kit: Kit, workshop: Workshop) -> None:
    kit.refused("other-key", "stage", workshop.package("3.4.1", program=workshop.program(key=workshop.other_key)))


def test_a_program_that_asks_another_host_is_refused(kit: Kit, workshop: Workshop) -> None:
    kit.refused("other-host", "stage", workshop.package("3.4.1", program=workshop.program(host="updates.tavrin.privat2")))
    kit.refused("other-host", "stage", workshop.package("3.4.1", program=workshop.program(host="old." + HOST[4:])))


def test_a_program_for_another_processor_is_refused(kit: Kit, workshop: Workshop) -> None:
    kit.refused("program-platform", "stage", workshop.package("3.4.1", program=workshop.program(architecture="x64")))


def test_a_program_that_names_a_test_host_is_refused_unless_there_is_a_reason(new_kit: Callable[..., Kit], workshop: Workshop) -> None:
    kit = new_kit(host="updates.tavrin.example")
    package = workshop.package("3.4.1", program=workshop.program(host="updates.tavrin.example"))
    said = kit.refused("test-host", "stage", package)
    assert "updates.tavrin.example" in said.err and "(or --accept REASON)" in said.err
    kit.done("stage", package, "--accept", "a trial in the laboratory")
    entry = json.loads((kit.root / "log.jsonl").read_text(encoding="utf-8"))
    assert (entry["accepted"], entry["reason"]) == (["test-host"], "a trial in the laboratory")
    assert "accepted test-host: a trial in the laboratory" in kit.done("log").out


@pytest.mark.parametrize(("text", "hosts"), [
    (b"\0updates.tavrin.example\0", ["updates.tavrin.example"]), (b"http://a.test/x b.invalid", ["a.test", "b.invalid"]),
    (b"www.example.com", ["www.example.com"]), (b"\0localhost\0", ["localhost"]), (b"127.0.0.1:80", ["127.0.0.1"]),
    (b"\0updates.tavrin.private\0 .example 5127.0.0.1 localhosts mylocalhost x.examples.org a.testing", []),
])
def test_hosts_of_laboratories_are_distinguished_from_other_texts(text: bytes, hosts: list[str]) -> None:
    assert program.Program("3.4.1.0", 0xAA64, text).laboratory_hosts == hosts


def test_a_program_in_another_place_is_refused_unless_there_is_a_reason(kit: Kit, workshop: Workshop) -> None:
    kit.done("stage", workshop.package())
    moved = workshop.package("3.4.2", "UPDATE `Directory` SET `DefaultDir` = 'Elsewhere' WHERE `Directory` = 'INSTALLDIR'")
    said = kit.refused("program-place", "stage", moved)
    assert 'Tavrin/Elsewhere", and was in' in said.err
    kit.done("stage", moved, "--accept", "the task starts it there from now on")
    kit.done("stage", workshop.package("3.4.3"))


def test_all_faults_are_said_at_once(kit: Kit, workshop: Workshop) -> None:
    said = kit("stage", workshop.package("3.4.1", set_property("ALLUSERS", "2"), guarded=False, program=workshop.program("3.4.0")))
    assert said.refusals == ["per-machine", "no-guard", "program-version"]


def test_two_programs_inside_are_refused(kit: Kit, workshop: Workshop, tmp_path: Path) -> None:
    package = workshop.package("3.4.1", "UPDATE `File` SET `FileName` = 'lumaris.exe' WHERE `File` = 'halvoro.txt'",
                               "UPDATE `Component` SET `Directory_` = 'MakerFolder' WHERE `Component` = 'Program'")
    kit.refused("no-program", "stage", package)


def test_something_else_called_lumaris_is_refused(kit: Kit, workshop: Workshop, tmp_path: Path) -> None:
    (tmp_path / "lumaris.exe").write_bytes(b"MZ" + b"x" * 1000)
    kit.refused("no-program", "stage", workshop.package("3.4.1", program=tmp_path / "lumaris.exe"))


def test_a_file_that_is_no_package_is_refused(kit: Kit, tmp_path: Path) -> None:
    (tmp_path / "no.msi").write_bytes(b"x" * 5000)
    kit.refused("no-package", "stage", tmp_path / "no.msi")
    kit.refused("no-package", "stage", tmp_path / "absent.msi")


def test_a_package_that_was_cut_off_is_refused(kit: Kit, workshop: Workshop, tmp_path: Path) -> None:
    content = workshop.package().read_bytes()
    (tmp_path / "cut.msi").write_bytes(content[:len(content) // 2])
    kit.refused("no-package", "stage", tmp_path / "cut.msi")


def test_other_bytes_of_a_version_that_was_signed_are_refused(kit: Kit, workshop: Workshop) -> None:
    kit.done("stage", workshop.package())
    said = kit.refused("other-bytes", "stage", workshop.package("3.4.1", name="again"))
    assert "raise the version" in said.err
    kit.refused("other-bytes", "stage", workshop.package("3.4.1", name="again"), "--accept", "nobody has it")


def test_a_product_code_that_was_used_is_refused(kit: Kit, workshop: Workshop) -> None:
    code = "{11111111-2222-3333-4444-555555555555}"
    kit.done("stage", workshop.package("3.4.1", set_property("ProductCode", code)))
    kit.refused("product-code", "stage", workshop.package("3.4.2", set_property("ProductCode", code)), "--accept", "why not")


def test_another_upgrade_code_is_refused_unless_there_is_a_reason(kit: Kit, workshop: Workshop) -> None:
    kit.done("stage", workshop.package())
    code = "{AAAAAAAA-5D25-4F4E-9A53-0D1B6B3A7C11}"
    other = workshop.package("3.4.2", set_property("UpgradeCode", code), *upgrade_row("WIX_DOWNGRADE_DETECTED", code=code, least="3.4.2"))
    kit.refused("upgrade-code", "stage", other)
    kit.done("stage", other, "--accept", "a new product line")


def test_a_version_that_was_not_meant_is_refused(kit: Kit, workshop: Workshop) -> None:
    kit.refused("version", "stage", workshop.package(), "--expect", "3.4.2")
    kit.done("stage", workshop.package(), "--expect", "3.4.1")
    kit.refused("version", "stage", workshop.package(), "--expect", "3.4.2")


# Variants


def test_a_variant_lies_beside_the_plain_package(new_kit: Callable[..., Kit], workshop: Workshop) -> None:
    kit = new_kit("--variants=-sl")
    said = kit.done("stage", workshop.package())
    assert "stage the variant -sl too" in said.out
    kit.done("stage", workshop.package("3.4.1", name="sl"), "--variant=-sl")
    assert kit.served("packages/3.4.1/Halvoro.ARM64-sl.msi") == workshop.package("3.4.1", name="sl").read_bytes()
    assert kit.served("packages/3.4.1/Halvoro.ARM64.msi") == workshop.package().read_bytes()


@pytest.mark.parametrize("variant", ["-en", "-s/l", "..", "-SL"])
def test_a_variant_that_clients_would_not_ask_for_is_refused(new_kit: Callable[..., Kit], workshop: Workshop, variant: str) -> None:
    new_kit("--variants=-sl").refused("variant-name", "stage", workshop.package(), f"--variant={variant}")


# The key


@pytest.fixture(name="locked_key")
def locked_key_fixture(tmp_path: Path) -> KeyPair:
    """A key with a password."""
    made = KeyPair(tmp_path / "locked.pub", tmp_path / "locked.key")
    done = subprocess.run(["minisign", "-G", "-p", str(made.public), "-s", str(made.secret)], input=b"geslo\ngeslo\n", capture_output=True,
                          timeout=60, check=False)
    assert done.returncode == 0
    (tmp_path / "right").write_text("geslo\nsecond line\n", encoding="ascii")
    (tmp_path / "wrong").write_text("gesl0\n", encoding="ascii")
    return made


def test_a_key_with_its_password_signs_and_with_another_one_does_not(new_kit: Callable[..., Kit], workshop: Workshop, locked_key: KeyPair,
                                                                     tmp_path: Path) -> None:
    kit = new_kit(key=locked_key)
    package = workshop.package("3.4.1", program=workshop.program(key=locked_key))
    kit.refused("password", "stage", package, "--password-file", tmp_path / "wrong")
    kit.refused("password", "stage", package, "--password-file", tmp_path / "absent")
    kit.done("stage", package, "--password-file", tmp_path / "right")


def test_a_key_with_a_password_that_is_not_given_does_not_hang(new_kit: Callable[..., Kit], workshop: Workshop, locked_key: KeyPair) -> None:
    new_kit(key=locked_key).refused("password", "stage", workshop.package("3.4.1", program=workshop.program(key=locked_key)))


def test_another_key_than_the_publication_s_is_refused_by_the_judge(kit: Kit, workshop: Workshop) -> None:
    said = kit.refused("judge", "stage", workshop.package(), key=workshop.other_key.secret)
    assert "Untrusted Minisign key" in said.err


def test_a_key_that_is_not_there_is_refused(kit: Kit, workshop: Workshop, tmp_path: Path) -> None:
    kit.refused("key", "stage", workshop.package(), key=tmp_path / "absent.key")


# Authenticode


@pytest.fixture(name="certificate")
def certificate_fixture(tmp_path: Path) -> Path:
    """A self-signed certificate for signing programs, with its key in the same file."""
    done = subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "30", "-subj", "/CN=Tavrin test", "-addext",
                           "extendedKeyUsage=codeSigning", "-keyout", str(tmp_path / "c.key"), "-out", str(tmp_path / "c.pem")],
                          capture_output=True, timeout=60, check=False)
    assert done.returncode == 0
    return tmp_path / "c.pem"


def authenticode_sign(package: Path, certificate: Path, signed: Path) -> Path:
    """Signs as osslsigncode does."""
    done = subprocess.run(["osslsigncode", "sign", "-certs", str(certificate), "-key", str(certificate.with_suffix(".key")), "-h", "sha256",
                           "-in", str(package), "-out", str(signed)], capture_output=True, text=True, timeout=60, check=False)
    assert done.returncode == 0, done.stdout + done.stderr
    return signed


@pytest.mark.parametrize("with_root", [False, True])
def test_a_package_without_an_authenticode_signature_is_refused_where_one_is_wanted(
        new_kit: Callable[..., Kit], workshop: Workshop, certificate: Path, tmp_path: Path, with_root: bool) -> None:
    kit = new_kit("--authenticode", *(["--authenticode-root", str(certificate)] if with_root else []))
    kit.refused("authenticode", "stage", workshop.package())
    signed = authenticode_sign(workshop.package(), certificate, tmp_path / "signed.msi")
    if with_root:
        other = tmp_path / "other"
        other.mkdir()
        shutil.copy(certificate, other)
        stranger = subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "30", "-subj", "/CN=Stranger", "-keyout",
                                   str(other / "c.key"), "-out", str(other / "c.pem")], capture_output=True, timeout=60, check=False)
        assert stranger.returncode == 0
        kit.refused("authenticode", "stage", authenticode_sign(workshop.package(), other / "c.pem", tmp_path / "strange.msi"))
    kit.done("stage", signed)
    kit.done("stage", workshop.package("3.4.2"), "--accept", "the certificate is on its way")


# What fails around it


def test_a_clock_that_went_back_is_refused(kit: Kit, workshop: Workshop, monkeypatch: pytest.MonkeyPatch) -> None:
    kit.done("stage", workshop.package())
    real = time.time()
    monkeypatch.setattr(time, "time", lambda: real - 3600)
    kit.refused("clock", "stage", workshop.package("3.4.2"))
    monkeypatch.setattr(time, "time", lambda: 86400.0)
    kit.refused("clock", "offer", "3.4.1", "--channel", "beta")


@pytest.fixture(name="small_files")
def small_files_fixture() -> Iterator[Callable[[int], None]]:
    """No file can become larger than this any more: a disk that is full, for this process and what it starts."""
    before = resource.getrlimit(resource.RLIMIT_FSIZE)
    yield lambda size: resource.setrlimit(resource.RLIMIT_FSIZE, (size, before[1]))
    resource.setrlimit(resource.RLIMIT_FSIZE, before)


def test_a_disk_that_is_full_leaves_nothing(kit: Kit, workshop: Workshop, small_files: Callable[[int], None]) -> None:
    package = workshop.package()
    small_files(100_000)
    kit.refused("disk", "stage", package)


def test_a_publication_that_cannot_be_written_is_refused(kit: Kit, workshop: Workshop) -> None:
    before = kit.tree()
    for folder in (kit.root, *(each for each in kit.root.rglob("*") if each.is_dir())):
        folder.chmod(0o555)
    # Root without the privilege to do what a folder's rights forbid.
    privileges = "-dac_override,-dac_read_search"
    done = subprocess.run(["setpriv", f"--inh-caps={privileges}", f"--bounding-set={privileges}", sys.executable, "-m", "lumaris_publish", "--root",
                           str(kit.root), "stage", str(workshop.package()), "--key", str(kit.key.secret)],
                          env={**os.environ, "PYTHONPATH": str(TREE / "tools/publish"), "PYTHONDONTWRITEBYTECODE": "1"},
                          capture_output=True, text=True, timeout=60, check=False)
    assert done.returncode == 1
    assert "REFUSED [rights]" in done.stderr and "as the user to whom the publication belongs" in done.stderr
    assert kit.tree() == before


def test_a_program_that_is_missing_is_named(kit: Kit, workshop: Workshop, monkeypatch: pytest.MonkeyPatch) -> None:
    package = workshop.package()
    monkeypatch.setenv("PATH", "/nowhere")
    assert "apt-get install msitools" in kit.refused("missing-program", "stage", package).err
    monkeypatch.setenv("LUMARIS_JUDGE", "/nowhere/lumaris_judge")
    kit.refused("no-judge", "stage", package)


def test_a_folder_without_a_publication_is_refused(kit: Kit, workshop: Workshop, tmp_path: Path) -> None:
    elsewhere = Kit(tmp_path / "elsewhere", kit.key, kit.capfd)
    elsewhere.root.mkdir()
    assert "lumaris-publish init" in elsewhere.refused("no-publication", "stage", workshop.package()).err


# What clients do not take however it is signed


def test_a_package_that_is_larger_than_clients_take_is_refused(kit: Kit, workshop: Workshop, tmp_path: Path) -> None:
    large = tmp_path / "large.msi"
    shutil.copy(workshop.package(), large)
    os.truncate(large, 50_331_649)  # the builds for tests take 48 MB
    said = kit.refused("too-large", "stage", large)
    assert "large.msi has 50,331,649 bytes, and clients break a download off after 50,331,648: make the package smaller" in said.err
    kit.refused("too-large", "stage", large, "--accept", "in a hurry")
    os.truncate(large, 50_331_648)
    kit.done("stage", large)


# Signing goes on beside the checks


@pytest.mark.parametrize("size", [0, 1, 4095, 4096, 4097, 1 << 20, 5_000_001])
def test_a_signature_that_is_made_beside_other_work_is_one_of_minisign_s(workshop: Workshop, tmp_path: Path, size: int) -> None:
    content = tmp_path / "content"
    content.write_bytes(os.urandom(size))
    with signing.Signer(workshop.key.secret).start(content, "a comment") as signature:
        (tmp_path / "content.minisig").write_bytes(signature.finish())
    done = subprocess.run(["minisign", "-V", "-P", workshop.key.line, "-m", str(content)], capture_output=True, text=True, timeout=30, check=False)
    assert done.returncode == 0 and "Trusted comment: a comment" in done.stdout


def test_a_signature_that_is_given_up_was_never_made(workshop: Workshop, tmp_path: Path) -> None:
    content = tmp_path / "content"
    content.write_bytes(os.urandom(3_000_000))
    with signing.Signer(workshop.key.secret).start(content, "a comment") as signature:
        pass
    assert signature.process.returncode == -signal.SIGKILL
    assert list(tmp_path.iterdir()) == [content]
