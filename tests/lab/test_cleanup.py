# SPDX-License-Identifier: Apache-2.0
"""A lab leaves nothing behind, however it ends."""

import os
import signal
import subprocess
import sys
import tempfile
import textwrap
from pathlib import Path

import pytest

from ravolab import wait_for

LAB_FOLDER = Path(__file__).resolve().parents[2] / "lab"
LIMIT = 60

RUNNER = """
import sys, time
sys.path.insert(0, sys.argv[1])
from ravolab import Lab, Kea, Dnsmasq, Dhcpcd, cleanup
cleanup.on_signals()
with Lab(servers=2) as lab:
    print("folder", lab.folder, flush=True)
    lab.add_server(Kea, host=1)
    lab.add_server(Dnsmasq, host=2)
    client = lab.client(1).start(Dhcpcd)
    print("up", flush=True)
    time.sleep(600)
"""


def relatives(folder):
    """Processes that have to do with the lab of this folder: its name is in their command line."""
    found = []
    for path in Path("/proc").glob("[0-9]*"):
        try:
            if str(folder).encode() in (path / "cmdline").read_bytes():
                found.append(int(path.name))
        except OSError:
            continue
    return found


class Spaces:
    """The network namespaces that these processes are in, this test's own left out.

    A process that ends loses its command line first and its namespaces later, so that relatives() may be empty while
    somebody is still in here. Held open, so that no other lab's namespace gets the number of one of these.
    """

    def __init__(self, pids):
        self.held = {}  # descriptors by what the kernel calls the namespace
        for pid in pids:
            try:
                fd = os.open(f"/proc/{pid}/ns/net", os.O_RDONLY)
            except OSError:
                continue
            name = os.readlink(f"/proc/self/fd/{fd}")
            if name in self.held or name == os.readlink("/proc/self/ns/net"):
                os.close(fd)
            else:
                self.held[name] = fd

    def inhabited(self):
        """Whether any process is in one of them."""
        for path in Path("/proc").glob("[0-9]*/ns/net"):
            try:
                if os.readlink(path) in self.held:
                    return True
            except OSError:
                continue
        return False

    def wait_empty(self):
        wait_for(lambda: not self.inhabited(), LIMIT, "end of the lab's network namespaces")
        for fd in self.held.values():
            os.close(fd)


@pytest.fixture
def start_runner():
    """Starts a program with a lab in it; (process, the lab's folder). These labs have a folder for temporary files of
    their own, so that no other lab on this machine sweeps theirs."""
    with tempfile.TemporaryDirectory() as temporary:
        os.chmod(temporary, 0o755)
        started = []

        def begin(until):
            runner = subprocess.Popen([sys.executable, "-B", "-c", textwrap.dedent(RUNNER), str(LAB_FOLDER)],
                                      stdout=subprocess.PIPE, text=True, env={**os.environ, "TMPDIR": temporary})
            started.append(runner)
            folder = Path(runner.stdout.readline().split()[1])
            assert folder.parent == Path(temporary)
            if until == "up":
                assert runner.stdout.readline() == "up\n"
            return runner, folder

        yield begin
        for runner in started:
            runner.kill()
            runner.wait(LIMIT)
            runner.stdout.close()


def wait_gone(folder):
    wait_for(lambda: not relatives(folder), LIMIT, "end of the lab's processes")


@pytest.mark.parametrize("until", ["up", "half up"])
@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_interrupted(start_runner, number, until):
    runner, folder = start_runner(until)
    inside = Spaces(relatives(folder))
    runner.send_signal(number)
    runner.wait(LIMIT)
    assert runner.returncode != 0
    assert not folder.exists()
    wait_gone(folder)
    inside.wait_empty()


def test_killed(start_runner):
    """Nothing can tidy up behind SIGKILL but the kernel, and the next lab for the files."""
    runner, folder = start_runner("up")
    assert len(relatives(folder)) >= 3
    inside = Spaces(relatives(folder))
    assert len(inside.held) >= 2  # those of the servers; the client may still be on its way
    runner.kill()
    runner.wait(LIMIT)
    wait_gone(folder)
    inside.wait_empty()
    assert folder.exists()
    following, its_folder = start_runner("up")
    assert not folder.exists()
    following.terminate()
    following.wait(LIMIT)
    assert not its_folder.exists()


def test_two_labs_at_once(start_runner):
    first, first_folder = start_runner("up")
    second, second_folder = start_runner("up")
    assert first_folder != second_folder and first_folder.exists() and second_folder.exists()
    first.terminate()
    first.wait(LIMIT)
    assert relatives(second_folder) and second_folder.exists()
    second.terminate()
    second.wait(LIMIT)
    assert not first_folder.exists() and not second_folder.exists()
    wait_gone(second_folder)
