# SPDX-License-Identifier: Apache-2.0
"""Fixtures of the tests with real VLANs, and their report: a line a test, the sum as the last one."""

import os
import re
import sys
from pathlib import Path

import pytest

REPOSITORY = Path(__file__).resolve().parents[2]
sys.path[:0] = [str(REPOSITORY / "lab"), str(REPOSITORY / "tests/lab")]

pytest.register_assert_rewrite("scripted", "vlan_lab")

from ravolab import cleanup  # noqa: E402
from vlan_lab import VlanLab, VlanStage  # noqa: E402

ARTIFACTS = Path("/run/results")  # where the driver finds it
REPORT = os.fdopen(3, "w") if "RAVO_VM" in os.environ else None  # the machine's line to the driver
OPEN_LABS = []
COUNTS = {"passed": 0, "failed": 0}


# ---- The report ----

def tell(text):
    if REPORT:
        print(text, file=REPORT, flush=True)


def pytest_configure():
    cleanup.on_signals()


def pytest_collectreport(report):
    if report.failed:
        COUNTS["failed"] += 1
        tell(f"FAILED  {report.nodeid}: not collected\n{report.longreprtext}")


def pytest_runtest_logreport(report):
    """A test that is skipped here is a failure: this kernel is where nothing may be missing."""
    if report.when != "call" and report.passed:
        return
    name = report.nodeid.split("::", 1)[-1]
    if report.passed:
        COUNTS["passed"] += 1
        tell(f"passed  {name} ({report.duration:.1f} s)")
        return
    COUNTS["failed"] += 1
    tell(f"FAILED  {name}, in its {report.when}\n{report.longreprtext}")
    for title, text in report.sections:
        tell(f"---- {title}\n{text}")


@pytest.hookimpl(trylast=True)
def pytest_sessionfinish():
    tell(f"{COUNTS['passed']} passed, {COUNTS['failed']} failed")


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    report = outcome.get_result()
    if report.failed:
        for lab in OPEN_LABS:
            lab.save(ARTIFACTS / f"{re.sub(r'[^A-Za-z0-9_.-]+', '_', item.name)}-{report.when}")


# ---- Fixtures ----

@pytest.fixture(scope="session")
def lab():
    """The switch with its VLANs, shared by all tests. A test leaves ports and VLANs as it found them."""
    with VlanLab() as lab:
        OPEN_LABS.append(lab)
        yield lab
        OPEN_LABS.remove(lab)


@pytest.fixture(scope="session")
def running(lab):
    """ravod in that switch, shared too; it must end with status 0."""
    relay = lab.start_relay(switch_toml=lab.description)
    yield relay
    status = relay.stop()
    assert status == 0, f"ravod ended with status {status}:\n{relay.log[-3000:]}"


@pytest.fixture(scope="session")
def configured(lab, running):
    """The same with option 82 and one server for each VLAN."""
    lab.configure(running, 10, 20, 30, 40)
    running.configure("ip dhcp relay information option", "ip dhcp relay")
    return running


@pytest.fixture
def relay(configured):
    yield configured
    assert configured.alive, f"ravod ended with status {configured.process.status}:\n{configured.log[-3000:]}"


@pytest.fixture
def stage(lab, relay):
    """The lab with played servers and a capture at each host."""
    stage = VlanStage(lab, relay)
    yield stage
    stage.close()


@pytest.fixture
def attached(lab):
    """Gives a host a device for a tag; it is gone after the test."""
    changed = []

    def attach(port, tag):
        host = lab.client(port)
        if tag is not None:
            host.namespace.ip(f"link add link eth0 name eth0.{tag} type vlan id {tag}", f"link set eth0.{tag} up")
            host.device = f"eth0.{tag}"
            changed.append(host)
        return host

    yield attach
    for host in changed:
        host.namespace.ip(f"link del {host.device}")
        host.device = "eth0"
