#!/usr/bin/env python3
"""downloads.py [ROUNDS]: fetches 1 GiB with curl, with the tool and with an example of `Download`, in
turn, ROUNDS times (15), and lets small requests run beside a download whose disk is slow. Keeps what
they cost in docs/benchmarks/downloads.jsonl."""

import json
import os
import pathlib
import subprocess
import sys
import time

import peer
import server
from run import machine, progress

RESULTS = peer.HERE.parent / "docs" / "benchmarks" / "downloads.jsonl"
RELEASE = peer.HERE.parent / "build" / "release"
MEMORY = "/dev/shm"  # a disk would be measured instead of the programs
GIB = 1024 * 1024 * 1024

SINKS = {"file": "a file (`-o`)", "stdout": "standard output, into a file", "pipe": "a pipe"}
TRANSPORTS = {"http": "HTTP", "https": "HTTPS, HTTP/2"}
CURL, TOOL, EXAMPLE = "curl", "zel-http", "Download"


def command(program, url, target, authority):
    """The line that writes to the file `target`, or to standard output without one."""
    to_file = ["-o", target] if target else []
    if program == CURL:
        return ["curl", "-s", "--cacert", authority, *to_file, url]
    if program == TOOL:
        return [RELEASE / "tools/zel-http/zel-http", "-s", "--cacert", authority, *to_file, url]
    return [RELEASE / "examples/download", url, target]


def measure(line, output, authority):
    """What the process costs, from its start to its end. The peak is taken by time(1): a child of this
    process would begin with what this one has."""
    environment = dict(peer.environment(), SSL_CERT_FILE=authority)
    begun = time.monotonic()
    process = subprocess.Popen(["time", "-q", "-f", "%M", *map(str, line)], stdout=output, stderr=subprocess.PIPE,
                               text=True, env=environment)
    text = process.stderr.read()
    _, status, usage = os.wait4(process.pid, 0)
    process.returncode = os.waitstatus_to_exitcode(status)
    seconds = time.monotonic() - begun
    if process.returncode != 0:
        raise SystemExit("bench: %s ended with %d: %s" % (line[0], process.returncode, text))
    return {"cpu_s": usage.ru_utime + usage.ru_stime, "wall_s": seconds, "peak_kib": int(text.split()[-1])}


def fetch(program, sink, url, running):
    """One download into a file that was not there; its size is checked."""
    target = running.directory / "target"
    target.unlink(missing_ok=True)
    if sink == "pipe":
        line = command(program, url, None, running.authority)
        with open(target, "wb") as counted:
            reader = subprocess.Popen(["wc", "-c"], stdin=subprocess.PIPE, stdout=counted)
            cost = measure(line, reader.stdin, running.authority)
            reader.stdin.close()
            reader.wait()
        size = int(target.read_text())
    elif sink == "stdout":
        with open(target, "wb") as output:
            cost = measure(command(program, url, None, running.authority), output, running.authority)
        size = target.stat().st_size
    else:
        cost = measure(command(program, url, target, running.authority), subprocess.DEVNULL, running.authority)
        size = target.stat().st_size
    if size != GIB:
        raise SystemExit("bench: %s wrote %d bytes" % (program, size))
    return cost


def beside_slow_disk(running):
    """The latencies of small requests: alone, beside a download, and beside one with a slow disk."""
    line = [RELEASE / "bench/bench-slow_disk", "http://%s/1g" % running.plain, "http://%s/1k" % running.plain,
            peer.HERE.parent / "build" / "slow_disk.bin"]
    done = subprocess.run(line, capture_output=True, text=True, timeout=peer.PATIENCE, env=peer.environment())
    if done.returncode != 0:
        raise SystemExit("bench: " + done.stderr)
    return [json.loads(row) for row in done.stdout.splitlines()]


def main():
    rounds = int(sys.argv[1]) if len(sys.argv) > 1 else 15
    cells = [(transport, sink, program) for transport in TRANSPORTS for sink in SINKS
             for program in (CURL, TOOL, EXAMPLE) if program != EXAMPLE or sink == "file"]
    with server.running(peer.SERVER_CORE, {"1k": 1024, "1g": GIB}, MEMORY) as running, \
            open(RESULTS, "w") as results:
        urls = {"http": "http://%s/1g" % running.plain, "https": "https://%s/1g" % running.http2}
        print(json.dumps({"machine": machine(), "rounds": rounds}), file=results)
        for number in range(rounds):
            for done, (transport, sink, program) in enumerate(cells):
                progress("round %d of %d: %s to %s, %s (%d %%)" % (
                    number + 1, rounds, transport, sink, program,
                    100 * (number * len(cells) + done) // (rounds * len(cells))))
                cost = fetch(program, sink, urls[transport], running)
                print(json.dumps({"transport": transport, "sink": sink, "program": program,
                                  "round": number, **cost}), file=results, flush=True)
        progress("a slow disk")
        for row in beside_slow_disk(running):
            print(json.dumps(row), file=results)
    progress("")
    print("%d downloads kept in %s" % (rounds * len(cells), RESULTS.relative_to(pathlib.Path.cwd())))


if __name__ == "__main__":
    main()
