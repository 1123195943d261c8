# SPDX-License-Identifier: Apache-2.0
"""Changes of the box, hundreds in a row, while clients elsewhere ask, and more at once than the kernel can tell of.

`make soak` does 1000 of them under 500 leases a second.
"""

import json
import os
import random
import signal
import sys
import time
from pathlib import Path

import pytest
from ravolab.process import PATIENCE, wait_for
from soaking import LONG, note, pick

sys.path.insert(0, str(Path(__file__).parent / "trouble"))

from test_soak import CONFIGURATION  # noqa: E402
from troubles import ManyClients  # noqa: E402

CHANGES, RATE = pick((80, 100), (1000, 500))
STORMS, LINKS = pick((1, 3), (20, 50))  # so many pairs of links are made and removed in each
VLANS, PORTS = range(40, 44), range(20, 26)


@pytest.fixture
def relay(bare_lab):
    # As its unit starts it: with no more room for the kernel's news than the system gives to everybody.
    relay = bare_lab.start_relay(log_level="warning", startup_config=CONFIGURATION.format(bare_lab.server_host(2).address),
                                 wrapper=["/usr/bin/setpriv", "--bounding-set=-net_admin"])
    yield relay
    assert relay.stop() == 0


def of_the_kernel(lab):
    """What "show interfaces brief" has to tell, by ip(8): interfaces with state and address, ports with state and VLANs."""
    links = json.loads(lab.switch.look("ip", "-json", "address", "show"))
    bridges = {link["ifname"] for link in links if link["ifname"].startswith("vlan")}
    found = {}
    for link in links:
        up, name = "UP" in link["flags"], link["ifname"]
        if name in bridges:
            addresses = [f"{a['local']}/{a['prefixlen']}" for a in link["addr_info"] if a["family"] == "inet"]
            found[name] = (up, next(iter(addresses), None))
        elif link.get("master") in bridges:
            found[name] = (up, [int(link["master"].removeprefix("vlan"))])
    return found


def of_the_daemon(relay):
    rows = json.loads(relay.sh("show interfaces brief | json"))["interfaces"]
    return {row["device"]: (row["up"], row["vlans"] if row["kind"] == "port" else row.get("address")) for row in rows
            if row["kind"] == "vlan" or row["vlans"]}


def wait_same(lab, relay):
    """Wait until the daemon knows what ip(8) says: milliseconds that took."""
    began = time.monotonic()
    wait_for(lambda: of_the_daemon(relay) == of_the_kernel(lab), 20,
             lambda: f"{of_the_kernel(lab)}; it says {of_the_daemon(relay)}: the same state")
    return (time.monotonic() - began) * 1000


class Box:
    """The part of the switch that changes, and what it is like."""

    def __init__(self, lab, seed):
        self.switch, self.random = lab.switch, random.Random(seed)
        self.vlans, self.ports = {}, {}

    def change(self):
        """One change, at random, of those that the box can have now."""
        dice = self.random
        doing = dice.choice([self.vlan, self.vlan, self.address, self.address, self.port, self.port, self.plug, self.plug, self.turn])
        self.switch.ip(doing(dice))

    def vlan(self, dice):
        number = dice.choice(VLANS)
        if self.vlans.pop(number, None) is None:
            self.vlans[number] = False
            return f"link add vlan{number} type bridge"
        self.ports = {port: None if on == number else on for port, on in self.ports.items()}
        return f"link del vlan{number}"

    def address(self, dice):
        if not self.vlans:
            return self.vlan(dice)
        number = dice.choice(list(self.vlans))
        self.vlans[number] = not self.vlans[number]
        return f"addr {'add' if self.vlans[number] else 'del'} 10.{number}.0.1/24 dev vlan{number}"

    def port(self, dice):
        number = dice.choice(PORTS)
        if number in self.ports:
            del self.ports[number]
            return f"link del swp{number}"
        self.ports[number] = None
        return f"link add swp{number} type veth peer name far{number}"

    def plug(self, dice):
        if not self.ports or not self.vlans:
            return self.port(dice)
        port = dice.choice(list(self.ports))
        self.ports[port] = dice.choice([None, *self.vlans])
        return f"link set swp{port} nomaster" if self.ports[port] is None else f"link set swp{port} master vlan{self.ports[port]}"

    def turn(self, dice):
        names = [f"vlan{number}" for number in self.vlans] + [f"swp{number}" for number in self.ports]
        return f"link set {dice.choice(names)} {dice.choice(['up', 'down'])}" if names else self.vlan(dice)


def test_changes_elsewhere_cost_nobody_a_message(bare_lab, relay):
    seed = int(os.environ.get("SOAK_SEED") or random.randrange(1 << 32))
    box, clients = Box(bare_lab, seed), ManyClients(bare_lab, ports=(3, 4), clients=2 * RATE, rate=RATE, again=4000 * PATIENCE)
    began = time.monotonic()
    for _ in range(CHANGES):
        box.change()
    took = time.monotonic() - began
    found = clients.stop()
    same = wait_same(bare_lab, relay)
    note(f"{CHANGES} changes of links, addresses, bridges and VLANs in {took:.0f} s, under {RATE} leases a second",
         f"{len(found['again'])} of {found['leases']} leases elsewhere needed a message again; state as of ip(8) after {same:.0f} ms")
    assert found["leases"] > 20 and not found["again"] and not found["unfinished"], f"SOAK_SEED={seed}: {found}"


def dropped(lab):
    """How many messages the kernel had no room for at the sockets that follow its changes."""
    rows = [line.split() for line in lab.switch.look("cat", "/proc/net/netlink").splitlines()[1:]]
    return sum(int(row[8]) for row in rows)


def test_more_changes_than_can_be_told(bare_lab, relay):
    """The daemon stands still until the kernel has no room for what it would tell, and then finds out by itself."""
    clients = ManyClients(bare_lab, ports=(3, 4), clients=2 * RATE, rate=RATE, again=4000 * PATIENCE)
    took = []
    for storm in range(STORMS):
        since, before, vlan = len(relay.log), dropped(bare_lab), 50 + storm
        os.kill(relay.pid, signal.SIGSTOP)
        try:
            bare_lab.switch.ip(f"link add vlan{vlan} type bridge", f"addr add 10.{vlan}.0.1/24 dev vlan{vlan}", f"link set vlan{vlan} up",
                               f"link add s{storm} type veth peer name t{storm}", f"link set s{storm} master vlan{vlan}")
            bare_lab.switch.ip(*(f"link add x{number} type veth peer name y{number}" for number in range(LINKS)))
            bare_lab.switch.ip(*(f"link del x{number}" for number in range(LINKS)))
            while dropped(bare_lab) == before:  # the rest of the room is filled by what costs the kernel little
                bare_lab.switch.ip(*(f"link set s{storm} mtu {1400 + number % 2}" for number in range(1000)))
            bare_lab.switch.ip(f"link del t{storm}", f"addr del 10.{vlan}.0.1/24 dev vlan{vlan}")
        finally:
            os.kill(relay.pid, signal.SIGCONT)
        relay.wait_log("interfaces: changes came faster than they could be read; reading all interfaces again", since=since)
        took.append(wait_same(bare_lab, relay))
        if LONG:
            time.sleep(1)
    found = clients.stop()
    note(f"{STORMS} storms: {2 * LINKS} links made and removed each time while it stood still, and the kernel's news lost",
         f"state as of ip(8) after {max(took):.0f} ms (worst); {found['leases']} leases meanwhile")
    assert found["unfinished"] == 0 and max(took) < pick(20000, 2000) * PATIENCE
