# SPDX-License-Identifier: Apache-2.0
"""Replies on the way to the client: which are delivered, and the frame that the client gets, byte by byte."""

import pytest
from conftest import open_lab
from ravolab.craft import shown_xid
from ravolab.decode import delivered_reply, frame_header, option82
from scapy.layers.dhcp import BOOTP
from scapy.layers.inet import IP, UDP
from scapy.layers.l2 import Ether
from scripted import Stage, counters, fresh_xid, transactions

BROADCAST = "255.255.255.255"


@pytest.fixture(scope="module")
def lab():
    yield from open_lab(name="replies", servers=2)


@pytest.fixture
def stage(lab, relay):
    stage = Stage(lab, relay)
    yield stage
    stage.close()


def asked(stage, port=1, kind="DISCOVER", **fields):
    """(client host, its request as the server has it)"""
    host = stage.lab.client(port)
    return host, stage.relayed(stage.ask(host, kind, **fields))


def check_delivered(stage, sent, host, destination, *, mac=None, message=None):
    """The client has the reply once, its 42 header bytes and the message as they must be; the packet."""
    packet = stage.delivered(sent, host)
    vlan = stage.lab.vlans[host.vlan]
    message = delivered_reply(sent.raw) if message is None else message
    header = frame_header(vlan.mac, mac or host.mac, vlan.address, destination, message)
    assert packet.raw.hex() == (header + message).hex()
    assert stage.replies(host, sent.xid) == [packet]
    return packet


def check_scapy_agrees(packet):
    """Another decoder finds the same values, and computes the same two checksums."""
    frame = Ether(packet.raw)
    ip, udp = frame[IP], frame[UDP]
    assert (ip.version, ip.ihl, ip.tos, ip.id) == (4, 5, 0, 0)
    assert (str(ip.flags), ip.frag, ip.ttl, ip.proto) == ("DF", 0, 64, 17)
    assert (udp.sport, udp.dport, frame[BOOTP].op) == (67, 68, 2)
    given = (ip.chksum, udp.chksum)
    bare = Ether(packet.raw)
    del bare[IP].chksum, bare[UDP].chksum
    computed = Ether(bytes(bare))
    assert given == (computed[IP].chksum, computed[UDP].chksum)


def check_nothing_delivered(stage, xid):
    """A good reply from the same server has passed meanwhile; nobody in the VLAN got one of that transaction."""
    stage.fence_replies(stage.lab.client(1))
    for port in stage.lab.clients:
        assert stage.replies(stage.lab.client(port), xid) == []


# ---- What the client gets ----

@pytest.mark.parametrize("port", [1, 2, 3, 4])
@pytest.mark.parametrize("flags, yiaddr, destination", [
    (0, True, "yiaddr"), (0x8000, True, BROADCAST), (0, False, BROADCAST), (0x8000, False, BROADCAST)])
def test_reply(stage, port, flags, yiaddr, destination):
    stage.configure()
    for kind in ("OFFER", "ACK", "NAK"):
        host, request = asked(stage, port, flags=flags)
        address = f"10.{host.vlan}.0.77" if yiaddr else "0.0.0.0"
        sent = stage.answer(request, kind, yiaddr=address)
        packet = check_delivered(stage, sent, host, address if destination == "yiaddr" else destination)
        check_scapy_agrees(packet)
        assert (packet.dhcp.type, packet.dhcp.relay_information, packet.dhcp.hops) == (kind, None, 1)
        assert packet.dhcp.giaddr == stage.lab.vlans[host.vlan].address


@pytest.mark.parametrize("htype, hlen", [(6, 6), (1, 0), (1, 8), (32, 16), (0, 6)])
@pytest.mark.parametrize("flags", [0, 0x8000])
def test_hardware_that_is_not_ethernet_gets_a_broadcast_frame(stage, htype, hlen, flags):
    stage.configure()
    host, request = asked(stage, htype=htype, hlen=hlen, flags=flags)
    sent = stage.answer(request, htype=htype, hlen=hlen)
    destination = BROADCAST if flags else "10.10.0.77"
    check_delivered(stage, sent, host, destination, mac="ff:ff:ff:ff:ff:ff")


@pytest.mark.parametrize("length", range(1, 9))
def test_odd_and_even_lengths(stage, length):
    """The last byte of an odd message counts as the upper half of a word in the UDP checksum."""
    stage.configure()
    host, request = asked(stage)
    carried = request.dhcp.relay_information.raw
    sent = stage.answer(request, options=[(15, bytes(range(200, 200 + length))), (82, carried)])
    packet = check_delivered(stage, sent, host, "10.10.0.77")
    check_scapy_agrees(packet)


def test_option_82_is_cut_out_wherever_it_stands(stage):
    stage.configure()
    for before, behind in ([], [(15, b"lab")]), ([(15, b"lab")], []), ([(15, b"lab")], [(6, bytes(4)), (43, bytes(9))]):
        host, request = asked(stage)
        carried = request.dhcp.relay_information.raw
        sent = stage.answer(request, options=[*before, (82, carried), *behind])
        check_delivered(stage, sent, host, "10.10.0.77")


def test_a_checksum_that_comes_to_zero_is_sent_as_zero(stage):
    """A two-byte option is chosen so that the UDP checksum field comes to 0x0000."""
    stage.configure()
    host, request = asked(stage)
    carried = request.dhcp.relay_information.raw
    vlan = stage.lab.vlans[host.vlan]

    def frame_of(word):
        options = [(82, carried), (43, word.to_bytes(2, "big"))]
        message = delivered_reply(stage.build_answer(request, options=options).raw)
        return options, frame_header(vlan.mac, host.mac, vlan.address, "10.10.0.77", message)[40:42]

    options = next(options for options, field in map(frame_of, range(0x10000)) if field == b"\0\0")
    sent = stage.answer(request, options=options)
    packet = check_delivered(stage, sent, host, "10.10.0.77")
    assert packet.datagram[6:8] == b"\0\0"


def test_a_reply_of_the_server_from_another_port_than_67(stage):
    """Only the destination port makes a message the relay's."""
    stage.configure()
    host, request = asked(stage)
    sent = stage.build_answer(request)
    with stage.lab.server_host(2).udp(6767) as sock:
        sock.sendto(sent.raw, (sent.giaddr, 67))
        check_delivered(stage, sent, host, "10.10.0.77")


# ---- What is not delivered ----

def forged(stage, request, host, **change):
    """The option 82 of the request with one field changed."""
    vlan = stage.lab.vlans[host.vlan]
    return option82(**{"vlan": host.vlan, "module": 1, "port": host.port, "mac": vlan.mac, **change})


@pytest.mark.parametrize("change", [{"vlan": 20}, {"vlan": 10 << 8}, {"module": 2}, {"port": 2}])
def test_forged_circuit_id(stage, change):
    stage.configure()
    host, request = asked(stage)
    since = len(stage.relay.log)
    sent = stage.answer(request, information=forged(stage, request, host, **change))
    check_nothing_delivered(stage, sent.xid)
    stage.relay.wait_log(r"ravo_option_check_reply \(\d+\): option 82 circuit id content not matched, drop\n",
                         since=since)
    # The transaction is still open: the server's true reply gets through.
    assert transactions(stage.relay) == {sent.xid: (1, 1)}
    check_delivered(stage, stage.answer(request), host, "10.10.0.77")


@pytest.mark.parametrize("value, matches", [
    ("00040a00010100", True), ("00040a00010107", False), ("00040a000101" + "00" * 40, True),
    ("0005", False), ("00", True), ("", True)])
def test_circuit_id_of_another_length(stage, value, matches):
    """As many bytes are compared as the reply brings; behind the expected ones stand zeros."""
    stage.configure()
    host, request = asked(stage)
    circuit = bytes.fromhex(value)
    since = len(stage.relay.log)
    sent = stage.answer(request, information=bytes((82, len(circuit) + 2, 1, len(circuit))) + circuit)
    if matches:
        check_delivered(stage, sent, host, "10.10.0.77")
    else:
        check_nothing_delivered(stage, sent.xid)
        stage.relay.wait_log(r"option 82 circuit id content not matched, drop\n", since=since)


def test_forged_remote_id(stage):
    stage.configure()
    host, request = asked(stage)
    since = len(stage.relay.log)
    sent = stage.answer(request, information=forged(stage, request, host, mac="02:00:00:00:66:66"))
    check_nothing_delivered(stage, sent.xid)
    stage.relay.wait_log(r"ravo_option_check_reply \(\d+\): option 82 remote id content not matched, drop\n",
                         since=since)


def test_unknown_transaction(stage):
    stage.configure()
    host, request = asked(stage)
    unknown = fresh_xid()
    since = len(stage.relay.log)
    stage.answer(request, xid=unknown)
    check_nothing_delivered(stage, unknown)
    stage.relay.wait_log(no_transaction(host, unknown), since=since)
    check_delivered(stage, stage.answer(request), host, "10.10.0.77")


def no_transaction(host, xid):
    return (rf"ravo_option_check_reply \(\d+\): Can't find option 82 circuit id DB for client {host.mac.upper()},"
            rf"xid={shown_xid(xid)} drop\n")


def test_no_option_82(stage):
    stage.configure()
    host, request = asked(stage)
    since = len(stage.relay.log)
    sent = stage.answer(request, information=b"")
    check_nothing_delivered(stage, sent.xid)
    stage.relay.wait_log(r"ravo_option_check_reply \(\d+\): op82_data is null\n", since=since)


def test_an_option_82_that_does_not_begin_with_the_circuit_id(stage):
    stage.configure()
    host, request = asked(stage)
    remote_first = request.dhcp.relay_information.raw
    remote_first = remote_first[8:] + remote_first[:8]
    since = len(stage.relay.log)
    sent = stage.answer(request, information=bytes((82, len(remote_first))) + remote_first)
    check_nothing_delivered(stage, sent.xid)
    stage.relay.wait_log(r"ravo_option_check_reply \(\d+\): op82_data is null\n", since=since)


def test_second_reply_of_a_transaction(stage):
    """The first reply ends the transaction."""
    stage.configure(servers=(1, 2))
    host = stage.lab.client(1)
    question = stage.ask(host)
    requests = {number: stage.relayed(question, number) for number in (1, 2)}
    first = stage.answer(requests[1], server=1)
    check_delivered(stage, first, host, "10.10.0.77")
    since = len(stage.relay.log)
    stage.answer(requests[2], server=2, yiaddr="10.10.0.78")
    stage.fence_replies(host, server=2)
    stage.relay.wait_log(no_transaction(host, first.xid), since=since)
    assert [packet.dhcp.yiaddr for packet in stage.replies(host, first.xid)] == ["10.10.0.77"]


def test_an_answer_to_another_vlans_address(stage):
    """The circuit id names VLAN 10; the reply came to the address of VLAN 20."""
    stage.configure()
    host, request = asked(stage)
    sent = stage.answer(request, giaddr="10.20.0.1")
    check_nothing_delivered(stage, sent.xid)
    assert transactions(stage.relay) == {sent.xid: (1, 1)}


def test_an_answer_to_an_address_of_no_interface(stage):
    stage.configure()
    host, request = asked(stage)
    since = len(stage.relay.log)
    stage.lab.switch.ip("addr add 10.99.0.1/32 dev lo")
    try:
        sent = stage.answer(request, giaddr="10.99.0.1")
        check_nothing_delivered(stage, sent.xid)
    finally:
        stage.lab.switch.ip("addr del 10.99.0.1/32 dev lo")
    stage.relay.wait_log(r"ravo_l2_listen_hdlr \(\d+\): dest IP \S+ on received packet doesn't match IP address of "
                         r"ingress interface\(ifindex=99\)\n", since=since)


def test_a_reply_that_looped(stage):
    stage.configure()
    host, request = asked(stage)
    sent = stage.answer(request, hops=5)
    check_nothing_delivered(stage, sent.xid)
    check_delivered(stage, stage.answer(request, hops=4), host, "10.10.0.77")


def test_a_client_cannot_play_the_server(stage):
    """A reply that a client broadcasts brings its option 82 from an untrusted interface: the bridge floods it within
    the VLAN, the relay passes it to nobody."""
    stage.configure()
    host, request = asked(stage)
    rogue = stage.lab.client(2)
    forged_reply = stage.ask(rogue, "OFFER", op=2, mac=host.mac, xid=request.dhcp.xid,
                             options=[(82, request.dhcp.relay_information.raw)])
    stage.delivered(forged_reply, host)
    stage.fence_replies(rogue)
    assert [packet.src_mac for packet in stage.replies(host, request.dhcp.xid)] == [rogue.mac]
    assert transactions(stage.relay)[request.dhcp.xid] == (1, 1)


# ---- Without the check ----

@pytest.mark.parametrize("information", [b"", option82(7, 9, 63, "02:00:00:00:66:66")])
def test_check_off(stage, information):
    """Delivered whatever option 82 it has, as often as it comes; option 82 is still cut out, no transaction kept."""
    stage.configure("no ip dhcp relay information check")
    host, request = asked(stage)
    assert transactions(stage.relay) == {}
    sent = stage.answer(request, information=information)
    check_delivered(stage, sent, host, "10.10.0.77")
    second = stage.answer(request, information=information, xid=fresh_xid())
    check_delivered(stage, second, host, "10.10.0.77")
    stage.relay.configure("ip dhcp relay information check")
    again = stage.answer(request, information=information, xid=fresh_xid())
    check_nothing_delivered(stage, again.xid)


def test_insertion_off_leaves_option_82_in_the_reply(stage):
    stage.configure("no ip dhcp relay information option")
    host, request = asked(stage)
    sent = stage.answer(request, information=option82(7, 9, 63, "02:00:00:00:66:66"), padding=bytes(13))
    message = sent.raw[:3] + bytes((sent.hops + 1,)) + sent.raw[4:]
    check_delivered(stage, sent, host, "10.10.0.77", message=message)


def test_replies_are_counted_though_dropped(stage):
    stage.configure()
    host, request = asked(stage)
    before = counters(stage.relay)
    for kind in ("OFFER", "ACK", "NAK"):
        stage.answer(request, kind, information=b"")
    check_nothing_delivered(stage, request.dhcp.xid)
    after = counters(stage.relay)
    assert {kind: after[kind] - before[kind] for kind in after if after[kind] != before[kind]} == {
        "DISCOVER": 1, "OFFER": 2, "ACK": 1, "NAK": 1}
