"""Exchanges as fast as possible: while a run goes on, processes of the account disturb what it works on.

A point is SCENARIO:SEED. Its number settles the scene, who attacks what and with which decoys; what happens first in a
race, it cannot settle."""

import os
import random
import stat
import struct
import subprocess

from common import products

from attack import decoys, rounds, runs, scenes, world

HOME = products.HOME
MAINTENANCE = f"{HOME}/{products.MAINTENANCE}"
ORDERS, COUNTS = runs.TOOLS + "/orders", runs.TOOLS + "/counts"
COUNTED = ("exchanged", "moved", "written", "locked", "chmodded", "planted", "followed", "searched")
# Microseconds: some attackers flicker, others let a run get further before they strike.
HOLDS = (0, 5, 30, 200, 1000)
RESTS = (20, 200, 1000, 4000, 12000)
# The names of files that a run publishes, and where.
PUBLISHED = (("", "ActiveTransaction"), ("", "PendingInstall"), ("/..", "installed-products.json"),
             ("/Products", "tp-alpha.record"), ("/Products", "mangrove-reverb.record"))


def targets_in(scenario):
    """Everything on the fixed paths of the user scope that an attacker can exchange."""
    targets = []
    for path, entry in scenario.start.items():
        if path.startswith(HOME + "/Library") and not path.startswith(decoys.RECEIPTS):
            relative = path[len(HOME) + 1:]
            if relative in world.WAYS or world.is_makers(relative):
                targets.append((path, entry.mode))
    return targets


def identifier_in(scenario):
    return scenario.words[2] if len(scenario.words) == 3 else "install-"


class Planner:
    """Draws who attacks what in one round."""

    def __init__(self, scenario, dice, maker):
        self._scenario, self._dice, self._maker = scenario, dice, maker
        self._targets = targets_in(scenario)
        self._files = [path for path, mode in self._targets if stat.S_ISREG(mode)]
        self._serial = 0

    def orders(self):
        """Returns the lines of the orders; one attacker always exchanges, the others come and go."""
        lines = [self._exchange()]
        others = (self._exchange, self._move, self._write, self._lock, self._mode, self._plant, self._follow)
        lines += [make() for make in self._dice.sample(others, self._dice.randrange(1, 4))]
        if self._dice.random() < 0.25:
            lines.append(("search", *world.SEARCHED))
        return lines

    def _pace(self):
        return [str(self._dice.choice(HOLDS)), str(self._dice.choice(RESTS))]

    def _yard(self):
        self._serial += 1
        yard = f"{decoys.YARD}/yard{self._serial}"
        decoys.make_directory(yard, decoys.PLAYER, 0o755)
        return yard

    def _some_targets(self):
        return self._dice.sample(self._targets, min(len(self._targets), self._dice.choice((1, 2, 4, 8))))

    def _exchange(self):
        line = ["exchange", *self._pace()]
        for path, mode in self._some_targets():
            kind = self._dice.choice([kind for kind in decoys.kinds_for(mode) if not kind.startswith("do-")])
            line += [path, self._maker.make(kind, path)]
        for place in self._new_places():
            kind = self._dice.choice([kind for kind in decoys.kinds_for(None) if kind != "away"])
            line += [place, self._maker.make(kind, place)]
        return line

    def _new_places(self):
        """Places where the run makes something, and nothing stands yet."""
        identifier = identifier_in(self._scenario)
        places = [f"{MAINTENANCE}/Transactions/{identifier}", f"{MAINTENANCE}/Completed/{identifier}.record",
                  f"{MAINTENANCE}/ActiveTransaction", f"{MAINTENANCE}/Transactions/{identifier}/target",
                  f"{MAINTENANCE}/Transactions/{identifier}/authority-target",
                  f"{MAINTENANCE}/Transactions/{identifier}/prepared"]
        places = [place for place in places if place not in self._scenario.start]
        return self._dice.sample(places, min(len(places), self._dice.choice((0, 0, 1, 2))))

    def _move(self):
        line = ["move", *self._pace()]
        for path, _ in self._some_targets():
            line += [path, self._maker.make("away", path)]
        return line

    def _write(self):
        return ["write", str(self._dice.choice(RESTS)), *self._dice.sample(self._files, min(len(self._files), 6))]

    def _lock(self):
        return ["lock", *self._pace(), MAINTENANCE + "/maintenance.lock"]

    def _mode(self):
        return ["mode", str(self._dice.choice(RESTS)), *[path for path, _ in self._some_targets()]]

    def _plant(self):
        yard = self._yard()
        decoys.make_file(yard + "/own", b"own\n", decoys.PLAYER, 0o644)
        names = [(MAINTENANCE + where, name) for where, name in PUBLISHED]
        identifier = identifier_in(self._scenario)
        names += [(MAINTENANCE + "/Completed", identifier + ".record"),
                  (f"{MAINTENANCE}/Transactions/{identifier}", "prepared"),
                  (f"{MAINTENANCE}/Transactions/{identifier}/target", "0"),
                  (f"{MAINTENANCE}/Transactions/{identifier}/authority-target", "manifest")]
        names += [(os.path.dirname(path), os.path.basename(path)) for path in self._files
                  if not path.startswith(MAINTENANCE)]
        chosen = self._dice.sample(names, min(len(names), 3))
        return ["plant", str(self._dice.choice(HOLDS)), "20", yard, self._maker.make("link-vault", "/nowhere"),
                *[word for pair in chosen for word in pair]]

    def _follow(self):
        directories = [path for path, mode in self._targets if stat.S_ISDIR(mode)]
        chosen = self._dice.sample(directories, min(len(directories), 6))
        return ["follow", self._yard(), decoys.VAULT + "/secret", *chosen]


class Attackers:
    """The account's processes; they are there and at work for as long as it lasts."""

    def __init__(self, lines, seed):
        with open(ORDERS, "w", encoding="utf-8") as file:
            file.write(f"seed\t{seed}\n" + "".join("\t".join(line) + "\n" for line in lines))
        with open(COUNTS, "wb"):
            pass
        os.chmod(ORDERS, 0o644)
        os.chown(COUNTS, runs.ACCOUNT, runs.STAFF)
        self.counts, self.leaks = {}, []

    def __enter__(self):
        self._process = subprocess.Popen([runs.ATTACKER, ORDERS, COUNTS], stdin=subprocess.DEVNULL,
                                         stdout=subprocess.PIPE, cwd="/", user=runs.ACCOUNT, group=runs.STAFF,
                                         extra_groups=[])
        if self._process.stdout.readline() != b"ready\n":
            raise RuntimeError("the attackers did not begin")
        return self

    def __exit__(self, *_):
        self._process.kill()
        # Each attacker dies with the one that was killed, and holds the pipe until then.
        said = self._process.stdout.read().decode("utf-8", "replace").splitlines()
        self._process.wait()
        self.leaks = ["readable while running: " + line.split("\t")[1] for line in said if line.startswith("leak\t")]
        with open(COUNTS, "rb") as file:
            numbers = struct.unpack(f"{len(COUNTED)}Q", file.read(8 * len(COUNTED)))
        self.counts = dict(zip(COUNTED, numbers))


def choose(name, count, seed):
    """Returns so many points of a scenario."""
    return [f"{name}:{seed}.{number}" for number in range(count)]


def run_point(text):
    """Runs one point; returns its verdict and what the attackers did."""
    name, _, seed = text.partition(":")
    scenario = scenes.scenario(name)
    dice = random.Random(text)
    random.seed(text)
    maker = rounds.enter(scenario)
    rounds.own_bystanders_by_another()
    lines = Planner(scenario, dice, maker).orders()
    guard = world.Guard(maker.planted, rounds.bystanders())
    with Attackers(lines, dice.randrange(1 << 32)) as attackers:
        outcome = runs.run(scenario.words)
    verdict = rounds.judge("race:" + text, scenario, guard, outcome, False)
    verdict.faults += attackers.leaks
    return verdict, attackers.counts
