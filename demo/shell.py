"""Furnishes a rehearsal root for trying things out, and opens a shell in it. Called by ./dev shell."""

import os
import shutil
import sys
from pathlib import Path

from samples import TOOL, Release, Workshop
from stage import HOME, JOB_LOG, VARIABLES

PACKAGES = Path("/packages")
HERON_1_0 = Release("heron", "1.0.0", "1")
HERON_1_1 = Release("heron", "1.1.0", "2")
IBIS_1_0 = Release("ibis", "1.0.0", "1")

AS_PLAYER = """#!/bin/sh
# Runs a command as the account "player".
exec setpriv --reuid=501 --regid=20 --init-groups -- "$@"
"""

LAST_ID = """#!/bin/sh
# Prints the identifier of the transaction that was begun last in the home.
cd "$HOME_OF_PLAYER/Library/Application Support/Tamarind Pelican/Maintenance/Inbox" && basename -s .tpmt "$(ls -t install-*.tpmt | head -n 1)"
"""

TO_TRY = f"""
You are root in a throw-away root; everything vanishes when you leave. The account "player" (uid 501) is
at the console and has the maintenance tool and a plan in its home. The packages are in {PACKAGES}.

  as-player "$TOOL" begin-install user           the plan becomes a descriptor, an identifier is printed
  as-player "$TOOL" inspect user "$(last-id)"    what the descriptor calls for
  as-player ./install-product user "TP Heron 1.0.0.pkg"
                                                 runs the installer, then commit-move, or rollback-move if it failed
  as-player installer -pkg "TP Heron 1.0.0.pkg" -target {HOME}
                                                 as a double click does; see /var/log/install.log and $JOB_LOG
  launchctl restart-machine                      cuts the power and starts again
  pkgutil --volume {HOME} --pkgs        what the package database knows

  installer -pkg "TP Heron 1.1.0.pkg" ...        an upgrade; "TP Ibis 1.0.0.pkg" is a second product
  echo stop-after=half >/etc/installer-stand-in.conf    makes installations fail half-way; then remove the file

To remove TP Heron 1.0.0 from the home again:

  as-player cp remove-heron.tpmt "$INBOX/"
  as-player "$TOOL" uninstall-product user remove-heron
"""


def furnish(build):
    PACKAGES.mkdir()
    workshop = Workshop(build, "/workshop")
    releases = [HERON_1_0, HERON_1_1, IBIS_1_0]
    for release in releases:
        workshop.stage(release)
    for release in releases:
        workshop.installer(release, PACKAGES / f"{release.name} {release.version}.pkg")
    workshop.hand_out_driver(PACKAGES)
    descriptor = PACKAGES / "remove-heron.tpmt"
    descriptor.write_text(workshop.descriptor(HERON_1_0, target="user"))

    tool = Path(HOME, TOOL)
    tool.parent.mkdir(mode=0o755)
    shutil.copy(workshop.build / "TamarindPelicanMaintenance", tool)
    plan = tool.parent / "transaction-plan.tpmp"
    plan.write_text(workshop.plan(HERON_1_0))
    for path in (tool.parent, tool, plan):
        shutil.chown(path, 501, 20)

    for name, text in {"as-player": AS_PLAYER, "last-id": LAST_ID}.items():
        command = Path("/usr/local/bin", name)
        command.write_text(text)
        command.chmod(0o755)


def main():
    os.umask(0o022)
    furnish(sys.argv[1])
    print(TO_TRY, flush=True)
    os.chdir(PACKAGES)
    tool = VARIABLES["TOOL_OF_USER"]
    environment = {
        **os.environ,
        "HOME_OF_PLAYER": HOME,
        "TOOL": tool,
        "JOB_LOG": JOB_LOG,
        "INBOX": f"{os.path.dirname(tool)}/Maintenance/Inbox",
        "PATH": "/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
        "PS1": r"rehearsal:\w\$ ",
    }
    os.execve("/bin/bash", ["bash", "--norc", "--noprofile"], environment)


if __name__ == "__main__":
    main()
