# SPDX-License-Identifier: Apache-2.0
"""Frames and DHCP messages decoded from their bytes, independent of the relay's own code.

A decoded record keeps its bytes (`raw`, `payload`), so that tests compare whole messages. Checksums are
computed here from RFC 791 and RFC 768; the message layout is RFC 2131's, option 82 RFC 3046's.
"""

import dataclasses
import ipaddress
import struct

MAGIC = bytes((99, 130, 83, 99))
OPTION_PAD, OPTION_END = 0, 255
OPTION_MESSAGE_TYPE, OPTION_SERVER_ID, OPTION_RELAY_INFORMATION = 53, 54, 82
TYPES = {1: "DISCOVER", 2: "OFFER", 3: "REQUEST", 4: "DECLINE", 5: "ACK", 6: "NAK", 7: "RELEASE", 8: "INFORM"}


def mac_text(data):
    return ":".join(f"{byte:02x}" for byte in data)


def mac_bytes(text):
    return bytes.fromhex(text.replace(":", ""))


def address(data):
    return str(ipaddress.IPv4Address(bytes(data)))


def packed(text):
    return ipaddress.IPv4Address(text).packed


def checksum(data):
    """The internet checksum of the bytes: ones' complement of the ones' complement sum of 16-bit words."""
    if len(data) % 2:
        data += b"\0"
    total = sum(struct.unpack(f"!{len(data) // 2}H", data))
    while total > 0xFFFF:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


def udp_checksum(source, destination, datagram):
    """The UDP checksum field for a datagram whose field may hold anything; 0 is not turned into 0xFFFF."""
    zeroed = datagram[:6] + b"\0\0" + datagram[8:]
    return checksum(source + destination + struct.pack("!BBH", 0, 17, len(datagram)) + zeroed)


@dataclasses.dataclass(frozen=True)
class RelayInformation:
    """Option 82 as the relay writes it: circuit id {0, 4, VLAN low byte first, module, port}, remote id {0, 6, MAC}."""

    raw: bytes  # the option's value, without code and length
    circuit: bytes | None  # sub-option 1
    remote: bytes | None  # sub-option 2

    @property
    def own_layout(self):
        return (self.circuit is not None and len(self.circuit) == 6 and self.circuit[:2] == b"\x00\x04"
                and self.remote is not None and len(self.remote) == 8 and self.remote[:2] == b"\x00\x06")

    @property
    def vlan(self):
        return int.from_bytes(self.circuit[2:4], "little") if self.own_layout else None

    @property
    def module(self):
        return self.circuit[4] if self.own_layout else None

    @property
    def port(self):
        return self.circuit[5] if self.own_layout else None

    @property
    def mac(self):
        return mac_text(self.remote[2:8]) if self.own_layout else None

    def __str__(self):
        if self.own_layout:
            return f"VLAN {self.vlan}, module {self.module}, port {self.port}, MAC {self.mac}"
        return self.raw.hex(" ")


def relay_information(value):
    found = {}
    at = 0
    while at + 2 <= len(value):
        code, length = value[at], value[at + 1]
        found.setdefault(code, value[at + 2:at + 2 + length])
        at += 2 + length
    return RelayInformation(bytes(value), found.get(1), found.get(2))


def option82(vlan, module, port, mac):
    """The 20 bytes of option 82 that the relay inserts."""
    return (bytes((82, 18, 1, 6, 0, 4)) + struct.pack("<H", vlan) + bytes((module, port))
            + bytes((2, 8, 0, 6)) + mac_bytes(mac))


@dataclasses.dataclass(frozen=True)
class Dhcp:
    raw: bytes
    op: int
    htype: int
    hlen: int
    hops: int
    xid: int
    secs: int
    flags: int
    ciaddr: str
    yiaddr: str
    siaddr: str
    giaddr: str
    chaddr: str  # the first six bytes, as a MAC address
    options: tuple  # (code, value) in the order of the message, pads and END left out
    end: int  # offset of the END option, None without one

    def option(self, code):
        """The first option with the code, None without one."""
        return next((value for found, value in self.options if found == code), None)

    @property
    def type(self):
        value = self.option(OPTION_MESSAGE_TYPE)
        return TYPES.get(value[0]) if value else None

    @property
    def server_id(self):
        value = self.option(OPTION_SERVER_ID)
        return address(value) if value and len(value) == 4 else None

    @property
    def relay_information(self):
        value = self.option(OPTION_RELAY_INFORMATION)
        return relay_information(value) if value is not None else None

    def __str__(self):
        return f"{self.type} xid {self.xid:08x} from {self.chaddr} hops {self.hops} giaddr {self.giaddr}"


def decode_dhcp(data):
    """The message in a UDP payload, None when it is none."""
    if len(data) < 240 or data[236:240] != MAGIC:
        return None
    op, htype, hlen, hops, xid, secs, flags = struct.unpack("!BBBBIHH", data[:12])
    options, at, end = [], 240, None
    while at < len(data):
        code = data[at]
        if code == OPTION_END:
            end = at
            break
        if code == OPTION_PAD:
            at += 1
            continue
        if at + 1 >= len(data):
            break
        length = data[at + 1]
        options.append((code, bytes(data[at + 2:at + 2 + length])))
        at += 2 + length
    return Dhcp(bytes(data), op, htype, hlen, hops, xid, secs, flags, address(data[12:16]), address(data[16:20]),
                address(data[20:24]), address(data[24:28]), mac_text(data[28:34]), tuple(options), end)


@dataclasses.dataclass(frozen=True)
class Packet:
    """One captured frame. Fields above Ethernet are None when the frame does not have them."""

    time: float  # seconds since the epoch, from the kernel
    device: str
    outgoing: bool  # sent by the captured device's own host
    raw: bytes
    dst_mac: str
    src_mac: str
    vlan: int | None  # 802.1Q tag
    ethertype: int
    ip_header: bytes = b""
    src: str | None = None
    dst: str | None = None
    protocol: int | None = None
    sport: int | None = None
    dport: int | None = None
    datagram: bytes = b""  # UDP header and payload
    payload: bytes = b""
    icmp: tuple | None = None  # (type, code)
    dhcp: Dhcp | None = None

    @property
    def ip_checksum_ok(self):
        return checksum(self.ip_header) == 0

    @property
    def udp_checksum_ok(self):
        """The field equals the computed sum. False on a frame whose sum the sender leaves to the hardware."""
        field = struct.unpack("!H", self.datagram[6:8])[0]
        return field == udp_checksum(packed(self.src), packed(self.dst), self.datagram)

    def __str__(self):
        text = f"{self.time:.6f} {self.device} {'>' if self.outgoing else '<'} {self.src_mac} > {self.dst_mac}"
        if self.vlan is not None:
            text += f" VLAN {self.vlan}"
        if self.src:
            text += f" {self.src}:{self.sport} > {self.dst}:{self.dport}"
        return f"{text} {self.dhcp or f'{len(self.raw)} bytes'}"


def decode(raw, time=0.0, device="", outgoing=False):
    """A frame from its first Ethernet byte on."""
    raw = bytes(raw)
    fields = {"time": time, "device": device, "outgoing": outgoing, "raw": raw,
              "dst_mac": mac_text(raw[:6]), "src_mac": mac_text(raw[6:12]), "vlan": None}
    ethertype, at = struct.unpack("!H", raw[12:14])[0], 14
    if ethertype == 0x8100 and len(raw) >= 18:
        tag, ethertype = struct.unpack("!HH", raw[14:18])
        fields["vlan"], at = tag & 0xFFF, 18
    fields["ethertype"] = ethertype
    if ethertype == 0x0800 and len(raw) >= at + 20:
        fields.update(_decode_ip(raw[at:]))
    return Packet(**fields)


def _decode_ip(data):
    header_length = (data[0] & 0xF) * 4
    total, fragment = struct.unpack("!H2xH", data[2:8])
    fields = {"ip_header": data[:header_length], "src": address(data[12:16]), "dst": address(data[16:20]),
              "protocol": data[9]}
    body = data[header_length:total]
    if fragment & 0x1FFF:
        return fields
    if data[9] == 1 and len(body) >= 2:
        fields["icmp"] = (body[0], body[1])
    if data[9] == 17 and len(body) >= 8:
        sport, dport, length = struct.unpack("!HHH", body[:6])
        fields.update(sport=sport, dport=dport, datagram=body[:length], payload=body[8:length])
        if {sport, dport} & {67, 68}:
            fields["dhcp"] = decode_dhcp(body[8:length])
    return fields


def frame_header(source_mac, destination_mac, source, destination, payload, *, sport=67, dport=68):
    """The 42 bytes in front of a message that the relay delivers to a client, both checksums computed here."""
    ip = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 28 + len(payload), 0, 0x4000, 64, 17, 0, packed(source),
                     packed(destination))
    ip = ip[:10] + struct.pack("!H", checksum(ip)) + ip[12:]
    udp = struct.pack("!HHHH", sport, dport, 8 + len(payload), 0)
    udp = udp[:6] + struct.pack("!H", udp_checksum(packed(source), packed(destination), udp + payload))
    return mac_bytes(destination_mac) + mac_bytes(source_mac) + b"\x08\x00" + ip + udp


def relayed_request(message, giaddr, information=b""):
    """What a server must get for a client's request: one hop more, the relay's address, option 82 where END was."""
    end = decode_dhcp(message).end
    return (message[:3] + bytes((message[3] + 1,)) + message[4:24] + packed(giaddr) + message[28:end] + information
            + b"\xff" + (b"" if information else message[end + 1:]))


def delivered_reply(message):
    """What a client must get for a server's reply: one hop more, option 82 cut out, nothing behind END."""
    out, at = bytearray(message[:240]), 240
    out[3] += 1
    while message[at] != OPTION_END:
        size = 1 if message[at] == OPTION_PAD else 2 + message[at + 1]
        if message[at] != OPTION_RELAY_INFORMATION:
            out += message[at:at + size]
        at += size
    return bytes(out) + b"\xff"
