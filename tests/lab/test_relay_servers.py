# SPDX-License-Identifier: Apache-2.0
"""Which servers a request goes to: the interface's list, or those chosen by options 60 and 61."""

import pytest
from conftest import open_lab
from ravolab import Dnsmasq, Kea, Udhcpc
from scripted import Stage

DOWNSTREAM = "10.10.0.51"  # a relay agent behind port 1, which inserts an option 82 of its own
ITS_OPTION = (82, bytes.fromhex("0104") + b"edge")


@pytest.fixture(scope="module")
def lab():
    yield from open_lab(name="choice", servers=4)


@pytest.fixture
def stage(lab, relay):
    stage = Stage(lab, relay)
    yield stage
    stage.close()


def arrivals(stage, sent):
    """The server hosts that got the message, and each exactly once."""
    stage.fence_all()
    found = {}
    for number in stage.lab.server_hosts:
        packets = stage.seen(f"server{number}", sent.xid)
        assert len(packets) <= 1, f"server {number} got {len(packets)} copies"
        if packets:
            found[number] = packets[0]
    return found


@pytest.fixture
def chosen(stage):
    """Configures option hosts on VLAN 10 beside the plain server 1, and tells where a downstream message goes.

    The fence is a plain message, which goes to server 1 alone; so each option host's capture gets its own proof
    from a message of VLAN 20, which has all four servers."""
    stage.relay.configure(
        "ip dhcp relay information option", "ip dhcp relay information policy keep",
        "interface vlan 10", "ip dhcp relay address 192.0.2.11", "exit",
        "interface vlan 20", *[f"ip dhcp relay address 192.0.2.1{number}" for number in (1, 2, 3, 4)], "exit",
        "ip dhcp relay")

    def fence_all():
        host = stage.lab.client(1)
        stage.fence(host)  # same port, so what it sent before is dealt with
        sent = stage.ask(stage.lab.client(3))
        for number in (1, 2, 3, 4):
            stage.relayed(sent, number)

    stage.fence_all = fence_all

    def send(*lines, options=(), **fields):
        if lines:
            stage.relay.configure("interface vlan 10", *lines)
        host = stage.lab.client(1)
        fields = {"giaddr": DOWNSTREAM, "hops": 1, "options": [*options, ITS_OPTION], **fields}
        sent = stage.ask(host, to="10.10.0.1", **fields)
        found = arrivals(stage, sent)
        for packet in found.values():
            # Passed on as it came, one hop more.
            assert packet.payload.hex() == (sent.raw[:3] + bytes((sent.hops + 1,)) + sent.raw[4:]).hex()
        return sorted(found)

    return send


def test_four_servers_get_one_copy_each(stage):
    stage.configure(servers=(1, 2, 3, 4))
    host = stage.lab.client(1)
    sent = stage.ask(host)
    for number in (1, 2, 3, 4):
        stage.check_relayed(sent, host, number)
    stage.fence(host, 4)
    for number in (1, 2, 3, 4):
        assert len(stage.seen(f"server{number}", sent.xid)) == 1


def test_a_server_in_the_second_and_fourth_place_only(stage):
    """Emptied places are closed up: the others still get theirs."""
    stage.configure(servers=(1, 2, 3, 4))
    stage.relay.configure("interface vlan 10", "no ip dhcp relay address 192.0.2.11",
                          "no ip dhcp relay address 192.0.2.13")
    host = stage.lab.client(1)
    sent = stage.ask(host)
    stage.check_relayed(sent, host, 2)
    stage.check_relayed(sent, host, 4)
    other = stage.ask(stage.lab.client(3))
    for number in (1, 3):
        stage.relayed(other, number)
        assert stage.seen(f"server{number}", sent.xid) == []


@pytest.mark.parametrize("vendor, goes_to", [
    (b"phone", [2]), (b"phon", [1]), (b"phones", [1]), (b"PHONE", [1]), (b"camera", [1])])
def test_option_60_exact(chosen, vendor, goes_to):
    line = "ip dhcp relay option60 string phone exact-match address 192.0.2.12"
    assert chosen(line, options=[(60, vendor)]) == goes_to


@pytest.mark.parametrize("vendor, goes_to", [
    (b"phone", [2]), (b"desk", [2]), (b"k-p", [2]), (b"desk-phone", [2]), (b"desk-phone-2", [1]), (b"fax", [1])])
def test_option_60_partial(chosen, vendor, goes_to):
    """What the client sends is looked for in what is configured, not the other way round."""
    line = "ip dhcp relay option60 string desk-phone partial-match address 192.0.2.12"
    assert chosen(line, options=[(60, vendor)]) == goes_to


@pytest.mark.parametrize("client_id, goes_to", [
    ("01020304", [3]), ("01020304aabb", [3]), ("01020305", [1]), ("0102", [1]), ("ff020304", [1])])
def test_option_61(chosen, client_id, goes_to):
    """The first four bytes decide."""
    line = "ip dhcp relay option61 hex 0x0102030499 address 192.0.2.13"
    assert chosen(line, options=[(61, bytes.fromhex(client_id))]) == goes_to


def test_every_match_gets_a_copy_and_the_plain_list_none(chosen):
    assert chosen("ip dhcp relay option60 string phone exact-match address 192.0.2.12",
                  "ip dhcp relay option60 string a-phone-here partial-match address 192.0.2.13",
                  "ip dhcp relay option61 hex 0x01020304 address 192.0.2.14",
                  options=[(60, b"phone"), (61, bytes.fromhex("0102030405"))]) == [2, 3, 4]


def test_a_removed_option_host_gets_nothing(chosen, stage):
    line = "ip dhcp relay option60 string phone exact-match address 192.0.2.12"
    assert chosen(line, options=[(60, b"phone")]) == [2]
    # The removal is done although its answer, the number of servers that are left, reads like an error.
    removed = stage.relay.run("configure terminal", "interface vlan 10", f"no {line}")
    assert (removed.returncode, removed.stdout) == (1, "RAVO Err Unhandle errno 1 \n")
    assert chosen(options=[(60, b"phone")]) == [1]


def test_the_option_hosts_serve_a_trusted_interface_without_giaddr(chosen, stage):
    """A layer-2 agent below adds option 82 and leaves the relay address 0."""
    host = stage.lab.client(1)
    stage.relay.configure("interface vlan 10", "ip dhcp relay information trusted",
                          "ip dhcp relay option60 string phone exact-match address 192.0.2.12")
    sent = stage.ask(host, options=[(60, b"phone"), ITS_OPTION])
    stage.check_relayed(sent, host, 2, information=b"")
    assert sorted(arrivals(stage, sent)) == [2]


def test_without_option_82_the_plain_list_is_used(chosen, stage):
    """Only messages that a downstream agent has marked carry the choice."""
    host = stage.lab.client(1)
    stage.relay.configure("interface vlan 10",
                          "ip dhcp relay option60 string phone exact-match address 192.0.2.12")
    sent = stage.ask(host, options=[(60, b"phone")])
    stage.check_relayed(sent, host, 1)
    assert sorted(arrivals(stage, sent)) == [1]


def test_an_option_host_that_cannot_be_reached_is_no_reason_for_the_plain_list(chosen, stage):
    """203.0.113.9 has no route: the copy fails, and the message was still meant for that server alone."""
    line = "ip dhcp relay option60 string phone exact-match address 203.0.113.9"
    assert chosen(line, options=[(60, b"phone")]) == []
    stage.relay.wait_log(r"ravo_if_send_server_Unicast \(\d+\): sock_fd=\d+, sendmsg error Network is unreachable\n"
                         r"ravo_if_send_server_Unicast \(\d+\): tx host 203\.0\.113\.9, fd=\d+, res=-1\n")


# ---- Real servers, one of them down ----

def check_lease_from(relay, host, server, lines):
    relay.configure("ip dhcp relay information option", "interface vlan 10", *lines, "exit", "ip dhcp relay")
    for _ in range(2):  # the dead server must not get in the way the second time either
        lease = host.run(Udhcpc)
        assert lease.server == server.address
        assert server.owns(lease.address)


@pytest.mark.parametrize("order", ["first", "second"])
@pytest.mark.parametrize("fault", ["no program", "link down", "no route"])
def test_one_of_two_servers_is_down(bare_lab, fault, order):
    server = bare_lab.add_server(Kea if order == "first" else Dnsmasq, host=1)
    dead = bare_lab.server_host(2)
    address = "203.0.113.9" if fault == "no route" else dead.address
    if fault == "link down":
        dead.namespace.ip("link set eth0 down")
    relay = bare_lab.start_relay()
    lines = [f"ip dhcp relay address {server.address}", f"ip dhcp relay address {address}"]
    at_dead = bare_lab.capture(dead)
    check_lease_from(relay, bare_lab.client(1), server, reversed(lines) if order == "first" else lines)
    if fault == "no program":
        request = at_dead.wait_dhcp("REQUEST", mac=bare_lab.client(1).mac)
        assert request.dst == dead.address
    assert relay.stop() == 0


