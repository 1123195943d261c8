# SPDX-License-Identifier: Apache-2.0
"""RELEASE, DECLINE and INFORM through the relay: what real servers make of them."""

import pytest
from conftest import open_lab
from ravolab import Dhclient, Dhcpd, Dnsmasq, Udhcpc, craft, wait_for
from ravolab.decode import delivered_reply, frame_header, option82, packed, relayed_request
from scripted import fresh_xid, transactions


@pytest.fixture
def lab():
    """Of each test's own: releases and declines change what a server has."""
    yield from open_lab(name="messages", servers=1)


def configure(relay, server):
    relay.configure("ip dhcp relay information option", "interface vlan 10", f"ip dhcp relay address {server.address}",
                    "exit", "ip dhcp relay")


def check_relayed(lab, host, sent, received):
    vlan = lab.vlans[host.vlan]
    information = option82(vlan.id, 1, host.port, vlan.mac)
    assert received.payload.hex() == relayed_request(sent.payload, vlan.address, information).hex()


def broadcast(host, kind, lease, *options, **fields):
    """Send a message of a client that has this lease."""
    payload = craft.message(kind, mac=host.mac, xid=fresh_xid(),
                            options=[(54, packed(lease.server)), *options], **fields)
    host.send(craft.broadcast(payload, host.mac))


@pytest.mark.parametrize("kind", [Dhcpd, Dnsmasq])
def test_release(lab, relay, kind):
    """A RELEASE that the client broadcasts gives its lease back, and leaves no transaction."""
    server, host = lab.add_server(kind, host=1), lab.client(1)
    configure(relay, server)
    at_client, at_server = lab.capture(host), lab.capture(server.host)
    lease = host.run(Udhcpc)
    assert server.leases()[host.mac] == lease.address
    broadcast(host, "RELEASE", lease, ciaddr=lease.address)
    check_relayed(lab, host, at_client.wait_dhcp("RELEASE"), at_server.wait_dhcp("RELEASE"))
    wait_for(lambda: host.mac not in server.leases(), 30, f"end of the lease at {server}")
    assert transactions(relay) == {}


def test_a_unicast_release_is_routed_and_not_relayed(lab, relay):
    """From the client to its server it passes once, untouched: the relay is not its addressee."""
    server, host = lab.add_server(Dhcpd, host=1), lab.client(1)
    configure(relay, server)
    at_client, at_server = lab.capture(host), lab.capture(server.host)
    client = host.start(Dhclient)
    address = client.wait_lease().address
    wait_for(lambda: address in host.namespace.run("ip", "addr", "show", "dev", host.device).stdout, 30, "address set")
    host.namespace.ip("route add 192.0.2.0/24 via 10.10.0.1")
    client.release()
    wait_for(lambda: host.mac not in server.leases(), 30, f"end of the lease at {server}")
    sent, received = at_client.wait_dhcp("RELEASE"), at_server.wait_dhcp("RELEASE")
    assert received.payload.hex() == sent.payload.hex()
    assert (received.dhcp.hops, received.dhcp.giaddr, received.dhcp.relay_information) == (0, "0.0.0.0", None)
    host.run(Udhcpc)  # whatever the relay would have made of the RELEASE had reached the server by now
    assert len(at_server.dhcp("RELEASE")) == 1


def test_decline(lab, relay):
    """A client whose script refuses the address declines it, and gets another one."""
    server, host = lab.add_server(Dhcpd, host=1), lab.client(1)
    configure(relay, server)
    at_client, at_server = lab.capture(host), lab.capture(server.host)
    client = host.start(Dhclient, script_status=1)
    sent, received = at_client.wait_dhcp("DECLINE"), at_server.wait_dhcp("DECLINE")
    client.stop()
    check_relayed(lab, host, sent, received)
    declined = sent.dhcp.option(50)
    text = ".".join(map(str, declined))
    wait_for(lambda: f"DHCPDECLINE of {text} from {host.mac}" in server.log and "abandoned" in server.log, 30,
             f"abandoned address at {server}; its log:\n{server.log}")
    assert sent.dhcp.xid not in transactions(relay)
    lease = host.run(Udhcpc)
    assert server.owns(lease.address) and packed(lease.address) != declined


def test_inform(lab, relay):
    """A client with an address of its own asks for the rest; the answer, with no address in it, is broadcast."""
    server, host = lab.add_server(Dnsmasq, host=1), lab.client(1)
    configure(relay, server)
    at_client, at_server = lab.capture(host), lab.capture(server.host)
    payload = craft.message("INFORM", mac=host.mac, xid=fresh_xid(), ciaddr="10.10.0.60", options=[(55, bytes((1, 3)))])
    host.send(craft.broadcast(payload, host.mac, source="10.10.0.60"))
    check_relayed(lab, host, at_client.wait_dhcp("INFORM"), at_server.wait_dhcp("INFORM"))
    sent, received = at_server.wait_dhcp("ACK"), at_client.wait_dhcp("ACK")
    message = delivered_reply(sent.payload)
    vlan = lab.vlans[10]
    assert received.dhcp.yiaddr == "0.0.0.0"
    header = frame_header(vlan.mac, host.mac, vlan.address, "255.255.255.255", message)
    assert received.raw.hex() == (header + message).hex()
    assert received.dhcp.option(3) == packed("10.10.0.1")
    assert transactions(relay) == {}
