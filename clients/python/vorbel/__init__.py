"""Client of the Vorbel daemon: values from a CAN bus, by name, over WebSocket.

    async with vorbel.connect("ws://bridge:10443", schema="machine.schema.json") as client:
        await client.set("motor.setpoint", 1200)
        async for values in client.values(flat=True):
            print(values)

The protocol is described in docs/protocol.md, the library in clients/python/README.md.
"""

from .client import Client, Disconnected, Hello, Undecodable, Values, connect
from .errors import ConnectError, SchemaError, VorbelError, WriteError
from .schema import Problem, check, load_schema

__all__ = ["Client", "ConnectError", "Disconnected", "Hello", "Problem", "SchemaError", "Undecodable", "Values",
           "VorbelError", "WriteError", "check", "connect", "load_schema"]
__version__ = "0.1.0"
