# SPDX-License-Identifier: Apache-2.0
"""What the rows of the soak share: whether this is the long run (`make soak`), and the table at its end."""

import os
import time

LONG = os.environ.get("SOAK") == "full"
ROWS = []
BEGAN = time.monotonic()


def pick(short, long):
    return long if LONG else short


def note(what, found):
    """A row of the table that is printed at the end of the run."""
    ROWS.append((what, found, f"{time.monotonic() - BEGAN:.0f} s", f"{os.getloadavg()[0]:.1f}"))


def report(write):
    if not ROWS:
        return
    table = [("what the daemon went through", "and what was found", "after", "load"), *ROWS]
    widths = [max(len(line[column]) for line in table) for column in range(len(table[0]))]
    write("")
    for line in table:
        write("  ".join(cell.ljust(width) for cell, width in zip(line, widths)).rstrip())
