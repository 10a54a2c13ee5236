"""The Python client in a folder that its package was unpacked or installed into."""

import os
import subprocess


def run(root, *arguments):
    """Runs the tool in the folder `root`, with its own module."""
    return subprocess.run([f"{root}/usr/bin/vorbel-cli", *arguments], capture_output=True, text=True,
                          env={**os.environ, "PYTHONPATH": f"{root}/usr/lib/python3/dist-packages",
                               "PYTHONDONTWRITEBYTECODE": "1"})


def check(root, schema):
    """The tool must explain itself and find nothing wrong with a schema."""
    explained, checked = run(root, "--help"), run(root, "schema", "check", schema)
    assert explained.returncode == 0 and explained.stdout.startswith("usage: vorbel-cli"), explained
    assert checked.returncode == 0 and "0 errors" in checked.stdout, checked
