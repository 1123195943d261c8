# SPDX-License-Identifier: Apache-2.0
"""`monitor ip dhcp relay`: messages as they happen, to a session or into a capture file, until it is interrupted."""

import os
import re
import signal
import stat
import struct
import subprocess

import pexpect
import pytest

import managed
from ravolab.craft import broadcast, message, shown_xid
from ravolab.process import wait_for

NOBODY = "192.0.2.200"  # on the uplink, where no server answers
WHEN = r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} "


def discover(host, xid):
    host.send(broadcast(message("DISCOVER", mac=host.mac, xid=xid), host.mac))


def line(host, xid, vlan=10):
    return (rf"{WHEN}DISCOVER {host.mac} xid {shown_xid(xid)} vlan {vlan} port 1/{host.port}: relayed to {NOBODY} "
            r"\(relayed to servers\)")


@pytest.fixture
def relay(lab, relay):
    relay.configure("interface vlan 10", f"ip dhcp relay address {NOBODY}", "exit",
                    "interface vlan 20", f"ip dhcp relay address {NOBODY}", "exit", "ip dhcp relay")
    return relay


@pytest.fixture
def captures(relay):
    """A folder that captures may be written into."""
    return relay.folder / "state"


class Monitor:
    """A ravosh that runs one command, its output in a file."""

    def __init__(self, relay, command):
        self.path = relay.lab.fresh_folder("monitor") / "output"
        with open(self.path, "wb") as out:
            self.process = subprocess.Popen([relay.build / "ravosh", "--management", relay.socket, "-c", command],
                                            stdin=subprocess.DEVNULL, stdout=out, stderr=subprocess.STDOUT)

    @property
    def lines(self):
        return self.path.read_text().splitlines()

    def wait_begun(self, host):
        """Send messages until one is shown; the shown lines are forgotten by the caller's counting from here."""
        xid = iter(range(0x1000, 0x2000))

        def seen():
            discover(host, next(xid))
            return self.lines
        wait_for(seen, 30, "first line of the monitor")
        return self

    def wait_line(self, pattern):
        return wait_for(lambda: next((each for each in self.lines if re.fullmatch(pattern, each)), None), 30,
                        f"line {pattern} among {self.lines}")

    def end(self):
        self.process.send_signal(signal.SIGINT)
        return self.process.wait(60)


@pytest.fixture
def watch(relay):
    started = []

    def begin(command):
        started.append(Monitor(relay, command))
        return started[-1]

    yield begin
    for each in started:
        if each.process.poll() is None:
            each.process.kill()
            each.process.wait(60)


def test_lines_come_until_ctrl_c(lab, relay, watch):
    host = lab.client(1)
    before = managed.descriptors_at_rest(relay)
    monitor = watch("monitor ip dhcp relay").wait_begun(host)
    discover(host, 1)
    monitor.wait_line(line(host, 1))
    assert monitor.process.poll() is None
    assert monitor.end() == -signal.SIGINT
    assert managed.descriptors_at_rest(relay) == before
    discover(host, 2)
    assert relay.sh("show version")


@pytest.mark.parametrize("words, mine", [("mac {mac}", True), ("vlan 10", True), ("port 1/1", True),
                                         ("mac {mac} vlan 10 port 1/1", True), ("mac {mac} vlan 20", False)])
def test_only_what_was_asked_for(lab, relay, watch, words, mine):
    host, other = lab.client(1), lab.client(3)
    every = watch("monitor ip dhcp relay").wait_begun(host)
    begun = relay.log.count(" begins with ")
    some = watch(f"monitor ip dhcp relay {words.format(mac=host.mac)}")
    if mine:
        some.wait_begun(host)
    else:
        # It shows nothing, so it has begun once the daemon has one session more and answers behind it.
        wait_for(lambda: relay.log.count(" begins with ") > begun, 30, "second session")
        relay.sh("show version")
    discover(other, 3)
    discover(host, 4)
    every.wait_line(line(other, 3, vlan=20))
    every.wait_line(line(host, 4))
    if mine:
        some.wait_line(line(host, 4))
    assert not [each for each in some.lines if other.mac in each]
    assert bool(some.lines) == mine


def test_filter_behind_it(lab, relay, watch):
    host = lab.client(1)
    monitor = watch(f"monitor ip dhcp relay | exclude {shown_xid(5)}").wait_begun(host)
    discover(host, 5)
    discover(host, 6)
    monitor.wait_line(line(host, 6))
    assert not [each for each in monitor.lines if shown_xid(5) in each]


def test_ctrl_c_in_the_shell_goes_back_to_the_prompt(lab, relay):
    host = lab.client(1)
    shell = pexpect.spawn(str(relay.build / "ravosh"), ["--management", str(relay.socket)], encoding="utf-8",
                          timeout=60, env={**os.environ, "TERM": "xterm", "HOME": str(relay.folder)})
    try:
        shell.expect("# ?$")
        shell.sendline("monitor ip dhcp relay")
        def monitor_line():
            discover(host, 7)
            return shell.expect([line(host, 7), pexpect.TIMEOUT], timeout=0.2) == 0
        wait_for(monitor_line, 60, "first line")
        shell.sendintr()
        shell.expect("# ?$")
        shell.sendline("show privilege")
        shell.expect("Current privilege level is 31")
        shell.sendline("exit")
        shell.expect(pexpect.EOF)
    finally:
        shell.close(force=True)


def test_capture_is_readable_with_comments(lab, relay, watch, captures):
    host, other = lab.client(1), lab.client(3)
    path = captures / "relay.pcapng"
    monitor = watch(f"monitor ip dhcp relay port 1/1 pcap {path}")
    relay.wait_log(f"messages are captured in {path} for user ")
    discover(host, 0x11)
    discover(other, 0x12)
    host.send(broadcast(message("DISCOVER", mac=host.mac, xid=0x13, hops=17), host.mac))
    host.send(broadcast(message("DISCOVER", mac=host.mac, xid=0x14), host.mac, vlan=5 << 13 | 777))
    wait_for(lambda: f" xid {shown_xid(0x14)} " in relay.sh(f"show ip dhcp relay client {host.mac}"), 30, "last message")
    assert stat.S_IMODE(path.stat().st_mode) == 0o600
    read = subprocess.run(["tshark", "-n", "-r", path, "-T", "fields", "-e", "dhcp.id", "-e", "dhcp.hw.mac_addr",
                           "-e", "frame.comment", "-e", "vlan.id", "-e", "vlan.priority"],
                          text=True, capture_output=True, check=True, timeout=60)
    rows = [row.split("\t") for row in read.stdout.splitlines()]
    assert [(row[0], row[1], *row[3:]) for row in rows] == [
        ("0x00000011", host.mac, "", ""), ("0x00000013", host.mac, "", ""), ("0x00000014", host.mac, "777", "5")]
    assert re.fullmatch(line(host, 0x11), rows[0][2])
    assert re.fullmatch(rf"{WHEN}DISCOVER {host.mac} xid {shown_xid(0x13)} vlan 10 port 1/1: hop-limit "
                        r"\(passed too many relays\)", rows[1][2])
    assert monitor.lines == []
    monitor.end()


def test_capture_ends_at_its_size(lab, relay, watch, captures):
    host = lab.client(1)
    path = captures / "relay.pcapng"
    monitor = watch(f"monitor ip dhcp relay pcap {path} size 1")
    relay.wait_log(f"messages are captured in {path} for user ")
    frame = broadcast(message("DISCOVER", mac=host.mac, xid=1, padding=bytes(1100)), host.mac)

    def ended():
        for _ in range(100):
            host.send(frame)
        return monitor.process.poll() is not None
    wait_for(ended, 120, "end of the capture")
    assert monitor.process.returncode == 0
    assert monitor.lines[0] == "The capture has reached its size"
    messages = int(re.fullmatch(rf"(\d+) messages in {path}", monitor.lines[1])[1])
    assert 990_000 < path.stat().st_size <= 1_001_000
    read = subprocess.run(["tshark", "-n", "-r", path, "-T", "fields", "-e", "frame.len"], text=True,
                          capture_output=True, check=True, timeout=60)
    assert read.stdout == f"{len(frame)}\n" * messages


def test_what_is_refused(lab, relay, captures):
    other = captures / "other.pcapng"
    other.write_text("precious")
    other.chmod(0o666)
    for command, said in (
            ("monitor ip dhcp relay mac 1", '% "1" is no hardware address; '),
            ("monitor ip dhcp relay port swp99", '% "swp99" is no port; '),
            ("monitor ip dhcp relay pcap relay.pcapng", '% "relay.pcapng" is no file for a capture; '),
            ("monitor ip dhcp relay pcap /etc/passwd", '% "/etc/passwd" is no file for a capture; '),
            (f"monitor ip dhcp relay pcap {other}", f"% {other} exists and is no capture; name another file"),
            (f"monitor ip dhcp relay pcap {captures}/no/x.pcapng", f"% cannot write {captures}/no/x.pcapng: No such"),
            ("monitor ip dhcp relay pcap /etc/x.pcapng", "% /etc/x.pcapng stands in no folder for captures (/"),
            (f"monitor ip dhcp relay pcap {captures}/x.pcapng | json", "% No JSON for this command")):
        result = relay.run(command)
        assert (result.returncode, result.stdout[:len(said)]) == (1, said)
    assert other.read_text() == "precious"


class Session(managed.Session):
    """A session of the management socket, frame by frame: also of commands that go on."""

    INTERRUPT, STREAM = 5, 139
    RUN, REFUSED, OUTPUT, STATUS = managed.RUN, managed.REFUSED, managed.OUTPUT, managed.STATUS

    def __init__(self, relay):
        super().__init__(relay.socket)
        assert self.kind == managed.WELCOME

    def send(self, kind, payload=b""):
        super().send(kind, payload)

    def run(self, number, line):
        self.send(self.RUN, struct.pack("!IBBB", number, 1, 0, 0) + line.encode())

    def receive_status(self):
        """(id, result) of the next status; output before it is passed over."""
        while (frame := self.receive())[0] == self.OUTPUT:
            pass
        assert frame[0] == self.STATUS
        return struct.unpack("!Ii", frame[1][:8])


@pytest.fixture
def session(relay):
    opened = Session(relay)
    yield opened
    opened.socket.close()


def test_interrupt_ends_it_with_a_status(lab, session):
    session.run(7, "monitor ip dhcp relay")
    assert session.receive() == (Session.STREAM, b"")
    discover(lab.client(1), 1)
    kind, text = session.receive()
    assert kind == Session.OUTPUT
    assert re.fullmatch(line(lab.client(1), 1) + "\n", text.decode())
    session.send(Session.INTERRUPT)
    assert session.receive_status() == (7, 0)
    discover(lab.client(1), 2)
    session.run(8, "show privilege")
    assert session.receive() == (Session.OUTPUT, b"Current privilege level is 31\n"), "the second message is not shown"
    assert session.receive_status() == (8, 0)


def test_next_request_ends_it_too(session):
    session.run(1, "monitor ip dhcp relay")
    session.run(2, "monitor ip dhcp relay vlan 10")
    session.run(3, "show privilege")
    assert session.receive() == (Session.STREAM, b"")
    assert session.receive_status() == (1, 0)
    assert session.receive() == (Session.STREAM, b"")
    assert session.receive_status() == (2, 0)
    assert session.receive_status() == (3, 0)


def test_interrupt_of_nothing_is_nothing(session):
    session.send(Session.INTERRUPT)
    session.run(1, "show privilege")
    assert session.receive_status() == (1, 0)
    session.send(Session.INTERRUPT, b"x")
    assert session.receive()[0] == Session.REFUSED


def test_count_behind_it_is_told_at_the_end(lab, session):
    session.run(1, "monitor ip dhcp relay | count DISCOVER")
    assert session.receive() == (Session.STREAM, b"")
    for xid in range(3):
        discover(lab.client(1), xid)
    wait_for(lambda: "DISCOVER                          3\n" in lab.relays[-1].sh("show ip dhcp relay statistics"), 30,
             "three messages")
    session.send(Session.INTERRUPT)
    assert session.receive() == (Session.OUTPUT, b"3\n")
    assert session.receive_status() == (1, 0)


def test_session_that_ends_takes_the_capture_along(lab, relay, session, captures):
    path = captures / "relay.pcapng"
    session.run(1, f"monitor ip dhcp relay pcap {path}")
    assert session.receive() == (Session.STREAM, b"")
    discover(lab.client(1), 1)
    wait_for(lambda: path.stat().st_size > 300, 30, "message in the file")
    assert relay.descriptors().count(str(path)) == 1
    session.socket.close()
    wait_for(lambda: str(path) not in relay.descriptors(), 30, "file closed")
    size = path.stat().st_size
    discover(lab.client(1), 2)
    wait_for(lambda: f" xid {shown_xid(2)} " in relay.sh(f"show ip dhcp relay client {lab.client(1).mac}"), 30,
             "message done with")
    assert path.stat().st_size == size
