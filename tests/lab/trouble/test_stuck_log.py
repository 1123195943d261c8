# SPDX-License-Identifier: Apache-2.0
"""Whoever takes the log's lines hangs: the lines wait for it, and nobody else does. And lines that repeat."""

import os
import re
import select
import socket

import pytest
from conftest import open_lab
from ravolab import craft
from ravolab.decode import mac_bytes
from ravolab.process import wait_for
from troubles import XID_AT, Flood, Trouble, unsummed

CONFIGURATION = """ip dhcp relay information option
ip dhcp relay
interface vlan10
 ip dhcp relay address 192.0.2.11
interface vlan20
 ip dhcp relay address 192.0.2.12
"""


@pytest.fixture(scope="module")
def lab():
    yield from open_lab(name="trouble-log", servers=2)


def discovers(host):
    """A flood of requests, each of which a relay that traces writes a good dozen lines about."""
    frame = unsummed(craft.broadcast(craft.message("DISCOVER", mac=host.mac, xid=0), host.mac))
    return Flood(host, frame, rate=2000, random=[(XID_AT, 4)])


class Pipe:
    """A pipe for standard error that nobody reads, until `rest` does."""

    name = "standard error"
    least = 300  # lines that fit the pipe

    def __init__(self, _folder):
        self.far_end, self.stderr = os.pipe()

    def how(self):
        return {"stderr": self.stderr}

    def rest(self):
        os.close(self.stderr)
        self.stderr = None
        with open(self.far_end, "rb") as pipe:
            return pipe.read().decode()


class Journal:
    """A journal that does not read its socket."""

    name = "the journal"
    least = 5  # datagrams that fit its socket

    def __init__(self, folder):
        self.folder = folder / "journal"
        self.folder.mkdir()
        self.receiver = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.receiver.bind(str(self.folder / "socket"))
        (self.folder / "socket").chmod(0o666)  # as the journal's, which every user may write to
        self.stream, self.far_end = socket.socketpair()

    def how(self):
        found = os.fstat(self.stream.fileno())
        return {"contained": True, "stderr": self.stream, "env": {"JOURNAL_STREAM": f"{found.st_dev}:{found.st_ino}"},
                "mount_script": "mkdir -p /run/systemd/journal\n"
                                f"mount --bind {self.folder} /run/systemd/journal"}

    def rest(self):
        text = b""
        while select.select([self.receiver], [], [], 0)[0]:
            text += re.search(rb"MESSAGE=(.*)\n", self.receiver.recv(65536))[1] + b"\n"
        return text.decode()


@pytest.mark.parametrize("taker", [Pipe, Journal])
def test_reader_hangs(lab, tmp_path, taker):
    """4,000 traces and many more: the reader hangs, the clients do not."""
    reader = taker(tmp_path)
    relay = lab.start_relay(log_level="trace", startup_config=CONFIGURATION, **reader.how())
    trouble = Trouble(f"the reader of {reader.name} hangs", lab, relay)
    trouble.before()
    with discovers(lab.client(1)) as flood:
        trouble.during(show=("show version",))
    trouble.check(cpu=60, note=f"{flood.sent} messages traced")
    assert flood.sent > 400
    # A relay that is told to end does not wait for ever either.
    assert relay.stop() == 0
    lines = reader.rest().splitlines()
    assert lines[0].startswith("RAVO: installSignalHandlers ") and len(lines) >= reader.least, lines


def test_reader_comes_back(lab):
    """What it missed is counted, and what comes then is there."""
    reader = Pipe(None)
    relay = lab.start_relay(log_level="trace", startup_config=CONFIGURATION, stderr=reader.stderr)
    with discovers(lab.client(1)) as flood:
        wait_for(lambda: flood_seen(relay) > 3000, 60, "flood")
    text, lost = "", None
    os.set_blocking(reader.far_end, False)

    def read():
        nonlocal text, lost
        relay.sh("show privilege")
        while select.select([reader.far_end], [], [], 0)[0]:
            text += os.read(reader.far_end, 65536).decode()
        lost = re.search(r"^(\d+) lines of the log were lost here$", text, re.M)
        return lost
    wait_for(read, 30, lambda: f"count of lost lines behind {len(text)} bytes")
    assert int(lost[1]) > 1000
    wait_for(lambda: read() and re.search(r"^management: session \d+ of user root ends$", text[lost.end():], re.M), 30,
             "lines behind the count")
    assert relay.stop() == 0


def flood_seen(relay):
    return sum(int(number) for number in re.findall(r"received +(\d+)", relay.sh("show ip dhcp relay statistics vlan 10")))


def test_forged_replies_leave_the_log_useful(lab):
    """20,000 replies to nobody's request: ten lines, a count, and the rest of the log is where it was."""
    relay = lab.start_relay(log_level="warning", startup_config=CONFIGURATION, switch_toml="[limit]\nport = 0\n")
    relay.run("no such command", "configure terminal")
    host = lab.client(1)
    vlan = lab.vlans[10]
    circuit = bytes((1, 6, 0, 4, vlan.id, 0, 1, 1)) + bytes((2, 8, 0, 6)) + mac_bytes(vlan.mac)
    reply = craft.message("OFFER", mac=host.mac, xid=0, op=2, giaddr=vlan.address, options=[(82, circuit)])
    frame = unsummed(craft.broadcast(reply, host.mac))
    with Flood(host, frame, rate=20000, random=[(XID_AT, 4)]) as flood:
        wait_for(lambda: flood_seen(relay) >= 20000, 60, "flood")
    shown = relay.sh("show logging").splitlines()
    about = [line for line in shown if "Can't find option 82 circuit id DB" in line]
    assert len(about) == 10, shown
    assert len(shown) < 40
    assert relay.stop() == 0
    told = re.search(r"^(\d+) more lines like this one in the last \d+ s: ravo_option_check_reply \(\d+\): Can't find",
                     relay.log, re.M)
    assert told and int(told[1]) >= 20000 - 10 and int(told[1]) <= flood.sent, relay.log[-2000:]
