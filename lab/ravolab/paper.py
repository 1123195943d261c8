# SPDX-License-Identifier: Apache-2.0
"""What the tour writes on: a page 80 columns wide, coloured on a terminal only, plain where there is no UTF-8."""

import os
import re
import sys

WIDTH = 80
_STYLES = {"title": "1;36", "strong": "1", "good": "32", "bad": "31", "faint": "2", "key": "33"}
_PLAIN = str.maketrans("┌┐└┘├┤┬┴┼─│═→←✓✗·…", "+++++++++-|=><+x..")


class Paper:
    def __init__(self, out=None):
        self.out = out or sys.stdout
        self.colours = self.out.isatty() and "NO_COLOR" not in os.environ and os.environ.get("TERM") != "dumb"
        self.unicode = (self.out.encoding or "").lower().replace("-", "") == "utf8"

    def style(self, name, text):
        return f"\033[{_STYLES[name]}m{text}\033[0m" if self.colours else str(text)

    def line(self, text=""):
        print(text if self.unicode else text.translate(_PLAIN).encode("ascii", "replace").decode(),
              file=self.out, flush=True)

    def title(self, text):
        self.line()
        self.line(self.style("title", f"── {text} {'─' * (WIDTH - len(text) - 4)}"))
        self.line()

    def say(self, text, start=" ", more=" "):
        """A paragraph, wrapped between columns 2 and WIDTH. start, more: what its first and its other lines begin with."""
        row = start
        for word in text.split():
            if len(visible(row)) + 1 + len(visible(word)) > WIDTH:
                self.line(row)
                row = more
            row += " " + word
        self.line(row)

    def done(self, text):
        self.say(text, f"  {self.style('good', '✓')}", "   ")

    def table(self, head, rows):
        """Columns as wide as their widest cell, two blanks apart."""
        rows = [[str(cell) for cell in row] for row in rows]
        widths = [max(len(visible(row[at])) for row in [head, *rows]) for at in range(len(head))]
        titles = "  ".join(cell.ljust(width) for cell, width in zip(head, widths))
        self.line("  " + self.style("faint", titles.rstrip()))
        for row in rows:
            cells = (cell + " " * (width - len(visible(cell))) for cell, width in zip(row, widths))
            self.line("  " + "  ".join(cells).rstrip())


def visible(text):
    """The text without its colours."""
    return re.sub(r"\033\[[0-9;]*m", "", text)
