"""What no attacked run may change or give away, and the comparison after the run."""

import hashlib
import os
import re
import stat
import subprocess

from common import installation, products

from attack import decoys, runs

HOME = products.HOME
SECRET = re.compile(b"[\xf5-\xff]")
SEARCHED = ("/Users", "/Library", decoys.PRIVATE, "/run", "/var/db", "/var/neighbour", "/dev/shm")
NAME = "(?:TP [A-Za-z0-9._ -]+|Mangrove Reverb)"    # of the maker's products
BUNDLES = re.compile(f"(?:{products.VST3}/{NAME}\\.vst3|{products.COMPONENTS}/{NAME}\\.component)(?:/.*)?")
BUNDLE = re.compile(f"{NAME}\\.(?:vst3|component)|Tamarind Pelican")
MAKERS_FILES = re.compile(f"{products.SUPPORT}(?:|/installed-products\\.json|/\\.installed-products\\.json\\.new\\..*"
                          "|/TamarindPelican(?:Maintenance|Updater)|/\\.TamarindPelican.*\\.new\\..*|/Maintenance(?:/.*)?)")
WAYS = {"Library", "Library/Application Support", "Library/Audio", "Library/Audio/Plug-Ins",
        "Library/Audio/Plug-Ins/VST3", products.VST3, products.COMPONENTS}

# Files of others beside the products and elsewhere: (path, content, owner, mode). None: secret bytes.
NEIGHBOURS = (
    ("/etc/neighbour.conf", b"setting=1\n", (0, 0), 0o644),
    ("/etc/neighbour.key", None, (0, 0), 0o600),
    ("/root/neighbour", None, (0, 0), 0o600),
    ("/var/neighbour/state", b"state\n", (0, 0), 0o644),
    ("/var/neighbour/secret", None, (0, 0), 0o600),
    ("/Library/Neighbour/state", b"state\n", (0, 0), 0o644),
    ("/Library/Application Support/Neighbour/secret", None, (0, 0), 0o600),
    ("/Library/Audio/Plug-Ins/Components/Neighbour.component/Contents/Info.plist", b"neighbour\n", (0, 0), 0o644),
    ("/Users/other/Library/Preferences/secret", None, (502, 20), 0o600),
    ("/Users/other/Documents/letter", b"letter\n", (502, 20), 0o644),
)
SWEPT = ("/etc", "/root", "/var", "/usr/bin", "/usr/sbin", "/usr/local", "/opt", "/home")  # now and then
SWEPT_LEVELS = 3    # a machine's /root can hold whole toolchains
GUARDED = (decoys.PRIVATE, "/Users/other", "/var/neighbour")    # with everything in them
GUARDED_LISTINGS = ("/", "/etc", "/root", "/var", "/var/db", "/Users", "/opt", "/tmp")
FIRST_SHOWN_INODE = 1 << 62     # of the machine's own files, which the root only shows
PRODUCT_FILES = {content for product in (*products.ALPHA.values(), products.BETA) for package in product.packages
                 for content in package.files.values()}


def _content_of(path):
    with open(path, "rb") as file:
        return file.read()


def fingerprint(path):
    """What tells whether anybody but its owner has had a hand in it. Links of a file come and go in the home, so
    neither their number nor the time of the last change of status counts."""
    status = os.lstat(path)
    text = (status.st_ino, status.st_mode, status.st_uid, status.st_gid)
    if stat.S_ISREG(status.st_mode):
        return text + (status.st_size, status.st_mtime_ns, hashlib.sha256(_content_of(path)).hexdigest())
    if stat.S_ISDIR(status.st_mode):
        return text + tuple(sorted(os.listdir(path)))
    if stat.S_ISLNK(status.st_mode):
        return text + (os.readlink(path),)
    return text


def _walk(path, visit):
    visit(path)
    if stat.S_ISDIR(os.lstat(path).st_mode):
        for name in sorted(os.listdir(path)):
            _walk(path + "/" + name, visit)


def _own_names(directory):
    """What was made in a directory of the rehearsal root, and not only shows through from the machine."""
    with os.scandir(directory) as entries:
        return {entry.name for entry in entries if entry.inode() < FIRST_SHOWN_INODE}


def place_neighbours():
    """Puts the files of others in place; those in /Library and the home vanish with every scene."""
    for path, content, owner, mode in NEIGHBOURS:
        if os.path.lexists(path):
            continue
        directory = os.path.dirname(path)
        if not os.path.isdir(directory):
            os.makedirs(directory)
            os.chown(directory, *owner)
        decoys.make_file(path, decoys.secret(0) if content is None else content, owner, mode)


def is_makers(relative):
    """Tells whether a path relative to a scope's root is one of the products' and the tool's fixed places."""
    return bool(MAKERS_FILES.fullmatch(relative) or BUNDLES.fullmatch(relative)) \
        and relative not in installation.BYSTANDERS


class Guard:
    """Remembers everything before a run and finds what is wrong after it."""

    def __init__(self, planted, bystanders):
        self._outside = {}
        for path, *_ in NEIGHBOURS:
            self._remember(path)
        self._listings = {path: _own_names(path) for path in GUARDED_LISTINGS}
        self._system = self._library()
        self._strict = {}   # by inode: what must be there afterwards, and unchanged
        self._loose = {}    # by inode: what may be gone, but not changed
        self._names = {}    # by inode of a directory: the names that must stay in it, and those that may
        self.add(planted)
        for path in bystanders:
            self._strict[os.lstat(path).st_ino] = (path, fingerprint(path))
        self._owners = {}   # by inode, of everything in the home
        _walk(HOME, lambda path: self._owners.__setitem__(os.lstat(path).st_ino, os.lstat(path).st_uid))

    def add(self, planted):
        """Remembers decoys, also those that were made while the run stands still."""
        for directory in GUARDED:
            _walk(directory, self._remember)
        for path in planted:
            self._remember_planted(path)

    def _remember(self, path):
        self._outside[path] = fingerprint(path)

    def _remember_planted(self, path, removable=True):
        """What lies in a directory of the account, or in one that all may write to, is the account's to remove;
        what lies in any other directory is not, and neither is a directory with such things in it. But a file with
        a product's bytes at a product's place is the product, whoever owns its directory. Returns whether there is
        something that has to stay."""
        status = os.lstat(path)
        stays = not removable and not self._is_product(path, status)
        known = fingerprint(path)
        if stat.S_ISDIR(status.st_mode):
            known = known[:4]
            names = os.listdir(path)
            is_open = bool(status.st_mode & stat.S_IWOTH)
            staying = {name for name in names if self._remember_planted(path + "/" + name, is_open)}
            stays = stays or bool(staying)
            if not is_open:
                self._names[status.st_ino] = (staying, set(names))
        (self._strict if stays else self._loose)[status.st_ino] = (path, known)
        return stays

    @staticmethod
    def _is_product(path, status):
        return stat.S_ISREG(status.st_mode) and not path.startswith(f"{HOME}/{products.SUPPORT}/") \
            and _content_of(path) in PRODUCT_FILES

    @staticmethod
    def _library():
        found = {}
        _walk("/Library", lambda path: found.__setitem__(path, fingerprint(path)))
        return found

    def faults(self, products_at_system):
        """Returns a line for everything that is not as it has to be. `products_at_system` holds the contents that
        the products' files in the system scope may have; None where the run had no business there."""
        lines = []
        for path, before in self._outside.items():
            lines += self._compare(path, before)
        for path, before in self._listings.items():
            for name in sorted(_own_names(path) ^ before):
                lines.append(f"created or removed outside: {path.rstrip('/')}/{name}")
        lines += self._system_faults(products_at_system)
        lines += self._home_faults()
        return lines

    @staticmethod
    def _compare(path, before):
        try:
            now = fingerprint(path)
        except FileNotFoundError:
            return [f"removed outside: {path}"]
        return [] if now == before else [f"changed outside: {path}: {before}, now {now}"]

    def _system_faults(self, allowed):
        lines = []
        now = self._library()
        for path in sorted(self._system.keys() | now.keys()):
            before, after = self._system.get(path), now.get(path)
            relative = path[1:]
            if after is not None and after[2] != 0:
                lines.append(f"given away in the system scope: {path} to {after[2]}")
            if before == after:
                continue
            if allowed is not None and relative in WAYS and after is not None and stat.S_ISDIR(after[1]):
                continue
            if allowed is None or not is_makers(relative):
                lines.append(f"changed in the system scope: {path}: {before}, now {after}")
            elif after is not None and stat.S_ISREG(after[1]) and not relative.startswith(products.MAINTENANCE) \
                    and not relative.endswith("installed-products.json") and _content_of(path) not in allowed:
                lines.append(f"foreign bytes in the system scope: {path}")
        return lines

    def _has_right_names(self, path, status):
        """Products may go from, and come back to, a directory at their place; any other keeps just its names."""
        if status.st_ino not in self._names:
            return True
        staying, names = self._names[status.st_ino]
        now = set(os.listdir(path))
        return staying <= now and (staying != names or all(BUNDLE.fullmatch(name) for name in now - names))

    def _home_faults(self):
        lines = []
        seen = set()

        def visit(path):
            status = os.lstat(path)
            seen.add(status.st_ino)
            known = self._strict.get(status.st_ino) or self._loose.get(status.st_ino)
            if known:
                now = fingerprint(path)[:len(known[1])]
                if now != known[1] or not self._has_right_names(path, status):
                    lines.append(f"another's, changed in the home: {known[0]}: {known[1]}, now {now}")
                return
            if status.st_uid != self._owners.get(status.st_ino, runs.ACCOUNT):
                lines.append(f"wrongly owned in the home: {path}, owner {status.st_uid}")
            if stat.S_ISREG(status.st_mode) and SECRET.search(_content_of(path)):
                lines.append(f"secret bytes of {decoys.origin_of(_content_of(path))} in the home: {path}")

        _walk(HOME, visit)
        for inode, (path, _) in self._strict.items():
            if inode not in seen:
                lines.append(f"another's, removed in the home: {path}")
        return lines


def search_as_account():
    """Returns a line for each file in which the account can read secret bytes."""
    done = subprocess.run([runs.ATTACKER, "--search", *SEARCHED], stdin=subprocess.DEVNULL, capture_output=True,
                          check=True, user=runs.ACCOUNT, group=runs.STAFF, extra_groups=[], cwd="/")
    return ["readable for the account: " + line.split("\t")[1]
            for line in done.stdout.decode("utf-8", "replace").splitlines()]


MESSAGE = re.compile("[\x20-\x7e]+\n")


def ending_faults(words, outcome):
    """Returns a line for everything that is wrong with how a run ended."""
    if outcome.ended != "exit":
        return [f"the run {outcome.ended} {outcome.status}"]
    lines = []
    stderr = outcome.stderr.decode("latin-1")
    if outcome.status == 0:
        expected = {"begin-install": b"[a-z0-9-]{1,128}\n", "inspect": b'{"status":"[a-z-]+"}\n'}.get(words[0], b"")
        if stderr or not re.fullmatch(expected, outcome.stdout):
            lines.append(f"success with other output: {outcome.says()}")
    elif outcome.status not in (65, 66, 70):
        lines.append(f"status {outcome.status}: {outcome.says()}")
    elif not MESSAGE.fullmatch(stderr) or outcome.stdout:
        lines.append(f"no one-line message: {outcome.stdout + outcome.stderr!r}")
    return lines


def changed_since(moment):
    """Returns what was changed in the system's directories since `moment` (of the file system's clock, in
    nanoseconds), besides what the campaign itself changes there."""
    own = {"/var/db/receipts", runs.TOOLS, runs.PKGUTIL_RULES, runs.PKGUTIL_LOG, *GUARDED}
    lines = []

    def visit(directory, levels):
        with os.scandir(directory) as entries:
            for entry in entries:
                if entry.path in own:
                    continue
                is_own = entry.inode() < FIRST_SHOWN_INODE
                if is_own and entry.stat(follow_symlinks=False).st_ctime_ns >= moment:
                    lines.append("changed somewhere else: " + entry.path)
                if levels > 1 and entry.is_dir(follow_symlinks=False):
                    visit(entry.path, levels - 1)

    for directory in SWEPT:
        visit(directory, SWEPT_LEVELS)
    return lines
