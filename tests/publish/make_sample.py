"""make_sample.py FOLDER: a package with the real program of the tests, its version, and the key that it trusts, for the trial of the kit."""

from __future__ import annotations

import shutil
import sys
from pathlib import Path

sys.dont_write_bytecode = True
TREE = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TREE / "tests"))

from bed.package import InstallerPackage  # noqa: E402  (the path to it is set above)
from bed.version import of_build  # noqa: E402

if __name__ == "__main__":
    folder = Path(sys.argv[1])
    build = TREE / "build/arm64-test"
    made = InstallerPackage.build(folder, "arm64", of_build(build), program=build / "src/updater/lumaris.exe")
    (folder / "version.txt").write_text(f"{of_build(build)}\n", encoding="ascii")
    made.path.rename(folder / "halvoro.msi")
    for name in ("test.key", "test.pub"):
        shutil.copy(TREE / "tests/keys" / name, folder / name)
