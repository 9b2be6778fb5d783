"""Runs the maintenance tool as root inside a rehearsal root."""

import contextlib
import os
import shutil
import subprocess
from dataclasses import dataclass

TOOLS = "/opt/campaign"
TOOL = TOOLS + "/TamarindPelicanMaintenance"
ATTACKER = TOOLS + "/attacker"
STEPPER = TOOLS + "/stepper"
PLAN = TOOLS + "/transaction-plan.tpmp"
PKGUTIL_RULES = "/etc/pkgutil-stand-in.conf"
PKGUTIL_LOG = "/var/log/pkgutil-stand-in.log"
PATIENCE = 20  # seconds; a run that takes longer hangs
ENVIRONMENT = {"PATH": "/usr/bin:/bin:/usr/sbin:/sbin", "LANG": "C"}
ACCOUNT, STAFF = 501, 20


@dataclass
class Outcome:
    """How a run ended."""

    ended: str      # "exit", "signal" or "hung"
    status: int
    stdout: bytes
    stderr: bytes

    def says(self):
        text = (self.stderr + self.stdout).decode("utf-8", "replace").rstrip("\n")
        return f"{self.ended} {self.status}: {text[:300]}"


def install_tools(build):
    """Copies what the campaign runs into the root; `build` is the build directory."""
    os.makedirs(TOOLS, exist_ok=True)
    for program, source in ((TOOL, "/TamarindPelicanMaintenance"), (ATTACKER, "/campaigns/attack/attacker"),
                            (STEPPER, "/campaigns/attack/stepper")):
        shutil.copy(build + source, program)
        os.chmod(program, 0o755)
    os.chmod(TOOLS, 0o755)
    set_pkgutil_rule("")
    if os.path.exists(PKGUTIL_LOG):
        os.unlink(PKGUTIL_LOG)


def place_plan(text):
    """Puts a transaction plan beside the tool."""
    with open(PLAN, "w", encoding="ascii") as file:
        file.write(text)
    os.chmod(PLAN, 0o644)


def run(words):
    """Runs one command as root, undisturbed by this process."""
    try:
        done = subprocess.run([TOOL, *words], stdin=subprocess.DEVNULL, capture_output=True, env=ENVIRONMENT, cwd="/",
                              check=False, timeout=PATIENCE)
    except subprocess.TimeoutExpired as late:
        return Outcome("hung", 0, late.stdout or b"", late.stderr or b"")
    return Outcome("signal" if done.returncode < 0 else "exit", abs(done.returncode), done.stdout, done.stderr)


def set_pkgutil_rule(text):
    """Makes the package database's stand-in behave as the rule says; an empty one makes it behave well. The file
    stays, so that it does not count as something that a run has created or removed."""
    with open(PKGUTIL_RULES, "w", encoding="ascii") as file:
        file.write(text + "\n")


@contextlib.contextmanager
def as_account():
    """While it lasts, this process has no more power than the account."""
    os.setgroups([STAFF])
    os.setegid(STAFF)
    os.seteuid(ACCOUNT)
    try:
        yield
    finally:
        os.seteuid(0)
        os.setegid(0)
        os.setgroups([0])
