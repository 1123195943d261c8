# SPDX-License-Identifier: Apache-2.0
"""Restarts while many clients ask: what comes meanwhile waits at the sockets that the init system keeps.

Twice; `make soak` does it 20 times, under 1000 clients and 500 leases a second.
"""

import os
import shutil
import signal
import statistics
import sys
import time
from pathlib import Path

import pytest
from ravolab.process import PATIENCE, wait_for
from ravolab.relay import USER
from soaking import LONG, note, pick

sys.path.insert(0, str(Path(__file__).parent / "trouble"))

from test_soak import CONFIGURATION  # noqa: E402
from test_supervise import SUPERVISE, daemon_of  # noqa: E402
from troubles import ManyClients  # noqa: E402

HERE = Path(__file__).parent
RESTARTS, CLIENTS, RATE = pick((2, 200, 100), (20, 1000, 500))
GATE = [f"gate-{part}" for part in ("program", "devices", "ports", "tags", "queue")]
ONE = [*GATE, "packets-5120x512", "udp-67"]  # where the kernel keeps the limits of ports
SEVERAL = [*(f"packets-2048x512-{number}" for number in range(12)), "packets-refused", "udp-67"]  # where it does not
NO_PROGRAMS = ["/usr/bin/setpriv", "--bounding-set=-bpf,-sys_admin"]


class Service:
    """A relay under an init system."""

    def __init__(self, lab, wrapper=()):
        self.folder = lab.fresh_folder("init")
        shutil.chown(self.folder, USER)
        (self.folder / "given").mkdir()
        self.relay = lab.start_relay(log_level="warning", startup_config=CONFIGURATION.format(lab.server_host(2).address),
                                     wrapper=[*wrapper, "/usr/bin/python3", "-B", HERE / "init_system.py", self.folder])

    def starts(self):
        return [int(line) for line in (self.folder / "starts").read_text().splitlines()]

    def stored(self):
        return (self.folder / "stored").read_text().splitlines()

    def restart(self, how):
        """Restart it, in order or by its death, and wait until it is ready: when that began (seconds)."""
        before, began = len(self.starts()), time.monotonic()
        os.kill(*((self.relay.pid, signal.SIGUSR1) if how == "orderly" else (self.starts()[-1], signal.SIGKILL)))
        wait_for(lambda: len(self.starts()) > before, 30, "the next start")
        return began


    def has_stored(self, *wanted):
        wait_for(lambda: (self.folder / "starts").exists() and self.stored() in wanted, 30,
                 lambda: f"stored descriptors, but {self.stored()}")
        return self.stored()


@pytest.fixture
def service(bare_lab, request):
    service = Service(bare_lab, getattr(request, "param", ()))
    yield service
    assert service.relay.stop() == 0


@pytest.mark.parametrize("service, how", [((), "orderly"), ((), "killed"), (NO_PROGRAMS, "orderly")], indirect=["service"],
                         ids=["orderly", "killed", "without-programs"])
def test_nobody_has_to_ask_again(bare_lab, service, how, request):
    kept = service.has_stored(*([ONE, SEVERAL] if "without" not in request.node.name else [SEVERAL]))
    clients = ManyClients(bare_lab, ports=(3, 4), clients=CLIENTS, rate=RATE, again=4000 * PATIENCE)
    time.sleep(CLIENTS / RATE if LONG else 0.3)
    moments = []
    for _ in range(RESTARTS):
        moments.append(service.restart(how))
        time.sleep(2 if LONG else 0.5)
    found = clients.stop()
    gaps = [max((time for began, time in found["gaps"] if moment - 0.05 < began < moment + 1), default=0) for moment in moments]
    sockets = len([name for name in kept if name.startswith("packets")])
    note(f"{RESTARTS} restarts, {how}, with {sockets} packet sockets, under {CLIENTS} clients and {RATE} leases a second",
         f"{len(found['again'])} of {found['leases']} leases needed a message again; nobody heard anything for "
         f"{statistics.median(gaps):.0f} ms (median), {max(gaps):.0f} ms (worst)")
    assert found["leases"] > RATE * len(moments) / 4 and found["unfinished"] == 0
    # The message in hand dies with the daemon: it may have been what killed it.
    assert len(found["again"]) <= (0 if how == "orderly" else len(moments))
    assert service.stored() == kept
    assert not any(gap == 0 for gap in gaps), "something was restarted"


def test_supervisor_keeps_what_comes_meanwhile(bare_lab):
    relay = bare_lab.start_relay(options=SUPERVISE, log_level="warning",
                                 startup_config=CONFIGURATION.format(bare_lab.server_host(2).address))
    daemon = daemon_of(relay)
    clients = ManyClients(bare_lab, ports=(3, 4), clients=CLIENTS, rate=RATE, again=4000 * PATIENCE)
    time.sleep(CLIENTS / RATE if LONG else 0.3)
    for _ in range(RESTARTS):
        os.kill(daemon, signal.SIGKILL)
        daemon = daemon_of(relay, other_than=daemon)
        time.sleep(2 if LONG else 0.2)
    found = clients.stop()
    gaps = [ms for _, ms in found["gaps"]]
    note(f"{RESTARTS} times killed under --supervise, {CLIENTS} clients and {RATE} leases a second",
         f"{len(found['again'])} of {found['leases']} leases needed a message again; nobody heard anything for "
         f"{max(gaps, default=0):.0f} ms at most")
    assert found["leases"] > 0 and found["unfinished"] == 0
    assert len(found["again"]) <= RESTARTS, "the message in hand may die with the daemon, and no other"
    assert relay.stop() == 0


def test_what_is_given_is_looked_at(service):
    kept = service.has_stored(ONE, SEVERAL)
    for name in ("strange", "udp-67"):  # the second one is kept already: nobody knows which is which
        (service.folder / "given" / name).touch()
    service.restart("orderly")
    for name in ("strange", "udp-67"):
        (service.folder / "given" / name).unlink()
        service.relay.wait_log(f'ravod: it was given a descriptor "{name}" that it does not use; it is closed\n')
    service.relay.sh("configure terminal", "no ip dhcp relay")
    service.has_stored([])
    for name in kept[:-1]:
        (service.folder / "given" / name).touch()
    service.restart("killed")
    service.relay.wait_log("the packet socket of the daemon before is closed: it is another kind of descriptor\n")
    service.has_stored(kept)
