# SPDX-License-Identifier: Apache-2.0
"""Plots as SVG, of two kinds: bars in groups, and points in rows.

    bars("Transactions a second", ["1", "64"], {"ravo": [[…], […]], "minimal loop": [[…], […]]})
    points("Waits", ["flood", "dead servers"], {"median": [0.2, 0.3], "p99": [1, 7]}, "ms")

Each returns the whole file as text. A bar stands for the median of its values, with a line from the least to the most.
Colours are told apart in grey too, and everything that is drawn is also written in the table beside the plot.
"""

import math
import statistics
from html import escape

BARS = ("#1f5fa8", "#e0912f", "#7fb2e5", "#8a4b08")
POINTS = ("#8fbdea", "#1f5fa8", "#f2bd74", "#8a4b08")  # two pairs: what is compared with, and what is compared
WIDTH, LEFT, RIGHT, ROW = 800, 330, 90, 26
LONGEST = 42  # letters of a row's name


class Drawing:
    def __init__(self, title, height):
        self.height = height
        size = f'viewBox="0 0 {WIDTH} {height}" width="{WIDTH}" height="{height}"'
        self.parts = [f'<svg xmlns="http://www.w3.org/2000/svg" {size} font-family="sans-serif" font-size="13" '
                      f'role="img" aria-label="{escape(title)}">',
                      f'<rect width="{WIDTH}" height="{height}" fill="white"/>']
        self.text(12, 22, title, weight="bold")

    def text(self, x, y, words, anchor="start", weight="normal"):
        self.parts.append(f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" font-weight="{weight}" fill="#222">'
                          f'{escape(words)}</text>')

    def line(self, x1, y1, x2, y2, colour="#222", width=1.0):
        self.parts.append(f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" stroke="{colour}" '
                          f'stroke-width="{width}"/>')

    def bar(self, x, y, width, height, colour):
        self.parts.append(f'<rect x="{x:.1f}" y="{y:.1f}" width="{max(width, 0.5):.1f}" height="{height}" '
                          f'fill="{colour}"/>')

    def point(self, x, y, colour):
        self.parts.append(f'<circle cx="{x:.1f}" cy="{y:.1f}" r="5" fill="{colour}"/>')

    def legend(self, names, colours, y):
        x = 12
        for name, colour in zip(names, colours):
            self.bar(x, y - 10, 12, 12, colour)
            self.text(x + 17, y, name)
            x += 36 + 7.5 * len(name)

    def whole(self):
        return "\n".join([*self.parts, "</svg>"]) + "\n"


def number(value):
    if value >= 1000:
        return f"{value:,.0f}"
    return f"{value:.3g}"


def bars(title, groups, series, unit=""):
    """series: {name: for each group its values, or None}."""
    most = max(max(values) for every in series.values() for values in every if values)
    height = 70 + len(groups) * (len(series) * 20 + 14)
    drawing = Drawing(title, height)
    drawing.legend(series, BARS, 44)
    scale = (WIDTH - LEFT - RIGHT) / most
    y = 58
    for place, group in enumerate(groups):
        drawing.text(LEFT - 10, y + len(series) * 10 + 4, group, anchor="end")
        for (_, every), colour in zip(series.items(), BARS):
            if values := every[place]:
                middle = statistics.median(values)
                drawing.bar(LEFT, y, middle * scale, 16, colour)
                drawing.line(LEFT + min(values) * scale, y + 8, LEFT + max(values) * scale, y + 8, width=1.5)
                drawing.text(LEFT + max(values) * scale + 6, y + 13, f"{number(middle)}{unit}")
            y += 20
        y += 14
    drawing.line(LEFT, 54, LEFT, y - 8)
    return drawing.whole()


def points(title, rows, series, unit=""):
    """A logarithmic scale. series: {name: the value of each row, or None}."""
    known = [value for values in series.values() for value in values if value is not None and 0 < value < math.inf]
    low, high = math.floor(math.log10(min(known))), math.ceil(math.log10(max(known) * 1.001))
    height = 84 + len(rows) * ROW
    drawing = Drawing(title, height)
    drawing.legend(series, POINTS, 44)

    def place(value):
        return LEFT + (math.log10(min(max(value, 10**low), 10**high)) - low) / (high - low) * (WIDTH - LEFT - RIGHT)

    for power in range(low, high + 1):
        x = place(10**power)
        drawing.line(x, 56, x, height - 24, "#ccc")
        drawing.text(x, height - 8, f"{10**power:g}{unit}", anchor="middle")
    for row, name in enumerate(rows):
        y = 72 + row * ROW
        drawing.text(LEFT - 12, y + 4, name if len(name) <= LONGEST else name[:LONGEST - 1] + "…", anchor="end")
        for (_, values), colour in zip(series.items(), POINTS):
            if values[row] is not None:
                drawing.point(place(values[row]), y, colour)
    return drawing.whole()
