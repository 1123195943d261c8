# SPDX-License-Identifier: Apache-2.0
"""The lab's layout: one switch, client hosts on its access ports, server hosts on its uplink VLAN.

The switch has the numbers a switch has: port P of module 1 is the device swpP with kernel index 5120 + P,
VLAN V is the bridge vlanV with kernel index 1024 + V and the address 10.V.0.1/24. Ports 1 and 2 are in
VLAN 10, ports 3 and 4 in VLAN 20; the uplink is VLAN 99 with the address 192.0.2.1/24, its server hosts
192.0.2.11, .12 ... on the ports 9, 10 ...

MAC addresses can be read: 02:00:00:00:00:0P the client on port P, 02:00:00:00:05:0P the switch's port,
02:00:00:00:VV:01 the VLAN interface, 02:00:00:00:99:1H server host H.
"""

import dataclasses
import os
import re
import shutil
import socket
import sys
from pathlib import Path

from . import cleanup
from .capture import Capture
from .namespace import Namespace
from .relay import Relay

UPLINK_VLAN = 99
FIRST_UPLINK_PORT = 9
CLIENT_VLANS = {10: (1, 2), 20: (3, 4)}
SERVED_VLANS = (10, 20, 30, 40)  # the servers have a pool for these, whether or not the VLAN exists yet


@dataclasses.dataclass
class Vlan:
    id: int
    address: str
    mac: str
    ports: list

    @property
    def device(self):
        return f"vlan{self.id}"

    @property
    def ifindex(self):
        return 1024 + self.id


class Host:
    """A machine on a port of the switch, with one device, eth0."""

    device = "eth0"

    def __init__(self, lab, name, port, vlan, mac, address=None):
        self.lab, self.name, self.port, self.vlan, self.mac, self.address = lab, name, port, vlan, mac, address
        self.port_device = f"swp{port}"
        self.namespace = Namespace(f"{lab.name}-{name}")

    def __str__(self):
        return self.name

    def start(self, client, **arguments):
        """Start a client program of the class given: host.start(Udhcpc, options=["-B"])."""
        return client(self.lab, self, **arguments).start()

    def run(self, client, **arguments):
        """Start a client, wait for its lease, end it without a release."""
        started = self.start(client, **arguments)
        try:
            return started.wait_lease()
        finally:
            started.stop()

    def send(self, frame):
        """Send a frame as it is from the host's device."""
        with self.namespace.entered():
            out = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, 0)
        with out:
            out.bind((self.device, 0))
            out.send(frame)

    def udp(self, port, address="0.0.0.0"):
        """A UDP socket of the host, bound."""
        with self.namespace.entered():
            sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        sock.bind((address, port))
        return sock


class Lab:
    """One lab. Use it as a context manager; several may live at once."""

    uplink_net = "192.0.2.0"
    uplink_address = "192.0.2.1"

    def __init__(self, name="lab", servers=2):
        """servers: how many server hosts are on the uplink VLAN."""
        self.name = name
        self.folder = None
        self.switch = None
        self.vlans = {}
        self.clients = {}
        self.server_hosts = {}
        self.servers = []
        self.relays = []
        self.captures = []
        self._server_count = servers
        self._processes = []
        self._folders = {}  # how many were made of each name
        self._fresh = set()

    def __enter__(self):
        return self.open()

    def __exit__(self, *_):
        self.close()

    def open(self):
        cleanup.register(self)
        try:
            self.folder = cleanup.make_folder()
            self.switch = Namespace(f"{self.name}-switch")
            self.switch.set("ipv4/ip_forward", 1)
            for vlan, ports in CLIENT_VLANS.items():
                self.add_vlan(vlan)
                for port in ports:
                    self.add_client(port, vlan)
            self.add_vlan(UPLINK_VLAN, self.uplink_address)
            for number in range(1, self._server_count + 1):
                self._add_server_host(number)
        except BaseException:
            self.close()
            raise
        return self

    def close(self):
        """End every process, free every namespace, remove the folder."""
        with cleanup.undisturbed():
            for process in reversed(self._processes):
                process.kill()
            self._processes.clear()
            for capture in self.captures:
                capture.close()
            for host in [*self.clients.values(), *self.server_hosts.values()]:
                host.namespace.close()
            if self.switch:
                self.switch.close()
            if self.folder:
                shutil.rmtree(self.folder, ignore_errors=True)
            cleanup.unregister(self)

    # The switch

    def add_vlan(self, vlan, address=None):
        """Create VLAN interface vlanN with its address, 10.N.0.1 unless another is given."""
        address = address or f"10.{vlan}.0.1"
        added = Vlan(vlan, address, f"02:00:00:00:{vlan:02d}:01", [])
        self.switch.ip(
            f"link add {added.device} index {added.ifindex} address {added.mac} "
            "type bridge stp_state 0 forward_delay 0",
            f"link set {added.device} up",
            f"addr add {address}/24 dev {added.device}")
        self.vlans[vlan] = added
        return added

    def remove_vlan(self, vlan):
        self.switch.ip(f"link del {self.vlans.pop(vlan).device}")

    def _plug(self, host):
        """Connect a host to its port: swpP in the switch, eth0 in the host."""
        self.switch.ip(
            f"link add {host.port_device} index {5120 + host.port} address 02:00:00:00:05:{host.port:02d} "
            f"type veth peer name {host.device} address {host.mac} netns {host.namespace.path}",
            f"link set {host.port_device} master vlan{host.vlan} up")
        host.namespace.ip(f"link set {host.device} up")
        self.switch.wait_up(host.port_device, self.vlans[host.vlan].device)
        self.vlans[host.vlan].ports.append(host.port)

    def add_client(self, port, vlan):
        """A new client host on a new port of the VLAN."""
        host = Host(self, f"client{port}", port, vlan, f"02:00:00:00:00:{port:02d}")
        self.clients[port] = host
        self._plug(host)
        return host

    def _add_server_host(self, number):
        host = Host(self, f"server{number}", FIRST_UPLINK_PORT + number - 1, UPLINK_VLAN,
                    f"02:00:00:00:99:1{number}", f"192.0.2.1{number}")
        self.server_hosts[number] = host
        self._plug(host)
        host.namespace.ip(f"addr add {host.address}/24 dev {host.device}",
                          f"route add 10.0.0.0/8 via {self.uplink_address}")

    def client(self, port):
        return self.clients[port]

    def server_host(self, number):
        return self.server_hosts[number]

    # Programs

    def add_server(self, kind, host=1, **arguments):
        """Start a server of the class given on server host number `host`, and wait until it answers."""
        server = kind(self, self.server_hosts[host], SERVED_VLANS, **arguments)
        self.servers.append(server)
        return server.start()

    def start_relay(self, **arguments):
        """Start ravod in the switch and wait until it answers; arguments as of Relay."""
        relay = Relay(self, **arguments)
        self.relays.append(relay)
        return relay.start()

    def keep(self, process):
        """End this process with the lab."""
        self._processes.append(process)
        return process

    def program(self, path):
        """The program to run for one of Debian's. Where AppArmor confines programs by their path, a copy
        in the lab's folder, since the profiles allow none of the lab's files."""
        path = Path(path)
        if not path.exists():
            found = shutil.which(path.name)
            if found is None:
                raise FileNotFoundError(f"{path} is not installed")
            path = Path(found)
        enabled = Path("/sys/module/apparmor/parameters/enabled")
        if not (enabled.exists() and enabled.read_text().startswith("Y")):
            return path
        folder = self.folder / "bin"
        folder.mkdir(exist_ok=True)
        copy = folder / path.name
        if not copy.exists():
            shutil.copy2(path.resolve(), copy)
        return copy

    def fresh_folder(self, name):
        """A new folder of the lab: name, name-2, name-3 ..."""
        count = self._folders[name] = self._folders.get(name, 0) + 1
        folder = self.folder / (name if count == 1 else f"{name}-{count}")
        folder.mkdir()
        self._fresh.add(folder)
        return folder

    # Seeing

    def capture(self, what, device=None):
        """Capture at a host, at one of its ports in the switch ("swp1"), or at any device of the switch."""
        if isinstance(what, Host):
            capture = Capture(what.namespace, device or what.device, f"{what.name}-{device or what.device}")
        else:
            capture = Capture(self.switch, what, f"switch-{what}")
        self.captures.append(capture)
        return capture

    def forget(self):
        """Between two tests: close the captures and remove the folders of programs that have ended, so that
        `save` keeps what belongs to one test."""
        for capture in self.captures:
            capture.close()
        self.captures.clear()
        self._processes = [process for process in self._processes if process.alive]
        used = {process.log_path.parent for process in self._processes}
        for folder in self._fresh - used:
            shutil.rmtree(folder, ignore_errors=True)
        self._fresh &= used

    def save(self, folder):
        """Keep what shows why something failed: captures, logs, configurations, the running configuration."""
        folder = Path(folder)
        folder.mkdir(parents=True, exist_ok=True)
        for number, capture in enumerate(self.captures, 1):
            capture.write_pcap(folder / f"{number:02d}-{re.sub(r'[^A-Za-z0-9.-]', '_', capture.name)}.pcap")
        for relay in self.relays:
            if relay.alive:
                result = relay.run("show running-config")
                (folder / f"{relay.folder.name}-running-config").write_text(result.stdout + result.stderr)
        for path in self.folder.rglob("*"):
            if path.is_file() and os.path.getsize(path) < 64 << 20 and "bin" not in path.parts:
                target = folder / path.relative_to(self.folder)
                target.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy2(path, target)
        print(f"lab: captures, logs and configurations are in {folder}", file=sys.stderr)
