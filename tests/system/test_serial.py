"""The serial link on the kernel's own drivers: QEMU's USB serial adapter and the kernel's CDC-ACM gadget."""

import random
import struct
import time

import msgpack
from adapters import FtdiAdapter, delivered_records
from seriallink import FOUND, SCHEMA, link_up
from vorbelsim import vek

BULK = 64 * 1024

FTDI_MODEM_CONTROL, FTDI_BAUD_RATE = 1, 3
FTDI_ONE_MEGABAUD = 3  # the divisor of the chip's 3 MHz
RTS_ON, DTR_OFF, DTR_ON = 0x0202, 0x0100, 0x0101

GATE = 0.2  # seconds that DTR stays low
LATE = 0.6  # seconds that a busy host may keep the guest from raising it


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
    assert GATE <= raised - lowered <= GATE + LATE


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
    codings = [value for _, request, value in requests if request == "20"]
    assert codings[-1] == "40420f00000008", "1,000,000 baud, one stop bit, no parity, eight data bits"
    (lowered, rts), (raised, rts_and_dtr) = [(at, value) for at, request, value in requests if request == "22"][-2:]
    assert [rts, rts_and_dtr] == ["0002", "0003"]
    assert GATE <= raised - lowered <= GATE + LATE


async def test_what_arrives_before_dtr_is_raised_is_dropped_and_all_that_comes_later_is_not(ftdi, service):
    async with service.connect() as client:
        await client.send_schema({"low": SCHEMA["low"]})
        ftdi.stream(True)
        ftdi.plug()
        values = await client.values(20)
        ftdi.stream(False)
        last = delivered_records(ftdi.capture)[-1][1]
        while values[-1] != {"low": last}:
            values.append(await client.value())
    lines = [(at, value) for at, request, value in ftdi.control_requests() if request == FTDI_MODEM_CONTROL]
    raised, value = lines[-1]
    assert value == DTR_ON
    delivered = delivered_records(ftdi.capture)
    # What the driver gets in the last moment the service may read when the gate is open already.
    before = [number for at, number in delivered if at < raised - GATE / 2]
    after = [number for at, number in delivered if at > raised]
    numbers = [value["low"] for value in values]
    print(f"{len(before)} records before DTR was raised, values from number {numbers[0]} on")
    assert before and before[-1] < numbers[0] <= after[0]
    assert numbers == list(range(numbers[0], last + 1))


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
