# SPDX-License-Identifier: Apache-2.0
"""The tour's stations. Each shows something that just happened in the lab, as the captures saw it."""

import os
import signal
import subprocess
import sys
import time

from .client import Dhclient, Dhcpcd, NoLease, Udhcpc
from .faces import SnmpAgent, WebPage
from .lab import Lab
from .paper import Paper
from .process import LabError
from .server import Dnsmasq, Kea

DRAWING = """\
      client 1           client 2               client 3           client 4
   02:..:00:00:01     02:..:00:00:02         02:..:00:00:03     02:..:00:00:04
         │                  │                      │                  │
┌──────swp1───────────────swp2───────────────────swp3───────────────swp4──────┐
│        └───── VLAN 10 ────┘                      └───── VLAN 20 ────┘       │
│           vlan10  10.10.0.1                         vlan20  10.20.0.1       │
│                     └────────────────┬─────────────────┘                    │
│                                    ravod                    the switch      │
│                                      │                                      │
│                            vlan99  192.0.2.1                                │
│                     ┌─────── VLAN 99 ──┴──────────────┐                     │
└───────────────────swp9──────────────────────────────swp10───────────────────┘
                      │                                 │
               Kea  192.0.2.11                 dnsmasq  192.0.2.12"""

CONFIGURATION = (
    "configure terminal",
    "ip dhcp relay information option",
    "interface vlan 10",
    "ip dhcp relay address 192.0.2.11",
    "exit",
    "interface vlan 20",
    "ip dhcp relay address 192.0.2.12",
    "exit",
    "ip dhcp relay",
)

CLIENTS = {1: Udhcpc, 2: Dhclient, 3: Dhcpcd, 4: Udhcpc}

# An option 82 such as a client would forge it: circuit id VLAN 7, module 9, port 63, and a made-up MAC.
FORGED = "0106000407" "00093f" "0208" "0006deadbeef0001"


class Tour:
    def __init__(self, started, keep_page=False):
        """started: time.monotonic() at the program's start; keep_page: the lab stays until Enter, for its web page."""
        self.keep_page = keep_page
        self.started = started
        self.paper = Paper()
        self.lab = None
        self.relay = None
        self.servers = []

    def run(self):
        with Lab("tour") as self.lab:
            self.draw()
            self.configure()
            self.serve_clients()
            self.forged_option()
            self.change_while_running()
            self.other_faces()
            self.end()
        self.paper.line(self.paper.style("faint", "  The lab is removed: no namespace, process or file is left."))

    def station(self, title):
        self.paper.title(title)

    def draw(self):
        self.station("The lab")
        for line in DRAWING.splitlines():
            self.paper.line(" " + line)
        self.paper.line()
        self.servers = [self.lab.add_server(Kea, host=1), self.lab.add_server(Dnsmasq, host=2)]
        self.at_server = {server: self.lab.capture(server.host) for server in self.servers}
        self.relay = self.lab.start_relay()
        self.paper.say("Every box is a network namespace of this machine, every line a virtual cable. Clients and "
                       "servers are real programs; no client can reach a server without the relay.")
        self.paper.done(f"Kea, dnsmasq and ravod (process {self.relay.pid}) are running")

    def configure(self):
        self.station("Telling ravod what to do, with ravosh")
        self.type(*CONFIGURATION)

    def type(self, *commands):
        """Run commands, and show them as they would look typed."""
        depth = 0
        for command in commands:
            depth = min(depth, 1) if command.startswith(("interface", "exit")) else depth
            if command != "exit":
                self.paper.line(f"  {self.paper.style('faint', 'ravosh>')} {'  ' * depth}"
                                f"{self.paper.style('key', command)}")
            depth = {"configure": 1, "interface": 2, "exit": 1}.get(command.split()[0], depth)
        output = self.relay.sh(*commands)
        for line in output.splitlines():
            self.paper.line(f"  {line}")

    def serve(self, port, kind, **arguments):
        """Let a client get its lease; (lease, exchange) with the packets the client's own capture holds."""
        host = self.lab.client(port)
        with self.lab.capture(host) as seen:
            lease = host.run(kind, **arguments)
            ack = seen.wait_dhcp("ACK", mac=host.mac)
        discover = [packet for packet in seen.dhcp("DISCOVER", mac=host.mac) if packet.time < ack.time][0]
        return lease, discover, ack

    def serve_clients(self):
        self.station("Four clients ask for an address")
        rows, seen = [], []
        for port, kind in CLIENTS.items():
            host = self.lab.client(port)
            lease, discover, ack = self.serve(port, kind)
            server = self.server_at(lease.server)
            rows.append([host.port_device, host.vlan, kind.name, host.mac, self.paper.style("good", lease.address),
                         server.title, f"{(ack.time - discover.time) * 1000:6.1f} ms"])
            request = self.at_server[server].wait_dhcp("REQUEST", mac=host.mac)
            seen.append((host, request.dhcp, ack.dhcp))
        self.paper.table(["port", "VLAN", "client", "MAC address", "address", "server", "DISCOVER → ACK"], rows)
        self.option_82(seen)

    def server_at(self, address):
        for server in self.servers:
            if server.address == address:
                return server
        raise LabError(f"a lease came from {address}, which is no server of the lab")

    def option_82(self, seen):
        self.station("Option 82, as the servers saw it")
        rows = []
        for host, request, ack in seen:
            information = request.relay_information
            if information is None:
                raise LabError(f"the request of {host} reached the server without option 82")
            if ack.relay_information is not None:
                raise LabError(f"option 82 reached {host}")
            rows.append([host, information.circuit.hex(), information.remote.hex(), information.vlan,
                         information.module, information.port, information.mac])
        self.paper.table(["from", "circuit id", "remote id", "VLAN", "module", "port", "relay's MAC"], rows)
        self.paper.line()
        self.paper.say("The relay put it in on the way to the server and took it out on the way back: none of the "
                       "ACKs that reached a client carries option 82.")

    def forged_option(self):
        self.station("A client that brings its own option 82")
        host = self.lab.client(1)
        server = self.servers[0]
        self.paper.say("Client 1 now claims to sit in VLAN 7 on module 9, port 63. Its VLAN is untrusted:")
        self.paper.line()
        since = self.at_server[server].mark()
        arguments = {"options": ["-t", "2", "-T", "1", "-x", f"0x52:{FORGED}"]}
        with self.lab.capture(host.port_device) as at_port:
            try:
                host.run(Udhcpc, **arguments)
                raise LabError("a client with an option 82 of its own got a lease on an untrusted interface")
            except NoLease:
                pass
        asked = at_port.dhcp("DISCOVER", mac=host.mac)
        passed = self.at_server[server].dhcp(mac=host.mac, since=since)
        offered = at_port.dhcp("OFFER", mac=host.mac)
        if not asked or passed or offered:
            raise LabError(f"expected the relay to drop: {len(asked)} asked, {len(passed)} passed, "
                           f"{len(offered)} offered")
        self.paper.line(f"  {self.paper.style('bad', '✗')} {len(asked)} DISCOVERs entered {host.port_device}, "
                        "none reached the server, no offer came back")
        self.paper.line(f"    ravosh> show ip dhcp relay client {host.mac}")
        self.paper.line(f"    {self.paper.style('faint', '... ' + self.reason(host))}")
        self.paper.line()
        self.paper.say("Trusted, it may keep its claim. The reply check would still refuse the answer, since the "
                       "claim names another port than the one it leaves by; so that goes off for now:")
        self.paper.line()
        self.type("configure terminal", "no ip dhcp relay information check", "interface vlan 10",
                  "ip dhcp relay information trusted")
        lease, _, _ = self.serve(1, Udhcpc, **arguments)
        request = self.at_server[server].dhcp("REQUEST", mac=host.mac, since=since)[-1]
        self.paper.line()
        self.paper.done(f"trusted now, the same client got {self.paper.style('good', lease.address)}; "
                        f"the server saw its claim as it stands:")
        self.paper.line(f"    {request.dhcp.relay_information}")

    def reason(self, host):
        """Why the relay dropped the client's last message, in its own words: the newest line of its flight recorder."""
        recorded = self.relay.sh(f"show ip dhcp relay client {host.mac}").splitlines()
        newest = next(line for line in recorded if line[:4].isdigit())
        return newest.split(" xid ", 1)[-1].split(": ", 1)[-1].split(", option 82 ", 1)[0]

    def change_while_running(self):
        self.station("Changing things while it runs")
        before = self.relay.pid
        self.paper.say("A VLAN that did not exist a moment ago, with a new port and a new client on it. ravod hears "
                       "of them from the kernel:")
        self.paper.line()
        vlan = self.lab.add_vlan(30)
        host = self.lab.add_client(5, 30)
        for command in (f"ip link add {vlan.device} type bridge; ip addr add {vlan.address}/24 dev {vlan.device}",
                        f"ip link set {host.port_device} master {vlan.device}"):
            self.paper.line(f"  {self.paper.style('faint', 'switch#')} {self.paper.style('key', command)}")
        self.type("configure terminal", "ip dhcp relay information check", "ip dhcp relay hops 8", "interface vlan 30",
                  "ip dhcp relay address 192.0.2.11")
        lease, discover, ack = self.serve(5, Dhclient)
        information = self.at_server[self.servers[0]].wait_dhcp("REQUEST", mac=host.mac).dhcp.relay_information
        if self.relay.pid != before or not self.relay.alive:
            raise LabError("ravod was restarted")
        self.paper.line()
        self.paper.done(f"client 5 on {host.port_device} got {self.paper.style('good', lease.address)} after "
                        f"{(ack.time - discover.time) * 1000:.1f} ms ({information})")
        self.paper.done(f"ravod is still process {before}: no restart, no lease lost")

    def other_faces(self):
        self.station("The same by web, metrics and SNMP")
        web = WebPage(self.lab, self.relay)
        metric = next(line for line in web.metrics().splitlines() if 'interface="vlan10",outcome="relayed"' in line)
        self.paper.line(f"  {self.paper.style('faint', '$')} "
                        f"{self.paper.style('key', 'curl -s ' + web.url + 'metrics | grep outcomes')}")
        self.paper.line(f"    {metric}")
        self.paper.line()
        snmp = SnmpAgent(self.lab, self.relay)
        self.paper.line(f"  {self.paper.style('faint', '$')} "
                        f"{self.paper.style('key', 'snmpwalk -v2c -c public localhost ' + snmp.base + '.1.3')}")
        for line in snmp.walk("1.3"):
            self.paper.line(f"    {line}")
        self.paper.say("These are the servers of the VLANs, active, by the number of the interface (1024 + VLAN).")
        self.paper.line()
        self.paper.done(f"the page is at {self.paper.style('strong', web.url)} while the lab is up:")
        self.paper.line(f"    user {web.user}, password {web.password}")
        if self.keep_page:
            self.paper.say("Enter ends it.")
            sys.stdin.readline()

    def end(self):
        self.paper.line()
        elapsed = time.monotonic() - self.started
        self.paper.line(self.paper.style("faint", f"  The tour took {elapsed:.1f} seconds."))
        if sys.stdin.isatty() and sys.stdout.isatty():
            self.prompt()

    def prompt(self):
        self.station("Your turn")
        self.paper.say('This is ravosh, talking to the ravod of this lab. Try "show ip dhcp relay detail" or '
                       '"show running-config"; "exit" leaves and removes the lab.')
        switch = self.lab.switch.path
        self.paper.say(f"A shell in the switch, from another terminal: nsenter --net={switch} bash")
        self.paper.line()
        words = [str(self.relay.build / "ravosh"), "--management", str(self.relay.socket)]
        # The prompt gets the terminal as a shell gives it to a job, so that Ctrl-C there reaches it alone.
        terminal = sys.stdin.fileno()
        group = os.tcgetpgrp(terminal)
        before = signal.signal(signal.SIGTTOU, signal.SIG_IGN)
        try:
            status = subprocess.run(["setpriv", "--pdeathsig", "KILL", *words], check=False,
                                    env={**os.environ, "HOME": str(self.lab.folder)},  # where its history goes
                                    preexec_fn=lambda: _take_terminal(terminal)).returncode
        finally:
            os.tcsetpgrp(terminal, group)
            signal.signal(signal.SIGTTOU, before)
        if status != 0:
            self.paper.line(f"  ravosh ended with status {status}")


def _take_terminal(terminal):
    """In the new process: be the terminal's foreground group."""
    os.setpgid(0, 0)
    signal.signal(signal.SIGTTOU, signal.SIG_IGN)
    os.tcsetpgrp(terminal, os.getpid())
    signal.signal(signal.SIGTTOU, signal.SIG_DFL)
