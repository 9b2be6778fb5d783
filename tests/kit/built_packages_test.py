"""The kit on packages that the scripts for macOS built. usage: built_packages_test.py KIT SAMPLES"""

import json
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

KIT, SAMPLES = sys.argv[1], Path(sys.argv[2])
PLAN = SAMPLES / "user-heron-1.parts/transaction-plan.tpmp"
COMPONENTS = [SAMPLES / f"com.tamarindpelican.pkg.{name}.pkg" for name in ("heron.vst3-1.0.0", "heron.au-1.0.0", "common-1")]
PRODUCTS = {"schema": "tamarind.pelican.product-list.v1", "sku": "heron-installer", "packageRevision": 1,
            "products": [{"id": "heron", "version": "1.0.0"}]}


class Kit(unittest.TestCase):
    def kit(self, command, *words, packages):
        named = [word for package in packages for word in ("--package", package)]
        return subprocess.run([KIT, command, "--quiet", *words, *named], capture_output=True, text=True, check=False)

    def plan(self, packages):
        with tempfile.NamedTemporaryFile("w", suffix=".json") as products:
            json.dump(PRODUCTS, products)
            products.flush()
            return self.kit("plan", "--products", products.name, "--output", "-", packages=packages)

    def test_plans_component_packages_as_their_trees(self):
        self.assertEqual(self.plan(COMPONENTS).stdout, PLAN.read_text())

    def test_plans_a_product_archive_as_its_component_packages(self):
        self.assertEqual(self.plan([SAMPLES / "packages/user-heron-1.pkg"]).stdout, PLAN.read_text())

    def test_finds_plan_and_descriptor_true_to_the_archives_that_carry_them(self):
        for archive in ("user-heron-1.pkg", "system-heron-1.pkg", "move.pkg"):
            checked = self.kit("check", PLAN, packages=[SAMPLES / "packages" / archive])
            self.assertEqual((checked.returncode, checked.stderr), (0, ""), checked.stdout)
        descriptor = SAMPLES / "move.parts/move-heron.tpmt"
        self.assertEqual(self.kit("check", descriptor, packages=[SAMPLES / "packages/move.pkg"]).returncode, 0)

    def test_names_what_another_release_has_changed(self):
        checked = self.kit("check", PLAN, packages=[SAMPLES / "packages/user-heron-2.pkg"])
        self.assertEqual(checked.returncode, 65)
        self.assertIn("~ com.tamarindpelican.pkg.heron.vst3  (version: listed 1.0.0, found 1.1.0)\n", checked.stdout)
        self.assertIn("~ Library/Audio/Plug-Ins/Components/TP Heron.component/Contents/MacOS/TP Heron  (content:",
                      checked.stdout)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
