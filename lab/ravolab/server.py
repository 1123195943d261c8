# SPDX-License-Identifier: Apache-2.0
"""Real DHCP servers: Kea, dnsmasq and ISC dhcpd, each with a configuration the lab writes.

    kea = lab.add_server(Kea, host=1)        # started, and ready to answer
    kea.leases()                             # {"02:00:00:00:00:01": "10.10.0.100"}

A server has a pool on each client subnet 10.V.0.0/24. The pools of the three kinds differ, so that an
address tells which server gave it.
"""

import json
import re
from pathlib import Path

from .process import LabError, Process, wait_for

DHCP_PORT_HEX = ":0043"


class Server:
    """What the three kinds share: a folder, a process, readiness."""

    name = ""
    title = ""  # as its makers write it
    program = ""
    pool = (0, 0)  # first and last host number on each client subnet

    def __init__(self, lab, host, vlans, lease_time=600):
        self.lab, self.host, self.vlans, self.lease_time = lab, host, vlans, lease_time
        self.folder = lab.folder / f"{self.name}-{host.name}"
        self.folder.mkdir(exist_ok=True)
        self.process = None

    def __str__(self):
        return f"{self.title} at {self.host.address}"

    @property
    def address(self):
        return self.host.address

    @property
    def log(self):
        return self.process.log if self.process else ""

    def owns(self, address):
        """Whether the address is from this server's pool."""
        first, last = self.pool
        return first <= int(address.rsplit(".", 1)[1]) <= last

    def start(self, timeout=60):
        self.write_configuration()
        argv, env = self.command()
        argv[0] = self.lab.program(argv[0])
        # Contained: dnsmasq changes its capabilities.
        self.process = Process(self.host.namespace, argv, self.folder / "log", env=env, name=self.name,
                               contained=True)
        self.lab.keep(self.process)
        wait_for(self._ready, timeout, lambda: f"answer from {self}; its log:\n{self.log[-2000:]}\nreadiness")
        return self

    def stop(self):
        if self.process:
            self.process.stop()

    def _ready(self):
        if not self.process.alive:
            raise LabError(f"{self} ended with status {self.process.status}; its log:\n{self.log[-2000:]}")
        try:
            table = Path(f"/proc/{self.process.pid}/net/udp").read_text()
        except OSError:
            return False
        bound = any(line.split()[1].endswith(DHCP_PORT_HEX) for line in table.splitlines()[1:])
        return bound and self.started(self.log)

    def subnets(self):
        """(VLAN, subnet, first, last, router) of each client subnet."""
        for vlan in self.vlans:
            base = f"10.{vlan}.0."
            yield vlan, f"{base}0", f"{base}{self.pool[0]}", f"{base}{self.pool[1]}", f"{base}1"

    def write_configuration(self):
        raise NotImplementedError

    def command(self):
        """(argument vector, environment)"""
        raise NotImplementedError

    def started(self, log):
        """Whether the log tells that the server is ready, beyond its socket being there."""
        return bool(log)

    def leases(self):
        """{client MAC: address} as the server has it."""
        raise NotImplementedError


class Kea(Server):
    name, title, program, pool = "kea", "Kea", "/usr/sbin/kea-dhcp4", (100, 149)

    def write_configuration(self):
        subnets = [{"id": vlan, "subnet": f"{net}/24", "pools": [{"pool": f"{first} - {last}"}],
                    "option-data": [{"name": "routers", "data": router}]}
                   for vlan, net, first, last, router in self.subnets()]
        (self.folder / "conf").write_text(json.dumps({"Dhcp4": {
            "interfaces-config": {"interfaces": [self.host.device], "dhcp-socket-type": "udp"},
            "lease-database": {"type": "memfile", "persist": False},
            "valid-lifetime": self.lease_time,
            "authoritative": True,
            "subnet4": subnets,
            "loggers": [{"name": "kea-dhcp4", "severity": "INFO",
                         "output_options": [{"output": "stdout", "flush": True}]}],
        }}, indent=2))

    def command(self):
        folder = str(self.folder)
        return [self.program, "-c", self.folder / "conf"], {
            "KEA_PIDFILE_DIR": folder, "KEA_LOCKFILE_DIR": folder, "KEA_LOGGER_DESTINATION": "stdout"}

    def started(self, log):
        return "DHCP4_STARTED" in log

    def leases(self):
        found = re.findall(r"DHCP4_LEASE_ALLOC \[hwtype=1 ([0-9a-f:]+)\].* lease ([\d.]+) has been allocated", self.log)
        return dict(found)


class Dnsmasq(Server):
    name, title, program, pool = "dnsmasq", "dnsmasq", "/usr/sbin/dnsmasq", (150, 199)

    def write_configuration(self):
        lines = ["port=0", "user=root", f"interface={self.host.device}", "except-interface=lo", "no-ping",
                 "dhcp-authoritative", "log-dhcp", f"dhcp-leasefile={self.folder}/leases"]
        for vlan, _, first, last, router in self.subnets():
            lines += [f"dhcp-range=set:v{vlan},{first},{last},255.255.255.0,{self.lease_time}",
                      f"dhcp-option=tag:v{vlan},option:router,{router}"]
        (self.folder / "conf").write_text("\n".join(lines) + "\n")

    def command(self):
        return [self.program, "--keep-in-foreground", "--log-facility=-", "--pid-file=",
                f"--conf-file={self.folder}/conf"], {}

    def leases(self):
        path = self.folder / "leases"
        rows = [line.split() for line in path.read_text().splitlines()] if path.exists() else []
        return {row[1]: row[2] for row in rows if len(row) >= 4}


class Dhcpd(Server):
    name, title, program, pool = "dhcpd", "ISC dhcpd", "/usr/sbin/dhcpd", (200, 249)

    def write_configuration(self):
        # Cache threshold 0: a client that asks again gets a whole lease and not the rest of its old one.
        lines = [f"default-lease-time {self.lease_time};", f"max-lease-time {self.lease_time};", "authoritative;",
                 "ping-check false;", "dhcp-cache-threshold 0;",
                 f"subnet {self.lab.uplink_net} netmask 255.255.255.0 {{ }}"]
        lines += [f"subnet {net} netmask 255.255.255.0 {{ range {first} {last}; option routers {router}; }}"
                  for _, net, first, last, router in self.subnets()]
        (self.folder / "conf").write_text("\n".join(lines) + "\n")
        (self.folder / "leases").touch()

    def command(self):
        return [self.program, "-4", "-f", "-d", "-cf", self.folder / "conf", "-lf", self.folder / "leases",
                "-pf", self.folder / "pid", self.host.device], {}

    def started(self, log):
        return "Server starting service" in log

    def leases(self):
        text = (self.folder / "leases").read_text()
        blocks = re.findall(r"lease ([\d.]+) \{(.*?)\n\}", text, re.S)
        result = {}
        for address, body in blocks:
            mac = re.search(r"hardware ethernet ([0-9a-f:]+);", body)
            # A later block of an address takes the place of the earlier ones.
            result = {owner: held for owner, held in result.items() if held != address}
            if mac and re.search(r"^\s*binding state active;", body, re.M):
                result[mac[1]] = address
        return result
