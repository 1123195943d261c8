# SPDX-License-Identifier: Apache-2.0
"""The layer-2 channel: which frames are read, as what, and how often. Frames are put on the wire byte by byte."""

import json
import socket
import struct

import pytest
from conftest import open_lab
from ravolab import Host, Vlan, craft
from ravolab.decode import checksum, decode_dhcp, mac_bytes, packed, udp_checksum
from scripted import Stage, counters, fresh_xid

IP_AT, UDP_AT, DHCP_AT = 14, 34, 42
IP_LENGTH, IP_FRAGMENT, IP_CHECKSUM = IP_AT + 2, IP_AT + 6, IP_AT + 10
UDP_LENGTH, UDP_CHECKSUM = UDP_AT + 4, UDP_AT + 6


@pytest.fixture(scope="module")
def lab():
    yield from open_lab(name="channel", servers=2)


@pytest.fixture
def stage(lab, relay):
    stage = Stage(lab, relay)
    stage.configure()
    yield stage
    stage.close()


def discover(host, **fields):
    return craft.message("DISCOVER", mac=host.mac, xid=fresh_xid(), **fields)


def frame_of(host, message, **arguments):
    return craft.broadcast(message, host.mac, **arguments)


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


def remove_client(lab, host):
    """Unplug a client of a test's own, and forget its port."""
    lab.switch.run("ip", "link", "del", host.port_device, check=False)
    for vlan in lab.vlans.values():
        if host.port in vlan.ports:
            vlan.ports.remove(host.port)
    del lab.clients[host.port]
    host.namespace.close()


@pytest.fixture
def client5(stage):
    """A further client on port 5, in no bridge. Gone after the test, and so are its port and VLAN 30."""
    host = stage.lab.add_client(5, 10)
    try:
        stage.lab.switch.ip("link set swp5 nomaster")
        stage.at[host.name] = stage.lab.capture(host)
        yield host
    finally:
        stage.lab.switch.run("ip", "link", "del", "vlan30", check=False)
        remove_client(stage.lab, host)
        stage.lab.vlans.pop(30, None)


def try_ip(stage, line, needs):
    """Run a line of ip(8) in the switch; the test is skipped where the kernel cannot do it."""
    done = stage.lab.switch.run("ip", *line.split(), check=False)
    if done.returncode != 0:
        pytest.skip(f"this kernel has no {needs}: {done.stderr.strip()}")


def add_vlan30(stage, host):
    """The interface vlan30 has been made: give it its address and a server."""
    stage.lab.vlans[30] = Vlan(30, "10.30.0.1", "02:00:00:00:30:01", [5])
    stage.lab.switch.ip("addr add 10.30.0.1/24 dev vlan30", "link set vlan30 up")
    stage.lab.switch.wait_up("vlan30")
    host.namespace.wait_up(host.device)
    stage.relay.configure("interface vlan 30", "ip dhcp relay address 192.0.2.11")
    host.vlan = 30


@pytest.fixture
def routed_port(stage, client5):
    """Port 5, a NIC of its own with VLAN 30 tagged on it: the device vlan30 stands on swp5. Its host."""
    try_ip(stage, "link add link swp5 name vlan30 index 1054 address 02:00:00:00:30:01 type vlan id 30", "VLAN devices")
    add_vlan30(stage, client5)
    return client5


@pytest.mark.parametrize("priority", [0, 6])
def test_a_tag_with_its_interface(stage, routed_port, priority):
    """Read on the NIC, once, and answered through the VLAN interface: the reply leaves with the tag."""
    message = discover(routed_port)
    sent = decode_dhcp(message)
    routed_port.send(frame_of(routed_port, message, vlan=30 | priority << 13))
    request = stage.check_relayed(sent, routed_port)
    reply = stage.answer(request)
    packet = stage.delivered(reply, routed_port)
    assert (packet.vlan, packet.src_mac) == (30, "02:00:00:00:30:01")
    assert (packet.dst, packet.dhcp.type) == ("10.30.0.77", "OFFER")


def test_other_tags_and_none_on_that_port(stage, routed_port):
    message = discover(routed_port)
    for vlan in (None, 0, 10, 31):
        routed_port.send(frame_of(routed_port, message, vlan=vlan))
    last = discover(routed_port)
    routed_port.send(frame_of(routed_port, last, vlan=30))
    stage.relayed(decode_dhcp(last))
    assert stage.seen("server1", decode_dhcp(message).xid) == []


def test_a_bridge_over_the_tagged_port_is_one_interface(stage, client5):
    """NIC, VLAN device, bridge: the message is still relayed once."""
    try_ip(stage, "link add link swp5 name up30 type vlan id 30", "VLAN devices")
    stage.lab.switch.ip("link add vlan30 index 1054 address 02:00:00:00:30:01 type bridge stp_state 0 forward_delay 0",
                        "link set up30 master vlan30 up")
    add_vlan30(stage, client5)
    message = discover(client5)
    sent = decode_dhcp(message)
    client5.send(frame_of(client5, message, vlan=30))
    stage.check_relayed(sent, client5)
    last = discover(client5)
    client5.send(frame_of(client5, last, vlan=30))
    stage.relayed(decode_dhcp(last))
    assert len(stage.seen("server1", sent.xid)) == 1


def test_a_vlan_aware_bridge(stage, client5):
    """The tag decides on a trunk port, the port's own VLAN where there is none."""
    try_ip(stage, "link add trunk type bridge stp_state 0 forward_delay 0 vlan_filtering 1 vlan_default_pvid 0",
           "VLAN filtering of bridges")
    try:
        stage.lab.switch.ip("link set trunk up", "link set swp5 master trunk up")
        try_ip(stage, "link add link trunk name vlan30 index 1054 address 02:00:00:00:30:01 type vlan id 30",
               "VLAN devices")
        add_vlan30(stage, client5)
        for words in ("dev swp5 vid 30 pvid untagged", "dev swp5 vid 31", "dev trunk vid 30 self"):
            stage.lab.switch.run("bridge", "vlan", "add", *words.split())
        for vlan in (None, 0, 30):
            message = discover(client5)
            client5.send(frame_of(client5, message, vlan=vlan))
            stage.check_relayed(decode_dhcp(message), client5)
        other = discover(client5)
        client5.send(frame_of(client5, other, vlan=31))
        last = discover(client5)
        client5.send(frame_of(client5, last, vlan=30))
        stage.relayed(decode_dhcp(last))
        assert stage.seen("server1", decode_dhcp(other).xid) == []
    finally:
        stage.lab.switch.ip("link del trunk")


def test_a_routed_port_is_port_and_interface_at_once(stage):
    """A device named vlan30 that stands on nothing: a message and its reply pass, once."""
    lab = stage.lab
    host = Host(lab, "client6", 6, 30, "02:00:00:00:00:06")
    lab.switch.ip("link add vlan30 index 5126 address 02:00:00:00:30:01 type veth peer name eth0 "
                  f"address {host.mac} netns {host.namespace.path}")
    try:
        host.namespace.ip("link set eth0 up")
        stage.at[host.name] = lab.capture(host)
        add_vlan30(stage, host)
        message = discover(host)
        host.send(frame_of(host, message))
        request = stage.check_relayed(decode_dhcp(message), host)
        packet = stage.delivered(stage.answer(request), host)
        assert (packet.src_mac, packet.src, packet.dst) == ("02:00:00:00:30:01", "10.30.0.1", "10.30.0.77")
        tagged = discover(host)
        host.send(frame_of(host, tagged, vlan=30))
        last = discover(host)
        host.send(frame_of(host, last))
        stage.relayed(decode_dhcp(last))
        assert len(stage.seen("server1", decode_dhcp(message).xid)) == 1
        assert stage.seen("server1", decode_dhcp(tagged).xid) == []
    finally:
        lab.switch.ip("link del vlan30")
        host.namespace.close()
        lab.vlans.pop(30, None)


@pytest.fixture
def uplink(stage):
    """The first server's port leaves its VLAN and is a routed device with an address of its own; its server host."""
    switch, server = stage.lab.switch, stage.lab.server_host(1)
    try:
        switch.ip("link set swp9 nomaster", "addr add 198.51.100.1/24 dev swp9")
        server.namespace.ip("addr add 198.51.100.2/24 dev eth0", "route add 10.10.0.0/16 via 198.51.100.1")
        stage.relay.configure("interface vlan 10", "no ip dhcp relay address", "ip dhcp relay address 198.51.100.2")
        yield server
    finally:
        server.namespace.run("ip", "route", "del", "10.10.0.0/16", check=False)
        server.namespace.run("ip", "addr", "del", "198.51.100.2/24", "dev", "eth0", check=False)
        switch.run("ip", "addr", "del", "198.51.100.1/24", "dev", "swp9", check=False)
        switch.ip("link set swp9 master vlan99")
        switch.wait_up("swp9")


def test_servers_behind_a_device_of_no_vlan(stage, uplink):
    """The road to the servers is no VLAN of the switch, the reply is delivered all the same, once."""
    host = stage.lab.client(1)
    sent = stage.ask(host)
    request = stage.relayed(sent)
    assert (request.src, request.dst) == ("198.51.100.1", "198.51.100.2")
    assert request.dhcp.relay_information.raw == stage.information(host)[2:]
    reply = stage.answer(request)
    stage.delivered(reply, host)
    stage.fence_replies(host)
    assert len(stage.replies(host, reply.xid)) == 1


def test_of_such_a_device_only_replies_to_an_interface_are_read(stage, uplink):
    host, there = stage.lab.client(1), stage.sockets["server1"]
    request = stage.relayed(stage.ask(host))
    stage.relay.sh("clear ip dhcp relay statistics")
    question = craft.message("DISCOVER", mac="02:00:00:00:77:77", xid=fresh_xid())
    there.sendto(stage.build_answer(request).raw, ("198.51.100.1", 67))  # to the box, but to no interface of the relay
    there.sendto(question, ("198.51.100.1", 67))
    uplink.send(craft.broadcast(question, uplink.mac))
    there.sendto(question, ("10.10.0.1", 67))
    stage.delivered(stage.answer(request), host)
    assert stage.seen("server1", decode_dhcp(question).xid) == []
    told = stage.relay.sh("show ip dhcp relay statistics").split("\n\n")[0]
    rows = dict(line.split(None, 2)[:2] for line in told.splitlines() if line.startswith("  ") and line[-1] != ":")
    assert rows == {"received": "2", "sent": "1", "DISCOVER": "1", "OFFER": "1", "delivered": "1", "unknown-vlan": "1"}
    told = json.loads(stage.relay.sh("show ip dhcp relay statistics vlan 10 | json"))
    assert (told["received"], told["outcomes"]["delivered"], told["types"]["offer"]) == (1, 1, 1)
    assert json.loads(stage.relay.sh("show ip dhcp relay server | json"))["servers"][0]["answered"] == 1


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
