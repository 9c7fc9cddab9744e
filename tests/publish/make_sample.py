"""make_sample.py FOLDER: a package of 3.4.0 with the real program of the tests, and the key that it trusts, for the trial of the kit."""

from __future__ import annotations

import shutil
import sys
from pathlib import Path

sys.dont_write_bytecode = True
TREE = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TREE / "tests"))

from bed.package import InstallerPackage  # noqa: E402  (the path to it is set above)

if __name__ == "__main__":
    folder = Path(sys.argv[1])
    made = InstallerPackage.build(folder, "arm64", "3.4.0", program=TREE / "build/arm64-test/src/updater/lumaris.exe")
    made.path.rename(folder / "halvoro.msi")
    for name in ("test.key", "test.pub"):
        shutil.copy(TREE / "tests/keys" / name, folder / name)
