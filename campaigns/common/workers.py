"""Spreads requests over several rehearsal roots."""

import argparse
import json
import os
import signal
import subprocess
import sys
import threading


def add_arguments(parser):
    """The arguments that every campaign has."""
    parser.add_argument("--build", required=True, type=os.path.abspath, help=argparse.SUPPRESS)
    parser.add_argument("--worker", action="store_true", help=argparse.SUPPRESS)
    parser.add_argument("--seed", default="1", help="a number; another one draws other cases; default 1")
    parser.add_argument("--jobs", type=int, default=len(os.sched_getaffinity(0)), help="rehearsal roots at once")


def serve(answer_to, broken):
    """A worker's life, inside a rehearsal root: a request a line comes in, an answer a line goes out. Exceptions of
    the types `broken` are answers too."""
    for line in sys.stdin:
        try:
            answer = answer_to(json.loads(line))
        except broken as error:
            answer = {"broken": str(error)}
        print(json.dumps(answer), flush=True)


def run(arguments, requests, take):
    """Starts this program as a worker in several rehearsal roots, with its arguments as add_arguments has them, and
    gives each of them one request after the other. take(request, answer) is called for each answer, by one thread at
    a time."""
    command = [sys.executable, os.path.abspath(sys.argv[0]), "--worker", "--build", arguments.build]
    pending = iter(requests)
    lock = threading.Lock()
    failures = []
    processes = [_start(arguments.build, command) for _ in range(min(arguments.jobs, len(requests)))]
    threads = [threading.Thread(target=_feed, args=(process, pending, lock, take, failures))
               for process in processes]
    try:
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
    except KeyboardInterrupt:
        for process in processes:
            process.send_signal(signal.SIGTERM)
        raise
    finally:
        for process in processes:
            process.stdin.close()
            process.wait()
    if failures:
        sys.exit("; ".join(failures))


def _start(build, command):
    environment = dict(os.environ, PYTHONDONTWRITEBYTECODE="1")
    return subprocess.Popen([build + "/rehearsal/rehearse", "--", *command], stdin=subprocess.PIPE,
                            stdout=subprocess.PIPE, text=True, env=environment)


def _feed(process, pending, lock, take, failures):
    while True:
        with lock:
            request = next(pending, None)
        if request is None:
            return
        try:
            process.stdin.write(json.dumps(request) + "\n")
            process.stdin.flush()
            line = process.stdout.readline()
        except BrokenPipeError:
            line = ""
        if not line:
            with lock:
                failures.append(f"a rehearsal root ended early, asked for {request}")
            return
        with lock:
            take(request, json.loads(line))
