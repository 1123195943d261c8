# SPDX-License-Identifier: Apache-2.0
"""The layer-2 channel: which frames are read, as what, and how often. Frames are put on the wire byte by byte."""

import socket
import struct

import pytest
from conftest import open_lab
from ravolab import craft
from ravolab.decode import checksum, decode_dhcp, mac_bytes, packed, udp_checksum
from scripted import counters, discover, frame_of, fresh_xid, stage  # noqa: F401 (a fixture)

IP_AT, UDP_AT, DHCP_AT = 14, 34, 42
IP_LENGTH, IP_FRAGMENT, IP_CHECKSUM = IP_AT + 2, IP_AT + 6, IP_AT + 10
UDP_LENGTH, UDP_CHECKSUM = UDP_AT + 4, UDP_AT + 6


@pytest.fixture(scope="module")
def lab():
    yield from open_lab(name="channel", servers=2)


def put(frame, at, value):
    """The frame with a 16-bit field changed."""
    return frame[:at] + struct.pack("!H", value) + frame[at + 2:]


def ip_sum(frame):
    """The frame with its IP header checksum made right."""
    frame = put(frame, IP_CHECKSUM, 0)
    return put(frame, IP_CHECKSUM, checksum(frame[IP_AT:IP_AT + 4 * (frame[IP_AT] & 15)]))


def flipped(frame, at):
    return frame[:at] + bytes((frame[at] ^ 0x10,)) + frame[at + 1:]


def check_read(stage, host, frame, message):
    """The frame is relayed once, with the port's option 82."""
    host.send(frame)
    sent = decode_dhcp(message)
    stage.check_relayed(sent, host)
    stage.fence(host)
    assert len(stage.seen("server1", sent.xid)) == 1


def check_dropped(stage, host, frames, message):
    """None of the frames is relayed; what comes behind them is."""
    before = counters(stage.relay)
    for frame in frames:
        host.send(frame)
    stage.fence(host)
    assert stage.seen("server1", decode_dhcp(message).xid) == []
    assert counters(stage.relay)["DISCOVER"] == before["DISCOVER"] + 1  # the fence alone


# ---- Whole frames ----

@pytest.mark.parametrize("port", [1, 4])
def test_untagged_broadcast(stage, port):
    host = stage.lab.client(port)
    message = discover(host)
    check_read(stage, host, frame_of(host, message), message)


@pytest.mark.parametrize("port", [1, 4])
def test_untagged_unicast(stage, port):
    """To the interface's address: port, bridge and interface all hear it, and the kernel delivers it to port 67."""
    host = stage.lab.client(port)
    message = discover(host)
    check_read(stage, host, stage.unicast(host, message, stage.lab.vlans[host.vlan].address), message)


def test_a_broadcast_frame_to_the_interface_address(stage):
    host = stage.lab.client(1)
    message = discover(host)
    check_read(stage, host, frame_of(host, message, destination="10.10.0.1"), message)


def test_a_frame_to_another_machine_is_not_read_as_its_message(stage):
    """To an address that is not the switch's: not relayed."""
    host = stage.lab.client(1)
    message = discover(host)
    host.send(frame_of(host, message, destination="10.10.0.200"))
    stage.fence(host)
    assert stage.seen("server1", decode_dhcp(message).xid) == []


def test_another_udp_port_is_not_read(stage):
    host = stage.lab.client(1)
    message = discover(host)
    check_dropped(stage, host, [frame_of(host, message, dport=port) for port in (66, 68, 69, 1067, 0)], message)


def test_padding_behind_the_packet_is_not_part_of_the_message(stage):
    host = stage.lab.client(1)
    for size in (1, 2, 46, 600):
        message = discover(host)
        check_read(stage, host, frame_of(host, message) + bytes((0x52,)) * size, message)


def test_bytes_behind_the_datagram_are_not_part_of_the_message(stage):
    """The IPv4 packet is longer than the UDP datagram in it."""
    host = stage.lab.client(1)
    for size in (1, 2, 30):
        message = discover(host)
        frame = frame_of(host, message) + bytes((0x52,)) * size
        check_read(stage, host, ip_sum(put(frame, IP_LENGTH, len(frame) - IP_AT)), message)


@pytest.mark.parametrize("length, passes", [(999, True), (1000, True), (1001, False), (1400, False)])
def test_the_longest_message(stage, length, passes):
    """1000 bytes fit; what is longer is cut, and a cut option area is no option area."""
    host = stage.lab.client(1)
    fill = length - len(discover(host))
    options = [(43, bytes(98))] * (fill // 100 - 1) + [(43, bytes(fill % 100 + 98))]
    message = discover(host, options=options)
    assert len(message) == length
    sent = decode_dhcp(message)
    host.send(frame_of(host, message))
    if passes:
        stage.check_relayed(sent, host, information=b"")  # there is no room for option 82
    stage.fence(host)
    assert len(stage.seen("server1", sent.xid)) == passes


# ---- VLAN tags ----

def test_a_tag_without_an_interface(stage):
    host = stage.lab.client(1)
    message = discover(host)
    check_dropped(stage, host, [frame_of(host, message, vlan=vlan) for vlan in (1, 10, 20, 30, 4094, 4095)], message)


@pytest.mark.parametrize("priority", [0, 1, 5, 7])
def test_a_priority_tag_is_no_vlan(stage, priority):
    host = stage.lab.client(1)
    message = discover(host)
    check_read(stage, host, frame_of(host, message, vlan=priority << 13), message)


def test_two_tags(stage):
    host = stage.lab.client(1)
    message = discover(host)
    plain = frame_of(host, message)

    def tagged(*tags):
        return plain[:12] + b"".join(struct.pack("!HH", *tag) for tag in tags) + plain[12:]

    check_dropped(stage, host, [tagged((0x8100, 30), (0x8100, 10)), tagged((0x88A8, 10)), tagged((0x88A8, 0)),
                                tagged((0x88A8, 30), (0x8100, 10)), tagged((0x8100, 10), (0x88A8, 10)),
                                tagged((0x8100, 0), (0x8100, 0), (0x8100, 0))], message)


# ---- IPv4 ----

@pytest.mark.parametrize("words", range(1, 11))
def test_ip_options_are_skipped(stage, words):
    host = stage.lab.client(1)
    message = discover(host)
    frame = frame_of(host, message)
    options = bytes((0x94, 4, 0, 0)) + bytes((1,)) * (4 * words - 4)  # router alert, then no-operation
    frame = (frame[:IP_AT] + bytes((0x45 + words,)) + frame[IP_AT + 1:UDP_AT] + options + frame[UDP_AT:])
    check_read(stage, host, ip_sum(put(frame, IP_LENGTH, len(frame) - IP_AT)), message)


@pytest.mark.parametrize("field", [0x2000, 0x2001, 0x0001, 0x1FFF, 0x6000, 0x8000 | 0x2000])
def test_fragments_are_dropped(stage, field):
    host = stage.lab.client(1)
    message = discover(host)
    check_dropped(stage, host, [ip_sum(put(frame_of(host, message), IP_FRAGMENT, field))], message)


@pytest.mark.parametrize("field", [0x0000, 0x4000])
def test_the_dont_fragment_bit_does_not_matter(stage, field):
    host = stage.lab.client(1)
    message = discover(host)
    check_read(stage, host, ip_sum(put(frame_of(host, message), IP_FRAGMENT, field)), message)


def test_bad_ip_checksum(stage):
    host = stage.lab.client(1)
    message = discover(host)
    frame = frame_of(host, message)
    # Each byte of the header but those that decide whether the frame is looked at at all.
    places = [at for at in range(IP_AT, UDP_AT) if at not in (IP_AT, IP_AT + 6, IP_AT + 7, IP_AT + 9)]
    check_dropped(stage, host, [flipped(frame, at) for at in places], message)


def test_wrong_lengths(stage):
    """Lengths that contradict each other or the frame, under good checksums of the IP header."""
    host = stage.lab.client(1)
    message = discover(host)
    frame = frame_of(host, message)
    whole_ip, whole_udp = len(frame) - IP_AT, len(frame) - UDP_AT
    bad = [ip_sum(put(frame, IP_LENGTH, length)) for length in (0, 19, 20, 27, whole_ip - 1, whole_ip + 1, 0xFFFF)]
    bad += [put(put(frame, UDP_LENGTH, length), UDP_CHECKSUM, 0) for length in (0, 7, whole_udp + 1, 0xFFFF)]
    bad += [ip_sum(frame[:IP_AT] + bytes((first,)) + frame[IP_AT + 1:]) for first in (0x44, 0x40, 0x4F, 0x35, 0x65)]
    check_dropped(stage, host, bad, message)


def test_every_truncated_frame(stage):
    host = stage.lab.client(1)
    message = discover(host)
    frame = frame_of(host, message)
    check_dropped(stage, host, [frame[:length] for length in range(14, len(frame))], message)


# ---- UDP ----

def test_bad_udp_checksum(stage):
    host = stage.lab.client(1)
    message = discover(host)
    frame = frame_of(host, message)
    places = [UDP_AT, UDP_CHECKSUM, UDP_CHECKSUM + 1, DHCP_AT + 28, len(frame) - 2]
    check_dropped(stage, host, [flipped(frame, at) for at in places], message)


def test_no_udp_checksum(stage):
    host = stage.lab.client(1)
    message = discover(host)
    check_read(stage, host, put(frame_of(host, message), UDP_CHECKSUM, 0), message)


def test_good_udp_checksum_of_odd_lengths(stage):
    host = stage.lab.client(1)
    for size in (1, 2, 3, 4):
        message = discover(host, options=[(12, bytes(range(250, 250 + size)))])
        check_read(stage, host, frame_of(host, message), message)


def test_a_udp_checksum_of_all_ones(stage):
    """A sum that comes to zero is sent as 0xFFFF, RFC 768."""
    host = stage.lab.client(1)
    base = discover(host, options=[(43, b"\0\0")])
    place = len(base) - 3

    def field(word):
        message = base[:place] + struct.pack("!H", word) + base[place + 2:]
        datagram = struct.pack("!HHHH", 68, 67, 8 + len(message), 0) + message
        return message, udp_checksum(packed("0.0.0.0"), packed("255.255.255.255"), datagram)

    message = next(message for message, found in map(field, range(0x10000)) if found == 0)
    check_read(stage, host, put(frame_of(host, message), UDP_CHECKSUM, 0xFFFF), message)


@pytest.mark.parametrize("to", ["255.255.255.255", "10.10.0.1"])
def test_a_checksum_that_is_not_ready(stage, to):
    """An ordinary socket leaves the checksum to the device, and a veth has none to fill it in."""
    host = stage.lab.client(1)
    at_port = stage.lab.capture("swp1")
    message = discover(host)
    sent = decode_dhcp(message)
    host.namespace.ip("addr add 10.10.0.60/24 dev eth0")
    try:
        with host.udp(68) as sock:
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, b"eth0")
            sock.sendto(message, (to, 67))
        stage.check_relayed(sent, host)
        stage.fence(host)
    finally:
        host.namespace.ip("addr del 10.10.0.60/24 dev eth0")
    assert len(stage.seen("server1", sent.xid)) == 1
    assert not at_port.wait_dhcp(xid=sent.xid).udp_checksum_ok  # it was not there when the frame came in


# ---- Port unreachable ----

def refused_ports(packets):
    """The UDP ports that the switch called unreachable, in order."""
    return [struct.unpack("!H", packet.raw[IP_AT + 28 + 22:IP_AT + 28 + 24])[0] for packet in packets
            if packet.icmp == (3, 3) and not packet.outgoing]


def provoke(stage):
    """Send to the relay's ports as servers do, then to one that nobody holds; the ports that were refused."""
    capture = stage.lab.capture(stage.lab.server_host(1))
    for address in ("10.10.0.1", "192.0.2.1"):
        for port in (67, 68):
            stage.sockets["server1"].sendto(b"x" * 300, (address, port))
    stage.sockets["server1"].sendto(b"x", ("192.0.2.1", 9))
    capture.wait(lambda packet: refused_ports([packet]) == [9], 30, "refusal of port 9")
    return refused_ports(capture.packets)


def test_servers_never_hear_port_unreachable(stage):
    """While the relay is on. With the relay off the same traffic is refused."""
    stage.lab.switch.set("ipv4/icmp_ratelimit", 0)
    assert provoke(stage) == [9]
    traffic = stage.lab.capture(stage.lab.server_host(1))
    for port in (1, 2, 3, 4):
        host = stage.lab.client(port)
        stage.delivered(stage.answer(stage.relayed(stage.ask(host))), host)
    assert provoke(stage) == [9]
    assert refused_ports(traffic.packets) == [9]
    stage.relay.configure("no ip dhcp relay")
    assert provoke(stage) == [67, 68, 67, 68, 9]
    stage.relay.configure("ip dhcp relay")
    assert provoke(stage) == [9]


def test_the_mac_of_the_frame_does_not_name_the_client(stage):
    """What counts is the client's address in the message, not the frame's source."""
    host = stage.lab.client(1)
    message = craft.message("DISCOVER", mac="02:00:00:00:77:77", xid=fresh_xid())
    sent = decode_dhcp(message)
    host.send(frame_of(host, message))
    request = stage.check_relayed(sent, host)
    reply = stage.answer(request)
    packet = stage.delivered(reply, host)
    assert mac_bytes(packet.dst_mac) == mac_bytes("02:00:00:00:77:77")
