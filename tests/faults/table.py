# SPDX-License-Identifier: Apache-2.0
"""The file that a test shares with the injector in the daemon: see injector.cpp, whose records these are."""

import mmap
import struct

PLACES, HEAD, PLACE = 4096, 56, 80
HEADER = struct.Struct("=IIQ32siI")
RECORD = struct.Struct("=QQ24s32sII")


def text(field):
    return field.split(b"\0", 1)[0].decode()


class Table:
    """order: (module, offset, phase, error) of the one call that is to fail, or nothing, to note calls alone."""

    def __init__(self, path, order=None):
        self.path = path
        module, offset, phase, error = order or ("", 0, 0, 0)
        self.error = error
        path.write_bytes(HEADER.pack(0, phase, offset, module.encode(), error, 0) + bytes(PLACES * PLACE))
        path.chmod(0o666)
        with path.open("r+b") as file:
            self._map = mmap.mmap(file.fileno(), 0)

    def set_phase(self, phase):
        self._map[0:4] = struct.pack("=I", phase)

    @property
    def fired(self):
        return HEADER.unpack_from(self._map)[5] != 0

    def places(self):
        """{(module, offset): (function, calls in the first phase, calls in the second)}"""
        rows = (RECORD.unpack_from(self._map, HEAD + number * PLACE) for number in range(PLACES))
        return {(text(module), offset): (text(function), first, second)
                for key, offset, function, module, first, second in rows if key}
