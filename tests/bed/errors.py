"""What goes wrong in the bed itself, as opposed to the program under test."""


class BedError(RuntimeError):
    """The bed cannot do what it was asked for; the text says why."""
