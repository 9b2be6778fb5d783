"""Makes the sample plug-ins, and the plans, descriptors and packages that a maker would ship for them."""

import hashlib
import os
import shutil
import subprocess
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from pathlib import Path

HERE = Path(__file__).resolve().parent
PACKAGING = HERE.parent / "packaging/macos"
NAMES = {"heron": "TP Heron", "ibis": "TP Ibis"}
PREFIX = "com.tamarindpelican.pkg."

SUPPORT = "Library/Application Support/Tamarind Pelican"
TOOL = f"{SUPPORT}/TamarindPelicanMaintenance"
UPDATER = f"{SUPPORT}/TamarindPelicanUpdater"
PLAN = f"{SUPPORT}/transaction-plan.tpmp"

# The presets that a version of a plug-in brings.
PRESETS = {
    ("heron", "1.0.0"): ["Old Pier", "Still Water"],
    ("heron", "1.1.0"): ["Still Water"],
    ("heron", "1.2.0"): ["Night Tide", "Still Water"],
    ("ibis", "1.0.0"): ["Long Echo"],
}

PROPERTY_LIST = """<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
    <key>CFBundleIdentifier</key><string>com.tamarindpelican.{product}.{kind}</string>
    <key>CFBundleName</key><string>{name}</string>
    <key>CFBundleExecutable</key><string>{name}</string>
    <key>CFBundlePackageType</key><string>BNDL</string>
    <key>CFBundleShortVersionString</key><string>{version}</string>
</dict>
</plist>
"""


@dataclass(frozen=True)
class Release:
    """One installer: a product at a version, together with the shared package at a revision."""

    product: str
    version: str
    revision: str

    @property
    def name(self):
        return NAMES[self.product]

    @property
    def components(self):
        """(package identifier, product word of plans and descriptors, version), in installation order."""
        return [
            (f"{PREFIX}{self.product}.vst3", self.product, self.version),
            (f"{PREFIX}{self.product}.au", self.product, self.version),
            (f"{PREFIX}common", "common", self.revision),
        ]

    @property
    def bundles(self):
        """The two bundles, relative to a scope root."""
        return {
            "vst3": f"Library/Audio/Plug-Ins/VST3/Tamarind Pelican/{self.name}.vst3",
            "au": f"Library/Audio/Plug-Ins/Components/{self.name}.component",
        }


class Workshop:
    """Stages bundles in a directory of its own and builds packages from them with the build's tools."""

    def __init__(self, build, work):
        self.build = Path(build).resolve()
        self.work = Path(work)
        self.work.mkdir(parents=True)

    def tree(self, package, version):
        """Where the payload of a component package is staged."""
        return self.work / f"{package}-{version}"

    def stage(self, release):
        """Puts the payloads of a release into their trees; what is staged already stays as it is."""
        for kind, bundle in release.bundles.items():
            tree = self.tree(f"{PREFIX}{release.product}.{kind}", release.version)
            if not tree.exists():
                self._stage_bundle(release, kind, tree / bundle / "Contents")
        tree = self.tree(f"{PREFIX}common", release.revision)
        if not tree.exists():
            (tree / SUPPORT).mkdir(parents=True)
            shutil.copy(self.build / "TamarindPelicanMaintenance", tree / TOOL)
            compile_program(HERE / "plug-in/updater.cpp", tree / UPDATER, [], {"REVISION": release.revision})

    def _stage_bundle(self, release, kind, contents):
        (contents / "MacOS").mkdir(parents=True)
        words = {"product": release.product, "kind": kind, "name": release.name, "version": release.version}
        (contents / "Info.plist").write_text(PROPERTY_LIST.format(**words))
        (contents / "PkgInfo").write_text("BNDLTaPe")
        compile_program(
            HERE / "plug-in/plugin.cpp",
            contents / "MacOS" / release.name,
            ["-shared", "-fPIC"],
            {"PLUGIN_NAME": release.name, "PLUGIN_VERSION": release.version},
        )
        if kind == "vst3":
            presets = contents / "Resources/Presets"
            presets.mkdir(parents=True)
            for preset in PRESETS[release.product, release.version]:
                (presets / f"{preset}.vstpreset").write_text(f"preset of {release.name}: {preset}\n" * 8)

    def files(self, package, version):
        """The files of a staged package: relative path to SHA-256, in byte order of the paths."""
        tree = self.tree(package, version)
        paths = sorted(str(path.relative_to(tree)) for path in tree.rglob("*") if path.is_file())
        return {path: sha256(tree / path) for path in paths}

    def release_files(self, release):
        """All files of a release, the shared package's included."""
        files = {}
        for package, _, version in release.components:
            files.update(self.files(package, version))
        return files

    def plan(self, release):
        """The text of transaction-plan.tpmp."""
        lines = [
            "schema=tamarind.pelican.macos-maintenance-plan.v1",
            f"sku={release.product}-installer",
            f"packageRevision={release.revision}",
            f"product={release.product}\t{release.version}",
        ]
        for index, (package, product, version) in enumerate(release.components):
            lines.append(f"component={index}\t{product}\t{package}\t{version}")
            for path, digest in self.files(package, version).items():
                lines.append(f"target={index}\t{path}\t{digest}")
        return "\n".join(lines) + "\n"

    def descriptor(self, release, source="none", target="system", decision="none"):
        """The text of a descriptor that moves or removes an installed release."""
        lines = [
            "schema=tamarind.pelican.macos-maintenance.v2",
            f"sku={release.product}-installer",
            f"packageRevision={release.revision}",
            f"sourceScope={source}",
            f"targetScope={target}",
            f"decision={decision}",
            f"product={release.product}\t{release.version}\t{release.version}",
        ]
        for package, product, version in release.components:
            for path, digest in self.files(package, version).items():
                lines.append(f"target={product}\t{package}\t{version}\t{path}\t{digest}")
        return "\n".join(lines) + "\n"

    def component_package(self, package, version):
        """Builds the package of one component, once."""
        out = self.work / f"{package}-{version}.pkg"
        if not out.exists():
            self._script("build-component", "--root", self.tree(package, version), "--identifier", package,
                         "--version", version, "--out", self.work)
        return out

    def installer(self, release, out, scope="user", wait=60, tool=None):
        """Builds a product archive that installs a release under the control of its plan.

        wait  how many seconds its finishing job waits for the receipts
        tool  a maintenance tool other than the build's
        """
        plan = self._parts(out) / "transaction-plan.tpmp"
        plan.write_text(self.plan(release))
        self._build_product(release, out, scope, ["--plan", plan, "--wait", wait], tool)

    def mover(self, release, descriptor_id, out):
        """Builds a product archive that moves an installed release from the home to the system scope."""
        descriptor = self._parts(out) / f"{descriptor_id}.tpmt"
        descriptor.write_text(self.descriptor(release, source="user", decision="replace"))
        self._build_product(release, out, "system", ["--descriptor", descriptor])

    def hand_out_driver(self, directory):
        """Puts what installs without a person into a directory that every account can reach."""
        for name in ("install-product", "scripts/installation.sh"):
            (directory / name).parent.mkdir(exist_ok=True)
            shutil.copy(PACKAGING / name, directory / name)

    def build_all(self, jobs):
        """Runs jobs side by side; each is a function and its arguments."""
        with ThreadPoolExecutor(max_workers=os.cpu_count()) as pool:
            for running in [pool.submit(*job) for job in jobs]:
                running.result()

    def _parts(self, out):
        """A new directory for what goes into one product archive."""
        parts = self.work / f"{out.stem}.parts"
        parts.mkdir()
        return parts

    def _build_product(self, release, out, scope, begin, tool=None):
        parts = self.work / f"{out.stem}.parts"
        self._script("build-begin", "--scope", scope, "--tool",
                     tool or self.build / "TamarindPelicanMaintenance", *begin, "--out", parts)
        components = [self.component_package(package, version) for package, _, version in release.components]
        self._script("build-product", "--scope", scope, "--title", out.stem, "--identifier",
                     f"com.tamarindpelican.{release.product}", "--version", release.version, "--out", out,
                     parts / "com.tamarindpelican.begin-1.pkg", *components)

    def _script(self, name, *words):
        """Runs a script that ships, with the platform's package builders or, first, their stand-ins."""
        searched = f"{self.build / 'rehearsal'}:{os.environ.get('PATH', os.defpath)}"
        run([PACKAGING / name, *words], {**os.environ, "PATH": searched})


def compile_program(source, out, options, macros):
    """Compiles a sample; the macros become string literals."""
    defined = [f'-D{name}="{text}"' for name, text in macros.items()]
    run([os.environ.get("CXX", "c++"), "-O1", "-s", *options, *defined, source, "-o", out])


def run(words, environment=None):
    """Runs a step of the preparation, which is told only when it fails."""
    done = subprocess.run([str(word) for word in words], capture_output=True, text=True, env=environment)
    if done.returncode != 0:
        raise SystemExit(f"{words[0]} failed with status {done.returncode}:\n{done.stdout}{done.stderr}")


def sha256(path):
    return hashlib.sha256(Path(path).read_bytes()).hexdigest()
