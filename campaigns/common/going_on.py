"""Goes on after a run that did not come to its end, as the documents say, and judges what is then on disk."""

import re
import stat

from common import products, scenarios, scene, tool, wholeness

FORWARD = b"pkgutil receipt registration changed; rollback cannot restore package registration\n"
_PRINTED_ID = re.compile(rb"install-[0-9a-f]{64}\n")


class GoingOn:
    """The way on from one unfinished run of a scenario. `fault` is called with each thing that should not be."""

    def __init__(self, made, fault, back=False):
        """Makes the scenes that the way may lead to; that uses the disk."""
        self._made = made
        self._fault = fault
        self._undone = scenarios.undone_scene(made) if back else None
        self._anew = scenarios.begun_anew(made) if made.name.endswith("/begin-completed") else None
        self.expected = made.after

    def _run(self, command=None):
        return tool.run_plainly(self._made.actor, self._made.words(command))

    def go_on(self):
        """The same command again; after a failure that took everything back, the whole work again."""
        self.expected = self.expected_after()
        outcome = self._run()
        taken_back = (outcome.ended, outcome.status, outcome.stderr) == ("exit", 65, scenarios.LEASE_GONE)
        if taken_back and self._made.command == "commit-move":
            self._require_taken_back()
            if self._made.outcome.status == 0 or _leases(scene.capture()):
                outcome = self._start_over()
            else:
                outcome = self._made.outcome
        if not self.as_undisturbed(outcome):
            self._fault("the next command: " + outcome.says())
            return
        found = scene.capture()
        self.compare("in the end", self.expected, scenarios.normal(self._made, found))
        self.require_printed_id(outcome, found)

    def go_back(self):
        """Instead of finishing the work, undoes it; where that is refused, the work can still be finished."""
        done = self._recorded_as_done(scene.capture())
        outcome = self._run("rollback-move")
        if not outcome.succeeded() and self._made.command == "prepare-move":
            again = self._run()
            if not again.succeeded():
                self._fault("prepared again: " + again.says())
                return
            outcome = self._run("rollback-move")
        if outcome.succeeded() and (done or self._undone):
            expected = self._made.after if done else self._undone
            self._compare_restored("undone", expected, scenarios.normal(self._made, scene.capture()))
        elif outcome.status == 65 and outcome.stderr == FORWARD and self._made.command == "commit-move":
            self.go_on()
        else:
            self._fault("rollback-move: " + outcome.says())

    def as_undisturbed(self, outcome):
        """Tells whether a run ended with the status and the words of an undisturbed one."""
        model = self._made.outcome
        if (outcome.ended, outcome.status, outcome.stderr) != (model.ended, model.status, model.stderr):
            return False
        if self._made.command != "begin-install" or model.status != 0:
            return outcome.stdout == model.stdout
        return _PRINTED_ID.fullmatch(outcome.stdout) is not None

    def expected_after(self):
        """A begin-install that was killed after it had cleared a completed attempt, but before it had said so,
        has nothing left to do: the next one begins anew."""
        is_anew = self._anew and self._attempt_path() not in scene.capture()
        return self._anew if is_anew else self._made.after

    def compare(self, what, expected, found):
        """Reports every difference between two scenes that is no temporary file."""
        for line in scene.differences(expected, found):
            if not wholeness.is_temporary(line):
                self._fault(f"{what}: {line}")

    def require_printed_id(self, outcome, found):
        """begin-install names a descriptor that is there: the one begun earlier, if the work is not begun anew."""
        if self._made.command != "begin-install" or outcome.status != 0:
            return
        printed = outcome.stdout.decode().strip()
        place = f"{products.MAINTENANCE}/Inbox/{printed}.tpmt"
        if products.in_scope(self._made.job.target, place) not in found:
            self._fault("printed an identifier without a descriptor: " + printed)
        earlier = self._made.outcome.stdout.decode().strip()
        attempt = self._made.start.get(self._attempt_path())
        continues = attempt is not None and earlier.encode() in attempt.content
        if continues and self.expected is self._made.after and printed != earlier:
            self._fault(f"printed {printed} instead of {earlier}")

    def _attempt_path(self):
        return products.in_scope(self._made.job.target, products.MAINTENANCE + "/PendingInstall")

    def _start_over(self):
        """Prepares again, and installs again where the undisturbed run would succeed."""
        outcome = self._run("prepare-move")
        if not outcome.succeeded():
            return outcome
        if self._made.outcome.status == 0:
            self._made.job.place()
        return self._run()

    def _require_taken_back(self):
        """Requires the disk to be as it was when the transaction was prepared, but for its leases: a run that was
        killed may have left some of them."""
        expected, found = scenarios.prepared_scene(self._made), scene.capture()
        self._compare_restored("taken back", _without_leases(expected), _without_leases(found))

    def _compare_restored(self, what, expected, found):
        """Compares after a restoration, which gives files the mode 0600 and root's group and leaves emptied
        directories."""
        self.compare(what, _leniently(self._made, expected, expected),
                     _leniently(self._made, found, expected))

    def _recorded_as_done(self, found):
        ending = f"/Completed/{self._made.identifier}.record"
        return any(path.endswith(ending) for path in found)


def judge_moment(made, fingerprints, when, found, temporaries=None):
    """Returns one line for each metadata or product file of a scene that is not whole, and for each file that was
    touched since its fingerprint was taken; at the end, also for each temporary file beside those named."""
    lines = [f"{when}: {line}" for line in made.judge.faults(found)]
    lines += [f"{when}: touched: {path}" for path in scene.touched(fingerprints)]
    if temporaries is not None:
        lines += ["left over: " + path for path in found
                  if wholeness.is_temporary(path) and path not in temporaries]
    return lines


def without_layout(found):
    """A scene without the empty places that every command makes where they are missing."""
    layout = {products.in_scope(scope, place) for scope in ("user", "system") for place in wholeness.LAYOUT}
    return {path: entry for path, entry in found.items() if path not in layout}


def _leases(found):
    return [path for path in found if path.endswith("/ActiveTransaction")]


def _without_leases(found):
    leases = _leases(found)
    return {path: entry for path, entry in found.items() if path not in leases}


def _leniently(made, found, expected):
    owned = {products.in_scope(scope, path) for scope in ("user", "system")
             for package in scenarios.EVERYTHING for path in package.files}
    result = {}
    for path, entry in found.items():
        if path in owned:
            entry = scene.Entry(stat.S_IFREG | 0o600, entry.uid, 0, entry.content)
        elif entry.content is None and path not in expected and "/Audio/Plug-Ins/" in path:
            continue
        result[path] = entry
    return scenarios.normal(made, result)
