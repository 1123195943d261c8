# SPDX-License-Identifier: Apache-2.0
"""ravosh against a living ravod: commands of -c, of files and of standard input."""

import re
import socket
import subprocess
from pathlib import Path

import pytest
from ravolab.relay import BUILD
from shells import daemon, sh  # noqa: F401 (fixtures)

INVALID = "^\n% Invalid input detected at '^' marker.\n"


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
