# SPDX-License-Identifier: Apache-2.0
"""Which test programs run a line of user/src at all: the others need not be asked about a mutant in it.

The relay's library is compiled once more, to count what is run, and each program runs over it. A child that is aborted
writes its counts too, since death tests are tests.
"""

import json
import os
import subprocess
import tempfile
from pathlib import Path

# In the counting library: what an aborted child has run is counted.
AT_ABORT = """
#include <signal.h>
extern "C" void __gcov_dump(void);
static void write_counts(int number) {
    __gcov_dump();
    signal(number, SIG_DFL);
    raise(number);
}
__attribute__((constructor)) static void listen() { signal(SIGABRT, write_counts); }
"""


def build(folder, words, sources, library):
    """Compile and link the counting library in this folder."""
    for stem, source in sources.items():
        subprocess.run([*words[stem], "-w", "-Wno-error", "-O0", "--coverage", "-c", source, "-o", f"{stem}.o"], cwd=folder,
                       check=True)
    (folder / "at_abort.cpp").write_text(AT_ABORT)
    subprocess.run(["c++", "-shared", "-fPIC", "--coverage", f"-Wl,-soname,{library}", "-o", library, "at_abort.cpp",
                    *(f"{stem}.o" for stem in sources)], cwd=folder, check=True)


def counted(folder, program, sources):
    """({(source, first line, last line)} of the functions that a program runs, {(source, line)} that it runs)"""
    for left in folder.glob("*.gcda"):
        left.unlink()
    environment = {**os.environ, "LD_LIBRARY_PATH": str(folder), "GTEST_BRIEF": "1"}
    with tempfile.TemporaryDirectory() as place:
        subprocess.run([program], env=environment, cwd=place, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL, timeout=600, check=True)
    functions, lines = set(), set()
    counts = [f"{stem}.gcda" for stem in sources if (folder / f"{stem}.gcda").exists()]
    words = ["gcov", "--json-format", "--stdout", *counts]
    text = subprocess.run(words, cwd=folder, capture_output=True, text=True, check=True).stdout if counts else ""
    for line in text.splitlines():
        for file in json.loads(line)["files"]:
            stem = Path(file["file"]).stem
            if file["file"].endswith(".cpp") and stem in sources:
                functions.update((stem, function["start_line"], function["end_line"]) for function in file["functions"]
                                 if function["execution_count"] > 0)
                lines.update((stem, line["line_number"]) for line in file["lines"] if line["count"] > 0)
    return functions, lines


class Reached:
    """What each program runs."""

    def __init__(self, words, sources, programs, library):
        self.functions = {}
        self.lines = {}
        with tempfile.TemporaryDirectory(prefix="ravo-reached-") as name:
            folder = Path(name)
            build(folder, words, sources, library)
            for path in programs:
                self.functions[path.name], self.lines[path.name] = counted(folder, path, sources)
        # What leaves no counts behind is asked about everything.
        self.silent = {name for name, runs in self.functions.items() if not runs}

    def programs(self, source, line):
        """The names of the programs to ask about a mutant in this line: those that run it or a neighbour, which may
        count for it; when none does, those that run its function; when none is known to, all."""
        lines = {(source, number) for number in (line - 1, line, line + 1)}
        functions = {function for runs in self.functions.values() for function in runs
                     if function[0] == source and function[1] <= line <= function[2]}
        for counts, wanted in ((self.lines, lines), (self.functions, functions)):
            asked = {name for name, runs in counts.items() if runs & wanted}
            if asked:
                return asked | self.silent
        return set(self.functions)
