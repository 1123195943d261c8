# SPDX-License-Identifier: Apache-2.0
"""What goes wrong around a daemon: the clock jumps, the disk is full, descriptors run out; and a million clients.

`make soak` does it for longer. Servers that do not answer, addresses that nobody answers for, routes that are missing and uplinks
that are down: test_dead_servers, test_one_of_two_servers_is_down (test_relay_servers.py), test_ways_lost.py, test_slow_vlan; devices that fail and come
back: test_life.py.
"""

import json
import pwd
import re
import socket
import struct
import subprocess
import sys
import time
from datetime import datetime, timezone
from pathlib import Path

import pytest
from ravolab.process import PATIENCE, wait_for
from ravolab.relay import BUILD, USER
from soaking import note, pick

sys.path.insert(0, str(Path(__file__).parent / "trouble"))

from test_soak import CONFIGURATION  # noqa: E402
from troubles import ManyClients, cpu_seconds  # noqa: E402

RATE = pick(100, 500)
DAY = 86400


def asking(lab, **how):
    return ManyClients(lab, ports=(3, 4), **{"clients": 2 * RATE, "rate": RATE, "again": 4000 * PATIENCE, **how})


def expect_no_loss(found, least=20):
    assert found["leases"] > least and not found["again"] and not found["unfinished"], found


def test_clock_jumps_both_ways(bare_lab):
    """The daemon's own wall clock is set: one that others have too cannot be, and no namespace has one of its own."""
    offset = bare_lab.fresh_folder("clock") / "offset"
    offset.write_bytes(struct.pack("=q", 0))
    offset.parent.chmod(0o755)
    relay = bare_lab.start_relay(log_level="warning", startup_config=CONFIGURATION.format(bare_lab.server_host(2).address),
                                 env={"TZ": "UTC", "LD_PRELOAD": str(BUILD / "tests/libclock_shim.so"), "CLOCK_SHIM": str(offset)})

    def clock():
        """Of the session that asks, in seconds from ours."""
        told = datetime.strptime(re.findall(r"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)", relay.sh("show users"))[-1], "%Y-%m-%d %H:%M:%S")
        return told.replace(tzinfo=timezone.utc).timestamp() - time.time()

    clients, jumps = asking(bare_lab), (3600, -3600, 40 * DAY, -40 * DAY, 20 * 365 * DAY, 0)
    for jump in jumps:
        with open(offset, "r+b") as file:
            file.write(struct.pack("=q", jump))
        wait_for(lambda jump=jump: abs(clock() - jump) < 60 * PATIENCE, 30, f"a clock that is {jump} s ahead")
        relay.sh("show ip dhcp relay client", "show ip dhcp relay server", "show ip dhcp relay advice", "show users")
        time.sleep(pick(0.1, 5))
    found = clients.stop()
    note(f"its wall clock set {len(jumps)} times, by up to 20 years ahead and 40 days back (a clock of its own)",
         f"{len(found['again'])} of {found['leases']} leases needed a message again")
    expect_no_loss(found)
    assert relay.stop() == 0


def test_disk_is_full(bare_lab):
    """State folder, saved configuration and log are on a disk that has no room."""
    disk = bare_lab.fresh_folder("disk")
    script = f"mount -t tmpfs -o size=256k,mode=755,uid=$(id -u {USER}) tmpfs {disk}"
    configuration = bare_lab.fresh_folder("saved") / "startup-config"
    configuration.write_text(CONFIGURATION.format(bare_lab.server_host(2).address))
    relay = bare_lab.start_relay(
        log_level="warning", contained=True, mount_script=f"{script}\ninstall -o {USER} {configuration} {disk}/startup-config",
        options=["--state", disk / "state", "--log-to", disk / "log", "--startup-config", disk / "startup-config"])

    def inside(command, check=True):
        return subprocess.run(["nsenter", "-t", str(relay.pid), "-m", "sh", "-c", command], check=check, text=True, capture_output=True).stdout

    saved = inside(f"cat {disk}/startup-config")
    inside(f"cat /dev/zero >{disk}/filler", check=False)
    clients = asking(bare_lab)
    refused = relay.run("write memory")
    assert "No space left on device; make room on the disk" in refused.stdout + refused.stderr and refused.returncode != 0
    assert inside(f"cat {disk}/startup-config") == saved, "what was saved is whole"
    bare_lab.switch.ip("link add swp30 type veth peer name far30", "link set swp30 master vlan20")
    for _ in range(pick(30, 300)):
        relay.sh("show version")  # each leaves lines in the log
    time.sleep(pick(0.5, 5))
    found = clients.stop()
    inside(f"rm {disk}/filler")
    relay.sh("write memory")
    wait_for(lambda: "write memory" in inside(f"cat {disk}/log"), 30, "a log that goes on")
    bare_lab.switch.ip("link add swp32 type veth peer name far32", "link set swp32 master vlan20")  # with the next change it is tried again
    wait_for(lambda: "swp30" in inside(f"cat {disk}/state/ports", check=False), 30, "the number of a port that came meanwhile")
    note("disk full under state folder, log and saved configuration",
         f"{len(found['again'])} of {found['leases']} leases needed a message again; afterwards it saves and logs")
    expect_no_loss(found)
    assert relay.stop() == 0


def limit_descriptors(relay, number):
    """From now on; what is open stays. The daemon's own user may do that."""
    daemon = pwd.getpwnam(USER)
    subprocess.run(["setpriv", f"--reuid={daemon.pw_uid}", f"--regid={daemon.pw_gid}", "--clear-groups", "prlimit", f"--pid={relay.pid}", f"--nofile={number}:"],
                   check=True)


def test_descriptors_are_used_up(bare_lab):
    relay = bare_lab.start_relay(log_level="warning", startup_config=CONFIGURATION.format(bare_lab.server_host(2).address))
    clients = asking(bare_lab)
    at_rest = wait_for(lambda: len(relay.descriptors()), 30, "descriptors")
    limit_descriptors(relay, "3")
    waiting = []
    for _ in range(pick(5, 50)):
        waiting.append(socket.socket(socket.AF_UNIX))
        waiting[-1].connect(str(relay.socket))
    began, used = time.monotonic(), cpu_seconds(relay.pid)
    time.sleep(pick(0.5, 10))
    load = 100 * (cpu_seconds(relay.pid) - used) / (time.monotonic() - began)
    for one in waiting:
        one.close()
    assert relay.alive
    bare_lab.switch.ip("link add swp31 type veth peer name far31", "link set swp31 master vlan20 up")
    limit_descriptors(relay, "1024")
    wait_for(lambda: relay.run("show version").returncode == 0, 30, "an answer")
    wait_for(lambda: "swp31" in relay.sh("show interfaces brief"), 30, "the port that came meanwhile")
    found = clients.stop()
    wait_for(lambda: len(relay.descriptors()) <= at_rest, 30, "descriptors that are closed again")
    note(f"not one descriptor left, and {len(waiting)} sessions that wait for one",
         f"{len(found['again'])} of {found['leases']} leases needed a message again; {load:.0f} % of a core")
    expect_no_loss(found)
    assert load < 60, "it does not try again and again"
    assert relay.stop() == 0


def test_clients_without_number(bare_lab):
    """Each lease is that of a machine that nobody saw before; what is kept of them does not grow for ever."""
    whole, window, rate = pick((1200, 600, 600), (1_000_000, 100_000, 2500))
    relay = bare_lab.start_relay(log_level="warning", options=["--memory-budget", str(8 << 20)],
                                 startup_config=CONFIGURATION.format(bare_lab.server_host(2).address))

    def resident():
        return int(re.search(r"VmRSS:\s+(\d+)", Path(f"/proc/{relay.pid}/status").read_text())[1])

    def leases():
        outcomes = json.loads(relay.sh("show ip dhcp relay statistics | json"))["total"]["outcomes"]
        return outcomes["relayed"] / 2  # a DISCOVER and a REQUEST each

    clients, seen = asking(bare_lab, clients=2 * rate, rate=rate, new=True), []
    for wanted in (window, whole):
        wait_for(lambda wanted=wanted: leases() >= wanted, 4 * whole / rate + 30, f"{wanted} leases", interval=pick(0.1, 2))
        seen.append((resident(), len(relay.descriptors())))
    found = clients.stop()
    note(f"{found['leases']} clients, none of them twice",
         f"{len(found['again'])} messages again; after {window}: {seen[0][0]} KiB and {seen[0][1]} descriptors, at the end {seen[1][0]} KiB "
         f"and {seen[1][1]}")
    assert found["unfinished"] == 0 and found["leases"] >= whole  # at this rate a busy machine may have some ask again
    assert seen[1][1] <= seen[0][1] + 1  # one for a session that is just being asked
    assert seen[1][0] <= seen[0][0] + pick(4096, 1024)
    assert relay.stop() == 0
