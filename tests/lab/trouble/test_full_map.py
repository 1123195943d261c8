# SPDX-License-Identifier: Apache-2.0
"""A port opens transactions until there is no more memory for them: it takes the room from itself."""

import json
import re
import time
from pathlib import Path

import pytest
from conftest import open_lab
from ravolab import craft
from ravolab.process import wait_for
from troubles import FULL, XID_AT, Flood, Trouble, unsummed

CONFIGURATION = """ip dhcp relay information option
ip dhcp relay
interface vlan10
 ip dhcp relay address 192.0.2.11
interface vlan20
 ip dhcp relay address 192.0.2.12
"""
# So little in a short run that the flood fills it in a part of its time.
BUDGET = 128 << 20 if FULL else 256 << 10
LIFE = 300  # seconds until a transaction ends by itself


@pytest.fixture(scope="module")
def lab():
    yield from open_lab(name="trouble-map", servers=2)


@pytest.fixture
def relay(lab):
    # At its usual limit the port would need as long as a transaction lives.
    relay = lab.start_relay(log_level="warning", startup_config=CONFIGURATION,
                            switch_toml="[limit]\nport = 0\n" if FULL else None,
                            options=["--memory-budget", str(BUDGET)])
    yield relay
    assert relay.stop() == 0, relay.log[-3000:]


def resident(relay):
    return int(re.search(r"VmRSS:\s+(\d+) kB", Path(f"/proc/{relay.pid}/status").read_text())[1]) << 10


def transactions(relay):
    return json.loads(relay.sh("show ip dhcp relay statistics | json"))["transactions"]


def test_full_map(lab, relay):
    trouble = Trouble("the transaction map is full" if FULL else "a small transaction map is full", lab, relay)
    trouble.before()
    idle = resident(relay)
    host = lab.client(1)
    frame = unsummed(craft.broadcast(craft.message("DISCOVER", mac=host.mac, xid=0), host.mac))
    with Flood(host, frame, random=[(XID_AT, 4)]):
        wait_for(lambda: transactions(relay)["ended_early"] > 0, 120, "full map")
    with Flood(host, frame, rate=2000, random=[(XID_AT, 4)]):
        trouble.during(show=("show ip dhcp relay",))
    taken = resident(relay) - idle
    full = transactions(relay)
    trouble.check(note=f"{full['open']} open, {taken >> 20} MiB")
    assert full["used_bytes"] <= BUDGET
    assert taken <= 1.25 * BUDGET + (1 << 20)
    # Whoever floods lost its own.
    assert [port["port"] for port in full["ports"] if port["ended_early"]] == ["1/1"]
    assert f"the budget of {BUDGET} bytes for transactions is used up: port 1/1 has " in relay.log
    if FULL:
        begin = time.monotonic()
        wait_for(lambda: transactions(relay)["open"] < 100, 2 * LIFE, "end of the transactions")
        assert LIFE - 60 < time.monotonic() - begin
        assert resident(relay) <= idle + (4 << 20)
