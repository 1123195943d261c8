# SPDX-License-Identifier: Apache-2.0
"""Servers that are dead and VLANs that are slow: what is sent to them waits in the kernel, and nobody else does."""

import socket
import threading

import pytest
from conftest import open_lab
from ravolab import craft
from troubles import FULL, XID_AT, Flood, Trouble, unsummed

CONFIGURATION = """ip dhcp relay information option
ip dhcp relay
interface vlan10
 ip dhcp relay address 192.0.2.201
 ip dhcp relay address 192.0.2.202
 ip dhcp relay address 192.0.2.11
interface vlan20
 ip dhcp relay address 192.0.2.12
"""
DEAD = ("192.0.2.201", "192.0.2.202")  # nobody has these addresses: ARP gets no answer


@pytest.fixture(scope="module")
def lab():
    yield from open_lab(name="trouble-slow", servers=2)


@pytest.fixture
def relay(lab):
    relay = lab.start_relay(log_level="error", startup_config=CONFIGURATION)
    yield relay
    assert relay.stop() == 0, relay.log[-3000:]


def discover_of(host):
    return unsummed(craft.broadcast(craft.message("DISCOVER", mac=host.mac, xid=0), host.mac))


class Answering:
    """A server that answers each message with an OFFER of 10.10.0.200, until it is told to stop."""

    def __init__(self, host):
        self._socket = host.udp(67, host.address)
        self._socket.settimeout(0.1)
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._stop = threading.Event()
        self.answered = 0

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._stop.set()
        self._thread.join()
        self._socket.close()

    def _serve(self):
        while not self._stop.is_set():
            try:
                asked = self._socket.recv(2048)
            except TimeoutError:
                continue
            offer = bytearray(asked)
            offer[0], offer[16:20], offer[242] = 2, bytes((10, 10, 0, 200)), 2
            self._socket.sendto(offer, (socket.inet_ntoa(asked[24:28]), 67))
            self.answered += 1


@pytest.mark.parametrize("rate", [75, 1000] if FULL else [1000])
def test_dead_servers(lab, relay, rate):
    """Two of three servers do not answer ARP; the third, and the servers of others, get all requests."""
    trouble = Trouble(f"2 of 3 servers dead, {rate} requests/s", lab, relay)
    trouble.before()
    host = lab.client(1)
    with lab.capture(lab.server_host(1)) as at_server:
        with Flood(host, discover_of(host), rate=rate, random=[(XID_AT, 4)]) as flood:
            trouble.during(show=("show ip dhcp relay",))
    trouble.check(cpu=25)
    assert len(at_server.dhcp("DISCOVER", mac=host.mac)) == flood.sent


def test_slow_vlan(lab, relay):
    """A port takes 256 kbit/s, and its VLAN's clients ask 1,000 times a second."""
    relay.configure("interface vlan 10", *(f"no ip dhcp relay address {server}" for server in DEAD))
    trouble = Trouble("a VLAN's egress shaped to 256 kbit/s, 1,000 DISCOVERs/s", lab, relay)
    trouble.before()
    host = lab.client(1)
    # Room for more frames than any socket of the relay may have waiting.
    lab.switch.run("tc", "qdisc", "add", "dev", host.port_device, "root", "tbf", "rate", "256kbit", "burst", "4kb",
                   "limit", "64mb")
    try:
        with Answering(lab.server_host(1)) as server:
            with Flood(host, discover_of(host), rate=1000, random=[(XID_AT, 4)]):
                trouble.during(show=("show ip dhcp relay",))
        trouble.check(cpu=25)
    finally:
        lab.switch.run("tc", "qdisc", "del", "dev", host.port_device, "root")
    assert server.answered > 500
