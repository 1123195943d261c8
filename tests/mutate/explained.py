# SPDX-License-Identifier: Apache-2.0
"""The list of mutants that may survive, and why: tests/mutate/explained.txt.

One entry a mutant or a family of them, with an empty line behind each:

    ravo_if_relay
    - the line as it is
    + the line as it becomes
    why nobody can notice the change

A line of - or + may end in "...": any line that begins so is meant; more than one + means each of these.
"""

import dataclasses


@dataclasses.dataclass
class Entry:
    source: str
    before: str
    after: list
    why: str
    used: bool = False

    def fits(self, source, mutant):
        return (source == self.source and matches(self.before, mutant.before)
                and any(matches(line, mutant.after) for line in self.after))


def matches(pattern, line):
    return line.startswith(pattern[:-3]) if pattern.endswith("...") else line == pattern


class Explanations:
    def __init__(self, entries):
        self.entries = entries

    def explains(self, source, mutant):
        fitting = [entry for entry in self.entries if entry.fits(source, mutant)]
        for entry in fitting:
            entry.used = True
        return bool(fitting)

    def unused(self):
        return [f"{entry.source}: {entry.before}" for entry in self.entries if not entry.used]


def entry_of(block):
    """An entry of its lines. A malformed one raises ValueError."""
    source, *rest = block
    before = [line[2:].strip() for line in rest if line.startswith("- ")]
    after = [line[2:].strip() for line in rest if line.startswith("+ ")]
    why = [line for line in rest if not line.startswith(("- ", "+ "))]
    if len(before) != 1 or not after or not why:
        raise ValueError(f"explained.txt: an entry of {source} has not one -, a + and a reason")
    return Entry(source.strip(), before[0], after, " ".join(why))


def read(path):
    lines = [line for line in path.read_text().splitlines() if not line.startswith("#")] if path.exists() else []
    blocks, block = [], []
    for line in [*lines, ""]:
        if line.strip():
            block.append(line)
        elif block:
            blocks.append(block)
            block = []
    return Explanations([entry_of(block) for block in blocks])
