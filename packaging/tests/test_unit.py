"""The systemd unit as it is installed, judged by systemd itself."""

import pathlib
import re
import subprocess

UNIT = pathlib.Path(__file__).parents[1] / "vorbel.service"
EXPOSURE_LIMIT = 2.0


def test_the_unit_leaves_little_exposed():
    report = subprocess.run(
        ["systemd-analyze", "security", "--offline=true", "--no-pager", UNIT],
        capture_output=True, text=True, check=True).stdout
    overall = re.search(r"Overall exposure level for vorbel\.service: (\d+\.\d+)", report)
    assert overall, report
    print(overall.group())
    assert float(overall.group(1)) <= EXPOSURE_LIMIT, report


def test_systemd_understands_every_line_of_the_unit():
    complaints = subprocess.run(
        ["systemd-analyze", "verify", "--man=no", UNIT], capture_output=True, text=True).stderr.splitlines()
    # The program is not installed where the tests run.
    unexpected = [line for line in complaints if "/usr/bin/vorbel is not executable" not in line]
    assert unexpected == []
