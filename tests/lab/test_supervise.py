# SPDX-License-Identifier: Apache-2.0
"""A daemon that starts its successor itself (--supervise), and what an attack costs others then.

SOAK_SECONDS: how long the attack lasts, 2 s without it.
"""

import os
import re
import signal
import subprocess
import sys
import threading
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent / "trouble"))

from ravolab.process import wait_for  # noqa: E402
from ravolab.relay import BUILD, USER  # noqa: E402
from test_black_box import CONFIGURATION, UNGUARDED, attack, crashes  # noqa: E402
from troubles import GoodClient  # noqa: E402

SUPERVISE = ["--supervise"]


def children(pid):
    return [int(word) for word in Path(f"/proc/{pid}/task/{pid}/children").read_text().split()]


def daemon_of(relay, other_than=None):
    """The daemon under a supervisor, once there is one that answers."""
    def found():
        pids = children(relay.pid)
        return pids[0] if pids and pids[0] != other_than else None

    pid = wait_for(found, 30, "daemon under the supervisor")
    wait_for(lambda: relay.run("show version").returncode == 0, 30, "answer of the daemon")
    return pid


def status_of(pid):
    return dict(re.findall(r"^(\w+):\s*(.*)$", Path(f"/proc/{pid}/status").read_text(), re.M))


def test_supervised_daemon_lives_again_and_is_as_confined(bare_lab):
    relay = bare_lab.start_relay(options=SUPERVISE)
    first = daemon_of(relay)
    rights = status_of(first)
    assert rights["Uid"].split()[0] == subprocess.run(["id", "-u", USER], text=True, capture_output=True).stdout.strip()
    assert (rights["NoNewPrivs"], rights["Seccomp"]) == ("1", "2")
    os.kill(first, signal.SIGKILL)
    second = daemon_of(relay, other_than=first)
    assert status_of(second)["CapEff"] == rights["CapEff"] and status_of(second)["Seccomp"] == "2"
    assert children(relay.pid) == [second], "nobody is left behind"
    assert len(re.findall(r"^ravod: ended with SIGKILL after \d+ ms, started again$", relay.log, re.M)) == 1
    relay.process.send_signal(signal.SIGHUP)
    relay.wait_log("ravod: switch description read again: 0 ports, 0 interfaces\n")
    assert relay.stop() == 0
    assert not Path(f"/proc/{second}").exists() and not relay.socket.exists()


def test_supervisor_that_is_killed_takes_the_daemon_along(bare_lab):
    relay = bare_lab.start_relay(options=SUPERVISE)
    daemon = daemon_of(relay)
    relay.process.kill()
    wait_for(lambda: not Path(f"/proc/{daemon}").exists(), 30, "end of the daemon")


def test_start_that_fails_is_not_tried_again(bare_lab, tmp_path):
    faulty = tmp_path / "switch.toml"
    faulty.write_text("[channel\n")
    result = subprocess.run([BUILD / "ravod", "--supervise", "--user", "root", "--switch", faulty, "--management",
                             tmp_path / "sock"], text=True, capture_output=True, timeout=60)
    assert result.returncode == 1
    assert len(result.stderr.splitlines()) == 1 and str(faulty) in result.stderr


def kept_from_a_lease(tries, end):
    """How long tries that failed kept the client busy, in milliseconds; end: when the last one was over."""
    begins = [begin for begin, _ in tries[1:]] + [end]
    return sum((after - begin) * 1000 for (begin, waited), after in zip(tries, begins) if waited is None)


def test_attack_on_one_port_hardly_keeps_others_from_a_lease(bare_lab, capsys):
    """Ten times a second a port sends what the daemon's own rules let end it, while another asks for leases."""
    seconds = float(os.environ.get("SOAK_SECONDS") or 2)
    attacker = bare_lab.client(1)
    relay = bare_lab.start_relay(
        options=SUPERVISE, switch_toml=UNGUARDED, log_level="warning",
        startup_config=CONFIGURATION.replace("192.0.2.200", bare_lab.server_host(2).address))
    client = GoodClient(bare_lab, every=20, patience=100)
    ended = threading.Event()

    def send():
        while not ended.wait(0.1):
            attack(attacker)

    sender = threading.Thread(target=send)
    sender.start()
    time.sleep(seconds)
    ended.set()
    sender.join()
    tries = client.stop()
    kept = kept_from_a_lease(tries, time.monotonic())
    ends = [crash for crash in crashes(relay) if crash["port"] == "1/1"]
    failed = sum(waited is None for _, waited in tries)
    with capsys.disabled():
        print(f"\nattack of {seconds:g} s: {len(ends)} crashes; another port failed in {failed} of {len(tries)} tries, "
              f"which kept it from a lease for {kept:.0f} ms in all")
    assert ends and len(tries) - failed > 20
    assert kept <= 1000
    assert relay.stop() == 0
