# SPDX-License-Identifier: Apache-2.0
"""Option 82 on the way to the servers: insertion, trust, the policies for another relay's option, the hop limit."""

import pytest
from conftest import open_lab
from ravolab import craft
from ravolab.decode import MAGIC, mac_bytes, relayed_request
from scripted import Stage, counters, transactions

DOWNSTREAM = "10.10.0.51"
FOREIGN = (82, bytes.fromhex("0104") + b"edge" + bytes.fromhex("0203") + b"box")
FOREIGN_REMOTE_FIRST = (82, bytes.fromhex("0203") + b"box" + bytes.fromhex("0104") + b"edge")


@pytest.fixture(scope="module")
def lab():
    yield from open_lab(name="option82", servers=2)


@pytest.fixture
def stage(lab, relay):
    stage = Stage(lab, relay)
    yield stage
    stage.close()


def option_bytes(option):
    return bytes((option[0], len(option[1]))) + option[1]


def check_dropped(stage, sent, host):
    stage.fence(host)
    assert stage.seen("server1", sent.xid) == []


def check_passed_as_it_is(stage, sent):
    """One hop more, and not one other byte changed."""
    packet = stage.relayed(sent)
    assert packet.payload.hex() == (sent.raw[:3] + bytes((sent.hops + 1,)) + sent.raw[4:]).hex()
    return packet


# ---- The relay's own ----

@pytest.mark.parametrize("port", [1, 2, 3, 4])
@pytest.mark.parametrize("kind", ["DISCOVER", "REQUEST", "DECLINE", "RELEASE", "INFORM"])
def test_each_request_gets_the_option_of_its_port(stage, kind, port):
    stage.configure()
    host = stage.lab.client(port)
    sent = stage.ask(host, kind, options=[(12, b"laptop"), (55, bytes((1, 3, 6)))])
    packet = stage.check_relayed(sent, host)
    seen = packet.dhcp.relay_information
    assert (seen.vlan, seen.module, seen.port, seen.mac) == (host.vlan, 1, port, stage.lab.vlans[host.vlan].mac)


def test_what_stands_behind_the_end_option_is_not_sent_on(stage):
    """Padding behind END, as many clients send it, gives way to option 82."""
    stage.configure()
    host = stage.lab.client(1)
    packet = stage.check_relayed(stage.ask(host, padding=bytes(60)), host)
    assert len(packet.payload) == 240 + 3 + 20 + 1


def test_insertion_off(stage):
    """Only the relay address and the hop count change, padding stays, no transaction is remembered."""
    stage.configure("no ip dhcp relay information option")
    host = stage.lab.client(1)
    sent = stage.ask(host, padding=bytes(60))
    packet = stage.check_relayed(sent, host, information=b"")
    assert packet.dhcp.relay_information is None
    assert transactions(stage.relay) == {}


def test_an_odd_length(stage):
    stage.configure()
    host = stage.lab.client(1)
    for name in (b"abc", b"abcd"):
        packet = stage.check_relayed(stage.ask(host, options=[(12, name)]), host)
        assert len(packet.payload) % 2 == len(name) % 2 == (len(packet.payload) - 266) % 2


@pytest.mark.parametrize("kind", ["DISCOVER", "REQUEST", "INFORM", "DECLINE", "RELEASE"])
def test_transactions_shown(stage, kind):
    """The port of each transaction, but of those that no reply ends."""
    stage.configure()
    expected = {}
    for port in (1, 2, 4):
        host = stage.lab.client(port)
        sent = stage.ask(host, kind)
        stage.relayed(sent)
        if kind not in ("DECLINE", "RELEASE"):
            expected[sent.xid] = (1, port)
    assert transactions(stage.relay) == expected


def test_a_transaction_holds_the_later_port(stage):
    stage.configure()
    first = stage.ask(stage.lab.client(1))
    stage.relayed(first)
    stage.ask(stage.lab.client(2), xid=first.xid)
    stage.fence(stage.lab.client(2))
    assert transactions(stage.relay)[first.xid] == (1, 2)


def test_counters_count_every_type_once(stage):
    stage.configure()
    host = stage.lab.client(1)
    before = counters(stage.relay)
    for times, kind in enumerate(("DISCOVER", "REQUEST", "DECLINE", "RELEASE", "INFORM"), 1):
        for _ in range(times):
            stage.relayed(stage.ask(host, kind))
    request = stage.relayed(stage.ask(host))
    for times, kind in ((1, "NAK"), (2, "ACK"), (3, "OFFER")):
        for _ in range(times):
            stage.answer(request, kind)
    stage.fence_replies(host)
    after = counters(stage.relay)
    assert {kind: after[kind] - before[kind] for kind in after} == {
        "DISCOVER": 3, "OFFER": 4, "REQUEST": 2, "ACK": 2, "DECLINE": 3, "NAK": 1, "INFORM": 5, "RELEASE": 4}
    stage.relay.sh("clear ip dhcp relay detail counter")
    assert set(counters(stage.relay).values()) == {0}


# ---- Trust ----

def test_untrusted_option_82_is_dropped(stage):
    stage.configure()
    host = stage.lab.client(1)
    before = counters(stage.relay)
    sent = stage.ask(host, options=[FOREIGN])
    check_dropped(stage, sent, host)
    assert sent.xid not in transactions(stage.relay)
    assert counters(stage.relay)["DISCOVER"] == before["DISCOVER"] + 2  # it was counted, and so was the fence


def test_untrusted_option_82_is_dropped_with_insertion_off_too(stage):
    stage.configure("no ip dhcp relay information option")
    host = stage.lab.client(1)
    check_dropped(stage, stage.ask(host, options=[FOREIGN]), host)


def test_trusted_option_82_is_kept(stage):
    stage.configure("interface vlan 10", "ip dhcp relay information trusted")
    host = stage.lab.client(1)
    sent = stage.ask(host, options=[FOREIGN, (12, b"behind")])
    stage.check_relayed(sent, host, information=b"")
    other = stage.lab.client(3)  # VLAN 20 is not trusted
    check_dropped(stage, stage.ask(other, options=[FOREIGN]), other)
    stage.relay.configure("interface vlan 10", "no ip dhcp relay information trusted")
    check_dropped(stage, stage.ask(host, options=[FOREIGN]), host)


def test_trust_all(stage):
    stage.configure("ip dhcp relay information trust-all")
    for port in (1, 3):
        host = stage.lab.client(port)
        stage.check_relayed(stage.ask(host, options=[FOREIGN]), host, information=b"")
    stage.relay.configure("no ip dhcp relay information trust-all")
    for port in (1, 3):
        host = stage.lab.client(port)
        check_dropped(stage, stage.ask(host, options=[FOREIGN]), host)


def test_an_option_that_starts_with_the_remote_id_gets_a_second_beside_it(stage):
    """The relay knows an option 82 by its circuit id in the first place."""
    stage.configure("interface vlan 10", "ip dhcp relay information trusted")
    host = stage.lab.client(1)
    stage.check_relayed(stage.ask(host, options=[FOREIGN_REMOTE_FIRST]), host)


# ---- Policies for what another relay agent has passed on ----

@pytest.mark.parametrize("behind", [[], [(12, b"laptop")], [(12, b"laptop"), (55, bytes(range(1, 60)))]])
@pytest.mark.parametrize("to", [None, "10.10.0.1"])
def test_policy_keep(stage, behind, to):
    stage.configure("ip dhcp relay information policy keep")
    sent = stage.ask(stage.lab.client(1), to=to, giaddr=DOWNSTREAM, hops=1, options=[FOREIGN, *behind])
    check_passed_as_it_is(stage, sent)


@pytest.mark.parametrize("to", [None, "10.10.0.1"])
def test_policy_drop(stage, to):
    stage.configure("ip dhcp relay information policy drop")
    host = stage.lab.client(1)
    since = len(stage.relay.log)
    sent = stage.ask(host, to=to, giaddr=DOWNSTREAM, hops=1, options=[FOREIGN, (12, b"laptop")])
    check_dropped(stage, sent, host)
    stage.relay.wait_log(r"ravo_if_handle_pkt \(\d+\): drop  the packet by policy\n", since=since)


LONG = (43, bytes(200))
HOSTILE_TAIL = (43, bytes.fromhex("52ff") * 40)


@pytest.mark.parametrize("behind", [[], [(12, b"laptop")], [(12, b"x")], [(12, b"")], [(55, bytes(range(1, 60)))],
                                    [HOSTILE_TAIL], [(12, b"a"), (60, b"phone"), (61, bytes(7))]])
@pytest.mark.parametrize("old", [FOREIGN, (82, bytes.fromhex("0101") + b"x"), (82, bytes.fromhex("01fa") + bytes(250))])
def test_policy_replace(stage, old, behind):
    """The relay's own option stands where the other's stood, and ends the options."""
    stage.configure()
    host = stage.lab.client(1)
    sent = stage.ask(host, giaddr=DOWNSTREAM, hops=1, options=[(50, bytes(4)), old, *behind])
    packet = stage.relayed(sent)
    place = sent.raw.index(option_bytes(old), 240)
    expected = sent.raw[:3] + b"\x02" + sent.raw[4:place] + stage.information(host) + b"\xff"
    assert packet.payload[:len(expected)].hex() == expected.hex()
    assert packet.dhcp.giaddr == DOWNSTREAM
    # As long as before but for the option's own size; what is behind END is no option any more.
    assert len(packet.payload) == len(sent.raw) - len(option_bytes(old)) + 20
    assert stage.relay.alive
    stage.fence(host)


def test_replace_without_room_keeps_the_other_relays_option(stage):
    stage.configure()
    sent = stage.ask(stage.lab.client(1), giaddr=DOWNSTREAM, hops=1, options=[FOREIGN, LONG, LONG])
    check_passed_as_it_is(stage, sent)


@pytest.mark.parametrize("length, fits", [(306, True), (307, True), (308, False), (500, False)])
def test_insertion_needs_room(stage, length, fits):
    """Options of up to 307 bytes leave room for option 82; longer ones go on without it."""
    stage.configure()
    host = stage.lab.client(1)
    fill = length - len(bytes((53, 1, 1, 255))) - 2 * 202 if length > 410 else length - 4 - 202
    sent = stage.ask(host, options=[*([LONG] * (1 + (length > 410))), (43, bytes(fill - 2))])
    assert len(sent.raw) == 240 + length
    stage.check_relayed(sent, host, information=stage.information(host) if fits else b"")


def test_without_the_option_a_downstream_message_passes_as_it_is_under_every_policy(stage):
    stage.configure()
    for policy in ("keep", "drop", "replace"):
        stage.relay.configure(f"ip dhcp relay information policy {policy}")
        sent = stage.ask(stage.lab.client(1), giaddr=DOWNSTREAM, hops=1, options=[(12, b"laptop")])
        check_passed_as_it_is(stage, sent)


def test_with_insertion_off_the_policy_does_not_matter(stage):
    stage.configure("no ip dhcp relay information option")
    for policy in ("keep", "drop", "replace"):
        stage.relay.configure(f"ip dhcp relay information policy {policy}")
        sent = stage.ask(stage.lab.client(1), giaddr=DOWNSTREAM, hops=1, options=[FOREIGN, (12, b"laptop")])
        check_passed_as_it_is(stage, sent)


def test_the_relays_own_address_makes_the_message_its_own(stage):
    """No policy applies: the option is kept, the transaction remembered."""
    stage.configure("ip dhcp relay information policy drop")
    sent = stage.ask(stage.lab.client(1), giaddr="10.10.0.1", hops=1, options=[FOREIGN])
    check_passed_as_it_is(stage, sent)
    assert transactions(stage.relay)[sent.xid] == (1, 1)


# ---- The hop limit ----

def check_hops(stage, host, hops, passes):
    since = len(stage.relay.log)
    sent = stage.ask(host, hops=hops)
    if passes:
        assert stage.check_relayed(sent, host).dhcp.hops == hops + 1
    else:
        check_dropped(stage, sent, host)
        stage.relay.wait_log(r"isValidHeader \(\d+\): reason=Looping detected\n", since=since)


@pytest.mark.parametrize("limit, hops, passes", [
    (None, 0, True), (None, 4, True), (None, 5, False), (None, 255, False), (1, 1, True), (1, 2, False),
    (16, 16, True), (16, 17, False), (16, 255, False)])
def test_hop_limit(stage, limit, hops, passes):
    stage.configure(*([f"ip dhcp relay hops {limit}"] if limit else []))
    check_hops(stage, stage.lab.client(1), hops, passes)


# ---- Messages that are none ----

BAD = {
    "flags": (dict(flags=0x8001), r"isValidHeader \(\d+\): reason=Invalid flags field\n"),
    "operation 0": (dict(op=0), r"isValidHeader \(\d+\): reason=Unknown operation\n"),
    "operation 3": (dict(op=3), r"isValidHeader \(\d+\): reason=Unknown operation\n"),
    "no type": (dict(kind=None, options=[(12, b"laptop")]), r"ravo_l2_listen_hdlr \(\d+\): No DHCP type found\n"),
}


@pytest.mark.parametrize("name", BAD)
def test_bad_header(stage, name):
    fields, line = BAD[name]
    fields = {"kind": "DISCOVER", **fields}
    stage.configure()
    host = stage.lab.client(1)
    since = len(stage.relay.log)
    sent = stage.ask(host, **fields)
    check_dropped(stage, sent, host)
    stage.relay.wait_log(line, since=since)


def test_every_truncation_and_every_claim(stage):
    """A message cut at each length behind the fixed header, and options that claim each length: relayed right or not at
    all, and the relay stays alive."""
    stage.configure()
    host = stage.lab.client(1)
    whole = craft.message("DISCOVER", mac=host.mac, xid=0x77000000,
                          options=[(12, b"laptop"), (60, b"v"), (61, b"1234")])
    since = stage.at["server1"].mark()
    for length in range(len(whole)):
        host.send(craft.broadcast(whole[:length], host.mac))
    place = whole.index(bytes((12, 6)), 240) + 1
    expected = 0
    for claim in range(256):
        message = whole[:place] + bytes((claim,)) + whole[place + 1:]
        expected += valid_options(message)
        host.send(craft.broadcast(message, host.mac))
    stage.fence(host)
    passed = [packet for packet in stage.at["server1"].dhcp(since=since) if packet.dhcp.xid == 0x77000000]
    assert len(passed) == expected >= 1
    assert whole[:3] + whole[4:24] == passed[0].payload[:3] + passed[0].payload[4:24]


def valid_options(message):
    """Whether the options end exactly where the message ends, with an END among them."""
    assert message[236:240] == MAGIC
    at, ended = 240, False
    while at < len(message):
        ended = ended or message[at] == 255
        if message[at] in (0, 255):
            at += 1
        elif at + 1 < len(message):
            at += 2 + message[at + 1]
        else:
            return False
    return ended and at == len(message)


def test_a_message_with_an_end_inside_a_claim_is_read_to_its_end(stage):
    """Behind END only padding is no option: a second option 53 there is not the message's type."""
    stage.configure()
    host = stage.lab.client(1)
    before = counters(stage.relay)
    sent = stage.ask(host, "INFORM", padding=bytes((53, 1, 1, 255)))
    packet = stage.relayed(sent)
    assert packet.payload.hex() == relayed_request(sent.raw, "10.10.0.1", stage.information(host)).hex()
    after = counters(stage.relay)
    assert (after["INFORM"] - before["INFORM"], after["DISCOVER"] - before["DISCOVER"]) == (1, 0)


def test_a_foreign_hardware_type_is_relayed_as_it_is(stage):
    stage.configure()
    host = stage.lab.client(1)
    packet = stage.check_relayed(stage.ask(host, htype=32, hlen=16), host)
    assert (packet.dhcp.htype, packet.dhcp.hlen) == (32, 16)
    assert packet.payload[28:34] == mac_bytes(host.mac)
