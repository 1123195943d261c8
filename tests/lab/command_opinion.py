# SPDX-License-Identifier: Apache-2.0
"""What the relay's commands have to do and to print, told a second time: a model in Python that shares no code with it.

`Commands.run` takes one command and answers with the status and the text of a shell session; the show commands and the
running configuration are written from the model's own state.
"""

import dataclasses
import ipaddress

NO_ADDRESS = "0.0.0.0"
TEXTS = {
    2: "No dhcp relay if existed ",
    3: "Can not set dhcp relay config of this interface \n% please set IP address on this interface first",
    5: "DHCP relay server not found ",
    6: "DHCP relay server ip error ",
    7: "DHCP relay server exitsted already ",
    8: "DHCP relay server full ",
    9: "No DHCP relay server on this interface ",
    10: "Dhcp relay interface not dound ",
    14: "Memory not enough ",
    15: "Set the same configuration current configuration",
    16: "Socket fail",
}
STATE = {0: "disabled", 1: "enabled"}
POLICIES = {"replace": 1, "drop": 2, "keep": 3}
COUNTED = ("DISCOVER ", "OFFER ", "REQUEST ", "ACK ", "DECLINE ", "NAK ", "INFORM", "RELEASE ")
RULE = "=" * 60


def result(code):
    """(status, text) of a result code."""
    if code == 0:
        return 0, ""
    return 1, f"% {TEXTS[code]}\n" if code in TEXTS else f"RAVO Err Unhandle errno {code} \n"


@dataclasses.dataclass
class Record:
    """An interface's record."""

    name: str
    ifindex: int = 0
    address: str = NO_ADDRESS
    mac: str = ""
    trusted: int = 0
    local_relay: int = 0
    servers: list = dataclasses.field(default_factory=lambda: [NO_ADDRESS] * 4)
    server_count: int = 0
    by_vendor: list = dataclasses.field(default_factory=lambda: [None] * 4)  # (vendor, rule, server)
    by_client: list = dataclasses.field(default_factory=lambda: [None] * 4)  # (identifier bytes, server)

    @property
    def vendors(self):
        return sum(host is not None for host in self.by_vendor)

    @property
    def clients(self):
        return sum(host is not None for host in self.by_client)


def identifier_of(word):
    """(bytes of a client identifier, None), or (None, what is wrong with it)."""
    length = len(word)
    digits = length - 1 if length % 2 else length - 2
    if length < 2 and length % 2 == 0 or digits > 257:
        return None, "% Client-id hex number must not exceed 128 bytes\n"
    if not word.startswith("0x"):
        return None, '% Client-id hex number must begin with "0x"\n'
    if any(c not in "0123456789abcdefABCDEF" for c in word[2:]):
        return None, "% Client-id must be hex number\n"
    if word == "0x":
        return None, "% Invalid client-id\n"
    hexadecimal = word[2:]
    return bytes.fromhex("0" * (len(hexadecimal) % 2) + hexadecimal), None


def counts_as(identifier):
    """The part of an identifier that comparisons see."""
    return identifier.ljust(4, b"\0")[:4]


class Commands:
    def __init__(self, records):
        """records: of the interfaces that are up when the daemon starts."""
        self.records = {record.ifindex - 1024: record for record in records}
        self.existing = sorted(self.records)  # interfaces of the switch, as "trust-all" finds them
        self.relay = self.option = self.trust_all = self.local = 0
        self.check, self.policy, self.hops = 1, 1, 4
        self.local_vlans = []

    # ---- Global settings ----

    def relay_on(self):
        self.relay = 1
        return 0, ""

    def relay_off(self):
        self.relay = 0
        return 0, ""

    def set(self, field, value):
        if getattr(self, field) == value:
            return result(15)
        setattr(self, field, value)
        return 0, ""

    def trust_everything(self):
        for vlan in self.existing:
            self.record(vlan).trusted = 1
        self.trust_all = 1
        return 0, ""

    def trust_nothing(self):
        for record in self.records.values():
            record.trusted = 0
        self.trust_all = 0
        return 0, ""

    # ---- Interfaces ----

    def exists(self, vlan):
        """The switch has an interface of this VLAN, without a record so far."""
        if vlan not in self.existing:
            self.existing = sorted([*self.existing, vlan])

    def record(self, vlan, ifindex=None):
        """The record, made when there is none."""
        if vlan not in self.records:
            self.records[vlan] = Record(f"vlan{vlan}", 1024 + vlan if ifindex is None else ifindex)
        return self.records[vlan]

    def trust(self, vlan):
        self.record(vlan).trusted = 1
        return 0, ""

    def distrust(self, vlan):
        self.record(vlan, ifindex=0).trusted = 0
        return 0, ""

    def add_server(self, vlan, server):
        record = self.record(vlan)
        if server in record.servers:
            return result(7)
        if NO_ADDRESS not in record.servers:
            return result(8)
        record.servers[record.servers.index(NO_ADDRESS)] = server
        record.server_count += 1
        return 0, ""

    def remove_server(self, vlan, server=None):
        record = self.records.get(vlan)
        if record is None:
            return 0, ""
        if server is None:
            record.servers = [NO_ADDRESS] * 4
            record.server_count = 0
            return result(record.vendors or record.clients)
        if server == NO_ADDRESS or server not in record.servers:
            return result(9)
        record.servers.remove(server)
        record.servers.append(NO_ADDRESS)
        record.server_count -= 1
        return 0, ""

    def add_vendor(self, vlan, vendor, rule, server):
        if len(vendor) > 67:
            return 1, "% Vendor class string must not exceed 67 characters\n"
        return self.add_host(self.record(vlan).by_vendor, (vendor, rule, server), lambda host: host)

    def add_client(self, vlan, word, server):
        identifier, fault = identifier_of(word)
        if fault:
            return 1, fault
        return self.add_host(self.record(vlan).by_client, (identifier, server),
                             lambda host: (counts_as(host[0]), host[1]))

    @staticmethod
    def add_host(table, host, key):
        if any(key(other) == key(host) for other in table if other):
            return result(7)
        if None not in table:
            return result(8)
        table[table.index(None)] = host
        return 0, ""

    def remove_vendor(self, vlan, vendor=None, rule=None, server=None):
        record = self.record(vlan)
        for i, host in enumerate(record.by_vendor):
            if host and all(asked is None or asked == own for asked, own in zip((vendor, rule, server), host)):
                record.by_vendor[i] = None
        return result(record.server_count or record.clients or record.vendors)

    def remove_client(self, vlan, word=None, server=None):
        identifier = None
        if word is not None:
            identifier, fault = identifier_of(word)
            if fault:
                return 1, fault
        record = self.record(vlan)
        for i, host in enumerate(record.by_client):
            if host and (identifier is None or counts_as(identifier) == counts_as(host[0])) \
                    and server in (None, host[1]):
                record.by_client[i] = None
        if identifier is None and server is None:
            return result(record.server_count or record.vendors)
        return result(record.server_count or record.clients or record.vendors)

    def relay_locally(self, vlan, on):
        if on:
            self.record(vlan).local_relay = 1
        elif vlan in self.records:
            self.records[vlan].local_relay = 0
        return 0, ""

    def set_local(self, on):
        self.local = on
        return 0, ""

    def change_local_vlans(self, vlans, add):
        """The list is one of slots: an id goes into the first empty one."""
        for vlan in vlans:
            if vlan in self.local_vlans:
                if not add:
                    self.local_vlans[self.local_vlans.index(vlan)] = 0
            elif add and 0 in self.local_vlans:
                self.local_vlans[self.local_vlans.index(0)] = vlan
            elif add:
                self.local_vlans.append(vlan)
        return 0, ""

    # ---- Showing ----

    def in_order(self):
        return [record for _, record in sorted(self.records.items())]

    def settings_lines(self, relay, hops):
        return (f"{relay}:{STATE[self.relay]} \n{hops}:{self.hops} \n"
                f"DHCP Relay Information Option         :{STATE[self.option]} \n"
                f"DHCP Relay Information Policy         :{dict(map(reversed, POLICIES.items()))[self.policy]}\n"
                f"DHCP Relay Information Check Reply    :{STATE[self.check]} \n"
                f"DHCP Relay Information Trusted        :{STATE[self.trust_all]} \n")

    def trusted_names(self, heading):
        names = [record.name for record in self.in_order() if record.trusted == 1]
        text = heading if names else ""
        for i, name in enumerate(names):
            text += ("\n" if i % 4 == 0 else "") + name.ljust(20)
        return text, len(names)

    def show(self):
        text = "\n" + self.settings_lines("DHCP Relay                            ", "DHCP Relay Hop Count                  ")
        for record in self.in_order():
            if record.server_count > 0:
                text += f"\n{record.name} Relay IP Address\n" + "".join(f" {one} " for one in record.servers) + "\n"
        names, _ = self.trusted_names("\nList of Trusted sources of relay agent information option:")
        return text + "\n" + names + "\n\n"

    def show_detail(self, sockets):
        text = "\n" + self.settings_lines("DHCP relay                            ", "Relay Hop Count                       ")
        text += "Server_sock:{}\nRaw_sock:{}\nlisten_sock_fd:{}\n".format(*sockets)
        text += "".join(f"DHCP packet {kind}Rx:0\n" for kind in COUNTED)
        for record in self.in_order():
            mac = ".".join(record.mac.split(":") if record.mac else ["00"] * 6) + ".00" * 6
            text += (f"\n\n{RULE}\n{record.name} Relay IP Address\n" + "".join(f"({one}) " for one in record.servers)
                     + f"\ninterface index:{record.ifindex}\nif_ip:{record.address}\nif_mac:{mac}\n{RULE}\n")
        return text

    def show_trusted(self):
        names, count = self.trusted_names("\nList of trusted sources of relay agent information option:")
        return names + (f"\nTotal Entries: {count}\n" if count else "")

    @staticmethod
    def vendor_table(record):
        rows = [f"{host[0]:<21}{'exact-match' if host[1] == 0 else 'partial-match':<14}{host[2]}\n"
                for host in record.by_vendor if host]
        return ("String               Match-type    IP address\n" + "=" * 49 + "\n" + "".join(rows)
                + f"Total entry: {len(rows)}\n\n")

    @staticmethod
    def client_table(record):
        rows = [f"{host[0].hex().upper():<19}{host[1]}\n" for host in record.by_client if host]
        return "Hex                IP address\n" + "=" * 29 + "\n" + "".join(rows) + f"Total entry: {len(rows)}\n\n"

    def show_option(self, which=None):
        text = ""
        for record in self.in_order():
            if which == 60 and record.vendors:
                text += f"{record.name} Option 60 Relay IP address:\n" + self.vendor_table(record)
            if which == 61 and record.clients:
                text += f"{record.name} Option 61 Relay IP address:\n" + self.client_table(record)
            if which is None and (record.vendors or record.clients):
                text += f"{record.name} Option Relay IP address:\n"
                text += "Option 60:\n" + self.vendor_table(record) if record.vendors else ""
                text += "\nOption 61:\n" + self.client_table(record) if record.clients else ""
        return text + ("\n\n" if which is None else "")

    def relay_section(self):
        """The relay's own section of the running configuration."""
        lines = []
        if self.relay:
            lines += ["ip dhcp relay", "!"]
        if self.option:
            lines += ["ip dhcp relay information option", "!"]
        if not self.check:
            lines += ["no ip dhcp relay information check", "!"]
        if self.policy != 1:
            lines += ["ip dhcp relay information policy " + {2: "drop", 3: "keep"}[self.policy], "!"]
        if self.hops != 4:
            lines += [f"ip dhcp relay hops {self.hops}", "!"]
        vlans = ",".join(str(vlan) for vlan in self.local_vlans if vlan)
        if self.local and vlans:
            lines += [f"ip dhcp local-relay vlan {vlans}", "!"]
        for record in self.in_order():
            lines += ["!", f"interface {record.name}"]
            lines += [" ip dhcp relay information trusted"] if record.trusted == 1 else []
            lines += [f" ip dhcp relay address {server}" for server in record.servers if server != NO_ADDRESS]
        return "".join(line + "\n" for line in lines)

    def table_rows(self):
        """The address table as a walk finds it: (ifindex, address)."""
        return [(record.ifindex or 1024 + vlan, ipaddress.IPv4Address(server)) for vlan, record
                in sorted(self.records.items()) for server in record.servers if server != NO_ADDRESS]
