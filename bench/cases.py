"""The command line of the programs that measure: a build and the names of cases, each of which fills a table."""

import argparse
import pathlib


def run(description, cases, seconds=None):
    """Each of `cases` {name: function} is called with the build, how long one measurement is to take if `seconds` says
    what is usual, and a table {name: {unit: figure}}, which is printed."""
    parser = argparse.ArgumentParser(description=description, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("case", nargs="+", choices=cases)
    if seconds:
        parser.add_argument("--seconds", type=float, default=seconds,
                            help="length of one measurement (default %(default)s)")
    options = parser.parse_args()
    for case in options.case:
        table = {}
        cases[case](options.build.resolve(), *([options.seconds] if seconds else []), table)
        for name, figures in table.items():
            print(f"{name:48}" + ", ".join(f"{value} {unit}" for unit, value in figures.items()), flush=True)
