# SPDX-License-Identifier: Apache-2.0
"""The tour of `make run`: what it shows, that it ends well, and whom it refuses."""

import os
import pty
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

from ravolab import cleanup

REPOSITORY = Path(__file__).resolve().parents[2]
TOUR = [sys.executable, "-B", REPOSITORY / "lab" / "run.py"]
LIMIT = 300


def test_tour():
    with tempfile.TemporaryDirectory() as temporary:  # what the tour leaves there is its own, whoever else has a lab
        os.chmod(temporary, 0o755)
        result = subprocess.run(TOUR, text=True, capture_output=True, timeout=LIMIT, stdin=subprocess.DEVNULL,
                                env={**os.environ, "TMPDIR": temporary})
        assert os.listdir(temporary) == []
    assert (result.returncode, result.stderr) == (0, "")
    assert "\033" not in result.stdout
    assert max(map(len, result.stdout.splitlines())) <= 80
    row = r"^  (swp\d)  (\d+) +(\w+) +\S+  (10\.\d+\.0\.\d+)  (\w+) +[\d.]+ ms$"
    leases = re.findall(row, result.stdout, re.M)
    assert [(port, vlan, client, server) for port, vlan, client, _, server in leases] == [
        ("swp1", "10", "udhcpc", "Kea"), ("swp2", "10", "dhclient", "Kea"),
        ("swp3", "20", "dhcpcd", "dnsmasq"), ("swp4", "20", "udhcpc", "dnsmasq")]
    assert all(address.startswith(f"10.{vlan}.0.") for _, vlan, _, address, _ in leases)
    assert "client3  000414000103  0006020000002001  20    1       3     02:00:00:00:20:01\n" in result.stdout
    assert "2 DISCOVERs entered swp1, none reached the server, no offer came back" in result.stdout
    assert "VLAN 7, module 9, port 63, MAC de:ad:be:ef:00:01" in result.stdout
    assert re.search(r"client 5 on swp5 got 10\.30\.0\.\d+ ", result.stdout)
    assert re.search(r'^    ravo_outcomes_total\{interface="vlan10",outcome="\w+"\} [1-9]', result.stdout, re.M)
    assert "    .1.3.6.1.4.1.8072.9999.9999.67.1.3.1.3.1034.192.0.2.11 = INTEGER: 1\n" in result.stdout
    assert re.search(r"the page is at http://127\.0\.0\.1:\d+/ while the lab is up:\n    user ravo, password \S+\n",
                     result.stdout)


def test_tour_has_colours_on_a_terminal_only_and_not_with_no_color():
    for environment, coloured in (({"TERM": "xterm"}, True), ({"TERM": "xterm", "NO_COLOR": "1"}, False)):
        master, slave = pty.openpty()
        environment = {**{name: value for name, value in os.environ.items() if name != "NO_COLOR"}, **environment}
        with subprocess.Popen(TOUR, stdin=subprocess.DEVNULL, stdout=slave, stderr=slave, env=environment) as tour:
            os.close(slave)
            shown = b""
            while block := read_terminal(master):
                shown += block
            assert tour.wait(LIMIT) == 0
        os.close(master)
        assert (b"\033[" in shown) == coloured


def read_terminal(master):
    try:
        return os.read(master, 65536)
    except OSError:
        return b""  # the last of the other side has closed it


def test_refused_without_root():
    with tempfile.TemporaryDirectory() as folder:
        # A copy that everybody may read: the repository may lie in root's home.
        os.chmod(folder, 0o755)
        copy = shutil.copytree(REPOSITORY / "lab", Path(folder) / "lab")
        tour = [*TOUR[:-1], Path(copy) / "run.py"]
        result = subprocess.run(["setpriv", "--reuid=65534", "--clear-groups", *tour], text=True, capture_output=True,
                                timeout=LIMIT, stdin=subprocess.DEVNULL, cwd="/")
    assert (result.returncode, result.stdout) == (1, "")
    assert result.stderr == "ravo: the lab needs root, for network namespaces and raw sockets: sudo make run\n"


def test_refused_without_network_namespaces():
    without = ["setpriv", "--bounding-set=-sys_admin", "--inh-caps=-sys_admin"]
    result = subprocess.run([*without, *TOUR], text=True, capture_output=True, timeout=LIMIT, stdin=subprocess.DEVNULL)
    assert (result.returncode, result.stdout) == (1, "")
    assert result.stderr == ("ravo: the lab needs network namespaces, and this process may make none: "
                             "unshare: Operation not permitted\n")


def test_sweep_leaves_living_owners_alone(lab):
    cleanup.sweep()
    assert lab.folder.exists()
