#!/usr/bin/env python3
"""Draws the pictures of the documents: FILE.svg from FILE.dot, and house.dot from the includes of src.

diagrams.py draws; diagrams.py --check fails where a committed picture is not the one that would be drawn now. The
check compares boxes, arrows and words, not coordinates, which depend on the fonts of a machine. Needs graphviz.
"""

import re
import subprocess
import sys
from pathlib import Path

DOCS = Path(__file__).resolve().parent
SOURCES = DOCS.parent / "src"


def includes():
    """Returns which folder of src includes which, with the number of files that do."""
    counts = {}
    for path in sorted(SOURCES.glob("*/*")):
        if path.suffix not in (".h", ".cpp"):
            continue
        folder = path.parent.name
        named = {line.split("/")[0] for line in re.findall('^#include "([^"]+)"', path.read_text(), re.MULTILINE)}
        for other in named - {folder}:
            counts[folder, other] = counts.get((folder, other), 0) + 1
    return counts


def reachable(edges, start, skipped):
    """The folders that `start` reaches without the arrow `skipped`."""
    seen, open_ends = set(), [start]
    while open_ends:
        folder = open_ends.pop()
        for one, other in edges:
            if one == folder and (one, other) != skipped and other not in seen:
                seen.add(other)
                open_ends.append(other)
    return seen


def house():
    """The picture of src: an arrow where files of one folder include another's. What other arrows imply already is
    left out, except where two folders know each other."""
    counts = includes()
    kept = dict(counts)
    for edge in sorted(counts):
        if edge[::-1] not in counts and edge[1] in reachable(kept, edge[0], edge):
            del kept[edge]
    folders = sorted({folder for edge in counts for folder in edge})
    lines = ["// Drawn from the includes of src by docs/diagrams.py; do not edit.", "digraph house {",
             '    graph [rankdir=TB, nodesep=0.4, ranksep=0.35, bgcolor="white"];',
             '    node [shape=box, style="rounded,filled", fillcolor="#f4f4f4", fontname="Helvetica", fontsize=12];',
             '    edge [fontname="Helvetica", fontsize=9, arrowsize=0.7];']
    lines += [f"    {folder};" for folder in folders]
    lines += [f'    {one} -> {other} [label="{counts[one, other]}"];' for one, other in sorted(kept)]
    return "\n".join(lines) + "\n}\n"


def draw(text):
    return subprocess.run(["dot", "-Tsvg"], input=text, capture_output=True, text=True, check=True).stdout


def gist(svg):
    """The boxes, arrows and words of a picture."""
    return sorted(re.findall("<(?:title|text)[^>]*>([^<]*)<", svg))


def main():
    if "--check" not in sys.argv:
        (DOCS / "house.dot").write_text(house())
        for source in DOCS.glob("*.dot"):
            source.with_suffix(".svg").write_text(draw(source.read_text()))
        return 0
    stale = []
    if (DOCS / "house.dot").read_text() != house():
        stale.append("house.dot")
    for source in sorted(DOCS.glob("*.dot")):
        picture = source.with_suffix(".svg")
        if not picture.exists() or gist(picture.read_text()) != gist(draw(source.read_text())):
            stale.append(picture.name)
    for name in stale:
        print(f"docs/{name} is not what would be drawn now; run docs/diagrams.py")
    return 1 if stale else 0


if __name__ == "__main__":
    sys.exit(main())
