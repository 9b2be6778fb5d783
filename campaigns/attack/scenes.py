"""The situations in which root runs are attacked: each is a scene, one command, and its undisturbed end."""

import functools
import re
import stat
from dataclasses import dataclass

from common import installation, products, scene

from attack import runs

OLD_REVISION, NEW_REVISION = "100", "200"
ALPHA_OLD, ALPHA, BETA = products.ALPHA["1.0"], products.ALPHA["2.0"], products.BETA
DAMAGED = f"{products.VST3}/TP Alpha.vst3/Contents/MacOS/TP Alpha"
MOVE_ID, REMOVE_ID = "move-alpha", "remove-alpha"
NEW_ID = re.compile("install-[0-9a-f]{64}")


@dataclass
class Scenario:
    """One command in one scene."""

    name: str
    words: list
    start: dict
    plan: str
    status: int = 0     # of an undisturbed run
    involves_system: bool = False

    def enter(self):
        """Puts the scene on disk."""
        scene.restore(self.start)
        runs.place_plan(self.plan)


class Broken(Exception):
    """An undisturbed run did not do what it is there for; then the campaign itself is worth nothing."""


def succeed(*words):
    outcome = runs.run(list(words))
    if (outcome.ended, outcome.status, outcome.stderr) != ("exit", 0, b""):
        raise Broken(" ".join(words) + ": " + outcome.says())
    return outcome.stdout.decode().strip()


def packages_of(revision, installed):
    return [package for product in installed for package in product.packages] + [products.shared(revision)]


# --- scenes -------------------------------------------------------------------------------------------------

@functools.cache
def untouched():
    for scope in ("user", "system"):
        installation.place_bystanders(scope)
    return scene.capture()


@functools.cache
def installed(scope, revision, product_names):
    """Products as complete installations leave them, one after the other."""
    scene.restore(untouched())
    for product in product_names:
        runs.place_plan(products.plan_text("suite", revision, [product]))
        identifier = succeed("begin-install", scope)
        succeed("prepare-move", scope, identifier)
        installation.place(scope, packages_of(revision, (product,)))
        succeed("commit-move", scope, identifier)
    return scene.capture()


@dataclass(frozen=True)
class Job:
    """An installation into one scope, or a move to it from the other one."""

    source: str
    target: str
    there: tuple        # products, in the source scope of a move, else in the target scope
    there_revision: str
    coming: tuple

    @property
    def plan(self):
        return products.plan_text("suite", NEW_REVISION, self.coming)

    def place(self, **how):
        installation.place(self.target, packages_of(NEW_REVISION, self.coming), **how)


JOBS = {
    "clean": Job("none", "user", (), NEW_REVISION, (ALPHA,)),
    "upgrade": Job("none", "user", (ALPHA_OLD, BETA), OLD_REVISION, (ALPHA,)),
    "repair": Job("none", "user", (ALPHA,), NEW_REVISION, (ALPHA,)),
    "to-system-kept": Job("user", "system", (ALPHA, BETA), NEW_REVISION, (ALPHA,)),
    "to-system-dropped": Job("user", "system", (ALPHA,), NEW_REVISION, (ALPHA,)),
    "to-user-kept": Job("system", "user", (ALPHA, BETA), NEW_REVISION, (ALPHA,)),
    "to-user-dropped": Job("system", "user", (ALPHA,), NEW_REVISION, (ALPHA,)),
}


@functools.cache
def base(name):
    job = JOBS[name]
    scope = job.target if job.source == "none" else job.source
    return installed(scope, job.there_revision, job.there) if job.there else untouched()


@functools.cache
def begun(name):
    """The scene before prepare-move, and the identifier."""
    job = JOBS[name]
    scene.restore(base(name))
    if job.source == "none":
        runs.place_plan(job.plan)
        identifier = succeed("begin-install", job.target)
    else:
        identifier = MOVE_ID
        write_descriptor(job.source, job.target, MOVE_ID, job.coming)
    return scene.capture(), identifier


def write_descriptor(source, target, identifier, named):
    text = products.descriptor_text(source, target, NEW_REVISION, named)
    installation.write(target, f"{products.MAINTENANCE}/Inbox/{identifier}.tpmt", text.encode(), 0o600)


@functools.cache
def prepared(name):
    start, identifier = begun(name)
    scene.restore(start)
    succeed("prepare-move", JOBS[name].target, identifier)
    return scene.capture(), identifier


@functools.cache
def placed(name, whole=True):
    """After the package installer has placed everything, or only some files and no receipt."""
    start, identifier = prepared(name)
    scene.restore(start)
    if whole:
        JOBS[name].place()
    else:
        JOBS[name].place(files=3, receipts=False)
    return scene.capture(), identifier


@functools.cache
def recorded(name):
    """Committed, but what comes after the completed record is still to be cleaned up."""
    start, identifier = placed(name)
    scene.restore(start)
    succeed("commit-move", JOBS[name].target, identifier)
    left = re.compile(f"/(?:Transactions/{identifier}(?:/.*)?|ActiveTransaction|PendingInstall)$")
    found = scene.capture()
    found.update({path: entry for path, entry in start.items() if left.search(path)})
    return found, identifier


@functools.cache
def removable(there):
    scene.restore(installed("user", NEW_REVISION, there))
    write_descriptor("none", "user", REMOVE_ID, (ALPHA,))
    return scene.capture()


@functools.cache
def half_removed():
    """An uninstallation that was stopped when the first receipt was to be forgotten."""
    scene.restore(removable((ALPHA,)))
    runs.set_pkgutil_rule("command=--forget do forget=no exit=1")
    outcome = runs.run(["uninstall-product", "user", REMOVE_ID])
    runs.set_pkgutil_rule("")
    if outcome.status != 65:
        raise Broken("a stopped uninstallation: " + outcome.says())
    return scene.capture()


def without(found, pattern):
    gone = re.compile(pattern)
    return {path: entry for path, entry in found.items() if not gone.search(path)}


# --- scenarios ----------------------------------------------------------------------------------------------

def _begin(name):
    return ["begin-install", "user"], base(name)


def _begin_again():
    return ["begin-install", "user"], without(begun("clean")[0], "/Inbox/[^/]+$")


def _begin_recorded():
    return ["begin-install", "user"], recorded("clean")[0]


def _command(command, name, stage):
    start, identifier = stage(name)
    return [command, JOBS[name].target, identifier], start


def _resumed(name, pattern):
    start, identifier = prepared(name)
    return ["prepare-move", JOBS[name].target, identifier], without(start, pattern)


def _damaged():
    start, identifier = placed("repair")
    path = products.in_scope("user", DAMAGED)
    start = dict(start)
    start[path] = scene.Entry(start[path].mode, start[path].uid, start[path].gid, b"damaged\n")
    return ["commit-move", "user", identifier], start


def _uninstall(there):
    return ["uninstall-product", "user", REMOVE_ID], removable(there)


def _uninstall_resumed():
    return ["uninstall-product", "user", REMOVE_ID], half_removed()


def half_placed(name):
    return placed(name, False)


def _shared():
    """Other software has left the plug-in directories to root, and writable for all."""
    start, identifier = half_placed("upgrade")
    start = without(start, "TP Alpha\\.(?:vst3|component)(?:/|$)")
    for relative in ("Library/Audio/Plug-Ins/VST3", products.VST3, products.COMPONENTS):
        start[products.in_scope("user", relative)] = scene.Entry(stat.S_IFDIR | 0o777, 0, 0, None)
    return ["rollback-move", "user", identifier], start


_PARTS = functools.partial
_MAKERS = {
    "begin/clean": (_PARTS(_begin, "clean"), "clean"),
    "begin/upgrade": (_PARTS(_begin, "upgrade"), "upgrade"),
    "begin/again": (_begin_again, "clean"),
    "begin/recorded": (_begin_recorded, "clean"),
    "inspect/upgrade": (_PARTS(_command, "inspect", "upgrade", begun), "upgrade"),
    "inspect/to-user": (_PARTS(_command, "inspect", "to-user-kept", begun), "to-user-kept"),
    "prepare/clean": (_PARTS(_command, "prepare-move", "clean", begun), "clean"),
    "prepare/upgrade": (_PARTS(_command, "prepare-move", "upgrade", begun), "upgrade"),
    "prepare/resumed": (_PARTS(_resumed, "upgrade", "/ActiveTransaction$"), "upgrade"),
    "prepare/unprepared": (_PARTS(_resumed, "upgrade", "/(?:ActiveTransaction|prepared)$"), "upgrade"),
    "commit/clean": (_PARTS(_command, "commit-move", "clean", placed), "clean"),
    "commit/upgrade": (_PARTS(_command, "commit-move", "upgrade", placed), "upgrade"),
    "commit/damaged": (_damaged, "repair"),
    "commit/recorded": (_PARTS(_command, "commit-move", "clean", recorded), "clean"),
    "rollback/clean": (_PARTS(_command, "rollback-move", "clean", half_placed), "clean"),
    "rollback/upgrade": (_PARTS(_command, "rollback-move", "upgrade", half_placed), "upgrade"),
    "rollback/shared": (_shared, "upgrade"),
    "uninstall/one": (_PARTS(_uninstall, (ALPHA, BETA)), "clean"),
    "uninstall/last": (_PARTS(_uninstall, (ALPHA,)), "clean"),
    "uninstall/resumed": (_uninstall_resumed, "clean"),
    "to-system/prepare": (_PARTS(_command, "prepare-move", "to-system-kept", begun), "clean"),
    "to-system/commit-kept": (_PARTS(_command, "commit-move", "to-system-kept", placed), "clean"),
    "to-system/commit-dropped": (_PARTS(_command, "commit-move", "to-system-dropped", placed), "clean"),
    "to-system/rollback": (_PARTS(_command, "rollback-move", "to-system-kept", half_placed), "clean"),
    "to-user/prepare": (_PARTS(_command, "prepare-move", "to-user-kept", begun), "clean"),
    "to-user/commit-kept": (_PARTS(_command, "commit-move", "to-user-kept", placed), "clean"),
    "to-user/commit-dropped": (_PARTS(_command, "commit-move", "to-user-dropped", placed), "clean"),
    "to-user/rollback": (_PARTS(_command, "rollback-move", "to-user-kept", half_placed), "clean"),
}
REFUSED = ("commit/damaged",)   # also when undisturbed


def names():
    """The names of all scenarios, in a fixed order."""
    return list(_MAKERS)


@functools.cache
def scenario(name):
    make, plan_of = _MAKERS[name]
    words, start = make()
    made = Scenario(name, words, start, JOBS[plan_of].plan, 65 if name in REFUSED else 0, name.startswith("to-"))
    made.enter()
    outcome = runs.run(words)
    if (outcome.ended, outcome.status) != ("exit", made.status):
        raise Broken(name + ", undisturbed: " + outcome.says())
    return made
