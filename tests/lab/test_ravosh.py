# SPDX-License-Identifier: Apache-2.0
"""ravosh against a living ravod: commands of -c, of files and of standard input, and a person at a real terminal."""

import os
import re
import signal
import socket
import subprocess
import termios
from pathlib import Path

import pexpect
import pytest

from managed import Daemon
from ravolab.process import wait_for
from ravolab.relay import BUILD

HOST = socket.gethostname().split(".")[0]
CTRL_C, CTRL_D, CTRL_Z, ESC, UP, LEFT = "\x03", "\x04", "\x1a", "\x1b", "\x1b[A", "\x1b[D"


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


INVALID = "^\n% Invalid input detected at '^' marker.\n"


# ---- Commands that are not typed ----

def test_commands_run_in_order_in_one_session(sh):
    result = sh("-c", "configure terminal", "-c", "ip dhcp relay hops 7", "-c", "end", "-c", "show running-config")
    assert "ip dhcp relay hops 7\n" in result.stdout
    assert (result.stderr, result.returncode) == ("", 0)


def test_a_failing_command_does_not_stop_the_later_ones(sh):
    result = sh("-c", "nonsense", "-c", "show privilege")
    assert result.stdout.startswith(INVALID) and len(result.stdout) > len(INVALID)
    assert (result.stderr, result.returncode) == ("", 1)


def test_each_start_is_a_session_of_its_own(sh):
    assert sh("-c", "configure terminal").returncode == 0
    assert sh("-c", "ip dhcp relay hops 7").stdout == INVALID


def test_a_file_is_read_whatever_its_line_ends(sh, tmp_path):
    file = tmp_path / "commands"
    file.write_bytes(b"! a comment\r\n\r\nconfigure terminal\r\nip dhcp relay hops 9\nend\nshow running-config")
    result = sh(str(file))
    assert "ip dhcp relay hops 9\n" in result.stdout
    assert (result.stderr, result.returncode) == ("", 0)


def test_a_mark_of_utf8_at_a_files_beginning_is_skipped(sh, tmp_path):
    file = tmp_path / "commands"
    file.write_bytes(b"\xef\xbb\xbfconfigure terminal\r\n\xef\xbb\xbfip dhcp relay hops 9\n")
    result = sh(str(file))
    fault = f"{file}:2: \ufeffip dhcp relay hops 9\n{INVALID}"
    assert (result.stdout, result.stderr, result.returncode) == ("", fault, 1)


def test_what_fails_in_a_file_is_told_with_its_place(sh, tmp_path):
    file = tmp_path / "commands"
    file.write_text("show privilege\nnonsense\n\n! a remark\nshow startup nonsense\nshow privilege\n")
    level = sh("-c", "show privilege").stdout
    marker = "% Invalid input detected at '^' marker.\n"
    first, second = f"{file}:2: nonsense\n{INVALID}", f"{file}:5: show startup nonsense\n{' ' * 13}^\n{marker}"
    result = sh(str(file))
    assert (result.stdout, result.stderr, result.returncode) == (level * 2, first + second, 1)
    result = sh("--stop-on-error", str(file))
    assert (result.stdout, result.stderr, result.returncode) == (level, first, 1)
    result = sh("--stop-on-error", "-c", "nonsense", "-c", "show privilege")
    assert (result.stdout, result.stderr, result.returncode) == (INVALID, "", 1)


def test_standard_input_is_read_when_it_is_no_terminal(sh):
    for words in ([], ["-"]):
        result = sh(*words, stdin="nonsense\nshow privilege\n")
        assert result.stdout.startswith(INVALID) and len(result.stdout) > len(INVALID)
        assert (result.stderr, result.returncode) == ("", 1)


def test_commands_come_before_the_file_and_standard_input_is_left_alone(sh, tmp_path):
    file = tmp_path / "commands"
    file.write_text("ip dhcp relay hops 11\nend\nshow running-config | include hops\n")
    result = sh("-c", "configure terminal", str(file), stdin="nonsense\n")
    assert (result.stdout, result.stderr, result.returncode) == ("ip dhcp relay hops 11\n", "", 0)


def test_exit_ends_the_session_early(sh):
    result = sh("-c", "exit", "-c", "nonsense")
    assert (result.stdout, result.stderr, result.returncode) == ("", "", 0)
    result = sh(stdin="nonsense\nexit\nshow privilege\n")
    assert (result.stdout, result.stderr, result.returncode) == (INVALID, "", 1)


def test_a_line_that_is_too_long_fails_and_the_next_is_run(sh):
    result = sh(stdin="x" * 1_000_000 + "\nshow privilege\n")
    first, rest = result.stdout.split("\n", 1)
    assert re.fullmatch(r"% Line too long: \d+ bytes, at most 32768", first)
    assert rest and result.returncode == 1


def test_what_is_wrong_with_the_usage_is_told(sh):
    for words, fault in ((["-x"], 'unknown option "-x"'), (["-c"], "option -c needs a command"),
                         (["--management"], "option --management needs the path of a socket"),
                         (["a", "b"], 'more than one file: "a" and "b"')):
        result = sh(*words)
        assert (result.stdout, result.stderr, result.returncode) == ("", f"ravosh: {fault}; see ravosh --help\n", 2)


def test_help_and_version(sh):
    result = sh("--help")
    assert result.stdout.startswith("Usage: ravosh [--management SOCKET] [--stop-on-error] [-c COMMAND]... [FILE]\n")
    assert (result.stderr, result.returncode) == ("", 0)
    result = sh("--version")
    version = (Path(__file__).resolve().parents[2] / "VERSION").read_text().strip()
    assert (result.stdout, result.stderr, result.returncode) == (f"ravosh {version}\n", "", 0)


def test_an_unreachable_daemon_is_told(tmp_path):
    missing = tmp_path / "none.sock"
    result = subprocess.run([BUILD / "ravosh", "--management", missing, "-c", "show privilege"], text=True,
                            capture_output=True, timeout=60)
    assert (result.stdout, result.returncode) == ("", 2)
    assert result.stderr == f"ravosh: {missing}: no ravod is running there: there is no such socket\n"


def test_a_missing_file_is_told(sh, tmp_path):
    result = sh(str(tmp_path / "none"))
    assert (result.stdout, result.returncode) == ("", 2)
    assert result.stderr == f"ravosh: {tmp_path}/none: cannot open: No such file or directory\n"


def test_anyone_else_is_refused(daemon):
    # The folder of the test belongs to root alone; the socket is to be what refuses.
    folder = daemon.socket.parent
    while folder != Path("/tmp") and folder != Path("/"):
        folder.chmod(0o755)
        folder = folder.parent
    line = (f"ravosh: {daemon.socket}: permission denied; only root and members of group ravo or ravo-admin "
            "may use ravod\n")
    as_nobody = ["setpriv", "--reuid", "nobody", "--regid", "nogroup", "--clear-groups", "--"]
    ravosh = (BUILD / "ravosh").read_bytes()
    copy = daemon.folder / "ravosh"  # the build folder may be closed to others too
    copy.write_bytes(ravosh)
    copy.chmod(0o755)
    result = subprocess.run([*as_nobody, copy, "--management", daemon.socket, "-c", "show privilege"], text=True,
                            capture_output=True, timeout=60)
    assert (result.stdout, result.stderr, result.returncode) == ("", line, 2)


def test_a_reader_that_goes_away_ends_it_without_a_word(daemon):
    command = f"{BUILD}/ravosh --management {daemon.socket} -c 'show running-config' -c 'show running-config'"
    result = subprocess.run(["bash", "-c", f"set -o pipefail; {command} | true; echo ${{PIPESTATUS[0]}}"], text=True,
                            capture_output=True, timeout=60)
    assert result.stderr == ""
    assert result.stdout in ("0\n", "141\n")


def test_a_full_disk_is_told(daemon):
    with open("/dev/full", "w") as full:
        result = subprocess.run([BUILD / "ravosh", "--management", daemon.socket, "-c", "show privilege"], text=True,
                                stdout=full, stderr=subprocess.PIPE, timeout=60)
    assert result.stderr == "ravosh: cannot write to standard output: No space left on device\n"
    assert result.returncode == 2


@pytest.mark.parametrize("words, closed, fault", [
    ("-c 'show privilege'", ">&-", "ravosh: cannot write to standard output: Bad file descriptor\n"),
    ("", "<&-", "ravosh: standard input: cannot read: Bad file descriptor\n"),
    ("", "<&- >&- 2>&-", ""),
])
def test_a_closed_stream_is_told_and_is_not_the_connection(daemon, words, closed, fault):
    result = subprocess.run(["sh", "-c", f"exec {BUILD}/ravosh --management {daemon.socket} {words} {closed}"],
                            text=True, capture_output=True, timeout=60)
    assert (result.stdout, result.stderr, result.returncode) == ("", fault, 2)


def test_a_slow_reader_gets_everything(daemon, sh):
    lines = "".join(f"interface vlan {vlan}\nip dhcp relay address 192.0.2.1\n" for vlan in range(1, 1001))
    assert sh(stdin="configure terminal\n" + lines).returncode == 0
    expected = sh("-c", "show running-config").stdout
    assert expected.count("interface vlan") == 1000
    command = f"{BUILD}/ravosh --management {daemon.socket} -c 'show running-config'"
    # Nothing is read before the daemon has finished with the session.
    slow = f"{command} | (until [ $(grep -c 'management: session .* ends' {daemon.folder}/log1) -ge 3 ] " \
           "|| [ $((n += 1)) -gt 500 ]; do sleep 0.01; done; cat)"
    result = subprocess.run(["bash", "-c", slow], text=True, capture_output=True, timeout=120)
    assert result.stdout == expected


# ---- A person at a terminal ----

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


def test_prompts_tell_the_mode(person):
    one = person()
    one.enters("configure terminal")
    one.sees_prompt("(config)#")
    one.enters("interface vlan 10")
    one.sees_prompt("(config-if)#")
    one.enters("exit")
    one.sees_prompt("(config)#")
    one.types(CTRL_Z)
    one.sees("^Z")
    one.sees_prompt()
    one.enters("exit")
    assert one.leaves() == 0


def test_question_mark_lists_the_next_words_without_enter(person):
    one = person()
    one.types("show v?")
    assert re.search(r"\n  version  +\S.*\r\n$", one.sees_prompt())
    one.sees("show v")
    one.types("ersion\r")
    one.sees("DHCPv4 relay agent")


def test_question_mark_never_lists_the_programs_commands(person):
    one = person()
    one.types("?")
    listed = one.sees_prompt()
    assert re.search(r"\n  show  ", listed)
    assert not re.search(r"\n  dhcp  ", listed)


def test_question_mark_inside_quotes_is_typed(person):
    one = person()
    one.enters('nonsense "a?b"')
    assert 'nonsense "a?b"' in one.sees("% Invalid input detected")


def test_tab_completes_a_word_or_lists_what_it_could_be(person):
    one = person()
    one.types("sho\tver\t\r")
    one.sees("DHCPv4 relay agent")
    one.sees_prompt()
    one.types("show \t")
    listed = one.sees_prompt()
    assert "version" in listed and "running-config" in listed
    one.sees("show ")


def test_the_caret_stands_under_the_wrong_word(person):
    one = person()
    one.enters("show nonsense")
    shown = one.sees("% Invalid input").replace("\r", "").split("\n")
    assert shown[0] == "show nonsense"
    assert shown[1] == " " * len(f"{HOST}#show ") + "^"


def test_ctrl_c_drops_the_line_and_ctrl_d_leaves(person):
    one = person()
    one.types("nonsense" + CTRL_C)
    one.sees("^C")
    one.sees_prompt()
    one.enters("show version")
    assert "Invalid" not in one.sees("DHCPv4 relay agent")
    one.sees_prompt()
    one.types(CTRL_D)
    assert one.leaves() == 0


def test_the_cursor_moves_in_the_line(person):
    one = person()
    one.types("show verion" + LEFT * 3 + "s\r")
    one.sees("DHCPv4 relay agent")


def test_history_is_kept_for_the_next_shell(person, tmp_path):
    one = person()
    one.enters("show version")
    one.sees_prompt()
    one.enters("exit")
    one.leaves()
    assert (tmp_path / ".ravo_history").read_text() == "show version\nexit\n"
    assert (tmp_path / ".ravo_history").stat().st_mode & 0o777 == 0o600
    two = person()
    two.types(UP + UP)
    two.sees("show version")
    two.types("\r")
    two.sees("DHCPv4 relay agent")


def test_long_output_comes_in_pages(person, sh):
    lines = "".join(f"interface vlan {vlan}\nip dhcp relay address 192.0.2.1\n" for vlan in range(101, 201))
    assert sh(stdin="configure terminal\n" + lines).returncode == 0
    one = person(rows=11)
    one.enters("show running-config")
    pages = [one.sees("--More--")]
    one.types(" ")
    pages.append(one.sees("--More--"))
    one.types("\r")
    pages.append(one.sees("--More--"))
    # The first page begins behind the echoed command, the others behind the question that was wiped.
    assert [page.count("\n") for page in pages] == [1 + 10, 10, 1]
    one.types("q")
    one.sees_prompt()
    one.enters("terminal length 0")
    one.sees_prompt()
    one.enters("show running-config")
    whole = one.sees_prompt()
    assert "--More--" not in whole and "interface vlan200" in whole


def test_a_window_that_is_resized_neither_pages_nor_answers(person):
    one = person(rows=10)
    one.enters("show ip dhcp relay detail")
    one.sees("--More--")
    one.child.setwinsize(12, 60)
    one.types("\r")
    assert one.sees("--More--").count("\n") == 1
    one.types("q")
    one.sees_prompt()
    one.enters("reset relay")
    one.sees("? [y/N] ")
    one.child.setwinsize(10, 80)
    one.types("y")
    one.sees("y\r\n")
    one.sees_prompt()


def test_terminal_length_sets_the_page(person):
    one = person(rows=50)
    one.enters("terminal length 4")
    one.sees_prompt()
    one.types("show ip dhcp relay\r")
    assert one.sees("--More--").count("\n") == 1 + 3
    one.types(CTRL_C)
    one.sees_prompt()


def test_log_lines_do_not_disturb_the_line_being_typed(person, sh):
    one = person()
    one.enters("terminal monitor")
    one.sees_prompt()
    one.types("show vers")
    one.sees("show vers")
    assert sh("-c", "show privilege").returncode == 0
    one.sees("of user root begins with privilege 31\r\n")
    one.sees("of user root ends\r\n")
    one.sees_prompt()
    one.sees("show vers")
    one.types("ion\r")
    one.sees("DHCPv4 relay agent")


def test_a_restart_of_the_daemon_is_told_and_the_line_stays(person, daemon):
    one = person()
    one.enters("configure terminal")
    one.sees_prompt("(config)#")
    one.types("show vers")
    one.sees("show vers")
    daemon.process.stop()
    one.sees("% Connection to ravod lost; trying again.")
    one.sees_prompt()
    one.sees("show vers")
    daemon.start()
    one.sees("% Connected to ravod again.")
    one.sees("show vers")
    one.types("ion\r")
    one.sees("DHCPv4 relay agent")


def test_a_command_without_a_daemon_is_told(person, daemon):
    one = person()
    daemon.process.stop()
    one.sees("% Connection to ravod lost; trying again.")
    one.sees_prompt()
    one.enters("show version")
    one.sees("% Not connected: ")
    one.sees_prompt()
    daemon.start()
    one.sees("% Connected to ravod again.")


def test_exit_leaves_also_without_a_daemon(person, daemon):
    one = person()
    daemon.process.stop()
    one.sees("% Connection to ravod lost; trying again.")
    one.sees_prompt()
    one.enters(" exit ")
    assert one.leaves() == 0
    daemon.start()


def test_a_daemon_that_does_not_answer_a_question_mark_is_given_up(person, daemon):
    one = person()
    for key in ("?", "\t"):
        one.types("sh")
        one.sees("sh")
        os.kill(daemon.process.pid, signal.SIGSTOP)
        try:
            one.types(key)
            wait_for(lambda: signals_are_keys(one.child) is False, 60, "question to the daemon")
            one.types(CTRL_C)
            one.sees("% Connection to ravod lost; trying again.")
        finally:
            os.kill(daemon.process.pid, signal.SIGCONT)
        one.sees("% Connected to ravod again.")
        one.types("\x15show version\r")
        one.sees("DHCPv4 relay agent")
        one.sees_prompt()


def signals_are_keys(child):
    """Whether Ctrl-C is a key like others at the person's terminal."""
    return not termios.tcgetattr(child.child_fd)[3] & termios.ISIG


def test_a_reset_is_asked_about(person):
    one = person()
    for key, echo in (("n", "n\r\n"), ("y", "y\r\n")):
        one.enters("reset relay")
        one.sees("? [y/N] ")
        one.types(key)
        one.sees(echo)
        one.sees_prompt()


def test_two_people_have_modes_of_their_own(person):
    one, two = person(), person()
    one.enters("configure terminal")
    one.sees_prompt("(config)#")
    two.enters("show version")
    two.sees("DHCPv4 relay agent")
    two.sees_prompt("#")


def test_as_a_login_shell_nothing_leads_out_of_it(person):
    one = person(name="-ravosh")
    # Stopping it, the editor's own commands, an external editor, a shell's escapes.
    one.types(CTRL_Z)
    one.sees("^Z")
    one.sees_prompt()
    one.types(ESC + "x")
    one.types(ESC + "v" + "\x1c")
    one.types(CTRL_C)
    one.sees("^C")
    one.sees_prompt()
    one.enters("!id")
    assert "uid=" not in one.sees_prompt()
    one.enters("show version")
    one.sees("DHCPv4 relay agent")
    one.sees_prompt()
    one.enters("exit")
    assert one.leaves() == 0
