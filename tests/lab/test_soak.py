# SPDX-License-Identifier: Apache-2.0
"""What a daemon goes through in a year, in short: it is killed, and stands still, while a client asks for leases.

SOAK_KILLS: how often it is killed, twice without it (`make soak`: 200). SOAK_SECONDS: how long it stands still, 0.3 s
without it (`make soak`: 10 s).
"""

import os
import random
import signal
import statistics
import sys
import time
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).parent / "trouble"))

from ravolab.process import PATIENCE  # noqa: E402
from soaking import note  # noqa: E402
from test_supervise import SUPERVISE, daemon_of  # noqa: E402
from troubles import GoodClient  # noqa: E402

CONFIGURATION = "ip dhcp relay\nip dhcp relay information option\ninterface vlan 20\n ip dhcp relay address {}\nexit\n"
KILLS = int(os.environ.get("SOAK_KILLS") or 2)
STANDSTILL = float(os.environ.get("SOAK_SECONDS") or 0.3)


@pytest.fixture
def relay(bare_lab):
    relay = bare_lab.start_relay(options=SUPERVISE, log_level="warning",
                                 startup_config=CONFIGURATION.format(bare_lab.server_host(2).address))
    daemon_of(relay)
    yield relay
    assert relay.stop() == 0


def back_after(tries, moment):
    """Milliseconds from a moment to the first lease that was asked for later; None without one."""
    return next(((begin - moment) * 1000 + waited for begin, waited in tries if begin > moment and waited is not None),
                None)


def test_killed_at_random_moments_it_is_back_and_knows_its_configuration(bare_lab, relay):
    before, daemon, moments = relay.running_config(), daemon_of(relay), []
    client = GoodClient(bare_lab, every=20, patience=40)
    for _ in range(KILLS):
        time.sleep(random.uniform(1.0, 1.4))
        moments.append(time.monotonic())
        os.kill(daemon, signal.SIGKILL)
        daemon = daemon_of(relay, other_than=daemon)
        assert relay.running_config() == before
    time.sleep(1)
    tries = client.stop()
    back = [back_after(tries, moment) for moment in moments]
    assert None not in back
    note(f"{KILLS} times killed at a random moment", f"leases again after {statistics.median(back):.0f} ms (median), {max(back):.0f} ms (worst)")
    assert max(back) < (300 if KILLS > 2 else 3000) * PATIENCE  # in short it only is to come back: others use the machine


def test_restart_in_order_is_short(bare_lab):
    """Stopped and started by hand, while a client asks for a lease every few milliseconds."""
    relay = bare_lab.start_relay(log_level="warning",
                                 startup_config=CONFIGURATION.format(bare_lab.server_host(2).address))
    client = GoodClient(bare_lab, every=5, patience=40)
    time.sleep(0.5)
    relay.restart()
    time.sleep(0.5)
    had = [(begin, begin + waited / 1000) for begin, waited in client.stop() if waited is not None]
    gap = max((later[0] - earlier[1]) * 1000 for earlier, later in zip(had, had[1:]))
    note("stopped and started by hand", f"{gap:.0f} ms from the last lease to the first")
    assert gap < 3000 * PATIENCE  # the machine may have much else to do
    assert relay.stop() == 0


def test_after_a_standstill_it_goes_on(bare_lab, relay):
    daemon = daemon_of(relay)
    os.kill(daemon, signal.SIGSTOP)
    time.sleep(STANDSTILL)
    os.kill(daemon, signal.SIGCONT)
    client = GoodClient(bare_lab, every=20, patience=1000 * PATIENCE)
    time.sleep(0.5)
    tries = client.stop()
    assert tries and all(waited is not None for _, waited in tries)
    assert daemon_of(relay) == daemon
    note(f"stopped for {STANDSTILL:g} s, and continued", f"{len(tries)} leases at the first try")
