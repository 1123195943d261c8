# SPDX-License-Identifier: Apache-2.0
"""The gates of the house can fail: each is broken once here, in a small tree of its own."""

import subprocess
import sys
from pathlib import Path

import pytest

LINT = Path(__file__).resolve().parents[1] / "lint"
TABLE = """\
user | platform/h | * | the relay
platform/h | | * | the boundary
platform/linux/base | <event2/> | loop.h | the ground floor
platform/linux/log | platform/linux/base | * | the log
"""


class Tree:
    """A house of its own, below a folder."""

    def __init__(self, root):
        self.root = root

    def write(self, path, text):
        file = self.root / path
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(text)

    def lint(self, name, *words):
        done = subprocess.run([sys.executable, LINT / name, "--root", self.root, *words], capture_output=True, text=True)
        return done.returncode, done.stdout

    def compile(self):
        """Compile every source, the objects named as the build names them; returns their folder."""
        for source in self.root.rglob("*.cpp"):
            made = self.root / "objects" / "x.dir" / source.relative_to(self.root).with_suffix(".cpp.o")
            made.parent.mkdir(parents=True, exist_ok=True)
            subprocess.run(["g++", f"-I{self.root}/platform/linux", "-c", "-o", made, source], check=True)
        return str(self.root / "objects")


@pytest.fixture
def tree(tmp_path):
    """A house in order."""
    made = Tree(tmp_path)
    made.write("tests/lint/rooms", TABLE)
    made.write("platform/linux/base/loop.h", "#include <event2/event.h>\nvoid loop();\n")
    made.write("platform/linux/base/owners.h", "// none\n")
    made.write("platform/linux/log/log.cpp", '#include "base/loop.h"\n')
    return made


def test_house_in_order(tree):
    assert tree.lint("includes") == (0, "")


def test_arrow_that_is_not_in_the_table(tree):
    tree.write("platform/linux/log/log.h", "void line();\n")
    tree.write("platform/linux/base/loop.cpp", '#include "base/loop.h"\n#include "log/log.h"\n')
    assert tree.lint("includes") == (
        1, "platform/linux/base/loop.cpp:2: platform/linux/base may not include platform/linux/log/log.h\n")


def test_header_that_is_no_door(tree):
    tree.write("platform/linux/log/log.cpp", '#include "base/loop.h"\n#include "base/owners.h"\n')
    assert tree.lint("includes") == (
        1, "platform/linux/log/log.cpp:2: owners.h is platform/linux/base's own; its doors are loop.h\n")


def test_door_that_nobody_uses(tree):
    tree.write("platform/linux/log/log.cpp", "\n")
    assert tree.lint("includes") == (1, "tests/lint/rooms: nobody uses platform/linux/base's door loop.h\n")


def test_library_in_the_wrong_room(tree):
    tree.write("user/relay.cpp", "#include <event2/event.h>\n")
    assert tree.lint("includes") == (1, "user/relay.cpp:1: user may not use <event2/event.h>\n")


def test_source_outside_every_room(tree):
    tree.write("platform/linux/attic/old.cpp", "\n")
    assert tree.lint("includes") == (1, "platform/linux/attic/old.cpp:1: stands in no room of tests/lint/rooms\n")


def test_circle_in_the_table(tree):
    tree.write("tests/lint/rooms", TABLE.replace("base | <event2/>", "base | <event2/> platform/linux/log"))
    assert tree.lint("includes") == (1, "tests/lint/rooms: a circle: platform/linux/base -> platform/linux/log -> "
                                        "platform/linux/base\n")


@pytest.mark.parametrize("table, complaint", [
    ("user | | here\n", "tests/lint/rooms:1: 3 columns instead of 4\n"),
    ("user | cellar | | the relay\n", "tests/lint/rooms: user may include cellar, which is no room\n"),
    ("user | | |\n", "tests/lint/rooms:1: user has no reason\n"),
])
def test_table_that_is_wrong(tree, table, complaint):
    tree.write("tests/lint/rooms", table)
    assert tree.lint("includes") == (1, complaint)


def test_no_circle_at_link_level(tree):
    tree.write("user/a.cpp", "int b();\nint a() { return b(); }\n")
    tree.write("user/b.cpp", "int b() { return 1; }\n")
    assert tree.lint("circles", "--objects", tree.compile()) == (0, "")


def test_circle_of_sources_of_the_relay(tree):
    tree.write("user/a.cpp", "int c();\nint a() { return c(); }\n")
    tree.write("user/b.cpp", "int a();\nint b() { return a(); }\n")
    tree.write("user/c.cpp", "int b();\nint c() { return b(); }\n")
    assert tree.lint("circles", "--objects", tree.compile()) == (1, """\
user: a circle: user/a.cpp -> user/c.cpp -> user/b.cpp -> user/a.cpp
    user/a.cpp needs c() of user/c.cpp
    user/c.cpp needs b() of user/b.cpp
    user/b.cpp needs a() of user/a.cpp
""")


def test_circle_of_rooms(tree):
    tree.write("platform/linux/base/loop.cpp", "int line();\nint loop() { return line(); }\n")
    tree.write("platform/linux/log/log.cpp", "int loop();\nint line() { return loop(); }\n")
    assert tree.lint("circles", "--objects", tree.compile()) == (1, """\
rooms: a circle: platform/linux/base -> platform/linux/log -> platform/linux/base
    platform/linux/base/loop.cpp needs line() of platform/linux/log/log.cpp
    platform/linux/log/log.cpp needs loop() of platform/linux/base/loop.cpp
platform/linux/base/loop.cpp: needs line() of platform/linux/log/log.cpp, which platform/linux/base may not include
""")


def test_source_that_was_not_compiled(tree):
    tree.write("user/a.cpp", "int a() { return 1; }\n")
    objects = tree.compile()
    tree.write("user/b.cpp", "int b() { return 1; }\n")
    assert tree.lint("circles", "--objects", objects) == (1, "circles: not compiled: user/b.cpp\n")


# ---- Namesakes ----

@pytest.fixture
def tested(tree):
    """A house in order whose one source has its test."""
    tree.write("user/src/relay.cpp", "")
    tree.write("tests/unit/user/relay_test.cpp", "")
    tree.write("platform/linux/log/log.cpp", "")
    tree.write("tests/unit/log/log_test.cpp", "")
    tree.write("tests/lint/covered", "# none\n")
    return tree


def test_every_source_has_its_test(tested):
    assert tested.lint("namesakes") == (0, "")


def test_source_without_a_test(tested):
    tested.write("platform/linux/log/log_ring.cpp", "")
    assert tested.lint("namesakes") == (
        1, "platform/linux/log/log_ring.cpp:1: no tests/unit/log/log_ring_test.cpp; write it, or say in tests/lint/covered "
           "what tests it\n")
    tested.write("tests/lint/covered", "platform/linux/log/log_ring | unit/log/log_test.cpp | part of it\n")
    assert tested.lint("namesakes") == (0, "")


def test_line_that_is_no_longer_true(tested):
    tested.write("tests/lint/covered", "user/src/relay | unit/user/other_test.cpp | none\nuser/src/gone | unit/user/relay_test.cpp | x\n"
                                       "nonsense\n")
    assert tested.lint("namesakes") == (
        1, "tests/lint/covered:1: user/src/relay has a test of its own name; take the line out\n"
           "tests/lint/covered:1: unit/user/other_test.cpp: no such test\n"
           "tests/lint/covered:2: user/src/gone: no such source; take the line out\n"
           "tests/lint/covered:3: is not SOURCE | TESTS | WHY: nonsense\n")


def test_folder_of_tests_that_is_no_room(tested):
    tested.write("tests/unit/elsewhere/x_test.cpp", "")
    assert tested.lint("namesakes") == (1, "tests/unit/elsewhere: no room of sources has this name\n")


def test_long_test_file(tree):
    def lint():
        done = subprocess.run([LINT / "length", tree.root], capture_output=True, text=True)
        return done.returncode, done.stdout

    tree.write("tests/unit/log/log_test.cpp", "\n" * 450)
    assert lint() == (0, "")
    tree.write("tests/lab/test_log.py", "\n" * 451)
    assert lint() == (1, "tests/lab/test_log.py:450: 451 lines, at most 450: split it by subject\n")


def test_a_fault_is_no_text(tree):
    tree.write("platform/linux/log/log.h", """// Why there is nothing: a fault's text.
std::string log_remark();
// Opens it. Returns why not.
fault log_try(const std::string &path);
// The name; empty when there is none.
std::string log_name();
""")
    assert tree.lint("faults") == (0, "")
    for comment in ("// Opens it. Returns an empty string, or\n// the reason.", "// Opens it; empty on success.",
                    "// What a name is that it should not be;\n// empty when it is good.", "// Opens it. Returns what is wrong."):
        tree.write("platform/linux/log/log.h", f"{comment}\n[[nodiscard]] std::string log_open(const std::string &path);\n")
        line = comment.count("\n") + 2
        assert tree.lint("faults") == (
            1, f"platform/linux/log/log.h:{line}: log_open returns what went wrong as a text; return a fault\n")
