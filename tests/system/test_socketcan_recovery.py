"""A CAN interface that is missing, goes down or is another one all of a sudden."""

import contextlib
import re

import pytest
from canbus import CONTROLLERS, NO_BUS, VIRTUAL, CanBus
from vorbelsim.canframe import CanFrame
from watch import Watch, now

MOTOR = {"motor": {"speed": {"@mac": 5, "@cmd": 2, "@format": "s"}}}
CREATED_AGAIN = "Close SocketCan"
CANNOT_CONNECT = "Socket can cannot connect."

# By the guest's clock: a link is heard again within two ticks of a second; a busy host takes a part of the guest's
# time for itself.
PROMISE = 2.0
ALLOWANCE = 1.5


def start(guest, service, setup, peer):
    """A bus with the service on it."""
    bus = CanBus(guest, setup, peer)
    service.configure(VORBEL_SOURCE="socketcan")
    bus.wait_for_listener()
    return bus


@pytest.fixture(params=["vcan", "controllers"])
def bus(request, guest, service):
    setup, peer = {"vcan": (VIRTUAL, "can0"), "controllers": (CONTROLLERS, "can1")}[request.param]
    return start(guest, service, setup, peer)


async def speaks(bus, client):
    """Checks that the link works both ways."""
    value = await client.value_of(lambda: bus.send("085#0100"))
    assert value == {"motor": {"speed": 1}}
    with bus.record(1) as recording:
        await client.send({"motor": {"speed": 3}})
    assert [frame for _, frame in recording.frames] == [CanFrame.vek(5, 2, b"\x03\x00")]


@contextlib.contextmanager
def heard_soon(guest, peer):
    """Checks that what happens inside brings a link back that is heard as soon as promised."""
    with Watch(guest) as watch:
        guest.run(f"(while sleep 0.05; do cansend {peer} '085#0100' || true; done) >/dev/null 2>&1 &\n"
                  "echo $! >/run/talker.pid")
        try:
            yield
            back = now(guest)
            silence = watch.first_value(back) - back
        finally:
            guest.run("kill $(cat /run/talker.pid)")
    print(f"silent for {silence:.2f} s")
    assert silence <= PROMISE + ALLOWANCE


async def comes_alive(guest, service):
    async with service.connect() as client:
        await client.send_schema(MOTOR)
        with heard_soon(guest, "can0"):
            bus = CanBus(guest, VIRTUAL, "can0")
        await speaks(bus, client)


async def test_without_the_kernel_module_it_keeps_trying_and_then_connects(guest, service):
    guest.run(NO_BUS + """
        mkdir -p /run/modprobe.d
        echo 'install can /bin/false' >/run/modprobe.d/no-can.conf
        systemctl stop vorbel
        rmmod can_raw sja1000 can_dev can 2>/dev/null || true
        ! lsmod | grep -q '^can '
    """)
    service.configure(VORBEL_SOURCE="socketcan")
    service.wait_for_log(CANNOT_CONNECT, count=2)
    guest.run("rm /run/modprobe.d/no-can.conf")
    await comes_alive(guest, service)


async def test_without_an_interface_it_keeps_trying_and_then_connects(guest, service):
    guest.run(NO_BUS)
    service.configure(VORBEL_SOURCE="socketcan")
    service.wait_for_log(CANNOT_CONNECT, count=2)
    await comes_alive(guest, service)


async def test_an_interface_that_was_down_is_heard_again(bus, service, guest):
    async with service.connect() as client:
        await client.send_schema(MOTOR)
        guest.run("ip link set can0 down")
        await client.send({"motor": {"speed": 1}})
        guest.run("sleep 1.5")
        with heard_soon(guest, bus.peer):
            guest.run("ip link set can0 up")
        await speaks(bus, client)


async def test_an_interface_made_anew_between_two_ticks_is_heard_again(guest, service):
    bus = start(guest, service, VIRTUAL, "can0")
    async with service.connect() as client:
        await client.send_schema(MOTOR)
        await speaks(bus, client)
        before = service.count(CREATED_AGAIN)
        with heard_soon(guest, "can0"):
            guest.run("ip link del can0\nip link add can0 type vcan\nip link set can0 up")
        # Once, or more often where a tick falls between the three commands.
        service.wait_for_log(CREATED_AGAIN, count=before + 1)
        await speaks(bus, client)


async def test_controllers_whose_driver_is_loaded_anew_are_heard_again(guest, service):
    start(guest, service, CONTROLLERS, "can1")
    async with service.connect() as client:
        await client.send_schema(MOTOR)
        with heard_soon(guest, "can1"):
            bus = CanBus(guest, CONTROLLERS, "can1")
        await speaks(bus, client)


def test_the_documented_network_file_brings_can0_up(guest, deployment):
    guest.run(NO_BUS + "modprobe kvaser_pci; udevadm settle")
    path = "/etc/systemd/network/80-can0.network"
    (guest.share / "network").write_text(deployment[path])
    guest.run(f"cp /host/network {path}; systemctl restart systemd-networkd")
    details = guest.run("for i in $(seq 50); do ip -br link show can0 | grep -q ' UP ' && break; sleep 0.1; done; "
                        f"ip -details link show can0; rm {path}; systemctl restart systemd-networkd")
    assert "state UP" in details
    assert re.search(r"bitrate 250000\b", details)
    assert re.search(r"restart-ms [1-9]", details)
