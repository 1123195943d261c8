# SPDX-License-Identifier: Apache-2.0
"""What a port may send, kept by the kernel or, where that refuses, by the relay: same counts, same words."""

import json
import re
import signal

import pytest
from conftest import open_lab
from scripted import Stage

WITHOUT_PROGRAMS = ["setpriv", "--bounding-set=-bpf,-sys_admin,-perfmon"]
LIMITED = "[limit]\nport = 1\nburst = 3\n"


@pytest.fixture(scope="module")
def lab():
    yield from open_lab(name="limits", servers=1)


@pytest.fixture(params=["kernel", "daemon"])
def stage(lab, request):
    relay = lab.start_relay(switch_toml=LIMITED, wrapper=[] if request.param == "kernel" else WITHOUT_PROGRAMS)
    stage = Stage(lab, relay)
    stage.configure()
    yield stage
    stage.close()
    status = relay.stop()
    lab.relays.remove(relay)
    assert status == 0, relay.log[-3000:]
    told = re.findall("^the kernel refuses the program.*$", relay.log, re.M)
    assert len(told) == (request.param == "daemon")


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
    assert re.search(r"^port 1/1 .* swp1 +(name|kernel index)  limit reached: 2 dropped$", shown, re.M)
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
