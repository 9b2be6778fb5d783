"""The scripts that ship for macOS, run for real. usage: cases.py --list | SAMPLES CASE"""

import os
import re
import shutil
import signal
import subprocess
import sys
import time
import unittest
from pathlib import Path

from machine import (ENVIRONMENT, INSTALLER_RULES, JOB, PKGUTIL_CALLS, PKGUTIL_RULES, PLAYER, SUPPORT, SYSTEM, USER,
                     MODULE, Machine)

PACKAGING = Path(__file__).resolve().parents[2] / "packaging/macos"
SAMPLES = ""
HERON_1 = {"common": "1", "heron.au": "1.0.0", "heron.vst3": "1.0.0"}
HERON_2 = {"common": "2", "heron.au": "1.1.0", "heron.vst3": "1.1.0"}
ID = re.compile(r"(install|move-heron)-([0-9a-f]{64}|\d{14}-\d+)")
RESTORED = "not installed, what was there before is back: "
AGAIN = "Run the same installer again."
LATER = "Another installation is not finished. Run its installer again, or restart the computer; then try again."
NEWER = "A newer version is already installed."
LOOK = f"{AGAIN} If that does not help, /var/log/install.log tells more."
KILL_THE_CALLER = "before=\"kill -KILL $(cut -d' ' -f4 /proc/$PPID/stat)\""
HOLD_THE_LOCK = """#!/usr/bin/python3
import fcntl, os, sys, time
os.closerange(3, 256)  # whoever waits for the end of our caller's output must not wait for us
file = open(sys.argv[1], "r+")
fcntl.lockf(file, fcntl.LOCK_EX)
with open(sys.argv[2], "w") as told:
    told.write(str(os.getpid()))
time.sleep(600)
"""


def masked(lines):
    return [ID.sub(r"\1", line) for line in lines]


class Installing:
    """What holds in both scopes; the classes below name them."""

    scope = None

    def setUp(self):
        self.maxDiff = None
        self.machine = Machine(SAMPLES, self.scope)

    def assert_finished(self):
        """No transaction is open, and nothing of the finishing job is left."""
        scope, machine = self.scope, self.machine
        self.assertEqual(machine.transactions(), [])
        left = [scope.job, scope.finishing, scope.maintenance / "ActiveTransaction", scope.maintenance / "PendingInstall"]
        self.assertEqual([path for path in left if path.exists()], [])
        self.assertEqual(machine.run("launchctl", "print", f"{scope.domain}/{JOB}")[0], 113)

    def assert_open(self):
        self.assertTrue((self.scope.maintenance / "ActiveTransaction").exists())
        self.assertTrue(self.scope.job.exists())

    def install(self, package):
        status, said = self.machine.drive(package)
        self.assertEqual(status, 0, said)
        self.machine.run("truncate", "-s", "0", "/var/log/install.log", account={})

    def stop_half_way(self, package):
        """A double click that fails in the middle."""
        INSTALLER_RULES.write_text("stop-after=half\n")
        self.assertEqual(self.machine.open(package)[0], 1)
        INSTALLER_RULES.unlink()

    def open_and_cut_the_power(self, package):
        """An installation whose files are placed and whose receipts are not written."""
        INSTALLER_RULES.write_text("receipts=no\n")
        self.assertEqual(self.machine.open(package)[0], 0)
        INSTALLER_RULES.unlink()

    def test_driver_commits_what_the_installer_installed(self):
        status, said = self.machine.drive("heron-1")
        self.assertEqual((status, masked(said)[-5:]), (0, [
            "  preinstall: begin-install: install", '  preinstall: inspect: {"status":"clean"}',
            "  preinstall: prepare-move: done", "  postinstall: finishing job: left to the driver", "committed: install"]))
        self.assertEqual(self.machine.receipts(), HERON_1)
        self.assertEqual(len(self.machine.completed()), 1)
        self.assert_finished()

    def test_job_commits_after_a_double_click(self):
        self.assertEqual(self.machine.open("heron-1")[0], 0)
        self.machine.wait_for_job()
        self.assertEqual(self.machine.install_log()[-1], "postinstall: finishing job: started")
        self.assertEqual(masked(self.machine.job_log()), ["committed: install"])
        self.assertEqual(self.machine.shown(), [])
        self.assertEqual(self.machine.receipts(), HERON_1)
        self.assert_finished()

    def test_job_commits_the_same_version_once_more(self):
        self.install("heron-1")
        time.sleep(1.1)  # so that the receipts tell another time
        self.assertEqual(self.machine.open("heron-1")[0], 0)
        self.machine.wait_for_job()
        self.assertEqual(masked(self.machine.job_log()), ["committed: install"])
        self.assert_finished()

    def test_begin_install_refuses_an_older_version(self):
        self.install("heron-2")
        before = self.machine.module()
        tool, plan = self.scope.tool, self.scope.path(f"{SUPPORT}/transaction-plan.tpmp")
        placed = tool.read_bytes(), plan.read_bytes()
        status, said = self.machine.drive("heron-1")
        self.assertEqual((status, said[-3:]), (1, [
            "  preinstall: begin-install refused (status 65): installed common package revision is newer; "
            "common downgrade is refused", f"  preinstall: {NEWER}", "Nothing was installed."]))
        self.assertEqual((self.machine.module(), tool.read_bytes(), plan.read_bytes()), (before, *placed))
        self.assertEqual(self.machine.receipts(), HERON_2)
        self.assert_finished()

    def test_begin_install_refuses_while_another_run_holds_the_lock(self):
        self.install("heron-1")
        with self.lock_held():
            self.assertEqual(self.machine.open("heron-2")[0], 1)
        self.assertEqual(self.machine.install_log(), [
            "preinstall: begin-install refused (status 65): another maintenance transaction is active",
            f"preinstall: {LATER}"])
        self.assert_finished()

    def lock_held(self):
        """Holds the maintenance lock in a process of its own; ends it on leaving."""
        Path("/holder").write_text(HOLD_THE_LOCK)
        holder = subprocess.Popen(["/usr/bin/python3", "/holder", self.scope.maintenance / "maintenance.lock",
                                   "/tmp/held"])
        while not Path("/tmp/held").exists():
            time.sleep(0.02)
        return Ending(holder)

    def test_begin_install_tells_a_person_at_the_screen(self):
        self.install("heron-2")
        self.assertEqual(self.machine.open("heron-1")[0], 1)
        self.assertEqual(self.machine.shown(), [f"Nothing was installed. {NEWER}"] if self.scope is USER else [])

    def test_inspect_refusal_leaves_nothing_and_keeps_nobody_out(self):
        module = self.scope.path(MODULE)
        self.machine.run("mkdir", "-p", module.parent)
        self.machine.run("touch", module)
        status, said = self.machine.drive("heron-1")
        self.assertEqual((status, masked(said)[-4:]), (1, [
            "  preinstall: begin-install: install",
            "  preinstall: inspect refused (status 65): manual installation collision requires adopt or replace",
            "  preinstall: Copies that no installer put there are in the way. Remove them, then try again.",
            "Nothing was installed."]))
        self.assert_finished()
        self.assertFalse(self.scope.tool.exists())
        self.assertEqual(list((self.scope.maintenance / "Inbox").iterdir()), [])
        self.install("ibis")

    def test_inspect_answer_that_only_a_move_may_have(self):
        status, said = self.machine.drive("odd")
        self.assertEqual((status, said[-3:]), (1, [
            "  preinstall: inspect refused (status 65): product exists in the opposite scope",
            "  preinstall: It is already installed for all accounts, or for one. Use the installer that moves it, or "
            "uninstall it there.", "Nothing was installed."]))
        self.assertFalse(self.scope.job.exists())
        self.assertFalse(self.scope.tool.exists())

    def test_prepare_move_refuses_while_another_run_holds_the_lock(self):
        self.install("heron-1")
        PKGUTIL_CALLS.write_text("")
        _, begun = self.machine.tool("begin-install")
        self.machine.tool("inspect", begun[0])
        listings = sum("--pkgs=" in line for line in PKGUTIL_CALLS.read_text().splitlines())
        self.machine.run("rm", self.scope.maintenance / "PendingInstall")
        # The lock is taken in the last listing of inspect, which needs no lock itself.
        Path("/holder").write_text(HOLD_THE_LOCK)
        lock = str(self.scope.maintenance / "maintenance.lock").replace(" ", "?")
        hold = f"/usr/bin/python3 /holder {lock} /tmp/held >/dev/null 2>&1 & until [ -s /tmp/held ]; do sleep 0.02; done"
        PKGUTIL_RULES.write_text(f'command=--pkgs= nth={listings} do after="{hold}"\n')
        self.assertEqual(self.machine.open("heron-1")[0], 1)
        PKGUTIL_RULES.unlink()
        os.kill(int(Path("/tmp/held").read_text()), signal.SIGKILL)
        self.assertEqual(masked(self.machine.install_log()), [
            "preinstall: begin-install: install", 'preinstall: inspect: {"status":"repair"}',
            "preinstall: prepare-move refused (status 65): another maintenance transaction is active",
            f"preinstall: {LATER}"])
        self.assert_finished()
        self.install("heron-2")

    def test_prepare_move_refuses_beside_a_foreign_lease(self):
        self.install("heron-1")
        self.machine.run("cp", self.scope.maintenance / "Completed" / self.machine.completed()[0],
                         self.scope.maintenance / "ActiveTransaction")
        status, said = self.machine.drive("heron-2")
        self.assertEqual((status, said[-3:]), (1, [
            "  preinstall: begin-install refused (status 65): another maintenance transaction is active",
            f"  preinstall: {LATER}", "Nothing was installed."]))
        self.assertFalse(self.scope.job.exists())

    def test_driver_rolls_back_when_the_installer_fails_half_way(self):
        self.install("heron-1")
        before = self.machine.module()
        INSTALLER_RULES.write_text("stop-after=half\n")
        status, said = self.machine.drive("heron-2")
        self.assertEqual((status, said[-1]), (1, f"{RESTORED}the installer failed"))
        self.assertEqual((self.machine.module(), self.machine.receipts()), (before, HERON_1))
        self.assert_finished()

    def test_next_start_rolls_back_a_double_click_that_failed_half_way(self):
        self.install("heron-1")
        before = self.machine.module()
        self.stop_half_way("heron-2")
        self.assert_open()
        self.machine.restart()
        self.assertEqual(self.machine.job_log(), [f"{RESTORED}the installer wrote no receipts"])
        self.assertEqual((self.machine.module(), self.machine.receipts()), (before, HERON_1))
        self.assert_finished()

    def test_next_installer_ends_one_that_failed_half_way(self):
        self.install("heron-1")
        self.stop_half_way("heron-2")
        status, said = self.machine.drive("ibis")
        self.assertEqual((status, said[2 if status else 3]),
                         (0, f"  preinstall: {RESTORED}the installer wrote no receipts"))
        self.assertEqual(self.machine.receipts(), {**HERON_1, "common": "3", "ibis.au": "1.0.0", "ibis.vst3": "1.0.0"})
        self.assert_finished()

    def test_job_rolls_back_when_receipts_never_come(self):
        self.open_and_cut_the_power("heron-1-short")
        self.machine.wait_for_job()
        self.assertEqual(self.machine.job_log(), [f"{RESTORED}the installer wrote no receipts"])
        self.assertEqual(self.machine.shown(),
                         ["The installation failed. What was there before is back."] if self.scope is USER else [])
        self.assertFalse(self.scope.path(MODULE).exists())
        self.assert_finished()

    def test_power_cut_before_the_receipts_is_rolled_back_at_the_next_start(self):
        self.open_and_cut_the_power("heron-1")
        self.assert_open()
        self.machine.restart()
        self.assertEqual(self.machine.job_log(), [f"{RESTORED}the installer wrote no receipts"])
        self.assert_finished()

    def test_power_cut_after_the_receipts_is_committed_at_the_next_start(self):
        self.end_without_job("heron-1")
        self.machine.restart()
        self.assertEqual(masked(self.machine.job_log()), ["committed: install"])
        self.assertEqual(self.machine.receipts(), HERON_1)
        self.assert_finished()

    def test_job_that_commit_move_refuses_puts_back_what_was_there(self):
        self.install("heron-1")
        before = self.machine.module()
        self.end_without_job("heron-1")
        self.machine.tamper()
        self.machine.restart()
        self.assertEqual(self.machine.job_log(), [f"{RESTORED}native package receipt inventory is not exact"])
        self.assertEqual(self.machine.module(), before)
        self.assert_finished()
        self.install("ibis")

    def end_without_job(self, package):
        """A double click after which the job has not begun yet."""
        driver = subprocess.Popen(["sleep", "600"], **self.scope.account)
        with Ending(driver):
            self.machine.run("mkdir", "-p", self.scope.finishing)
            self.machine.run("sh", "-c", f"echo {driver.pid} >'{self.scope.finishing}/driver'")
            self.assertEqual(self.machine.open(package)[0], 0)
            self.machine.run("rm", self.scope.finishing / "driver")
        self.assert_open()

    def test_refused_commit_of_an_upgrade_stays_open_until_the_same_installer_runs_again(self):
        self.install("heron-1")
        self.end_without_job("heron-2")
        self.machine.tamper()
        self.machine.restart()
        self.assertEqual(self.machine.job_log(), [
            "still open: pkgutil receipt registration changed; transaction requires forward recovery", AGAIN])
        self.assertEqual(self.machine.shown(), [f"The installation is not complete. {AGAIN}"] if self.scope is USER else [])
        self.assert_open()
        status, said = self.machine.drive("heron-2")
        self.assertEqual((status, masked(said)[-5:]), (0, [
            "  preinstall: continued: install", '  preinstall: inspect: {"status":"repair"}',
            "  preinstall: prepare-move: done", "  postinstall: finishing job: left to the driver", "committed: install"]))
        self.assertEqual(self.machine.receipts(), HERON_2)
        self.assert_finished()

    def test_commit_move_that_is_killed_every_time_is_committed_later(self):
        self.end_without_job("heron-1")
        PKGUTIL_RULES.write_text(f"command=--pkgs= do {KILL_THE_CALLER}\n")
        self.machine.restart()
        self.assertEqual([line for line in self.machine.job_log() if line],
                         ["still open: commit-move was killed by signal 9", LOOK])
        self.assert_open()
        PKGUTIL_RULES.unlink()
        self.machine.restart()
        self.assertEqual(masked(self.machine.job_log())[-1:], ["committed: install"])
        self.assert_finished()

    def test_rollback_move_that_fails_every_time_is_given_up_in_the_end(self):
        self.stop_half_way("heron-1")
        transaction = self.scope.maintenance / "Transactions" / self.machine.transactions()[0]
        (transaction / "authority-target/manifest").unlink()
        for _ in range(5):
            self.assertTrue(self.scope.job.exists())
            self.machine.restart()
        said = self.machine.job_log()
        self.assertEqual(len(set(said[:-1])), 2, said)
        self.assertEqual(said[-3:], ["still open: receipt snapshot manifest is missing", LOOK, "given up after 5 tries"])
        self.assertFalse(self.scope.job.exists())
        self.assertTrue((self.scope.maintenance / "ActiveTransaction").exists())

    def test_power_cut_between_begin_install_and_prepare_move_keeps_nobody_out(self):
        self.end_without_job("heron-1")
        self.machine.run("rm", "-r", self.scope.maintenance / "ActiveTransaction",
                         self.scope.maintenance / "Transactions" / self.machine.transactions()[0])
        self.machine.restart()
        self.assertEqual(self.machine.job_log(), [f"{RESTORED}the installation was interrupted"])
        self.assert_finished()

    def test_job_that_runs_twice_finds_nothing_to_do(self):
        self.end_without_job("heron-1")
        self.machine.run("cp", "-R", self.scope.finishing, "/tmp/copy")
        job = ["sh", "/tmp/copy/finish-installation", self.scope.name]
        running = [subprocess.Popen(job, stdout=subprocess.PIPE, text=True, env=ENVIRONMENT, **self.scope.account)
                   for _ in range(2)]
        said = [process.communicate()[0] for process in running]
        self.assertEqual([process.returncode for process in running], [0, 0], said)
        status, said = self.machine.run(*job)
        self.assertEqual((status, [line[20:] for line in said]), (0, ["nothing to finish"]))
        self.assertEqual(len(self.machine.completed()), 1)
        self.assert_finished()

    def test_interrupted_driver_is_replaced_by_the_next_start(self):
        INSTALLER_RULES.write_text("stop-after=half\n")
        PKGUTIL_RULES.write_text('command=--pkg-info do before="sleep 0.3"\n')
        driver = subprocess.Popen(["./install-product", self.scope.name, self.machine.named("heron-1")],
                                  cwd=self.machine.packages, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                  env=ENVIRONMENT, start_new_session=True, **self.scope.account)
        with Ending(driver):
            while not (self.scope.maintenance / "ActiveTransaction").exists():
                time.sleep(0.02)
            os.killpg(driver.pid, signal.SIGKILL)
        PKGUTIL_RULES.unlink()
        self.machine.restart()
        self.assertEqual(self.machine.job_log(), [f"{RESTORED}the installer wrote no receipts"])
        self.assert_finished()

    def test_two_drivers_at_once_are_refused(self):
        other = subprocess.Popen(["sleep", "600"], **self.scope.account)
        with Ending(other):
            self.machine.run("mkdir", "-p", self.scope.finishing)
            self.machine.run("sh", "-c", f"echo {other.pid} >'{self.scope.finishing}/driver'")
            status, said = self.machine.drive("heron-1")
        self.assertEqual((status, said), (65, [f"refused: another installation is being driven by process {other.pid}"]))
        self.assertEqual(self.machine.receipts(), {})

    def test_wrong_words(self):
        for words in ([], [self.scope.name], [self.scope.name, "none.pkg"]):
            self.assertEqual(self.machine.run("./install-product", *words),
                             (64, ["usage: install-product user|system PRODUCT.pkg"]))


class InTheHome(Installing, unittest.TestCase):
    scope = USER

    def test_without_a_session_the_job_begins_at_the_next_login(self):
        self.machine.nobody_at_the_screen()
        self.assertEqual(self.machine.open("heron-1")[0], 0)
        self.assertEqual(self.machine.install_log()[-1], "postinstall: finishing job: begins at the next login or start")
        self.assert_open()
        self.machine.restart()
        self.assertEqual(masked(self.machine.job_log()), ["committed: install"])
        self.assert_finished()

    def test_root_is_refused(self):
        self.assertEqual(self.machine.drive("heron-1", account={}), (
            65, ["refused: an installation in a home runs as the account itself, never as root"]))
        self.assertEqual(self.machine.receipts(), {})


class ForAll(Installing, unittest.TestCase):
    scope = SYSTEM

    def test_an_account_is_refused(self):
        self.assertEqual(self.machine.drive("heron-1", account=PLAYER), (
            65, ["refused: an installation for all accounts runs as root"]))

    def test_a_directory_that_an_account_owns_is_refused(self):
        support = self.scope.path(SUPPORT)
        support.mkdir()
        self.machine.run("chown", "501", support)
        self.assertEqual(self.machine.open("heron-1")[0], 1)
        self.assertEqual(self.machine.install_log(), [
            f"preinstall: refused: {support} is not a directory of this account alone"])
        self.assertEqual(list(support.iterdir()), [])

    def test_move_from_the_home(self):
        home = Machine.__new__(Machine)
        home.scope, home.packages = USER, self.machine.packages
        self.assertEqual(home.drive("heron-1")[0], 0)
        INSTALLER_RULES.write_text("stop-after=half\n")
        status, said = self.machine.drive("move.pkg")
        self.assertEqual((status, said[-1]), (1, f"{RESTORED}the installer failed"))
        self.assertEqual((home.receipts(), self.machine.receipts()), (HERON_1, {}))
        INSTALLER_RULES.unlink()
        status, said = self.machine.drive("move.pkg")
        self.assertEqual((status, masked(said)[-5:]), (0, [
            "  preinstall: descriptor: move-heron", '  preinstall: inspect: {"status":"move-required"}',
            "  preinstall: prepare-move: done", "  postinstall: finishing job: left to the driver",
            "committed: move-heron"]))
        self.assertEqual((home.receipts(), self.machine.receipts()), ({}, HERON_1))
        self.assertFalse((USER.maintenance / "ActiveTransaction").exists())
        self.assert_finished()

    def test_a_product_in_the_home_is_refused_without_a_move(self):
        home = Machine.__new__(Machine)
        home.scope, home.packages = USER, self.machine.packages
        self.assertEqual(home.drive("heron-1")[0], 0)
        status, said = self.machine.drive("heron-1")
        self.assertEqual((status, said[-3:-1]), (1, [
            "  preinstall: begin-install refused (status 65): scope migration requires an explicit trusted decision",
            "  preinstall: It is already installed for all accounts, or for one. Use the installer that moves it, or "
            "uninstall it there."]))


class Ending:
    """A process that is killed when the block ends."""

    def __init__(self, process):
        self.process = process

    def __enter__(self):
        return self.process

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()


class Building(unittest.TestCase):
    def build(self, script, *words, path="/usr/bin:/bin"):
        done = subprocess.run([PACKAGING / script, *words], env={"PATH": path}, text=True, check=False,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, cwd="/tmp")
        return done.returncode, done.stdout.splitlines()

    def tree(self):
        contents = Path("/tmp/tree/Library/Audio/Plug-Ins/Components/TP Heron & Co.component/Contents")
        contents.mkdir(parents=True)
        (contents / "Info.plist").write_text(
            '<plist version="1.0"><dict><key>CFBundleIdentifier</key><string>com.x</string></dict></plist>')
        return contents

    def component(self, identifier="com.tamarindpelican.pkg.heron.au"):
        return self.build("build-component", "--root", "/tmp/tree", "--identifier", identifier, "--version", "1.0",
                          "--out", "/tmp/out")

    def test_component_is_neither_relocatable_nor_version_checked(self):
        self.tree()
        self.assertEqual(self.component(), (0, ["/tmp/out/com.tamarindpelican.pkg.heron.au-1.0.pkg"]))
        info = subprocess.run(["bsdtar", "-xOf", "/tmp/out/com.tamarindpelican.pkg.heron.au-1.0.pkg", "PackageInfo"],
                              capture_output=True, text=True, check=True).stdout
        self.assertIn('install-location="/"', info)
        self.assertIn("TP Heron &amp; Co.component", info)
        self.assertIn("<relocate/>", info)
        self.assertIn("<bundle-version/>", info)

    def test_bundles_inside_bundles_are_listed_as_their_children(self):
        contents = self.tree()
        for inner in ("Resources/Helper.bundle", "Resources/Helper.bundle/Contents/Deep.bundle", "Resources/Other.bundle"):
            (contents / inner / "Contents").mkdir(parents=True)
            shutil.copy(contents / "Info.plist", contents / inner / "Contents")
        # Sorts between the bundle and what is inside it, were it not for the "/".
        shutil.copytree(contents.parent, f"{contents.parent.with_suffix('')}.component 2")
        self.assertEqual(self.component()[0], 0)
        info = subprocess.run(["bsdtar", "-xOf", "/tmp/out/com.tamarindpelican.pkg.heron.au-1.0.pkg", "PackageInfo"],
                              capture_output=True, text=True, check=True).stdout
        self.assertEqual(info.count("<bundle path="), 8)
        self.assertIn("<relocate/>", info)
        self.assertIn("<bundle-version/>", info)

    def test_a_bundle_that_nobody_lists_would_be_relocatable(self):
        self.tree()
        self.build("../../rehearsal/pkgbuild", "--root", "/tmp/tree", "--identifier", "x", "--version", "1", "/tmp/x.pkg")
        info = subprocess.run(["bsdtar", "-xOf", "/tmp/x.pkg", "PackageInfo"], capture_output=True, text=True,
                              check=True).stdout
        self.assertIn("<relocate>", info)

    def test_component_refuses_twins_and_foreign_identifiers(self):
        twin = self.tree() / "._Info.plist"
        twin.touch()
        self.assertEqual(self.component(), (1, [f"build-component: take these out of the tree: {twin}"]))
        twin.unlink()
        self.assertEqual(self.component("com.other.pkg"), (
            1, ['build-component: "com.other.pkg" is no identifier that the maintenance tool knows']))
        self.assertEqual(self.build("build-component", "--root")[0], 64)

    def test_begin_refuses_what_cannot_work(self):
        Path("/tmp/move.tpmt").write_text("sourceScope=system\ntargetScope=user\n")
        Path("/tmp/plan").write_text("no plan\n")
        words = ["--scope", "user", "--tool", "/bin/true", "--out", "/tmp/out"]
        self.assertEqual(self.build("build-begin", *words, "--descriptor", "/tmp/move.tpmt"), (
            1, ["build-begin: /tmp/move.tpmt: only a package for all accounts can move"]))
        self.assertEqual(self.build("build-begin", *words, "--plan", "/tmp/plan"), (
            1, ["build-begin: /tmp/plan is no plan"]))
        self.assertEqual(self.build("build-begin", *words)[0], 64)

    def test_product_begins_with_the_scripts(self):
        self.tree()
        self.component()
        words = ["--scope", "user", "--title", "T", "--identifier", "i", "--version", "1", "--out", "/tmp/p.pkg"]
        package = "/tmp/out/com.tamarindpelican.pkg.heron.au-1.0.pkg"
        self.assertEqual(self.build("build-product", *words, package, package), (
            1, ["build-product: the first package must be that of the scripts: the others' payload waits for it"]))
        self.assertEqual(self.build("build-product", *words)[0], 64)

    def recorders(self, answer="status: Accepted"):
        """Programs that only Macs have, as ones that note how they were called."""
        Path("/tmp/bin").mkdir()
        for name in ("codesign", "productsign", "pkgutil", "xcrun", "spctl"):
            program = Path("/tmp/bin", name)
            program.write_text(f'#!/bin/sh\necho "$(basename "$0") $*" >>/tmp/called\n[ "$2" != submit ] || echo "{answer}"\n')
            program.chmod(0o755)
        return "/tmp/bin:/usr/bin:/bin"

    def called(self):
        return Path("/tmp/called").read_text().splitlines()

    def test_signing(self):
        path = self.recorders()
        self.assertEqual(self.build("sign-code", "Developer ID Application: X", "a.vst3", path=path)[0], 0)
        self.assertEqual(self.build("sign-product", "Developer ID Installer: X", "a.pkg", "b.pkg", path=path)[0], 0)
        self.assertEqual(self.called(), [
            "codesign --force --options runtime --timestamp --sign Developer ID Application: X a.vst3",
            "codesign --verify --strict --verbose=2 a.vst3",
            "productsign --timestamp --sign Developer ID Installer: X a.pkg b.pkg", "pkgutil --check-signature b.pkg"])

    def test_notarization(self):
        path = self.recorders()
        self.assertEqual(self.build("notarize", "profile", "b.pkg", path=path), (0, ["status: Accepted"]))
        self.assertEqual(self.called(), [
            "xcrun notarytool submit b.pkg --keychain-profile profile --wait", "xcrun stapler staple b.pkg",
            "xcrun stapler validate b.pkg", "spctl --assess --type install --verbose=2 b.pkg"])

    def test_refused_notarization_staples_nothing(self):
        path = self.recorders("status: Invalid")
        self.assertEqual(self.build("notarize", "profile", "b.pkg", path=path)[0], 1)
        self.assertEqual(len(self.called()), 1)


def cases():
    """All cases, as CLASS.METHOD."""
    for found in (InTheHome, ForAll, Building):
        yield from (f"{found.__name__}.{name}" for name in unittest.TestLoader().getTestCaseNames(found))


def main():
    global SAMPLES
    if sys.argv[1:] == ["--list"]:
        print("\n".join(cases()))
        return
    SAMPLES, case = sys.argv[1:]
    unittest.main(argv=["cases.py", case])


if __name__ == "__main__":
    main()
