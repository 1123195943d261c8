# SPDX-License-Identifier: Apache-2.0
"""The laboratory of the load test: three network namespaces joined by plain veth pairs, one for each interface.

    clients  c10, c11, ...  <-->  vlan10, vlan11, ...  switch  vlan4000  <-->  eth0  server
                                  10.0.10.1/24 ...             192.0.2.1       192.0.2.11

No bridge stands in the way: what the kernel does for each frame is the least there is. It offers what
ravolab.Relay asks of a lab.
"""

import subprocess
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "lab"))

from ravolab import cleanup  # noqa: E402
from ravolab.namespace import Namespace  # noqa: E402
from ravolab.process import LabError  # noqa: E402

SERVER, UPLINK = "192.0.2.11", "vlan4000"
FIRST_VLAN = 10


def mac(side, number):
    return f"02:{side:02x}:00:00:{number >> 8:02x}:{number & 255:02x}"


def without_offload(namespace, device):
    """Whoever reads frames from the device finds their checksums made, as from a cable."""
    try:
        namespace.run("ethtool", "-K", device, "tx", "off")
    except FileNotFoundError:
        raise LabError("ethtool is needed: run packaging/dependencies bench") from None


class Laboratory:
    def __init__(self, interfaces):
        self.vlans = range(FIRST_VLAN, FIRST_VLAN + interfaces)
        self.interfaces = [f"vlan{vlan}" for vlan in self.vlans]
        self.client_devices = [f"c{vlan}" for vlan in self.vlans]

    def __enter__(self):
        self._folder, self._folders, self._processes = cleanup.make_folder(), 0, []
        self.clients, self.switch, self.server = (Namespace(name) for name in ("clients", "switch", "server"))
        cleanup.register(self)
        self._join()
        return self

    def __exit__(self, *_):
        self.close()

    def _join(self):
        ours, theirs = mac(3, 1), mac(3, 2)
        lines = []
        for vlan in self.vlans:
            peer = f"peer name c{vlan} netns {self.clients.path}"
            lines += [f"link add vlan{vlan} address {mac(1, vlan)} type veth {peer}",
                      f"addr add 10.{vlan >> 8}.{vlan & 255}.1/24 brd + dev vlan{vlan}", f"link set vlan{vlan} up"]
        peer = f"peer name eth0 address {theirs} netns {self.server.path}"
        self.switch.ip(*lines, f"link add {UPLINK} address {ours} type veth {peer}",
                       f"addr add 192.0.2.1/24 dev {UPLINK}", f"link set {UPLINK} up",
                       f"neigh replace {SERVER} lladdr {theirs} dev {UPLINK} nud permanent")
        self.clients.ip(*(f"link set {device} up" for device in self.client_devices))
        self.server.ip(f"addr add {SERVER}/24 dev eth0", "link set eth0 up",
                       f"neigh replace 192.0.2.1 lladdr {ours} dev eth0 nud permanent",
                       "route add 10.0.0.0/8 via 192.0.2.1")
        without_offload(self.switch, UPLINK)
        without_offload(self.server, "eth0")
        self.switch.wait_up(UPLINK, *self.interfaces)

    # ---- As a lab of ravolab ----

    def fresh_folder(self, name):
        self._folders += 1
        folder = self._folder / f"{name}-{self._folders}"
        folder.mkdir()
        return folder

    def keep(self, process):
        self._processes.append(process)

    def close(self):
        for process in self._processes:
            process.stop()
        for namespace in (self.clients, self.switch, self.server):
            namespace.close()
        subprocess.run(["rm", "-rf", str(self._folder)], check=False)
        cleanup.unregister(self)
