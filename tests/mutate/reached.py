# SPDX-License-Identifier: Apache-2.0
"""Which test programs run a function of user/src at all: the others need not be asked about a mutant in it.

The relay's library is compiled once more, to count what is run, and each program runs over it. What a program does in a
child that ends by a signal is not counted; so the programs with such tests are asked about every mutant.
"""

import json
import os
import re
import subprocess
import tempfile
from pathlib import Path

DYING = re.compile(r"(?:EXPECT|ASSERT)_(?:DEATH|EXIT)|\bfork\(")


def build(folder, words, sources, library):
    """Compile and link the counting library in this folder."""
    for stem, source in sources.items():
        subprocess.run([*words[stem], "-w", "-Wno-error", "-O0", "--coverage", "-c", source, "-o", f"{stem}.o"], cwd=folder,
                       check=True)
    subprocess.run(["c++", "-shared", "--coverage", f"-Wl,-soname,{library}", "-o", library,
                    *(f"{stem}.o" for stem in sources)], cwd=folder, check=True)


def counted(folder, program, sources):
    """{(source, first line, last line)} of the functions that a program runs."""
    for left in folder.glob("*.gcda"):
        left.unlink()
    environment = {**os.environ, "LD_LIBRARY_PATH": str(folder), "GTEST_BRIEF": "1"}
    with tempfile.TemporaryDirectory() as place:
        subprocess.run([program], env=environment, cwd=place, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL, timeout=600, check=True)
    found = set()
    counts = [f"{stem}.gcda" for stem in sources if (folder / f"{stem}.gcda").exists()]
    words = ["gcov", "--json-format", "--stdout", *counts]
    text = subprocess.run(words, cwd=folder, capture_output=True, text=True, check=True).stdout if counts else ""
    for line in text.splitlines():
        for file in json.loads(line)["files"]:
            stem = Path(file["file"]).stem
            if file["file"].endswith(".cpp") and stem in sources:
                found.update((stem, function["start_line"], function["end_line"]) for function in file["functions"]
                             if function["execution_count"] > 0)
    return found


class Reached:
    """What each program runs."""

    def __init__(self, words, sources, programs, tests, library):
        self.runs = {}
        self.dying = {path.name for path in programs
                      if DYING.search((tests / f"{path.name}.cpp").read_text(errors="replace"))}
        with tempfile.TemporaryDirectory(prefix="ravo-reached-") as name:
            folder = Path(name)
            build(folder, words, sources, library)
            for path in programs:
                self.runs[path.name] = counted(folder, path, sources)
        self.dying |= {name for name, runs in self.runs.items() if not runs}  # which leaves no counts behind

    def programs(self, source, line):
        """The names of the programs to ask about a mutant in this line; all, when none is known to run it."""
        around = {function for runs in self.runs.values() for function in runs
                  if function[0] == source and function[1] <= line <= function[2]}
        asked = {name for name, runs in self.runs.items() if runs & around}
        return asked | self.dying if asked else set(self.runs)
