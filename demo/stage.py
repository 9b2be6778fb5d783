"""Where the story is played: runs commands, shows what they did, and holds it against what was announced."""

import os
import re
import signal
import subprocess
import sys
import textwrap

import disk
from samples import SUPPORT, TOOL

WIDTH = 100
HOME = "/Users/player"
LOG = "/var/log/install.log"
SEARCHED = "/usr/sbin:/usr/bin:/sbin:/bin"
TRANSACTION_ID = re.compile(r"install-[0-9a-f]{64}")
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

    def play(self, account, words, out=(), error=(), log=(), status=0, changes=None):
        """Runs a command as an account, shows what came of it, and compares everything with the arguments.

        out, error, log  the lines that it must write to its outputs and have added to the installation log
        status           its exit status; -9 for death by signal 9
        changes          how many changes there must be on disk; None for any number
        """
        self.show_command(account, words)
        before, logged = self.look(), os.path.getsize(LOG)
        done = subprocess.run(words, capture_output=True, text=True, stdin=subprocess.DEVNULL,
                              cwd=self.packages, env={**VARIABLES, "PATH": SEARCHED}, **ACCOUNTS[account])
        found = disk.compare(before, self.look())
        added = self.log_since(logged)
        for line in done.stdout.splitlines() + done.stderr.splitlines():
            self.quote(line)
        for line in added:
            self.quote(f"install.log: {line}")
        self.say(f"  {ending(done.returncode)}", None if done.returncode == 0 else "~")
        for line in disk.changed_lines(found):
            self.say(shortened(line), line.strip()[0])
        if not found:
            self.say("  nothing changed on disk")
        self.expect("exit status", done.returncode, status)
        self.expect("standard output", done.stdout.splitlines(), list(out))
        self.expect("standard error", done.stderr.splitlines(), list(error))
        self.expect("installation log", masked(added), masked(log))
        if changes is not None:
            self.expect("number of changes on disk", len(found), changes)
        return added

    def install(self, account, package, target, log, **expected):
        """Runs the platform's installer; returns the identifier of the transaction that it began, if any."""
        base = HOME if target == "CurrentUserHomeDirectory" else target
        out = [f"installer: Package name is {package.removesuffix('.pkg')}",
               f"installer: Installing at base path {base}"]
        if expected.get("status", 0) == 0:
            out.append("installer: The install was successful.")
        lines = [f"com.tamarindpelican.begin ./preinstall: {line}" for line in log]
        added = self.play(account, ["installer", "-pkg", package, "-target", target], out=out, log=lines, **expected)
        begun = [match.group(0) for match in map(TRANSACTION_ID.search, added) if match]
        return begun[0] if begun else None

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

    def log_since(self, position):
        with open(LOG, encoding="utf-8") as log:
            log.seek(position)
            return log.read().splitlines()

    def show_command(self, account, words):
        lines = [f"{account}{'#' if account == 'root' else '$'}"]
        for word in (shortened(named(word)) for word in words):
            if len(lines[-1]) + len(word) + 3 > WIDTH:
                lines.append("   ")
            lines[-1] += f" {word}"
        self.say("\n" + " \\\n".join(lines), "command")


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
    return [TRANSACTION_ID.sub("install-...", line) for line in lines]


def ending(status):
    if status < 0:
        return f"killed by signal {-status}, {signal.Signals(-status).name}"
    return f"exit status {status}"
