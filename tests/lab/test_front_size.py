# SPDX-License-Identifier: Apache-2.0
"""The programs in front of a relay with 4094 interfaces: memory, and the time of a whole walk."""

import time

import pytest

from managed import Daemon
from snmped import BASE, Snmp
from webbed import Web

INTERFACES = 4094
MOST_KIB = 16 * 1024


@pytest.fixture(scope="module")
def large(tmp_path_factory):
    """A daemon whose 4094 VLAN interfaces have two servers each. They are no devices, and their settings do not wait for
    any: thousands of devices that go at once would keep the kernel from serving other tests for a minute."""
    folder = tmp_path_factory.mktemp("large")
    (folder / "switch.toml").write_text("[settings]\nkeep = false\n")
    daemon = Daemon(folder)
    daemon.startup.write_text("".join(
        f"interface vlan{vlan}\n ip dhcp relay address 192.0.2.11\n ip dhcp relay address 192.0.2.12\n!\n"
        for vlan in range(1, INTERFACES + 1)))
    daemon.start("--switch", folder / "switch.toml")
    yield daemon
    daemon.close()


def test_memory_of_the_web_side(large, tmp_path, record_property):
    web = Web(tmp_path, large.socket).start()
    try:
        rest = web.memory()
        alice = web.user()
        shown = alice.get("/interfaces?limit=1000")
        assert len(shown["interfaces"]) == min(1000, shown["total"])
        for _ in range(3):
            assert web.request("GET", "/metrics")[0] == 200
            alice.get("/interfaces?search=vlan4")
            alice.get("/configuration")
        print(f"\nravo-web: {rest} KiB at rest, {web.memory()} KiB with {shown['total']} interfaces")
        assert max(rest, web.memory()) <= MOST_KIB
    finally:
        assert web.stop() == 0, web.log


def test_a_walk_over_all_interfaces(large, tmp_path):
    snmp = Snmp(tmp_path, large.socket).start()
    try:
        rest = snmp.memory()
        begun = time.monotonic()
        walked = [line for line in snmp.run("snmpbulkwalk", f"{BASE}.1", options=["-On", "-Cc"], timeout=300).splitlines()
                  if line.startswith(f".{BASE}.1.")]
        took = time.monotonic() - begun
        names = [tuple(map(int, line.split(" = ")[0].lstrip(".").split("."))) for line in walked]
        assert names == sorted(set(names)), "each instance once, in order"
        servers = [name for name in names if name[10:13] == (1, 3, 1)]
        assert len(servers) == 2 * INTERFACES
        print(f"\nravo-snmp: {len(names)} instances walked in {took:.1f} s; {rest} KiB at rest, {snmp.memory()} KiB after")
        assert max(rest, snmp.memory()) <= MOST_KIB
    finally:
        snmp.close()
