# SPDX-License-Identifier: Apache-2.0
"""A restart that clients do not notice: what they wait for goes on, and so do the counts."""

import json
import signal

import pytest
from ravolab.process import wait_for
from scripted import Stage, transactions


@pytest.fixture(params=[signal.SIGTERM, signal.SIGKILL], ids=["orderly", "killed"])
def stage(bare_lab, request):
    relay = bare_lab.start_relay()
    stage = Stage(bare_lab, relay)
    stage.end = request.param
    stage.configure()
    relay.sh("write memory")
    yield stage
    stage.close()
    assert relay.stop() == 0


def restart(stage):
    stage.relay.stop(stage.end)
    stage.relay.start()


def outcomes(relay):
    return json.loads(relay.sh("show ip dhcp relay statistics | json"))["total"]["outcomes"]


def test_reply_after_a_restart_finds_its_client(stage):
    client, other = stage.lab.client(1), stage.lab.client(3)
    requests = [stage.relayed(stage.ask(host)) for host in (client, other)]
    stage.delivered(stage.answer(requests[0]), client)  # whose transaction has ended
    before = transactions(stage.relay)
    assert list(before.values()) == [(1, 3)]
    stage.relay.switch_file.write_text("[guard]\ntransactions = true\n")
    restart(stage)
    assert transactions(stage.relay) == before
    stage.relay.wait_log("^ravod: 1 open transactions of the daemon before go on$".replace("^", "(?m)^"))
    stage.ask(client, xid=requests[1].dhcp.xid)  # who would have the reply checked against another port
    wait_for(lambda: outcomes(stage.relay)["guard-transaction"] == 1, 30, "a request that is not the client's")
    stage.delivered(stage.answer(requests[1]), other)
    assert transactions(stage.relay) == {}
    late = stage.answer(requests[0])
    stage.fence_replies(client)
    assert stage.replies(client, late.xid)[1:] == []


def counts(relay):
    document = json.loads(relay.sh("show ip dhcp relay statistics | json"))
    ports = {port["port"]: port["outcomes"]["relayed"] for port in document["ports"]}
    return document["total"]["restarts"], document["total"]["outcomes"]["relayed"], ports


def test_counts_go_on(stage):
    for port in (1, 3, 1):
        stage.relayed(stage.ask(stage.lab.client(port)))
    assert counts(stage.relay) == (0, 3, {"1/1": 2, "1/3": 1})
    restart(stage)
    stage.fence(stage.lab.client(1))
    assert counts(stage.relay) == (1, 4, {"1/1": 3, "1/3": 1})
    assert "Counted over 1 restarts of the daemon\n" in stage.relay.sh("show ip dhcp relay statistics")
    stage.relay.sh("clear ip dhcp relay statistics")
    restart(stage)
    assert counts(stage.relay) == (1, 0, {}), "cleared, and started once since"


def test_file_of_somebody_else_is_refused_in_one_line(stage):
    if stage.end == signal.SIGKILL:
        pytest.skip("once is enough")
    table = stage.relay.socket.with_name("ravod.sock.transactions")
    stage.ask(stage.lab.client(1))
    stage.relay.stop()
    table.chmod(0o666)
    stage.relay.start()
    stage.relay.wait_log(f"{table}: open transactions do not outlast the daemon: others may use it; remove it\n")
    assert transactions(stage.relay) == {}
    table.unlink()
