"""Forged metadata: a transaction that the account owns says what it should not, and root runs every command on it.

A point is CASE:COMMAND. Nothing races here; the account has written everything before the run begins."""

import functools
import os
import random
import shutil
import stat
from dataclasses import dataclass

from common import installation, products, scene

from attack import decoys, forged_texts as texts, rounds, runs, scenes, world

HOME = products.HOME
SUPPORT, MAINTENANCE = f"{HOME}/{products.SUPPORT}", f"{HOME}/{products.MAINTENANCE}"
COMMANDS = ("begin-install", "inspect", "prepare-move", "commit-move", "rollback-move", "uninstall-product")
# A product of the maker in the system scope that no transaction of the account has anything to do with.
SYSTEM_PRODUCT = "Library/Audio/Plug-Ins/Components/TP Gamma.component/Contents/Info.plist"
COMPONENT = f"{products.COMPONENTS}/TP Alpha.component/Contents/Info.plist"


@dataclass
class Case:
    """One forgery: `forge` is called with a Forger when the true scene is on disk."""

    name: str
    forge: object
    stage: str = "half"         # the scene that is forged: "half", "placed" or "removable"
    system: bool = False        # the descriptor involves the system scope, so the products' places there count too


@functools.cache
def stage(name):
    """Returns a scene with a transaction of the account, and its identifier."""
    if name == "removable":
        start, identifier = scenes.half_removed(), scenes.REMOVE_ID
    else:
        start, identifier = scenes.placed("upgrade", name == "placed")
    scene.restore(start)
    installation.write("system", SYSTEM_PRODUCT, b"gamma\n")
    return scene.capture(), identifier


class Forger:
    """Writes into the account's places with the account's owner."""

    def __init__(self, identifier):
        self.identifier = identifier
        self.transaction = f"{MAINTENANCE}/Transactions/{identifier}"
        self.manifest = self.transaction + "/authority-target/manifest"
        self.prepared = self.transaction + "/prepared"
        self.lease = MAINTENANCE + "/ActiveTransaction"
        self.completed = f"{MAINTENANCE}/Completed/{identifier}.record"
        self.pending = MAINTENANCE + "/PendingInstall"
        self.descriptor = f"{MAINTENANCE}/Inbox/{identifier}.tpmt"
        self.maker = decoys.Maker()

    @staticmethod
    def read(path):
        with open(path, "rb") as file:
            return file.read()

    @staticmethod
    def remove(path):
        if os.path.isdir(path) and not os.path.islink(path):
            shutil.rmtree(path)
        elif os.path.lexists(path):
            os.unlink(path)

    def write(self, path, content, owner=decoys.PLAYER, mode=0o600):
        self.remove(path)
        missing = []
        directory = os.path.dirname(path)
        while not os.path.isdir(directory):
            missing.append(directory)
            directory = os.path.dirname(directory)
        for made in reversed(missing):
            decoys.make_directory(made, decoys.PLAYER, 0o755)
        decoys.make_file(path, content, owner, mode)

    def put_decoy(self, path, kind):
        """Puts what an attacker would exchange for it in the place of a file or directory."""
        decoy = self.maker.make(kind, path)
        self.remove(path)
        if kind != "away":
            os.rename(decoy, path)
            self.maker.planted = [path + planted[len(decoy):] if planted.startswith(decoy) else planted
                                  for planted in self.maker.planted]

    def put_new_decoy(self, path, kind, source):
        """Puts a decoy that looks like `source` where nothing stands."""
        decoy = self.maker.make(kind, source)
        os.rename(decoy, path)
        self.maker.planted = [path + planted[len(decoy):] if planted.startswith(decoy) else planted
                              for planted in self.maker.planted]

    def copy_of(self, serial):
        return f"{self.transaction}/authority-target/files/{serial}"

    def rebind(self, descriptor):
        """Replaces the descriptor and makes the prepared state and the lease agree with it."""
        self.write(self.descriptor, descriptor)
        state = texts.prepared_text(self.identifier, descriptor)
        self.write(self.prepared, state)
        self.write(self.lease, state)


# --- families of cases --------------------------------------------------------------------------------------

def _forge_manifest_path(path, forger):
    """A manifest line for a path, with a copy that its digest fits to."""
    content = b"forged\n"
    line = path + b"\t" + products.sha256(content).encode() + b"\t777\n"
    forger.write(forger.copy_of(777), content)
    forger.write(forger.manifest, line + forger.read(forger.manifest))


def _manifest_line(fields, forger):
    forger.write(forger.copy_of(777), b"forged\n")
    forger.write(forger.manifest, b"\t".join(fields) + b"\n" + forger.read(forger.manifest))


def _manifests():
    good = products.sha256(b"forged\n").encode()
    for name, path in texts.PATHS.items():
        yield f"manifest-path-{name}", functools.partial(_forge_manifest_path, path)
    for name, serial in texts.SERIALS.items():
        yield f"manifest-serial-{name}", functools.partial(_manifest_line, [COMPONENT.encode(), good, serial])
        yield (f"manifest-receipt-serial-{name}",
               functools.partial(_manifest_line, [b"receipt", b"com.tamarindpelican.pkg.tp-alpha.au", b"1.0", serial]))
    for name, digest in texts.DIGESTS.items():
        yield f"manifest-digest-{name}", functools.partial(_manifest_line, [COMPONENT.encode(), digest, b"777"])
    for name, change in texts.TEXT_CHANGES.items():
        yield f"manifest-{name}", lambda forger, change=change: forger.write(forger.manifest,
                                                                            change(forger.read(forger.manifest)))


def _records():
    for which in ("prepared", "lease", "completed"):
        for name, change in {**texts.TEXT_CHANGES, **texts.STATE_CHANGES}.items():
            yield f"{which}-{name}", functools.partial(_change_record, which, change, False)
    for name, change in texts.STATE_CHANGES.items():
        yield f"all-records-{name}", functools.partial(_change_record, "lease", change, True)


def _change_record(which, change, everywhere, forger):
    text = change(forger.read(forger.prepared))
    for path in ("prepared", "lease", "completed") if everywhere else (which,):
        forger.write(getattr(forger, path), text)


def _attempts():
    for name, change in {**texts.TEXT_CHANGES, **texts.ATTEMPT_CHANGES}.items():
        yield f"attempt-{name}", functools.partial(_change_attempt, change)


def _change_attempt(change, forger):
    attempt = texts.attempt_text(forger.identifier, scenes.JOBS["upgrade"].plan.encode(),
                                 forger.read(forger.descriptor))
    forger.write(forger.pending, change(attempt))


def _descriptors():
    for name, path in texts.PATHS.items():
        yield f"descriptor-path-{name}", functools.partial(_descriptor_path, path)
    for name, change in {**texts.TEXT_CHANGES, **texts.DESCRIPTOR_CHANGES}.items():
        yield f"descriptor-{name}", lambda forger, change=change: forger.rebind(change(forger.read(forger.descriptor)))


def _descriptor_path(path, forger):
    """Another target file, of which the snapshot says that the place was empty, so that it is to be removed."""
    descriptor = forger.read(forger.descriptor)
    fields = [b"tp-alpha", b"com.tamarindpelican.pkg.tp-alpha.au", b"2.0", path, products.sha256(b"x").encode()]
    count = descriptor.count(b"\ntarget=")
    forger.rebind(descriptor + b"target=" + b"\t".join(fields) + b"\n")
    forger.write(f"{forger.transaction}/target-absent/{count}", b"absent\n")


def _copies():
    for kind in decoys.FILE_KINDS:
        for place in ("authority-target/files/0", "authority-target/receipts/3", "target/0", "target-absent/0"):
            yield f"copy-{place.replace('/', '-')}-{kind}", functools.partial(_replace_in_transaction, place, kind)


def _replace_in_transaction(place, kind, forger):
    path = f"{forger.transaction}/{place}"
    if not os.path.lexists(path):
        forger.write(path, b"absent\n")
    forger.put_decoy(path, kind)


def _identities():
    for name, path in texts.PATHS.items():
        yield f"identity-path-{name}", functools.partial(_identity_path, path)


def _identity_path(path, forger):
    directory = forger.transaction + "/authority-target/receipts"
    for name in os.listdir(directory):
        forger.write(f"{directory}/{name}", forger.read(f"{directory}/{name}") + b"file=" + path + b"\n")


def _places():
    for which in ("prepared", "lease", "pending", "descriptor", "manifest"):
        for kind in ("link-vault", "link-twin", "hard-vault", "hard-twin", "hard-own", "pipe", "socket", "directory",
                     "root-secret", "root-twin", "other-secret", "empty", "wide", "away"):
            yield f"place-{which}-{kind}", functools.partial(_replace_record, which, kind)
    directories = ("Library", "Library/Application Support", products.SUPPORT, products.MAINTENANCE,
                   products.MAINTENANCE + "/Transactions", products.MAINTENANCE + "/Inbox",
                   products.MAINTENANCE + "/Completed", products.MAINTENANCE + "/Products", products.VST3,
                   f"{products.COMPONENTS}/TP Alpha.component", f"{products.COMPONENTS}/TP Alpha.component/Contents")
    for directory in directories:
        for kind in decoys.DIRECTORY_KINDS:
            yield (f"directory-{'-'.join(directory.split('/')[-2:]).replace(' ', '-')}-{kind}",
                   lambda forger, directory=directory, kind=kind: forger.put_decoy(f"{HOME}/{directory}", kind))
    for directory in ("", "/target", "/authority-target", "/authority-target/files", "/metadata-target",
                      "/metadata-target/Products"):
        for kind in decoys.DIRECTORY_KINDS:
            yield (f"transaction{directory.replace('/', '-')}-{kind}",
                   lambda forger, directory=directory, kind=kind: forger.put_decoy(forger.transaction + directory, kind))


def _replace_record(which, kind, forger):
    path = getattr(forger, which)
    if not os.path.lexists(path):
        forger.write(path, forger.read(forger.prepared))
    forger.put_decoy(path, kind)


def _strangers():
    """Foreign objects inside directories whose whole content is copied or removed."""
    for place in ("Products", "transaction"):
        for kind in ("link-vault", "link-etc", "hard-vault", "pipe", "socket", "carrier", "root-secret", "root-twin",
                     "other-twin", "root-closed", "deep", "odd-names"):
            yield f"inside-{place}-{kind}", functools.partial(_put_inside, place, kind)


def _put_inside(place, kind, forger):
    directory = MAINTENANCE + "/Products" if place == "Products" else forger.transaction + "/target"
    path = directory + "/stranger"
    if kind == "deep":
        _nest(path, 300)
    elif kind == "odd-names":
        for name in (b"..x", b"\n", b"\xc3\xa9", b"x" * 255, b"..tp-alpha.record.new.1", b"-rf", b"*"):
            with open(directory.encode() + b"/" + name, "wb") as file:
                file.write(b"odd\n")
            os.chown(directory.encode() + b"/" + name, *decoys.PLAYER)
    else:
        forger.put_new_decoy(path, kind, HOME + "/Library/Audio")


def _nest(path, levels):
    decoys.make_directory(path, decoys.PLAYER, 0o755)
    before = os.open(path, os.O_RDONLY)
    for _ in range(levels):
        os.mkdir("d", dir_fd=before)
        os.chown("d", *decoys.PLAYER, dir_fd=before)
        inner = os.open("d", os.O_RDONLY, dir_fd=before)
        os.close(before)
        before = inner
    os.close(before)


def _receipts():
    for name, path in texts.PATHS.items():
        yield f"receipt-path-{name}", functools.partial(_receipt_path, path)
    for name, change in texts.RECEIPT_CHANGES.items():
        yield f"receipt-{name}", functools.partial(_change_receipt, change)
    for name, identifier in texts.IDENTIFIERS.items():
        yield f"receipt-identifier-{name}", functools.partial(_listed_identifier, identifier)
    for name, rule in texts.PKGUTIL_RULES.items():
        yield f"pkgutil-{name}", functools.partial(_pkgutil_rule, rule)


def _receipt_of(forger, identifier="com.tamarindpelican.pkg.tp-alpha.au"):
    path = f"{decoys.RECEIPTS}/{identifier}.receipt"
    return path, forger.read(path)


def _receipt_path(path, forger):
    place, text = _receipt_of(forger)
    forger.write(place, text + b"path=" + path + b"\n", mode=0o644)


def _change_receipt(change, forger):
    place, text = _receipt_of(forger)
    forger.write(place, change(text), mode=0o644)


def _listed_identifier(identifier, _):
    with open(runs.TOOLS + "/listing", "wb") as file:
        file.write(identifier + b"\n")
    _pkgutil_rule(f"command=--pkgs,--pkgs= do replace={runs.TOOLS}/listing exit=0", _)


def _pkgutil_rule(rule, _):
    with open(runs.TOOLS + "/output", "wb") as file:
        file.write(b"Library/../../../etc/neighbour.conf\n/etc/neighbour.conf\n\0\n" + b"x" * (1 << 20) + b"\n")
    runs.set_pkgutil_rule(rule)


def _leftovers():
    names = ("ActiveTransaction", "PendingInstall", "Completed/{}.record", "Transactions/{}/prepared",
             "Products/tp-alpha.record", "../installed-products.json")
    for name in names:
        for kind in ("link-vault", "hard-vault", "pipe", "directory", "root-secret", "empty"):
            yield (f"leftover-{name.replace('/', '-').replace('{}', 'x').strip('.-')}-{kind}",
                   functools.partial(_leave_over, name, kind))


def _leave_over(name, kind, forger):
    directory, base = os.path.split(f"{MAINTENANCE}/{name.format(forger.identifier)}")
    for pid in ("1", "99999", "4194304"):
        forger.put_new_decoy(f"{directory}/.{base}.new.{pid}", kind, "/nowhere")


FAMILIES = (_manifests, _records, _attempts, _descriptors, _copies, _identities, _places, _strangers, _receipts,
            _leftovers)


@functools.cache
def cases():
    """All cases, by name."""
    found = {}
    for family in FAMILIES:
        for name, forge in family():
            system = name in texts.INVOLVING_SYSTEM
            if name in found:
                raise ValueError("two cases have the name " + name)
            found[name] = Case(name, forge, _STAGES.get(family, "half"), system)
    return found


_STAGES = {_receipts: "placed"}


# --- running ------------------------------------------------------------------------------------------------

def _words(command, identifier):
    return [command, "user"] if command == "begin-install" else [command, "user", identifier]


def _stage_for(case, command):
    if command == "uninstall-product" and case.stage == "half":
        return "removable"
    if command == "commit-move":
        return "placed"
    return case.stage


def _outside_fixed_places():
    """What the account has in its home besides the fixed places, and is none of the tool's business."""
    found = {}

    def visit(path):
        relative = path[len(HOME) + 1:]
        if relative in ("Yard", "Library/Receipts") or world.is_makers(relative):
            return
        status = os.lstat(path)
        if relative and relative not in world.WAYS:
            found[path] = world.fingerprint(path)
        if stat.S_ISDIR(status.st_mode):
            for name in sorted(os.listdir(path)):
                visit(path + "/" + name)

    visit(HOME)
    return found


def run_point(text):
    """Runs one point and returns its verdict."""
    name, _, command = text.rpartition(":")
    case = cases()[name]
    start, identifier = stage(_stage_for(case, command))
    scenario = scenes.Scenario("forged/" + name, _words(command, identifier), start, scenes.JOBS["upgrade"].plan,
                               involves_system=case.system)
    random.seed(text)
    rounds.enter(scenario)
    forger = Forger(identifier)
    try:
        case.forge(forger)
        before = _outside_fixed_places()
        guard = world.Guard(forger.maker.planted, [])
        outcome = runs.run(scenario.words)
        after = _outside_fixed_places()
    finally:
        runs.set_pkgutil_rule("")
    verdict = rounds.judge("forged:" + text, scenario, guard, outcome, False)
    for path in sorted(before.keys() | after.keys()):
        if before.get(path) != after.get(path):
            verdict.faults.append(f"changed beside the products: {path}: {before.get(path)}, now {after.get(path)}")
    return verdict
