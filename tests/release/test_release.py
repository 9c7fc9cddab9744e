"""The whole of a release but the two builds: what refuses it, and what it leaves."""

from __future__ import annotations

import hashlib
import json
import os
import re
import struct
import subprocess
import sys
from pathlib import Path
from types import ModuleType

import pefile
import pytest
from bed import version, windows
from conftest import PARTNER, REPORT_HOST, ROOT, UPDATE_HOST, Built, Signer

EXIT_REFUSED = 1


@pytest.fixture(name="environment")
def environment_fixture(built: Built, monkeypatch: pytest.MonkeyPatch) -> None:
    """What ./dev release hands to the room."""
    monkeypatch.setenv("LUMARIS_PUBLIC_KEY", built.configuration.public_key)
    monkeypatch.setenv("LUMARIS_UPDATE_HOST", UPDATE_HOST)
    monkeypatch.setenv("LUMARIS_REPORT_HOST", REPORT_HOST)
    monkeypatch.setenv("LUMARIS_PARTNER", PARTNER)


class Steps:
    """The steps of a release, with builds that are there already."""

    def __init__(self, release: ModuleType, folder: Path, monkeypatch: pytest.MonkeyPatch, first: tuple[bytes, bytes, str],
                 second: tuple[bytes, bytes, str] | None = None, changed: list[str] | None = None) -> None:
        self.output, self.candidate = folder / "output", folder / "candidate"
        self._main = release.main
        builds = release.builds
        monkeypatch.setattr(builds, "build_here", lambda: builds.Build(*first))
        monkeypatch.setattr(builds, "build_elsewhere", lambda: builds.Build(*(second or first)))
        monkeypatch.setattr(builds, "commit", lambda: builds.Commit("ab" * 20, 1_700_000_000, changed or []))
        # Running the emulated program takes its time; one test does it.
        self.named = f"Lumaris/{version.OWN}"
        monkeypatch.setattr(release.asking, "user_agent", lambda _image, _host: self.named)
        monkeypatch.chdir(folder)  # and back, as the steps change it

    def __call__(self, step: str, *arguments: str) -> int:
        status: int = self._main([step, *arguments, "--candidate", str(self.candidate), "--output", str(self.output)])
        return status

    def left(self) -> list[str]:
        """The files of the release."""
        return sorted(path.name for path in self.output.iterdir()) if self.output.exists() else []


@pytest.fixture(name="steps")
def steps_fixture(release: ModuleType, tmp_path: Path, monkeypatch: pytest.MonkeyPatch, built: Built, environment: None, reader: Path) -> Steps:
    return Steps(release, tmp_path, monkeypatch, (built.program, built.pdb, built.linker_map))


def test_an_unsigned_release_is_the_program_as_it_was_built(steps: Steps, built: Built, capsys: pytest.CaptureFixture[str]) -> None:
    assert steps("make") == 0
    assert steps("ship") == 0
    assert steps.left() == ["SHA256SUMS", "THIRD-PARTY-NOTICES.txt", "lumaris.cdx.json", "lumaris.exe", "lumaris.pdb", "read_report", "symbols"]
    assert (steps.output / "lumaris.exe").read_bytes() == built.program
    assert (steps.output / "lumaris.pdb").read_bytes() == built.pdb
    said = capsys.readouterr().out
    assert "release: both builds are the same bytes: " in said
    assert "release: WARNING: the program is not signed" in said


def test_the_checksums_are_those_of_what_is_shipped(steps: Steps) -> None:
    assert (steps("make"), steps("ship")) == (0, 0)
    done = subprocess.run(["sha256sum", "-c", "SHA256SUMS"], cwd=steps.output, capture_output=True, text=True, timeout=60, check=False)
    assert done.returncode == 0
    # Every file but the list itself.
    there = {str(path.relative_to(steps.output)) for path in steps.output.rglob("*") if path.is_file()}
    assert {line.removesuffix(": OK") for line in done.stdout.splitlines()} == there - {"SHA256SUMS"} and len(there) == 8
    with (steps.output / "lumaris.pdb").open("ab") as file:
        file.write(b"x")
    done = subprocess.run(["sha256sum", "-c", "SHA256SUMS"], cwd=steps.output, capture_output=True, text=True, timeout=60, check=False)
    assert done.returncode == 1 and "lumaris.pdb: FAILED\n" in done.stdout


def test_a_signed_release_is_shipped_signed(steps: Steps, built: Built, signer: Signer, capsys: pytest.CaptureFixture[str]) -> None:
    assert steps("make") == 0
    assert steps("ship", "--certificate", str(signer.certificate), "--certificate-key", str(signer.key), "--authority", str(signer.root)) == 0
    said = capsys.readouterr().out
    assert "Signature verification: ok" in said
    assert "release: signed; without the signature it is the program that was built, byte for byte" in said
    assert "WARNING" not in said
    shipped = (steps.output / "lumaris.exe").read_bytes()
    assert len(shipped) > len(built.program)
    assert f"{hashlib.sha256(shipped).hexdigest()}  lumaris.exe\n" in (steps.output / "SHA256SUMS").read_text(encoding="ascii")
    component = json.loads((steps.output / "lumaris.cdx.json").read_text(encoding="utf-8"))["metadata"]["component"]
    assert component["hashes"][0]["content"] == hashlib.sha256(shipped).hexdigest()
    properties = {entry["name"]: entry["value"] for entry in component["properties"]}
    assert properties["lumaris:unsigned-sha256"] == hashlib.sha256(built.program).hexdigest()
    assert properties["lumaris:commit"] == "ab" * 20
    assert properties["lumaris:update-host"] == UPDATE_HOST
    assert properties["lumaris:partner"] == PARTNER


def test_the_same_release_is_the_same_bytes_again(steps: Steps) -> None:
    assert (steps("make"), steps("ship")) == (0, 0)

    def shipped() -> dict[Path, bytes]:
        return {path: path.read_bytes() for path in steps.output.rglob("*") if path.is_file()}

    first = shipped()
    assert (steps("make"), steps("ship")) == (0, 0)
    assert shipped() == first


@pytest.mark.parametrize("which", ["lumaris.exe", "lumaris.pdb"])
def test_builds_that_differ_are_refused(which: str, release: ModuleType, tmp_path: Path, monkeypatch: pytest.MonkeyPatch, built: Built,
                                        environment: None, capsys: pytest.CaptureFixture[str]) -> None:
    def other(data: bytes, wanted: str) -> bytes:
        return data[:0x3000] + bytes([data[0x3000] ^ 1]) + data[0x3001:] if which == wanted else data
    steps = Steps(release, tmp_path, monkeypatch, (built.program, built.pdb, built.linker_map), (other(built.program, "lumaris.exe"), other(built.pdb, "lumaris.pdb"), built.linker_map))
    assert steps("make") == EXIT_REFUSED
    said = capsys.readouterr().err
    assert "release: REFUSED: two builds of the same sources are not the same bytes\n" in said
    assert f"release: REFUSED: {which} differs at offset 0x3000, 1 bytes, " in said
    assert steps.left() == [] and not steps.candidate.exists()


def test_a_program_that_fails_a_check_is_refused(release: ModuleType, tmp_path: Path, monkeypatch: pytest.MonkeyPatch, built: Built,
                                                 environment: None, capsys: pytest.CaptureFixture[str]) -> None:
    steps = Steps(release, tmp_path, monkeypatch, (built.program + b"localhost", built.pdb[:-4096], built.linker_map))
    assert steps("make") == EXIT_REFUSED
    assert capsys.readouterr().err.splitlines() == [
        f"release: REFUSED: 9 bytes stand behind the last section, from offset 0x{len(built.program):X}",
        "release: REFUSED: the program names localhost, a host for tests or examples", "release: REFUSED: the PDB is cut off"]
    assert not steps.candidate.exists()


def test_the_list_of_imports_of_the_release_is_the_one_in_use(release: ModuleType, built: Built) -> None:
    image = built.program.replace(b"\0TerminateThread\0", b"\0SuspendThread\0\0\0")
    assert "the program imports SuspendThread of kernel32.dll, which is not in the list of imports" in release.check_built(
        release.builds.Build(image, built.pdb, built.linker_map), built.configuration)


def test_a_program_without_frame_pointers_is_refused(release: ModuleType, built: Built) -> None:
    """Every function of it that saves its return address sets no frame pointer, as its unwind data say."""
    headers = pefile.PE(data=built.program, fast_load=True)
    table = headers.OPTIONAL_HEADER.DATA_DIRECTORY[3]
    begin = headers.get_offset_from_rva(table.VirtualAddress)
    without = b"".join(struct.pack("<II", function, 1 << 21 | 8 << 2 | 1) for function, _ in
                       struct.iter_unpack("<II", built.program[begin:begin + table.Size]))
    image = built.program[:begin] + without + built.program[begin + table.Size:]
    complaint, = release.check_built(release.builds.Build(image, built.pdb, built.linker_map), built.configuration)
    assert re.fullmatch(r"(\d+) of \1 functions keep no frame pointer, the first at 0x[0-9A-F]+: error reports would not hold the memory of their frames",
                        complaint)


def test_a_library_outside_of_the_bill_is_refused(release: ModuleType, built: Built) -> None:
    other = release.builds.Build(built.program, built.pdb.replace(b"/lib/libz.a\0", b"/lib/libq.a\0"), built.linker_map)
    complaints = release.check_built(other, built.configuration)
    assert "libq.a is linked into the program, and the bill of materials does not name it" in complaints


def test_a_release_that_is_refused_leaves_nothing_of_a_former_one(steps: Steps, monkeypatch: pytest.MonkeyPatch) -> None:
    assert (steps("make"), steps("ship")) == (0, 0)
    (steps.output / "notes.txt").write_text("mine", encoding="ascii")
    monkeypatch.setenv("LUMARIS_PUBLIC_KEY", "")
    assert steps("make") == EXIT_REFUSED
    assert steps.left() == ["notes.txt"]


def test_without_a_trusted_key_it_is_refused(steps: Steps, monkeypatch: pytest.MonkeyPatch, capsys: pytest.CaptureFixture[str]) -> None:
    for key in ("", "RWnonsense"):
        monkeypatch.setenv("LUMARIS_PUBLIC_KEY", key)
        assert steps("make") == EXIT_REFUSED
        assert capsys.readouterr().err == "release: REFUSED: there is no trusted key, or it is none: give --key\n"


def test_the_default_hosts_are_refused(steps: Steps, monkeypatch: pytest.MonkeyPatch, capsys: pytest.CaptureFixture[str]) -> None:
    monkeypatch.delenv("LUMARIS_UPDATE_HOST")
    monkeypatch.delenv("LUMARIS_REPORT_HOST")
    assert steps("make") == EXIT_REFUSED
    complaints = capsys.readouterr().err.splitlines()
    assert [line.split(",")[0] for line in complaints] == ["release: REFUSED: the update host is updates.tavrin.example",
                                                           "release: REFUSED: the report host is reports.tavrin.example"]
    assert all("--allow-default-hosts" in line for line in complaints)


@pytest.mark.parametrize("host", ["", "http://updates.halvoro.internal", "updates.halvoro.internal:80", "updates.halvoro.internal/", "a b", "a..b"])
def test_what_is_no_host_name_is_refused(steps: Steps, host: str, monkeypatch: pytest.MonkeyPatch, capsys: pytest.CaptureFixture[str]) -> None:
    monkeypatch.setenv("LUMARIS_REPORT_HOST", host)
    assert steps("make") == EXIT_REFUSED
    assert capsys.readouterr().err == (f'release: REFUSED: the report host is "{host}", which is not a host name: give it alone, without scheme, '
                                       "port and path\n")


def test_the_default_hosts_are_warned_of_where_they_are_allowed(release: ModuleType, tmp_path: Path, monkeypatch: pytest.MonkeyPatch,
                                                                built: Built, environment: None, capsys: pytest.CaptureFixture[str]) -> None:
    monkeypatch.delenv("LUMARIS_UPDATE_HOST")
    image = built.program.replace(b"\0updates.halvoro.internal\0", b"\0updates.tavrin.example\0\0\0")
    steps = Steps(release, tmp_path, monkeypatch, (image, built.pdb, built.linker_map))
    assert steps("make", "--allow-default-hosts") == 0
    assert "release: WARNING: the update host is updates.tavrin.example, which no machine can reach" in capsys.readouterr().out


def test_sources_that_are_not_committed_are_refused(release: ModuleType, tmp_path: Path, monkeypatch: pytest.MonkeyPatch, built: Built,
                                                    environment: None, capsys: pytest.CaptureFixture[str]) -> None:
    steps = Steps(release, tmp_path, monkeypatch, (built.program, built.pdb, built.linker_map), changed=["src/updater/main.cpp"])
    assert steps("make") == EXIT_REFUSED
    assert "release: REFUSED: 1 files are not as committed (src/updater/main.cpp): nobody else could build this" in capsys.readouterr().err
    assert steps("make", "--allow-changes") == 0
    assert "release: WARNING: the sources are not those of the commit" in capsys.readouterr().out
    assert json.loads((steps.candidate / "candidate.json").read_text(encoding="utf-8"))["commit"] == "ab" * 20 + " with changes"


def test_a_signature_that_cannot_be_made_leaves_no_release(steps: Steps, signer: Signer, capsys: pytest.CaptureFixture[str]) -> None:
    assert steps("make") == 0
    assert steps("ship", "--certificate", str(signer.certificate), "--certificate-key", str(signer.root)) == EXIT_REFUSED
    assert "release: REFUSED: osslsigncode sign failed:" in capsys.readouterr().err
    assert steps.left() == []


@pytest.mark.parametrize(("given", "complaint"), [
    (["--certificate", "c"], "a signature needs a certificate and its key, or a PKCS#12 file with both"),
    (["--pkcs12", "p", "--certificate-key", "k"], "a PKCS#12 file has certificate and key: give no others"),
    (["--timestamp", "http://127.0.0.1/"], "there is nobody to sign: give --certificate and --certificate-key, or --pkcs12"),
    (["--password-file", "p"], "there is nobody to sign: give --certificate and --certificate-key, or --pkcs12"),
])
def test_half_a_signer_is_refused(steps: Steps, given: list[str], complaint: str, capsys: pytest.CaptureFixture[str]) -> None:
    assert steps("make") == 0
    assert steps("ship", *given) == EXIT_REFUSED
    assert f"release: REFUSED: {complaint}\n" in capsys.readouterr().err
    assert steps.left() == []


def test_a_released_program_is_matched_with_what_the_sources_make(steps: Steps, signer: Signer, tmp_path: Path, built: Built,
                                                                  capsys: pytest.CaptureFixture[str]) -> None:
    assert steps("make") == 0
    assert steps("ship", "--certificate", str(signer.certificate), "--certificate-key", str(signer.key), "--authority", str(signer.root)) == 0
    capsys.readouterr()
    shipped = steps.output / "lumaris.exe"
    assert steps("match", str(shipped)) == 0
    assert capsys.readouterr().out == "release: lumaris.exe is what these sources make, signed\n"
    plain = tmp_path / "plain.exe"
    plain.write_bytes(built.program)
    assert steps("match", str(plain)) == 0
    assert capsys.readouterr().out == "release: plain.exe is what these sources make\n"

    data = bytearray(shipped.read_bytes())
    data[0x2000] ^= 1
    plain.write_bytes(data)
    assert steps("match", str(plain)) == EXIT_REFUSED
    said = capsys.readouterr().err
    assert "release: REFUSED: plain.exe is not what these sources make\n" in said
    assert "release: REFUSED: plain.exe differs at offset 0x2000, 1 bytes, section .text at " in said
    plain.write_bytes(b"MZ")
    assert steps("match", str(plain)) == EXIT_REFUSED
    assert capsys.readouterr().err == "release: REFUSED: plain.exe: this is not a Windows program\n"


@pytest.mark.parametrize("named", ["Lumaris/0.0.1", f"Lumaris/{version.OWN}.0", f"lumaris/{version.OWN}", ""])
def test_a_program_that_calls_itself_another_version_is_refused(steps: Steps, named: str, capsys: pytest.CaptureFixture[str]) -> None:
    steps.named = named
    assert steps("make") == EXIT_REFUSED
    assert capsys.readouterr().err == (f'release: REFUSED: the program calls itself "{named}" to the update server, and this release is '
                                       f"Lumaris/{version.OWN}\n")
    assert not steps.candidate.exists()


def test_the_program_itself_is_asked_for_its_version(release: ModuleType, built: Built) -> None:
    if reason := windows.available("arm64"):
        pytest.skip(reason)
    assert release.asking.user_agent(built.program, UPDATE_HOST) == f"Lumaris/{version.OWN}"
    # One that asks another server is not heard.
    with pytest.raises(release.asking.AskingError, match="it asked nothing of elsewhere.halvoro.internal"):
        release.asking.user_agent(built.program, "elsewhere.halvoro.internal")


def test_a_release_without_a_partner_is_refused(steps: Steps, monkeypatch: pytest.MonkeyPatch, capsys: pytest.CaptureFixture[str]) -> None:
    monkeypatch.delenv("LUMARIS_PARTNER")
    assert steps("make") == EXIT_REFUSED
    assert capsys.readouterr().err == "release: REFUSED: there is no partner whom the Albanian texts name: give --partner\n"


def test_the_version_and_the_default_hosts_are_those_of_the_build(release: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
    for name in ("LUMARIS_PUBLIC_KEY", "LUMARIS_UPDATE_HOST", "LUMARIS_REPORT_HOST"):
        monkeypatch.delenv(name, raising=False)
    monkeypatch.delenv("LUMARIS_PARTNER", raising=False)
    configured = release.configuration()
    assert (configured.version, configured.update_host, configured.report_host, configured.partner) == (
        str(version.OWN), "updates.tavrin.example", "reports.tavrin.example", "")
    monkeypatch.setenv("LUMARIS_VERSION", "12.3.45")
    assert release.configuration().version == "12.3.45"


def test_the_copy_of_the_sources_is_what_is_not_ignored(release: ModuleType, tmp_path: Path) -> None:
    release.builds.copy_sources(tmp_path)
    assert (tmp_path / "src/updater/main.cpp").read_bytes() == (ROOT / "src/updater/main.cpp").read_bytes()
    assert (tmp_path / "CMakePresets.json").is_file()
    assert not (tmp_path / "build").exists() and not (tmp_path / ".git").exists()


def test_the_program_is_started_as_the_word_starts_it(tmp_path: Path) -> None:
    done = subprocess.run([sys.executable, "tools/release", "make", "--candidate", str(tmp_path / "c"), "--output", str(tmp_path / "o")], cwd=ROOT,
                          env={**os.environ, "LUMARIS_PUBLIC_KEY": "", "LUMARIS_PARTNER": PARTNER}, capture_output=True, text=True, timeout=60, check=False)
    assert done.returncode == EXIT_REFUSED
    assert "release: REFUSED: there is no trusted key, or it is none: give --key\n" in done.stderr
