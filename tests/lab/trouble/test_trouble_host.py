# SPDX-License-Identifier: Apache-2.0
"""What the host itself may do to the relay: give it no more memory, and let other users lock what they can open."""

import os
import re
import subprocess
import sys
from pathlib import Path

import pytest
from conftest import open_lab
from ravolab import craft
from ravolab.process import wait_for
from troubles import FULL, SECONDS, XID_AT, Flood, Trouble, unsummed

CONFIGURATION = """ip dhcp relay
interface vlan10
 ip dhcp relay address 192.0.2.11
interface vlan20
 ip dhcp relay address 192.0.2.12
"""
SPAN = SECONDS if FULL else 1


@pytest.fixture(scope="module")
def lab():
    yield from open_lab(name="trouble-host", servers=2)


@pytest.fixture
def relay(lab):
    relay = lab.start_relay(log_level="warning", startup_config=CONFIGURATION)
    yield relay
    assert relay.stop() == 0, relay.log[-3000:]


def data(relay):
    return int(re.search(r"VmData:\s+(\d+) kB", Path(f"/proc/{relay.pid}/status").read_text())[1]) << 10


def answer_fails(relay):
    return relay.run("show tech-support").returncode != 0


def test_memory_at_its_limit(lab, relay):
    """A port opens transactions until the system gives no more memory. Sessions that find none then end, and nothing
    else does."""
    trouble = Trouble("the system gives no more memory, and commands", lab, relay)
    trouble.before(SPAN)
    relay.switch_file.write_text("[limit]\nport = 0\n")
    relay.wrapper = ["prlimit", f"--data={data(relay)}"]  # what it takes when it has just started
    relay.restart()
    process, host, refused = relay.pid, lab.client(1), []

    def ask(*_, **__):
        refused.append(answer_fails(relay))
    answer, relay.sh = relay.sh, ask
    frame = unsummed(craft.broadcast(craft.message("DISCOVER", mac=host.mac, xid=0), host.mac))
    with Flood(host, frame, rate=20000, random=[(XID_AT, 4)]):
        wait_for(lambda: answer_fails(relay), 30, "end of the memory")
    trouble.during(SPAN, show=("show tech-support",))
    relay.sh = answer
    trouble.check(note=f"{sum(refused)} of {len(refused)} commands found no memory")
    assert any(refused), "there was memory: this test shows nothing"
    assert relay.pid == process and relay.alive


# Locks whatever it may open below a folder, tells how much that was, and keeps it until it is ended.
LOCKER = """
import fcntl, os, sys
held = []
for folder, folders, files in os.walk(sys.argv[1]):
    for path in [folder, *(os.path.join(folder, name) for name in files)]:
        try:
            held.append(os.open(path, os.O_RDONLY | os.O_NONBLOCK))
            fcntl.flock(held[-1], fcntl.LOCK_EX | fcntl.LOCK_NB)
        except OSError:
            continue
print(len(held), flush=True)
sys.stdin.read()
"""


def test_a_local_user_locks_what_he_can(lab, relay):
    """The relay ends and starts beside somebody who holds every lock that he can get."""
    trouble = Trouble("a local user locks the relay's folders, and it starts again", lab, relay)
    trouble.before(SPAN)
    for folder in (relay.folder, *relay.folder.parents):
        if folder.stat().st_mode & 0o5 != 0o5:
            folder.chmod(0o755)
        if folder == lab.folder:
            break
    user = ["setpriv", "--reuid", "daemon", "--regid", "daemon", "--clear-groups", "--pdeathsig", "KILL"]
    with subprocess.Popen([*user, sys.executable, "-c", LOCKER, relay.folder], stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE, text=True) as locker:
        locked = int(locker.stdout.readline())
        assert locked > 0, "nothing could be locked: this test shows nothing"
        relay.restart()
        trouble.during(SPAN)
        assert locker.poll() is None
        locker.stdin.close()
    trouble.check(note=f"{locked} locks")
    assert os.path.exists(relay.folder / "state")
