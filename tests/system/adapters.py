"""Serial CAN adapters of the guest: one of QEMU's, and one of the guest's own kernel."""

import pathlib
import shutil
import socket
import struct
import threading
import time

from guest import connect
from vorbelsim import vek
from watch import bring_aboard

SIM = pathlib.Path(__file__).parents[2] / "sim"
STREAM_PERIOD = 0.02  # seconds between the records of a stream

USB_PORTS = 4  # that take a device of full speed
USB_SUBMISSION, USB_COMPLETION = b"SC"
USB_CONTROL, USB_BULK = 2, 3
FTDI_BULK_IN = 0x81
FTDI_PACKET = 64
FTDI_VENDOR_REQUEST = 0x40  # bmRequestType: from host to device, vendor, device


class FtdiAdapter:
    """QEMU's usb-serial device. A thread reads all the time: an unread socket would stop the whole machine."""

    node = "/dev/ttyUSB0"
    major = 188
    # The device's own name is QEMU's; the test's rule gives it the one that the service looks for.
    RULE = ('SUBSYSTEM=="tty", SUBSYSTEMS=="usb", ATTRS{idVendor}=="0403", ATTRS{idProduct}=="6001", '
            'ENV{ID_MODEL}="VEK_CAN_Adapter"\n')

    def __init__(self, guest, named=True, plugged=False):
        """`plugged`: the machine was started with it, as adapter1."""
        self.guest = guest
        self.plugs = 1 if plugged else 0
        self.plugged = plugged
        self.received = bytearray()
        self.arrived = threading.Condition()
        self.streaming = threading.Event()
        self.closed = False
        self.socket = socket.socket(socket.AF_UNIX)
        connect(self.socket, guest.folder / "adapter.sock", 10)
        threading.Thread(target=self._read, daemon=True).start()
        threading.Thread(target=self._stream, daemon=True).start()
        if not plugged:
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

    def _stream(self):
        """
        A numbered record of node 5, command 2, time and again while `streaming` is set and it is plugged in: what it
        is sent while it comes or goes may end QEMU.
        """
        number = 0
        while not self.closed:
            if self.streaming.wait(1) and self.plugged:
                self.write(numbered_record(number))
                number += 1
            time.sleep(STREAM_PERIOD)

    def stream(self, on):
        self.streaming.set() if on else self.streaming.clear()

    def close(self):
        self.stream(False)
        self.closed = True
        self.unplug()
        self.guest.run(f"for i in $(seq 100); do [ -e {self.node} ] || exit 0; sleep 0.1; done; exit 1")
        self.socket.shutdown(socket.SHUT_RDWR)
        self.socket.close()

    def plug(self):
        """Plugs it in, into another port each time."""
        self.plugs += 1
        self.capture = self.guest.folder / f"usb-{time.monotonic_ns()}.pcap"
        self.guest.qmp("device_add", driver="usb-serial", id=f"adapter{self.plugs}", chardev="adapter",
                       bus="xhci.0", port=str(1 + self.plugs % USB_PORTS), pcap=str(self.capture))
        self.plugged = True

    def unplug(self):
        if self.plugged:
            self.plugged = False
            time.sleep(2 * STREAM_PERIOD)
            self.guest.qmp("device_del", event="DEVICE_DELETED", id=f"adapter{self.plugs}")

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


def numbered_record(number):
    return vek.record(5, 2, struct.pack("<II", number, 0))


def ready_since(guest, adapter, plugged):
    """When, by the guest's clock, udev was done with the port of an adapter that was plugged in after `plugged`."""
    return float(guest.run(f"""
        for i in $(seq 200); do
            at=$(stat -c %.6Y /run/udev/data/c{adapter.major}:* 2>/dev/null | sort -n | tail -n 1)
            [ "${{at%.*}}" ] && expr "$at" \\> {plugged:.6f} >/dev/null && echo $at && exit
            sleep 0.05
        done
        exit 1
    """))


def packets(capture):
    """(seconds, usbmon header and data) of each packet in a USB capture of QEMU's. The header is Linux's: type at 8,
    transfer type at 9, endpoint at 10, setup flag at 14, setup at 40; the data begins at 64."""
    data = capture.read_bytes()
    at = 24  # behind the file's header
    while at + 16 <= len(data):
        seconds, microseconds, length = struct.unpack_from("<III", data, at)
        if at + 16 + length > len(data):
            return  # still being written
        yield seconds + microseconds / 1e6, data[at + 16:at + 16 + length]
        at += 16 + length


def control_requests(capture):
    """(seconds, bmRequestType, bRequest, wValue) of the control transfers in a USB capture of QEMU's."""
    return [(seconds, *struct.unpack_from("<BBH", packet, 40)) for seconds, packet in packets(capture)
            if len(packet) >= 48 and packet[8] == USB_SUBMISSION and packet[9] == USB_CONTROL and packet[14] == 0]


def delivered_records(capture):
    """(seconds, number) of the numbered records that an adapter has handed to the driver."""
    scanner = vek.Scanner()
    records = []
    for seconds, packet in packets(capture):
        if len(packet) > 64 and packet[8] == USB_COMPLETION and packet[9] == USB_BULK and packet[10] == FTDI_BULK_IN:
            data = packet[64:]
            # Each packet on the wire begins with two bytes of status.
            stream = b"".join(data[at + 2:at + FTDI_PACKET] for at in range(0, len(data), FTDI_PACKET))
            records += [(seconds, struct.unpack("<II", frame.payload)[0]) for frame in scanner.feed(stream)
                        if (frame.mac, frame.cmd) == (5, 2)]
    return records


class GadgetAdapter:
    """The guest's own kernel as a USB device (CDC-ACM), plugged into itself; its far end is /dev/ttyGS0."""

    major = 166
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
        self.feeding = False
        guest.run(self.SETUP)

    def stream(self, on):
        """A numbered record of node 5, command 2, time and again while it is on."""
        if on and not self.feeding:
            bring_aboard(self.guest, "feed")
            shutil.copytree(SIM, self.guest.share / "sim", ignore=shutil.ignore_patterns("__pycache__"),
                            dirs_exist_ok=True)
            self.guest.run(f"""
                python3 -B /host/feed {STREAM_PERIOD} >/run/feed.log 2>&1 &
                echo $! >/run/feed.pid
                # On a busy host its start takes longer than an adapter may be silent.
                for i in $(seq 600); do grep -q ready /run/feed.log && exit; sleep 0.1; done
                cat /run/feed.log
                exit 1
            """, limit=120)
            self.feeding = True
        if self.feeding:
            self.guest.run(f"kill -{'CONT' if on else 'STOP'} $(cat /run/feed.pid)")

    def close(self):
        if self.feeding:
            self.guest.run("kill -9 $(cat /run/feed.pid)")
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
        """The CDC requests in order: (seconds, "20", line coding in hex) and (seconds, "22", wValue in hex)."""
        lines = self.guest.run("cat /run/usbmon").splitlines()
        return [request for request in map(class_request, lines) if request]


def class_request(line):
    """One line of usbmon's text: URB, microseconds, event, address, "s", bmRequestType, bRequest, wValue, ..., data."""
    words = line.split()
    if len(words) < 10 or words[2] != "S" or words[4] != "s" or words[5] != "21":
        return None
    value = "".join(words[11:]).lstrip("=") if words[6] == "20" else words[7]
    return int(words[1]) / 1e6, words[6], value
