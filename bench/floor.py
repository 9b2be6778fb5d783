"""What the steps of each command demand, as a script for the floor program.

The pkgutil runs are those that the stand-in logged for the program itself; the hashes are counted here, from what each
command has to prove, and the syncs are filled up to the number that the program makes.
"""

import os
import shutil
import subprocess
from pathlib import Path

from scene import LOG, ROOT


def hashes(scope, packages, times=1):
    return [f"hash\t{ROOT[scope] / file.path}" for package in packages for file in package.files] * times


def copies(scope, packages, directory, name):
    files = [file for package in packages for file in package.files]
    return [f"copy\t{ROOT[scope] / file.path}\t{directory}/{name}{number}" for number, file in enumerate(files)]


def alternating(calls, work):
    """The pkgutil runs with the work spread among them, as a command asks about a package and then proves it.

    All runs first would be faster: a process that hashes in between lets the other processor go idle.
    """
    lines = []
    for number, call in enumerate(calls):
        begin, end = (len(work) * step // len(calls) for step in (number, number + 1))
        lines += [f"pkgutil\t{call}", *work[begin:end]]
    return lines or list(work)


class Floor:
    def __init__(self, program, launcher, directory):
        self.program = program
        self.launcher = launcher
        self.directory = Path(directory)
        self.script = Path("/tmp/floor-script")

    def run(self, calls, work, syncs, discarded=()):
        """Runs the floor with these logged pkgutil calls.

        syncs      how often the program synchronised
        discarded  files whose copies a transaction has left, to be removed
        """
        shutil.rmtree(self.directory, ignore_errors=True)
        self.directory.mkdir(parents=True)
        if discarded:
            (self.directory / "old").mkdir()
            for number, file in enumerate(discarded):
                subprocess.run(["cp", "--reflink=auto", file, self.directory / f"old/{number}"], check=True)
            os.sync()
            work = [*work, f"discard\t{self.directory}/old"]
        own_syncs = sum(2 for line in work if line.split("\t")[0] in ("copy", "write"))
        # Each of the others follows a change too, mostly a record that is written and gets its name.
        missing = max(0, syncs - own_syncs)
        fill = [f"write\t{self.directory}/record{number}\t64" for number in range(missing // 2)]
        fill += [f"sync\t{self.directory}"] * (missing % 2)
        self.script.write_text("".join(f"{line}\n" for line in alternating(calls, work) + fill))
        result = self.launcher.run(self.program, self.script)
        shutil.rmtree(self.directory)
        if result.status != 0:
            raise RuntimeError(f"the floor failed: {result.output}")
        return result


def logged_calls():
    return LOG.read_text().splitlines()


def count_syncs(arguments):
    """How often a command synchronises; the run itself is a real one."""
    report = "/tmp/sync-count"
    subprocess.run(["strace", "-qq", "-e", "trace=fsync", "-o", report, *map(str, arguments)], cwd="/", check=True,
                   stdout=subprocess.DEVNULL)
    return Path(report).read_text().count("fsync(")
