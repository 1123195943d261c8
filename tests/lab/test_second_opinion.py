# SPDX-License-Identifier: Apache-2.0
"""Random configurations and random messages, most of them odd: the relay and the model of it must agree on every byte.

Each round sends messages of different transactions from all ports at once, waits until the books have them all, and
compares what reached the hosts, the outcomes, the counters and the transactions with what the model says.
"""

import json
import random
import socket
from collections import Counter

import pytest
from conftest import open_lab
from ravolab import craft
from ravolab.decode import mac_bytes
from ravolab.process import wait_for
from scripted import counters, transactions
from second_opinion import AGENT, CLIENT, DROP, KEEP, REPLACE, VENDOR, Answered, Interface, Model, WouldAbort

VENDORS = ["abc", "xabcx", "a", "MSFT 5.0", "udhcp 1.30", "v" * 64]
IDENTIFIERS = [b"\x01\xaa\xbb\xcc\xdd", b"\x01\xaa\xbb\xcc\xee\xff", b"\x00", b"\xff\x01\x02", b"\x01" * 128]
ROUNDS, MESSAGES = 12, 40
MARKER = b"the last frame of a round"


@pytest.fixture(scope="module")
def lab():
    yield from open_lab(name="opinion", servers=4)


def random_interface(dice, vlan, servers):
    return Interface(
        vlan.id, vlan.address, vlan.mac, trusted=dice.random() < 0.4, local_relay=dice.random() < 0.25,
        servers=dice.sample(servers, dice.choice([0, 1, 1, 2, 4])),
        by_vendor=dice.sample([(text, exact, server) for text in VENDORS for exact in (True, False)
                               for server in servers], dice.choice([0, 0, 2, 4])),
        by_client=random_clients(dice, servers))


def random_clients(dice, servers):
    """Hosts by identifier, no two that count as the same."""
    found = {}
    for _ in range(dice.choice([0, 0, 2, 4])):
        identifier, server = dice.choice(IDENTIFIERS), dice.choice(servers)
        found[identifier.ljust(4, b"\0")[:4], server] = identifier
    return [(identifier, server) for (_, server), identifier in found.items()]


def commands_of(model):
    yield "ip dhcp relay"
    if model.option:
        yield "ip dhcp relay information option"
    if not model.check:
        yield "no ip dhcp relay information check"
    if model.policy != REPLACE:
        yield f"ip dhcp relay information policy {model.policy}"
    if model.hops != 4:
        yield f"ip dhcp relay hops {model.hops}"
    for iface in model.interfaces.values():
        yield f"interface vlan {iface.vlan}"
        if iface.trusted:
            yield "ip dhcp relay information trusted"
        if iface.local_relay:
            yield "ip dhcp local-relay"
        yield from (f"ip dhcp relay address {server}" for server in iface.servers)
        for text, exact, server in iface.by_vendor:
            yield f'ip dhcp relay option60 string "{text}" {"exact" if exact else "partial"}-match address {server}'
        for identifier, server in iface.by_client:
            yield f"ip dhcp relay option61 hex 0x{identifier.hex()} address {server}"


class World:
    """What the test knows of the lab, and the dice."""

    def __init__(self, lab, seed):
        self.lab, self.dice = lab, random.Random(seed)
        dice = self.dice
        servers = [host.address for host in lab.server_hosts.values()]
        self.model = Model([random_interface(dice, vlan, servers) for vlan in lab.vlans.values()],
                           option=dice.random() < 0.8, check=dice.random() < 0.8,
                           policy=dice.choice([REPLACE, DROP, KEEP]), hops=dice.choice([4, 4, 1, 16]))
        self.hosts = [*lab.clients.values(), *lab.server_hosts.values()]
        self.macs = [host.mac for host in lab.clients.values()]
        self.expected, self.answered = Counter(), Answered()  # outcomes
        self.rebroadcasts = 0

    # ---- Messages ----

    def agent_option(self, vlan, xid):
        """Option 82 as somebody might write it, often as the relay itself does."""
        dice, iface = self.dice, self.model.interfaces[vlan]
        module, port = self.model.transactions.get(xid, (1, dice.randrange(1, 5)))
        circuit = b"\x01\x06\x00\x04" + vlan.to_bytes(2, "little") + bytes((module, port))
        remote = b"\x02\x08\x00\x06" + mac_bytes(iface.mac)
        return dice.choice([
            circuit + remote, circuit + remote, circuit + remote, circuit, remote, remote + circuit, b"", b"\x01",
            circuit[:-1] + b"\x09" + remote, circuit + remote[:-1] + b"\x55", b"\x01\x04edge\x02\x03box",
            b"\x01\x00" + remote, b"\x01\x08\x00\x04" + circuit[4:] + b"\0\0" + remote, b"\x01\xc8" + circuit[2:] + remote,
            b"\x01" + bytes((40,)) + dice.randbytes(40), circuit + b"\x02\x02\x00\x06", b"\x09\x01x" + circuit])

    def options(self, vlan, xid, op):
        dice = self.dice
        kind = dice.choice([1, 3, 3, 4, 7, 8] if op == 1 else [2, 5, 5, 6])
        if dice.random() < 0.06:
            kind = dice.choice([0, 9, 53, 255])
        found = [(53, bytes((kind,)))] if dice.random() < 0.97 else []
        others = []
        if dice.random() < (0.35 if op == 1 else 0.8):
            others.append((AGENT, self.agent_option(vlan, xid)))
        if dice.random() < 0.06:
            others.append((AGENT, self.agent_option(vlan, xid)))
        if dice.random() < 0.4:
            others.append((VENDOR, dice.choice(VENDORS + ["bc", "", "abc\0x", "y" * 200]).encode()))
        if dice.random() < 0.4:
            others.append((CLIENT, dice.choice(IDENTIFIERS + [b"\x01\xaa\xbb\xcc", b"\x01\xaa", b"z" * 200])))
        if dice.random() < 0.4:
            others.append((12, b"host"))
        if dice.random() < 0.1:
            others.append((PADS, b"\0" * dice.randrange(1, 6)))
        dice.shuffle(others)
        if dice.random() < 0.2:
            found += others
            dice.shuffle(found)
            return found
        return found + others

    def fill_up(self, data):
        """Makes the options about as long as option 82 still fits behind, or the message about as long as fits."""
        size = self.dice.choice([*range(304, 312), 700, 759, 760, 761, 780])
        missing = size - 1 - (len(data) - 240)
        while missing > 1:
            value = min(missing - 2, 250)
            value = value if missing - value - 2 != 1 else value - 1
            data += bytes((43, value)) + self.dice.randbytes(value)
            missing -= value + 2
        return data

    def message(self, vlan, xid, op):
        dice = self.dice
        iface = self.model.interfaces[vlan]
        foreign = dice.choice(["10.10.0.51", "192.0.2.99", "10.20.0.1"])
        giaddr = dice.choice(["0.0.0.0"] * 4 + [iface.address, foreign, foreign] if op == 1 else
                             ["0.0.0.0"] + [iface.address] * 6 + [foreign])
        data = craft.message(
            None, mac=dice.choice(self.macs), xid=xid, op=op if dice.random() < 0.97 else dice.choice([0, 3, 255]),
            htype=dice.choice([1] * 9 + [6]), hlen=dice.choice([6] * 9 + [0, 16]), hops=self.hops(),
            secs=dice.randrange(65536), flags=dice.choice([0] * 30 + [0x8000] * 24 + [1, 0x8001, 0x4000]),
            ciaddr=dice.choice(["0.0.0.0", "10.10.0.60"]), yiaddr=dice.choice(["0.0.0.0", "10.20.0.77", "10.10.0.78"]),
            siaddr=dice.choice(["0.0.0.0", "192.0.2.11"]), giaddr=giaddr, end=False)
        for code, value in self.options(vlan, xid, op):
            data += value if code == PADS else bytes((code, len(value))) + value
        if dice.random() < 0.12:
            data = self.fill_up(data)
        data += b"\xff" + dice.choice([b""] * 12 + [bytes(7), bytes(60), b"\x0c\x02ab\xff", b"\xff\xff", b"\x0c\x02a", b"\x01"])
        if dice.random() < 0.05:
            data = data[:dice.choice([0, 10, 211, 212, 235, 236, 239, 240, 241, max(241, len(data) - 2)])]
        if dice.random() < 0.03 and len(data) > 240:
            at = dice.randrange(236, len(data))
            data = data[:at] + dice.randbytes(1) + data[at + 1:]
        return data

    def hops(self):
        limit = self.model.hops
        return self.dice.choice([0] * 30 + [limit - 1, limit, limit, limit + 1, 16, 17, 255])

    def sending(self, xid):
        """A message, the host that sends it and the frame it stands in."""
        dice = self.dice
        host = dice.choice(self.hosts)
        own = self.lab.vlans[host.vlan]
        answers = xid in self.model.transactions
        if answers:
            host = dice.choice(list(self.lab.server_hosts.values()))
            own = self.lab.vlans[host.vlan]
        op = 2 if answers and dice.random() < 0.9 else dice.choice([1] * 9 + [2])
        destination = "255.255.255.255"
        about = own.id
        if answers or dice.random() < 0.15:
            about = dice.choice([10, 20])
            destination = self.model.interfaces[about].address
            if dice.random() < 0.05:
                destination = "198.51.100.1"
        data = self.message(about, xid, op)
        frame = craft.broadcast(data, host.mac, source=host.address or "0.0.0.0", destination=destination,
                                sport=67 if op == 2 else 68)
        if destination != "255.255.255.255":
            frame = mac_bytes(own.mac) + frame[6:]
        return host, data, frame, destination

    # ---- What comes of them ----

    def play(self, xids):
        """Sends a message of each transaction. Returns what has to reach whom, Counters by host and by VLAN, and a line about
        each message by its transaction."""
        due = {name: Counter() for name in [*(host.name for host in self.hosts), *map("vlan{}".format, self.lab.vlans)]}
        told = {}
        for xid in xids:
            host, data, frame, destination = self.sending(xid)
            counted = dict(self.model.counters)
            try:
                verdict = self.model.handle(data, host.vlan, host.port, destination)
            except WouldAbort:  # never sent
                self.model.counters = counted
                continue
            host.send(frame)
            told[xid] = f"{verdict.word}: {host} to {destination}: {data.hex()}"
            self.expected[self.answered.word(verdict.word, data)] += 1
            self.rebroadcasts += verdict.rebroadcasts
            for server, message in verdict.datagrams:
                due[self.host_at(server)][server, message] += 1
            for vlan, out in verdict.frames:
                due[f"vlan{vlan}"][out] += 1
        return due, told

    def host_at(self, address):
        return next(host.name for host in self.lab.server_hosts.values() if host.address == address)


PADS = -1  # no option code: its bytes stand in the message as they are


def frames_from_relay(lab, host, packets):
    """What the relay sent to a host, apart: datagrams to it as a server, and frames of its VLAN."""
    vlan, uplink = lab.vlans[host.vlan], lab.vlans[99]
    datagrams, frames = Counter(), Counter()
    for packet in packets:
        if packet.outgoing or not {packet.sport, packet.dport} <= {67, 68} or packet.sport is None:
            continue
        if host.address and packet.dst == host.address and packet.src_mac == uplink.mac and packet.dport == 67:
            assert (packet.src, packet.sport, packet.dst_mac) == (lab.uplink_address, 68, host.mac)
            datagrams[packet.dst, packet.payload] += 1
        elif packet.src_mac == vlan.mac and packet.payload != MARKER and packet.dst not in server_addresses(lab):
            frames[packet.raw] += 1
    return datagrams, frames


def server_addresses(lab):
    return {host.address for host in lab.server_hosts.values()}


def send_markers(lab, captures):
    """The last frames of a round, out of each VLAN interface, and the wait for them at every host."""
    for vlan in lab.vlans.values():
        frame = craft.broadcast(MARKER, vlan.mac, sport=67, dport=68)
        with lab.switch.entered():
            out = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, 0)
        with out:
            out.bind((vlan.device, 0))
            out.send(frame)
    for capture, since in captures.values():
        known = set(map(id, capture.packets[:since]))
        capture.wait(lambda packet, known=known: packet.payload == MARKER and id(packet) not in known, 30, "marker")


def statistics(relay):
    return json.loads(relay.sh("show ip dhcp relay statistics | json"))["total"]


def difference(what, seen, due, told):
    """Lines about what differs, none when all is as it should be."""
    for title, extra in (("is too much", seen - due), ("is missing", due - seen)):
        for item in extra:
            message = item[1] if isinstance(item, tuple) else item[42:]
            yield f"{what}: this {title}: {message.hex()}\n  of {told.get(int.from_bytes(message[4:8], 'big'))}"


def compare(lab, captures, due, told):
    """What reached each host since its mark is what had to."""
    seen_in = {vlan: Counter() for vlan in lab.vlans}
    faults = []
    for host in [*lab.clients.values(), *lab.server_hosts.values()]:
        capture, since = captures[host.name]
        datagrams, frames = frames_from_relay(lab, host, capture.packets[since:])
        faults += difference(host.name, datagrams, due[host.name], told)
        seen_in[host.vlan] |= frames  # the copies that the bridge floods are one frame
    for vlan, frames in seen_in.items():
        faults += difference(f"vlan{vlan}", frames, due[f"vlan{vlan}"], told)
    assert not faults, "\n".join(faults)


@pytest.mark.parametrize("seed", range(1, 7))
def test_relay_and_model_agree(lab, relay, seed):
    world = World(lab, seed)
    dice = world.dice
    relay.configure(*commands_of(world.model))
    if seed % 2:  # what is not traced leaves together with others
        relay.sh("logging level warning")
    # The last frame of a round needs no server's hardware address, so that no datagram before it may wait for one.
    lab.switch.ip(*(f"neigh replace {host.address} lladdr {host.mac} dev vlan99" for host in lab.server_hosts.values()))
    sockets = [host.udp(67) for host in lab.server_hosts.values()]
    captures = {host.name: lab.capture(host) for host in world.hosts}
    total = 0
    for number in range(ROUNDS):
        fresh = [dice.getrandbits(32) for _ in range(MESSAGES // 2)]
        waiting = list(world.model.transactions)
        xids = fresh + dice.sample(waiting, min(len(waiting), MESSAGES // 2))
        marks = {name: (capture, capture.mark()) for name, capture in captures.items()}
        due, told = world.play(xids)
        total += len(told)
        wait_for(lambda: statistics(relay)["received"] >= total, 30, f"{total} messages in the books")
        send_markers(lab, marks)
        compare(lab, marks, due, told)
    seen = statistics(relay)
    assert {word: count for word, count in seen["outcomes"].items() if count} == dict(world.expected)
    assert (seen["received"], seen["rebroadcast"]) == (total, world.rebroadcasts)
    assert counters(relay) == world.model.counters
    assert transactions(relay) == world.model.transactions
    for sock in sockets:
        sock.close()
