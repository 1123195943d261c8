# SPDX-License-Identifier: Apache-2.0
"""Real clients and real servers where the kernel has VLANs."""

import pytest
from ravolab import Dhclient, Kea, Udhcpc
from ravolab.decode import option82
from vlan_lab import discovers


@pytest.fixture(scope="module")
def served(lab, configured):
    """Kea, and the relay with it as the server of each VLAN. Afterwards as it was."""
    def servers(gone, there):
        configured.configure(*(line for vlan in (10, 20, 30, 40) for line in (
            f"interface vlan {vlan}", f"no ip dhcp relay address {gone}", f"ip dhcp relay address {there}", "exit")))
    server = lab.add_server(Kea, host=2)
    servers("192.0.2.11", server.address)
    yield server
    servers(server.address, "192.0.2.11")
    server.stop()


@pytest.mark.parametrize("client, port, tag, vlan", [
    (Udhcpc, 1, None, 10), (Dhclient, 3, 10, 10), (Udhcpc, 3, 20, 20), (Udhcpc, 4, 40, 40), (Udhcpc, 5, None, 30)],
    ids=["access port", "trunk port", "trunk port and foreign index", "NIC", "routed port"])
def test_lease(lab, relay, served, attached, client, port, tag, vlan):
    """The client gets its lease; what it asked reached the server once, with the VLAN and port it came from."""
    host = attached(port, tag)
    with lab.capture(host) as at_client, lab.capture(lab.server_host(2)) as at_server:
        lease = host.run(client)
    assert lease.address.startswith(f"10.{vlan}.0.") and served.owns(lease.address)
    assert lease.router == f"10.{vlan}.0.1"
    heard = discovers(at_server, host, sent=False) + at_server.dhcp("REQUEST", mac=host.mac)
    assert {packet.dhcp.relay_information.raw for packet in heard} == {
        option82(vlan, 1, port, lab.vlans[vlan].mac)[2:]}
    assert {packet.dhcp.giaddr for packet in heard} == {f"10.{vlan}.0.1"}
    assert len(discovers(at_server, host, sent=False)) == len(discovers(at_client, host, sent=True))
