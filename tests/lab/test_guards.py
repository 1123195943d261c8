# SPDX-License-Identifier: Apache-2.0
"""The guards of [guard] in switch.toml: each attack goes through without its guard, and does not with it."""

import json
import re
import signal

import pytest
from conftest import open_lab
from ravolab import craft
from ravolab.process import wait_for
from scripted import Stage, fresh_xid

STRANGER = "02:00:00:00:0a:99"
REMOTE_ID = 2


@pytest.fixture(scope="module")
def lab():
    yield from open_lab(name="guards", servers=2)


@pytest.fixture(scope="module")
def relay(lab):
    relay = lab.start_relay(log_level="warning")
    stage = Stage(lab, relay)
    stage.configure()
    stage.close()
    yield relay
    assert relay.stop() == 0, relay.log[-3000:]


@pytest.fixture
def stage(lab, relay):
    stage = Stage(lab, relay)
    yield stage
    stage.close()


def ports(lab):
    """What the switch's owner says of the ports: server 1 and 2 are where servers are."""
    return "".join(f'[[port]]\ndevice = "{host.port_device}"\nmodule = 1\nport = {host.port}\nservers = true\n'
                   for host in lab.server_hosts.values())


def describe(stage, guard):
    """Puts a [guard] table in force."""
    stage.relay.switch_file.write_text(f"[guard]\n{guard}\n{ports(stage.lab)}")
    mark = len(stage.relay.log)
    stage.relay.process.send_signal(signal.SIGHUP)
    stage.relay.wait_log("switch description read again", since=mark)


def count(relay, outcome):
    total = json.loads(relay.sh("show ip dhcp relay statistics | json"))["total"]
    assert sum(total["outcomes"].values()) == total["received"]
    return total["outcomes"][outcome]


def forged_reply(stage):
    """A client answers another one's request in the server's name."""
    victim, forger = stage.lab.client(1), stage.lab.client(2)
    reply = stage.build_answer(stage.relayed(stage.ask(victim)))
    forger.send(stage.unicast(forger, reply.raw, reply.giaddr))
    return lambda: stage.replies(victim, reply.xid)


def strange_server(stage):
    """A host where servers are, but that no interface is configured for, answers first."""
    victim = stage.lab.client(1)
    reply = stage.answer(stage.relayed(stage.ask(victim)), server=2)
    return lambda: stage.replies(victim, reply.xid)


def empty_circuit_id(stage):
    """A reply that names no port at all, which the check of replies takes for the right one."""
    victim = stage.lab.client(1)
    remote_id = stage.information(victim)[-10:]
    assert remote_id[0] == REMOTE_ID
    request = stage.relayed(stage.ask(victim))
    reply = stage.answer(request, information=bytes((82, 2 + len(remote_id), 1, 0)) + remote_id)
    return lambda: stage.replies(victim, reply.xid)


def pretended_relay(stage):
    """A client that calls itself a relay: servers would answer to whatever address it says."""
    sent = stage.ask(stage.lab.client(1), giaddr="203.0.113.9")
    return lambda: stage.seen("server1", sent.xid)


def anothers_address(stage):
    """A client asks in the name of another one, whose lease it could give back."""
    sent = stage.ask(stage.lab.client(1), mac=STRANGER)
    return lambda: stage.seen("server1", sent.xid)


def another_vlan(stage):
    """A client of VLAN 10 asks the interface of VLAN 20, for an address there."""
    sent = stage.ask(stage.lab.client(1), to=stage.lab.vlans[20].address)
    return lambda: stage.seen("server1", sent.xid)


def taken_transaction(stage):
    """A client on another port repeats an open transaction: its port is remembered instead."""
    sent = stage.ask(stage.lab.client(1))
    stage.relayed(sent)
    stage.ask(stage.lab.client(2), xid=sent.xid)
    return lambda: stage.seen("server1", sent.xid)[1:]


def many_clients(stage):
    """A client under many names, to use up the servers' addresses."""
    host = stage.lab.client(2)
    xids = [fresh_xid() for _ in range(3)]
    for number, xid in enumerate(xids):
        stage.ask(host, mac=f"02:00:00:00:0b:0{number}", xid=xid)
    return lambda: stage.seen("server1", xids[-1])


ATTACKS = [(forged_reply, "server_ports = true", "guard-server-port"),
           (strange_server, "servers = true", "guard-server"),
           (empty_circuit_id, "circuit_id = true", "guard-circuit-id"),
           (pretended_relay, "relay_fields = true", "guard-relay-fields"),
           (anothers_address, "source_mac = true", "guard-source-mac"),
           (another_vlan, "destination = true", "guard-destination"),
           (taken_transaction, "transactions = true", "guard-transaction"),
           (many_clients, "clients = 2", "guard-clients")]


@pytest.mark.parametrize(("attack", "guard", "outcome"), ATTACKS, ids=[name for _, _, name in ATTACKS])
def test_attack(stage, attack, guard, outcome):
    describe(stage, "")
    before = count(stage.relay, outcome)
    wait_for(attack(stage), 30, "what the attack does without a guard")
    assert count(stage.relay, outcome) == before

    describe(stage, guard)
    seen = attack(stage)
    # Behind it on the same roads: a client that asks and is answered is served.
    wait_for(lambda: count(stage.relay, outcome) == before + 1, 30, f"one message more that is {outcome}")
    stage.fence_replies(stage.lab.client(1))
    assert seen() == []
    assert count(stage.relay, outcome) == before + 1


def test_all_guards_let_good_clients_pass(stage):
    describe(stage, "all = true")
    lab, guards = stage.lab, [outcome for _, _, outcome in ATTACKS]
    before = [count(stage.relay, outcome) for outcome in guards]
    for host in (lab.client(1), lab.client(3)):
        sent = stage.ask(host)
        stage.delivered(stage.answer(stage.check_relayed(sent, host)), host)
        asked = stage.ask(host, "REQUEST", xid=sent.xid)
        request = stage.at["server1"].wait(
            lambda packet: packet.dhcp is not None and packet.dhcp.xid == asked.xid and packet.dhcp.raw[242] == 3, 30, "REQUEST")
        stage.answer(request, "ACK")
        wait_for(lambda: len(stage.replies(host, asked.xid)) == 2, 30, "ACK")
        stage.check_relayed(stage.ask(host, "REQUEST", to=lab.vlans[host.vlan].address), host)
    assert [count(stage.relay, outcome) for outcome in guards] == before


def local_reply(host, destination="255.255.255.255"):
    """A reply that is broadcast in a VLAN of local relay, which relays nothing but requests there."""
    host.send(craft.broadcast(craft.message("OFFER", op=2, mac=host.mac, xid=fresh_xid()), host.mac,
                              destination=destination))


def without_address(relay, vlan):
    """Whether the relay's interface of a VLAN has no address."""
    shown = json.loads(relay.sh("show ip dhcp relay detail | json"))["interfaces"]
    return ["address" in one for one in shown if one["name"] == f"vlan{vlan}"] == [False]


def test_what_the_relay_would_end_over(stage):
    """Local relay with the check off: the reply is stopped, unless it is asked for."""
    lab, host = stage.lab, stage.lab.client(1)
    address = f"{lab.vlans[10].address}/24"
    lab.switch.ip(f"addr del {address} dev vlan10")
    try:
        relay = lab.start_relay(log_level="warning")
        relay.configure("ip dhcp relay", "no ip dhcp relay information check", "ip dhcp local-relay",
                        "ip dhcp local-relay vlan 10", "interface vlan 10", "ip dhcp local-relay")
        assert without_address(relay, 10)
        local_reply(lab.client(3), "0.0.0.0")  # which finds an interface that has no address, from any VLAN
        wait_for(lambda: count(relay, "core-assertion") == 1, 30, "the reply to no address")
    finally:
        lab.switch.ip(f"addr add {address} dev vlan10")
    wait_for(lambda: not without_address(relay, 10), 30, "the interface's address")
    local_reply(host)
    wait_for(lambda: count(relay, "core-assertion") == 2, 30, "the reply")
    relay.wait_log("vlan10: a reply came in")  # a thread of its own writes the log
    told = re.findall(r"^vlan(10|20): a reply came in where local relay is on and the check is off.*$", relay.log, re.M)
    assert told == ["20", "10"] and relay.alive

    relay.switch_file.write_text("[guard]\ncore_assertions = true\n")
    relay.process.send_signal(signal.SIGHUP)
    relay.wait_log("switch description read again")
    local_reply(host)
    wait_for(lambda: not relay.alive, 30, "end of the relay")
    assert relay.process.status == -signal.SIGABRT
    assert 'header->op == opBOOTREQUEST' in relay.log
    stage.lab.relays.remove(relay)
