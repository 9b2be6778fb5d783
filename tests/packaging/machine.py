"""The machine that a case works on: one scope of a rehearsal root, and what the scripts leave there."""

import os
import shutil
import subprocess
import time
from dataclasses import dataclass
from pathlib import Path

HOME = "/Users/player"
SUPPORT = "Library/Application Support/Tamarind Pelican"
JOB = "com.tamarindpelican.finish"
PREFIX = "com.tamarindpelican.pkg."
MODULE = "Library/Audio/Plug-Ins/Components/TP Heron.component/Contents/MacOS/TP Heron"
SEAT = Path("/run/systemd/seats/seat0")
PKGUTIL_RULES = Path("/etc/pkgutil-stand-in.conf")
PKGUTIL_CALLS = Path("/var/log/pkgutil-stand-in.log")
INSTALLER_RULES = Path("/etc/installer-stand-in.conf")
INSTALL_LOG = Path("/var/log/install.log")
SHOWN = Path("/var/log/osascript-stand-in.log")
ENVIRONMENT = {"PATH": "/usr/bin:/bin:/usr/sbin:/sbin", "HOME": "/nowhere"}
PLAYER = {"user": 501, "group": 20, "extra_groups": []}


@dataclass(frozen=True)
class Scope:
    name: str
    root: str
    account: dict
    target: str
    domain: str
    job: Path
    log: Path

    def path(self, relative):
        return Path(f"{self.root}/{relative}")

    @property
    def finishing(self):
        return self.path(f"{SUPPORT}/Finishing")

    @property
    def maintenance(self):
        return self.path(f"{SUPPORT}/Maintenance")

    @property
    def tool(self):
        return self.path(f"{SUPPORT}/TamarindPelicanMaintenance")


USER = Scope("user", HOME, PLAYER, "CurrentUserHomeDirectory", "gui/501",
             Path(f"{HOME}/Library/LaunchAgents/{JOB}.plist"), Path(f"{HOME}/Library/Logs/{JOB}.log"))
SYSTEM = Scope("system", "", {}, "/", "system",
               Path(f"/Library/LaunchDaemons/{JOB}.plist"), Path(f"/var/log/{JOB}.log"))


class Machine:
    def __init__(self, samples, scope):
        self.scope = scope
        self.packages = Path("/packages")
        shutil.copytree(f"{samples}/packages", self.packages)

    def run(self, *words, account=None):
        """Runs a command as the scope's account; returns its status and the lines of both outputs."""
        done = subprocess.run([str(word) for word in words], cwd=self.packages, env=ENVIRONMENT, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                              check=False, **(self.scope.account if account is None else account))
        return done.returncode, done.stdout.splitlines()

    def drive(self, package, account=None):
        return self.run("./install-product", self.scope.name, self.named(package), account=account)

    def open(self, package):
        """What a double click does."""
        return self.run("installer", "-pkg", self.named(package), "-target", self.scope.target)

    def named(self, package):
        return package if package.endswith(".pkg") else f"{self.scope.name}-{package}.pkg"

    def tool(self, *words):
        return self.run(self.scope.tool, words[0], self.scope.name, *words[1:])

    def restart(self):
        """Cuts the power and starts again, with the account at the screen; waits until the jobs have ended."""
        SEAT.write_text("ACTIVE=1\nACTIVE_UID=501\n")
        self.run("launchctl", "restart-machine", account={})
        self.wait_for_job()

    def nobody_at_the_screen(self):
        SEAT.write_text("IS_SEAT0=1\n")

    def wait_for_job(self):
        for _ in range(1200):
            _, said = self.run("launchctl", "print", f"{self.scope.domain}/{JOB}")
            if "\tstate = running" not in said:
                return
            time.sleep(0.1)
        raise AssertionError("the job goes on for ever")

    def job_log(self):
        """The job's lines without their times."""
        return [line[20:] for line in self.scope.log.read_text().splitlines()] if self.scope.log.exists() else []

    def install_log(self):
        """What the scripts of packages said."""
        return [line.partition("./")[2] for line in INSTALL_LOG.read_text().splitlines()]

    def shown(self):
        """What a person at the screen was told."""
        return SHOWN.read_text().splitlines()

    def receipts(self):
        """The maker's packages that are registered, without their common beginning, and their versions."""
        _, listed = self.run("pkgutil", "--volume", self.scope.root or "/", "--pkgs")
        receipts = {}
        for package in listed:
            if package.startswith(PREFIX):
                _, told = self.run("pkgutil", "--volume", self.scope.root or "/", "--pkg-info", package)
                receipts[package.removeprefix(PREFIX)] = told[1].removeprefix("version: ")
        return receipts

    def transactions(self):
        """The open transactions."""
        directory = self.scope.maintenance / "Transactions"
        return sorted(os.listdir(directory)) if directory.exists() else []

    def completed(self):
        directory = self.scope.maintenance / "Completed"
        return sorted(os.listdir(directory)) if directory.exists() else []

    def tamper(self):
        with open(self.scope.path(MODULE), "r+b") as file:
            file.write(b"tampered")

    def module(self):
        return self.scope.path(MODULE).read_bytes()
