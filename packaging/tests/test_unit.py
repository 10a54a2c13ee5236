"""The systemd units as they are installed, judged by systemd itself."""

import pathlib
import re
import subprocess

import pytest

PACKAGING = pathlib.Path(__file__).parents[1]
EXPOSURE_LIMIT = 2.0
# What only one of them needs, or has no use for.
DEVICES = {"DeviceAllow=char-188 rw", "DeviceAllow=char-166 rw", "ReadWritePaths=-/run/lock"}
OF_ITS_OWN = ("Description", "Documentation", "After", "Wants", "ExecStart", "EnvironmentFile", "Type", "WatchdogSec",
              "User", "Group", "StateDirectory", "StateDirectoryMode", "RuntimeDirectory", "RuntimeDirectoryMode",
              "RuntimeDirectoryPreserve", "PrivateDevices", "RestrictAddressFamilies", "TasksMax")


@pytest.fixture(params=["vorbel", "vorbel-gateway", "vorbel-history"])
def unit(request):
    return PACKAGING / f"{request.param}.service"


def lines(name):
    return [line for line in (PACKAGING / name).read_text().splitlines() if "=" in line and not line.startswith("#")]


def test_the_unit_leaves_little_exposed(unit):
    report = subprocess.run(
        ["systemd-analyze", "security", "--offline=true", "--no-pager", unit],
        capture_output=True, text=True, check=True).stdout
    overall = re.search(rf"Overall exposure level for {re.escape(unit.name)}: (\d+\.\d+)", report)
    assert overall, report
    print(overall.group())
    assert float(overall.group(1)) <= EXPOSURE_LIMIT, report


def test_systemd_understands_every_line_of_the_unit(unit):
    complaints = subprocess.run(
        ["systemd-analyze", "verify", "--man=no", unit], capture_output=True, text=True).stderr.splitlines()
    # The program is not installed where the tests run.
    unexpected = [line for line in complaints if f"/usr/bin/{unit.stem} is not executable" not in line]
    assert unexpected == []


def test_the_gateway_is_confined_as_the_daemon_is():
    daemons, gateways = set(lines("vorbel.service")), set(lines("vorbel-gateway.service"))
    assert {line for line in daemons ^ gateways if line.split("=")[0] not in OF_ITS_OWN} == DEVICES


def test_the_gateway_has_no_devices_and_no_can_bus():
    gateways = lines("vorbel-gateway.service")
    assert {"PrivateDevices=yes", "DevicePolicy=closed"} <= set(gateways)
    assert "RestrictAddressFamilies=AF_INET AF_INET6 AF_UNIX" in gateways


def test_the_gateway_is_watched_and_keeps_its_folders():
    gateways = set(lines("vorbel-gateway.service"))
    assert {"Type=notify", "WatchdogSec=30", "Restart=always", "RestartSec=1", "StartLimitIntervalSec=0"} <= gateways
    assert {"StateDirectory=vorbel-gateway", "StateDirectoryMode=0700", "RuntimeDirectory=vorbel-gateway",
            "RuntimeDirectoryMode=0700", "RuntimeDirectoryPreserve=restart"} <= gateways


def test_the_history_is_confined_as_the_gateway_is():
    gateways, histories = set(lines("vorbel-gateway.service")), set(lines("vorbel-history.service"))
    others = {line for line in gateways ^ histories if line.split("=")[0] not in OF_ITS_OWN}
    assert {line.split("=")[0] for line in others} == {"Environment", "MemoryMax"}
    assert {"PrivateDevices=yes", "RestrictAddressFamilies=AF_INET AF_INET6 AF_UNIX", "Type=notify", "WatchdogSec=60",
            "StateDirectory=vorbel-history", "StateDirectoryMode=0700", "User=vorbel-history"} <= histories
