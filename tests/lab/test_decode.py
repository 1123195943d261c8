# SPDX-License-Identifier: Apache-2.0
"""The lab's decoder against another one, Scapy: what every other test here relies on."""

import struct

import pytest
from scapy.layers.dhcp import BOOTP, DHCP
from scapy.layers.inet import IP, UDP
from scapy.layers.l2 import Ether

from ravolab import craft, decode
from ravolab.decode import decode_dhcp, delivered_reply, frame_header, option82, relay_information, relayed_request

MAC = "02:00:00:00:00:01"


@pytest.mark.parametrize("padding", [0, 1, 2, 3])
def test_frame_header_is_what_scapy_builds(padding):
    payload = craft.message("OFFER", op=2, mac=MAC, xid=7, yiaddr="10.10.0.100", padding=bytes(range(1, 1 + padding)))
    ours = frame_header("02:00:00:00:10:01", MAC, "10.10.0.1", "10.10.0.100", payload) + payload
    theirs = (Ether(dst=MAC, src="02:00:00:00:10:01") / IP(id=0, flags="DF", src="10.10.0.1", dst="10.10.0.100")
              / UDP(sport=67, dport=68) / payload)
    assert ours.hex() == bytes(theirs).hex()


def test_decode_reads_what_scapy_builds():
    frame = (Ether(dst="ff:ff:ff:ff:ff:ff", src=MAC) / IP(src="0.0.0.0", dst="255.255.255.255")
             / UDP(sport=68, dport=67) / BOOTP(chaddr=bytes.fromhex("020000000001"), xid=0x01020304, flags=0x8000)
             / DHCP(options=[("message-type", "discover"), ("vendor_class_id", b"phone"), "end"]))
    packet = decode(bytes(frame))
    assert (packet.src, packet.sport, packet.dst, packet.dport) == ("0.0.0.0", 68, "255.255.255.255", 67)
    assert packet.ip_checksum_ok and packet.udp_checksum_ok
    message = packet.dhcp
    assert (message.type, message.xid, message.flags, message.chaddr) == ("DISCOVER", 0x01020304, 0x8000, MAC)
    assert message.options == ((53, b"\x01"), (60, b"phone"))


def test_a_wrong_byte_is_noticed():
    payload = craft.message("DISCOVER", mac=MAC, xid=7)
    good = craft.broadcast(payload, MAC)
    for offset in (14 + 8, 14 + 20 + 8, len(good) - 1):
        bad = decode(good[:offset] + bytes((good[offset] ^ 1,)) + good[offset + 1:])
        assert not (bad.ip_checksum_ok and bad.udp_checksum_ok)


def test_tagged_frame():
    packet = decode(craft.broadcast(craft.message("DISCOVER", mac=MAC, xid=7), MAC, vlan=30))
    assert (packet.vlan, packet.dhcp.type, packet.udp_checksum_ok) == (30, "DISCOVER", True)


def test_option_82_there_and_back():
    sent = craft.message("DISCOVER", mac=MAC, xid=7, options=[(60, b"phone")], padding=bytes(40))
    information = option82(300, 2, 17, "02:00:00:00:10:01")
    assert information.hex() == "5212" "0106" "0004" "2c01" "0211" "0208" "0006" "020000001001"
    received = decode_dhcp(relayed_request(sent, "10.10.0.1", information))
    seen = received.relay_information
    assert (seen.vlan, seen.module, seen.port, seen.mac) == (300, 2, 17, "02:00:00:00:10:01")
    assert (received.hops, received.giaddr) == (1, "10.10.0.1")
    assert received.options[-1] == (82, information[2:])
    back = decode_dhcp(delivered_reply(received.raw))
    assert back.options == ((53, b"\x01"), (60, b"phone"))
    assert back.raw[:3] + back.raw[4:] == received.raw[:3] + received.raw[4:received.end - 20] + b"\xff"


def test_foreign_option_82_is_shown_as_bytes():
    seen = relay_information(bytes.fromhex("0203616263"))
    assert (seen.vlan, seen.port, seen.mac, seen.circuit, seen.remote) == (None, None, None, None, b"abc")
    assert str(seen) == "02 03 61 62 63"


def test_truncated_frames_are_no_dhcp_and_no_crash():
    whole = craft.broadcast(craft.message("DISCOVER", mac=MAC, xid=7), MAC)
    for length in range(14, len(whole)):
        decode(whole[:length])
    assert decode(whole[:14 + 20 + 8 + 239]).dhcp is None
    assert struct.unpack("!H", whole[12:14])[0] == 0x0800
