# SPDX-License-Identifier: Apache-2.0
"""ravod in the lab's switch, and ravosh talking to it.

    relay = lab.start_relay()
    relay.configure("ip dhcp relay information option", "interface vlan 10", "ip dhcp relay address 192.0.2.11")
    text = relay.sh("show ip dhcp relay detail")
"""

import contextlib
import os
import re
import shutil
import signal
import socket
import subprocess
from pathlib import Path

from .process import PATIENCE, LabError, Process, wait_for

REPOSITORY = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("RAVO_BUILD") or REPOSITORY / "build")


# As whom the lab's daemons run: somebody whom every machine has, and who owns nothing.
USER = "nobody"


class Relay:
    def __init__(self, lab, *, build=None, log_level="trace", switch_toml=None, startup_config=None, options=(),
                 env=None, namespace=None, wrapper=(), **how):
        """switch_toml, startup_config: texts of the two files, empty without one, so that nothing of the host's
        own /etc/ravo counts; wrapper: words of a program that becomes ravod; how: more arguments of Process."""
        self.lab = lab
        self.namespace = namespace or lab.switch
        self.build = Path(build or BUILD)
        self.folder = lab.fresh_folder("relay")
        self.log_level, self.options, self.env, self.how = log_level, list(options), env, how
        self.wrapper = list(wrapper)
        self.socket = self.folder / "ravod.sock"
        self.switch_file = self.folder / "switch.toml"
        self.startup_file = self.folder / "startup-config"
        self.switch_file.write_text(switch_toml or "")
        self.startup_file.write_text(startup_config or "")
        shutil.chown(self.folder, USER)
        self.process = None

    def start(self, timeout=60):
        words = [*self.wrapper, self.build / "ravod", "--management", self.socket, "--switch", self.switch_file,
                 "--startup-config", self.startup_file, "--state", self.folder / "state",
                 "--log-level", self.log_level, "--log-to", "stderr", "--user", USER]
        self.process = Process(self.namespace, [*words, *self.options], self.folder / "log", env=self.env,
                               name="ravod", **self.how)
        self.lab.keep(self.process)
        wait_for(self._answers, timeout, lambda: f"answer from ravod; its log:\n{self.log[-2000:]}\nreadiness")
        return self

    def _answers(self):
        if not self.process.alive:
            raise LabError(f"ravod ended with status {self.process.status}; its log:\n{self.log[-2000:]}")
        with socket.socket(socket.AF_UNIX) as probe:
            try:
                probe.connect(str(self.socket))
            except OSError:
                return False
        return True

    @property
    def pid(self):
        return self.process.pid

    def descriptors(self):
        """What ravod's open descriptors are, as the kernel names them; one that closes meanwhile does not count."""
        found = []
        for fd in os.listdir(f"/proc/{self.pid}/fd"):
            with contextlib.suppress(FileNotFoundError):
                found.append(os.readlink(f"/proc/{self.pid}/fd/{fd}"))
        return found

    @property
    def alive(self):
        return self.process is not None and self.process.alive

    @property
    def log(self):
        return self.process.log if self.process else ""

    def wait_log(self, pattern, timeout=30, since=0):
        """The first match of the regular expression in the log behind offset since."""
        return wait_for(lambda: re.search(pattern, self.log[since:]), timeout,
                        f"line matching {pattern!r} in ravod's log")

    def stop(self, number=signal.SIGTERM):
        """End ravod; its exit status."""
        return self.process.stop(number)

    def restart(self):
        self.stop()
        return self.start()

    def run(self, *commands, timeout=60):
        """Run commands in one ravosh session; result with returncode, stdout and stderr."""
        words = [str(self.build / "ravosh"), "--management", str(self.socket)]
        for command in commands:
            words += ["-c", command]
        return subprocess.run(words, text=True, capture_output=True, timeout=timeout * PATIENCE,
                              stdin=subprocess.DEVNULL)

    def sh(self, *commands, timeout=60):
        """Run commands that must succeed; what the daemon printed."""
        result = self.run(*commands, timeout=timeout)
        if result.returncode != 0:
            raise LabError(f"ravosh: {'; '.join(commands)}: status {result.returncode}\n{result.stdout}{result.stderr}")
        return result.stdout

    def configure(self, *lines):
        """Run commands from global configuration mode on; "interface vlan N" lasts until "exit" or the end."""
        return self.sh("configure terminal", *lines)

    def running_config(self):
        return self.sh("show running-config")
