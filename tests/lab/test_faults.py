# SPDX-License-Identifier: Apache-2.0
"""System calls fail, one a life: the daemon says why it does not start, or goes on and serves.

In short a few places that once were not survived. RAVO_FAULTS=full (`make faults`): every place that a life comes by, in
a sanitized daemon, with every error of tests/faults/calls.py, before and after the first lease; how each one went is
in build/faults.txt.
"""

import errno
import os
import subprocess
import sys

import pytest
from conftest import REPOSITORY, open_lab
from ravolab.relay import BUILD
from scripted import Stage

sys.path.insert(0, str(REPOSITORY / "tests/faults"))

from calls import faults_at  # noqa: E402
from lives import LIVES, Life, live  # noqa: E402
from places import frames_of, known_places, places_of  # noqa: E402
from table import Table  # noqa: E402

FULL = os.environ.get("RAVO_FAULTS") == "full"
PROGRAMS = REPOSITORY / "build-debug" if FULL else BUILD
REPORT = REPOSITORY / "build/faults.txt"

# What looks up users and groups has libraries of its own, which are not the daemon's.
OTHERS = ("libnss_", "libcap.", "libudev.")

# A pipe within the process has no such error, over which the library would end it.
NEVER = {("libevent_core-2.1.so.7", "read", errno.EIO)}

# Life, source, call, phase, error.
SAMPLE = [("ordinary", "base/files.cpp", "fstat", 0, errno.EIO),
          ("ordinary", "confinement/daemon_user.cpp", "getpwnam", 0, errno.EIO),
          ("ordinary", "inventory/inventory_netlink.cpp", "sendto", 0, errno.ENOBUFS),
          ("ordinary", "log/log_writer.cpp", "write", 1, errno.EAGAIN),
          ("ordinary", "osal/osal_socket.cpp", "close", 1, errno.EIO),
          ("ordinary", "osal/once_more.cpp", "socket", 1, errno.EMFILE),
          ("attacked", "process/supervisor.cpp", "fork", 1, errno.EAGAIN)]


@pytest.fixture(scope="module")
def lab():
    yield from open_lab(name="faults", servers=2)


@pytest.fixture(scope="module")
def injector(tmp_path_factory):
    library = tmp_path_factory.mktemp("faults") / "injector.so"
    subprocess.run([os.environ.get("CXX", "c++"), "-std=c++20", "-O1", "-fPIC", "-shared", "-o", library,
                    REPOSITORY / "tests/faults/injector.cpp"], check=True)
    return library


def lead(lab, injector, name, order=None):
    """A life with a fault in it, or none; (whether all is well, how it went, seconds) and the table of its calls."""
    course, *how = LIVES[name]
    table = Table(lab.fresh_folder("table") / "table", order)
    stage = Stage(lab, None)
    try:
        return live(Life(lab, stage, PROGRAMS, table, injector, *how), course), table
    finally:
        stage.close()
        lab.forget()


def orders(table, places, without):
    """Every fault there can be in a life: (place, module, offset, phase, error), those of the daemon itself first."""
    for (module, offset), (function, *calls) in sorted(table.places().items()):
        if module.startswith(OTHERS) or (module, offset) in without:
            continue
        place = f"{module} {offset:#x} {function}" if module else places[offset]
        yield from ((place, module, offset, phase, error) for phase in (0, 1) if calls[phase]
                    for error in faults_at(place, function) if (module, function, error) not in NEVER)


@pytest.fixture(scope="module")
def lives_without(lab, injector):
    """The calls of lives in which nothing fails: {life: {offset: (sources, call, calls in each phase)}}"""
    found = {}
    for name in {sample[0] for sample in SAMPLE}:
        (well, how, _), table = lead(lab, injector, name)
        assert well, how
        own = {offset: (call, *phases) for (module, offset), (call, *phases) in table.places().items() if not module}
        frames = frames_of(PROGRAMS / "ravod", list(own))
        found[name] = {offset: ({source for source, _ in those}, *own[offset]) for offset, those in zip(own, frames)}
    return found


@pytest.mark.parametrize(("name", "source", "call", "phase", "error"), SAMPLE,
                         ids=[f"{source}-{call}-{errno.errorcode[error]}" for _, source, call, _, error in SAMPLE])
def test_fault(lab, injector, lives_without, name, source, call, phase, error):
    offset = next(offset for offset, (sources, function, *calls) in sorted(lives_without[name].items())
                  if f"platform/linux/{source}" in sources and function == call and calls[phase])
    (well, how, _), table = lead(lab, injector, name, ("", offset, phase, error))
    assert table.fired, how
    assert well, how


def try_all(lab, injector, places, name, without, report):
    """Every fault of a life; what went wrong, and the places that it came by."""
    (well, how, _), table = lead(lab, injector, name)
    assert well, how
    wrong = []
    for place, *order in orders(table, places, without):
        (well, how, seconds), tried = lead(lab, injector, name, order)
        fired = "" if tried.fired else ", not come by"
        row = (f"{name}: {place}, {errno.errorcode[order[3]]} in phase {order[2]}{fired}: "
               f"{'' if well else 'WRONG, '}{' / '.join(how.splitlines())} ({seconds:.1f} s)")
        print(row, file=report, flush=True)
        if not well:
            wrong.append(row)
    return wrong, set(table.places())


def test_every_fault(lab, injector):
    places = places_of(PROGRAMS / "ravod")
    tried, wrong, reached = set(), [], {}
    with REPORT.open("w") as report:
        for name in LIVES:
            more, came_by = try_all(lab, injector, places, name, tried, report)
            reached |= {places[offset]: name for module, offset in came_by - tried if not module}
            tried |= came_by
            wrong += more
    assert wrong == []
    promised = {place: what for place, what in known_places().items() if what in LIVES}
    assert {place: reached.get(place) for place in promised} == promised


# One of the two is a test: in short, or all of it.
if FULL:
    del test_fault
else:
    del test_every_fault
