#!/usr/bin/python3
"""Measures everything and prints one table: figure, goal, met or missed. Called by scripts/bench.

    run.py BUILD_DIR RESULTS_DIR [--check] [--quick] [--only CASE]
"""

import argparse
import json
import pathlib
import re
import subprocess
import sys
import time

import chart
import counting
import goals

sys.path[:0] = [str(pathlib.Path(__file__).parent / folder) for folder in ("service", "clients", "gateway")]
import clients_bench as clients  # noqa: E402
import gateway_bench as gateway  # noqa: E402
import service_bench as service  # noqa: E402

PEERS = ("floor", "cbor", "msgpackcxx")


class Run:
    """What was asked for, and the figures so far: case -> figure -> value."""

    def __init__(self, options):
        self.programs = options.build.resolve() / "bench"
        self.build = options.build.resolve()
        self.quick = options.quick
        self.only = options.only
        self.table = {}
        self.started = time.monotonic()

    def wants(self, case):
        return not self.only or case.startswith(self.only) or self.only.startswith(case)

    def has(self, program):
        return (self.programs / program).exists()

    def say(self, what):
        print(f"[{time.monotonic() - self.started:4.0f} s] {what}", file=sys.stderr, flush=True)

    def timed(self, program, pattern):
        """Nanoseconds of each case that matches: the least of several repetitions, all of them interleaved."""
        least, repetitions = ("0.01", "3") if self.quick else ("0.05", "9")
        result = subprocess.run([self.programs / program, f"--benchmark_filter={pattern}",
                                 "--benchmark_format=json", f"--benchmark_min_time={least}",
                                 f"--benchmark_repetitions={repetitions}",
                                 "--benchmark_enable_random_interleaving=true"],
                                check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        times = {}
        for one in json.loads(result.stdout)["benchmarks"]:
            if one["run_type"] == "iteration":
                rate = one.get("items_per_second")
                taken = 1e9 / rate if rate else one["cpu_time"]
                times[one["run_name"]] = min(taken, times.get(one["run_name"], taken))
        return times


def rounded(value):
    return round(value, 2) if value < 100 else round(value)


def natural(name):
    """A key that sorts numbers in names by their size."""
    return [(int(part), "") if part.isdigit() else (0, part) for part in re.split(r"(\d+)", name)]


# Timed cases

def codec(run):
    for name in goals.CODEC_CASES:
        for direction in ("pack", "unpack"):
            case = f"codec/{direction}/{name}"
            if run.wants(case):
                run.say(case)
                times = run.timed("codec_bench", f"^{case}/")
                took = times[f"{case}/vorbel"]
                run.table[case] = {"ns": rounded(took),
                                   **{f"x {peer}": rounded(took / times[f"{case}/{peer}"]) for peer in PEERS}}


def with_floors(run, program, group):
    """The cases of a group, each beside its floor if it has one."""
    if not run.wants(group):
        return
    run.say(group)
    times = run.timed(program, f"^{group}(/|$)")
    for case, took in sorted(times.items(), key=lambda item: natural(item[0])):
        if not case.endswith("/floor"):
            figures = run.table.setdefault(case, {"ns": rounded(took)})
            if f"{case}/floor" in times:
                figures["x floor"] = rounded(took / times[f"{case}/floor"])


def compare(run, case, other, figure):
    if case in run.table and other in run.table:
        run.table[case][figure] = rounded(run.table[case]["ns"] / run.table[other]["ns"])


def link(run):
    for group in ("link", "frame/crc"):
        with_floors(run, "link_bench", group)


def convert(run):
    for group in ("convert/inbound", "convert/gather", "convert/map3", "convert/outbound",
                  "convert/debug_line_off", "schema/load_500"):
        with_floors(run, "convert_bench", group)
    compare(run, "convert/inbound/2048", "convert/inbound/50", "x 50 endpoints")
    compare(run, "convert/gather/10000", "convert/gather/100", "x flush size 100")


# Counted cases: the same on every machine

def codec_instructions(run):
    case = "codec/instructions/small"
    if run.wants(case):
        run.say(case)
        run.table[case] = {
            direction: round(counting.instructions_each(
                lambda n: [run.programs / "codec_instructions", direction, "small", n], 100, 1100))
            for direction in ("pack", "unpack")}


def convert_instructions(run):
    if not run.wants("convert/instructions"):
        return
    program = run.programs / "convert_bench"
    run.say("convert/instructions")
    small, large = (counting.instructions_each(counting.case_command(program, f"convert/inbound/{endpoints}"),
                                               endpoints, 5 * endpoints) for endpoints in (50, 2048))
    run.table["convert/instructions/inbound"] = {"50 endpoints": round(small), "2048 endpoints": round(large),
                                                 "2048 x 50 endpoints": rounded(large / small)}
    lines = {debug: counting.profile(counting.case_command(program, f"convert/outbound/20/debug_{debug}")(10))
             .calls("QMessageLogger::debug()") for debug in ("on", "off")}
    if lines["on"] == 0:
        raise AssertionError("the log lines are not counted: not even those of enabled debug output")
    line = counting.instructions_each(counting.case_command(program, "convert/debug_line_off"), 1000, 11000)
    run.table["convert/instructions/debug off"] = {"log lines formatted": lines["off"], "a line": round(line)}


def of_running(group, cases, name, seconds):
    """A case of a benchmark that feeds running programs for some seconds."""
    def measure(run):
        if run.wants(f"{group}/{name}"):
            run.say(f"{group}/{name}")
            cases[name](run.build, seconds / 5 if run.quick else seconds, run.table)
    return measure


def of_service(name, seconds):
    """A case of the service's benchmark."""
    return of_running("service", service.CASES, name, seconds)


def of_gateway(name, seconds):
    """A case of the gateway's benchmark."""
    return of_running("gateway", gateway.CASES, name, seconds)


def of_clients(name):
    """A case of the clients' benchmark."""
    def measure(run):
        if run.wants(f"clients/{name}"):
            run.say(f"clients/{name}")
            clients.CASES[name](run.build, run.table)
    return measure


GATED = [codec_instructions, convert_instructions, of_service("instructions", 0), of_service("system_calls", 0),
         of_service("rss", 0), of_clients("instructions"), of_clients("memory"),
         of_gateway("instructions", 0), of_gateway("memory", 0)]
TIMED = [codec, link, convert, of_service("broadcast", 5), of_service("latency", 5),
         of_service("start_to_listen", 0), of_clients("line_rate"), of_clients("full_speed"),
         of_gateway("line_rate", 5), of_gateway("batches", 5), of_gateway("now", 5)]


VERDICTS = {None: "", True: "met", False: "MISSED"}


def rows(table):
    """What both tables show: case, figure, value, goal, verdict."""
    return [(case, figure, f"{value:,}", goals.goal(case, figure), VERDICTS[goals.verdict(case, figure, value)])
            for case, figures in table.items() for figure, value in figures.items()]


def print_table(table):
    print(f"\n{'case':40}{'figure':34}{'value':>12}  goal")
    for case, figure, value, goal, verdict in rows(table):
        print(f"{case:40}{figure:34}{value:>12}  {goal:12}{verdict}".rstrip())


def markdown(table):
    """The same table as documentation shows it."""
    lines = ["| case | figure | value | goal | |", "| --- | --- | ---: | --- | --- |"]
    return "\n".join(lines + [f"| {' | '.join(row)} |" for row in rows(table)]) + "\n"


def write_results(table, folder):
    folder.mkdir(parents=True, exist_ok=True)
    (folder / "results.json").write_text(json.dumps(table, indent=2) + "\n")
    (folder / "results.md").write_text(markdown(table))
    chart.draw(table, folder / "results.svg")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("results", type=pathlib.Path)
    parser.add_argument("--check", action="store_true", help="only what does not depend on the machine's speed")
    parser.add_argument("--quick", action="store_true", help="short runs: rough figures")
    parser.add_argument("--only", metavar="CASE", help="only cases whose name begins so")
    options = parser.parse_args()

    run = Run(options)
    for measure in GATED if options.check else TIMED + GATED:
        measure(run)
    if not run.table:
        parser.error(f"no case begins with {options.only}")
    print_table(run.table)
    write_results(run.table, options.results)
    missed = [f"{case}: {figure}" for case, figure, _, _, verdict in rows(run.table)
              if verdict == VERDICTS[False]]
    print(f"\n{len(missed)} goals missed. More in {options.results}: results.json, results.md, results.svg")
    if options.check and missed:
        sys.exit("Gates broken: " + "; ".join(missed))


if __name__ == "__main__":
    main()
