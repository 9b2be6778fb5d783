"""What must stand on disk and in the receipts of one scope: told by the story, compared with what is there."""

import json
import os
import stat
import subprocess
import sys
from dataclasses import dataclass, field

import disk
from samples import PLAN, PREFIX, SUPPORT, TOOL, UPDATER
from stage import HOME

MAINTENANCE = f"{SUPPORT}/Maintenance"
INDEX = f"{SUPPORT}/installed-products.json"
VARIES = None  # a group or a content that the story does not foretell

KINDS = {"vst3": "VST3 plug-in", "au": "Audio Unit"}
HOST = """
import ctypes, sys
module = ctypes.CDLL(sys.argv[1])
module.pluginName.restype = module.pluginVersion.restype = ctypes.c_char_p
print(module.pluginName().decode(), module.pluginVersion().decode())
"""


@dataclass
class Scope:
    """The expected state of one scope. The story changes it as it goes on."""

    name: str
    workshop: object
    installed: dict = field(default_factory=dict)  # product to release
    shared: object = None  # the release whose shared package is installed
    planned: object = None  # the release whose plan lies beside the tool
    inbox: list = field(default_factory=list)
    completed: list = field(default_factory=list)
    pending: bool = False
    job: bool = False  # whether the finishing job of an installation lies ready
    active: str = ""  # identifier of the transaction that holds the lease
    bookkeeping: bool = False  # whether the tool has ever worked here
    differing: dict = field(default_factory=dict)  # relative path to (mode, SHA-256) of what is not as packaged
    indexed: dict = None  # product to version, where the index lags behind what is installed
    recorded: dict = None  # the same for the product records
    transactions: list = field(default_factory=list)

    @property
    def root(self):
        return HOME if self.name == "user" else ""

    @property
    def owner(self):
        return (501, 20) if self.name == "user" else (0, 0)

    def check(self, stage):
        """Compares files, owners, modes, contents and receipts with what is expected."""
        found = disk.scan(f"{self.root}/Library")
        files = {self.relative(path): entry for path, entry in found.items() if not entry.is_directory}
        actual = {path: describe(entry) for path, entry in files.items() if self.is_ours(path)}
        wanted = self.files()
        for path, expected in wanted.items():
            if path in actual:
                actual[path] = tuple(VARIES if want is VARIES else have
                                     for have, want in zip(actual[path], expected))
        stage.expect(f"paths of files in the {self.name} scope", sorted(actual), sorted(wanted))
        for path in sorted(wanted):
            stage.expect(f"owner, mode and content of {path} in the {self.name} scope", actual[path], wanted[path])
        for path, entry in found.items():
            if entry.is_directory and self.is_ours(self.relative(path)):
                stage.expect(f"owner and mode of {path}", (entry.uid, stat.S_IMODE(entry.mode)),
                             (self.owner[0], self.directory_mode(path)))
        stage.expect(f"receipts of the {self.name} scope", self.registered(), self.receipts())

    def relative(self, path):
        return os.path.relpath(path, self.root or "/")

    def is_ours(self, path):
        return path.startswith(("Library/Audio", SUPPORT))

    def directory_mode(self, path):
        return 0o700 if os.path.dirname(path).endswith("/Transactions") else 0o755

    def files(self):
        """Relative path to (uid, gid, mode, SHA-256)."""
        files = {}
        for product, release in self.installed.items():
            for package, word, version in release.components:
                if word == product:
                    self.add_packaged(files, self.workshop.files(package, version))
        if self.shared is not None:
            self.add_packaged(files, self.workshop.files(f"{PREFIX}common", self.shared.revision))
        if self.planned is not None:
            self.add(files, PLAN, 0o644, text=self.workshop.plan(self.planned))
        if self.bookkeeping:
            self.add_bookkeeping(files)
        if self.job:
            for name, mode in {"finish-installation": 0o755, "installation.sh": 0o755, "placed": 0o644,
                               "settings": 0o644}.items():
                self.add(files, f"{SUPPORT}/Finishing/{name}", mode)
        for path, (mode, digest) in self.differing.items():
            files[path] = (self.owner[0], VARIES, mode, digest)
        return files

    def add_packaged(self, files, packaged):
        for path, digest in packaged.items():
            is_program = "/MacOS/" in path or path in (TOOL, UPDATER)
            files[path] = (*self.owner, 0o755 if is_program else 0o644, digest)

    def add(self, files, path, mode, text=VARIES):
        # The tool leaves the group of what it writes to the system, which takes that of the directory on macOS
        # and that of the process on Linux.
        files[path] = (self.owner[0], VARIES, mode, VARIES if text is VARIES else text_digest(text))

    def add_bookkeeping(self, files):
        self.add(files, f"{MAINTENANCE}/maintenance.lock", 0o600)
        for descriptor in self.inbox:
            self.add(files, f"{MAINTENANCE}/Inbox/{descriptor}.tpmt", 0o600)
        for transaction in self.completed:
            self.add(files, f"{MAINTENANCE}/Completed/{transaction}.record", 0o600)
        if self.pending:
            self.add(files, f"{MAINTENANCE}/PendingInstall", 0o600)
        if self.active:
            self.add(files, f"{MAINTENANCE}/ActiveTransaction", 0o600)
        for transaction in self.transactions:
            self.add_transaction(files, f"{MAINTENANCE}/Transactions/{transaction}")
        versions = {product: release.version for product, release in self.installed.items()}
        recorded = versions if self.recorded is None else self.recorded
        for product, version in recorded.items():
            self.add(files, f"{MAINTENANCE}/Products/{product}.record", 0o600,
                     f"product={product}\nversion={version}\n")
        indexed = versions if self.indexed is None else self.indexed
        if indexed:
            self.add(files, INDEX, 0o600, self.index_text(indexed))

    def add_transaction(self, files, directory):
        """Takes over what is in a transaction's directory: the story looks at it from outside only."""
        for path, entry in disk.scan(f"{self.root}/{directory}").items():
            if not entry.is_directory:
                self.add(files, self.relative(path), 0o600)

    def index_text(self, versions):
        products = [{"productId": product, "scope": self.name, "version": versions[product]}
                    for product in sorted(versions)]
        index = {"products": products, "schema": "tamarind.pelican.installed-products.v1"}
        return json.dumps(index, separators=(",", ":")) + "\n"

    def receipts(self):
        receipts = {}
        for product, release in self.installed.items():
            receipts[f"{PREFIX}{product}.vst3"] = release.version
            receipts[f"{PREFIX}{product}.au"] = release.version
        if self.shared is not None:
            receipts[f"{PREFIX}common"] = self.shared.revision
        return receipts

    def registered(self):
        """The maker's packages that pkgutil knows in this scope, with their versions."""
        listing = self.pkgutil("--pkgs")
        receipts = {}
        for package in [line for line in listing.splitlines() if line.startswith(PREFIX)]:
            lines = self.pkgutil("--pkg-info", package).splitlines()
            receipts[package] = [line.removeprefix("version: ") for line in lines if line.startswith("version: ")][0]
        return receipts

    def pkgutil(self, *words):
        command = ["/usr/sbin/pkgutil", "--volume", self.root or "/", *words]
        return subprocess.run(command, capture_output=True, text=True, check=False).stdout

    def load(self, stage, release):
        """Does what a host does: loads both installed shared objects and asks for name and version."""
        stage.say("")
        for kind, bundle in release.bundles.items():
            path = f"{self.root}/{bundle}/Contents/MacOS/{release.name}"
            host = subprocess.run([sys.executable, "-c", HOST, path], capture_output=True, text=True, check=False)
            said = (host.stdout + host.stderr).strip()
            stage.say(f"A host loads the {KINDS[kind]}, which says: {said}")
            stage.expect("what the plug-in says", said, f"{release.name} {release.version}")


def describe(entry):
    return (entry.uid, entry.gid, stat.S_IMODE(entry.mode), entry.content)


def text_digest(text):
    return disk.hashlib.sha256(text.encode()).hexdigest()
