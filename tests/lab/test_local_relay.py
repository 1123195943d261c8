# SPDX-License-Identifier: Apache-2.0
"""Local relay: option 82 added to broadcasts within their VLAN, its commands, and the trap that keeps the client's own
broadcast from the servers there."""

import json
import signal

import pytest

from ravolab import Dnsmasq, Udhcpc
from ravolab.craft import broadcast, message
from ravolab.decode import option82
from ravolab.process import wait_for

SERVER = "10.10.0.250"
LOCAL_RELAY = ("ip dhcp relay", "ip dhcp local-relay", "ip dhcp local-relay vlan 10",
               "interface vlan 10", "ip dhcp local-relay", "exit")
TRAP = "[channel]\ntrap = true\n"


@pytest.fixture
def server(bare_lab):
    """A server on port 2, in the clients' own VLAN 10."""
    host = bare_lab.client(2)
    host.namespace.ip(f"addr add {SERVER}/24 dev {host.device}")
    host.address = SERVER
    return Dnsmasq(bare_lab, host, [10]).start()


@pytest.fixture
def start(bare_lab):
    """Starts a relay in the lab; it must end well."""
    started = []

    def begin(switch_toml=None, **arguments):
        relay = bare_lab.start_relay(switch_toml=switch_toml, **arguments)
        started.append(relay)
        return relay

    yield begin
    for relay in started:
        if relay.alive:
            assert relay.stop() == 0


def filters(lab, device):
    return lab.switch.look("tc", "filter", "show", "dev", device, "ingress")


def has_place_for_filters(lab, device):
    return "clsact" in lab.switch.look("tc", "qdisc", "show", "dev", device)


def statistics(relay):
    return json.loads(relay.sh("show ip dhcp relay statistics | json"))["total"]


def test_server_on_the_vlan_hears_one_discover_the_stamped_one(bare_lab, server, start):
    lab, client = bare_lab, bare_lab.client(1)
    relay = start(TRAP)
    relay.configure(*LOCAL_RELAY)
    with lab.capture(client) as at_client, lab.capture(server.host) as at_server:
        lease = client.run(Udhcpc)
    assert server.owns(lease.address)
    assert server.leases()[client.mac] == lease.address
    heard = at_server.dhcp("DISCOVER", mac=client.mac)
    sent = at_client.dhcp("DISCOVER", mac=client.mac, where=lambda packet: packet.outgoing)
    assert len(heard) == len(sent) == 1
    stamp = option82(10, 1, 1, lab.vlans[10].mac)
    assert heard[0].dhcp.relay_information.raw == stamp[2:]
    requests = at_server.dhcp("REQUEST", mac=client.mac)
    assert [request.dhcp.relay_information.raw for request in requests] == [stamp[2:]]
    seen = statistics(relay)
    assert (seen["received"], seen["rebroadcast"], seen["sent"]) == (2, 2, 2)
    # The ordinary decisions see the message as it was sent again, with option 82 from an interface that is not trusted.
    assert {word: count for word, count in seen["outcomes"].items() if count} == {"untrusted-option82": 2}
    lines = relay.sh(f"show ip dhcp relay client {client.mac}").splitlines()
    assert [line.endswith("untrusted-option82 (option 82 from a client on an untrusted interface), broadcast again "
                          "locally before") for line in lines if " xid " in line] == [True, True]
    told = json.loads(relay.sh(f"show ip dhcp relay client {client.mac} | json"))["messages"]
    assert [each["rebroadcast"] for each in told] == [True, True]


def test_without_the_trap_the_bridge_forwards_the_client_too(bare_lab, server, start):
    """What the trap is for."""
    client = bare_lab.client(1)
    relay = start()
    relay.configure(*LOCAL_RELAY)
    with bare_lab.capture(server.host) as at_server:
        client.send(broadcast(message("DISCOVER", mac=client.mac, xid=7), client.mac))
        wait_for(lambda: len(at_server.dhcp("DISCOVER", xid=7)) == 2, 30, "two copies")
        wait_for(lambda: statistics(relay)["rebroadcast"] == 1, 30, "local broadcast in the books")
    stamped = [packet.dhcp.relay_information is not None for packet in at_server.dhcp("DISCOVER", xid=7)]
    assert sorted(stamped) == [False, True]
    assert filters(bare_lab, "swp1") == ""


def test_trap_of_one_port(bare_lab, start):
    start('[[port]]\ndevice = "swp1"\nmodule = 1\nport = 1\ntrap = true\n').configure("ip dhcp relay")
    assert "0x7261766f" in filters(bare_lab, "swp1")
    assert filters(bare_lab, "swp2") == ""


def test_trap_goes_with_the_relay(bare_lab, start):
    """Off: the bridge forwards again. At the end nothing is left, after a crash until the next start."""
    lab = bare_lab
    relay = start(TRAP)
    assert filters(lab, "swp1") == ""
    relay.configure("ip dhcp relay")
    assert "0x7261766f" in filters(lab, "swp1")
    relay.configure("no ip dhcp relay")
    assert filters(lab, "swp1") == ""
    relay.configure("ip dhcp relay")
    assert relay.stop() == 0
    assert filters(lab, "swp1") == ""
    assert not has_place_for_filters(lab, "swp1")

    relay = start(TRAP, startup_config="ip dhcp relay\n")
    assert relay.stop(signal.SIGKILL) != 0
    assert "0x7261766f" in filters(lab, "swp1")
    relay = start()
    assert filters(lab, "swp1") == ""
    assert not has_place_for_filters(lab, "swp1")
    assert "device swp1 still had the trap of a relay that ended without removing it" in relay.log


def test_crash_leaves_a_place_for_filters_that_was_there_before(bare_lab, start):
    lab = bare_lab
    lab.switch.run("tc", "qdisc", "add", "dev", "swp1", "clsact")
    try:
        relay = start(TRAP, startup_config="ip dhcp relay\n")
        assert relay.stop(signal.SIGKILL) != 0
        assert has_place_for_filters(lab, "swp1") and has_place_for_filters(lab, "swp2")
        start()
        assert filters(lab, "swp1") == ""
        assert has_place_for_filters(lab, "swp1") and not has_place_for_filters(lab, "swp2")
    finally:
        lab.switch.run("tc", "qdisc", "del", "dev", "swp1", "clsact")


def test_trap_follows_ports_and_the_description(bare_lab, start):
    lab = bare_lab
    relay = start(TRAP, startup_config="ip dhcp relay\n")
    assert "0x7261766f" in filters(lab, "swp2")
    lab.switch.ip("link set swp2 nomaster")
    wait_for(lambda: filters(lab, "swp2") == "", 30, "trap removed from what is no port")
    lab.switch.ip("link set swp2 master vlan20")
    wait_for(lambda: "0x7261766f" in filters(lab, "swp2"), 30, "trap on the port that came back")
    relay.switch_file.write_text('[[port]]\ndevice = "swp2"\nmodule = 1\nport = 2\ntrap = false\n' + TRAP)
    relay.process.send_signal(signal.SIGHUP)
    wait_for(lambda: filters(lab, "swp2") == "", 30, "trap removed as described")
    assert "0x7261766f" in filters(lab, "swp1")
    lab.switch.ip("link set swp2 nomaster", "link set swp2 master vlan10")


# ---- Commands ----

def test_configuration_is_printed_saved_and_replayed(bare_lab, start):
    relay = start()
    relay.configure(*LOCAL_RELAY[:2], "ip dhcp local-relay vlan 20-22,10", *LOCAL_RELAY[3:])
    before = relay.running_config()
    assert "ip dhcp local-relay vlan 20,21,22,10" in before
    assert "interface vlan10\n ip dhcp local-relay\n" in before
    relay.sh("write memory")
    relay.restart()
    assert relay.running_config() == before
    relay.configure("no ip dhcp local-relay vlan 20-22", "no ip dhcp local-relay", "interface vlan 10",
                    "no ip dhcp local-relay")
    settings = json.loads(relay.sh("show ip dhcp relay detail | json"))
    assert settings["local_relay"] is False
    assert settings["local_relay_vlans"] == [10]
    assert [iface["local_relay"] for iface in settings["interfaces"] if iface["name"] == "vlan10"] == [False]


def test_list_of_all_vlans_can_be_typed_in_as_it_is_printed(bare_lab, start):
    relay = start()
    relay.configure("ip dhcp local-relay vlan 1-4094", "ip dhcp local-relay")
    before = relay.running_config()
    line = next(line for line in before.splitlines() if line.startswith("ip dhcp local-relay vlan "))
    assert line.split()[-1] == ",".join(map(str, range(1, 4095)))
    relay.configure("no ip dhcp local-relay vlan 1-4094")
    relay.configure(line)
    assert relay.running_config() == before


@pytest.mark.parametrize("bad, item", [("10,x", "x"), ("10-", "10-"), ("-10", "-10"), ("10,20,", ""), (",", ""),
                                       ("10--20", "10--20"), ("10-20-30", "10-20-30"), ("4294967306", "4294967306"), ("10,4095", "4095"), ("0", "0"), ("30-20", "30-20"),
                                       ("10,,20", "")])
def test_bad_list_is_named_and_nothing_of_it_applied(bare_lab, start, bad, item):
    relay = start()
    result = relay.run("configure terminal", f"ip dhcp local-relay vlan {bad}")
    assert result.returncode == 1
    assert result.stdout.startswith("% Invalid VLAN list: ")
    assert f'"{item}"' in result.stdout
    assert json.loads(relay.sh("show ip dhcp relay | json"))["local_relay_vlans"] == []


def test_interface_that_does_not_ask_for_it(bare_lab, server, start):
    """Local relay is a matter of each interface: without it the message goes its ordinary way only."""
    client = bare_lab.client(1)
    relay = start()
    relay.configure(*LOCAL_RELAY[:3])
    client.send(broadcast(message("DISCOVER", mac=client.mac, xid=8), client.mac))
    wait_for(lambda: statistics(relay)["received"] == 1, 30, "message in the books")
    assert statistics(relay)["rebroadcast"] == 0
