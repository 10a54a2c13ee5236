"""A bus that counts, orders that reach it, and a gateway for both: what is lost, doubled or misplaced on any way shows
in the numbers."""

import msgpack
from gatewayharness import without_repeats
from guest import BROKER
from vorbelsim.canframe import parse_log_line
from watch import bring_aboard

SCHEMA = '{"count": {"@mac": 5, "@cmd": 2, "@format": "I"}, "order": {"@mac": 6, "@cmd": 1, "@format": "I"}}'
SCHEMA_FILE = "/etc/vorbel/schema.json"
RECORD_ORDERS = "candump -D -L can0,046:7FF >/run/orders"
BATCH = 0.2  # seconds
GATEWAY = f"""
[broker]
url = mqtt://{BROKER}
[topics]
id = board
[schema]
file = {SCHEMA_FILE}
[values]
interval_ms = {BATCH * 1000:.0f}
[write]
users = operator: order
"""
BASE = "vorbel/board/"


def put(guest, files):
    """Files of the guest by their paths."""
    for path, text in files.items():
        (guest.share / "file").write_text(text)
        guest.run(f"mkdir -p $(dirname {path}); cp /host/file {path}")


def start_counting(guest, first, rate):
    bring_aboard(guest, "count")
    guest.run(f"python3 /host/count can0 {first} {rate} >/dev/null 2>&1 &\necho $! >/run/count.pid")


def stop_counting(guest):
    guest.run("kill $(cat /run/count.pid)")


def heard(client):
    """The numbers that a client of the daemon has heard."""
    return [msgpack.unpackb(value)["count"] for value in client.values()]


def batches(listener):
    """All batches but repeated ones, in order of their arrival."""
    once = {}
    for batch in listener.batches():
        same = once.setdefault((batch["boot"], batch["n"]), batch)
        assert same == batch, "two batches of one boot and number"
    return list(once.values())


def published(listener):
    """The numbers in all batches."""
    return [values["count"] for batch in batches(listener) for _, values in batch["v"] if "count" in values]


def boots(listener):
    """What the gateway called its lives, in order of their appearance."""
    return without_repeats(message.json["boot"] for message in listener.of("status") if message.json["online"])


def orders(guest):
    """The numbers that were written to the bus since it is recorded."""
    lines = guest.run("cat /run/orders").rpartition("\n")[0].splitlines()
    return [int.from_bytes(parse_log_line(line)[1].payload, "little") for line in lines]


def order(listener, number):
    listener.publish_soon("set/operator/order", str(number))
