#!/usr/bin/env python3
"""run.py [ROUNDS]: does every work with every peer, in turn, ROUNDS times (15), and keeps what they
report in docs/benchmarks/results.jsonl."""

import json
import os
import pathlib
import platform
import subprocess
import sys
import time

import peer
import server
from works import LIBRARY, WORKS

RESULTS = peer.HERE.parent / "docs" / "benchmarks" / "results.jsonl"


def progress(text):
    if sys.stderr.isatty():
        print("\r\033[K" + text, end="", file=sys.stderr, flush=True)


def version(package):
    query = subprocess.run(["dpkg-query", "-W", "-f", "${Version}", package],
                           capture_output=True, text=True)
    return query.stdout or "not installed"


def machine():
    with open("/proc/cpuinfo") as info:
        model = next(line.split(":")[1].strip() for line in info if line.startswith("model name"))
    packages = {"libcurl": "libcurl4", "OpenSSL": "libssl3", "nginx": "nginx", "libsoup": "libsoup-3.0-0",
                "Qt": "libqt6network6", "Boost": "libboost1.74-dev", "cpp-httplib": "libcpp-httplib0.11",
                "GLib's TLS": "glib-networking"}
    return {"cpu": model, "cores": os.cpu_count(), "kernel": platform.release(),
            "date": time.strftime("%Y-%m-%d"),
            "versions": {name: version(package) for name, package in packages.items()}}


def rounds_of(work, rounds):
    return min(rounds, work.rounds or rounds)


def main():
    rounds = int(sys.argv[1]) if len(sys.argv) > 1 else 15
    total = sum(rounds_of(work, rounds) * len(work.peers) for work in WORKS)
    done = 0
    RESULTS.parent.mkdir(parents=True, exist_ok=True)
    with server.running(peer.SERVER_CORE) as running, open(RESULTS, "w") as results:
        print(json.dumps({"machine": machine(), "rounds": rounds}), file=results)

        def keep(work, name, number):
            running.forget_waiting()
            report = peer.run(name, work.command(running, name))
            report.update({"work": work.name, "peer": name, "round": number})
            print(json.dumps(report), file=results, flush=True)
            return report

        for number in range(rounds):
            for work in WORKS:
                if number >= rounds_of(work, rounds):
                    continue
                # Another order each round, so that nobody always comes behind the same one.
                turn = number % len(work.peers)
                for name in work.peers[turn:] + work.peers[:turn]:
                    progress("round %d of %d: %s, %s (%d %%)" % (
                        number + 1, rounds, work.title, name, 100 * done // total))
                    keep(work, name, number)
                    done += 1
        progress("an idle engine, for a minute")
        idle = next(work for work in WORKS if work.name == "get-1")
        report = peer.run(LIBRARY, idle.command(running, LIBRARY) + ["--idle", 60])
        report.update({"work": "idle", "peer": LIBRARY, "round": 0})
        print(json.dumps(report), file=results)
    progress("")
    print("%d runs kept in %s" % (done + 1, RESULTS.relative_to(pathlib.Path.cwd())))


if __name__ == "__main__":
    main()
