"""The serial line at its full rate, with several clients."""

import asyncio
import struct
import time

from rawclient import RawClient
from seriallink import SCHEMA, link_up
from vorbelsim import vek

RATE = 9090  # records a second: 1,000,000 baud, ten bits a byte, eleven bytes a record
RECORDS = 20 * RATE
CLIENTS = 3
SLOWEST = 3  # times as long as the line; a daemon that keeps up needs 1.0 on an idle host
FIRST = 1 << 20  # numbers that all take five bytes as MessagePack


def message(number):
    return b"\x81\xa3low\xce" + number.to_bytes(4, "big")


def send_at_line_rate(adapter, records):
    """As the adapter would: what has become due since the last look, a hundred times a second."""
    began = time.monotonic()
    sent = 0
    while sent < len(records):
        due = min(len(records), int((time.monotonic() - began) * RATE))
        adapter.write(b"".join(records[sent:due]))
        sent = due
        time.sleep(0.01)


def wait_for_end(clients, end, limit):
    deadline = time.monotonic() + limit
    while not all(client.data.endswith(end) for client in clients) and time.monotonic() < deadline:
        time.sleep(0.05)


async def test_three_clients_get_all_records_of_a_full_line_in_order(ftdi, service):
    service.configure(debug=False, VORBEL_SOURCE="serialport")
    numbers = range(FIRST, FIRST + RECORDS)
    expected = [message(number) for number in numbers]
    records = [vek.record(5, 2, struct.pack("<I", number)) for number in numbers]
    async with service.connect() as client:
        ftdi.plug()
        await client.send_schema({"alive": SCHEMA["alive"], "low": SCHEMA["low"]})
        await link_up(client, ftdi)
        clients = [RawClient(service.guest.port) for _ in range(CLIENTS)]
        await client.round_trip()
    # The client that set the link up is gone: its own reading would be the slowest part.
    began = time.monotonic()
    await asyncio.to_thread(send_at_line_rate, ftdi, records)
    await asyncio.to_thread(wait_for_end, clients, expected[-1], SLOWEST * RECORDS / RATE)
    took = time.monotonic() - began
    for client in clients:
        with client:
            assert [value for value in client.values() if value.startswith(b"\x81\xa3low")] == expected
    print(f"{RECORDS} records to {CLIENTS} clients: {RECORDS / took:.0f} a second")
    assert took <= SLOWEST * RECORDS / RATE
