"""Runs the unit-test program in a Windows of the bed.

    python3 -m bed.unit_tests ARCH PROGRAM AGENT REPORT [FILTER [OPTION OF THE TEST FRAMEWORK]...]

The report is the test framework's XML; the exit status is 0 when the program ended and wrote it, whatever it says.
"""

from __future__ import annotations

import shutil
import sys
from pathlib import Path

from . import isolation
from .errors import BedError
from .windows import Windows, windows_path

_LIMIT = 800.0


def main() -> int:
    """Runs the program named on the command line."""
    architecture, program, agent, report, *names = sys.argv[1:]
    network = isolation.enter()
    try:
        with Windows(architecture, network, Path(agent)) as machine:
            # Run where it was built: some tests read what was built beside it.
            installed = windows_path(Path(program).resolve())
            written = machine.folder / "report.xml"
            line = f'"{installed}" --gtest_output=xml:{windows_path(written)} --gtest_catch_exceptions=0'
            line += "".join(f" {option}" for option in ([f"--gtest_filter={names[0]}", *names[1:]] if names else []))
            run = machine.run(line, limit=_LIMIT)
            print(run.output)
            if written.exists():
                shutil.copyfile(written, report)
            if run.exit_code is None:
                print(f"the unit tests did not end within {_LIMIT:.0f} s")
                return 1
            if not written.exists() or run.exit_code not in (0, 1):
                print(f"the unit tests ended with exit code 0x{run.exit_code:08X}")
                return 1
            return 0
    except BedError as error:
        print(error)
        return 1
    finally:
        isolation.leave(network)


if __name__ == "__main__":
    sys.exit(main())
