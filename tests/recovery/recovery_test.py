#!/usr/bin/env python3
"""Runs docs/recovery.md: brings each of its states about, tries every command in it, and follows its ways out.

Runs inside a rehearsal root: recovery_test.py BUILD [STATE...]. With --show it prints what the commands say in
each state instead, as the document's tables have it.
"""

import os
import plistlib
import re
import subprocess
import sys

TOP = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, TOP + "/campaigns")

from common import products, scenarios, scene, tool, wholeness    # noqa: E402
from recovery import document, situations               # noqa: E402

NOT_LOCATED = ("maintenance descriptor directory is missing or unsafe", "maintenance descriptor is missing or unsafe")
PACKAGES = tool.TOOLS + "/packages"
SPARE = tool.TOOLS + "/spare"
MOST_COMMANDS = 3

_packages = {}  # product archives by what they hold


def say(text):
    print(text, flush=True)


class Rehearsal:
    """One situation on disk, and commands typed into a terminal there."""

    def __init__(self, build, made):
        self._build = build
        self._made = made
        self._holders = []

    def __enter__(self):
        scene.restore(self._made.found)
        tool.place_plan(self._made.actor, self._made.plan)
        if self._made.spare:
            with open(SPARE, "w", encoding="ascii") as file:
                file.write(self._made.spare)
        self._holders = [situations.hold(path) for path in self._made.holders]
        return self

    def __exit__(self, *_):
        self.let_go()

    def let_go(self):
        """The other run ends, and with it its locks."""
        for holder in self._holders:
            holder.close()
        self._holders = []

    def command(self, command):
        """Runs one of the tool's commands; returns what it came to, as a table's cell has it."""
        words = [command, self._made.scope]
        if command != "begin-install":
            words.append(self._made.identifier)
        return told(tool.run_plainly(self._made.actor, words), self._made.identifier)

    def type(self, words):
        """Runs a line of the document as it stands; returns the lines that it prints."""
        account = self._made.actor.uid != 0
        if words.startswith("sudo "):
            words, account = words[5:], False
        if "$packages" in words:
            self._build_packages()
        environment = dict(tool.ENVIRONMENT, HOME=products.HOME, id=self._made.identifier, packages=PACKAGES + ".pkg",
                           program=f"{self._made.actor.directory}/{tool.NAME}", descriptor=SPARE, USER="player",
                           here=self._made.place(products.MAINTENANCE))
        done = subprocess.run(["/bin/bash", "-c", 'tool() { "$program" "$@"; }; ' + words], stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, env=environment, cwd="/", check=False,
                              **({"user": 501, "group": 20, "extra_groups": []} if account else {}))
        printed = done.stdout.decode().replace(self._made.identifier or "-", "ID")
        lines = re.sub("install-[0-9a-f]{64}", "NEW-ID", printed).splitlines()
        if words.startswith("installer") and done.returncode == 0:
            lines = []
        expected = 65 if words.startswith("tool") and lines not in ([], ["ID"], ["NEW-ID"]) else 0
        expected = 66 if lines and lines[0] in NOT_LOCATED else expected
        if done.returncode != expected:
            lines.append(f"(exit status {done.returncode})")
        return lines

    def _build_packages(self):
        packages = self._made.job.packages()
        key = " ".join(package.identifier + package.version for package in packages)
        if key not in _packages:
            _packages[key] = self._product_archive(packages, f"{PACKAGES}-{len(_packages)}")
        if os.path.lexists(PACKAGES + ".pkg"):
            os.unlink(PACKAGES + ".pkg")
        os.symlink(_packages[key], PACKAGES + ".pkg")

    def _product_archive(self, packages, work):
        names = []
        for package in packages:
            root = f"{work}/{package.identifier}"
            for path, content in package.files.items():
                os.makedirs(os.path.dirname(f"{root}/{path}"), exist_ok=True)
                with open(f"{root}/{path}", "wb") as file:
                    file.write(content)
            names.append(package.identifier + ".pkg")
            # The campaign's products are no bundles, and the list says so.
            with open(work + "/bundles", "wb") as file:
                plistlib.dump([], file)
            subprocess.run([self._build + "/rehearsal/pkgbuild", "--root", root, "--component-plist", work + "/bundles",
                            "--identifier", package.identifier, "--version", package.version,
                            f"{work}/{names[-1]}"], check=True)
        with open(work + "/distribution", "w", encoding="ascii") as file:
            references = "".join(f'<pkg-ref id="{name[:-4]}">#{name}</pkg-ref>\n' for name in names)
            file.write(f'<installer-gui-script minSpecVersion="2">\n{references}</installer-gui-script>\n')
        subprocess.run([self._build + "/rehearsal/productbuild", "--distribution", work + "/distribution",
                        "--package-path", work, work + ".pkg"], check=True)
        return work + ".pkg"


def told(outcome, identifier):
    """How a command ended, in the words of the document's tables."""
    if outcome.ended != "exit":
        return outcome.says()
    if outcome.status == 0 and not outcome.stderr:
        text = outcome.stdout.decode().rstrip("\n")
        if text == identifier and identifier:
            return "prints the identifier"
        if re.fullmatch("install-[0-9a-f]{64}", text):
            return "prints a new identifier"
        return f"`{text}`" if text else "succeeds"
    text = outcome.stderr.decode().rstrip("\n")
    expected = 66 if text in NOT_LOCATED else 65
    return f"`{text}`" if outcome.status == expected else outcome.says()


def holdings(found):
    """What products there are, as far as a user can tell: their files, receipts, index and records."""
    result = {}
    for path, entry in found.items():
        if entry.content is None:
            continue
        if "/Audio/Plug-Ins/" in path or "/TamarindPelican" in path or path.endswith(".receipt"):
            result[path] = re.sub(rb"install-time=\d+", b"", entry.content)
        elif path.endswith("/installed-products.json") or "/Maintenance/Products/" in path:
            result[path] = entry.content
    return result


def open_ends(made, found):
    """What of the transaction is still open in a scene."""
    lines = []
    for path, entry in found.items():
        inside = path.partition("/Tamarind Pelican/Maintenance/")[2]
        if inside == "ActiveTransaction" or inside == "Transactions/" + made.identifier:
            lines.append("still there: " + path)
        elif inside == "PendingInstall" and made.identifier.encode() in entry.content:
            lines.append("still there: " + path)
        elif wholeness.is_temporary(path):
            lines.append("left over: " + path)
    return lines


def check_disk(state, made):
    """Holds what the document says of the disk against the situation."""
    names = {made.place(products.MAINTENANCE) + "/" + name.replace("ID", made.identifier): name
             for name in state.there + state.absent}
    for path, name in names.items():
        if (path in made.found) != (name in state.there):
            yield f"{name} is {'there' if path in made.found else 'not there'}"


def check_commands(state, made, build):
    for command in document.COMMANDS:
        with Rehearsal(build, made) as rehearsal:
            found = rehearsal.command(command)
        if state.says[command] != found and not state.says[command].startswith(found + ";"):
            yield f"{command}: the document says {state.says[command]}, the program: {found}"


def check_way(way, made, build):
    with Rehearsal(build, made) as rehearsal:
        for line in way.lines:
            if line.remark:
                rehearsal.let_go()
                continue
            found = rehearsal.type(line.words)
            if found != line.says:
                yield f"$ {line.words}: the document says {line.says}, found {found}"
        found = scene.capture()
    expected = {"finish": made.after, "undo": made.before, "clear": made.found}[way.aim]
    one, other = holdings(expected), holdings(found)
    for path in sorted(one.keys() | other.keys()):
        if one.get(path) != other.get(path):
            yield f"to {way.aim}: {path} is not as it should be"
    yield from open_ends(made, found)
    yield from (line for line in wholeness.Judge(scenarios.EVERYTHING,
                                                 [(scenarios.DAMAGED, scenarios.DAMAGE)]).faults(found)
                if "not private" not in line)


def check(state, made, build):
    """Returns what is wrong with one state of the document."""
    faults = list(check_disk(state, made)) + list(check_commands(state, made, build))
    for number, way in enumerate(state.ways, 1):
        faults += [f"way {number}: {fault}" for fault in check_way(way, made, build)]
        if sum(1 for line in way.lines if not line.remark) > MOST_COMMANDS:
            faults.append(f"way {number} has more than {MOST_COMMANDS} commands")
    return faults


def show(name, made, build):
    say("\n## " + name)
    root = made.place(products.MAINTENANCE) + "/"
    kept = re.compile("PendingInstall|ActiveTransaction|Completed/.*|Inbox/.*|Transactions/[^/]+(/prepared)?")
    there = [path[len(root):].replace(made.identifier or "-", "ID") for path in made.found if path.startswith(root)]
    say("On disk: " + ", ".join(f"`{path}`" for path in there if kept.fullmatch(path)))
    for command in document.COMMANDS:
        with Rehearsal(build, made) as rehearsal:
            told_words = rehearsal.command(command)
        say(f"| `{command}`".ljust(23) + "| " + told_words + " |")


def main():
    words = [word for word in sys.argv[1:] if word != "--show"]
    build, chosen = words[0], words[1:]
    tool.install_tools(build)
    if "--show" in sys.argv:
        for name, make in situations.SITUATIONS.items():
            if not chosen or name in chosen:
                show(name, make(), build)
        return 0
    states = document.read(TOP + "/docs/recovery.md")
    failed = 0
    told_states = [state.name for state in states]
    for name in sorted(set(told_states) ^ set(situations.SITUATIONS)):
        say(f"FAILED  {name}: {'has no set-up' if name in told_states else 'is not in the document'}")
        failed += 1
    for state in states:
        if state.name not in situations.SITUATIONS or chosen and state.name not in chosen:
            continue
        faults = check(state, situations.SITUATIONS[state.name](), build)
        say(f"{'FAILED  ' if faults else 'ok      '}{state.name}, {len(state.ways)} ways out")
        for fault in faults:
            say("        " + fault)
        failed += 1 if faults else 0
    say(f"{len(states)} states, {failed} failed")
    return 1 if failed or not states else 0


if __name__ == "__main__":
    sys.exit(main())
