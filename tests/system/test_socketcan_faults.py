"""A CAN bus that is there and in trouble: it takes nothing, it tells errors, it switches itself off."""

import asyncio
import re
import time

import pytest
from canbus import VIRTUAL, CanBus, LineController

LOST = r"Lost (\d+) of (\d+) frames.*"  # what the service logs of a message that can0 did not take as a whole
FRAMES = 60
SCHEMA = {"blob": {"@mac": 7, "@cmd": 4, "@format": "p", "@fragmentation": True},
          "speed": {"@mac": 5, "@cmd": 2, "@format": "s"},
          "error": {"sent": {"@mac": 0, "@cmd": 0, "@format": "C", "@skip": 6},
                    "received": {"@mac": 0, "@cmd": 0, "@format": "C", "@skip": 7}}}


def lost(service):
    return [tuple(map(int, match.groups())) for match in (re.fullmatch(LOST, line) for line in service.log()) if match]


@pytest.fixture
def controller(guest, service):
    """A controller whose bus takes nothing yet, with the service on it."""
    controller = LineController(guest)
    service.configure(VORBEL_SOURCE="socketcan")
    CanBus.wait_for_listener(controller)
    return controller


async def taken(controller, line, limit=20):
    deadline = time.monotonic() + limit
    while line not in controller.taken():
        assert time.monotonic() < deadline, controller.taken()
        await asyncio.sleep(0.1)


async def test_a_bus_that_takes_nothing_costs_what_does_not_fit_the_queue_and_one_line(controller, service):
    async with service.connect() as client:
        await client.send_schema(SCHEMA)
        await client.send({"blob": bytes(8 * FRAMES - 9)})  # nine more are the map around it
        service.wait_for_log(LOST)
        controller.tell("run")
        ((frames, of),) = lost(service)
        # The queue holds ten, and one or two are on their way from it.
        assert of == FRAMES and FRAMES - 12 <= frames < FRAMES - 10
        await speaks(controller, client)
    sent = [line for line in controller.taken() if line.startswith("t107")]
    assert len(sent) == of - frames


async def speaks(controller, client):
    """Checks that the link works both ways."""
    assert await client.value_of(lambda: controller.tell("t0852FEFF")) == {"speed": -2}
    await client.send({"speed": 3})
    await taken(controller, "t08520300")


async def test_what_is_written_while_can0_is_down_is_told(guest, service):
    bus = CanBus(guest, VIRTUAL, "can0")
    service.configure(VORBEL_SOURCE="socketcan")
    bus.wait_for_listener()
    async with service.connect() as client:
        await client.send_schema(SCHEMA)
        guest.run("ip link set can0 down")
        await client.send({"blob": bytes(16)})
        service.wait_for_log(LOST)
    assert lost(service) == [(3, 3)]


async def test_an_error_frame_is_a_frame_of_node_0_command_0_and_does_no_harm(controller, service):
    controller.tell("run")
    async with service.connect() as client:
        await client.send_schema(SCHEMA)
        controller.tell("sw096110")  # state "warning", 96 errors received, 110 sent
        assert await client.value() == {"error": {"sent": 110, "received": 96}}
        await speaks(controller, client)
    assert service.count("Close SocketCan") == 0


async def test_after_bus_off_and_a_restart_it_speaks_again(controller, service, guest):
    """Taken up again by hand: this driver has no restart of its own. What is sent in between the kernel drops without
    an error, so that there is nothing that the service could tell."""
    controller.tell("run")
    async with service.connect() as client:
        await client.send_schema(SCHEMA)
        controller.tell("sb255255")
        await client.value()
        assert "state BUS-OFF" in guest.run("ip -details link show can0")
        await client.send({"speed": 1})
        await client.round_trip()
        guest.run("ip link set can0 down; ip link set can0 up")
        await speaks(controller, client)
    assert "t08520100" not in controller.taken()
