# SPDX-License-Identifier: Apache-2.0
"""Captures: every frame that passes a device, with the kernel's time stamp and VLAN tag.

    with lab.capture(lab.client(1)) as seen:
        ...
        offer = seen.wait_dhcp("OFFER")

One thread reads all captures of the process. A capture outlives its block: the frames stay readable,
and `write_pcap` stores them for tshark.
"""

import contextlib
import os
import selectors
import signal
import socket
import struct
import threading
import time

from .cleanup import USER_SIGNALS
from .decode import decode
from .process import PATIENCE, LabError

ETH_P_ALL = 3
SOL_PACKET, PACKET_AUXDATA = 263, 8
SO_TIMESTAMPNS, SO_RCVBUFFORCE = 35, 33
TP_STATUS_VLAN_VALID = 1 << 4
PACKET_OUTGOING = 4


class _Reader:
    """The thread behind all captures."""

    def __init__(self):
        self._selector = selectors.DefaultSelector()
        self._wake_read, self._wake_write = os.pipe()
        os.set_blocking(self._wake_read, False)
        self._selector.register(self._wake_read, selectors.EVENT_READ, None)
        self._lock = threading.Lock()
        self._gone = []
        self._thread = threading.Thread(target=self._loop, name="captures", daemon=True)
        self._thread.start()

    def add(self, capture):
        self._selector.register(capture._socket, selectors.EVENT_READ, capture)
        self._wake()

    def remove(self, capture):
        done = threading.Event()
        with self._lock:
            self._gone.append((capture, done))
        self._wake()
        if not done.wait(60):
            raise LabError(f"the thread that reads captures does not answer at {capture.name}")

    def _wake(self):
        os.write(self._wake_write, b"x")

    def _loop(self):
        signal.pthread_sigmask(signal.SIG_BLOCK, USER_SIGNALS)
        while True:
            for key, _ in self._selector.select():
                if key.data is None:
                    with contextlib.suppress(BlockingIOError):
                        os.read(self._wake_read, 4096)
                else:
                    key.data._read()
            with self._lock:
                gone, self._gone = self._gone, []
            for capture, done in gone:
                self._selector.unregister(capture._socket)
                capture._finish()
                done.set()


_reader = None


def _the_reader():
    global _reader
    if _reader is None:
        _reader = _Reader()
    return _reader


class Capture:
    """All frames of one device from now on, as a growing list of decode.Packet.

    Whoever looks at the list finds every frame that has passed until then, whether or not the thread has come to it.
    """

    def __init__(self, namespace, device, name=None):
        self.device = device
        self.name = name or f"{namespace.name}-{device}"
        self._packets = []
        self._changed = threading.Condition()
        self._reading = threading.Lock()  # held while frames go from the socket to the list, in their order
        with namespace.entered():
            self._socket = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, 0)
            self._socket.setsockopt(SOL_PACKET, PACKET_AUXDATA, 1)
            self._socket.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)
            self._make_room(8 << 20)
            self._socket.bind((device, ETH_P_ALL))
        self._socket.setblocking(False)
        self._open = True
        _the_reader().add(self)

    def _make_room(self, size):
        try:
            self._socket.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, size)
        except PermissionError:  # root of a container; as much as everybody is granted
            self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, size)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        if self._open:
            self._open = False
            _the_reader().remove(self)

    def _read(self):
        """Take over what the socket holds, if it is still open."""
        with self._reading:
            while self._socket.fileno() >= 0:
                try:
                    raw, control, _, source = self._socket.recvmsg(65536, 256)
                except BlockingIOError:
                    return
                except OSError:
                    continue  # "network is down" is reported once when the device goes down
                if len(raw) < 14:
                    continue
                packet = self._decode(raw, control, source)
                with self._changed:
                    self._packets.append(packet)
                    self._changed.notify_all()

    def _finish(self):
        self._read()  # what is still queued belongs to the capture
        with self._reading:
            self._socket.close()

    def _decode(self, raw, control, source):
        stamp = time.time()
        for level, kind, data in control:
            if level == SOL_PACKET and kind == PACKET_AUXDATA:
                status, _, _, _, _, tag, tpid = struct.unpack("IIIHHHH", data[:20])
                if status & TP_STATUS_VLAN_VALID:
                    raw = raw[:12] + struct.pack("!HH", tpid or 0x8100, tag) + raw[12:]
            elif level == socket.SOL_SOCKET and kind == SO_TIMESTAMPNS:
                seconds, nanoseconds = struct.unpack("qq", data[:16])
                stamp = seconds + nanoseconds / 1e9
        return decode(raw, stamp, self.device, source[2] == PACKET_OUTGOING)

    @property
    def packets(self):
        self._read()
        with self._changed:
            return list(self._packets)

    def mark(self):
        """A place in the capture, for `since`."""
        return len(self.packets)

    def dhcp(self, kind=None, *, mac=None, xid=None, since=0, where=None):
        """The DHCP packets of that type, client and transaction, in order."""
        return [packet for packet in self.packets[since:]
                if packet.dhcp and (kind is None or packet.dhcp.type == kind)
                and (mac is None or packet.dhcp.chaddr == mac) and (xid is None or packet.dhcp.xid == xid)
                and (where is None or where(packet))]

    def wait(self, condition, timeout=30, what="such packet"):
        """The first packet, captured already or yet to come, for which condition(packet) holds."""
        timeout *= PATIENCE
        end = time.monotonic() + timeout
        at = 0
        with self._changed:
            while True:
                for packet in self._packets[at:]:
                    if condition(packet):
                        return packet
                at = len(self._packets)
                left = end - time.monotonic()
                if left <= 0:
                    raise LabError(f"no {what} at {self.name} within {timeout:g} seconds")
                self._changed.wait(left)

    def wait_dhcp(self, kind=None, *, mac=None, xid=None, since=0, timeout=30):
        earlier = set(map(id, self.packets[:since]))
        return self.wait(lambda packet: id(packet) not in earlier and packet.dhcp is not None
                         and (kind is None or packet.dhcp.type == kind)
                         and (mac is None or packet.dhcp.chaddr == mac) and (xid is None or packet.dhcp.xid == xid),
                         timeout, kind or "DHCP message")

    def write_pcap(self, path):
        """Store the frames as a pcap file with nanosecond stamps."""
        with open(path, "wb") as out:
            out.write(struct.pack("=IHHiIII", 0xA1B23C4D, 2, 4, 0, 0, 65535, 1))
            for packet in self.packets:
                seconds = int(packet.time)
                out.write(struct.pack("=IIII", seconds, int((packet.time - seconds) * 1e9), len(packet.raw),
                                      len(packet.raw)))
                out.write(packet.raw)
