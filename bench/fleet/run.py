#!/usr/bin/python3
"""Measures how the costs of a fleet grow, and draws them. Called by scripts/bench --fleet.

    run.py BUILD_DIR RESULTS_DIR [--quick]

Writes fleet.json, fleet.md (the tables) and fleet.svg.
"""

import argparse
import json
import pathlib
import subprocess
import sys
import time

import matplotlib

matplotlib.use("Agg")
from matplotlib import pyplot  # noqa: E402

FOLDER = pathlib.Path(__file__).parent
PARTS = ("boards", "broker", "history", "database")
NOW = 1000  # ms: each latest value once a second, as a gateway has it by default

# What is varied, and the runs with it: words for fleet_bench.py.
GROUPS = {
    "boards": [{"boards": number} for number in (250, 500, 1000)],
    "values of each board": [{"values": number} for number in (12, 48)],
    "subscribers to all batches": [{"subscribers": number} for number in (4, 16)],
    "each latest value once a second": [{"boards": 250, "now": NOW}],
    "more, until something breaks": [{"boards": 1500}, {"boards": 1000, "values": 200}, {"boards": 2000}],
    "three nats-servers, on the disk": [{"broker": "nats", "boards": number} for number in (250, 500, 1000)],
    "three nats-servers, in memory": [{"broker": "memory", "boards": 1000}],
}


def run(build, words, seconds):
    command = [sys.executable, FOLDER / "fleet_bench.py", build, "--json", "--seconds", str(seconds)]
    command += [str(word) for name, value in words.items() for word in (f"--{name}", value)]
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    if done.returncode == 0:
        return json.loads(done.stdout)
    return {**words, "failed": done.stderr.strip().splitlines()[-1]}


def label(words):
    return ", ".join(f"{name} {value}" for name, value in words.items())


def row(words, found):
    if "failed" in found:
        return f"| {label(words)} | {found['failed']} |"
    cores, memory = found["cores"], found["megabytes"]
    latency = f"{found['latency_p50']:.0f} / {found['latency_p99']:.0f}" if found["latency_p50"] else "none came"
    cells = [label(words), f"{found['published_per_s']:,.0f}", f"{found['stored_per_s']:,.0f}",
             f"{found['lost'] + found['dropped']:,}", latency]
    return "| " + " | ".join(cells + [f"{cores[part]:.2f} / {memory[part]:.0f}" for part in PARTS]) + " |"


def table(results):
    head = ["run", "published/s", "stored/s", "lost", "ms to query, p50 / p99"]
    head += [f"{part}: cores / MB" for part in PARTS]
    lines = ["| " + " | ".join(head) + " |", "| --- |" + " --- |" * (len(head) - 1)]
    return "\n".join(lines + [row(words, found) for words, found in results]) + "\n"


def draw(results, path):
    figure, both = pyplot.subplots(1, 2, figsize=(9, 3.5), layout="constrained", sharey=True)
    for axes, (group, title) in zip(both, (("boards", "mosquitto"),
                                           ("three nats-servers, on the disk", "three nats-servers"))):
        runs = [found for words, found in results[group] if "failed" not in found]
        for part in PARTS:
            axes.plot([found["published_per_s"] / 1000 for found in runs], [found["cores"][part] for found in runs],
                      marker="o", label=part)
        axes.set_title(title)
        axes.set_xlabel("thousand values a second")
    both[0].set_ylabel("cores")
    both[0].legend()
    figure.savefig(path)
    # matplotlib leaves blanks at the ends of lines.
    path.write_text("".join(f"{line.rstrip()}\n" for line in path.read_text().splitlines()))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("results", type=pathlib.Path)
    parser.add_argument("--quick", action="store_true")
    options = parser.parse_args()
    options.results.mkdir(parents=True, exist_ok=True)
    started, results = time.monotonic(), {}
    for group, all_words in GROUPS.items():
        results[group] = []
        for words in all_words:
            print(f"[{time.monotonic() - started:4.0f} s] {group}: {label(words)}", file=sys.stderr, flush=True)
            found = run(options.build, words, 5 if options.quick else 20)
            results[group].append((words, found))
            print(row(words, found), file=sys.stderr, flush=True)
    (options.results / "fleet.json").write_text(json.dumps(results, indent=1))
    text = "\n".join(f"{group}\n\n{table(found)}" for group, found in results.items())
    (options.results / "fleet.md").write_text(text)
    draw(results, options.results / "fleet.svg")
    print(text)


if __name__ == "__main__":
    main()
