"""The states in which the disk of a scenario may be found after a power cut.

A state is written CUT:OUTCOMES. CUT is the number of the last change of the recorded run that took place ("0" for
none), as ./dev faults counts them; OUTCOMES has one letter for each change that was not durable then, in order:
0 lost, 1 kept, and for what was written to a file o old content, e empty, h first half, z zeros, w whole.
"""

from dataclasses import dataclass, field

from powerloss import filesystem, recording


@dataclass
class State:
    """One state of a scenario."""

    text: str
    scene: dict
    links: dict         # path -> the path that it is a second name of
    last: bool          # the run had come to its end
    pending: list = field(default_factory=list)     # what was not durable, for people


def all_states(made, recorded, without=()):
    """Yields every state of a scenario once, in order. `without` are numbers of operations that are left out of
    the recording, as if the tool had not made them."""
    seen = set()
    for cut, disk, last in _cuts(made, recorded, without):
        for outcomes in disk.combinations():
            found, links = disk.show(outcomes)
            key = hash((frozenset(found.items()), frozenset(links.items()), last))
            if key not in seen:
                seen.add(key)
                yield State(f"{cut}:{outcomes}", found, links, last)


def one_state(made, recorded, text, without=()):
    """Returns the state of that name."""
    wanted, _, outcomes = text.partition(":")
    for cut, disk, last in _cuts(made, recorded, without):
        if str(cut) == wanted:
            found, links = disk.show(outcomes)
            pending = [f"{outcome} {change.what}" for change, outcome in zip(disk.pending, outcomes)]
            return State(text, found, links, last, pending)
    raise filesystem.Unknown("no such state: " + text)


def _cuts(made, recorded, without):
    disk = filesystem.Disk(made.start)
    yield 0, disk, False
    operations = [operation for operation in recorded.operations if operation.number not in without]
    for index, operation in enumerate(operations):
        recording.play(disk, operation)
        yield operation.number, disk, index == len(operations) - 1
