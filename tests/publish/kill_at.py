"""kill_at.py NUMBER ARGUMENTS...: runs the kit, and kills it before the change of the disk with this number. Exit code 77: it had ended before.

Python announces each change to its audit hooks: that is as many moments as there are, without any code for it in the kit.
"""

from __future__ import annotations

import os
import signal
import sys

CHANGES = {"os.rename", "os.symlink", "os.link", "os.mkdir", "os.remove", "os.rmdir", "os.chmod", "os.truncate", "subprocess.Popen"}


def watch(number: int) -> None:
    """From now on."""
    seen = 0

    def hook(event: str, arguments: tuple[object, ...]) -> None:
        nonlocal seen
        writes = event == "open" and isinstance(arguments[2], int) and arguments[2] & (os.O_WRONLY | os.O_RDWR | os.O_CREAT)
        if event in CHANGES or writes:
            seen += 1
            if seen == number:
                os.kill(os.getpid(), signal.SIGKILL)
    sys.addaudithook(hook)


if __name__ == "__main__":
    from lumaris_publish import cli
    watch(int(sys.argv[1]))
    status = cli.main(sys.argv[2:])
    sys.exit(77 if status == 0 else status)
