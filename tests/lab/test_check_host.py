# SPDX-License-Identifier: Apache-2.0
"""lab/check-host: a machine that cannot run the lab is told why, in one line."""

import os
import subprocess
from pathlib import Path

import pytest

CHECK = Path(__file__).resolve().parents[2] / "lab" / "check-host"


def check(path="", wrapper=(), **more):
    environment = {**os.environ, "PATH": f"{path}:{os.environ['PATH']}", **more}
    result = subprocess.run([*wrapper, CHECK, "run"], env=environment, text=True, capture_output=True, timeout=60)
    assert result.stdout == ""
    return result.returncode, result.stderr


def stand_in(folder, name, script):
    """A program that comes before the machine's own."""
    program = folder / name
    program.write_text(f"#!/bin/sh\n{script}\n")
    program.chmod(0o755)
    return str(folder)


def test_this_machine_can_and_nothing_is_left_behind(tmp_path):
    assert check(TMPDIR=str(tmp_path)) == (0, "")
    assert list(tmp_path.iterdir()) == []


@pytest.mark.parametrize("refused, said", [
    ("--net", "needs network namespaces, and this machine does not let root make one"),
    ("--mount-proc", "needs mount and PID namespaces with a /proc of their own"),
    ("mount -t tmpfs", "needs to mount a tmpfs in a mount namespace of its own"),
])
def test_what_the_kernel_refuses(tmp_path, refused, said):
    path = stand_in(tmp_path, "unshare", f'case "$*" in *"{refused}"*) exit 1;; esac; exec /usr/bin/unshare "$@"')
    status, told = check(path)
    assert status == 1 and told.startswith(f"ravo: the lab {said}") and told.count("\n") == 1


def test_a_folder_for_the_servers_files(tmp_path):
    assert check(TMPDIR="/proc/no") == (1, "ravo: the lab's servers keep their files in /proc/no, where nothing can be "
                                           "written: set TMPDIR to another folder\n")


def test_a_folder_from_which_nothing_runs(tmp_path):
    """Where AppArmor is on, Kea is copied there; elsewhere it does not matter."""
    shelf, folder = tmp_path / "bin", tmp_path / "noexec"
    shelf.mkdir()
    folder.mkdir()
    inside = ["unshare", "--mount", "sh", "-c", f'mount -t tmpfs -o noexec tmpfs {folder} && exec "$@"', "sh"]
    for confined, outcome in (("N", (0, "")), ("Y", (1, f"ravo: AppArmor confines Kea, so a copy of it runs in {folder}, "
                                                         "which is mounted noexec: set TMPDIR to another folder\n"))):
        path = stand_in(shelf, "cat", f'case "$*" in *apparmor*) echo {confined};; *) exec /bin/cat "$@";; esac')
        assert check(path, inside, TMPDIR=str(folder)) == outcome
