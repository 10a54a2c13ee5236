"""Clients outside of the machine, with WebSocket and MessagePack libraries of another language."""

import re
import struct

import msgpack
import pytest
from canbus import VIRTUAL, CanBus
from vorbelsim.canframe import CanFrame

SCHEMA = {"motor": {"speed": {"@mac": 5, "@cmd": 2, "@format": "s", "@factor": 10},
                    "enabled": {"@mac": 5, "@cmd": 2, "@format": "C", "@skip": 2, "@asBool": True},
                    "setpoint": {"@mac": 5, "@cmd": 3, "@format": "s"}},
          "cells": {"@mac": 9, "@cmd": 1, "@format": "S", "@flushSize": 3}}


@pytest.fixture(scope="module")
def bus(guest, service):
    bus = CanBus(guest, VIRTUAL, "can0")
    service.configure(VORBEL_SOURCE="socketcan", VORBEL_DEVICE_TYPE="gateway", VORBEL_DEVICE_ID='" A7 "')
    bus.wait_for_listener()
    return bus


async def test_the_hello_tells_the_device_and_goes_to_all(bus, service):
    hello = '{"hello":{"id":"A7","type":"gateway"}}'
    async with service.connect() as first:
        assert await first.hello() == hello
        async with service.connect() as second:
            assert await second.hello() == hello
            assert await first.hello() == hello
    service.wait_for_log("Connection closed .*", count=2)


async def test_one_clients_schema_holds_for_all(bus, service):
    async with service.connect() as author, service.connect() as other:
        await author.send_schema(SCHEMA)
        bus.send("085#D8050100")
        expected = {"motor": {"speed": pytest.approx(149.6, rel=1e-6), "enabled": True}}
        assert await author.value() == expected
        assert await other.value() == expected
    service.wait_for_log(r'Received schema: QJsonDocument\({"cells":.*')


async def test_readings_gathered_in_an_array_arrive_as_an_extension(bus, service):
    async with service.connect() as client:
        await client.send_schema(SCHEMA)
        bus.send("049#0100", "049#0201", "049#FFFF")
        assert await client.value() == {"cells": msgpack.ExtType(20, struct.pack("<3H", 1, 0x0102, 0xFFFF))}


async def test_what_a_client_writes_goes_out_on_the_bus(bus, service):
    async with service.connect() as client:
        await client.send_schema(SCHEMA)
        with bus.record(1) as recording:
            await client.send({"motor": {"setpoint": 1200, "enabled": True}, "nonsense": 1})
    assert [frame for _, frame in recording.frames] == [CanFrame.vek(5, 3, b"\xb0\x04")]
    service.wait_for_log('Key: "nonsense" does not exist in the schema')
    service.wait_for_log(re.escape('Attribute "enabled" is readonly (because it is configured with one of the options: '
                                   "@asBool, @mask) and cannot be written to."))
