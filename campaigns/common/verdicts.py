"""What campaigns print and keep of the cases that they have judged."""

import json
import sys

MOST_FAULTS = 8


class Report:
    """A file with every verdict, one JSON array a line; none when it has no path."""

    def __init__(self, path):
        self._file = open(path, "w", encoding="utf-8") if path else None

    def add(self, *verdict):
        if self._file:
            print(json.dumps(verdict), file=self._file, flush=True)


def add_report_argument(parser):
    parser.add_argument("--report", metavar="FILE", help="write every verdict to FILE, one JSON array a line")


def show_failure(command, faults, said=""):
    """Prints a failing case as the command that repeats it, and what was wrong.

    said  how the disturbed run ended, if there was one
    """
    print("FAILED  " + command)
    for line in ([f"the run: {said}"] if said else []) + [fault[:500] for fault in faults[:MOST_FAULTS]]:
        print("        " + line)
    if len(faults) > MOST_FAULTS:
        print(f"        and {len(faults) - MOST_FAULTS} more")
    sys.stdout.flush()


def show_broken(what):
    """Prints a request that could not be carried out at all."""
    print("BROKEN  " + what, flush=True)


def show_progress(text):
    """Keeps a line on a terminal up to date; an empty text takes it away."""
    if sys.stderr.isatty():
        print(f"\r{text}\033[K", end="", file=sys.stderr)
