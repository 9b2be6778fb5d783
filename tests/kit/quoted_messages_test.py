#!/usr/bin/env python3
"""Holds what the kit quotes as the tool's messages against docs/messages.md, which another test holds against src."""

import re
import sys
from pathlib import Path

TOP = Path(__file__).resolve().parents[2]
LITERAL = r'"((?:[^"\\]|\\.)*)"'
SUBJECT = re.compile(r"(maintenance (descriptor|directory|lock)|embedded transaction plan|pending installation attempt|"
                     r"durable transaction|prepared transaction|pkgutil|exact native|native package|"
                     r"fixed maintenance|fixed metadata|owned path) (\w+ )+\w+")
ENDING = re.compile(r"[a-z -]* (unsafe|redirected|invalid)")
# Of files that the tool writes and never reads, or reads for their lines only; nobody is told that the tool says it.
OWN = {"installed-products index is invalid", "product record is invalid", "receipt identity snapshot is invalid"}


def quoted(path):
    """The literals of a source that stand for a message of the tool, or for its end."""
    text = re.sub(r"//[^\n]*", "", path.read_text())
    for words in re.findall(LITERAL, re.sub(r'"\s*\n\s*"', "", text)):
        if (SUBJECT.fullmatch(words) or ENDING.fullmatch(words)) and words not in OWN:
            yield words


def is_told(path, words, told):
    """Whether the tool has this message; the diagnoses put the file's name in front of theirs."""
    if path.name.endswith("_diagnosis.cpp"):
        words = " " + words.lstrip()
    return any(message.endswith(words) if words.startswith(" ") else message == words for message in told)


def main():
    told = re.findall("`([^`]+)`", (TOP / "docs/messages.md").read_text())
    found = [(path, words) for path in sorted((TOP / "kit").glob("*/*.cpp")) for words in quoted(path)]
    wrong = [f"{path.relative_to(TOP)}: no message of the tool: {words}" for path, words in found
             if not is_told(path, words, told)]
    print("\n".join([*wrong, f"{len(found)} quotations, {len(wrong)} wrong"]))
    return 1 if wrong or not found else 0


if __name__ == "__main__":
    sys.exit(main())
