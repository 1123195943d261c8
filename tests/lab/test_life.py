# SPDX-License-Identifier: Apache-2.0
"""Life on a running box: interfaces, addresses and ports come, change and go, and the relay follows without a restart.

While that happens a client on another VLAN exchanges messages without a pause, and loses none.
"""

import re

import pytest
from conftest import open_lab
from managed import descriptors_at_rest
from ravolab import Vlan, craft, wait_for
from ravolab.decode import decode_dhcp, relayed_request
from scripted import Stage, Steady, fresh_xid

CLIENT = 1  # the port that changes; the steady client is on port 3, VLAN 20


@pytest.fixture
def lab():
    """A lab of each test's own: what it does to the switch is not undone."""
    yield from open_lab(name="life", servers=2)


@pytest.fixture
def stage(lab, relay):
    stage = Stage(lab, relay)
    stage.configure(servers=(1, 2))
    yield stage
    stage.close()


@pytest.fixture
def steady(stage):
    """Goes on throughout the test, which fails when one of its exchanges was lost."""
    pid = stage.relay.pid
    with Steady(stage, stage.lab.client(3)) as steady:
        yield steady
        wait_for(lambda: len(steady.asked) > 10, 30, "steady traffic")
    steady.check()
    assert stage.relay.pid == pid and stage.relay.alive


def interfaces(relay):
    """{name: (number, state, address)} as "show interfaces brief" tells."""
    rows = re.findall(r"^(\S+(?: \d+/\d+)?) +(\d+) +(up|down) +(\S+) ", relay.sh("show interfaces brief"), re.M)
    return {name: (int(number), state, address) for name, number, state, address in rows}


def wait_interface(relay, name, expected):
    """Wait until the relay has heard of a change; expected: None for an interface that is gone."""
    wait_for(lambda: interfaces(relay).get(name) == expected, 30,
             lambda: f"{name} as {expected}; it is {interfaces(relay).get(name)}; change")


def settled(stage):
    """Whatever the kernel has told so far has been heard: commands are served behind it."""
    stage.relay.sh("show version")


def wait_up(lab, host, *devices):
    """Frames pass again between the host and these devices of the switch, its port among them."""
    host.namespace.wait_up(host.device)
    lab.switch.wait_up(*devices)


def check_exchange(stage, host, giaddr, information=None):
    """A request of the host is relayed with that relay address, and its reply is delivered."""
    sent = stage.ask(host)
    request = stage.relayed(sent)
    information = stage.information(host) if information is None else information
    assert request.payload.hex() == relayed_request(sent.raw, giaddr, information).hex()
    packet = stage.delivered(stage.answer(request), host)
    assert (packet.src, packet.dhcp.giaddr) == (giaddr, giaddr)
    return request


# ---- Interfaces ----

def test_an_interface_is_created_addressed_and_served(stage, steady):
    lab, relay = stage.lab, stage.relay
    lab.switch.ip("link add vlan30 index 1054 address 02:00:00:00:30:01 type bridge stp_state 0 forward_delay 0",
                  "link set vlan30 up")
    lab.vlans[30] = Vlan(30, "10.30.0.1", "02:00:00:00:30:01", [])
    wait_interface(relay, "vlan30", (1054, "up", "-"))
    host = lab.add_client(5, 30)
    stage.at[host.name] = lab.capture(host)
    relay.configure("interface vlan 30", "ip dhcp relay address 192.0.2.11")
    lab.switch.ip("addr add 10.30.0.1/24 dev vlan30")
    wait_interface(relay, "vlan30", (1054, "up", "10.30.0.1/24"))
    check_exchange(stage, host, "10.30.0.1")


def test_configured_before_it_exists(stage, steady):
    lab, relay = stage.lab, stage.relay
    relay.configure("interface vlan 30", "ip dhcp relay address 192.0.2.11")
    lab.add_vlan(30)
    host = lab.add_client(5, 30)
    stage.at[host.name] = lab.capture(host)
    settled(stage)
    check_exchange(stage, host, "10.30.0.1")


@pytest.mark.parametrize("new", ["10.10.0.2", "10.50.0.1"])
def test_readdressed_new_first(stage, steady, new):
    """In the same subnet the new address is a secondary one until the kernel promotes it."""
    lab, host = stage.lab, stage.lab.client(CLIENT)
    lab.switch.set("ipv4/conf/vlan10/promote_secondaries", 1)
    check_exchange(stage, host, "10.10.0.1")
    lab.switch.ip(f"addr add {new}/24 dev vlan10")
    settled(stage)
    check_exchange(stage, host, "10.10.0.1")
    lab.switch.ip("addr del 10.10.0.1/24 dev vlan10")
    wait_interface(stage.relay, "vlan10", (1034, "up", f"{new}/24"))
    check_exchange(stage, host, new)


@pytest.mark.parametrize("new", ["10.10.0.2", "10.50.0.1", "10.10.0.1"])
def test_readdressed_old_first(stage, steady, new):
    lab, host = stage.lab, stage.lab.client(CLIENT)
    check_exchange(stage, host, "10.10.0.1")
    lab.switch.ip("addr del 10.10.0.1/24 dev vlan10")
    wait_interface(stage.relay, "vlan10", (1034, "up", "-"))
    lab.switch.ip(f"addr add {new}/24 dev vlan10")
    wait_interface(stage.relay, "vlan10", (1034, "up", f"{new}/24"))
    check_exchange(stage, host, new)


def test_the_reply_to_the_old_address_is_not_delivered_from_the_new(stage, steady):
    """A request that was relayed with the old address, answered when that is gone: no interface has it."""
    lab, host = stage.lab, stage.lab.client(CLIENT)
    request = stage.relayed(stage.ask(host))
    lab.switch.ip("addr del 10.10.0.1/24 dev vlan10", "addr add 10.10.0.2/24 dev vlan10")
    wait_interface(stage.relay, "vlan10", (1034, "up", "10.10.0.2/24"))
    late = stage.answer(request)
    check_exchange(stage, host, "10.10.0.2")
    assert stage.replies(host, late.xid) == []


def test_another_address_changes_nothing(stage, steady):
    lab, host = stage.lab, stage.lab.client(CLIENT)
    for other in ("10.10.0.2/24", "10.50.0.1/24", "10.10.0.1/32", "169.254.7.7/16 scope link"):
        lab.switch.ip(f"addr add {other} dev vlan10")
        settled(stage)
        check_exchange(stage, host, "10.10.0.1")
        lab.switch.ip(f"addr del {other} dev vlan10")
        settled(stage)
        check_exchange(stage, host, "10.10.0.1")


def test_an_interface_goes_down_and_up(stage, steady):
    lab, host = stage.lab, stage.lab.client(CLIENT)
    lab.switch.ip("link set vlan10 down")
    wait_interface(stage.relay, "vlan10", (1034, "down", "10.10.0.1/24"))
    lab.switch.ip("link set vlan10 up")
    lab.switch.wait_up("vlan10", "swp1")
    wait_interface(stage.relay, "vlan10", (1034, "up", "10.10.0.1/24"))
    check_exchange(stage, host, "10.10.0.1")


def test_a_port_goes_down_and_up(stage, steady):
    lab, host = stage.lab, stage.lab.client(CLIENT)
    for _ in range(5):
        lab.switch.ip("link set swp1 down")
        settled(stage)
        lab.switch.ip("link set swp1 up")
        wait_up(lab, host, "swp1", "vlan10")
        check_exchange(stage, host, "10.10.0.1")


def test_an_interface_is_deleted_and_made_again(stage, steady):
    """Its settings wait and are put back, each told in a line."""
    lab, relay = stage.lab, stage.relay
    before = relay.running_config()
    for times in range(1, 4):
        lab.switch.ip("link del vlan10")
        wait_for(lambda: interfaces(relay).get("vlan10", (0, "down", "-"))[1:] == ("down", "-"), 30, "end of vlan10")
        assert "! vlan10 is not there: these settings wait for it\ninterface vlan10\n" in relay.running_config()
        lab.switch.ip("link add vlan10 index 1034 address 02:00:00:00:10:01 type bridge stp_state 0 forward_delay 0",
                      "link set vlan10 up", "addr add 10.10.0.1/24 dev vlan10", "link set swp1 master vlan10",
                      "link set swp2 master vlan10")
        lab.switch.wait_up("vlan10", "swp1", "swp2")
        wait_interface(relay, "vlan10", (1034, "up", "10.10.0.1/24"))
        assert relay.running_config() == before
        told = re.findall(r"^settings: interface vlan10 (.*)$", relay.log, re.M)
        assert told == ["is gone; its configuration of 2 lines waits for it to come back",
                        "is there again at 10.10.0.1; its configuration of 2 lines is in force"] * times
        for port in (1, 2):
            check_exchange(stage, lab.client(port), "10.10.0.1")


def test_made_again_with_another_mac_and_kernel_number(stage, steady):
    lab, relay = stage.lab, stage.relay
    lab.switch.ip("link del vlan10",
                  "link add vlan10 index 77 address 02:00:00:00:10:99 type bridge stp_state 0 forward_delay 0",
                  "link set vlan10 up", "addr add 10.10.0.1/24 dev vlan10", "link set swp1 master vlan10")
    lab.vlans[10].mac = "02:00:00:00:10:99"
    lab.switch.wait_up("vlan10", "swp1")
    settled(stage)
    check_exchange(stage, lab.client(1), "10.10.0.1")


def test_the_mac_address_changes(stage, steady):
    """Option 82 carries the address that the interface has now."""
    lab, host = stage.lab, stage.lab.client(CLIENT)
    check_exchange(stage, host, "10.10.0.1")
    lab.switch.ip("link set vlan10 down", "link set vlan10 address 02:00:00:00:10:77", "link set vlan10 up")
    lab.vlans[10].mac = "02:00:00:00:10:77"
    lab.switch.wait_up("vlan10", "swp1")
    settled(stage)
    check_exchange(stage, host, "10.10.0.1")


# ---- Ports ----

def test_a_port_moves_between_bridges(stage, steady):
    """Its next DISCOVER carries the other VLAN."""
    lab, host = stage.lab, stage.lab.client(2)
    for vlan in (20, 10) * 5:
        lab.switch.ip(f"link set swp2 master vlan{vlan}")
        lab.switch.wait_up(f"vlan{vlan}", "swp2")
        settled(stage)
        host.vlan = vlan
        request = check_exchange(stage, host, f"10.{vlan}.0.1")
        assert request.dhcp.relay_information.vlan == vlan


def test_a_port_leaves_its_bridge(stage, steady):
    """Nothing of it is relayed until it is back."""
    lab, host = stage.lab, stage.lab.client(2)
    lab.switch.ip("link set swp2 nomaster")
    settled(stage)
    lost = stage.ask_in_vain(host)
    settled(stage)
    lab.switch.ip("link set swp2 master vlan10")
    lab.switch.wait_up("vlan10", "swp2")
    settled(stage)
    check_exchange(stage, host, "10.10.0.1")
    assert stage.seen("server1", lost.xid) == []


def test_new_ports(stage, steady):
    lab = stage.lab
    for port in (5, 6, 7, 40, 63):
        host = lab.add_client(port, 10)
        stage.at[host.name] = lab.capture(host)
        settled(stage)
        check_exchange(stage, host, "10.10.0.1")


def test_a_port_is_removed_and_comes_back(stage, steady):
    """Under the same kernel number, which a listener of the old device must not outlive."""
    lab = stage.lab
    for _ in range(5):
        lab.switch.ip("link del swp1")
        lab.clients[1].namespace.close()
        host = lab.add_client(1, 10)
        stage.at[host.name] = lab.capture(host)
        settled(stage)
        check_exchange(stage, host, "10.10.0.1")


def test_a_port_is_renamed(stage, steady):
    """Messages still pass, once; the number is that of the device."""
    lab, host = stage.lab, stage.lab.client(1)
    lab.switch.ip("link set swp1 down", "link set swp1 name front1", "link set front1 up")
    wait_up(lab, host, "front1", "vlan10")
    settled(stage)
    check_exchange(stage, host, "10.10.0.1")
    sent = stage.ask(host)
    stage.relayed(sent)
    stage.fence(host)
    assert len(stage.seen("server1", sent.xid)) == 1


def test_a_renamed_interface_is_another(stage, steady):
    """The name says which VLAN it is: vlan10 becomes vlan30."""
    lab, relay, host = stage.lab, stage.relay, stage.lab.client(1)
    lab.switch.ip("link set vlan10 down", "link set vlan10 name vlan30", "link set vlan30 up")
    lab.vlans[30] = Vlan(30, "10.10.0.1", lab.vlans[10].mac, [1, 2])
    host.vlan = 30
    lab.switch.wait_up("vlan30", "swp1")
    wait_interface(relay, "vlan30", (1054, "up", "10.10.0.1/24"))
    relay.configure("interface vlan 30", "ip dhcp relay address 192.0.2.11")
    check_exchange(stage, host, "10.10.0.1")


# ---- Load and commands ----

def test_a_burst_is_relayed_whole(stage):
    host = stage.lab.client(1)
    xids = [fresh_xid() for _ in range(300)]
    for xid in xids:
        host.send(craft.broadcast(craft.message("DISCOVER", mac=host.mac, xid=xid), host.mac))
    stage.fence(host)
    assert [packet.dhcp.xid for packet in stage.at["server1"].dhcp("DISCOVER")][:300] == xids
    assert len(stage.at["server1"].dhcp("DISCOVER")) == 301


def test_switched_off_and_on_fifty_times(stage):
    relay, host = stage.relay, stage.lab.client(1)
    before = descriptors_at_rest(relay)
    for _ in range(49):
        relay.configure("no ip dhcp relay", "ip dhcp relay")
    relay.configure("no ip dhcp relay")
    off = stage.ask_in_vain(host)
    detail = relay.sh("show ip dhcp relay detail")
    assert re.findall(r"^(?:Server|Raw|listen)_sock\w*:(-?\d+)$", detail, re.M) == ["-1", "-1", "-1"]
    relay.configure("ip dhcp relay")
    check_exchange(stage, host, "10.10.0.1")
    assert stage.seen("server1", off.xid) == []
    assert descriptors_at_rest(relay) == before


def test_toggled_while_messages_come(stage):
    """Off, a message is lost; on, it is relayed once; the relay stays what it is."""
    relay, host = stage.relay, stage.lab.client(1)
    for _ in range(10):
        relay.configure("no ip dhcp relay")
        lost = stage.ask_in_vain(host)
        relay.configure("ip dhcp relay")
        sent = stage.ask(host)
        stage.check_relayed(sent, host)
        assert stage.seen("server1", lost.xid) == []


def test_servers_change_under_traffic(stage, steady):
    """The steady client keeps its server 2 while server 1 comes and goes."""
    for _ in range(20):
        stage.relay.configure("interface vlan 20", "no ip dhcp relay address 192.0.2.11")
        stage.relay.configure("interface vlan 20", "ip dhcp relay address 192.0.2.11")


def test_replies_find_their_client_across_all_that(stage, steady):
    """A transaction outlives changes of other interfaces and ports."""
    lab, host = stage.lab, stage.lab.client(1)
    request = stage.relayed(stage.ask(host))
    lab.switch.ip("link set swp2 master vlan20", "link set swp4 down", "link set swp4 up")
    lab.add_vlan(30)
    settled(stage)
    sent = stage.answer(request)
    assert decode_dhcp(stage.delivered(sent, host).payload).xid == sent.xid
