"""The serial link on the kernel's own drivers: QEMU's USB serial adapter and the kernel's CDC-ACM gadget."""

import random
import struct
import time

import msgpack
import pytest
from adapters import FtdiAdapter, GadgetAdapter
from vorbelsim import vek

SCHEMA = {"low": {"@mac": 5, "@cmd": 2, "@format": "I"},
          "high": {"@mac": 5, "@cmd": 2, "@format": "I", "@skip": 4},
          "alive": {"@mac": 6, "@cmd": 1, "@format": "C"},
          "blob": {"@mac": 7, "@cmd": 4, "@format": "p", "@fragmentation": True}}
BULK = 64 * 1024
FOUND = r'Found "VEK CAN Adapter" "ttyUSB0"'
CLOSED = "Close SerialPort"

FTDI_MODEM_CONTROL, FTDI_BAUD_RATE = 1, 3
FTDI_ONE_MEGABAUD = 3  # the divisor of the chip's 3 MHz
RTS_ON, DTR_OFF, DTR_ON = 0x0202, 0x0100, 0x0101


@pytest.fixture
def ftdi(guest, service):
    """An unplugged adapter, whose driver was not loaded yet when the service started."""
    adapter = FtdiAdapter(guest)
    service.configure(VORBEL_SOURCE="serialport")
    yield adapter
    adapter.close()


@pytest.fixture
def gadget(guest, service):
    adapter = GadgetAdapter(guest)
    service.configure(VORBEL_SOURCE="serialport")
    yield adapter
    adapter.close()


@pytest.fixture(params=["ftdi", "gadget"])
def adapter(request):
    return request.getfixturevalue(request.param)


async def link_up(client, adapter):
    """Returns once frames pass both ways, with none left on the way."""
    probes = 0

    def probe():
        nonlocal probes
        probes += 1
        adapter.write(vek.record(6, 1, bytes([probes])))

    value = await client.value_of(probe)
    while value["alive"] != probes:
        value = await client.value()
    await client.send({"alive": 0xFF})
    adapter.discard_through(vek.record(6, 1, b"\xff"))


# Finding and opening


async def test_the_adapter_is_found_and_belongs_to_the_service(adapter, service, guest):
    adapter.plug()
    name = adapter.node.removeprefix("/dev/")
    service.wait_for_log(f'Found "VEK CAN Adapter" "{name}"')
    service.wait_for_log('Sending hello message .* for device "VEK CAN Adapter"')
    assert guest.run(f"stat -c '%U %G %a' {adapter.node}").split() == ["root", "vorbel", "660"]
    # The lock that other programs look for before they open a serial port.
    assert guest.run(f"stat -c %U /run/lock/LCK..{name}").split() == ["vorbel"]
    async with service.connect() as client:
        await client.send_schema(SCHEMA)
        await link_up(client, adapter)


def test_a_serial_port_of_another_name_is_left_alone(guest, service):
    adapter = FtdiAdapter(guest, named=False)
    service.configure(VORBEL_SOURCE="serialport")
    adapter.plug()
    try:
        guest.run(f"udevadm settle; for i in $(seq 50); do [ -e {adapter.node} ] && break; sleep 0.1; done; sleep 2.5")
        assert guest.run(f"stat -c %G {adapter.node}").split() == ["dialout"]
        assert not any(line.startswith("Found") for line in service.log())
    finally:
        adapter.close()


def test_ftdi_adapter_one_megabaud_rts_up_and_dtr_up_a_fifth_of_a_second_later(ftdi, service):
    ftdi.plug()
    service.wait_for_log(FOUND)
    requests = wait_for_lines(ftdi)
    rates = [value for _, request, value in requests if request == FTDI_BAUD_RATE]
    assert rates[-1] == FTDI_ONE_MEGABAUD, rates
    lines = [(seconds, value) for seconds, request, value in requests if request == FTDI_MODEM_CONTROL]
    print(lines)
    (_, rts), (lowered, dtr_off), (raised, dtr_on) = lines[-3:]
    assert [rts, dtr_off, dtr_on] == [RTS_ON, DTR_OFF, DTR_ON]
    assert raised - lowered >= 0.2


def wait_for_lines(ftdi, limit=10):
    """The adapter's control requests once DTR has been lowered and raised."""
    deadline = time.monotonic() + limit
    while True:
        requests = ftdi.control_requests()
        if [value for _, _, value in requests[-2:]] == [DTR_OFF, DTR_ON]:
            return requests
        assert time.monotonic() < deadline, requests
        time.sleep(0.1)


def test_cdc_acm_adapter_one_megabaud_rts_up_and_dtr_up_later(gadget, service, guest):
    gadget.plug()
    service.wait_for_log(r'Found "VEK CAN Adapter" "ttyACM0"')
    guest.run("sleep 1")
    requests = gadget.class_requests()
    print(requests)
    codings = [value for request, value in requests if request == "20"]
    assert codings[-1] == "40420f00000008", "1,000,000 baud, one stop bit, no parity, eight data bits"
    assert [value for request, value in requests if request == "22"][-2:] == ["0002", "0003"]


# Records


async def test_64_kib_of_records_each_way_byte_exact(adapter, service):
    service.configure(debug=False, VORBEL_SOURCE="serialport")
    async with service.connect() as client:
        await client.send_schema(SCHEMA)
        adapter.plug()
        await link_up(client, adapter)

        payloads = [(number, number * 2654435761 % 2**32) for number in range(-(-BULK // vek.SIZE))]
        adapter.write(b"".join(vek.record(5, 2, struct.pack("<II", *payload)) for payload in payloads))
        assert await client.values(len(payloads), limit=90) == [{"low": low, "high": high} for low, high in payloads]

        blob = random.Random(1).randbytes(BULK)
        await client.send({"blob": blob})
        expected = records(7, 4, msgpack.packb({"blob": blob}))
        assert adapter.take(len(expected), limit=90) == expected


def records(mac, cmd, payload):
    """A payload in as many records as it takes. Behind a shorter last piece the one before it shows."""
    stream, data = b"", bytes(8)
    for at in range(0, len(payload), 8):
        piece = payload[at:at + 8]
        data = piece + data[len(piece):]
        stream += vek.record(mac, cmd, data, dlc=len(piece))
    return stream


# Pulling it out


async def test_pulled_and_plugged_in_again_five_times(adapter, service):
    async with service.connect() as client:
        await client.send_schema(SCHEMA)
        adapter.plug()
        await link_up(client, adapter)
        for pulls in range(1, 6):
            adapter.unplug()
            service.wait_for_log(CLOSED, count=pulls)
            adapter.plug()
            await link_up(client, adapter)
            await client.send({"low": pulls})
            expected = vek.record(5, 2, struct.pack("<I", pulls))
            assert adapter.take(len(expected)) == expected


async def test_pulled_and_plugged_in_again_between_two_looks_at_it(adapter, service):
    async with service.connect() as client:
        await client.send_schema(SCHEMA)
        adapter.plug()
        await link_up(client, adapter)
        adapter.unplug()
        adapter.plug()
        await link_up(client, adapter)
