# SPDX-License-Identifier: Apache-2.0
"""Labs for the tests. Each test module shares one lab per kind; a failing test leaves lab-artifacts/TEST/."""

import re
import sys
from pathlib import Path

import pytest

REPOSITORY = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(REPOSITORY / "lab"))

from ravolab import Dhcpd, Dnsmasq, Kea, Lab, cleanup  # noqa: E402

ARTIFACTS = REPOSITORY / "lab-artifacts"
OPEN_LABS = []


def pytest_configure():
    cleanup.on_signals()


def pytest_terminal_summary(terminalreporter):
    """The rows of trouble and of the soak, when some were tried."""
    for name in ("troubles", "soaking"):
        if name in sys.modules:
            sys.modules[name].report(terminalreporter.write_line)


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    report = outcome.get_result()
    if report.failed:
        name = re.sub(r"[^A-Za-z0-9_.-]+", "_", item.nodeid.removeprefix("tests/lab/"))
        for number, lab in enumerate(OPEN_LABS):
            lab.save(ARTIFACTS / (f"{name}-{report.when}" if number == 0 else f"{name}-{report.when}-{number + 1}"))
    if report.when == "teardown":
        for lab in OPEN_LABS:
            lab.forget()


def open_lab(**arguments):
    """A lab that is saved when a test fails while it is open; for fixtures: `yield from open_lab(servers=2)`."""
    with Lab(**arguments) as lab:
        OPEN_LABS.append(lab)
        try:
            yield lab
        finally:
            OPEN_LABS.remove(lab)


@pytest.fixture(scope="session")
def servers_lab():
    """A lab with the three servers running: Kea on host 1, dnsmasq on host 2, ISC dhcpd on host 3."""
    for lab in open_lab(name="servers", servers=3):
        for host, kind in enumerate((Kea, Dnsmasq, Dhcpd), 1):
            lab.add_server(kind, host=host)
        yield lab


@pytest.fixture
def lab(servers_lab):
    """The shared lab with the three servers. A test leaves its ports and VLANs as it found them."""
    return servers_lab


@pytest.fixture
def relay(lab):
    """A fresh ravod in the shared lab, nothing configured; it must still be alive at the test's end."""
    relay = lab.start_relay()
    yield relay
    alive = relay.alive
    status = relay.stop()
    lab.relays.remove(relay)
    assert alive, f"ravod ended during the test with status {status}:\n{relay.log[-3000:]}"
    assert status == 0, f"ravod ended with status {status}:\n{relay.log[-3000:]}"


@pytest.fixture
def bare_lab():
    """A lab of the test's own with two server hosts and no server on them."""
    yield from open_lab(name="bare", servers=2)
