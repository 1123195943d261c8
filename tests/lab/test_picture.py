# SPDX-License-Identifier: Apache-2.0
"""The picture of README: what docs/pictures/session draws, and that the one that is there was drawn by it."""

import importlib.machinery
import importlib.util
import xml.etree.ElementTree as ElementTree
from pathlib import Path

REPOSITORY = Path(__file__).resolve().parents[2]
SCRIPT = REPOSITORY / "docs" / "pictures" / "session"
loader = importlib.machinery.SourceFileLoader("session_picture", str(SCRIPT))
picture = importlib.util.module_from_spec(importlib.util.spec_from_loader(loader.name, loader))
loader.exec_module(picture)
TEXT = "{http://www.w3.org/2000/svg}text"


def texts(svg):
    """Place, width and text of each piece; no blank in it is one that browsers put together with others."""
    assert " " not in "".join(each.text for each in ElementTree.fromstring(svg).iter(TEXT))
    return [(float(each.get("x")), int(each.get("y")), float(each.get("textLength")),
             each.text.replace("\u00a0", " "))
            for each in ElementTree.fromstring(svg).iter(TEXT)]


def test_each_line_stands_in_its_row_and_column():
    width = picture.COLUMN
    drawn = texts(picture.svg([("switch#", 'show "a" & <b>', "one\n\n  two\n"), ("", "! a remark", "")]))
    first = picture.MARGIN + picture.FONT
    assert [(text, round((x - picture.MARGIN) / width), (y - first) // picture.ROW) for x, y, _, text in drawn] == [
        ("switch#", 0, 0), (' show "a" & <b>', 7, 0), ("one", 0, 1), ("  two", 0, 3), ("! a remark", 0, 4)]
    assert all(abs(length - len(text) * width) < 0.1 for _, _, length, text in drawn)


def test_long_lines_go_on_in_the_next_row():
    drawn = [text for *_, text in texts(picture.svg([("", "! r", "x" * 170)]))]
    assert drawn == ["! r", "x" * 80, "x" * 80, "x" * 10]


def test_readmes_picture_is_of_these_lines():
    readme = (REPOSITORY / "README.md").read_text()
    assert "docs/images/session.svg" in readme
    drawn = [text.strip() for *_, text in texts((REPOSITORY / "docs/images/session.svg").read_text())]
    places = [drawn.index(line) for line in picture.LINES]
    assert places == sorted(places)
    assert any("has 10.10.0.100 from 192.0.2.11" in text for text in drawn)
