# SPDX-License-Identifier: Apache-2.0
"""A reply that the relay could answer only by ending, again and again: it is stopped before the relay has it."""

import json

import pytest
from conftest import open_lab
from ravolab import craft
from troubles import FULL, Flood, Trouble, unsummed

CONFIGURATION = """ip dhcp relay
no ip dhcp relay information check
ip dhcp local-relay
ip dhcp local-relay vlan 10
interface vlan10
 ip dhcp local-relay
interface vlan20
 ip dhcp relay address 192.0.2.12
"""


@pytest.fixture(scope="module")
def lab():
    yield from open_lab(name="trouble-local", servers=2)


def test_replies_under_local_relay(lab):
    """Once a second, as an attacker needs it who wants the service gone for good."""
    relay = lab.start_relay(log_level="warning", startup_config=CONFIGURATION)
    process = relay.pid
    host = lab.client(1)
    trouble = Trouble("a reply under local relay with the check off, once a second", lab, relay)
    trouble.before()
    reply = craft.message("OFFER", mac=host.mac, xid=0, op=2)
    with Flood(host, unsummed(craft.broadcast(reply, host.mac, sport=67)), rate=1 if FULL else 20) as flood:
        trouble.during()
    trouble.check(cpu=25, note=f"{flood.sent} replies")
    total = json.loads(relay.sh("show ip dhcp relay statistics | json"))["total"]
    assert total["outcomes"]["core-assertion"] == flood.sent
    assert relay.alive and relay.pid == process
    assert relay.stop() == 0, relay.log[-3000:]
