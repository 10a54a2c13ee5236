"""The SocketCAN link on the kernel's own drivers: a virtual interface, and two emulated controllers on one bus."""

import re

import pytest
from canbus import CONTROLLERS, NO_BUS, VIRTUAL, CanBus
from vorbelsim.canframe import CanFrame

MOTOR = {"motor": {"speed": {"@mac": 5, "@cmd": 2, "@format": "s"},
                   "current": {"@mac": 5, "@cmd": 2, "@format": "S", "@skip": 2, "@factor": 100}}}
CONFIG = {"config": {"@mac": 7, "@cmd": 4, "@format": "p", "@fragmentation": True},
          "setpoint": {"@mac": 5, "@cmd": 3, "@format": "s"}}
CREATED_AGAIN = "Close SocketCan"
CANNOT_CONNECT = "Socket can cannot connect."


@pytest.fixture(params=["vcan", "controllers"])
def bus(request, guest, service):
    """A bus with the service on it."""
    bus = CanBus(guest, VIRTUAL, "can0") if request.param == "vcan" else CanBus(guest, CONTROLLERS, "can1")
    service.configure(VORBEL_SOURCE="socketcan")
    bus.wait_for_listener()
    return bus


@pytest.fixture
def vcan(guest, service):
    bus = CanBus(guest, VIRTUAL, "can0")
    service.configure(VORBEL_SOURCE="socketcan")
    bus.wait_for_listener()
    return bus


# Inbound


async def test_a_standard_frame_becomes_a_value(bus, service):
    async with service.connect() as client:
        await client.send_schema(MOTOR)
        bus.send("085#0CFE7B00")
        assert await client.value() == {"motor": {"speed": -500, "current": pytest.approx(1.23)}}


async def test_of_an_extended_identifier_the_low_eleven_bits_count(bus, service):
    async with service.connect() as client:
        await client.send_schema({"seen": {"@mac": 0x05, "@cmd": 0x0D, "@format": "C"}})
        bus.send("00012345#2A")
        assert await client.value() == {"seen": 42}


async def test_a_remote_frame_is_taken_like_a_data_frame(bus, service):
    async with service.connect() as client:
        await client.send_schema({"asked": {"@mac": 5, "@cmd": 2, "@format": "C"}})
        bus.send("085#R1")
        assert await client.value() == {"asked": 0}


async def test_all_bytes_of_an_fd_frame_arrive(vcan, service):
    async with service.connect() as client:
        await client.send_schema({"last": {"@mac": 5, "@cmd": 2, "@format": "I", "@skip": 8}})
        vcan.send("085##0000000000000000078563412")
        assert await client.value() == {"last": 0x12345678}


async def test_generated_frames_arrive_all_and_in_order(bus, service, guest):
    # The emulated controllers buffer nine of these frames, and the guest may be kept from running for 100 ms.
    count, gap = (1000, 4) if bus.peer == "can0" else (200, 20)
    async with service.connect() as client:
        await client.send_schema({"count": {"@mac": 5, "@cmd": 2, "@format": "I"}})
        guest.run(f"cangen {bus.peer} -g {gap} -I 085 -L 4 -D i -n {count}", limit=60)
        assert await client.values(count) == [{"count": number} for number in range(count)]


# Outbound


async def test_frames_leave_byte_exact_and_at_least_ten_milliseconds_apart(bus, service):
    async with service.connect() as client:
        await client.send_schema(CONFIG)
        with bus.record(4) as recording:
            # Packed: 81 A6 "config" C4 0A and ten bytes, so 20 bytes in three frames.
            await client.send({"setpoint": -2, "config": bytes(range(10))})
    frames = [frame for _, frame in recording.frames]
    packed = b"\x81\xa6config\xc4\x0a" + bytes(range(10))
    assert frames == [CanFrame.vek(5, 3, b"\xfe\xff"), *(CanFrame.vek(7, 4, packed[at:at + 8]) for at in (0, 8, 16))]
    times = [time for time, _ in recording.frames]
    # A controller's interrupt may come late for one frame and in time for the next.
    tolerance = 0 if bus.peer == "can0" else 0.003
    gaps = [later - earlier for earlier, later in zip(times, times[1:])]
    assert min(gaps) >= 0.010 - tolerance, gaps
    assert times[-1] - times[0] >= 0.030 - tolerance


async def test_what_the_service_sends_is_not_read_back(vcan, service):
    async with service.connect() as client:
        await client.send_schema({"setpoint": {"@mac": 5, "@cmd": 3, "@format": "s"},
                                  "other": {"@mac": 5, "@cmd": 2, "@format": "s"}})
        with vcan.record(1):
            await client.send({"setpoint": 7})
        vcan.send("085#0100")
        assert await client.value() == {"other": 1}


# An interface that comes and goes


def speed_arrives(bus, client):
    return client.value_of(lambda: bus.send("085#01000000"))


async def test_without_the_kernel_module_it_keeps_trying_and_then_connects(guest, service):
    guest.run(NO_BUS + """
        mkdir -p /run/modprobe.d
        echo 'install can /bin/false' >/run/modprobe.d/no-can.conf
        rmmod can_raw sja1000 can_dev can || true
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


async def comes_alive(guest, service):
    bus = CanBus(guest, VIRTUAL, "can0")
    bus.wait_for_listener()
    async with service.connect() as client:
        await client.send_schema(MOTOR)
        assert (await speed_arrives(bus, client))["motor"]["speed"] == 1


async def test_an_interface_that_was_down_is_heard_again(bus, service, guest):
    async with service.connect() as client:
        await client.send_schema(MOTOR)
        guest.run("ip link set can0 down")
        await client.send({"motor": {"speed": 1}})
        guest.run("sleep 1.5; ip link set can0 up")
        assert (await speed_arrives(bus, client))["motor"]["speed"] == 1
        await goes_out(bus, client)


async def test_an_interface_made_anew_is_heard_again(vcan, service, guest):
    async with service.connect() as client:
        await client.send_schema(MOTOR)
        assert (await speed_arrives(vcan, client))["motor"]["speed"] == 1
        before = service.log().count(CREATED_AGAIN)
        # Both within one tick: at none of them the interface is missing.
        guest.run("ip link del can0\nip link add can0 type vcan\nip link set can0 up")
        service.wait_for_log(CREATED_AGAIN, count=before + 1)
        vcan.wait_for_listener()
        assert (await speed_arrives(vcan, client))["motor"]["speed"] == 1
        await goes_out(vcan, client)


async def test_controllers_whose_driver_is_loaded_anew_are_heard_again(guest, service):
    bus = CanBus(guest, CONTROLLERS, "can1")
    service.configure(VORBEL_SOURCE="socketcan")
    bus.wait_for_listener()
    async with service.connect() as client:
        await client.send_schema(MOTOR)
        bus = CanBus(guest, CONTROLLERS, "can1")
        assert (await speed_arrives(bus, client))["motor"]["speed"] == 1
        await goes_out(bus, client)


async def goes_out(bus, client):
    with bus.record(1) as recording:
        await client.send({"motor": {"speed": 3}})
    assert [frame for _, frame in recording.frames] == [CanFrame.vek(5, 2, b"\x03\x00")]


# As documented


def test_the_documented_network_file_brings_can0_up(guest, deployment):
    guest.run(NO_BUS + "modprobe kvaser_pci; udevadm settle")
    path = "/etc/systemd/network/80-can0.network"
    (guest.share / "network").write_text(deployment[path])
    guest.run(f"cp /host/network {path}; networkctl reload; networkctl reconfigure can0")
    details = guest.run("for i in $(seq 50); do ip -br link show can0 | grep -q ' UP ' && break; sleep 0.1; done; "
                        f"ip -details link show can0; rm {path}; networkctl reload")
    assert "state UP" in details
    assert re.search(r"bitrate 250000\b", details)
    assert re.search(r"restart-ms [1-9]", details)
