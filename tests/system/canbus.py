"""A CAN bus in the guest, on which the service's interface is can0."""

from vorbelsim.canframe import parse_log_line
from watch import bring_aboard

NO_BUS = """
if [ -e /run/line-can ]; then kill $(cat /run/line-can.pid); rm /run/line-can; fi
ip -br link show type can | while read -r name rest; do ip link set "$name" down; done
rmmod kvaser_pci vcan 2>/dev/null || true
"""
VIRTUAL = "modprobe -a can_raw vcan\nip link add can0 type vcan\nip link set can0 up\n"
CONTROLLERS = """
modprobe -a can_raw kvaser_pci
udevadm settle
for name in can0 can1; do ip link set $name up type can bitrate 250000; done
"""


class CanBus:
    """`peer` is the interface that the other nodes are on: can0 too where frames are looped back."""

    def __init__(self, guest, setup, peer):
        self.guest = guest
        self.peer = peer
        guest.run(NO_BUS + setup)

    def wait_for_listener(self, count=1, interface="can0"):
        """Waits until so many sockets receive from an interface: that is how it shows that the service does."""
        self.guest.run(f"""
            for i in $(seq 150); do
                [ "$(grep -c '^ *{interface} ' /proc/net/can/rcvlist_all)" -ge {count} ] && exit
                sleep 0.1
            done
            cat /proc/net/can/rcvlist_all
            exit 1
        """)

    def send(self, *frames):
        """Frames in cansend's notation, one right after the other."""
        self.guest.run("".join(f"cansend {self.peer} '{frame}'\n" for frame in frames))

    def record(self, count, limit=20):
        return Recording(self, count, limit)


class LineController:
    """can0 is a controller on a serial line, which the test plays: it can stall the bus and tell errors."""

    SETUP = """
        modprobe -a can_raw slcan
        python3 /host/line-can >/host/line-can.log 2>&1 &
        echo $! >/run/line-can.pid
        for i in $(seq 200); do [ -e /run/line-can ] && exit; sleep 0.1; done
        cat /host/line-can.log
        exit 1
    """

    def __init__(self, guest):
        self.guest = guest
        bring_aboard(guest, "line-can")
        guest.run(NO_BUS + self.SETUP)

    def tell(self, *commands):
        self.guest.run(f"printf '%s\\n' {' '.join(commands)} >/run/line-can")

    def taken(self):
        """What can0 has sent and the bus has taken, a line each."""
        return (self.guest.share / "line-can.log").read_text().split()


class Recording:
    """candump on the peer's interface; `frames` holds (seconds, CanFrame) afterwards."""

    def __init__(self, bus, count, limit):
        self.bus = bus
        self.count = count
        self.limit = limit

    def __enter__(self):
        listeners = int(self.bus.guest.run(f"grep -c '^ *{self.bus.peer} ' /proc/net/can/rcvlist_all || true"))
        self.bus.guest.run(f"""
            candump -L -n {self.count} -T {self.limit * 1000} {self.bus.peer} >/host/candump.log 2>&1 &
            echo $! >/run/candump.pid
        """)
        self.bus.wait_for_listener(listeners + 1, self.bus.peer)
        return self

    def __exit__(self, *exception):
        self.bus.guest.run("while kill -0 $(cat /run/candump.pid) 2>/dev/null; do sleep 0.1; done",
                           limit=self.limit + 10)
        lines = (self.bus.guest.share / "candump.log").read_text().splitlines()
        self.frames = [parse_log_line(line) for line in lines]
