#!/usr/bin/env python3
"""Jobs of ./dev that run inside the room.

    job.py build [--target TARGET] PRESET...     configures if needed, and builds in build/PRESET
    job.py coverage [--whole-runs]               counts which lines the tests run
    job.py docs                                  makes the documents' site in build/docs and checks its links
    job.py fuzz [--seconds N] [TARGET]...        runs fuzz targets of build/native-fuzz
    job.py lint [--fix] [CHECK]...               format, headers, shell, python, types, cppcheck, tidy
"""

import argparse
import sys

from jobs import building, coverage, documents, fuzzing, linting
from jobs.common import JobError


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    commands = parser.add_subparsers(dest="job", required=True)
    for module in (building, coverage, documents, fuzzing, linting):
        module.add_parser(commands)
    arguments = parser.parse_args()
    try:
        arguments.run(arguments)
    except JobError as error:
        print(f"dev: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.dont_write_bytecode = True
    sys.exit(main())
