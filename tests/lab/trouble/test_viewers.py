# SPDX-License-Identifier: Apache-2.0
"""All sessions show everything, with patterns: the relay's messages come first, and who looks has his turns between."""

import selectors
import struct
import threading

import pytest
from conftest import open_lab
from managed import RUN, STATUS, Session
from ravolab import craft
from ravolab.process import wait_for
from troubles import FULL, XID_AT, Flood, Trouble, unsummed

CONFIGURATION = """ip dhcp relay information option
ip dhcp relay
interface vlan10
 ip dhcp relay address 192.0.2.11
interface vlan20
 ip dhcp relay address 192.0.2.12
"""
SESSIONS = 63  # and the one that looks now and then
# Long tables through patterns that let nothing pass: as much work as a viewer can ask for, and nothing to read.
SHOWS = ("show ip dhcp relay xid-port-mapping | include (X|x)*(i|.)*d.*[:;].*(no|none)$",
         "show logging | exclude .*(a|e|i|o|u|:)*.*",
         "show running-config | section (i|n|t)*face.* | include ^$ | count",
         "show ip dhcp relay statistics | json")
ROWS = 20000 if FULL else 2000


class Viewers:
    """Sessions that ask for the next table as soon as they have the last."""

    def __init__(self, path):
        self.sessions = [Session(path, mode=5) for _ in range(SESSIONS)]
        self.asked = 0
        self.shown = 0
        self.refused = []
        self._over = threading.Event()
        self._thread = threading.Thread(target=self._look)

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._over.set()
        self._thread.join()
        for session in self.sessions:
            session.close()

    def _ask(self, session):
        line = SHOWS[self.asked % len(SHOWS)]
        self.asked += 1
        session.send(RUN, struct.pack(">IBBB", self.asked, 1, 0, 0) + line.encode())

    def _look(self):
        with selectors.DefaultSelector() as ready:
            for session in self.sessions:
                ready.register(session.socket, selectors.EVENT_READ, session)
                self._ask(session)
            while not self._over.is_set():
                for key, _ in ready.select(0.1):
                    kind, payload = key.data.receive()
                    if kind != STATUS:
                        continue
                    if payload[4:8] != bytes(4):
                        self.refused.append(payload)
                    self.shown += 1
                    self._ask(key.data)


@pytest.fixture(scope="module")
def lab():
    yield from open_lab(name="trouble-viewers", servers=2)


def test_viewers(lab):
    relay = lab.start_relay(log_level="warning", startup_config=CONFIGURATION)
    host = lab.client(1)
    frame = unsummed(craft.broadcast(craft.message("DISCOVER", mac=host.mac, xid=0), host.mac))
    with Flood(host, frame, rate=4000, random=[(XID_AT, 4)]):
        wait_for(lambda: rows(relay) >= ROWS, 60, "long tables")
    trouble = Trouble("64 sessions show everything with patterns", lab, relay)
    trouble.before()
    with Viewers(relay.socket) as viewers:
        trouble.during(show=("show version",))
    trouble.check(note=f"{viewers.shown} tables shown")
    assert viewers.shown > SESSIONS and viewers.refused == []
    assert relay.stop() == 0, relay.log[-3000:]


def rows(relay):
    return int(relay.sh("configure terminal", "show ip dhcp relay xid-port-mapping | count Xid").split()[-1])
