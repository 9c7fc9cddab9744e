"""What the jobs share."""

import os


class JobError(Exception):
    """A failure whose text is all that the user needs."""


def cores() -> int:
    """How many processes to run side by side."""
    return len(os.sched_getaffinity(0))
