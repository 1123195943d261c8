# SPDX-License-Identifier: Apache-2.0
"""Real DHCP clients: udhcpc, ISC dhclient and dhcpcd.

    lease = host.run(Udhcpc)                     # start, wait for the lease, end the client
    client = host.start(Dhclient)                # or step by step
    lease = client.wait_lease()
    client.release()

Each asks at once and, where it has an option for that, not again for ten seconds: on a busy machine a second question would
only blur what is seen of the first. Each runs in a mount and PID namespace of its own with a script of the lab, which
writes what the client learned to a file and sets the address on the client's own device; nothing of the host is
touched.
"""

import dataclasses
import signal

from .process import LabError, Process, wait_for


class NoLease(LabError):
    """The client got no lease in time."""


@dataclasses.dataclass(frozen=True)
class Lease:
    address: str
    server: str  # option 54 as the client got it
    router: str
    seconds: int
    client: str  # the program that got it


_RECORD = """#!/bin/sh
# Called by the client at each step; appends one line of what it learned.
reason={reason}
echo "reason=$reason address={address} server={server} router={router} seconds={seconds}" >> {events}
"""

_SET_ADDRESS = """case "$reason" in
PREINIT|deconfig) ip -4 addr flush dev {device}; ip link set {device} up ;;
{bound}) ip -4 addr flush dev {device}; ip addr add {address}/24 dev {device} ;;
EXPIRE|RELEASE|STOP) ip -4 addr flush dev {device} ;;
esac
"""


class Client:
    """What the three clients share."""

    name = ""
    program = ""
    bound = ()  # the script's reasons that mean "a lease is there"
    variables = {}  # shell expressions for what the script records
    sets_address = False  # the client sets the address itself

    def __init__(self, lab, host, *, options=(), script_status=0, timeout=120):
        """options: further words of the command line; script_status: what the script answers when bound
        (dhclient declines an address whose script fails)."""
        self.lab, self.host, self.options, self.timeout = lab, host, list(options), timeout
        self.script_status = script_status
        self.folder = lab.fresh_folder(f"{host.name}-{self.name}")
        self.events = self.folder / "events"
        self.script = self.folder / "script"
        self.process = None

    @property
    def log(self):
        return self.process.log if self.process else ""

    def start(self):
        self._write_script()
        self.write_configuration()
        self.process = self._process(self.command())
        return self

    def _process(self, argv):
        argv = [self.lab.program(argv[0]), *argv[1:]]
        process = Process(self.host.namespace, argv, self.folder / "log", contained=True, name=self.name,
                          mount_script="\n".join(f"mkdir -p {path}; mount -t tmpfs tmpfs {path}"
                                                 for path in self.private_folders()))
        return self.lab.keep(process)

    def _write_script(self):
        values = {"events": self.events, "device": self.host.device, **self.variables}
        text = _RECORD.format(**values)
        if not self.sets_address:
            text += _SET_ADDRESS.format(bound="|".join(self.bound), **values)
        if self.script_status:
            text += f'case "$reason" in {"|".join(self.bound)}) exit {self.script_status} ;; esac\n'
        self.script.write_text(text + "exit 0\n")
        self.script.chmod(0o755)

    def steps(self):
        """What the client handed the script so far, as dictionaries."""
        lines = self.events.read_text().splitlines() if self.events.exists() else []
        return [dict(word.split("=", 1) for word in line.split(" ")) for line in lines]

    def lease(self):
        """The latest lease, None without one."""
        for step in reversed(self.steps()):
            if step["reason"] in self.bound:
                return Lease(step["address"], step["server"], step["router"], int(step["seconds"] or 0), self.name)
        return None

    def wait_lease(self, timeout=None):
        def ready():
            lease = self.lease()
            if lease is None and not self.process.alive:
                lease = self.lease()  # it may have come between the two looks
                if lease is None:
                    raise NoLease(f"{self.name} on {self.host} ended with status {self.process.status}:\n{self.log}")
            return lease

        limit = timeout or self.timeout
        try:
            return wait_for(ready, limit, "lease")
        except NoLease:
            raise
        except LabError:
            raise NoLease(f"{self.name} on {self.host} got no lease within {limit} seconds:\n{self.log}") from None

    def release(self):
        """Give the lease back and end the client."""
        raise NotImplementedError

    def stop(self):
        """End the client without a word to the server."""
        if self.process:
            self.process.kill()

    def private_folders(self):
        return []

    def write_configuration(self):
        pass

    def command(self):
        raise NotImplementedError


class Udhcpc(Client):
    name, program, bound = "udhcpc", "/sbin/udhcpc", ("bound", "renew")
    variables = {"reason": "$1", "address": "$ip", "server": "$serverid", "router": "$router", "seconds": "$lease"}

    def command(self):
        return [self.program, "-f", "-n", "-i", self.host.device, "-s", self.script, "-t", "10", "-T", "10",
                *self.options]

    def release(self):
        self.process.send_signal(signal.SIGUSR2)
        wait_for(lambda: "unicasting a release" in self.log, 30, "release from udhcpc")
        self.stop()


class Dhclient(Client):
    name, program, bound = "dhclient", "/sbin/dhclient", ("BOUND", "RENEW", "REBIND", "REBOOT")
    variables = {"reason": "$reason", "address": "$new_ip_address", "server": "$new_dhcp_server_identifier",
                 "router": "$new_routers", "seconds": "$new_dhcp_lease_time"}

    def write_configuration(self):
        (self.folder / "conf").write_text(
            "timeout 100;\nretry 1;\ninitial-delay 0;\ninitial-interval 10;\nbackoff-cutoff 10;\nselect-timeout 0;\n"
            "request subnet-mask, routers, dhcp-lease-time, dhcp-server-identifier;\n")

    def _words(self, *mode):
        return [self.program, "-4", "-v", *mode, "-cf", self.folder / "conf", "-lf", self.folder / "leases",
                "-pf", self.folder / "pid", "-sf", self.script, *self.options, self.host.device]

    def command(self):
        return self._words("-d", "-1")

    def release(self):
        self.stop()
        (self.folder / "pid").unlink(missing_ok=True)
        releasing = self._process(self._words("-d", "-r"))
        releasing.wait()


class Dhcpcd(Client):
    name, program, bound, sets_address = "dhcpcd", "/usr/sbin/dhcpcd", ("BOUND", "RENEW", "REBIND", "REBOOT"), True
    variables = {"reason": "$reason", "address": "$new_ip_address", "server": "$new_dhcp_server_identifier",
                 "router": "$new_routers", "seconds": "$new_dhcp_lease_time"}

    def private_folders(self):
        return ["/var/lib/dhcpcd", "/run/dhcpcd"]

    def write_configuration(self):
        (self.folder / "conf").write_text(
            "ipv4only\nnoipv4ll\nnoarp\nnodelay\nnodev\nnohook resolv.conf, hostname, ntp.conf\ntimeout 100\nreboot 0\n"
            "clientid\noption routers\nrequire dhcp_server_identifier\n")

    def command(self):
        return [self.program, "-4", "-B", "-d", "-f", self.folder / "conf", "-c", self.script, *self.options,
                self.host.device]

    def release(self):
        self.process.send_signal(signal.SIGALRM)  # "release the lease and end"
        self.process.wait()
