"""Brings each state of docs/recovery.md about with the real program, by killing runs and by deleting files."""

import fcntl
import functools
import re
from dataclasses import dataclass, field

from common import installation, products, scenarios, scene, tool

ATTEMPT = products.MAINTENANCE + "/PendingInstall"
LEASE = products.MAINTENANCE + "/ActiveTransaction"


@dataclass
class Situation:
    """A state on disk, and what the ways out of it are to come to."""

    actor: tool.Actor
    job: scenarios.Job
    identifier: str
    found: dict                                 # the state itself, as a scene
    before: dict = None                         # the scene that an undoing leads back to
    after: dict = None                          # the scene that finishing leads to
    plan: str = ""
    holders: list = field(default_factory=list)  # files that somebody holds the lock of
    spare: str = ""                             # another name of a file that a person has at hand

    @property
    def scope(self):
        return self.job.target

    def place(self, relative):
        """The absolute path of a place in the scope in which the transaction is recorded."""
        moving_system = "system" in (self.job.source, self.job.target)
        return products.in_scope("system" if moving_system else self.job.target, relative)


@functools.cache
def stages(kind, situation="", scope="user"):
    """The scenes that a piece of work goes through: an installation, a move from `scope`, or a removal."""
    actor = tool.ACCOUNT if scope == "user" else tool.ROOT
    if kind == "install":
        return scenarios.Stages(scenarios.installation_job(situation, actor, scope))
    if kind == "move":
        return scenarios.Stages(scenarios.move_job(situation == "kept", scope), "move-1")
    return scenarios.Stages(scenarios.removal_job(situation, actor, scope), "remove-1")


def situation(work, stage, removal=False, **more):
    """A situation of `work`, whose scene and identifier are `stage`."""
    found, identifier = stage
    made = Situation(work.job.actor, work.job, identifier, found, before=work.job.base, plan=work.job.plan(), **more)
    made.after = _removed(work) if removal else work.done[0]
    return made


def _removed(work):
    start, identifier = work.begun
    scene.restore(start)
    scenarios.succeed(work.job.actor, ["uninstall-product", work.job.target, identifier])
    return scene.capture()


def killed(work, stage, command, call, subject, number=0, moment="before"):
    """The scene after a run that was killed at the first, or a later, call of that name on that subject."""
    start, identifier = stage
    words = [command, work.job.target, identifier]
    scene.restore(start)
    tool.place_plan(work.job.actor, work.job.plan())
    recorded = tool.run(work.job.actor, words, record=True)
    matching = [n for kind, n, name, on, _ in recorded.calls
                if kind == "change" and name == call and re.search(subject, on)]
    scene.restore(start)
    outcome = tool.run(work.job.actor, words, [f"change:{matching[number]}:{moment}"])
    if outcome.ended != "killed":
        raise scenarios.Broken("not killed: " + outcome.says())
    return scene.capture(), identifier


def without(stage, *endings):
    """The same scene, with the files gone that end so; a person has deleted them."""
    found, identifier = stage
    gone = {path for path in found if path.endswith(tuple(endings))}
    gone |= {path for path in found for top in gone if path.startswith(top + "/")}
    if not gone:
        raise scenarios.Broken("nothing to delete: " + ", ".join(endings))
    return {path: entry for path, entry in found.items() if path not in gone}, identifier


def changed(stage, ending, content):
    """The same scene, with one file's content exchanged."""
    found, identifier = stage
    path, = [path for path in found if path.endswith(ending)]
    entry = found[path]
    return {**found, path: scene.Entry(entry.mode, entry.uid, entry.gid, content)}, identifier


def owned_by_root(stage, path):
    """The same scene, with one directory root's."""
    found, identifier = stage
    entry = found[path]
    return {**found, path: scene.Entry(entry.mode, 0, 0, entry.content)}, identifier


def failed(stage, work, command):
    """The scene after a command that failed."""
    start, identifier = stage
    scene.restore(start)
    tool.run_plainly(work.job.actor, [command, work.job.target, identifier])
    return scene.capture(), identifier


def placed(stage, work, packages=None):
    """The scene after the installer has installed the packages, or only some of them."""
    start, identifier = stage
    scene.restore(start)
    installation.place(work.job.target, work.job.packages() if packages is None else packages)
    return scene.capture(), identifier


SITUATIONS = {}


def state(make):
    """Registers the set-up of the state that is called like the function."""
    SITUATIONS[make.__name__.replace("_", "-")] = make
    return make


@state
def begun():
    work = stages("install", "clean")
    return situation(work, work.begun)


@state
def attempt_without_descriptor():
    work = stages("install", "clean")
    return situation(work, work.without_descriptor)


@state
def another_plan():
    work = stages("install", "upgrade")
    found = situation(work, work.prepared)
    found.plan = products.plan_text("suite", "300", (scenarios.ALPHA,))
    return found


@state
def installed_unprepared():
    work = stages("install", "clean")
    return situation(work, placed(work.begun, work))


@state
def upgraded_unprepared():
    work = stages("install", "upgrade")
    return situation(work, placed(work.begun, work))


@state
def creating():
    work = stages("install", "upgrade")
    return situation(work, killed(work, work.begun, "prepare-move", "renameat", "/prepared"))


@state
def leases_incomplete():
    work = stages("move", "dropped")
    return situation(work, killed(work, work.begun, "prepare-move", "renameat", "ActiveTransaction", 1))


@state
def prepared():
    work = stages("install", "upgrade")
    return situation(work, work.prepared)


@state
def half_placed():
    work = stages("install", "clean")
    return situation(work, work.half)


@state
def some_packages():
    work = stages("install", "clean")
    return situation(work, placed(work.prepared, work, work.job.packages()[:1]))


@state
def some_packages_of_an_upgrade():
    work = stages("install", "upgrade")
    return situation(work, placed(work.prepared, work, work.job.packages()[:1]))


@state
def installed_uncommitted():
    work = stages("install", "clean")
    return situation(work, work.installed)


@state
def commit_interrupted():
    work = stages("move", "dropped", "system")
    return situation(work, killed(work, work.installed, "commit-move", "unlinkat", "component/"))


@state
def source_forgotten():
    work = stages("move", "dropped")
    return situation(work, killed(work, work.installed, "commit-move", "unlinkat", "TamarindPelicanUpdater"))


@state
def rollback_interrupted():
    work = stages("install", "upgrade")
    return situation(work, killed(work, work.half, "rollback-move", "renameat", "TP Alpha.vst3/Contents/MacOS"))


@state
def abandoned():
    work = stages("install", "clean")
    return situation(work, failed(work.half, work, "commit-move"))


@state
def clean_up_pending():
    work = stages("install", "clean")
    return situation(work, work.completed)


@state
def completed():
    work = stages("install", "clean")
    return situation(work, work.done)


@state
def uninstallation_begun():
    work = stages("remove", "one")
    return situation(work, killed(work, work.begun, "uninstall-product", "unlinkat", "TP Alpha.vst3/", 1), removal=True)


@state
def uninstallation_half_done():
    work = stages("remove", "one")
    return situation(work, killed(work, work.begun, "uninstall-product", "unlinkat", "component/"), removal=True)


@state
def tool_gone():
    work = stages("remove", "last")
    at = killed(work, work.begun, "uninstall-product", "unlinkat", "TamarindPelicanMaintenance$", moment="after")
    return situation(work, at, removal=True)


@state
def owned_file_missing():
    work = stages("remove", "one")
    return situation(work, without(work.begun, scenarios.DAMAGED), removal=True)


@state
def descriptor_missing():
    work = stages("install", "clean")
    return situation(work, without(work.prepared, ".tpmt"))


@state
def descriptor_missing_installed():
    work = stages("install", "clean")
    return situation(work, without(work.installed, ".tpmt"))


@state
def move_descriptor_missing():
    work = stages("move", "dropped")
    found = situation(work, without(work.prepared, "/move-1.tpmt"))
    found.spare = products.descriptor_text(work.job.source, work.job.target, work.job.revision, work.job.products)
    return found


@state
def lease_missing():
    work = stages("install", "upgrade")
    return situation(work, without(work.prepared, LEASE))


@state
def lease_missing_half_placed():
    work = stages("install", "clean")
    return situation(work, without(work.half, LEASE))


@state
def prepared_file_missing():
    work = stages("install", "upgrade")
    return situation(work, without(work.prepared, "/prepared"))


@state
def transaction_directory_missing():
    work = stages("install", "upgrade")
    return situation(work, without(work.prepared, "/Transactions/" + work.prepared[1]))


@state
def attempt_missing():
    work = stages("install", "upgrade")
    return situation(work, without(work.prepared, ATTEMPT))


@state
def attempt_damaged():
    work = stages("install", "clean")
    return situation(work, changed(work.installed, ATTEMPT, b"schema=tamarind.peli"))


@state
def copy_damaged():
    work = stages("install", "upgrade")
    return situation(work, changed(work.prepared, "/authority-target/files/0", b"damaged\n"))


@state
def directory_of_root():
    work = stages("install", "clean")
    return situation(work, owned_by_root(work.prepared, products.in_scope("user", products.MAINTENANCE)))


@state
def bundle_of_root():
    work = stages("remove", "last")
    stage = owned_by_root(work.begun, products.in_scope("user", f"{products.VST3}/TP Alpha.vst3/Contents/MacOS"))
    return situation(work, failed(stage, work, "uninstall-product"), removal=True)


@state
def lock_held():
    work = stages("install", "clean")
    found = situation(work, work.installed)
    found.holders = [products.in_scope("user", products.MAINTENANCE + "/maintenance.lock")]
    return found


def hold(path):
    """Locks a file as a running program does; the lock goes with the returned file."""
    file = open(path, "r+b")
    fcntl.lockf(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
    return file
