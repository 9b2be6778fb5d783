"""Where the story is played: runs commands, shows what they did, and holds it against what was announced."""

import os
import re
import signal
import subprocess
import sys
import textwrap
import time

import disk
from samples import SUPPORT, TOOL

WIDTH = 100
HOME = "/Users/player"
LOG = "/var/log/install.log"
JOB = "com.tamarindpelican.finish"
JOB_LOG = f"{HOME}/Library/Logs/{JOB}.log"
SEAT = "/run/systemd/seats/seat0"
SEARCHED = "/usr/sbin:/usr/bin:/sbin:/bin"
TRANSACTION_ID = re.compile(r"(install|move-[a-z]+)-([0-9a-f]{64}|\d{14}-\d+)")
TIME = re.compile(r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d ")
ACCOUNTS = {
    "player": {"user": 501, "group": 20, "extra_groups": []},
    "root": {},
}
# Shown in commands instead of the paths that they stand for, longest first.
VARIABLES = {
    "TOOL_OF_USER": f"{HOME}/{TOOL}",
    "TOOL_OF_SYSTEM": f"/{TOOL}",
    "SUPPORT": SUPPORT,
    "VST3": "Library/Audio/Plug-Ins/VST3/Tamarind Pelican",
    "AU": "Library/Audio/Plug-Ins/Components",
    "HOME": HOME,
}
COLOURS = {"title": "1;36", "command": "1", "+": "32", "-": "31", "~": "33", "ok": "32", "wrong": "1;31"}


class NotAsAnnounced(Exception):
    """Something turned out otherwise than the story said."""


class Stage:
    def __init__(self, packages):
        self.packages = packages  # the directory in which all commands run
        self.coloured = sys.stdout.isatty() and os.environ.get("TERM") != "dumb"
        self.steps = 0
        self.facts = 0

    def say(self, text, style=None, end="\n"):
        if style in COLOURS and self.coloured:
            text = f"\033[{COLOURS[style]}m{text}\033[0m"
        print(text, end=end, flush=True)

    def quote(self, line):
        """Shows a line that something printed, folded where it is too long."""
        self.say(textwrap.fill(shortened(line), WIDTH, initial_indent="  ", subsequent_indent="      ",
                               break_on_hyphens=False))

    def step(self, title, announcement):
        """Opens a step and says beforehand what is going to happen."""
        self.finish_step()
        self.steps += 1
        self.say(f"\n{'=' * WIDTH}\n{self.steps}. {title}\n{'=' * WIDTH}", "title")
        for paragraph in textwrap.dedent(announcement).strip().split("\n\n"):
            self.say(textwrap.fill(" ".join(paragraph.split()), WIDTH, break_on_hyphens=False))

    def finish_step(self):
        if self.facts:
            self.say(f"\nAs announced: {self.facts} facts were compared.", "ok")
        self.facts = 0

    def play(self, account, words, out=(), error=(), log=(), job=None, status=0, changes=None):
        """Runs a command as an account, shows what came of it, and compares everything with the arguments.

        out, error, log  the lines that it must write to its outputs and have added to the installation log
        job              the lines that the finishing job must have added to its log when it has ended
        status           its exit status; -9 for death by signal 9
        changes          how many changes there must be on disk; None for any number
        """
        self.show_command(account, words)
        before, logged, told = self.look(), size_of(LOG), size_of(JOB_LOG)
        done = subprocess.run(words, capture_output=True, text=True, stdin=subprocess.DEVNULL,
                              cwd=self.packages, env={**VARIABLES, "PATH": SEARCHED}, **ACCOUNTS[account])
        if job is not None:
            wait_for_job()
        found = disk.compare(before, self.look())
        added, told_by_job = lines_since(LOG, logged), [TIME.sub("", line) for line in lines_since(JOB_LOG, told)]
        for line in done.stdout.splitlines() + done.stderr.splitlines():
            self.quote(line)
        for line in added if "./install-product" not in words else []:  # which shows them itself
            self.quote(f"install.log: {line}")
        for line in told_by_job:
            self.quote(f"finishing job: {line}")
        self.say(f"  {ending(done.returncode)}", None if done.returncode == 0 else "~")
        for line in disk.changed_lines(found):
            self.say(shortened(line), line.strip()[0])
        if not found:
            self.say("  nothing changed on disk")
        self.expect("exit status", done.returncode, status)
        self.expect("standard output", masked(done.stdout.splitlines()), masked(out))
        self.expect("standard error", done.stderr.splitlines(), list(error))
        self.expect("installation log", masked(added), masked(log))
        self.expect("log of the finishing job", masked(told_by_job), masked(job or []))
        if changes is not None:
            self.expect("number of changes on disk", len(found), changes)
        return added

    def install(self, account, scope, package, log, ended, **expected):
        """Runs the driver, which runs the platform's installer; returns the transaction that was begun, if any.

        log    what the scripts of the package must say, without their names
        ended  what the driver must say at its end
        """
        out = self.installer_lines(scope, package, expected.get("error"))
        out += [f"  {line}" for line in scripts_say(log)] + [ended]
        added = self.play(account, ["./install-product", scope, package], out=out, log=logged(log), **expected)
        return last_transaction(added)

    def open_package(self, account, package, log, **expected):
        """Runs the platform's installer alone, as a double click does; returns the transaction that was begun."""
        words = ["installer", "-pkg", package, "-target", "CurrentUserHomeDirectory"]
        added = self.play(account, words, out=self.installer_lines("user", package, None), log=logged(log), **expected)
        return last_transaction(added)

    def installer_lines(self, scope, package, error):
        base = HOME if scope == "user" else "/"
        out = [f"installer: Package name is {package.removesuffix('.pkg')}", f"installer: Installing at base path {base}"]
        return out if error else [*out, "installer: The install was successful."]

    def restart(self, at_console, **expected):
        """Starts the machine again with an account at the console, or nobody."""
        seat(at_console)
        self.play("root", ["launchctl", "restart-machine"], **expected)

    def tool(self, account, *words, **expected):
        """Runs the maintenance tool of the scope that the words name."""
        return self.play(account, [tool_path(words[1]), *words], **expected)

    def expect(self, what, actual, expected):
        self.facts += 1
        if actual == expected:
            return
        self.say(f"\nNOT AS ANNOUNCED: {what}", "wrong")
        self.say(f"  expected  {expected}\n  actual    {actual}")
        raise NotAsAnnounced(what)

    def look(self):
        return disk.scan(HOME, "/Library", "/var/db/receipts")

    def show_command(self, account, words):
        lines = [f"{account}{'#' if account == 'root' else '$'}"]
        for word in (shortened(named(word)) for word in words):
            if len(lines[-1]) + len(word) + 3 > WIDTH:
                lines.append("   ")
            lines[-1] += f" {word}"
        self.say("\n" + " \\\n".join(lines), "command")


def scripts_say(log):
    """What a driver shows of the log: each line with the name of its script."""
    return [f"{'postinstall' if line.startswith('finishing job') else 'preinstall'}: {line}" for line in log]


def logged(log):
    return [f"com.tamarindpelican.begin ./{line}" for line in scripts_say(log)]


def last_transaction(lines):
    begun = [match.group(0) for match in map(TRANSACTION_ID.search, lines) if match]
    return begun[-1] if begun else None


def seat(uid):
    """Puts the account with this user id, or nobody, at the console."""
    active = "" if uid is None else f"ACTIVE=1\nACTIVE_UID={uid}\n"
    with open(SEAT, "w", encoding="ascii") as file:
        file.write(f"IS_SEAT0=1\n{active}")


def wait_for_job():
    """Waits until the finishing job of the home has ended."""
    for _ in range(600):
        state = subprocess.run(["launchctl", "print", f"gui/501/{JOB}"], capture_output=True, text=True).stdout
        if "state = running" not in state:
            return
        time.sleep(0.1)
    raise NotAsAnnounced("the finishing job goes on for ever")


def size_of(path):
    return os.path.getsize(path) if os.path.exists(path) else 0


def lines_since(path, position):
    if not os.path.exists(path):
        return []
    with open(path, encoding="utf-8") as log:
        log.seek(position)
        return log.read().splitlines()


def tool_path(scope):
    return VARIABLES[f"TOOL_OF_{scope.upper()}"]


def named(word):
    """A word as one would type it, with variables for the long paths."""
    short = abbreviated(word)
    return short if re.fullmatch(r"[\w./=:-]+", short) else f'"{short}"'


def abbreviated(text, variables=None):
    """The text with variables for the long paths in it."""
    for name, value in (variables or VARIABLES).items():
        text = text.replace(value, f"${name}")
    return text


def shortened(text):
    """The text with every digest and the random part of every identifier cut to eight digits."""
    return re.sub(r"\b([0-9a-f]{8})[0-9a-f]{56}\b", r"\1..", text)


def masked(lines):
    return [TRANSACTION_ID.sub(r"\1-...", line) for line in lines]


def ending(status):
    if status < 0:
        return f"killed by signal {-status}, {signal.Signals(-status).name}"
    return f"exit status {status}"
