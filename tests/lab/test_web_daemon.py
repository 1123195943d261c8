# SPDX-License-Identifier: Apache-2.0
"""ravo-web beside a daemon that answers nonsense: documents that are none, cut off, of other kinds, or endless."""

import json

import pytest

from scripted_daemon import ScriptedDaemon
from webbed import Web

COMMANDS = ("show version", "show ip dhcp relay | json", "show ip dhcp relay detail | json",
            "show ip dhcp relay statistics | json", "show ip dhcp relay server | json", "show ip dhcp relay client | json",
            "show ip dhcp relay client 02:00:00:00:00:01 | json", "show ip dhcp relay advice | json",
            "show ip dhcp relay xid-port-mapping | json", "show running-config", "show startup-config")
PATHS = ("health", "settings", "interfaces", "servers", "clients", "clients/02:00:00:00:00:01", "statistics?top=5",
         "transactions", "advice", "configuration", "history")


@pytest.mark.parametrize("nonsense", [
    "", "{", "[]", "null", "5", '"text"', "% Invalid input\n", "\0\1\2\xff", '{"total": 5, "vlans": 7, "ports": {}}',
    '{"interfaces": [1, null, [], {"servers": 5, "name": 7}], "clients": [{}], "transactions": [3], "servers": [2]}',
    '{"vlans": [{"vlan": "x", "outcomes": [1], "types": {"a": -5, "b": "c"}}], "total": {"outcomes": {"a": 1e999}}}',
    '{"interfaces": ' + "[" * 5000, '{"a": "' + "x" * 300000 + '"}'], ids=range(13))
def test_nonsense_is_told_and_survived(tmp_path, nonsense):
    daemon = ScriptedDaemon(tmp_path / "sock")
    for command in COMMANDS:
        daemon.says(command, nonsense)
    web = Web(tmp_path, tmp_path / "sock").start()
    try:
        alice = web.user()
        for path in PATHS:
            status, _, text = web.request("GET", f"/api/v1/{path}", headers={"Cookie": alice.cookie})
            assert status in (200, 501, 502, 503), (path, status)
            if path not in ("servers", "advice"):  # those go on as the daemon has them
                json.loads(text)
        assert web.request("GET", "/metrics")[0] == 200
        assert web.process.poll() is None, web.log
    finally:
        assert web.stop() == 0, web.log
        daemon.close()


def test_a_list_that_is_too_long_keeps_its_sum(tmp_path):
    """A million open transactions: the first ones are shown, the sum is told, and memory is bounded."""
    daemon = ScriptedDaemon(tmp_path / "sock")
    row = '    {\n      "xid": "0x0a1b2c3d",\n      "module": 1,\n      "port": 7\n    }'
    many = 200_000
    daemon.says("show ip dhcp relay xid-port-mapping | json",
                '{\n  "transactions": [\n' + ",\n".join([row] * many) + f'\n  ],\n  "total": {many}\n}}\n')
    daemon.says("show ip dhcp relay statistics | json", '{"total": {"received": 0, "outcomes": {}}, "vlans": [], "ports": []}')
    web = Web(tmp_path, tmp_path / "sock").start()
    try:
        shown = web.user().get("/transactions?limit=5")
        assert (len(shown["transactions"]), shown["total"], shown["complete"]) == (5, many, False)
        assert f"\nravo_transactions {many}\n".encode() in web.request("GET", "/metrics")[2]
        assert web.memory() < 32 * 1024
    finally:
        assert web.stop() == 0, web.log
        daemon.close()
