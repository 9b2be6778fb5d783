"""Spreads requests over several rehearsal roots."""

import json
import os
import signal
import subprocess
import sys
import threading


def run(build, command, requests, count, take):
    """Starts `command` in `count` rehearsal roots and gives each of them one request after the other, as a line
    of JSON. take(request, answer) is called for each answer, by one thread at a time."""
    pending = iter(requests)
    lock = threading.Lock()
    failures = []
    processes = [_start(build, command) for _ in range(count)]
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
