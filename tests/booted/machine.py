# SPDX-License-Identifier: Apache-2.0
"""A Debian that was booted: systemd in a container of its own network, over a root that stays as it is.

What the machine writes goes into memory and is gone with it. The container is made by systemd-nspawn alone, so that
nothing of systemd need run on the box; commands are run in it by nsenter.
"""

import os
import shlex
import signal
import subprocess
import time
from pathlib import Path

ENVIRONMENT = {"PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root", "TERM": "dumb",
               "LANG": "C.UTF-8", "DEBIAN_FRONTEND": "noninteractive", "SYSTEMD_PAGER": "cat", "SYSTEMD_COLORS": "0"}
HALT = signal.SIGRTMIN + 3  # what systemd as the first process takes for it


class Failed(AssertionError):
    """What was expected did not come; the text says what did."""


def expect(condition, text):
    if not condition:
        raise Failed(text)


def wait_for(what, limit, text):
    """The first true answer of what(), asked until limit seconds are over."""
    end = time.monotonic() + limit
    while True:
        answer = what()
        if answer:
            return answer
        expect(time.monotonic() < end, f"{text}: not within {limit} s")
        time.sleep(0.05)


class Machine:
    """One that is started by start() and ended by stop(); both may be done again, for a reboot."""

    def __init__(self, name, root, work):
        """root: the folder of a Debian with systemd, which is not written to; work: a folder for what belongs to the machine.

        The caller has a mount namespace of its own: what is mounted here goes with it.
        """
        self.name = name
        self.work = Path(work)
        self.folder = self.work / "root"
        self.console = self.work / "console.log"
        self.container = None
        memory = self.work / "memory"
        for folder in (self.folder, memory):
            folder.mkdir(parents=True, exist_ok=True)
        subprocess.run(["mount", "-t", "tmpfs", "tmpfs", memory], check=True)
        (memory / "upper").mkdir()
        (memory / "work").mkdir()
        subprocess.run(["mount", "-t", "overlay", "overlay", "-o",
                        f"lowerdir={root},upperdir={memory}/upper,workdir={memory}/work", self.folder], check=True)

    def hurry(self):
        """What is in memory need not be brought to a disk, and nobody looks for a page by its words."""
        (self.folder / "etc/dpkg/dpkg.cfg.d/hurry").write_text("force-unsafe-io\n")
        (self.folder / "var/lib/man-db/auto-update").unlink(missing_ok=True)

    def start(self, limit=60):
        """Boot it, and wait until its basic target is there: seconds that took."""
        began = time.monotonic()
        with open(self.console, "ab") as console:
            self.container = subprocess.Popen(
                ["setpriv", "--pdeathsig", "KILL", "systemd-nspawn", "-q", "-D", self.folder, f"--machine={self.name}", "--register=no",
                 "--keep-unit", "--private-network", "--link-journal=no", "--boot"],
                stdin=subprocess.DEVNULL, stdout=console, stderr=console)
        wait_for(self.leader, limit, "a first process")
        wait_for(self.is_up, limit, f"{self.name} has booted (its console is in {self.console})")
        return time.monotonic() - began

    def is_up(self):
        expect(self.container.poll() is None, f"systemd-nspawn ended with status {self.container.poll()}: "
               + self.console.read_text(errors="replace")[-500:])
        return self.try_("systemctl is-system-running").stdout.strip() in ("running", "degraded")

    def leader(self):
        children = Path(f"/proc/{self.container.pid}/task/{self.container.pid}/children").read_text().split()
        return children[0] if children else None

    def stop(self, limit=60):
        """Halt it in order: seconds that took."""
        if self.container is None:
            return 0
        began = time.monotonic()
        leader = self.leader()
        if leader:
            os.kill(int(leader), HALT)
        try:
            self.container.wait(limit)
        except subprocess.TimeoutExpired:
            self.container.kill()
            self.container.wait()
            raise Failed(f"{self.name} did not halt within {limit} s") from None
        finally:
            self.container = None
        return time.monotonic() - began

    def words(self, command, user=None, groups=None):
        """What runs a command of the shell in the machine; with a user, as it is when it signs in."""
        inside = ["nsenter", "-t", self.leader(), "-m", "-u", "-i", "-n", "-p"]
        if user:
            inside += ["setpriv", f"--reuid={user}", "--init-groups", f"--regid={user}"]
        return [*inside, "env", "-i", *(f"{name}={value}" for name, value in ENVIRONMENT.items()), "sh", "-c", command]

    def try_(self, command, limit=60, user=None, text=None):
        """Run it: the finished process, its status whatever it is."""
        return subprocess.run(self.words(command, user), text=True, errors="replace", capture_output=True, timeout=limit,
                              **({"input": text} if text is not None else {"stdin": subprocess.DEVNULL}))

    def run(self, command, limit=60, user=None, text=None):
        """Standard output of one that has to succeed, without the blanks at its end."""
        done = self.try_(command, limit, user, text)
        expect(done.returncode == 0, f"{command}: status {done.returncode}: {(done.stdout + done.stderr).strip()[-600:]}")
        return done.stdout.rstrip()

    def start_program(self, command, unit):
        """Have systemd run a command beside the rest."""
        self.run(f"systemd-run --quiet --collect --unit={unit} {command}")

    def write(self, path, text, mode=0o644):
        self.run(f"cat >{shlex.quote(path)} && chmod {mode:o} {shlex.quote(path)}", text=text)
