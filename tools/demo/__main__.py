"""The demonstration behind `./dev run`: a signed update is found, downloaded, verified and installed; or a program crashes."""

from __future__ import annotations

import argparse
import sys
from pathlib import Path

TREE = Path(__file__).resolve().parents[2]
sys.path[:0] = [str(TREE / "tests"), str(Path(__file__).resolve().parent)]

from bed.errors import BedError  # noqa: E402  (the path to it is set above)
from crash_outcome import KINDS, SERVERS, CrashCircumstances  # noqa: E402
from crash_show import CrashShow  # noqa: E402
from outcome import COSTS, Circumstances  # noqa: E402
from show import Show  # noqa: E402

_EXAMPLES = """examples:
  ./dev run                          the ARM64 program finds, verifies and installs the next Halvoro; then once more
  ./dev run --arch x64               the same with the x86-64 build, which is quicker
  ./dev run --cost fixed             a metered connection: nothing is asked, exit code 3
  ./dev run --channel beta           the beta channel
  ./dev run --channel ''             updates switched off
  ./dev run --variant=-sl            the Slovenian package
  ./dev run --tamper package         a package that somebody has changed: refused
  ./dev run --proxy                  through a proxy that asks for user name and password
  ./dev run --crash access_violation            a program crashes, informs its user and sends a report; the server shows the line
  ./dev run --crash abort --server full --note "twice as fast since Tuesday"
  ./dev run --crash uncaught_exception --server away --arch x64

exit status: 0 when everything happened as it should, 1 when something did not, 2 when it could not be tried
"""


def main() -> int:
    """Reads the options and runs the show."""
    parser = argparse.ArgumentParser(
        prog="./dev run", description="Shows a whole update, or a crash and its report, with nothing faked, as one timeline with a verdict.",
        epilog=_EXAMPLES, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--arch", choices=("arm64", "x64"), default="arm64",
                        help="the program's processor: arm64 is the product (default), x64 the quicker test build")
    parser.add_argument("--offline", action="store_true", help="the machine has no connection to the internet")
    parser.add_argument("--cost", choices=tuple(COSTS), help="what the network list manager says about the connection")
    parser.add_argument("--channel", metavar="NAME", help="the release channel in the registry ('' switches updates off)")
    parser.add_argument("--variant", metavar="TEXT", default="", help="the program's argument, such as --variant=-sl")
    parser.add_argument("--tamper", choices=("description", "package", "signature"),
                        help="changes this after it has been signed")
    parser.add_argument("--old", action="store_true", help="offers the version that is the program's own")
    parser.add_argument("--proxy", action="store_true", help="the way out is a proxy that asks for user name and password")
    crash = parser.add_argument_group("a crash instead of an update")
    crash.add_argument("--crash", choices=KINDS, metavar="KIND", help=f"one of: {', '.join(KINDS)}")
    crash.add_argument("--server", choices=tuple(SERVERS), default="real",
                       help="what the report server does: " + "; ".join(f"{name}: {way.what}" for name, way in SERVERS.items()))
    crash.add_argument("--note", metavar="TEXT", action="append", default=[],
                       help="what the program has noted about itself; its user is asked about it; may be given again")
    options = parser.parse_args()
    if not options.crash and (options.server != "real" or options.note):
        parser.error("--server and --note go with --crash")
    given = Circumstances(options.arch, options.offline, options.cost, options.channel, options.variant,
                          options.tamper, options.old, options.proxy)
    try:
        if options.crash:
            crashed = CrashCircumstances(options.crash, options.arch, options.server, tuple(options.note))
            return 0 if CrashShow(TREE, crashed).run() else 1
        return 0 if Show(TREE, given).run() else 1
    except (BedError, OSError) as error:
        print(f"./dev run: {error}", file=sys.stderr)
        return 2


if __name__ == "__main__":
    sys.exit(main())
