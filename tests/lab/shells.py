# SPDX-License-Identifier: Apache-2.0
"""ravosh for the tests: run with words, or with a person at a real terminal. daemon, sh and person are fixtures."""

import os
import re
import socket
import subprocess

import pexpect
import pytest
from managed import Daemon
from ravolab.process import wait_for
from ravolab.relay import BUILD

HOST = socket.gethostname().split(".")[0]


@pytest.fixture
def daemon(tmp_path):
    daemon = Daemon(tmp_path).start("--log-level", "trace")
    yield daemon
    alive = daemon.process.alive
    daemon.close()
    assert alive, daemon.log


@pytest.fixture
def sh(daemon):
    """ravosh with these words; its result."""
    def run(*words, stdin="", **more):
        return subprocess.run([BUILD / "ravosh", "--management", daemon.socket, *words], input=stdin, text=True,
                              capture_output=True, timeout=60, **more)
    return run


class Person:
    def __init__(self, daemon, home, columns=80, rows=24, name=None):
        words = [str(BUILD / "ravosh"), "--management", str(daemon.socket)]
        if name:
            words = ["bash", "-c", f'exec -a {name} "$0" "$@"', *words]
        environment = {**os.environ, "HOME": str(home), "TERM": "xterm", "LC_ALL": "C.UTF-8"}
        self.child = pexpect.spawn(words[0], words[1:], timeout=60, dimensions=(rows, columns), env=environment,
                                   encoding="utf-8")
        self.sees_prompt()

    def types(self, text):
        self.child.send(text)

    def enters(self, line):
        self.child.send(line + "\r")

    def sees(self, text):
        """Waits for the text; what came before it, without the cursor's moves in its row."""
        self.child.expect_exact(text)
        return re.sub(r"\r?\x1b\[\d+[CG]", "", self.child.before)

    def sees_prompt(self, mode="#"):
        return self.sees(f"{HOST}{mode}")

    def leaves(self):
        self.child.expect(pexpect.EOF)
        wait_for(lambda: not self.child.isalive(), 60, "end of ravosh")
        return self.child.exitstatus


@pytest.fixture
def person(daemon, tmp_path):
    people = []

    def arrive(**how):
        people.append(Person(daemon, tmp_path, **how))
        return people[-1]
    yield arrive
    for one in people:
        one.child.close(force=True)
