"""Plays the life of two plug-ins in a rehearsal root. Called by ./dev demo; never run it outside such a root."""

import sys
import time
from pathlib import Path

from expected import MAINTENANCE, Scope
from samples import NAMES, PREFIX, UPDATER, Release, Workshop, sha256
from stage import HOME, VARIABLES, NotAsAnnounced, Stage, abbreviated, seat, shortened

# An installer brings a product at a version and the shared package at a revision.
HERON_1_0 = Release("heron", "1.0.0", "1")
HERON_1_1 = Release("heron", "1.1.0", "2")
HERON_1_2 = Release("heron", "1.2.0", "3")
HERON_REISSUED = Release("heron", "1.0.0", "9")
IBIS_1_0 = Release("ibis", "1.0.0", "1")
IBIS_MOVED = Release("ibis", "1.0.0", "3")

PKGUTIL_RULES = Path("/etc/pkgutil-stand-in.conf")
INSTALLER_RULES = Path("/etc/installer-stand-in.conf")
WAIT = 5    # seconds that a finishing job waits for receipts; here they come at once, or never
KILL_THE_CALLER = "before=\"kill -KILL $(cut -d' ' -f4 /proc/$PPID/stat)\""


# A death of the power: the job's whole process group is gone, the maintenance tool that it runs included.
KILL_THE_JOB = 'before="kill -KILL 0"'
COMMITTED = "committed: install-..."
RESTORED = "not installed, what was there before is back: "


def begun(status, first="begin-install: install-...", job="left to the driver"):
    """What the scripts that run before and after the payload add to the installation log."""
    return [first, f'inspect: {{"status":"{status}"}}', "prepare-move: done", f"finishing job: {job}"]


class Story:
    def __init__(self, build):
        self.packages = Path("/packages")
        self.packages.mkdir(mode=0o755)
        self.stage = Stage(self.packages)
        self.workshop = Workshop(build, "/workshop")
        self.user = Scope("user", self.workshop)
        self.system = Scope("system", self.workshop)

    def tell(self):
        self.packaging()
        self.clean_installation()
        self.second_product()
        self.upgrade()
        self.repair()
        self.failed_installation()
        self.killed_run()
        self.refused_downgrade()
        self.tampered_file()
        self.move_with_shared_package_kept()
        self.move_with_shared_package_dropped()
        self.uninstall_one_of_two()
        self.uninstall_the_last()
        self.stage.finish_step()

    def packaging(self):
        stage, shop = self.stage, self.workshop
        stage.say(
            "The life of two plug-ins, TP Heron and TP Ibis, in a throw-away root with an account \"player\"\n"
            "(uid 501) at the console. The maintenance tool is the real one; pkgutil and installer stand in\n"
            "for those of macOS. Every step first says what is going to happen, and the first thing that\n"
            "turns out otherwise ends the demonstration with status 1. In the commands below:\n")
        for name, value in reversed(VARIABLES.items()):
            parts = {part: VARIABLES[part] for part in ("SUPPORT", "HOME") if part != name}
            stage.say(f"  ${name:<15} {abbreviated(value, parts)}")
        stage.say(
            "\nOf 64 digits, random or a digest, only the first eight are shown. What a command changed on\n"
            "disk is marked + (new), - (gone) or ~ (changed), and shown with mode, owner and size.")
        stage.step("Packaging", """
            Each version of a plug-in is compiled and put into a VST3 bundle and an Audio Unit component. An installer
            holds a package of scripts, one package for each bundle, and the package that all products share: the
            maintenance tool and an updater. The scripts' package carries the tool and the plan of the installation.
            """)
        releases = [HERON_1_0, HERON_1_1, HERON_1_2, HERON_REISSUED, IBIS_1_0, IBIS_MOVED]
        shop.hand_out_driver(self.packages)
        for release in releases:
            shop.stage(release)
        components = {(package, version) for release in releases for package, _, version in release.components}
        shop.build_all([(shop.component_package, *component) for component in sorted(components)])
        shop.build_all(
            [(shop.installer, release, self.packages / f"{release.name} {release.version}.pkg", "user", WAIT)
             for release in (HERON_1_0, HERON_1_1, HERON_1_2, IBIS_1_0)]
            + [(shop.installer, HERON_REISSUED, self.packages / "TP Heron 1.0.0 reissued.pkg", "user", WAIT),
               (shop.mover, HERON_1_2, "move-heron", self.packages / "Move TP Heron.pkg"),
               (shop.mover, IBIS_MOVED, "move-ibis", self.packages / "Move TP Ibis.pkg")])
        stage.play("player", ["bsdtar", "-tf", "TP Heron 1.0.0.pkg"], changes=0, out=self.archive_listing(HERON_1_0))
        stage.say("\nThe plan of this installer:\n")
        for line in shop.plan(HERON_1_0).splitlines():
            stage.say(f"  {abbreviated(shortened(line))}")

    def archive_listing(self, release):
        names = [f"{package}-{version}.pkg" for package, _, version in release.components]
        listing = ["Distribution"]
        for name in sorted([*names, "com.tamarindpelican.begin-1.pkg"]):
            listing += [name, f"{name}/PackageInfo"]
            listing += [f"{name}/Scripts"] if ".begin-" in name else [f"{name}/Payload"]
        return listing

    def clean_installation(self):
        stage, user = self.stage, self.user
        stage.step("A clean installation in the home, without a person", """
            The installer runs as the account itself. Before it places any payload, the script of its first package
            places tool and plan and runs begin-install, inspect (the answer is "clean") and prepare-move. Nothing is
            final until commit-move has proved the installed files, after the installer has ended: the receipts are
            the last thing that the installer writes. The driver, install-product, runs one after the other.
            """)
        started = stage.install("player", "user", "TP Heron 1.0.0.pkg", begun("clean"), COMMITTED)
        user.installed["heron"] = user.shared = user.planned = HERON_1_0
        user.bookkeeping = True
        self.committed(started)
        user.load(stage, HERON_1_0)

    def second_product(self):
        stage, user = self.stage, self.user
        stage.step("A second product beside it, by double click", """
            TP Ibis joins TP Heron. Nobody runs commit-move afterwards, so the package leaves a finishing job behind,
            a launch agent. It waits for the receipts, commits, and removes itself.
            """)
        started = stage.open_package("player", "TP Ibis 1.0.0.pkg", begun("clean", job="started"), job=[COMMITTED])
        user.installed["ibis"] = user.planned = IBIS_1_0
        self.committed(started)
        user.load(stage, IBIS_1_0)

    def upgrade(self):
        stage, user = self.stage, self.user
        stage.step("An upgrade that has one file less", """
            TP Heron 1.1.0 no longer has the preset "Old Pier". The answer of inspect is "upgrade". The installer takes
            away what the new package lacks; had it left the file there, commit-move would remove it, provided that it
            is still what it was when the upgrade was prepared.
            """)
        started = stage.install("player", "user", "TP Heron 1.1.0.pkg", begun("upgrade"), COMMITTED)
        user.installed["heron"] = user.shared = user.planned = HERON_1_1
        self.committed(started)
        user.load(stage, HERON_1_1)

    def repair(self):
        stage, user = self.stage, self.user
        module = f"{HERON_1_1.bundles['vst3']}/Contents/MacOS/TP Heron"
        stage.step("A damaged file is repaired", """
            Something overwrites the beginning of the shared object in the VST3 bundle. The same installer runs again;
            the answer of inspect is "repair".
            """)
        stage.play("player", ["dd", "if=/dev/zero", f"of={HOME}/{module}", "bs=16", "count=4", "conv=notrunc",
                              "status=none"], changes=1)
        user.differing = {module: (0o755, sha256(f"{HOME}/{module}"))}
        user.check(stage)
        started = stage.install("player", "user", "TP Heron 1.1.0.pkg", begun("repair"), COMMITTED)
        user.differing = {}
        self.committed(started)
        user.load(stage, HERON_1_1)

    def failed_installation(self):
        stage, user = self.stage, self.user
        stage.step("An installation fails half-way and is rolled back", """
            The upgrade to 1.2.0 stops after half of its files: a bundle of the new version beside a component of the
            old one, and old receipts. The driver runs rollback-move, which restores the bytes that were there before.
            Restored files have mode 0600 until the packages are installed again.
            """)
        INSTALLER_RULES.write_text("stop-after=half\n")
        started = stage.install("player", "user", "TP Heron 1.2.0.pkg", begun("upgrade")[:3],
                                RESTORED + "the installer failed", status=1,
                                error=["installer: The install was stopped half-way."])
        INSTALLER_RULES.unlink()
        user.planned = HERON_1_2
        user.inbox.append(started)
        user.completed.append(started)
        user.differing = self.restored_files(HERON_1_2, HERON_1_1)
        user.check(stage)
        user.load(stage, HERON_1_1)

    def restored_files(self, failed, previous):
        """The first half of the failed installer's files, as far as they had other bytes before."""
        new, old = self.workshop.release_files(failed), self.workshop.release_files(previous)
        placed = [path for package, _, version in failed.components
                  for path in sorted(self.workshop.files(package, version), key=lambda path: path.split("/"))]
        half = placed[: len(placed) // 2]
        return {path: (0o600, old[path]) for path in half if path in old and old[path] != new[path]}

    def killed_run(self):
        stage, user = self.stage, self.user
        stage.step("The power fails, twice, and the next installer ends what was open", """
            The upgrade to 1.2.0 once more, now from afar: nobody has a session, so the finishing job begins at the
            next login. There, commit-move is cut off in the middle (SIGKILL for the job and all that it runs, when
            pkgutil is asked for the receipts a second time): the product's record is new already, the index is not.
            The lease, ActiveTransaction, keeps every other transaction out.
            """)
        seat(None)
        started = stage.open_package("player", "TP Heron 1.2.0.pkg",
                                     begun("upgrade", job="begins at the next login or start"))
        PKGUTIL_RULES.write_text(f"command=--pkgs= nth=2 do {KILL_THE_JOB}\n")
        stage.restart(501, job=[])
        PKGUTIL_RULES.unlink()
        user.installed["heron"] = user.shared = user.planned = HERON_1_2
        user.differing = {}
        self.open_attempt(started)
        user.indexed = {"heron": "1.1.0", "ibis": "1.0.0"}
        user.check(stage)
        user.load(stage, HERON_1_2)
        stage.say("\nThen somebody runs the old installer of TP Heron 1.0.0. It is refused, but its script first ends what\n"
                  "is open.")
        self.refused("TP Heron 1.0.0.pkg", "installed common package revision is newer; common downgrade is refused",
                     "A newer version is already installed.", earlier=[COMMITTED])
        self.committed(started)

    def refused_downgrade(self):
        stage, user = self.stage, self.user
        stage.step("Downgrades are refused", """
            First the old installer of TP Heron 1.0.0, whose shared package is older too; then one that was made anew,
            with a newer shared package. Neither changes anything.
            """)
        self.refused("TP Heron 1.0.0.pkg", "installed common package revision is newer; common downgrade is refused",
                     "A newer version is already installed.", changes=0)
        self.refused("TP Heron 1.0.0 reissued.pkg", "target-side downgrade is refused",
                     "A newer version is already installed.", changes=0)
        user.check(stage)

    def refused(self, package, message, advice, earlier=(), **expected):
        """An installer whose begin-install is refused; `earlier` is what its script says before."""
        self.stage.install("player", "user", package,
                           [*earlier, f"begin-install refused (status 65): {message}", advice],
                           "Nothing was installed.", status=1,
                           error=[refused_before("65")], **expected)

    def tampered_file(self):
        stage, user = self.stage, self.user
        module = f"{HERON_1_2.bundles['au']}/Contents/MacOS/TP Heron"
        stage.step("A tampered file is never accepted", """
            TP Heron 1.2.0 is installed again, from afar, and before the finishing job begins somebody changes one of
            its files. commit-move refuses and puts back the bytes of before, and the job closes the transaction.
            Running the installer again repairs the installation.
            """)
        seat(None)
        started = stage.open_package("player", "TP Heron 1.2.0.pkg",
                                     begun("repair", job="begins at the next login or start"))
        stage.play("player", ["dd", "if=/dev/urandom", f"of={HOME}/{module}", "bs=16", "count=1", "seek=64",
                              "conv=notrunc", "status=none"], changes=1)
        stage.restart(501, job=[RESTORED + "native package receipt inventory is not exact"])
        self.closed(started)
        user.differing = {module: (0o600, self.workshop.release_files(HERON_1_2)[module])}
        user.check(stage)
        started = stage.install("player", "user", "TP Heron 1.2.0.pkg", begun("repair"), COMMITTED)
        user.differing = {}
        self.committed(started)

    def move_with_shared_package_kept(self):
        stage, user, system = self.stage, self.user, self.system
        stage.step("From the home to the whole system; the shared package stays where it is needed", """
            A package of the maker brings the descriptor of the move into the system's inbox and installs TP Heron for
            all accounts, as root. commit-move proves it there, and only then removes it from the home. TP Ibis still
            needs the shared package in the home, so that one stays. What root writes in the home belongs to the
            account; the group is left to the system (on Linux that of the process, on macOS that of the directory).
            """)
        self.move("Move TP Heron.pkg", HERON_1_2)
        system.load(stage, HERON_1_2)

    def move_with_shared_package_dropped(self):
        stage, user, system = self.stage, self.user, self.system
        stage.step("The last product leaves the home, and with it the shared package", """
            The same with TP Ibis. Now nothing in the home uses the shared package any more; it is removed there, the
            tool itself included. Empty bundle directories stay.
            """)
        user.shared = None
        self.move("Move TP Ibis.pkg", IBIS_MOVED)
        system.load(stage, IBIS_MOVED)

    def uninstall_one_of_two(self):
        stage, system = self.stage, self.system
        module = f"{HERON_1_2.bundles['vst3']}/Contents/MacOS/TP Heron"
        stage.step("Uninstalling one of two products", """
            A descriptor in the inbox lists what is installed. First one of the files is not what was installed:
            uninstall-product removes nothing. Then the file is put right, and the run is killed when the VST3
            bundle is gone and the component still there. The next run finishes. TP Ibis keeps the shared package.
            """)
        self.order_removal(HERON_1_2, "remove-heron")
        system.inbox.append("remove-heron")
        stage.play("root", ["cp", f"/{module}", "/tmp/as-installed"])
        stage.play("root", ["dd", "if=/dev/urandom", f"of=/{module}", "bs=16", "count=1", "seek=64", "conv=notrunc",
                            "status=none"], changes=1)
        stage.tool("root", "uninstall-product", "system", "remove-heron", status=65, changes=0,
                   error=["native package receipt inventory is not exact"])
        stage.play("root", ["cp", "/tmp/as-installed", f"/{module}"], changes=1)
        system.check(stage)
        PKGUTIL_RULES.write_text(f"command=--forget id=*.heron.vst3 do {KILL_THE_CALLER}\n")
        stage.tool("root", "uninstall-product", "system", "remove-heron", status=-9)
        PKGUTIL_RULES.unlink()
        stage.tool("root", "uninstall-product", "system", "remove-heron")
        del system.installed["heron"]
        system.completed.append("remove-heron")
        system.check(stage)
        system.load(stage, IBIS_MOVED)

    def uninstall_the_last(self):
        stage, system = self.stage, self.system
        stage.step("Uninstalling the last product", """
            TP Ibis goes, and the shared package with it, since no other product is left. What stays are empty
            directories and the records of what was done.
            """)
        self.order_removal(IBIS_MOVED, "remove-ibis")
        stage.tool("root", "uninstall-product", "system", "remove-ibis")
        system.installed.clear()
        system.shared = None
        system.inbox.append("remove-ibis")
        system.completed.append("remove-ibis")
        system.check(stage)
        self.user.check(stage)

    def open_attempt(self, transaction):
        """What a transaction between prepare-move and commit-move has in the home."""
        self.user.inbox.append(transaction)
        self.user.transactions = [transaction]
        self.user.pending = self.user.job = True
        self.user.active = transaction

    def closed(self, transaction):
        """What a transaction leaves in the home that was committed or rolled back."""
        user = self.user
        if transaction not in user.inbox:
            user.inbox.append(transaction)
        user.completed.append(transaction)
        user.transactions, user.pending, user.job, user.active = [], False, False, ""
        user.indexed = user.recorded = None

    def committed(self, transaction):
        self.closed(transaction)
        self.user.check(self.stage)

    def move(self, package, release):
        user, system = self.user, self.system
        log = begun("move-required", first=f"descriptor: move-{release.product}-...")
        descriptor = self.stage.install("root", "system", package, log, f"committed: move-{release.product}-...")
        del user.installed[release.product]
        system.installed[release.product] = system.shared = release
        system.bookkeeping = True
        system.inbox.append(descriptor)
        system.completed.append(descriptor)
        system.check(self.stage)
        user.check(self.stage)

    def order_removal(self, release, descriptor):
        """Puts the descriptor of a removal into the system's inbox, as the maker's updater would."""
        made = self.packages / f"{descriptor}.tpmt"
        made.write_text(self.workshop.descriptor(release))
        self.stage.play("root", ["install", "-m", "0600", made.name, f"/{MAINTENANCE}/Inbox/{made.name}"], changes=1)


def refused_before(status):
    return ("installer: The install failed: preinstall of com.tamarindpelican.begin ended with status "
            f"{status}.")


def main():
    story = Story(sys.argv[1])
    begun_at = time.monotonic()
    try:
        story.tell()
    except NotAsAnnounced as fact:
        print(f"\nThe demonstration failed: {fact}.", flush=True)
        return 1
    seconds = time.monotonic() - begun_at
    story.stage.say(f"\nEverything happened as announced: {story.stage.steps} steps in {seconds:.0f} seconds.", "ok")
    return 0


if __name__ == "__main__":
    sys.exit(main())
