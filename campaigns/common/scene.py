"""Scenes: what lies in both scopes and in the receipt databases, kept in memory and put back quickly."""

import os
import stat
from dataclasses import dataclass

from common import products

ROOTS = (products.HOME, "/Library", "/var/db/receipts")
AROUND = ("/", "/Users", "/Users/other", "/Users/other/Library", "/var/db")
LONG_AGO = 1_600_000_000 * 10**9


@dataclass(frozen=True)
class Entry:
    """One directory, file or link. `content` is None for a directory, bytes for a file, text for a link."""

    mode: int
    uid: int
    gid: int
    content: object


_contents = {}  # long contents, each kept once: hundreds of scenes hold the same ones


def _entry(path):
    status = os.lstat(path)
    if stat.S_ISREG(status.st_mode):
        with open(path, "rb") as file:
            content = file.read()
        if len(content) > 4096:
            content = _contents.setdefault(content, content)
    elif stat.S_ISLNK(status.st_mode):
        content = os.readlink(path)
    else:
        content = None
    return Entry(status.st_mode, status.st_uid, status.st_gid, content)


def _walk(path, found):
    found[path] = _entry(path)
    if stat.S_ISDIR(found[path].mode):
        for name in sorted(os.listdir(path)):
            _walk(path + "/" + name, found)


def capture():
    """Returns everything below the roots, by absolute path, parents before what they hold."""
    found = {}
    for root in ROOTS:
        _walk(root, found)
    return found


def _clear(directory):
    with os.scandir(directory) as entries:
        for entry in entries:
            if entry.is_dir(follow_symlinks=False):
                _clear(entry.path)
                os.rmdir(entry.path)
            else:
                os.unlink(entry.path)


def put(path, entry):
    """Creates one entry in a place where there is nothing yet, unless both are directories."""
    if entry.content is None:
        try:
            os.mkdir(path)
        except FileExistsError:
            pass
    elif isinstance(entry.content, str):
        os.symlink(entry.content, path)
        os.lchown(path, entry.uid, entry.gid)
        return
    else:
        descriptor = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL)
        os.write(descriptor, entry.content)
        os.close(descriptor)
    os.chown(path, entry.uid, entry.gid)
    os.chmod(path, stat.S_IMODE(entry.mode))
    os.utime(path, ns=(LONG_AGO, LONG_AGO))


def restore(scene):
    """Makes the disk look exactly like `scene`."""
    for root in ROOTS:
        _clear(root)
    for path, entry in scene.items():
        put(path, entry)


def transform(present, wanted):
    """Makes the disk look exactly like `wanted`; `present` is what it looks like. Touches nothing that stays."""
    for path in reversed(present):
        if present[path] == wanted.get(path) or _both_directories(present[path], wanted.get(path)):
            continue
        if stat.S_ISDIR(present[path].mode):
            os.rmdir(path)
        else:
            os.unlink(path)
    for path, entry in wanted.items():
        if present.get(path) != entry:
            put(path, entry)


def _both_directories(one, other):
    return other is not None and stat.S_ISDIR(one.mode) and stat.S_ISDIR(other.mode)


def fingerprints(paths):
    """Returns what tells whether these files and directories were touched at all, also if they were put back."""
    result = {}
    for path in paths:
        status = os.lstat(path)
        result[path] = (status.st_ino, status.st_mode, status.st_uid, status.st_gid, status.st_size,
                        status.st_nlink, status.st_mtime_ns, status.st_ctime_ns)
    return result


def touched(before):
    """Returns which of the files are not as they were when `before` was taken."""
    gone = []
    for path, fingerprint in before.items():
        try:
            if fingerprints([path])[path] != fingerprint:
                gone.append(path)
        except FileNotFoundError:
            gone.append(path)
    return gone


def differences(expected, found):
    """Returns one line for each path that differs; both are scenes."""
    lines = []
    for path in sorted(expected.keys() | found.keys()):
        one, other = expected.get(path), found.get(path)
        if one == other:
            continue
        if other is None:
            lines.append("missing: " + path)
        elif one is None:
            lines.append("unexpected: " + path)
        else:
            lines.append(f"different: {path}: {_describe(one, other)}")
    return lines


def _describe(one, other):
    words = []
    if one.mode != other.mode:
        words.append(f"mode {one.mode:o}, found {other.mode:o}")
    if (one.uid, one.gid) != (other.uid, other.gid):
        words.append(f"owner {one.uid}:{one.gid}, found {other.uid}:{other.gid}")
    if one.content != other.content:
        words.append(f"content {_short(one.content)}, found {_short(other.content)}")
    return "; ".join(words)


def _short(content):
    text = repr(content)
    return text if len(text) <= 120 else text[:120] + f"... ({len(content)})"
