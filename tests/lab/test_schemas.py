# SPDX-License-Identifier: Apache-2.0
"""Every document of "| json" is what its schema in docs/schema says, with rows of data in it, and the schema bites."""

import json

import pytest

import managed
from documents import SCHEMAS, judge, validator
from ravolab import Kea, Udhcpc
from ravolab.craft import broadcast, message
from ravolab.process import Process, wait_for

MAC = "02:00:00:00:00:01"

# The command of each document. Those of the configuration mode are shown from everywhere too.
COMMANDS = {
    "relay": "show ip dhcp relay", "relay-detail": "show ip dhcp relay detail",
    "trusted-sources": "show ip dhcp relay information trusted-sources", "options": "show ip dhcp relay option",
    "transactions": "show ip dhcp relay xid-port-mapping", "statistics": "show ip dhcp relay statistics",
    "statistics-vlan": "show ip dhcp relay statistics vlan 10",
    "statistics-port": "show ip dhcp relay statistics port 1/1", "clients": "show ip dhcp relay client",
    "client": f"show ip dhcp relay client {MAC}", "servers": "show ip dhcp relay server",
    "advice": "show ip dhcp relay advice", "interfaces": "show interfaces brief",
    "ip-interfaces": "show ip interface brief", "running-config": "show running-config", "version": "show version",
    "service": "show service status", "logging": "show logging", "history": "show configuration history",
    "differences": "show configuration differences", "users": "show users",
}


@pytest.fixture(scope="module")
def stage(servers_lab):
    """A switch on which everything was used once, so that no list is empty."""
    lab = servers_lab
    relay = lab.start_relay()
    kea = next(server for server in lab.servers if isinstance(server, Kea))
    relay.configure(
        "ip dhcp relay information option", "interface vlan 10",
        f"ip dhcp relay address {kea.address}", "ip dhcp relay information trusted",
        'ip dhcp relay option60 string "phone" exact-match address 192.0.2.12',
        "ip dhcp relay option61 hex 0x0102 address 192.0.2.13", "interface vlan 20",
        "ip dhcp relay address 192.0.2.99", "exit", "ip dhcp local-relay vlan 30", "ip dhcp relay")
    relay.sh("write memory")
    relay.sh("write memory")
    relay.configure("ip dhcp relay hops 7")
    lab.client(1).run(Udhcpc)
    alone = lab.client(3)  # its server is not there
    alone.send(broadcast(message("DISCOVER", mac=alone.mac, xid=7), alone.mac))
    wait_for(lambda: len(tell(relay, "clients")["clients"]) >= 2, 30, "both clients in the recorder")
    yield relay
    assert relay.stop() == 0
    lab.relays.remove(relay)


def tell(relay, name):
    return json.loads(relay.sh(f"{COMMANDS[name]} | json"))


@pytest.mark.parametrize("name", COMMANDS)
def test_a_document_is_what_its_schema_says(stage, name):
    document = tell(stage, name)
    if name == "client":  # all of them are good; requests have more in them to be spoiled
        assert validator(name).is_valid(document)
        document["messages"] = [each for each in document["messages"] if each["op"] == "request"]
    judge(name, document)


def test_each_message_of_the_monitor_is_a_document_in_one_line(lab, stage):
    words = [stage.build / "ravosh", "--management", stage.socket, "-c",
             "monitor ip dhcp relay mac 02:00:00:00:00:01 | json"]
    monitor = Process(stage.namespace, words, stage.folder / "monitor")
    try:
        with managed.Session(stage.socket) as session:
            host, xid = lab.client(1), iter(range(100, 100000))

            def shown():
                host.send(broadcast(message("DISCOVER", mac=host.mac, xid=next(xid)), host.mac))
                session.run("show privilege")
                whole = [json.loads(line) for line in monitor.log.splitlines(True) if line.endswith("\n")]
                return {"request", "reply"} <= {each["op"] for each in whole}
            wait_for(shown, 30, "a request and an answer in the monitor")
    finally:
        monitor.stop(2)
    documents = [json.loads(line) for line in monitor.log.splitlines()]
    assert all(each["client"] == MAC for each in documents if "client" in each)
    for op in ("request", "reply"):
        rows = [each for each in documents if each["op"] == op and (op == "request" or each["servers"] == [])]
        judge_of = validator("monitor")
        assert rows and all(judge_of.is_valid(each) for each in rows)
    judge("monitor", next(each for each in documents if each["op"] == "request" and each["servers"]))


def test_tables_and_pages_fit_80_columns(stage):
    """All but lines of messages and of the log, and paths that are as long as they are."""
    pages = [*COMMANDS.values(), "show ip dhcp relay help", "help", "show ip dhcp relay crashes", "write terminal",
             "show startup-config", "show history", "show privilege", "show running-config interface swp1"]
    whole = {COMMANDS[name] for name in ("client", "logging", "history")}
    long = [(command, line) for command in pages if command not in whole
            for line in stage.sh(command).splitlines() if len(line) > 80]
    assert long == []


def test_what_guards_and_unsent_copies_add_fits_too(stage):
    """Members that this lab does not see, put in by hand: the schema knows them."""
    document = tell(stage, "statistics")
    document["unsent"] = [{"server": "192.0.2.11", "no_room": 1, "failed": 0},
                          {"interface": "vlan10", "no_room": 0, "failed": 2}]
    assert validator("statistics").is_valid(document)
    document["unsent"][0]["interface"] = "vlan10"
    assert not validator("statistics").is_valid(document)
    of_server = tell(stage, "servers")
    of_server["servers"][0] |= {"silent_seconds": 7, "silent_since": "2026-01-02T03:04:05.000006Z"}
    assert validator("servers").is_valid(of_server)
    del of_server["servers"][0]["silent_since"]
    assert not validator("servers").is_valid(of_server)


def test_every_schema_is_of_some_document():
    named = {path.name.removesuffix(".schema.json") for path in SCHEMAS.iterdir()}
    assert named == {*COMMANDS, "crashes", "monitor", "parts"}
