"""What the tests of the serial link share."""

from vorbelsim import vek

SCHEMA = {"low": {"@mac": 5, "@cmd": 2, "@format": "I"},
          "high": {"@mac": 5, "@cmd": 2, "@format": "I", "@skip": 4},
          "alive": {"@mac": 6, "@cmd": 1, "@format": "C"},
          "blob": {"@mac": 7, "@cmd": 4, "@format": "p", "@fragmentation": True}}
FOUND = 'Found "VEK CAN Adapter" "tty(USB|ACM)[0-9]+"'
CLOSED = "Close SerialPort"
HELLO = "Sending hello message .*"


async def link_up(client, adapter):
    """Returns once frames pass both ways, with none left on the way."""
    probes = 0

    def probe():
        nonlocal probes
        probes += 1
        adapter.write(vek.record(6, 1, bytes([probes])))

    value = await client.value_of(probe)
    while value.get("alive") != probes:
        value = await client.value()
    await client.send({"alive": 0xFF})
    adapter.discard_through(vek.record(6, 1, b"\xff"))
