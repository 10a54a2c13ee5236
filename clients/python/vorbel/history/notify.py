"""What a service tells the service manager, sd_notify(3)."""

import os
import socket
from typing import Optional


def notify(*words: str) -> None:
    """Sends nothing where nobody asked for it."""
    address = os.environ.get("NOTIFY_SOCKET")
    if not address:
        return
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as peer:
        try:
            peer.connect("\0" + address[1:] if address.startswith("@") else address)
            peer.sendall("\n".join(words).encode())
        except OSError:
            pass  # the service is none the worse for it


def watchdog_interval() -> Optional[float]:
    """How often the manager wants to hear a sign of life, in seconds; None if it does not."""
    microseconds = os.environ.get("WATCHDOG_USEC", "")
    return int(microseconds) / 2e6 if microseconds.isdecimal() else None
