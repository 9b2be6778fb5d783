"""Reads docs/recovery.md: its states, what each says of the disk and of the commands, and its ways out."""

import re
from dataclasses import dataclass, field

COMMANDS = ("begin-install", "inspect", "prepare-move", "commit-move", "rollback-move", "uninstall-product")

_STATE = re.compile(r'^### .*<a id="([a-z-]+)"></a>$')
_PLACES = re.compile(r"^(On disk|Not there): (.*)$")
_ROW = re.compile(r"^\| (?:`([a-z-]+)`|all others) +\| (.*?) *\|$")
_AIM = re.compile(r"\bTo (finish|undo|clear)\b")


@dataclass
class Line:
    """A command of a way out and the lines that it prints; or a remark, after which something else has ended."""

    words: str
    remark: bool = False
    says: list = field(default_factory=list)


@dataclass
class Way:
    """A sequence of commands and what it comes to: the work is finished, undone, or the way for new work clear."""

    aim: str
    lines: list = field(default_factory=list)


@dataclass
class State:
    """One state of a scope as the document tells it."""

    name: str
    there: list = field(default_factory=list)
    absent: list = field(default_factory=list)
    says: dict = field(default_factory=dict)    # command to the cell of the table
    ways: list = field(default_factory=list)


class Mistake(Exception):
    """The document is not written as this reader expects it."""


def read(path):
    """Returns the states of the document in their order."""
    states = []
    paragraph = []  # the lines of the last one
    block = None
    with open(path, encoding="utf-8") as file:
        lines = file.read().splitlines()
    for line, before in zip(lines, ["", *lines]):
        if line.startswith("```"):
            block = _open_block(line, states, "\n".join(paragraph)) if block is None else None
        elif block is not None:
            _read_block_line(block, line)
        elif _STATE.match(line):
            states.append(State(_STATE.match(line)[1]))
        elif line:
            paragraph = [*paragraph, line] if before else [line]
            if states:
                _read_fact(states[-1], line)
    for state in states:
        _require_whole(state)
    return states


def exceptions(path):
    """The states that a person ends by touching a file, as the document's table names them."""
    with open(path, encoding="utf-8") as file:
        table = file.read().partition("| state | what a person does")[2].partition("\n\n")[0]
    names = [name for row in table.splitlines() for name in re.findall(r"\(#([a-z-]+)\)", row.partition(" | ")[0])]
    if not names:
        raise Mistake("no exceptions are named")
    return names


def _open_block(line, states, paragraph):
    if line != "```console" or not states:
        return Way("")     # the introduction, or a picture
    aims = _AIM.findall(paragraph)
    if not aims:
        raise Mistake(f"{states[-1].name}: a block of commands without an aim")
    states[-1].ways.append(Way(aims[-1]))
    return states[-1].ways[-1]


def _read_block_line(way, line):
    if line.startswith(("$ ", "# ")):
        way.lines.append(Line(line[2:], line.startswith("#")))
    elif way.aim and not way.lines:
        raise Mistake("output before the first command: " + line)
    elif way.lines:
        way.lines[-1].says.append(line)


def _read_fact(state, line):
    places, row = _PLACES.match(line), _ROW.match(line)
    if places:
        names = re.findall("`([^`]+)`", places[2])
        (state.there if places[1] == "On disk" else state.absent).extend(names)
    elif row:
        for command in [row[1]] if row[1] else [c for c in COMMANDS if c not in state.says]:
            if command not in COMMANDS or command in state.says:
                raise Mistake(f"{state.name}: {command} is no command, or told twice")
            state.says[command] = row[2]


def _require_whole(state):
    missing = [command for command in COMMANDS if command not in state.says]
    if missing:
        raise Mistake(f"{state.name}: nothing is said of {', '.join(missing)}")
    if not state.there and not state.absent:
        raise Mistake(f"{state.name}: nothing is said of the disk")
