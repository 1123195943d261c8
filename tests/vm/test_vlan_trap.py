# SPDX-License-Identifier: Apache-2.0
"""The trap on a VLAN-aware bridge: what clients broadcast goes to the relay, and only what the relay made of it goes on
into the VLAN."""

import signal

import pytest
from ravolab import Dnsmasq, Udhcpc, wait_for
from ravolab.decode import option82
from vlan_lab import discovers

TRAP_HANDLE = "0x7261766f"


def filters(lab, device):
    return lab.switch.look("tc", "filter", "show", "dev", device, "ingress")


@pytest.fixture
def trapped(lab, relay):
    """The trap on all ports, and local relay in VLAN 10, whose one server stands on port 2 of that VLAN."""
    host = lab.client(2)

    def describe(text, trap_is_set):
        relay.switch_file.write_text(text)
        relay.process.send_signal(signal.SIGHUP)
        for port in ("swp1", "swp2", "swp3"):
            wait_for(lambda: (TRAP_HANDLE in filters(lab, port)) == trap_is_set, 30, f"change of the trap on {port}")

    lab.bridge("vlan add dev swp2 vid 10 pvid untagged")
    host.namespace.ip("addr add 10.10.0.250/24 dev eth0")
    host.address = "10.10.0.250"
    server = Dnsmasq(lab, host, [10])
    try:
        server.start()
        relay.configure("ip dhcp local-relay", "ip dhcp local-relay vlan 10", "interface vlan 10",
                        "no ip dhcp relay address 192.0.2.11", "ip dhcp local-relay")
        describe(lab.description + "[channel]\ntrap = true\n", True)
        yield server
    finally:
        describe(lab.description, False)
        relay.configure("interface vlan 10", "no ip dhcp local-relay", "ip dhcp relay address 192.0.2.11", "exit",
                        "no ip dhcp local-relay vlan 10", "no ip dhcp local-relay")
        server.stop()
        host.address = None
        host.namespace.ip("addr del 10.10.0.250/24 dev eth0")
        lab.bridge("vlan del dev swp2 vid 10", "vlan add dev swp2 vid 20 pvid untagged")


def test_trap(lab, trapped, attached):
    """On an access and on a trunk port: the server in the clients' own VLAN hears what they asked once, with option
    82, and gives the lease."""
    for port, tag in ((1, None), (3, 10)):
        host = attached(port, tag)
        with lab.capture(host) as at_client, lab.capture(trapped.host) as at_server:
            lease = host.run(Udhcpc)
        assert trapped.owns(lease.address)
        assert trapped.leases()[host.mac] == lease.address
        heard = discovers(at_server, host, sent=False)
        assert len(heard) == len(discovers(at_client, host, sent=True))
        heard += at_server.dhcp("REQUEST", mac=host.mac)
        assert [packet.dhcp.relay_information.raw for packet in heard] == [
            option82(10, 1, port, lab.vlans[10].mac)[2:]] * len(heard)
