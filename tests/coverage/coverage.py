#!/usr/bin/env python3
"""Tells which lines and branches of the product the tests have executed, and holds the lines that they have not
against the list of reasons in unreached.md."""

import argparse
import collections
import json
import pathlib
import re
import subprocess
import sys

LEAST_LINES = 97.0
REASONS = pathlib.Path(__file__).with_name("unreached.md")


def measure(build, root):
    """Returns for each file of src the lines, as number to count, and the branches, as taken and all."""
    command = ["gcovr", "--root", str(root), "--object-directory", str(build / "src"), "--filter", "src/",
               "--gcov-ignore-parse-errors", "--exclude-throw-branches", "--exclude-unreachable-branches",
               "--json", "-", str(build / "src")]
    report = json.loads(subprocess.run(command, stdout=subprocess.PIPE, check=True).stdout)
    files = {}
    for file in report["files"]:
        lines, branches = {}, [0, 0]
        for line in file["lines"]:
            if line.get("gcovr/noncode"):
                continue
            lines[line["line_number"]] = line["count"]
            branches[0] += sum(branch["count"] > 0 for branch in line["branches"])
            branches[1] += len(line["branches"])
        if lines:
            files[file["file"]] = lines, branches
    return files


def read_reasons():
    """Returns file to line text to reason."""
    reasons, file = collections.defaultdict(dict), None
    for line in REASONS.read_text(encoding="utf-8").splitlines():
        if line.startswith("## "):
            file = line[3:]
        elif entry := re.fullmatch(r"- `(.*)`: (.+)", line):
            reasons[file][entry[1]] = entry[2]
    return reasons


def share(part, whole):
    return 100 * part / whole if whole else 100.0


def print_table(files):
    print(f"{'file':44} {'lines':>13} {'branches':>20}")
    total = [0, 0, 0, 0]
    for name, (lines, branches) in sorted(files.items()):
        counts = [sum(count > 0 for count in lines.values()), len(lines), *branches]
        print_row(name, counts)
        total = [a + b for a, b in zip(total, counts)]
    print_row("total", total)
    return share(total[0], total[1])


def print_row(name, counts):
    print(f"{name:44} {share(*counts[:2]):6.1f} % {counts[1]:4} {share(*counts[2:]):6.1f} % {counts[3]:4}"
          f" ({counts[2]} taken)")


def hold_against_reasons(files, root):
    """Prints the lines without a reason and the reasons without a line; returns how many there are."""
    reasons, used, wrong = read_reasons(), set(), 0
    for name, (lines, _) in sorted(files.items()):
        text = (root / name).read_text(encoding="utf-8").splitlines()
        for number in sorted(number for number, count in lines.items() if count == 0):
            line = text[number - 1].strip()
            if line in reasons[name]:
                used.add((name, line))
            else:
                wrong += 1
                print(f"{name}:{number}: not executed, and no reason is given: {line}")
    for name, entries in reasons.items():
        for line in entries:
            if (name, line) not in used:
                wrong += 1
                print(f"{REASONS.name}: {name}: executed now, or gone: {line}")
    return wrong


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("build", type=pathlib.Path)
    build = parser.parse_args().build.absolute()
    root = pathlib.Path(__file__).absolute().parents[2]
    files = measure(build, root)
    lines = print_table(files)
    wrong = hold_against_reasons(files, root)
    if lines < LEAST_LINES:
        print(f"{lines:.2f} % of the lines are executed, fewer than {LEAST_LINES} %")
    return 1 if wrong or lines < LEAST_LINES else 0


if __name__ == "__main__":
    sys.exit(main())
