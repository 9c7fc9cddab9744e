"""The judge of publications and the program: whatever is published, the one says what the other does."""

from __future__ import annotations

import base64
import hashlib
import random
import struct
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

import pytest
from cryptography.hazmat.primitives.asymmetric.ed25519 import Ed25519PrivateKey

from bed import version as versions
from bed.windows import windows_path
from world import DESCRIPTION, World

TREE = Path(__file__).resolve().parents[2]
JUDGE = TREE / "build/native-asan/tools/publish/lumaris_judge"
MUTATIONS = {"x64": 10_000, "arm64": 1_000}
REST = b"\nHalvoro\nhttp://updates.tavrin.example/Halvoro/new/\n"
PLAIN = versions.NEWER.offer.encode() + REST


@dataclass(frozen=True)
class Case:
    """A signature file and a description."""

    signature: bytes
    content: bytes


class Signer:
    """Signs as minisign does, but thousands of times a second. That minisign says the same is checked once."""

    def __init__(self, secret: Path) -> None:
        decoded = base64.b64decode(secret.read_text(encoding="ascii").splitlines()[1])
        # algorithm 2, key derivation 2 (none), checksum 2, salt 32, limits 16, key id 8, secret key 32 and public key 32
        assert decoded[2:4] == b"\0\0", "the test key has no password"
        self._id, self._key = decoded[54:62], Ed25519PrivateKey.from_private_bytes(decoded[62:94])

    def line(self, content: bytes, algorithm: bytes = b"ED") -> bytes:
        """The bytes of a signature line before base64."""
        return algorithm + self._id + self._key.sign(hashlib.blake2b(content, digest_size=64).digest())

    def file(self, content: bytes) -> bytes:
        """A signature file as far as clients read it."""
        return b"untrusted comment: made by a test\n" + base64.b64encode(self.line(content)) + b"\n"


def mutate(chance: random.Random, content: bytes) -> bytes:
    """A few small changes."""
    changed = bytearray(content)
    interesting = [b"\n", b"\r", b"\r\n", b"\0", b" ", b"\t", b"-", b"+", b"0x", b"\xef\xbb\xbf", b"f" * 9, b":", b"//", b"@", b"[", b"]", b"%",
                   b"https", b"ftp", b"ws", b":99999", b"=", b"untrusted comment:", b"\xff", b"?", b"#"]
    for _ in range(chance.randint(1, 4)):
        at = chance.randint(0, len(changed))
        what = chance.randrange(6)
        if what == 0 and changed:
            changed[at % len(changed)] = chance.randrange(256)
        elif what == 1:
            del changed[at:at + chance.randint(1, 8)]
        elif what == 2:
            changed[at:at] = chance.choice(interesting)
        elif what == 3:
            del changed[at:]
        elif what == 4 and changed:
            changed[at % len(changed)] ^= 1 << chance.randrange(8)
        else:
            changed[at:at] = changed[max(0, at - chance.randint(1, 20)):at]
    return bytes(changed)


def cases_of(signer: Signer, count: int) -> Iterator[Case]:
    """Descriptions that were changed and then signed, and signatures that were changed over a description that was not."""
    chance = random.Random(20261122)
    newer = versions.NEWER.offer.encode()
    lines = (newer, versions.NEWEST.offer.encode(), b"0x" + newer, b"-1", b"+" + newer, b"ffffffffff", versions.OWN.offer.encode(), b"")
    for number in range(count):
        content = chance.choice(lines) + REST
        if number % 2:
            content = mutate(chance, content)
            yield Case(signer.file(content), content)
        elif number % 4:
            yield Case(mutate(chance, signer.file(content)), content)
        else:
            line = bytearray(signer.line(content))
            if chance.random() < 0.5:
                line[chance.randrange(len(line))] ^= 1 << chance.randrange(8)
            encoded = base64.b64encode(bytes(line) + b"x" * chance.randrange(3))
            yield Case(b"untrusted comment: x\n" + mutate(chance, encoded + b"\n"), content)


def judged(cases: list[Case], folder: Path, public_key: str) -> list[str]:
    """What the judge says, written as the other side does."""
    from lumaris_publish.judge import INSTALLS, REFUSED, Judge  # noqa: PLC0415  (its path is set by then)
    outcomes = []
    content, signature = folder / "judged.txt", folder / "judged.txt.minisig"
    with Judge(public_key) as clients:
        for case in cases:
            content.write_bytes(case.content)
            signature.write_bytes(case.signature)
            said = clients.description(content, signature, versions.OWN.number)
            if said.what == REFUSED:
                outcomes.append(f"refused\t{said.message}")
            elif said.what == INSTALLS and said.url is not None:
                path = f"{said.url.path}{'' if said.url.path.endswith('/') else '/'}Halvoro.ARM64.msi.minisig"
                outcomes.append(f"installs\t{said.url.host}\t{said.url.port}\t{path}")
            else:
                outcomes.append("nothing")
    return outcomes


@pytest.fixture(name="kit_path", autouse=True)
def kit_path_fixture(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.syspath_prepend(str(TREE / "tools/publish"))
    monkeypatch.setenv("LUMARIS_JUDGE", str(JUDGE))


def test_the_judge_and_the_program_agree_over_mutated_descriptions_and_signatures(world: World) -> None:
    signer = Signer(world.bed.key.secret)
    cases = list(cases_of(signer, MUTATIONS[world.machine.architecture]))
    work = world.bed.network.work
    given, outcomes = work / "cases", work / "outcomes"
    given.write_bytes(b"".join(struct.pack("<I", len(part)) + part for case in cases for part in (case.signature, case.content)))
    program = world.machine.install(TREE / f"build/{world.machine.architecture}-test/tests/agreement.exe", "agreement.exe")
    run = world.machine.run(f'"{program}" "{windows_path(given)}" "{windows_path(outcomes)}"', limit=150)
    assert run.exit_code == 0, run.output
    done = outcomes.read_bytes().decode("utf-8").split("\n")[:-1]
    said = judged(cases, work, world.bed.key.line)
    assert len(done) == len(cases)
    assert [(case, one, other) for case, one, other in zip(cases, done, said, strict=True) if one != other] == []
    kinds = [outcome.split("\t")[0] for outcome in done]
    for kind in ("installs", "nothing", "refused"):
        assert kinds.count(kind) > len(cases) / 20, kind
    assert len({outcome for outcome in done if outcome.startswith("refused")}) >= 7


def test_a_signature_of_the_tests_is_one_of_minisign_s(world: World) -> None:
    signer = Signer(world.bed.key.secret)
    assert base64.b64decode(world.sign(PLAIN).splitlines()[1]) == signer.line(PLAIN)


def _seeds() -> list[tuple[str, Path]]:
    return [(kind, file) for kind in ("description", "signature", "url_parser") for file in sorted((TREE / f"fuzz/corpus/{kind}_fuzz").iterdir())]


@pytest.mark.parametrize(("kind", "seed"), _seeds(), ids=[f"{kind}-{file.name}" for kind, file in _seeds()])
@pytest.mark.any_processor
def test_the_judge_and_the_real_program_agree_over_the_seeds(world: World, kind: str, seed: Path) -> None:
    content, signature = PLAIN, None
    if kind == "description":
        content = seed.read_bytes()
    elif kind == "url_parser":
        content = versions.NEWER.offer.encode() + b"\nx\n" + seed.read_bytes().split(b"\n")[0] + b"\n"
    else:
        signature = seed.read_bytes()
    _compare(world, Case(world.sign(content) if signature is None else signature, content))


@pytest.mark.parametrize("number", range(0, 400, 10))
@pytest.mark.any_processor
def test_the_judge_and_the_real_program_agree_over_a_sample_of_mutations(world: World, number: int) -> None:
    _compare(world, list(cases_of(Signer(world.bed.key.secret), number + 1))[number])


def _compare(world: World, case: Case) -> None:
    world.publish(DESCRIPTION, case.content, signature=case.signature)
    said = judged([case], world.bed.network.work, world.bed.key.line)[0].split("\t")
    run = world.run()
    if said[0] == "installs":
        # What lies there, or whether such a server exists, is another matter.
        assert [event.strings[1].partition(":")[0] for event in run.events] == ["Failed to load Minisign signature"]
        if (said[1], said[2]) == ("updates.tavrin.example", "80"):
            assert world.targets[2:] == [said[3]]
    elif said[0] == "nothing":
        world.assert_nothing_to_do(run)
    else:
        world.assert_failed(run, said[1])
