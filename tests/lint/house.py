# SPDX-License-Identifier: Apache-2.0
"""The table of rooms, as the lints read it."""

import dataclasses
from pathlib import Path


PLATFORM = "platform/linux/"


@dataclasses.dataclass
class Room:
    name: str         # the folder, "platform/linux/log"
    rooms: list       # folders of the rooms that it may include
    libraries: list   # "event2/" or "histedit.h": headers of libraries that it may include
    doors: list       # its headers that others may include, ["*"] for all
    text: str         # what is in it, and why it may


def read(root):
    """The rooms by their folder's name. A malformed table raises ValueError, with the line's number."""
    found = {}
    for number, line in enumerate((Path(root) / "tests/lint/rooms").read_text().splitlines(), 1):
        if not line.strip() or line.startswith("#"):
            continue
        fields = [field.strip() for field in line.split("|")]
        if len(fields) != 4:
            raise ValueError(f"tests/lint/rooms:{number}: {len(fields)} columns instead of 4")
        name, includes, doors, text = fields
        words = includes.split()
        room = Room(name, [w for w in words if not w.startswith("<")], [w.strip("<>") for w in words if w.startswith("<")],
                    doors.split(), text)
        if name in found:
            raise ValueError(f"tests/lint/rooms:{number}: {name} is there twice")
        if not text:
            raise ValueError(f"tests/lint/rooms:{number}: {name} has no reason")
        found[name] = room
    for room in found.values():
        room.rooms = [PLATFORM + other if PLATFORM + other in found else other for other in room.rooms]
        for other in room.rooms:
            if other not in found:
                raise ValueError(f"tests/lint/rooms: {room.name} may include {other}, which is no room")
    return found


def room_of(rooms, path):
    """The room that a file of the repository is in, by its path relative to the root; None for no room."""
    folder = Path(path).parent
    for candidate in (folder, *folder.parents):
        if candidate.as_posix() in rooms:
            return rooms[candidate.as_posix()]
    return None


def circle(arrows):
    """A circle of the graph {node: nodes}, as the list of its nodes in order, or None."""
    state = {}

    def walk(node, road):
        state[node] = "open"
        for other in sorted(arrows.get(node, ())):
            if state.get(other) == "open":
                return road[road.index(other):] if other in road else [other]
            if other not in state:
                found = walk(other, [*road, other])
                if found:
                    return found
        state[node] = "done"
        return None

    for node in sorted(arrows):
        if node not in state:
            found = walk(node, [node])
            if found:
                return found
    return None
