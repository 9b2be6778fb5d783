"""Runs the maintenance tool inside a rehearsal root, undisturbed or interrupted."""

import os
import shutil
import subprocess
from dataclasses import dataclass, field

from common import products

TOOLS = "/opt/campaign"
NAME = "TamarindPelicanMaintenance"
INTERRUPT = TOOLS + "/interrupt"
REPORT = "/run/interrupt-report"
PATIENCE = 60  # seconds; a run that takes longer hangs
# A sanitizer's search for leaks, in a build that has one, cannot look into a process that is traced.
ENVIRONMENT = {"PATH": "/usr/bin:/bin:/usr/sbin:/sbin", "LANG": "C", "ASAN_OPTIONS": "detect_leaks=0"}


@dataclass(frozen=True)
class Actor:
    """Who runs the tool."""

    name: str
    uid: int
    gid: int

    @property
    def directory(self):
        """Holds this actor's own copy of the tool, and the plan beside it."""
        return TOOLS + "/" + self.name


ACCOUNT = Actor("account", products.ACCOUNT, products.STAFF)
ROOT = Actor("root", 0, 0)


@dataclass(frozen=True)
class Left:
    """What a change has left in the place where it acted. `content` is None for anything but a regular file."""

    kind: str           # "directory", "file", "link" or "other"; empty where there is nothing
    mode: int = 0
    uid: int = 0
    gid: int = 0
    content: object = None


@dataclass
class Outcome:
    """How a run ended and what was seen of it."""

    ended: str                                  # "exit", "signal", "killed" or "hung"
    status: int
    stdout: bytes
    stderr: bytes
    calls: list = field(default_factory=list)   # (kind, number, name, subject, result)
    left: dict = field(default_factory=dict)    # number of a change that succeeded -> Left, if asked for
    hits: list = field(default_factory=list)    # (kind, number, name, subject)
    leaks: list = field(default_factory=list)   # descriptors and processes left behind
    counts: dict = field(default_factory=dict)

    def succeeded(self, stdout=b""):
        return (self.ended, self.status, self.stdout, self.stderr) == ("exit", 0, stdout, b"")

    def says(self):
        text = (self.stderr + self.stdout).decode("utf-8", "replace").rstrip("\n")
        return f"{self.ended} {self.status}: {text}"


def install_tools(build):
    """Copies what the campaign runs into the root; `build` is the build directory."""
    os.makedirs(TOOLS, exist_ok=True)
    shutil.copy(build + "/campaigns/interrupt", INTERRUPT)
    for actor in (ACCOUNT, ROOT):
        os.makedirs(actor.directory, exist_ok=True)
        shutil.copy(build + "/" + NAME, actor.directory)
        os.chmod(actor.directory + "/" + NAME, 0o755)
        for path in (actor.directory, actor.directory + "/" + NAME):
            os.chown(path, actor.uid, actor.gid)


def place_plan(actor, text):
    """Puts a transaction plan beside the actor's copy of the tool."""
    path = actor.directory + "/transaction-plan.tpmp"
    with open(path, "w", encoding="ascii") as file:
        file.write(text)
    os.chown(path, actor.uid, actor.gid)
    os.chmod(path, 0o644)


def run(actor, words, points=(), record=False, contents=False):
    """Runs one command; `points` are what interrupt's option --at takes. To record `contents` takes longer."""
    command = [INTERRUPT, "--seconds", str(PATIENCE), "--report", REPORT]
    command += ["--user", str(actor.uid), "--group", str(actor.gid)]
    for point in points:
        command += ["--at", point]
    if record:
        command.append("--record")
    if contents:
        command.append("--contents")
    command += ["--", actor.directory + "/" + NAME, *words]
    done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, env=ENVIRONMENT, cwd="/",
                          check=False)
    if done.returncode != 0:
        raise RuntimeError("interrupt failed: " + done.stderr.decode("utf-8", "replace"))
    outcome = Outcome("", 0, done.stdout, done.stderr)
    with open(REPORT, encoding="utf-8", errors="replace") as report:
        for line in report:
            _read_line(outcome, line.rstrip("\n").split("\t"))
    return outcome


def run_plainly(actor, words):
    """Runs one command without watching it, which is faster."""
    as_account = {} if actor.uid == 0 else {"user": actor.uid, "group": actor.gid, "extra_groups": []}
    try:
        done = subprocess.run([actor.directory + "/" + NAME, *words], stdin=subprocess.DEVNULL,
                              capture_output=True, env=ENVIRONMENT, cwd="/", check=False, timeout=PATIENCE,
                              **as_account)
    except subprocess.TimeoutExpired as late:
        return Outcome("hung", 0, late.stdout or b"", late.stderr or b"")
    ended = "signal" if done.returncode < 0 else "exit"
    return Outcome(ended, abs(done.returncode), done.stdout, done.stderr)


def _read_line(outcome, fields):
    if fields[0] == "call":
        outcome.calls.append((fields[1], int(fields[2]), fields[3], fields[4], int(fields[5])))
    elif fields[0] == "left":
        outcome.left[outcome.calls[-1][1]] = _read_left(fields[1:])
    elif fields[0] == "hit":
        outcome.hits.append((fields[1], int(fields[2]), fields[3], fields[4]))
    elif fields[0] == "open":
        outcome.leaks.append(f"left open at the end, descriptor {fields[1]}: {fields[2]}")
    elif fields[0] == "inherited":
        outcome.leaks.append(f"passed on to a program, descriptor {fields[1]}: {fields[2]}")
    elif fields[0] == "running":
        outcome.leaks.append(f"still running at the end: process {fields[1]}")
    elif fields[0] == "counts":
        outcome.counts[fields[1]] = int(fields[2])
    elif fields[0] == "ended":
        outcome.ended = fields[1]
        outcome.status = int(fields[2]) if len(fields) > 2 else 0


def _read_left(fields):
    if fields == [""]:
        return Left("")
    kind, mode, uid, gid, content = fields
    return Left(kind, int(mode, 8), int(uid), int(gid), bytes.fromhex(content) if kind == "file" else None)
