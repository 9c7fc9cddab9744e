"""The half of `./dev release` that signs on the machine itself: with a command that knows its key, or with a program signed elsewhere."""

from __future__ import annotations

import subprocess
from collections.abc import Callable
from pathlib import Path

import pytest
from conftest import ROOT, Built, Signer
from test_adopt import MODULE, token_fixture  # noqa: F401  (fixture)
from test_release import Steps, environment_fixture, steps_fixture  # noqa: F401  (fixtures)

# The command with the room left out: what is built is there already, and what the room would do is done here.
FRAME = r"""
here=$1 tree=$2 run_folder=$3; shift 3
. "$tree/toolchain/lib.sh"; . "$tree/toolchain/commands.sh"
need() { :; }; check_namespaces() { isolation=full; }; check_arm64() { arm64_fault=''; }; make_run_folder() { mkdir -p "$run_folder/tmp"; }
job() { echo "job $*"; }
job_release() {
    if [[ $1 == make ]]; then echo "make ${*:2}"; return; fi
    python3 "$tree/tools/release" "${@//\/tmp\/release/"$run_folder/tmp/release"}" --candidate "$here/build/release-candidate" --output "$here/build/release"
}
command_release "$@"
"""


class Shell:
    """`./dev release` in a checkout whose path holds what shells take for their own."""

    def __init__(self, folder: Path, candidate: Path) -> None:
        self.here = folder / "a check & its $out"
        self.output = folder / "given to others"
        (self.here / "build").mkdir(parents=True)
        candidate.rename(self.here / "build/release-candidate")

    def __call__(self, *arguments: str | Path) -> subprocess.CompletedProcess[str]:
        return subprocess.run(["bash", "-uc", FRAME, "dev", str(self.here), str(ROOT), str(self.here / "run"), "--output", str(self.output),
                               *map(str, arguments)], capture_output=True, text=True, timeout=120, check=False)

    def refused(self, sentence: str, *arguments: str | Path) -> None:
        """What ends with this sentence and leaves no release."""
        done = self(*arguments)
        assert done.returncode != 0 and sentence in done.stdout + done.stderr, done
        assert not (self.output / "SHA256SUMS").exists()


@pytest.fixture(name="shell")
def shell_fixture(steps: Steps, tmp_path: Path) -> Shell:
    assert steps("make") == 0
    return Shell(tmp_path, steps.candidate)


@pytest.fixture(name="sign_with_token")
def sign_with_token_fixture(token: Callable[[Path, Path], None], signer: Signer, tmp_path: Path) -> Path:
    """A command that signs a file in its place with the key of a token."""
    command = tmp_path / "sign-with-token"
    command.write_text(f"""#!/bin/sh
osslsigncode sign -pkcs11module {MODULE} -certs '{signer.certificate}' -key 'pkcs11:token=tavrin;object=release;type=private;pin-value=1234' \\
    -h sha256 -in "$1" -out "$1.signed" && mv "$1.signed" "$1"
""", encoding="ascii")
    command.chmod(0o755)
    return command


def test_a_command_of_this_machine_signs_the_release(shell: Shell, built: Built, signer: Signer, sign_with_token: Path) -> None:
    done = shell("--authority", signer.root, "--sign-command", f"'{sign_with_token}' {{file}}")
    assert done.returncode == 0, done
    assert "signed elsewhere; without the signature it is the program that was built, byte for byte" in done.stdout
    assert "WARNING" not in done.stdout
    assert (shell.here / "build/release-candidate/lumaris.exe").read_bytes() == built.program
    assert len((shell.output / "lumaris.exe").read_bytes()) > len(built.program)
    checked = subprocess.run(["sha256sum", "-c", "SHA256SUMS"], cwd=shell.output, capture_output=True, text=True, timeout=60, check=False)
    assert checked.returncode == 0 and checked.stdout.count(": OK\n") == 7


def test_a_program_that_was_signed_elsewhere_is_adopted(shell: Shell, signer: Signer, token: Callable[[Path, Path], None], tmp_path: Path) -> None:
    token(shell.here / "build/release-candidate/lumaris.exe", tmp_path / "signed.exe")
    assert shell("--authority", signer.root, "--adopt", tmp_path / "signed.exe").returncode == 0
    assert (shell.output / "lumaris.exe").read_bytes() == (tmp_path / "signed.exe").read_bytes()


@pytest.mark.parametrize(("command", "sentence"), [
    ("exit 3 # {file}", "the command that signs failed: exit 3 # {file}"),
    (": {file}", "carries no signature"),
    ("printf x >> {file}", "without its signature is not the program that was built"),
    ("printf '\\1' | dd of={file} bs=1 seek=12288 conv=notrunc status=none", "without its signature is not the program that was built"),
    ("rm {file}", "--adopt: there is no file"),
])
def test_a_command_that_does_not_sign_leaves_no_release(shell: Shell, signer: Signer, command: str, sentence: str) -> None:
    assert shell("--authority", signer.root).returncode != 0  # nobody signs
    shell.output.mkdir(exist_ok=True)
    (shell.output / "SHA256SUMS").write_text("of a former release\n", encoding="ascii")
    shell.refused(sentence, "--authority", signer.root, "--sign-command", command)


def test_what_cannot_end_well_is_said_before_anything_is_built(shell: Shell, signer: Signer, tmp_path: Path) -> None:
    for sentence, arguments in (
            ("two ways to the same", ("--sign-command", "sign {file}", "--adopt", signer.root, "--authority", signer.root)),
            ("write {file} into the command", ("--sign-command", "sign", "--authority", signer.root)),
            ("--adopt: there is no file", ("--adopt", tmp_path / "absent.exe", "--authority", signer.root)),
            ("give --authority with the root", ("--sign-command", "sign {file}")),
            ("give no certificate", ("--sign-command", "sign {file}", "--authority", signer.root, "--pkcs12", signer.key))):
        done = shell(*arguments)
        assert done.returncode != 0 and sentence in done.stdout + done.stderr, done
        assert "make" not in done.stdout.split() and "job" not in done.stdout.split()
