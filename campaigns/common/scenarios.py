"""The situations in which a run is disturbed: each is a scene, a command, and what an undisturbed run makes of it."""

import functools
import re
from dataclasses import dataclass

from common import installation, products, scene, tool, wholeness

SETTINGS = ((tool.ACCOUNT, "user"), (tool.ROOT, "user"), (tool.ROOT, "system"))
OLD_REVISION, NEW_REVISION = "100", "200"
ALPHA_OLD, ALPHA, BETA = products.ALPHA["1.0"], products.ALPHA["2.0"], products.BETA
DAMAGED = f"{products.VST3}/TP Alpha.vst3/Contents/MacOS/TP Alpha"
DAMAGE = b"damaged\n"
HALF = 3
LEASE_GONE = b"durable transaction lease is missing or unsafe\n"

EVERYTHING = (*ALPHA_OLD.packages, *ALPHA.packages, *BETA.packages,
              products.shared(OLD_REVISION), products.shared(NEW_REVISION))


def packages_of(revision, installed):
    return [package for product in installed for package in product.packages] + [products.shared(revision)]


@dataclass
class Job:
    """Work that goes through begin-install or a ready descriptor, prepare-move, the installer and commit-move."""

    actor: tool.Actor
    source: str
    target: str
    revision: str
    products: tuple
    base: dict          # the scene in which the work begins
    others: tuple = ()  # packages beside, as (scope, package)

    def packages(self):
        return packages_of(self.revision, self.products)

    def plan(self):
        return products.plan_text("suite", self.revision, self.products)

    def place(self, **how):
        installation.place(self.target, self.packages(), **how)


@dataclass
class Scenario:
    """One command in one scene."""

    name: str
    job: Job
    command: str
    identifier: str     # of the descriptor; empty for begin-install
    start: dict
    after: dict = None  # what an undisturbed run leaves
    outcome: tool.Outcome = None
    judge: wholeness.Judge = None

    @property
    def actor(self):
        return self.job.actor

    def words(self, command=None):
        words = [command or self.command, self.job.target]
        return words + [self.identifier] if self.identifier else words

    def enter(self):
        """Puts the scene on disk and returns what must stay untouched in it."""
        scene.restore(self.start)
        tool.place_plan(self.actor, self.job.plan())
        return self.fingerprints()

    def fingerprints(self):
        """Fingerprints of what must stay untouched, as it is now."""
        paths = [path for scope in ("user", "system") for path in bystanders(scope)]
        for scope, package in self.job.others:
            paths += installation.files_of(scope, [package])
        return scene.fingerprints([*paths, *scene.AROUND])


def bystanders(scope):
    paths = [products.in_scope(scope, relative) for relative in installation.BYSTANDERS]
    return paths + [products.HOME + "/Music/Song.txt"] if scope == "user" else paths


class Broken(Exception):
    """An undisturbed run did not do what it is there for; then the campaign itself is worth nothing."""


def succeed(actor, words):
    outcome = tool.run_plainly(actor, words)
    if outcome.ended != "exit" or outcome.status != 0 or outcome.stderr:
        raise Broken(" ".join(words) + ": " + outcome.says())
    return outcome.stdout.decode().strip()


# --- scenes in which work begins ----------------------------------------------------------------------------

@functools.cache
def untouched():
    """Only bystanders, in both scopes."""
    for scope in ("user", "system"):
        installation.place_bystanders(scope)
    return scene.capture()


@functools.cache
def with_installed(actor, scope, revision, installed):
    """Products as a complete installation of theirs leaves them, one installation after the other."""
    scene.restore(untouched())
    done = ()
    for product in installed:
        job = Job(actor, "none", scope, revision, (product,), {})
        tool.place_plan(actor, job.plan())
        identifier = succeed(actor, ["begin-install", scope])
        succeed(actor, ["prepare-move", scope, identifier])
        job.place()
        succeed(actor, ["commit-move", scope, identifier])
        done += (product,)
    return scene.capture()


@functools.cache
def with_damage(actor, scope):
    scene.restore(with_installed(actor, scope, NEW_REVISION, (ALPHA,)))
    installation.write(scope, DAMAGED, DAMAGE)
    return scene.capture()


def beta_beside(scope):
    return tuple((scope, package) for package in BETA.packages)


@functools.cache
def installation_job(situation, actor, scope):
    """An installation into one scope."""
    def job(base, installed=(ALPHA,), others=()):
        return Job(actor, "none", scope, NEW_REVISION, installed, base, others)

    if situation == "clean":
        return job(untouched())
    if situation == "upgrade":
        return job(with_installed(actor, scope, OLD_REVISION, (ALPHA_OLD,)))
    if situation == "repair":
        return job(with_damage(actor, scope))
    if situation == "beside":
        return job(with_installed(actor, scope, OLD_REVISION, (ALPHA_OLD, BETA)), others=beta_beside(scope))
    if situation == "suite":
        return job(untouched(), (ALPHA, BETA))
    raise KeyError(situation)


def write_descriptor(job, identifier):
    text = products.descriptor_text(job.source, job.target, job.revision, job.products)
    installation.write(job.target, f"{products.MAINTENANCE}/Inbox/{identifier}.tpmt", text.encode(), 0o600)


@functools.cache
def move_job(kept, source):
    """A move to the other scope; the shared package is kept in the source scope when another product is there."""
    target = "system" if source == "user" else "user"
    there = (ALPHA, BETA) if kept else (ALPHA,)
    base = with_installed(tool.ROOT, source, NEW_REVISION, there)
    return Job(tool.ROOT, source, target, NEW_REVISION, (ALPHA,), base, beta_beside(source) if kept else ())


@functools.cache
def removal_job(which, actor, scope):
    """An uninstallation of one of two products, of the only one, or of both at once."""
    there = (ALPHA,) if which == "last" else (ALPHA, BETA)
    gone = (ALPHA, BETA) if which == "both" else (ALPHA,)
    base = with_installed(actor, scope, NEW_REVISION, there)
    return Job(actor, "none", scope, NEW_REVISION, gone, base, beta_beside(scope) if which == "one" else ())


@functools.cache
def removal_after_job(earlier, actor, scope, others=()):
    """An uninstallation of what an earlier job has installed or moved here."""
    return Job(actor, "none", scope, NEW_REVISION, (ALPHA,), _stages(earlier).done[0], others)


@functools.cache
def removal_of_restored_job(earlier, actor, scope):
    """An uninstallation of what was there before an upgrade that was rolled back."""
    return Job(actor, "none", scope, OLD_REVISION, (ALPHA_OLD,), _stages(earlier).given_up[0])


# --- the stages of one job ----------------------------------------------------------------------------------

class Stages:
    """The scenes that a job goes through; each is made once."""

    def __init__(self, job, ready=""):
        self.job = job
        self._ready = ready

    @functools.cached_property
    def begun(self):
        scene.restore(self.job.base)
        if self._ready:
            write_descriptor(self.job, self._ready)
            return scene.capture(), self._ready
        tool.place_plan(self.job.actor, self.job.plan())
        identifier = succeed(self.job.actor, ["begin-install", self.job.target])
        return scene.capture(), identifier

    @functools.cached_property
    def prepared(self):
        begun, identifier = self.begun
        scene.restore(begun)
        succeed(self.job.actor, ["prepare-move", self.job.target, identifier])
        return scene.capture(), identifier

    def _placed(self, **how):
        prepared, identifier = self.prepared
        scene.restore(prepared)
        self.job.place(**how)
        return scene.capture(), identifier

    @functools.cached_property
    def installed(self):
        return self._placed()

    @functools.cached_property
    def half(self):
        """The installer stopped after some files; no receipt was written."""
        return self._placed(files=HALF, receipts=False)

    @functools.cached_property
    def done(self):
        return self._finished("commit-move", self.installed)

    @functools.cached_property
    def given_up(self):
        return self._finished("rollback-move", self.half)

    def _finished(self, command, stage):
        start, identifier = stage
        scene.restore(start)
        succeed(self.job.actor, [command, self.job.target, identifier])
        return scene.capture(), identifier

    @functools.cached_property
    def completed(self):
        return self._recorded("commit-move", self.installed)

    @functools.cached_property
    def completed_rollback(self):
        return self._recorded("rollback-move", self.half)

    @functools.cached_property
    def completed_removal(self):
        return self._recorded("uninstall-product", self.begun)

    def _recorded(self, command, stage):
        """A run of the command that was killed as soon as its completed record stood."""
        start, identifier = stage
        words = [command, self.job.target, identifier]
        scene.restore(start)
        recorded = tool.run(self.job.actor, words, record=True)
        rename = next(number for kind, number, name, subject, _ in recorded.calls
                      if kind == "change" and name == "renameat" and "/Completed/" in subject)
        scene.restore(start)
        tool.run(self.job.actor, words, [f"change:{rename}:after"])
        return scene.capture(), identifier

    @functools.cached_property
    def abandoned(self):
        """A commit has failed and taken everything back."""
        prepared, identifier = self.prepared
        return {path: entry for path, entry in prepared.items() if not path.endswith("/ActiveTransaction")}, identifier

    @functools.cached_property
    def without_descriptor(self):
        """begin-install was killed before it had published the descriptor."""
        begun, identifier = self.begun
        path = products.in_scope(self.job.target, f"{products.MAINTENANCE}/Inbox/{identifier}.tpmt")
        return {place: entry for place, entry in begun.items() if place != path}, identifier


STEPS = {
    "begin-install": ("begin-install", lambda stages: (stages.job.base, "")),
    "begin-again": ("begin-install", lambda stages: (stages.without_descriptor[0], "")),
    "begin-completed": ("begin-install", lambda stages: (stages.completed[0], "")),
    "begin-refused": ("begin-install", lambda stages: (stages.job.base, "")),
    "prepare-move": ("prepare-move", lambda stages: stages.begun),
    "prepare-abandoned": ("prepare-move", lambda stages: stages.abandoned),
    "commit-move": ("commit-move", lambda stages: stages.installed),
    "commit-completed": ("commit-move", lambda stages: stages.completed),
    "commit-refused": ("commit-move", lambda stages: stages.half),
    "commit-damaged": ("commit-move", lambda stages: stages.prepared),
    "rollback-move": ("rollback-move", lambda stages: stages.prepared),
    "rollback-half": ("rollback-move", lambda stages: stages.half),
    "rollback-completed": ("rollback-move", lambda stages: stages.completed_rollback),
    "uninstall-product": ("uninstall-product", lambda stages: stages.begun),
    "uninstall-completed": ("uninstall-product", lambda stages: stages.completed_removal),
}
REFUSED_STEPS = ("begin-refused", "commit-refused", "commit-damaged")  # also when undisturbed

INSTALLATION_STEPS = ("begin-install", "prepare-move", "commit-move", "rollback-move", "rollback-half")
MORE_STEPS = {"clean": ("begin-again", "begin-completed", "commit-completed", "commit-refused"),
              "upgrade": ("commit-refused", "prepare-abandoned", "rollback-completed"),
              "repair": ("commit-damaged",)}
REMOVAL_STEPS = {"one": ("uninstall-product",), "last": ("uninstall-product", "uninstall-completed"),
                 "both": ("uninstall-product",)}
MOVE_STEPS = ("begin-refused", "prepare-move", "prepare-abandoned", "commit-move", "rollback-move",
              "rollback-half", "commit-refused", "commit-completed")


def _jobs():
    """Yields for each job its name, how it is made, the identifier of a ready descriptor, and its steps."""
    for actor, scope in SETTINGS:
        place = f"{actor.name}-{scope}"
        for situation in ("clean", "upgrade", "repair", "beside", "suite"):
            make = functools.partial(installation_job, situation, actor, scope)
            yield f"{place}/{situation}", make, "", INSTALLATION_STEPS + MORE_STEPS.get(situation, ())
        for which, steps in REMOVAL_STEPS.items():
            make = functools.partial(removal_job, which, actor, scope)
            yield f"{place}/remove-{which}", make, "remove-products", steps
        for situation in ("upgrade", "repair"):
            make = functools.partial(removal_after_job, f"{place}/{situation}", actor, scope)
            yield f"{place}/remove-after-{situation}", make, "remove-products", ("uninstall-product",)
        make = functools.partial(removal_of_restored_job, f"{place}/upgrade", actor, scope)
        yield f"{place}/remove-restored", make, "remove-products", ("uninstall-product",)
    for source, target in (("user", "system"), ("system", "user")):
        for kept in (True, False):
            move = f"{source}-to-{target}/{'kept' if kept else 'dropped'}"
            yield move, functools.partial(move_job, kept, source), "move-alpha", MOVE_STEPS
            make = functools.partial(removal_after_job, move, tool.ROOT, target, beta_beside(source) if kept else ())
            yield move + "-removed", make, "remove-products", ("uninstall-product",)


_NAMES = {f"{name}/{step}": (name, make, ready, step)
          for name, make, ready, steps in _jobs() for step in steps}


def names():
    """The names of all scenarios, in a fixed order."""
    return list(_NAMES)


@functools.cache
def _stages(name):
    make, ready = next((make, ready) for job, make, ready, _ in _NAMES.values() if job == name)
    return Stages(make(), ready)


@functools.cache
def scenario(name):
    """Makes a scenario ready, including what an undisturbed run does."""
    job, _, _, step = _NAMES[name]
    stages = _stages(job)
    command, stage = STEPS[step]
    start, identifier = stage(stages)
    made = Scenario(name, stages.job, command, identifier, start)
    fingerprints = made.enter()
    made.outcome = tool.run(made.actor, made.words(), record=True)
    found = scene.capture()
    made.after = normal(made, found)
    made.judge = wholeness.Judge(EVERYTHING, [(DAMAGED, DAMAGE)])
    _require_sound(made, step, found, fingerprints)
    return made


def _require_sound(made, step, found, fingerprints):
    outcome = made.outcome
    expected = (65, b"") if step in REFUSED_STEPS else (0, outcome.stdout)
    lines = [] if (outcome.ended, outcome.status, outcome.stdout) == ("exit", *expected) else [outcome.says()]
    lines += outcome.leaks + made.judge.faults(found)
    lines += ["touched: " + path for path in scene.touched(fingerprints)]
    lines += ["left over: " + path for path in made.after if wholeness.is_temporary(path)]
    if lines:
        raise Broken(made.name + ", undisturbed: " + "; ".join(lines))


# --- comparing ----------------------------------------------------------------------------------------------

_GENERATION = re.compile(rb"^generation=([0-9a-f]{64})$", re.MULTILINE)
_NEW_ID = re.compile("install-[0-9a-f]{64}")


def normal(made, found):
    """A scene with everything random in it replaced by its order of appearance."""
    ids = sorted({match for path in found for match in _NEW_ID.findall(path)}
                 - {match for path in made.start for match in _NEW_ID.findall(path)})
    for path, entry in found.items():
        if path.endswith("/PendingInstall"):
            ids += [new for new in _NEW_ID.findall(entry.content.decode("utf-8", "replace"))
                    if new not in ids and not any(new in known for known in made.start)]
    generations = {}
    result = {}
    # What is left over must not change how everything else is numbered.
    for path, entry in sorted(found.items(), key=lambda item: (wholeness.is_temporary(item[0]), item[0])):
        content = entry.content
        for number, new in enumerate(ids):
            path = path.replace(new, f"install-NEW{number}")
            if isinstance(content, bytes):
                content = content.replace(new.encode(), b"install-NEW%d" % number)
        if isinstance(content, bytes):
            content = _GENERATION.sub(
                lambda match: b"generation=G%d" % generations.setdefault(match[1], len(generations)), content)
        result[path] = scene.Entry(entry.mode, entry.uid, entry.gid, content)
    return result


# --- what a scenario's job looks like at its other stages -----------------------------------------------------

def prepared_scene(made):
    """The job's scene right after prepare-move."""
    return _stages(made.name.rsplit("/", 1)[0]).prepared[0]


@functools.cache
def _undone(job, from_installed):
    stages = _stages(job)
    start, identifier = stages.installed if from_installed else stages.prepared
    scene.restore(start)
    outcome = tool.run_plainly(stages.job.actor, ["rollback-move", stages.job.target, identifier])
    return scene.capture() if outcome.succeeded() else None


def undone_scene(made):
    """What rollback-move leaves when it undoes the job before the scenario's command has done anything; nothing
    when it refuses to, because the packages are registered."""
    return _undone(made.name.rsplit("/", 1)[0], made.command == "commit-move")


@functools.cache
def _begun_anew(name):
    made = scenario(name)
    restored, _ = _stages(name.rsplit("/", 1)[0]).completed
    scene.restore(restored)
    for _ in range(2):
        tool.place_plan(made.actor, made.job.plan())
        succeed(made.actor, made.words())
    return normal(made, scene.capture())


def begun_anew(made):
    """What begin-install leaves when it is run once more after the scenario's command."""
    return _begun_anew(made.name)
