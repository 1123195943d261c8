# SPDX-License-Identifier: Apache-2.0
"""What a port may send, kept by the kernel or, where that refuses, by the relay: same counts, same words."""

import contextlib
import json
import re
import shutil
import signal
import socket
import subprocess
import threading

import pytest
from conftest import open_lab
from ravolab.relay import BUILD, USER
from scripted import Stage

WITHOUT_PROGRAMS = ["setpriv", "--bounding-set=-bpf,-sys_admin,-perfmon"]
LIMITED = "[limit]\nport = 1\nburst = 3\n"


@pytest.fixture(scope="module")
def lab():
    yield from open_lab(name="limits", servers=1)


@contextlib.contextmanager
def lender(path):
    """Who lends the kernel's part at this socket, as an init system starts it: for each asker one, at standard input."""
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    listener.bind(str(path))
    shutil.chown(path, USER)
    listener.listen()

    def serve():
        while True:
            try:
                asker, _ = listener.accept()
            except OSError:
                return
            with asker:
                subprocess.run([BUILD / "ravod", "--lend-gate"], stdin=asker, check=True, timeout=30)

    thread = threading.Thread(target=serve)
    thread.start()
    try:
        yield
    finally:
        listener.shutdown(socket.SHUT_RDWR)
        thread.join()
        listener.close()


@contextlib.contextmanager
def staged(lab, *, wrapper, gate, refused):
    """A relay with limits; refused: what it says of the kernel's part."""
    relay = lab.start_relay(switch_toml=LIMITED, wrapper=wrapper, options=["--gate", gate])
    stage = Stage(lab, relay)
    stage.configure()
    yield stage
    stage.close()
    status = relay.stop()
    lab.relays.remove(relay)
    assert status == 0, relay.log[-3000:]
    told = re.findall("^.*the kernel refuses the program that limits what ports may send: (.*); the relay holds them to the "
                      "limits itself$", relay.log, re.M)
    assert told == refused
    assert "forbidden system call" not in relay.log


@pytest.fixture(params=["kernel", "lent", "daemon"])
def stage(lab, request):
    """Loaded by the daemon itself, lent to it, or not in the kernel at all."""
    folder = lab.fresh_folder("gate")
    folder.chmod(0o755)
    wrapper = [] if request.param == "kernel" else WITHOUT_PROGRAMS
    with lender(folder / "gate") if request.param == "lent" else contextlib.nullcontext():
        refused = ["Operation not permitted"] if request.param == "daemon" else []
        with staged(lab, wrapper=wrapper, gate=folder / "gate", refused=refused) as stage:
            yield stage


def counts(relay, what=""):
    return json.loads(relay.sh(f"show ip dhcp relay statistics {what}| json"))


def test_beyond_the_burst_messages_are_dropped_and_counted(stage):
    host, other = stage.lab.client(1), stage.lab.client(3)
    sent = [stage.ask(host) for _ in range(5)]
    for message in sent[:3]:
        stage.relayed(message)
    stage.fence(other)
    assert [stage.seen("server1", message.xid) for message in sent[3:]] == [[], []]
    for part in (counts(stage.relay)["total"], counts(stage.relay, "vlan 10 "), counts(stage.relay, "port 1/1 ")):
        assert part["outcomes"]["port-limit"] == 2
        assert sum(part["outcomes"].values()) == part["received"]
    assert counts(stage.relay, "port 1/3 ")["outcomes"]["port-limit"] == 0
    shown = stage.relay.sh("show interfaces brief")
    assert re.search(r"^port 1/1 .* swp1 +(name|kernel index)\n  limit reached: 2 dropped$", shown, re.M)
    assert shown.count("limit reached") == 1
    stage.relay.wait_log(r"port 1/1 \(swp1\) sends more than its limit of messages: 2 dropped")


def test_other_limits_hold_at_once(stage):
    host = stage.lab.client(1)
    for _ in range(3):
        stage.fence(host)
    stage.relay.switch_file.write_text("[limit]\nport = 0\n")
    mark = len(stage.relay.log)
    stage.relay.process.send_signal(signal.SIGHUP)
    stage.relay.wait_log("switch description read again", since=mark)
    for _ in range(10):
        stage.fence(host)
    assert counts(stage.relay)["total"]["outcomes"]["port-limit"] == 0


def test_lent_anew_each_time_relaying_is_switched_on(lab):
    """Nothing is left of the program that was lent before: neither its counts nor its devices."""
    folder = lab.fresh_folder("gate")
    folder.chmod(0o755)
    with lender(folder / "gate"), staged(lab, wrapper=WITHOUT_PROGRAMS, gate=folder / "gate", refused=[]) as stage:
        host = lab.client(1)
        for _ in range(2):
            for _ in range(3):
                stage.relayed(stage.ask(host))
            stage.relay.configure("no ip dhcp relay")
            stage.relay.configure("ip dhcp relay")
        assert counts(stage.relay)["total"]["outcomes"]["port-limit"] == 0


def test_lender_that_is_not_roots_is_not_asked(lab):
    folder = lab.fresh_folder("gate")
    folder.chmod(0o755)
    program = ("import socket, sys; s = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET); s.bind(sys.argv[1]); s.listen(); "
               "print(flush=True); sys.stdin.read()")
    shutil.chown(folder, USER)
    with subprocess.Popen(["setpriv", "--reuid", USER, "/usr/bin/python3", "-c", program, folder / "gate"],
                          stdin=subprocess.PIPE, stdout=subprocess.PIPE) as hostile:
        assert hostile.stdout.readline() == b"\n"
        with staged(lab, wrapper=WITHOUT_PROGRAMS, gate=folder / "gate", refused=[f"{folder}/gate is not root's"]) as stage:
            stage.fence(lab.client(1))
        hostile.stdin.close()
