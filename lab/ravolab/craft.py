# SPDX-License-Identifier: Apache-2.0
"""DHCP messages and frames made by hand, for what no real client sends."""

import struct
import sys

from .decode import MAGIC, TYPES, frame_header, mac_bytes, packed

CODES = {name: code for code, name in TYPES.items()}
BROADCAST_MAC = "ff:ff:ff:ff:ff:ff"



def shown_xid(xid):
    """A transaction id as the relay writes it: the number that the message's bytes are on this machine."""
    return f"{int.from_bytes(xid.to_bytes(4, 'big'), sys.byteorder):X}"


def message(kind=None, *, mac, xid, op=1, htype=1, hlen=6, hops=0, secs=0, flags=0, ciaddr="0.0.0.0",
            yiaddr="0.0.0.0", siaddr="0.0.0.0", giaddr="0.0.0.0", options=(), end=True, padding=b""):
    """A DHCP message. kind: "DISCOVER" ... or None for no option 53; options: (code, value) pairs behind it."""
    data = struct.pack("!BBBBIHH", op, htype, hlen, hops, xid, secs, flags)
    data += packed(ciaddr) + packed(yiaddr) + packed(siaddr) + packed(giaddr)
    data += mac_bytes(mac).ljust(16, b"\0") + bytes(64 + 128) + MAGIC
    if kind is not None:
        data += bytes((53, 1, CODES[kind]))
    for code, value in options:
        data += bytes((code, len(value))) + value
    return data + (b"\xff" if end else b"") + padding


def broadcast(payload, mac, *, vlan=None, source="0.0.0.0", destination="255.255.255.255", sport=68, dport=67):
    """The frame in which a client broadcasts a message; vlan: the 802.1Q tag it carries."""
    header = frame_header(mac, BROADCAST_MAC, source, destination, payload, sport=sport, dport=dport)
    if vlan is not None:
        header = header[:12] + struct.pack("!HH", 0x8100, vlan) + header[12:]
    return header + payload
