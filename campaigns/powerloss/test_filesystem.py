#!/usr/bin/env python3
"""Tests of the model of a file system."""

import os
import stat
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))

from common import scene                    # noqa: E402
from powerloss import filesystem            # noqa: E402

ROOT = scene.ROOTS[0]


def directory(mode=0o755):
    return scene.Entry(stat.S_IFDIR | mode, 1, 1, None)


def file(content, mode=0o600, uid=1):
    return scene.Entry(stat.S_IFREG | mode, uid, 1, content)


def disk(**files):
    """A disk with these files in one directory."""
    found = {ROOT: directory(), ROOT + "/d": directory()}
    found.update({f"{ROOT}/d/{name}": entry for name, entry in files.items()})
    return filesystem.Disk(found)


def shown(model):
    """Everything that may be found: for each state the names in the directory with the files' contents."""
    states = set()
    for outcomes in model.combinations():
        found, _ = model.show(outcomes)
        states.add(tuple(sorted((path[len(ROOT) + 3:], entry.content) for path, entry in found.items()
                                if path.startswith(ROOT + "/d/"))))
    return states


def create(model, name, content=b"", mode=0o600):
    model.create(f"{ROOT}/d/{name}", "file", mode, 1, 1)
    if content:
        model.write(f"{ROOT}/d/{name}", content)


class Contents(unittest.TestCase):
    def test_of_a_new_file_anything_can_be_lost(self):
        model = disk()
        create(model, "f", b"abcd")
        self.assertEqual(shown(model), {(), (("f", b""),), (("f", b"ab"),), (("f", b"\0\0\0\0"),), (("f", b"abcd"),)})

    def test_sync_of_the_file_keeps_its_content_but_not_its_name(self):
        model = disk()
        create(model, "f", b"abcd")
        model.sync(ROOT + "/d/f")
        self.assertEqual(shown(model), {(), (("f", b"abcd"),)})

    def test_sync_of_the_directory_keeps_the_name_but_not_the_content(self):
        model = disk()
        create(model, "f", b"abcd")
        model.sync(ROOT + "/d")
        self.assertNotIn((), shown(model))
        self.assertIn((("f", b""),), shown(model))

    def test_both_syncs_leave_nothing_to_lose(self):
        model = disk()
        create(model, "f", b"abcd")
        model.sync(ROOT + "/d/f")
        model.sync(ROOT + "/d")
        self.assertEqual(model.pending, [])
        self.assertEqual(shown(model), {(("f", b"abcd"),)})

    def test_what_is_overwritten_may_come_back(self):
        model = disk(f=file(b"old"))
        model.write(ROOT + "/d/f", b"newer")
        self.assertIn((("f", b"old"),), shown(model))

    def test_several_writes_count_as_one(self):
        model = disk(f=file(b""))
        model.write(ROOT + "/d/f", b"ab")
        model.write(ROOT + "/d/f", b"abcd")
        self.assertEqual(len(model.pending), 1)
        self.assertIn((("f", b"abcd"),), shown(model))


class Names(unittest.TestCase):
    def test_a_rename_shows_the_old_or_the_new_file_and_perhaps_both_names(self):
        model = disk(t=file(b"new"), f=file(b"old"))
        model.rename(ROOT + "/d/t", ROOT + "/d/f")
        self.assertEqual(shown(model), {(("f", b"old"), ("t", b"new")), (("f", b"new"), ("t", b"new")),
                                        (("f", b"new"),)})

    def test_both_names_of_a_rename_are_one_file(self):
        model = disk(t=file(b"new"))
        model.rename(ROOT + "/d/t", ROOT + "/d/f")
        self.assertEqual(model.show("10")[1], {ROOT + "/d/t": ROOT + "/d/f"})

    def test_a_rename_before_the_content_is_synced_can_publish_nothing(self):
        model = disk(f=file(b"old"))
        create(model, "t", b"new!")
        model.rename(ROOT + "/d/t", ROOT + "/d/f")
        model.sync(ROOT + "/d")
        self.assertIn((("f", b""),), shown(model))

    def test_a_removal_comes_back_until_its_directory_is_synced(self):
        model = disk(f=file(b"x"))
        model.remove(ROOT + "/d/f")
        self.assertEqual(shown(model), {(), (("f", b"x"),)})
        model.sync(ROOT + "/d")
        self.assertEqual(shown(model), {()})

    def test_names_in_one_directory_are_independent(self):
        model = disk(a=file(b"a"), b=file(b"b"))
        model.remove(ROOT + "/d/a")
        model.remove(ROOT + "/d/b")
        self.assertEqual(len(shown(model)), 4)

    def test_a_later_change_can_be_durable_before_an_earlier_one_elsewhere(self):
        model = disk()
        model.create(ROOT + "/d/sub", "directory", 0o755, 1, 1)
        model.create(ROOT + "/d/sub/f", "file", 0o600, 1, 1)
        model.sync(ROOT + "/d/sub")
        self.assertEqual(shown(model), {(), (("sub", None), ("sub/f", b""))})

    def test_a_tree_goes_with_its_name(self):
        model = filesystem.Disk({ROOT: directory(), ROOT + "/d": directory(), ROOT + "/d/f": file(b"x")})
        model.remove(ROOT + "/d/f")
        model.remove(ROOT + "/d")
        model.sync(ROOT)
        self.assertEqual({tuple(model.show(outcomes)[0]) for outcomes in model.combinations()}, {(ROOT,)})

    def test_a_durable_removal_leaves_what_else_is_pending(self):
        model = disk(a=file(b"a"), b=file(b"b"))
        model.remove(ROOT + "/d/a")
        model.remove_durably(ROOT + "/d/b")
        self.assertEqual(shown(model), {(), (("a", b"a"),)})


class AttributesOfFiles(unittest.TestCase):
    def test_each_is_lost_until_the_file_is_synced(self):
        model = disk(f=file(b"x"))
        model.change(ROOT + "/d/f", mode=0o644)
        model.change(ROOT + "/d/f", uid=5)
        found = {(model.show(outcomes)[0][ROOT + "/d/f"].mode & 0o777, model.show(outcomes)[0][ROOT + "/d/f"].uid)
                 for outcomes in model.combinations()}
        self.assertEqual(found, {(0o600, 1), (0o600, 5), (0o644, 1), (0o644, 5)})
        model.sync(ROOT + "/d/f")
        self.assertEqual(model.show("")[0][ROOT + "/d/f"], scene.Entry(stat.S_IFREG | 0o644, 5, 1, b"x"))

    def test_what_changes_nothing_is_no_change(self):
        model = disk(f=file(b"x"))
        model.change(ROOT + "/d/f", mode=0o600, uid=1, gid=1)
        self.assertEqual(model.pending, [])


class Combinations(unittest.TestCase):
    def setUp(self):
        names = [f"f{number}" for number in range(20)]
        self.model = disk(**{name: file(b"") for name in names})
        for name in names:
            self.model.remove(f"{ROOT}/d/{name}")

    def test_many_changes_are_lost_and_kept_alone_and_in_pairs(self):
        found = set(self.model.combinations())
        self.assertEqual(len(next(iter(found))), 20)
        for expected in ("0" * 20, "1" * 20, "0" * 5 + "1" + "0" * 14, "1" * 5 + "0" + "1" * 14,
                         "1" * 7 + "0" * 13, "1" + "0" * 18 + "1"):
            self.assertIn(expected, found)

    def test_a_text_of_another_length_is_refused(self):
        with self.assertRaises(filesystem.Unknown):
            self.model.show("1")

    def test_a_place_outside_is_refused(self):
        with self.assertRaises(filesystem.Unknown):
            self.model.sync("/etc")


if __name__ == "__main__":
    unittest.main()
