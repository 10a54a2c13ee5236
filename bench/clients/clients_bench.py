#!/usr/bin/python3
"""Measures the clients beside the libraries they stand on, which unpack the same messages and do nothing else.

    clients_bench.py BUILD_DIR CASE...

Client and peer take turns; the least of several runs counts. CPU is that of the client's process, per message.
"""

import contextlib
import json
import os
import pathlib
import subprocess
import sys
import tempfile

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(PROJECT / "bench"), str(PROJECT / "bench" / "clients")]
import cases  # noqa: E402
import counting  # noqa: E402
from source import LINE_RATE, PORT, SCHEMA, Source, as_taken, at_line_rate, in_step  # noqa: E402

FOLDER = PROJECT / "bench" / "clients"
CLIENTS = PROJECT / "clients"
KINDS = ("vorbel", "plain")


@contextlib.contextmanager
def source(send):
    serving = Source(send)
    try:
        yield
    finally:
        serving.close()


def command(language, build, kind, count):
    program = {"cpp": [build / "bench/clients/cpp_client"],
               "python": ["/usr/bin/python3", FOLDER / "python_client.py"],
               "javascript": ["node", FOLDER / "javascript_client.mjs"]}[language]
    return [*map(str, program), kind, f"ws://127.0.0.1:{PORT}", str(count)]


def environment():
    return {**os.environ, "BENCH_SCHEMA": json.dumps(SCHEMA), "CLIENTS": str(CLIENTS),
            "QT_LOGGING_RULES": "*.debug=false"}


def cost(*arguments):
    """What a client says that its messages cost: "cpu" in seconds each."""
    result = subprocess.run(command(*arguments), check=True, stdout=subprocess.PIPE, env=environment(), timeout=600)
    return json.loads(result.stdout)


def least_cpu(language, build, count, rounds=3):
    taken = [{kind: cost(language, build, kind, count)["cpu"] for kind in KINDS} for _ in range(rounds)]
    return {kind: min(each[kind] for each in taken) for kind in KINDS}


def line_rate(build, table):
    """The C++ client when messages come one by one, as they do from the line."""
    with source(at_line_rate):
        took = least_cpu("cpp", build, 5 * LINE_RATE)
    table["clients/line_rate/C++"] = {"us a message": round(took["vorbel"] * 1e6, 2),
                                      "% of a core": round(took["vorbel"] * LINE_RATE * 100, 1),
                                      "x plain": round(took["vorbel"] / took["plain"], 2)}


def full_speed(build, table):
    """Messages a second that one core takes, beside the bare libraries."""
    for language, name, count in (("cpp", "C++", 300_000), ("python", "Python", 60_000),
                                  ("javascript", "JavaScript", 300_000)):
        with source(as_taken):
            took = least_cpu(language, build, count)
        table[f"clients/full_speed/{name}"] = {"messages a second": round(1 / took["vorbel"]),
                                               "of the bare libraries": round(took["plain"] / took["vorbel"], 2)}


def memory(build, table):
    """The C++ client's memory over a million messages."""
    with source(in_step):
        plain, vorbel = (cost("cpp", build, kind, 1_000_000) for kind in ("plain", "vorbel"))
    table["clients/memory/C++"] = {"MB": round(vorbel["resident"] / 1024, 2),
                                   "MB of plain": round(plain["resident"] / 1024, 2),
                                   "kB growth over 1,000,000 messages": vorbel["growth"]}


def instructions(build, table):
    """Instructions a message of the C++ client, beside the peer's."""
    few, many = 1000, 5000
    each = {}
    for kind in KINDS:
        totals = {}
        for count in (few, many):
            with source(in_step), tempfile.NamedTemporaryFile() as counts:
                subprocess.run([*counting.callgrind(counts.name), *command("cpp", build, kind, count)], check=True,
                               stdout=subprocess.DEVNULL, env={**environment(), **counting.ENVIRONMENT})
                totals[count] = counting.Profile(counts.name).total
        each[kind] = (totals[many] - totals[few]) / (many - few)
    table["clients/instructions/C++"] = {"a message": round(each["vorbel"]),
                                         "x plain": round(each["vorbel"] / each["plain"], 2)}


def smoke(build, table):
    """Every client takes what is sent to it; nothing is measured."""
    for send in (at_line_rate, as_taken, in_step):
        with source(send):
            for language in ("cpp", "python"):
                for kind in KINDS:
                    assert cost(language, build, kind, 1000)["cpu"] > 0
    table["clients/smoke"] = {"clients take": 4}


CASES = {case.__name__: case for case in (line_rate, full_speed, memory, instructions, smoke)}

if __name__ == "__main__":
    cases.run(__doc__, CASES)
