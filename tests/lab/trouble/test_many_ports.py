# SPDX-License-Identifier: Apache-2.0
"""More ports than a process may have descriptors: the relay starts, has them all, relays and serves others as before."""

import json
import re
from pathlib import Path

import pytest
from conftest import open_lab
from scripted import Stage
from troubles import FULL, SECONDS, Trouble

DESCRIPTORS = 1024
PORTS = 1100  # a bridge has room for 1023 members, so two have them
CONFIGURATION = """ip dhcp relay
interface vlan20
 ip dhcp relay address 192.0.2.12
"""
SPAN = SECONDS if FULL else 1


@pytest.fixture
def lab():
    yield from open_lab(name="trouble-ports", servers=2)


def add_ports(lab):
    lab.switch.ip(*(f"link add vlan{vlan} up type bridge stp_state 0 forward_delay 0" for vlan in (101, 102)),
                  # Cables between the bridges, which stay down: up they would be a ring.
                  *(f"link add p{port} type veth peer name p{port + 1}" for port in range(0, PORTS, 2)),
                  *(f"link set p{port} master vlan{101 + port % 2}" for port in range(PORTS)))


def test_more_ports_than_descriptors(lab):
    few = ["prlimit", f"--nofile={DESCRIPTORS}:{DESCRIPTORS}"]
    relay = lab.start_relay(wrapper=few, startup_config=CONFIGURATION)
    trouble = Trouble(f"{PORTS} ports, {DESCRIPTORS} descriptors", lab, relay)
    trouble.before(SPAN)
    add_ports(lab)
    relay.restart()
    stage = Stage(lab, relay)
    try:
        trouble.during(SPAN)
        trouble.check(cpu=25)
        stage.configure()
        told = re.search(r"^Max open files +(\d+) +(\d+)", Path(f"/proc/{relay.process.pid}/limits").read_text(), re.M)
        assert told.groups() == (str(DESCRIPTORS), str(DESCRIPTORS))
        rows = json.loads(relay.sh("show interfaces brief | json"))["interfaces"]
        ports = {row["device"] for row in rows if row["kind"] == "port"}
        assert ports >= {f"p{port}" for port in range(PORTS)}
        host = lab.client(1)
        stage.check_relayed(stage.ask(host), host)
        assert len(relay.descriptors()) < 100
    finally:
        stage.close()
        assert relay.stop() == 0, relay.log[-3000:]
        lab.relays.remove(relay)
