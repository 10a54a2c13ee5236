"""A board that starts with the package installed. The other tests go on with the machine as it is then."""

import pytest
from adapters import FtdiAdapter
from seriallink import FOUND, HELLO, SCHEMA, link_up
from service import Service

RULE = "/etc/udev/rules.d/61-test.rules"


@pytest.fixture
def board(guest, service):
    """A function that starts the machine again with these devices, and returns the service that came up with it."""
    (guest.share / "rule").write_text(FtdiAdapter.RULE)
    guest.run(f"cp /host/rule {RULE}")
    service.configure(VORBEL_SOURCE="serialport")

    def start(*devices):
        guest.start_again(*devices)
        started = Service(guest)
        started.wait_listening()
        started.invocation = started.property("InvocationID")
        return started

    yield start
    guest.run(f"rm {RULE}; udevadm control --reload")


async def talks(guest, service, adapter):
    async with service.connect() as client:
        await client.send_schema(SCHEMA)
        await link_up(client, adapter)
    assert service.property("NRestarts") == "0"


async def test_with_the_adapter_plugged_in(board, guest):
    service = board("-device", "usb-serial,id=adapter1,chardev=adapter,bus=xhci.0,always-plugged=on")
    service.wait_for_log(FOUND)
    adapter = FtdiAdapter(guest, plugged=True)
    await talks(guest, service, adapter)
    adapter.close()


async def test_without_an_adapter_which_comes_later(board, guest):
    service = board()
    service.wait_for_log(HELLO, count=2)
    assert service.count(FOUND) == 0
    adapter = FtdiAdapter(guest)
    adapter.plug()
    await talks(guest, service, adapter)
    adapter.close()
