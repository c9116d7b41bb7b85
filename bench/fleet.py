#!/usr/bin/env python3
"""fleet.py [DEVICES]: what the retries of downloads do to a server that restarts while a fleet of devices
(1,000,000) downloads from it. Makes docs/fleet.md's table and docs/benchmarks/fleet.svg."""

import collections
import dataclasses
import pathlib
import random
import re
import sys

import matplotlib

matplotlib.use("svg")
import matplotlib.pyplot as plt  # noqa: E402  (the backend comes first)

ROOT = pathlib.Path(__file__).resolve().parent.parent
HEADER = ROOT / "api" / "zel_http" / "download.h"
PAGE = ROOT / "docs" / "fleet.md"
PICTURE = ROOT / "docs" / "benchmarks" / "fleet.svg"
DOWN = 20  # seconds that the server does not answer
CAPACITY = 5000  # requests a second that it can answer; to others it says 503
RETRY_AFTER = 120  # seconds, where it sends that
TICKS = 10  # of a second
SHOWN = 420  # seconds


@dataclasses.dataclass
class Policy:
    title: str
    colour: str
    retries: int
    base: float
    cap: float
    longest: float
    jitter: bool = True
    retry_after: float = 0

    def delay(self, attempt, asked):
        """As in zel_http/src/Download/retry_rule.h."""
        bound = min(self.base * 2 ** (attempt - 1), self.cap)
        asked = min(asked, self.longest)
        if not self.jitter:
            return max(bound, asked)
        return asked + random.random() * max(bound, asked)


def defaults():
    """The fields of `RetryPolicy`, in seconds."""
    text = HEADER.read_text()

    def field(name):
        return int(re.search(r"\b%s(?:\{| = )(\d+)" % name, text)[1])

    return {"retries": field("most_retries"), "base": field("base") / 1000, "cap": field("cap") / 1000,
            "longest": field("longest_retry_after") / 1000}


def policies():
    usual = defaults()
    fewer = dict(usual, retries=5)
    return [
        Policy("no jitter, no Retry-After", "#6b7280", **usual, jitter=False),
        Policy("no jitter, Retry-After", "#111827", **usual, jitter=False, retry_after=RETRY_AFTER),
        Policy("the defaults, no Retry-After", "#fb923c", **usual),
        Policy("the defaults, Retry-After", "#c2410c", **usual, retry_after=RETRY_AFTER),
        Policy("5 retries, Retry-After", "#0e7490", **fewer, retry_after=RETRY_AFTER),
    ]


class Run:
    """One fleet with one policy. All connections break at 0, when the server goes down."""

    def __init__(self, policy, devices):
        self.policy = policy
        self.requests = collections.Counter()  # by second
        self.served = self.gave_up = self.last_served = 0
        self.pending = collections.defaultdict(list)  # attempts, by tick
        for _ in range(devices):
            self.again(0, 1, 0)
        while self.pending:
            tick = min(self.pending)
            self.step(tick, self.pending.pop(tick))
        self.total = sum(self.requests.values())
        self.peak = max((count for second, count in self.requests.items() if second >= DOWN), default=0)

    def again(self, tick, attempt, asked):
        if attempt > self.policy.retries:
            self.gave_up += 1
            return
        delay = self.policy.delay(attempt, asked)
        self.pending[tick + max(1, round(delay * TICKS))].append(attempt)

    def step(self, tick, attempts):
        random.shuffle(attempts)
        self.requests[tick // TICKS] += len(attempts)
        down = tick < DOWN * TICKS
        answered = 0 if down else min(len(attempts), CAPACITY // TICKS)
        self.served += answered
        if answered:
            self.last_served = tick // TICKS
        for attempt in attempts[answered:]:
            self.again(tick, attempt + 1, 0 if down else self.policy.retry_after)


def table(runs, devices):
    rows = ["| retries | served | the last after | gave up | most requests in a second | requests for each device |",
            "|---|---:|---:|---:|---:|---:|"]
    for run in runs:
        rows.append("| %s | %.0f %% | %s | %.0f %% | %s | %.1f |" % (
            run.policy.title, 100 * run.served / devices,
            "%d s" % run.last_served if run.served else "–", 100 * run.gave_up / devices,
            format(run.peak, ","), run.total / devices))
    return "\n".join(rows)


def draw(runs):
    figure, axes = plt.subplots(len(runs), 1, figsize=(8, 8), sharex=True, sharey=True)
    for run, axis in zip(runs, axes):
        seconds = range(SHOWN)
        axis.fill_between(seconds, [run.requests[second] for second in seconds], step="post",
                          color=run.policy.colour)
        axis.axvspan(0, DOWN, color="#fee2e2", zorder=0)
        axis.axhline(CAPACITY, color="#15803d", linewidth=0.8)
        axis.set(yscale="log", ylim=(10, 3e6), xlim=(0, SHOWN))
        axis.set_title("%s: %.0f %% served" % (run.policy.title, 100 * run.served / (run.served + run.gave_up)),
                       loc="left", fontsize=10)
    axes[-1].set_xlabel("seconds after all connections broke; red: the server is down; green line: what it can answer")
    axes[len(runs) // 2].set_ylabel("requests a second")
    figure.tight_layout()
    figure.savefig(PICTURE, metadata={"Date": None})
    # A tenth of a point is finer than any screen.
    PICTURE.write_text(re.sub(r"(\.\d)\d+", r"\1", PICTURE.read_text()))


def main():
    devices = int(sys.argv[1]) if len(sys.argv) > 1 else 1_000_000
    matplotlib.rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "zel_http", "font.size": 9})
    runs = []
    for policy in policies():
        random.seed(20)
        print("simulating: " + policy.title, file=sys.stderr)
        runs.append(Run(policy, devices))
    draw(runs)
    text = PAGE.read_text()
    part = table(runs, devices)
    text, count = re.subn(r"(<!-- begin fleet -->\n).*?(<!-- end -->)",
                          lambda match: match[1] + part + "\n" + match[2], text, flags=re.DOTALL)
    if count != 1:
        raise SystemExit("fleet: fleet.md has no place for the table")
    PAGE.write_text(text)
    print(part)


if __name__ == "__main__":
    main()
