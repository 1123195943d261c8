# SPDX-License-Identifier: Apache-2.0
"""What the rows of trouble share: a good client that asks for a lease beside the trouble, and the trouble's tools.

    trouble = Trouble("one port sends DISCOVERs with random transaction ids", lab, relay)
    trouble.before()                          # the good client's waits while nothing is wrong
    with Flood(lab.client(1), frame, random=[(XID_AT, 4)]) as flood:
        trouble.during()                      # and while something is
    trouble.check(cpu=25)

The good client is another machine than the trouble's, on a VLAN of its own with a server of its own. It asks once and
never again: a message lost on the way is a lease that failed. `check` holds the row against the targets and notes it
for the table that is printed at the end of the run (`report`); `make trouble` runs all rows for longer, with the
targets as they are meant, and draws the waits.

In `make test` spans are short, the good client asks more often and the limits for times are wide: the machine may have
much else to do. What does not depend on that is the same in both: every lease is had at the first try.
"""

import contextlib
import dataclasses
import json
import os
import signal
import statistics
import subprocess
import time
from pathlib import Path

from ravolab.process import PATIENCE, LabError, Process, wait_for
from ravolab.relay import BUILD

FULL = os.environ.get("RAVO_TROUBLE") == "full"
SECONDS = 30 if FULL else 2  # of a span
EVERY_MS = 1000 if FULL else 50  # between two tries of the good client
PATIENCE_MS = 900 if FULL else 1000 * PATIENCE  # then a try has failed
TICKS = os.sysconf("SC_CLK_TCK")

# Offsets in a frame, for Flood's random bytes.
SOURCE_MAC_AT, XID_AT, CHADDR_AT = 6, 42 + 4, 42 + 28


@dataclasses.dataclass(frozen=True)
class Limits:
    """What a row must keep to, beside one lease for each try. Milliseconds; the waits beyond those without trouble."""

    median: float = 1 if FULL else 15
    p99: float = 10 if FULL else 300
    show: float = 100 if FULL else 3000
    cpu_scale: float = 1 if FULL else 1.6  # of the limit that a row names itself


@dataclasses.dataclass(frozen=True)
class Figures:
    """The good client's tries within a span."""

    waits: tuple  # (seconds of the monotonic clock, milliseconds or None)

    @property
    def tries(self):
        return len(self.waits)

    @property
    def first(self):
        return sum(wait is not None for _, wait in self.waits)

    @property
    def _answered(self):
        return sorted(wait for _, wait in self.waits if wait is not None)

    @property
    def median(self):
        return statistics.median(self._answered) if self.first else float("inf")

    @property
    def p99(self):
        """The wait that 99 of 100 answered tries keep below; of fewer tries the longest."""
        found = self._answered
        return found[min(len(found) - 1, int(len(found) * 0.99))] if found else float("inf")


@dataclasses.dataclass
class Row:
    name: str
    before: Figures
    during: Figures
    span: float  # seconds of trouble
    cpu: float  # percent of a core that the relay used during the trouble
    show: float | None  # milliseconds of the slowest command during the trouble
    note: str = ""


ROWS = []


class GoodClient:
    """The good client of the host on a port, served by a server host's address. Stopped by `stop`, which tells all."""

    def __init__(self, lab, port=3, server=2, every=None, patience=None):
        host, there = lab.client(port), lab.server_host(server)
        self._process = Process(host.namespace, [
            BUILD / "tests/good_client", host.namespace.path, host.device, host.mac, there.namespace.path,
            there.address, int(every or EVERY_MS), int(patience or PATIENCE_MS)], lab.fresh_folder("good-client") / "log")
        lab.keep(self._process)
        wait_for(lambda: "asking" in self._process.log or not self._process.alive, 30, "start of the good client")
        if not self._process.alive:
            raise LabError(f"the good client failed: {self._process.log}")

    def stop(self):
        """Every try so far: [(seconds of the monotonic clock, milliseconds or None)]."""
        if self._process.stop() != 0:
            raise LabError(f"the good client failed: {self._process.log}")
        return [tuple(one) for one in json.loads(self._process.log.splitlines()[-1])]


class ManyClients:
    """Many clients of the hosts on some ports, by turns, who ask again like clients do: tests/lab/trouble/many_clients.cpp.

    again: milliseconds until a client asks again, at first 4 s (RFC 2131 section 4.1); new: each lease is that of a machine that nobody saw before.
    """

    def __init__(self, lab, *, ports=(3,), server=2, clients=200, rate=100, again=4000, new=False):
        there = lab.server_host(server)
        self._process = Process(there.namespace, [
            BUILD / "tests/many_clients", there.namespace.path, there.address, clients, rate, int(again), "new" if new else "same",
            *(f"{lab.client(port).namespace.path}:{lab.client(port).device}" for port in ports)],
            lab.fresh_folder("many-clients") / "log")
        lab.keep(self._process)
        wait_for(lambda: "asking" in self._process.log or not self._process.alive, 30, "start of many clients")
        if not self._process.alive:
            raise LabError(f"the clients failed: {self._process.log}")

    def stop(self):
        """What they report: a dictionary as many_clients.cpp says."""
        if self._process.stop() != 0:
            raise LabError(f"the clients failed: {self._process.log}")
        return json.loads(self._process.log.splitlines()[-1])


class Flood:
    """Sends one frame from a host, as fast as one core sends or `rate` times a second, while a block runs.

    random: (offset, length) of bytes that differ in every frame. The frame's UDP checksum must be 0 then (see
    `unsummed`). `sent` and `rate` tell afterwards how many went out, `per_core` how many in a second of a processor: what
    one core sends when it has nothing else to do.
    """

    def __init__(self, host, frame, *, rate=0, random=(), device=None):
        self.host, self.frame, self.device = host, frame, device or host.device
        self._words = [f"{offset}:{length}" for offset, length in random]
        self._wanted = rate
        self.sent = self.rate = self.per_core = None

    def __enter__(self):
        words = [BUILD / "tests/flood", self.host.namespace.path, self.device, self._wanted, 0, *self._words]
        self._popen = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", *map(str, words)], stdin=subprocess.PIPE,
                                       stdout=subprocess.PIPE, start_new_session=True)
        with contextlib.suppress(BrokenPipeError):
            self._popen.stdin.write(self.frame)
            self._popen.stdin.close()
        if self._popen.stdout.readline() != b"sending\n":
            raise LabError(f"the flood of {self.host} ended with status {self._popen.wait()}")
        return self

    def __exit__(self, *_):
        self._popen.send_signal(signal.SIGTERM)
        told = self._popen.stdout.read()
        self._popen.wait()
        with contextlib.suppress(ValueError):
            found = json.loads(told)
            self.sent, self.rate = found["sent"], found["sent"] / found["seconds"]
            self.per_core = found["sent"] / found["processor"]


def unsummed(frame):
    """The frame, of an untagged message without IP options, without a UDP checksum."""
    return frame[:40] + b"\0\0" + frame[42:]


def cpu_seconds(pid):
    fields = Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / TICKS


class Trouble:
    """One row: the good client before a trouble and during it."""

    def __init__(self, name, lab, relay, *, port=3, server=2, every=None):
        self.name, self.relay = name, relay
        self._good = GoodClient(lab, port, server, every)
        self._before = self._during = None
        self._cpu = 0.0
        self._shows = []

    def before(self, seconds=SECONDS):
        begin = time.monotonic()
        time.sleep(seconds)
        self._before = (begin, time.monotonic())

    def during(self, seconds=SECONDS, show=("show version",)):
        """The span of the trouble. show: a command whose answer is waited for all the while, again and again; none:
        nobody looks."""
        begin, used = time.monotonic(), cpu_seconds(self.relay.pid)
        while time.monotonic() < begin + seconds:
            if show:
                asked = time.monotonic()
                self.relay.sh(*show, timeout=60)
                self._shows.append((time.monotonic() - asked) * 1000)
            time.sleep(0.2)
        end = time.monotonic()
        self._during = (begin, end)
        self._cpu = 100 * (cpu_seconds(self.relay.pid) - used) / (end - begin)

    def finish(self, note=""):
        """End the good client and note the row, without judging it."""
        tries = self._good.stop()

        def within(span):
            return Figures(tuple(one for one in tries if span[0] <= one[0] < span[1]))
        row = Row(self.name, within(self._before), within(self._during), self._during[1] - self._during[0], self._cpu,
                  max(self._shows, default=None), note)
        ROWS.append(row)
        return row

    def check(self, *, cpu=None, note="", limits=Limits()):
        """Note the row and hold it against the limits. cpu: percent of a core that the relay may use."""
        row = self.finish(note)
        assert row.before.first == row.before.tries > 0, f"leases failed before any trouble: {line_of(row)}"
        assert row.during.first == row.during.tries > 0, f"leases failed: {line_of(row)}"
        assert row.during.median <= row.before.median + limits.median, f"the median wait: {line_of(row)}"
        assert row.during.p99 <= row.before.p99 + limits.p99, f"the longest waits: {line_of(row)}"
        assert row.show is None or row.show <= limits.show, f"a command's wait: {line_of(row)}"
        assert cpu is None or row.cpu <= cpu * limits.cpu_scale, f"the processor's time: {line_of(row)}"
        return row


# ---- The table ----

HEAD = ("trouble", "leases", "median ms", "p99 ms", "show ms", "CPU %", "note")


def cells(row):
    return (row.name, f"{row.during.first} of {row.during.tries}", f"{row.before.median:.2f} > {row.during.median:.2f}",
            f"{row.before.p99:.2f} > {row.during.p99:.2f}", "-" if row.show is None else f"{row.show:.0f}",
            f"{row.cpu:.0f}", row.note)


def line_of(row):
    return ", ".join(f"{head} {cell}" for head, cell in zip(HEAD, cells(row)) if cell)


def report(write):
    """Print the table of all rows noted in this run; with RAVO_TROUBLE_RESULTS, store them there too, as JSON: a list
    of rows, each with the members of Row; the tries of a span are [seconds of a clock, milliseconds or null]."""
    if not ROWS:
        return
    table = [HEAD, *map(cells, ROWS)]
    widths = [max(len(line[column]) for line in table) for column in range(len(HEAD))]
    write("")
    for line in table:
        write("  ".join(cell.ljust(width) for cell, width in zip(line, widths)).rstrip())
    write("leases: had at the first try; median, p99: waits before > during the trouble; show: the slowest command")
    if path := os.environ.get("RAVO_TROUBLE_RESULTS"):
        Path(path).write_text(json.dumps([dataclasses.asdict(row) for row in ROWS], indent=1) + "\n")
