"""Takes syncs out of recordings, one at a time, and looks whether the campaign then finds a failure: a campaign that
finds none, with or without them, would be worth nothing."""

import re

from powerloss import judge, recording

SCENARIOS = ("account-user/clean/begin-install", "account-user/clean/prepare-move", "account-user/upgrade/commit-move",
             "root-system/repair/rollback-half", "root-user/remove-last/uninstall-product")
TRIED = 12  # of the states that a sync kept from being, so many are put on disk

# A sync that nothing would miss, and why.
REDUNDANT = (
    ("the next sync of the directory comes before anything relies on it", re.compile("fsync .*/(?:Maintenance|Tamarind Pelican)$")),
)


def run(name):
    """Returns one line for each sync of a scenario's recording."""
    bench = judge.Bench(name)
    usual = {_key(state) for state in bench.states()}
    lines = []
    for operation in bench.recorded.operations:
        if operation.name in recording.SYNCS:
            found = _missed(bench, usual, operation.number)
            lines.append(f"{'noticed  ' if found else 'UNNOTICED'} {name} without {operation}"
                         + (f": {found}" if found else ""))
    return lines


def passed(lines):
    """Tells whether every sync was noticed that has to be."""
    return all(line.startswith("noticed") for line in lines)


def _key(state):
    return hash((frozenset(state.scene.items()), state.last))


def _missed(bench, usual, number):
    """Returns what goes wrong without that sync, or nothing."""
    fresh = [state for state in bench.states((number,)) if not state.links and _key(state) not in usual]
    for state in fresh:
        faults = bench.faults_in(state)
        if faults:
            return f"{state.text}: {faults[0]}"
    for state in fresh[::max(1, len(fresh) // TRIED)]:
        faults, _ = bench.examine(state)
        if faults:
            return f"{state.text}: {faults[0]}"
    return ""
