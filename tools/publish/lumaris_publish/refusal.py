"""What the kit says when it does not do what it was asked for."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass


@dataclass(frozen=True)
class Fault:
    """One thing that is wrong: a name that scripts may rely on, and a sentence that says what to do.

    A fault that is a matter of policy can be accepted with a reason; one that would keep clients from updating cannot.
    """

    name: str
    sentence: str
    policy: bool = False


class Refusal(Exception):
    """Nothing was changed, for these reasons."""

    def __init__(self, *faults: Fault) -> None:
        super().__init__("; ".join(fault.sentence for fault in faults))
        self.faults = faults


def refuse(name: str, sentence: str) -> Refusal:
    """A refusal for one reason that nobody can accept."""
    return Refusal(Fault(name, sentence))


def settle(faults: Sequence[Fault], reason: str | None) -> list[str]:
    """The names of the faults that `reason` accepts. Raises Refusal if one is left."""
    left = [fault for fault in faults if reason is None or not fault.policy]
    if left:
        raise Refusal(*left)
    return [fault.name for fault in faults]
