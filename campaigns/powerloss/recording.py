"""What a run of the tool does to the disk, call by call, and how that is played to the model."""

import os
from dataclasses import dataclass

from common import installation, scenarios, scene, tool
from powerloss import filesystem

LOG = "/var/log/pkgutil-stand-in.log"
STARTS = ("fork", "vfork", "clone", "clone3")
LOCKS = ("fcntl", "flock")
SYNCS = ("fsync", "fdatasync")


@dataclass(frozen=True)
class Operation:
    """One call that succeeded. A number counts the changing calls of the run."""

    number: int
    name: str
    paths: tuple        # what it acts on; of a rename, source and target
    left: tool.Left     # what stands there afterwards

    def __str__(self):
        return f"{self.number:4} {self.name} {' -> '.join(self.paths)}"


@dataclass
class Recording:
    """The operations of one undisturbed run, and the disk that it has left."""

    operations: list
    after: dict


def record(made):
    """Runs the command of a scenario and returns what it did, once the model is found to lead to the same disk."""
    made.enter()
    with open(LOG, "w", encoding="utf-8"):
        os.chmod(LOG, 0o666)
    outcome = tool.run(made.actor, made.words(), contents=True)
    with open(LOG, encoding="utf-8") as log:
        asked = [line.rstrip("\n").split("\t") for line in log]
    os.unlink(LOG)
    if (outcome.ended, outcome.status, outcome.stderr) != (
            made.outcome.ended, made.outcome.status, made.outcome.stderr):
        raise scenarios.Broken(f"{made.name}, recorded: {outcome.says()}")
    recording = Recording(list(_operations(outcome, asked)), scene.capture())
    disk = filesystem.Disk(made.start)
    for operation in recording.operations:
        play(disk, operation)
    disk.sync_everything()
    different = scene.differences(recording.after, disk.show("")[0])
    if different:
        raise scenarios.Broken(f"{made.name}: the model of the file system leads elsewhere: {'; '.join(different)}")
    return recording


def _operations(outcome, asked):
    """Reads the calls, and which start of pkgutil has forgotten a receipt."""
    questions = iter(asked)
    for kind, number, name, subject, result in outcome.calls:
        if kind != "change" or result < 0:
            continue
        if name in STARTS:
            question = next(questions)
            if "--forget" in question:
                yield Operation(number, "forget", (_receipt(question),), tool.Left(""))
        else:
            yield Operation(number, name, tuple(subject.split(" -> ")), outcome.left[number])
    if next(questions, None) is not None:
        raise scenarios.Broken("pkgutil was started unseen")


def _receipt(question):
    scope = "system" if question[question.index("--volume") + 1] == "/" else "user"
    return installation.receipt_path(scope, question[question.index("--forget") + 1])


def play(disk, operation):
    """Lets an operation happen on the model's disk."""
    name, left, path = operation.name, operation.left, operation.paths[-1]
    if name in LOCKS or path.endswith(" (deleted)") or not path.startswith("/") or path == "/dev/null":
        return
    if name == "syncfs":
        disk.sync_everything()
    elif not disk.holds(path):
        # The roots themselves lie in directories that no run changes.
        raise filesystem.Unknown("outside: " + str(operation))
    elif name in SYNCS:
        disk.sync(path)
    elif name in ("openat", "open", "creat", "mkdirat", "mkdir"):
        disk.create(path, left.kind, left.mode, left.uid, left.gid)
        if left.content is not None:
            disk.write(path, left.content)
    elif name in ("write", "pwrite64", "writev", "ftruncate", "copy_file_range", "sendfile"):
        disk.write(path, left.content)
    elif name in ("fchmod", "fchmodat", "chmod"):
        disk.change(path, mode=left.mode)
    elif name in ("fchown", "fchownat", "chown", "lchown"):
        # Also takes away some bits of the mode.
        disk.change(path, uid=left.uid, gid=left.gid, mode=left.mode)
    elif name in ("renameat", "rename"):
        disk.rename(operation.paths[0], path)
    elif name in ("unlinkat", "unlink", "rmdir"):
        disk.remove(path)
    elif name == "forget":
        disk.remove_durably(path)
    else:
        raise filesystem.Unknown(str(operation))
