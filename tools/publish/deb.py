"""Packs the publisher's kit into lumaris-publish_VERSION_amd64.deb: the same bytes from the same sources."""

from __future__ import annotations

import argparse
import os
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

sys.dont_write_bytecode = True
HERE = Path(__file__).resolve().parent
ROOT = HERE.parents[1]
sys.path.insert(0, str(HERE))

from lumaris_publish import VERSION  # noqa: E402  (the path to it is set above)

# 2000-01-01: no file says when it was packed.
_EPOCH = 946684800

CONTROL = f"""Package: lumaris-publish
Version: {VERSION}
Architecture: amd64
Maintainer: Tavrin <updates@tavrin.example>
Depends: python3 (>= 3.11), python3-pefile, msitools, minisign, osslsigncode, rsync
Recommends: nginx | httpd
Section: admin
Priority: optional
Description: publishes updates of Halvoro so that every client accepts them
 Checks an installer package, signs it, and switches a channel to it at one
 stroke, or says in a sentence why not. It judges with the sources of the
 program that the updates are for.
"""

START = """#!/bin/sh
PYTHONPATH=/usr/lib/lumaris-publish exec python3 -m lumaris_publish "$@"
"""

COMPILE = """#!/bin/sh
set -e
python3 -m compileall -q /usr/lib/lumaris-publish || true
"""

CLEAN = """#!/bin/sh
set -e
rm -rf /usr/lib/lumaris-publish/lumaris_publish/__pycache__
"""


def _write(file: Path, text: str, mode: int = 0o644) -> None:
    file.parent.mkdir(parents=True, exist_ok=True)
    file.write_text(text, encoding="utf-8")
    file.chmod(mode)


def make(judge: Path, output: Path) -> Path:
    """Packs the kit with this judge."""
    with tempfile.TemporaryDirectory(prefix="publish-kit-") as scratch:
        tree = Path(scratch) / "tree"
        library = tree / "usr/lib/lumaris-publish"
        for source in sorted((HERE / "lumaris_publish").glob("*.py")):
            _write(library / "lumaris_publish" / source.name, source.read_text(encoding="utf-8"))
        shutil.copyfile(judge, library / "lumaris_judge")
        (library / "lumaris_judge").chmod(0o755)
        _write(tree / "usr/bin/lumaris-publish", START, 0o755)
        _write(tree / "usr/share/doc/lumaris-publish/publishing.md", (ROOT / "docs/publishing.md").read_text(encoding="utf-8"))
        for name, text in (("postinst", COMPILE), ("prerm", CLEAN)):
            _write(tree / "DEBIAN" / name, text, 0o755)
        _write(tree / "DEBIAN/control", CONTROL)
        for path in [tree, *tree.rglob("*")]:
            if path.is_dir():
                path.chmod(0o755)
            os.utime(path, (_EPOCH, _EPOCH))
        output.mkdir(parents=True, exist_ok=True)
        made = output / f"lumaris-publish_{VERSION}_amd64.deb"
        subprocess.run(["dpkg-deb", "--root-owner-group", "-Zxz", "--build", str(tree), str(made)], check=True, stdout=subprocess.DEVNULL, timeout=120,
                       env={**os.environ, "SOURCE_DATE_EPOCH": str(_EPOCH)})
    return made


def main(arguments: list[str] | None = None) -> int:
    """Packs it, and says what it is."""
    parser = argparse.ArgumentParser(prog="./dev publish-kit", description=__doc__)
    parser.add_argument("--judge", type=Path, default=ROOT / "build/native-release/tools/publish/lumaris_judge")
    parser.add_argument("--output", type=Path, default=ROOT / "build/publish-kit")
    options = parser.parse_args(arguments)
    made = make(options.judge, options.output)
    print(f"publish-kit: {made.name}, {made.stat().st_size:,} bytes, in {options.output}", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
