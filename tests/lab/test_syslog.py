# SPDX-License-Identifier: Apache-2.0
"""The log in syslog: what a log daemon at /dev/log gets, and what becomes of the relay without one or with a stuck one.

The daemon has a /dev of its own, in which the test is the log daemon.
"""

import contextlib
import re
import select
import socket
import subprocess
import time

import pytest

from managed import Session
from ravolab.namespace import Namespace
from ravolab.process import Process, wait_for
from ravolab.relay import BUILD

NOTICE, WARNING, ERROR, DEBUG = 24 + 5, 24 + 4, 24 + 3, 24 + 7  # facility 3 is daemon
MONTHS = "Jan Feb Mar Apr May Jun Jul Aug Sep Oct Nov Dec".split()
LOST = "ravod: /dev/log: the log is lost: {}; is a log daemon running?\n"


class Logged:
    """A ravod that logs to syslog, with a folder in place of /dev in which `log` is a path of the test's."""

    def __init__(self, folder):
        self.folder = folder
        self.namespace = Namespace("syslog")
        self.log_socket = folder / "log-socket"
        self.socket = folder / "run" / "ravod.sock"
        self.receiver = None
        self.process = None
        self.lines = []

    def listen(self):
        self.log_socket.unlink(missing_ok=True)
        self.receiver = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.receiver.bind(str(self.log_socket))
        return self

    def start(self, level="warning"):
        device = self.folder / "dev"
        device.mkdir()
        script = "\n".join([f"mount -t tmpfs tmpfs {device}",
                            *(f"touch {device}/{name}; mount --bind /dev/{name} {device}/{name}"
                              for name in ("null", "zero", "urandom")),
                            f"ln -s {self.log_socket} {device}/log", f"mount --rbind {device} /dev"])
        self.process = Process(self.namespace, [BUILD / "ravod", "--user", "root", "--management", self.socket, "--log-level", level,
                                                "--log-to", "syslog", "--startup-config", self.folder / "startup"],
                               self.folder / "stderr", contained=True, mount_script=script, env={"TZ": "UTC"})
        wait_for(self.answers, 60, lambda: f"answer from ravod; its standard error:\n{self.stderr}\nreadiness")
        return self

    def answers(self):
        assert self.process.alive, self.stderr
        with socket.socket(socket.AF_UNIX) as probe:
            return probe.connect_ex(str(self.socket)) == 0

    @property
    def stderr(self):
        return self.process.log

    def sh(self, *commands, status=0):
        words = [word for command in commands for word in ("-c", command)]
        result = subprocess.run([BUILD / "ravosh", "--management", self.socket, *words], text=True,
                                capture_output=True, timeout=120)
        assert result.returncode == status, (result.returncode, result.stdout + result.stderr)
        return result.stdout

    def take(self):
        """Takes in what has come."""
        while select.select([self.receiver], [], [], 0)[0]:
            self.lines.append(self.receiver.recv(65536))
        return self.lines

    def records(self):
        """All records so far as (priority, time, process id, text)."""
        found = []
        for line in self.take():
            parts = re.fullmatch(r"<(\d+)>(\w{3}) ([ \d]\d) (\d\d):(\d\d):(\d\d) ravod\[(\d+)\]: (.*)", line.decode())
            assert parts, line
            assert parts[2] in MONTHS
            at = (MONTHS.index(parts[2]) + 1, *map(int, parts.groups()[2:6]))
            found.append((int(parts[1]), at, int(parts[7]), parts[8]))
        return found

    def run_and_wait(self, *commands):
        """Run commands in a session, and wait for the line that tells its end; the session's number."""
        before = len(self.take())
        self.sh(*commands)

        def ended():
            texts = [text for _, _, _, text in self.records()[before:]]
            began = [re.fullmatch(r"management: session (\d+) of user root begins with privilege 31", text)
                     for text in texts]
            numbers = [parts[1] for parts in began if parts]
            return numbers and f"management: session {numbers[-1]} of user root ends" in texts and numbers[-1]
        return wait_for(ended, 30, lambda: f"end of a session among {self.lines[-10:]}")

    def close(self):
        status = self.process.stop() if self.process else 0
        self.namespace.close()
        if self.receiver:
            self.receiver.close()
        assert status == 0, (status, self.stderr)


@pytest.fixture
def logged(tmp_path):
    logged = Logged(tmp_path)
    yield logged
    logged.close()


def refused(command):
    return f"user nobody may only use show commands, refused: {command}"


def test_lines_come_with_severity_facility_program_and_time(logged):
    before = time.gmtime(time.time() - 1)
    logged.listen().start(level="trace")
    session = logged.run_and_wait("configure terminal", "ip dhcp relay")
    after = time.gmtime()
    records = logged.records()
    priorities = {text: priority for priority, _, _, text in records}
    starting = [text for text in priorities if text.startswith("RAVO: installSignalHandlers ")]
    assert len(starting) == 1 and priorities[starting[0]] == NOTICE
    assert priorities[f"management: session {session} of user root ends"] == DEBUG
    opened = [text for text in priorities if re.fullmatch(r"RAVO_IF_Create_fd \(\d+\): Socket create successfully", text)]
    assert opened and priorities[opened[0]] == DEBUG
    # The process is the first but one of a PID namespace of its own, which is what it can tell.
    assert len({pid for _, _, pid, _ in records}) == 1
    limits = [(moment.tm_mon, moment.tm_mday, moment.tm_hour, moment.tm_min, moment.tm_sec) for moment in (before, after)]
    assert all(limits[0] <= at <= limits[1] for _, at, _, _ in records), (limits, records)
    assert logged.stderr == ""


def test_warnings_and_errors_have_their_severities(logged):
    (logged.folder / "startup").write_text("nonsense\n")
    logged.listen().start()
    wait_for(lambda: any("nonsense" in text for _, _, _, text in logged.records()), 30, "line about the configuration")
    found = {text: priority for priority, _, _, text in logged.records()}
    assert [priority for text, priority in found.items() if "nonsense" in text] == [ERROR]
    logged.sh("no such command", status=1)
    assert logged.stderr == ""


def test_percent_signs_control_characters_and_long_lines(logged):
    (logged.folder / "startup").write_text("%s%n%x\nevil\x1b[2J\x7f\té\n" + "x" * 1000 + "\n")
    logged.listen().start(level="trace")
    vendor = "%s%n%x" + "v" * 40
    logged.run_and_wait("configure terminal", "interface vlan 10",
                        f"ip dhcp relay option60 string {vendor} exact-match address 192.0.2.1")
    about_startup = [text.partition("/startup:")[2] for _, _, _, text in logged.records() if "/startup:" in text]
    assert about_startup == [
        '1: invalid input at "%s%n%x", column 1: %s%n%x',
        '2: invalid input at "evil?[2J?", column 1: evil?[2J??é',
        f'3: invalid input at "{"x" * 120}...", column 1: {"x" * 120}...']
    assert [text for _, _, _, text in logged.records() if re.search(
        rf",vendor string {vendor},match rule 0 to interface vlan10 and ifindex=1034 for option60$", text)], logged.lines


def test_a_relay_without_a_log_daemon_goes_on(logged):
    logged.start()
    assert logged.stderr == LOST.format("No such file or directory")
    logged.sh("configure terminal", "ip dhcp relay hops 7")
    assert logged.sh("show running-config") == "ip dhcp relay hops 7\n!\n"
    assert logged.stderr == LOST.format("No such file or directory")


def test_a_log_daemon_that_starts_late_hears_how_many_lines_it_missed(logged):
    logged.start(level="trace")
    missed = len(logged.sh("show logging").splitlines()) - 1  # without the heading
    assert missed > 0
    logged.listen()
    session = logged.run_and_wait("show privilege")
    records = logged.records()
    parts = re.fullmatch(r"(\d+) lines of the log were lost here", records[0][3])
    # What the log's writer had not come to yet when the log daemon started is not lost: it is there.
    own = [f"management: session {session} of user root {what}" for what in ("begins with privilege 31", "ends")]
    heard = [text for _, _, _, text in records[1:] if text not in own]
    assert parts and int(parts[1]) + len(heard) >= missed and records[0][0] == WARNING
    assert [text for _, _, _, text in records[1:] if text in own] == own
    assert logged.stderr == LOST.format("No such file or directory")


def test_a_restarted_log_daemon_is_found_again(logged):
    logged.listen().start(level="trace")
    logged.run_and_wait("show privilege")  # so that nothing is told while nobody listens
    logged.receiver.close()
    logged.listen()
    logged.lines.clear()
    session = logged.run_and_wait("show privilege")
    texts = [text for _, _, _, text in logged.records()]
    assert f"management: session {session} of user root begins with privilege 31" in texts
    assert not [text for text in texts if "lost" in text]
    assert logged.stderr == ""


def test_a_log_daemon_that_does_not_read_stops_nobody(logged):
    logged.listen().start(level="trace")
    for number in range(300):  # far more than a datagram socket's queue
        with Session(logged.socket) as session:
            assert session.run("show privilege")[0] == 0
    def sessions(what):
        return {number for _, _, _, text in logged.records()
                for number in re.findall(rf"^management: session (\d+) of user root {what}", text)}

    # Each of the sessions told its begin and its end: the lines have waited, and come now.
    wait_for(lambda: len(sessions("begins")) == 300 and sessions("ends") >= sessions("begins"), 30,
             lambda: f"ends of {sessions('begins') - sessions('ends')}")
    assert not [text for _, _, _, text in logged.records() if "lost" in text]
    assert logged.stderr == ""
