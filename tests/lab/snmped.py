# SPDX-License-Identifier: Apache-2.0
"""A real snmpd with ravo-snmp behind it, and net-snmp's tools to ask them."""

import re
import socket
import subprocess
from pathlib import Path

import pytest

from ravolab.process import wait_for
from ravolab.relay import BUILD, REPOSITORY

BASE = "1.3.6.1.4.1.8072.9999.9999.67"
MODULE = "RAVO-DHCP-RELAY-MIB"


def modules():
    """Where the modules that ours imports are; a test that needs them is skipped when they cannot be had."""
    fetched = subprocess.run([REPOSITORY / "packaging" / "test-assets", "net-snmp"], capture_output=True, text=True,
                             timeout=120)
    if fetched.returncode != 0:
        pytest.skip(f"the standard MIB modules cannot be had: {fetched.stderr.strip()}")
    return [REPOSITORY / "build/test-assets/net-snmp/lib/mibs", Path("/usr/share/snmp/mibs"), REPOSITORY / "docs/mibs"]


def free_udp_port():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Program:
    """A program that runs in the background, with its log."""

    def __init__(self, folder, words, env=None):
        self.words, self.log_path, self.env = [str(word) for word in words], folder / Path(words[0]).name, env
        self.process = None

    def start(self):
        with open(self.log_path, "ab") as log:
            self.process = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", *self.words], stdin=subprocess.DEVNULL,
                                            stdout=log, stderr=subprocess.STDOUT, env=self.env)
        return self

    @property
    def log(self):
        return self.log_path.read_text(errors="replace")

    def stop(self):
        if self.process.poll() is None:
            self.process.terminate()
        return self.process.wait(30)


class Snmp:
    def __init__(self, folder, management):
        self.folder, self.modules = folder, modules()
        self.port, self.trap_port = free_udp_port(), free_udp_port()
        self.agentx = folder / "agentx"
        (folder / "snmpd.conf").write_text(
            f"agentaddress udp:127.0.0.1:{self.port}\nmaster agentx\ndontLogTCPWrappersConnects yes\nagentXSocket {self.agentx}\n"
            f"rocommunity look 127.0.0.1\nrwcommunity change 127.0.0.1\ntrap2sink 127.0.0.1:{self.trap_port} public\n")
        (folder / "snmptrapd.conf").write_text("disableAuthorization yes\n")
        quiet = {"SNMP_PERSISTENT_DIR": str(folder / "state"), "SNMPCONFPATH": "/nonexistent", "PATH": "/usr/bin:/usr/sbin"}
        mibs = {**quiet, "MIBDIRS": ":".join(map(str, self.modules)), "MIBS": MODULE}
        self.env = mibs
        self.master = Program(folder, ["/usr/sbin/snmpd", "-f", "-Lo", "-C", "-c", folder / "snmpd.conf", "-I",
                                       "-smux,mteTrigger,mteTriggerConf"], {**quiet, "MIBS": ""})
        self.traps = Program(folder, ["/usr/sbin/snmptrapd", "-f", "-Lo", "-C", "-c", folder / "snmptrapd.conf", "-On",
                                      f"udp:127.0.0.1:{self.trap_port}"], {**quiet, "MIBS": ""})
        self.agent = Program(folder, [BUILD / "ravo-snmp", "--management", management, "--agentx", self.agentx])

    def start(self):
        self.traps.start()
        self.master.start()
        wait_for(self.agentx.exists, 30, lambda: f"socket of snmpd:\n{self.master.log}")
        self.agent.start()
        self.wait_there()
        return self

    def wait_there(self):
        def there():
            assert self.agent.process.poll() is None, self.agent.log
            return "ravoHopLimit.0 = INTEGER: " in self.run("snmpget", "ravoHopLimit.0", check=False)
        wait_for(there, 60, lambda: f"answer through snmpd:\n{self.agent.log}\n{self.master.log}", interval=0.2)

    def run(self, tool, *words, community="look", options=(), check=True, timeout=60):
        """What a tool prints for names of our module; of numbers alone it knows no more than they say."""
        numbers = all(word[0].isdigit() or len(word) < 3 for word in map(str, words))
        result = subprocess.run([tool, "-v2c", "-c", community, "-t", "2", "-r", "5", *map(str, options),
                                 f"127.0.0.1:{self.port}",
                                 *(word if "::" in word or word[0].isdigit() or len(word) < 3
                                   else f"{MODULE}::{word}" for word in map(str, words))],
                                capture_output=True, text=True, timeout=timeout,
                                env={**self.env, "MIBS": ""} if numbers else self.env)
        output = result.stdout + result.stderr
        assert not check or result.returncode == 0, output
        return output

    def set(self, name, kind, value, check=True):
        return self.run("snmpset", name, kind, str(value), community="change", check=check)

    def walk(self, name, *options):
        """[(identifier below our module, value)] in the order of the walk."""
        text = self.run("snmpwalk", name, options=("-On", "-Cc", *options), timeout=300)
        return [(tuple(map(int, found[1].split("."))), found[2])
                for found in re.finditer(rf"^\.{re.escape(BASE)}\.([\d.]+) = (.*)$", text, re.M)]

    def memory(self):
        status = Path(f"/proc/{self.agent.process.pid}/status").read_text()
        return int(re.search(r"VmRSS:\s+(\d+)", status)[1])

    def close(self):
        status = self.agent.stop()
        self.master.stop()
        self.traps.stop()
        assert status == 0, self.agent.log
