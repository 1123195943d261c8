# SPDX-License-Identifier: Apache-2.0
"""Where messages went: statistics, the flight recorder, and both as JSON, over real exchanges and random traffic."""

import contextlib
import json
import random
import re
import signal
import socket

import pytest

import managed
from ravolab import Dnsmasq, Kea, Udhcpc
from ravolab.client import NoLease
from ravolab.craft import broadcast, message
from ravolab.decode import checksum, frame_header
from ravolab.process import wait_for

NOBODY = "192.0.2.200"  # on the uplink, where no server answers

WHEN = r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} "


def configure(relay, server, *more):
    relay.configure("ip dhcp relay information option",
                    "interface vlan 10", f"ip dhcp relay address {server.address}", "exit",
                    *more, "ip dhcp relay")


def of_kind(lab, kind):
    return next(server for server in lab.servers if isinstance(server, kind))


def document(relay, command):
    return json.loads(relay.sh(f"{command} | json"))


def statistics(relay):
    return document(relay, "show ip dhcp relay statistics")


def nonzero(block):
    return {word: count for word, count in block["outcomes"].items() if count}


def received(relay, count):
    """Wait until that many messages were received; the statistics."""
    return wait_for(lambda: (seen := statistics(relay))["total"]["received"] >= count and seen, 30,
                    f"{count} messages received")


def test_an_exchange_in_the_books(lab, relay):
    """Four messages: two relayed, two delivered, each in the place where it came in."""
    host, server = lab.client(1), of_kind(lab, Kea)
    configure(relay, server)
    host.run(Udhcpc)
    seen = received(relay, 4)
    assert seen["total"]["received"] == 4
    assert seen["total"]["sent"] == 4
    assert seen["total"]["rebroadcast"] == 0
    assert nonzero(seen["total"]) == {"relayed": 2, "delivered": 2}
    assert {block["vlan"]: nonzero(block) for block in seen["vlans"]} == {10: {"relayed": 2}, 99: {"delivered": 2}}
    assert {block["port"]: nonzero(block) for block in seen["ports"]} == {"1/1": {"relayed": 2}, "1/9": {"delivered": 2}}
    assert document(relay, "show ip dhcp relay statistics vlan 10") == seen["vlans"][0]
    assert document(relay, "show ip dhcp relay statistics port 1/9") == seen["ports"][1]


def test_the_recorder_tells_the_exchange(lab, relay):
    host, server, vlan = lab.client(1), of_kind(lab, Kea), lab.vlans[10]
    configure(relay, server)
    host.run(Udhcpc)
    received(relay, 4)
    lease = document(relay, f"show ip dhcp relay client {host.mac}")["address"]
    lines = relay.sh(f"show ip dhcp relay client {host.mac}").splitlines()
    assert lines[:2] == [f"Client {host.mac} in VLAN 10 on port 1/1 has {lease} from {server.address}.",
                         f"Messages of {host.mac}, newest first:"]
    information = f"option 82 VLAN 10 port 1/1 MAC {vlan.mac}"
    reply = rf"{host.mac} xid [0-9A-F]{{1,8}} vlan 99 port 1/9: delivered \(delivered to the client\)" \
            rf", {lease} from {server.address}, \d+\.\d{{3}} ms after its request, {information}"
    request = rf"{host.mac} xid [0-9A-F]{{1,8}} vlan 10 port 1/1: relayed to {server.address} \(relayed to servers\)"
    patterns = [f"{WHEN}ACK {reply}", f"{WHEN}REQUEST {request}", f"{WHEN}OFFER {reply}", f"{WHEN}DISCOVER {request}"]
    assert len(lines) == 6
    for line, pattern in zip(lines[2:], patterns):
        assert re.fullmatch(pattern, line), line

    told = document(relay, f"show ip dhcp relay client {host.mac.replace(':', '-').upper()}")
    assert told["client"] == host.mac and "answered_us" not in told["messages"][1]
    assert [each["type"] for each in told["messages"]] == ["ACK", "REQUEST", "OFFER", "DISCOVER"]
    assert [each["outcome"] for each in told["messages"]] == ["delivered", "relayed", "delivered", "relayed"]
    assert told["messages"][3]["servers"] == [server.address]
    assert told["messages"][0]["option82"]["mac"] == vlan.mac
    assert 0 < told["messages"][0]["answered_us"] < 60_000_000

    clients = document(relay, "show ip dhcp relay client")["clients"]
    assert [(each["client"], each["vlan"], each["port"], each["messages"], each["type"], each["state_text"])
            for each in clients] == [(host.mac, 10, "1/1", 4, "ACK", f"has {lease} from {server.address}")]
    [told] = document(relay, "show ip dhcp relay server")["servers"]
    assert (told["interface"], told["server"], told["asked"], told["answered"]) == ("vlan10", server.address, 2, 2)
    assert 0 < told["median_us"] <= told["p99_us"] < 60_000_000 and "silent_seconds" not in told


def test_the_second_servers_answer_is_no_surprise(lab, relay):
    """Two servers: the client has the first answer, the other one is told as what it is, and not in the log."""
    host, first, second = lab.client(1), of_kind(lab, Kea), of_kind(lab, Dnsmasq)
    configure(relay, first, "interface vlan 10", f"ip dhcp relay address {second.address}", "exit")
    with contextlib.suppress(NoLease):  # each time that the second server's NAK comes first
        host.run(Udhcpc)

    def both_answered():
        now = statistics(relay)["total"]
        return now["outcomes"]["already-answered"] and now

    # A client that asks twice because the machine is slow gets more offers; each is the first or a later one.
    seen = wait_for(both_answered, 30, "both offers")
    assert set(nonzero(seen)) == {"relayed", "delivered", "already-answered"}
    outcomes, types = seen["outcomes"], seen["types"]
    assert outcomes["delivered"] >= 2
    assert outcomes["delivered"] + outcomes["already-answered"] == sum(map(types.get, ("offer", "ack", "nak")))
    told = document(relay, f"show ip dhcp relay client {host.mac}")["messages"]
    late = [each for each in told if each["outcome"] == "already-answered"][-1]
    early = [m for m in told if (m["outcome"], m["type"], m["xid"]) == ("delivered", "OFFER", late["xid"])]
    assert {late["server"], early[-1]["server"]} == {first.address, second.address}
    servers = {each["server"]: each for each in document(relay, "show ip dhcp relay server")["servers"]}
    assert all(each["answered"] >= 1 for each in servers.values())
    assert not re.search("(?<!the first answer ends a t)ransaction", relay.sh("show logging"))  # but for the advice


def test_each_reason_has_its_count(lab, relay):
    """One frame for each of several reasons: the books name it."""
    host = lab.client(1)
    relay.configure("ip dhcp relay information option", "interface vlan 10", f"ip dhcp relay address {NOBODY}", "exit",
                    "ip dhcp relay")
    good = message("DISCOVER", mac=host.mac, xid=1)

    def ip_checksum_broken(frame):
        return frame[:24] + bytes([frame[24] ^ 0xFF]) + frame[25:]

    frames = {
        "relayed": broadcast(good, host.mac),
        "bad-ip-checksum": ip_checksum_broken(broadcast(good, host.mac)),
        "truncated": broadcast(good, host.mac)[:-1],
        "unknown-vlan": broadcast(good, host.mac, vlan=777),
        "bad-flags": broadcast(message("DISCOVER", mac=host.mac, xid=2, flags=1), host.mac),
        "hop-limit": broadcast(message("DISCOVER", mac=host.mac, xid=3, hops=16), host.mac),
        "unknown-operation": broadcast(message("DISCOVER", mac=host.mac, xid=4, op=3), host.mac),
        "bad-options": broadcast(good[:236] + b"\0\0\0\0" + good[240:], host.mac),
        "no-message-type": broadcast(message(None, mac=host.mac, xid=5, padding=bytes(8)), host.mac),
        "untrusted-option82": broadcast(message("DISCOVER", mac=host.mac, xid=6, options=[(82, b"\x01\x01a")]),
                                        host.mac),
        "no-address": broadcast(message("DISCOVER", mac=host.mac, xid=7), host.mac, destination="198.51.100.1"),
    }
    for frame in frames.values():
        host.send(frame)
    seen = received(relay, len(frames))
    assert nonzero(seen["total"]) == dict.fromkeys(frames, 1)


def test_reasons_of_replies(lab, relay):
    """A reply without option 82, with the circuit of another port, and to a transaction nobody began."""
    host, server_host = lab.client(1), of_kind(lab, Kea).host
    configure(relay, of_kind(lab, Kea))
    vlan = lab.vlans[10]

    def reply(*options):
        payload = message("OFFER", mac=host.mac, xid=0x77, op=2, giaddr=vlan.address, yiaddr="10.10.0.9",
                          options=options)
        uplink = lab.vlans[99]
        header = frame_header(server_host.mac, uplink.mac, server_host.address, vlan.address, payload,
                              sport=67, dport=67)
        server_host.send(header + payload)

    def information(port):
        remote = bytes.fromhex(vlan.mac.replace(":", ""))
        return 82, b"\x01\x06\x00\x04\x0a\x00\x01" + bytes([port]) + b"\x02\x08\x00\x06" + remote

    reply()
    reply(information(1))
    seen = received(relay, 2)
    assert nonzero(seen["total"]) == {"no-option82": 1, "unknown-transaction": 1}
    told = document(relay, f"show ip dhcp relay client {host.mac}")["messages"]
    assert [(each["op"], each["outcome"]) for each in told] == [("reply", "unknown-transaction"),
                                                                 ("reply", "no-option82")]


def test_reasons_of_frames_that_are_no_message(lab, relay):
    """What cannot be read is told to who asks for its sender, and of a first fragment it is known what it was."""
    host = lab.client(1)
    relay.configure("ip dhcp relay")
    whole = broadcast(message("DISCOVER", mac="02:00:00:00:aa:01", xid=1), host.mac)
    first = whole[:20] + b"\x20\x00" + whole[22:24] + bytes(2) + whole[26:]
    ip_sum = checksum(first[14:34])
    frames = {"fragment": first[:24] + ip_sum.to_bytes(2, "big") + first[26:],
              "bad-udp-checksum": whole[:40] + b"\xbe\xef" + whole[42:],
              "truncated": whole[:-1]}
    for frame in frames.values():
        host.send(frame)
    host.send(broadcast(message("DISCOVER", mac=host.mac, xid=2), host.mac, vlan=777))
    host.send(broadcast(message("DISCOVER", mac=host.mac, xid=3, op=3), host.mac))
    seen = received(relay, len(frames) + 2)
    assert nonzero(seen["total"]) == dict.fromkeys([*frames, "unknown-vlan", "unknown-operation"], 1)
    lines = relay.sh(f"show ip dhcp relay client {host.mac}").splitlines()
    assert [line[24:] for line in lines if line[:2] == "20"] == [
        f"DISCOVER {host.mac} xid 3000000 vlan 10 port 1/1: unknown-operation (neither request nor reply)",
        f"DISCOVER {host.mac} xid 2000000 vlan 777 port 1/1: unknown-vlan (no VLAN interface for its VLAN)",
        f"- {host.mac} vlan 10 port 1/1: truncated (shorter than its headers say)",
        f"- {host.mac} vlan 10 port 1/1: bad-udp-checksum (wrong UDP checksum)",
        f"- {host.mac} vlan 10 port 1/1: fragment (part of a fragmented packet)"]
    told = document(relay, f"show ip dhcp relay client {host.mac}")["messages"]
    assert [(each["op"], each.get("xid"), each["vlan"]) for each in told] == [
        ("", "3000000", 10), ("request", "2000000", 777), ("", None, 10), ("", None, 10), ("", None, 10)]
    assert [(each["client"], each["messages"], each["op"]) for each in document(relay, "show ip dhcp relay client")[
        "clients"]] == [(host.mac, 2, "")]


def test_more_reasons(lab, relay):
    host, other = lab.client(1), lab.client(3)
    relay.configure("ip dhcp relay information option", "ip dhcp relay information policy drop",
                    "interface vlan 10", f"ip dhcp relay address {NOBODY}", "exit",
                    "interface vlan 20", "ip dhcp relay address 203.0.113.7", "exit", "ip dhcp relay")
    foreign = [(82, b"\x01\x05eth/1\x02\x02\xab\xcd")]
    lab.switch.ip("route add unreachable 203.0.113.0/24")
    try:
        host.send(broadcast(message("DISCOVER", mac=host.mac, xid=1, giaddr="198.51.100.1", options=foreign), host.mac))
        host.send(broadcast(message(None, mac=host.mac, xid=2, options=[(53, b"\x09")]), host.mac))
        host.send(broadcast(message(None, mac=host.mac, xid=3, options=[(53, b"\x00")]), host.mac))
        other.send(broadcast(message("DISCOVER", mac=other.mac, xid=4), other.mac))
        seen = received(relay, 4)
    finally:
        lab.switch.ip("route del unreachable 203.0.113.0/24")
    assert nonzero(seen["total"]) == {"policy-drop": 1, "unknown-message-type": 2, "send-failed": 1}
    assert {block["port"]: nonzero(block) for block in seen["ports"]}["1/3"] == {"send-failed": 1}
    told = document(relay, f"show ip dhcp relay client {host.mac}")["messages"][-1]
    assert told["option82"] == {"bytes": foreign[0][1].hex(), "length": 11, "circuit_id": b"eth/1".hex(),
                                "remote_id": "abcd"}
    assert relay.sh(f"show ip dhcp relay client {host.mac}").splitlines()[-1].endswith(
        'policy-drop (option 82 of another relay, policy drop), option 82 circuit id "eth/1" remote id abcd')


def test_every_server_is_told(lab, relay):
    """A request that its vendor class and its client identifier send to four servers each."""
    host = lab.client(1)
    servers = [f"192.0.2.{number}" for number in range(201, 209)]
    relay.configure("interface vlan 10", "ip dhcp relay information trusted",
                    *(f"ip dhcp relay option60 string phone exact-match address {each}" for each in servers[:4]),
                    *(f"ip dhcp relay option61 hex 0x01020304 address {each}" for each in servers[4:]),
                    "exit", "ip dhcp relay")
    host.send(broadcast(message("DISCOVER", mac=host.mac, xid=1, giaddr="10.10.0.1", options=[
        (60, b"phone"), (61, b"\x01\x02\x03\x04"), (82, b"\x01\x01a")]), host.mac))
    assert received(relay, 1)["total"]["sent"] == 8
    told = document(relay, f"show ip dhcp relay client {host.mac}")["messages"][0]
    assert (told["servers"], told["servers_count"]) == (servers, 8)
    assert f": relayed to {', '.join(servers)} (relayed to servers)" in relay.sh(f"show ip dhcp relay client {host.mac}")


def test_messages_that_came_too_fast_are_told(lab, relay):
    """A daemon that is held up loses what the kernel has no room for; how much is told beside the books."""
    host = lab.client(1)
    relay.configure("ip dhcp relay")
    frame = broadcast(message("DISCOVER", mac=host.mac, xid=1, padding=bytes(1000)), host.mac)
    with host.namespace.entered():
        wire = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, 0)
    with wire:
        wire.bind((host.device, 0))
        relay.process.send_signal(signal.SIGSTOP)
        try:
            for _ in range(8000):
                wire.send(frame)
        finally:
            relay.process.send_signal(signal.SIGCONT)
    last = broadcast(message("DISCOVER", mac="02:00:00:00:aa:01", xid=9), host.mac)
    wait_for(lambda: (host.send(last), "02:00:00:00:aa:01" in relay.sh("show ip dhcp relay client"))[1], 60,
             "a message behind the flood")
    seen = statistics(relay)["total"]
    assert 0 < seen["lost"] < 8000
    assert block_sum(seen) == seen["received"]
    assert f"\n{seen['lost']} messages more came faster than they could be read and were lost\n" in relay.sh(
        "show ip dhcp relay statistics")
    relay.sh("clear ip dhcp relay statistics")
    assert statistics(relay)["total"]["lost"] == 0
    assert "lost" not in relay.sh("show ip dhcp relay statistics")


def test_interfaces_without_a_server(lab, relay):
    """A VLAN that was never configured, and one whose server was taken away."""
    host, other = lab.client(1), lab.client(3)
    relay.configure("interface vlan 10", f"ip dhcp relay address {NOBODY}", f"no ip dhcp relay address {NOBODY}", "exit",
                    "ip dhcp relay")
    host.send(broadcast(message("DISCOVER", mac=host.mac, xid=1), host.mac))
    other.send(broadcast(message("DISCOVER", mac=other.mac, xid=2), other.mac))
    assert nonzero(received(relay, 2)["total"]) == {"no-server": 2}


def test_nothing_is_received_while_the_relay_is_off(lab, relay):
    host = lab.client(1)
    relay.configure("ip dhcp relay")
    host.send(broadcast(message("DISCOVER", mac=host.mac, xid=1), host.mac))
    received(relay, 1)
    relay.configure("no ip dhcp relay")
    with lab.capture(host.port_device) as at_port:
        host.send(broadcast(message("DISCOVER", mac=host.mac, xid=2), host.mac))
        at_port.wait_dhcp(xid=2)  # it is in the switch, and not just on its way
    relay.configure("ip dhcp relay")
    host.send(broadcast(message("DISCOVER", mac=host.mac, xid=3), host.mac))
    received(relay, 2)
    told = document(relay, f"show ip dhcp relay client {host.mac}")["messages"]
    assert [each["xid"] for each in told] == ["3000000", "1000000"]


def random_frame(dice, mac):
    """A frame that is a DHCP message, more or less."""
    kind = dice.choice(["DISCOVER", "REQUEST", "RELEASE", "INFORM", "OFFER", None])
    options = [(dice.randrange(1, 255), dice.randbytes(dice.randrange(20))) for _ in range(dice.randrange(4))]
    payload = message(kind, mac=mac, xid=dice.getrandbits(32), op=dice.choice([1, 1, 1, 2, 0, 3]),
                      hops=dice.choice([0, 0, 0, 4, 17]), flags=dice.choice([0, 0, 0x8000, 5]), options=options,
                      end=dice.random() < 0.9)
    frame = broadcast(payload, mac, vlan=dice.choice([None, None, None, 0, 10, 4000]))
    if dice.random() < 0.3:
        at = dice.randrange(len(frame))
        frame = frame[:at] + dice.randbytes(1) + frame[at + 1:]
    if dice.random() < 0.15:
        frame = frame[:dice.randrange(60, len(frame))]
    return frame


def let_answer(relay, host):
    """Wait until the server has answered whatever was relayed to it. Where that was too much for its queue it may have
    missed a question, so that one is asked after the other until there is an answer."""
    mac = "02:00:00:00:aa:99"

    def answered():
        host.send(broadcast(message("DISCOVER", mac=mac, xid=99), host.mac))
        told = relay.run(f"show ip dhcp relay client {mac} | json")
        return told.returncode == 0 and any(each["op"] == "reply" for each in json.loads(told.stdout)["messages"])
    wait_for(answered, 60, "answer of the server", interval=0.5)


def block_sum(block):
    return sum(block["outcomes"].values())


def test_sum_of_outcomes_is_what_was_received(lab, relay):
    """Random traffic, much of it broken, from two ports at once: nothing is lost from the books."""
    server = of_kind(lab, Dnsmasq)
    configure(relay, server, "interface vlan 20", f"ip dhcp relay address {server.address}", "exit")
    dice = random.Random(20240607)
    hosts = [lab.client(1), lab.client(3)]
    with lab.capture("swp1") as first, lab.capture("swp3") as second:
        for _ in range(1500):
            host = dice.choice(hosts)
            host.send(random_frame(dice, host.mac))
        # One good message at the end of each port: when both are in the books, so is all before them.
        for number, host in enumerate(hosts):
            host.send(broadcast(message("DISCOVER", mac=f"02:00:00:00:aa:0{number}", xid=9), host.mac))
        for number in range(2):
            wait_for(lambda mac=f"02:00:00:00:aa:0{number}": mac in relay.sh("show ip dhcp relay client"), 30,
                     "the last message")
        assert len(first.packets) + len(second.packets) >= 1500
    let_answer(relay, hosts[0])
    seen = statistics(relay)
    for block in [seen["total"], *seen["vlans"], *seen["ports"]]:
        assert block_sum(block) == block["received"]
        assert block["outcomes"]["undecided"] == 0
    assert 1000 < seen["total"]["received"]
    assert len(nonzero(seen["total"])) >= 8
    # Every message came in on a port, and every one whose VLAN is known counts there too.
    assert sum(block["received"] for block in seen["ports"]) == seen["total"]["received"]
    assert sum(block["received"] for block in seen["vlans"]) <= seen["total"]["received"]


def test_clearing(lab, relay):
    host = lab.client(1)
    relay.configure("ip dhcp relay")
    host.send(broadcast(message("DISCOVER", mac=host.mac, xid=1), host.mac))
    received(relay, 1)
    relay.sh("clear ip dhcp relay statistics")
    assert statistics(relay)["total"]["received"] == 0
    assert len(document(relay, "show ip dhcp relay client")["clients"]) == 1


def test_a_port_by_its_device(relay):
    assert relay.sh("show ip dhcp relay statistics port swp1") == relay.sh("show ip dhcp relay statistics port 1/1")
    assert document(relay, "show ip dhcp relay statistics port swp1")["port"] == "1/1"
    # Both names are offered.
    with managed.Session(relay.socket) as session:
        words = [session.complete(f"show ip dhcp relay statistics port {typed}") for typed in ("swp", "1/")]
    assert "swp1" in words[0] and "1/1" in words[1] and not set(words[0]) & set(words[1])


def test_ports_and_interfaces_by_any_of_their_names(lab, relay):
    relay.configure("interface vlan10", "ip dhcp relay address 192.0.2.11")
    section = "interface vlan10\n ip dhcp relay address 192.0.2.11\n!\n"
    for name in ("vlan10", "vlan 10", "Vlan10", "10"):
        assert relay.sh(f"show running-config interface {name}").removesuffix("!\n") == section.removesuffix("!\n")
    for name in ("swp1", "1/1"):
        told = relay.sh(f"show running-config interface {name}")
        assert told.removesuffix("!\n") == ("! port 1/1, device swp1: the settings of its VLANs\n"
                                            + section.removesuffix("!\n"))
    assert relay.sh("show running-config interface swp3") == "! port 1/3, device swp3: the settings of its VLANs\ninterface vlan20\n"
    result = relay.run("show running-config interface nosuch")
    assert (result.returncode, result.stdout) == (1, '% "nosuch" is no interface and no port\n')
    with managed.Session(relay.socket) as session:
        for command in ("show running-config interface ", "terminal monitor interface "):
            assert {"swp1", "1/1", "vlan10"} <= set(session.complete(command))
        for command in ("show ip dhcp relay statistics vlan ", "monitor ip dhcp relay vlan ",
                        "show running-config interface vlan "):
            assert {"10", "20"} <= set(session.complete(command))
        for command in ("show ip dhcp relay statistics port ", "monitor ip dhcp relay port "):
            assert {"swp1", "1/1"} <= set(session.complete(command))


def test_what_is_no_port_and_no_address(relay):
    for command, line in (
            ("show ip dhcp relay statistics port swp99", '% "swp99" is no port; give module and port, such as 1/2\n'),
            ("show ip dhcp relay client 1234", '% "1234" is no hardware address; give it as 02:00:00:00:00:01, '
                                               "02-00-00-00-00-01 or 0200.0000.0001\n")):
        for words in (command, f"{command} | json"):
            result = relay.run(words)
            assert (result.returncode, result.stdout) == (1, line)


@pytest.mark.parametrize("command", ["show history", "show startup-config", "show tech-support"])
def test_commands_without_json_say_so(relay, command):
    result = relay.run(f"{command} | json")
    assert (result.returncode, result.stdout) == (1, "% No JSON for this command\n")


def test_interfaces_as_json(lab, relay):
    rows = {row["name"]: row for row in document(relay, "show interfaces brief")["interfaces"]}
    assert rows["vlan10"].pop("kernel_ifindex") == 1034
    assert rows["vlan10"] == {"name": "vlan10", "kind": "vlan", "ifindex": 1034, "up": True,
                              "address": "10.10.0.1/24", "device": "vlan10"}
    port = rows["port 1/1"]
    assert (port["kind"], port["ifindex"], port["device"], port["kernel_ifindex"]) == ("port", 5121, "swp1", 5121)
    assert "address" not in port


def test_recorder_of_the_size_described(lab):
    relay = lab.start_relay(switch_toml="[channel]\nrecorder = 3\n")
    try:
        host = lab.client(1)
        relay.configure("ip dhcp relay")
        for xid in range(1, 6):
            host.send(broadcast(message("DISCOVER", mac=host.mac, xid=xid), host.mac))
        received(relay, 5)
        told = document(relay, f"show ip dhcp relay client {host.mac}")
        assert [each["xid"] for each in told["messages"]] == ["5000000", "4000000", "3000000"]
    finally:
        relay.stop()
        lab.relays.remove(relay)
