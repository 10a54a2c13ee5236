"""Nothing lost: what becomes of values when brokers, networks, disks and the gateway itself fail."""

import pathlib
import shutil
import time

import pytest

from gatewayharness import (PATIENCE, SCHEMA, Mosquitto, Relay, Sender, assert_nothing_missing, limit_file_size,
                            numbers, speeds, without_repeats)
from harness import wait_until
from vorbelsim import CanFrame

OFTEN = {"values": {"interval_ms": 100}}
EACH_MESSAGE = {"values": {"interval_ms": 0}}
WIDE_LEAVES = 500  # of one frame, so that a message has some 10 kB
LONG = 120  # seconds for what takes many retries


@pytest.fixture
def plant(make_plant, tmp_path):
    """With a broker that keeps what it has acknowledged, and a listener that misses nothing while that is away."""
    wide = {f"leaf {at:03}": {"@mac": 7, "@cmd": 1, "@format": "I"} for at in range(WIDE_LEAVES)}
    plant = make_plant(broker=Mosquitto(tmp_path, persistence=True).start(), schema={**SCHEMA, "wide": wide})
    plant.listen(name="listener")
    wait_until(plant.broker.saved.exists, PATIENCE, "the broker to have saved who listens")
    return plant


def start_through(plant, relay, **sections):
    """Starts the gateway with its broker behind a network that may fail."""
    return plant.start(broker={"url": f"mqtt://127.0.0.1:{relay.port}"}, **sections)


@pytest.fixture
def relay(plant):
    relay = Relay(plant.broker.port)
    yield relay
    relay.close()


def all_arrive(plant, said):
    """Everything that was said arrives, in order, and n has no gap."""
    wait_until(lambda: len(set(speeds(plant.listener))) >= said, LONG, f"{said} speeds")
    assert without_repeats(speeds(plant.listener)) == list(range(said))
    assert_nothing_missing(plant.listener)
    assert lost(plant) == 0


def lost(plant):
    """What the last status says that does say it."""
    return [message.json["lost"] for message in plant.listener.of("status") if message.json["online"]][-1]


def come_back(plant):
    plant.broker.start()
    plant.listener.wait_subscribed()


def go_away(plant, kill=False):
    plant.listener.expect_new_connection()
    (plant.broker.kill if kill else plant.broker.stop)()


# Brokers


def test_a_broker_that_is_away_for_a_while(plant):
    plant.start(**OFTEN)
    with Sender(plant) as sender:
        sender.wait(25)
        go_away(plant)
        sender.wait(250)
        come_back(plant)
        sender.wait(50)
    all_arrive(plant, sender.said)


def test_a_broker_that_is_not_there_at_first(plant):
    go_away(plant)
    plant.start(wait=False, **OFTEN)
    wait_until(lambda: plant.bus.connected, PATIENCE, "the bus")
    time.sleep(2)  # for the gateway to have the daemon
    with Sender(plant) as sender:
        sender.wait(100)
    come_back(plant)
    plant.wait_online()
    all_arrive(plant, sender.said)


def test_a_broker_that_is_killed_again_and_again(plant):
    plant.start(**OFTEN)
    with Sender(plant) as sender:
        for _ in range(4):
            sender.wait(50)
            go_away(plant, kill=True)
            sender.wait(50)
            come_back(plant)
        sender.wait(50)
    all_arrive(plant, sender.said)


def test_a_broker_that_is_held(plant):
    plant.start(**OFTEN)
    with Sender(plant) as sender:
        sender.wait(25)
        plant.broker.pause()
        sender.wait(500)  # longer than the connection lives
        plant.broker.resume()
        sender.wait(50)
    all_arrive(plant, sender.said)


# Networks


@pytest.mark.parametrize("directions", [("up", "down"), ("up",), ("down",)], ids=["both", "to it", "from it"])
@pytest.mark.parametrize("messages", [100, 600], ids=["short", "long"])
def test_a_network_that_stalls(plant, relay, directions, messages):
    start_through(plant, relay, **OFTEN)
    with Sender(plant) as sender:
        sender.wait(25)
        relay.stall(*directions)
        sender.wait(messages)
        relay.carry()
        sender.wait(50)
    all_arrive(plant, sender.said)


def test_a_network_that_breaks_again_and_again(plant, relay):
    start_through(plant, relay, **OFTEN)
    with Sender(plant) as sender:
        for _ in range(5):
            sender.wait(40)
            relay.cut()
        relay.shut()
        sender.wait(100)
        relay.open()
        sender.wait(50)
    all_arrive(plant, sender.said)


# The gateway


def test_a_gateway_that_is_killed_while_the_broker_is_away(plant):
    plant.start(**OFTEN)
    with Sender(plant) as sender:
        sender.wait(25)
        go_away(plant)
        sender.wait(100)
    time.sleep(3)  # for what was said to have become safe
    plant.gateway.kill()
    come_back(plant)
    plant.start(**OFTEN)
    all_arrive(plant, sender.said)
    boots = list(numbers(plant.listener))
    assert len(boots) == 1


def test_a_gateway_that_is_killed_twice_while_the_broker_is_away(plant):
    plant.start(**OFTEN)
    go_away(plant)
    for first in (0, 50):
        plant.say_speeds(*range(first, first + 50))
        time.sleep(3)
        plant.gateway.kill()
        plant.start(wait=False, **OFTEN)
        time.sleep(3)
    plant.say_speeds(*range(100, 150))
    come_back(plant)
    plant.wait_online()
    all_arrive(plant, 150)
    boots = list(numbers(plant.listener))
    assert len(boots) == 3 and boots == sorted(boots)


def test_a_gateway_that_is_killed_while_values_come(plant):
    plant.start(**OFTEN)
    with Sender(plant, rate=200) as sender:
        for _ in range(3):
            sender.wait(200)
            plant.gateway.kill()
            plant.start(**OFTEN)
        sender.wait(100)
    plant.wait_speed(sender.said - 1)
    assert_nothing_missing(plant.listener)
    assert len(numbers(plant.listener)) == 4 and lost(plant) == 0
    arrived = without_repeats(speeds(plant.listener))
    assert arrived == sorted(arrived)


def test_a_gateway_that_is_stopped_while_the_broker_is_away(plant):
    plant.start(**OFTEN)
    go_away(plant)
    plant.say_speeds(*range(100))
    wait_until(lambda: is_spooled(plant, b'"speed":99}'), PATIENCE, "the spool")
    plant.stop_gateway()
    come_back(plant)
    plant.start(**OFTEN)
    all_arrive(plant, 100)


def test_a_daemon_that_is_restarted_costs_no_number(plant):
    plant.start(**OFTEN)
    plant.say_speeds(0, 1)
    plant.wait_speed(1)
    plant.stop_daemon()
    plant.listener.wait_last("status", b'{"online":false}')
    plant.start_daemon()
    plant.wait_heard(2)
    plant.say_speeds(3)
    all_arrive(plant, 4)


# The spool


def files(folder):
    return [path for path in folder.rglob("*") if path.is_file()]


def is_spooled(plant, text):
    """Whether a text stands in the spool; its files come and go."""
    for path in files(plant.gateway.state.parent):
        try:
            if path.parent.name == "spool" and text in path.read_bytes():
                return True
        except FileNotFoundError:
            pass
    return False


def size(folder):
    return sum(path.stat().st_size for path in files(folder))


def say_wide(plant, count):
    """So many messages of some 10 kB each, each with a number of its own."""
    for number in range(count):
        plant.say(CanFrame.vek(7, 1, (3_000_000_000 + number).to_bytes(4, "little")))
        if number % 20 == 0:
            time.sleep(0.1)


def outage_with(plant, count):
    """So many wide messages while the broker is away."""
    plant.say_speeds(1)
    plant.wait_speed(1)
    go_away(plant)
    say_wide(plant, count)
    plant.say_speeds(2)
    time.sleep(3)
    wait_until(plant.gateway.alive, 1)


def told_and_missing(plant):
    """How many batches are missing, all in one place, when everything has come, and that this is what is told."""
    plant.say_speeds(3)
    wait_until(lambda: 3 in speeds(plant.listener), LONG, "the last speed")
    (arrived,) = numbers(plant.listener).values()
    missing = sorted(set(range(max(arrived) + 1)) - set(arrived))
    wait_until(lambda: lost(plant) == len(missing), PATIENCE, f"{len(missing)} lost to be told; {lost(plant)} are")
    assert without_repeats(arrived) == sorted(set(arrived))
    return missing


def test_beyond_its_bound_the_oldest_go_and_are_counted(plant):
    plant.start(**EACH_MESSAGE, spool={"megabytes": 1})
    outage_with(plant, 300)
    assert size(plant.gateway.state) < 1.5e6
    come_back(plant)
    missing = told_and_missing(plant)
    assert missing and missing == list(range(missing[0], missing[-1] + 1))
    assert 2 in speeds(plant.listener)
    kept = sum(len(message.payload) for message in plant.listener.of("values"))
    assert 500_000 < kept < 1_500_000
    plant.stop_gateway()
    plant.listener.forget()
    plant.start(**EACH_MESSAGE, spool={"megabytes": 1})
    assert lost(plant) == len(missing)


def test_within_its_bound_nothing_goes(plant):
    plant.start(**EACH_MESSAGE, spool={"megabytes": 10})
    outage_with(plant, 300)
    come_back(plant)
    assert told_and_missing(plant) == []
    wait_until(lambda: size(plant.gateway.state) < 100_000, PATIENCE, "the spool to be empty")


def with_folder_of_its_own(plant, name, megabytes):
    """Options of a gateway one of whose folders is a file system in memory, of so many MB."""
    return {"wrapper": ["unshare", "--mount", "sh", "-c",
                        f'mount -t tmpfs -o size={megabytes}m none "$0" && exec "$@"', plant.folder / "gateway" / name]}


def on_small_disk(plant, megabytes):
    """Options of a gateway whose state is on a disk that small."""
    return with_folder_of_its_own(plant, "state", megabytes)


def test_a_disk_that_is_too_small_for_the_spool(plant):
    plant.start(**EACH_MESSAGE, options=on_small_disk(plant, 1))
    outage_with(plant, 300)
    come_back(plant)
    assert told_and_missing(plant) == []  # what the disk does not take stays in memory
    kept = sum(len(message.payload) for message in plant.listener.of("values"))
    assert kept > 300_000


def test_a_disk_that_others_have_filled(plant):
    plant.start(**EACH_MESSAGE, options=on_small_disk(plant, 4))
    seen = pathlib.Path(f"/proc/{plant.gateway.pid}/root{plant.gateway.state}")
    fill(seen)
    outage_with(plant, 300)
    come_back(plant)
    missing = told_and_missing(plant)
    (seen / "filler").unlink()
    plant.listener.forget()
    go_away(plant)
    plant.say_speeds(*range(10, 20))
    time.sleep(2)
    come_back(plant)
    plant.wait_speed(19)
    arrived = without_repeats(speeds(plant.listener))  # what is acknowledged as the broker goes may come again
    assert [speed for speed in arrived if speed >= 10] == list(range(10, 20))
    plant.say_speeds(20)
    plant.wait_speed(20)
    assert lost(plant) == len(missing)


def fill(folder):
    """Writes until nothing more fits."""
    with open(folder / "filler", "wb", buffering=0) as filler:
        while shutil.disk_usage(folder).free:
            filler.write(bytes(min(4096, shutil.disk_usage(folder).free)))


def test_a_disk_on_which_files_may_not_grow(plant):
    plant.start(**EACH_MESSAGE, options={"before": limit_file_size(200_000)})
    outage_with(plant, 100)
    come_back(plant)
    told_and_missing(plant)


@pytest.mark.parametrize("is_renewed", [True, False])
def test_no_file_may_be_written_while_the_network_is_silent(plant, relay, is_renewed):
    """Not even in memory's folder. The connection that is made anew has what the one before had kept."""
    start_through(plant, relay, **OFTEN, options={"before": limit_file_size(100)})
    with Sender(plant) as sender:
        sender.wait(25)
        relay.stall()
        sender.wait(50)
        if is_renewed:
            relay.cut()
        relay.carry()
        sender.wait(25)
    all_arrive(plant, sender.said)


def written(pid):
    """Bytes that the process has caused to be written to disks, as the kernel counts them."""
    text = pathlib.Path(f"/proc/{pid}/io").read_text()
    return int(next(line.split()[1] for line in text.splitlines() if line.startswith("write_bytes")))


def test_what_is_acknowledged_in_time_costs_the_disk_little(plant):
    plant.start(**EACH_MESSAGE, options=with_folder_of_its_own(plant, "run", 64))
    plant.say_speeds(0)
    plant.wait_speed(0)
    before = written(plant.gateway.pid)
    for number in range(1, 200):
        plant.say_speeds(number)
        time.sleep(0.01)
    plant.wait_speed(199)
    assert written(plant.gateway.pid) - before < 199 * 20e6 / 3600


def test_the_spool_is_no_file_for_each_reading(plant):
    plant.start(values={"interval_ms": 1000})
    go_away(plant)
    before = len(files(plant.gateway.state))
    with Sender(plant, rate=200) as sender:
        sender.wait(1000)
    assert len(files(plant.gateway.state)) - before < 50
    come_back(plant)
    all_arrive(plant, sender.said)
