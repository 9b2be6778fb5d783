#!/usr/bin/env python3
"""Walks the states that stopped runs of the real tool leave behind, and finds out of each a way of at most three
commands."""

import argparse
import collections
import fnmatch
import hashlib
import itertools
import os
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))

from common import products, scenarios, scene, tool, verdicts, workers    # noqa: E402
from faults import pkgutil_ways, points                         # noqa: E402
from recovery import document, situations                       # noqa: E402

ALL = None
DOCUMENT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../docs/recovery.md")
LONGEST = 3
SIZES = {
    "sample": {"kill": 4, "error": 1},
    "full": {"kill": ALL, "error": 40, "stuck": 10, "pkgutil": 20},
}
SAMPLED = ("account-user/clean/begin-install", "account-user/clean/commit-move", "account-user/upgrade/prepare-move",
           "account-user/upgrade/rollback-half", "account-user/upgrade/commit-refused",
           "root-user/remove-last/uninstall-product", "root-system/repair/commit-move",
           "user-to-system/dropped/prepare-move", "user-to-system/dropped/commit-move",
           "system-to-user/kept/commit-move", "system-to-user/kept/rollback-half")
PARTS = {"sample": 1, "full": 4}
# What can be done about a transaction, the likely things first. "installer" installs its packages.
DEEDS = ("rollback-move", "commit-move", "uninstall-product", "prepare-move", "begin-install", "installer")


def serve(build):
    """A worker's life."""
    tool.install_tools(build)
    pkgutil_ways.prepare()
    pkgutil_ways.behave()
    workers.serve(answer_to, (scenarios.Broken, RuntimeError))


def answer_to(request):
    """Walks on from each of the points that a request asks for."""
    made = scenarios.scenario(request["scenario"])
    texts = [request["point"]] if "point" in request else [
        point.text for point in points.choose(made, request["limits"], request["seed"])]
    walks, known = [], {}
    for text in texts[request["part"]::request["parts"]]:
        identifier, found = stop(made, text)
        mark = digest(scenarios.normal(made, found))
        if mark not in known:
            known[mark] = way_out(made, identifier, found)
        walks.append([f"{made.name}@{text}", *known[mark]])
    return {"walks": walks, "states": len(known)}


def digest(found):
    return hashlib.sha256(repr(sorted(found.items())).encode()).hexdigest()


def stop(made, text):
    """Disturbs the scenario's run at one point; returns the transaction's identifier and what is on disk."""
    made.enter()
    kind, number, way = text.split(":", 2)
    if kind == "pkgutil":
        pkgutil_ways.arrange(int(number), way)
        try:
            tool.run(made.actor, made.words())
        finally:
            pkgutil_ways.behave()
    else:
        tool.run(made.actor, made.words(), [text])
    found = scene.capture()
    return made.identifier or begun_identifier(made, found), found


def begun_identifier(made, found):
    attempt = found.get(products.in_scope(made.job.target, situations.ATTEMPT))
    lines = attempt.content.decode().splitlines() if attempt else []
    return next((line.partition("=")[2] for line in lines if line.startswith("transaction=")), "")


def way_out(made, identifier, found):
    """Returns the commands that end the transaction, or nothing and the name of the exception that it is."""
    if is_ended(made, identifier, found):
        return [[], ""]
    for length in range(1, LONGEST + 1):
        for deeds in itertools.product(DEEDS, repeat=length):
            if leads_out(made, identifier, found, deeds):
                return [deeds, ""]
    return [None, exceptions().get(kind_of(made, identifier, found), "")]


def leads_out(made, identifier, found, deeds):
    scene.restore(found)
    tool.place_plan(made.actor, made.job.plan())
    for deed in deeds:
        if deed == "installer":
            made.job.place()
            continue
        words = [deed, made.job.target] + ([] if deed == "begin-install" else [identifier])
        if tool.run_plainly(made.actor, words).status != 0:
            return False    # a shorter or another way leads to what it has left
    left = scene.capture()
    return is_ended(made, identifier, left) and not made.judge.faults(left)


def is_ended(made, identifier, found):
    """No lease, no transaction directory and no attempt of this transaction is left in either scope."""
    for scope in ("user", "system"):
        if products.in_scope(scope, f"{products.MAINTENANCE}/Transactions/{identifier}") in found:
            return False
        for place in (situations.ATTEMPT, situations.LEASE):
            entry = found.get(products.in_scope(scope, place))
            if entry is not None and identifier.encode() in (entry.content or b""):
                return False
    return True


def kind_of(made, identifier, found):
    """What tells states apart: the files of the transaction, and whether its packages are registered."""
    inside = [f"Completed/{identifier}.record", f"Transactions/{identifier}", f"Transactions/{identifier}/prepared",
              f"Inbox/{identifier}.tpmt", "PendingInstall", "ActiveTransaction"]
    files = [products.in_scope(scope, f"{products.MAINTENANCE}/{name}") in found
             for scope in ("user", "system") for name in inside]
    registered = [products.receipt_directory(made.job.target) + f"/{package.identifier}.receipt" in found
                  for package in made.job.packages()]
    return (*files, *registered)


_exceptions = {}


def exceptions():
    """The states that the document names as ended by a person, by their kind."""
    if not _exceptions:
        for name in document.exceptions(DOCUMENT):
            made = situations.SITUATIONS[name]()
            _exceptions[kind_of(made, made.identifier, made.found)] = name
    return _exceptions


class Tally:
    """Counts the ways out and prints the states that have none."""

    def __init__(self, report):
        self._report = verdicts.Report(report)
        self.lengths = collections.Counter()
        self.stuck = 0
        self.states = 0
        self.named = collections.Counter()
        self.broken = []

    def take(self, request, answer):
        if "broken" in answer:
            self.broken.append(answer["broken"])
            verdicts.show_broken(answer["broken"])
            return
        self.states += answer["states"]
        for point, deeds, named in answer["walks"]:
            self._report.add(point, deeds, named)
            if deeds is not None:
                self.lengths[len(deeds)] += 1
            elif named:
                self.named[named] += 1
            else:
                self.stuck += 1
                print(f"NO EXIT  ./dev recovery --point '{point}'", flush=True)
            if "point" in request:
                print(f"{point}: {', '.join(deeds or ()) or named or 'nothing is open'}")


def summarize(tally, seconds):
    total = sum(tally.lengths.values()) + sum(tally.named.values()) + tally.stuck
    for length, count in sorted(tally.lengths.items()):
        print(f"{count:6} stopped runs are ended by {length} commands")
    for name, count in sorted(tally.named.items()):
        print(f"{count:6} are the named exception {name}")
    print(f"{total:6} stopped runs, {tally.states} different states, {tally.stuck} without an exit; {seconds:.0f} s")


def requests(arguments):
    if arguments.point:
        for spec in arguments.point:
            name, _, text = spec.partition("@")
            yield {"scenario": name, "point": text, "part": 0, "parts": 1}
        return
    patterns = arguments.only or (SAMPLED if arguments.size == "sample" else ("*",))
    names = [name for name in scenarios.names() if any(fnmatch.fnmatch(name, pattern) for pattern in patterns)]
    for name, part in itertools.product(names, range(PARTS[arguments.size])):
        yield {"scenario": name, "limits": SIZES[arguments.size], "seed": arguments.seed, "part": part,
               "parts": PARTS[arguments.size]}


def parse_arguments():
    parser = argparse.ArgumentParser(prog="./dev recovery", description=__doc__)
    workers.add_arguments(parser)
    verdicts.add_report_argument(parser)
    parser.add_argument("--sample", dest="size", action="store_const", const="sample", default="full",
                        help="a small fixed choice of scenarios and points")
    parser.add_argument("--only", action="append", metavar="PATTERN", help="only scenarios of such names")
    parser.add_argument("--point", action="append", metavar="POINT", help="walk on from this one point again")
    return parser.parse_args()


def main():
    arguments = parse_arguments()
    if arguments.worker:
        serve(arguments.build)
        return 0
    began = time.monotonic()
    asked = list(requests(arguments))
    tally = Tally(arguments.report)
    workers.run(arguments, asked, tally.take)
    summarize(tally, time.monotonic() - began)
    return 1 if tally.stuck or tally.broken or not tally.lengths else 0


if __name__ == "__main__":
    sys.exit(main())
