"""Asks the program itself which version it is: runs it, and hears what it calls itself when it asks for the update description.

The version block says what the resource compiler was given; what counts is the number that the program compares with the one on offer.
It runs under the ARM64 Wine, in a network in which its update server is a server of ours that offers nothing.
"""

from __future__ import annotations

import subprocess
import sys
from pathlib import Path

sys.dont_write_bytecode = True
ROOT = Path(__file__).resolve().parents[2]
sys.path.append(str(ROOT / "tests"))

from bed import errors, http_server, isolation, windows  # noqa: E402  (the path to it is set above)

LIMIT = 300.0


class AskingError(Exception):
    """The program could not be asked."""


def user_agent(image: bytes, update_host: str) -> str:
    """What the program calls itself, such as "Lumaris/1.2.3"."""
    # In a process of its own: who enters the private network does not come back.
    try:
        done = subprocess.run([sys.executable, str(Path(__file__).resolve()), update_host], input=image, capture_output=True, timeout=LIMIT,
                              check=False)
    except subprocess.TimeoutExpired as error:
        raise AskingError(f"the program, or the Windows that it runs in, did not end within {LIMIT:.0f} s") from error
    if done.returncode != 0:
        raise AskingError(f"the program cannot be run: {done.stderr.decode('utf-8', 'replace').strip() or done.returncode}")
    return done.stdout.decode("utf-8", "replace")


def _ask(image: bytes, update_host: str) -> str:
    if reason := windows.available("arm64"):
        raise errors.BedError(reason)
    network = isolation.enter(more_names=(update_host,))
    try:
        program = network.work / "lumaris.exe"
        program.write_bytes(image)
        with http_server.ScriptedServer(80) as server:
            windows.Windows("arm64", network, None).run_alone(program, limit=LIMIT / 2)
            asked = [request for request in server.requests if request.header("Host") == update_host]
        if not asked:
            raise errors.BedError(f"it asked nothing of {update_host}")
        return asked[0].header("User-Agent") or ""
    finally:
        isolation.leave(network)


if __name__ == "__main__":
    try:
        sys.stdout.write(_ask(sys.stdin.buffer.read(), sys.argv[1]))
    except (errors.BedError, subprocess.SubprocessError, OSError) as fault:
        print(fault, file=sys.stderr)
        sys.exit(1)
