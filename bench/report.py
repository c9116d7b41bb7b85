#!/usr/bin/env python3
"""Makes the tables and plots of docs/benchmarks.md from docs/benchmarks/*.jsonl and gates.json."""

import collections
import json
import pathlib
import re
import statistics

import matplotlib

matplotlib.use("svg")
import matplotlib.pyplot as plt  # noqa: E402  (the backend comes first)

import downloads  # noqa: E402
from works import CURVE, FLOOR, LIBRARY, PEERS, WORKS  # noqa: E402

DOCS = pathlib.Path(__file__).resolve().parent.parent / "docs"
DATA = DOCS / "benchmarks"
# What the library must keep to, as a ratio of CPU to the floor.
TARGETS = {"get-1": 1.15, "get-64": 1.05, "get-512": 1.10, "get-2000": 1.10, "tls-64": 1.05,
           "download": 0.40, "post": 1.00, "put": 1.15, "beside": 1.15}
DEFAULTS = FLOOR + ", libcurl's authorities"
COLOURS = {LIBRARY: "#c2410c", FLOOR: "#111827", "raw-threads": "#6b7280", "raw-batched": "#4b5563", "raw-socket": "#9ca3af",
           "libsoup": "#0e7490", "qt": "#15803d", "beast": "#7c3aed", "cpp-httplib": "#db2777"}


class Results:
    def __init__(self):
        with open(DATA / "results.jsonl") as lines:
            self.about = json.loads(next(lines))
            self.runs = collections.defaultdict(dict)
            for line in lines:
                run = json.loads(line)
                self.runs[run["work"], run["peer"]][run["round"]] = run

    def broken(self, work, peer):
        return next((run["broken"] for run in self.runs[work, peer].values() if "broken" in run), None)

    def values(self, work, peer, figure):
        return {number: figure(run) for number, run in self.runs[work, peer].items()
                if "broken" not in run}

    def median(self, work, peer, figure):
        values = self.values(work, peer, figure)
        return statistics.median(values.values()) if values else None

    def ratios(self, work, peer, figure, floor=FLOOR):
        """Of each round to the floor in the same round: median, least, most."""
        ours, theirs = self.values(work, peer, figure), self.values(work, floor, figure)
        ratios = [ours[number] / theirs[number] for number in ours if number in theirs]
        return (statistics.median(ratios), min(ratios), max(ratios)) if ratios else None


def cpu(run):
    return run["cpu_s"] / run["requests"] * 1e6



def table(header, rows):
    lines = ["| " + " | ".join(header) + " |", "|---" + "|---:" * (len(header) - 1) + "|"]
    return "\n".join(lines + ["| " + " | ".join(row) + " |" for row in rows])


def figure_text(microseconds):
    if microseconds >= 10000:
        return "%.0f ms" % (microseconds / 1000)
    return "%.1f ms" % (microseconds / 1000) if microseconds >= 1000 else "%.0f µs" % microseconds


def ratio_text(ratio):
    return "%.2f (%.2f–%.2f)" % ratio if ratio else "–"


MEASURED = [work for work in WORKS if work.name != "start" and not work.name.startswith("cancel")]


def cpu_table(results):
    rows = []
    for work in MEASURED:
        row = [work.title]
        for peer in PEERS:
            median = results.median(work.name, peer, cpu)
            if median is None:
                row.append(results.broken(work.name, peer) or "–")
                continue
            ratio = results.ratios(work.name, peer, cpu)[0]
            text = figure_text(median) if peer == FLOOR else "%.2f" % ratio
            row.append("**%s**" % text if peer == LIBRARY else text)
        rows.append(row)
    return table(["CPU a request", *PEERS], rows)


def targets_table(results):
    rows = []
    for work in WORKS:
        if work.name not in TARGETS:
            continue
        ratio = results.ratios(work.name, LIBRARY, cpu)
        threads = results.ratios(work.name, "raw-threads", cpu)
        batched = results.ratios(work.name, LIBRARY, cpu, "raw-batched")
        p50 = results.ratios(work.name, LIBRARY, lambda run: run["p50_us"])
        p99 = results.ratios(work.name, LIBRARY, lambda run: run["p99_us"])
        rows.append([work.title, "≤ %.2f" % TARGETS[work.name], "**%s**" % ratio_text(ratio),
                     ratio_text(threads), ratio_text(batched), "%.2f" % p50[0], "%.2f" % p99[0]])
    ratio = results.ratios("tls-new", LIBRARY, cpu, DEFAULTS)
    rows.append(["new TLS connections, ÷ libcurl's defaults", "≤ 0.10", "**%s**" % ratio_text(ratio),
                 ratio_text(results.ratios("tls-new", "raw-threads", cpu, DEFAULTS)), "–", "–", "–"])
    return table(["CPU ÷ raw-multi: median (least–most)", "target", LIBRARY, "raw-threads",
                  "%s ÷ raw-batched" % LIBRARY, "p50", "p99"],
                 rows)


def latency_table(results):
    rows = []
    for work in MEASURED:
        if work.name in ("download", "post", "put"):
            continue
        row = [work.title]
        for peer in PEERS:
            run = [results.median(work.name, peer, lambda run, key=key: run[key])
                   for key in ("p50_us", "p99_us")]
            row.append("–" if run[0] is None else "%s / %s" % tuple(map(figure_text, run)))
        rows.append(row)
    return table(["p50 / p99", *PEERS], rows)


def memory_table(results):
    def mebibytes(work, key):
        def text(peer):
            value = results.median(work, peer, lambda run: run[key])
            return "–" if value is None else "%.1f MiB" % (value / 1024)
        return text

    def each(work):
        def text(peer):
            value = results.median(work, peer, lambda run: run["waiting_kib"] / run["waiting"])
            return "–" if value is None else "%.1f KiB" % value
        return text

    def first(peer):
        value = results.median("start", peer, lambda run: run["first_answer_s"])
        return "%.1f ms" % (value * 1000)

    rows = [("first answer after", first), ("resident at the first answer", mebibytes("start", "first_answer_kib")),
            ("each of 1,000 waiting", each("beside")), ("each of 100 waiting over TLS", each("tls-waiting")),
            ("peak, 64 in flight", mebibytes("get-64", "peak_kib")),
            ("peak, 256 MiB download", mebibytes("download", "peak_kib")),
            ("peak, 8 MiB POST, 4 in flight", mebibytes("post", "peak_kib")),
            ("peak, 8 MiB PUT, 4 in flight", mebibytes("put", "peak_kib"))]
    return table(["", *PEERS], [[name, *map(text, PEERS)] for name, text in rows])


def cancel_table(results):
    counts = [250, 500, 1000, 2000]
    rows = []
    for peer in (LIBRARY, FLOOR):
        row = [peer]
        for count in counts:
            value = results.median("cancel-%d" % count, peer, lambda run: run["cancel_cpu_s"])
            row.append("%.1f ms (%.1f µs each)" % (value * 1000, value * 1e6 / count))
        rows.append(row)
    return table(["cancelled at once", *map("{:,}".format, counts)], rows)


def idle_text(results):
    run = results.runs["idle", LIBRARY][0]
    return "An engine that was idle for %d s woke up %d times and used %.1f ms of CPU." % (
        run["idle_s"], run["idle_wakeups"], run["idle_cpu_s"] * 1000)


def gates_table():
    gates = json.loads((DATA / "gates.json").read_text())
    rows = [[gate["name"], gate["floor"], "**%s**" % gate["value"], gate.get("threads", "–"),
             gate["target"], gate["limit"]] for gate in gates]
    return table(["", FLOOR, LIBRARY, "raw-threads", "target", "gate"], rows)


def machine_text(results):
    about = results.about["machine"]
    versions = ", ".join("%s %s" % pair for pair in about["versions"].items())
    return "%s, %d cores, Linux %s, %s, %d rounds. %s." % (
        about["cpu"], about["cores"], about["kernel"], about["date"], results.about["rounds"], versions)


class Downloads:
    """Beside `curl`, which the ratios are to."""

    def __init__(self):
        with open(DATA / "downloads.jsonl") as lines:
            self.rounds = json.loads(next(lines))["rounds"]
            rows = [json.loads(line) for line in lines]
        self.beside = [row for row in rows if "beside" in row]
        self.runs = collections.defaultdict(dict)
        for row in rows:
            if "program" in row:
                self.runs[row["transport"], row["sink"], row["program"]][row["round"]] = row

    def ratio(self, transport, sink, program, key):
        ours, curls = self.runs[transport, sink, program], self.runs[transport, sink, downloads.CURL]
        ratios = [ours[number][key] / curls[number][key] for number in ours]
        return statistics.median(ratios), min(ratios), max(ratios)

    def peak(self, transport, sink, program):
        return statistics.median(run["peak_kib"] / 1024 for run in self.runs[transport, sink, program].values())

    def rows(self):
        for (transport, sink, program) in self.runs:
            if program != downloads.CURL:
                yield transport, sink, program


def downloads_table(results):
    goals = {"http": ("≤ 0.80", "≤ 1.00"), "https": ("≤ 1.00", "≤ 1.05")}
    rows = []
    for transport, sink, program in results.rows():
        goal = goals[transport]
        rows.append(["%s, %s: %s" % (downloads.TRANSPORTS[transport], downloads.SINKS[sink], program),
                     "**%s**" % ratio_text(results.ratio(transport, sink, program, "cpu_s")), goal[0],
                     "**%s**" % ratio_text(results.ratio(transport, sink, program, "wall_s")), goal[1],
                     "%.1f MiB (curl: %.1f)" % (results.peak(transport, sink, program),
                                                results.peak(transport, sink, downloads.CURL))])
    return table(["1 GiB, ÷ curl, median (least–most)", "CPU", "goal", "time", "goal", "peak"], rows)


def beside_table(results):
    rows = [[row["beside"], "{:,}".format(row["requests"]),
             *(figure_text(row[key]) for key in ("p50_us", "p99_us", "most_us"))] for row in results.beside]
    return table(["1 KiB GET beside", "requests", "p50", "p99", "longest"], rows)


def plot_downloads(results):
    figure, axes = plt.subplots(figsize=(8, 3.6))
    cells = list(results.rows())
    for key, label, colour, shift in (("cpu_s", "CPU", COLOURS[LIBRARY], -0.15), ("wall_s", "time", "#0e7490", 0.15)):
        for row, cell in enumerate(cells):
            median, least, most = results.ratio(*cell, key)
            axes.errorbar(median, row + shift, xerr=[[median - least], [most - median]], fmt="o", color=colour,
                          elinewidth=0.8, label=label if row == 0 else None)
    axes.axvline(1, color=COLOURS[FLOOR], linewidth=1)
    axes.set_yticks(range(len(cells)), ["%s, %s: %s" % cell for cell in cells])
    axes.invert_yaxis()
    axes.set(xlabel="÷ curl (median; least to most); left of the line is less than curl")
    axes.legend(fontsize=8)
    save(figure, "downloads.svg")


def save(figure, name):
    figure.tight_layout()
    figure.savefig(DATA / name, metadata={"Date": None})
    plt.close(figure)


def plot_curve(results):
    figure, axes = plt.subplots(figsize=(8, 4.5))
    for peer in PEERS:
        points = [(n, results.median("get-%d" % n, peer, cpu)) for n in CURVE]
        points = [(n, value) for n, value in points if value is not None]
        axes.plot(*zip(*points), marker="o", markersize=4, color=COLOURS[peer], label=peer,
                  linewidth=2.5 if peer == LIBRARY else 1.2)
    axes.set(xscale="log", yscale="log", xlabel="requests in flight", ylabel="CPU a request, µs",
             title="1 KiB GET: what a request costs as their number grows")
    axes.set_xticks(CURVE, [str(n) for n in CURVE])
    axes.minorticks_off()
    axes.grid(alpha=0.3)
    axes.legend(fontsize=8, ncols=2)
    save(figure, "in-flight.svg")


def plot_ratios(results):
    names = [work for work in MEASURED if work.name in TARGETS]
    figure, axes = plt.subplots(figsize=(8, 6))
    shown = [peer for peer in PEERS if peer != FLOOR]
    height = 0.8 / len(shown)
    for index, peer in enumerate(shown):
        for row, work in enumerate(names):
            ratio = results.ratios(work.name, peer, cpu)
            if ratio is None:
                continue
            axes.errorbar(ratio[0], row + index * height, color=COLOURS[peer], fmt="o", elinewidth=0.8,
                          markersize=6 if peer == LIBRARY else 4, label=peer if row == 0 else None,
                          xerr=[[ratio[0] - ratio[1]], [ratio[2] - ratio[0]]])
    axes.axvline(1, color=COLOURS[FLOOR], linewidth=1)
    axes.set_yticks([row + 0.34 for row in range(len(names))], [work.title for work in names], fontsize=8)
    for row in range(1, len(names)):
        axes.axhline(row - 0.15, color="#d1d5db", linewidth=0.5)
    axes.invert_yaxis()
    axes.set(xscale="log", xlabel="CPU a request ÷ raw-multi (median; least to most)")
    axes.legend(fontsize=8, loc="upper left")
    save(figure, "ratios.svg")


def plot_latency(results):
    figure, axes = plt.subplots(figsize=(8, 3.8))
    for index, (key, shade) in enumerate((("p50_us", 1.0), ("p99_us", 0.45))):
        values = [(results.median("get-64", peer, lambda run: run[key]) or 0) / 1000 for peer in PEERS]
        axes.bar([position + 0.4 * index for position in range(len(PEERS))], values, 0.38,
                 color=[COLOURS[peer] for peer in PEERS], alpha=shade, label=key[:3])
    axes.set_xticks([position + 0.2 for position in range(len(PEERS))], PEERS, fontsize=8)
    axes.set(ylabel="ms from call to callback", title="1 KiB GET, 64 in flight: p50 (dark) and p99 (light)")
    save(figure, "latency.svg")


def main():
    results = Results()
    matplotlib.rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "zel_http", "font.size": 9})
    plot_curve(results)
    plot_ratios(results)
    plot_latency(results)
    fetched = Downloads()
    plot_downloads(fetched)
    parts = {"machine": machine_text(results), "targets": targets_table(results), "gates": gates_table(),
             "cpu": cpu_table(results), "latency": latency_table(results), "memory": memory_table(results),
             "cancel": cancel_table(results), "idle": idle_text(results),
             "downloads": downloads_table(fetched), "beside": beside_table(fetched)}
    page = DOCS / "benchmarks.md"
    text = page.read_text()
    for name, part in parts.items():
        pattern = r"(<!-- begin %s -->\n).*?(<!-- end -->)" % name
        text, count = re.subn(pattern, lambda match: match[1] + part + "\n" + match[2], text, flags=re.DOTALL)
        if count != 1:
            raise SystemExit("report: benchmarks.md has no place for '%s'" % name)
    page.write_text(text)
    print("docs/benchmarks.md and its plots are made")


if __name__ == "__main__":
    main()
