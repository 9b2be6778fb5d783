"""Looks at what is on disk, and shows what a command changed there."""

import grp
import hashlib
import os
import pwd
import re
import stat
from collections import Counter
from dataclasses import dataclass, replace

# Changes are listed below the nearest of these directories.
HEADINGS = [
    re.compile(r".*/VST3/Tamarind Pelican/[^/]+\.vst3(?=/|$)"),
    re.compile(r".*/Components/[^/]+\.component(?=/|$)"),
    re.compile(r".*/Application Support/Tamarind Pelican(?=/|$)"),
    re.compile(r".*/[Rr]eceipts(?=/|$)"),
    re.compile(r"(/Users/[^/]+)?/Library(?=/|$)"),
]
IN_TRANSACTION = re.compile(r"(.*/Transactions/[^/]+)/.")


@dataclass(frozen=True)
class Entry:
    """One file, directory or link."""

    mode: int
    uid: int
    gid: int
    size: int
    content: str  # SHA-256 of a file, target of a link, nothing for a directory

    @property
    def is_directory(self):
        return stat.S_ISDIR(self.mode)

    @property
    def mode_text(self):
        return stat.filemode(self.mode)

    @property
    def owner(self):
        return f"{pwd.getpwuid(self.uid).pw_name}:{grp.getgrgid(self.gid).gr_name}"


def scan(*roots):
    """Everything below the roots, by absolute path, the roots themselves left out."""
    entries = {}
    for root in roots:
        for directory, names, files in os.walk(root):
            for name in names + files:
                path = os.path.join(directory, name)
                entries[path] = examine(path)
    return entries


def examine(path):
    status = os.lstat(path)
    content = ""
    if stat.S_ISLNK(status.st_mode):
        content = os.readlink(path)
    elif stat.S_ISREG(status.st_mode):
        with open(path, "rb") as file:
            read = file.read()
        # The time of an installation says nothing about what is installed.
        told = re.sub(rb"^install-time=.*$", b"", read, flags=re.M) if path.endswith(".receipt") else read
        content = hashlib.sha256(told).hexdigest()
    size = 0 if stat.S_ISDIR(status.st_mode) else status.st_size
    return Entry(status.st_mode, status.st_uid, status.st_gid, size, content)


@dataclass(frozen=True)
class Change:
    sign: str  # "+" new, "-" gone, "~" changed
    path: str
    entry: Entry
    note: str = ""


def compare(before, after):
    """The changes that lead from one scan to another, in byte order of the paths."""
    changes = []
    for path in sorted(before.keys() | after.keys()):
        old, new = before.get(path), after.get(path)
        if old is None:
            changes.append(Change("+", path, new))
        elif new is None:
            changes.append(Change("-", path, old))
        elif old != new:
            changes.append(Change("~", path, new, difference(old, new)))
    return changes


def difference(old, new):
    notes = []
    if old.content != new.content:
        notes.append("other content")
    if (old.uid, old.gid) != (new.uid, new.gid):
        notes.append(f"was {old.owner}")
    if old.mode != new.mode:
        notes.append(f"was {old.mode_text}")
    return ", ".join(notes)


def changed_lines(changes):
    """The lines that show changes: headings, and below each what changed there."""
    groups = {}
    for change in fold_transactions(changes):
        groups.setdefault(heading_of(change.path), []).append(change)
    lines = []
    for heading in sorted(groups):
        lines.append(f"  in {heading}")
        lines += [changed_line(heading, change) for change in groups[heading]]
    return lines


def changed_line(heading, change):
    entry = change.entry
    name = os.path.relpath(change.path, heading) + ("/" if entry.is_directory else "")
    size = "" if entry.is_directory else entry.size
    note = f"  ({change.note})" if change.note else ""
    return f"  {change.sign} {entry.mode_text} {entry.owner:<13}{size:>7}  {name}{note}"


def heading_of(path):
    for pattern in HEADINGS:
        match = pattern.match(path)
        if match:
            return match.group(0)
    return os.path.dirname(path)


def fold_transactions(changes):
    """Shows a transaction's directory that came or went as one line, with the number of what was in it."""
    itself = {change.path for change in changes}
    inside = {change.path: match.group(1) for change in changes if (match := IN_TRANSACTION.match(change.path))}
    counts = Counter(inside.values())
    for change in changes:
        if change.path in counts:
            yield replace(change, note=f"with {counts[change.path]} entries")
        elif inside.get(change.path) not in itself:
            yield change
