# SPDX-License-Identifier: Apache-2.0
"""Clients and servers played by the test: messages made byte by byte, and proof of what passed and what did not.

A message that must not pass is followed by one that must, on the same road. When that one is seen, the first
has been dropped and is not just late.
"""

import itertools
import re
import socket
import threading

import pytest
from ravolab import craft
from ravolab.decode import decode, decode_dhcp, option82, relayed_request

COUNTED = ("DISCOVER", "OFFER", "REQUEST", "ACK", "DECLINE", "NAK", "INFORM", "RELEASE")
_xids = itertools.count(0x52410001)


def fresh_xid():
    return next(_xids)


def counters(relay):
    """{type: messages received} as "show ip dhcp relay detail" tells."""
    text = relay.sh("show ip dhcp relay detail")
    return {kind: int(re.search(rf"^DHCP packet {kind} ?Rx:(\d+)$", text, re.M)[1]) for kind in COUNTED}


def transactions(relay):
    """{xid in network order: (module, port)} as "show ip dhcp relay xid-port-mapping" tells."""
    text = relay.configure("show ip dhcp relay xid-port-mapping")
    rows = re.findall(r"Xid:([0-9A-F]+)\nModule id: (\d+)\nIngress port: (\d+)\n\n", text)
    found = {int.from_bytes(int(xid, 16).to_bytes(4, "little"), "big"): (int(module), int(port))
             for xid, module, port in rows}
    assert text.endswith(f"Total Entries: {len(found)}\n")
    return found


def discover(host, **fields):
    """A message of the host, as bytes."""
    return craft.message("DISCOVER", mac=host.mac, xid=fresh_xid(), **fields)


def frame_of(host, message, **arguments):
    """The frame in which the host broadcasts it."""
    return craft.broadcast(message, host.mac, **arguments)


class Stage:
    """The hosts of a lab, each with a capture at its device; the server hosts' port 67 is held."""

    def __init__(self, lab, relay):
        self.lab, self.relay = lab, relay
        self.at = {host.name: lab.capture(host) for host in [*lab.clients.values(), *lab.server_hosts.values()]}
        self.sockets = {host.name: host.udp(67) for host in lab.server_hosts.values()}

    def close(self):
        for sock in self.sockets.values():
            sock.close()

    def configure(self, *lines, servers=(1,)):
        """The relay on, option 82 inserted, these server hosts for VLANs 10 and 20; then the lines, in global mode."""
        per_vlan = [f"ip dhcp relay address {self.lab.server_host(number).address}" for number in servers]
        self.relay.configure("ip dhcp relay information option", "interface vlan 10", *per_vlan, "exit",
                             "interface vlan 20", *per_vlan, "exit", "ip dhcp relay", *lines)

    # Clients

    def ask(self, host, kind="DISCOVER", *, to=None, **fields):
        """Broadcast a request from the host, or send it to an address of the switch; the message sent."""
        payload = craft.message(kind, **{"mac": host.mac, "xid": fresh_xid(), **fields})
        host.send(self.unicast(host, payload, to) if to else craft.broadcast(payload, host.mac))
        return decode_dhcp(payload)

    def ask_in_vain(self, host):
        """Broadcast a DISCOVER that is not to be relayed, and wait until it is in the switch; the message sent."""
        with self.lab.capture(host.port_device) as at_port:
            sent = self.ask(host)
            at_port.wait_dhcp(xid=sent.xid)
        return sent

    def unicast(self, host, payload, address):
        """The frame of a message from the host to its VLAN interface."""
        vlan = self.lab.vlans[host.vlan]
        frame = craft.broadcast(payload, host.mac, source=f"10.{host.vlan}.0.{50 + host.port}", destination=address,
                                sport=67)
        return bytes.fromhex(vlan.mac.replace(":", "")) + frame[6:]

    def information(self, host):
        """The option 82 that the relay inserts for the host."""
        return option82(host.vlan, 1, host.port, self.lab.vlans[host.vlan].mac)

    def relayed(self, sent, server=1):
        """Wait for the request at the server; the packet there."""
        return self.at[f"server{server}"].wait_dhcp(xid=sent.xid)

    def check_relayed(self, sent, host, server=1, *, information=None):
        """The request reached the server, once, as the relay must pass it on; the packet there."""
        packet = self.relayed(sent, server)
        vlan = self.lab.vlans[host.vlan]
        information = self.information(host) if information is None else information
        assert packet.payload.hex() == relayed_request(sent.raw, vlan.address, information).hex()
        address = self.lab.server_host(server).address
        assert (packet.src, packet.sport, packet.dst, packet.dport) == ("192.0.2.1", 68, address, 67)
        assert self.seen(f"server{server}", sent.xid) == [packet]
        return packet

    def seen(self, where, xid):
        """What the host's capture holds of a transaction that came in there."""
        return [packet for packet in self.at[where].dhcp(xid=xid) if not packet.outgoing]

    def fence(self, host, server=1):
        """Everything the host sent before has been dealt with, and what of it passed is in the server's capture."""
        self.relayed(self.ask(host), server)

    # Servers

    def build_answer(self, request, kind="OFFER", *, server=1, giaddr=None, information=None, **fields):
        """The answer to a request as it was relayed to the server. information: option 82 instead of the request's
        own, b"" for none; fields: as of craft.message."""
        asked = request.dhcp
        if information is None:
            carried = asked.relay_information
            information = bytes((82, len(carried.raw))) + carried.raw if carried else b""
        options = [(54, bytes(map(int, self.lab.server_host(server).address.split(".")))),
                   (51, (600).to_bytes(4, "big"))]
        if information:
            options.append((82, information[2:]))
        giaddr = giaddr or asked.giaddr
        return decode_dhcp(craft.message(kind, **{
            "op": 2, "mac": asked.chaddr, "xid": asked.xid, "flags": asked.flags, "giaddr": giaddr,
            "yiaddr": f"{giaddr.rsplit('.', 1)[0]}.77", "options": options, **fields}))

    def answer(self, request, kind="OFFER", *, server=1, **fields):
        """Send what build_answer makes of the same arguments to its relay address; the message sent."""
        sent = self.build_answer(request, kind, server=server, **fields)
        self.sockets[f"server{server}"].sendto(sent.raw, (sent.giaddr, 67))
        return sent

    def delivered(self, sent, host):
        """Wait for a reply at the client; the packet there."""
        return self.at[host.name].wait(lambda packet: not packet.outgoing and packet.dhcp is not None
                                       and packet.dhcp.op == 2 and packet.dhcp.xid == sent.xid, 30, "reply")

    def replies(self, host, xid):
        return [packet for packet in self.seen(host.name, xid) if packet.dhcp.op == 2]

    def fence_replies(self, host, server=1):
        """Every reply the server sent before has been dealt with, and what of it passed is in the client's capture."""
        request = self.relayed(self.ask(host), server)
        self.delivered(self.answer(request, server=server), host)


@pytest.fixture
def stage(lab, relay):
    """The usual stage, for the tests that import it: the relay on, option 82 inserted, one server."""
    stage = Stage(lab, relay)
    stage.configure()
    yield stage
    stage.close()


class Steady:
    """One client that asks again and again, and a server that answers each time, in two threads, while a block runs.

        with Steady(stage, stage.lab.client(3)) as steady:
            ...                                     # whatever happens to others
        steady.check()                              # each question was answered once
    """

    def __init__(self, stage, host, server=2):
        """server: a server host of which the client's VLAN is served, and whose port 67 nobody else reads."""
        self.stage, self.host, self.server = stage, host, server
        self.asked, self.answers = [], {}
        self._stop = threading.Event()
        with host.namespace.entered():
            self._wire = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, 0)
            self._wire.bind((host.device, 0x0800))
        self._wire.settimeout(30)
        self._socket = stage.sockets[f"server{server}"]
        self._socket.settimeout(0.05)
        self._threads = [threading.Thread(target=self._ask), threading.Thread(target=self._answer)]

    def __enter__(self):
        self._asking, self._answering = self._threads
        self._answering.start()
        self._asking.start()
        return self

    def __exit__(self, *_):
        self._stop.set()
        for thread in self._threads:
            thread.join()
        self._wire.close()

    def _ask(self):
        while not self._stop.is_set():
            payload = craft.message("DISCOVER", mac=self.host.mac, xid=fresh_xid())
            xid = decode_dhcp(payload).xid
            self.asked.append(xid)
            self._wire.send(craft.broadcast(payload, self.host.mac))
            try:
                while xid not in self.answers:
                    packet = decode(self._wire.recv(2048))
                    if packet.dhcp and packet.dhcp.op == 2:
                        self.answers.setdefault(packet.dhcp.xid, []).append(packet)
            except TimeoutError:
                continue  # lost; check() tells

    def _answer(self):
        # Until the client has stopped, so that its last question is answered.
        while self._asking.is_alive() or not self._stop.is_set():
            try:
                data, _ = self._socket.recvfrom(2048)
            except TimeoutError:
                continue
            message = decode_dhcp(data)
            if message is None or message.relay_information is None or message.chaddr != self.host.mac:
                continue
            carried = message.relay_information.raw
            reply = craft.message("OFFER", op=2, mac=message.chaddr, xid=message.xid, giaddr=message.giaddr,
                                  yiaddr="10.20.0.99", options=[(82, carried)])
            self._socket.sendto(reply, (message.giaddr, 67))

    def check(self, least=10):
        lost = [xid for xid in self.asked if xid not in self.answers]
        assert lost == [], f"{len(lost)} of {len(self.asked)} exchanges of {self.host} were lost"
        assert len(self.asked) >= least
        assert {len(packets) for packets in self.answers.values()} == {1}
