"""Installed products, descriptors and plans of any size, inside a rehearsal root."""

import hashlib
import os
import shutil
from dataclasses import dataclass, field
from pathlib import Path

HOME = Path("/Users/player")
PLAYER = 501
SUPPORT = "Library/Application Support/Tamarind Pelican"
MAINTENANCE = f"{SUPPORT}/Maintenance"
COMMON_PATHS = [f"{SUPPORT}/TamarindPelicanMaintenance", f"{SUPPORT}/TamarindPelicanUpdater"]
PREFIX = "com.tamarindpelican.pkg."
RECEIPTS = {"system": Path("/var/db/receipts"), "user": HOME / "Library/Receipts"}
ROOT = {"system": Path("/"), "user": HOME}
LOG = Path("/var/log/pkgutil-stand-in.log")
CHUNK = 1 << 20
POOL = os.urandom(CHUNK)


def content(size, seed):
    """Pieces of `size` bytes that differ between seeds and cannot be compressed or shared."""
    position = 0
    while position < size:
        mark = f"{seed}:{position}:".encode()
        piece = (mark + POOL)[: min(CHUNK, size - position)]
        yield piece
        position += len(piece)


@dataclass
class File:
    path: str
    size: int
    seed: str
    digest: str = ""

    def write(self, root):
        place = root / self.path
        place.parent.mkdir(parents=True, exist_ok=True)
        digest = hashlib.sha256()
        with open(place, "wb") as out:
            for piece in content(self.size, self.seed):
                out.write(piece)
                digest.update(piece)
        self.digest = digest.hexdigest()
        place.chmod(0o644)


@dataclass
class Package:
    identifier: str
    product: str
    version: str
    files: list = field(default_factory=list)

    def register(self, scope):
        paths = set()
        for file in self.files:
            parts = file.path.split("/")
            paths.update("/".join(parts[:n]) for n in range(1, len(parts) + 1))
        lines = [f"version={self.version}", "location=/", "install-time=1688011857"]
        RECEIPTS[scope].mkdir(parents=True, exist_ok=True)
        text = "\n".join(lines + [f"path={path}" for path in sorted(paths)]) + "\n"
        (RECEIPTS[scope] / f"{self.identifier}.receipt").write_text(text)


def common(revision="7"):
    files = [File(path, 4096, path) for path in COMMON_PATHS]
    return Package(f"{PREFIX}common", "common", revision, files)


def product(name, version, files, size):
    """The two packages of a product with `files` files in all, of `size` bytes together."""
    packages = []
    share = size // files
    rest = size - share * files
    for kind, bundle in (("vst3", f"Library/Audio/Plug-Ins/VST3/Tamarind Pelican/TP {name}.vst3"),
                         ("au", f"Library/Audio/Plug-Ins/Components/TP {name}.component")):
        count = files - files // 2 if kind == "vst3" else files // 2
        members = []
        for number in range(count):
            extra = rest if kind == "vst3" and number == 0 else 0
            members.append(File(f"{bundle}/{number // 100}/{number % 100}", share + extra, f"{name}{kind}{number}{version}"))
        packages.append(Package(f"{PREFIX}{name}.{kind}", name, version, members))
    return packages


def clear():
    """Back to a root without anything of the maker."""
    for root in ROOT.values():
        shutil.rmtree(root / "Library/Audio", ignore_errors=True)
        shutil.rmtree(root / SUPPORT, ignore_errors=True)
    shutil.rmtree(RECEIPTS["user"], ignore_errors=True)
    for receipt in RECEIPTS["system"].glob(f"{PREFIX}*"):
        receipt.unlink()
    for root in ROOT.values():
        (root / MAINTENANCE / "Inbox").mkdir(parents=True, exist_ok=True)
    own()


def own():
    """Gives everything in the home to its account."""
    for directory, names, files in os.walk(HOME):
        for name in [".", *names, *files]:
            os.lchown(os.path.join(directory, name), PLAYER, 20)


def install(scope, packages):
    for package in packages:
        for file in package.files:
            file.write(ROOT[scope])
        package.register(scope)
    if scope == "user":
        own()


def publish(identifier, scope, packages, source="none", decision="none", listed=None):
    """Puts a descriptor into the scope's inbox; `listed` limits the files that it names of each package."""
    products = {package.product: package.version for package in packages if package.product != "common"}
    lines = ["schema=tamarind.pelican.macos-maintenance.v2", "sku=bench", "packageRevision=7",
             f"sourceScope={source}", f"targetScope={scope}", f"decision={decision}"]
    lines += [f"product={name}\t-\t{version}" for name, version in products.items()]
    for package in packages:
        for file in package.files[:listed]:
            lines.append(f"target={package.product}\t{package.identifier}\t{package.version}\t{file.path}\t{file.digest}")
    place = ROOT[scope] / MAINTENANCE / "Inbox" / f"{identifier}.tpmt"
    text = "\n".join(lines) + "\n"
    place.write_text(text)
    place.chmod(0o600)
    if scope == "user":
        os.chown(place, PLAYER, 20)
    return len(text)


def plan(packages, limit=1048576):
    """A plan of these packages; files of the last component before the shared one are dropped beyond `limit`."""
    products = {package.product: package.version for package in packages if package.product != "common"}
    lines = ["schema=tamarind.pelican.macos-maintenance-plan.v1", "sku=bench", "packageRevision=7"]
    lines += [f"product={name}\t{version}" for name, version in products.items()]
    for index, package in enumerate(packages):
        lines.append(f"component={index}\t{package.product}\t{package.identifier}\t{package.version}")
        for file in sorted(package.files, key=lambda file: file.path):
            lines.append(f"target={index}\t{file.path}\t{file.digest or hashlib.sha256(file.path.encode()).hexdigest()}")
    return "\n".join(lines) + "\n"
