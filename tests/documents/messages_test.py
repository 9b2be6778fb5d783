#!/usr/bin/env python3
"""Holds docs/messages.md against src: every message that the program can say of itself is in one of its tables, with
its exit status, and no other. messages_test.py [--list]
"""

import re
import sys
from pathlib import Path

TOP = Path(__file__).resolve().parents[2]
LITERAL = r'"((?:[^"\\]|\\.)*)"'
# A literal that is part of what a person reads: several lower-case words.
WORDS = re.compile(r"[a-z][a-z'-]* [A-Za-z0-9' ;,/-]+\n?")
NOT_SAID = re.compile(r"Library/|TP |absent|regex|Tamarind|version: |location: |schema=|receipt\\t")


def source_text(path):
    """A source without its comments and includes, and with adjoining literals joined."""
    text = re.sub(r"//[^\n]*", "", path.read_text())
    text = re.sub(r"#include[^\n]*", "", text)
    return re.sub(r'"\s*\n\s*"', "", text)


def constants(text):
    """The named texts of a source."""
    named = re.findall(r"constexpr (?:const char\*|std::string_view) (\w+) ?= ?" + LITERAL, text)
    return dict(named)


def functions(text):
    """Yields name, parameters and body of each function of a source."""
    for match in re.finditer(r"^[\w:<>&*,\[\] ]*?\b(\w+)\(([^;{}]*)\)\s*(?:const)?\s*\n?\{", text, re.MULTILINE):
        depth, end = 1, match.end()
        while depth:
            depth += {"{": 1, "}": -1}.get(text[end], 0)
            end += 1
        yield match[1], match[2], text[match.end():end - 1]


def arguments(text, start):
    """The arguments of the call whose opening bracket is at `start`."""
    depth, pieces, piece, at = 0, [], "", start
    while True:
        char = text[at]
        if char in "({[":
            depth += 1
        if char in ")}]":
            depth -= 1
        if depth == 0:
            return [*pieces, piece[1:] if not pieces else piece]
        if char == "," and depth == 1:
            pieces.append(piece[1:] if not pieces else piece)
            piece = ""
        else:
            piece += char
        at += 1


def calls(text, name):
    """The arguments of each call of a function."""
    for match in re.finditer(rf"(?<![\w:]){name}\(", text):
        yield [argument.strip() for argument in arguments(text, match.end() - 1)]


class Subjects:
    """The functions that put a message together from a subject and what is wrong with it."""

    def __init__(self, sources):
        self._own, self._passed = {}, {}
        for text in sources.values():
            for name, parameters, body in functions(text):
                if not re.search(r"\bsubject\b", parameters):
                    continue
                # What is caught here is never said.
                body = re.sub(r"try \{.*?\} catch \(const Invalid&\) \{", "", body, flags=re.DOTALL)
                count = parameters.count(",") + 1
                self._own.setdefault((name, count), set()).update(re.findall(r"subject\)? \+ " + LITERAL, body))
                self._passed[name, count] = {
                    (called, len(given)) for called in re.findall(r"(\w+)\(", body)
                    for given in calls(body, called) if "subject" in given}

    def names(self):
        return {name for name, _ in self._own}

    def endings(self, name, count, seen=()):
        if (name, count) in seen:
            return set()
        found = set(self._own.get((name, count), ()))
        for passed, given in self._passed.get((name, count), ()):
            found |= self.endings(passed, given, (*seen, (name, count)))
        return found


def messages():
    """Returns the messages of src, each with the statuses that it is seen to be thrown with, if any."""
    sources = {path: source_text(path) for path in sorted((TOP / "src").glob("*/*.cpp"))}
    subjects = Subjects(sources)
    found, parts = {}, set()
    for text in sources.values():
        named = constants(text)

        def resolved(argument):
            literal = re.fullmatch(LITERAL, argument)
            return literal[1] if literal else named.get(argument)

        for name in subjects.names():
            for given in calls(text, name):
                for argument in given[-1:]:
                    subject = resolved(argument)
                    endings = subjects.endings(name, len(given)) if subject else ()
                    if endings:
                        parts.add(subject)
                        for ending in endings:
                            found.setdefault(subject + ending, set()).add(65)
        prefix = re.search(r"void refuse\(const char\* reason\)\s*\{\s*throw Invalid\((.*?) \+ (?:\" \" \+ )?reason\)", text)
        if prefix:
            whole = re.search(LITERAL, prefix[1])
            whole = whole[1] if whole else named["subject"]
            for reason in re.findall(r"\brefuse\(" + LITERAL, text):
                parts.add(reason)
                parts.add(whole)
                found.setdefault(whole.rstrip() + " " + reason, set()).add(65)
        for kind, words in re.findall(r"throw (\S+?)\(\s*" + LITERAL, text):
            status = {"Invalid": 65, "DescriptorNotLocated": 66}.get(kind, 70)
            found.setdefault(words, set()).add(status)
        parts.update(ending for ending in re.findall(r"subject\)? \+ " + LITERAL, text))
    for text in sources.values():
        for words in re.findall(LITERAL, text):
            words = words.replace("\\n", "\n")
            if WORDS.fullmatch(words) and not NOT_SAID.search(words) and words not in parts:
                found.setdefault(words.rstrip("\n"), set())
    return {words: statuses for words, statuses in found.items() if words and words not in parts}


def documented():
    """The messages of the document's tables, with their statuses."""
    found = {}
    for line in (TOP / "docs/messages.md").read_text().splitlines():
        row = re.fullmatch(r"\| (`[^|]*`) +\| ([0-9, ]+?) +\| [^|]+ \| [^|]+ \|", line)
        for words in re.findall("`([^`]+)`", row[1]) if row else ():
            if words in found:
                print("told twice: " + words)
            found[words] = {int(status) for status in row[2].split(", ")}
    return found


def broken_links():
    """The links of the document that lead nowhere in recovery.md."""
    recovery = (TOP / "docs/recovery.md").read_text()
    anchors = set(re.findall('<a id="([^"]+)">', recovery))
    anchors |= {heading.lower().replace(" ", "-") for heading in re.findall("^## (.*)$", recovery, re.MULTILINE)}
    return set(re.findall(r"recovery\.md#([a-z-]+)", (TOP / "docs/messages.md").read_text())) - anchors


def main():
    said = messages()
    if "--list" in sys.argv:
        for words, statuses in sorted(said.items()):
            print(words, sorted(statuses))
        return 0
    told = documented()
    wrong = [f"not in the document: {words}" for words in sorted(said.keys() - told.keys())]
    wrong += [f"no such message in src: {words}" for words in sorted(told.keys() - said.keys())]
    wrong += [f"told with {sorted(told[words])}, thrown with {sorted(said[words])}: {words}"
              for words in sorted(said.keys() & told.keys()) if not said[words] <= told[words]]
    wrong += [f"no such place: recovery.md#{name}" for name in sorted(broken_links())]
    print("\n".join([*wrong, f"{len(said)} messages, {len(wrong)} wrong"]))
    return 1 if wrong or not said else 0


if __name__ == "__main__":
    sys.exit(main())
