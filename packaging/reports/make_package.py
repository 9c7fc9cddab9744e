#!/usr/bin/env python3
"""Packs lumaris-reports with its service into a Debian package, with what it depends on by the libraries that it loads."""

from __future__ import annotations

import argparse
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

TREE = Path(__file__).resolve().parents[2]
FOLDER = Path(__file__).resolve().parent

EXAMPLE = """example:
  ./dev build native-release --target lumaris-reports
  ./dev build native-release --target read_report
  ./dev shell packaging/reports/make_package.py build
"""

_CONTROL = """Package: lumaris-reports
Version: {version}
Architecture: amd64
Maintainer: Tavrin
Section: net
Priority: optional
Depends: {depends}
Recommends: apache2-utils, nginx | httpd, sqlite3
Description: takes the error reports of Halvoro's updater and shows them
 Reports come in over HTTP behind a web server, are kept in SQLite or PostgreSQL, grouped by the crash, and shown on pages with
 functions and source lines.
"""


def version() -> str:
    """The version of the tree."""
    found = re.search(r"^set\(version (\d+\.\d+\.\d+)\)$", (TREE / "CMakeLists.txt").read_text(encoding="utf-8"), re.MULTILINE)
    if found is None:
        raise SystemExit("make_package: CMakeLists.txt names no version")
    return found[1]


def packages_of(program: Path) -> list[str]:
    """The packages of the libraries that a program names itself, with the versions that are installed here."""
    dynamic = subprocess.run(["llvm-readelf-19", "-d", str(program)], capture_output=True, text=True, check=True).stdout
    needed = set(re.findall(r"\(NEEDED\).*\[(.+)\]", dynamic))
    loaded = subprocess.run(["ldd", str(program)], capture_output=True, text=True, check=True).stdout
    paths = [path for name, path in re.findall(r"^\s*(\S+) => (\S+)", loaded, re.MULTILINE) if name in needed]
    packages = set()
    for path in paths:
        # dpkg knows a library by the path that its package has, which may be without the link from /lib.
        for each in (path, path.removeprefix("/usr"), f"/usr{path}"):
            done = subprocess.run(["dpkg", "-S", each], capture_output=True, text=True, check=False)
            if done.returncode == 0:
                packages.add(done.stdout.split(":")[0])
                break
        else:
            raise SystemExit(f"make_package: no package has {path}")
    shown = subprocess.run(["dpkg-query", "-W", "-f", "${Package} (>= ${Version})\n", *sorted(packages)], capture_output=True, text=True,
                           check=True).stdout
    # What is newer in the revision of the package alone does as well.
    return [re.sub(r"-[^-)]*\)$", ")", line) for line in shown.splitlines()]


def main() -> int:
    """Packs."""
    parser = argparse.ArgumentParser(description=__doc__, epilog=EXAMPLE, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("package", type=Path, help="the file to write, or the folder for it")
    parser.add_argument("--build", type=Path, default=TREE / "build/native-release", help="the build folder (default: build/native-release)")
    options = parser.parse_args()
    if options.package.is_dir():
        options.package /= f"lumaris-reports_{version()}_amd64.deb"
    server = options.build / "tools/reports/lumaris-reports"
    reader = options.build / "tools/report_reader/read_report"
    for needed in (server, reader):
        if not needed.exists():
            parser.error(f"{needed} is missing: it has not been built")
    with tempfile.TemporaryDirectory() as work:
        root = Path(work) / "root"
        for source, target, mode in ((server, "usr/bin/lumaris-reports", 0o755), (reader, "usr/bin/read_report", 0o755),
                                     (FOLDER / "lumaris-reports.service", "usr/lib/systemd/system/lumaris-reports.service", 0o644),
                                     (FOLDER / "options", "etc/lumaris-reports/options", 0o644),
                                     (FOLDER / "nginx.conf", "usr/share/doc/lumaris-reports/nginx.conf", 0o644),
                                     (TREE / "docs/report_server.md", "usr/share/doc/lumaris-reports/report_server.md", 0o644)):
            (root / target).parent.mkdir(parents=True, exist_ok=True)
            shutil.copyfile(source, root / target)
            (root / target).chmod(mode)
        for program in ("lumaris-reports", "read_report"):
            subprocess.run(["llvm-strip-19", str(root / "usr/bin" / program)], check=True)
        (root / "DEBIAN").mkdir()
        (root / "DEBIAN/control").write_text(_CONTROL.format(version=version(), depends=", ".join(packages_of(server))), encoding="utf-8")
        (root / "DEBIAN/conffiles").write_text("/etc/lumaris-reports/options\n", encoding="utf-8")
        subprocess.run(["dpkg-deb", "--root-owner-group", "--build", str(root), str(options.package)], check=True, stdout=subprocess.DEVNULL)
    print(options.package)
    return 0


if __name__ == "__main__":
    sys.exit(main())
