"""Serial CAN adapters of the guest: one of QEMU's, and one of the guest's own kernel."""

import socket
import struct
import threading
import time

from guest import connect

USB_SUBMISSION = ord("S")
FTDI_VENDOR_REQUEST = 0x40  # bmRequestType: from host to device, vendor, device


class FtdiAdapter:
    """QEMU's usb-serial device. A thread reads all the time: an unread socket would stop the whole machine."""

    node = "/dev/ttyUSB0"
    # The device's own name is QEMU's; the test's rule gives it the one that the service looks for.
    RULE = ('SUBSYSTEM=="tty", SUBSYSTEMS=="usb", ATTRS{idVendor}=="0403", ATTRS{idProduct}=="6001", '
            'ENV{ID_MODEL}="VEK_CAN_Adapter"\n')

    def __init__(self, guest, named=True):
        self.guest = guest
        self.plugs = 0
        self.plugged = False
        self.received = bytearray()
        self.arrived = threading.Condition()
        self.socket = socket.socket(socket.AF_UNIX)
        connect(self.socket, guest.folder / "adapter.sock", 10)
        threading.Thread(target=self._read, daemon=True).start()
        (guest.share / "rule").write_text(self.RULE if named else "")
        guest.run("rmmod ftdi_sio cdc_acm usbserial 2>/dev/null || true; mkdir -p /run/udev/rules.d; "
                  "cp /host/rule /run/udev/rules.d/61-test.rules; udevadm control --reload")

    def _read(self):
        while True:
            try:
                data = self.socket.recv(65536)
            except OSError:
                data = b""
            if not data:
                return
            with self.arrived:
                self.received += data
                self.arrived.notify_all()

    def close(self):
        self.unplug()
        self.guest.run(f"for i in $(seq 100); do [ -e {self.node} ] || exit 0; sleep 0.1; done; exit 1")
        self.socket.shutdown(socket.SHUT_RDWR)
        self.socket.close()

    def plug(self):
        self.plugs += 1
        self.capture = self.guest.folder / f"usb-{time.monotonic_ns()}.pcap"
        self.guest.qmp("device_add", driver="usb-serial", id=f"adapter{self.plugs}", chardev="adapter",
                       bus="xhci.0", pcap=str(self.capture))
        self.plugged = True

    def unplug(self):
        if self.plugged:
            self.guest.qmp("device_del", event="DEVICE_DELETED", id=f"adapter{self.plugs}")
        self.plugged = False

    def write(self, data):
        self.socket.sendall(data)

    def take(self, size, limit=60):
        """The next `size` bytes that the adapter was given to send."""
        with self.arrived:
            complete = self.arrived.wait_for(lambda: len(self.received) >= size, limit)
            assert complete, f"{len(self.received)} of {size} bytes within {limit} s"
            data = bytes(self.received[:size])
            del self.received[:size]
            return data

    def discard_through(self, end, limit=20):
        """Forgets what arrives until it ends so."""
        with self.arrived:
            assert self.arrived.wait_for(lambda: self.received.endswith(end), limit), self.received
            self.received.clear()

    def control_requests(self):
        """(seconds, bRequest, wValue) of each vendor request since it was plugged in."""
        return [(seconds, request, value) for seconds, kind, request, value in control_requests(self.capture)
                if kind == FTDI_VENDOR_REQUEST]


def control_requests(capture):
    """(seconds, bmRequestType, bRequest, wValue) of the control transfers in a USB capture of QEMU's."""
    data = capture.read_bytes()
    at = 24  # behind the file's header
    requests = []
    while at + 16 <= len(data):
        seconds, microseconds, length = struct.unpack_from("<III", data, at)
        packet = data[at + 16:at + 16 + length]
        at += 16 + length
        # Linux's usbmon header: type at 8, transfer type at 9 (2 is control), setup flag at 14, setup at 40.
        if len(packet) >= 48 and packet[8] == USB_SUBMISSION and packet[9] == 2 and packet[14] == 0:
            kind, request, value = struct.unpack_from("<BBH", packet, 40)
            requests.append((seconds + microseconds / 1e6, kind, request, value))
    return requests


class GadgetAdapter:
    """The guest's own kernel as a USB device (CDC-ACM), plugged into itself; its far end is /dev/ttyGS0."""

    SETUP = """
        modprobe -a dummy_hcd libcomposite usb_f_acm usbmon
        mountpoint -q /sys/kernel/config || mount -t configfs none /sys/kernel/config
        mkdir /sys/kernel/config/usb_gadget/vek
        cd /sys/kernel/config/usb_gadget/vek
        echo 0x1d6b >idVendor
        echo 0x0104 >idProduct
        mkdir strings/0x409 configs/c.1 functions/acm.0
        echo 'VEK CAN Adapter' >strings/0x409/product
        ln -s functions/acm.0 configs/c.1
        cat /sys/kernel/debug/usb/usbmon/0u >/run/usbmon &
    """

    node = "/dev/ttyACM0"

    def __init__(self, guest):
        self.guest = guest
        guest.run(self.SETUP)

    def close(self):
        self.guest.run("""
            cd /sys/kernel/config/usb_gadget/vek
            echo >UDC || true
            pkill cat || true
            rm configs/c.1/acm.0
            rmdir configs/c.1 functions/acm.0 strings/0x409
            cd /
            rmdir /sys/kernel/config/usb_gadget/vek
        """)

    def plug(self):
        """Plugs it in and lets /host/to-host collect what arrives at the far end."""
        self.guest.run("""
            echo dummy_udc.0 >/sys/kernel/config/usb_gadget/vek/UDC
            udevadm settle
            stty -F /dev/ttyGS0 raw -echo
            : >/host/to-host
            cat /dev/ttyGS0 >>/host/to-host &
        """)

    def unplug(self):
        self.guest.run("echo >/sys/kernel/config/usb_gadget/vek/UDC")

    def write(self, data):
        (self.guest.share / "to-guest").write_bytes(data)
        self.guest.run("cat /host/to-guest >/dev/ttyGS0", limit=120)

    def take(self, size, limit=60):
        """The next `size` bytes that arrived at the far end."""
        deadline = time.monotonic() + limit
        file = self.guest.share / "to-host"
        while file.stat().st_size < size:
            assert time.monotonic() < deadline, f"{file.stat().st_size} of {size} bytes within {limit} s"
            time.sleep(0.1)
        data = file.read_bytes()
        self._discard()
        return data

    def discard_through(self, end, limit=20):
        """
        Forgets what arrives until it ends so. Until the service has set the port up, the terminal echoes what it is
        sent, and a part of that echo may come as late as the service's next write.
        """
        deadline = time.monotonic() + limit
        while not (data := (self.guest.share / "to-host").read_bytes()).endswith(end):
            assert time.monotonic() < deadline, data
            time.sleep(0.1)
        self._discard()

    def _discard(self):
        self.guest.run(": >/host/to-host")

    def class_requests(self):
        """The CDC requests in order: ("20", line coding in hex) and ("22", wValue in hex)."""
        lines = self.guest.run("cat /run/usbmon").splitlines()
        return [request for request in map(class_request, lines) if request]


def class_request(line):
    """One line of usbmon's text: URB, time, event, address, "s", bmRequestType, bRequest, wValue, ..., data."""
    words = line.split()
    if len(words) < 10 or words[2] != "S" or words[4] != "s" or words[5] != "21":
        return None
    return (words[6], "".join(words[11:]).lstrip("=") if words[6] == "20" else words[7])
