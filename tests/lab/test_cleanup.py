"""A lab leaves nothing behind, however it ends."""

import os
import signal
import subprocess
import sys
import textwrap
from pathlib import Path

import pytest

from ravolab import wait_for

LAB_FOLDER = Path(__file__).resolve().parents[2] / "lab"

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
    time.sleep(60)
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


def spaces(pids=("[0-9]*",)):
    """The network namespaces of these processes, of all without any named; this test's own left out.

    A process that ends loses its command line first and its namespaces later, so that relatives() may be empty while
    this is not.
    """
    found = set()
    for pid in pids:
        for path in Path("/proc").glob(f"{pid}/ns/net"):
            try:
                found.add(os.readlink(path))
            except OSError:
                continue
    return found - {os.readlink("/proc/self/ns/net")}


def start_runner(until):
    runner = subprocess.Popen([sys.executable, "-B", "-c", textwrap.dedent(RUNNER), str(LAB_FOLDER)],
                              stdout=subprocess.PIPE, text=True)
    folder = Path(runner.stdout.readline().split()[1])
    if until == "up":
        assert runner.stdout.readline() == "up\n"
    return runner, folder


@pytest.mark.parametrize("until", ["up", "half up"])
@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_interrupted(number, until):
    runner, folder = start_runner(until)
    inside = spaces(relatives(folder))
    runner.send_signal(number)
    runner.wait(20)
    runner.stdout.close()
    assert runner.returncode != 0
    assert not folder.exists()
    wait_for(lambda: not relatives(folder), 5, "end of the lab's processes")
    wait_for(lambda: not inside & spaces(), 5, "end of the lab's network namespaces")


def test_killed():
    """Nothing can tidy up behind SIGKILL but the kernel, and the next lab for the files."""
    runner, folder = start_runner("up")
    assert len(relatives(folder)) >= 3
    inside = spaces(relatives(folder))
    runner.kill()
    runner.wait(20)
    runner.stdout.close()
    wait_for(lambda: not relatives(folder), 5, "end of the lab's processes")
    wait_for(lambda: not inside & spaces(), 5, "end of the lab's network namespaces")
    assert folder.exists()
    following, its_folder = start_runner("up")
    assert not folder.exists()
    following.terminate()
    following.wait(20)
    following.stdout.close()
    assert not its_folder.exists()


def test_two_labs_at_once():
    first, first_folder = start_runner("up")
    second, second_folder = start_runner("up")
    assert first_folder != second_folder and first_folder.exists() and second_folder.exists()
    first.terminate()
    first.wait(20)
    assert relatives(second_folder) and second_folder.exists()
    second.terminate()
    second.wait(20)
    first.stdout.close()
    second.stdout.close()
    assert relatives(second_folder) == []
