"""Takes syncs out of recordings, one at a time, and looks whether the campaign then finds a failure: a campaign that
finds none, with or without them, would be worth nothing."""

from powerloss import judge, recording

SCENARIOS = ("account-user/clean/begin-install", "account-user/clean/prepare-move", "account-user/upgrade/commit-move",
             "root-system/repair/rollback-half", "root-user/remove-last/uninstall-product")
TRIED = 12  # of the states that a sync kept from being, so many are put on disk


def run(name):
    """Returns one line for each sync of a scenario's recording: noticed; repeated or removed, where
    nothing is lost without it because the same directory is synchronised again, or is itself removed, before anything
    relies on it; empty, of a file that has no content to lose; idle, where nothing was left to lose and the sync only
    reaches the caches of drives, which the model does not know; or unnoticed."""
    bench = judge.Bench(name)
    usual = {_key(state) for state in bench.states()}
    syncs = [operation for operation in bench.recorded.operations if operation.name in recording.SYNCS]
    lines = []
    for index, operation in enumerate(syncs):
        fresh = [state for state in bench.states((operation.number,))
                 if not state.links and _key(state) not in usual]
        found = _missed(bench, fresh)
        again = any(later.paths == operation.paths for later in syncs[index + 1:])
        gone = operation.left.kind == "directory" and operation.paths[0] not in bench.recorded.after
        empty = operation.left.content == b""
        word = ("noticed" if found else "repeated" if again else "removed" if gone else "empty" if empty
                else "idle" if not fresh else "UNNOTICED")
        lines.append(f"{word:9} {name} without {operation}" + (f": {found}" if found else ""))
    return lines


def passed(lines):
    """Tells whether every sync was noticed that has to be, and some were at all."""
    return any(line.startswith("noticed") for line in lines) and not any(
        line.startswith("UNNOTICED") for line in lines)


def _key(state):
    return hash((frozenset(state.scene.items()), state.last))


def _missed(bench, fresh):
    """Returns what goes wrong in states that a sync kept from being, or nothing."""
    for state in fresh:
        faults = bench.faults_in(state)
        if faults:
            return f"{state.text}: {faults[0]}"
    for state in fresh[::max(1, len(fresh) // TRIED)]:
        faults = bench.examine(state)
        if faults:
            return f"{state.text}: {faults[0]}"
    return ""
