"""A program that was signed elsewhere: by a key in a token, which nobody can copy."""

from __future__ import annotations

import os
import subprocess
from collections.abc import Callable
from pathlib import Path

import pytest
from conftest import Built, Signer
from test_release import EXIT_REFUSED, Steps, environment_fixture, steps_fixture  # noqa: F401  (fixtures)

MODULE = "/usr/lib/softhsm/libsofthsm2.so"


@pytest.fixture(name="token")
def token_fixture(tmp_path: Path, signer: Signer, monkeypatch: pytest.MonkeyPatch) -> Callable[[Path, Path], None]:
    """A token with the signer's key, reached over PKCS#11 alone; signs a program."""
    (tmp_path / "tokens").mkdir()
    (tmp_path / "softhsm2.conf").write_text(f"directories.tokendir = {tmp_path}/tokens\nobjectstore.backend = file\n", encoding="ascii")
    monkeypatch.setenv("SOFTHSM2_CONF", str(tmp_path / "softhsm2.conf"))

    def run(*arguments: str) -> None:
        done = subprocess.run(arguments, capture_output=True, text=True, timeout=60, check=False, env=dict(os.environ))
        assert done.returncode == 0, f"{arguments}\n{done.stdout}{done.stderr}"
    run("softhsm2-util", "--init-token", "--free", "--label", "tavrin", "--pin", "1234", "--so-pin", "5678")
    run("openssl", "pkcs8", "-topk8", "-nocrypt", "-in", str(signer.key), "-out", str(tmp_path / "key.p8"))
    run("softhsm2-util", "--import", str(tmp_path / "key.p8"), "--token", "tavrin", "--label", "release", "--id", "01", "--pin", "1234")
    (tmp_path / "key.p8").unlink()

    def sign(program: Path, signed: Path) -> None:
        run("osslsigncode", "sign", "-pkcs11module", MODULE, "-certs", str(signer.certificate), "-key",
            "pkcs11:token=tavrin;object=release;type=private;pin-value=1234", "-h", "sha256", "-in", str(program), "-out", str(signed))
    return sign


def test_a_program_that_a_token_signed_becomes_the_release(steps: Steps, built: Built, signer: Signer, token: Callable[[Path, Path], None],
                                                           tmp_path: Path, capsys: pytest.CaptureFixture[str]) -> None:
    assert steps("make") == 0
    token(steps.candidate / "lumaris.exe", tmp_path / "lumaris.exe")
    assert steps("ship", "--adopt", str(tmp_path / "lumaris.exe"), "--authority", str(signer.root)) == 0, capsys.readouterr().err
    said = capsys.readouterr().out
    assert "Signature verification: ok" in said and "signed elsewhere; without the signature it is the program that was built" in said
    assert (steps.output / "lumaris.exe").read_bytes() == (tmp_path / "lumaris.exe").read_bytes() != built.program
    assert "SHA256SUMS" in steps.left()


@pytest.mark.parametrize("damage", ["changed", "unsigned", "stranger", "no root"])
def test_a_program_that_is_not_what_was_built_and_signed_is_not_adopted(steps: Steps, signer: Signer, make_signer: Callable[[str, str], Signer],
                                                                        token: Callable[[Path, Path], None], tmp_path: Path, damage: str) -> None:
    assert steps("make") == 0
    given, signed = tmp_path / "given.exe", tmp_path / "lumaris.exe"
    image = bytearray((steps.candidate / "lumaris.exe").read_bytes())
    if damage == "changed":
        image[0x3000] ^= 1
    given.write_bytes(image)
    if damage == "unsigned":
        signed.write_bytes(image)
    else:
        token(given, signed)
    root = [] if damage == "no root" else ["--authority", str((make_signer("stranger", "codeSigning") if damage == "stranger" else signer).root)]
    assert steps("ship", "--adopt", str(signed), *root) == EXIT_REFUSED
    assert steps.left() == []


def test_a_signed_program_is_not_signed_again(steps: Steps, signer: Signer, tmp_path: Path) -> None:
    assert steps("make") == 0
    assert steps("ship", "--adopt", str(tmp_path / "x.exe"), "--certificate", str(signer.certificate), "--certificate-key", str(signer.key)) == EXIT_REFUSED
