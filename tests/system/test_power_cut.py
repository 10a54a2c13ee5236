"""A board that loses its power: the machine ends in the middle of whatever it does, and boots from the disk as that is
then. Its root is made anew at each boot; what lasts is on a disk with ext4: the gateway's state and the journal."""

import json
import os
import random
import shutil
import subprocess
import time

import pytest
from counting import (BASE, BATCH, GATEWAY, RECORD_ORDERS, SCHEMA, SCHEMA_FILE, boots, heard, order, orders, published,
                      put, start_counting, stop_counting)
from gatewayharness import Listener, Mosquitto
from guest import Guest
from harness import wait_until
from invariants import unknown_lines
from rawclient import RawClient
from service import Service

RATE = 200  # numbers a second on the bus
EPOCH = 1_000_000  # the numbers of the first life begin here, those of the second at twice that
PATIENCE = 60
# Of what the broker has not acknowledged, the last four seconds may be gone, and the batch that had begun. The rest is
# what an emulated processor may be late.
KEPT_AFTER = 4 + BATCH + 1.3

FILES = {
    "/etc/default/vorbel": "VORBEL_SOURCE=socketcan\n",
    SCHEMA_FILE: SCHEMA,
    "/etc/vorbel/gateway.ini": GATEWAY,
    "/etc/systemd/system/bus.service": f"""
[Unit]
Description=can0, and a record of the orders that reach it
Before=vorbel.service
[Service]
ExecStartPre=/bin/sh -c 'modprobe -a can_raw vcan; ip link add can0 type vcan; ip link set can0 up'
ExecStart=/bin/sh -c 'exec {RECORD_ORDERS}'
[Install]
WantedBy=multi-user.target
""",
    "/etc/modprobe.d/bus.conf": "blacklist kvaser_pci\n",
    "/etc/fstab": """
/dev/vda /disk ext4 noatime 0 0
/disk/gateway /var/lib/vorbel-gateway none bind 0 0
/disk/journal /var/log/journal none bind 0 0
""",
}
SPOOL = "/var/lib/vorbel-gateway/spool"
GATEWAY_LOG = ("journalctl --no-pager -o cat _COMM=vorbel-gateway "
               "_SYSTEMD_INVOCATION_ID=$(systemctl show --value -P InvocationID vorbel-gateway)")
# All that the gateway may say in a life that begins after a power cut.
EXPECTED = [
    r"daemon: (connected to 127\.0\.0\.1|Connection refused; trying again)",
    r"broker: (connected to .*|the connection was lost; trying again|.* does not answer.*; trying again.*)",
    r"schema: /etc/vorbel/schema\.json",
    r'done \{"user":"operator","path":"order",.*',
]


@pytest.fixture(scope="module")
def chance():
    seed = int(os.environ.get("VORBEL_SEED", time.time_ns() % 1_000_000))
    print(f"VORBEL_SEED={seed}")
    return random.Random(seed)


@pytest.fixture(scope="module")
def guest(board):
    """What shows its state when a test fails."""
    return board.guest


@pytest.fixture(scope="module")
def board(tmp_path_factory, packages):
    board = Board(tmp_path_factory.mktemp("board"), packages)
    try:
        board.begin()
        yield board
    finally:
        board.end()


class Board:
    """A machine with a disk, its broker outside, somebody who listens to that and misses nothing, and a client of the
    daemon. Its clock was a day ahead once: only what the gateway keeps on the disk says which numbers its boots had."""

    def __init__(self, folder, packages):
        self.broker = Mosquitto(folder, persistence=True).start()
        self.listener = Listener(self.broker.port, name="listener", base=BASE)
        self.guest = Guest(os.environ["VORBEL_GUEST"], folder)
        self.guest.broker_port = self.broker.port
        for name in ("vorbel", "vorbel-gateway"):
            (package,) = packages.glob(f"{name}_*_arm64.deb")
            shutil.copy(package, self.guest.share / f"{name}.deb")
        self.life = 0
        self.former = int(time.time()) + 24 * 3600  # what the gateway called its life before
        content = folder / "content"
        for name in ("gateway", "journal"):
            (content / name).mkdir(parents=True)
        (content / "gateway" / "run.json").write_text(json.dumps({"boot": self.former, "lost": 0}))
        self.disk = folder / "disk"
        subprocess.run(["/sbin/mke2fs", "-q", "-t", "ext4", "-d", content, self.disk, "64M"], check=True)

    def begin(self):
        """Installs everything, for all lives."""
        self.start()
        put(self.guest, FILES)
        self.guest.run("""
            systemctl daemon-reload
            systemctl start var-lib-vorbel\\\\x2dgateway.mount var-log-journal.mount
            journalctl --flush
            udevadm settle
            rmmod kvaser_pci
            systemctl enable --now bus.service
            dpkg -i --force-confold /host/vorbel.deb /host/vorbel-gateway.deb
        """, limit=240)
        self.guest.keep()
        self._enter_life()

    def end(self):
        self.guest.stop()
        self.listener.close()
        self.broker.stop()

    def start(self):
        self.guest.start("-drive", f"if=none,id=disk,format=raw,file={self.disk}",
                         "-device", "virtio-blk-pci,drive=disk,romfile=")

    def boot(self):
        (self.guest.share / "journal").unlink(missing_ok=True)
        self.start()
        self._enter_life()

    def _enter_life(self):
        """The bus carries numbers as soon as the client and the gateway of this life hear them."""
        self.life += 1
        self.first = self.life * EPOCH
        self.service = Service(self.guest)
        self.service.wait_listening()
        self.client = RawClient(self.guest.port)
        self.guest.run(f"until {GATEWAY_LOG} | grep -q 'schema: /etc'; do sleep 0.2; done", limit=PATIENCE)
        wait_until(lambda: max(boots(self.listener), default=0) > self.former, PATIENCE, "its boot")
        start_counting(self.guest, self.first, RATE)

    def cut_power(self):
        self.guest.cut_power()
        self.former = boots(self.listener)[-1]


async def serves(board):
    """Checks that everything is there after a boot, by itself and once."""
    for name in ("vorbel", "vorbel-gateway"):
        assert board.guest.run(f"systemctl show --value -P NRestarts -P ActiveState {name}").split() == ["0", "active"]
    wait_until(lambda: heard(board.client), PATIENCE, "a value at the client")
    values = heard(board.client)
    assert values == list(range(board.first, board.first + len(values)))
    async with board.service.connect() as client:
        await client.send({"order": board.life})
        wait_until(lambda: board.life in orders(board.guest), PATIENCE, "a client's value on the bus")
    number = 100 + board.life

    def is_obeyed():
        order(board.listener, number)
        time.sleep(1)
        return number in orders(board.guest)

    wait_until(is_obeyed, PATIENCE, "an order on the bus")
    assert set(orders(board.guest)) == {board.life, number}, "nothing but what was asked for in this life"
    assert unknown_lines(board.guest.run(GATEWAY_LOG).splitlines(), EXPECTED) == []


def arrives(board, first, last):
    """Waits until the broker has passed on all numbers of a stretch."""
    expected = set(range(first, last + 1))

    def are_there():
        return expected <= set(published(board.listener))

    wait_until(are_there, PATIENCE, f"the numbers from {first} to {last}")


def nothing_is_wrong(board):
    """Checks what the broker has been told of all lives: each number once, in order."""
    numbers = published(board.listener)
    assert numbers == sorted(set(numbers))
    assert boots(board.listener) == sorted(set(boots(board.listener)))


async def test_as_soon_as_the_gateway_is_up(board):
    """The name of its life is on the disk before anything goes out by that name."""
    board.guest.run("systemctl restart vorbel-gateway")
    wait_until(lambda: len(boots(board.listener)) == 2, PATIENCE, "the status of the life that ends now")
    board.cut_power()
    board.boot()
    assert len(boots(board.listener)) == 3 and sorted(boots(board.listener)) == boots(board.listener)
    await serves(board)


async def comes_back(board, first, last):
    """It boots and serves, and these numbers of the life before are at the broker."""
    board.boot()
    await serves(board)
    arrives(board, first, last)
    nothing_is_wrong(board)


async def test_while_values_flow_and_orders_come(board, chance):
    first = board.first
    time.sleep(chance.uniform(0, 1))
    last, cut_at = heard(board.client)[-1], time.monotonic() + KEPT_AFTER
    while time.monotonic() < cut_at:
        order(board.listener, 1000)
        time.sleep(0.02)
    assert 1000 in orders(board.guest)
    board.cut_power()
    order(board.listener, 1001)
    await comes_back(board, first, last)


async def test_after_what_came_while_the_broker_was_away(board, chance):
    """All of it: nothing comes in the last seconds, so that none of them can be missing."""
    first = board.first
    board.broker.stop()
    time.sleep(chance.uniform(3, 6))
    stop_counting(board.guest)
    time.sleep(KEPT_AFTER)
    last = heard(board.client)[-1]
    board.cut_power()
    board.broker.start()
    await comes_back(board, first, last)


async def test_while_the_spool_empties_and_again_while_it_boots(board, chance):
    first = board.first
    board.broker.stop()
    time.sleep(KEPT_AFTER)
    last = heard(board.client)[-1]
    time.sleep(KEPT_AFTER)
    before = len(board.listener.batches())
    board.broker.start()
    wait_until(lambda: len(board.listener.batches()) > before, PATIENCE, "a batch out of the spool")
    time.sleep(chance.uniform(0, 0.5))
    board.cut_power()
    board.start()
    time.sleep(chance.uniform(0, 5))
    board.cut_power()
    await comes_back(board, first, last)
    wait_until(lambda: not board.guest.run(f"ls {SPOOL}").split(), PATIENCE, "the spool to be empty")
