# SPDX-License-Identifier: Apache-2.0
"""The lab: a switch, its clients and its servers in network namespaces.

    with Lab(servers=2) as lab:                      # namespaces, links, bridges, routes
        kea = lab.add_server(Kea, host=1)
        relay = lab.start_relay()
        relay.configure("ip dhcp relay", "interface vlan 10", "ip dhcp relay address 192.0.2.11")
        lease = lab.client(1).run(Udhcpc)            # a real client on switch port 1

Everything a lab makes goes away with it: a namespace is held by a descriptor of this process only,
and every process of the lab dies with this process, so that even a killed runner leaves none.
"""

from .capture import Capture
from .client import Dhclient, Dhcpcd, Lease, NoLease, Udhcpc
from .decode import Dhcp, Packet, RelayInformation, decode
from .lab import Host, Lab, Vlan
from .namespace import Namespace
from .process import LabError, Process, wait_for
from .relay import Relay
from .server import Dhcpd, Dnsmasq, Kea

__all__ = [
    "Capture", "Dhclient", "Dhcp", "Dhcpcd", "Dhcpd", "Dnsmasq", "Host", "Kea", "Lab", "LabError",
    "Lease", "Namespace", "NoLease", "Packet", "Process", "Relay", "RelayInformation", "Udhcpc", "Vlan",
    "decode", "wait_for",
]
