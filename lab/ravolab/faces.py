# SPDX-License-Identifier: Apache-2.0
"""The other faces of the lab's relay: its web page, which the host can reach, and its SNMP side, in the switch."""

import os
import re
import secrets
import socket
import subprocess
import urllib.request

from .process import LabError, Process, wait_for

USUAL_PORT = 8067


class Here:
    """The network namespace of this process, as a place for programs."""

    path = f"/proc/{os.getpid()}/ns/net"


def usual_port_is_free():
    with socket.socket() as probe:
        probe.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        return probe.connect_ex(("127.0.0.1", USUAL_PORT)) != 0


class WebPage:
    """ravo-web on the host's loopback, at the usual port when that is free."""

    def __init__(self, lab, relay):
        self.folder = lab.fresh_folder("web")
        self.user, self.password = "ravo", secrets.token_urlsafe(9)
        program, accounts = relay.build / "ravo-web", self.folder / "accounts"
        made = subprocess.run([program, "--accounts", accounts, "--set-password", self.user],
                              input=self.password + "\n", text=True, capture_output=True, timeout=60)
        if made.returncode != 0:
            raise LabError(f"ravo-web: {made.stderr}")
        port = USUAL_PORT if usual_port_is_free() else 0
        self.process = lab.keep(Process(Here, [program, "--listen", f"127.0.0.1:{port}", "--management", relay.socket,
                                               "--accounts", accounts], self.folder / "log", name="ravo-web"))
        self.url = wait_for(self._url, 30, lambda: f"page of ravo-web; its log:\n{self.process.log}\nreadiness")

    def _url(self):
        if not self.process.alive:
            raise LabError(f"ravo-web ended:\n{self.process.log}")
        found = re.search(r"listening on (\S+)", self.process.log)
        return found and found[1]

    def metrics(self):
        with urllib.request.urlopen(self.url + "metrics", timeout=30) as answer:
            return answer.read().decode()


class SnmpAgent:
    """snmpd in the switch, and ravo-snmp behind it."""

    base = "1.3.6.1.4.1.8072.9999.9999.67"

    def __init__(self, lab, relay):
        self.lab, folder = lab, lab.fresh_folder("snmp")
        self.env = {"SNMP_PERSISTENT_DIR": str(folder), "SNMPCONFPATH": "/nonexistent", "MIBS": ""}
        agentx = folder / "agentx"
        (folder / "snmpd.conf").write_text(f"agentaddress udp:127.0.0.1:161\nrocommunity public 127.0.0.1\n"
                                           f"master agentx\nagentXSocket {agentx}\n")
        self.master = lab.keep(Process(lab.switch, [lab.program("/usr/sbin/snmpd"), "-f", "-Lo", "-C", "-c",
                                                    folder / "snmpd.conf"], folder / "snmpd-log", env=self.env))
        wait_for(agentx.exists, 30, lambda: f"socket of snmpd; its log:\n{self.master.log}")
        self.agent = lab.keep(Process(lab.switch, [relay.build / "ravo-snmp", "--management", relay.socket, "--agentx",
                                                   agentx], folder / "log", name="ravo-snmp"))
        wait_for(lambda: self.walk("1.1"), 30, lambda: f"answer of ravo-snmp; its log:\n{self.agent.log}\nanswer")

    def walk(self, part):
        """The lines of a walk below a part of the module."""
        words = ["env", *(f"{name}={value}" for name, value in self.env.items()), "snmpwalk", "-v2c", "-c", "public",
                 "-On", "127.0.0.1", f"{self.base}.{part}"]
        shown = self.lab.switch.run(*words, check=False).stdout
        return [line for line in shown.splitlines() if line.startswith(f".{self.base}.{part}.") and " = No " not in line]
