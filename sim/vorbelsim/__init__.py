"""Virtual hardware for tests and the demonstration: a serial CAN adapter, a CAN bus, a few nodes, a clock.

Everything here needs Debian's Python and nothing else. No call blocks without a time limit.
"""

from .adapter import VirtualAdapter
from .canbus import VirtualCanBus
from .canframe import CanFrame
from .clock import VirtualClock
from .faults import SystemCallFaults

__all__ = ["CanFrame", "SystemCallFaults", "VirtualAdapter", "VirtualCanBus", "VirtualClock"]
