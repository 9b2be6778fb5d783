"""What attackers put in the place of a file or directory of the user scope.

A decoy is made from what stands in the place, so that a run that takes it for the real thing finds the names that
it looks for: behind a link, the same tree belongs to root or to another account, with secret bytes or with the same
ones. Secrets consist of bytes that occur nowhere else in what the campaign searches."""

import os
import random
import re
import shutil
import socket
import stat

from common import products

from attack import runs

HOME = products.HOME
YARD = HOME + "/Yard"               # the account's own hoard of decoys
PRIVATE = "/private"                # on the home's file system, so that hard links can lead there
VAULT = PRIVATE + "/vault"          # root's, nobody else can look into it
TWINS = PRIVATE + "/twins"          # root's, readable for all
OTHER = "/Users/other/twins"        # another account's, readable for all but for the secret files in it
OTHER_ACCOUNT = 502
RECEIPTS = HOME + "/Library/Receipts"
SECRET_BYTES = bytes(range(0xF5, 0x100))
LEAST_SECRET = 64
MARK = "decoy-"     # what the names of decoys begin with

# In the place of anything. "root-..." and "other-..." belong to that account though they lie in the home.
LINKS = ("link-vault", "link-twin", "link-other", "link-nowhere", "link-etc")
FILE_KINDS = LINKS + ("hard-vault", "hard-twin", "hard-own", "pipe", "socket", "directory", "copy", "other-bytes",
                      "longer", "empty", "root-secret", "root-twin", "other-secret", "away")
DIRECTORY_KINDS = LINKS + ("pipe", "socket", "file", "directory", "copy", "wide", "root-twin", "root-closed",
                           "root-group", "root-open", "carrier", "other-twin", "away")
# Nothing is exchanged: what stands in the place is itself disturbed.
DEEDS = ("do-append", "do-overwrite", "do-shorten", "do-lengthen", "do-link", "do-open-mode", "do-close-mode")


def kinds_for(mode):
    """The decoys and deeds for a place with that type, or for one where nothing stands."""
    if mode is None:
        return LINKS + ("pipe", "socket", "directory", "empty", "root-secret", "root-directory", "carrier")
    if stat.S_ISDIR(mode):
        return DIRECTORY_KINDS + ("do-open-mode", "do-close-mode")
    return FILE_KINDS + DEEDS


_origins = {}   # of secrets, by their first bytes
WORD = 16


def secret(size, origin="a neighbour"):
    """Secret bytes, as many as given and a few at least; `origin` says in a report where they were."""
    word = bytes(random.choices(SECRET_BYTES, k=WORD))
    _origins[word] = origin
    size = max(size, LEAST_SECRET)
    return (word * (size // len(word) + 1))[:size]


def origin_of(content):
    """Where the secret bytes in `content` come from."""
    found = re.search(b"[\xf5-\xff]{%d}" % WORD, content)
    return _origins.get(found[0], "somewhere") if found else "somewhere"


def mode_of(path):
    """The mode of what stands at a path, or None."""
    try:
        return os.lstat(path).st_mode
    except OSError:
        return None


def _size_of(path):
    mode = mode_of(path)
    return os.lstat(path).st_size if mode is not None and stat.S_ISREG(mode) else 0


def _bytes_of(path):
    mode = mode_of(path)
    if mode is None or not stat.S_ISREG(mode):
        return b"decoy\n"
    with open(path, "rb") as file:
        return file.read()


def make_file(path, content, owner, mode):
    with open(path, "xb") as file:
        file.write(content)
    os.chown(path, *owner)
    os.chmod(path, mode)


def make_directory(path, owner, mode):
    os.mkdir(path)
    os.chown(path, *owner)
    os.chmod(path, mode)


ROOT, PLAYER, STRANGER = (0, 0), (runs.ACCOUNT, runs.STAFF), (OTHER_ACCOUNT, runs.STAFF)


def copy_tree(source, target, owner, modes, secrets):
    """Makes a tree with the names of `source`, for directories and files the given modes. The package database of
    the home is left out: whoever changes that decides what is installed, which is another matter. So are decoys."""
    mode = mode_of(source)
    if mode is None or not (stat.S_ISDIR(mode) or stat.S_ISREG(mode)):
        make_directory(target, owner, modes[0])
        return
    if stat.S_ISREG(mode):
        make_file(target, secret(_size_of(source), target) if secrets else _bytes_of(source), owner, modes[1])
        return
    make_directory(target, owner, modes[0])
    for name in sorted(os.listdir(source)):
        if source + "/" + name not in (RECEIPTS, YARD) and not name.startswith(MARK):
            copy_tree(source + "/" + name, target + "/" + name, owner, modes, secrets)


class Maker:
    """Makes decoys, and knows which objects in the home have to stay as they are."""

    def __init__(self):
        self._serial = 0
        self.planted = []   # paths of other owners' objects in the home

    def _new(self, directory):
        self._serial += 1
        return f"{directory}/{MARK}{self._serial}"

    def make(self, kind, place):
        """Makes a decoy for `place` and returns its path; None where there is nothing to make."""
        if kind == "away":
            return self._new(YARD)
        if kind.startswith("link-"):
            return self._link(kind, place)
        if kind.startswith("hard-"):
            return self._hard_link(kind, place)
        return getattr(self, "_" + kind.replace("-", "_"))(place)

    def _link(self, kind, place):
        targets = {"link-vault": lambda: self._mirror(VAULT, place, ROOT, (0o700, 0o600), True),
                   "link-twin": lambda: self._mirror(TWINS, place, ROOT, (0o755, 0o644), False),
                   "link-other": lambda: self._mirror(OTHER, place, STRANGER, (0o755, 0o600), True),
                   "link-nowhere": lambda: self._new(VAULT),
                   "link-etc": lambda: "/etc"}
        path = self._new(YARD)
        os.symlink(targets[kind](), path)
        os.lchown(path, *PLAYER)
        return path

    def _mirror(self, where, place, owner, modes, secrets):
        path = self._new(where)
        mode = mode_of(place)
        if mode is None:
            make_file(path, secret(0, path) if secrets else b"decoy\n", owner, modes[1])
        else:
            copy_tree(place, path, owner, modes, secrets)
        return path

    def _hard_link(self, kind, place):
        path = self._new(YARD)
        if kind == "hard-own":
            make_file(path, _bytes_of(place), PLAYER, 0o644)
            os.link(path, self._new(YARD))
            return path
        where, mode = (VAULT, 0o600) if kind == "hard-vault" else (TWINS, 0o644)
        original = self._new(where)
        make_file(original, secret(_size_of(place), path) if kind == "hard-vault" else _bytes_of(place), ROOT, mode)
        os.link(original, path)
        self.planted.append(path)
        return path

    def _pipe(self, _):
        path = self._new(YARD)
        os.mkfifo(path, 0o666)
        os.chown(path, *PLAYER)
        return path

    def _socket(self, _):
        path = self._new(YARD)
        with socket.socket(socket.AF_UNIX) as made:
            made.bind(path)
        os.chown(path, *PLAYER)
        return path

    def _directory(self, _):
        path = self._new(YARD)
        make_directory(path, PLAYER, 0o755)
        make_file(path + "/something", b"something\n", PLAYER, 0o644)
        return path

    def _file(self, _):
        return self._own(b"no directory\n")

    def _empty(self, _):
        return self._own(b"")

    def _own(self, content):
        path = self._new(YARD)
        make_file(path, content, PLAYER, 0o600)
        return path

    def _other_bytes(self, place):
        content = bytearray(_bytes_of(place))
        if content:
            content[0] ^= 1
        return self._own(bytes(content))

    def _longer(self, place):
        return self._own(_bytes_of(place) + b"x" * 200_000)

    def _copy(self, place):
        return self._copied(place, PLAYER, (0o755, 0o600))

    def _wide(self, place):
        return self._copied(place, PLAYER, (0o777, 0o666))

    def _copied(self, place, owner, modes):
        path = self._new(YARD)
        copy_tree(place, path, owner, modes, False)
        return path

    def _foreign(self, place, where, owner, modes, secrets):
        path = self._new(where)
        copy_tree(place, path, owner, modes, secrets)
        self.planted.append(path)
        return path

    def _beside(self, place, owner, modes, secrets):
        """A tree of another owner beside the place: only there can the account rename it."""
        directory = os.path.dirname(place)
        return self._foreign(place, directory if os.path.isdir(directory) else YARD, owner, modes, secrets)

    def _root_twin(self, place):
        if os.path.isfile(place) and not os.path.islink(place):
            return self._foreign(place, YARD, ROOT, (0o755, 0o644), False)
        return self._beside(place, ROOT, (0o755, 0o644), False)

    def _root_closed(self, place):
        """Files that all may read in directories that only root may enter."""
        return self._closed(place, 0o700, 0o644)

    def _root_group(self, place):
        """The same for root's group."""
        return self._closed(place, 0o770, 0o664)

    def _closed(self, place, directories, files):
        """A file alone has no directory of root's that keeps it from others."""
        if os.path.isfile(place) and not os.path.islink(place):
            return self._root_secret(place)
        return self._beside(place, ROOT, (directories, files), True)

    def _root_open(self, place):
        """Directories of root in which everybody can exchange everything."""
        return self._beside(place, ROOT, (0o777, 0o644), False)

    def _other_twin(self, place):
        return self._beside(place, STRANGER, (0o755, 0o644), False)

    _root_directory = _root_twin

    def _root_secret(self, place):
        path = self._new(YARD)
        make_file(path, secret(_size_of(place), path), ROOT, 0o600)
        self.planted.append(path)
        return path

    def _other_secret(self, place):
        path = self._new(YARD)
        make_file(path, secret(_size_of(place), path), STRANGER, 0o600)
        self.planted.append(path)
        return path

    def _carrier(self, place):
        """A directory of the account that holds, besides what it should, directories of root."""
        path = self._new(YARD)
        if os.path.isdir(place) and not os.path.islink(place):
            copy_tree(place, path, PLAYER, (0o755, 0o600), False)
        else:
            make_directory(path, PLAYER, 0o755)
        for name, mode, content in (("inner", 0o755, b"root's\n"), ("closed", 0o700, secret(0, path + "/closed"))):
            inner = f"{path}/{name}"
            make_directory(inner, ROOT, mode)
            make_file(inner + "/file", content, ROOT, 0o644)
            self.planted.append(inner)
        return path


def clear():
    """Removes every decoy outside the home and makes the hoards anew."""
    os.makedirs(PRIVATE, exist_ok=True)
    for directory, owner, mode in ((VAULT, ROOT, 0o700), (TWINS, ROOT, 0o755), (OTHER, STRANGER, 0o755)):
        shutil.rmtree(directory, ignore_errors=True)
        make_directory(directory, owner, mode)
    if not os.path.isdir(YARD):
        make_directory(YARD, PLAYER, 0o755)
