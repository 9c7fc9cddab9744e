"""The set-up of ./dev meets machines that lack something: each time it says what, loses nothing, and repairs itself.

The frame of the set-up (toolchain/lib.sh, toolchain/host.sh) runs here with a product that takes no time, in a cache folder of
the test, and with programs in front of the path that fail the way a machine can.
"""

import os
import re
import signal
import subprocess
import time
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]

FRAME = """
set -uo pipefail
here={root}
. "$here/toolchain/lib.sh"
. "$here/toolchain/host.sh"
remove_run_folder() {{ :; }}
product_hindrance() {{ :; }}
prepare_host() {{ mirror=http://mirror.invalid/debian; }}
make_thing() {{ {maker}; }}
product thing 'little thing' {megabytes} make_thing 'bin/tool' "={inputs}"
trap stop_maker EXIT
trap 'exit 143' TERM
need thing
echo "ready: $(product_path thing)"
"""
GOOD = 'echo "## making"; mkdir -p "$1/bin"; echo tool >"$1/bin/tool"; echo made >>"$cache/made"'


class Machine:
    """A machine with a cache folder and a folder of programs that come before the real ones."""

    def __init__(self, folder: Path) -> None:
        self.cache = folder / "cache"
        self.programs = folder / "programs"
        self.programs.mkdir()
        self.environment = {"PATH": f"{self.programs}:{os.environ['PATH']}", "LUMARIS_CACHE": str(self.cache), "LC_ALL": "C.UTF-8"}

    def program(self, name: str, text: str) -> None:
        path = self.programs / name
        path.write_text(f"#!/bin/sh\n{text}\n", encoding="utf-8")
        path.chmod(0o755)

    def frame(self, maker: str = GOOD, inputs: str = "1", megabytes: int = 1) -> list[str]:
        return ["bash", "-c", FRAME.format(root=ROOT, maker=maker, inputs=inputs, megabytes=megabytes)]

    def need(self, **arguments: object) -> subprocess.CompletedProcess[str]:
        return self.run(self.frame(**arguments))  # type: ignore[arg-type]

    def run(self, command: list[str]) -> subprocess.CompletedProcess[str]:
        return subprocess.run(command, env=self.environment, stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              timeout=60, check=False)

    def times_made(self) -> int:
        record = self.cache / "made"
        return len(record.read_text(encoding="utf-8").splitlines()) if record.exists() else 0

    def product(self) -> Path:
        (found,) = [path for path in self.cache.glob("thing-*") if ".partial." not in path.name]
        return found


@pytest.fixture
def machine(tmp_path: Path) -> Machine:
    return Machine(tmp_path)


def test_a_second_call_makes_nothing_again(machine: Machine) -> None:
    first = machine.need()
    second = machine.need()
    assert first.returncode == 0 and "[1/1] little thing" in first.stderr
    assert second.returncode == 0 and second.stderr == ""
    assert machine.times_made() == 1


def test_other_inputs_make_it_again_and_keep_what_another_checkout_uses(machine: Machine) -> None:
    machine.need(inputs="1")
    former = machine.product()
    assert machine.need(inputs="2").returncode == 0
    assert machine.times_made() == 2
    assert former.exists()
    assert machine.need(inputs="1").stderr == ""
    assert machine.times_made() == 2


def test_what_nobody_has_used_for_a_week_is_removed(machine: Machine) -> None:
    machine.need(inputs="1")
    former = machine.product()
    eight_days_ago = time.time() - 8 * 24 * 3600
    for path in (former, machine.cache / "locks" / f"use-{former.name}"):
        os.utime(path, (eight_days_ago, eight_days_ago))
    assert machine.need(inputs="2").returncode == 0
    assert not former.exists()
    assert (machine.product() / "bin/tool").exists()


def test_a_missing_key_file_is_damage_and_is_repaired(machine: Machine) -> None:
    machine.need()
    (machine.product() / "bin/tool").unlink()
    again = machine.need()
    assert "The little thing is damaged (bin/tool is missing): creating it again." in again.stderr
    assert again.returncode == 0 and (machine.product() / "bin/tool").exists()


def test_a_missing_stamp_is_damage_and_is_repaired(machine: Machine) -> None:
    machine.need()
    (machine.product() / ".complete").unlink()
    again = machine.need()
    assert "The little thing is damaged (its stamp is missing): creating it again." in again.stderr
    assert again.returncode == 0 and machine.times_made() == 2


def test_a_changed_file_is_found_by_the_thorough_check(machine: Machine) -> None:
    machine.need()
    (machine.product() / "bin/tool").write_text("longer than it was", encoding="utf-8")
    check = machine.frame()
    check[2] += 'product_deep_fault thing\n'
    assert "1 files differ from those that were created, such as bin/tool" in machine.run(check).stdout


def test_a_failed_step_shows_its_last_lines_its_log_and_leaves_nothing(machine: Machine) -> None:
    failed = machine.need(maker='echo "## half way"; mkdir "$1/bin"; echo "cc: something is wrong"; false')
    assert failed.returncode == 1 and "ready" not in failed.stdout
    assert "cc: something is wrong" in failed.stderr
    assert "set-up failed: little thing" in failed.stderr
    assert f"log: {machine.cache}/log/thing.log" in failed.stderr
    assert not list(machine.cache.glob("thing-*"))


def test_a_step_that_ends_well_without_its_key_file_has_failed(machine: Machine) -> None:
    failed = machine.need(maker='mkdir "$1/bin"')
    assert failed.returncode == 1
    assert "it ended well but bin/tool is missing" in failed.stderr


def test_an_interrupted_step_does_not_look_finished_and_the_next_call_repairs_it(machine: Machine) -> None:
    waiting = machine.frame(maker='mkdir "$1/bin"; echo tool >"$1/bin/tool"; echo at work >"$cache/at-work"; sleep 50')
    with subprocess.Popen(waiting, env=machine.environment, stdin=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True) as process:
        assert process.stderr is not None
        # The title is written before the step starts, so the marker of the step is what to wait for.
        while not (machine.cache / "at-work").exists():
            assert process.poll() is None
            os.sched_yield()
        process.send_signal(signal.SIGTERM)
        assert process.wait(timeout=20) == 143
    assert not [path for path in machine.cache.glob("thing-*") if ".partial." not in path.name]
    again = machine.need()
    assert again.returncode == 0
    assert not list(machine.cache.glob("*.partial.*"))


def test_an_unreachable_mirror_is_named(machine: Machine) -> None:
    failed = machine.need(maker='echo "E: Could not resolve mirror.invalid"; false')
    assert "the package mirror http://mirror.invalid/debian cannot be reached (Could not resolve mirror.invalid)" in failed.stderr


MIRROR = """
set -uo pipefail
here={root}
. "$here/toolchain/lib.sh"
. "$here/toolchain/host.sh"
remove_run_folder() {{ :; }}
mkdir -p "$logs"
mirror=http://mirror.invalid/other
check_mirror
echo "goes on"
"""


@pytest.mark.parametrize(("answer", "status", "refused"), [
    ("E: Failed to fetch http://mirror.invalid/other/dists/trixie/Release  404  Not Found", 100, True),
    ("E: Failed to fetch http://mirror.invalid/other/dists/trixie/Release  Could not resolve 'mirror.invalid'", 100, False),
    ("Get:1 http://mirror.invalid/other/dists/trixie/Release", 0, False),
])
def test_a_mirror_without_debian_13_says_at_once_what_to_set(machine: Machine, answer: str, status: int, refused: bool) -> None:
    machine.program("apt-helper", f'[ "$1 $2" = "download-file http://mirror.invalid/other/dists/trixie/Release" ] || exit 3\n'
                                  f'echo "{answer}" >&2; exit {status}')
    said = machine.run(["bash", "-c", MIRROR.format(root=ROOT)])
    if refused:
        assert said.returncode == 1 and said.stdout == ""
        assert "the package mirror http://mirror.invalid/other does not have Debian 13 (trixie): this machine is " in said.stderr
        assert "Set LUMARIS_MIRROR to the address of a mirror of Debian itself." in said.stderr
    else:
        assert (said.returncode, said.stdout, said.stderr) == (0, "goes on\n", "")


def test_a_disk_that_fills_up_is_named(machine: Machine) -> None:
    failed = machine.need(maker='echo "tar: write error: No space left on device"; false')
    assert f"set-up failed: little thing: the disk is full ({machine.cache})" in failed.stderr


def test_a_disk_without_enough_space_is_refused_before_anything_is_made(machine: Machine) -> None:
    machine.program("df", "echo Avail; echo 300")
    failed = machine.need(megabytes=4000)
    assert failed.returncode == 1
    assert f"not enough space for the set-up: {machine.cache} has 300 MB free, about 4000 MB are needed" in failed.stderr
    assert not list(machine.cache.glob("thing-*"))


def test_a_cache_folder_that_cannot_be_written_is_named(machine: Machine) -> None:
    machine.cache.write_text("a file", encoding="utf-8")
    failed = machine.need()
    assert failed.returncode == 1
    assert f"cannot write to the cache folder {machine.cache}" in failed.stderr


def test_without_root_rights_the_set_up_says_so(machine: Machine) -> None:
    machine.environment["LUMARIS_CACHE"] = "/nonexistent/cache"
    failed = machine.run(["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", str(ROOT / "dev"), "build", "native"])
    assert failed.returncode == 1
    assert "the set-up needs root rights" in failed.stderr
    assert "sudo" in failed.stderr


def test_help_needs_nothing(machine: Machine) -> None:
    shown = machine.run([str(ROOT / "dev"), "--help"])
    assert shown.returncode == 0
    assert shown.stdout.startswith("usage: ./dev COMMAND")
    commands = re.findall(r"^  ([a-z-]+)  +[a-z]", shown.stdout, re.MULTILINE)
    assert len(commands) >= 16, commands
    for command in commands:
        shown = machine.run([str(ROOT / "dev"), command, "--help"])
        assert shown.returncode == 0, command
        assert shown.stdout.startswith(f"usage: ./dev {command}"), command
        assert "example" in shown.stdout, command


def test_an_unknown_command_is_refused(machine: Machine) -> None:
    failed = machine.run([str(ROOT / "dev"), "tset"])
    assert failed.returncode == 1
    assert failed.stderr == "dev: unknown command: tset\n     See ./dev --help.\n"


def test_forbidden_namespaces_are_named_with_their_reason(machine: Machine) -> None:
    machine.program("bwrap", 'echo "bwrap: Creating new namespace failed: Operation not permitted" >&2; exit 1')
    shown = machine.run(["bash", "-c", f'here={ROOT}; . {ROOT}/toolchain/lib.sh; . {ROOT}/toolchain/host.sh; check_namespaces;'
                         'echo "$isolation: $namespaces_fault"'])
    assert shown.stdout == ("none: this machine forbids namespaces "
                            "(bwrap: Creating new namespace failed: Operation not permitted)\n")


def test_a_forbidden_network_namespace_still_lets_a_room_be_entered(machine: Machine) -> None:
    machine.program("bwrap", 'case "$*" in *--unshare-net*) echo "bwrap: no network namespace" >&2; exit 1 ;; esac; exit 0')
    shown = machine.run(["bash", "-c", f'here={ROOT}; . {ROOT}/toolchain/lib.sh; . {ROOT}/toolchain/host.sh; check_namespaces;'
                         'echo "$isolation: $namespaces_fault"'])
    assert shown.stdout == "mounts: this machine forbids namespaces (bwrap: no network namespace)\n"


SOURCES = """
set -euo pipefail
here={here}
. {root}/toolchain/sources.sh
in_room() {{ :; }}
mkdir "$here/out"
make_sources "$here/out"
"""


@pytest.mark.parametrize(("content", "complaint"), [
    ("changed\n", f"expected {'0' * 64}: it is damaged or not what toolchain/sources.list pins"),
    (None, "thing_1.orig.tar.gz cannot be read"),
])
def test_a_source_archive_that_is_not_the_pinned_one_is_refused(machine: Machine, tmp_path: Path, content: str | None,
                                                                complaint: str) -> None:
    (tmp_path / "toolchain").mkdir()
    (tmp_path / "toolchain/sources.list").write_text(f"thing thing_1.orig.tar.gz {'0' * 64}\n", encoding="utf-8")
    given = tmp_path / "given"
    given.mkdir()
    if content is not None:
        (given / "thing_1.orig.tar.gz").write_text(content, encoding="utf-8")
    machine.environment["LUMARIS_SOURCES"] = str(given)
    failed = machine.run(["bash", "-c", SOURCES.format(here=tmp_path, root=ROOT)])
    assert failed.returncode != 0
    assert complaint in failed.stdout


def test_a_mirror_without_the_pinned_archive_says_what_to_do(machine: Machine, tmp_path: Path) -> None:
    (tmp_path / "toolchain").mkdir()
    (tmp_path / "toolchain/sources.list").write_text(f"thing thing_1.orig.tar.gz {'0' * 64}\n", encoding="utf-8")
    machine.program("apt-get", 'case "$*" in *" source "*) touch thing_2.orig.tar.gz ;; esac')
    snippet = SOURCES.format(here=tmp_path, root=ROOT).replace("make_sources", "mirror=http://mirror.invalid; apt_options() { :; }; make_sources")
    failed = machine.run(["bash", "-c", snippet])
    assert failed.returncode != 0
    assert "the mirror has no thing_1.orig.tar.gz any more, but thing_2.orig.tar.gz." in failed.stdout
    assert "set LUMARIS_SOURCES, or change toolchain/sources.list" in failed.stdout
