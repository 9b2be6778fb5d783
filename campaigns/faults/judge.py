"""Does one thing to one run, goes on as the documents say, and judges what came of it."""

import re
import stat
from dataclasses import dataclass, field

from common import installation, products, scene, tool, wholeness
from faults import pkgutil_ways, scenarios

MESSAGE_CALL = "writev"  # the only use that the tool makes of it is to say its message
FORWARD = b"pkgutil receipt registration changed; rollback cannot restore package registration\n"
# These two come with status 66, whatever keeps the inbox or the descriptor from being reached.
NOT_LOCATED = (b"maintenance descriptor directory is missing or unsafe\n",
               b"maintenance descriptor is missing or unsafe\n")
# After this there is nothing left that the process may do, so it ends as if it were killed.
AT_ONCE = (b"cannot take back the process's own power\n",)
_PRINTED_ID = re.compile(rb"install-[0-9a-f]{64}\n")


@dataclass
class Verdict:
    """What came of one point."""

    point: str
    kind: str = ""                              # killed, refused, absorbed, deceived or misled
    said: str = ""                              # how the disturbed run ended
    faults: list = field(default_factory=list)  # what should not have been; empty is good


class Trial:
    """One point of one scenario."""

    def __init__(self, made, text):
        self._made = made
        self._text = text
        self._verdict = Verdict(f"{made.name}@{text}")
        self._fingerprints = {}
        self._undone = None
        self._anew = None
        self._expected = made.after
        self._asked = []    # of pkgutil, in a run in which it was not honest

    def run(self):
        deeds, _, route = self._text.partition("/")
        self._know_other_ends(route)
        self._fingerprints = self._made.enter()
        kept = {path for path in self._made.start if wholeness.is_temporary(path)}
        outcome = None
        for turn, deed in enumerate(deeds.split("+")):
            self._expected = self._expected_after()
            outcome = self._strike(deed)
            self._verdict.said = outcome.says()
            self._judge_end(deed, outcome, turn == 0)
            self._judge_moment("right after", scene.capture())
            if self._verdict.faults:
                return self._verdict
        self._classify(outcome)
        if self._verdict.kind == "refused" and _is_single(deeds):
            self._require_clean_refusal(outcome)
        if route == "back":
            self._go_back()
        elif self._verdict.kind not in ("absorbed", "deceived", "misled"):
            self._go_on()
        self._judge_moment("at the end", scene.capture(), kept)
        return self._verdict

    def _know_other_ends(self, route):
        """Makes the scenes that the run may also lead to; that uses the disk."""
        self._undone = scenarios.undone_scene(self._made) if route == "back" else None
        self._anew = scenarios.begun_anew(self._made) if self._made.name.endswith("/begin-completed") else None

    def _fault(self, text):
        self._verdict.faults.append(text)

    def _strike(self, deed):
        kind, number, way = deed.split(":", 2)
        if kind != "pkgutil":
            return tool.run(self._made.actor, self._made.words(), [deed])
        pkgutil_ways.arrange(int(number), way)
        try:
            return tool.run(self._made.actor, self._made.words())
        finally:
            self._asked = pkgutil_ways.behave()

    # --- the disturbed run itself ---

    def _judge_end(self, deed, outcome, first):
        killing = deed.rsplit(":", 1)[-1] in ("before", "after", "all")
        if first:
            self._require_hit(deed, outcome)
        if outcome.ended == "killed" and killing:
            return
        if outcome.ended != "exit" or outcome.status not in (0, 65, 70) and outcome.stderr not in NOT_LOCATED:
            self._fault("ended badly: " + outcome.says())
            return
        for leak in outcome.leaks if outcome.stderr not in AT_ONCE else ():
            self._fault(leak)
        if outcome.status == 0 and outcome.stderr:
            self._fault("succeeded with a message: " + outcome.says())
        if outcome.status != 0:
            self._require_one_line(outcome)
        if killing and first:
            self._fault("was not killed: " + outcome.says())

    def _require_one_line(self, outcome):
        if outcome.stdout:
            self._fault("failed with a result: " + outcome.says())
        line = outcome.stderr
        silenced = not line and any(name == MESSAGE_CALL for _, _, name, _ in outcome.hits)
        if not silenced and (line.count(b"\n") != 1 or not line.endswith(b"\n") or len(line) < 2):
            self._fault("not one line: " + outcome.says())

    def _require_hit(self, deed, outcome):
        kind, number, _ = deed.split(":", 2)
        if kind == "pkgutil" or "shorts" in deed:
            return
        recorded = [(call[0], call[1], call[2]) for call in self._made.outcome.calls]
        hit = next(((hit[0], hit[1], hit[2]) for hit in outcome.hits), None)
        if hit is None or hit[1] != int(number) or hit not in recorded:
            self._fault(f"the campaign missed its point: {hit}")

    def _classify(self, outcome):
        if outcome.ended == "killed":
            self._verdict.kind = "killed"
        elif outcome.status != 0 and not self._as_undisturbed(outcome):
            self._verdict.kind = "refused"
        else:
            self._judge_unnoticed(outcome)

    def _judge_unnoticed(self, outcome):
        """A run that has noticed nothing must have done its work, unless nobody could have noticed."""
        found = scene.capture()
        different = scene.differences(self._expected, scenarios.normal(self._made, found))
        if self._as_undisturbed(outcome) and not different:
            self._verdict.kind = "absorbed"
            self._require_printed_id(outcome, found)
        elif outcome.status == 0 and self._could_not_be_noticed():
            self._verdict.kind = "deceived"
            self._require_nothing_lost(found)
        else:
            self._verdict.kind = "misled"
            for line in different if self._as_undisturbed(outcome) else ["result: " + outcome.says()]:
                self._fault("a run that noticed nothing: " + line)

    def _could_not_be_noticed(self):
        kind, number, way = self._text.partition("/")[0].split(":", 2)
        return kind == "pkgutil" and pkgutil_ways.could_be_true(way, int(number), self._asked)

    def _require_nothing_lost(self, found):
        """Every product file and receipt is as it was, or as the undisturbed run leaves it."""
        for scope in ("user", "system"):
            for path in installation.files_of(scope, scenarios.EVERYTHING):
                if found.get(path) not in (self._made.start.get(path), self._made.after.get(path)):
                    self._fault("deceived, and neither as before nor as after: " + path)

    def _as_undisturbed(self, outcome):
        """Tells whether a run ended with the status and the words of an undisturbed one."""
        model = self._made.outcome
        if (outcome.ended, outcome.status, outcome.stderr) != (model.ended, model.status, model.stderr):
            return False
        if self._made.command != "begin-install" or model.status != 0:
            return outcome.stdout == model.stdout
        return _PRINTED_ID.fullmatch(outcome.stdout) is not None

    def _require_clean_refusal(self, outcome):
        """A run that saw one error and gave up has left no temporary file, and a prepare-move that found nothing
        to resume has left nothing at all."""
        found = scene.capture()
        if outcome.stderr not in AT_ONCE and not any(name == "unlinkat" for _, _, name, _ in outcome.hits):
            for path in found:
                if wholeness.is_temporary(path) and path not in self._made.start:
                    self._fault("left by a run that gave up: " + path)
        if outcome.stderr not in AT_ONCE and self._made.name.endswith("/prepare-move"):
            self._compare("refused", _without_layout(self._made.start), _without_layout(found))

    # --- what is on disk ---

    def _judge_moment(self, when, found, temporaries=None):
        for line in self._made.judge.faults(found):
            self._fault(f"{when}: {line}")
        for path in scene.touched(self._fingerprints):
            self._fault(f"{when}: touched: {path}")
        if temporaries is not None:
            for path in found:
                if wholeness.is_temporary(path) and path not in temporaries:
                    self._fault("left over: " + path)

    def _compare(self, what, expected, found):
        for line in scene.differences(expected, found):
            if not wholeness.is_temporary(line):
                self._fault(f"{what}: {line}")

    # --- going on ---

    def _run(self, command=None):
        return tool.run_plainly(self._made.actor, self._made.words(command))

    def _go_on(self):
        """The same command again; after a failure that took everything back, the whole work again."""
        self._expected = self._expected_after()
        outcome = self._run()
        taken_back = (outcome.ended, outcome.status, outcome.stderr) == ("exit", 65, scenarios.LEASE_GONE)
        if taken_back and self._made.command == "commit-move":
            self._require_taken_back()
            if self._made.outcome.status == 0 or _leases(scene.capture()):
                outcome = self._start_over()
            else:
                outcome = self._made.outcome
        if not self._as_undisturbed(outcome):
            self._fault("the next command: " + outcome.says())
            return
        found = scene.capture()
        self._compare("in the end", self._expected, scenarios.normal(self._made, found))
        self._require_printed_id(outcome, found)

    def _expected_after(self):
        """A begin-install that was killed after it had cleared a completed attempt, but before it had said so,
        has nothing left to do: the next one begins anew."""
        is_anew = self._anew and self._attempt_path() not in scene.capture()
        return self._anew if is_anew else self._made.after

    def _attempt_path(self):
        return products.in_scope(self._made.job.target, products.MAINTENANCE + "/PendingInstall")

    def _require_printed_id(self, outcome, found):
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
        if continues and self._expected is self._made.after and printed != earlier:
            self._fault(f"printed {printed} instead of {earlier}")

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
        self._compare(what, _leniently(self._made, expected, expected),
                      _leniently(self._made, found, expected))

    # --- going back ---

    def _go_back(self):
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
            self._go_on()
        else:
            self._fault("rollback-move: " + outcome.says())

    def _recorded_as_done(self, found):
        ending = f"/Completed/{self._made.identifier}.record"
        return any(path.endswith(ending) for path in found)


def _is_single(deeds):
    """Tells whether one call was disturbed and everything after it was as usual."""
    return "+" not in deeds and not deeds.rsplit(":", 1)[0].endswith("errors") and not deeds.endswith(":shorts")


def _leases(found):
    return [path for path in found if path.endswith("/ActiveTransaction")]


def _without_leases(found):
    leases = _leases(found)
    return {path: entry for path, entry in found.items() if path not in leases}


def _without_layout(found):
    """A scene without the empty places that every command makes where they are missing."""
    layout = {products.in_scope(scope, place) for scope in ("user", "system") for place in wholeness.LAYOUT}
    return {path: entry for path, entry in found.items() if path not in layout}


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


def run_point(name, text):
    """Runs one point and returns the verdict."""
    return Trial(scenarios.scenario(name), text).run()
