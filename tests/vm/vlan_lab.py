# SPDX-License-Identifier: Apache-2.0
"""A lab whose switch has real VLANs.

                access     access    trunk      a NIC with     routed port,
                VLAN 10    VLAN 20   10, 20,    VLAN 40 on it  VLAN 30
                                     30 to 33
                  │          │          │          │             │
                swp1       swp2       swp3       swp4          swp5
                  └──────────┼──────────┤          │             │
                             br0        │       swp4.40       (described)
          vlan10 (index 1034)  up20 (index of its own)  vlan99 (index 1123)
                             │          │
                           swp9       swp10      access ports of VLAN 99: server hosts 1 and 2

The bridge is VLAN-aware and gives no port a VLAN by itself. VLANs 30 to 33 exist on it without an interface there.
"""

import json

from ravolab import Lab, Vlan, cleanup, craft, wait_for
from ravolab.decode import decode_dhcp
from ravolab.lab import FIRST_UPLINK_PORT, UPLINK_VLAN, Host
from ravolab.namespace import Namespace
from scripted import Stage, fresh_xid

DEVICES = {10: "vlan10", 20: "up20", 30: "swp5", 40: "swp4.40", UPLINK_VLAN: "vlan99"}
ADDRESSES = {vlan: f"10.{vlan}.0.1" for vlan in (10, 20, 30, 40)} | {UPLINK_VLAN: Lab.uplink_address}
CLIENT_VLANS = {1: 10, 2: 20, 3: 10, 4: 40, 5: 30}  # by port, the one that its host is in first
SERVERS = {1: "192.0.2.11", 2: "192.0.2.12"}


def vlan_mac(vlan):
    return f"02:00:00:00:{vlan:02d}:01"


def discovers(capture, host, sent):
    return capture.dhcp("DISCOVER", mac=host.mac, where=lambda packet: packet.outgoing == sent)


class VlanLab(Lab):
    description = '[[interface]]\nvlan = 30\ndevice = "swp5"\n'

    def __init__(self):
        super().__init__(name="vlans", servers=0)

    def open(self):
        cleanup.register(self)
        try:
            self.folder = cleanup.make_folder()
            self.switch = Namespace("vlans-switch")
            self.switch.set("ipv4/ip_forward", 1)
            self.switch.ip("link add br0 address 02:00:00:00:00:b0 type bridge stp_state 0 forward_delay 0 "
                           "vlan_filtering 1 vlan_default_pvid 0", "link set br0 up")
            for port, vlan in CLIENT_VLANS.items():
                self.add_host(f"client{port}", port, vlan, f"02:00:00:00:00:{port:02d}")
            for number, address in SERVERS.items():
                self.add_host(f"server{number}", FIRST_UPLINK_PORT + number - 1, UPLINK_VLAN,
                              f"02:00:00:00:99:1{number}", address)
            self.set_up_bridge()
            self.set_up_interfaces()
            self.switch.wait_up(*(host.port_device for host in (*self.clients.values(), *self.server_hosts.values())),
                                *DEVICES.values())
        except BaseException:
            self.close()
            raise
        return self

    def add_host(self, name, port, vlan, mac, address=None):
        host = Host(self, name, port, vlan, mac, address)
        (self.server_hosts if address else self.clients)[port - FIRST_UPLINK_PORT + 1 if address else port] = host
        port_mac = vlan_mac(30) if port == 5 else f"02:00:00:00:05:{port:02d}"  # port 5 is an interface itself
        self.switch.ip(f"link add {host.port_device} index {5120 + port} address {port_mac} type veth "
                       f"peer name {host.device} address {mac} netns {host.namespace.path}",
                       f"link set {host.port_device} up")
        host.namespace.ip(f"link set {host.device} up")
        if address:
            host.namespace.ip(f"addr add {address}/24 dev {host.device}",
                              f"route add 10.0.0.0/8 via {self.uplink_address}")

    def set_up_bridge(self):
        self.switch.ip(*(f"link set {port} master br0" for port in ("swp1", "swp2", "swp3", "swp9", "swp10")))
        self.bridge("vlan add dev swp1 vid 10 pvid untagged", "vlan add dev swp2 vid 20 pvid untagged",
                    *(f"vlan add dev swp3 vid {vlans}" for vlans in ("10", "20", "30-33")),
                    *(f"vlan add dev {port} vid 99 pvid untagged" for port in ("swp9", "swp10")),
                    *(f"vlan add dev br0 vid {vlans} self" for vlans in ("10", "20", "30-33", "99")))

    def set_up_bridge_interfaces(self):
        self.switch.ip(
            f"link add link br0 name vlan10 index 1034 address {vlan_mac(10)} type vlan id 10",
            f"link add link br0 name up20 address {vlan_mac(20)} type vlan id 20",
            f"link add link br0 name vlan99 index 1123 address {vlan_mac(99)} type vlan id 99")
        assert self.switch.ifindex("up20") != 1024 + 20
        for vlan in (10, 20, UPLINK_VLAN):
            self.set_up_interface(vlan)

    def set_up_interfaces(self):
        self.set_up_bridge_interfaces()
        self.switch.ip(f"link add link swp4 name swp4.40 address {vlan_mac(40)} type vlan id 40")
        for vlan in (30, 40):
            self.set_up_interface(vlan)

    def set_up_interface(self, vlan):
        self.vlans[vlan] = Vlan(vlan, ADDRESSES[vlan], vlan_mac(vlan), [])
        self.switch.ip(f"link set {DEVICES[vlan]} up", f"addr add {ADDRESSES[vlan]}/24 dev {DEVICES[vlan]}")

    def bridge(self, *lines):
        """Run bridge(8) with each line."""
        self.switch.run("bridge", "-batch", "-", input="".join(f"{line}\n" for line in lines))

    def configure(self, relay, *vlans):
        """Server host 1 for these VLANs."""
        relay.configure(*(line for vlan in vlans
                          for line in (f"interface vlan {vlan}", f"ip dhcp relay address {SERVERS[1]}", "exit")))


class VlanStage(Stage):
    """Messages made by hand on hosts whose frames may carry a tag."""

    def __init__(self, lab, relay):
        super().__init__(lab, relay)
        self.lab = lab

    def ask_tagged(self, host, tag, *, to=None):
        """Broadcast a DISCOVER with that tag (None: without one), or send it to an address of the switch."""
        payload = craft.message("DISCOVER", mac=host.mac, xid=fresh_xid())
        frame = self.unicast(host, payload, to) if to else craft.broadcast(payload, host.mac)
        if tag is not None:
            frame = frame[:12] + b"\x81\x00" + tag.to_bytes(2, "big") + frame[12:]
        host.send(frame)
        return decode_dhcp(payload)

    def statistics(self):
        return json.loads(self.relay.sh("show ip dhcp relay statistics | json"))

    def outcomes(self):
        """How many messages ended how so far, without those that never did."""
        return {word: count for word, count in self.statistics()["total"]["outcomes"].items() if count}

    def check_passes(self, host, vlan, tag=None, *, back=None, to=None):
        """A message with that tag is relayed once, as VLAN `vlan` and this port, and its answer comes back to the
        client, once, from that VLAN's interface. back: the answer's tag."""
        host.vlan = vlan
        before = self.outcomes()
        request = self.check_relayed(self.ask_tagged(host, tag, to=to), host)
        reply = self.answer(request)
        packet = self.delivered(reply, host)
        interface = self.lab.vlans[vlan]
        assert (packet.vlan, packet.src_mac, packet.src) == (back, interface.mac, interface.address)
        self.check_ended(before, relayed=1, delivered=1)
        assert len(self.replies(host, reply.xid)) == 1
        assert len(self.seen("server1", reply.xid)) == 1

    def check_ended(self, before, **expected):
        """Since `before` so many messages ended, in these ways and no others."""
        after = wait_for(lambda: (now := self.outcomes())
                         and sum(now.values()) >= sum(before.values()) + sum(expected.values()) and now,
                         30, "messages in the books")
        changes = {word: count - before.get(word, 0) for word, count in after.items() if count != before.get(word, 0)}
        assert changes == {word.replace("_", "-"): count for word, count in expected.items()}

    def check_dropped(self, host, *tags, then):
        """Messages with these tags end for want of an interface; one with the tag `then` is relayed."""
        before = self.outcomes()
        lost = [self.ask_tagged(host, tag) for tag in tags]
        self.relayed(self.ask_tagged(host, then))
        self.check_ended(before, unknown_vlan=len(lost), relayed=1)
        assert [self.seen("server1", sent.xid) for sent in lost] == [[]] * len(lost)

    def recorded(self, host, tag):
        """Send a message with that tag; what the recorder tells of it. It is there once."""
        sent = self.ask_tagged(host, tag)
        rows = wait_for(lambda: [row for row in self.messages(host) if row["xid"] == craft.shown_xid(sent.xid)], 5,
                        "message in the recorder")
        assert len(rows) == 1
        return rows[0]

    def check_ends(self, host, *expected):
        """For each (tag, vlan, outcome): a message with that tag ends so, known to have come in on the host's port and
        in that VLAN, 0 for none."""
        for tag, vlan, outcome in expected:
            row = self.recorded(host, tag)
            assert (tag, row.get("vlan", 0), row["outcome"], row["port"]) == (tag, vlan, outcome, f"1/{host.port}")

    def wait_relayed(self, host, tag, relayed=True):
        """Send messages with that tag until one is relayed, or until one is not: a change of the bridge, which no
        command shows, has come to the relay."""
        wait_for(lambda: (self.recorded(host, tag)["outcome"] == "relayed") == relayed, 10,
                 f"change of VLAN {tag} on {host}")

    def wait_dropped(self, host, tag):
        self.wait_relayed(host, tag, relayed=False)

    def messages(self, host):
        return json.loads(self.relay.sh(f"show ip dhcp relay client {host.mac} | json"))["messages"]

    def wait_port(self, port, pvid):
        """Wait until the relay knows that PVID of a port of module 1; 0: none, or that the port is none now."""
        def known():
            rows = json.loads(self.relay.sh("show interfaces brief | json"))["interfaces"]
            return pvid == next((row.get("pvid", 0) for row in rows if row["ifindex"] == 5120 + port), 0)
        wait_for(known, 30, f"PVID {pvid} of port {port}")

    def wait_interface(self, vlan, device):
        """Wait until the relay has that device as the VLAN's interface; None: no device."""
        def known():
            rows = json.loads(self.relay.sh("show interfaces brief | json"))["interfaces"]
            return device == next((row.get("device") for row in rows if row.get("ifindex") == 1024 + vlan), None)
        wait_for(known, 30, f"interface vlan{vlan} on {device}")
