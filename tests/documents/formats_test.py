#!/usr/bin/env python3
"""Holds the examples of docs/formats.md against what the real program writes.

Runs inside a rehearsal root: formats_test.py BUILD [--write]. The program upgrades a sample product there. Each
block whose first line names a moment and a file below "Library/Application Support/Tamarind Pelican" must be that
file at that moment; what is random in it counts as equal. --write puts the program's texts into the document.
"""

import os
import re
import stat
import sys

TOP = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, TOP + "/campaigns")

from common import products, scenarios, tool    # noqa: E402

DOCUMENT = TOP + "/docs/formats.md"
BLOCK = re.compile(r"^```(text|tree) (\w+) (\S+)\n(.*?)^```$", re.MULTILINE | re.DOTALL)
RANDOM = re.compile(r"(?<=install-)[0-9a-f]{64}|(?<=generation=)[0-9a-f]{64}|(?<=canonicalSha256=)[0-9a-f]{64}")


def moments():
    """The scenes of an upgrade and of a first installation, each with its transaction's identifier."""
    upgrade = scenarios.Stages(scenarios.installation_job("upgrade", tool.ACCOUNT, "user"))
    first = scenarios.Stages(scenarios.installation_job("clean", tool.ACCOUNT, "user"))
    return {"begun": upgrade.begun, "prepared": upgrade.prepared, "done": upgrade.done, "first": first.prepared,
            "plan": (upgrade.job.plan(), "")}


def text_of(moment, name):
    found, identifier = moment
    if isinstance(found, str):
        return found
    path = products.in_scope("user", f"{products.SUPPORT}/{name.replace('ID', identifier)}")
    entry = found.get(path)
    return entry.content.decode() if entry and entry.content is not None else "there is no such file\n"


def tree_of(moment, name):
    """What lies below a directory, with modes; of one transaction alone, where there are files of earlier ones."""
    found, identifier = moment
    top = products.in_scope("user", f"{products.SUPPORT}/{name.replace('ID', identifier)}")
    lines = []
    for path, entry in found.items():
        inside = path[len(top) + 1:] if path.startswith(top + "/") else ""
        if inside and ("install-" not in inside or identifier in inside):
            kind = "/" if entry.content is None else ""
            lines.append(f"{stat.S_IMODE(entry.mode):04o} {inside.replace(identifier, 'ID')}{kind}\n")
    return "".join(lines)


def main():
    tool.install_tools(sys.argv[1])
    known = moments()
    with open(DOCUMENT, encoding="utf-8") as file:
        document = file.read()
    found = {match.group(0): (tree_of if match[1] == "tree" else text_of)(known[match[2]], match[3])
             for match in BLOCK.finditer(document)}
    if "--write" in sys.argv:
        written = BLOCK.sub(lambda match: f"```{match[1]} {match[2]} {match[3]}\n{found[match.group(0)]}```", document)
        with open(DOCUMENT, "w", encoding="utf-8") as file:
            file.write(written)
        return 0
    wrong = 0
    for match in BLOCK.finditer(document):
        if RANDOM.sub("*", match[4]) != RANDOM.sub("*", found[match.group(0)]):
            print(f"{match[2]} {match[3]} is\n{found[match.group(0)]}")
            wrong += 1
    print(f"{len(found)} examples, {wrong} wrong")
    return 1 if wrong or not found else 0


if __name__ == "__main__":
    sys.exit(main())
