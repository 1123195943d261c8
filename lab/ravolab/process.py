# SPDX-License-Identifier: Apache-2.0
"""Processes of the lab, and waiting for what they do.

A process runs in a session of its own, so that Ctrl-C on the terminal reaches the lab's runner alone,
which then ends the lab in order. The kernel kills it when the runner dies for whatever reason
(PR_SET_PDEATHSIG, which holds across exec but belongs to the starting thread: hence main thread only).
That order is lost by a program that changes its own user or capabilities, and unknown to what a program
forks into the background. A "contained" process therefore is the child of the first process of a PID
namespace, which is a shell that keeps the order: when the shell dies, the kernel ends all the others.
It also has a mount namespace of its own, so that mounts over /run or /var stay unseen by the host.
"""

import contextlib
import os
import shlex
import signal
import subprocess
import threading
import time
from pathlib import Path

# Limits are for what never comes, and long enough for a machine with much else to do. On an emulated machine everything
# takes longer still: what is waited for gets this many times the usual limit.
PATIENCE = float(os.environ.get("RAVO_LAB_PATIENCE") or 1)


class LabError(Exception):
    """Something in the lab did not come up, answer or happen in time; the text is for a person."""


def wait_for(condition, timeout, what, interval=0.01):
    """Call condition() until it returns something true, and return that. LabError after timeout seconds.

    what: the thing waited for, as the end of "no ... within N seconds", or a function that returns it.
    """
    timeout *= PATIENCE
    end = time.monotonic() + timeout
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() >= end:
            raise LabError(f"no {what() if callable(what) else what} within {timeout:g} seconds")
        time.sleep(interval)


def _first_child(pid):
    try:
        return int(Path(f"/proc/{pid}/task/{pid}/children").read_text().split()[0])
    except (OSError, IndexError):
        return None


class Process:
    """One program started in a namespace; its standard output and error go to the file `log`."""

    def __init__(self, namespace, argv, log, *, env=None, contained=False, mount_script=None, name=None, stderr=None):
        """mount_script: shell commands run in the mount namespace before the program (contained only); stderr: a file
        for its standard error, in place of the log."""
        if threading.current_thread() is not threading.main_thread():
            raise LabError("processes of the lab are started by the main thread: they die with their starter")
        self.argv = [str(word) for word in argv]
        self.name = name or Path(self.argv[0]).name
        self.log_path = Path(log)
        self.contained = contained
        command = ["setpriv", "--pdeathsig", "KILL", "nsenter", f"--net={namespace.path}", "--"]
        if contained:
            script = f"{mount_script or ':'}\n{shlex.join(self.argv)} || exit $?\nexit 0"
            command += ["unshare", "--mount", "--pid", "--fork", "--kill-child=KILL", "--mount-proc",
                        "sh", "-ec", script]
        else:
            command += self.argv
        with open(self.log_path, "ab") as log_file:
            self._popen = subprocess.Popen(
                command, stdin=subprocess.DEVNULL, stdout=log_file, stderr=stderr or subprocess.STDOUT,
                start_new_session=True, env={**os.environ, "LC_ALL": "C", **(env or {})})

    @property
    def pid(self):
        """The program's process id; None while a contained one is still being started."""
        if not self.contained:
            return self._popen.pid
        shell = _first_child(self._popen.pid)
        return shell and _first_child(shell)

    @property
    def status(self):
        """Exit status, negative for a signal; None while it runs."""
        return self._popen.poll()

    @property
    def alive(self):
        return self.status is None

    @property
    def log(self):
        """What the program printed so far."""
        return self.log_path.read_text(errors="replace")

    def wait(self, timeout=60):
        timeout *= PATIENCE
        try:
            return self._popen.wait(timeout)
        except subprocess.TimeoutExpired:
            raise LabError(f"{self.name} (process {self.pid}) did not end within {timeout:g} seconds") from None

    def send_signal(self, number):
        pid = self.pid
        if pid is not None and self.alive:
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, number)

    def stop(self, number=signal.SIGTERM, timeout=60):
        """End the program and return its exit status; killed when it does not follow in time."""
        if self.alive:
            self.send_signal(number)
            try:
                return self._popen.wait(timeout * PATIENCE)
            except subprocess.TimeoutExpired:
                self.kill()
        return self._popen.wait()

    def kill(self):
        inner = _first_child(self._popen.pid) if self.contained and self.alive else None
        if inner is not None:
            with contextlib.suppress(ProcessLookupError):
                os.kill(inner, signal.SIGKILL)  # its starter collects it and ends
            with contextlib.suppress(subprocess.TimeoutExpired):
                return self._popen.wait(30 * PATIENCE)
        if self.alive:
            self._popen.kill()
        return self._popen.wait()
