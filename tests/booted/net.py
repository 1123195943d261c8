# SPDX-License-Identifier: Apache-2.0
"""A network in a booted machine: a VLAN's bridge with one port, a client behind it, and a server beyond an uplink."""

import itertools
import re

from machine import Failed

ADDRESS = r"10\.10\.0\.1\d\d"
SERVER = "192.0.2.11"
NUMBERS = itertools.count(1)  # of the server's units: a transient one that was stopped may stay loaded for a while
# A bridge a VLAN; the port and the uplink are ends of cables, and the other ends are in namespaces of the client and the server.
PARTS = f"""set -e
ip netns add client
ip netns add server
ip link add vlan10 type bridge
ip addr add 10.10.0.1/24 dev vlan10
ip link add swp1 type veth peer name eth0 netns client
ip link set swp1 master vlan10
ip link add up0 type veth peer name eth0 netns server
ip addr add 192.0.2.1/24 dev up0
ip link set vlan10 up
ip link set swp1 up
ip link set up0 up
nsenter --net=/run/netns/client ip link set eth0 up
nsenter --net=/run/netns/server ip link set eth0 up
nsenter --net=/run/netns/server ip addr add {SERVER}/24 dev eth0
nsenter --net=/run/netns/server ip route add 10.10.0.0/24 via 192.0.2.1
"""
CONFIGURATION = f"""ip dhcp relay
ip dhcp relay information option
interface vlan 10
ip dhcp relay address {SERVER}
"""


def build(machine):
    machine.run(PARTS)
    start_server(machine)


def start_server(machine):
    machine.start_program("nsenter --net=/run/netns/server dnsmasq --no-daemon --port=0 --conf-file=/dev/null --log-dhcp --no-ping "
                          "--dhcp-leasefile=/run/leases --dhcp-authoritative --dhcp-range=10.10.0.100,10.10.0.199,255.255.255.0,1h",
                          f"dhcp-server-{next(NUMBERS)}")


def stop_server(machine):
    machine.run("systemctl stop 'dhcp-server-*'")


def lease(machine, tries=15):
    """Have the client ask for an address: which it got, through the relay."""
    done = machine.try_(f"nsenter --net=/run/netns/client udhcpc -f -n -q -t {tries} -T 1 -i eth0 -s /bin/true 2>&1")
    found = re.search(rf"lease of ({ADDRESS}) obtained from {re.escape(SERVER)}", done.stdout)
    if done.returncode != 0 or not found:
        known = "; ".join(f"{command}: {machine.try_(command).stdout.strip()[-700:]}" for command in (
            "ravosh -c 'show ip dhcp relay client'", "ravosh -c 'show interfaces brief'", "journalctl -u 'dhcp-server-*' -o cat -n 5"))
        raise Failed(f"udhcpc got nothing: {done.stdout.strip()[-300:]}; {known}")
    return found[1]


def configure(machine, text=CONFIGURATION):
    """Make the running configuration what the text says, and save it."""
    machine.write("/run/wanted", text)
    machine.run("ravosh --replace /run/wanted")
    machine.run("ravosh -c 'write memory'")
