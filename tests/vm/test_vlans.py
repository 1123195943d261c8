# SPDX-License-Identifier: Apache-2.0
"""Which VLAN and port a message belongs to where the kernel has VLANs, with messages made byte by byte."""

import signal

import pytest
from ravolab import Vlan, wait_for

PRIORITY = 5 << 13


@pytest.fixture
def host(stage, request):
    """The host on the port that the test names."""
    return stage.lab.client(request.param)


def on_port(number):
    return pytest.mark.parametrize("host", [number], indirect=True, ids=[f"port{number}"])


# ---- A VLAN-aware bridge ----

@on_port(1)
def test_access_port(stage, host):
    """The interface has the switch's own number for VLAN 10 as its kernel index."""
    stage.check_passes(host, 10)


@on_port(2)
def test_access_port_of_an_interface_with_another_index(stage, host):
    stage.check_passes(host, 20)


@on_port(3)
def test_trunk_port(stage, host):
    for vlan in (10, 20):
        stage.check_passes(host, vlan, tag=vlan, back=vlan)


@on_port(3)
def test_priority_beside_a_vlan(stage, host):
    stage.check_passes(host, 20, tag=20 | PRIORITY, back=20)


@on_port(1)
def test_priority_tag_on_an_access_port(stage, host):
    """A tag with VLAN 0 says nothing about the VLAN: the port's own one counts."""
    for tag in (0, PRIORITY):
        stage.check_passes(host, 10, tag=tag)


@on_port(1)
def test_own_vlan_tagged_on_an_access_port(stage, host):
    """The bridge takes it, and so does the relay; the answer leaves untagged as everything does there."""
    stage.check_passes(host, 10, tag=10)


@on_port(1)
def test_foreign_vlan_on_an_access_port(stage, host):
    """VLAN 20 has its interface, but the port is no member: the bridge drops such frames."""
    stage.check_dropped(host, 20, 40, 99, then=None)


@on_port(3)
def test_tags_without_an_interface_and_no_tag_on_a_trunk(stage, host):
    """30 and 31 are on the port, 30 has its interface elsewhere and 31 none; 35 is on no port; the trunk has no VLAN
    for untagged frames."""
    stage.check_dropped(host, 30, 31, 35, None, 0, PRIORITY, 4095, then=10)


@on_port(1)
def test_unicast_to_the_interface(stage, host):
    """Port, bridge and VLAN device all hear it, and the kernel delivers it to port 67: it is relayed once."""
    stage.check_passes(host, 10, to="10.10.0.1")


@on_port(3)
def test_unicast_with_a_tag(stage, host):
    stage.check_passes(host, 20, tag=20, back=20, to="10.20.0.1")


# ---- Changes while it runs ----

@on_port(1)
def test_pvid_changes(stage, host):
    try:
        stage.lab.bridge("vlan add dev swp1 vid 20 pvid untagged")
        stage.wait_port(1, 20)
        stage.check_passes(host, 20)
        stage.check_passes(host, 10, tag=10)  # VLAN 10 is still on the port
        stage.lab.bridge("vlan add dev swp1 vid 20")
        stage.wait_port(1, 0)
        stage.check_dropped(host, None, then=10)
    finally:
        stage.lab.bridge("vlan del dev swp1 vid 20", "vlan add dev swp1 vid 10 pvid untagged")
        stage.wait_port(1, 10)
    stage.check_passes(host, 10)


@on_port(3)
def test_vlan_leaves_a_trunk(stage, host):
    """The tap hears the frame that the bridge drops. VLANs come and go by the range."""
    stage.lab.bridge("vlan del dev swp3 vid 18-22", "vlan add dev swp3 vid 10 pvid untagged")
    try:
        stage.wait_port(3, 10)
        stage.check_dropped(host, 20, then=10)
        stage.check_passes(host, 10)
    finally:
        stage.lab.bridge("vlan add dev swp3 vid 19-21", "vlan add dev swp3 vid 10")
        stage.wait_port(3, 0)
    stage.check_passes(host, 20, tag=20, back=20)


@on_port(3)
def test_vlan_that_is_blocking_on_a_port(stage, host):
    """A spanning tree of its own: the bridge drops what comes in there on that VLAN, and takes the others."""
    stage.lab.bridge("vlan set vid 20 dev swp3 state blocking")
    try:
        stage.wait_dropped(host, 20)
        stage.check_ends(host, (20, 20, "bridge-refused"))
        stage.check_passes(host, 10, tag=10, back=10)
    finally:
        stage.lab.bridge("vlan set vid 20 dev swp3 state forwarding")
        stage.wait_relayed(host, 20)
    stage.check_passes(host, 20, tag=20, back=20)


@on_port(2)
def test_port_leaves_the_bridge_and_comes_back_elsewhere(stage, host):
    """A port that left the bridge has lost its VLANs; it comes back into another one."""
    before = stage.outcomes()
    stage.lab.switch.ip("link set swp2 nomaster")
    stage.wait_port(2, 0)
    lost = stage.ask_in_vain(host)
    stage.outcomes()  # told behind whatever the relay makes of that message
    try:
        stage.lab.switch.ip("link set swp2 master br0")
        stage.lab.bridge("vlan add dev swp2 vid 10 pvid untagged")
        stage.wait_port(2, 10)
        stage.check_passes(host, 10)
        assert stage.seen("server1", lost.xid) == []
        assert stage.outcomes()["relayed"] == before.get("relayed", 0) + 1
    finally:
        stage.lab.bridge("vlan del dev swp2 vid 10", "vlan add dev swp2 vid 20 pvid untagged")
        stage.wait_port(2, 20)
    stage.check_passes(host, 20)


@on_port(3)
def test_interface_comes_and_goes(stage, host):
    """VLAN 31 is on the port all the while, as one of a range."""
    lab = stage.lab
    lab.switch.ip("link add link br0 name br0.31 address 02:00:00:00:31:01 type vlan id 31",
                  "link set br0.31 up", "addr add 10.31.0.1/24 dev br0.31")
    lab.vlans[31] = Vlan(31, "10.31.0.1", "02:00:00:00:31:01", [])
    try:
        stage.wait_interface(31, "br0.31")
        stage.relay.configure("interface vlan 31", "ip dhcp relay address 192.0.2.11")
        stage.check_passes(host, 31, tag=31, back=31)
    finally:
        del lab.vlans[31]
        lab.switch.ip("link del br0.31")
    stage.wait_interface(31, None)
    stage.relay.configure("no interface vlan 31")
    stage.check_dropped(host, 31, then=10)


@pytest.fixture
def unaware(stage):
    """Makes the bridge ignore VLANs, or heed them again as it does at the end of the test."""
    def filtering(on):
        stage.lab.switch.ip(f"link set br0 type bridge vlan_filtering {on}")

    yield lambda: filtering(0), lambda: filtering(1)
    filtering(1)


# A bridge that ignores VLANs floods what clients send to the servers' ports too, and its VLAN 99 leaves there with a
# tag: what the relay made of a message is asked of its recorder.

@on_port(3)
def test_bridge_that_stops_to_heed_vlans(stage, host, unaware):
    """Then every tag reaches the bridge from every port, and a frame without one ends at the bridge itself. The
    relay goes by the kernel's word at once, both ways, and knows the ports' VLANs again."""
    ignore, heed = unaware
    access = stage.lab.client(1)
    stage.check_ends(host, (10, 10, "relayed"), (None, 0, "unknown-vlan"))
    stage.check_ends(access, (None, 10, "relayed"), (20, 20, "unknown-vlan"))
    ignore()
    stage.wait_relayed(access, 20)  # no member of VLAN 20, which nobody asks now
    stage.check_ends(access, (20, 20, "relayed"), (10, 10, "relayed"), (10 | PRIORITY, 10, "relayed"),
                     (31, 31, "unknown-vlan"), (None, 0, "unknown-vlan"), (PRIORITY, 0, "unknown-vlan"))
    stage.check_ends(host, (20, 20, "relayed"), (None, 0, "unknown-vlan"))
    heed()
    stage.wait_dropped(access, 20)
    stage.check_ends(access, (None, 10, "relayed"), (20, 20, "unknown-vlan"))
    stage.check_ends(host, (10, 10, "relayed"), (None, 0, "unknown-vlan"))
    stage.check_passes(host, 20, tag=20, back=20)


@on_port(3)
def test_bridge_without_vlans_that_is_an_interface(stage, host, unaware):
    """Untagged frames are the bridge's own then, also from a port whose PVID has another interface."""
    ignore, heed = unaware
    lab, relay = stage.lab, stage.relay
    access = lab.client(1)
    described = relay.switch_file.read_text()
    lab.switch.ip("addr add 10.31.0.1/24 dev br0")
    try:
        relay.switch_file.write_text(described + '[[interface]]\nvlan = 31\ndevice = "br0"\n')
        relay.process.send_signal(signal.SIGHUP)
        stage.wait_interface(31, "br0")
        relay.configure("interface vlan 31", "ip dhcp relay address 192.0.2.11")
        stage.check_ends(access, (None, 10, "relayed"))
        stage.check_ends(host, (None, 0, "unknown-vlan"), (20, 20, "relayed"))
        ignore()
        stage.wait_relayed(host, None)
        stage.check_ends(access, (None, 31, "relayed"), (PRIORITY, 31, "relayed"), (20, 20, "relayed"))
        stage.check_ends(host, (None, 31, "relayed"), (10, 10, "relayed"))
        heed()
        stage.wait_dropped(host, None)
        stage.check_ends(access, (None, 10, "relayed"))
    finally:
        relay.switch_file.write_text(described)
        relay.process.send_signal(signal.SIGHUP)
        stage.wait_interface(31, None)
        relay.configure("no interface vlan 31")
        lab.switch.ip("addr del 10.31.0.1/24 dev br0")


@on_port(3)
def test_interface_without_a_port(stage, host):
    """A VLAN that no port is in: its interface is there all the same, and works from the moment a port joins."""
    lab = stage.lab
    lab.bridge("vlan add dev br0 vid 35 self")
    lab.switch.ip("link add link br0 name br0.35 address 02:00:00:00:35:01 type vlan id 35",
                  "link set br0.35 up", "addr add 10.35.0.1/24 dev br0.35")
    lab.vlans[35] = Vlan(35, "10.35.0.1", "02:00:00:00:35:01", [])
    try:
        stage.wait_interface(35, "br0.35")
        stage.relay.configure("interface vlan 35", "ip dhcp relay address 192.0.2.11")
        stage.check_dropped(host, 35, then=10)
        lab.bridge("vlan add dev swp3 vid 35")
        stage.wait_relayed(host, 35)
        stage.check_passes(host, 35, tag=35, back=35)
        lab.bridge("vlan del dev swp3 vid 35")
        stage.wait_dropped(host, 35)
        stage.check_dropped(host, 35, then=10)
    finally:
        del lab.vlans[35]
        lab.switch.ip("link del br0.35")
        lab.bridge("vlan del dev br0 vid 35 self")
    stage.wait_interface(35, None)
    stage.relay.configure("no interface vlan 35")


@on_port(3)
def test_bridge_is_made_again(stage, host):
    """Its ports and VLAN devices go with it; what comes in its place works as before, with the settings of old."""
    lab = stage.lab
    lab.switch.ip("link del br0")
    lab.switch.ip("link add br0 address 02:00:00:00:00:b0 type bridge stp_state 0 forward_delay 0 vlan_filtering 1 "
                  "vlan_default_pvid 0", "link set br0 up")
    lab.set_up_bridge()
    lab.set_up_bridge_interfaces()
    lab.switch.wait_up("swp1", "swp2", "swp3", "swp9", "swp10", "vlan10", "up20", "vlan99")
    for vlan, device in ((10, "vlan10"), (20, "up20"), (99, "vlan99")):
        stage.wait_interface(vlan, device)
    wait_for(lambda: "wait for it" not in stage.relay.sh("show running-config"), 10, "settings given back")
    stage.check_passes(host, 20, tag=20, back=20)
    stage.check_passes(lab.client(1), 10)


# ---- Without a bridge ----

@on_port(4)
def test_vlan_device_on_a_nic(stage, host):
    stage.check_passes(host, 40, tag=40, back=40)
    stage.check_passes(host, 40, tag=40 | PRIORITY, back=40)


@on_port(4)
def test_unicast_to_a_vlan_device_on_a_nic(stage, host):
    stage.check_passes(host, 40, tag=40, back=40, to="10.40.0.1")


@on_port(4)
def test_other_tags_and_none_on_the_nic(stage, host):
    stage.check_dropped(host, None, 0, PRIORITY, 10, 30, 41, then=40)


@on_port(5)
def test_described_routed_port(stage, host):
    """No VLAN in the kernel: the description makes the device the interface of VLAN 30."""
    stage.check_passes(host, 30)
    stage.check_passes(host, 30, tag=PRIORITY)
    stage.check_passes(host, 30, to="10.30.0.1")


@on_port(5)
def test_tags_on_a_described_routed_port(stage, host):
    """Also its own VLAN's: the kernel has no device that would take it."""
    stage.check_dropped(host, 10, 30, 31, then=None)


# ---- Servers behind a device of no VLAN ----

def on_bridge(switch, bridge):
    """The bridge's own VLAN, 50, which has no interface, leads to the server: the address is the bridge's."""
    bridge("vlan del dev swp9 vid 99", "vlan add dev swp9 vid 50 pvid untagged",
           "vlan add dev br0 vid 50 pvid untagged self")
    switch.ip("addr add 198.51.100.1/24 dev br0")


def on_nic(switch, bridge):
    """The server is in the untagged network of a NIC that carries a VLAN too."""
    switch.ip("link set swp9 nomaster", "link add link swp9 name swp9.50 type vlan id 50",
              "addr add 198.51.100.1/24 dev swp9")


@pytest.fixture
def uplink(stage, request):
    lab = stage.lab
    server = lab.server_host(1).namespace
    try:
        request.param(lab.switch, lab.bridge)
        server.ip("addr add 198.51.100.2/24 dev eth0", "route add 10.10.0.0/16 via 198.51.100.1")
        stage.relay.configure("interface vlan 10", "no ip dhcp relay address", "ip dhcp relay address 198.51.100.2")
        yield
    finally:
        for device in ("br0", "swp9"):
            lab.switch.run("ip", "addr", "del", "198.51.100.1/24", "dev", device, check=False)
        lab.switch.run("ip", "link", "del", "swp9.50", check=False)
        lab.switch.run("bridge", "vlan", "del", "dev", "br0", "vid", "50", "self", check=False)
        server.run("ip", "route", "del", "10.10.0.0/16", check=False)
        server.run("ip", "addr", "del", "198.51.100.2/24", "dev", "eth0", check=False)
        lab.switch.ip("link set swp9 nomaster", "link set swp9 master br0")
        lab.bridge("vlan add dev swp9 vid 99 pvid untagged")
        stage.relay.configure("interface vlan 10", "no ip dhcp relay address", "ip dhcp relay address 192.0.2.11")
        stage.wait_port(9, 99)


@pytest.mark.parametrize("uplink", [on_bridge, on_nic], indirect=True)
@on_port(1)
def test_servers_behind_a_device_of_no_vlan(stage, host, uplink):
    """Each reply is delivered, and accounted for, once: the bridge, its port and the VLAN device all hear it."""
    before = stage.outcomes()
    for _ in range(3):
        request = stage.relayed(stage.ask(host))
        assert request.src == "198.51.100.1"
        reply = stage.answer(request)
        stage.delivered(reply, host)
        assert len(stage.replies(host, reply.xid)) == 1
    after = stage.outcomes()
    assert {word: after[word] - before.get(word, 0) for word in after if after[word] != before.get(word, 0)} == {
        "relayed": 3, "delivered": 3}
