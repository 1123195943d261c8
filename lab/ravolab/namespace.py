# SPDX-License-Identifier: Apache-2.0
"""A network namespace, held by a descriptor of this process.

It has no name in the file system: the kernel frees it when this process and the programs in it are
gone, however they ended. `path` is how other programs enter it while this process lives.
"""

import contextlib
import ctypes
import json
import os
import socket
import subprocess
from pathlib import Path

from .process import PATIENCE, LabError, wait_for

CLONE_NEWNET = 0x40000000
_libc = ctypes.CDLL(None, use_errno=True)


def _check(result, what):
    if result != 0:
        number = ctypes.get_errno()
        raise LabError(f"{what}: {os.strerror(number)}")


def unavailable():
    """None when this process can make network namespaces, else the reason it cannot."""
    try:
        Namespace("probe").close()
    except (LabError, OSError) as error:
        return str(error)
    return None


class Namespace:
    """A fresh network namespace: loopback up, no IPv6 traffic of its own, no reverse path filter."""

    def __init__(self, name):
        self.name = name
        self.fd = -1
        home = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
        try:
            _check(_libc.unshare(CLONE_NEWNET), "unshare")
            try:
                self.fd = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
            finally:
                _check(_libc.setns(home, CLONE_NEWNET), "no way back to the own network namespace")
        finally:
            os.close(home)
        for setting in ("ipv6/conf/all/disable_ipv6", "ipv6/conf/default/disable_ipv6"):
            if Path("/proc/sys/net", setting).exists():
                self.set(setting, 1)
        self.set("ipv4/conf/all/rp_filter", 0)
        self.set("ipv4/conf/default/rp_filter", 0)
        self.ip("link set lo up")

    @property
    def path(self):
        return f"/proc/{os.getpid()}/fd/{self.fd}"

    @contextlib.contextmanager
    def entered(self):
        """The calling thread is in the namespace within the block; sockets it opens there stay there."""
        home = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
        try:
            _check(_libc.setns(self.fd, CLONE_NEWNET), f"cannot enter namespace {self.name}")
            try:
                yield
            finally:
                _check(_libc.setns(home, CLONE_NEWNET), "no way back to the own network namespace")
        finally:
            os.close(home)

    def set(self, setting, value):
        """Write a setting below /proc/sys/net of this namespace."""
        with self.entered():
            Path("/proc/sys/net", setting).write_text(f"{value}\n")

    def run(self, *argv, check=True, input=None, timeout=60):
        """Run a short command in the namespace; its result as of subprocess.run, with text output."""
        result = subprocess.run(["nsenter", f"--net={self.path}", "--", *map(str, argv)], input=input, text=True,
                                capture_output=True, timeout=timeout * PATIENCE)
        if check and result.returncode != 0:
            raise LabError(f"{self.name}: {' '.join(map(str, argv))}: {result.stderr.strip() or result.stdout.strip()}")
        return result

    def ip(self, *lines):
        """Run ip(8) with each line, in one process: ns.ip("link set eth0 up", "addr add 192.0.2.1/24 dev eth0")."""
        result = self.run("ip", "-batch", "-", check=False, input="".join(f"{line}\n" for line in lines))
        if result.returncode != 0:
            raise LabError(f"{self.name}: ip: {result.stderr.strip()}\n  " + "\n  ".join(lines))

    def look(self, *argv):
        """The output of a command that changes nothing. One that hangs is started once more: on a busy machine tc(8)
        has been seen to wait for an answer of the kernel that never came."""
        try:
            return self.run(*argv, timeout=20).stdout
        except subprocess.TimeoutExpired:
            return self.run(*argv).stdout

    def wait_up(self, *devices):
        """Wait until these devices pass frames. The kernel sees to that behind the command that sets them up: until
        then a device sends nothing, and a bridge forwards nothing out of its port."""
        def ready(link):
            port = link.get("linkinfo", {}).get("info_slave_data")
            return link["operstate"] == "UP" and (port is None or port["state"] == "forwarding")

        def up():
            shown = json.loads(self.look("ip", "-json", "-details", "link", "show"))
            return {link["ifname"] for link in shown if ready(link)} >= set(devices)
        wait_for(up, 30, f"operation of {', '.join(devices)}")

    def ifindex(self, device):
        with self.entered():
            return socket.if_nametoindex(device)

    def close(self):
        if self.fd >= 0:
            os.close(self.fd)
            self.fd = -1
