# SPDX-License-Identifier: Apache-2.0
"""The metrics, read by a real Prometheus beside a lab with real clients: its answers are what the shell shows, and every
query of the shipped alerts and of the shipped dashboard runs in it."""

import json
import re
import socket
import subprocess
import urllib.error
import urllib.parse
import urllib.request

import pytest

from conftest import open_lab
from ravolab import Dnsmasq, Kea, Udhcpc, craft
from ravolab.process import wait_for
from ravolab.relay import REPOSITORY
from webbed import Web

MONITORING = REPOSITORY / "docs" / "monitoring"


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Prometheus:
    def __init__(self, folder, web):
        self.port = free_port()
        (folder / "targets.json").write_text(json.dumps([{"targets": [f"127.0.0.1:{web.port}"]}]))
        (folder / "prometheus.yml").write_text(
            "global: {scrape_interval: 1s, evaluation_interval: 1s}\n"
            f"rule_files: ['{MONITORING}/ravo-alerts.yml']\n"
            "scrape_configs:\n  - job_name: ravo\n    file_sd_configs:\n"
            f"      - files: ['{folder}/targets.json']\n")
        self.log = folder / "log"
        with open(self.log, "wb") as log:
            self.process = subprocess.Popen(
                ["setpriv", "--pdeathsig", "KILL", "prometheus", f"--config.file={folder}/prometheus.yml",
                 f"--storage.tsdb.path={folder}/data", f"--web.listen-address=127.0.0.1:{self.port}"],
                stdin=subprocess.DEVNULL, stdout=log, stderr=subprocess.STDOUT)
        wait_for(self.ready, 60, lambda: f"answer from Prometheus:\n{self.log.read_text()[-2000:]}\nreadiness")

    def ready(self):
        try:
            return self.ask("query", query='up{job="ravo"}')
        except urllib.error.URLError:
            return False

    def ask(self, path, **arguments):
        url = f"http://127.0.0.1:{self.port}/api/v1/{path}?{urllib.parse.urlencode(arguments)}"
        with urllib.request.urlopen(url, timeout=30) as answer:
            value = json.load(answer)
        assert value["status"] == "success", value
        return value["data"]

    def query(self, text):
        """{labels as a sorted tuple: number}"""
        return {tuple(sorted((k, v) for k, v in row["metric"].items() if k not in ("__name__", "instance", "job"))):
                float(row["value"][1]) for row in self.ask("query", query=text)["result"]}

    def close(self):
        self.process.terminate()
        self.process.wait(30)


@pytest.fixture(scope="module")
def watched(tmp_path_factory):
    """A lab with traffic behind it, its web side, and a Prometheus that has scraped all of it."""
    for lab in open_lab(name="metrics", servers=2):
        lab.add_server(Kea, host=1)
        lab.add_server(Dnsmasq, host=2)
        lab.relay = lab.start_relay(log_level="warning")
        lab.relay.configure("ip dhcp relay information option", "interface vlan 10", "ip dhcp relay address 192.0.2.11",
                            "exit", "interface vlan 20", "ip dhcp relay address 192.0.2.12", "exit", "ip dhcp relay")
        web = Web(tmp_path_factory.mktemp("web"), lab.relay.socket).start()
        prometheus = Prometheus(tmp_path_factory.mktemp("prometheus"), web)
        try:
            for port in (1, 2, 3, 4):
                lab.client(port).run(Udhcpc)
            lab.client(1).send(craft.broadcast(craft.message("DISCOVER", mac="02:00:00:00:00:77", xid=7, hops=9),
                                               "02:00:00:00:00:77"))
            wait_for(lambda: counters(lab)["total"]["outcomes"]["hop-limit"] == 1, 20, "message with too many hops")
            lab.web, lab.prometheus = web, prometheus
            yield lab
        finally:
            prometheus.close()
            assert web.stop() == 0, web.log


def counters(lab):
    return json.loads(lab.relay.sh("show ip dhcp relay statistics | json"))


def equal(lab, query, expected):
    """Wait until Prometheus has scraped what the shell shows, and has it so."""
    wait_for(lambda: lab.prometheus.query(query) == expected(), 30,
             lambda: f"answer to {query}:\n{lab.prometheus.query(query)}\ninstead of\n{expected()}\nequality")


def test_prometheus_has_the_figures_of_the_shell(watched):
    def total(name):
        return counters(watched)["total"][name]

    equal(watched, "sum(ravo_messages_total)", lambda: {(): total("received")})
    equal(watched, "sum(ravo_outcomes_total)", lambda: {(): total("received")})
    equal(watched, "sum by (outcome) (ravo_outcomes_total) > 0", lambda: {
        (("outcome", word),): count for word, count in total("outcomes").items() if count})
    equal(watched, 'sum by (interface) (ravo_outcomes_total{interface!="none"})', lambda: {
        (("interface", f"vlan{row['vlan']}"),): row["received"] for row in counters(watched)["vlans"]})
    equal(watched, "ravo_port_messages_total", lambda: {
        (("port", row["port"]),): row["received"] for row in counters(watched)["ports"]})
    equal(watched, "ravo_messages_lost_total", lambda: {(): total("lost")})
    equal(watched, "ravo_relay_enabled", lambda: {(): 1})
    open_now = json.loads(watched.relay.sh("configure terminal", "show ip dhcp relay xid-port-mapping | json"))
    equal(watched, "ravo_transactions", lambda: {(): open_now["total"]})


def test_prometheus_sees_the_daemon_process(watched):
    equal(watched, "process_start_time_seconds > 1.6e9", lambda: watched.prometheus.query("process_start_time_seconds"))
    assert watched.prometheus.query("process_resident_memory_bytes > 1e6")
    assert watched.prometheus.query("process_open_fds > 3")
    version = watched.relay.sh("show version").split()[1].rstrip(",")
    assert list(watched.prometheus.query("ravo_build_info")) == [(("version", version),)]


def test_the_exposition_is_well_formed(watched):
    plain = watched.web.request("GET", "/metrics", headers={"Accept": "text/plain"})
    opened = watched.web.request("GET", "/metrics", headers={"Accept": "application/openmetrics-text;version=1.0.0"})
    assert plain[1]["Content-Type"] == "text/plain; version=0.0.4; charset=utf-8"
    assert opened[1]["Content-Type"] == "application/openmetrics-text; version=1.0.0; charset=utf-8"
    assert opened[2].endswith(b"# EOF\n")
    for text in (plain[2], opened[2]):
        names = re.findall(rb"^([a-z_]+?)(?:_total|_bucket|_sum|_count)?[{ ]", text, re.M)
        assert {name for name in names if not name.startswith(b"process_")} <= {
            b"ravo_messages", b"ravo_outcomes", b"ravo_port_messages", b"ravo_server_requests", b"ravo_server_replies",
            b"ravo_server_response_seconds", b"ravo_transactions", b"ravo_relay_enabled", b"ravo_messages_lost",
            b"ravo_advice", b"ravo_build_info"}
    checked = subprocess.run(["promtool", "check", "metrics"], input=plain[2], capture_output=True, timeout=60)
    assert (checked.returncode, checked.stdout + checked.stderr) == (0, b"")
    target = watched.prometheus.ask("targets")["activeTargets"][0]
    assert (target["health"], target["lastError"]) == ("up", "")


def test_the_alerts_are_rules_and_do_what_they_say():
    for words in (["check", "rules", MONITORING / "ravo-alerts.yml"],
                  ["test", "rules", MONITORING / "ravo-alerts-test.yml"]):
        result = subprocess.run(["promtool", *words], capture_output=True, text=True, timeout=60)
        assert result.returncode == 0, result.stdout + result.stderr


def test_prometheus_evaluates_the_alerts(watched):
    def states():
        rules = [rule for group in watched.prometheus.ask("rules")["groups"] for rule in group["rules"]]
        return rules if all(rule["health"] != "unknown" for rule in rules) else None
    rules = wait_for(states, 30, "evaluation of the alerts")
    assert len(rules) == 7 and {rule["health"] for rule in rules} == {"ok"}, rules


def test_every_query_of_the_dashboard_runs(watched):
    board = json.loads((MONITORING / "ravo-dashboard.json").read_text())
    queries = [target["expr"] for panel in board["panels"] for target in panel["targets"]]
    assert len(queries) >= 15
    for query in queries:
        query = query.replace("$job", "ravo").replace("$instance", ".*").replace("$__rate_interval", "1m")
        watched.prometheus.query(query)
        names = re.findall(r"\b((?:ravo|process)_[a-z_]+|up)\{", query)
        assert names, query
        if not any(name.startswith(("ravo_server", "ravo_advice")) for name in names):
            assert all(watched.prometheus.query(f"{name}") for name in names), query


def test_a_daemon_that_is_gone_is_seen_as_down(watched):
    assert watched.prometheus.query('up{job="ravo"}') == {(): 1}
    watched.relay.stop()
    equal(watched, 'up{job="ravo"}', lambda: {(): 0})
    watched.relay.start()
    equal(watched, 'up{job="ravo"}', lambda: {(): 1})
