"""Runs the maintenance tool as root inside a rehearsal root."""

import contextlib
import os
import shutil
import signal
import subprocess
from dataclasses import dataclass

TOOLS = "/opt/campaign"
TOOL = TOOLS + "/TamarindPelicanMaintenance"
ATTACKER = TOOLS + "/attacker"
STEPPER = TOOLS + "/stepper"
PLAN = TOOLS + "/transaction-plan.tpmp"
PKGUTIL_RULES = "/etc/pkgutil-stand-in.conf"
PKGUTIL_LOG = "/var/log/pkgutil-stand-in.log"
# A run hangs when it has used so many seconds of a processor, or has not moved at all for so many seconds. How long
# it takes on a busy machine says nothing.
MOST_WORK, LONGEST_STANDSTILL = 20, 15
LONGEST_STEPPED = 300   # seconds; for a run that is stopped at its calls
# A sanitizer's search for leaks, in a build that has one, cannot look into a process that is traced.
ENVIRONMENT = {"PATH": "/usr/bin:/bin:/usr/sbin:/sbin", "LANG": "C", "ASAN_OPTIONS": "detect_leaks=0"}
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
    with subprocess.Popen([TOOL, *words], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          env=ENVIRONMENT, cwd="/", start_new_session=True) as process:
        before = None
        while True:
            try:
                stdout, stderr = process.communicate(timeout=LONGEST_STANDSTILL)
                return Outcome("signal" if process.returncode < 0 else "exit", abs(process.returncode), stdout, stderr)
            except subprocess.TimeoutExpired:
                work, now = _progress(process.pid)
                if work > MOST_WORK or now == before:
                    os.killpg(process.pid, signal.SIGKILL)
                    stdout, stderr = process.communicate()
                    return Outcome("hung", 0, stdout, stderr)
                before = now


def _progress(session):
    """Returns how many seconds of a processor the processes of a session have used, and all that tells whether any
    of them has moved."""
    ticks, moved = 0, []
    for name in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open(f"/proc/{name}/stat", encoding="utf-8", errors="replace") as file:
                fields = file.read().rpartition(")")[2].split()
            if int(fields[3]) != session:
                continue
            with open(f"/proc/{name}/status", encoding="utf-8", errors="replace") as file:
                moved += [name] + [line for line in file if "ctxt_switches" in line]
        except OSError:
            continue
        ticks += sum(int(field) for field in fields[11:15])
    return ticks / os.sysconf("SC_CLK_TCK"), moved


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
