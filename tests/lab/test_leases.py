# SPDX-License-Identifier: Apache-2.0
"""A lease through the relay: each client with each server.

The client's view, the server's view and the captures of both sides are compared, whole messages byte by
byte, with what lab/ravolab/decode.py computes for them.
"""

import pytest

from ravolab import Dhclient, Dhcpcd, Dhcpd, Dnsmasq, Kea, Udhcpc
from ravolab.decode import delivered_reply, frame_header, option82, relayed_request

EXCHANGE = ("DISCOVER", "OFFER", "REQUEST", "ACK")


def configure(relay, server):
    """Option 82 inserted; the check of replies against it is on from the start."""
    relay.configure("ip dhcp relay information option",
                    "interface vlan 10", f"ip dhcp relay address {server.address}", "exit",
                    "interface vlan 20", f"ip dhcp relay address {server.address}", "exit",
                    "ip dhcp relay")


def of_kind(lab, kind):
    return next(server for server in lab.servers if isinstance(server, kind))


def messages(capture, mac, since=0.0):
    """{type: packet} of the client's exchange that ended with the last ACK."""
    ack = capture.dhcp("ACK", mac=mac)[-1]
    return {kind: [packet for packet in capture.dhcp(kind, mac=mac)
                   if packet.dhcp.xid == ack.dhcp.xid and packet.time >= since][-1]
            for kind in EXCHANGE}


@pytest.mark.parametrize("port", [1, 4])
@pytest.mark.parametrize("client_kind", [Udhcpc, Dhclient, Dhcpcd])
@pytest.mark.parametrize("server_kind", [Kea, Dnsmasq, Dhcpd])
def test_lease(lab, relay, client_kind, server_kind, port):
    host, server = lab.client(port), of_kind(lab, server_kind)
    vlan = lab.vlans[host.vlan]
    configure(relay, server)
    at_client, at_server = lab.capture(host), lab.capture(server.host)

    lease = host.run(client_kind)

    # The client's view and the server's view are the same lease.
    assert server.owns(lease.address)
    assert lease.address.startswith(f"10.{vlan.id}.0.")
    assert (lease.server, lease.router, lease.seconds) == (server.address, vlan.address, server.lease_time)
    assert server.leases()[host.mac] == lease.address

    client_side, server_side = messages(at_client, host.mac), messages(at_server, host.mac)
    for kind in ("DISCOVER", "REQUEST"):
        check_request(client_side[kind], server_side[kind], vlan, host, server)
    for kind in ("OFFER", "ACK"):
        check_reply(client_side[kind], server_side[kind], vlan, host)


def check_request(sent, received, vlan, host, server):
    """The server got the client's message with hops, giaddr and option 82, and nothing else changed."""
    information = option82(vlan.id, 1, host.port, vlan.mac)
    assert received.payload.hex() == relayed_request(sent.payload, vlan.address, information).hex()
    assert (received.src, received.sport, received.dst, received.dport) == ("192.0.2.1", 68, server.address, 67)
    decoded = received.dhcp
    assert (decoded.hops, decoded.giaddr, decoded.xid) == (sent.dhcp.hops + 1, vlan.address, sent.dhcp.xid)
    seen = decoded.relay_information
    assert (seen.vlan, seen.module, seen.port, seen.mac) == (vlan.id, 1, host.port, vlan.mac)


def check_reply(received, sent, vlan, host):
    """The client got the server's message without option 82, behind 42 bytes that are all as they should be."""
    assert sent.dhcp.relay_information.raw == option82(vlan.id, 1, host.port, vlan.mac)[2:]
    assert received.payload.hex() == delivered_reply(sent.payload).hex()
    assert received.dhcp.relay_information is None
    broadcast = received.dhcp.flags & 0x8000 or received.dhcp.yiaddr == "0.0.0.0"
    destination = "255.255.255.255" if broadcast else received.dhcp.yiaddr
    header = frame_header(vlan.mac, host.mac, vlan.address, destination, received.payload)
    assert received.raw[:42].hex() == header.hex()
    assert received.ip_checksum_ok
    assert received.udp_checksum_ok
    assert (received.sport, received.dport) == (67, 68)


@pytest.mark.parametrize("server_kind", [Kea, Dnsmasq, Dhcpd])
def test_each_message_passes_once(lab, relay, server_kind):
    """One client, one exchange: each of the four messages is seen exactly once on either side."""
    host, server = lab.client(2), of_kind(lab, server_kind)
    configure(relay, server)
    with lab.capture(host) as at_client, lab.capture(server.host) as at_server:
        host.run(Udhcpc)
        at_client.wait_dhcp("ACK", mac=host.mac)
    for capture in (at_client, at_server):
        assert [packet.dhcp.type for packet in capture.dhcp(mac=host.mac)] == list(EXCHANGE)


def test_server_never_hears_port_unreachable(lab, relay):
    """The relay holds port 67 and 68: the kernel must not refuse what the servers send to it."""
    server = of_kind(lab, Kea)
    configure(relay, server)
    with lab.capture(server.host) as at_server:
        for port in (1, 3):
            lab.client(port).run(Udhcpc)
    assert [packet for packet in at_server.packets if packet.icmp] == []


def test_no_lease_while_the_relay_is_off(lab, relay):
    """The lab proves something: with the relay off no message reaches a server, and no client gets a lease."""
    host, server = lab.client(1), of_kind(lab, Kea)
    configure(relay, server)
    relay.configure("no ip dhcp relay")
    with lab.capture(host) as at_client, lab.capture(server.host) as at_server:
        client = host.start(Udhcpc, options=["-t", "2", "-T", "1"])
        assert client.process.wait(60) != 0
        client.stop()
    assert client.lease() is None
    assert len(at_client.dhcp("DISCOVER", mac=host.mac)) == 2
    assert at_server.dhcp(mac=host.mac) == []


def test_lease_after_a_reset(lab, relay):
    """A reset forgets all interfaces; those that exist come back at once, so that the relay can be configured anew."""
    host, server = lab.client(1), of_kind(lab, Dnsmasq)
    configure(relay, server)
    at_server = lab.capture(server.host)
    relay.sh("reset relay")
    configure(relay, server)
    assert server.owns(host.run(Udhcpc).address)
    assert at_server.dhcp("DISCOVER", mac=host.mac)[-1].dhcp.giaddr == lab.vlans[host.vlan].address
