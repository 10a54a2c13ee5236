"""Client of the Vorbel daemon: values from a CAN bus, by name, over WebSocket.

    async with vorbel.connect("ws://bridge:10443", schema="machine.schema.json") as client:
        await client.set("motor.setpoint", 1200)
        async for values in client.values(flat=True):
            print(values)

The protocol is described in docs/protocol.md, the library in clients/python/README.md.
"""

from .client import Client, Disconnected, Hello, Undecodable, Values, connect
from .checks import check, check_text
from .errors import ConnectError, Problem, SchemaError, VorbelError, WriteError
from .ownership import SchemaChanged
from .schema import load_schema
from .writing import Written

__all__ = ["Client", "ConnectError", "Disconnected", "Hello", "Problem", "SchemaChanged", "SchemaError",
           "Undecodable", "Values", "VorbelError", "WriteError", "Written",
           "check", "check_text", "connect", "load_schema"]
__version__ = "0.1.0"
