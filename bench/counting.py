"""Counts what a program does instead of timing it: figures that are the same on every machine."""

import os
import pathlib
import re
import subprocess
import tempfile

ENVIRONMENT = {"QT_HASH_SEED": "0"}  # the same order of hashes every time


class Profile:
    """What callgrind saw: `total` instructions, and how often each function was called."""

    def __init__(self, path):
        text = pathlib.Path(path).read_text()
        self.total = int(re.search(r"^(?:summary|totals): (\d+)", text, re.M)[1])
        self._text = text

    def calls(self, function):
        """Calls of the functions whose name contains `function`."""
        numbers = {number for number, name in re.findall(r"^c?fn=\((\d+)\) (.*)$", self._text, re.M)
                   if function in name}
        calls = re.findall(r"^cfn=\((\d+)\).*\ncalls=(\d+)", self._text, re.M)
        return sum(int(count) for number, count in calls if number in numbers)


def callgrind(path):
    """What to put in front of a command to have its profile written to `path`."""
    return ["valgrind", "-q", "--tool=callgrind", f"--callgrind-out-file={path}"]


def profile(command):
    with tempfile.NamedTemporaryFile() as counts:
        subprocess.run([*callgrind(counts.name), *map(str, command)], check=True, stdout=subprocess.DEVNULL,
                       stderr=subprocess.PIPE, env={**os.environ, **ENVIRONMENT})
        return Profile(counts.name)


def instructions_each(command, few, many):
    """Instructions that one repetition takes: `command(n)` is the command that does n of them."""
    return (profile(command(many)).total - profile(command(few)).total) / (many - few)


def case_command(program, case):
    """The command that runs one case of a benchmark program n times."""
    return lambda n: [program, f"--iterations={n}", f"--benchmark_filter=^{case}/iterations"]


def strace(path):
    """What to put in front of a command to have its system calls counted, in `path`, once it has ended.

    The command stays the child of whoever starts it, and can be signalled.
    """
    return ["strace", "-D", "-f", "-c", "-o", str(path)]


def system_calls(path):
    """The counts of a report of strace, by system call, or nothing if it is not complete yet."""
    lines = pathlib.Path(path).read_text().splitlines()
    if not any(line.endswith(" total") for line in lines):
        return None
    return {line.split()[-1]: int(line.split()[3]) for line in lines
            if re.match(r"\s+\d", line) and not line.endswith(" total")}
