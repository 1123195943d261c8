# SPDX-License-Identifier: Apache-2.0
"""The layer-2 channel on other devices than ports of a bridge: tags that have an interface, routed ports, uplinks."""

import json

import pytest
from conftest import open_lab
from ravolab import Host, Vlan, craft
from ravolab.decode import decode_dhcp
from scripted import discover, frame_of, fresh_xid, stage  # noqa: F401 (a fixture)


@pytest.fixture(scope="module")
def lab():
    yield from open_lab(name="devices", servers=2)


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
