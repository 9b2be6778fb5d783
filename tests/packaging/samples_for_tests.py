"""Makes the packages that the cases install, once for all of them. usage: samples_for_tests.py BUILD DIRECTORY"""

import shutil
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "demo"))
from samples import Release, Workshop

HERON_1 = Release("heron", "1.0.0", "1")
HERON_2 = Release("heron", "1.1.0", "2")
IBIS = Release("ibis", "1.0.0", "3")
SHORT_WAIT = 3  # seconds

# Answers as no descriptor from a plan makes the maintenance tool answer.
ODD_TOOL = """#!/bin/sh
case $1 in
begin-install)
    inbox="${0%/*}/Maintenance/Inbox"
    mkdir -p "$inbox" && : >"$inbox/install-0.tpmt"
    echo install-0 ;;
inspect) echo '{"status":"move-required"}' ;;
*) exit 70 ;;
esac
"""


def main(build, directory):
    shutil.rmtree(directory, ignore_errors=True)
    shop = Workshop(build, directory)
    for release in (HERON_1, HERON_2, IBIS):
        shop.stage(release)
    out = Path(directory, "packages")
    out.mkdir()
    shop.hand_out_driver(out)
    shop.build_all([(shop.component_package, *component[::2])
                    for component in {(package, word, version) for release in (HERON_1, HERON_2, IBIS)
                                      for package, word, version in release.components}])
    for scope in ("user", "system"):
        for name, release in {"heron-1": HERON_1, "heron-2": HERON_2, "ibis": IBIS}.items():
            shop.installer(release, out / f"{scope}-{name}.pkg", scope)
        shop.installer(HERON_1, out / f"{scope}-heron-1-short.pkg", scope, SHORT_WAIT)
        odd = Path(directory, f"odd-{scope}")
        odd.mkdir()
        (odd / "tool").write_text(ODD_TOOL)
        shop.installer(HERON_1, out / f"{scope}-odd.pkg", scope, tool=odd / "tool")
    shop.mover(HERON_1, "move-heron", out / "move.pkg")


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2])
