"""A clock that is set, by years and back, while everything works: of the programs' own times none is the clock's."""

import asyncio
import contextlib
import re
import shutil
import time

import pytest
from canbus import VIRTUAL, CanBus
from counting import (BASE, GATEWAY, RECORD_ORDERS, SCHEMA, SCHEMA_FILE, batches, boots, heard, order, orders,
                      published, put, start_counting)
from gatewayharness import Listener, Mosquitto
from guest import BROKER
from harness import wait_until
from invariants import unknown_lines
from rawclient import RawClient
from test_history import DATABASE, TAKEN

RATE = 50  # numbers a second on the bus
PER_SECOND = 5  # orders on each way
PATIENCE = 60
SECONDS = 5  # that each time on the clock is worked in
DAY = 24 * 3600
YEAR = 365 * DAY
TO_BROKER = 2000  # orders by way of the broker begin here, those of the daemon's client at 1
UNITS = ("vorbel", "vorbel-gateway", "vorbel-history")
SETTINGS = {SCHEMA_FILE: SCHEMA, "/etc/vorbel/gateway.ini": GATEWAY,
            "/etc/vorbel/history.ini": f"[broker]\nurl = mqtt://{BROKER}\n", "/run/database.py": DATABASE}
# All that is to be told of a clock that is set, and of what the test itself does.
EXPECTED = [
    r"daemon: connected to 127\.0\.0\.1",
    r"broker: connected to .*",
    r"schema: /etc/vorbel/schema\.json",
    r'done \{"user":"operator","path":"order",.*"ok":true,"error":null\}',
    r'done \{"user":"operator","path":"order",.*"ok":false,"error":"Not written: no answer in time"\}',
]


@pytest.fixture(scope="module")
def plant(guest, service, packages, tmp_path_factory):
    """Daemon, gateway and history at work, with clients of the daemon and of the broker."""
    plant = Plant(guest, service, packages, tmp_path_factory.mktemp("plant"))
    try:
        plant.begin()
        yield plant
    finally:
        plant.end()


class Plant:
    def __init__(self, guest, service, packages, folder):
        self.guest, self.service, self.packages = guest, service, packages
        self.broker = Mosquitto(folder, "allow_anonymous true", f"listener {guest.broker_port} 127.0.0.1",
                                persistence=True)
        self.listener = self.client = None
        self.written = 0

    def begin(self):
        self.broker.start()
        self.listener = Listener(self.broker.port, name="listener", base=BASE)
        for name, architecture in (("vorbel-gateway", "arm64"), ("python3-vorbel", "all"), ("vorbel-history", "all")):
            (package,) = self.packages.glob(f"{name}_*_{architecture}.deb")
            shutil.copy(package, self.guest.share / f"{name}.deb")
        CanBus(self.guest, VIRTUAL, "can0")
        self.service.configure(debug=False, VORBEL_SOURCE="socketcan")
        put(self.guest, SETTINGS)
        self.guest.run(f"""
            {RECORD_ORDERS} & echo $! >/run/record.pid
            rm -f {TAKEN}
            systemd-run --quiet --unit=database -p StandardError=null python3 /run/database.py
            cd /host
            dpkg -i --force-confold vorbel-gateway.deb python3-vorbel.deb vorbel-history.deb
        """, limit=240)
        wait_until(lambda: boots(self.listener), PATIENCE, "the gateway")
        self.guest.run("until journalctl -u vorbel-history | grep -q 'broker: connected'; do sleep 0.2; done", limit=90)
        self.client = RawClient(self.guest.port)
        self.statuses = self.listener.of("status")
        start_counting(self.guest, 1, RATE)

    def end(self):
        self.guest.attempt(f"""
            date -s @{time.time():.3f}
            kill $(cat /run/count.pid) $(cat /run/record.pid)
            systemctl stop database
            dpkg --purge vorbel-gateway vorbel-history python3-vorbel
            rm -rf /etc/vorbel
            ip link del can0
        """, limit=240)
        if self.listener:
            self.listener.close()
        self.broker.stop()

    def set_clock(self, ahead):
        """So many seconds ahead of the right time, or behind it."""
        self.guest.run(f"date -s @{time.time() + ahead:.3f}")

    def now(self):
        """In milliseconds, by the guest."""
        return int(self.guest.run("date +%s%3N"))

    def processor_time(self):
        """What the programs have used so far, in seconds."""
        ticks = self.guest.run("for unit in " + " ".join(UNITS) + "; do cut -d' ' -f14,15 "
                               "/proc/$(systemctl show --value -P MainPID $unit)/stat; done").split()
        return sum(map(int, ticks)) / 100

    def kept(self):
        """The numbers that the database was given, of those of one millisecond the last."""
        return list(map(int, re.findall(r"^vorbel,board=board,path=count value=(\d+) \d+$",
                                        self.guest.run(f"cat {TAKEN}"), re.MULTILINE)))

    def to_keep(self):
        """The numbers that it is to be given of what the broker has passed on."""
        last = {batch["t"] + offset: values["count"]
                for batch in batches(self.listener) for offset, values in batch["v"]}
        return set(last.values())

    async def write(self, client, seconds):
        """Orders on both ways."""
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            self.written += 1
            await client.send({"order": self.written})
            order(self.listener, TO_BROKER + self.written)
            await asyncio.sleep(1 / PER_SECOND)
        await client.round_trip()

    def all_is_there(self):
        """Checks that each number that was heard by now is known to everybody, once, and each order to the bus."""
        numbers = heard(self.client)
        assert numbers == list(range(numbers[0], numbers[-1] + 1))

        wait_until(lambda: numbers[-1] in published(self.listener), PATIENCE, f"{numbers[-1]} at the broker")
        assert published(self.listener)[:len(numbers)] == numbers
        expected = self.to_keep()
        wait_until(lambda: expected <= set(self.kept()), PATIENCE, f"all up to {max(expected)} in the database")
        kept = self.kept()
        assert len(kept) == len(set(kept))
        self._orders_are_done()

    def _orders_are_done(self):
        """The client's all, and those by way of the broker that are told to be: a machine that is too slow refuses, now
        or never. None comes twice, or behind a later one."""
        def told():
            return {done.json["value"]: done.json["ok"] for done in self.listener.of("done")}

        sent = range(TO_BROKER + 1, TO_BROKER + self.written + 1)
        wait_until(lambda: set(sent) <= told().keys(), PATIENCE, "what became of each order")
        written = orders(self.guest)
        assert [number for number in written if number < TO_BROKER] == list(range(1, self.written + 1))
        by_broker = [number for number in written if number > TO_BROKER]
        assert by_broker == sorted(set(by_broker)) and set(by_broker) <= set(sent)
        done = {number for number in sent if told()[number]}
        assert done <= set(by_broker) and max(done) > sent[-1] - SECONDS * PER_SECOND

    def no_one_has_left(self):
        """Checks that nothing was lost and made again, and that nobody complains."""
        assert self.listener.of("status") == self.statuses
        for unit in UNITS:
            assert self.guest.run(f"systemctl show --value -P NRestarts {unit}").strip() == "0"
        log = self.guest.run("journalctl --no-pager -o cat _COMM=vorbel-gateway "
                             "_SYSTEMD_INVOCATION_ID=$(systemctl show --value -P InvocationID vorbel-gateway)")
        assert unknown_lines(log.splitlines(), EXPECTED) == []


@contextlib.asynccontextmanager
async def writer(plant):
    """A client that hears what comes and does nothing with it."""
    async def hear():
        async for _ in client.socket:
            pass

    async with plant.service.connect() as client:
        hearing = asyncio.create_task(hear())
        yield client
        hearing.cancel()


async def test_set_by_years_and_back_it_costs_nothing(plant):
    async with writer(plant) as client:
        before = plant.processor_time()
        await plant.write(client, SECONDS)
        usual = plant.processor_time() - before
        for ahead in (5 * YEAR, 0, -DAY, 0):
            plant.set_clock(ahead)
            before = plant.processor_time()
            await plant.write(client, SECONDS)
            used = plant.processor_time() - before
            print(f"{ahead} s ahead: {used:.2f} s of processor time, and {usual:.2f} s before")
            assert used < 1.5 * usual + 0.5, "nothing turns in circles"
            assert heard(plant.client)[-1] > heard(plant.client)[0]
            plant.all_is_there()
            plant.no_one_has_left()


async def test_orders_count_by_the_clock_as_it_is(plant):
    """What says when it was meant is older than its limit, or ahead of it, when somebody's clock is wrong."""
    plant.set_clock(-DAY)
    plant.listener.publish("set/operator/order", {"value": 7077, "time": int(time.time() * 1000)})
    refused = plant.listener.wait("done", lambda message: message.json["value"] == 7077).json
    assert (refused["ok"], refused["error"]) == (False, "meant for more than 10 s from now")
    plant.listener.publish("set/operator/order", {"value": 7078, "time": plant.now()})
    assert plant.listener.wait("done", lambda message: message.json["value"] == 7078).json["ok"]
    plant.set_clock(0)
    wait_until(lambda: 7078 in orders(plant.guest), PATIENCE, "the order that was meant now")
    assert 7077 not in orders(plant.guest)


async def works_again(plant, since):
    """Checks that what is counted and ordered from now on arrives everywhere."""
    number = 5000 + since

    def is_obeyed():
        order(plant.listener, number)
        time.sleep(1)
        return number in orders(plant.guest)

    wait_until(is_obeyed, PATIENCE, "an order on the bus")
    with RawClient(plant.guest.port) as client:
        wait_until(lambda: heard(client), PATIENCE, "a value at a client")
        last = heard(client)[-1]
    wait_until(lambda: last in published(plant.listener) and max(plant.kept()) >= last, PATIENCE,
               f"{last} at the broker and in the database")


async def test_what_is_away_when_it_is_set_back_is_found_again(plant):
    """Who waits to try again waits by no clock that can be set."""
    plant.broker.stop()
    plant.guest.run("ip link set can0 down")
    time.sleep(2)
    plant.set_clock(-DAY)
    plant.guest.run("ip link set can0 up")
    plant.broker.start()
    await works_again(plant, 1)
    plant.guest.run("systemctl kill -s KILL vorbel")
    plant.set_clock(-2 * DAY)
    await works_again(plant, 2)
    plant.set_clock(0)
    await works_again(plant, 3)


async def test_refusals_are_told_again_after_it_was_set_back(plant):
    """At most ten a second are told one by one, then how many there were more."""
    def refusals():
        return [message.json for message in plant.listener.of("done") if not message.json["ok"]]

    plant.listener.forget()
    for _ in range(30):
        plant.listener.publish_soon("set/operator/count", "1")
    wait_until(lambda: len(refusals()) >= 10, PATIENCE, "ten refusals")
    plant.set_clock(-DAY)
    wait_until(lambda: any("more refusals" in told["error"] for told in refusals()), PATIENCE, "the rest of them")
    time.sleep(1.5)
    plant.listener.forget()
    plant.listener.publish("set/operator/count", 2)
    assert plant.listener.wait("done").json["value"] == 2
    plant.set_clock(0)
