"""Runs one peer on the core that is left to the clients."""

import json
import os
import pathlib
import resource
import subprocess
import time

SERVER_CORE, CLIENT_CORE = 0, 1
HERE = pathlib.Path(__file__).resolve().parent
BUILD = HERE.parent / "build" / "release" / "bench"
PATIENCE = 120  # seconds

# Thousands of connections, on both sides, whatever the shell's limit is.
_, HARD_LIMIT = resource.getrlimit(resource.RLIMIT_NOFILE)
resource.setrlimit(resource.RLIMIT_NOFILE, (min(16384, HARD_LIMIT), HARD_LIMIT))


def environment():
    """Without proxies, which the peers would honour."""
    return {name: value for name, value in os.environ.items() if not name.lower().endswith("_proxy")}


def command(peer, arguments):
    # libcurl's own default of authorities is a variant of the floor, no program of its own.
    program, _, variant = peer.partition(", ")
    extra = ["--libcurl-authorities"] if variant else []
    return [str(BUILD / ("bench-" + program)), *map(str, arguments), *extra]


def run(peer, arguments, before=()):
    """The peer's report, or what went wrong as `{"broken": ...}`."""
    line = ["taskset", "-c", str(CLIENT_CORE), *before, *command(peer, arguments),
            "--started-at", str(time.clock_gettime_ns(time.CLOCK_MONOTONIC))]
    try:
        done = subprocess.run(line, capture_output=True, text=True, timeout=PATIENCE, env=environment())
    except subprocess.TimeoutExpired:
        return {"broken": "no end in %d s" % PATIENCE}
    if done.returncode != 0 and not done.stdout:
        return {"broken": "ended with %d" % done.returncode}
    report = json.loads(done.stdout.splitlines()[-1])
    if report["failed"] != 0:
        report["broken"] = "%d of %d failed" % (report["failed"], report["requests"])
    return report
