# SPDX-License-Identifier: Apache-2.0
"""ravosh against a living ravod: a person at a real terminal."""

import os
import re
import signal
import termios

from ravolab.process import wait_for
from shells import HOST, daemon, person, sh  # noqa: F401 (fixtures)

CTRL_C, CTRL_D, CTRL_Z, ESC, UP, LEFT = "\x03", "\x04", "\x1a", "\x1b", "\x1b[A", "\x1b[D"


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


def test_ctrl_c_gives_up_a_text_that_is_collected(person):
    one = person()
    one.enters("configure replace terminal")
    one.sees_prompt("(replace)>")
    one.enters("ip dhcp relay hops 7")
    one.sees_prompt("(replace)>")
    one.types(CTRL_C)
    one.sees("% Given up; the session begins anew.")
    one.sees_prompt()
    one.enters("show privilege")
    one.sees("Current privilege level is 31")


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


def test_the_log_at_the_terminal_by_level_and_interface(person, daemon):
    one = person()
    one.enters("terminal monitor warning interface vlan77")
    one.sees_prompt()
    for vlan in (78, 77):
        daemon.sh("-c", "configure terminal", "-c", f"interface vlan {vlan}", "-c", "ip dhcp relay address 192.0.2.1")
    shown = one.sees("vlan77: ip dhcp relay address 192.0.2.1: done")
    assert re.search(r"\d\d:\d\d:\d\d\.\d{3} notice: audit: user root, session \d+: $", shown)
    assert "vlan78" not in shown
    one.enters("terminal no monitor")
    one.sees_prompt()


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
