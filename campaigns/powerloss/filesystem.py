"""A model of a file system: which trees may be found after the power was lost between two operations.

Nothing is durable before it is synchronised. The sync of a file makes its data, mode and owner durable, but not its
name; the sync of a directory makes durable which names are in it and what they lead to, but nothing of the files
themselves. Whatever is not durable is lost or not, each change independently of every other, also of later ones in
the same directory. Only this is taken for granted: a new file or directory has an owner and a mode, those that it
was created with; a rename shows under the new name the old or the new file, and the old name does not go without
it, though it may stay as a second name of the same file.
"""

import itertools
import stat
from dataclasses import dataclass, field

from common import scene

TYPES = {"directory": stat.S_IFDIR, "file": stat.S_IFREG, "link": stat.S_IFLNK}

# What can have come of a change: of names, modes and owners ...
LOST, KEPT = "0", "1"
# ... and of what was written to a file: its old content, nothing, the first half, zeros, everything.
OLD, EMPTY, HALF, ZEROS, WHOLE = "o", "e", "h", "z", "w"
EXHAUSTIVE = 128    # up to so many combinations, all of them are examined
PAIRS_LOST = 12     # up to so many changes, each two of them are lost together
PAIRS_KEPT = 24     # up to so many changes, each two of them are the only ones that are kept


class Unknown(Exception):
    """The model does not know what an operation does."""


@dataclass(eq=False)
class Node:
    """A file, directory or link as it is durable. `entries` and `now` are a directory's names, durable and present."""

    mode: int
    uid: int
    gid: int
    content: object = None
    entries: dict = field(default_factory=dict)
    now: dict = field(default_factory=dict)

    def is_directory(self):
        return stat.S_ISDIR(self.mode)


@dataclass(eq=False)
class Change:
    """Something that is not durable yet."""

    node: Node          # the directory for a name, otherwise the file or directory itself
    outcomes: str       # what can have come of it, the loss first and the full effect last
    what: str           # for people

    def apply(self, view, outcome):
        raise NotImplementedError


@dataclass(eq=False)
class Name(Change):
    """A name that leads to `to`, or to nothing any more."""

    name: str
    to: object
    only_with: object = None    # another change without which this one cannot come

    def apply(self, view, outcome):
        if outcome == LOST:
            return
        entries = view.entries.setdefault(self.node, dict(self.node.entries))
        if self.to is None:
            entries.pop(self.name, None)
        else:
            entries[self.name] = self.to


@dataclass(eq=False)
class Content(Change):
    """The whole content that a file has got since its last sync."""

    content: bytes

    def apply(self, view, outcome):
        if outcome != OLD:
            size = len(self.content)
            view.contents[self.node] = {EMPTY: b"", HALF: self.content[:size // 2], ZEROS: bytes(size),
                                        WHOLE: self.content}[outcome]


@dataclass(eq=False)
class Attributes(Change):
    """Mode, owner or group that were changed."""

    values: dict

    def apply(self, view, outcome):
        if outcome == KEPT:
            view.attributes.setdefault(self.node, {}).update(self.values)


@dataclass
class View:
    """How the nodes differ from what is durable of them, for one set of outcomes."""

    entries: dict = field(default_factory=dict)
    contents: dict = field(default_factory=dict)
    attributes: dict = field(default_factory=dict)


class Disk:
    """What is durable, and what is not yet."""

    def __init__(self, found, roots=scene.ROOTS):
        """Begins with a scene in which everything is durable."""
        self.pending = []
        self._roots = {}
        nodes = {}
        for path, entry in found.items():
            node = nodes[path] = Node(entry.mode, entry.uid, entry.gid, entry.content)
            if path in roots:
                self._roots[path] = node
                continue
            directory, _, name = path.rpartition("/")
            nodes[directory].entries[name] = nodes[directory].now[name] = node

    # --- operations; a path is where something stands at present ---

    def holds(self, path):
        """Tells whether a path lies in the trees that the disk was made of."""
        return self._root_of(path) is not None

    def create(self, path, kind, mode, uid, gid):
        """Makes a file or directory, unless there is one."""
        directory, name = self._place(path)
        if name in directory.now:
            return
        made = Node(TYPES[kind] | mode, uid, gid, None if kind == "directory" else b"")
        self._name(directory, name, made, None, "created " + path)

    def write(self, path, content):
        """Gives a file another content."""
        node = self._node(path)
        earlier = next((change for change in self.pending
                        if isinstance(change, Content) and change.node is node), None)
        if earlier:
            earlier.content = content
        elif content != node.content:
            outcomes = (OLD if node.content else EMPTY) + HALF + ZEROS + WHOLE
            self.pending.append(Content(node, outcomes, "wrote " + path, content))

    def change(self, path, **values):
        """Gives mode (permissions), uid or gid other values."""
        node = self._node(path)
        if "mode" in values:
            values["mode"] |= stat.S_IFMT(node.mode)
        present = {key: getattr(node, key) for key in values}
        for earlier in self.pending:
            if isinstance(earlier, Attributes) and earlier.node is node:
                present.update({key: value for key, value in earlier.values.items() if key in values})
        values = {key: value for key, value in values.items() if value != present[key]}
        if values:
            self.pending.append(Attributes(node, LOST + KEPT, f"changed {', '.join(values)} of {path}", values))

    def rename(self, source, target):
        """Moves a name, replacing what has the new name."""
        node = self._node(source)
        added = self._name(*self._place(target), node, None, f"renamed to {target}")
        self._name(*self._place(source), None, added, f"renamed from {source}")

    def remove(self, path):
        """Removes the name of a file or of an empty directory."""
        self._name(*self._place(path), None, None, "removed " + path)

    def remove_durably(self, path):
        """Removes a name in one durable step, whatever else is pending in its directory."""
        directory, name = self._place(path)
        for entries in (directory.now, directory.entries):
            entries.pop(name, None)
        self.pending = [change for change in self.pending
                        if not (isinstance(change, Name) and (change.node, change.name) == (directory, name))]

    def sync(self, path):
        """Makes durable what a file's or directory's own sync makes durable."""
        node = self._node(path)
        wanted = [change for change in self.pending if change.node is node]
        # A name that goes only with another one takes it along, also out of another directory.
        wanted += [change.only_with for change in wanted
                   if isinstance(change, Name) and change.only_with in self.pending
                   and change.only_with not in wanted]
        self._settle(wanted)

    def sync_everything(self):
        """Makes everything durable."""
        self._settle(list(self.pending))

    def _settle(self, wanted):
        view = View()
        for change in self.pending:
            if change in wanted:
                change.apply(view, change.outcomes[-1])
        for node, entries in view.entries.items():
            node.entries = entries
        for node, content in view.contents.items():
            node.content = content
        for node, values in view.attributes.items():
            for key, value in values.items():
                setattr(node, key, value)
        self.pending = [change for change in self.pending if change not in wanted]

    def _name(self, directory, name, node, only_with, what):
        if node is None:
            del directory.now[name]
        else:
            directory.now[name] = node
        self.pending.append(Name(directory, LOST + KEPT, what, name, node, only_with))
        return self.pending[-1]

    def _root_of(self, path):
        return next((root for root in self._roots if path == root or path.startswith(root + "/")), None)

    def _node(self, path):
        root = self._root_of(path)
        if root is None:
            raise Unknown("outside: " + path)
        node = self._roots[root]
        for name in path[len(root):].split("/")[1:]:
            if name not in node.now:
                raise Unknown("nothing stands at " + path)
            node = node.now[name]
        return node

    def _place(self, path):
        directory, _, name = path.rpartition("/")
        return self._node(directory), name

    # --- what may be found ---

    def combinations(self):
        """Yields texts with one letter for each pending change: all combinations where they are few; otherwise
        everything lost, everything kept, everything up to some change, each change alone lost and alone kept, and
        each two of them as far as the limits go."""
        choices = [change.outcomes for change in self.pending]
        combinations = 1
        for outcomes in choices:
            combinations *= len(outcomes)
        if combinations <= EXHAUSTIVE:
            chosen = ("".join(outcomes) for outcomes in itertools.product(*choices))
        else:
            chosen = _some(choices)
        for outcomes in dict.fromkeys(chosen):
            if self._is_legal(outcomes):
                yield outcomes

    def _is_legal(self, outcomes):
        kept = {change for change, outcome in zip(self.pending, outcomes) if outcome != LOST}
        return all(change.only_with not in self.pending or change.only_with in kept
                   for change in kept if isinstance(change, Name) and change.only_with)

    def show(self, outcomes):
        """Returns the scene for one outcome of each pending change, and which paths in it are further names of
        which others."""
        if len(outcomes) != len(self.pending):
            raise Unknown(f"there are {len(self.pending)} pending changes, not {len(outcomes)}")
        view = View()
        for change, outcome in zip(self.pending, outcomes):
            change.apply(view, outcome)
        found, links, first = {}, {}, {}
        for root in scene.ROOTS:
            if root in self._roots:
                _show(self._roots[root], root, view, found, links, first)
        return found, links


def _some(choices):
    lost, kept = [each[0] for each in choices], [each[-1] for each in choices]
    count = len(choices)

    def but(base, changes):
        result = list(base)
        for index, outcome in changes:
            result[index] = outcome
        return "".join(result)

    yield but(lost, ())
    yield but(kept, ())
    for index in range(1, count):
        yield "".join(kept[:index] + lost[index:])
    for index, outcomes in enumerate(choices):
        for outcome in outcomes[:-1]:
            yield but(kept, [(index, outcome)])
        for outcome in outcomes[1:]:
            yield but(lost, [(index, outcome)])
    for one, other in itertools.combinations(range(count), 2):
        if count <= PAIRS_LOST:
            yield but(kept, [(one, lost[one]), (other, lost[other])])
        if count <= PAIRS_KEPT:
            yield but(lost, [(one, kept[one]), (other, kept[other])])


def _show(node, path, view, found, links, first):
    values = view.attributes.get(node, {})
    found[path] = scene.Entry(values.get("mode", node.mode), values.get("uid", node.uid),
                              values.get("gid", node.gid), view.contents.get(node, node.content))
    if node.is_directory():
        entries = view.entries.get(node, node.entries)
        for name in sorted(entries):
            _show(entries[name], path + "/" + name, view, found, links, first)
    elif node in first:
        links[path] = first[node]
    else:
        first[node] = path
