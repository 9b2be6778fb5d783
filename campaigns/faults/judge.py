"""Does one thing to one run, goes on as the documents say, and judges what came of it."""

from dataclasses import dataclass, field

from common import going_on, installation, scenarios, scene, tool, wholeness
from faults import pkgutil_ways

MESSAGE_CALL = "writev"  # the only use that the tool makes of it is to say its message
# These two come with status 66, whatever keeps the inbox or the descriptor from being reached.
NOT_LOCATED = (b"maintenance descriptor directory is missing or unsafe\n",
               b"maintenance descriptor is missing or unsafe\n")
# After this there is nothing left that the process may do, so it ends as if it were killed.
AT_ONCE = (b"cannot take back the process's own power\n",)


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
        self._way = going_on.GoingOn(made, self._fault, text.endswith("/back"))
        self._asked = []    # of pkgutil, in a run in which it was not honest

    def run(self):
        deeds, _, route = self._text.partition("/")
        self._fingerprints = self._made.enter()
        kept = {path for path in self._made.start if wholeness.is_temporary(path)}
        outcome = None
        for turn, deed in enumerate(deeds.split("+")):
            self._way.expected = self._way.expected_after()
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
            self._way.go_back()
        elif self._verdict.kind not in ("absorbed", "deceived", "misled"):
            self._way.go_on()
        self._judge_moment("at the end", scene.capture(), kept)
        return self._verdict

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
        elif outcome.status != 0 and not self._way.as_undisturbed(outcome):
            self._verdict.kind = "refused"
        else:
            self._judge_unnoticed(outcome)

    def _judge_unnoticed(self, outcome):
        """A run that has noticed nothing must have done its work, unless nobody could have noticed."""
        found = scene.capture()
        different = scene.differences(self._way.expected, scenarios.normal(self._made, found))
        if self._way.as_undisturbed(outcome) and not different:
            self._verdict.kind = "absorbed"
            self._way.require_printed_id(outcome, found)
        elif outcome.status == 0 and self._could_not_be_noticed():
            self._verdict.kind = "deceived"
            self._require_nothing_lost(found)
        else:
            self._verdict.kind = "misled"
            for line in different if self._way.as_undisturbed(outcome) else ["result: " + outcome.says()]:
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

    def _require_clean_refusal(self, outcome):
        """A run that saw one error and gave up has left no temporary file, and a prepare-move that found nothing
        to resume has left nothing at all."""
        found = scene.capture()
        if outcome.stderr not in AT_ONCE and not any(name == "unlinkat" for _, _, name, _ in outcome.hits):
            for path in found:
                if wholeness.is_temporary(path) and path not in self._made.start:
                    self._fault("left by a run that gave up: " + path)
        if outcome.stderr not in AT_ONCE and self._made.name.endswith("/prepare-move"):
            self._way.compare("refused", going_on.without_layout(self._made.start), going_on.without_layout(found))

    def _judge_moment(self, when, found, temporaries=None):
        for line in going_on.judge_moment(self._made, self._fingerprints, when, found, temporaries):
            self._fault(line)


def _is_single(deeds):
    """Tells whether one call was disturbed and everything after it was as usual."""
    return "+" not in deeds and not deeds.rsplit(":", 1)[0].endswith("errors") and not deeds.endswith(":shorts")


def run_point(name, text):
    """Runs one point and returns the verdict."""
    return Trial(scenarios.scenario(name), text).run()
