"""What can be done to a run: every point of a scenario, and which of them a campaign of a given size takes.

A point is written KIND:NUMBER:DEED, as the program `interrupt` takes it, with pkgutil as a further kind whose
deeds are those of pkgutil_ways. Two of them joined by "+" strike a run and then the run that follows it. "/back"
at the end asks that the work can then be undone instead of finished.
"""

import hashlib
import re
from dataclasses import dataclass

from faults import pkgutil_ways

# Which errors a call can report, for the calls that change something.
_ERRORS = {
    "openat": ("EIO", "ENOSPC", "EMFILE", "ENOMEM", "EACCES", "EINTR"),
    "mkdirat": ("EIO", "ENOSPC", "ENOMEM", "EACCES"),
    "renameat": ("EIO", "ENOSPC", "ENOMEM", "EACCES"),
    "unlinkat": ("EIO", "ENOMEM", "EACCES"),
    "write": ("EIO", "ENOSPC", "EINTR"),
    "writev": ("EIO", "ENOSPC", "EINTR"),
    "fsync": ("EIO", "ENOSPC", "EINTR"),
    "fchmod": ("EIO", "ENOSPC", "EPERM"),
    "fchown": ("EIO", "ENOSPC", "EPERM"),
    "fcntl": ("EACCES", "ENOLCK", "EINTR"),
}
_ANY_CALL_ERRORS = ("EIO",)  # for a call that the program did not make when these tables were written
_START_ERRORS = ("EAGAIN", "ENOMEM")
_STARTS = ("fork", "vfork", "clone", "clone3")

# The same for the calls that do not.
_ACCESS_ERRORS = {
    "openat": ("EMFILE", "EACCES", "EIO", "ENOMEM", "EINTR"),
    "open": ("EMFILE", "EACCES", "EIO", "ENOMEM", "EINTR"),
    "read": ("EIO", "EINTR"),
    "pread64": ("EIO", "EINTR"),
    "newfstatat": ("EIO", "EACCES", "ENOMEM"),
    "fstat": ("EIO", "ENOMEM"),
    "getdents64": ("EIO", "ENOMEM"),
    "readlink": ("EIO", "EACCES", "ENOMEM"),
    "pipe": ("EMFILE", "ENFILE"),
    "pipe2": ("EMFILE", "ENFILE"),
    "fcntl": ("EMFILE",),
    "wait4": ("EINTR",),
    "getrandom": ("EINTR",),
    "setresuid": ("EAGAIN",),
}

_OPENING = ("openat", "open", "pipe", "pipe2")

_RANDOM = re.compile("[0-9a-f]{64}|(?<=\\.new\\.)[0-9]+|(?<=pipe:\\[)[0-9]+|(?<=/proc/)[0-9]+")


@dataclass(frozen=True)
class Point:
    """One thing done to a run. `likeness` is shared by points that do the same to the same thing."""

    family: str
    text: str
    likeness: tuple


def _call_points(calls):
    for kind, number, name, subject, result in calls:
        subject = _RANDOM.sub("*", subject)
        if kind == "change":
            yield from _change_points(number, name, subject)
        elif kind == "access":
            for error in _ACCESS_ERRORS.get(name, _ANY_CALL_ERRORS):
                yield Point("access", f"access:{number}:error:{error}", (name, error, subject, result >= 0))
            if name in _OPENING:
                yield Point("stuck", f"access:{number}:errors:EMFILE", (name, "EMFILE", subject))
        elif kind == "memory":
            for deed in ("error:ENOMEM", "errors:ENOMEM"):
                yield Point("memory", f"memory:{number}:{deed}", (name, deed))


def _change_points(number, name, subject):
    start = name in _STARTS
    yield Point("kill", f"change:{number}:before", (name, subject))
    if start:
        for deed in ("after", "all"):
            yield Point("kill", f"change:{number}:{deed}", (name, deed))
    for error in _START_ERRORS if start else _ERRORS.get(name, _ANY_CALL_ERRORS):
        yield Point("error", f"change:{number}:error:{error}", (name, error, subject))
    for error in ("EIO", "ENOSPC"):
        yield Point("stuck", f"change:{number}:errors:{error}", (name, error, subject))
    if name == "write":
        yield Point("short", f"change:{number}:short", (name, subject))


def _kill_after_last(calls):
    numbers = [number for kind, number, *_ in calls if kind == "change"]
    if numbers:
        yield Point("kill", f"change:{numbers[-1]}:after", ("end",))


def _pkgutil_points(calls):
    starts = sum(1 for call in calls if call[2] in _STARTS)
    for number in range(1, starts + 1):
        for way in pkgutil_ways.WAYS:
            yield Point("pkgutil", f"pkgutil:{number}:{way}", (way,))


def _chains(made, kills, key):
    """Pairs of kills; the run that follows a killed one is short or long, so the second number is anything."""
    changes = made.outcome.counts["change"]
    for point in kills:
        second = 1 + _rank(key, point.text) % changes
        yield Point("chain", f"{point.text}+change:{second}:before", point.likeness)


def _undoing(made, kills):
    if made.command in ("prepare-move", "commit-move") and made.outcome.status == 0:
        for point in kills:
            yield Point("back", point.text + "/back", point.likeness)


def all_points(made, key):
    """Every point of a scenario."""
    points = list(_call_points(made.outcome.calls)) + list(_kill_after_last(made.outcome.calls))
    points += [Point("short", "change:1:shorts", ("shorts",)), Point("short", "access:1:shorts", ("shorts",))]
    kills = [point for point in points if point.family == "kill"]
    points += list(_pkgutil_points(made.outcome.calls))
    points += list(_chains(made, kills, key)) + list(_undoing(made, kills))
    return points


def _rank(key, text):
    return int.from_bytes(hashlib.sha256(f"{key} {text}".encode()).digest()[:8], "big")


def choose(made, limits, seed):
    """Returns the points of a scenario that a campaign takes: of each family at most `limits` says (no limit
    means all, no entry none), first one of every likeness, and otherwise as the random numbers will have it."""
    key = f"{seed} {made.name}"
    families = {}
    for point in all_points(made, key):
        families.setdefault(point.family, []).append(point)
    chosen = []
    for family, points in families.items():
        if family not in limits:
            continue
        points.sort(key=lambda point: _rank(key, point.text))
        first, rest, seen = [], [], set()
        for point in points:
            (rest if point.likeness in seen else first).append(point)
            seen.add(point.likeness)
        chosen += (first + rest)[:limits[family]]
    return chosen
