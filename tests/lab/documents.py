# SPDX-License-Identifier: Apache-2.0
"""The schemas of docs/schema, and documents held against them."""

import copy
import json
import re
from pathlib import Path

import jsonschema

SCHEMAS = Path(__file__).resolve().parents[2] / "docs" / "schema"
# Members that a document may leave out, by the place they stand in.
OPTIONAL = {
    "statistics": {"core-assertion", "guard-.*"}, "statistics-vlan": {"core-assertion", "guard-.*"},
    "statistics-port": {"core-assertion", "guard-.*"},
    "options": {"option60", "option61"}, "clients": {"vlan", "port", "address", "server", "unanswered_us"},
    "client": {"vlan", "port", "address", "server", "answered_us", "option82", "circuit_id", "remote_id"},
    "relay-detail": {"address", "mac"},
    "monitor": {"vlan", "port", "address", "server", "answered_us", "option82", "circuit_id", "remote_id"},
    "servers": {"le_us", "response_times"}, "interfaces": {"ifindex", "address", "pvid"},
    "ip-interfaces": {"ifindex", "address"}, "differences": {"unconfirmed_seconds"}, "users": {"terminal"},
    "crashes": {"vlan", "capture"},
}
# Lists in which this lab has nothing.
EMPTY = {"unsent"}


def validator(name):
    schema = json.loads((SCHEMAS / f"{name}.schema.json").read_text())
    jsonschema.Draft202012Validator.check_schema(schema)
    resolver = jsonschema.RefResolver(f"{SCHEMAS.as_uri()}/", schema)
    return jsonschema.Draft202012Validator(schema, resolver=resolver, format_checker=jsonschema.FormatChecker())


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
