"""The command line that both programs of this folder have."""

import argparse
import pathlib
import resource


def parser(description, **numbers):
    """With BUILD_DIR, --json, and an option for each number with its default."""
    made = argparse.ArgumentParser(description=description, formatter_class=argparse.RawDescriptionHelpFormatter)
    made.add_argument("build", type=lambda word: pathlib.Path(word).resolve())
    made.add_argument("--json", action="store_true")
    for name, usual in numbers.items():
        made.add_argument(f"--{name}", type=int, default=usual)
    return made


def raise_limit_of_descriptors():
    """A thousand boards have a thousand connections."""
    most = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
