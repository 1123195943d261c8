# SPDX-License-Identifier: Apache-2.0
"""The way to the servers is lost: no route, or the uplink is down. What the operator sees of it, and that it heals by itself."""

import pytest
from ravolab.craft import broadcast, message
from ravolab.process import wait_for
from test_books import NOBODY, document, nonzero

FAR = "203.0.113.7"  # beyond a router


@pytest.fixture
def configured(lab, relay):
    relay.configure("interface vlan 10", f"ip dhcp relay address {NOBODY}", "exit",
                    "interface vlan 20", f"ip dhcp relay address {FAR}", "exit", "ip dhcp relay")
    return relay


def send(lab, port, xid):
    host = lab.client(port)
    host.send(broadcast(message("DISCOVER", mac=host.mac, xid=xid), host.mac))


def outcomes(relay, count):
    """What became of messages, by port, once so many have come in."""
    def seen():
        told = document(relay, "show ip dhcp relay statistics")
        return told if told["total"]["received"] == count else None
    told = wait_for(seen, 30, f"{count} messages")
    return {block["port"]: {name: many for name, many in nonzero(block).items() if name != "received"} for block in told["ports"]}


def advice(relay):
    return [line for line in relay.sh("show ip dhcp relay advice").splitlines() if not line.startswith(" ")]


def test_route_is_missing(lab, configured):
    no_route = f"server {FAR} of interface vlan20 is an address to which no route leads"
    send(lab, 1, 1)
    send(lab, 3, 2)
    assert outcomes(configured, 2) == {"1/1": {"relayed": 1}, "1/3": {"send-failed": 1}}
    configured.wait_log(r"ravo_if_send_server_Unicast \(\d+\): sock_fd=\d+, sendmsg error Network is unreachable\n")
    assert no_route in advice(configured)
    lab.switch.ip(f"route add 203.0.113.0/24 via {NOBODY}")  # a server would answer what comes by, and be counted
    try:
        send(lab, 3, 3)
        assert outcomes(configured, 3)["1/3"] == {"relayed": 1, "send-failed": 1}
        assert no_route not in advice(configured)
    finally:
        lab.switch.ip("route del 203.0.113.0/24")


def test_uplink_is_down(lab, configured):
    no_route = f"server {NOBODY} of interface vlan10 is an address to which no route leads"
    lab.switch.ip("link set vlan99 down")
    try:
        send(lab, 1, 1)
        assert outcomes(configured, 1) == {"1/1": {"send-failed": 1}}
        configured.wait_log(r"ravo_if_send_server_Unicast \(\d+\): sock_fd=\d+, sendmsg error Network is unreachable\n")
        assert no_route in advice(configured)
    finally:
        lab.switch.ip("link set vlan99 up")
    send(lab, 1, 2)
    assert outcomes(configured, 2) == {"1/1": {"relayed": 1, "send-failed": 1}}
    assert no_route not in advice(configured)
