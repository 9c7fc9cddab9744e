"""Signatures: made by osslsigncode with certificates that openssl makes here, and taken off again."""

from __future__ import annotations

import http.server
import struct
import subprocess
import threading
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
import signing
from conftest import Built, Signer


@pytest.fixture(name="unsigned")
def unsigned_fixture(built: Built, tmp_path: Path) -> Path:
    file = tmp_path / "lumaris.exe"
    file.write_bytes(built.program)
    return file


def identity(signer: Signer, **changes: object) -> signing.Identity:
    given = {"certificate": signer.certificate, "key": signer.key, "authority": signer.root}
    return signing.Identity(**{**given, **changes})  # type: ignore[arg-type]


def test_a_signed_program_is_verified(unsigned: Path, signer: Signer, tmp_path: Path) -> None:
    signing.sign(unsigned, identity(signer), tmp_path / "signed.exe")
    said = signing.verify(tmp_path / "signed.exe", identity(signer), tmp_path)
    assert "Message digest algorithm  : SHA256" in said
    assert "Subject: /CN=Tavrin test\n" in said
    assert "Signature verification: ok" in said
    assert "Text description: Lumaris, the updater of Halvoro" in said


def test_without_its_signature_it_is_the_program_that_was_built(unsigned: Path, signer: Signer, tmp_path: Path, built: Built) -> None:
    signing.sign(unsigned, identity(signer), tmp_path / "signed.exe")
    signed = (tmp_path / "signed.exe").read_bytes()
    assert signed != built.program
    assert signing.without_signature(signed) == built.program
    assert signing.without_signature(built.program) == built.program


def test_the_other_tool_leaves_a_checksum_where_the_linker_leaves_none(unsigned: Path, signer: Signer, tmp_path: Path, built: Built) -> None:
    signing.sign(unsigned, identity(signer), tmp_path / "signed.exe")
    subprocess.run(["osslsigncode", "remove-signature", "-in", str(tmp_path / "signed.exe"), "-out", str(tmp_path / "removed.exe")],
                   check=True, capture_output=True, timeout=60)
    removed = (tmp_path / "removed.exe").read_bytes()
    header, = struct.unpack_from("<I", removed, 0x3C)
    differing = [offset for offset, (one, other) in enumerate(zip(removed, built.program, strict=True)) if one != other]
    assert differing and set(differing) <= set(range(header + 24 + 64, header + 24 + 68))
    assert removed[:header + 88] + bytes(4) + removed[header + 92:] == built.program


def test_a_program_that_is_changed_after_signing_is_refused(unsigned: Path, signer: Signer, tmp_path: Path) -> None:
    signed = tmp_path / "signed.exe"
    signing.sign(unsigned, identity(signer), signed)
    data = bytearray(signed.read_bytes())
    data[0x2000] ^= 1
    signed.write_bytes(data)
    with pytest.raises(signing.SigningError, match="osslsigncode verify failed:"):
        signing.verify(signed, identity(signer), tmp_path)


def test_a_signature_that_another_root_vouches_for_is_refused(unsigned: Path, signer: Signer, tmp_path: Path, make_signer: Callable[[str, str], Signer]) -> None:
    stranger = make_signer("stranger", "codeSigning")
    signing.sign(unsigned, identity(stranger), tmp_path / "signed.exe")
    signing.verify(tmp_path / "signed.exe", identity(stranger), tmp_path)
    with pytest.raises(signing.SigningError, match="osslsigncode verify failed:"):
        signing.verify(tmp_path / "signed.exe", identity(signer), tmp_path)


def test_an_unsigned_program_is_refused(unsigned: Path, signer: Signer, tmp_path: Path) -> None:
    with pytest.raises(signing.SigningError, match="osslsigncode verify failed:"):
        signing.verify(unsigned, identity(signer), tmp_path)


def test_a_key_of_another_certificate_does_not_sign(unsigned: Path, signer: Signer, tmp_path: Path, make_signer: Callable[[str, str], Signer]) -> None:
    with pytest.raises(signing.SigningError, match="osslsigncode sign failed:"):
        signing.sign(unsigned, identity(signer, key=make_signer("other", "codeSigning").key), tmp_path / "signed.exe")
    assert not (tmp_path / "signed.exe").exists()


@pytest.fixture(name="container")
def container_fixture(signer: Signer, tmp_path: Path) -> tuple[Path, Path]:
    """A PKCS#12 file and the file with its password."""
    password, file = tmp_path / "password", tmp_path / "signer.p12"
    password.write_text("a password with blanks\n", encoding="ascii")
    subprocess.run(["openssl", "pkcs12", "-export", "-in", str(signer.certificate), "-inkey", str(signer.key), "-certfile", str(signer.root),
                    "-passout", f"file:{password}", "-out", str(file)], check=True, capture_output=True, timeout=60)
    return file, password


def test_certificate_and_key_may_come_in_one_file(unsigned: Path, container: tuple[Path, Path], tmp_path: Path, built: Built) -> None:
    given = signing.Identity(pkcs12=container[0], password_file=container[1])
    signing.sign(unsigned, given, tmp_path / "signed.exe")
    assert "Signature verification: ok" in signing.verify(tmp_path / "signed.exe", given, tmp_path)
    assert signing.without_signature((tmp_path / "signed.exe").read_bytes()) == built.program


def test_with_another_password_it_is_refused(unsigned: Path, container: tuple[Path, Path], tmp_path: Path) -> None:
    container[1].write_text("another\n", encoding="ascii")
    with pytest.raises(signing.SigningError, match="osslsigncode sign failed:"):
        signing.sign(unsigned, signing.Identity(pkcs12=container[0], password_file=container[1]), tmp_path / "signed.exe")


@pytest.mark.parametrize(("given", "fault"), [
    (signing.Identity(certificate=Path("c")), "a signature needs a certificate and its key, or a PKCS#12 file with both"),
    (signing.Identity(key=Path("k")), "a signature needs a certificate and its key, or a PKCS#12 file with both"),
    (signing.Identity(pkcs12=Path("p"), key=Path("k")), "a PKCS#12 file has certificate and key: give no others"),
    (signing.Identity(pkcs12=Path("p")), None),
    (signing.Identity(certificate=Path("c"), key=Path("k")), None),
])
def test_who_signs_is_said_once(given: signing.Identity, fault: str | None) -> None:
    assert given.fault() == fault
    if fault:
        with pytest.raises(signing.SigningError, match=f"^{fault}$"):
            signing.sign(Path("x"), given, Path("y"))


class TimeStamps(http.server.BaseHTTPRequestHandler):
    """A time-stamping authority (RFC 3161 over HTTP): openssl answers."""

    folder: Path

    def do_POST(self) -> None:  # noqa: N802  (the name that the server calls)
        """Answers one request."""
        (self.folder / "query").write_bytes(self.rfile.read(int(self.headers["Content-Length"])))
        subprocess.run(["openssl", "ts", "-reply", "-config", "ts.conf", "-queryfile", "query", "-out", "reply"], cwd=self.folder,
                       check=True, capture_output=True, timeout=60)
        reply = (self.folder / "reply").read_bytes()
        self.send_response(200)
        self.send_header("Content-Type", "application/timestamp-reply")
        self.send_header("Content-Length", str(len(reply)))
        self.end_headers()
        self.wfile.write(reply)

    def log_message(self, *arguments: object) -> None:
        """Says nothing."""


@pytest.fixture(name="time_stamps")
def time_stamps_fixture(tmp_path: Path, make_signer: Callable[[str, str], Signer]) -> Iterator[tuple[str, Signer]]:
    """The address of an authority for time stamps on the loopback, and who it is."""
    authority = make_signer("time stamps", "timeStamping")
    folder = tmp_path / "time stamps"
    folder.mkdir()
    (folder / "serial").write_text("01\n", encoding="ascii")
    (folder / "ts.conf").write_text(f"[tsa]\ndefault_tsa = it\n[it]\nserial = serial\nsigner_cert = {authority.certificate}\n"
                                    f"signer_key = {authority.key}\nsigner_digest = sha256\ndefault_policy = 1.2.3.4\n"
                                    "digests = sha256, sha384, sha512\ncerts = $signer_cert\ness_cert_id_alg = sha256\n".replace(
                                        "certs = $signer_cert", f"certs = {authority.certificate}"), encoding="ascii")
    handler = type("Handler", (TimeStamps,), {"folder": folder})
    with http.server.HTTPServer(("127.0.0.1", 0), handler) as server:
        thread = threading.Thread(target=server.serve_forever, daemon=True)
        thread.start()
        try:
            yield f"http://127.0.0.1:{server.server_address[1]}/", authority
        finally:
            server.shutdown()
            thread.join(30)


def test_a_signature_gets_its_time_stamp(unsigned: Path, signer: Signer, time_stamps: tuple[str, Signer], tmp_path: Path, built: Built) -> None:
    given = identity(signer, timestamp_url=time_stamps[0], timestamp_authority=time_stamps[1].root)
    signing.sign(unsigned, given, tmp_path / "signed.exe")
    said = signing.verify(tmp_path / "signed.exe", given, tmp_path)
    assert "Timestamp Server Signature verification: ok" in said and "Subject: /CN=time stamps\n" in said
    assert signing.without_signature((tmp_path / "signed.exe").read_bytes()) == built.program


def test_a_time_stamp_that_nobody_vouches_for_is_refused(unsigned: Path, signer: Signer, time_stamps: tuple[str, Signer], tmp_path: Path) -> None:
    given = identity(signer, timestamp_url=time_stamps[0], timestamp_authority=signer.root)
    signing.sign(unsigned, given, tmp_path / "signed.exe")
    with pytest.raises(signing.SigningError, match="Timestamp Server Signature verification: failed"):
        signing.verify(tmp_path / "signed.exe", given, tmp_path)


def test_without_the_authority_for_time_stamps_nothing_is_signed(unsigned: Path, signer: Signer, tmp_path: Path) -> None:
    with pytest.raises(signing.SigningError, match="osslsigncode sign failed:"):
        signing.sign(unsigned, identity(signer, timestamp_url="http://127.0.0.1:9/"), tmp_path / "signed.exe")
    assert not (tmp_path / "signed.exe").exists()


def test_a_time_stamp_that_was_asked_for_must_be_there(unsigned: Path, signer: Signer, tmp_path: Path) -> None:
    signing.sign(unsigned, identity(signer), tmp_path / "signed.exe")
    with pytest.raises(signing.SigningError, match="^the signature has no time stamp that holds:"):
        signing.verify(tmp_path / "signed.exe", identity(signer, timestamp_url="http://127.0.0.1:9/"), tmp_path)


@pytest.mark.parametrize(("make", "complaint"), [
    (lambda image: b"", "this is not a Windows program"),
    (lambda image: b"\x7fELF" + image[4:], "this is not a Windows program"),
    (lambda image: image[:0x78 + 24] + b"\x0b\x01" + image[0x78 + 26:], "this is not a 64-bit Windows program"),
    (lambda image: image[:0x3C] + struct.pack("<I", 0x7FFFFFFF) + image[0x40:], "this is not a Windows program"),
    (lambda image: image[:0x78 + 168] + struct.pack("<II", 0x1000, 8) + image[0x78 + 176:], "the signature does not stand at the end of the program"),
])
def test_what_has_no_signature_to_take_off_is_reported(built: Built, make: Callable[[bytes], bytes], complaint: str) -> None:
    with pytest.raises(ValueError, match=f"^{complaint}$"):
        signing.without_signature(make(built.program))
