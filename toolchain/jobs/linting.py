"""Checks of the source tree that need no run of the program."""

import argparse
import concurrent.futures
import contextlib
import hashlib
import json
import os
import re
import shlex
import shutil
import subprocess
import sys
import time
from collections.abc import Callable, Iterable
from pathlib import Path

from jobs import building
from jobs.common import JobError, cores

PRODUCT_FOLDERS = ("src",)
SOURCE_FOLDERS = ("src", "packaging", "tests", "bench", "fuzz", "tools", "toolchain")
SUPPRESSIONS = Path(__file__).parents[1] / "cppcheck.suppressions"
# Of the tests it does not see that a lambda uses what it has captured, nor what the assertions of the framework compare: their style is
# not looked at.
CPPCHECK_FOLDERS = {(*PRODUCT_FOLDERS, "packaging", "tools", "fuzz", "bench", "toolchain"): "warning,style,performance,portability",
                    ("tests",): "warning,performance,portability"}
# clang-tidy takes longer over the tests than over everything else together, since each includes the test framework: these have
# the compiler's warnings and cppcheck.
TIDY_FOLDERS = {"x64-test": (*PRODUCT_FOLDERS, "packaging", "tools"), "native-fuzz": ("fuzz", "tools")}
PYTHON_FOLDERS = ("toolchain", "tests", "bench", "tools", "fuzz")
PYTHON_LINE = 200
# Folders of Python whose types are looked at, with what their programs put on the path of modules beside COMMON_PATHS.
COMMON_PATHS = ("tests", "toolchain", "tools/installer", "tools/release")
TYPED_FOLDERS: dict[str, tuple[str, ...]] = {
    "toolchain": (),
    "tools/demo": ("tools",),
    "tools/installer": (),
    "tools/proof": ("tools/installer",),
    "tools/publish": (),
    "tools/release": (),
    "bench": ("tests/reports",),
    "fuzz": (),
    "tests": ("tools/demo",),
    "tests/e2e": ("tools/installer", "tools/publish"),
    "tests/endurance": ("tests/e2e",),
    "tests/ground": ("tests", "bench"),  # "run" is that of tests/
    "tests/mutations": (),
    "tests/proof": (),
    "tests/publish": ("tools/publish",),
    "tests/release": (),
    "tests/reports": (),
}


def add_parser(commands: "argparse._SubParsersAction[argparse.ArgumentParser]") -> None:
    parser = commands.add_parser("lint", help="check the sources")
    parser.add_argument("checks", nargs="*", metavar="CHECK", help=f"of {', '.join(CHECKS)} (default: all)")
    parser.add_argument("--fix", action="store_true", help="let clang-format change the files")
    parser.set_defaults(run=run)


def run(arguments: argparse.Namespace) -> None:
    for name in arguments.checks:
        if name not in CHECKS:
            raise JobError(f"there is no check {name}; there are {', '.join(CHECKS)}")
    failed = []
    for name in arguments.checks or CHECKS:
        print(f"dev: lint: {name}", flush=True)
        complaints = list(CHECKS[name](arguments.fix))
        for complaint in complaints:
            print(complaint, file=sys.stderr, flush=True)
        if complaints:
            failed.append(name)
    if failed:
        raise JobError(f"lint failed: {', '.join(failed)}")
    print("dev: lint passed")


def sources(*suffixes: str, folders: Iterable[str] = SOURCE_FOLDERS) -> list[Path]:
    return sorted(path for folder in folders for path in Path(folder).rglob("*") if path.suffix in suffixes)


def output_of(command: list[str]) -> tuple[int, str]:
    result = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                            text=True, check=False)
    return result.returncode, result.stdout.strip()


def complaints_of(commands: Iterable[list[str]]) -> Iterable[str]:
    """Runs the commands side by side; yields the output of those that fail."""
    with concurrent.futures.ThreadPoolExecutor(cores()) as pool:
        for status, text in pool.map(output_of, commands):
            if status:
                yield text or "failed without a message"


def check_format(fix: bool) -> Iterable[str]:
    files = [str(path) for path in sources(".h", ".cpp")]
    command = ["clang-format-19", *(["-i"] if fix else ["--dry-run", "-Werror"]), *files]
    return complaints_of([command]) if files else []


def entries_of(preset: str) -> list[dict[str, str]]:
    """How a preset compiles each source."""
    folder = Path("build") / preset
    if preset == "x64-test":
        # Some of its sources and headers are generated.
        building.build(preset)
    else:
        with building.locked(folder):
            building.configure(preset, folder)
    entries: list[dict[str, str]] = json.loads((folder / "compile_commands.json").read_text(encoding="utf-8"))
    return entries


def flags_near(header: Path, entries: list[dict[str, str]]) -> list[str]:
    """Compiler and flags of the source that is the nearest neighbour of the header, without the names of its files."""
    def nearness(entry: dict[str, str]) -> int:
        return len(os.path.commonpath(["/src" / header, entry["file"]]))
    return bare_command(max((entry for entry in entries if entry["file"].endswith(".cpp")), key=nearness))


def bare_command(entry: dict[str, str]) -> list[str]:
    """Compiler and flags of a source, without the names of its files."""
    words = shlex.split(entry["command"])
    words = words[words.index("/usr/bin/clang++-19"):]
    for option in ("-c", "-o", "-MF", "-MT"):
        while option in words:
            position = words.index(option)
            del words[position:position + 2]
    return [word for word in words if word != "-MD"]


def check_headers(_fix: bool) -> Iterable[str]:
    """Every header compiles alone, has `#pragma once`, and is the first thing that its own source includes."""
    headers = sources(".h")
    for header in headers:
        text = header.read_text(encoding="utf-8")
        if "#pragma once" not in text:
            yield f"{header}: no #pragma once"
        source = header.with_suffix(".cpp")
        if source.exists():
            first = re.search(r'^#include\s+["<]([^">]+)[">]', source.read_text(encoding="utf-8"), re.MULTILINE)
            name = header.relative_to("src") if header.parts[0] == "src" else header
            if first is None or first.group(1) != str(name):
                yield f"{source}: does not include {name} first"
    entries = entries_of("x64-test")
    # The tools, with their tests and the fuzz targets, are built natively alone.
    known = {entry["file"] for entry in entries}
    entries += [entry for entry in entries_of("native-asan") if entry["file"] not in known]
    yield from complaints_of([*flags_near(header, entries), "-fsyntax-only", "-Wno-pragma-once-outside-header",
                              "-Wno-unused-const-variable", "-x", "c++", str(header)] for header in headers)


def check_tidy(_fix: bool) -> Iterable[str]:
    """clang-tidy with the static analyser of clang; .clang-tidy says what it looks for."""
    work = []
    passed = Passed(sorted(Path().rglob(".clang-tidy")))
    for preset, folders in TIDY_FOLDERS.items():
        inside = tuple(f"{Path.cwd()}/{folder}/" for folder in folders)
        entries = {entry["file"]: entry for entry in entries_of(preset) if entry["file"].startswith(inside)}
        if not entries:
            yield f"clang-tidy has nothing to look at in {', '.join(folders)}"
        work += [(["clang-tidy-19", "--quiet", "-p", f"build/{preset}", file], entry) for file, entry in sorted(entries.items()) if file.endswith(".cpp")]

    def look(command: list[str], entry: dict[str, str]) -> str:
        memory = passed.file(entry)
        if memory is not None and memory.exists():
            memory.touch()
            return ""
        status, text = output_of(command)
        if status:
            return text or f"{entry['file']}: failed without a message"
        if memory is not None:
            memory.touch()
        return ""

    with concurrent.futures.ThreadPoolExecutor(cores()) as pool:
        yield from filter(None, pool.map(look, *zip(*work, strict=True)) if work else [])


class Passed:
    """Which sources have passed clang-tidy: a file in the compiler's cache for each, named by the digest of everything that it looked at.

    clang-tidy takes ten seconds for a source; to read it with its headers takes half a second. A source with a complaint is not remembered.
    """

    KEPT_DAYS = 30

    def __init__(self, settings: list[Path]) -> None:
        cache = os.environ.get("CCACHE_DIR")
        self._folder = Path(cache) / "clang-tidy" if cache else None
        program = shutil.which("clang-tidy-19")
        version = output_of([program, "--version"])[1] if program else ""
        self._common = "\0".join([version, *(f"{path}\0{path.read_text(encoding='utf-8')}" for path in settings)])
        if self._folder:
            self._folder.mkdir(parents=True, exist_ok=True)
            oldest = time.time() - self.KEPT_DAYS * 86400
            for file in self._folder.iterdir():
                with contextlib.suppress(FileNotFoundError):  # another job may do the same
                    if file.stat().st_mtime < oldest:
                        file.unlink()

    def file(self, entry: dict[str, str]) -> Path | None:
        """The file that is there if this source, compiled so, has passed; None if that cannot be known."""
        if self._folder is None:
            return None
        words = bare_command(entry)
        # Its text and those of its headers as they are written, comments and macros too, since clang-tidy looks at them.
        result = subprocess.run([*words, "-E", "-frewrite-includes", entry["file"]], cwd=entry["directory"], stdin=subprocess.DEVNULL,
                                stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=False)
        if result.returncode != 0:
            return None
        seen = "\0".join([self._common, entry["file"], *words]).encode() + b"\0" + result.stdout
        return self._folder / hashlib.sha256(seen).hexdigest()


def check_cppcheck(_fix: bool) -> Iterable[str]:
    """A second analyser. What it says wrongly stands in the list of suppressions, each with its reason."""
    for folders, enabled in CPPCHECK_FOLDERS.items():
        there = [folder for folder in folders if Path(folder).exists()]
        if not there:
            yield f"cppcheck has nothing to look at in {', '.join(folders)}"
            continue
        yield from complaints_of([["cppcheck", f"--enable={enabled}", "--std=c++20", "--language=c++", "--platform=win64",
                                   "--library=windows,googletest", "--check-level=exhaustive", "-Isrc", "-I.", "--quiet", f"-j{cores()}",
                                   "--error-exitcode=1", f"--suppressions-list={SUPPRESSIONS}",
                                   "--template={file}:{line}:{column}: {severity}: {message} [{id}]", *there]])


def check_shell(_fix: bool) -> Iterable[str]:
    # The parts of dev are checked through dev, which sources them.
    files = ["dev", ".ci/run", *(str(path) for path in sorted(Path("toolchain").glob("build_*.sh")))]
    return complaints_of([["shellcheck", "--severity=warning", "--external-sources", *files]])


def check_python(_fix: bool) -> Iterable[str]:
    """flake8: names that do not exist or are not used, and form."""
    return complaints_of([["flake8", "--isolated", f"--max-line-length={PYTHON_LINE}", *python_folders()]])


def python_folders() -> list[str]:
    return [folder for folder in PYTHON_FOLDERS if Path(folder).exists()]


def check_types(_fix: bool) -> Iterable[str]:
    """mypy, strict. Programs of one folder import each other by their bare names, and so each folder is looked at by itself."""
    sources_of: dict[str, list[str]] = {folder: [] for folder in TYPED_FOLDERS}
    for path in sorted(path for folder in python_folders() for path in Path(folder).rglob("*.py")):
        within = [folder for folder in TYPED_FOLDERS if path.is_relative_to(folder)]
        if within:
            sources_of[max(within, key=len)].append(str(path))
        else:
            yield f"{path}: in no folder whose types are looked at"
    for folder, files in sources_of.items():
        if not files:
            yield f"mypy has nothing to look at in {folder}"
            continue
        status, text = output_of(["env", f"MYPYPATH={':'.join(dict.fromkeys((folder, *TYPED_FOLDERS[folder], *COMMON_PATHS)))}",
                                  "mypy", "--config-file", "toolchain/mypy.ini", *files])
        if status:
            yield text


CHECKS: dict[str, Callable[[bool], Iterable[str]]] = {
    "format": check_format,
    "headers": check_headers,
    "shell": check_shell,
    "python": check_python,
    "types": check_types,
    "cppcheck": check_cppcheck,
    "tidy": check_tidy,
}
