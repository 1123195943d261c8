# SPDX-License-Identifier: Apache-2.0
"""The log in the journal: what its socket gets from a service, whose standard error is a stream of the journal.

The daemon has a /run/systemd/journal of its own, in which the test is the journal.
"""

import os
import re
import select
import socket

import pytest

from managed import Daemon
from ravolab.craft import broadcast, message
from ravolab.process import wait_for


class Journal:
    """A journal's socket, and a stream that stands for a service's standard error."""

    def __init__(self, folder):
        self.folder = folder / "journal"
        self.folder.mkdir()
        self.receiver = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.receiver.bind(str(self.folder / "socket"))
        (self.folder / "socket").chmod(0o666)
        self.stream, self.far_end = socket.socketpair()
        self.entries = []

    @property
    def how(self):
        """How a process is started whose standard error this is: arguments of Process."""
        found = os.fstat(self.stream.fileno())
        return {"contained": True, "stderr": self.stream, "env": {"JOURNAL_STREAM": f"{found.st_dev}:{found.st_ino}"},
                "mount_script": "mkdir -p /run/systemd/journal\n"
                                f"mount --bind {self.folder} /run/systemd/journal"}

    def take(self):
        """All entries so far, each as {field: value}."""
        while select.select([self.receiver], [], [], 0)[0]:
            lines = self.receiver.recv(65536).decode().splitlines()
            self.entries.append(dict(line.split("=", 1) for line in lines))
        return self.entries

    def wait_for(self, text):
        """The first entry whose message matches a regular expression."""
        return wait_for(lambda: next((each for each in self.take() if re.search(text, each["MESSAGE"])), None), 30,
                        f"entry {text!r} in the journal")

    def close(self):
        for each in (self.receiver, self.stream, self.far_end):
            each.close()


@pytest.fixture
def journal(tmp_path):
    journal = Journal(tmp_path)
    yield journal
    journal.close()


def test_lines_of_a_service_reach_the_journal_with_fields(journal, tmp_path):
    daemon = Daemon(tmp_path)
    daemon.startup.write_text("nonsense\n")
    daemon.start(**journal.how)
    entry = journal.wait_for("nonsense")
    assert (entry["PRIORITY"], entry["SYSLOG_IDENTIFIER"]) == ("3", "ravod")
    assert entry["MESSAGE"].endswith('startup-config:1: invalid input at "nonsense", column 1: nonsense')
    daemon.sh("-c", "reset relay")
    assert journal.wait_for("relay reset by root")["RAVO_USER"] == "root"
    assert daemon.log == "" and not select.select([journal.far_end], [], [], 0)[0]
    daemon.close()


def test_lines_about_a_message_bear_what_became_of_it(lab, journal):
    relay = lab.start_relay(startup_config="ip dhcp relay\n", **journal.how)
    host = lab.client(1)
    host.send(broadcast(message("DISCOVER", mac=host.mac, xid=0x52410001), host.mac))
    entry = wait_for(lambda: next((each for each in journal.take() if "RAVO_OUTCOME" in each), None), 30,
                     "entry about a message")
    about = {"RAVO_VLAN": "10", "RAVO_PORT": "1/1", "RAVO_CLIENT": host.mac, "RAVO_OUTCOME": "no-server"}
    assert {field: entry[field] for field in about} == about
    assert relay.stop() == 0
    # Every line about the message bears it, whatever the relay knew when it wrote it.
    mine = [each for each in journal.take() if each.get("RAVO_CLIENT") == host.mac]
    assert len(mine) > 3 and all({field: each.get(field) for field in about} == about for each in mine)
