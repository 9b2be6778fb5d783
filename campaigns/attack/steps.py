"""Exchanges between two system calls: a run is stopped at one of its calls, an attacker exchanges what that call is
about or a directory above it, and takes the exchange back so many calls later, or never.

A point is SCENARIO:CALL:LEVELS:KIND:SPAN. CALL counts the run's calls that concern files; LEVELS says how far above
the call's path the exchange is made; KIND is what is put there; SPAN is how many calls it stays, "-" for good."""

import contextlib
import ctypes
import functools
import os
import random
import stat
import subprocess

from common import products

from attack import decoys, rounds, runs, scenes, world

HOME = products.HOME
SPANS = ("0", "0", "0", "1", "1", "2", "3", "5", "8", "20", "60", "-")
FOR_GOOD = 10**9
_libc = ctypes.CDLL(None, use_errno=True)
AT_FDCWD, NOREPLACE, EXCHANGE = -100, 1, 2


def rename(one, other, flags):
    """Returns whether the kernel allowed it."""
    return _libc.renameat2(AT_FDCWD, os.fsencode(one), AT_FDCWD, os.fsencode(other), flags) == 0


class Stepper:
    """A run that is stopped around chosen calls."""

    def __init__(self, words, at, until):
        report, report_end = os.pipe()
        answer_end, self._answer = os.pipe()
        command = [runs.STEPPER, report_end, answer_end, at, until, runs.LONGEST_STEPPED, runs.TOOL, *words]
        self._process = subprocess.Popen([str(word) for word in command], stdin=subprocess.DEVNULL,
                                         stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=runs.ENVIRONMENT,
                                         cwd="/", pass_fds=(report_end, answer_end))
        os.close(report_end)
        os.close(answer_end)
        self._report = os.fdopen(report, encoding="utf-8", errors="surrogateescape")

    def lines(self):
        """The lines of the report, each split at its tabs."""
        for line in self._report:
            yield line.rstrip("\n").split("\t")

    def proceed(self):
        os.write(self._answer, b"\n")

    def finish(self, ended, status):
        """Waits for the end and returns the outcome."""
        stdout, stderr = self._process.communicate()
        os.close(self._answer)
        self._report.close()
        if self._process.returncode != 0:
            raise RuntimeError("stepper failed: " + stderr.decode("utf-8", "replace"))
        return runs.Outcome(ended, int(status), stdout, stderr)


@functools.cache
def calls_of(name):
    """The calls of an undisturbed run that concern the home: (number, name, path), and their count by path."""
    scenario = scenes.scenario(name)
    rounds.enter(scenario)
    stepper = Stepper(scenario.words, 0, 0)
    calls = []
    last = ""
    for fields in stepper.lines():
        if fields[0] == "ended":
            stepper.finish(fields[1], fields[2])
            break
        path = fields[3] if len(fields) > 3 else ""
        in_home = path.startswith(HOME + "/Library")
        # A call without a path, such as one that starts the package database, is one during the last path's time.
        if in_home or (last and not path):
            last = path if in_home else last
            calls.append((int(fields[1]), fields[2], last))
    return calls


def depth_of(path):
    return path.count("/") - HOME.count("/")


def mode_in(scenario, path):
    entry = scenario.start.get(path)
    return entry.mode if entry else None


def choose(name, count, seed):
    """Returns so many points of a scenario, spread over everything that its calls do."""
    scenario = scenes.scenario(name)
    dice = random.Random(f"{seed}:{name}")
    alike = {}      # calls by what they do, and to what
    for number, call, path in calls_of(name):
        alike.setdefault((call, path), []).append(number)
    groups = [(path, numbers) for (_, path), numbers in alike.items()]
    chosen = []
    while len(chosen) < count:
        chosen += dice.sample(groups, min(len(groups), count - len(chosen)))
    return [_point(scenario, path, dice.choice(numbers), dice) for path, numbers in chosen]


def _point(scenario, path, number, dice):
    levels = 0 if dice.random() < 0.5 else dice.randrange(depth_of(path))
    # A name that the run makes itself is there from that call on, and nothing is before it.
    mode = mode_in(scenario, ancestor(path, levels)) or dice.choice((stat.S_IFREG, stat.S_IFDIR, None))
    return f"{scenario.name}:{number}:{levels}:{dice.choice(decoys.kinds_for(mode))}:{dice.choice(SPANS)}"


def ancestor(path, levels):
    for _ in range(levels):
        path = os.path.dirname(path)
    return path


class Strike:
    """One exchange by the account, and its reversal."""

    def __init__(self, kind, place, decoy):
        self._kind, self._place, self._decoy = kind, place, decoy
        self._undo = lambda: None

    def strike(self):
        """Returns whether anything was exchanged or disturbed."""
        with runs.as_account():
            if self._kind.startswith("do-"):
                return self._disturb()
            if self._kind == "away":
                return rename(self._place, self._decoy, NOREPLACE)
            return rename(self._place, self._decoy, EXCHANGE) or rename(self._decoy, self._place, NOREPLACE)

    def take_back(self):
        with runs.as_account():
            if self._kind.startswith("do-"):
                with contextlib.suppress(OSError):
                    self._undo()
            elif self._kind == "away":
                rename(self._decoy, self._place, NOREPLACE)
            elif not rename(self._place, self._decoy, EXCHANGE):
                rename(self._place, self._decoy, NOREPLACE)

    def _disturb(self):
        deeds = {"do-append": self._append, "do-overwrite": self._overwrite, "do-shorten": self._shorten,
                 "do-lengthen": self._lengthen, "do-link": self._link,
                 "do-open-mode": lambda: self._change_mode(0o777), "do-close-mode": lambda: self._change_mode(0)}
        try:
            if stat.S_ISLNK(os.lstat(self._place).st_mode):
                return False
            deeds[self._kind]()
            return True
        except OSError:
            return False

    def _open(self):
        return os.fdopen(os.open(self._place, os.O_RDWR | os.O_NOFOLLOW | os.O_NONBLOCK), "r+b", buffering=0)

    def _resize(self, change):
        with self._open() as file:
            size = os.fstat(file.fileno()).st_size
            file.truncate(change(size))
        self._undo = lambda: os.truncate(self._place, size) if os.path.isfile(self._place) else None

    def _append(self):
        self._resize(lambda size: size + 1)

    def _lengthen(self):
        self._resize(lambda size: size + (4 << 20))

    def _shorten(self):
        self._resize(lambda size: size // 2)

    def _overwrite(self):
        with self._open() as file:
            first = file.read(1) or b"\0"
            file.seek(0)
            file.write(bytes([first[0] ^ 1]) if first[0] < 0x80 else b"x")

    def _link(self):
        os.link(self._place, self._decoy)
        self._undo = lambda: os.unlink(self._decoy)

    def _change_mode(self, mode):
        before = stat.S_IMODE(os.lstat(self._place).st_mode)
        os.chmod(self._place, mode)

        def undo():
            if not os.path.islink(self._place) and os.path.exists(self._place):
                os.chmod(self._place, before)

        self._undo = undo


def _path_of(fields, name):
    """The path of the call that a run was stopped at; of one without a path, that of the call before."""
    if fields[3].startswith(HOME):
        return fields[3].removesuffix(" (deleted)")
    number = int(fields[1])
    return next((path for known, _, path in calls_of(name) if known == number), HOME + "/Library")


def run_point(text):
    """Runs one point and returns its verdict."""
    name, number, levels, kind, span = text.split(":")
    scenario = scenes.scenario(name)
    calls_of(name)
    random.seed(text)
    maker = rounds.enter(scenario)
    at = int(number)
    guard, strike, met = world.Guard([], rounds.bystanders()), None, False
    stepper = Stepper(scenario.words, at, FOR_GOOD if span == "-" else at + int(span))
    outcome = None
    for fields in stepper.lines():
        if fields[0] == "ended":
            outcome = stepper.finish(fields[1], fields[2])
            break
        if fields[0] == "enter":
            place = ancestor(_path_of(fields, name), int(levels))
            decoy = maker.make("away" if kind.startswith("do-") else kind, place)
            guard.add(maker.planted)
            strike = Strike(kind, place, decoy)
            met = strike.strike()
        elif strike:
            strike.take_back()
        stepper.proceed()
    if strike is None:
        raise scenes.Broken(f"{name} has no call {number}")
    return rounds.judge("step:" + text, scenario, guard, outcome, met)
