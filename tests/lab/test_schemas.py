# SPDX-License-Identifier: Apache-2.0
"""Every document of "| json" is what its schema in docs/schema says, with rows of data in it, and the schema bites."""

import copy
import json
import re
from pathlib import Path

import jsonschema
import pytest

import managed
from ravolab import Kea, Udhcpc
from ravolab.craft import broadcast, message
from ravolab.process import Process, wait_for

SCHEMAS = Path(__file__).resolve().parents[2] / "docs" / "schema"
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
# Members that a document may leave out, by the place they stand in.
OPTIONAL = {
    "statistics": {"core-assertion", "guard-.*"}, "statistics-vlan": {"core-assertion", "guard-.*"},
    "statistics-port": {"core-assertion", "guard-.*"},
    "options": {"option60", "option61"}, "clients": {"vlan", "port", "address", "server", "unanswered_us"}, "client": {"vlan", "port", "address", "server", "answered_us",
                                                                  "option82", "circuit_id", "remote_id"},
    "monitor": {"vlan", "port", "address", "server", "answered_us", "option82", "circuit_id", "remote_id"},
    "servers": {"le_us", "response_times"}, "interfaces": {"ifindex", "address", "pvid"},
    "ip-interfaces": {"ifindex", "address"}, "differences": {"unconfirmed_seconds"}, "users": {"terminal"},
}
# Lists in which this lab has nothing.
EMPTY = {"unsent"}


def validator(name):
    schema = json.loads((SCHEMAS / f"{name}.schema.json").read_text())
    jsonschema.Draft202012Validator.check_schema(schema)
    resolver = jsonschema.RefResolver(f"{SCHEMAS.as_uri()}/", schema)
    return jsonschema.Draft202012Validator(schema, resolver=resolver, format_checker=jsonschema.FormatChecker())


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


def places(value, path=()):
    """Each object of a document; of a list its first element stands for all."""
    if isinstance(value, dict):
        yield path
        for key, each in value.items():
            yield from places(each, (*path, key))
    elif isinstance(value, list) and value:
        yield from places(value[0], (*path, 0))


def at(document, path):
    for step in path:
        document = document[step]
    return document


def spoiled(document):
    """The document, each time with one member taken away, added, or of another kind; and what was done."""
    for path in places(document):
        for key in at(document, path):
            less, other = copy.deepcopy(document), copy.deepcopy(document)
            del at(less, path)[key]
            yield "without", path, key, less
            at(other, path)[key] = None
            yield "null for", path, key, other
        more = copy.deepcopy(document)
        at(more, path)["unheard_of"] = 1
        yield "with", path, "unheard_of", more


def judge(name, document):
    """The document is good, has rows in its lists, and is bad with anything taken away, put in or exchanged."""
    judge_of = validator(name)
    assert [fault.message for fault in judge_of.iter_errors(document)] == []
    for path in places(document):
        empty = [key for key, value in at(document, path).items() if value == [] and key not in EMPTY]
        assert not empty, (name, path)
    may_lack = OPTIONAL.get(name, set())
    passed = {(what, key) for what, _, key, bad in spoiled(document) if judge_of.is_valid(bad)}
    wrong = {(what, key) for what, key in passed
             if what != "without" or not any(re.fullmatch(each, key) for each in may_lack)}
    assert not wrong, name


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
        stage.wait_log(r'monitor ip dhcp relay|session \d+ .*begins', 30)
        with managed.Session(stage.socket) as session:
            host, xid = lab.client(1), iter(range(100, 100000))

            def shown():
                host.send(broadcast(message("DISCOVER", mac=host.mac, xid=next(xid)), host.mac))
                session.run("show privilege")
                return any('"op": "reply"' in line for line in monitor.log.splitlines())
            wait_for(shown, 30, "an answer in the monitor")
    finally:
        monitor.stop(2)
    documents = [json.loads(line) for line in monitor.log.splitlines()]
    assert all(each["client"] == MAC for each in documents if "client" in each)
    for op in ("request", "reply"):
        rows = [each for each in documents if each["op"] == op and (op == "request" or each["servers"] == [])]
        judge_of = validator("monitor")
        assert rows and all(judge_of.is_valid(each) for each in rows)
    judge("monitor", next(each for each in documents if each["op"] == "request" and each["servers"]))


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
    assert named == {*COMMANDS, "monitor", "parts"}
