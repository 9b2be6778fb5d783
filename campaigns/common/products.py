"""The sample products of the campaigns: what is installed, and the texts that describe it."""

import hashlib
from dataclasses import dataclass, field

HOME = "/Users/player"
ACCOUNT = 501
STAFF = 20

SUPPORT = "Library/Application Support/Tamarind Pelican"
MAINTENANCE = SUPPORT + "/Maintenance"
VST3 = "Library/Audio/Plug-Ins/VST3/Tamarind Pelican"
COMPONENTS = "Library/Audio/Plug-Ins/Components"
PREFIX = "com.tamarindpelican.pkg."


def scope_root(scope):
    return HOME if scope == "user" else "/"


def in_scope(scope, relative):
    """The absolute path of a place below a scope's root."""
    return scope_root(scope).rstrip("/") + "/" + relative


def scope_owner(scope):
    """Owner and group of what an installation places in a scope."""
    return (ACCOUNT, STAFF) if scope == "user" else (0, 0)


def receipt_directory(scope):
    return HOME + "/Library/Receipts" if scope == "user" else "/var/db/receipts"


def sha256(content):
    return hashlib.sha256(content).hexdigest()


@dataclass(frozen=True)
class Package:
    """One native package: its files are relative to the scope's root."""

    identifier: str
    version: str
    files: dict = field(hash=False)


@dataclass(frozen=True)
class Product:
    """A product at one version, as its two packages."""

    identifier: str
    version: str
    packages: tuple


def _content(name, version, size):
    line = f"{name} {version}\n".encode()
    return line if size == 0 else (line * (size // len(line) + 1))[:size]


def _bundle(identifier, name, version, dropped):
    """The files of a product's two bundles; version 1 has one that later versions dropped."""
    vst3 = {
        f"{VST3}/{name}.vst3/Contents/Info.plist": _content(name + " plist", version, 0),
        f"{VST3}/{name}.vst3/Contents/MacOS/{name}": _content(name + " program", version, 90000),
    }
    if dropped:
        vst3[f"{VST3}/{name}.vst3/Contents/Resources/Old Preset.txt"] = _content(name + " preset", version, 0)
    au = {f"{COMPONENTS}/{name}.component/Contents/Info.plist": _content(name + " component", version, 0)}
    return Product(identifier, version, (Package(PREFIX + identifier + ".vst3", version, vst3),
                                         Package(PREFIX + identifier + ".au", version, au)))


ALPHA = {version: _bundle("tp-alpha", "TP Alpha", version, version == "1.0") for version in ("1.0", "2.0")}
BETA = _bundle("mangrove-reverb", "Mangrove Reverb", "3.1", False)


def shared(revision):
    """The package that all products share."""
    return Package(PREFIX + "common", revision, {
        SUPPORT + "/TamarindPelicanMaintenance": _content("maintenance", revision, 0),
        SUPPORT + "/TamarindPelicanUpdater": _content("updater", revision, 0),
    })


def plan_text(sku, revision, products):
    """The transaction plan of an installer that carries these products."""
    products = sorted(products, key=lambda product: product.identifier)
    lines = ["schema=tamarind.pelican.macos-maintenance-plan.v1", "sku=" + sku, "packageRevision=" + revision]
    lines += [f"product={p.identifier}\t{p.version}" for p in products]
    components = [(p.identifier, package) for p in products for package in p.packages]
    components.append(("common", shared(revision)))
    for index, (owner, package) in enumerate(components):
        lines.append(f"component={index}\t{owner}\t{package.identifier}\t{package.version}")
        lines += [f"target={index}\t{path}\t{sha256(content)}" for path, content in sorted(package.files.items())]
    return "\n".join(lines) + "\n"


def descriptor_text(source, target, revision, products):
    """A maintenance descriptor that names these products, with the versions that they have."""
    lines = ["schema=tamarind.pelican.macos-maintenance.v2", "sku=suite", "packageRevision=" + revision,
             "sourceScope=" + source, "targetScope=" + target, "decision=none"]
    lines += [f"product={p.identifier}\t{p.version}\t{p.version}" for p in products]
    components = [(p.identifier, package) for p in products for package in p.packages]
    components.append(("common", shared(revision)))
    for owner, package in components:
        lines += [f"target={owner}\t{package.identifier}\t{package.version}\t{path}\t{sha256(content)}"
                  for path, content in sorted(package.files.items())]
    return "\n".join(lines) + "\n"
