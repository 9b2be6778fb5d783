#!/usr/bin/env python3
"""Cuts the power between two operations of a run of the real tool, rebuilds every disk that may then be found, and
judges how the next run goes on."""

import argparse
import collections
import fnmatch
import hashlib
import os
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))

from common import scenarios, verdicts, workers         # noqa: E402
from powerloss import filesystem, judge, self_test      # noqa: E402

# Of each scenario at most so many states.
SIZES = {"sample": 12, "full": 200, "everything": sys.maxsize}
# Of the states from which the work can also be undone, one in so many is undone as well.
BACK_EVERY = {"sample": 4, "full": 3, "everything": 1}
SAMPLED = ("account-user/clean/*", "account-user/remove-last/*", "root-user/upgrade/*", "root-system/repair/*",
           "root-system/remove-one/*", "user-to-system/dropped/*", "system-to-user/kept/*")


def serve(build):
    """A worker's life."""
    judge.install(build)
    workers.serve(answer_to, (scenarios.Broken, filesystem.Unknown, RuntimeError))


def answer_to(request):
    """Examines the states that a request asks for."""
    if "self-test" in request:
        return {"self-test": self_test.run(request["scenario"])}
    bench = judge.Bench(request["scenario"])
    without = request["without"]
    if "state" in request:
        text, back, _ = request["state"].partition(judge.BACK)
        state = bench.state(text, without)
        return {"verdicts": [[request["state"], bench.examine(state, bool(back))]], "pending": state.pending}
    found = []
    for state in chosen(bench, request):
        found.append([state.text, bench.examine(state)])
        if bench.can_go_back and rank(request, state.text + judge.BACK) % request["back"] == 0:
            found.append([state.text + judge.BACK, bench.examine(state, True)])
    return {"verdicts": found}


def chosen(bench, request):
    """The states of a scenario that a campaign takes: as many as its limit allows, spread by their names."""
    found = list(bench.states(request["without"]))
    if len(found) > request["limit"]:
        limit = sorted(rank(request, state.text) for state in found)[request["limit"]]
        found = [state for state in found if rank(request, state.text) < limit]
    return found


def rank(request, text):
    named = f"{request['seed']} {request['scenario']} {text}"
    return int.from_bytes(hashlib.sha256(named.encode()).digest()[:8], "big")


class Tally:
    """Counts verdicts and prints the failing ones as they come."""

    def __init__(self, report, without):
        self.states = collections.Counter()
        self.undone = 0
        self.failed = 0
        self.broken = 0
        self.lines = []
        self._without = "".join(f" --without {number}" for number in without)
        self._report = verdicts.Report(report)

    def take(self, request, answer):
        if "broken" in answer:
            self.broken += 1
            verdicts.show_broken(f"{request['scenario']}: {answer['broken']}")
            return
        if "self-test" in answer:
            self.lines += answer["self-test"]
            print("\n".join(answer["self-test"]), flush=True)
            return
        for line in answer.get("pending", ()):
            print("        " + line)
        for text, faults in answer["verdicts"]:
            state = f"{request['scenario']}@{text}"
            if text.endswith(judge.BACK):
                self.undone += 1
            else:
                self.states[request["scenario"]] += 1
            if faults:
                self.failed += 1
                verdicts.show_failure(f"./dev powerloss --state '{state}'{self._without}", faults)
            self._report.add(state, faults)

    def total(self):
        return sum(self.states.values())


def summarize(tally, seconds):
    commands = collections.Counter()
    for name, count in tally.states.items():
        commands[name.rsplit("/", 1)[1]] += count
    for command, count in sorted(commands.items()):
        scenes = sum(1 for name in tally.states if name.endswith("/" + command))
        print(f"{command:20} {count:6} states of {scenes:3} scenarios")
    print(f"total {tally.total()} states of {len(tally.states)} scenarios, {tally.undone} of them also undone, "
          f"{tally.failed} failed; {seconds:.0f} s, {(tally.total() + tally.undone) / seconds:.1f} a second")
    if tally.broken:
        print(f"{tally.broken} scenarios could not be examined at all")


def requests(arguments):
    """What the workers are asked to do, the long pieces first."""
    if arguments.state:
        for spec in arguments.state:
            name, _, text = spec.partition("@")
            if name not in scenarios.names() or not text:
                sys.exit("no such state: " + spec)
            yield {"scenario": name, "state": text, "without": arguments.without}
        return
    patterns = arguments.only or (SAMPLED if arguments.size == "sample" else ("*",))
    names = [name for name in scenarios.names() if any(fnmatch.fnmatch(name, pattern) for pattern in patterns)]
    if arguments.self_test:
        yield from ({"scenario": name, "self-test": True} for name in self_test.SCENARIOS)
        return
    names.sort(key=lambda name: ("uninstall" not in name, "commit" not in name, "rollback" not in name))
    for name in names:
        yield {"scenario": name, "limit": arguments.limit or SIZES[arguments.size], "seed": arguments.seed,
               "back": BACK_EVERY[arguments.size], "without": arguments.without}


def parse_arguments():
    parser = argparse.ArgumentParser(prog="./dev powerloss", description=__doc__)
    workers.add_arguments(parser)
    verdicts.add_report_argument(parser)
    size = parser.add_mutually_exclusive_group()
    size.add_argument("--sample", dest="size", action="store_const", const="sample", default="full",
                      help="a small fixed choice of scenarios and states, done within a minute")
    size.add_argument("--everything", dest="size", action="store_const", const="everything", help="every state")
    size.add_argument("--self-test", action="store_true",
                      help="take syncs out of recordings and see that the campaign notices")
    parser.add_argument("--limit", type=int, metavar="N", help="at most N states of each scenario")
    parser.add_argument("--only", action="append", metavar="PATTERN", help="only scenarios of such names")
    parser.add_argument("--state", action="append", metavar="STATE", help="examine this one state again")
    parser.add_argument("--without", action="append", type=int, default=[], metavar="NUMBER",
                        help="as if the tool had not made this call; to see what it is good for")
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
    tally = Tally(arguments.report, arguments.without)
    workers.run(arguments, asked, tally.take)
    if arguments.self_test:
        return 1 if tally.broken or not self_test.passed(tally.lines) else 0
    summarize(tally, time.monotonic() - began)
    return 1 if tally.failed or tally.broken or not tally.total() else 0


if __name__ == "__main__":
    sys.exit(main())
