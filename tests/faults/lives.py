# SPDX-License-Identifier: Apache-2.0
"""Lives of a daemon in which some system call fails once, and what has to be true of each.

A life ends in one of two ways. Either the daemon does not start: it ends by itself, and standard error says why. Or it
serves: clients get answers, commands do what they say when they are given again, and an orderly end is status 0. The
startup configuration is whole throughout, and no sanitizer has anything to say.
"""

import contextlib
import json
import os
import re
import signal
import socket
import subprocess
import time

from ravolab import craft
from ravolab.process import PATIENCE, LabError, wait_for
from ravolab.relay import USER, Relay

OLD = """ip dhcp relay information option
interface vlan10
 ip dhcp relay address 192.0.2.11
exit
ip dhcp relay
"""
SWITCH = """[limit]
port = 2000
[guard]
relay_fields = true
transactions = true
[[port]]
device = "swp2"
module = 1
port = 2
clients = {}
"""
UNGUARDED = "[guard]\ncore_assertions = true\n"
CRASHING = """ip dhcp relay information option
no ip dhcp relay information check
ip dhcp local-relay
ip dhcp local-relay vlan 10
interface vlan10
 ip dhcp local-relay
exit
interface vlan20
 ip dhcp relay address 192.0.2.12
exit
ip dhcp relay
"""
SHOWN = ("show running-config", "show startup-config", "show tech-support", "show ip dhcp relay statistics | json",
         "show ip dhcp relay client", "show ip dhcp relay server", "show ip dhcp relay advice", "show interfaces brief",
         "show ip dhcp relay crashes", "show users", "show configuration differences", "show configuration history")
ADDED = ("configure terminal", "interface vlan 20", "ip dhcp relay address 192.0.2.12", "end")
# The relay's own rule: without its sockets it cannot go on, and whoever supervises it starts it again.
ENDS_OVER_SOCKETS = re.compile(r"^(socket|bind|setsockopt|close)\(\): \S.*", re.M)
SANITIZER = re.compile(r"ERROR: (?:Address|Leak)Sanitizer.*|runtime error: .*|SUMMARY: .*")


class Wrong(Exception):
    """What a daemon did that it must not do."""


class Told(Exception):
    """The daemon ended by itself, and said why."""


class Life:
    """One daemon with a fault in it, in a lab with two client ports and two server hosts."""

    def __init__(self, lab, stage, build, table, library, options=(), wrapper=()):
        self.lab, self.stage, self.table = lab, stage, table
        words = [*wrapper, "env", f"LD_PRELOAD={library}", f"RAVO_FAULT_TABLE={table.path}",
                 "ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=0:handle_abort=0"]
        self.relay = Relay(lab, build=build, log_level="warning", startup_config=OLD, switch_toml=SWITCH.format(5),
                           options=options, wrapper=words, env=self._notify())
        self.relay.options = [str(word).replace("FOLDER", str(self.relay.folder)) for word in options]
        self.log_file = self.relay.folder / "logged"  # where one of the lives logs to
        self.remarks = []  # of commands that failed once
        self.wanted = None  # the configuration of now

    def _notify(self):
        """An init system that listens, and wants to hear of the daemon."""
        self.init = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        name = f"\0ravo-faults-{os.getpid()}-{id(self)}"
        self.init.bind(name)
        self.init.setblocking(False)
        return {"NOTIFY_SOCKET": "@" + name[1:], "WATCHDOG_USEC": "2000000"}

    @property
    def log(self):
        return self.relay.log + (self.log_file.read_text() if self.log_file.exists() else "")

    # What may be asked of it

    def start(self):
        try:
            self.relay.start(timeout=20)
        except LabError as failed:
            self._judge_refusal(str(failed))

    def _judge_refusal(self, failed):
        status = self.relay.process.status
        if status is None:
            raise Wrong(f"does not answer: {failed}")
        lines = self.relay.log.strip().splitlines()
        if status <= 0 or status > 127:
            raise Wrong(f"ended at start with status {status}: {self.relay.log[-1500:]}")
        if not lines or not re.search(r": \S|" + re.escape(os.strerror(self.table.error)), lines[-1]):
            raise Wrong(f"ended at start with status {status} and without a reason: {lines[-3:]}")
        raise Told("not started: " + lines[-1])

    def _judge_end(self):
        """Whoever is not there any more has said why, and only when it lost a socket."""
        with contextlib.suppress(LabError):
            self.relay.process.wait(1)
        ends = ENDS_OVER_SOCKETS.search(self.relay.log)
        if self.relay.process.status == 1 and ends:
            raise Told("ended: " + ends[0])

    def lease(self, port=1):
        """A client asks, again when nobody answers, as clients do."""
        host = self.lab.client(port)
        server = "server1" if host.vlan == 10 else "server2"
        for _ in range(4):
            sent = self.stage.ask(host)
            with contextlib.suppress(LabError):
                request = self.stage.at[server].wait_dhcp(xid=sent.xid, timeout=0.7)
                answer = self.stage.answer(request, server=int(server[-1]))
                self.stage.at[host.name].wait(lambda packet, xid=answer.xid: not packet.outgoing and packet.dhcp
                                              is not None and packet.dhcp.op == 2 and packet.dhcp.xid == xid, 0.7)
                return
        raise Wrong(f"no answer for the client of port {port}; the log: {self.log[-1500:]}")

    def command(self, *words):
        """Commands in one session; again in another when it failed, and then they must be done."""
        for again in (False, True):
            try:
                done = self.relay.run(*words, timeout=15)
            except subprocess.TimeoutExpired:
                raise Wrong(f"{words[-1]!r} does not come back") from None
            if done.returncode == 0:
                return done.stdout
            said = (done.stderr + done.stdout).strip()
            self._judge_end()
            if again or not said:
                raise Wrong(f"{words} fails{' again' * again}, status {done.returncode}: {said[-500:] or 'no word'}")
            self.remarks.append(said.splitlines()[-1])
        return None

    def wait_crashes(self, number):
        """The daemon is back after a crash, and knows of as many."""
        def known():
            done = self.relay.run("show ip dhcp relay crashes | json", timeout=15)
            return done.returncode == 0 and len(json.loads(done.stdout)["crashes"]) == number
        try:
            wait_for(known, 15, "daemon back")
        except LabError:
            raise Wrong(f"not back after crash {number}, or without a word of it: {self.log[-1500:]}") from None

    def reload(self, description=SWITCH.format(6)):
        """The switch description read again; a failure is reported and tried again, as an operator would."""
        self.relay.switch_file.write_text(description)
        for again in (False, True):
            mark = len(self.log)
            self.relay.process.send_signal(signal.SIGHUP)

            def told(mark=mark):
                return re.search(r"switch description read again|^.*description in use stays.*$", self.log[mark:], re.M)
            try:
                found = wait_for(told, 5, "word of the switch description")[0]
            except LabError:
                found = "the signal was lost"
            if found == "switch description read again":
                return
            if again:
                raise Wrong(f"does not read its switch description any more: {found}")
            self.remarks.append(found)

    def capture(self):
        """A capture of one lease, ended by whoever asked for it."""
        file = self.relay.folder / "state" / "capture.pcapng"

        def begun():
            return file.exists() and file.stat().st_size > 40 and file.stat().st_mtime_ns != before
        for again in (False, True):
            before = file.stat().st_mtime_ns if file.exists() else 0
            asked = subprocess.Popen([self.relay.build / "ravosh", "--management", self.relay.socket, "-c",
                                      f"monitor ip dhcp relay pcap {file} size 1"], stdin=subprocess.DEVNULL,
                                     stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
            wait_for(lambda asked=asked: asked.poll() is not None or begun(), 15, "beginning of a capture")
            if asked.poll() is None:
                self.lease()
                asked.send_signal(signal.SIGINT)
            said = asked.communicate(timeout=15 * PATIENCE)[0]
            if file.exists() and file.stat().st_size > 300:
                break
            if not said.strip() or (again and "stands in no folder for captures" not in said):
                raise Wrong(f"no capture, and it said {said!r}")
            self.remarks.append(said.strip().splitlines()[-1])
            file.unlink(missing_ok=True)

    def check_saved(self):
        """The startup configuration is what it was, or what is wanted now."""
        text = self.relay.startup_file.read_text()
        if text != OLD and text != self.wanted:
            raise Wrong(f"the startup configuration is neither the old one nor the new one:\n{text}")
        return text != OLD

    def stop(self):
        try:
            status = self.relay.process.stop(timeout=15)
        except subprocess.TimeoutExpired:
            status = "none"
        if status != 0:
            raise Wrong(f"stopped with status {status}: {self.log[-1500:]}")

    def end(self):
        """Nothing of it is left; what a sanitizer had to say of it."""
        self.init.close()
        if self.relay.process is None:
            return None
        self.relay.process.kill()
        found = SANITIZER.search(self.relay.log)
        return found and found[0]


def ordinary(life):
    """Started with what was saved, configured, looked at, changed around, and stopped."""
    life.start()
    life.lease()
    life.table.set_phase(1)
    life.lease()
    life.command(*ADDED)
    life.lease(3)
    life.wanted = life.command("show running-config")
    life.command("write memory")
    if not life.check_saved():
        raise Wrong("\"write memory\" was done, and the startup configuration is the old one")
    life.command(*SHOWN)
    life.capture()
    life.reload()
    life.capture()
    life.lab.switch.ip("link add vlan77 type bridge", "link set vlan77 up", "link del vlan77")
    life.command("configure terminal", "ip dhcp relay hops 7", "end", "configure replace startup-config confirm 5",
                 "configure confirm")
    life.command(f"configure replace {life.relay.startup_file}")
    life.command("configure terminal", "no ip dhcp relay", "ip dhcp relay", "end")
    life.command("copy ports switch-description")
    life.lease()
    life.lease(3)
    if life.command("show running-config") != life.wanted:
        raise Wrong("the configuration is another one: " + life.command("show running-config"))
    life.stop()
    life.check_saved()


def attacked(life):
    """Ended by a message, and started again by its supervisor; the message's port is held, others are served."""
    life.relay.switch_file.write_text(UNGUARDED)
    life.relay.startup_file.write_text(CRASHING)
    life.start()
    life.lease(3)
    life.table.set_phase(1)
    for number in (1, 2):
        attacker = life.lab.client(number)
        attacker.send(craft.broadcast(craft.message("OFFER", op=2, mac=attacker.mac, xid=0x6C6C), attacker.mac, sport=67))
        life.wait_crashes(number)
    life.lease(3)
    life.command("show ip dhcp relay crashes", "clear ip dhcp relay crashes")
    life.command("write erase")
    life.reload(UNGUARDED)
    life.stop()
    if life.relay.startup_file.exists() and life.relay.startup_file.read_text() != CRASHING:
        raise Wrong("the startup configuration is neither there nor gone")
    life.relay.startup_file.write_text(OLD)


def checked(life):
    """Files are checked beside, without a daemon."""
    words = [*life.relay.wrapper, life.relay.build / "ravod", "--check", "--switch", life.relay.switch_file,
             "--startup-config", life.relay.startup_file, "--user", USER]
    done = subprocess.run(["nsenter", f"--net={life.lab.switch.path}", *map(str, words)], text=True, capture_output=True,
                          timeout=30 * PATIENCE)
    said = done.stdout + done.stderr
    if SANITIZER.search(said) or done.returncode not in (0, 1) or (done.returncode == 1) != bool(said.strip()):
        raise Wrong(f"status {done.returncode}: {said[-1500:] or 'no word'}")
    if said.strip():
        life.remarks.append(said.strip().splitlines()[-1])


# As on a machine that lets nobody load programs into the kernel: limits are kept in the daemon.
UNGATED = ("setpriv", "--bounding-set", "-bpf,-sys_admin", "--inh-caps", "-bpf,-sys_admin")

# What each one does, the options of ravod for it and the words before it. A place is made to fail in the first life that
# comes by.
LIVES = {"ordinary": (ordinary, (), ()), "ungated": (ordinary, ("--gate", "/none"), UNGATED),
         "attacked": (attacked, ("--supervise",), ()), "logged": (ordinary, ("--log-to", "FOLDER/logged"), ()),
         "checked": (checked, (), ())}


def live(life, course):
    """Lead a life; how it went: (whether all is well, a line)."""
    begun = time.monotonic()
    try:
        course(life)
        well, text = True, "; ".join(life.remarks) or "served"
    except Told as told:
        well, text = True, str(told)
    except (Wrong, LabError, subprocess.TimeoutExpired) as wrong:
        well, text = False, str(wrong)
    finally:
        found = life.end()
    if course is ordinary and life.wanted is None and life.relay.startup_file.read_text() != OLD:
        well, text = False, "the startup configuration was changed"
    if found:
        well, text = False, f"{found}; {text}"
    return well, text, time.monotonic() - begun
