"""No memory is left: the gateway ends as a whole, and the next one goes on, instead of publishing half of something."""

import resource
import signal

import pytest

from gatewayharness import PATIENCE, numbers
from harness import wait_until
from vorbelsim import CanFrame

pytestmark = pytest.mark.plain_build_only  # a sanitizer takes an address space that no limit fits

WIDE_LEAVES = 500  # of one frame: a message of some 10 kB, so that a batch has to be asked of the kernel
WIDE = CanFrame.vek(7, 1, bytes(4))
SLOWLY = {"values": {"interval_ms": 2000}}


@pytest.fixture
def plant(make_plant):
    return make_plant(schema={"wide": {f"leaf {at:03}": {"@mac": 7, "@cmd": 1, "@format": "I"}
                                       for at in range(WIDE_LEAVES)}})


def take_memory_away(process):
    """What it has taken, it keeps."""
    with open(f"/proc/{process.pid}/statm") as statm:
        taken = int(statm.read().split()[0]) * resource.getpagesize()
    resource.prlimit(process.pid, resource.RLIMIT_AS, (taken, taken))


def test_it_ends_and_the_next_one_goes_on(plant):
    gateway = plant.start(**SLOWLY)
    plant.say(WIDE)
    plant.listener.wait("values")
    told = len(gateway.lines())
    take_memory_away(gateway.process)

    def is_over():
        plant.say(WIDE)
        return gateway.process.poll() is not None

    wait_until(is_over, PATIENCE, "the gateway to end")
    assert gateway.process.returncode == -signal.SIGABRT
    assert gateway.lines()[told:] == [
        "terminate called after throwing an instance of 'std::bad_alloc'", "  what():  std::bad_alloc"]
    plant.gateway = None
    plant.start(**SLOWLY)
    plant.say(WIDE)
    wait_until(lambda: len(numbers(plant.listener)) == 2, PATIENCE, "a batch of the next gateway")
    assert all(message.json["v"] for message in plant.listener.of("values"))
