"""What ships around the server: the Debian package, the service, the web server's configuration."""

from __future__ import annotations

import subprocess
from pathlib import Path

from running import TREE

PACKAGING = TREE / "packaging/reports"


def test_the_package_brings_the_programs_the_service_and_what_they_depend_on(tmp_path: Path) -> None:
    package = tmp_path / "lumaris-reports.deb"
    subprocess.run([str(PACKAGING / "make_package.py"), "--build", str(TREE / "build/native-asan"), str(package)], check=True, timeout=300)
    files = subprocess.run(["dpkg-deb", "--contents", str(package)], capture_output=True, text=True, check=True, timeout=60).stdout
    for mode, name in (("-rwxr-xr-x root/root", "./usr/bin/lumaris-reports"), ("-rwxr-xr-x root/root", "./usr/bin/read_report"),
                       ("-rw-r--r-- root/root", "./usr/lib/systemd/system/lumaris-reports.service"),
                       ("-rw-r--r-- root/root", "./etc/lumaris-reports/options")):
        assert any(line.startswith(mode) and line.endswith(name) for line in files.splitlines()), (name, files)
    depends = subprocess.run(["dpkg-deb", "--field", str(package), "Depends"], capture_output=True, text=True, check=True, timeout=60).stdout
    for library in ("libc6", "libdrogon1t64", "libpq5", "libsqlite3-0"):
        assert f"{library} (>= " in depends
    unpacked = tmp_path / "root"
    subprocess.run(["dpkg-deb", "--extract", str(package), str(unpacked)], check=True, timeout=60)
    shown = subprocess.run([str(unpacked / "usr/bin/lumaris-reports"), "serve", "--help"], capture_output=True, text=True, check=True, timeout=60)
    # What the service starts it with is what it takes.
    options = (PACKAGING / "options").read_text(encoding="utf-8")
    for word in options.split("OPTIONS=")[1].split():
        if word.startswith("--"):
            assert word in shown.stdout


def test_the_service_is_valid_and_its_sandbox_is_on(tmp_path: Path) -> None:
    unit = tmp_path / "lumaris-reports.service"
    text = (PACKAGING / "lumaris-reports.service").read_text(encoding="utf-8")
    unit.write_text(text.replace("/usr/bin/lumaris-reports", "/bin/true"), encoding="utf-8")
    verified = subprocess.run(["systemd-analyze", "verify", "--man=no", str(unit)], capture_output=True, text=True, timeout=120, check=False)
    complaints = [line for line in verified.stderr.splitlines() if "lumaris-reports" in line]
    assert complaints == []
    # 0 is locked up, 10 is open; what systemd itself calls "OK" ends at 4.
    rated = subprocess.run(["systemd-analyze", "security", "--offline=yes", "--threshold=25", "--no-pager", str(unit)], capture_output=True, text=True,
                           timeout=120, check=False)
    assert rated.returncode == 0, rated.stdout[-1500:] + rated.stderr
