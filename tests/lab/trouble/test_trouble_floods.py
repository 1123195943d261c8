# SPDX-License-Identifier: Apache-2.0
"""Floods from one port: what the good client on another VLAN notes of them, and what they cost the relay."""

import json

import pytest
from conftest import open_lab
from ravolab import craft
from ravolab.decode import mac_bytes
from troubles import FULL, XID_AT, Flood, Trouble, unsummed

CONFIGURATION = """ip dhcp relay information option
ip dhcp relay
interface vlan10
 ip dhcp relay address 192.0.2.11
interface vlan20
 ip dhcp relay address 192.0.2.12
"""


@pytest.fixture(scope="module")
def lab():
    for lab in open_lab(name="trouble-floods", servers=2):
        with lab.server_host(1).udp(67):  # a server that answers nothing
            yield lab


@pytest.fixture
def relay(lab):
    relay = lab.start_relay(log_level="warning", startup_config=CONFIGURATION)
    yield relay
    assert relay.stop() == 0, relay.log[-3000:]


def discover(host, **fields):
    return craft.broadcast(craft.message("DISCOVER", mac=host.mac, xid=0, **fields), host.mac)


def statistics(relay):
    """{outcome: messages} of all messages, and "received" and "lost"."""
    total = json.loads(relay.sh("show ip dhcp relay statistics | json"))["total"]
    return {**total["outcomes"], "received": total["received"], "lost": total["lost"]}


def test_random_transaction_ids(lab, relay):
    """Each would take a place among the transactions: the port's limit lets a few thousand a second in."""
    host = lab.client(1)
    trouble = Trouble("one port sends DISCOVERs with random transaction ids", lab, relay)
    trouble.before()
    with Flood(host, unsummed(discover(host)), random=[(XID_AT, 4)]) as flood:
        trouble.during()
    told = statistics(relay)
    trouble.check(cpu=25, note=f"{flood.rate:,.0f}/s")
    # Every frame is accounted for; beside the flood's there are four for each of the good client's tries.
    assert flood.sent <= told["received"] + told["lost"] <= flood.sent + 10000
    assert told["port-limit"] >= flood.sent - 10000 - 5000 * (flood.sent / flood.rate + 1)
    assert f"limit reached: {told['port-limit']} dropped" in relay.sh("show interfaces brief | begin swp1")


# The flood as an attacker on the switch has it at most, and a part of it that a busy machine can be asked for.
FAST = 300_000 if FULL else 30_000
WITHOUT_PROGRAMS = ["setpriv", "--bounding-set=-bpf,-sys_admin,-perfmon"]


@pytest.mark.parametrize("place", ["kernel", "daemon"] if FULL else ["daemon"])
def test_as_fast_as_one_core_sends(lab, place):
    """With the trap, as a switch has it that does not carry every broadcast of a client to all others: what the sender
    pays for is then the port alone. Limits are kept in the kernel, or where that is refused by the daemon."""
    relay = lab.start_relay(log_level="warning", startup_config=CONFIGURATION, switch_toml="[channel]\ntrap = true\n",
                            wrapper=WITHOUT_PROGRAMS if place == "daemon" else [],
                            options=["--gate", lab.folder / "none"])
    host = lab.client(1)
    trouble = Trouble(f"as fast as one core sends, limits kept by the {place}", lab, relay)
    trouble.before()
    with Flood(host, unsummed(discover(host)), random=[(XID_AT, 4)]) as flood:
        trouble.during()
    told = statistics(relay)
    row = trouble.check(cpu=25, note=f"{flood.rate:,.0f}/s; {flood.per_core:,.0f} in a second of the core")
    assert flood.per_core >= FAST
    # A busy machine lets the sender have less of the core; what it would cost with all of it is no more than this.
    if FULL:
        assert row.cpu * max(1, FAST / flood.rate) <= 25, row.note
    assert flood.sent <= told["received"] + told["lost"] <= flood.sent + 10000
    assert relay.stop() == 0, relay.log[-3000:]
    lab.relays.remove(relay)


def test_unicast_to_somebody_else(lab, relay):
    """Renewals that are routed through the box, or forged ones: the relay has no use for them."""
    host = lab.client(1)
    payload = craft.message("REQUEST", mac=host.mac, xid=0, ciaddr="10.10.0.60")
    frame = craft.broadcast(payload, host.mac, source="10.10.0.60", destination="203.0.113.7")
    frame = mac_bytes(lab.vlans[host.vlan].mac) + unsummed(frame)[6:]
    lab.switch.ip("route add blackhole 203.0.113.0/24")
    try:
        trouble = Trouble("one port sends unicast to UDP port 67 of a foreign address", lab, relay)
        trouble.before()
        with Flood(host, frame, random=[(XID_AT, 4)]) as flood:
            trouble.during()
        told = statistics(relay)
        trouble.check(cpu=25, note=f"{flood.rate:,.0f}/s")
        assert told["port-limit"] + told["no-address"] + told["lost"] == flood.sent
    finally:
        lab.switch.ip("route del blackhole 203.0.113.0/24")
