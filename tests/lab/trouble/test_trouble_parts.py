# SPDX-License-Identifier: Apache-2.0
"""The tools of the rows themselves: without trouble every lease is had, and a flood is one."""

import pytest
from conftest import open_lab
from ravolab import craft
from ravolab.process import wait_for
from troubles import SECONDS, XID_AT, Flood, GoodClient, Trouble, unsummed

CONFIGURATION = """ip dhcp relay information option
ip dhcp relay
interface vlan20
 ip dhcp relay address 192.0.2.12
"""


@pytest.fixture(scope="module")
def lab():
    yield from open_lab(name="trouble-parts", servers=2)


@pytest.fixture
def relay(lab):
    relay = lab.start_relay(log_level="warning", startup_config=CONFIGURATION)
    yield relay
    assert relay.stop() == 0, relay.log[-3000:]


def test_without_trouble(lab, relay):
    trouble = Trouble("none", lab, relay)
    trouble.before()
    trouble.during()
    row = trouble.check(cpu=50)
    assert row.before.tries >= 1 and row.during.tries >= 1


def test_without_a_relay_no_lease_is_had(lab):
    good = GoodClient(lab, every=1)
    tries = good.stop()
    assert all(wait is None for _, wait in tries)


def test_a_flood_sends_what_it_says(lab):
    """Every frame differs in its transaction id, and in nothing else."""
    host = lab.client(1)
    frame = unsummed(craft.broadcast(craft.message("DISCOVER", mac=host.mac, xid=0), host.mac))
    with lab.capture("swp1") as at_port:
        with Flood(host, frame, rate=2000, random=[(XID_AT, 4)]) as flood:
            wait_for(lambda: len(at_port.dhcp("DISCOVER")) >= 100, 30, "flood")
    seen = at_port.dhcp("DISCOVER")
    assert flood.sent == len(seen)
    assert flood.rate == pytest.approx(2000, rel=0.2) or SECONDS < 3
    assert len({packet.dhcp.xid for packet in seen}) >= len(seen) - 1
    assert {packet.raw[:XID_AT] + packet.raw[XID_AT + 4:] for packet in seen} == {frame[:XID_AT] + frame[XID_AT + 4:]}
