# SPDX-License-Identifier: Apache-2.0
"""What the bridge refuses, the relay does not relay."""

import functools
import json

import pytest
from conftest import open_lab
from ravolab import craft
from ravolab.decode import decode_dhcp, mac_bytes
from ravolab.process import wait_for
from scripted import fresh_xid, stage  # noqa: F401 (a fixture)


@pytest.fixture(scope="module")
def lab():
    yield from open_lab(name="bridge", servers=1)


def outcomes(relay):
    return json.loads(relay.sh("show ip dhcp relay statistics | json"))["total"]["outcomes"]


def test_what_the_bridge_refuses_is_not_relayed(stage):
    """On a port that is not forwarding, from a station unknown at a locked port, and to another machine."""
    # Without spanning tree the kernel makes a port forwarding at once that is told to block (4).
    host, bridge = stage.lab.client(1), functools.partial(stage.lab.switch.run, "bridge")

    def read(destination=None):
        """Whether the relay takes a message from the port; its outcome says so."""
        message = craft.message("DISCOVER", mac=host.mac, xid=fresh_xid())
        before = outcomes(stage.relay)
        frame = craft.broadcast(message, host.mac)
        host.send(mac_bytes(destination) + frame[6:] if destination else frame)
        wait_for(lambda: sum(outcomes(stage.relay).values()) == sum(before.values()) + 1, 10, "an outcome")
        refused = outcomes(stage.relay)["bridge-refused"] - before["bridge-refused"]
        stage.fence(stage.lab.client(3))
        assert len(stage.seen("server1", decode_dhcp(message).xid)) == 1 - refused
        return refused == 0

    try:
        for state in (0, 1, 2):
            bridge("link", "set", "dev", "swp1", "state", state)
            assert not read()
        bridge("link", "set", "dev", "swp1", "state", 3)
        assert read()
        bridge("link", "set", "dev", "swp1", "learning", "off", "locked", "on")
        stage.lab.switch.ip("link set swp1 type bridge_slave fdb_flush")
        assert not read()
        bridge("fdb", "replace", host.mac, "dev", "swp1", "master", "static")
        assert read()
    finally:
        bridge("fdb", "del", host.mac, "dev", "swp1", "master", check=False)
        bridge("link", "set", "dev", "swp1", "state", 3, "learning", "on", "locked", "off")
    assert not read("02:00:00:00:77:77")
    assert read()
