"""`offer`, `promote`, `withdraw`, `status` and `log`: what clients see, and who did it."""

from __future__ import annotations

import json
import os
import shutil
import subprocess
import sys
import threading
from collections.abc import Callable
from pathlib import Path

import pytest

from conftest import TREE, Workshop
from kit import HOST, Kit
from lumaris_publish import cli
from lumaris_publish.judge import Judge

PATHS = {"stable": ["/Halvoro/Lumaris/win11-stable.txt", "/Halvoro/Lumaris/win10-stable.txt", "/Halvoro/Lumaris-stable.txt"],
         "beta": ["/Halvoro/Lumaris/win11-beta.txt", "/Halvoro/Lumaris/win10-beta.txt", "/Halvoro/Lumaris-beta.txt"]}


def version_at(kit: Kit, path: str) -> str:
    """The digits that a client reads there, after it has checked the signature."""
    content = kit.root / "public" / path.lstrip("/")
    with Judge(kit.key.line) as clients:
        said = clients.description(content, Path(f"{content}.minisig"))
    assert said.what == "installs", said
    return f"{said.version:x}"


@pytest.fixture(name="staged")
def staged_fixture(kit: Kit, workshop: Workshop) -> Kit:
    """A publication with two versions that nobody is offered."""
    for version in ("3.4.1", "3.4.2"):
        kit.done("stage", workshop.package(version))
    return kit


def test_an_offer_describes_the_version_for_every_windows(staged: Kit) -> None:
    said = staged.done("offer", "3.4.1", "--channel", "beta")
    assert "clients are offered beta: 3.4.1 (3 descriptions, set 000001)" in said.out and "next: " in said.out
    for path in PATHS["beta"]:
        assert staged.served(path).split(b"\n")[0] == b"3040100"
        assert staged.served(path).split(b"\n")[2] == f"http://{HOST}/packages/3.4.1/".encode()
        assert version_at(staged, path) == "3040100"
    assert not (staged.root / "public" / PATHS["stable"][0].lstrip("/")).exists()


def test_several_channels_switch_at_once(staged: Kit) -> None:
    staged.done("offer", "3.4.1", "--channel", "beta,stable")
    assert [version_at(staged, path) for path in PATHS["beta"] + PATHS["stable"]] == ["3040100"] * 6
    assert (staged.root / "public/current").readlink() == Path("sets/000001")


def test_an_offer_leaves_the_other_channel_as_it_was(staged: Kit) -> None:
    staged.done("offer", "3.4.1", "--channel", "stable")
    before = [staged.served(f"{path}{end}") for path in PATHS["stable"] for end in ("", ".minisig")]
    staged.done("offer", "3.4.2", "--channel", "beta")
    assert [staged.served(f"{path}{end}") for path in PATHS["stable"] for end in ("", ".minisig")] == before
    assert version_at(staged, PATHS["beta"][0]) == "3040200"


def test_a_promotion_signs_the_package_no_more(staged: Kit) -> None:
    staged.done("offer", "3.4.1", "--channel", "beta")
    signature = staged.served("packages/3.4.1/Halvoro.ARM64.msi.minisig")
    staged.done("promote", "3.4.1", "--from", "beta", "--to", "stable")
    assert staged.served("packages/3.4.1/Halvoro.ARM64.msi.minisig") == signature
    assert version_at(staged, PATHS["stable"][0]) == "3040100"


def test_what_a_channel_does_not_offer_is_not_promoted(staged: Kit) -> None:
    staged.refused("not-offered", "promote", "3.4.1", "--from", "beta", "--to", "stable")
    staged.done("offer", "3.4.1", "--channel", "beta")
    staged.refused("not-offered", "promote", "3.4.2", "--from", "beta", "--to", "stable")


def test_a_withdrawal_offers_the_version_before_and_deletes_nothing(staged: Kit) -> None:
    staged.done("offer", "3.4.1", "--channel", "stable")
    staged.done("offer", "3.4.2", "--channel", "stable")
    package = staged.served("packages/3.4.2/Halvoro.ARM64.msi")
    said = staged.done("withdraw", "3.4.2", "--channel", "stable")
    assert "machines that have 3.4.2 already stay on it until they are offered a higher version; nothing was deleted" in said.out
    assert version_at(staged, PATHS["stable"][0]) == "3040100"
    assert staged.served("packages/3.4.2/Halvoro.ARM64.msi") == package


def test_what_cannot_be_withdrawn_is_said(staged: Kit) -> None:
    staged.refused("not-offered", "withdraw", "3.4.1", "--channel", "stable")
    staged.done("offer", "3.4.1", "--channel", "stable")
    staged.refused("not-offered", "withdraw", "3.4.2", "--channel", "stable")
    assert "nothing before 3.4.1" in staged.refused("nothing-before", "withdraw", "3.4.1", "--channel", "stable").err


def test_two_withdrawals_go_back_two_versions(staged: Kit, workshop: Workshop) -> None:
    staged.done("stage", workshop.package("3.4.3"))
    for version in ("3.4.1", "3.4.2", "3.4.3"):
        staged.done("offer", version, "--channel", "stable")
    staged.done("withdraw", "3.4.3", "--channel", "stable")
    staged.done("withdraw", "3.4.2", "--channel", "stable")
    assert version_at(staged, PATHS["stable"][0]) == "3040100"


def test_a_version_that_is_not_above_the_offered_one_is_refused_unless_there_is_a_reason(staged: Kit) -> None:
    staged.done("offer", "3.4.2", "--channel", "beta")
    staged.refused("not-above", "offer", "3.4.1", "--channel", "beta")
    staged.refused("not-above", "offer", "3.4.2", "--channel", "beta")
    staged.done("offer", "3.4.1", "--channel", "beta", "--accept", "new machines are to get 3.4.1")
    assert "accepted not-above: new machines are to get 3.4.1" in staged.done("log").out


def test_a_new_kind_of_windows_may_be_offered_the_same_version(staged: Kit) -> None:
    staged.done("offer", "3.4.1", "--channel", "stable")
    settings = staged.root / "publish.toml"
    settings.write_text(settings.read_text(encoding="utf-8").replace('"win10"', '"win10", "win8_1"'), encoding="utf-8")
    staged.done("offer", "3.4.1", "--channel", "stable")
    assert version_at(staged, "/Halvoro/Lumaris/win8_1-stable.txt") == "3040100"


def test_a_version_that_is_not_staged_is_refused(staged: Kit) -> None:
    assert "there is 3.4.2" in staged.refused("not-staged", "offer", "3.4.3", "--channel", "beta").err


@pytest.mark.parametrize("name", ["gamma", "Beta", "", "../beta"])
def test_a_channel_that_clients_would_not_ask_for_is_refused(staged: Kit, name: str) -> None:
    said = staged("offer", "3.4.1", "--channel", name or "x/y")
    assert (said.status, said.refusals) == (1, ["channel-name"])


@pytest.mark.parametrize("version", ["3.4", "3.4.1.1", "3.4.256", "255.255.255", "30401000", "0xFFFFFFFF", "3.4.-1", "3.4.1 ", "٣.٤.١"])
def test_a_version_that_no_description_can_hold_is_refused(staged: Kit, version: str) -> None:
    said = staged("offer", version, "--channel", "beta")
    assert said.status == 1 and said.refusals[0] in ("version", "fourth-field", "version-field", "highest-version")


def test_a_version_without_the_package_of_a_variant_is_refused(new_kit: Callable[..., Kit], workshop: Workshop) -> None:
    kit = new_kit("--variants=-sl")
    kit.done("stage", workshop.package())
    kit.refused("missing-variant", "offer", "3.4.1", "--channel", "beta")
    kit.done("stage", workshop.package("3.4.1", name="sl"), "--variant=-sl")
    kit.done("offer", "3.4.1", "--channel", "beta")


def test_a_package_that_was_damaged_since_is_not_offered(staged: Kit) -> None:
    package = staged.root / "public/packages/3.4.1/Halvoro.ARM64.msi"
    content = bytearray(package.read_bytes())
    content[len(content) // 2] ^= 1
    package.unlink()
    package.write_bytes(content)
    assert "Invalid Minisign signature" in staged.refused("damaged", "offer", "3.4.1", "--channel", "beta").err
    package.unlink()
    staged.refused("damaged", "offer", "3.4.1", "--channel", "beta")


def test_a_package_of_another_version_in_its_place_is_not_offered(staged: Kit) -> None:
    record = staged.root / "state/packages/3.4.1.json"
    other = json.loads((staged.root / "state/packages/3.4.2.json").read_text(encoding="utf-8"))
    record.write_text(json.dumps({**other, "version": "3.4.1"}), encoding="utf-8")
    shutil.copy(staged.root / "public/packages/3.4.2/Halvoro.ARM64.msi", staged.root / "other.msi")
    said = staged("offer", "3.4.1", "--channel", "beta")
    assert said.refusals == ["offer-version"]
    assert not (staged.root / "public/current").is_symlink()


def test_another_key_is_refused_and_changes_nothing(staged: Kit, workshop: Workshop) -> None:
    staged.done("offer", "3.4.1", "--channel", "stable")
    said = staged.refused("judge", "offer", "3.4.2", "--channel", "stable", key=workshop.other_key.secret)
    assert "Untrusted Minisign key" in said.err


def test_a_dry_run_changes_nothing(staged: Kit) -> None:
    before = staged.tree()
    assert "would sign 3 descriptions and switch to beta: 3.4.1" in staged.done("offer", "3.4.1", "--channel", "beta", "--dry-run").out
    assert staged.tree() == before


def test_a_description_that_was_changed_by_hand_is_found_at_the_next_offer(staged: Kit) -> None:
    staged.done("offer", "3.4.1", "--channel", "stable")
    file = staged.root / "public" / PATHS["stable"][1].lstrip("/")
    content = file.read_bytes()
    file.unlink()
    file.write_bytes(content.replace(b"3040100", b"3040900"))
    said = staged("offer", "3.4.2", "--channel", "beta")
    assert (said.status, said.refusals) == (1, ["judge"]) and "Invalid Minisign signature" in said.err


def test_old_sets_go_and_the_last_ones_stay(staged: Kit) -> None:
    for turn in range(12):
        staged.done("offer", "3.4.2" if turn % 2 else "3.4.1", "--channel", "beta", "--accept", "there and back")
    assert sorted(each.name for each in (staged.root / "public/sets").iterdir()) == [f"{number:06}" for number in range(3, 13)]


# Who did it


def test_the_log_says_who_published_what_when(staged: Kit) -> None:
    staged.done("offer", "3.4.1", "--channel", "beta")
    staged.done("promote", "3.4.1", "--from", "beta", "--to", "stable")
    staged.done("offer", "3.4.2", "--channel", "stable")
    staged.done("withdraw", "3.4.2", "--channel", "stable")
    entries = json.loads(staged.done("log", "--json").out)
    assert [(entry["id"], entry["what"], entry["version"], entry["channel"], entry["note"]) for entry in entries] == [
        ("1", "stage", "3.4.1", "", ""), ("2", "stage", "3.4.2", "", ""), ("3", "offer", "3.4.1", "beta", ""),
        ("4", "promote", "3.4.1", "stable", "from beta"), ("5", "offer", "3.4.2", "stable", ""), ("6", "withdraw", "3.4.1", "stable", "instead of 3.4.2")]
    *lines, following = staged.done("log").out.splitlines()
    assert following.startswith("next: ")
    assert len(lines) == 6 and all("root@" in line for line in lines)
    assert lines[3].endswith("promote 3.4.1 on stable from beta")


def test_the_status_says_what_is_offered(staged: Kit) -> None:
    staged.done("offer", "3.4.2", "--channel", "beta")
    said = json.loads(staged.done("status", "--json").out)
    assert [(each["channel"], each["offers"]) for each in said["channels"]] == [("stable", "nothing"), ("beta", "3.4.2")]
    assert [each["version"] for each in said["packages"]] == ["3.4.1", "3.4.2"]
    out = staged.done("status").out
    assert "beta     3.4.2" in out and "keys drill" in out


def test_whatever_is_done_ends_with_what_to_do_next(staged: Kit, tmp_path: Path) -> None:
    (tmp_path / "access.log").write_text("", encoding="ascii")
    (tmp_path / "there").mkdir()
    same = staged.root / "public/packages/3.4.1/Halvoro.ARM64.msi"
    for command in (("stage", same), ("offer", "3.4.1", "--channel", "beta"), ("promote", "3.4.1", "--from", "beta", "--to", "stable"),
                    ("offer", "3.4.2", "--channel", "beta"), ("withdraw", "3.4.2", "--channel", "beta"), ("push", tmp_path / "there"),
                    ("keys", "drill", "--key", staged.key.secret), ("status",), ("log",), ("fleet", tmp_path / "access.log"),
                    ("keys", "new", tmp_path / "mine", "--without-password"), ("init", tmp_path / "new", "--host", "h", "--public-key", staged.key.line)):
        said = staged.done(*command)
        assert "\nnext: " in said.out, command


def test_a_log_that_somebody_damaged_is_said(staged: Kit) -> None:
    with (staged.root / "log.jsonl").open("a", encoding="utf-8") as log:
        log.write("nonsense\n")
    staged.refused("log", "offer", "3.4.1", "--channel", "beta")


# Two at once


def test_the_second_learns_who_holds_the_lock(staged: Kit) -> None:
    done = subprocess.Popen(["python3", "-c", "import fcntl, sys, time\nf = open(sys.argv[1], 'w')\nfcntl.flock(f, fcntl.LOCK_EX)\n"
                             "f.write('ana@desk (process 7, offer, since 10:00:00)'); f.flush(); print('held', flush=True); time.sleep(60)",
                             str(staged.root / "state/lock")], stdout=subprocess.PIPE, text=True)
    try:
        assert done.stdout is not None and done.stdout.readline() == "held\n"
        said = staged.refused("locked", "offer", "3.4.1", "--channel", "beta", "--wait", "0.2")
        assert "ana@desk (process 7, offer, since 10:00:00) is at work" in said.err
    finally:
        done.kill()
        done.wait()


def test_the_second_waits_until_the_first_has_ended(staged: Kit, workshop: Workshop) -> None:
    results: list[int] = []

    def act(version: str) -> None:
        results.append(cli.main(["--root", str(staged.root), "offer", version, "--channel", "beta", "--accept", "race", "--key",
                                 str(workshop.key.secret)]))
    threads = [threading.Thread(target=act, args=(version,)) for version in ("3.4.1", "3.4.2", "3.4.1", "3.4.2")]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert results == [0, 0, 0, 0]
    assert staged("status", "--json").status == 0
    assert [entry["id"] for entry in json.loads(staged.done("log", "--json").out)] == ["1", "2", "3", "4", "5", "6"]
    assert (staged.root / "public/current").readlink() == Path("sets/000004")


def test_two_channels_and_every_windows_are_fourteen_descriptions(new_kit: Callable[..., Kit], workshop: Workshop) -> None:
    kit = new_kit("--windows", "win11,win10,win8_1,win8,win7sp1,win7")
    kit.done("stage", workshop.package())
    kit.done("offer", "3.4.1", "--channel", "stable,beta")
    assert len(list((kit.root / "public/sets/000001").rglob("*.txt"))) == 14


def test_a_package_that_is_larger_than_clients_take_is_not_offered(staged: Kit) -> None:
    # It was staged when clients took more.
    package = staged.root / "public/packages/3.4.1/Halvoro.ARM64.msi"
    content = package.read_bytes()
    package.unlink()
    package.write_bytes(content)
    os.truncate(package, 50_331_649)
    package.with_name(f"{package.name}.minisig").unlink()
    staged.key.sign(package)
    record = staged.root / "state/packages/3.4.1.json"
    record.write_text(json.dumps({**json.loads(record.read_text(encoding="utf-8")), "size": 50_331_649}), encoding="utf-8")
    said = staged.refused("too-large", "offer", "3.4.1", "--channel", "beta")
    assert "50,331,649 bytes, and clients break a download off after 50,331,648" in said.err


def test_an_offer_needs_a_channel_and_an_acceptance_a_reason(staged: Kit) -> None:
    staged.refused("channel-name", "offer", "3.4.1", "--channel", "")
    staged.refused("channel-name", "withdraw", "3.4.1", "--channel", " , ")
    for reason in ("", "  "):
        said = staged("offer", "3.4.1", "--channel", "beta", "--accept", reason)
        assert said.status == 2 and "write one" in said.err


@pytest.mark.parametrize("size", [20, 100, 300, 400, 0, 1, 60])
def test_a_disk_that_is_full_leaves_the_old_offer_or_the_new(staged: Kit, size: int) -> None:
    """No file may become larger: a description, a signature, what is about to be done; or, for the last ones, so much more than the log."""
    staged.done("offer", "3.4.1", "--channel", "beta")
    if size < 100 and size != 20:
        size += (staged.root / "log.jsonl").stat().st_size
    done = subprocess.run(["prlimit", f"--fsize={size}", sys.executable, "-m", "lumaris_publish", "--root", str(staged.root), "offer", "3.4.2",
                           "--channel", "beta", "--key", str(staged.key.secret)], capture_output=True, text=True, timeout=60, check=False,
                          env={**os.environ, "PYTHONPATH": str(TREE / "tools/publish"), "PYTHONDONTWRITEBYTECODE": "1"})
    assert done.returncode in (0, 1) and "Traceback" not in done.stderr, done
    assert done.returncode == 0 or "REFUSED [disk]" in done.stderr or "REFUSED [signing]" in done.stderr
    seen = {version_at(staged, path) for path in PATHS["beta"]}
    assert seen in ({"3040100"}, {"3040200"}) and (done.returncode == 1 or seen == {"3040200"})
    # With room again the log says what clients see, once.
    staged.done("offer", "3.4.1", "--channel", "stable")
    beta = [entry["version"] for entry in json.loads(staged.done("log", "--json").out) if entry["channel"] == "beta"]
    assert beta == (["3.4.1", "3.4.2"] if seen == {"3040200"} else ["3.4.1"])
