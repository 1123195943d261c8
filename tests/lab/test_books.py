"""Where messages went: statistics, the flight recorder, and both as JSON, over real exchanges and random traffic."""

import json
import random
import re

import pytest

from ravolab import Dnsmasq, Kea, Udhcpc
from ravolab.craft import broadcast, message
from ravolab.decode import frame_header
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
    return wait_for(lambda: (seen := statistics(relay))["total"]["received"] >= count and seen, 10,
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
    host, server = lab.client(1), of_kind(lab, Kea)
    vlan = lab.vlans[10]
    configure(relay, server)
    host.run(Udhcpc)
    received(relay, 4)
    lines = relay.sh(f"show ip dhcp relay client {host.mac}").splitlines()
    assert lines[0] == f"Client {host.mac}, newest message first:"
    information = f"option 82 VLAN 10 port 1/1 MAC {vlan.mac}"
    reply = rf"{host.mac} xid 0x[0-9a-f]{{8}} vlan 99 port 1/9: delivered \(delivered to the client\)" \
            rf", \d+\.\d{{3}} ms after its request, {information}"
    request = rf"{host.mac} xid 0x[0-9a-f]{{8}} vlan 10 port 1/1: relayed to {server.address} \(relayed to servers\)"
    patterns = [f"{WHEN}ACK {reply}", f"{WHEN}REQUEST {request}", f"{WHEN}OFFER {reply}", f"{WHEN}DISCOVER {request}"]
    assert len(lines) == 5
    for line, pattern in zip(lines[1:], patterns):
        assert re.fullmatch(pattern, line), line

    told = document(relay, f"show ip dhcp relay client {host.mac.replace(':', '-').upper()}")
    assert told["client"] == host.mac
    assert [each["type"] for each in told["messages"]] == ["ACK", "REQUEST", "OFFER", "DISCOVER"]
    assert [each["outcome"] for each in told["messages"]] == ["delivered", "relayed", "delivered", "relayed"]
    assert told["messages"][3]["servers"] == [server.address]
    assert told["messages"][0]["option82"]["mac"] == vlan.mac
    assert 0 < told["messages"][0]["answered_us"] < 5_000_000
    assert "answered_us" not in told["messages"][1]

    clients = document(relay, "show ip dhcp relay client")["clients"]
    assert [(each["client"], each["vlan"], each["port"], each["messages"], each["type"]) for each in clients] == \
        [(host.mac, 10, "1/1", 4, "ACK")]


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
    host.send(broadcast(message("DISCOVER", mac=host.mac, xid=2), host.mac))
    relay.configure("ip dhcp relay")
    host.send(broadcast(message("DISCOVER", mac=host.mac, xid=3), host.mac))
    received(relay, 2)
    told = document(relay, f"show ip dhcp relay client {host.mac}")["messages"]
    assert [each["xid"] for each in told] == ["0x00000003", "0x00000001"]


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
            wait_for(lambda mac=f"02:00:00:00:aa:0{number}": mac in relay.sh("show ip dhcp relay client"), 10,
                     "the last message")
        assert len(first.packets) + len(second.packets) >= 1500
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


def test_what_is_no_port_and_no_address(relay):
    for command, line in (
            ("show ip dhcp relay statistics port swp1", '% "swp1" is no port; give module and port, such as 1/2\n'),
            ("show ip dhcp relay client 1234", '% "1234" is no hardware address; give it as 02:00:00:00:00:01, '
                                               "02-00-00-00-00-01 or 0200.0000.0001\n")):
        for words in (command, f"{command} | json"):
            result = relay.run(words)
            assert (result.returncode, result.stdout) == (1, line)


@pytest.mark.parametrize("command", ["show version", "show running-config", "show logging"])
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
        assert [each["xid"] for each in told["messages"]] == ["0x00000005", "0x00000004", "0x00000003"]
    finally:
        relay.stop()
        lab.relays.remove(relay)
