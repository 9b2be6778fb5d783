#!/usr/bin/env python3
"""Attacks root runs of the real tool: an account that owns the home does everything it can while root works in it,
and nothing outside the fixed places may be created, changed, removed, given away or told."""

import argparse
import collections
import os
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))

from common import verdicts, workers                                    # noqa: E402
from attack import decoys, forged, races, runs, scenes, steps, world    # noqa: E402

KINDS = ("race", "step", "forged")
WHAT = {"race": "attacked as fast as possible", "step": "attacked between two calls", "forged": "given forged metadata"}
# Races and steps for each scenario, and the share of the forged runs.
SIZES = {"sample": {"race": 4, "step": 9, "forged": 23}, "full": {"race": 125, "step": 125, "forged": 1}}
MOST_IN_ONE_REQUEST = 50


# --- inside a rehearsal root --------------------------------------------------------------------------------

def serve(build):
    """A worker's life."""
    runs.install_tools(build)
    world.place_neighbours()
    workers.serve(answer_to, scenes.Broken)


def now_of_files():
    """The present moment as the file system sees it, which is a little behind other clocks."""
    os.utime(runs.TOOLS)
    return os.stat(runs.TOOLS).st_mtime_ns


def answer_to(request):
    """Runs the rounds that a request asks for."""
    began = now_of_files()
    found, counts = [], collections.Counter()
    for text in points_of(request):
        if request["kind"] == "race":
            verdict, done = races.run_point(text)
            counts.update(done)
        else:
            verdict = {"step": steps, "forged": forged}[request["kind"]].run_point(text)
        found.append(verdict.as_list())
    return {"verdicts": found, "counts": counts, "elsewhere": world.changed_since(began)}


def points_of(request):
    if "points" in request:
        return request["points"]
    module = {"race": races, "step": steps}[request["kind"]]
    points = module.choose(request["scenario"], request["count"], request["seed"])
    return points[request["part"]::request["parts"]]


# --- outside ------------------------------------------------------------------------------------------------

class Tally:
    """Counts verdicts and prints the failing ones as they come."""

    def __init__(self, report, total):
        self.counts = collections.Counter()     # by (kind, command, what)
        self.deeds = collections.Counter()
        self.failed = 0
        self.broken = 0
        self._total = total
        self._report = verdicts.Report(report)

    def take(self, request, answer):
        if "broken" in answer:
            self.broken += 1
            verdicts.show_broken(answer["broken"])
            return
        self.deeds.update(answer["counts"])
        for point, command, said, disturbed, refused, faults in answer["verdicts"]:
            what = {"runs": 1, "disturbed": disturbed, "refused": refused, "violations": bool(faults)}
            for name, count in what.items():
                self.counts[request["kind"], command, name] += count
            if faults:
                self.failed += 1
                show(point, said, faults)
            self._report.add(point, command, said, disturbed, refused, faults)
        if answer["elsewhere"]:
            self.failed += 1
            points = [verdict[0] for verdict in answer["verdicts"]]
            show(" --repeat ".join(points), "one of these runs", answer["elsewhere"])
        verdicts.show_progress(f"{self.runs()} of {self._total} runs")

    def runs(self, kind=None):
        return self.sum("runs", kind)

    def sum(self, what, kind=None, command=None):
        return sum(count for (of, by, name), count in self.counts.items()
                   if name == what and kind in (None, of) and command in (None, by))


def show(point, said, faults):
    verdicts.show_failure(f"./dev attack --repeat '{point}'", faults, said)


def summarize(tally, seconds, seed):
    verdicts.show_progress("")
    for kind in KINDS:
        commands = sorted({command for of, command, _ in tally.counts if of == kind})
        for command in commands:
            print_line(tally, kind, command)
        if commands:
            print_line(tally, kind, None)
    done = ", ".join(f"{count} times {name}" for name, count in tally.deeds.items() if count)
    if done:
        print("What the fast attackers did during these runs: " + done)
    print(f"{tally.runs()} root runs, {tally.sum('disturbed')} of them really disturbed, {tally.failed} violations, "
          f"seed {seed}; {seconds:.0f} s")
    if tally.broken:
        print(f"{tally.broken} requests could not be run at all")


def print_line(tally, kind, command):
    values = {what: tally.sum(what, kind, command) for what in ("runs", "disturbed", "refused", "violations")}
    note = "" if kind == "forged" else f"{values['disturbed']:5} disturbed, "
    name = command or "all, " + WHAT[kind]
    print(f"{kind:7} {name:34} {values['runs']:5} runs, {note}{values['refused']:5} refused, "
          f"{values['violations']:4} violations")


def requests(arguments):
    """What the workers are asked to do, the long requests first."""
    if arguments.repeat:
        for point in arguments.repeat:
            kind, _, text = point.partition(":")
            if kind not in KINDS or (kind == "forged" and text.rpartition(":")[0] not in forged.cases()) \
                    or (kind != "forged" and text.partition(":")[0] not in scenes.names()):
                sys.exit("no such point: " + point)
            yield {"kind": kind, "points": [text] * arguments.times}
        return
    size = dict(SIZES["sample" if arguments.sample else "full"])
    size["race"] = size["race"] if arguments.races is None else arguments.races
    size["step"] = size["step"] if arguments.steps is None else arguments.steps
    for name in reversed(scenes.names()):
        for kind in ("step", "race"):
            if kind in arguments.only and size[kind]:
                yield from parts_of(kind, name, size[kind], arguments.seed)
    if "forged" in arguments.only:
        points = [f"{name}:{command}" for name in forged.cases() for command in forged.COMMANDS]
        points = points[int(arguments.seed) % size["forged"]::size["forged"]]
        for first in range(0, len(points), MOST_IN_ONE_REQUEST):
            yield {"kind": "forged", "points": points[first:first + MOST_IN_ONE_REQUEST]}


def parts_of(kind, name, count, seed):
    parts = -(-count // MOST_IN_ONE_REQUEST)
    for part in range(parts):
        yield {"kind": kind, "scenario": name, "count": count, "seed": seed, "part": part, "parts": parts}


def kinds(text):
    named = text.split(",")
    if not set(named) <= set(KINDS):
        raise argparse.ArgumentTypeError("there are only " + ", ".join(KINDS))
    return named


def parse_arguments():
    parser = argparse.ArgumentParser(prog="./dev attack", description=__doc__)
    workers.add_arguments(parser)
    verdicts.add_report_argument(parser)
    parser.add_argument("--sample", action="store_true", help="a small share of everything, done within a minute")
    parser.add_argument("--races", type=int, metavar="N", help="so many races in each scenario")
    parser.add_argument("--steps", type=int, metavar="N", help="so many exchanges between calls in each scenario")
    parser.add_argument("--only", type=kinds, default=list(KINDS), metavar="KINDS",
                        help="only these, separated by commas: " + ", ".join(KINDS))
    parser.add_argument("--repeat", action="append", metavar="POINT", help="run this one again; may be repeated")
    parser.add_argument("--times", type=int, default=1, help="how often to repeat; races do not always end alike")
    parser.add_argument("--list", action="store_true", help="list the scenarios and the forged cases")
    return parser.parse_args()


def total_of(asked):
    return sum(len(request["points"]) if "points" in request
               else len(range(request["part"], request["count"], request["parts"])) for request in asked)


def main():
    arguments = parse_arguments()
    if arguments.worker:
        serve(arguments.build)
        return 0
    if arguments.list:
        print("\n".join(scenes.names() + ["forged " + name for name in forged.cases()]))
        return 0
    began = time.monotonic()
    asked = list(requests(arguments))
    tally = Tally(arguments.report, total_of(asked))
    workers.run(arguments, asked, tally.take)
    summarize(tally, time.monotonic() - began, arguments.seed)
    return 1 if tally.failed or tally.broken or not tally.runs() else 0


if __name__ == "__main__":
    sys.exit(main())
