# SPDX-License-Identifier: Apache-2.0
"""ravosh as the login shell of users who come in by ssh: a real sshd and a real client, in a namespace of their own.

Users, groups and sshd's folders are files that only the mount namespaces of the test's processes see.
"""

import grp
import os
import pwd
import re
import shutil
import signal
import socket
import subprocess
import tempfile
from pathlib import Path

import pexpect
import pytest

from managed import Daemon
from ravolab.process import Process, wait_for
from ravolab.relay import BUILD

SSHD = shutil.which("sshd", path="/usr/sbin:/usr/local/sbin")
PORT = 2222
HOST = socket.gethostname().split(".")[0]
GROUPS = {"ravo": 64001, "ravo-admin": 64002}
USERS = {"netview": (64011, "ravo"), "netadmin": (64012, "ravo-admin")}
INVALID = "^\n% Invalid input detected at '^' marker.\n"
DENIED = "% Not allowed for your group\n"

pytestmark = pytest.mark.skipif(SSHD is None, reason="sshd is not installed (Debian package openssh-server)")


def run(*words, **more):
    return subprocess.run([str(word) for word in words], text=True, capture_output=True, timeout=120, **more)


def sees_end(child):
    """Wait for the end of what the child shows, and of the child itself: closed before, it would be hung up."""
    child.expect(pexpect.EOF)
    child.wait()
    child.close()


def sees_prompt(child, mode="#"):
    child.expect_exact(HOST + mode)


class Box:
    """A ravod and an sshd that know two users, whose shell is ravosh."""

    def __init__(self, folder):
        self.folder = folder
        self.shell = folder / "ravosh"
        shutil.copy2(BUILD / "ravosh", self.shell)
        self.key = folder / "key"
        for name in ("key", "host-key"):
            made = run("ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", folder / name)
            assert made.returncode == 0, made.stderr
        self.write_users()
        (folder / "sshd_config").write_text(f"""ListenAddress 127.0.0.1:{PORT}
HostKey {folder}/host-key
AuthorizedKeysFile {folder}/key.pub
StrictModes no
UsePAM no
PidFile none
AcceptEnv *
PrintMotd no
PrintLastLog no
UseDNS no
Subsystem sftp /usr/lib/openssh/sftp-server
""")
        (folder / "known_hosts").write_text(f"[127.0.0.1]:{PORT} {(folder / 'host-key.pub').read_text()}")
        self.daemon = Daemon(folder)
        self.sshd = None
        self.persons = []

    def write_users(self):
        assert not {group.gr_gid for group in grp.getgrall()} & set(GROUPS.values())
        assert not {user.pw_uid for user in pwd.getpwall()} & {uid for uid, _ in USERS.values()}
        lines = {name: [line for line in Path("/etc", name).read_text().splitlines()
                        if line.split(":")[0] not in (*GROUPS, *USERS)] for name in ("passwd", "shadow", "group")}
        for name, (uid, group) in USERS.items():
            home = self.folder / "home" / name
            home.mkdir(parents=True)
            os.chown(home, uid, GROUPS[group])
            lines["passwd"].append(f"{name}:x:{uid}:{GROUPS[group]}::{home}:{self.shell}")
            lines["shadow"].append(f"{name}:*:19000:0:99999:7:::")
        lines["group"] += [f"{name}:x:{gid}:" for name, gid in GROUPS.items()]
        for name, rows in lines.items():
            file = self.folder / name
            file.write_text("".join(f"{row}\n" for row in rows))
            file.chmod(0o640 if name == "shadow" else 0o644)

    def start(self):
        bind = "\n".join(f"mount --bind {self.folder / name} /etc/{name}" for name in ("passwd", "shadow", "group"))
        self.daemon.start(contained=True, mount_script=bind)
        self.daemon.sh("-c", "logging level trace")
        folders = f"""mount -t tmpfs tmpfs /run
mkdir /run/sshd /run/ravo
mount --bind {self.daemon.socket.parent} /run/ravo"""
        self.sshd = Process(self.daemon.namespace, [SSHD, "-D", "-e", "-f", self.folder / "sshd_config"],
                            self.folder / "sshd-log", contained=True, mount_script=f"{bind}\n{folders}")
        wait_for(lambda: self.listens(), 60, lambda: f"sshd; its log:\n{self.sshd.log}\nreadiness")
        return self

    def listens(self):
        assert self.sshd.alive, self.sshd.log
        return f":{PORT}" in self.daemon.namespace.run("ss", "-Hltn", f"sport = {PORT}").stdout

    def client(self, program="ssh", *options):
        """The words that start an ssh program against the box, up to where its own begin."""
        settings = ["BatchMode=yes", "IdentitiesOnly=yes", f"UserKnownHostsFile={self.folder}/known_hosts",
                    f"Port={PORT}", f"IdentityFile={self.key}", "LogLevel=ERROR"]
        return ["nsenter", f"--net={self.daemon.namespace.path}", "--", program, "-F", "none",
                *(word for setting in settings for word in ("-o", setting)), *options]

    def ssh(self, user, *words, options=(), stdin="", env=None):
        return run(*self.client("ssh", *options), "--", f"{user}@127.0.0.1", *words, input=stdin,
                   env={**os.environ, **(env or {})})

    def terminal(self, user, *words, options=(), rows=24, env=None):
        """A person at a terminal."""
        child = pexpect.spawn("nsenter", [*self.client("ssh", *options)[1:], f"{user}@127.0.0.1", *words],
                              encoding="utf-8", timeout=60, dimensions=(rows, 80),
                              env={**os.environ, "TERM": "xterm", **(env or {})})
        self.persons.append(child)
        return child

    def logged_in(self, user, **how):
        child = self.terminal(user, **how)
        sees_prompt(child)
        return child

    def shells(self):
        """The processes that run this box's ravosh."""
        found = []
        for process in Path("/proc").glob("[0-9]*"):
            try:
                if os.path.samefile(process / "exe", self.shell):
                    found.append(int(process.name))
            except OSError:
                continue  # it ended, or belongs to the kernel
        return found

    def nothing_left(self):
        # ravosh and its session in the daemon; that the daemon sees the end comes behind it.
        return not self.shells() and not self.sessions()

    def sessions(self):
        """The daemon's sessions that began and did not end, by what it logs."""
        began = set(re.findall(r"^management: session (\d+) of user \S+ begins ", self.daemon.log, re.M))
        return began - set(re.findall(r"^management: session (\d+) of user .* (?:ends$|is closed: )",
                                      self.daemon.log, re.M))

    def close(self):
        if self.sshd:
            self.sshd.stop()
        self.daemon.close()


@pytest.fixture(scope="module")
def box():
    # Not pytest's folder, which is root's own: the users are to reach their homes and the socket.
    with tempfile.TemporaryDirectory(prefix="ravo-ssh-") as name:
        folder = Path(name)
        folder.chmod(0o755)
        box = Box(folder)
        try:
            yield box.start()
        finally:
            box.close()


@pytest.fixture(autouse=True)
def no_shell_left(box):
    yield
    while box.persons:
        box.persons.pop().close(force=True)
    wait_for(box.nothing_left, 60, lambda: f"end of the shells {box.shells()} and sessions {box.sessions()}")


# ---- Commands ----

def test_a_command_prints_what_the_daemon_says_and_returns_its_status(box):
    told = box.daemon.sh("-c", "show version")
    result = box.ssh("netview", "show version")
    assert (result.stdout, result.stderr, result.returncode) == (told, "", 0)
    result = box.ssh("netview", "show privilege")
    assert (result.stdout, result.stderr, result.returncode) == ("Current privilege level is 2\n", "", 0)
    result = box.ssh("netadmin", "show", "privilege", "| include level")
    assert (result.stdout, result.stderr, result.returncode) == ("Current privilege level is 31\n", "", 0)


def test_a_failing_or_refused_command_returns_1(box):
    result = box.ssh("netadmin", "nonsense")
    assert (result.stdout, result.stderr, result.returncode) == (INVALID, "", 1)
    result = box.ssh("netview", "configure terminal")
    assert (result.stdout, result.stderr, result.returncode) == (DENIED, "", 1)


def test_without_a_terminal_commands_come_from_standard_input(box):
    lines = "configure terminal\nip dhcp relay hops 7\nend\nshow running-config\n"
    result = box.ssh("netadmin", options=["-T"], stdin=lines + "configure terminal\nip dhcp relay hops 4\n")
    assert (result.stdout, result.stderr, result.returncode) == ("ip dhcp relay hops 7\n!\n", "", 0)
    result = box.ssh("netview", options=["-T"], stdin="configure terminal\nshow privilege\n")
    assert (result.stdout, result.stderr, result.returncode) == (DENIED + "Current privilege level is 2\n", "", 1)


@pytest.mark.parametrize("command", [
    "/bin/sh", "sh -c id", "show version; id", "show version && id", "$(id)", "`id`", "| id", "!id", "-c id",
    "--management /dev/null", "show version > /tmp/ravo-of-ssh"])
def test_no_other_program_runs(box, command):
    result = box.ssh("netadmin", command)
    assert "uid=" not in result.stdout + result.stderr
    if command.startswith("!"):  # a comment
        assert (result.stdout, result.stderr, result.returncode) == ("", "", 0)
    else:
        assert (result.stderr, result.returncode) == ("", 1) and result.stdout.endswith(INVALID), result
    assert not Path("/tmp/ravo-of-ssh").exists()


# ---- Files ----

@pytest.mark.parametrize("program, options", [("scp", []), ("scp", ["-O"])])
def test_no_file_goes_in_or_out(box, program, options):
    source, target = box.folder / "mine", box.folder / "home/netadmin/theirs"
    source.write_text("mine\n")
    result = run(*box.client(program, *options), source, f"netadmin@127.0.0.1:{target}")
    assert result.returncode != 0, result
    assert not target.exists()
    fetched = box.folder / "fetched"
    result = run(*box.client(program, *options), f"netadmin@127.0.0.1:{box.folder / 'group'}", fetched)
    assert result.returncode != 0, result
    assert not fetched.exists()


def test_no_sftp(box):
    result = run(*box.client("sftp", "-b", "-"), "netadmin@127.0.0.1", input="ls\n")
    assert result.returncode != 0 and "sftp>" not in result.stdout, result


# ---- The environment ----

def test_variables_of_the_client_change_nothing(box):
    trap = box.folder / "trap"
    variables = {"PAGER": f"touch {trap}", "EDITOR": f"touch {trap}", "VISUAL": f"touch {trap}", "ENV": str(trap),
                 "BASH_ENV": str(trap), "SHELL": "/bin/sh", "TERMCAP": "junk", "LC_ALL": "nonsense", "TERM": "nonsense"}
    options = [word for name in variables for word in ("-o", f"SendEnv={name}")]
    result = box.ssh("netview", "show privilege", options=options, env=variables)
    assert (result.stdout, result.stderr, result.returncode) == ("Current privilege level is 2\n", "", 0)
    child = box.terminal("netview", options=options, env=variables)
    sees_prompt(child)
    child.send("show privilege\r")
    child.expect_exact("Current privilege level is 2\r\n")
    sees_prompt(child)
    child.send("exit\r")
    sees_end(child)
    assert child.exitstatus == 0
    assert not trap.exists()


# ---- A person at a terminal ----

def test_a_person_logs_in_and_out(box):
    child = box.logged_in("netadmin")
    child.send("configure terminal\r")
    sees_prompt(child, "(config)#")
    child.send("interface vlan 10\r")
    sees_prompt(child, "(config-if)#")
    child.send("ip dhcp relay addr\x03")  # Ctrl-C drops the line and nothing else
    sees_prompt(child, "(config-if)#")
    child.send("end\r")
    sees_prompt(child)
    child.send("exit\r")
    sees_end(child)
    assert (child.exitstatus, child.signalstatus) == (0, None)
    assert (box.folder / "home/netadmin/.ravo_history").read_text() == \
        "configure terminal\ninterface vlan 10\nend\nexit\n"


def test_a_command_at_a_terminal_is_paged_or_not_as_its_length_needs(box):
    child = box.terminal("netview", "show privilege", options=["-t"])
    sees_end(child)
    assert (child.before, child.exitstatus) == ("Current privilege level is 2\r\n", 0)


def test_ctrl_c_ends_a_command_that_goes_on(box):
    child = box.logged_in("netadmin")
    child.send("monitor ip dhcp relay\r")
    child.expect_exact("\r\n")

    def back_at_prompt():
        child.send("\x03")
        return child.expect_exact([HOST + "#", pexpect.TIMEOUT], timeout=0.5) == 0
    wait_for(back_at_prompt, 60, "end of the command")
    child.send("show privilege\r")
    child.expect_exact("Current privilege level is 31\r\n")
    child.sendeof()
    sees_end(child)
    assert child.exitstatus == 0


def in_pager(child):
    child.send("show logging\r")
    child.expect_exact("--More--")


def in_monitor(child):
    child.send("monitor ip dhcp relay\r")
    child.expect_exact("\r\n")


def in_configuration(child):
    child.send("configure terminal\r")
    sees_prompt(child, "(config)#")


@pytest.mark.parametrize("where", [in_pager, in_monitor, in_configuration])
@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGHUP], ids=["cut", "closed"])
def test_a_connection_that_breaks_leaves_no_shell(box, where, number):
    child = box.logged_in("netadmin", rows=10)
    where(child)
    assert len(box.shells()) == 1
    child.kill(number)
    wait_for(box.nothing_left, 60, lambda: f"end of the shells {box.shells()} and sessions {box.sessions()}")
    child.close(force=True)
