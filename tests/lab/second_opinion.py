# SPDX-License-Identifier: Apache-2.0
"""What the relay has to do with a message, told a second time: a model in Python that shares no code with it.

`Model.handle` takes one DHCP message with the place it came in, and answers with what must leave the switch for it, byte
for byte, and with the word under which the books must count it. Like the relay it works on a buffer that is zero
behind the message and full of END options behind that.
"""

import dataclasses

from ravolab.decode import frame_header, mac_bytes, packed

SIZE = 1024
COUNTERS = {1: "DISCOVER", 2: "OFFER", 3: "REQUEST", 4: "DECLINE", 5: "ACK", 6: "NAK", 7: "RELEASE", 8: "INFORM"}
PAD, TYPE, VENDOR, CLIENT, AGENT, END = 0, 53, 60, 61, 82, 255
REPLACE, DROP, KEEP = "replace", "drop", "keep"


class WouldAbort(Exception):
    """The relay is made to end itself over such a message."""


@dataclasses.dataclass
class Interface:
    """The settings of a VLAN interface."""

    vlan: int
    address: str
    mac: str
    trusted: bool = False
    local_relay: bool = False
    servers: list = dataclasses.field(default_factory=list)
    by_vendor: list = dataclasses.field(default_factory=list)  # (text, exact, server)
    by_client: list = dataclasses.field(default_factory=list)  # (identifier bytes, server)


@dataclasses.dataclass
class Verdict:
    """What became of a message."""

    word: str = ""
    datagrams: list = dataclasses.field(default_factory=list)  # (server, message) in the order of sending
    frames: list = dataclasses.field(default_factory=list)  # (VLAN, frame)
    rebroadcasts: int = 0


class Buffer(bytearray):
    """A message where the relay keeps it, with the walks over its options."""

    def __init__(self, message):
        super().__init__(bytes(message) + bytes(SIZE - len(message)) + b"\xff" * SIZE)

    def option_size(self, at):
        return 1 if self[at] in (PAD, END) else self[at + 1] + 2

    def options(self):
        """(place, code) of each option behind the cookie, END the last one."""
        at = 240
        while True:
            yield at, self[at]
            if self[at] == END:
                return
            at += self.option_size(at)

    def end(self):
        return next(at for at, code in self.options() if code == END)

    def chain_is_good(self, length):
        """length: of the option area, cookie included."""
        if length == 0:
            return True
        if length < 5 or self[236:240] != bytes((99, 130, 83, 99)):
            return False
        at, ended = 4, False
        while at < length:
            ended = ended or self[236 + at] == END
            at += self.option_size(236 + at)
        return ended and at == length

    def message_type(self):
        return next((self[at + 2] for at, code in self.options() if code == TYPE), None)

    def find_agent(self):
        """(whether there is an option 82, where its circuit id is or None, the type seen before it or 0)."""
        kind = 0
        for at, code in self.options():
            if code == AGENT:
                return True, at + 2 if self[at + 2] == 1 else None, kind
            if code == TYPE:
                kind = self[at + 2]
        return False, None, kind

    @property
    def giaddr(self):
        return bytes(self[24:28])

    @giaddr.setter
    def giaddr(self, value):
        self[24:28] = value

    @property
    def xid(self):
        return int.from_bytes(self[4:8], "big")


def until_nul(data):
    return bytes(data).split(b"\0")[0]


class Answered:
    """Who asked, and which transactions of each were answered: of the last two another answer is no news."""

    def __init__(self):
        self.transactions = {}  # client: the last two that were answered, by client that asked

    def word(self, word, message):
        """What the books say of a message that the relay is done with."""
        if len(message) < 236:
            return word
        client, xid = bytes(message[28:34]), bytes(message[4:8])
        if message[0] == 1:
            self.transactions.setdefault(client, [])
        elif message[0] == 2 and client in self.transactions:
            answered = self.transactions[client]
            if word == "delivered" and answered[:1] != [xid]:
                self.transactions[client] = [xid, *answered][:2]
            if word == "unknown-transaction" and xid in answered:
                return "already-answered"
        return word


class Model:
    def __init__(self, interfaces, *, option=True, check=True, policy=REPLACE, hops=4):
        self.interfaces = {one.vlan: one for one in interfaces}
        self.option, self.check, self.policy, self.hops = option, check, policy, hops
        self.transactions = {}  # xid: (module, port)
        self.counters = dict.fromkeys(COUNTERS.values(), 0)

    # ---- Receiving ----

    def handle(self, message, vlan, port, destination):
        """message: the UDP payload; vlan, port: where it came in; destination: the address it was sent to."""
        verdict = Verdict()
        message = message[:SIZE - 24]
        data = Buffer(message)
        reason = self.header_fault(data)
        if reason is None and not data.chain_is_good(len(message) - 236):
            reason = "bad-options"
        if reason is None:
            reason = self.count(data.message_type())
        if reason is not None:
            verdict.word = reason
            return verdict
        iface = self.interface_of(vlan, destination)
        if iface is None:
            verdict.word = "no-interface" if destination == "255.255.255.255" else "no-address"
            return verdict
        if iface.local_relay and not iface.servers:
            self.relay_locally(verdict, iface, data, len(message), port)
        self.decide(verdict, iface, data, len(message), port)
        return verdict

    def header_fault(self, data):
        if bytes(data[10:12]) not in (b"\0\0", b"\x80\0"):
            return "bad-flags"
        if data[3] > min(16, self.hops):
            return "hop-limit"
        return None if data[0] in (1, 2) else "unknown-operation"

    def count(self, kind):
        if kind is None:
            return "no-message-type"
        if kind not in COUNTERS:
            return "unknown-message-type"
        self.counters[COUNTERS[kind]] += 1
        return None

    def interface_of(self, vlan, destination):
        if destination == "255.255.255.255":
            return self.interfaces.get(vlan)
        return next((one for _, one in sorted(self.interfaces.items()) if one.address == destination), None)

    # ---- Option 82 ----

    def information(self, iface, port):
        return (bytes((AGENT, 18, 1, 6, 0, 4)) + iface.vlan.to_bytes(2, "little") + bytes((1, port))
                + bytes((2, 8, 0, 6)) + mac_bytes(iface.mac))

    def fill(self, iface, data, mode, port):
        """The length of the options from behind the cookie to END afterwards."""
        end = data.end()
        found = [at for at, code in data.options() if code == AGENT and data[at + 2] == 1]
        length = end - 240 + 1
        if mode == "remove":
            if not found:
                return length
            size = data.option_size(found[-1])
            data[found[-1]:end + 1 - size] = data[found[-1] + size:end + 1]
            return length - size
        if found and mode == "add":
            return length
        place, base = (end, length) if not found else (found[-1], length - data.option_size(found[-1]))
        if base + 4 > 311:
            return length
        data[place:place + 21] = self.information(iface, port) + b"\xff"
        return base + 20

    def matches(self, data, at, expected):
        """Whether the sub-option at this place holds these bytes and then zeros, as far as the buffer goes."""
        room = max(0, min(data[at + 1], SIZE - (at + 2)))
        return bytes(data[at + 2:at + 2 + room]) == expected[:room].ljust(room, b"\0")

    def check_reply(self, iface, data, sub):
        """None when the reply may pass, else why not."""
        if sub is None:
            return "no-option82"
        entry = self.transactions.get(data.xid)
        if entry is None:
            return "unknown-transaction"
        if not self.matches(data, sub, bytes((0, 4)) + iface.vlan.to_bytes(2, "little") + bytes(entry)):
            return "circuit-id"
        del self.transactions[data.xid]
        second = sub + data[sub + 1] + 2
        if data[second] == 2 and not self.matches(data, second, bytes((0, 6)) + mac_bytes(iface.mac)):
            return "remote-id"
        return None

    def remember(self, data, kind, port):
        if self.check and kind not in (4, 7):
            self.transactions[data.xid] = (1, port)

    # ---- Decisions ----

    def relay_locally(self, verdict, iface, data, length, port):
        present, _, kind = data.find_agent()
        if data.giaddr != bytes(4) or present or length == 236:
            return
        if data[0] == 2:
            if not self.check:
                raise WouldAbort
            return
        self.remember(data, kind, port)
        whole = 240 + self.fill(iface, data, "add", port)
        verdict.rebroadcasts += 1
        verdict.frames.append((iface.vlan, self.frame(iface, data[:whole], "ff:ff:ff:ff:ff:ff", "255.255.255.255", 68, 67)))

    def decide(self, verdict, iface, data, length, port):
        data[3] += 1
        present, sub, kind = data.find_agent()
        verdict.word = self.refusal(iface, data, length, present, sub)
        if verdict.word:
            return
        servers = self.chosen(iface, data) if present else []  # before an option may be cut off
        own = bytes(data.giaddr) in (bytes(4), packed(iface.address))
        if not self.option:
            if data.giaddr == bytes(4):
                data.giaddr = packed(iface.address)
        elif own:
            data.giaddr = packed(iface.address)
            if data[0] == 1:
                self.remember(data, kind, port)
            length = 240 + self.fill(iface, data, "add" if data[0] == 1 else "remove", port)
        elif present and data[0] == 1 and self.policy == REPLACE:
            length = 240 + self.fill(iface, data, "replace", port)
            if not data.chain_is_good(length - 236):
                end = data.end()
                data[end + 1:length] = bytes(length - end - 1)
        self.send(verdict, iface, data, length, servers)

    def refusal(self, iface, data, length, present, sub):
        """Why the message goes no further, None when it does."""
        if not iface.trusted and data.giaddr == bytes(4) and present:
            return "untrusted-option82"
        if not self.option:
            return None
        if data.giaddr in (bytes(4), packed(iface.address)):
            if not data.chain_is_good(length - 236):
                return "bad-options"
            return self.check_reply(iface, data, sub) if self.check and data[0] == 2 else None
        return "policy-drop" if present and data[0] == 1 and self.policy == DROP else None

    # ---- Sending ----

    def frame(self, iface, message, mac, destination, sport, dport):
        return frame_header(iface.mac, mac, iface.address, destination, bytes(message), sport=sport, dport=dport) + message

    def send(self, verdict, iface, data, length, servers):
        message = bytes(data[:length])
        if data[0] == 2:
            mac = ":".join(f"{byte:02x}" for byte in data[28:34])
            to_broadcast = data[10] & 0x80 or data[16:20] == bytes(4)
            verdict.word = "delivered"
            verdict.frames.append((iface.vlan, self.frame(
                iface, message, mac if (data[1], data[2]) == (1, 6) else "ff:ff:ff:ff:ff:ff",
                "255.255.255.255" if to_broadcast else ".".join(map(str, data[16:20])), 67, 68)))
            return
        servers = servers or list(iface.servers)
        verdict.word = "relayed" if servers else "no-server"
        verdict.datagrams += [(server, message) for server in servers]

    def chosen(self, iface, data):
        """The servers that options 60 and 61 choose."""
        vendor, client = bytearray(65), bytearray(129)
        seen = set()
        for at, code in data.options():
            if code in (VENDOR, CLIENT):
                into, most = (vendor, 64) if code == VENDOR else (client, 128)
                size = min(data[at + 1], most)
                into[:size] = data[at + 2:at + 2 + size]
                seen.add(code)
        text = until_nul(vendor)
        out = []
        if VENDOR in seen:
            out += [server for own, exact, server in iface.by_vendor
                    if (own.encode() == text if exact else text in own.encode())]
        if CLIENT in seen:
            out += [server for own, server in iface.by_client if own.ljust(4, b"\0")[:4] == client[:4]]
        return out
