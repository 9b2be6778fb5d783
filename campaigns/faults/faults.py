#!/usr/bin/env python3
"""Kills and disturbs runs of the real tool at their system calls, and judges how the next run goes on."""

import argparse
import collections
import fnmatch
import itertools
import os
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))

from common import scenarios, tool, verdicts, workers  # noqa: E402
from faults import judge, pkgutil_ways, points         # noqa: E402

ALL = None
FAMILIES = ("kill", "back", "error", "stuck", "short", "access", "memory", "pkgutil", "chain")
# Of each family of points at most so many in each scenario.
SIZES = {
    "sample": {"kill": 12, "back": 2, "error": 8, "stuck": 2, "short": 1, "access": 5, "memory": 2, "pkgutil": 5,
               "chain": 2},
    "full": {"kill": ALL, "back": 4, "error": 16, "stuck": 3, "short": 2, "access": 10, "memory": 3, "pkgutil": 14,
             "chain": 4},
    "everything": {family: ALL for family in FAMILIES},
}
SAMPLED = ("account-user/clean/*", "account-user/upgrade/prepare-*", "account-user/remove-last/*",
           "root-user/upgrade/*", "root-user/remove-last/*", "root-system/repair/*", "root-system/remove-one/*",
           "user-to-system/dropped/*", "system-to-user/kept/*", "system-to-user/kept-removed/*")
# These make the same calls as another scenario, in another situation or as another account; full takes not all of
# their kills either.
REPEATING = ("account-user/*", "root-system/*", "*/remove-after-*", "*/remove-restored/*", "*-removed/*")
REPEATED_KILLS = 30
PARTS = {"sample": 1, "full": 3, "everything": 20}  # of a scenario, so that the cores end at about the same time


def serve(build):
    """A worker's life."""
    tool.install_tools(build)
    pkgutil_ways.prepare()
    pkgutil_ways.behave()
    workers.serve(answer_to, (scenarios.Broken, RuntimeError))


def answer_to(request):
    """Runs the points that a request asks for."""
    name = request["scenario"]
    if "point" in request:
        texts = [request["point"]]
        families = ["single"]
    else:
        chosen = points.choose(scenarios.scenario(name), request["limits"], request["seed"])
        chosen = chosen[request["part"]::request["parts"]]
        texts, families = [p.text for p in chosen], [p.family for p in chosen]
    found = []
    for text, family in zip(texts, families):
        verdict = judge.run_point(name, text)
        found.append([family, verdict.point, verdict.kind, verdict.said, verdict.faults])
    return {"verdicts": found}


class Tally:
    """Counts verdicts and prints the failing ones as they come."""

    def __init__(self, report, pieces):
        self.counts = collections.Counter()
        self.failed = collections.Counter()
        self.broken = []
        self._pieces = pieces
        self._taken = 0
        self._report = verdicts.Report(report)

    def take(self, request, answer):
        self._taken += 1
        verdicts.show_progress(f"{self._taken} of {self._pieces} pieces, {self.total()} points")
        if "broken" in answer:
            self.broken.append(answer["broken"])
            verdicts.show_broken(answer["broken"])
            return
        for family, point, kind, said, faults in answer["verdicts"]:
            self.counts[family, kind] += 1
            if faults:
                self.failed[family] += 1
                verdicts.show_failure(f"./dev faults --point '{point}'", faults, said)
            self._report.add(family, point, kind, said, faults)

    def total(self):
        return sum(self.counts.values())

    def failures(self):
        return sum(self.failed.values())


def summarize(tally, seconds, seed):
    verdicts.show_progress("")
    families = sorted({family for family, _ in tally.counts})
    for family in families:
        kinds = ", ".join(f"{kind or 'unfinished'} {count}" for (of, kind), count in sorted(tally.counts.items())
                          if of == family)
        total = sum(count for (of, _), count in tally.counts.items() if of == family)
        print(f"{family:8} {total:6} points, {tally.failed[family]:4} failed   ({kinds})")
    good = tally.total() - tally.failures()
    share = 100 * good / max(1, tally.total())
    print(f"{'total':8} {tally.total():6} points, {tally.failures():4} failed, {share:.2f} % good, seed {seed}; "
          f"{seconds:.0f} s, {tally.total() / seconds:.1f} points a second")
    if tally.broken:
        print(f"{len(tally.broken)} pieces could not be run at all")


def requests(arguments):
    """What the workers are asked to do, the long pieces first."""
    if arguments.point:
        for spec in arguments.point:
            name, _, text = spec.partition("@")
            if name not in scenarios.names() or not text:
                sys.exit("no such point: " + spec)
            yield {"scenario": name, "point": text}
        return
    patterns = arguments.only or (SAMPLED if arguments.size == "sample" else ("*",))
    names = [name for name in scenarios.names() if is_one_of(name, patterns)]
    names.sort(key=lambda name: ("uninstall" not in name, "-to-" not in name, "prepare" not in name))
    parts = PARTS[arguments.size]
    for name, part in itertools.product(names, range(parts)):
        yield {"scenario": name, "limits": limits_for(name, arguments), "seed": arguments.seed, "part": part,
               "parts": parts}


def is_one_of(name, patterns):
    return any(fnmatch.fnmatch(name, pattern) for pattern in patterns)


def limits_for(name, arguments):
    """How many points of each family are taken in a scenario; families that are not named are left out."""
    limits = dict(SIZES[arguments.size])
    if arguments.size == "full" and is_one_of(name, REPEATING):
        limits["kill"] = REPEATED_KILLS
    if arguments.families:
        limits = {family: limits[family] for family in arguments.families}
    return limits


def families(text):
    named = text.split(",")
    for family in named:
        if family not in FAMILIES:
            raise argparse.ArgumentTypeError(f"no such family: {family}; there are {', '.join(FAMILIES)}")
    return named


def parse_arguments():
    parser = argparse.ArgumentParser(prog="./dev faults", description=__doc__)
    workers.add_arguments(parser)
    verdicts.add_report_argument(parser)
    size = parser.add_mutually_exclusive_group()
    size.add_argument("--sample", dest="size", action="store_const", const="sample", default="full",
                      help="a small fixed choice of scenarios and points, done within a minute or two")
    size.add_argument("--everything", dest="size", action="store_const", const="everything",
                      help="every point of every family; takes many hours")
    parser.add_argument("--only", action="append", metavar="PATTERN", help="only scenarios of such names")
    parser.add_argument("--families", type=families, metavar="LIST",
                        help="only these families of points, separated by commas: " + ", ".join(FAMILIES))
    parser.add_argument("--point", action="append", metavar="POINT", help="run this one point again")
    parser.add_argument("--list", action="store_true", help="list the scenarios")
    return parser.parse_args()


def main():
    arguments = parse_arguments()
    if arguments.worker:
        serve(arguments.build)
        return 0
    if arguments.list:
        print("\n".join(scenarios.names()))
        return 0
    began = time.monotonic()
    asked = list(requests(arguments))
    tally = Tally(arguments.report, len(asked))
    workers.run(arguments, asked, tally.take)
    summarize(tally, time.monotonic() - began, arguments.seed)
    return 1 if tally.failures() or tally.broken or not tally.total() else 0


if __name__ == "__main__":
    sys.exit(main())
